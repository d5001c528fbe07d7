// Roads that only a throw, a failing disk or an odd answer of the host
// takes: each ends with its own result code or log line, never a crash.
#include "lists/ZV_ListPdu.h"
#include "records/ZV_FileCatalog.h"
#include "ZV_RecordingNode.h"
#include "wire/ZV_PduFrame.h"

#include "QB_FaultEnv.h"

#include <cstdio>
#include <filesystem>
#include <stdexcept>

namespace {

using Peer = ZV_FileShareSessionPeer;

struct ZV_FloodThrowingHost : ZV_RecordingHost
{
    bool m_bThrow = false;
    uint32_t NewFloodSeq(const QB_UserID* lpUser, uint32_t ul) override
    {
        if (m_bThrow)
            throw std::runtime_error("the host fails");
        return ZV_RecordingHost::NewFloodSeq(lpUser, ul);
    }
};
using Node = ZV_BasicNode<ZV_FloodThrowingHost>;

struct ZV_ThrowingSession : ZV_FileShareSession
{
    using ZV_FileShareSession::ZV_FileShareSession;
    uint32_t OnSend(ConfPduData*) override { throw 1; }
    uint32_t OnDisconnect(const QB_UserID*, uint32_t, uint16_t) override { throw 1; }
};

// The module folder cannot be asked for, once; the log asks again later.
struct ZV_NoFolderEnv : QB_FaultEnv
{
    int m_nThrows = 0;
    std::u16string GetModuleFolder() override
    {
        if (m_nThrows-- > 0)
            throw std::runtime_error("no folder");
        return QB_FaultEnv::GetModuleFolder();
    }
};

// A file of Alice's own, as a session of a client holds it.
ZV_FileShareSession& AddOwnFile(Node& node, uint16_t usFileID, uint16_t usState, bool bThrowing = false)
{
    ZV_FileShareSession* lpFsSession = bThrowing ? new ZV_ThrowingSession(&node.mgr, node.tmp.Path().c_str())
                                                 : new ZV_FileShareSession(&node.mgr, node.tmp.Path().c_str());
    ZV_FileShareMgrPeer::Sessions(node.mgr).SetAt(usFileID, lpFsSession);
    ZV_FileBriefInfo brief = ZV_Brief(node.host.m_LocalUser, "own.bin", 5000);
    brief.SetFilePath(QB_StringU8(QB_ToWindowsPath(node.tmp.Path() + "/")));
    brief.SetFileState(usState);
    Peer::FileID(*lpFsSession) = usFileID;
    Peer::FileInfo(*lpFsSession).SetFileID(usFileID);
    Peer::FileInfo(*lpFsSession).SetBriefInfo(brief);
    Peer::BriefInfo(*lpFsSession) = brief;
    return *lpFsSession;
}

} // namespace

// A throw from the host or from one session is caught where it happens and
// logged once per session; the walk over the other sessions goes on.
TEST(RareRoads, ThrowsUnderHostCallsAreLoggedAndTheWalkGoesOn)
{
    const QB_UserID peer(20002, 0);
    ConfPduData sent{20002, 0, 12, 0, zvConfClientTypeData, PDU_CONF_FS_DOWNLOAD_DATA_RESPONSE, 0, 0, 0, 0, nullptr};
    const struct { const char* szLine; bool bServer; size_t nLines; std::function<uint32_t(Node&)> fnRun; } aRows[] = {
        {"ZV_FileShareMgr::OnDisconnect exception.", true, 2,
         [&](Node& node) { return node.mgr.OnDisconnect(&peer, 900, zvConfServerTypeCommand, 0); }},
        {"ZV_FileShareMgr::OnSend.OnSend exception.", true, 2, [&](Node& node) { return node.mgr.OnSend(&sent); }},
        {"ZV_FileShareMgr::SendFileDownloadPos exception.", false, 1,
         [&](Node& node) {
             node.mgr.OnConnect(&peer, 11, zvConfClientTypeCommand, 0);
             ZV_FileShareMgrPeer::DataLink(node.mgr) = zvLinkDown;
             node.host.m_bThrow = true;
             return node.mgr.OnConnect(&peer, 12, zvConfClientTypeData, 0);
         }},
    };
    for (const auto& row : aRows)
    {
        Node node(row.bServer);
        std::filesystem::create_directories(node.tmp.Sub("log"));
        AddOwnFile(node, 3, zvFileStateUploading, true);
        AddOwnFile(node, 4, zvFileStateUploading, true);
        EXPECT_EQ(0u, row.fnRun(node)) << row.szLine;
        EXPECT_EQ(row.nLines, QB_CountInFiles(node.tmp.Sub("log"), std::string(row.szLine) + "\r\n")) << row.szLine;
        EXPECT_EQ(0u, QB_CountInFiles(node.tmp.Sub("log"), "ZV_FileShareMgr::OnConnect exception.")) << row.szLine;
    }
}

// Calls whose every answer is a code of their own, each in the rare case
// that gives it; the row's number is what the call answers or left behind.
// A PDU goes by its number to the manager, else to the session its first
// word names: a number without a handler answers 5.
TEST(RareRoads, RareCasesGiveTheirOwnCodes)
{
    Node node(false);
    std::filesystem::create_directories(node.tmp.Sub("log"));
    ZV_FileShareSession& session = AddOwnFile(node, 3, zvFileStateUploading);
    std::FILE* lpTrace = std::tmpfile();
    ZV_SetTraceStream(lpTrace);
    ZV_NoFolderEnv env;
    QB_ScopedEnv scoped(&env);
    const char16_t* apszNames[] = {u"own.bin"};
    auto Route = [&](uint16_t usPdu, const std::vector<uint8_t>& data) {
        return ZV_Deliver(node.mgr, usPdu, zvConfClientTypeCommand, data);
    };
    const struct { const char* szName; uint32_t ulExpected; std::function<uint32_t()> fnRun; } aRows[] = {
        {"file information into no record", zvResultException,
         [&] { return node.mgr.FsGetFileInfoByFileID(3, nullptr); }},
        {"a session handed a manager's number", zvResultNoHandler,
         [&] {
             const std::vector<uint8_t> data{3, 0};
             ConfPduData cpd{20002, 0, 11, 0, zvConfClientTypeCommand, PDU_CONF_FS_ADD_REQUEST, 0, 0, 0, 2,
                             data.data()};
             return session.HandlePdu(&cpd);
         }},
        {"a PDU to a FileID known nowhere", 0, [&] { return Route(PDU_CONF_FS_DOWNLOAD_REQUEST, {8, 0, 1, 2}); }},
        {"a PDU without its FileID", zvResultNoHandler, [&] { return Route(PDU_CONF_FS_DOWNLOAD_REQUEST, {}); }},
        {"a PDU with half a FileID", zvResultNoHandler, [&] { return Route(PDU_CONF_FS_DOWNLOAD_REQUEST, {3}); }},
        {"the rights of several files", zvResultNoHandler,
         [&] { return Route(PDU_CONF_FS_SET_FILES_RIGHT_RESPONSE, {3, 0, 1, 2, 3}); }},
        {"a reserved number", 0, [&] { return Route(8053, {3, 0}) + Route(8054, {3, 0}); }},
        {"a number of the range without a slot", zvResultNoHandler, [&] { return Route(8019, {3, 0}); }},
        {"a number below the range", zvResultNoHandler, [&] { return Route(100, {3, 0}); }},
        {"a number above the range", zvResultNoHandler, [&] { return Route(9000, {3, 0}); }},
        {"the reserved slots do nothing",
         0,
         [&] {
             node.mgr.ModuleReserved1(1, 2);
             return node.mgr.ModuleReserved0() + node.mgr.ModuleReserved2(3) + session.OnConnect(1, 2, 3) +
                    (uint32_t)node.host.m_vecSent.size();
         }},
        {"opens tried for a listed file of Alice's that she never shared", 0,
         [&] {
             env.ResetCounts();
             Peer::BriefInfo(session).SetFileState(zvFileStateComplete);
             session.MergeCltFileInfo(Peer::FileInfo(session), 0);
             return (uint32_t)env.GetCount(QB_EnvOp::Open) + Peer::File(session).IsOpen();
         }},
        {"a catalogue whose folder cannot be found", zvCatalogException,
         [&] {
             ZV_FileCatalog catalog;
             env.m_nThrows = 1;
             const int nResult = catalog.Open();
             return QB_CountInFiles(node.tmp.Sub("log"), "xxxxxxxxxxxxxxxxxxxxxxxxx\r\n") == 1 ? (uint32_t)nResult : 0;
         }},
        {"a batch added by a user the host does not know", zvResultNotInConf,
         [&] {
             node.host.m_mapUsers.clear();
             return node.mgr.FsFilesAdd(node.tmp.PathW().GetString(), apszNames, 1, nullptr, 0, 1, 0);
         }},
    };
    for (const auto& row : aRows)
        EXPECT_EQ(row.ulExpected, row.fnRun()) << row.szName;
    EXPECT_EQ(0, std::ftell(lpTrace)) << "nothing here is traced";
    ZV_SetTraceStream(nullptr);
    std::fclose(lpTrace);

    // A server that cannot find its home still starts, and says why.
    Node server(true);
    std::filesystem::create_directories(server.tmp.Sub("log"));
    env.m_nThrows = 1;
    EXPECT_EQ(0u, server.mgr.Initialize());
    EXPECT_EQ(1u, QB_CountInFiles(server.tmp.Sub("log"), "ZV_FileShareMgr::Initialize() exception.\r\n"));
}

// A client's listed download whose file on disk cannot be emptied for the
// new file under its FileID, or cannot be measured, is reported with that
// failure in the download's state event.
TEST(RareRoads, AListedDownloadThatCannotBeMeasuredOrEmptiedReportsWhy)
{
    const struct { const char* szName; bool bModify; int64_t llOnDisk; uint32_t ulExpected; } aRows[] = {
        {"another file under the FileID, the old bytes cannot be cut", true, 1200, zvResultCannotAccess},
        {"a partial file of 2 GiB", false, 0x80000000LL, zvResultCannotOpen},
    };
    for (const auto& row : aRows)
    {
        Node node(false);
        ASSERT_EQ(0u, node.mgr.Initialize());
        ZV_FileShareSession& session = AddOwnFile(node, 5, zvFileStateComplete);
        Peer::BriefInfo(session).SetCreatorID(QB_UserID(20001, 0));
        ZV_FileDownloadInfo record;
        record.SetFileID(5);
        record.SetFilePath(QB_StringU8(QB_ToWindowsPath(node.tmp.Path() + "/")));
        record.SetFileName(QB_StringU8("got.bin"));
        record.SetFileLenth(0x90000000u);
        record.SetState(zvDownloadStateRunning);
        record.SetUserID(node.host.m_LocalUser);
        Peer::LocalDownload(session) = record;
        QB_WriteWholeFile(node.tmp.Sub("got.bin"), "x");
        std::filesystem::resize_file(node.tmp.Sub("got.bin"), (uintmax_t)row.llOnDisk);
        ZV_DownloadListResponse list;
        list.user = node.host.m_LocalUser;
        list.arrInfo.Add(record);
        list.arrModify.Add(row.bModify);
        QB_FaultEnv env;
        env.FailAt(QB_EnvOp::SetEnd, 1, true);
        {
            QB_ScopedEnv scoped(&env);
            ZV_Deliver(node.mgr, PDU_CONF_GET_DOWNLOAD_SESSION_LIST_RESPONSE, zvConfClientTypeCommand,
                       ZV_SavePayload(list), 5, QB_UserID(20002, 0));
        }
        std::vector<uint32_t> vecResults;
        for (const ZV_RaisedEvent& event : node.host.m_vecEvents)
        {
            QB_ByteStream stream(event.data.data(), (int32_t)event.data.size());
            if (event.usEvent == zvFsEventDownloadState && stream.ReadU16() == zvFsEventDownloadState)
                vecResults.push_back(stream.ReadU32());
        }
        EXPECT_EQ(std::vector<uint32_t>{row.ulExpected}, vecResults) << row.szName;
    }
}
