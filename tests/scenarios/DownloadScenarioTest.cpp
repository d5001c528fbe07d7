// Downloads through whole simulated conferences: Alice shares, others fetch,
// and the bytes on their disks, their events and the journal of PDUs say how
// it went.
#include "ZV_SceneFixture.h"

#include "ZV_FileDownloadInfo.h"
#include "ZV_RecordStream.h"

using DownloadScene = ZV_Scene;

TEST_F(DownloadScene, ArrivesByteIdenticalForEverySizeAroundTheBlockEdges)
{
    Build(false);
    ZV_SimHost* lpBob = Bob();
    const size_t aSizes[] = {0, 1, 32767, 32768, 32769, 98304, 98305, 3 * 1024 * 1024 + 7};
    std::vector<std::pair<uint16_t, ZV_Bytes>> vecFiles;
    for (size_t nSize : aSizes)
        vecFiles.emplace_back(Share(std::to_string(nSize) + ".bin", ZV_RandomBytes(nSize, (unsigned)nSize)),
                              ZV_RandomBytes(nSize, (unsigned)nSize));
    for (const auto& [usFileID, data] : vecFiles)
        EXPECT_EQ(0u, Download(lpBob, usFileID)) << data.size();
    ASSERT_TRUE(sim.AdvanceTime(1000)) << sim.GetError();

    for (const auto& [usFileID, data] : vecFiles)
        EXPECT_EQ(data, QB_ReadWholeFile(Target(lpBob, usFileID))) << data.size() << " bytes";
    // An empty file has no block to send: it is made, and nothing follows.
    EXPECT_EQ(std::size(aSizes) - 1, Events(lpBob, zvFsEventDownloadFinished).size());
    for (const auto& event : Events(lpBob, zvFsEventDownloadState))
        EXPECT_EQ(0u, ZV_ResultOf(event));
}

TEST_F(DownloadScene, AFirstDownloaderStartsTheCreatorsUploadAndGetsTheWholeFile)
{
    Build(false);
    ZV_SimHost* lpBob = Bob();
    const ZV_Bytes data = ZV_RandomBytes(200000, 1);
    const uint16_t usFileID = Share("late.bin", data, false);
    ASSERT_TRUE(sim.Journal().Pdus(PDU_CONF_FS_UPLOAD_REQUEST).empty()) << "nothing moves before anyone asks";

    const size_t nFrom = sim.Journal().Size();
    ASSERT_EQ(0u, Download(lpBob, usFileID));
    ASSERT_TRUE(sim.AdvanceTime(1000)) << sim.GetError();
    EXPECT_EQ(data, QB_ReadWholeFile(Target(lpBob, usFileID)));

    // The order to Alice goes out before the answer to Bob.
    size_t nOrder = 0, nAnswer = 0;
    for (size_t i = nFrom; i < sim.Journal().Size(); ++i)
    {
        const ZV_SimEntry& entry = sim.Journal().At(i);
        if (!nOrder && entry.usNumber == PDU_CONF_FS_UPLOAD_RESPONSE && entry.sPeer == Alice()->GetName())
            nOrder = i;
        if (!nAnswer && entry.usNumber == PDU_CONF_FS_DOWNLOAD_RESPONSE && entry.sPeer == lpBob->GetName())
            nAnswer = i;
    }
    EXPECT_TRUE(nOrder && nAnswer && nOrder < nAnswer) << sim.Journal().Dump(nFrom);
}

TEST_F(DownloadScene, RestsWhereTheUploadStandsAndGoesOnWhenTheUploadDoes)
{
    Build(false);
    ZV_SimHost* lpBob = Bob();
    ZV_SimLink* lpAliceLink = sim.GetClientLink(Alice());
    const ZV_Bytes data = ZV_RandomBytes(10 * 32768 + 5, 2);
    const uint16_t usFileID = Share("half.bin", data, false);
    ASSERT_EQ(0u, Download(lpBob, usFileID));
    // Alice's data link falls after four blocks have reached the server.
    ASSERT_TRUE(StepUntilDelivered(PDU_CONF_FS_UPLOAD_REQUEST, shape.Server(), 5));
    ASSERT_TRUE(sim.Cut(lpAliceLink, zvConfClientTypeData));
    ASSERT_TRUE(sim.Run()) << sim.GetError();

    const ZV_Bytes got = QB_ReadWholeFile(Target(lpBob, usFileID));
    ASSERT_GT(got.size(), 0u);
    ASSERT_LT(got.size(), data.size());
    EXPECT_TRUE(std::equal(got.begin(), got.end(), data.begin()));
    EXPECT_TRUE(Events(lpBob, zvFsEventDownloadFinished).empty());

    ASSERT_TRUE(sim.Restore(lpAliceLink, zvConfClientTypeData));
    ASSERT_TRUE(sim.AdvanceTime(30000)) << sim.GetError();
    EXPECT_EQ(data, QB_ReadWholeFile(Target(lpBob, usFileID)));
    EXPECT_EQ(1u, Events(lpBob, zvFsEventDownloadFinished).size());
}

TEST_F(DownloadScene, TwoDownloadersAtDifferentPositionsEachGetTheWholeFile)
{
    Build(false);
    ZV_SimHost* lpBob = Bob();
    ZV_SimHost* lpCarol = sim.AddClient(ZV_SimBuilder::kConfID, ZV_SimBuilder::MakeUser(1, 2));
    ASSERT_TRUE(lpCarol && sim.Run()) << sim.GetError();
    const ZV_Bytes data = ZV_RandomBytes(20 * 32768 + 1, 3);
    const uint16_t usFileID = Share("both.bin", data);
    ASSERT_EQ(0u, Download(lpBob, usFileID));
    ASSERT_TRUE(StepUntilDelivered(PDU_CONF_FS_DOWNLOAD_DATA_RESPONSE, lpBob, 6));
    ASSERT_EQ(0u, Download(lpCarol, usFileID));
    ASSERT_TRUE(sim.AdvanceTime(1000)) << sim.GetError();

    for (ZV_SimHost* lpClient : {lpBob, lpCarol})
    {
        EXPECT_EQ(data, QB_ReadWholeFile(Target(lpClient, usFileID))) << lpClient->GetName();
        EXPECT_EQ(21u, sim.Journal().PdusTo(PDU_CONF_FS_DOWNLOAD_DATA_RESPONSE, lpClient->GetName()).size())
            << "each block once, in its own order";
    }
}

TEST_F(DownloadScene, GoesOnFromTheLocalPositionAfterTheDataLinkComesBack)
{
    Build(false);
    ZV_SimHost* lpBob = Bob();
    ZV_SimLink* lpBobLink = sim.GetClientLink(lpBob);
    const ZV_Bytes data = ZV_RandomBytes(4 * 1024 * 1024, 4);
    const uint16_t usFileID = Share("long.bin", data);
    ASSERT_EQ(0u, Download(lpBob, usFileID));
    ASSERT_TRUE(StepUntilDelivered(PDU_CONF_FS_DOWNLOAD_DATA_RESPONSE, lpBob, 40));
    ASSERT_TRUE(sim.Cut(lpBobLink, zvConfClientTypeData));
    ASSERT_TRUE(sim.Run()) << sim.GetError();
    const size_t nHad = QB_ReadWholeFile(Target(lpBob, usFileID)).size();
    ASSERT_LT(nHad, data.size());

    const size_t nFrom = sim.Journal().Size();
    ASSERT_TRUE(sim.Restore(lpBobLink, zvConfClientTypeData));
    ASSERT_TRUE(sim.AdvanceTime(1000)) << sim.GetError();
    EXPECT_EQ(data, QB_ReadWholeFile(Target(lpBob, usFileID)));
    // Bob said where he stood, on his command link, and the server went on
    // from there.
    ZV_SimFilter filter;
    filter.usNumber = PDU_CONF_FS_DOWNLOAD_DATA_REQUEST;
    filter.sNode = lpBob->GetName();
    filter.nFrom = nFrom;
    const auto vecStated = sim.Journal().Find(filter);
    ASSERT_EQ(1u, vecStated.size());
    EXPECT_EQ(ZV_SimRoute::Pdu, vecStated[0].eRoute);
    QB_ByteStream stream(vecStated[0].vbData.data(), (int32_t)vecStated[0].vbData.size());
    stream.Skip(10);
    ZV_FileDownloadInfo stated;
    LoadDelimited(stream, stated);
    EXPECT_EQ(nHad, stated.m_ulDownloadPos);
    EXPECT_EQ(1u, Events(lpBob, zvFsEventDownloadFinished).size());
}

TEST_F(DownloadScene, AWriteFailureOnTheClientStopsTheDownloadAndSaysSo)
{
    Build(false);
    ZV_SimHost* lpBob = Bob();
    // The server holds the whole file first: the fault hits every node's writes.
    const uint16_t usFileID = Share("fail.bin", ZV_RandomBytes(5 * 32768, 5), false);
    ASSERT_EQ(0u, Alice()->GetFileShareMgr()->FsUpload(usFileID));
    ASSERT_TRUE(sim.Run()) << sim.GetError();
    ASSERT_EQ(0u, Download(lpBob, usFileID));
    ASSERT_TRUE(StepUntilDelivered(PDU_CONF_FS_DOWNLOAD_RESPONSE, lpBob, 1));
    sim.GetEnv().FailAt(QB_EnvOp::Write, 1, true);
    ASSERT_TRUE(sim.AdvanceTime(1000)) << sim.GetError();
    sim.GetEnv().ClearFaults();

    EXPECT_EQ(0u, QB_ReadWholeFile(Target(lpBob, usFileID)).size());
    const auto vecState = Events(lpBob, zvFsEventDownloadState);
    ASSERT_EQ(2u, vecState.size());
    EXPECT_EQ(61u, ZV_ResultOf(vecState[1]));
    EXPECT_TRUE(Events(lpBob, zvFsEventDownloadFinished).empty());
    EXPECT_EQ(1u, sim.Journal().Pdus(PDU_CONF_FS_IS_STOP_DOWNLOAD_REQUEST, lpBob->GetName()).size());
}

TEST_F(DownloadScene, ARelayServerFetchesIntoItsStoreAndServesItsOwnClient)
{
    Build(true);
    ZV_SimHost* lpCarol = shape.Client(2);
    const ZV_Bytes data = ZV_RandomBytes(300000, 6);
    const uint16_t usFileID = Share("far.bin", data);
    ASSERT_EQ(0u, Download(lpCarol, usFileID));
    ASSERT_TRUE(sim.AdvanceTime(1000)) << sim.GetError();

    EXPECT_EQ(data, QB_ReadWholeFile(Target(lpCarol, usFileID)));
    EXPECT_EQ(1u, Events(lpCarol, zvFsEventDownloadFinished).size());
    const std::string sRelayStore = shape.Server(1)->GetHome() + "store/" + std::to_string(ZV_SimBuilder::kConfID);
    ASSERT_TRUE(std::filesystem::exists(sRelayStore + "/far.bin"));
    EXPECT_EQ(data, QB_ReadWholeFile(sRelayStore + "/far.bin"));
    // Server 1 pushed to server 2 over their data link, and server 2 to Carol.
    EXPECT_FALSE(sim.Journal().PdusTo(PDU_CONF_FS_DOWNLOAD_DATA_RESPONSE, shape.Server(1)->GetName()).empty());
    for (const auto& entry : sim.Journal().Pdus(PDU_CONF_FS_DOWNLOAD_DATA_RESPONSE, shape.Server(0)->GetName()))
        EXPECT_EQ(ZV_SimRoute::OnLink, entry.eRoute);
}
