// Uploads against a server made again midway, or whose saves fail.
#include "ZV_FileShareMgrPeer.h"
#include "ZV_SceneFixture.h"

using UploadScene = ZV_Scene;

TEST_F(UploadScene, AServerMadeAgainMidwayOrAtTheEndFindsWhatItsCatalogueLastSaid)
{
    Build();
    const ZV_Bytes data = ZV_RandomBytes(10 * 32768 + 5, 2);
    const uint16_t usFirst = Share("first.bin", data, false);
    EXPECT_EQ(0u, Fs(Alice())->FsUpload(usFirst));
    ASSERT_TRUE(sim.Run()) << sim.GetError();
    const uint16_t usSecond = Share("second.bin", data, false);
    EXPECT_EQ(0u, Fs(Alice())->FsUpload(usSecond));
    // The start marker and three blocks of the second file have arrived.
    ASSERT_TRUE(StepUntilDelivered(PDU_CONF_FS_UPLOAD_REQUEST, shape.Server(), 12 + 4));
    ZV_SimModuleApi api = ZV_SimModuleApi::Linked();
    shape.Server()->Stop(api);
    ASSERT_TRUE(shape.Server()->Start(api));
    ASSERT_TRUE(sim.Run()) << sim.GetError();

    // The second file's row was saved when its first block opened the store.
    struct { uint16_t usFileID; uint16_t usState; uint32_t ulWritePos; size_t nOnDisk; } aRows[] = {
        {usFirst, 3, (uint32_t)data.size(), data.size()}, {usSecond, 1, 0, 32768}};
    for (const auto& r : aRows)
    {
        ZV_FileUploadInfo row;
        ASSERT_TRUE(Row(shape.Server(), r.usFileID, row)) << r.usFileID;
        EXPECT_EQ(r.usState, row.m_BriefInfo.m_usFileState) << r.usFileID;
        EXPECT_EQ(r.ulWritePos, row.m_ulFileWritePos) << r.usFileID;
        // The disk may hold more than the row says; what it holds is the file's start.
        const ZV_Bytes stored = QB_ReadWholeFile(Stored(shape.Server(), row));
        EXPECT_GE(stored.size(), r.nOnDisk) << r.usFileID;
        EXPECT_TRUE(std::equal(stored.begin(), stored.end(), data.begin())) << r.usFileID;
    }
}

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
    EXPECT_EQ(zvResultCannotAccess, ZV_ResultOf(Events(Alice(), zvFsEventFileAdded).back()));
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
