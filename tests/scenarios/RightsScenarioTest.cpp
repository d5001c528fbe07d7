// Rights: the creator changes who may have one file or several, every server
// applies it, a user who loses a file loses a partial download with it.
#include "ZV_SceneFixture.h"

#include <filesystem>

namespace {

struct RightsScene : public ZV_Scene
{
    // The number of the node's first event at or after journal index nFrom.
    uint16_t FirstEventSince(ZV_SimHost* lpNode, size_t nFrom)
    {
        const auto vecEvents = Find({.eKind = ZV_SimEntryKind::Event, .sNode = lpNode->GetName(), .nFrom = nFrom});
        return vecEvents.empty() ? 0 : vecEvents.front().usNumber;
    }
};

} // namespace

// Alice narrows a public file to Carol (second server) while Bob is halfway:
// Bob hears 3004 first, his partial file goes and nothing more reaches him;
// Carol hears 3003; Dave, finished, hears 3004 and keeps his file.
TEST_F(RightsScene, ANarrowedFileLeavesTheLoserInTheMiddleOfHisDownloadAndOpensToTheNamedUser)
{
    Build(true);
    ZV_SimHost* lpCarol = shape.Client(2);
    ZV_SimHost* lpDave = shape.Client(3);
    const ZV_Bytes data = ZV_RandomBytes(3 * 1024 * 1024, 21);
    const uint16_t usFileID = Share("narrow.bin", data);
    ASSERT_EQ(0u, Download(lpDave, usFileID));
    ASSERT_TRUE(sim.AdvanceTime(1000)) << sim.GetError();
    ASSERT_EQ(0u, Download(Bob(), usFileID));
    ASSERT_TRUE(StepUntilDelivered(PDU_CONF_FS_DOWNLOAD_DATA_RESPONSE, Bob(), 6));
    ASSERT_TRUE(std::filesystem::exists(Target(Bob(), usFileID)));

    const QB_UserID carol = lpCarol->GetUserID();
    ASSERT_EQ(0u, Fs(Alice())->FsSetRight(usFileID, 0, &carol, 1, nullptr, 0));
    // The step that hands Bob the new description raises 3004 first.
    const ZV_SimFilter filter{.usNumber = PDU_CONF_FS_SET_RIGHT_RESPONSE, .sPeer = Bob()->GetName(),
                              .eFate = ZV_SimFate::Delivered};
    size_t nMark = sim.Journal().Size();
    while (sim.Journal().Find(filter).empty())
    {
        nMark = sim.Journal().Size();
        ASSERT_TRUE(sim.Step());
    }
    EXPECT_EQ(zvFsEventFileHidden, FirstEventSince(Bob(), nMark));
    ASSERT_TRUE(sim.AdvanceTime(1000)) << sim.GetError();
    // From here on no block may reach Bob, even once the file is public again.
    const ZV_SimFilter blocks{.usNumber = PDU_CONF_FS_DOWNLOAD_DATA_RESPONSE, .sPeer = Bob()->GetName(),
                              .nFrom = sim.Journal().Size()};

    EXPECT_EQ(0u, LastResult(Bob(), zvFsEventFileHidden));
    EXPECT_TRUE(Events(Bob(), zvFsEventRightChanged).empty());
    EXPECT_FALSE(std::filesystem::exists(Target(Bob(), usFileID)));
    EXPECT_TRUE(Events(Bob(), zvFsEventDownloadFinished).empty());
    EXPECT_LT(ZV_FileShareMgrPeer::BusyFileIDs(*Manager(Bob())).Find(usFileID), 0) << "nothing left to wait for";
    EXPECT_EQ(1u, Events(lpCarol, zvFsEventRightChanged).size());
    EXPECT_EQ(1u, Events(Alice(), zvFsEventRightChanged).size()) << "the creator keeps the file in view";
    EXPECT_TRUE(Events(Alice(), zvFsEventFileHidden).empty());
    EXPECT_TRUE(Events(lpDave, zvFsEventRightChanged).empty());
    EXPECT_EQ(1u, Events(lpDave, zvFsEventFileHidden).size());
    EXPECT_EQ(data, QB_ReadWholeFile(Target(lpDave, usFileID))) << "a finished download is his to keep";
    EXPECT_EQ(1u, sim.Journal().PdusTo(PDU_CONF_FS_SET_RIGHT_REQUEST, shape.Server(1)->GetName()).size());

    ASSERT_EQ(0u, Download(lpCarol, usFileID));
    ASSERT_EQ(0u, Download(lpDave, usFileID));
    ASSERT_TRUE(sim.AdvanceTime(1000)) << sim.GetError();
    EXPECT_EQ(data, QB_ReadWholeFile(Target(lpCarol, usFileID)));
    EXPECT_EQ(40u, LastResult(lpDave, zvFsEventDownloadState));
    EXPECT_EQ(data, QB_ReadWholeFile(Target(lpDave, usFileID)));

    // Made public again, Bob sees it once more; public to public tells
    // nobody anything.
    ASSERT_EQ(0u, Fs(Alice())->FsSetRight(usFileID, 1, nullptr, 0, nullptr, 0));
    ASSERT_TRUE(sim.Run()) << sim.GetError();
    EXPECT_EQ(1u, Events(Bob(), zvFsEventRightChanged).size());
    ASSERT_TRUE(sim.AdvanceTime(1000)) << sim.GetError();
    EXPECT_FALSE(std::filesystem::exists(Target(Bob(), usFileID))) << "his download went with the right";
    EXPECT_TRUE(sim.Journal().Find(blocks).empty());
    ASSERT_EQ(0u, Download(Bob(), usFileID));
    ASSERT_TRUE(sim.AdvanceTime(1000)) << sim.GetError();
    EXPECT_EQ(data, QB_ReadWholeFile(Target(Bob(), usFileID))) << "asked for anew, it comes whole";
    const size_t nQuiet = sim.Journal().Events(zvFsEventRightChanged).size();
    ASSERT_EQ(0u, Fs(Alice())->FsSetRight(usFileID, 1, &carol, 1, nullptr, 0));
    ASSERT_TRUE(sim.Run()) << sim.GetError();
    EXPECT_EQ(nQuiet, sim.Journal().Events(zvFsEventRightChanged).size());

    // Carol, first and only of the named, loses the file when her name goes.
    ASSERT_EQ(0u, Fs(Alice())->FsSetRight(usFileID, 0, &carol, 1, nullptr, 0));
    ASSERT_TRUE(sim.Run()) << sim.GetError();
    EXPECT_TRUE(Events(lpCarol, zvFsEventFileHidden).empty());
    ASSERT_EQ(0u, Fs(Alice())->FsSetRight(usFileID, 0, nullptr, 0, &carol, 1));
    ASSERT_TRUE(sim.Run()) << sim.GetError();
    EXPECT_EQ(1u, Events(lpCarol, zvFsEventFileHidden).size());
    EXPECT_EQ(data, QB_ReadWholeFile(Target(lpCarol, usFileID))) << "finished, so hers to keep";
}

// Only the creator changes rights (others hear 3004 with 40); a batch is
// taken or refused whole, and an accepted one reaches every server.
TEST_F(RightsScene, OnlyTheCreatorChangesRightsAndABatchIsTakenOrRefusedWhole)
{
    Build(true);
    ZV_SimHost* lpCarol = shape.Client(2);
    const uint16_t usOne = Share("one.bin", ZV_RandomBytes(1000, 23));
    const uint16_t usTwo = Share("two.bin", ZV_RandomBytes(1000, 24));
    const QB_UserID bob = Bob()->GetUserID();

    EXPECT_EQ(0u, Fs(Bob())->FsSetRight(usOne, 0, &bob, 1, nullptr, 0));
    ASSERT_TRUE(sim.Run()) << sim.GetError();
    EXPECT_EQ(40u, LastResult(Bob(), zvFsEventFileHidden));
    EXPECT_TRUE(Events(Alice(), zvFsEventFileHidden).empty());
    EXPECT_TRUE(sim.Journal().Pdus(PDU_CONF_FS_SET_RIGHT_RESPONSE, shape.Server(1)->GetName()).empty());

    ZV_SimLink* lpLink = sim.GetClientLink(Alice());
    ASSERT_TRUE(sim.Cut(lpLink, zvConfClientTypeCommand));
    size_t nMark = sim.Journal().Size();
    EXPECT_EQ(16u, Fs(Alice())->FsSetRight(usOne, 0, nullptr, 0, nullptr, 0));
    const uint16_t aBoth[] = {usOne, usTwo};
    EXPECT_EQ(16u, Fs(Alice())->FsSetFilesRight(aBoth, 2, 0, nullptr, 0, nullptr, 0));
    ASSERT_TRUE(sim.Restore(lpLink, zvConfClientTypeCommand));
    const uint16_t aUnknown[] = {usOne, 999};
    EXPECT_EQ(82u, Fs(Alice())->FsSetFilesRight(aUnknown, 2, 0, nullptr, 0, nullptr, 0));
    ASSERT_TRUE(sim.Run()) << sim.GetError();
    EXPECT_TRUE(Find({.eKind = ZV_SimEntryKind::Pdu, .sNode = Alice()->GetName(), .nFrom = nMark}).empty())
        << "nothing was sent";

    // Bob's batch over Alice's files is refused with 40 and goes no further.
    const uint16_t usBobs = ShareBy(Bob(), "b.bin", ZV_RandomBytes(10, 25));
    ASSERT_NE(0xFFFF, usBobs);
    const uint16_t aForeign[] = {usOne, usBobs};
    EXPECT_EQ(0u, Fs(Bob())->FsSetFilesRight(aForeign, 2, 0, nullptr, 0, nullptr, 0));
    ASSERT_TRUE(sim.Run()) << sim.GetError();
    EXPECT_TRUE(sim.Journal().PdusTo(PDU_CONF_FS_SET_FILES_RIGHT_REQUEST, shape.Server(1)->GetName()).empty());
    EXPECT_EQ(1u, sim.Journal().PdusTo(PDU_CONF_FS_SET_FILES_RIGHT_RESPONSE, Bob()->GetName()).size());
    EXPECT_TRUE(Events(lpCarol, zvFsEventFileHidden).empty());

    // Alice's batch narrows both files to Bob: Carol, on the other server,
    // loses both; Bob is told of both.
    nMark = sim.Journal().Size();
    EXPECT_EQ(0u, Fs(Alice())->FsSetFilesRight(aBoth, 2, 0, &bob, 1, nullptr, 0));
    for (uint16_t usFileID : aBoth)
    {
        ZV_FileShareSession* lpOwn = nullptr;
        ZV_FileShareMgrPeer::Sessions(*Manager(Alice())).Lookup(usFileID, lpOwn);
        ASSERT_NE(nullptr, lpOwn);
        EXPECT_FALSE(lpOwn->BriefInfo().m_bPublic) << "Alice's own view changes as the request leaves";
        EXPECT_GE(lpOwn->BriefInfo().m_arrRight.Find(bob), 0);
    }
    ASSERT_TRUE(sim.Run()) << sim.GetError();
    EXPECT_EQ(1u, sim.Journal().PdusTo(PDU_CONF_FS_SET_FILES_RIGHT_REQUEST, shape.Server(1)->GetName()).size());
    EXPECT_EQ(2u, Events(lpCarol, zvFsEventFileHidden).size());
    EXPECT_EQ(2u, Events(Bob(), zvFsEventRightChanged).size());
}
