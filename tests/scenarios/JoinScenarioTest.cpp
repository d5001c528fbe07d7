// Staying in step: a restarted client resumes its download, a right change
// is told to the local user, lists go to whoever asks for them.
#include "ZV_SceneFixture.h"

#include "core/ZV_FileShareSession.h"
#include "lists/ZV_ListPdu.h"
#include "wire/ZV_PduFrame.h"

#include <filesystem>

namespace {

struct JoinScene : public ZV_Scene
{
    // The 8028 pieces a node received, as read from the wire.
    std::vector<ZV_UploadListResponse> UploadLists(ZV_SimHost* lpTo, size_t nFrom = 0)
    {
        std::vector<ZV_UploadListResponse> vecParts;
        for (const ZV_SimEntry& entry : Find({.usNumber = PDU_CONF_GET_UPLOAD_SESSION_LIST_RESPONSE,
                                              .sPeer = lpTo->GetName(), .eFate = ZV_SimFate::Delivered, .nFrom = nFrom}))
        {
            QB_ByteStream stream(entry.vbData.data(), (int32_t)entry.vbData.size());
            vecParts.emplace_back();
            vecParts.back().Load(stream);
        }
        return vecParts;
    }
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
    size_t LocalSize(ZV_SimHost* lpClient, uint16_t usFileID)
    {
        std::error_code ec;
        const auto nSize = std::filesystem::file_size(Target(lpClient, usFileID), ec);
        return ec ? 0 : (size_t)nSize;
    }
};

} // namespace

// Bob's client restarts mid-download: its ledger knows he asked, so the
// server's list resumes it where the local file stands; a listed record for
// a file he never asked for writes nothing.
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
    const size_t nStoodAt = LocalSize(Bob(), usFileID);
    ASSERT_GT(nStoodAt, 0u);
    ASSERT_LT(nStoodAt, data.size());
    ASSERT_TRUE(sim.Run()) << sim.GetError();
    EXPECT_EQ(data, QB_ReadWholeFile(Target(Bob(), usFileID)));
    const auto vecPos = StatedPositions(Bob(), usFileID, nMark);
    ASSERT_FALSE(vecPos.empty());
    EXPECT_EQ(nStoodAt, vecPos.front());
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
    record.SetFileID(usOther);
    record.SetFilePath(QB_StringU8(QB_ToWindowsPath(tmp.Sub("downloads/Bob/"))));
    record.SetFileName(QB_StringU8("planted.bin"));
    record.SetFileLenth(40000);
    record.SetState(zvDownloadStateRunning);
    forged.arrInfo.Add(record);
    forged.arrModify.Add(false);
    ZV_PduBuffer pdu;
    forged.Save(pdu.Stream());
    shape.Server()->SendPdu(shape.Server()->GetUserConn(&Bob()->GetUserID(), zvConfClientTypeCommand),
                            PDU_CONF_GET_DOWNLOAD_SESSION_LIST_RESPONSE, pdu.Payload(), pdu.PayloadLength(), 1, 1);
    ASSERT_TRUE(sim.Run()) << sim.GetError();
    EXPECT_FALSE(std::filesystem::exists(tmp.Sub("downloads/Bob/planted.bin")));
    EXPECT_TRUE(StatedPositions(Bob(), usOther, nMark).empty());
}

// Event 14 concerns the files the user could not see: more visible raises
// 3000 for each, with how much the server holds, fewer 3004; another user's
// change or a number not served raises nothing.
TEST_F(JoinScene, ARightChangeTellsTheLocalUserOfTheFilesItCouldNotSee)
{
    Build();
    const uint16_t usOpen = Share("open.bin", ZV_RandomBytes(1000, 3));
    StartShareBy(Alice(), "closed.bin", {}, true, false);
    // Bob first among those allowed: a file he may see already is not told.
    StartShareBy(Alice(), "granted.bin", ZV_RandomBytes(1000, 5), true, false, {Bob()->GetUserID(), Alice()->GetUserID()});
    ASSERT_TRUE(sim.Run()) << sim.GetError();
    const auto vecAdded = Events(Alice(), zvFsEventFileAdded);
    ASSERT_GE(vecAdded.size(), 2u);
    const uint16_t usClosed = ZV_FileIDOf(vecAdded[vecAdded.size() - 2]);
    ASSERT_NE(usOpen, usClosed);

    struct Row
    {
        const char* pszName;
        ZV_SimHost* lpNode;
        uint16_t usEvent;
        uintptr_t a1;
        QB_UserID user;
        uint16_t usRaised;  // 0: nothing at all
    };
    const Row aRows[] = {
        {"more visible", Bob(), zvConfEventRightChange, 1, Bob()->GetUserID(), zvFsEventFileAdded},
        {"fewer visible", Bob(), zvConfEventRightChange, 0, Bob()->GetUserID(), zvFsEventFileHidden},
        {"another user's change", Bob(), zvConfEventRightChange, 1, Alice()->GetUserID(), 0},
        {"a number not served", shape.Server(), 5, 0, Bob()->GetUserID(), 0},
    };
    for (const Row& row : aRows)
    {
        const size_t nMark = sim.Journal().Size();
        EXPECT_EQ(0u, sim.RaiseHostEvent(row.lpNode, row.usEvent, row.a1, (uintptr_t)&row.user)) << row.pszName;
        ASSERT_TRUE(sim.Run()) << sim.GetError();
        const auto vecRaised = Find({.eKind = ZV_SimEntryKind::Event, .nFrom = nMark});
        EXPECT_TRUE(Find({.eKind = ZV_SimEntryKind::Pdu, .nFrom = nMark}).empty()) << row.pszName;
        if (row.usRaised == 0)
        {
            EXPECT_TRUE(vecRaised.empty()) << row.pszName;
            continue;
        }
        ASSERT_EQ(1u, vecRaised.size()) << row.pszName;
        EXPECT_EQ(row.usRaised, vecRaised[0].usNumber) << row.pszName;
        QB_ByteStream event(vecRaised[0].vbData.data(), (int32_t)vecRaised[0].vbData.size());
        event.Skip(2);
        EXPECT_EQ(0u, event.ReadU32()) << row.pszName;
        EXPECT_EQ(usClosed, event.ReadU16()) << row.pszName;
        if (row.usRaised == zvFsEventFileAdded)
        {
            ZV_FileBriefInfo brief;
            LoadDelimited(event, brief);
            EXPECT_EQ(100.0, event.ReadDouble()) << "an empty file is whole";
        }
    }
}


TEST_F(JoinScene, AServerLinkThatComesUpAsksThePeerForItsFiles)
{
    Build(true);
    for (ZV_SimHost* lpServer : shape.vecServers)
    {
        const auto vecAsked = sim.Journal().Pdus(PDU_CONF_GET_FILE_LIST_REQUEST, lpServer->GetName());
        ASSERT_EQ(1u, vecAsked.size()) << lpServer->GetName();
        QB_ByteStream stream(vecAsked[0].vbData.data(), (int32_t)vecAsked[0].vbData.size());
        QB_UserID asker;
        asker.Load(stream);
        EXPECT_EQ(QB_UserID(lpServer->GetLocalServerID(), 0), asker);
    }
}

// Asks no operation sends are served all the same, about the asker only.
TEST_F(JoinScene, AnAskedForListGoesToTheAskerAboutItselfOnly)
{
    Build();
    const uint16_t usFileID = Share("asked.bin", ZV_RandomBytes(1000, 8));
    struct Row
    {
        const char* pszName;
        uint16_t usAsk;
        QB_UserID user;
        size_t nUploadLists;
    };
    const Row aRows[] = {
        {"the upload list for itself", PDU_CONF_GET_UPLOAD_SESSION_LIST_REQUEST, Bob()->GetUserID(), 1},
        {"the upload list for Alice", PDU_CONF_GET_UPLOAD_SESSION_LIST_REQUEST, Alice()->GetUserID(), 0},
        {"its downloads, of which it has none", PDU_CONF_GET_DOWNLOAD_SESSION_LIST_REQUEST, Bob()->GetUserID(), 0},
    };
    for (const Row& row : aRows)
    {
        const size_t nMark = sim.Journal().Size();
        ZV_ListRequest ask;
        ask.usFileID = 0x0777;
        ask.user = row.user;
        ZV_PduBuffer pdu;
        ask.Save(pdu.Stream());
        Bob()->SendPdu(Bob()->GetServerLink()->GetConn(zvConfClientTypeCommand), row.usAsk, pdu.Payload(),
                       pdu.PayloadLength(), 1, 1);
        ASSERT_TRUE(sim.Run()) << sim.GetError();
        const auto vecParts = UploadLists(Bob(), nMark);
        ASSERT_EQ(row.nUploadLists, vecParts.size()) << row.pszName;
        EXPECT_TRUE(sim.Journal().PdusTo(PDU_CONF_GET_DOWNLOAD_SESSION_LIST_RESPONSE, Bob()->GetName()).empty());
        if (vecParts.empty())
            continue;
        EXPECT_EQ(0x0777, vecParts[0].usRouteID);
        EXPECT_EQ(0x0777, vecParts[0].usFileID);
        ASSERT_EQ(1, vecParts[0].arrInfo.GetSize());
        EXPECT_EQ(usFileID, vecParts[0].arrInfo[0].m_usFileID);
        EXPECT_EQ(1000u, vecParts[0].arrMaxPos[0]);
    }
}
