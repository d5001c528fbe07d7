// What each user is told of a file, where the random conferences' check of
// every user's view does not look: the order of the states told, a creator
// left idle, a FileID given out again.
#include "ZV_SceneFixture.h"

#include "core/ZV_FileShareSession.h"

namespace {

struct ViewScene : public ZV_Scene
{
    uint16_t ShareOwn(const std::string& sName, size_t nSize, bool bPublic, bool bStart = true)
    {
        return ShareBy(Alice(), sName, ZV_RandomBytes(nSize, 7), bStart, bPublic);
    }
    // Events of the node that name the FileID right behind their result
    // (all but 3011, 3012 and 3013).
    size_t EventsAbout(ZV_SimHost* lpNode, uint16_t usFileID, uint16_t usEvent)
    {
        const auto vecEvents = Events(lpNode, usEvent);
        return (size_t)std::count_if(vecEvents.begin(), vecEvents.end(),
                                     [&](const ZV_SimEntry& event) { return ZV_FileIDOf(event) == usFileID; });
    }
    // The upload states 3011 told the node of the file, in order.
    std::vector<uint16_t> UploadStates(ZV_SimHost* lpNode, uint16_t usFileID)
    {
        std::vector<uint16_t> vecState;
        for (const ZV_SimEntry& event : Events(lpNode, zvFsEventTransferState))
        {
            QB_ByteStream stream(event.vbData.data(), (int32_t)event.vbData.size());
            stream.Skip(6);
            const uint8_t bUpload = stream.ReadU8();
            const uint16_t usTold = stream.ReadU16();
            const uint16_t usState = stream.ReadU16();
            if (bUpload && usTold == usFileID)
                vecState.push_back(usState);
        }
        return vecState;
    }
};

} // namespace

// Each server's clients are told its copy of a file began and is whole; an
// empty file nobody uploads is whole at the server's first look.
TEST_F(ViewScene, EveryServerTellsItsClientsWhenItsCopyOfAFileBeginsAndIsWhole)
{
    Build(true);
    ZV_SimHost* lpCarol = shape.Client(2);
    const uint16_t usFileID = ShareOwn("relayed.bin", 100000, true);
    const uint16_t usEmpty = ShareOwn("empty.bin", 0, true, false);
    ASSERT_TRUE(sim.AdvanceTime(30000)) << sim.GetError();

    EXPECT_EQ(std::vector<uint16_t>({zvFileStateUploading, zvFileStateComplete}), UploadStates(Bob(), usFileID));
    EXPECT_EQ(std::vector<uint16_t>({zvFileStateUploading, zvFileStateComplete}), UploadStates(lpCarol, usFileID));
    ASSERT_FALSE(UploadStates(Bob(), usEmpty).empty());
    EXPECT_EQ(zvFileStateComplete, UploadStates(Bob(), usEmpty).back());
}

// Uploading a whole file again with the data link down, then stopping and
// resuming it, leaves Alice idle.
TEST_F(ViewScene, UploadingAWholeFileAgainLeavesTheCreatorIdle)
{
    Build();
    const uint16_t usFileID = ShareOwn("done.bin", 40000, true);
    ASSERT_TRUE(sim.AdvanceTime(1000)) << sim.GetError();
    ZV_SimLink* lpLink = sim.GetClientLink(Alice());
    ASSERT_TRUE(sim.Cut(lpLink, zvConfClientTypeData));
    ASSERT_EQ(0u, Fs(Alice())->FsUpload(usFileID));
    ASSERT_EQ(0u, Fs(Alice())->FsStopUpload(usFileID));
    ASSERT_TRUE(sim.Run() && sim.Restore(lpLink, zvConfClientTypeData) && sim.Run()) << sim.GetError();
    ASSERT_EQ(0u, Fs(Alice())->FsResumeUpload(usFileID));
    ASSERT_TRUE(sim.AdvanceTime(60000)) << sim.GetError();

    EXPECT_EQ(0, ZV_FileShareMgrPeer::BusyFileIDs(*Manager(Alice())).GetSize());
    EXPECT_EQ(zvFileStateComplete, Session(Alice(), usFileID)->BriefInfo().m_usFileState);
}

// A FileID deleted and given to a new file while server 2 was cut off names
// the new file everywhere once the link returns; Carol hears the old went.
TEST_F(ViewScene, AFileIDGivenOutAgainWhileAServerWasAwayNamesTheNewFileEverywhere)
{
    sim.SetFileIDRange(1, 1, 1);
    Build(true);
    ZV_SimHost* lpCarol = shape.Client(2);
    const uint16_t usOld = ShareOwn("old.bin", 1000, true);
    ZV_SimLink* lpLink = sim.GetServerLink(1, 2);
    ASSERT_TRUE(sim.CutLink(lpLink));
    ASSERT_EQ(0u, Fs(Alice())->FsDelUpload(usOld));
    ASSERT_TRUE(sim.Run()) << sim.GetError();
    const uint16_t usNew = ShareOwn("new.bin", 2000, true);
    ASSERT_EQ(usOld, usNew);
    ASSERT_TRUE(sim.RestoreLink(lpLink) && sim.AdvanceTime(30000)) << sim.GetError();

    for (int n = 0; n < 2; ++n)
    {
        ZV_FileShareSession* lpFsSession = Session(shape.Server(n), usNew);
        ASSERT_NE(nullptr, lpFsSession) << "server " << n + 1;
        EXPECT_EQ("new.bin", std::string(lpFsSession->FileInfo().m_BriefInfo.m_sFileOldName.GetString()))
            << "server " << n + 1;
    }
    ASSERT_NE(nullptr, Session(lpCarol, usNew));
    EXPECT_EQ("new.bin", std::string(Session(lpCarol, usNew)->BriefInfo().m_sFileOldName.GetString()));
    EXPECT_EQ(1u, EventsAbout(lpCarol, usOld, zvFsEventFileGone));
}
