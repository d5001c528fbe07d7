// What a user side is told of transfers: whether its client is busy (3012),
// and uploads asked again after they ended.
#include "ZV_SceneFixture.h"

#include <algorithm>

// A client is busy (3012 with 1) while a transfer runs or a download stands
// stopped, idle (0) once none does.
struct TimerScene : public ZV_Scene
{
    // The bBusy of every event 3012 that lpClient raised while the clock
    // went on by ulMs.
    std::vector<uint8_t> BusyDuring(ZV_SimHost* lpClient, uint32_t ulMs)
    {
        const ZV_SimFilter filter{.eKind = ZV_SimEntryKind::Event, .usNumber = zvFsEventBusy,
                                  .sNode = lpClient->GetName(), .nFrom = sim.Journal().Size()};
        EXPECT_TRUE(sim.AdvanceTime(ulMs)) << sim.GetError();
        std::vector<uint8_t> vecBusy;
        for (const ZV_SimEntry& event : sim.Journal().Find(filter))
            vecBusy.push_back(event.vbData.at(6));
        return vecBusy;
    }
    static bool All(const std::vector<uint8_t>& vecBusy, uint8_t bBusy)
    {
        return !vecBusy.empty() && std::count(vecBusy.begin(), vecBusy.end(), bBusy) == (long)vecBusy.size();
    }
};

TEST_F(TimerScene, ATransferIsBusyWhileItRunsOrItsDownloadStandsStoppedAndIdleOnceItEnds)
{
    Build();
    const ZV_Bytes data = ZV_RandomBytes(40 * 32768 + 3, 7);
    const uint16_t usFileID = Share("song.bin", data, false);
    EXPECT_TRUE(All(BusyDuring(Alice(), 16000), 0)) << "an added file that nobody moves keeps Alice idle";

    ASSERT_EQ(0u, Download(Bob(), usFileID));
    ASSERT_TRUE(StepUntilDelivered(PDU_CONF_FS_DOWNLOAD_DATA_RESPONSE, Bob(), 2));
    ASSERT_EQ(0u, Fs(Alice())->FsStopUpload(usFileID));
    ASSERT_EQ(0u, Fs(Bob())->FsStopDownload(usFileID));
    EXPECT_TRUE(All(BusyDuring(Bob(), 1000), 1)) << "a stopped download still counts";
    EXPECT_TRUE(All(BusyDuring(Alice(), 16000), 0)) << "a stopped upload is no work";

    // With her data link down, Alice's resumed upload waits, and is work.
    ZV_SimLink* lpAliceLink = sim.GetClientLink(Alice());
    ASSERT_TRUE(sim.Cut(lpAliceLink, zvConfClientTypeData));
    ASSERT_EQ(0u, Fs(Alice())->FsResumeUpload(usFileID));
    ASSERT_EQ(0u, Fs(Bob())->FsResumeDownload(usFileID));
    EXPECT_TRUE(All(BusyDuring(Alice(), 16000), 1));
    EXPECT_TRUE(All(BusyDuring(Bob(), 16000), 1));

    ASSERT_TRUE(sim.Restore(lpAliceLink, zvConfClientTypeData));
    ASSERT_TRUE(sim.Run()) << sim.GetError();
    ASSERT_EQ(data, QB_ReadWholeFile(Target(Bob(), usFileID)));
    // The end of each transfer takes it off at once, not on a later timeout.
    for (ZV_SimHost* lpClient : {Alice(), Bob()})
    {
        const std::vector<uint8_t> vecBusy = BusyDuring(lpClient, 2000);
        EXPECT_EQ(0, std::count(vecBusy.begin(), vecBusy.end(), 1)) << lpClient->GetName();
        EXPECT_TRUE(All(BusyDuring(lpClient, 16000), 0)) << lpClient->GetName();
    }

    // Uploaded again while its data link is down, stopped and resumed once the link is back, the whole file
    // has nothing to send: after the wait it is over, without an error.
    ASSERT_TRUE(sim.Cut(lpAliceLink, zvConfClientTypeData));
    ASSERT_EQ(0u, Fs(Alice())->FsUpload(usFileID));
    EXPECT_TRUE(IsBusy(Alice())) << "an upload asked is work until it ends";
    ASSERT_EQ(0u, Fs(Alice())->FsStopUpload(usFileID));
    ASSERT_TRUE(sim.Run() && sim.Restore(lpAliceLink, zvConfClientTypeData) && sim.Run()) << sim.GetError();
    ASSERT_EQ(0u, Fs(Alice())->FsResumeUpload(usFileID));
    ASSERT_TRUE(sim.AdvanceTime(60000)) << sim.GetError();
    EXPECT_FALSE(IsBusy(Alice()));
    EXPECT_EQ(zvFileStateComplete, Session(Alice(), usFileID)->BriefInfo().m_usFileState);
    EXPECT_TRUE(Events(Alice(), zvFsEventTransferError).empty());
}
