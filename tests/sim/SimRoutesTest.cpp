// The five send routes of the host: who receives, what they see, and what
// the host refuses or drops.
#include "QB_TestSupport.h"
#include "ZV_SimBuilder.h"
#include "ZV_SimFakeModule.h"

#include <gtest/gtest.h>

namespace {

const std::vector<uint8_t> kFields = {0xAA, 0xBB, 0xCC};

size_t Received(const ZV_SimHost* lpNode)
{
    return FakeOf(lpNode).CallsOf("HandlePdu").size();
}

// Servers 1, 2 and 3, with 1 linked to both others, all in conference ulConfID.
std::vector<ZV_SimHost*> ThreeServers(ZV_SimConference& sim, uint32_t ulConfID)
{
    std::vector<ZV_SimHost*> vecServers;
    for (uint32_t ulServer : {1u, 2u, 3u})
        vecServers.push_back(sim.AddServer(ulConfID, ulServer));
    sim.LinkServers(1, 2);
    sim.LinkServers(1, 3);
    return vecServers;
}

}  // namespace

TEST(SimConference, DeliversAGroupSendToEveryClientButTheSkippedOne)
{
    QB_TempFolder tmp;
    ZV_SimConference sim(ZV_SimFakeApi(), ZV_SimFakeOptions(tmp.Path()));
    ZV_SimShape shape = ZV_SimBuilder::OneServerTwoClients(sim);
    ASSERT_TRUE(shape.IsComplete()) << sim.GetError();
    ZV_SimHost* lpServer = shape.Server();

    struct Row
    {
        const char* szName;
        int nSkip;  // the client whose command connection is skipped, -1 none
        size_t anReached[2];
    };
    const Row aRows[] = {
        {"skips nobody", -1, {1, 1}},
        {"skips Alice", 0, {0, 1}},
        {"skips Bob", 1, {1, 0}},
    };
    for (const Row& row : aRows)
    {
        SCOPED_TRACE(row.szName);
        size_t anBefore[2] = {Received(shape.Client(0)), Received(shape.Client(1))};
        uint32_t ulSkip =
            row.nSkip < 0 ? zvConnNone : lpServer->GetUserConn(&shape.Client(row.nSkip)->GetUserID(), 0);
        EXPECT_EQ(lpServer->SendPduToGroup(ulSkip, 0, 8002, kFields.data(), 3, 1, 1), 0u);
        ASSERT_TRUE(sim.Run()) << sim.GetError();
        for (int i = 0; i < 2; ++i)
        {
            EXPECT_EQ(Received(shape.Client(i)) - anBefore[i], row.anReached[i]) << "client " << i;
            if (row.anReached[i])
            {
                EXPECT_EQ(FakeOf(shape.Client(i)).m_vecCalls.back().vbData, kFields);
            }
        }
    }
}

TEST(SimConference, SendsToEveryLinkedServerButTheSkippedOne)
{
    QB_TempFolder tmp;
    ZV_SimConference sim(ZV_SimFakeApi(), ZV_SimFakeOptions(tmp.Path()));
    std::vector<ZV_SimHost*> vecServers = ThreeServers(sim, 100);
    ZV_SimHost* lpOrigin = vecServers[0];
    std::vector<uint8_t> vbPayload = WithConfWord(100, kFields);

    struct Row
    {
        const char* szName;
        uint32_t ulSkipServer;  // 0: none
        size_t anReached[2];    // servers 2 and 3
    };
    const Row aRows[] = {
        {"skips nobody", 0, {1, 1}},
        {"skips server 2", 2, {0, 1}},
        {"skips server 3", 3, {1, 0}},
    };
    for (const Row& row : aRows)
    {
        SCOPED_TRACE(row.szName);
        size_t anBefore[2] = {Received(vecServers[1]), Received(vecServers[2])};
        uint32_t ulSkip = row.ulSkipServer ? lpOrigin->GetServerConn(row.ulSkipServer, zvConfServerTypeCommand, 0)
                                           : zvConnNone;
        EXPECT_EQ(lpOrigin->SendPduToServers(ulSkip, zvConfServerTypeCommand, 8001, vbPayload.data(),
                                             (uint32_t)vbPayload.size(), 1, 1),
                  0u);
        ASSERT_TRUE(sim.Run()) << sim.GetError();
        for (int i = 0; i < 2; ++i)
            EXPECT_EQ(Received(vecServers[i + 1]) - anBefore[i], row.anReached[i]) << "server " << i + 2;
    }
}

// The word holds the low 16 bits of the conference id, so an id above 0xFFFF
// shows whether both ends agree on that.
TEST(SimConference, TakesTheConferenceWordOffEveryServerRouteBeforeTheReceiverSeesThePayload)
{
    const uint32_t ulConfID = 0x30064;
    QB_TempFolder tmp;
    ZV_SimConference sim(ZV_SimFakeApi(), ZV_SimFakeOptions(tmp.Path()));
    ZV_SimShape shape = ZV_SimBuilder::TwoLinkedServers(sim, ulConfID, 0);
    ASSERT_TRUE(shape.IsComplete()) << sim.GetError();
    ZV_SimHost* lpFrom = shape.Server(0);
    ZV_SimHost* lpTo = shape.Server(1);
    std::vector<uint8_t> vbPayload = WithConfWord(ulConfID, kFields);
    const uint8_t* pData = vbPayload.data();
    uint32_t ulLen = (uint32_t)vbPayload.size();
    uint32_t ulCommand = lpFrom->GetServerConn(2, zvConfServerTypeCommand, 0);
    uint32_t ulData = lpFrom->GetServerConn(2, zvConfServerTypeData, 0);

    struct Row
    {
        const char* szName;
        std::function<uint32_t()> fnSend;
        ZV_SimRoute eRoute;
        uint16_t usConnType;
    };
    const Row aRows[] = {
        {"to servers", [&] { return lpFrom->SendPduToServers(zvConnNone, zvConfServerTypeCommand, 8001, pData, ulLen, 1, 1); },
         ZV_SimRoute::Servers, zvConfServerTypeCommand},
        {"to the server's data link", [&] { return lpFrom->SendPduToServerData(2, zvConfServerTypeData, 8012, pData, ulLen, 1, 1); },
         ZV_SimRoute::ServerData, zvConfServerTypeData},
        {"on the command link", [&] { return lpFrom->SendPduOnLink(ulCommand, 8032, pData, ulLen, 1, 1); },
         ZV_SimRoute::OnLink, zvConfServerTypeCommand},
        {"on the data link", [&] { return lpFrom->SendPduOnLink(ulData, 8013, pData, ulLen, 1, 1); },
         ZV_SimRoute::OnLink, zvConfServerTypeData},
    };
    for (const Row& row : aRows)
    {
        SCOPED_TRACE(row.szName);
        size_t nMark = sim.Journal().Size();
        EXPECT_EQ(row.fnSend(), 0u);
        ASSERT_TRUE(sim.Run()) << sim.GetError();

        const ZV_SimFakeCall& call = FakeOf(lpTo).m_vecCalls.back();
        EXPECT_EQ(call.sWhat, "HandlePdu");
        EXPECT_EQ(call.vbData, kFields);
        EXPECT_EQ(call.usConnType, row.usConnType);
        const ZV_SimEntry& entry = sim.Journal().At(nMark);
        EXPECT_EQ(entry.eRoute, row.eRoute);
        EXPECT_EQ(entry.eFate, ZV_SimFate::Delivered);
        EXPECT_EQ(entry.sPeer, lpTo->GetName());
        EXPECT_EQ(entry.vbData, vbPayload);
    }
}

TEST(SimConference, DropsAServerPduWithoutAConferenceWordOrForAnUnknownConference)
{
    QB_TempFolder tmp;
    ZV_SimConference sim(ZV_SimFakeApi(), ZV_SimFakeOptions(tmp.Path()));
    ZV_SimShape shape = ZV_SimBuilder::TwoLinkedServers(sim, 100, 0);
    ASSERT_TRUE(shape.IsComplete()) << sim.GetError();

    struct Row
    {
        const char* szName;
        std::vector<uint8_t> vbPayload;
        ZV_SimFate eFate;
    };
    const Row aRows[] = {
        {"an empty payload", {}, ZV_SimFate::NoConfWord},
        {"one byte", {0x64}, ZV_SimFate::NoConfWord},
        {"the word of a conference the peer does not host", WithConfWord(101, kFields), ZV_SimFate::UnknownConf},
        {"the right word", WithConfWord(100, kFields), ZV_SimFate::Delivered},
    };
    for (const Row& row : aRows)
    {
        SCOPED_TRACE(row.szName);
        size_t nBefore = Received(shape.Server(1));
        size_t nMark = sim.Journal().Size();
        shape.Server(0)->SendPduToServers(zvConnNone, zvConfServerTypeCommand, 8001, row.vbPayload.data(),
                                          (uint32_t)row.vbPayload.size(), 1, 1);
        ASSERT_TRUE(sim.Run()) << sim.GetError();
        EXPECT_EQ(sim.Journal().At(nMark).eFate, row.eFate);
        EXPECT_EQ(Received(shape.Server(1)) - nBefore, row.eFate == ZV_SimFate::Delivered ? 1u : 0u);
    }
}

TEST(SimConference, FindsTheConferenceByItsWordWhenTwoConferencesShareAServerLink)
{
    QB_TempFolder tmp;
    ZV_SimConference sim(ZV_SimFakeApi(), ZV_SimFakeOptions(tmp.Path()));
    for (uint32_t ulConf : {100u, 200u})
        for (uint32_t ulServer : {1u, 2u})
            ASSERT_TRUE(sim.AddServer(ulConf, ulServer)) << sim.GetError();
    ASSERT_TRUE(sim.LinkServers(1, 2));
    ASSERT_TRUE(sim.Run());

    std::vector<uint8_t> vbTo200 = WithConfWord(200, kFields);
    sim.FindServer(100, 1)->SendPduToServers(zvConnNone, zvConfServerTypeCommand, 8001, vbTo200.data(),
                                             (uint32_t)vbTo200.size(), 1, 1);
    ASSERT_TRUE(sim.Run());

    EXPECT_EQ(Received(sim.FindServer(200, 2)), 1u);
    EXPECT_EQ(Received(sim.FindServer(100, 2)), 0u);
    // The link came up once for each conference, on both machines.
    for (uint32_t ulConf : {100u, 200u})
        for (uint32_t ulServer : {1u, 2u})
            EXPECT_EQ(FakeOf(sim.FindServer(ulConf, ulServer)).CallsOf("OnConnect").size(), 2u);
}

TEST(SimConference, RefusesASendItCannotCarryAndSaysSo)
{
    QB_TempFolder tmp;
    ZV_SimConference sim(ZV_SimFakeApi(), ZV_SimFakeOptions(tmp.Path()));
    ZV_SimShape shape = ZV_SimBuilder::TwoLinkedServers(sim, 100, 1);
    ASSERT_TRUE(shape.IsComplete()) << sim.GetError();
    ZV_SimHost* lpServer = shape.Server(0);
    ZV_SimHost* lpAlice = shape.Client(0);
    uint32_t ulAliceCommand = lpServer->GetUserConn(&lpAlice->GetUserID(), 0);
    std::vector<uint8_t> vbHuge(zvSimMaxPayload + 1);

    struct Row
    {
        const char* szName;
        std::function<uint32_t()> fnSend;
    };
    const Row aRows[] = {
        {"a connection nobody has", [&] { return lpServer->SendPdu(999999, 8002, kFields.data(), 3, 1, 1); }},
        {"a connection of another node", [&] { return lpServer->SendPdu(lpAlice->GetServerLink()->GetConn(0), 8002, kFields.data(), 3, 1, 1); }},
        {"a server route on a client link", [&] { return lpServer->SendPduOnLink(ulAliceCommand, 8032, kFields.data(), 3, 1, 1); }},
        {"a group send from a client", [&] { return lpAlice->SendPduToGroup(zvConnNone, 0, 8002, kFields.data(), 3, 1, 1); }},
        {"a server that is not linked", [&] { return lpServer->SendPduToServerData(7, zvConfServerTypeData, 8012, kFields.data(), 3, 1, 1); }},
        {"a kick on a command connection", [&] { return lpServer->SendPdu(ulAliceCommand, PDU_CONF_FS_KICK, nullptr, 0, 0, 0); }},
        {"a payload longer than a sender's buffer", [&] { return lpServer->SendPdu(ulAliceCommand, 8002, vbHuge.data(), (uint32_t)vbHuge.size(), 1, 1); }},
        {"a length without data", [&] { return lpServer->SendPdu(ulAliceCommand, 8002, nullptr, 4, 1, 1); }},
    };
    for (const Row& row : aRows)
    {
        SCOPED_TRACE(row.szName);
        size_t nMark = sim.Journal().Size();
        EXPECT_EQ(row.fnSend(), zvSimSendRefused);
        ASSERT_EQ(sim.Journal().Size(), nMark + 1);
        EXPECT_EQ(sim.Journal().At(nMark).eFate, ZV_SimFate::Refused);
        EXPECT_EQ(sim.GetPending(), 0u);
    }
}

TEST(SimConference, CopiesThePayloadBeforeTheSendReturns)
{
    QB_TempFolder tmp;
    ZV_SimConference sim(ZV_SimFakeApi(), ZV_SimFakeOptions(tmp.Path()));
    ZV_SimShape shape = ZV_SimBuilder::OneServerTwoClients(sim);
    ASSERT_TRUE(shape.IsComplete()) << sim.GetError();
    IZV_ConfLink* lpLink = shape.Client(0)->GetServerLink();

    std::vector<uint8_t> vbBuffer = kFields;
    shape.Client(0)->SendPdu(lpLink->GetConn(0), 8001, vbBuffer.data(), 3, 1, 1);
    vbBuffer.assign(3, 0);
    ASSERT_TRUE(sim.Run());

    EXPECT_EQ(FakeOf(shape.Server()).CallsOf("HandlePdu").at(0).vbData, kFields);
}
