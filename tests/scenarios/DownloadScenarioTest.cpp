// Files around the block edges: every block goes once, is read and written
// where it lies, and lands byte for byte.
#include "ZV_SceneFixture.h"

using DownloadScene = ZV_Scene;

TEST_F(DownloadScene, EveryFileAroundTheBlockEdgesArrivesByteIdenticalInTheStoreAndOnTheDownloadersDisk)
{
    Build(false);
    sim.GetEnv().ResetCounts();
    const size_t aSizes[] = {0, 1, 32767, 32768, 32769, 98304, 98305, 3 * 1024 * 1024 + 7};
    std::vector<uint16_t> vecIDs;
    for (size_t nSize : aSizes)
    {
        vecIDs.push_back(Share(std::to_string(nSize) + ".bin", ZV_RandomBytes(nSize, (unsigned)nSize), false));
        EXPECT_EQ(0u, Fs(Alice())->FsUpload(vecIDs.back())) << nSize;
    }
    ASSERT_TRUE(sim.Run()) << sim.GetError();
    EXPECT_FALSE(IsBusy(Alice())) << "the empty file too is whole at once for its creator";
    // Nothing was lost: each block went once and none was asked for again.
    EXPECT_TRUE(sim.Journal().PdusTo(PDU_CONF_FS_UPLOAD_RESPONSE, Alice()->GetName()).empty());
    EXPECT_EQ(1u + 1u + 1u + 1u + 2u + 3u + 4u + 97u + std::size(aSizes),
              sim.Journal().Pdus(PDU_CONF_FS_UPLOAD_REQUEST, Alice()->GetName()).size());
    for (uint16_t usFileID : vecIDs)
        EXPECT_EQ(0u, Download(Bob(), usFileID)) << usFileID;
    ASSERT_TRUE(sim.AdvanceTime(1000)) << sim.GetError();
    // Every block is read and written where it lies; a new file is not cut.
    EXPECT_EQ(0, sim.GetEnv().GetCount(QB_EnvOp::Seek));
    EXPECT_EQ(0, sim.GetEnv().GetCount(QB_EnvOp::SetEnd));

    for (size_t i = 0; i < std::size(aSizes); ++i)
    {
        const ZV_Bytes data = ZV_RandomBytes(aSizes[i], (unsigned)aSizes[i]);
        ZV_FileUploadInfo row;
        ASSERT_TRUE(Row(shape.Server(), vecIDs[i], row)) << aSizes[i];
        EXPECT_EQ(data, QB_ReadWholeFile(Stored(shape.Server(), row))) << aSizes[i] << " bytes";
        EXPECT_EQ(3u, row.m_BriefInfo.m_usFileState) << aSizes[i];
        EXPECT_EQ(aSizes[i], row.m_ulFileWritePos) << aSizes[i];
        EXPECT_TRUE(std::filesystem::exists(Target(Bob(), vecIDs[i]))) << aSizes[i];
        EXPECT_EQ(data, QB_ReadWholeFile(Target(Bob(), vecIDs[i]))) << aSizes[i] << " bytes";
    }
    // An empty file has no block to send: it is made, and is whole at once.
    EXPECT_EQ(std::size(aSizes), Events(Bob(), zvFsEventDownloadFinished).size());
    EXPECT_FALSE(IsBusy(Bob()));
    for (const auto& event : Events(Bob(), zvFsEventDownloadState))
        EXPECT_EQ(0u, ZV_ResultOf(event));
    for (ZV_SimHost* lpClient : shape.vecClients)
        EXPECT_TRUE(Events(lpClient, zvFsEventTransferError).empty()) << lpClient->GetName();
}
