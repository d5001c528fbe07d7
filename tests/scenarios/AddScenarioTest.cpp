// Sharing files: refusals, which FileID is given.
#include "ZV_FileShareMgrPeer.h"
#include "ZV_SceneFixture.h"

using AddScene = ZV_Scene;

TEST_F(AddScene, RefusesWithTheRightCodeAndCreatesNothing)
{
    sim.SetFileIDRange(1, 1, 1);
    Build();
    EXPECT_EQ(zvResultCannotOpen, Fs(Alice())->FsAdd(u"/no/such/file.txt", nullptr, 0, 1, 0));

    sim.GetEnv().FailAt(QB_EnvOp::MakeFolder, 1, true);
    Share("a.txt", {1}, false);
    sim.GetEnv().ClearFaults();
    EXPECT_EQ(zvResultCannotOpen, LastResult(Alice(), zvFsEventFileAdded));
    EXPECT_EQ(0, ZV_FileShareMgrPeer::Sessions(*Manager(shape.Server())).GetCount());

    EXPECT_EQ(1u, Share("a.txt", {1}, false)) << "the only FileID, freed by the refusal";
    Share("a.txt", {1}, false);
    EXPECT_EQ(zvResultNoFileID, LastResult(Alice(), zvFsEventFileAdded));
    EXPECT_EQ(1u, Events(Bob(), zvFsEventFileAdded).size()) << "a refusal goes to the requester alone";
    EXPECT_EQ(1u, StoreCount(shape.Server()));

    ZV_SimUser alice = Alice()->GetUserRecord();
    alice.bCanShare = false;
    sim.GetUsers(ZV_SimBuilder::kConfID).Put(alice);
    Share("a.txt", {1}, false);
    EXPECT_EQ(zvResultNotEntitled, LastResult(Alice(), zvFsEventFileAdded));

    sim.GetUsers(ZV_SimBuilder::kConfID).Remove(alice.id);
    EXPECT_EQ(zvResultNotInConf, Fs(Alice())->FsAdd(ZV_Wide(tmp.Sub("alice/a.txt")).c_str(), nullptr, 0, 1, 0));
}

// A FileID still catalogued, or deleted (the delete may have to reach a
// server that was away), is given again only when no other is free.
TEST_F(AddScene, AFileIDOfADeletedOrCataloguedFileIsGivenOnlyWhenNoOtherIsFree)
{
    sim.SetFileIDRange(1, 1, 3);
    Build();
    ASSERT_EQ(1, Share("kept.bin", {1, 2, 3}));
    ASSERT_TRUE(sim.RestartServer(shape.Server()));
    ASSERT_TRUE(sim.Run()) << sim.GetError();
    EXPECT_EQ(2, Share("second.bin", {4})) << "the catalogued 1 stays";
    ShareBy(Bob(), "later.bin", ZV_Bytes(5000, 1), false);
    ASSERT_EQ(0u, Fs(Alice())->FsDelUpload(2));
    ASSERT_TRUE(sim.Leave(Bob()));
    ASSERT_TRUE(sim.Run()) << sim.GetError();
    EXPECT_EQ(3, Share("fourth.bin", {7})) << "Bob's 3 went with him; the deleted 2 waits";
    EXPECT_EQ(2, Share("fifth.bin", {8})) << "only the deleted one is left";
    EXPECT_EQ(0xFFFF, Share("sixth.bin", {9}));
    ZV_FileUploadInfo row;
    ASSERT_TRUE(Row(shape.Server(), 1, row));
    EXPECT_EQ(QB_StringU8("kept.bin"), row.m_BriefInfo.m_sFileOldName);
}

// Uploads against a server whose catalogue saves fail.
using UploadScene = ZV_Scene;

// A failed catalogue save is never taken for a success: the add is refused
// (61) leaving nothing stored, an upload's row is saved on the timer.
TEST_F(UploadScene, AFailedCatalogueSaveRefusesTheAddOrIsMadeGoodOnTheTimer)
{
    Build();
    const ZV_Bytes data = ZV_RandomBytes(1000, 3);
    const uint16_t usFirst = Share("first.bin", data);
    sim.GetEnv().FailAt(QB_EnvOp::Sync, 1, true);
    Share("second.bin", data);
    sim.GetEnv().ClearFaults();
    EXPECT_EQ(zvResultCannotAccess, LastResult(Alice(), zvFsEventFileAdded));
    EXPECT_EQ(1, ZV_FileShareMgrPeer::Sessions(*Manager(shape.Server())).GetCount());
    EXPECT_EQ(1u, StoreCount(shape.Server()));

    const uint16_t usThird = Share("third.bin", data, false);
    // The first block's save goes out; the last one's does not.
    sim.GetEnv().FailAt(QB_EnvOp::Write, 3, true);
    EXPECT_EQ(0u, Fs(Alice())->FsUpload(usThird));
    ASSERT_TRUE(sim.Run()) << sim.GetError();
    sim.GetEnv().ClearFaults();
    auto OnDisk = [&](uint16_t usFileID) {
        ZV_SimHost::PointHome(shape.Server()->GetHome());
        ZV_FileCatalog catalog;
        catalog.Open();
        ZV_FileUploadInfo row;
        QB_StringW sSection;
        return catalog.LoadFile(ZV_SimBuilder::kConfID, usFileID, row, sSection) ? row.m_BriefInfo.m_usFileState
                                                                                  : 0xFFFF;
    };
    EXPECT_EQ(3, OnDisk(usFirst));
    EXPECT_EQ(1, OnDisk(usThird));
    ASSERT_TRUE(sim.AdvanceTime(5000)) << sim.GetError();
    EXPECT_EQ(3, OnDisk(usThird));
    EXPECT_EQ(0xFFFF, OnDisk(usFirst + 1)) << "the refused add left no row";
}
