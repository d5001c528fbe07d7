// What one server takes from a client's link. Mallory's client sends, in
// Alice's or Bob's name, every request a client may send, and numbers only
// servers send or none do; then, in her own name, adds that choose a FileID,
// a relay's ask, a block past the end or into Alice's file, and word that
// Alice's upload failed; and Dave, who left as his add came, adds. Each
// leaves the server as it was, sends nothing on, and is answered to the
// sender alone where it has an answer.
#include "ZV_RecordingNode.h"

#include "download/ZV_DownloadPdu.h"
#include "ZV_ServerHeld.h"

#include <algorithm>
#include <filesystem>

namespace {

const QB_UserID kAlice(10001, 0);    // shares secret.txt, 10 bytes, for Bob only; 4 have arrived
const QB_UserID kBob(10002, 0);      // has asked for it
const QB_UserID kMallory(10003, 0);  // the hostile client
const QB_UserID kDave(10004, 0);     // unknown to the host
const QB_UserID kServer2(2, 0);      // a linked server
const QB_UserID kNobody;
constexpr uint16_t kFile = 1;

// Alice's link is 11, Bob's 21, Mallory's 31; server 2's 902.
uint32_t ConnOf(const QB_UserID& user)
{
    return user == kServer2 ? 902 : (user.m_ulMain - 10000) * 10 + 1;
}

ZV_FileBriefInfo Brief(const QB_UserID& creator, const char* szName)
{
    QB_Array<QB_UserID> arrRight;
    arrRight.Add(kBob);
    ZV_FileBriefInfo brief = ZV_Brief(creator, szName, 10, false);
    brief.SetRight(arrRight);
    return brief;
}

Bytes Add(uint16_t usFileID, const QB_UserID& user, const QB_UserID& creator, const char* szName = "evil.txt")
{
    return ZV_AddAsk(usFileID, user, Brief(creator, szName));
}

Bytes AddFiles(uint16_t usFileID, const QB_UserID& user, const QB_UserID& creator)
{
    return ZV_AddFilesAsk(user, {{usFileID, Brief(creator, "evil.txt")}});
}

Bytes Block(const QB_UserID& user, uint32_t ulPos, uint32_t ulLen)
{
    return Pdu().U16(kFile).User(user).U32(0).U8(0).U32(ulLen).U32(ulPos).Data(Bytes(ulLen, 'm')).b;
}

Bytes Download(const QB_UserID& user, uint8_t bFromServer = 0)
{
    return ZV_SavePayload(ZV_DownloadAsk{{kFile, user, 0}, "C:\\dl\\secret.txt", 0, bFromServer});
}

// The head of an answer about one file.
Pdu Answer(uint16_t usFileID, uint32_t ulResult, const QB_UserID& user)
{
    return Pdu().U16(usFileID).U32(ulResult).U16(usFileID).User(user);
}

Bytes StoppedAt0(const QB_UserID& user)
{
    ZV_DownloadDataRequest ask{kFile, user, {}};
    ask.record.SetDownloadPos(0);
    ask.record.SetStopped(true);
    return ZV_SavePayload(ask);
}

// A server with server links, Alice's file 1 and Bob's entry for it.
struct ServerNode : ZV_RecordingNode
{
    ServerNode() : ZV_RecordingNode(true)
    {
        std::filesystem::create_directories(tmp.Sub("log"));
        host.m_bHasServerLinks = true;
        host.m_setLinkedServer = {2};
        for (const QB_UserID& user : {kAlice, kBob, kMallory})
        {
            host.AddUser(user, 1, "user");
            host.m_mapUserConn[{user.m_ulMain, user.m_ulSub}] = ConnOf(user);
        }
        EXPECT_EQ(0u, mgr.Initialize());
        Send(kAlice, PDU_CONF_FS_ADD_REQUEST, Add(ZV_NO_FILEID, kAlice, kAlice, "secret.txt"));
        Send(kAlice, PDU_CONF_FS_UPLOAD_REQUEST, Block(kAlice, 0, 4), zvConfClientTypeData);
        Send(kBob, PDU_CONF_FS_DOWNLOAD_REQUEST, Download(kBob));
        EXPECT_EQ(4u, ZV_FileShareSessionPeer::FileInfo(*ZV_FileShareMgrPeer::Find(mgr, kFile)).m_ulFileWritePos);
        host.m_vecSent.clear();
    }
    void Send(const QB_UserID& from, uint16_t usPdu, const Bytes& data, uint16_t usType = zvConfClientTypeCommand)
    {
        EXPECT_EQ(0u, ZV_Deliver(mgr, usPdu, usType, data, ConnOf(from), from));
    }
    std::string Held() { return ZV_ServerHeld(mgr, tmp.Sub("store"), tmp.Sub("fsinfo.ini")); }
    size_t Logged(const std::string& sWhat) { return QB_CountInFiles(tmp.Sub("log"), sWhat); }
};

struct Case
{
    const char* szName;
    QB_UserID from;
    uint16_t usPdu;
    Bytes payload;
    const char* szNamed;  // the payload user the log line names; null: no line
    uint16_t usAnswer;    // to the asker alone; 0: none
    Bytes answer;         // how the answer begins
    QB_UserID owner;      // from whose link the same payload acts
    uint16_t usType = zvConfClientTypeCommand;  // of the client's link
};

} // namespace

TEST(ClientLink, NoRequestActsInAnotherUsersNameChoosesAFileIDOrWritesPastTheEnd)
{
    const uint16_t kNone = ZV_NO_FILEID;
    const Case aCases[] = {
        {"an add in Alice's name", kMallory, 8001, Add(kNone, kAlice, kAlice), "10001:0", 8002,
         Answer(kNone, 40, kAlice).U32(0).b, kAlice},
        {"an add whose description names Alice", kMallory, 8001, Add(kNone, kMallory, kAlice), "10001:0", 8002,
         Answer(kNone, 40, kMallory).U32(0).b, kNobody},
        {"Alice's file made public", kMallory, 8003, Pdu().U16(kFile).User(kAlice).U32(0).U8(1).U8(0).U8(0).b,
         "10001:0", 8004, Pdu().U32(40).U16(kFile).User(kAlice).b, kAlice},
        {"a block into Alice's file", kMallory, 8005, Block(kAlice, 4, 6), "10001:0", 0, {}, kAlice,
         zvConfClientTypeData},
        {"Alice's file deleted", kMallory, 8008, Pdu().U16(kFile).User(kAlice).U32(0).b, "10001:0", 8009,
         Answer(kFile, 40, kAlice).U32(0).b, kAlice},
        {"Bob's download dropped", kMallory, 8010, Pdu().U16(kFile).User(kBob).U32(0).b, "10002:0", 0, {}, kBob},
        {"Bob's download stopped by its record", kMallory, 8012, StoppedAt0(kBob), "10002:0", 0, {}, kBob},
        {"Bob's download sent elsewhere", kMallory, 8014, Download(kBob), "10002:0", 8015, Answer(kFile, 40, kBob).b,
         kBob},
        {"Bob's download stopped", kMallory, 8016, Pdu().U16(kFile).User(kBob).U32(0).U8(1).b, "10002:0", 0, {}, kBob},
        {"Alice's upload stopped", kMallory, 8017, Pdu().U16(kFile).User(kAlice).U32(0).U8(1).U32(0).b, "10001:0", 0,
         {}, kAlice},
        {"Alice's upload list", kMallory, 8027, Pdu().U16(kFile).User(kAlice).b, "10001:0", 0, {}, kAlice},
        {"Bob's download list", kMallory, 8029, Pdu().U16(kFile).User(kBob).b, "10002:0", 0, {}, kBob},
        {"Alice's upload failed", kMallory, 8035, Pdu().U16(kFile).User(kAlice).U32(0).U32(0).b, "10001:0", 0, {},
         kAlice},
        {"Alice's rights as a batch", kMallory, 8040, Pdu().U8(1).U16(kFile).User(kAlice).U32(0).U8(1).U8(0).U8(0).b,
         "10001:0", 8041, Pdu().U8(1).U16(kFile).U32(40).U8(1).U16(kFile).User(kAlice).U32(0).b, kAlice},
        {"a batch in Alice's name", kMallory, 8055, AddFiles(kNone, kAlice, kAlice), "10001:0", 8056,
         Pdu().U32(40).User(kAlice).U8(0).U8(1).U16(kNone).U8(0).b, kAlice},
        {"a batch whose description names Alice", kMallory, 8055, AddFiles(kNone, kMallory, kAlice), "10001:0",
         8056, Pdu().U32(40).User(kMallory).U8(0).U8(1).U16(kNone).U8(0).b, kNobody},
        // Numbers only servers send; from a server's link each acts.
        {"a file said complete", kMallory, 8007, Pdu().U16(kFile).User(kServer2).U32(9).b, "none", 0, {}, kServer2},
        {"a relay's progress", kMallory, 8021, Pdu().U16(kFile).User(kServer2).U32(0).U8(0).b, "none", 0, {},
         kServer2},
        {"a file list asked for", kMallory, 8031, Pdu().User(kServer2).b, "none", 0, {}, kServer2},
        {"a file list", kMallory, 8032, Pdu().U32(0).User(kServer2).U8(1).U8(1).b, "none", 0, {}, kNobody},
        {"a file's source moved", kMallory, 8037, Pdu().U16(kFile).User(kServer2).U32(9).b, "none", 0, {}, kServer2},
        {"a number outside the protocol", kMallory, 9000, Pdu().U16(kFile).User(kAlice).b, "none", 0, {}, kNobody},
        // In her own name.
        {"an add that chooses Alice's FileID", kMallory, 8001, Add(kFile, kMallory, kMallory), nullptr, 8002,
         Answer(kFile, 40, kMallory).U32(0).b, kNobody},
        {"an add that chooses a FileID out of range", kMallory, 8001, Add(5000, kMallory, kMallory), nullptr, 8002,
         Answer(5000, 40, kMallory).U32(0).b, kNobody},
        {"a batch that chooses Alice's FileID", kMallory, 8055, AddFiles(kFile, kMallory, kMallory), nullptr, 8056,
         Pdu().U32(40).User(kMallory).U8(0).U8(1).U16(kFile).U8(0).b, kNobody},
        {"a relay's download request", kBob, 8014, Download(kBob, 1), nullptr, 8015, Answer(kFile, 40, kBob).b,
         kServer2},
        {"Alice's block past the end", kAlice, 8005, Block(kAlice, 4, 7), nullptr, 8006,
         Answer(kFile, 61, kAlice).U32(0).U32(4).b, kNobody, zvConfClientTypeData},
        {"a block of her own into Alice's file", kMallory, 8005, Block(kMallory, 4, 6), nullptr, 8006,
         Answer(kFile, 40, kMallory).U32(0).U32(4).b, kNobody, zvConfClientTypeData},
        {"Alice's upload failed, in her own name", kMallory, 8035, Pdu().U16(kFile).User(kMallory).U32(0).U32(0).b,
         nullptr, 8036, Pdu().U16(kFile).U32(40).U16(kFile).b, kNobody},
        {"an add by a user who has left", kDave, 8001, Add(kNone, kDave, kDave), nullptr, 8002,
         Answer(kNone, zvResultNotInConf, kDave).U32(0).b, kNobody},
    };
    for (const Case& c : aCases)
    {
        SCOPED_TRACE(c.szName);
        ServerNode node;
        const std::string sBefore = node.Held();
        ZV_Deliver(node.mgr, c.usPdu, c.usType, c.payload, ConnOf(c.from), c.from);
        EXPECT_EQ(sBefore, node.Held());
        EXPECT_EQ(c.usAnswer != 0 ? 1u : 0u, node.host.m_vecSent.size());
        if (c.usAnswer != 0 && node.host.m_vecSent.size() == 1)
        {
            const ZV_SentPdu& sent = node.host.m_vecSent[0];
            EXPECT_TRUE(sent.usPdu == c.usAnswer && sent.sRoute == "link" && sent.ulConn == ConnOf(c.from));
            EXPECT_EQ(c.answer, Bytes(sent.data.begin(), sent.data.begin() + (long)std::min(sent.data.size(), c.answer.size())));
        }
        EXPECT_EQ(0u, node.Logged("exception")) << "each payload reads whole";
        const std::string sLine = std::string("refused ") + std::to_string(c.usPdu) + " (";
        EXPECT_EQ(c.szNamed ? 1u : 0u, node.Logged("ZV_FileShareMgr::HandlePdu refused "));
        EXPECT_TRUE(!c.szNamed || (node.Logged(sLine) == 1 &&
                                   node.Logged(std::string("from a client link: payload user ") + c.szNamed + ", link user " +
                                               std::to_string(c.from.m_ulMain) + ":0.\r\n") == 1));
        // The row is no refusal of something that would do nothing anyway.
        if (c.owner == kNobody)
            continue;
        ServerNode honest;
        const std::string sHonest = honest.Held();
        honest.Send(c.owner, c.usPdu, c.payload, c.owner == kServer2 ? (uint16_t)zvConfServerTypeCommand : c.usType);
        EXPECT_TRUE(sHonest != honest.Held() || !honest.host.m_vecSent.empty()) << "from its own link it acts";
    }
}
