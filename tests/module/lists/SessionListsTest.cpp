// The two lists that bring one user in step: how a server cuts and serves them, what a client makes of them.
#include "ZV_RecordingNode.h"

#include "lists/ZV_ListPdu.h"
#include "ZV_FilesAddedEvent.h"

#include "QB_FaultEnv.h"

#include <algorithm>
#include <array>
#include <filesystem>
#include <tuple>

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

ZV_FileBriefInfo Brief(bool bPublic, const QB_UserID* lpRight = nullptr, uint32_t ulLength = 5000)
{
    QB_Array<QB_UserID> arrRight;
    if (lpRight != nullptr)
        arrRight.Add(*lpRight);
    ZV_FileBriefInfo brief = ZV_Brief(kAnn, "f.bin", ulLength, bPublic);
    brief.SetFileState(zvFileStateComplete);
    brief.SetShareTime(SharedOn(20));
    brief.SetRight(arrRight);
    return brief;
}

ZV_FileDownloadInfo Record(uint16_t usFileID, const std::string& sName, uint16_t usState, int nShareDay = 20,
                           const std::string& sFolder = "C:\\dl\\")
{
    ZV_FileDownloadInfo record;
    record.SetFileID(usFileID), record.SetFilePath(QB_StringU8(sFolder.c_str()));
    record.SetFileName(QB_StringU8(sName.c_str())), record.SetFileLenth(5000), record.SetShareTime(SharedOn(nShareDay));
    record.SetState(usState), record.SetActive(true), record.SetUserID(kBob);
    return record;
}

// 8028 to `user`: per file its FileID, length and the server's position.
ZV_UploadListResponse UploadList(const QB_UserID& user, const std::vector<std::array<uint32_t, 3>>& vecFiles)
{
    ZV_UploadListResponse list;
    list.user = user;
    for (const auto& [ulFileID, ulLength, ulMaxPos] : vecFiles)
    {
        ZV_FileUploadInfo info;
        info.SetFileID((uint16_t)ulFileID);
        info.SetBriefInfo(Brief(true, nullptr, ulLength));
        list.arrInfo.Add(info);
        list.arrMaxPos.Add(ulMaxPos);
    }
    return list;
}

// 8056 from Ann: FileIDs with their positions, then the descriptions.
ZV_AddFilesResponse Batch(const std::vector<std::pair<uint16_t, uint32_t>>& vecFile,
                          const std::vector<ZV_FileBriefInfo>& vecBrief)
{
    ZV_AddFilesResponse batch;
    batch.user = kAnn;
    for (const auto& [usFileID, ulPos] : vecFile)
        batch.arrFileID.Add(usFileID), batch.arrPos.Add(ulPos);
    for (const ZV_FileBriefInfo& brief : vecBrief)
        batch.arrInfo.Add(brief);
    return batch;
}

uint32_t Deliver(ZV_RecordingNode& node, uint16_t usPdu, const Bytes& data, const QB_UserID& from = kBob)
{
    return ZV_Deliver(node.mgr, usPdu, zvConfClientTypeCommand, data, 5, from);
}
ZV_FileShareSession& AddFile(ZV_RecordingNode& node, uint16_t usFileID, const ZV_FileBriefInfo& brief, int nNameBytes = 5)
{
    return ZV_AdoptFile(node.mgr, usFileID, node.tmp.Path().c_str(), brief, std::string((size_t)nNameBytes, 'n').c_str());
}

// Counts the files opened through it by the tail of their names.
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

struct SessionLists : ::testing::Test
{
    QB_FaultEnv env;
    QB_ScopedEnv scoped{&env};
    std::unique_ptr<ZV_RecordingNode> m_lpNode;

    ZV_RecordingNode& Started(bool bServer)
    {
        m_lpNode = std::make_unique<ZV_RecordingNode>(bServer);
        EXPECT_EQ(0u, m_lpNode->mgr.Initialize());
        return *m_lpNode;
    }
    // A user homed at this server (or the next) on command connection ulConn.
    static void Home(ZV_RecordingNode& node, const QB_UserID& user, uint32_t ulConn, uint32_t ulAway = 0)
    {
        node.host.AddUser(user, node.host.m_ulServerID + ulAway, "user");
        node.host.m_mapUserConn[{user.m_ulMain, user.m_ulSub}] = ulConn;
    }
    // The client's download folder, as a Windows path.
    static std::string Folder(ZV_RecordingNode& node)
    {
        std::filesystem::create_directories(node.tmp.Sub("dl"));
        return QB_StringU8(QB_ToWindowsPath(node.tmp.Sub("dl/"))).GetString();
    }
};

} // namespace

// Entries that fill the buffer to the byte go in one last piece; one more makes two.
TEST_F(SessionLists, AListThatFillsTheBufferIsOnePieceAndOneEntryMoreIsTwo)
{
    for (bool bUploads : {true, false})
    {
        SCOPED_TRACE(bUploads ? "upload list" : "download list");
        ZV_RecordingNode node(true);
        auto Named = [](uint16_t usFileID, int n) {
            return Record(usFileID, std::string((size_t)n, 'n'), zvDownloadStateRunning);
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
                    ZV_Pdu().U16(3).User(kBob).b);
            if (bUploads)
                for (const auto& part : ZV_Pieces<ZV_UploadListResponse>(node.host, PDU_CONF_GET_UPLOAD_SESSION_LIST_RESPONSE))
                    vec.push_back({part.arrInfo.GetSize(), part.bLast});
            else
                for (const auto& part : ZV_Pieces<ZV_DownloadListResponse>(node.host, PDU_CONF_GET_DOWNLOAD_SESSION_LIST_RESPONSE))
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

// Listing rests a record, marks one of a file shared anew once, withdraws one whose user lost the right.
TEST_F(SessionLists, AServerRestsRenewsOrWithdrawsEachRecordItLists)
{
    ZV_RecordingNode node(true);
    node.host.m_bHasServerLinks = true;
    ZV_FileShareSession& same = AddFile(node, 5, Brief(true));
    same.SetDownloadInfo(kBob, Record(5, "same.bin", zvDownloadStateRunning));
    ZV_FileShareSession& anew = AddFile(node, 6, Brief(true));
    anew.SetDownloadInfo(kBob, Record(6, "anew.bin", zvDownloadStateRunning, 19));
    ZV_FileShareSession& hidden = AddFile(node, 7, Brief(false, &kCarol));
    hidden.SetDownloadInfo(kBob, Record(7, "hidden.bin", zvDownloadStateRunning));
    AddFile(node, 8, Brief(true)).SetDownloadInfo(kCarol, Record(8, "carol.bin", zvDownloadStateRunning));
    AddFile(node, 4, Brief(false, &kBob)).SetDownloadInfo(kBob, Record(4, "granted.bin", zvDownloadStateRunning));
    // Per FileID listed, its mark.
    auto Listed = [&]() {
        node.host.m_vecSent.clear();
        Deliver(node, PDU_CONF_GET_DOWNLOAD_SESSION_LIST_REQUEST, ZV_Pdu().U16(0).User(kBob).b);
        std::map<uint16_t, bool> mapModify;
        for (const auto& part : ZV_Pieces<ZV_DownloadListResponse>(node.host, PDU_CONF_GET_DOWNLOAD_SESSION_LIST_RESPONSE))
        {
            EXPECT_TRUE(part.ulResult == 0 && part.user == kBob);
            for (int i = 0; i < part.arrInfo.GetSize(); ++i)
                mapModify[part.arrInfo[i].m_usFileID] = part.arrModify[i];
        }
        return mapModify;
    };
    EXPECT_EQ((std::map<uint16_t, bool>{{4, false}, {5, false}, {6, true}, {7, false}}), Listed());
    EXPECT_FALSE(same.FindDownloadEntry(kBob)->m_bActive) << "nothing is sent until Bob asks again";
    EXPECT_TRUE(anew.FindDownloadEntry(kBob)->m_dtShareTime == SharedOn(20));
    EXPECT_EQ(nullptr, hidden.FindDownloadEntry(kBob));
    const auto vecDrop = node.host.SentOf(PDU_CONF_FS_DEL_DOWNLOAD_REQUEST);
    ASSERT_EQ(1u, vecDrop.size());
    EXPECT_TRUE(vecDrop[0].sRoute == "servers" && vecDrop[0].data == ZV_Pdu().U16(7).U16(7).User(kBob).U32(100).b);
    EXPECT_EQ((std::map<uint16_t, bool>{{4, false}, {5, false}, {6, false}}), Listed()) << "renewed once";

    ZV_FileShareSession& seen = AddFile(node, 9, Brief(false));
    seen.SetDownloadInfo(kBob, Record(9, "seen.bin", zvDownloadStateRunning));
    node.host.m_setFloodSeen.insert({(uint64_t)kBob.m_ulMain << 32, node.host.m_ulNextFloodSeq});
    EXPECT_EQ(3u, Listed().size()) << "the seen record is not listed";
    EXPECT_NE(nullptr, seen.FindDownloadEntry(kBob)) << "and stays";
    EXPECT_TRUE(node.host.SentOf(PDU_CONF_FS_DEL_DOWNLOAD_REQUEST).empty());
}

// 3013 tells a list in ten-thousandths held (an empty file whole), a batch in percent, nothing earlier.
TEST_F(SessionLists, AClientTellsEachUploadListWithItsOwnFilesAndHowMuchOfEachTheServerHolds)
{
    ZV_RecordingNode& node = Started(false);
    using Told = std::vector<std::pair<uint16_t, double>>;
    auto Deliver3013 = [&](uint16_t usPdu, const Bytes& data) {
        node.host.m_vecEvents.clear();
        Deliver(node, usPdu, data);
        Told told;
        for (const ZV_RaisedEvent& event : node.host.m_vecEvents)
            if (event.usEvent == zvFsEventFilesAdded)
            {
                const ZV_FilesAddedEvent one = ZV_ReadFilesAdded(event.data);
                for (size_t i = 0; i < one.vecFileID.size(); ++i)
                    told.push_back({one.vecFileID[i], one.vecRate[i]});
            }
        return told;
    };
    auto Take = [&](const std::vector<std::array<uint32_t, 3>>& vecFiles) {
        return Deliver3013(PDU_CONF_GET_UPLOAD_SESSION_LIST_RESPONSE, ZV_SavePayload(UploadList(node.host.m_LocalUser, vecFiles)));
    };
    EXPECT_EQ((Told{{5, 2500.0}, {6, 10000.0}}), Take({{5, 4000, 1000}, {6, 0, 0}}));
    // The files it no longer lists go: a partial download with its file, a finished one's path stays for the user.
    const std::string sFolder = Folder(node);
    Peer::LocalDownload(*ZV_FileShareMgrPeer::Find(node.mgr, 5)) = Record(5, "5.bin", zvDownloadStateFinished, 20, sFolder);
    Peer::LocalDownload(*ZV_FileShareMgrPeer::Find(node.mgr, 6)) = Record(6, "6.bin", zvDownloadStateRunning, 20, sFolder);
    QB_WriteWholeFile(node.tmp.Sub("dl/5.bin"), ZV_TestBytes(100, 1));
    QB_WriteWholeFile(node.tmp.Sub("dl/6.bin"), ZV_TestBytes(100, 1));
    EXPECT_EQ((Told{{7, 5000.0}}), Take({{7, 4000, 2000}}));
    EXPECT_EQ(1, ZV_FileShareMgrPeer::Sessions(node.mgr).GetCount());
    EXPECT_TRUE(std::filesystem::exists(node.tmp.Sub("dl/5.bin")) && !std::filesystem::exists(node.tmp.Sub("dl/6.bin")));
    EXPECT_EQ(2, std::count_if(node.host.m_vecEvents.begin(), node.host.m_vecEvents.end(),
                               [](const ZV_RaisedEvent& event) { return event.usEvent == zvFsEventFileGone; }));
    EXPECT_EQ(0u, node.mgr.FsDelDownload(5, 1));
    EXPECT_FALSE(std::filesystem::exists(node.tmp.Sub("dl/5.bin")));
    // A description without a FileID beside it is told of no file.
    const ZV_FileBriefInfo brief = Brief(true, nullptr, 4000);
    EXPECT_EQ((Told{{8, 25.0}}),
              Deliver3013(PDU_CONF_FS_ADD_FILES_RESPONSE, ZV_SavePayload(Batch({{8, 1000}}, {brief, brief}))));
    // The user's own file gone from the disk hides none behind it; its upload fails, told after the batch.
    ZV_FileBriefInfo own = brief;
    own.SetCreatorID(node.host.m_LocalUser), own.SetFilePath(QB_StringU8("C:\\gone\\"));
    ASSERT_TRUE(ZV_FileShareMgrPeer::Ledger(node.mgr).Remember(node.host.m_ulConfID, own, {5, 9}));
    ZV_AddFilesResponse mixed = Batch({{9, 1000}, {10, 4000}}, {own, brief});
    mixed.bStartUpload = 1;
    EXPECT_EQ((Told{{9, 25.0}, {10, 100.0}}), Deliver3013(PDU_CONF_FS_ADD_FILES_RESPONSE, ZV_SavePayload(mixed)));
    EXPECT_NE(nullptr, ZV_FileShareMgrPeer::Find(node.mgr, 10));
    ASSERT_FALSE(node.host.m_vecEvents.empty());
    EXPECT_EQ(ZV_FromHex("b9 0b 3c 00 00 00 09 00"), node.host.m_vecEvents.back().data);
}

// Both lists go unasked to a user entering at this server only; an upload list sent to a server changes nothing;
// a creator who enters with an unfinished upload ends this server's fetch.
TEST_F(SessionLists, AServerPushesBothListsToAUserWhoEntersThereOnlyTakesNoUploadListAndEndsAFetchForTheCreator)
{
    ZV_RecordingNode& node = Started(true);
    Home(node, kBob, 33);
    Home(node, kCarol, 34, 1);
    AddFile(node, 5, Brief(true)).SetDownloadInfo(kBob, Record(5, "5.bin", zvDownloadStateRunning));
    AddFile(node, 6, Brief(true)).SetDownloadInfo(kCarol, Record(6, "6.bin", zvDownloadStateRunning));
    EXPECT_EQ(0u, node.mgr.OnEvent(zvConfEventUserEnter, 0, (uintptr_t)&kCarol, 0, 0));
    EXPECT_TRUE(node.host.m_vecSent.empty());

    EXPECT_EQ(0u, node.mgr.OnEvent(zvConfEventUserEnter, 0, (uintptr_t)&kBob, 0, 0));
    const auto vecUploads = ZV_Pieces<ZV_UploadListResponse>(node.host, PDU_CONF_GET_UPLOAD_SESSION_LIST_RESPONSE);
    const auto vecDownloads = ZV_Pieces<ZV_DownloadListResponse>(node.host, PDU_CONF_GET_DOWNLOAD_SESSION_LIST_RESPONSE);
    ASSERT_TRUE(vecUploads.size() == 1 && vecDownloads.size() == 1 && vecDownloads[0].arrInfo.GetSize() == 1);
    EXPECT_TRUE(vecUploads[0].arrInfo.GetSize() == 2 && vecDownloads[0].arrInfo[0].m_usFileID == 5);
    for (const ZV_SentPdu& sent : node.host.m_vecSent)
        EXPECT_EQ(33u, sent.ulConn) << sent.usPdu;

    EXPECT_EQ(0u, ZV_Deliver(node.mgr, PDU_CONF_GET_UPLOAD_SESSION_LIST_RESPONSE, zvConfServerTypeCommand,
                             ZV_SavePayload(UploadList(kBob, {{7, 5000, 0}})), 5, QB_UserID(2, 0)));
    EXPECT_EQ(2, ZV_FileShareMgrPeer::Sessions(node.mgr).GetCount());
    EXPECT_TRUE(node.host.m_vecEvents.empty());

    // A creator entering mid-upload uploads again: this server stops fetching
    // and tells the others once (flags 1, 0).
    node.host.m_bHasServerLinks = true;
    Home(node, kAnn, 35);
    const QB_UserID self(node.host.m_ulServerID, 0);
    ZV_FileShareSession& session = *ZV_FileShareMgrPeer::Find(node.mgr, 6);
    Peer::FileInfo(session).m_BriefInfo.SetFileState(zvFileStateUploading);
    session.SetDownloadInfo(self, Record(6, "n", zvDownloadStateRunning, 20, "C:\\store\\"));
    EXPECT_EQ(0u, node.mgr.OnEvent(zvConfEventUserEnter, 0, (uintptr_t)&kAnn, 0, 0));
    const auto vecNotice = node.host.SentOf(PDU_CONF_FS_NOTICE_DEL_DOWNLOAD_INFO_REQUEST);
    ASSERT_EQ(1u, vecNotice.size());
    EXPECT_TRUE(vecNotice[0].sRoute == "servers" && vecNotice[0].bFlag1 == 1 && vecNotice[0].bFlag2 == 0);
    // The conference word, the FileID, this server, the flood's number.
    EXPECT_EQ(ZV_FromHex("07 00 06 00 01 00 00 00 00 00 00 00 64 00 00 00"), vecNotice[0].data);
    EXPECT_EQ(nullptr, session.FindDownloadEntry(self));
}

// A batch over several 8056s fills one 3013 to the byte, one file more makes two; no position is told at 0.
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
    ZV_RecordingNode& node = Started(false);
    // Per event: its files and their rates.
    auto Told = [&](uint16_t usFirst, size_t nFiles) {
        node.host.m_vecEvents.clear();
        for (size_t i = 0; i < nFiles; ++i)
        {
            ZV_AddFilesResponse piece = Batch({}, {Named(i < vecName.size() ? vecName[i] : 1)});
            piece.arrFileID.Add((uint16_t)(usFirst + i));
            piece.bLast = i + 1 == nFiles;
            Deliver(node, PDU_CONF_FS_ADD_FILES_RESPONSE, ZV_SavePayload(piece), kAnn);
        }
        std::vector<std::pair<size_t, std::vector<double>>> vecTold;
        for (const ZV_RaisedEvent& event : node.host.m_vecEvents)
            if (event.usEvent == zvFsEventFilesAdded)
            {
                EXPECT_LE(event.data.size(), (size_t)QB_PDU_BUFFER_SIZE);
                const ZV_FilesAddedEvent one = ZV_ReadFilesAdded(event.data);
                vecTold.push_back({one.vecFileID.size(), one.vecRate});
            }
        return vecTold;
    };
    const size_t n = vecName.size();
    using Events = std::vector<std::pair<size_t, std::vector<double>>>;
    EXPECT_EQ((Events{{n, std::vector<double>(n, 0.0)}}), Told(1, n));
    EXPECT_EQ((Events{{n, std::vector<double>(n, 0.0)}, {1, {0.0}}}), Told(100, n + 1));
}

// Each listed download is taken as the disk, the stop and the right say.
TEST_F(SessionLists, AClientTakesItsListedDownloadsAsItsDiskAndItsStopsSay)
{
    ZV_RecordingNode& node = Started(false);
    const std::string sFolder = Folder(node);
    const QB_UserID me = node.host.m_LocalUser;
    // The right to the last three is the user's no longer, or by name.
    enum { kPublic, kWithdrawn, kNamed };
    const struct { uint16_t usFileID; uint16_t usHeld; uint16_t usListed; size_t nOnDisk; int nRight;
                   } aFiles[] = {{5, zvDownloadStateFinished, zvDownloadStateFinished, 5000, kPublic},
                  {6, zvDownloadStateFinished, zvDownloadStateFinished, 0, kPublic},
                  {7, zvDownloadStateStopped, zvDownloadStateRunning, 1200, kPublic},
                  {8, zvDownloadStateRunning, zvDownloadStateRunning, 5000, kPublic},
                  {9, zvDownloadStateNew, zvDownloadStateRunning, 0, kPublic},
                  {10, zvDownloadStateRunning, zvDownloadStateStopped, 1000, kPublic},
                  {11, zvDownloadStateRunning, zvDownloadStateRunning, 1200, kWithdrawn},
                  {12, zvDownloadStateFinished, zvDownloadStateFinished, 5000, kWithdrawn},
                  {13, zvDownloadStateRunning, zvDownloadStateRunning, 1200, kNamed},
                  {14, zvDownloadStateFinished, zvDownloadStateFinished, 3000, kPublic}};
    ZV_DownloadListResponse list;
    list.user = me;
    for (const auto& file : aFiles)
    {
        const std::string sName = std::to_string(file.usFileID) + ".bin";
        ZV_FileDownloadInfo record = Record(file.usFileID, sName, file.usListed, 20, sFolder);
        record.SetUserID(me), record.SetDownloadPos(file.usListed == zvDownloadStateFinished ? 5000 : 0);
        list.arrInfo.Add(record), list.arrModify.Add(false);
        record.SetState(file.usHeld);
        Peer::LocalDownload(AddFile(node, file.usFileID,
                                    Brief(file.nRight == kPublic, file.nRight == kNamed ? &me : nullptr))) = record;
        ZV_FileShareMgrPeer::BusyFileIDs(node.mgr).Add(file.usFileID);
        if (file.nOnDisk > 0)
            QB_WriteWholeFile(node.tmp.Sub("dl/" + sName), ZV_TestBytes(file.nOnDisk, file.usFileID));
    }
    OpenLog env;
    {
        QB_ScopedEnv install(&env);
        Deliver(node, PDU_CONF_GET_DOWNLOAD_SESSION_LIST_RESPONSE, ZV_SavePayload(list));
    }
    EXPECT_EQ(0, env.Opened("\\5.bin")) << "a finished download whole on disk is measured, not opened";
    EXPECT_GT(env.Opened("\\8.bin"), 0) << "one that will be written is opened";
    EXPECT_EQ(1u, QB_OpenHandlesTo(node.tmp.Sub("dl/8.bin"))) << "a running one holds its own";

    using State = std::pair<uint32_t, double>;
    std::map<uint16_t, State> mapState;
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
    EXPECT_EQ((std::map<uint16_t, State>{{5, {0, 100.0}}, {6, {0, 100.0}}, {7, {0, 24.0}}, {8, {0, 100.0}},
                                         {10, {0, 20.0}}, {13, {0, 24.0}}, {14, {0, 60.0}}}), mapState);
    // A withdrawn download's partial file goes, a finished one stays; neither is busy.
    EXPECT_TRUE(!std::filesystem::exists(node.tmp.Sub("dl/11.bin")) && std::filesystem::exists(node.tmp.Sub("dl/12.bin")));
    EXPECT_TRUE(ZV_FileShareMgrPeer::BusyFileIDs(node.mgr).Find(11) < 0 && ZV_FileShareMgrPeer::BusyFileIDs(node.mgr).Find(12) < 0);
    EXPECT_TRUE(ZV_DataAsks(node.host, 11).empty() && ZV_DataAsks(node.host, 12).empty());
    // A download this client never had an answer for is given up.
    EXPECT_EQ(std::vector<Bytes>{ZV_Pdu().U16(9).User(me).U32(0).b}, ZV_SentData(node.host, PDU_CONF_FS_DEL_DOWNLOAD_REQUEST));
    EXPECT_EQ((std::vector<Bytes>{ZV_Pdu().U16(7).User(me).U32(0).U8(1).b, ZV_Pdu().U16(10).User(me).U32(0).U8(0).b}),
              ZV_SentData(node.host, PDU_CONF_FS_IS_STOP_DOWNLOAD_REQUEST));
    // Each says where it stands, the stopped one that it stays stopped, and a
    // finished one cut short on disk takes up again where its file ends.
    for (const auto& [usFileID, ulPos, usState] : {std::tuple{10, 1000u, zvDownloadStateRunning},
                                                   std::tuple{7, 1200u, zvDownloadStateStopped},
                                                   std::tuple{13, 1200u, zvDownloadStateRunning},
                                                   std::tuple{14, 3000u, zvDownloadStateRunning}})
    {
        const auto vecAsked = ZV_DataAsks(node.host, (uint16_t)usFileID);
        ASSERT_EQ(1u, vecAsked.size()) << usFileID;
        EXPECT_TRUE(vecAsked[0].m_ulDownloadPos == ulPos && vecAsked[0].m_usState == usState) << usFileID;
    }
}
