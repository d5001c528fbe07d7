// The file list between linked servers: what a server answers, how it is cut, what it takes.
#include "ZV_RecordingNode.h"

#include "lists/ZV_ListPdu.h"

#include "QB_FaultEnv.h"

#include <filesystem>

namespace {

const QB_UserID kSelf(1, 0);
const QB_UserID kPeer(2, 0);
const QB_UserID kBob(20002, 0);

ZV_FileUploadInfo PeerFile(uint16_t usFileID, const char* pszName, uint32_t ulLength, uint32_t ulWritePos,
                           uint16_t usState)
{
    ZV_FileBriefInfo brief = ZV_Brief(QB_UserID(20001, 0), pszName, ulLength);
    brief.SetFileState(usState);
    ZV_FileUploadInfo info;
    info.SetFileID(usFileID), info.SetFileNewName(QB_StringU8(pszName)), info.SetBriefInfo(brief);
    info.SetFileWritePos(ulWritePos);
    return info;
}

struct FileList : ::testing::Test
{
    QB_FaultEnv env;
    QB_ScopedEnv scoped{&env};
    ZV_RecordingNode node{true};

    void SetUp() override { ASSERT_EQ(0u, node.mgr.Initialize()); }
    std::vector<ZV_FileListResponse> Answers()
    {
        return ZV_Pieces<ZV_FileListResponse>(node.host, PDU_CONF_GET_FILE_LIST_RESPONSE);
    }
    // The peer's list of these files, whole there (or each with its state), at their write positions.
    static ZV_FileListResponse List(const std::vector<ZV_FileUploadInfo>& vecInfo, std::vector<bool> vecState = {})
    {
        ZV_FileListResponse part;
        part.sender = kPeer;
        vecState.resize(vecInfo.size(), true);
        for (size_t i = 0; i < vecInfo.size(); ++i)
            part.arrInfo.Add(vecInfo[i]), part.arrState.Add(vecState[i]), part.arrMaxPos.Add(vecInfo[i].m_ulFileWritePos);
        return part;
    }
    void Take(const ZV_FileUploadInfo& info) { Take(List({info})); }
    void Take(const ZV_FileListResponse& part)
    {
        node.host.m_vecSent.clear();
        node.Deliver(PDU_CONF_GET_FILE_LIST_RESPONSE, zvConfServerTypeCommand, ZV_SavePayload(part));
    }
    ZV_FileShareSession* Session(uint16_t usFileID) { return ZV_FileShareMgrPeer::Find(node.mgr, usFileID); }
};

} // namespace

// Files that fill the buffer to the byte go in one PDU; one byte more opens a second.
TEST_F(FileList, CutsFilesThatFillTheBufferToTheByteIntoOnePduAndOneByteMoreIntoTwo)
{
    // Files whose stored names are nNameBytes long.
    auto fnFile = [](uint16_t usFileID, int nNameBytes) {
        ZV_FileUploadInfo info = PeerFile(usFileID, "file.bin", 100, 100, 3);
        info.SetFileNewName(QB_StringU8(std::string((size_t)nNameBytes, 'n').c_str()));
        return info;
    };
    const std::vector<int> vecName = ZV_NamesThatFill(ZV_FileListResponse::kHeadSize,
                                                      [&](int n) { return ZV_FileListEntrySize(fnFile(1, n)); });
    std::vector<ZV_FileUploadInfo> vecInfo;
    for (int nName : vecName)
        vecInfo.push_back(fnFile((uint16_t)(vecInfo.size() + 1), nName));
    ZV_FileListResponse list = List(vecInfo);
    const QB_Array<ZV_FileDownloadInfo> arrNone;
    ZV_FileShareMgrPeer::SendFileList(node.mgr, 5, kSelf, list.arrInfo, list.arrState, list.arrMaxPos, arrNone);
    std::vector<ZV_FileListResponse> vecParts = Answers();
    ASSERT_EQ(2u, vecParts.size());
    EXPECT_EQ(list.arrInfo.GetSize(), vecParts[0].arrInfo.GetSize());

    node.host.m_vecSent.clear();
    list.arrInfo[list.arrInfo.GetSize() - 1] = fnFile(77, vecName.back() + 1);
    ZV_FileShareMgrPeer::SendFileList(node.mgr, 5, kSelf, list.arrInfo, list.arrState, list.arrMaxPos, arrNone);
    vecParts = Answers();
    ASSERT_EQ(3u, vecParts.size());
    ASSERT_EQ(1, vecParts[1].arrInfo.GetSize());
    EXPECT_TRUE(vecParts[1].arrInfo[0].m_usFileID == 77 && vecParts[1].bUploadList == 1 && vecParts[2].bUploadList == 0);
}

// A FileID of another server's range naming two files: both sides keep the one shared later.
TEST_F(FileList, ANumberOfAnotherRangeNamesTheFileSharedLaterOnBothSides)
{
    struct { const char* szName; uint16_t usFileID; int64_t llHeld; int64_t llListed; const char* pszKept; } aCases[] = {
        {"the listed file is later", 2001, 1300000000, 1300000060, "listed.bin"},
        {"the held file is later", 2002, 1300000060, 1300000000, "held.bin"}};
    for (const auto& c : aCases)
    {
        for (const auto& [pszName, llShared] : {std::pair{"held.bin", c.llHeld}, std::pair{"listed.bin", c.llListed}})
        {
            ZV_FileUploadInfo info = PeerFile(c.usFileID, pszName, 100, 100, 3);
            QB_DateTimeEx dtShared;
            dtShared.SetFromTimeT(llShared);
            info.m_BriefInfo.SetShareTime(dtShared);
            Take(info);
        }
        const ZV_FileShareSession* lpFsSession = Session(c.usFileID);
        ASSERT_NE(nullptr, lpFsSession) << c.szName;
        EXPECT_EQ(std::string(c.pszKept), lpFsSession->FileInfo().m_BriefInfo.m_sFileOldName.GetString()) << c.szName;
    }
}

// Only a record of a downloader unknown here, of the same file, is taken: resting, and told to its user.
TEST_F(FileList, TakesOnlyTheRecordsOfDownloadersItDidNotKnow)
{
    Take(PeerFile(1001, "whole.bin", 5000, 5000, 3));
    ZV_FileListResponse records;
    records.sender = kPeer;
    records.bUploadList = 0;
    ZV_FileDownloadInfo record;
    record.SetFileID(1001), record.SetUserID(kBob), record.SetDownloadPos(1000), record.SetActive(true);
    records.arrDownload.Add(record);
    ZV_FileDownloadInfo other = record;  // Carol's, of another file the peer holds under the FileID
    other.SetUserID(QB_UserID(20003, 0)), other.SetFileFullName(QB_StringU8("other.bin"));
    records.arrDownload.Add(other);
    node.host.AddUser(kBob, kSelf.m_ulMain, "Bob");
    node.host.m_mapUserConn[{kBob.m_ulMain, kBob.m_ulSub}] = 77;
    Take(records);
    ZV_FileShareSession* lpFsSession = Session(1001);
    const ZV_FileDownloadInfo* pEntry = lpFsSession->FindDownloadEntry(kBob);
    ASSERT_NE(nullptr, pEntry);
    EXPECT_TRUE(pEntry->m_ulDownloadPos == 1000 && !pEntry->m_bActive);
    EXPECT_EQ(nullptr, lpFsSession->FindDownloadEntry(QB_UserID(20003, 0)));
    const auto vecTold = ZV_SentAs<ZV_DownloadListResponse>(node.host, PDU_CONF_GET_DOWNLOAD_SESSION_LIST_RESPONSE);
    ASSERT_TRUE(vecTold.size() == 1 && vecTold[0].arrInfo.GetSize() == 1);
    EXPECT_EQ(77u, node.host.SentOf(PDU_CONF_GET_DOWNLOAD_SESSION_LIST_RESPONSE)[0].ulConn);
    EXPECT_EQ(kBob, vecTold[0].user);
    EXPECT_EQ(1000u, vecTold[0].arrInfo[0].m_ulDownloadPos);
    EXPECT_FALSE(vecTold[0].arrModify[0]) << "the file is the one the record began with";

    records.arrDownload[0].SetDownloadPos(4000);
    Take(records);
    EXPECT_EQ(1000u, lpFsSession->FindDownloadEntry(kBob)->m_ulDownloadPos);
    EXPECT_TRUE(node.host.SentOf(PDU_CONF_GET_DOWNLOAD_SESSION_LIST_RESPONSE).empty());
    // Asked by the peer, it answers with its files, then its records; asked in its own name, with nothing.
    node.host.m_vecSent.clear();
    node.Deliver(PDU_CONF_GET_FILE_LIST_REQUEST, zvConfServerTypeCommand, ZV_Pdu().User(kPeer).b);
    const std::vector<ZV_FileListResponse> vecParts = Answers();
    ASSERT_EQ(2u, vecParts.size());
    EXPECT_TRUE(vecParts[0].arrInfo.GetSize() == 1 && vecParts[1].arrDownload.GetSize() == 1);
    EXPECT_EQ(5u, node.host.SentOf(PDU_CONF_GET_FILE_LIST_RESPONSE)[1].ulConn);
    node.host.m_vecSent.clear();
    node.Deliver(PDU_CONF_GET_FILE_LIST_REQUEST, zvConfServerTypeCommand, ZV_Pdu().User(kSelf).b);
    EXPECT_TRUE(node.host.m_vecSent.empty());
}

// New files get a session and a fetch in one write; a second list changes nothing; positions never fall.
// An entry without a name, or under a FileID an add here holds, is passed over, not taken for the end of the list.
TEST_F(FileList, TakesAPeersNewFilesOnceFetchesWhatItLacksAndSavesThemInOneWrite)
{
    ZV_FileShareMgrPeer::Sessions(node.mgr).SetAt(999, nullptr);
    ZV_FileListResponse part = List({PeerFile(999, "held.bin", 10, 10, 3), PeerFile(1000, "", 10, 10, 3),
                                     PeerFile(1001, "whole.bin", 5000, 5000, 3), PeerFile(1002, "half.bin", 8000, 3000, 1)},
                                    {true, true, true, false});
    const int nWrites = env.GetCount(QB_EnvOp::Write);
    node.host.m_bHasServerLinks = true;
    Take(part);
    EXPECT_EQ(nWrites + 1, env.GetCount(QB_EnvOp::Write)) << "one catalogue write";
    // The new files go on to the other servers, not back to the one that listed them.
    const std::vector<ZV_SentPdu> vecOn = node.host.SentOf(PDU_CONF_GET_FILE_LIST_RESPONSE);
    ASSERT_EQ(1u, vecOn.size());
    EXPECT_TRUE(vecOn[0].sRoute == "servers" && vecOn[0].ulConn == 5);
    EXPECT_EQ(2, ZV_SentAs<ZV_FileListResponse>(node.host, PDU_CONF_GET_FILE_LIST_RESPONSE, 2).at(0).arrInfo.GetSize());
    ASSERT_TRUE(Session(1000) == nullptr && Session(1001) != nullptr && Session(1002) != nullptr);
    EXPECT_TRUE(Session(1001)->IsUploadDone() && !Session(1002)->IsUploadDone());
    EXPECT_EQ(2u, node.host.SentOf(PDU_CONF_FS_DOWNLOAD_REQUEST).size());
    EXPECT_EQ(1u, node.host.SentOf(PDU_CONF_FS_ADD_FILES_RESPONSE).size()) << "one series to the clients";

    part.arrMaxPos[2] = 100;
    Take(part);
    EXPECT_TRUE(node.host.m_vecSent.empty());
    EXPECT_EQ(nWrites + 1, env.GetCount(QB_EnvOp::Write));
    // After a lost server link the creator's server tells, once, where each upload stands.
    node.host.AddUser(QB_UserID(20001, 0), kSelf.m_ulMain, "Ann");
    node.mgr.OnDisconnect(&kPeer, 5, zvConfServerTypeCommand, 0);
    Take(part);
    EXPECT_EQ(5000u, Session(1001)->MaxPos());
    EXPECT_EQ(2u, node.host.SentOf(PDU_CONF_FS_IS_STOP_UPLOAD_REQUEST).size());
    Take(part);
    EXPECT_TRUE(node.host.m_vecSent.empty());
}

// New files go to the clients in one 8056 starting no upload; those not storable follow in their own.
TEST_F(FileList, AnnouncesNewFilesToItsClientsAndThoseItCannotStoreInASeriesOfTheirOwn)
{
    env.FailAt(QB_EnvOp::MakeFolder, 1);
    Take(List({PeerFile(1001, "f.bin", 5000, 5000, 3), PeerFile(1002, "f.bin", 5000, 5000, 3)}));
    std::vector<std::vector<uint16_t>> vecSeries;
    for (const auto& answer : ZV_SentAs<ZV_AddFilesResponse>(node.host, PDU_CONF_FS_ADD_FILES_RESPONSE))
    {
        EXPECT_TRUE(answer.bStartUpload == 0 && answer.user == node.host.m_LocalUser);
        vecSeries.emplace_back(answer.arrFileID.GetData(), answer.arrFileID.GetData() + answer.arrFileID.GetSize());
    }
    EXPECT_EQ((std::vector<std::vector<uint16_t>>{{1002}, {1001}}), vecSeries);
    ZV_FileUploadInfo row;
    QB_StringW sSection;
    EXPECT_TRUE(ZV_FileShareMgrPeer::Catalog(node.mgr).LoadFile(7, 1001, row, sSection));
    EXPECT_EQ(1u, node.host.SentOf(PDU_CONF_FS_DOWNLOAD_REQUEST).size()) << "no fetch for the file not stored";
}

// A new file takes no name stored or given in the same list; a FileID held for another file loses the old bytes.
TEST_F(FileList, KeepsEachStoredFileApartFromTheFilesAPeerLists)
{
    std::filesystem::create_directories(node.tmp.Sub("store/7"));
    QB_WriteWholeFile(node.tmp.Sub("store/7/new.bin"), "not the peer's");
    ASSERT_TRUE(ZV_FileShareMgrPeer::Catalog(node.mgr).SaveFile(7, PeerFile(1004, "old.bin", 8000, 8000, 3)));
    QB_WriteWholeFile(node.tmp.Sub("store/7/old.bin"), ZV_TestBytes(8000, 4));
    Take(List({PeerFile(1003, "new.bin", 5000, 5000, 3), PeerFile(1004, "old.bin", 5000, 5000, 3),
               PeerFile(1006, "new.bin", 7000, 7000, 3)}));
    const Bytes vbMine = QB_ReadWholeFile(node.tmp.Sub("store/7/new.bin"));
    EXPECT_EQ("not the peer's", std::string(vbMine.begin(), vbMine.end()));
    EXPECT_EQ(QB_StringU8("new(1).bin"), Session(1003)->FileInfo().m_sFileNewName);
    EXPECT_EQ(QB_StringU8("new(2).bin"), Session(1006)->FileInfo().m_sFileNewName);
    EXPECT_TRUE(std::filesystem::exists(node.tmp.Sub("store/7/new(2).bin"))) << "taken before its bytes come";
    EXPECT_FALSE(std::filesystem::exists(node.tmp.Sub("store/7/old.bin")));
    EXPECT_EQ(3u, node.host.SentOf(PDU_CONF_FS_DOWNLOAD_REQUEST).size());
    // The same file under another stored name at the peer keeps this server's name and bytes.
    ZV_FileUploadInfo kept = PeerFile(1005, "song.bin", 5000, 5000, 3);
    kept.SetFileNewName(QB_StringU8("song(2).bin"));
    ASSERT_TRUE(ZV_FileShareMgrPeer::Catalog(node.mgr).SaveFile(7, kept));
    QB_WriteWholeFile(node.tmp.Sub("store/7/song(2).bin"), ZV_TestBytes(5000, 5));
    Take(PeerFile(1005, "song.bin", 5000, 0, 3));
    EXPECT_EQ(QB_StringU8("song(2).bin"), Session(1005)->FileInfo().m_sFileNewName);
    EXPECT_TRUE(node.host.SentOf(PDU_CONF_FS_DOWNLOAD_REQUEST).empty()) << "the stored file is whole";
    EXPECT_EQ(5000u, Session(1005)->MaxPos());
}
