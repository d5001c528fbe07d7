// Nothing waits for good: transfers whose word got lost go on, and those
// that stand still by the user's hand stop counting as busy.
#include "ZV_SceneFixture.h"
#include "core/ZV_FileShareSession.h"

#include <filesystem>
#include <algorithm>

namespace {

struct StallScene : ZV_Scene
{
    void WaitOut() { ASSERT_TRUE(sim.AdvanceTime(ZV_CLIENT_STALL_MS + 1000)) << sim.GetError(); }
};

} // namespace

TEST_F(StallScene, AnUploadStartedAgainOrResumedAfterItEndedEndsWithoutAnError)
{
    Build();
    const uint16_t usFileID = Share("done.bin", ZV_RandomBytes(70000, 1));
    for (bool bResume : {false, true})
    {
        ASSERT_EQ(0u, bResume ? Fs(Alice())->FsResumeUpload(usFileID) : Fs(Alice())->FsUpload(usFileID));
        ASSERT_TRUE(sim.Run()) << sim.GetError();
        if (!bResume)
        {
            EXPECT_TRUE(IsBusy(Alice()));
        }
        WaitOut();
        EXPECT_FALSE(IsBusy(Alice())) << bResume;
    }
    EXPECT_TRUE(Events(Alice(), zvFsEventTransferError).empty());
    ZV_FileUploadInfo row;
    ASSERT_TRUE(Row(shape.Server(), usFileID, row));
    EXPECT_EQ(zvFileStateComplete, row.m_BriefInfo.m_usFileState);
}

TEST_F(StallScene, AResumeOfADownloadNeverAskedOrOfAHiddenFileStopsCountingAsBusy)
{
    Build();
    const uint16_t usFileID = Share("some.bin", ZV_RandomBytes(200000, 2));
    ASSERT_EQ(0u, Fs(Bob())->FsResumeDownload(usFileID));
    EXPECT_TRUE(IsBusy(Bob()));
    WaitOut();
    EXPECT_FALSE(IsBusy(Bob()));

    ASSERT_EQ(0u, Download(Bob(), usFileID));
    ASSERT_TRUE(StepUntilDelivered(PDU_CONF_FS_DOWNLOAD_DATA_RESPONSE, Bob(), 2));
    ASSERT_EQ(0u, Fs(Alice())->FsSetRight(usFileID, 0, nullptr, 0, nullptr, 0));
    ASSERT_TRUE(sim.Run()) << sim.GetError();
    ASSERT_EQ(0u, Fs(Bob())->FsResumeDownload(usFileID));
    WaitOut();
    EXPECT_FALSE(IsBusy(Bob()));
    EXPECT_FALSE(std::filesystem::exists(Target(Bob(), usFileID)));
}

// The timer: a client is busy (3012 with 1) while a transfer runs or a
// download stands stopped, idle (0) once none does; a server wakes a
// stalled uploader.
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
}

// Blocks arrive 1 ms before a slot, so the first slot more than 20 s after
// the last comes exactly 20001 ms later.
TEST_F(TimerScene, AServerWakesAStalledUploaderOnItsFirstSlotMoreThan20SecondsAfterTheLastBlock)
{
    Build();
    const uint16_t usFileID = Share("stalled.bin", ZV_RandomBytes(10 * 32768, 4), false);
    ASSERT_TRUE(sim.AdvanceTime(499)) << sim.GetError();
    ASSERT_EQ(0u, Fs(Alice())->FsUpload(usFileID));
    ASSERT_TRUE(StepUntilDelivered(PDU_CONF_FS_UPLOAD_REQUEST, shape.Server(), 3));
    ASSERT_TRUE(sim.Cut(sim.GetClientLink(Alice()), zvConfClientTypeData));
    ASSERT_TRUE(sim.Run()) << sim.GetError();
    const auto vecBlocks = sim.Journal().PdusTo(PDU_CONF_FS_UPLOAD_REQUEST, shape.Server()->GetName());
    const ZV_SimFilter wake{.usNumber = PDU_CONF_FS_UPLOAD_RESPONSE, .sPeer = Alice()->GetName(),
                            .nFrom = sim.Journal().Size()};
    ASSERT_TRUE(sim.AdvanceTime(25000)) << sim.GetError();
    const auto vecWake = sim.Journal().Find(wake);
    ASSERT_EQ(1u, vecWake.size());
    EXPECT_EQ(20001u, vecWake[0].ulTick - vecBlocks.back().ulTick);
}
