// The two lists that bring one user in step, on one manager: how a server
// cuts them at the buffer's size and rests, renews or withdraws each record
// it lists, and what a client does with a record whose right is gone and
// with a file the server no longer lists.
#include "ZV_RecordingNode.h"

#include "lists/ZV_ListPdu.h"
#include "ZV_FilesAddedEvent.h"

#include "QB_FaultEnv.h"

#include <algorithm>
#include <array>
#include <filesystem>

namespace {

using Peer = ZV_FileShareSessionPeer;

const QB_UserID kAnn(20001, 0);   // creates every file
const QB_UserID kBob(20002, 0);   // downloads
const QB_UserID kCarol(20003, 0);

QB_DateTimeEx SharedOn(int nDay)
{
    QB_DateTimeEx dt;
    dt.SetDateTime(2026, 11, nDay, 10, 0, 0, 0);
    return dt;
}

ZV_FileBriefInfo Brief(bool bPublic, const QB_UserID* lpRight = nullptr)
{
    QB_Array<QB_UserID> arrRight;
    if (lpRight != nullptr)
        arrRight.Add(*lpRight);
    ZV_FileBriefInfo brief = ZV_Brief(kAnn, "f.bin", 5000, bPublic);
    brief.SetFileState(zvFileStateComplete);
    brief.SetShareTime(SharedOn(20));
    brief.SetRight(arrRight);
    return brief;
}

ZV_FileDownloadInfo Record(uint16_t usFileID, const std::string& sFolder, const std::string& sName, uint16_t usState,
                           int nShareDay = 20)
{
    ZV_FileDownloadInfo record;
    record.SetFileID(usFileID);
    record.SetFilePath(QB_StringU8(sFolder.c_str()));
    record.SetFileName(QB_StringU8(sName.c_str()));
    record.SetFileLenth(5000);
    record.SetShareTime(SharedOn(nShareDay));
    record.SetState(usState);
    record.SetActive(true);
    record.SetUserID(kBob);
    return record;
}

struct SessionLists : ::testing::Test
{
    QB_FaultEnv env;
    QB_ScopedEnv scoped{&env};

    static uint32_t Deliver(ZV_RecordingNode& node, uint16_t usPdu, const Bytes& data, const QB_UserID& from)
    {
        return ZV_Deliver(node.mgr, usPdu, zvConfClientTypeCommand, data, 5, from);
    }
    static ZV_FileShareSession& AddFile(ZV_RecordingNode& node, uint16_t usFileID, const ZV_FileBriefInfo& brief,
                                        int nNameBytes = 5)
    {
        return ZV_AdoptFile(node.mgr, usFileID, node.tmp.Path().c_str(), brief,
                            std::string((size_t)nNameBytes, 'n').c_str());
    }
    // A started client's download folder "dl", made, as the records name it.
    static std::string ClientWithFolder(ZV_RecordingNode& node)
    {
        EXPECT_EQ(0u, node.mgr.Initialize());
        std::filesystem::create_directories(node.tmp.Sub("dl"));
        return QB_StringU8(QB_ToWindowsPath(node.tmp.Sub("dl/"))).GetString();
    }
    static ZV_FileDownloadInfo Held(ZV_FileShareSession& session, const QB_UserID& user)
    {
        ZV_FileDownloadInfo info;
        EXPECT_TRUE(ZV_FileShareSessionPeer::Downloads(session).Lookup(user, info));
        return info;
    }
    template <class TList> static std::vector<TList> Pieces(ZV_RecordingNode& node, uint16_t usPdu)
    {
        std::vector<TList> vecParts;
        for (const ZV_SentPdu& sent : node.host.SentOf(usPdu))
        {
            EXPECT_LE(sent.data.size(), (size_t)QB_PDU_BUFFER_SIZE);
            QB_ByteStream stream(sent.data.data(), (int32_t)sent.data.size());
            vecParts.emplace_back();
            vecParts.back().Load(stream);
            EXPECT_EQ(sent.data, ZV_SavePayload(vecParts.back())) << "nothing its reader would drop";
        }
        return vecParts;
    }
};

// The one 8012 the node sent for usFileID, and the record it carries.
::testing::AssertionResult OnlyDataAsk(ZV_RecordingNode& node, uint16_t usFileID, ZV_FileDownloadInfo& asked)
{
    size_t nFound = 0;
    for (const ZV_SentPdu& sent : node.host.SentOf(PDU_CONF_FS_DOWNLOAD_DATA_REQUEST))
    {
        QB_ByteStream ask(sent.data.data(), (int32_t)sent.data.size());
        if (ask.ReadU16() != usFileID)
            continue;
        ask.Skip(8);
        LoadDelimited(ask, asked);
        ++nFound;
    }
    if (nFound != 1)
        return ::testing::AssertionFailure() << nFound << " data requests for " << usFileID;
    return ::testing::AssertionSuccess();
}

// Names every file opened through it.
class OpenLog : public QB_FaultEnv
{
public:
    QB_FileHandle OpenFile(const std::u16string& sPath, uint32_t ulMode) override
    {
        m_vecOpened.push_back(QB_StringU8(QB_StringW(sPath.data(), (int)sPath.size())).GetString());
        return QB_FaultEnv::OpenFile(sPath, ulMode);
    }
    int Opened(const std::string& sTail) const
    {
        return (int)std::count_if(m_vecOpened.begin(), m_vecOpened.end(), [&](const std::string& s) {
            return s.size() >= sTail.size() && s.compare(s.size() - sTail.size(), sTail.size(), sTail) == 0;
        });
    }
    std::vector<std::string> m_vecOpened;
};

} // namespace

// Entries that, as counted, fill the buffer to the byte go in one last
// piece; one more makes two, the second holding one entry.
TEST_F(SessionLists, AListThatFillsTheBufferIsOnePieceAndOneEntryMoreIsTwo)
{
    for (bool bUploads : {true, false})
    {
        SCOPED_TRACE(bUploads ? "upload list" : "download list");
        ZV_RecordingNode node(true);
        auto Named = [](uint16_t usFileID, int n) {
            return Record(usFileID, "C:\\dl\\", std::string((size_t)n, 'n'), zvDownloadStateRunning);
        };
        ZV_FileUploadInfo probe;
        probe.SetFileID(1);
        probe.SetBriefInfo(Brief(true));
        const std::vector<int> vecName = ZV_NamesThatFill(
            bUploads ? ZV_UploadListResponse::kHeadSize : ZV_DownloadListResponse::kHeadSize, [&](int n) {
                probe.SetFileNewName(QB_StringU8(std::string((size_t)n, 'n').c_str()));
                return bUploads ? ZV_UploadListEntrySize(probe) : ZV_DownloadListEntrySize(Named(1, n));
            });
        auto Add = [&](uint16_t usFileID, int n) {
            ZV_FileShareSession& session = AddFile(node, usFileID, Brief(true), bUploads ? n : 5);
            if (!bUploads)
                session.SetDownloadInfo(kBob, Named(usFileID, n));
        };
        // Per piece: its entries, and its last flag or its count of marks.
        auto Listed = [&]() {
            node.host.m_vecSent.clear();
            std::vector<std::pair<int, int>> vec;
            Deliver(node, bUploads ? PDU_CONF_GET_UPLOAD_SESSION_LIST_REQUEST : PDU_CONF_GET_DOWNLOAD_SESSION_LIST_REQUEST,
                    ZV_Pdu().U16(3).User(kBob).b, kBob);
            if (bUploads)
                for (const auto& part : Pieces<ZV_UploadListResponse>(node, PDU_CONF_GET_UPLOAD_SESSION_LIST_RESPONSE))
                    vec.push_back({part.arrInfo.GetSize(), part.bLast});
            else
                for (const auto& part : Pieces<ZV_DownloadListResponse>(node, PDU_CONF_GET_DOWNLOAD_SESSION_LIST_RESPONSE))
                    vec.push_back({part.arrInfo.GetSize(), part.arrModify.GetSize()});
            return vec;
        };
        for (size_t i = 0; i < vecName.size(); ++i)
            Add((uint16_t)(i + 1), vecName[i]);
        const int n = (int)vecName.size();
        EXPECT_EQ((std::vector<std::pair<int, int>>{{n, bUploads ? 1 : n}}), Listed());
        Add(900, 1);
        EXPECT_EQ((std::vector<std::pair<int, int>>{{n, bUploads ? 0 : n}, {1, 1}}), Listed());
    }
}

// Listing a record rests it; a record of a file shared anew under its
// FileID is marked once and renamed to the file as it is now; a record
// whose user lost the right goes here and on every linked server, and is
// listed all the same, unless its flood was seen already.
TEST_F(SessionLists, AServerRestsRenewsOrWithdrawsEachRecordItLists)
{
    ZV_RecordingNode node(true);
    node.host.m_bHasServerLinks = true;
    ZV_FileShareSession& same = AddFile(node, 5, Brief(true));
    same.SetDownloadInfo(kBob, Record(5, "C:\\dl\\", "same.bin", zvDownloadStateRunning));
    ZV_FileShareSession& anew = AddFile(node, 6, Brief(true));
    anew.SetDownloadInfo(kBob, Record(6, "C:\\dl\\", "anew.bin", zvDownloadStateRunning, 19));
    ZV_FileShareSession& hidden = AddFile(node, 7, Brief(false, &kCarol));
    hidden.SetDownloadInfo(kBob, Record(7, "C:\\dl\\", "hidden.bin", zvDownloadStateRunning));
    AddFile(node, 8, Brief(true)).SetDownloadInfo(kCarol, Record(8, "C:\\dl\\", "carol.bin", zvDownloadStateRunning));
    ZV_FileShareSession& granted = AddFile(node, 4, Brief(false, &kBob));
    granted.SetDownloadInfo(kBob, Record(4, "C:\\dl\\", "granted.bin", zvDownloadStateRunning));

    const Bytes vbAsk = ZV_Pdu().U16(0).User(kBob).b;
    Deliver(node, PDU_CONF_GET_DOWNLOAD_SESSION_LIST_REQUEST, vbAsk, kBob);
    auto vecParts = Pieces<ZV_DownloadListResponse>(node, PDU_CONF_GET_DOWNLOAD_SESSION_LIST_RESPONSE);
    ASSERT_EQ(1u, vecParts.size());
    std::map<uint16_t, bool> mapModify;
    for (int i = 0; i < vecParts[0].arrInfo.GetSize(); ++i)
        mapModify[vecParts[0].arrInfo[i].m_usFileID] = vecParts[0].arrModify[i];
    EXPECT_EQ((std::map<uint16_t, bool>{{4, false}, {5, false}, {6, true}, {7, false}}), mapModify);
    EXPECT_FALSE(Held(same, kBob).m_bActive) << "nothing is sent until Bob asks again";
    EXPECT_TRUE(Held(anew, kBob).m_dtShareTime == SharedOn(20));
    ZV_FileDownloadInfo gone;
    EXPECT_FALSE(ZV_FileShareSessionPeer::Downloads(hidden).Lookup(kBob, gone));
    const auto vecDrop = node.host.SentOf(PDU_CONF_FS_DEL_DOWNLOAD_REQUEST);
    ASSERT_EQ(1u, vecDrop.size());
    EXPECT_EQ("servers", vecDrop[0].sRoute);
    EXPECT_EQ(ZV_Pdu().U16(7).U16(7).User(kBob).U32(100).b, vecDrop[0].data);

    node.host.m_vecSent.clear();
    Deliver(node, PDU_CONF_GET_DOWNLOAD_SESSION_LIST_REQUEST, vbAsk, kBob);
    vecParts = Pieces<ZV_DownloadListResponse>(node, PDU_CONF_GET_DOWNLOAD_SESSION_LIST_RESPONSE);
    ASSERT_EQ(1u, vecParts.size());
    ASSERT_EQ(3, vecParts[0].arrModify.GetSize());
    EXPECT_FALSE(vecParts[0].arrModify[0] || vecParts[0].arrModify[1] || vecParts[0].arrModify[2])
        << "a renewed record restarts once";

    node.host.m_vecSent.clear();
    ZV_FileShareSession& seen = AddFile(node, 9, Brief(false));
    seen.SetDownloadInfo(kBob, Record(9, "C:\\dl\\", "seen.bin", zvDownloadStateRunning));
    node.host.m_setFloodSeen.insert({(uint64_t)kBob.m_ulMain << 32, node.host.m_ulNextFloodSeq});
    Deliver(node, PDU_CONF_GET_DOWNLOAD_SESSION_LIST_REQUEST, vbAsk, kBob);
    vecParts = Pieces<ZV_DownloadListResponse>(node, PDU_CONF_GET_DOWNLOAD_SESSION_LIST_RESPONSE);
    ASSERT_EQ(1u, vecParts.size());
    EXPECT_EQ(3, vecParts[0].arrInfo.GetSize()) << "the seen record is not listed";
    EXPECT_TRUE(ZV_FileShareSessionPeer::Downloads(seen).Lookup(kBob, gone)) << "and stays";
    EXPECT_TRUE(node.host.SentOf(PDU_CONF_FS_DEL_DOWNLOAD_REQUEST).empty());
}

// A client told of a record whose file it may no longer have: the partial
// file goes, the finished one stays, neither asks for blocks or raises a
// state, and the file is no longer busy. A file whose allowed list names
// the user first resumes where its local file stands.
TEST_F(SessionLists, AClientGivesUpAListedDownloadWhoseRightIsGone)
{
    ZV_RecordingNode node(false);
    const std::string sFolder = ClientWithFolder(node);
    ZV_DownloadListResponse list;
    list.user = node.host.m_LocalUser;
    const struct { uint16_t usFileID; bool bAllowed; uint16_t usState; const char* pszName;
                   } aFiles[] = {{5, false, zvDownloadStateRunning, "partial.bin"},
                  {6, false, zvDownloadStateFinished, "finished.bin"},
                  {7, true, zvDownloadStateRunning, "allowed.bin"}};
    for (const auto& file : aFiles)
    {
        ZV_FileShareSession& session =
            AddFile(node, file.usFileID, Brief(false, file.bAllowed ? &node.host.m_LocalUser : nullptr));
        ZV_FileDownloadInfo record = Record(file.usFileID, sFolder, file.pszName, file.usState);
        record.SetUserID(node.host.m_LocalUser);
        Peer::LocalDownload(session) = record;
        QB_WriteWholeFile(node.tmp.Sub(std::string("dl/") + file.pszName),
                          ZV_TestBytes(file.usState == zvDownloadStateFinished ? 5000 : 1200, file.usFileID));
        ZV_FileShareMgrPeer::BusyFileIDs(node.mgr).Add(file.usFileID);
        list.arrInfo.Add(record);
        list.arrModify.Add(false);
    }
    Deliver(node, PDU_CONF_GET_DOWNLOAD_SESSION_LIST_RESPONSE, ZV_SavePayload(list), kBob);

    EXPECT_FALSE(std::filesystem::exists(node.tmp.Sub("dl/partial.bin")));
    EXPECT_TRUE(std::filesystem::exists(node.tmp.Sub("dl/finished.bin")));
    EXPECT_EQ(1, ZV_FileShareMgrPeer::BusyFileIDs(node.mgr).GetSize());
    ZV_FileDownloadInfo asked;
    ASSERT_TRUE(OnlyDataAsk(node, 7, asked));
    EXPECT_EQ(1200u, asked.m_ulDownloadPos);
    size_t nStates = 0;
    for (const ZV_RaisedEvent& event : node.host.m_vecEvents)
        nStates += event.usEvent == zvFsEventDownloadState;
    EXPECT_EQ(1u, nStates);
}

// A file the server no longer lists goes from the client, and with it a
// partial download; a finished one stays, and its path is kept so that the
// user can still delete it later.
TEST_F(SessionLists, AClientDropsEveryUnlistedFileKeepingOnlyAFinishedDownload)
{
    ZV_RecordingNode node(false);
    const std::string sFolder = ClientWithFolder(node);
    const struct { uint16_t usFileID; uint16_t usState; const char* pszName;
                   } aFiles[] = {{5, zvDownloadStateFinished, "finished.bin"}, {6, zvDownloadStateRunning, "partial.bin"}};
    for (const auto& file : aFiles)
    {
        ZV_FileShareSession& session = AddFile(node, file.usFileID, Brief(true));
        Peer::LocalDownload(session) = Record(file.usFileID, sFolder, file.pszName, file.usState);
        QB_WriteWholeFile(node.tmp.Sub(std::string("dl/") + file.pszName), ZV_TestBytes(100, 1));
    }
    ZV_UploadListResponse list;
    list.user = node.host.m_LocalUser;
    list.bLast = 1;
    Deliver(node, PDU_CONF_GET_UPLOAD_SESSION_LIST_RESPONSE, ZV_SavePayload(list), kBob);

    EXPECT_EQ(0, ZV_FileShareMgrPeer::Sessions(node.mgr).GetCount());
    EXPECT_TRUE(std::filesystem::exists(node.tmp.Sub("dl/finished.bin")));
    EXPECT_FALSE(std::filesystem::exists(node.tmp.Sub("dl/partial.bin")));
    size_t nGone = 0;
    for (const ZV_RaisedEvent& event : node.host.m_vecEvents)
        nGone += event.usEvent == zvFsEventFileGone;
    EXPECT_EQ(2u, nGone);
    EXPECT_EQ(0u, node.mgr.FsDelDownload(5, 1));
    EXPECT_FALSE(std::filesystem::exists(node.tmp.Sub("dl/finished.bin")));
}

// Each upload list a client takes is told in 3013 with the files it names
// and, for each, how much of it the server holds in ten-thousandths (an
// empty file is whole); nothing of an earlier list comes along.
TEST_F(SessionLists, AClientTellsEachUploadListWithItsOwnFilesAndHowMuchOfEachTheServerHolds)
{
    ZV_RecordingNode node(false);
    ASSERT_EQ(0u, node.mgr.Initialize());
    using Told = std::vector<std::pair<uint16_t, double>>;
    auto Deliver3013 = [&](uint16_t usPdu, const Bytes& data) {
        node.host.m_vecEvents.clear();
        Deliver(node, usPdu, data, kBob);
        Told told;
        for (const ZV_RaisedEvent& event : node.host.m_vecEvents)
        {
            if (event.usEvent != zvFsEventFilesAdded)
                continue;
            const ZV_FilesAddedEvent one = ZV_ReadFilesAdded(event.data);
            for (size_t i = 0; i < one.vecFileID.size(); ++i)
                told.push_back({one.vecFileID[i], one.vecRate[i]});
        }
        return told;
    };
    auto Take = [&](const std::vector<std::array<uint32_t, 3>>& vecFiles) {
        ZV_UploadListResponse list;
        list.user = node.host.m_LocalUser;
        for (const auto& [ulFileID, ulLength, ulMaxPos] : vecFiles)
        {
            ZV_FileBriefInfo brief = Brief(true);
            brief.SetFileLenth(ulLength);
            ZV_FileUploadInfo info;
            info.SetFileID((uint16_t)ulFileID);
            info.SetBriefInfo(brief);
            list.arrInfo.Add(info);
            list.arrMaxPos.Add(ulMaxPos);
        }
        return Deliver3013(PDU_CONF_GET_UPLOAD_SESSION_LIST_RESPONSE, ZV_SavePayload(list));
    };
    EXPECT_EQ((Told{{5, 2500.0}, {6, 10000.0}}), Take({{5, 4000, 1000}, {6, 0, 0}}));
    EXPECT_EQ((Told{{7, 5000.0}}), Take({{7, 4000, 2000}}));

    // A batch told after a list carries its own file alone, in percent; a
    // description without a FileID beside it is told of no file.
    ZV_AddFilesResponse batch;
    batch.user = kAnn;
    batch.arrFileID.Add(8);
    batch.arrPos.Add(1000);
    ZV_FileBriefInfo brief = Brief(true);
    brief.SetFileLenth(4000);
    batch.arrInfo.Add(brief);
    batch.arrInfo.Add(brief);
    EXPECT_EQ((Told{{8, 25.0}}), Deliver3013(PDU_CONF_FS_ADD_FILES_RESPONSE, ZV_SavePayload(batch)));

    // A file of the user's own whose copy cannot be opened (it went from
    // the disk after it was shared) hides none of the files behind it; the
    // upload asked for it fails, told after the batch.
    ZV_FileBriefInfo own = brief;
    own.SetCreatorID(node.host.m_LocalUser);
    own.SetFilePath(QB_StringU8("C:\\gone\\"));
    ASSERT_TRUE(ZV_FileShareMgrPeer::Ledger(node.mgr).Remember(node.host.m_ulConfID, own, {5, 9}));
    ZV_AddFilesResponse mixed;
    mixed.user = kAnn;
    mixed.bStartUpload = 1;
    mixed.arrFileID.Add(9);
    mixed.arrFileID.Add(10);
    mixed.arrPos.Add(1000);
    mixed.arrPos.Add(4000);
    mixed.arrInfo.Add(own);
    mixed.arrInfo.Add(brief);
    EXPECT_EQ((Told{{9, 25.0}, {10, 100.0}}), Deliver3013(PDU_CONF_FS_ADD_FILES_RESPONSE, ZV_SavePayload(mixed)));
    EXPECT_NE(nullptr, ZV_FileShareMgrPeer::Find(node.mgr, 10));
    ASSERT_FALSE(node.host.m_vecEvents.empty());
    EXPECT_EQ(ZV_FromHex("b9 0b 3c 00 00 00 09 00"), node.host.m_vecEvents.back().data);
}

// A user who enters at this server is sent both lists on the command
// connection unasked; one homed on another server is its server's to serve.
TEST_F(SessionLists, AServerPushesBothListsToAUserWhoEntersThereOnlyAndTakesNoUploadList)
{
    ZV_RecordingNode node(true);
    ASSERT_EQ(0u, node.mgr.Initialize());
    node.host.AddUser(kBob, node.host.m_ulServerID, "Bob");
    node.host.AddUser(kCarol, node.host.m_ulServerID + 1, "Carol");
    node.host.m_mapUserConn[{kBob.m_ulMain, kBob.m_ulSub}] = 33;
    node.host.m_mapUserConn[{kCarol.m_ulMain, kCarol.m_ulSub}] = 34;
    AddFile(node, 5, Brief(true)).SetDownloadInfo(kBob, Record(5, "C:\\dl\\", "5.bin", zvDownloadStateRunning));
    AddFile(node, 6, Brief(true)).SetDownloadInfo(kCarol, Record(6, "C:\\dl\\", "6.bin", zvDownloadStateRunning));

    EXPECT_EQ(0u, node.mgr.OnEvent(zvConfEventUserEnter, 0, (uintptr_t)&kCarol, 0, 0));
    EXPECT_TRUE(node.host.m_vecSent.empty());

    EXPECT_EQ(0u, node.mgr.OnEvent(zvConfEventUserEnter, 0, (uintptr_t)&kBob, 0, 0));
    const auto vecUploads = Pieces<ZV_UploadListResponse>(node, PDU_CONF_GET_UPLOAD_SESSION_LIST_RESPONSE);
    const auto vecDownloads = Pieces<ZV_DownloadListResponse>(node, PDU_CONF_GET_DOWNLOAD_SESSION_LIST_RESPONSE);
    ASSERT_EQ(1u, vecUploads.size());
    ASSERT_EQ(1u, vecDownloads.size());
    EXPECT_EQ(2, vecUploads[0].arrInfo.GetSize());
    ASSERT_EQ(1, vecDownloads[0].arrInfo.GetSize());
    EXPECT_EQ(5, vecDownloads[0].arrInfo[0].m_usFileID);
    for (const ZV_SentPdu& sent : node.host.m_vecSent)
        EXPECT_EQ(33u, sent.ulConn) << sent.usPdu;

    // A server's view is its store: an upload list sent to it, even on a
    // server link, is taken as handled and changes nothing.
    ZV_UploadListResponse list;
    list.user = kBob;
    ZV_FileUploadInfo info;
    info.SetFileID(7);
    info.SetBriefInfo(Brief(true));
    list.arrInfo.Add(info);
    list.arrMaxPos.Add(0);
    list.bLast = 1;
    EXPECT_EQ(0u, ZV_Deliver(node.mgr, PDU_CONF_GET_UPLOAD_SESSION_LIST_RESPONSE, zvConfServerTypeCommand,
                             ZV_SavePayload(list), 5, QB_UserID(2, 0)));
    EXPECT_EQ(2, ZV_FileShareMgrPeer::Sessions(node.mgr).GetCount());
    EXPECT_TRUE(node.host.m_vecEvents.empty());
}

// A creator who enters while a file's upload is unfinished uploads it again
// from its own client: this server is no longer a downloader of the file,
// and tells the other servers so once, with the flags 1, 0.
TEST_F(SessionLists, ACreatorWhoEntersWithAnUnfinishedUploadEndsThisServersFetchWithOneNotice)
{
    ZV_RecordingNode node(true);
    ASSERT_EQ(0u, node.mgr.Initialize());
    node.host.m_bHasServerLinks = true;
    node.host.AddUser(kAnn, node.host.m_ulServerID, "Ann");
    node.host.m_mapUserConn[{kAnn.m_ulMain, kAnn.m_ulSub}] = 33;
    ZV_FileBriefInfo brief = Brief(true);
    brief.SetFileState(zvFileStateUploading);
    const QB_UserID self(node.host.m_ulServerID, 0);
    ZV_FileShareSession& session = AddFile(node, 5, brief);
    session.SetDownloadInfo(self, Record(5, "C:\\store\\", "n", zvDownloadStateRunning));

    EXPECT_EQ(0u, node.mgr.OnEvent(zvConfEventUserEnter, 0, (uintptr_t)&kAnn, 0, 0));
    const auto vecNotice = node.host.SentOf(PDU_CONF_FS_NOTICE_DEL_DOWNLOAD_INFO_REQUEST);
    ASSERT_EQ(1u, vecNotice.size());
    EXPECT_EQ("servers", vecNotice[0].sRoute);
    // The conference word, the FileID, this server, the flood's number.
    EXPECT_EQ(ZV_FromHex("07 00 05 00 01 00 00 00 00 00 00 00 64 00 00 00"), vecNotice[0].data);
    EXPECT_EQ(1, vecNotice[0].bFlag1);
    EXPECT_EQ(0, vecNotice[0].bFlag2);
    ZV_FileDownloadInfo info;
    EXPECT_FALSE(ZV_FileShareSessionPeer::Downloads(session).Lookup(self, info));
}

// A batch gathered over several 8056s is told in as few 3013 events as the
// event buffer holds: files whose entries, as counted, fill it to the byte
// are one event; one file more makes two, the second holding one file. A
// file the answer gives no position for is told at 0.
TEST_F(SessionLists, ABatchThatFillsTheEventBufferIsOneEventAndOneFileMoreIsTwo)
{
    auto Named = [](int n) {
        ZV_FileBriefInfo brief = Brief(true);
        brief.SetFileOldName(QB_StringU8(std::string((size_t)n, 'n').c_str()));
        return brief;
    };
    // Event number, result, and three counts of at most five bytes each.
    const std::vector<int> vecName =
        ZV_NamesThatFill(2 + 4 + 3 * 5, [&](int n) { return Named(n).GetSaveSize() + 4 + 2 + 8; });
    auto Told = [&](ZV_RecordingNode& node, uint16_t usFirst, size_t nFiles) {
        for (size_t i = 0; i < nFiles; ++i)
        {
            ZV_AddFilesResponse piece;
            piece.user = kAnn;
            piece.arrFileID.Add((uint16_t)(usFirst + i));
            piece.arrInfo.Add(Named(i < vecName.size() ? vecName[i] : 1));
            piece.bLast = i + 1 == nFiles;
            Deliver(node, PDU_CONF_FS_ADD_FILES_RESPONSE, ZV_SavePayload(piece), kAnn);
        }
        std::vector<std::pair<int, std::vector<double>>> vecTold;
        for (const ZV_RaisedEvent& event : node.host.m_vecEvents)
        {
            if (event.usEvent != zvFsEventFilesAdded)
                continue;
            EXPECT_LE(event.data.size(), (size_t)QB_PDU_BUFFER_SIZE);
            const ZV_FilesAddedEvent one = ZV_ReadFilesAdded(event.data);
            vecTold.push_back({(int)one.vecFileID.size(), one.vecRate});
        }
        return vecTold;
    };
    ZV_RecordingNode node(false);
    ASSERT_EQ(0u, node.mgr.Initialize());
    auto vecTold = Told(node, 1, vecName.size());
    ASSERT_EQ(1u, vecTold.size());
    EXPECT_EQ((int)vecName.size(), vecTold[0].first);
    EXPECT_EQ(std::vector<double>(vecName.size(), 0.0), vecTold[0].second);

    node.host.m_vecEvents.clear();
    vecTold = Told(node, 100, vecName.size() + 1);
    ASSERT_EQ(2u, vecTold.size());
    EXPECT_EQ((int)vecName.size(), vecTold[0].first);
    EXPECT_EQ(1, vecTold[1].first);
}

// A client takes its own downloads in the list as its disk and its stops
// say: a finished one whose file is whole stays finished, one whose file
// was moved away is no failure, one that arrived whole while the link was
// down is finished, and one stopped while the link was down is stopped at
// the server too.
TEST_F(SessionLists, AClientTakesItsListedDownloadsAsItsDiskAndItsStopsSay)
{
    ZV_RecordingNode node(false);
    const std::string sFolder = ClientWithFolder(node);
    const QB_UserID me = node.host.m_LocalUser;
    const struct { uint16_t usFileID; uint16_t usHeld; uint16_t usListed; size_t nOnDisk;
                   } aFiles[] = {{5, zvDownloadStateFinished, zvDownloadStateFinished, 5000},
                  {6, zvDownloadStateFinished, zvDownloadStateFinished, 0},
                  {7, zvDownloadStateStopped, zvDownloadStateRunning, 1200},
                  {8, zvDownloadStateRunning, zvDownloadStateRunning, 5000},
                  {9, zvDownloadStateNew, zvDownloadStateRunning, 0},
                  {10, zvDownloadStateRunning, zvDownloadStateStopped, 1000}};
    ZV_DownloadListResponse list;
    list.user = me;
    for (const auto& file : aFiles)
    {
        const std::string sName = std::to_string(file.usFileID) + ".bin";
        ZV_FileShareSession& session = AddFile(node, file.usFileID, Brief(true));
        ZV_FileDownloadInfo record = Record(file.usFileID, sFolder, sName, file.usListed);
        record.SetUserID(me);
        record.SetDownloadPos(file.usListed == zvDownloadStateFinished ? 5000 : 0);
        list.arrInfo.Add(record);
        record.SetState(file.usHeld);
        Peer::LocalDownload(session) = record;
        if (file.nOnDisk > 0)
            QB_WriteWholeFile(node.tmp.Sub("dl/" + sName), ZV_TestBytes(file.nOnDisk, file.usFileID));
        list.arrModify.Add(false);
    }
    OpenLog env;
    {
        QB_ScopedEnv install(&env);
        Deliver(node, PDU_CONF_GET_DOWNLOAD_SESSION_LIST_RESPONSE, ZV_SavePayload(list), kBob);
    }
    EXPECT_EQ(0, env.Opened("\\5.bin")) << "a finished download whole on disk is measured, not opened";
    EXPECT_GT(env.Opened("\\8.bin"), 0) << "one that will be written is opened";
    EXPECT_EQ(1u, QB_OpenHandlesTo(node.tmp.Sub("dl/8.bin"))) << "a running one holds its own";

    std::map<uint16_t, std::pair<uint32_t, double>> mapState;
    for (const ZV_RaisedEvent& event : node.host.m_vecEvents)
    {
        QB_ByteStream stream(event.data.data(), (int32_t)event.data.size());
        if (event.usEvent != zvFsEventDownloadState || stream.ReadU16() != zvFsEventDownloadState)
            continue;
        const uint32_t ulResult = stream.ReadU32();
        const uint16_t usFileID = stream.ReadU16();
        ZV_FileDownloadInfo record;
        LoadDelimited(stream, record);
        mapState[usFileID] = {ulResult, stream.ReadDouble()};
    }
    using State = std::pair<uint32_t, double>;
    EXPECT_EQ((std::map<uint16_t, State>{
                  {5, {0, 100.0}}, {6, {0, 100.0}}, {7, {0, 24.0}}, {8, {0, 100.0}}, {10, {0, 20.0}}}),
              mapState);
    // A download this client never had an answer for is given up; one it
    // ran while the server had it stopped is resumed there.
    const auto vecDrops = node.host.SentOf(PDU_CONF_FS_DEL_DOWNLOAD_REQUEST);
    ASSERT_EQ(1u, vecDrops.size());
    EXPECT_EQ(ZV_Pdu().U16(9).User(me).U32(0).b, vecDrops[0].data);
    const auto vecStops = node.host.SentOf(PDU_CONF_FS_IS_STOP_DOWNLOAD_REQUEST);
    ASSERT_EQ(2u, vecStops.size());
    EXPECT_EQ(ZV_Pdu().U16(7).User(me).U32(0).U8(1).b, vecStops[0].data);
    EXPECT_EQ(ZV_Pdu().U16(10).User(me).U32(0).U8(0).b, vecStops[1].data);
    ZV_FileDownloadInfo resumed;
    ASSERT_TRUE(OnlyDataAsk(node, 10, resumed));
    EXPECT_EQ(1000u, resumed.m_ulDownloadPos);
    EXPECT_EQ(zvDownloadStateRunning, resumed.m_usState);
    // The stopped one says where it stands, and that it stays stopped.
    ZV_FileDownloadInfo asked;
    ASSERT_TRUE(OnlyDataAsk(node, 7, asked));
    EXPECT_EQ(1200u, asked.m_ulDownloadPos);
    EXPECT_EQ(zvDownloadStateStopped, asked.m_usState);
}
