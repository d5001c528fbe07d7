// Stop, resume, rights, the relay's progress and upload errors on one manager,
// against a recording host and a clock the test moves.
#include "download/ZV_DownloadPdu.h"
#include "rights/ZV_EntryPdu.h"
#include "rights/ZV_RightsPdu.h"
#include "ZV_RecordingNode.h"

#include "QB_FaultEnv.h"

namespace {

const QB_UserID kAlice(10001, 0);  // the creator
const QB_UserID kBob(10002, 0);    // a downloader: commands on 100020, data on 100024
const QB_UserID kSelf(1, 0);       // this server

struct LinkedHost : public ZV_RecordingHost
{
    uint32_t GetUserConn(const QB_UserID* lpUser, uint16_t usType) override { return lpUser->m_ulMain * 10 + usType; }
};

struct Control : public ::testing::Test
{
    QB_FaultEnv env;
    QB_ScopedEnv scoped{&env};
    LinkedHost host;
    ZV_FileShareMgr mgr;
    ZV_FileShareSession* lpSession = nullptr;

    // Alice's "song.ogg" of 1,000,000 bytes as FileID 5, stored as the role says.
    void Make(bool bServer)
    {
        host.Attach(&mgr);
        host.m_bServer = bServer;
        host.m_bHasServerLinks = bServer;
        env.SetTick(50000);
        ZV_FileBriefInfo brief = ZV_Brief(kAlice, nullptr, 1000000);
        brief.SetFileState(zvFileStateUploading);
        lpSession = &ZV_AdoptFile(mgr, 5, "C:\\Store\\", brief, "song.ogg");
    }
    void Deliver(uint16_t usPdu, const Pdu& pdu, uint16_t usType = zvConfClientTypeCommand, uint32_t ulConn = 100020,
                 const QB_UserID& peer = kBob)
    {
        EXPECT_EQ(0u, ZV_Deliver(mgr, usPdu, usType, pdu.b, ulConn, peer));
    }
    void Clear() { host.m_vecSent.clear(); host.m_vecEvents.clear(); }
};

// This server's 8014 for the stored file, as a relay, from its write position 40000.
Bytes AskAsRelay()
{
    Pdu ask = Pdu().U16(5).User(kSelf).U32(0).U8(19);
    for (char ch : std::string("C:\\Store\\7\\song.ogg"))
        ask.U8((uint8_t)ch);
    return ask.U32(40000).U8(1).U8(0).b;
}


} // namespace

TEST_F(Control, ServerTakesAnUploadsStopOrResumeFromItsCreatorOnlyAndConfirmsItToEveryClient)
{
    Make(true);
    ZV_FileShareSessionPeer::FileInfo(*lpSession).SetFileWritePos(40000);
    ZV_FileShareSessionPeer::MaxPos(*lpSession) = 30000;
    struct { const char* szName; QB_UserID user; uint16_t usFrom; uint8_t bStop; Bytes answer; const char* szRoute;
             uint16_t usTo; } aCases[] = {
        {"not the creator", kBob, 1, 1, Pdu().U16(5).U32(40).U16(5).User(kBob).U8(1).U32(0).b, "link", 1},
        {"not begun", kAlice, 0, 1, {}, "", 0},
        {"complete", kAlice, 3, 0, {}, "", 3},
        // The server's own write position stands for the client's read position.
        {"stop", kAlice, 1, 1, Pdu().U16(5).U32(0).U16(5).User(kAlice).U8(1).U32(40000).b, "group", 2},
        {"resume", kAlice, 2, 0, Pdu().U16(5).U32(0).U16(5).User(kAlice).U8(0).U32(0).b, "group", 1}};
    for (const auto& c : aCases)
    {
        Clear();
        ZV_FileShareSessionPeer::FileInfo(*lpSession).m_BriefInfo.SetFileState(c.usFrom);
        const uint32_t ulSeq = host.m_ulNextFloodSeq;
        Deliver(PDU_CONF_FS_IS_STOP_UPLOAD_REQUEST, Pdu().U16(5).User(c.user).U32(0).U8(c.bStop).U32(70000),
                zvConfClientTypeCommand, 100020, c.user);
        // Taken stops and resumes go on to the other servers, with this server's position.
        const auto vecFlood = host.SentOf(PDU_CONF_FS_IS_STOP_UPLOAD_REQUEST);
        ASSERT_EQ(c.szRoute == std::string("group") ? 1u : 0u, vecFlood.size()) << c.szName;
        if (!vecFlood.empty())
        {
            EXPECT_EQ(Pdu().U16(7).U16(5).User(kAlice).U32(ulSeq).U8(c.bStop).U32(40000).b, vecFlood[0].data) << c.szName;
        }
        const auto vecAnswer = host.SentOf(PDU_CONF_FS_IS_STOP_UPLOAD_RESPONSE);
        ASSERT_EQ(c.answer.empty() ? 0u : 1u, vecAnswer.size()) << c.szName;
        EXPECT_TRUE(c.answer.empty() || (c.answer == vecAnswer[0].data && c.szRoute == vecAnswer[0].sRoute)) << c.szName;
        EXPECT_EQ(c.usTo, ZV_FileShareSessionPeer::FileInfo(*lpSession).m_BriefInfo.m_usFileState) << c.szName;
    }
    EXPECT_FALSE(ZV_FileShareSessionPeer::StopUpload(*lpSession));
    EXPECT_TRUE(ZV_FileShareSessionPeer::ResyncPending(*lpSession)) << "the resume sets the uploader back to the write position";
    EXPECT_EQ(40000u, ZV_FileShareSessionPeer::MaxPos(*lpSession));
}

// A relay fetches once from an upstream that has more, or from a peer that
// says it is now the file's source: then it forgets that peer's entries and
// asks it, as a server, from its own write position and without a flood,
// once for each flood. A peer that is short gets an answer.
TEST_F(Control, RelayFetchesOnceFromAnUpstreamWithMoreOrANewSourceAnswersAPeerThatIsShortAndAsksAgainAfterAStall)
{
    Make(true);
    ZV_FileShareSessionPeer::FileInfo(*lpSession).SetFileWritePos(40000);
    for (int i = 0; i < 2; ++i)
        Deliver(PDU_CONF_FS_PROGRESSING_RESPONSE, Pdu().U16(5).User(kSelf).U32(0), zvConfServerTypeCommand, 20,
                QB_UserID(2, 0));
    EXPECT_EQ(std::make_pair(20u, Pdu().U16(7).U16(5).User(kSelf).U32(40000).U8(1).b),
              ZV_OnlySent(host, PDU_CONF_FS_PROGRESSING_REQUEST));
    EXPECT_EQ(0u, host.SentOf(PDU_CONF_FS_PROGRESSING_REQUEST).at(0).bFlag2);
    EXPECT_EQ(AskAsRelay(), ZV_OnlySent(host, PDU_CONF_FS_DOWNLOAD_REQUEST).second);

    Clear();
    ZV_FileShareSessionPeer::Downloads(*lpSession).SetAt(QB_UserID(2, 0), ZV_FileDownloadInfo());
    for (uint32_t ulPos : {40000u, 39999u})
        Deliver(PDU_CONF_FS_PROGRESSING_REQUEST, Pdu().U16(5).User(QB_UserID(2, 0)).U32(ulPos).U8(0),
                zvConfServerTypeCommand, 20, QB_UserID(2, 0));
    ASSERT_EQ(1u, host.m_vecSent.size()) << "a peer as far as this server gets no answer";
    EXPECT_EQ(std::make_pair(20u, Pdu().U16(5).User(QB_UserID(2, 0)).U32(0).b), ZV_OnlySent(host, host.m_vecSent[0].usPdu));
    Deliver(PDU_CONF_FS_PROGRESSING_REQUEST, Pdu().U16(5).User(QB_UserID(2, 0)).U32(0).U8(1),
            zvConfServerTypeCommand, 20, QB_UserID(2, 0));
    EXPECT_EQ(0, ZV_FileShareSessionPeer::Downloads(*lpSession).GetCount());
    Clear();
    for (int i = 0; i < 2; ++i)
        Deliver(PDU_CONF_FS_NOTICE_DEL_DOWNLOAD_INFO_REQUEST, Pdu().U16(5).User(QB_UserID(2, 0)).U32(77),
                zvConfServerTypeCommand, 900, QB_UserID(2, 0));
    EXPECT_EQ(std::make_pair(900u, AskAsRelay()), ZV_OnlySent(host, PDU_CONF_FS_DOWNLOAD_REQUEST));

    // A fetch that stalls is looked at once after twenty seconds; a complete file is marked.
    Clear();
    ZV_FileShareSessionPeer::LastIoTick(*lpSession) = 50000;
    ZV_FileShareSessionPeer::Pulling(*lpSession) = true;
    env.SetTick(70000);
    mgr.OnTimer(2);
    EXPECT_TRUE(host.m_vecSent.empty()) << "exactly 20000 ms is not yet a stall";
    env.SetTick(70001);
    mgr.OnTimer(7);
    mgr.OnTimer(12);
    ASSERT_EQ(1u, host.m_vecSent.size()) << "Alice is not homed here: the servers are asked, once";
    EXPECT_EQ(Pdu().U16(7).U16(5).User(kSelf).U32(40000).U8(0).b, host.m_vecSent[0].data) << "conference word first";
    EXPECT_FALSE(ZV_FileShareSessionPeer::Pulling(*lpSession));
    ZV_FileShareSessionPeer::FileInfo(*lpSession).SetFileWritePos(1000000);
    mgr.OnTimer(17);
    EXPECT_EQ(zvFileStateComplete, ZV_FileShareSessionPeer::FileInfo(*lpSession).m_BriefInfo.m_usFileState);
}

TEST_F(Control, AFailedUploadIsMarkedOnEveryServerAndToldToEveryClientAsAReadFailure)
{
    Make(true);
    Deliver(PDU_CONF_FS_UPLOAD_ERROR_REQUEST, Pdu().U16(5).User(kAlice).U32(0).U32(12345), 0, 100010, kAlice);
    Deliver(PDU_CONF_FS_UPLOAD_ERROR_REQUEST, Pdu().U16(5).User(kAlice).U32(100).U32(12345),
            zvConfServerTypeCommand, 20, QB_UserID(2, 0));
    EXPECT_EQ(zvFileStateFailed, ZV_FileShareSessionPeer::FileInfo(*lpSession).m_BriefInfo.m_usFileState);
    EXPECT_EQ(12345u, ZV_FileShareSessionPeer::MaxPos(*lpSession));
    ASSERT_EQ(2u, host.m_vecSent.size()) << "one flood, one answer, and the echo is dropped";
    EXPECT_EQ(Pdu().U16(7).U16(5).User(kAlice).U32(100).U32(12345).b, host.m_vecSent[0].data);
    EXPECT_EQ("group", host.m_vecSent[1].sRoute);
    EXPECT_EQ(Pdu().U16(5).U32(0).U16(5).b, host.m_vecSent[1].data);

    Clear();
    ZV_FileShareSessionPeer::FileInfo(*lpSession).m_BriefInfo.SetFileState(zvFileStateComplete);
    Deliver(PDU_CONF_FS_UPLOAD_ERROR_REQUEST, Pdu().U16(5).User(kAlice).U32(0).U32(1), 0, 100010, kAlice);
    EXPECT_TRUE(host.m_vecSent.empty()) << "a complete file stays complete";

    host.m_bServer = false;
    Deliver(PDU_CONF_FS_UPLOAD_ERROR_RESPONSE, Pdu().U16(5).U32(0).U16(5), 0, 11);
    EXPECT_EQ(Pdu().U16(zvFsEventTransferError).U32(61).U16(5).b, ZV_Joined(host.m_vecEvents));
}

// ---------------------------------------------------------------------------
// The timers, driven by the test's clock

TEST_F(Control, ManagerTimerWorksOnItsConferencesSlotAndReportsIdleAfterFifteenSeconds)
{
    host.Attach(&mgr);
    mgr.SetSessionBusy(1, 5);
    ZV_FileShareMgrPeer::DataLink(mgr) = zvLinkDataUp;
    env.SetTick(1000);
    std::vector<uint32_t> vecWorked;
    for (uint32_t ulTick = 0; ulTick < 10; ++ulTick)
    {
        const size_t nBefore = host.m_vecEvents.size();
        mgr.OnTimer(ulTick);
        if (host.m_vecEvents.size() > nBefore)
            vecWorked.push_back(ulTick);
    }
    EXPECT_EQ(std::vector<uint32_t>({2, 7}), vecWorked) << "conference 7 works on the ticks of remainder 2";
    mgr.SetSessionBusy(0, 5);
    mgr.OnTimer(12);
    env.AdvanceTick(14999);
    mgr.OnTimer(17);
    EXPECT_NE(zvLinkIdle, ZV_FileShareMgrPeer::DataLink(mgr)) << "one millisecond short of the idle wait";
    env.AdvanceTick(1);
    mgr.OnTimer(22);
    EXPECT_EQ(zvLinkIdle, ZV_FileShareMgrPeer::DataLink(mgr));
    ASSERT_EQ(3u, host.m_vecEvents.size());
    EXPECT_EQ(Pdu().U16(3012).U32(0).U8(0).b, host.m_vecEvents.back().data);
    // The report repeats, each time after a new wait of its own.
    env.AdvanceTick(5000);
    mgr.OnTimer(27);
    EXPECT_EQ(3u, host.m_vecEvents.size()) << "the next wait starts at the next slot";
    env.AdvanceTick(15000);
    mgr.OnTimer(32);
    ASSERT_EQ(4u, host.m_vecEvents.size());
    EXPECT_EQ(Pdu().U16(3012).U32(0).U8(0).b, host.m_vecEvents.back().data);
}

// A stall's time after its last transfer, and not a tick before, a client lets
// go of an idle file, or asks again for a running download of which the server
// holds more.
TEST_F(Control, AStallAfterItsLastTransferAClientLetsGoOfAnIdleFileOrAsksAgainForARunningDownload)
{
    Make(false);
    host.m_LocalUser = kBob;
    ZV_FileDownloadInfo& local = ZV_FileShareSessionPeer::LocalDownload(*lpSession);
    for (const bool bDownloading : {false, true})
    {
        mgr.SetSessionBusy(1, 5);
        if (bDownloading)
        {
            local.SetFilePath("C:\\dl\\"), local.SetFileName("song.ogg"), local.SetState(zvDownloadStateRunning);
            local.SetDownloadPos(1000), local.SetLastTick(50000);
            ZV_FileShareSessionPeer::MaxPos(*lpSession) = 2000;
        }
        ZV_FileShareSessionPeer::LastIoTick(*lpSession) = 50000;
        Clear();
        env.SetTick(50000 + ZV_CLIENT_STALL_MS - 1);
        mgr.OnTimer(2);
        EXPECT_GE(ZV_FileShareMgrPeer::BusyFileIDs(mgr).Find(5), 0) << bDownloading;
        EXPECT_TRUE(host.SentOf(PDU_CONF_FS_DOWNLOAD_REQUEST).empty()) << bDownloading;
        env.SetTick(50000 + ZV_CLIENT_STALL_MS);
        mgr.OnTimer(7);
        EXPECT_EQ(bDownloading, ZV_FileShareMgrPeer::BusyFileIDs(mgr).Find(5) >= 0);
        EXPECT_EQ(bDownloading ? 1u : 0u, host.SentOf(PDU_CONF_FS_DOWNLOAD_REQUEST).size());
    }
    // 8022 says how much of the upload the server holds: whole, the file is complete, the download still busy.
    for (uint32_t ulPos : {250000u, 1000000u})
    {
        Deliver(PDU_CONF_FS_PROGRESSING_RESPONSE, Pdu().U16(5).User(kAlice).U32(ulPos));
        EXPECT_EQ(ulPos < 1000000 ? zvFileStateUploading : zvFileStateComplete, lpSession->BriefInfo().m_usFileState);
    }
    EXPECT_GE(ZV_FileShareMgrPeer::BusyFileIDs(mgr).Find(5), 0);
}

// The creator's right change goes on to the other servers, and the entries
// of users no longer allowed go at once; a linked server's entry stays, as
// that server judges its own users by the same new list.
TEST_F(Control, ServerTakesARightChangeFromTheCreatorAndDropsTheEntriesOfUsersWhoLostTheFile)
{
    Make(true);
    const QB_UserID kCarol(10003, 0), kRelay(2, 0), kUnlinked(3, 0);
    host.m_setLinkedServer.insert(kRelay.m_ulMain);
    for (const QB_UserID& user : {kBob, kCarol, kRelay, kUnlinked})
    {
        ZV_FileDownloadInfo entry;
        entry.SetFileID(5);
        entry.SetUserID(user);
        entry.SetActive(true);
        lpSession->SetDownloadInfo(user, entry);
    }
    Clear();
    ZV_SetRightRequest ask;
    ask.head = {5, kAlice, 77};
    ask.arrAdd.Add(kCarol);
    Deliver(PDU_CONF_FS_SET_RIGHT_REQUEST, Pdu().Data(ZV_SavePayload(ask)), zvConfClientTypeCommand, 100010, kAlice);

    std::vector<bool> vecHeld;
    ZV_FileDownloadInfo held;
    for (const QB_UserID& user : {kBob, kCarol, kRelay, kUnlinked})
        vecHeld.push_back(ZV_FileShareSessionPeer::Downloads(*lpSession).Lookup(user, held));
    EXPECT_EQ((std::vector<bool>{false, true, true, false}), vecHeld);
    EXPECT_EQ(Pdu().U16(7).Data(ZV_SavePayload(ask)).b, ZV_OnlySent(host, PDU_CONF_FS_SET_RIGHT_REQUEST).second)
        << "behind the conference word";
    EXPECT_EQ(1u, host.SentOf(PDU_CONF_FS_SET_RIGHT_RESPONSE).size());

    // The answer's description is for clients: a server takes it as handled
    // and changes nothing.
    Clear();
    const ZV_SetRightResponse answer{0, 5, kAlice, ZV_Brief(kAlice, nullptr, 777, true), 0};
    Deliver(PDU_CONF_FS_SET_RIGHT_RESPONSE, Pdu().Data(ZV_SavePayload(answer)), zvConfServerTypeCommand, 900, kRelay);
    EXPECT_TRUE(host.m_vecSent.empty() && host.m_vecEvents.empty());
    EXPECT_FALSE(ZV_FileShareSessionPeer::FileInfo(*lpSession).m_BriefInfo.m_bPublic);
    EXPECT_NE(777u, lpSession->BriefInfo().m_ulFileLenth);
}

// The user side's stop of a download, its giving one up and its asking
// again, all on the command link: the stop goes with flood number 0 for the
// server to fill in, and the give-up stops the transfer before it drops the
// download record.
TEST_F(Control, ClientStopsResumesGivesUpAndAsksAgainForADownloadWithTheRequestsOfTheUserSide)
{
    Make(false);
    host.m_LocalUser = kBob;
    ZV_FileDownloadInfo& local = ZV_FileShareSessionPeer::LocalDownload(*lpSession);
    local.SetFilePath("C:\\dl\\");
    local.SetFileName("song.ogg");
    local.SetState(zvDownloadStateRunning);
    Clear();
    ASSERT_EQ(0u, mgr.FsStopDownload(5));
    EXPECT_EQ(zvDownloadStateStopped, local.m_usState);
    ASSERT_EQ(0u, mgr.FsResumeDownload(5));
    EXPECT_EQ(zvDownloadStateRunning, local.m_usState);
    EXPECT_GE(ZV_FileShareMgrPeer::BusyFileIDs(mgr).Find(5), 0) << "resumed";
    ASSERT_EQ(0u, mgr.FsDelDownload(5, 0));
    EXPECT_LT(ZV_FileShareMgrPeer::BusyFileIDs(mgr).Find(5), 0) << "given up";
    ASSERT_EQ(0u, mgr.FsDownload(5, u"C:\\Téléchargements\\a")) << "asked again, the path in UTF-8";

    const Bytes stop = Pdu().U16(5).User(kBob).U32(0).U8(1).b;
    const Bytes resume = Pdu().U16(5).User(kBob).U32(0).U8(0).b;
    const Bytes drop = Pdu().U16(5).User(kBob).U32(0).b;
    const Bytes ask = Pdu().U16(5).User(kBob).U32(0).U8(22).Data({'C', ':', '\\', 'T', 0xC3, 0xA9, 'l', 0xC3, 0xA9, 'c',
        'h', 'a', 'r', 'g', 'e', 'm', 'e', 'n', 't', 's', '\\', 'a'}).U32(0).U8(0).U8(0).b;
    std::vector<std::pair<uint16_t, Bytes>> vecSent;
    for (const ZV_SentPdu& sent : host.m_vecSent)
        vecSent.push_back({sent.ulConn == 11 ? sent.usPdu : (uint16_t)0, sent.data});
    EXPECT_EQ((std::vector<std::pair<uint16_t, Bytes>>{{PDU_CONF_FS_IS_STOP_DOWNLOAD_REQUEST, stop},
                                                        {PDU_CONF_FS_IS_STOP_DOWNLOAD_REQUEST, resume},
                                                        {PDU_CONF_FS_IS_STOP_DOWNLOAD_REQUEST, stop},
                                                        {PDU_CONF_FS_DEL_DOWNLOAD_REQUEST, drop},
                                                        {PDU_CONF_FS_DOWNLOAD_REQUEST, ask}}),
              vecSent);
}

TEST_F(Control, ServerStopsAndResumesADownloadEntryOnceAndLeavesAFinishedOneAlone)
{
    Make(true);
    struct { const char* szName; QB_UserID user; uint8_t bStop; uint16_t usFrom, usTo; size_t nKicks; } aCases[] = {
        {"stop", kBob, 1, zvDownloadStateRunning, zvDownloadStateStopped, 0},
        {"resume", kBob, 0, zvDownloadStateStopped, zvDownloadStateRunning, 1},
        {"finished", kBob, 0, zvDownloadStateFinished, zvDownloadStateFinished, 0},
        {"no entry", QB_UserID(10003, 0), 1, 0, 0, 0}};
    for (const auto& c : aCases)
    {
        Clear();
        ZV_FileDownloadInfo entry;
        entry.SetState(c.usFrom);
        entry.SetActive(true);
        ZV_FileShareSessionPeer::Downloads(*lpSession).SetAt(kBob, entry);
        env.AdvanceTick(1000);
        const uint32_t ulSeq = host.m_ulNextFloodSeq;
        Deliver(PDU_CONF_FS_IS_STOP_DOWNLOAD_REQUEST, Pdu().U16(5).User(c.user).U32(0).U8(c.bStop));
        Deliver(PDU_CONF_FS_IS_STOP_DOWNLOAD_REQUEST, Pdu().U16(5).User(c.user).U32(ulSeq).U8(c.bStop),
                zvConfServerTypeCommand, 20, QB_UserID(2, 0));
        const auto vecFlood = host.SentOf(PDU_CONF_FS_IS_STOP_DOWNLOAD_REQUEST);
        ASSERT_EQ(1u, vecFlood.size()) << c.szName << ": the echo of the flood is dropped";
        EXPECT_EQ(Pdu().U16(7).U16(5).User(c.user).U32(ulSeq).U8(c.bStop).b, vecFlood[0].data) << c.szName;
        const ZV_FileDownloadInfo& after = *ZV_FileShareSessionPeer::Downloads(*lpSession).Find(kBob);
        EXPECT_EQ(c.usTo, after.m_usState) << c.szName;
        EXPECT_EQ(c.nKicks, host.SentOf(PDU_CONF_FS_KICK).size()) << c.szName;
        EXPECT_TRUE(c.usFrom != zvDownloadStateStopped || env.GetTickCount() == after.m_ulLastTick)
            << "the pause is not counted";
    }
}

