// The upload road on one manager: the creator's pump and start, the server's
// writes at its write position, against a recording host and a file system
// that fails on demand.
#include "lists/ZV_ListPdu.h"
#include "control/ZV_ControlPdu.h"
#include "ZV_RecordingNode.h"

#include "QB_FaultEnv.h"

#include <filesystem>

namespace {

using Peer = ZV_FileShareSessionPeer;
const QB_UserID kAlice(10001, 0);  // the creator: commands on 11, data on 12
const QB_UserID kBob(10002, 0);

Bytes Slice(const Bytes& data, size_t nPos, size_t nLen)
{
    return Bytes(data.begin() + nPos, data.begin() + std::min(data.size(), nPos + nLen));
}

// 8005 with a data block, and 8006, as the wire has them.
Bytes Block(uint32_t ulPos, const Bytes& data, const QB_UserID& user = kAlice)
{
    return Pdu().U16(5).User(user).U32(0).U8(0).U32((uint32_t)data.size()).U32(ulPos).Data(data).b;
}
Bytes Answer(uint32_t ulResult, uint32_t ulPos, const QB_UserID& user = kAlice)
{
    return Pdu().U16(5).U32(ulResult).U16(5).User(user).U32(0).U32(ulPos).b;
}

struct Upload : public ::testing::Test
{
    QB_FaultEnv env;
    QB_ScopedEnv scoped{&env};
    QB_TempFolder tmp;
    ZV_RecordingHost host;
    ZV_FileShareMgr mgr;
    ZV_FileShareSession* lpSession = nullptr;
    Bytes data;

    Upload() { QB_SetEnvironmentVariable("ROOMCRATE_HOME", tmp.Path().c_str()); }
    ~Upload() override { QB_SetEnvironmentVariable("ROOMCRATE_HOME", nullptr); }

    // Alice's "song.ogg" of nSize bytes as FileID 5: on a client her local
    // file, opened as the add leaves it; on a server the store, not yet made.
    void Make(bool bServer, size_t nSize)
    {
        host.m_vecSent.clear();
        host.m_vecEvents.clear();
        host.Attach(&mgr);
        host.m_bServer = bServer;
        env.ClearFaults();
        env.SetTimeT(1300260108);
        std::filesystem::create_directories(tmp.Sub("log"));
        std::filesystem::create_directories(tmp.Sub("7"));
        data = ZV_TestBytes(nSize, (unsigned)nSize);
        ZV_FileBriefInfo brief;
        brief.SetCreatorID(kAlice);
        brief.SetFileLenth((uint32_t)nSize);
        lpSession = &ZV_AdoptFile(mgr, 5, QB_StringA(tmp.PathW()).GetString(), brief, "song.ogg");
        if (bServer)
            return;
        QB_WriteWholeFile(tmp.Sub("song.ogg"), data);
        Peer::File(*lpSession).Open(tmp.SubW("song.ogg"), QB_FILE_READ | QB_FILE_OPEN_EXISTING);
        // Her share, as her FsAdd leaves it in the share record.
        Peer::BriefInfo(*lpSession).SetFilePath(tmp.SubW(""));
        Peer::BriefInfo(*lpSession).SetFileOldName(QB_StringU8("song.ogg"));
        ZV_FileShareMgrPeer::Ledger(mgr).Remember(host.m_ulConfID, Peer::BriefInfo(*lpSession), {});
    }
    uint32_t Deliver(uint16_t usPdu, const Bytes& payload, const QB_UserID& peer = kAlice, uint32_t ulConn = 100024)
    {
        return ZV_Deliver(mgr, usPdu, zvConfClientTypeData, payload, ulConn, peer);
    }
    // One call of the host for Alice's data link; the blocks it sent.
    std::vector<ZV_SentPdu> OnSend()
    {
        host.m_vecSent.clear();
        ConfPduData cpd{kAlice.m_ulMain, kAlice.m_ulSub, 12, 0, zvConfClientTypeData, 0, 0, 0, 0, 0, nullptr};
        mgr.OnSend(&cpd);
        return host.SentOf(PDU_CONF_FS_UPLOAD_REQUEST);
    }
    std::string ClientLog() const
    {
        const Bytes log = QB_ReadWholeFile(tmp.Sub("log/log_error_client.txt"));
        return std::string(log.begin(), log.end());
    }
    uint32_t FsUpload(uint16_t usFileID) { return static_cast<IZV_FileShareMgr&>(mgr).FsUpload(usFileID); }
    const ZV_FileBriefInfo& Row() const { return Peer::FileInfo(*lpSession).m_BriefInfo; }
    Bytes Stored() const { return QB_ReadWholeFile(tmp.Sub("7/song.ogg")); }
};

} // namespace

TEST_F(Upload, FsUploadStartsThePumpWhichSendsThreeBlocksPerCallUntilTheSharedLength)
{
    // A file that grew by 10000 bytes after it was shared; and one whose
    // "download" she dropped: her own file is the one she uploads, and goes on.
    struct { size_t nSize; std::vector<size_t> vecCalls; size_t nGrown; bool bDropped; } aCases[] = {
        {98305, {3, 1}, 0, false}, {32768, {1}, 0, false}, {0, {1}, 0, false}, {40000, {2}, 10000, false},
        {98305, {3, 1}, 0, true}};
    for (const auto& c : aCases)
    {
        Make(false, c.nSize);
        Bytes grown = data;
        grown.resize(c.nSize + c.nGrown, 'g');
        QB_WriteWholeFile(tmp.Sub("song.ogg"), grown);
        ASSERT_EQ(0u, FsUpload(5));
        ASSERT_EQ(2u, host.m_vecSent.size());
        EXPECT_TRUE(host.m_vecSent[0].usPdu == PDU_CONF_FS_KICK && host.m_vecSent[0].ulConn == 12);
        EXPECT_EQ(std::make_pair(11u, Pdu().U16(5).User(kAlice).U32(0).U8(1).b), ZV_OnlySent(host, PDU_CONF_FS_UPLOAD_REQUEST))
            << "the start marker";
        // 3008 with 0.0 percent, whose eight bytes are all zero.
        EXPECT_EQ(Pdu().U16(zvFsEventUploadProgress).U32(0).U16(5).U32(0).U32(0).b, ZV_Joined(host.m_vecEvents));
        ASSERT_EQ(0u, c.bDropped ? static_cast<IZV_FileShareMgr&>(mgr).FsDelDownload(5, 0) : 0u);

        uint32_t ulPos = 0;
        for (size_t nBlocks : c.vecCalls)
        {
            EXPECT_EQ(zvFileStateUploading, Peer::BriefInfo(*lpSession).m_usFileState) << c.nSize;
            const auto vecBlocks = OnSend();
            ASSERT_EQ(nBlocks, vecBlocks.size()) << c.nSize;
            for (const auto& sent : vecBlocks)
            {
                EXPECT_EQ(12u, sent.ulConn);
                EXPECT_EQ(Block(ulPos, Slice(data, ulPos, ZV_BLOCK_SIZE)), sent.data) << c.nSize << " at " << ulPos;
                ulPos += (uint32_t)std::min<size_t>(ZV_BLOCK_SIZE, c.nSize - ulPos);
            }
        }
        EXPECT_EQ(zvFileStateComplete, Peer::BriefInfo(*lpSession).m_usFileState) << c.nSize;
        EXPECT_TRUE(OnSend().empty()) << c.nSize << ": nothing after the last block";
        EXPECT_TRUE(host.m_vecEvents.size() == 1 && ClientLog().empty()) << c.nSize;
        // Her upload ends when the server says in 8022 that it holds it all.
        mgr.SetSessionBusy(1, 5);
        Deliver(PDU_CONF_FS_PROGRESSING_RESPONSE, Pdu().U16(5).User(kAlice).U32((uint32_t)c.nSize).b);
        EXPECT_LT(ZV_FileShareMgrPeer::BusyFileIDs(mgr).Find(5), 0) << c.nSize;
    }
}

TEST_F(Upload, FsUploadRefusesUnknownAndReservedFilesAndSendsTheStartMarkerEvenWithoutADataLink)
{
    Make(false, 10);
    EXPECT_EQ(82u, FsUpload(6));
    ZV_FileShareMgrPeer::Sessions(mgr).SetAt(6, nullptr);
    EXPECT_EQ(83u, FsUpload(6));
    EXPECT_EQ("2011-03-16 07:21:48 : ZV_FileShareMgr.FsUpload ret = 82\r\n", ClientLog()) << "no line for 83";
    EXPECT_TRUE(host.m_vecSent.empty());

    host.m_ulDataConn = zvConnNone;
    EXPECT_EQ(0u, FsUpload(5));
    ASSERT_EQ(1u, host.m_vecSent.size());
    EXPECT_TRUE(host.m_vecSent[0].usPdu == PDU_CONF_FS_UPLOAD_REQUEST && host.m_vecSent[0].ulConn == 11);
    EXPECT_EQ(Pdu().U16(5).User(kAlice).U32(0).U8(1).b, host.m_vecSent[0].data) << "the start marker";

    // A share she took back lets go of her file and is not sent again on her word either.
    EXPECT_EQ(0u, mgr.FsDelUpload(5));
    EXPECT_EQ(0u, QB_OpenHandlesTo(tmp.Sub("song.ogg")));
    EXPECT_EQ(90u, FsUpload(5));
    EXPECT_EQ(2u, host.m_vecSent.size()) << "the delete, nothing more";
}

TEST_F(Upload, ClientThatCannotReadItsFileFailsAndSaysSoUnlessTheServerHoldsItAll)
{
    struct { const char* szName; QB_EnvOp eFault; int nNth; size_t nShrunkTo; uint32_t ulMaxPos; uint32_t ulReadPos;
             size_t nSent; } aCases[] = {
        {"first read fails", QB_EnvOp::Read, 1, 98305, 0, 0, 0},
        {"second read fails", QB_EnvOp::Read, 2, 98305, 0, 32768, 1},
        {"file shrank since it was shared", QB_EnvOp::Count_, 0, 40000, 0, 40000, 2},
        {"server has it all", QB_EnvOp::Read, 1, 98305, 98305, 0, 0}};
    std::string sLog;
    for (const auto& c : aCases)
    {
        Make(false, 98305);
        data.resize(c.nShrunkTo);
        QB_WriteWholeFile(tmp.Sub("song.ogg"), data);
        Peer::MaxPos(*lpSession) = c.ulMaxPos;
        FsUpload(5);
        host.m_vecEvents.clear();
        if (c.eFault != QB_EnvOp::Count_)
            env.FailAt(c.eFault, c.nNth);
        const bool bReported = c.ulMaxPos == 0;
        EXPECT_EQ(c.nSent, OnSend().size()) << c.szName;
        // With every byte at the server the upload is simply over.
        EXPECT_EQ(bReported ? zvFileStateFailed : zvFileStateComplete, Peer::BriefInfo(*lpSession).m_usFileState) << c.szName;
        EXPECT_EQ(bReported ? Pdu().U16(5).User(kAlice).U32(0).U32(c.ulReadPos).b : Bytes(),
                  ZV_Joined(host.SentOf(PDU_CONF_FS_UPLOAD_ERROR_REQUEST))) << c.szName << ": 8035";
        EXPECT_EQ(bReported ? Pdu().U16(zvFsEventTransferError).U32(61).U16(5).b : Bytes(), ZV_Joined(host.m_vecEvents))
            << c.szName;
        sLog += bReported ? "2011-03-16 07:21:48 : ZV_FileShareMgr.OnSend ret = 61 \r\n" : "";
        EXPECT_EQ(sLog, ClientLog()) << c.szName;
    }
}

TEST_F(Upload, ServerTakesTheStartMarkerThenWritesOnlyAtItsWritePositionAsksOnceAcrossAGapAndFinishes)
{
    Make(true, 98305);
    host.m_bHasServerLinks = true;
    EXPECT_EQ(0u, Deliver(PDU_CONF_FS_UPLOAD_REQUEST, Pdu().U16(5).User(kAlice).U32(0).U8(1).b));
    EXPECT_EQ(0u, Deliver(PDU_CONF_FS_UPLOAD_REQUEST, Pdu().U16(5).User(kAlice).U32(100).U8(1).b, QB_UserID(2, 0)));
    EXPECT_EQ(zvFileStateUploading, Row().m_usFileState);
    ASSERT_EQ(1u, host.m_vecSent.size()) << "the start marker goes on to the servers once";
    EXPECT_TRUE(Pdu().U16(7).U16(5).User(kAlice).U32(100).U8(1).b == host.m_vecSent[0].data && host.m_vecSent[0].sRoute == "servers");

    struct { const char* szName; uint32_t ulPos; uint32_t ulWritePos; size_t nAnswers; } aSteps[] = {
        {"first", 0, 32768, 0}, {"duplicate", 0, 32768, 0}, {"gap", 65536, 32768, 1},
        {"behind the gap", 98304, 32768, 1}, {"at the position", 32768, 65536, 1},
        {"next", 65536, 98304, 1}, {"last", 98304, 98305, 1}};
    for (const auto& s : aSteps)
    {
        EXPECT_EQ(0u, Deliver(PDU_CONF_FS_UPLOAD_REQUEST, Block(s.ulPos, Slice(data, s.ulPos, ZV_BLOCK_SIZE))));
        EXPECT_EQ(s.ulWritePos, Peer::FileInfo(*lpSession).m_ulFileWritePos) << s.szName;
        EXPECT_EQ(s.nAnswers, host.SentOf(PDU_CONF_FS_UPLOAD_RESPONSE).size()) << s.szName;
        EXPECT_EQ(Slice(data, 0, s.ulWritePos), Stored()) << s.szName;
    }
    EXPECT_EQ(Answer(0, 32768), host.SentOf(PDU_CONF_FS_UPLOAD_RESPONSE)[0].data);
    EXPECT_EQ(100024u, host.SentOf(PDU_CONF_FS_UPLOAD_RESPONSE)[0].ulConn);
    // To the clients: uploading at the first block, complete at the last.
    EXPECT_EQ((Bytes{1, 5, 0, 1, 0, 1, 1, 5, 0, 3, 0, 1}), ZV_Joined(host.SentOf(PDU_CONF_FS_FILE_STATE_NOTICE)));
    EXPECT_EQ("group", host.SentOf(PDU_CONF_FS_FILE_STATE_NOTICE)[0].sRoute);
    EXPECT_EQ(Pdu().U16(7).U16(5).User(QB_UserID(1, 0)).U32(101).b,
              ZV_Joined(host.SentOf(PDU_CONF_FS_UPLOAD_FINISH_Response)));
    EXPECT_EQ(4u, host.SentOf(PDU_CONF_FS_PROGRESSING_RESPONSE).size()) << "one per block that moved the position";
}

TEST_F(Upload, ServerRefusesABlockItCannotTakeAndTheNextBlockShowsWhatItRemembers)
{
    struct { const char* szName; size_t nLen; QB_EnvOp eFault; uint32_t ulResult; uint32_t ulNextPos;
             uint32_t ulWritePos; uint16_t usState; } aCases[] = {
        {"longer than a block", 32769, QB_EnvOp::Count_, 61, 32768, 0, zvFileStateFailed},
        {"store not opened", 100, QB_EnvOp::Open, 60, 0, 100, zvFileStateFailed},
        {"write fails", 100, QB_EnvOp::Write, 61, 32768, 0, zvFileStateFailed}};
    for (const auto& c : aCases)
    {
        std::filesystem::remove_all(tmp.Sub("7"));
        Make(true, 98305);
        if (c.eFault != QB_EnvOp::Count_)
            env.FailAt(c.eFault, 1);
        Deliver(PDU_CONF_FS_UPLOAD_REQUEST, Block(0, ZV_TestBytes(c.nLen, 9)));
        EXPECT_EQ(Answer(c.ulResult, 0), ZV_Joined(host.SentOf(PDU_CONF_FS_UPLOAD_RESPONSE))) << c.szName;
        EXPECT_EQ(c.usState, Row().m_usFileState) << c.szName;
        EXPECT_EQ(0u, Stored().size()) << c.szName;

        Deliver(PDU_CONF_FS_UPLOAD_REQUEST, Block(c.ulNextPos, Slice(data, c.ulNextPos, 100)));
        EXPECT_EQ(1u, host.SentOf(PDU_CONF_FS_UPLOAD_RESPONSE).size()) << c.szName;
        EXPECT_EQ(c.ulWritePos, Peer::FileInfo(*lpSession).m_ulFileWritePos) << c.szName;
        EXPECT_EQ(Slice(data, 0, c.ulWritePos), Stored()) << c.szName;
    }
}

// An answer (8006) is taken only about the user's own file. An order to
// send needs her copy, open and still known as her share, unless the server
// already holds the whole file: then the upload is simply over, nothing read.
TEST_F(Upload, AClientTakesAnUploadAnswerAboutItsOwnFileAndSendsOnlyFromItsSharedCopy)
{
    const uint16_t kAny = 0xFFFF;
    struct { const char* szName; QB_UserID creator; uint32_t ulAnswer; bool bCopy, bShareKept; uint32_t ulMaxPos;
             uint32_t ulEvent; uint16_t usState; } aCases[] = {
        {"refused", kAlice, 40, true, true, 0, 40, kAny},
        {"refused, another's file", kBob, 40, true, true, 0, 0, kAny},
        {"sent from the start: runs, the client busy", kAlice, 0, true, true, 0, 0, zvFileStateUploading},
        {"copy gone", kAlice, 0, false, true, 0, zvResultCannotOpen, 0},
        {"copy gone, server has it all", kAlice, 0, false, true, 1000, 0, zvFileStateComplete},
        {"share record lost", kAlice, 0, false, false, 0, zvResultUntrusted, 0},
        {"share record lost, server has it all", kAlice, 0, false, false, 1000, 0, zvFileStateComplete}};
    for (const auto& c : aCases)
    {
        Make(false, 1000);
        Peer::BriefInfo(*lpSession).SetCreatorID(c.creator);
        Peer::BriefInfo(*lpSession).SetPublic(true);  // another's file is seen, yet not hers
        if (!c.bCopy)
        {
            Peer::File(*lpSession).Close();
            std::filesystem::remove(tmp.Sub("song.ogg"));
        }
        if (!c.bShareKept)
            ZV_FileShareMgrPeer::Ledger(mgr).Forget(host.m_ulConfID, Peer::BriefInfo(*lpSession));
        Peer::MaxPos(*lpSession) = c.ulMaxPos;
        Deliver(PDU_CONF_FS_UPLOAD_RESPONSE, Answer(c.ulAnswer, 0));
        EXPECT_EQ(c.ulEvent ? Pdu().U16(zvFsEventTransferError).U32(c.ulEvent).U16(5).b : Bytes(),
                  ZV_Joined(host.m_vecEvents)) << c.szName;
        const uint16_t usState = Peer::BriefInfo(*lpSession).m_usFileState;
        EXPECT_TRUE(c.usState == kAny || c.usState == usState) << c.szName << ": " << usState;
        EXPECT_TRUE(c.usState != zvFileStateUploading || ZV_FileShareMgrPeer::BusyFileIDs(mgr).Find(5) >= 0);
    }
}

// The server's list wins, except where the creator's own client is ahead of
// it on whether its upload runs.
TEST_F(Upload, TheCreatorsClientKeepsItsOwnRunOrStopAgainstTheServersListAndTellsTheServerOfAStop)
{
    struct { const char* pszName; uint16_t usLocal, usServer, usAfter; bool bStopSent; } aCases[] = {
        {"complete here, running there: takes the server's state", 3, 1, 1, false},
        {"failed here, running there: runs again", 4, 1, 1, false},
        {"running here, stopped there: keeps running", 1, 2, 1, false},
        {"the same on both sides", 2, 2, 2, false},
        {"stopped here, running there: stays stopped and says so", 2, 1, 2, true},
    };
    for (const auto& c : aCases)
    {
        SCOPED_TRACE(c.pszName);
        Make(false, 100000);
        host.AddUser(kAlice, host.m_ulServerID, "Alice");
        Peer::BriefInfo(*lpSession).SetFileState(c.usLocal);
        ZV_UploadListResponse list;
        ZV_FileUploadInfo entry;
        entry.SetFileID(5);
        entry.SetFileWritePos(40000);
        ZV_FileBriefInfo brief = Peer::BriefInfo(*lpSession);
        brief.SetFileState(c.usServer);
        entry.SetBriefInfo(brief);
        list.arrInfo.Add(entry);
        list.arrMaxPos.Add(40000);
        ZV_Deliver(mgr, PDU_CONF_GET_UPLOAD_SESSION_LIST_RESPONSE, zvConfClientTypeCommand, ZV_SavePayload(list), 11,
                   QB_UserID(0, 0));

        ZV_FsFileInfo info{};
        ASSERT_EQ(0u, static_cast<IZV_FileShareMgr&>(mgr).FsGetFileInfoByFileID(5, &info));
        EXPECT_EQ(c.usAfter, info.usFileState);
        // Flood number 0, for the server to fill in.
        EXPECT_EQ(std::vector<Bytes>(c.bStopSent ? 1 : 0, Pdu().U16(5).User(kAlice).U32(0).U8(1).U32(40000).b),
                  ZV_SentData(host, PDU_CONF_FS_IS_STOP_UPLOAD_REQUEST));
    }
}
