// Uploads through whole simulated conferences: Alice shares and uploads,
// and the server's store, its catalogue and the journal say how it went.
#include "ZV_SceneFixture.h"

namespace {

using UploadScene = ZV_Scene;

// Shares `data` without starting, then starts it with FsUpload.
uint16_t ShareAndUpload(ZV_Scene& scene, const std::string& sName, const ZV_Bytes& data)
{
    const uint16_t usFileID = scene.Share(sName, data, false);
    EXPECT_EQ(0u, scene.Fs(scene.Alice())->FsUpload(usFileID)) << sName;
    return usFileID;
}

} // namespace

TEST_F(UploadScene, EveryFileArrivesByteIdenticalInTheStoreWithACompleteCatalogueRow)
{
    Build();
    const size_t aSizes[] = {0, 1, 32767, 32768, 32769, 98304, 98305, 3 * 1024 * 1024 + 5};
    std::vector<uint16_t> vecIDs;
    for (size_t nSize : aSizes)
        vecIDs.push_back(ShareAndUpload(*this, std::to_string(nSize) + ".bin", ZV_RandomBytes(nSize, (unsigned)nSize)));
    ASSERT_TRUE(sim.AdvanceTime(1000)) << sim.GetError();

    for (size_t i = 0; i < std::size(aSizes); ++i)
    {
        ZV_FileUploadInfo row;
        ASSERT_TRUE(Row(shape.Server(), vecIDs[i], row)) << aSizes[i];
        EXPECT_EQ(ZV_RandomBytes(aSizes[i], (unsigned)aSizes[i]), QB_ReadWholeFile(Stored(shape.Server(), row)))
            << aSizes[i] << " bytes";
        EXPECT_EQ(3u, row.m_BriefInfo.m_usFileState) << aSizes[i];
        EXPECT_EQ(aSizes[i], row.m_ulFileWritePos) << aSizes[i];
    }
    // Every client hears of every completion; nobody hears of a failure.
    for (ZV_SimHost* lpClient : shape.vecClients)
    {
        size_t nComplete = 0;  // 3011: number, result, upload, FileID, state
        for (const auto& event : Events(lpClient, zvFsEventTransferState))
            nComplete += event.vbData.size() == 11 && event.vbData[6] == 1 && event.vbData[9] == 3;
        EXPECT_EQ(std::size(aSizes), nComplete) << lpClient->GetName();
        EXPECT_TRUE(Events(lpClient, zvFsEventTransferError).empty()) << lpClient->GetName();
    }
    // The creator's client sends each block once: nothing was lost, so
    // nothing was asked for again.
    EXPECT_TRUE(sim.Journal().PdusTo(PDU_CONF_FS_UPLOAD_RESPONSE, Alice()->GetName()).empty());
    EXPECT_EQ(1u + 1u + 1u + 1u + 2u + 3u + 4u + 97u + std::size(aSizes),
              sim.Journal().Pdus(PDU_CONF_FS_UPLOAD_REQUEST, Alice()->GetName()).size());
}

TEST_F(UploadScene, AnUploadReachesTheLinkedServerWhichFetchesItIntoItsOwnStore)
{
    Build(true);
    const ZV_Bytes data = ZV_RandomBytes(300000, 1);
    const uint16_t usFileID = ShareAndUpload(*this, "far.bin", data);
    ASSERT_TRUE(sim.AdvanceTime(1000)) << sim.GetError();

    for (ZV_SimHost* lpServer : shape.vecServers)
    {
        ZV_FileUploadInfo row;
        ASSERT_TRUE(Row(lpServer, usFileID, row)) << lpServer->GetName();
        EXPECT_EQ(data, QB_ReadWholeFile(Stored(lpServer, row))) << lpServer->GetName();
    }
    // The bytes reached server 2 from server 1, never from Alice.
    EXPECT_FALSE(sim.Journal().PdusTo(PDU_CONF_FS_DOWNLOAD_DATA_RESPONSE, shape.Server(1)->GetName()).empty());
    EXPECT_TRUE(sim.Journal().PdusTo(PDU_CONF_FS_UPLOAD_REQUEST, shape.Server(1)->GetName()).size() <= 1u)
        << "at most the start marker";
}

TEST_F(UploadScene, AServerMadeAgainMidwayOrAtTheEndFindsWhatItsCatalogueLastSaid)
{
    Build();
    const ZV_Bytes data = ZV_RandomBytes(10 * 32768 + 5, 2);
    const uint16_t usFirst = ShareAndUpload(*this, "first.bin", data);
    ASSERT_TRUE(sim.Run()) << sim.GetError();
    const uint16_t usSecond = ShareAndUpload(*this, "second.bin", data);
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
