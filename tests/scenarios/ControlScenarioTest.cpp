// Stop and resume of uploads and downloads.
#include "ZV_SceneFixture.h"

#include "control/ZV_ControlPdu.h"
#include "ZV_PayloadCheck.h"

struct ControlScene : public ZV_Scene
{
    // The states of uploads (bUpload 1) or downloads (0) a user was told of
    // with event 3011, in order; the last of them, or -1.
    std::vector<int> ToldStates(ZV_SimHost* lpClient, uint8_t bUpload)
    {
        std::vector<int> vecState;
        for (const auto& event : Events(lpClient, zvFsEventTransferState))
            if (event.vbData.at(6) == bUpload)
                vecState.push_back(event.vbData.at(9) | event.vbData.at(10) << 8);
        return vecState;
    }
    int ToldState(ZV_SimHost* lpClient, uint8_t bUpload)
    {
        const std::vector<int> vecState = ToldStates(lpClient, bUpload);
        return vecState.empty() ? -1 : vecState.back();
    }
};

// Each server's clients are told its copy of a file began and is whole.
TEST_F(ControlScene, EveryServerTellsItsClientsWhenItsCopyOfAFileBeginsAndIsWhole)
{
    Build(true);
    Share("relayed.bin", ZV_RandomBytes(100000, 7));
    ASSERT_TRUE(sim.AdvanceTime(30000)) << sim.GetError();
    for (ZV_SimHost* lpClient : {Bob(), shape.Client(2)})
        EXPECT_EQ(std::vector<int>({zvFileStateUploading, zvFileStateComplete}), ToldStates(lpClient, 1))
            << lpClient->GetName();
}

TEST_F(ControlScene, AStoppedDownloadStandsStillWhileTheUploadGoesOnAndResumesToTheSameBytes)
{
    Build();
    const ZV_Bytes data = ZV_RandomBytes(40 * 32768 + 3, 7);
    const uint16_t usFileID = Share("song.bin", data, false);
    ASSERT_EQ(0u, Download(Bob(), usFileID));
    ASSERT_TRUE(StepUntilDelivered(PDU_CONF_FS_DOWNLOAD_DATA_RESPONSE, Bob(), 2));
    auto Got = [&]() { return QB_ReadWholeFile(Target(Bob(), usFileID)); };
    EXPECT_EQ(1, ToldState(Bob(), 0)) << "running from its first block on";
    ASSERT_EQ(0u, Fs(Bob())->FsStopDownload(usFileID));
    ASSERT_TRUE(StepUntilDelivered(PDU_CONF_FS_IS_STOP_DOWNLOAD_REQUEST, shape.Server(), 1));
    const ZV_SimFilter toBob{.usNumber = PDU_CONF_FS_DOWNLOAD_DATA_RESPONSE, .sPeer = Bob()->GetName(),
                             .nFrom = sim.Journal().Size()};
    ASSERT_TRUE(sim.AdvanceTime(30000)) << sim.GetError();
    EXPECT_LE(sim.Journal().Find(toBob).size(), 3u) << "only what one OnSend had handed on";
    EXPECT_EQ(2, ToldState(Bob(), 0)) << "the server confirms Bob's stop";
    ZV_FileUploadInfo row;
    ASSERT_TRUE(Row(shape.Server(), usFileID, row));
    EXPECT_EQ(data.size(), row.m_ulFileWritePos) << "Alice's upload went on";
    const size_t nStopped = Got().size();
    EXPECT_LT(nStopped, data.size());
    EXPECT_TRUE(Events(Bob(), zvFsEventDownloadFinished).empty());

    ASSERT_EQ(0u, Fs(Bob())->FsResumeDownload(usFileID));
    ASSERT_TRUE(sim.AdvanceTime(1000)) << sim.GetError();
    EXPECT_EQ(data, Got());
    EXPECT_EQ(1u, Events(Bob(), zvFsEventDownloadFinished).size());
    EXPECT_NE(2, ToldState(Bob(), 0));
}

// An upload's stop and resume reach both catalogues and all users; the
// resume alone restarts Alice, from what her server holds.
TEST_F(ControlScene, AnUploadsStopAndResumeReachBothServersTheirCataloguesAndTheirUsers)
{
    Build(true);
    ZV_SimHost* lpCarol = shape.Client(2);
    const ZV_Bytes data = ZV_RandomBytes(30 * 32768 + 1, 8);
    const uint16_t usFileID = Share("far.bin", data, false);
    ASSERT_EQ(0u, Download(lpCarol, usFileID));
    ASSERT_TRUE(StepUntilDelivered(PDU_CONF_FS_UPLOAD_REQUEST, shape.Server(0), 4));
    auto RowStates = [&]() {
        std::vector<uint16_t> vec;
        for (ZV_SimHost* lpServer : shape.vecServers)
        {
            ZV_FileUploadInfo row;
            vec.push_back(Row(lpServer, usFileID, row) ? row.m_BriefInfo.m_usFileState : 0xFFFF);
        }
        return vec;
    };
    ASSERT_EQ(0u, Fs(Alice())->FsStopUpload(usFileID));
    ASSERT_TRUE(sim.Run()) << sim.GetError();
    EXPECT_EQ(std::vector<uint16_t>({2, 2}), RowStates());
    for (ZV_SimHost* lpClient : shape.vecClients)
        EXPECT_EQ(2, ToldState(lpClient, 1)) << lpClient->GetName();
    ASSERT_EQ(1u, Events(Alice(), zvFsEventStopResult).size());
    EXPECT_EQ(1, Events(Alice(), zvFsEventStopResult)[0].vbData.at(8)) << "a stop";

    ZV_SimLink* lpAliceLink = sim.GetClientLink(Alice());
    ASSERT_TRUE(sim.Cut(lpAliceLink, zvConfClientTypeData));
    const size_t nFrom = sim.Journal().Size();
    ASSERT_EQ(0u, Fs(Alice())->FsResumeUpload(usFileID));
    ASSERT_TRUE(sim.Run()) << sim.GetError();
    EXPECT_EQ(std::vector<uint16_t>({1, 1}), RowStates());
    ASSERT_EQ(2u, Events(Alice(), zvFsEventStopResult).size());
    EXPECT_EQ(0, Events(Alice(), zvFsEventStopResult)[1].vbData.at(8)) << "a resume";
    // Flood number 0 for the server to fill in; a resume names no position.
    const auto vecResume = sim.Journal().Pdus(PDU_CONF_FS_IS_STOP_UPLOAD_REQUEST, Alice()->GetName());
    ASSERT_EQ(2u, vecResume.size());
    ZV_StopUploadAsk resumed;
    resumed.usFileID = usFileID;
    resumed.user = Alice()->GetUserID();
    EXPECT_EQ(ZV_SavePayload(resumed), vecResume[1].vbData);
    for (ZV_SimHost* lpClient : shape.vecClients)
        EXPECT_EQ(1, ToldState(lpClient, 1)) << lpClient->GetName();
    EXPECT_EQ(1u, Find({.usNumber = PDU_CONF_FS_UPLOAD_RESPONSE, .sPeer = Alice()->GetName(), .nFrom = nFrom}).size());

    ASSERT_TRUE(sim.Restore(lpAliceLink, zvConfClientTypeData));
    ASSERT_TRUE(sim.AdvanceTime(30000)) << sim.GetError();
    EXPECT_EQ(data, QB_ReadWholeFile(Target(lpCarol, usFileID)));
    EXPECT_EQ(std::vector<uint16_t>({3, 3}), RowStates());
    // The creator's server tells its own clients of the completion.
    for (ZV_SimHost* lpClient : {Alice(), Bob()})
        EXPECT_EQ(3, ToldState(lpClient, 1)) << lpClient->GetName();
}

