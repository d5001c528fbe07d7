// The download road on one manager: the server's answer and pump, the
// client's local file and blocks, the relay's store, against a recording host
// and a file system that fails on demand.
#include "download/ZV_DownloadPdu.h"
#include "ZV_RecordingNode.h"

#include "QB_FaultEnv.h"

#include <filesystem>

namespace {

using Peer = ZV_FileShareSessionPeer;
const QB_UserID kAlice(10001, 0);  // the creator
const QB_UserID kBob(10002, 0);    // the downloader: commands on 100020, data on 100024

// A user's link, with connections numbered after the user.
struct UserLink : public IZV_ConfLink
{
    uint32_t ulMain = 0;
    bool bCommand = true;
    uint32_t LinkReserved0() override { return 0; }
    uint32_t GetConn(uint16_t usType) override
    {
        return usType == zvConfClientTypeData ? ulMain * 10 + 4 : bCommand && usType == 0 ? ulMain * 10 : zvConnNone;
    }
};

// The recording host, with the links a server has to its users.
struct ServerHost : public ZV_RecordingHost
{
    std::map<uint32_t, UserLink> m_mapLinks;
    UserLink& Link(const QB_UserID& id)
    {
        AddUser(id, m_ulServerID, "user");
        m_mapLinks[id.m_ulMain].ulMain = id.m_ulMain;
        return m_mapLinks[id.m_ulMain];
    }
    uint32_t GetUserConn(const QB_UserID* lpUser, uint16_t usType) override
    {
        IZV_ConfLink* lpLink = GetUserLink(lpUser);
        return lpLink ? lpLink->GetConn(usType) : zvConnNone;
    }
    IZV_ConfLink* GetUserLink(const QB_UserID* lpUser) override
    {
        auto it = m_mapLinks.find(lpUser->m_ulMain);
        return it == m_mapLinks.end() ? nullptr : &it->second;
    }
};

Pdu Block(uint32_t ulPos, const Bytes& data, uint32_t ulMaxPos = 98305, uint32_t ulResult = 0)
{
    return Pdu().U16(5).U32(ulResult).U16(5).User(kBob).U32(ulPos).U32((uint32_t)data.size()).Data(data).U32(ulMaxPos);
}
Pdu Part(const Bytes& data, uint32_t ulPos, uint32_t ulLen, uint32_t ulMaxPos = 98305)
{
    return Block(ulPos, Bytes(data.begin() + ulPos, data.begin() + ulPos + ulLen), ulMaxPos);
}

// A client's download of song.ogg (ulLength bytes) into `sFolder`\a.bin.
ZV_FileDownloadInfo Target(const QB_StringW& sFolder, uint32_t ulLength, uint32_t ulPos = 0)
{
    ZV_FileDownloadInfo record;
    record.SetFileID(5);
    record.SetFilePath(QB_StringU8(sFolder + u"\\"));
    record.SetFileName(QB_StringU8("a.bin"));
    record.SetFileLenth(ulLength);
    record.SetDownloadPos(ulPos);
    record.SetUserID(kBob);
    return record;
}

Bytes Answer(const ZV_FileDownloadInfo& record, uint32_t ulResult = 0, const QB_UserID& user = kBob)
{
    return Pdu().U16(5).U32(ulResult).U16(5).User(user).Record(record).b;
}

struct Download : public ::testing::Test
{
    QB_FaultEnv env;
    QB_ScopedEnv scoped{&env};
    QB_TempFolder tmp;
    ServerHost host;
    ZV_FileShareMgr mgr;

    void SetUp() override
    {
        host.Attach(&mgr);
        host.m_bServer = true;
        env.SetTick(5000);
    }
    ZV_FileShareSession& AddSession(const ZV_FileBriefInfo& brief = ZV_FileBriefInfo())
    {
        return ZV_AdoptFile(mgr, 5, QB_StringA(tmp.PathW()).GetString(), brief, "song.ogg");
    }
    // A stored "song.ogg" of 98305 bytes by Alice, of which ulWritePos have come.
    ZV_FileShareSession& AddStoredFile(uint32_t ulWritePos, bool bPublic = true)
    {
        ZV_FileBriefInfo brief = ZV_Brief(kAlice, "song.ogg", 98305, bPublic);
        brief.SetFileType(QB_StringU8("ogg"));
        ZV_FileShareSession& session = AddSession(brief);
        Peer::FileInfo(session).SetFileWritePos(ulWritePos);
        Peer::MaxPos(session) = ulWritePos;
        std::filesystem::create_directories(tmp.Sub("7"));
        QB_WriteWholeFile(tmp.Sub("7/song.ogg"), ZV_TestBytes(ulWritePos, 1));
        Peer::ServerFile(session).Open(tmp.SubW("7/song.ogg"), 0x203);
        return session;
    }
    uint32_t Deliver(uint16_t usPdu, const Bytes& data, uint16_t usType = zvConfClientTypeCommand,
                     uint32_t ulConn = 100020, const QB_UserID& peer = kBob)
    {
        return ZV_Deliver(mgr, usPdu, usType, data, ulConn, peer);
    }
    void OnSend()
    {
        ConfPduData cpd{};
        cpd.ulUserMain = kBob.m_ulMain;
        cpd.ulConn = 100024;
        cpd.conn_type = zvConfClientTypeData;
        mgr.OnSend(&cpd);
    }
    // Bob's request for song.ogg into C:\d\a.bin.
    Bytes Request(uint8_t bFlooded = 0)
    {
        return Pdu().U16(5).User(kBob).U32(0).U8(10).Data({'C', ':', '\\', 'd', '\\', 'a', '.', 'b', 'i', 'n'})
            .U32(0).U8(0).U8(bFlooded).b;
    }
    std::vector<uint32_t> ResultsOf(uint16_t usEvent) const
    {
        std::vector<uint32_t> vec;
        for (const auto& event : host.m_vecEvents)
            if (event.usEvent == usEvent)
                vec.push_back(event.data[2] | event.data[3] << 8 | event.data[4] << 16 | (uint32_t)event.data[5] << 24);
        return vec;
    }
    ZV_FileDownloadInfo& Bobs(ZV_FileShareSession& session) { return *Peer::Downloads(session).Find(kBob); }
};

// A client: its session of song.ogg, and the answer to a download its user asked for.
struct ClientDownload : public Download
{
    void SetUp() override
    {
        Download::SetUp();
        host.m_bServer = false;
        AddSession();
    }
    ZV_FileShareSession& Session() { return *ZV_FileShareMgrPeer::Sessions(mgr)[5]; }
    Bytes Asked(const ZV_FileDownloadInfo& record)
    {
        Peer::AskedPath(Session()) = record.m_sFilePath + record.m_sFileName;
        Peer::AskedPos(Session()) = record.m_ulDownloadPos;
        Peer::DownloadAsked(Session()) = true;
        Peer::SetAskedBase(Session(), tmp.PathW());
        Peer::BriefInfo(Session()).SetFileLenth(record.m_ulFileLenth);
        return Answer(record);
    }
    uint32_t Take(const Pdu& block) { return Deliver(PDU_CONF_FS_DOWNLOAD_DATA_RESPONSE, block.b, 4, 12); }
};

const Bytes kEmptyRecord = {0x06, 0, 0, 0, 0x01, 0x00};

} // namespace

TEST_F(Download, AnswersARequestWithTheNewEntryAndFloodsItToTheOtherServers)
{
    ZV_FileShareSession& session = AddStoredFile(40000);
    host.m_bHasServerLinks = true;
    ASSERT_EQ(0u, Deliver(PDU_CONF_FS_DOWNLOAD_REQUEST, Request()));
    const Bytes expected = {
        0x05, 0x00, 0, 0, 0, 0, 0x05, 0x00, 0x12, 0x27, 0, 0, 0, 0, 0, 0,  // FileID, 0, FileID, Bob
        0x45, 0, 0, 0, 0xFD, 0xFF, 0x05, 0x00,                             // length, mask 0x3FFF, FileID
        0x05, 'C', ':', '\\', 'd', '\\', 0x08, 's', 'o', 'n', 'g', '.', 'o', 'g', 'g',
        0x05, 'a', '.', 'b', 'i', 'n', 0x03, 'o', 'g', 'g',
        0x01, 0x80, 0x01, 0x00, 0, 0, 0, 0, 0x88, 0x13, 0, 0,              // length, used time, tick 5000
        0xC9, 0x96, 0x0A, 0x00, 0, 0, 0, 0, 0, 0, 0, 0, 0x00, 0x00,        // share time, position, state
        0x00, 0x00, 0x12, 0x27, 0, 0, 0, 0, 0, 0};                         // stopped, active, Bob
    EXPECT_EQ(std::vector<Bytes>{expected}, ZV_SentData(host, PDU_CONF_FS_DOWNLOAD_RESPONSE));
    // The copy for the other servers keeps the sequence the first server gave
    // and says it was flooded.
    Bytes flooded = {0x07, 0x00};
    Bytes request = Request(1);
    request[10] = 100;
    flooded.insert(flooded.end(), request.begin(), request.end());
    EXPECT_EQ(std::vector<Bytes>{flooded}, ZV_SentData(host, PDU_CONF_FS_DOWNLOAD_REQUEST));

    // A store that fails a read is told as an empty block with 61 where Bob
    // has no command link; one closed under the pump is opened again by it.
    Deliver(PDU_CONF_FS_DOWNLOAD_DATA_REQUEST, Pdu().U16(5).User(kBob).Record(ZV_FileDownloadInfo()).b);
    host.m_vecSent.clear();
    env.FailAt(QB_EnvOp::Read, 1);
    OnSend();
    EXPECT_EQ(std::make_pair(100024u, Block(0, {}, 40000, zvResultCannotAccess).b),
              ZV_OnlySent(host, PDU_CONF_FS_DOWNLOAD_DATA_RESPONSE));
    host.m_vecSent.clear();
    Peer::ServerFile(session).Close();
    OnSend();
    const auto vecBlocks = ZV_SentData(host, PDU_CONF_FS_DOWNLOAD_DATA_RESPONSE);
    ASSERT_EQ(2u, vecBlocks.size());
    EXPECT_EQ(Part(ZV_TestBytes(40000, 1), 0, 32768, 40000).b, vecBlocks[0]);

    // The creator and a user without the right are refused, a flooded copy
    // unanswered; none makes an entry, Bob's first stays the only one.
    Peer::FileInfo(session).m_BriefInfo.m_bPublic = false;
    Peer::FileInfo(session).m_BriefInfo.m_arrRight.Add(QB_UserID(10003, 0));
    struct { const char* szName; QB_UserID user; uint8_t bFlooded; size_t nAnswers; } aCases[] = {
        {"the creator", kAlice, 0, 1}, {"no right", kBob, 0, 1}, {"flooded", kBob, 1, 0}};
    for (const auto& c : aCases)
    {
        host.m_vecSent.clear();
        Bytes request = Request(c.bFlooded);
        request[2] = (uint8_t)(c.user.m_ulMain & 0xFF);
        Deliver(PDU_CONF_FS_DOWNLOAD_REQUEST, request);
        EXPECT_EQ(std::vector<Bytes>(c.nAnswers, Pdu().U16(5).U32(40).U16(5).User(c.user).Data(kEmptyRecord).b),
                  ZV_SentData(host, PDU_CONF_FS_DOWNLOAD_RESPONSE)) << c.szName;
    }
    EXPECT_EQ(1, Peer::Downloads(session).GetCount());
}

TEST_F(Download, PushesThreeBlocksPerCallRestsAtTheWritePositionAndGoesOnWhenWoken)
{
    ZV_FileShareSession& session = AddStoredFile(40000);
    host.Link(kBob);
    host.m_bHasServerLinks = true;
    Deliver(PDU_CONF_FS_DOWNLOAD_REQUEST, Request());
    OnSend();
    EXPECT_TRUE(host.SentOf(PDU_CONF_FS_DOWNLOAD_DATA_RESPONSE).empty()) << "inactive until the data request";
    env.SetTick(10000);
    Deliver(PDU_CONF_FS_DOWNLOAD_DATA_REQUEST, Pdu().U16(5).User(kBob).Record(ZV_FileDownloadInfo()).b);
    ASSERT_EQ(1u, host.SentOf(PDU_CONF_FS_KICK).size());
    EXPECT_EQ(100024u, host.SentOf(PDU_CONF_FS_KICK)[0].ulConn);
    // The time spent counts from the first block, between blocks sent.
    env.SetTick(11000);
    OnSend();
    EXPECT_EQ(0u, Bobs(session).m_ulUsedTime);
    const Bytes stored = ZV_TestBytes(98305, 1);
    EXPECT_EQ((std::vector<Bytes>{Part(stored, 0, 32768, 40000).b, Part(stored, 32768, 7232, 40000).b}),
              ZV_SentData(host, PDU_CONF_FS_DOWNLOAD_DATA_RESPONSE));
    EXPECT_EQ(40000u, Bobs(session).m_ulDownloadPos);
    // The upload stores the rest; the block that began at 40000 wakes Bob.
    QB_WriteWholeFile(tmp.Sub("7/song.ogg"), stored);
    Peer::FileInfo(session).SetFileWritePos(98305);
    Peer::MaxPos(session) = 98305;
    Peer::WakeDownloaders(session, 40000);
    EXPECT_EQ(2u, host.SentOf(PDU_CONF_FS_KICK).size());
    env.SetTick(13000);
    OnSend();
    EXPECT_EQ(2000u, Bobs(session).m_ulUsedTime);
    auto vecBlocks = ZV_SentData(host, PDU_CONF_FS_DOWNLOAD_DATA_RESPONSE);
    ASSERT_EQ(4u, vecBlocks.size());
    EXPECT_EQ(Part(stored, 72768, 25537).b, vecBlocks[3]);
    EXPECT_EQ(zvDownloadStateFinished, Bobs(session).m_usState);
    EXPECT_EQ(1u, host.SentOf(PDU_CONF_FS_DOWNLOAD_DATA_REQUEST).size()) << "the servers learn Bob has finished";
    // Nothing more is sent, and a user who lost the right gets nothing.
    Bobs(session).SetDownloadPos(0);
    Peer::FileInfo(session).m_BriefInfo.m_bPublic = false;
    OnSend();
    EXPECT_EQ(4u, host.SentOf(PDU_CONF_FS_DOWNLOAD_DATA_RESPONSE).size());
    Peer::FileInfo(session).m_BriefInfo.m_bPublic = true;
    OnSend();
    EXPECT_EQ(7u, host.SentOf(PDU_CONF_FS_DOWNLOAD_DATA_RESPONSE).size()) << "three blocks of the whole file";
    // A data request that says the download is stopped leaves it stopped.
    ZV_FileDownloadInfo stopped;
    stopped.SetStopped(true);
    Deliver(PDU_CONF_FS_DOWNLOAD_DATA_REQUEST, Pdu().U16(5).User(kBob).Record(stopped).b);
    EXPECT_TRUE(Bobs(session).m_bStopped && Bobs(session).m_usState == zvDownloadStateStopped);
    const auto vecStops = host.SentOf(PDU_CONF_FS_IS_STOP_DOWNLOAD_REQUEST);
    EXPECT_TRUE(!vecStops.empty() && vecStops.back().sRoute == "servers" && vecStops.back().data.back() == 1)
        << "the other servers keep their copy in step";
}

TEST_F(ClientDownload, GivesUpWithTheReasonWhenRefusedOrWhenTheTargetCannotBeMade)
{
    struct { const char* szName; uint32_t ulServerResult; QB_EnvOp eFault; uint32_t ulResult; } aCases[] = {
        {"refused", 40, QB_EnvOp::Count_, 40}, {"cannot be made", 0, QB_EnvOp::Open, 60},
        {"cannot be cut", 0, QB_EnvOp::SetEnd, 60}};
    for (const auto& c : aCases)
    {
        host.m_vecSent.clear();
        host.m_vecEvents.clear();
        env.ClearFaults();
        if (c.eFault == QB_EnvOp::SetEnd)
        {
            std::filesystem::create_directories(tmp.Sub(c.szName));
            QB_WriteWholeFile(tmp.Sub(std::string(c.szName) + "/a.bin"), ZV_TestBytes(10, 3));
        }
        if (c.eFault != QB_EnvOp::Count_)
            env.FailAt(c.eFault, 1);
        const ZV_FileDownloadInfo record = Target(tmp.SubW(c.szName), 98305);
        Deliver(PDU_CONF_FS_DOWNLOAD_RESPONSE, c.ulServerResult ? Pdu().U16(5).U32(40).U16(5).User(kBob).b
                                                                 : Asked(record), 0, 11);
        EXPECT_EQ(std::vector<uint32_t>{c.ulResult}, ResultsOf(zvFsEventDownloadState)) << c.szName;
        EXPECT_TRUE(host.SentOf(PDU_CONF_FS_DOWNLOAD_DATA_REQUEST).empty()) << c.szName;
        EXPECT_EQ(std::vector<Bytes>{Pdu().U16(5).User(kBob).U32(0).b},
                  ZV_SentData(host, PDU_CONF_FS_DEL_DOWNLOAD_REQUEST)) << c.szName;
        EXPECT_FALSE(Peer::File(Session()).IsOpen()) << c.szName;
    }
    EXPECT_LT(ZV_FileShareMgrPeer::BusyFileIDs(mgr).Find(5), 0);
}

TEST_F(ClientDownload, TakesBlocksInOrderIgnoresDuplicatesAndAsksOnceAcrossAGap)
{
    Deliver(PDU_CONF_FS_DOWNLOAD_RESPONSE, Asked(Target(tmp.SubW("dl"), 98305)), 0, 11);
    host.m_vecSent.clear();
    const Bytes data = ZV_TestBytes(98305, 2);
    env.SetTick(5700);
    for (const Pdu& block : {Part(data, 0, 32768), Part(data, 0, 32768), Part(data, 65536, 32768),
                             Part(data, 98304, 1), Part(data, 32768, 32768), Part(data, 65536, 32768),
                             Part(data, 98304, 1)})
        EXPECT_EQ(0u, Take(block));
    const auto vecAsked = ZV_DataAsks(host);
    ASSERT_EQ(1u, vecAsked.size());
    EXPECT_EQ(12u, host.SentOf(PDU_CONF_FS_DOWNLOAD_DATA_REQUEST)[0].ulConn);
    EXPECT_EQ(32768u, vecAsked[0].m_ulDownloadPos);
    EXPECT_EQ(data, QB_ReadWholeFile(tmp.Sub("dl/a.bin")));
    EXPECT_EQ(4u, ResultsOf(zvFsEventDownloadProgress).size());
    for (const ZV_RaisedEvent& event : host.m_vecEvents)
        if (event.usEvent == zvFsEventDownloadProgress)
        {
            EXPECT_EQ(Pdu().U32(700).b, Bytes(event.data.end() - 4, event.data.end())) << "time spent since the answer";
            break;
        }
    EXPECT_EQ(1u, ResultsOf(zvFsEventDownloadFinished).size());
    EXPECT_EQ(2u, ResultsOf(zvFsEventTransferState).size()) << "at the first block's end and at the finish";
    EXPECT_LT(ZV_FileShareMgrPeer::BusyFileIDs(mgr).Find(5), 0);
}

TEST_F(ClientDownload, RefusesABadBlockUnwrittenStopsTheDownloadAndIgnoresTheRest)
{
    struct Home
    {
        explicit Home(const std::string& sPath) { QB_SetEnvironmentVariable("ROOMCRATE_HOME", sPath.c_str()); }
        ~Home() { QB_SetEnvironmentVariable("ROOMCRATE_HOME", nullptr); }
    } home(tmp.Path());
    std::filesystem::create_directories(tmp.Sub("log"));
    Bytes truncated = Block(0, ZV_TestBytes(50, 4)).b;
    truncated.resize(30);
    struct { const char* szName; Bytes block; bool bFailWrite; } aCases[] = {
        {"the server could not read", Block(0, {}, 98305, 61).b, false},
        {"longer than a block", Block(0, ZV_TestBytes(32769, 4)).b, false},
        {"running past the file's end", Block(0, ZV_TestBytes(101, 4)).b, false},
        {"the write fails", Block(0, ZV_TestBytes(50, 4)).b, true}};
    for (const auto& c : aCases)
    {
        Deliver(PDU_CONF_FS_DOWNLOAD_RESPONSE, Asked(Target(tmp.SubW("dl"), 100)), 0, 11);
        EXPECT_EQ(5u, Take(Pdu{truncated})) << "a payload that ends early is dropped";
        host.m_vecSent.clear();
        host.m_vecEvents.clear();
        if (c.bFailWrite)
            env.FailAt(QB_EnvOp::Write, 1);
        Take(Pdu{c.block});
        Take(Block(0, ZV_TestBytes(50, 4)));
        EXPECT_EQ(0u, std::filesystem::file_size(tmp.Sub("dl/a.bin"))) << c.szName;
        EXPECT_EQ(std::vector<uint32_t>{61}, ResultsOf(zvFsEventDownloadState)) << c.szName;
        EXPECT_TRUE(ResultsOf(zvFsEventDownloadProgress).empty()) << c.szName;
        EXPECT_EQ(std::make_pair(11u, Pdu().U16(5).User(kBob).U32(0).U8(1).b),
                  ZV_OnlySent(host, PDU_CONF_FS_IS_STOP_DOWNLOAD_REQUEST)) << c.szName;
    }
    EXPECT_EQ(std::size(aCases), QB_CountInFiles(tmp.Sub("log"), "HandleDownloadDataResponse...ulResult=61.\r\n"));
}

// A stored name that would lead out of the store folder opens nothing and
// asks for no blocks.
TEST_F(Download, RelayWritesIntoItsOwnStoreWhateverPathTheRecordNamesAndNeverOutsideIt)
{
    ZV_FileShareSession& session = AddStoredFile(0);
    Peer::ServerFile(session).Close();
    const QB_UserID self(1, 0), upstream(2, 0);
    // The upstream's record names another folder and a length of its own.
    ZV_FileDownloadInfo record = Target(QB_StringW(u"C:\\elsewhere"), 4096);
    record.SetUserID(self);
    Peer::FileInfo(session).SetFileNewName(QB_StringU8("..\\song.ogg"));
    Deliver(PDU_CONF_FS_DOWNLOAD_RESPONSE, Answer(record, 0, self), zvConfServerTypeCommand, 20, upstream);
    EXPECT_TRUE(host.SentOf(PDU_CONF_FS_DOWNLOAD_DATA_REQUEST).empty());
    EXPECT_FALSE(std::filesystem::exists(tmp.Sub("song.ogg")));

    Peer::FileInfo(session).SetFileNewName(QB_StringU8("song.ogg"));
    Deliver(PDU_CONF_FS_DOWNLOAD_RESPONSE, Answer(record, 0, self), zvConfServerTypeCommand, 20, upstream);
    const auto vecAsks = ZV_DataAsks(host);
    ASSERT_EQ(1u, vecAsks.size());
    const ZV_FileDownloadInfo& asked = vecAsks[0];
    EXPECT_EQ(98305u, asked.m_ulFileLenth);
    EXPECT_EQ(QB_StringW(QB_ToWindowsPath(tmp.Sub("7/song.ogg"))), QB_StringW(asked.m_sFilePath + asked.m_sFileName));
    const Bytes data = ZV_TestBytes(98305, 5);
    for (uint32_t ulPos : {0u, 32768u, 65536u, 98304u})
    {
        Deliver(PDU_CONF_FS_DOWNLOAD_DATA_RESPONSE, Part(data, ulPos, std::min(32768u, 98305u - ulPos)).b,
                zvConfServerTypeData, 24, upstream);
        EXPECT_TRUE(ulPos > 0 || Peer::FileInfo(session).m_BriefInfo.m_usFileState == zvFileStateUploading);
    }
    EXPECT_EQ(data, QB_ReadWholeFile(tmp.Sub("7/song.ogg")));
    EXPECT_EQ(zvFileStateComplete, Peer::FileInfo(session).m_BriefInfo.m_usFileState);
    EXPECT_FALSE(Peer::File(session).IsOpen()) << "the fetched copy is no longer held open for writing";
    EXPECT_EQ((Bytes{1, 5, 0, 1, 0, 1, 1, 5, 0, 3, 0, 1}), ZV_Joined(host.SentOf(PDU_CONF_FS_FILE_STATE_NOTICE)))
        << "its clients hear that its copy begins and is whole";
    EXPECT_TRUE(host.m_vecEvents.empty()) << "a server has no user side";
}

// A FileID given out again while two servers were apart names another file at
// each: the other file's record in 8012 or 8015 starts no pump and no fetch.
TEST_F(Download, ALinkedServersRecordOfAnotherFileUnderTheFileIDMovesNothing)
{
    const QB_UserID self(1, 0), peer(2, 0);
    QB_DateTimeEx dtOther;
    dtOther.SetFromTimeT(1300260108);
    struct { const char* szName; const char* pszName; bool bOtherTime; bool bMoves; } aCases[] = {
        {"this file", "song.ogg", false, true},
        {"another name", "other.ogg", false, false},
        {"another share time", "song.ogg", true, false}};
    for (const auto& c : aCases)
    {
        ZV_FileDownloadInfo record = Target(QB_StringW(u"C:\\d"), 98305, 1000);
        record.SetFileFullName(QB_StringU8(c.pszName));
        if (c.bOtherTime)
            record.SetShareTime(dtOther);
        ZV_FileShareSession& session = AddStoredFile(98305);
        host.m_setLinkedServer = {peer.m_ulMain};
        ZV_FileDownloadInfo resting;
        resting.SetUserID(peer);
        Peer::Downloads(session)[peer] = resting;
        host.m_vecSent.clear();
        record.SetUserID(peer);
        EXPECT_EQ(0u, Deliver(PDU_CONF_FS_DOWNLOAD_DATA_REQUEST, Pdu().U16(5).User(peer).Record(record).b,
                              zvConfServerTypeCommand, 20, peer)) << "taken, moved or not";
        const ZV_FileDownloadInfo* pEntry = session.FindDownloadEntry(peer);
        ASSERT_NE(nullptr, pEntry) << c.szName;
        EXPECT_EQ(c.bMoves, pEntry->m_bActive) << c.szName;
        EXPECT_EQ(c.bMoves ? 1000u : 0u, pEntry->m_ulDownloadPos) << c.szName;
        EXPECT_EQ(c.bMoves ? 1u : 0u, host.SentOf(PDU_CONF_FS_KICK).size()) << c.szName;

        ZV_FileShareSession& relay = AddStoredFile(0);
        Peer::ServerFile(relay).Close();
        host.m_vecSent.clear();
        record.SetUserID(self);
        Deliver(PDU_CONF_FS_DOWNLOAD_RESPONSE, Answer(record, 0, self), zvConfServerTypeCommand, 20, peer);
        EXPECT_EQ(c.bMoves ? 1u : 0u, host.SentOf(PDU_CONF_FS_DOWNLOAD_DATA_REQUEST).size()) << c.szName;
        EXPECT_EQ(c.bMoves ? zvDownloadStateRunning : zvDownloadStateNew, Peer::LocalDownload(relay).m_usState)
            << c.szName;
    }
}

// A download of a file with no bytes yet orders its creator to upload, or
// says why it cannot. A start a linked server floods for a downloader reaches
// the creator's client where she is homed, goes on to the other servers
// elsewhere, and is taken once.
TEST_F(Download, OrdersTheCreatorToUploadOrSaysWhyAndPassesAStartFromAnotherServerToHerOrOnOnce)
{
    host.AddUser(kAlice, 1, "alice");
    for (uint32_t ulResult : {56u, 16u, 0u})
    {
        if (ulResult != 56)
            host.Link(kAlice).bCommand = ulResult == 0;
        host.m_vecSent.clear();
        AddStoredFile(0);
        Deliver(PDU_CONF_FS_DOWNLOAD_REQUEST, Request());
        ASSERT_EQ(ulResult ? 1u : 2u, host.m_vecSent.size()) << ulResult;
        EXPECT_EQ(Pdu().U16(5).U32(ulResult).b, Bytes(host.m_vecSent.back().data.begin(),
                                                     host.m_vecSent.back().data.begin() + 6));
    }
    EXPECT_EQ(PDU_CONF_FS_UPLOAD_RESPONSE, host.m_vecSent[0].usPdu);
    EXPECT_EQ(100010u, host.m_vecSent[0].ulConn);
    EXPECT_EQ(Pdu().U16(5).U32(0).U16(5).User(kAlice).U32(0).U32(0).b, host.m_vecSent[0].data);

    host.m_bHasServerLinks = true;
    const Bytes start = Pdu().U16(5).U32(0).U16(5).User(kBob).U32(77).U32(0).b;
    for (uint32_t ulHome : {2u, 1u})
    {
        host.Link(kAlice);
        host.AddUser(kAlice, ulHome, "alice");
        host.m_setFloodSeen.clear();
        for (size_t nSent : {1u, 0u})
        {
            host.m_vecSent.clear();
            Deliver(PDU_CONF_FS_UPLOAD_RESPONSE, start, zvConfServerTypeCommand, 902, QB_UserID(2, 0));
            ASSERT_EQ(nSent, host.m_vecSent.size()) << ulHome;
            if (nSent == 1)
            {
                EXPECT_EQ(ulHome == 1 ? "link" : "servers", host.m_vecSent[0].sRoute);
                const Bytes toAlice = Pdu().U16(5).U32(0).U16(5).User(kAlice).U32(77).U32(0).b;
                EXPECT_EQ(ulHome == 1 ? toAlice : Pdu().U16(7).Data(start).b, host.m_vecSent[0].data);
            }
        }
    }
}

TEST_F(ClientDownload, AfterItsDataLinkCameBackItAsksForItsPositionOnceAlsoAcrossAGap)
{
    Deliver(PDU_CONF_FS_DOWNLOAD_RESPONSE, Asked(Target(tmp.SubW("dl"), 98305)), 0, 11);
    const Bytes data = ZV_TestBytes(98305, 2);
    EXPECT_EQ(0u, Take(Part(data, 0, 32768)));
    mgr.OnConnect(&kBob, 11, zvConfClientTypeCommand, 0);
    mgr.OnConnect(&kBob, 12, zvConfClientTypeData, 0);
    mgr.OnDisconnect(&kBob, 12, zvConfClientTypeData, 0);
    host.m_vecSent.clear();
    mgr.OnConnect(&kBob, 12, zvConfClientTypeData, 0);
    const auto vecAsked = host.SentOf(PDU_CONF_FS_DOWNLOAD_DATA_REQUEST);
    ASSERT_EQ(1u, vecAsked.size());
    EXPECT_TRUE(vecAsked[0].sRoute == "link" && vecAsked[0].ulConn == 11u) << "on the command link";
    EXPECT_EQ(32768u, ZV_DataAsks(host)[0].m_ulDownloadPos);
    EXPECT_EQ(0u, Take(Part(data, 65536, 32768)));
    EXPECT_EQ(1u, host.SentOf(PDU_CONF_FS_DOWNLOAD_DATA_REQUEST).size());
}
