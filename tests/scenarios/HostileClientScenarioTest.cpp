// A hostile client: Mallory, beside Alice and Bob on server 1 of two, sends
// what her client never would. Each attack leaves both servers as they were
// and only she hears of it; the honest roads still work afterwards.
#include "ZV_SceneFixture.h"

#include "add/ZV_AddPdu.h"
#include "download/ZV_DownloadPdu.h"
#include "rights/ZV_EntryPdu.h"
#include "ZV_PayloadCheck.h"
#include "rights/ZV_RightsPdu.h"
#include "ZV_ServerHeld.h"
#include "upload/ZV_UploadPdu.h"

namespace {

using Bytes = std::vector<uint8_t>;

struct HostileScene : public ZV_Scene
{
    void Build()
    {
        shape = ZV_SimBuilder::TwoLinkedServers(sim, ZV_SimBuilder::kConfID, 3);
        ASSERT_TRUE(shape.IsComplete() && sim.Run()) << sim.GetError();
    }
    ZV_SimHost* Mallory() const { return shape.Client(2); }
    std::string Held() const
    {
        std::string s;
        for (ZV_SimHost* lpServer : shape.vecServers)
            s += ZV_ServerHeld(*Manager(lpServer), lpServer->GetHome() + "store", lpServer->GetHome() + "fsinfo.ini");
        return s;
    }
    // What the others sent for the PDU Mallory sent at nMark, up to what
    // her client sends of its own accord after it.
    std::vector<ZV_SimEntry> SentByOthers(size_t nMark)
    {
        std::vector<ZV_SimEntry> vecSent;
        for (const ZV_SimEntry& entry : Find({.eKind = ZV_SimEntryKind::Pdu, .nFrom = nMark + 1}))
        {
            if (entry.sNode == Mallory()->GetName())
                break;
            vecSent.push_back(entry);
        }
        return vecSent;
    }
};

Bytes Add(uint16_t usFileID, const QB_UserID& user)
{
    ZV_AddRequest ask;
    ask.usFileID = usFileID;
    ask.user = user;
    ask.brief.SetCreatorID(user);
    ask.brief.SetFileOldName(QB_StringU8("payroll.xls"));
    ask.brief.SetFileLenth(10);
    ask.brief.SetPublic(true);
    return ZV_SavePayload(ask);
}

Bytes Block(uint16_t usFileID, const QB_UserID& user, uint32_t ulPos, const Bytes& data)
{
    ZV_UploadRequest block;
    block.usFileID = usFileID;
    block.user = user;
    block.ulLen = (uint32_t)data.size();
    block.ulPos = ulPos;
    block.pData = data.data();
    return ZV_SavePayload(block);
}

} // namespace

TEST_F(HostileScene, NoAttackOfAClientChangesAnyServerOrReachesAnyoneButHer)
{
    Build();
    const QB_UserID alice = Alice()->GetUserID();
    const QB_UserID bob = Bob()->GetUserID();
    const QB_UserID mallory = Mallory()->GetUserID();
    // Alice's secret, for Bob only, its bytes not yet sent; Mallory's own
    // file of 10 bytes, whole on both servers.
    const ZV_Bytes secret = ZV_RandomBytes(50000, 3);
    StartShareBy(Alice(), "secret.bin", secret, false, false, {bob});
    StartShareBy(Mallory(), "mine.bin", ZV_Bytes(10, 'm'));
    ASSERT_TRUE(sim.Run()) << sim.GetError();
    const uint16_t usSecret = 1, usMine = 2;
    for (ZV_SimHost* lpServer : shape.vecServers)
    {
        ZV_FileUploadInfo row;
        ASSERT_TRUE(Row(lpServer, usSecret, row) && row.m_BriefInfo.m_CreatorID == alice);
        ASSERT_TRUE(Row(lpServer, usMine, row) && row.m_ulFileWritePos == 10);
    }

    ZV_SetRightRequest open;
    open.head = {usSecret, alice, 0};
    open.bPublic = 1;
    ZV_SetFilesRightRequest swap;
    swap.arrFileID.Add(usSecret);
    swap.user = alice;
    swap.arrAdd = ZV_Users({mallory});
    swap.arrRemove = ZV_Users({bob});
    ZV_DownloadAsk relay;
    relay.usFileID = usSecret;
    relay.user = mallory;
    relay.sPath = QB_StringU8("C:\\m\\secret.bin");
    relay.bFromServer = 1;
    // usAnswer 0: no answer
    const struct { const char* szName; uint16_t usPdu; Bytes payload; uint16_t usType; uint16_t usAnswer;
          size_t nResultAt; uint32_t ulResult; } aAttacks[] = {
        {"Alice's file made public", 8003, ZV_SavePayload(open), 0, 8004, 0, 40},
        {"Alice's rights rewritten to let Mallory in and Bob out", 8040, ZV_SavePayload(swap), 0, 8041, 3, 40},
        {"Mallory's bytes as Alice's", 8005, Block(usSecret, alice, 0, Bytes(10, 'x')), 4, 0, 0, 0},
        {"Alice's file deleted", 8008, ZV_SavePayload(ZV_RequestHead{usSecret, alice, 0}), 0, 8009, 2, 40},
        {"an add over Alice's FileID", 8001, Add(usSecret, mallory), 0, 8002, 2, 40},
        {"an add out of the server's range", 8001, Add(1500, mallory), 0, 8002, 2, 40},
        {"an add in Alice's name", 8001, Add(ZV_NO_FILEID, alice), 0, 8002, 2, 40},
        {"a download as a relay", 8014, ZV_SavePayload(relay), 0, 8015, 2, 40},
        {"her own file written past its end", 8005, Block(usMine, mallory, 10, Bytes(32768, 'x')), 4, 8006, 2, 61},
    };
    for (const auto& a : aAttacks)
    {
        const std::string sBefore = Held();
        const size_t nMark = sim.Journal().Size();
        Mallory()->SendPdu(Mallory()->GetServerLink()->GetConn(a.usType), a.usPdu, a.payload.data(),
                           (uint32_t)a.payload.size(), 1, 1);
        ASSERT_TRUE(sim.Run()) << sim.GetError();
        EXPECT_EQ(sBefore, Held()) << a.szName;
        const std::vector<ZV_SimEntry> vecSent = SentByOthers(nMark);
        EXPECT_EQ(a.usAnswer != 0 ? 1u : 0u, vecSent.size()) << a.szName << "\n" << sim.Journal().Dump(nMark);
        if (a.usAnswer == 0 || vecSent.size() != 1)
            continue;
        EXPECT_EQ(a.usAnswer, vecSent[0].usNumber) << a.szName;
        EXPECT_EQ(Mallory()->GetName(), vecSent[0].sPeer) << a.szName;
        QB_ByteStream stream(vecSent[0].vbData.data(), (int32_t)vecSent[0].vbData.size());
        stream.Skip((int32_t)a.nResultAt);
        EXPECT_EQ(a.ulResult, stream.ReadU32()) << a.szName;
    }

    ASSERT_EQ(0u, Fs(Alice())->FsUpload(usSecret));
    ASSERT_TRUE(sim.Run()) << sim.GetError();
    ASSERT_EQ(0u, Download(Bob(), usSecret));
    ASSERT_TRUE(sim.Run()) << sim.GetError();
    EXPECT_EQ(secret, QB_ReadWholeFile(Target(Bob(), usSecret)));
}
