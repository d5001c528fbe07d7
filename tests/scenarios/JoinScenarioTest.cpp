// Lists: a restarted client resumes its download from the server's list; an asked list is about the asker only.
#include "ZV_SceneFixture.h"

#include "lists/ZV_ListPdu.h"

namespace {

struct JoinScene : public ZV_Scene
{
    // Download positions that a client's 8012s stated for a file.
    std::vector<uint32_t> StatedPositions(ZV_SimHost* lpFrom, uint16_t usFileID, size_t nFrom)
    {
        std::vector<uint32_t> vecPos;
        for (const ZV_SimEntry& entry :
             Find({.usNumber = PDU_CONF_FS_DOWNLOAD_DATA_REQUEST, .sNode = lpFrom->GetName(), .nFrom = nFrom}))
        {
            QB_ByteStream stream(entry.vbData.data(), (int32_t)entry.vbData.size());
            if (stream.ReadU16() != usFileID)
                continue;
            stream.Skip(8);
            ZV_FileDownloadInfo record;
            LoadDelimited(stream, record);
            vecPos.push_back(record.m_ulDownloadPos);
        }
        return vecPos;
    }
};

} // namespace

// A client restarted mid-download resumes where its file stands; a listed file never asked for writes nothing.
TEST_F(JoinScene, AClientRestartedInTheMiddleOfADownloadResumesItWhereItsFileStands)
{
    Build();
    const ZV_Bytes data = ZV_RandomBytes(1024 * 1024, 30);
    const uint16_t usFileID = Share("long.bin", data);
    const uint16_t usOther = Share("other.bin", ZV_RandomBytes(40000, 31));
    ASSERT_EQ(0u, Download(Bob(), usFileID));
    ASSERT_TRUE(StepUntilDelivered(PDU_CONF_FS_DOWNLOAD_DATA_RESPONSE, Bob(), 6));
    const size_t nMark = sim.Journal().Size();
    std::filesystem::create_directories(Bob()->GetHome() + "log");
    ASSERT_TRUE(sim.RestartClient(Bob()));
    const size_t nStoodAt = QB_ReadWholeFile(Target(Bob(), usFileID)).size();
    ASSERT_TRUE(nStoodAt > 0 && nStoodAt < data.size());
    ASSERT_TRUE(sim.Run()) << sim.GetError();
    EXPECT_EQ(data, QB_ReadWholeFile(Target(Bob(), usFileID)));
    EXPECT_EQ(nStoodAt, StatedPositions(Bob(), usFileID, nMark).at(0));
    ASSERT_EQ(1u, Events(Bob(), zvFsEventDownloadFinished).size());
    // The resumed download is written down in the dated log of the list.
    size_t nLogged = 0;
    for (const auto& entry : std::filesystem::directory_iterator(Bob()->GetHome() + "log"))
        if (entry.path().filename().string().rfind("log_HandleGetDownloadSessionListResponse...fileshare_", 0) == 0)
            nLogged += QB_CountInFiles(entry.path().string(), "ulResult=0.\r\n");
    EXPECT_EQ(1u, nLogged);

    ZV_DownloadListResponse forged;
    forged.user = Bob()->GetUserID();
    ZV_FileDownloadInfo record;
    record.SetFileID(usOther), record.SetFilePath(QB_StringU8(QB_ToWindowsPath(tmp.Sub("downloads/Bob/"))));
    record.SetFileName(QB_StringU8("planted.bin")), record.SetFileLenth(40000), record.SetState(zvDownloadStateRunning);
    forged.arrInfo.Add(record);
    forged.arrModify.Add(false);
    ZV_PduBuffer pdu;
    forged.Save(pdu.Stream());
    SendFromServer(Bob(), PDU_CONF_GET_DOWNLOAD_SESSION_LIST_RESPONSE, pdu);
    EXPECT_FALSE(std::filesystem::exists(tmp.Sub("downloads/Bob/planted.bin")));
    EXPECT_TRUE(StatedPositions(Bob(), usOther, nMark).empty());
}

// Asks no operation sends are served all the same, about the asker only.
TEST_F(JoinScene, AnAskedForListGoesToTheAskerAboutItselfOnly)
{
    Build();
    const uint16_t usFileID = Share("asked.bin", ZV_RandomBytes(1000, 8));
    struct Row { const char* pszName; uint16_t usAsk; QB_UserID user; size_t nUploadLists; };
    const Row aRows[] = {
        {"the upload list for itself", PDU_CONF_GET_UPLOAD_SESSION_LIST_REQUEST, Bob()->GetUserID(), 1},
        {"the upload list for Alice", PDU_CONF_GET_UPLOAD_SESSION_LIST_REQUEST, Alice()->GetUserID(), 0},
        {"its downloads, of which it has none", PDU_CONF_GET_DOWNLOAD_SESSION_LIST_REQUEST, Bob()->GetUserID(), 0},
    };
    for (const Row& row : aRows)
    {
        const size_t nMark = sim.Journal().Size();
        ZV_PduBuffer pdu;
        ZV_ListRequest{0x0777, row.user}.Save(pdu.Stream());
        Bob()->SendPdu(Bob()->GetServerLink()->GetConn(zvConfClientTypeCommand), row.usAsk, pdu.Payload(),
                       pdu.PayloadLength(), 1, 1);
        ASSERT_TRUE(sim.Run()) << sim.GetError();
        // The 8028 pieces Bob received, as read from the wire.
        std::vector<ZV_UploadListResponse> vecParts;
        for (const ZV_SimEntry& entry : Find({.usNumber = PDU_CONF_GET_UPLOAD_SESSION_LIST_RESPONSE,
                                              .sPeer = Bob()->GetName(), .eFate = ZV_SimFate::Delivered, .nFrom = nMark}))
        {
            QB_ByteStream stream(entry.vbData.data(), (int32_t)entry.vbData.size());
            vecParts.emplace_back().Load(stream);
        }
        ASSERT_EQ(row.nUploadLists, vecParts.size()) << row.pszName;
        EXPECT_TRUE(sim.Journal().PdusTo(PDU_CONF_GET_DOWNLOAD_SESSION_LIST_RESPONSE, Bob()->GetName()).empty());
        if (vecParts.empty())
            continue;
        EXPECT_TRUE(vecParts[0].usRouteID == 0x0777 && vecParts[0].usFileID == 0x0777);
        ASSERT_EQ(1, vecParts[0].arrInfo.GetSize());
        EXPECT_TRUE(vecParts[0].arrInfo[0].m_usFileID == usFileID && vecParts[0].arrMaxPos[0] == 1000u);
    }
}
