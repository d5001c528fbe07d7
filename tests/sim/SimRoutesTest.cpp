// The send routes of the host: who receives, what they see, and what the
// host refuses or drops.
#include "ZV_SimFakeModule.h"

#include <gtest/gtest.h>

namespace {

const std::vector<uint8_t> kFields = {0xAA, 0xBB, 0xCC};

size_t Received(const ZV_SimHost* lpNode)
{
    return FakeOf(lpNode).CallsOf("HandlePdu").size();
}

}  // namespace

// The sender's buffer is overwritten right after each send: the host must
// have taken its copy by then.
TEST(SimConference, DeliversAGroupSendToEveryClientButTheSkippedOne)
{
    ZV_SimFakeConference sim;
    ZV_SimShape shape = sim.OneServerTwoClients();
    ZV_SimHost* lpServer = shape.Server();
    const struct
    {
        const char* szName;
        int nSkip;  // the client whose command connection is skipped, -1 none
        size_t anReached[2];
    } aRows[] = {{"skips nobody", -1, {1, 1}}, {"skips Alice", 0, {0, 1}}, {"skips Bob", 1, {1, 0}}};
    for (const auto& row : aRows)
    {
        SCOPED_TRACE(row.szName);
        size_t anBefore[2] = {Received(shape.Client(0)), Received(shape.Client(1))};
        uint32_t ulSkip = row.nSkip < 0 ? zvConnNone : lpServer->GetUserConn(&shape.Client(row.nSkip)->GetUserID(), 0);
        std::vector<uint8_t> vbBuffer = kFields;
        EXPECT_EQ(lpServer->SendPduToGroup(ulSkip, 0, 8002, vbBuffer.data(), 3, 1, 1), 0u);
        vbBuffer.assign(3, 0);
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
    ZV_SimFakeConference sim;
    for (uint32_t ulServer : {1u, 2u, 3u})
        sim.AddServer(100, ulServer);
    sim.LinkServers(1, 2);
    sim.LinkServers(1, 3);
    ZV_SimHost* lpOrigin = sim.FindServer(100, 1);
    std::vector<uint8_t> vbPayload = WithConfWord(100, kFields);
    for (uint32_t ulSkipServer : {0u, 2u, 3u})
    {
        SCOPED_TRACE(ulSkipServer);
        size_t anBefore[2] = {Received(sim.FindServer(100, 2)), Received(sim.FindServer(100, 3))};
        uint32_t ulSkip = ulSkipServer ? lpOrigin->GetServerConn(ulSkipServer, zvConfServerTypeCommand, 0) : zvConnNone;
        EXPECT_EQ(lpOrigin->SendPduToServers(ulSkip, zvConfServerTypeCommand, 8001, vbPayload.data(),
                                             (uint32_t)vbPayload.size(), 1, 1),
                  0u);
        ASSERT_TRUE(sim.Run()) << sim.GetError();
        for (uint32_t ulServer : {2u, 3u})
            EXPECT_EQ(Received(sim.FindServer(100, ulServer)) - anBefore[ulServer - 2], ulServer == ulSkipServer ? 0u : 1u);
    }
}

// The word holds the low 16 bits of the conference id, so an id above 0xFFFF
// shows whether both ends agree on that.
TEST(SimConference, TakesTheConferenceWordOffEveryServerRouteBeforeTheReceiverSeesThePayload)
{
    const uint32_t ulConfID = 0x30064;
    ZV_SimFakeConference sim;
    ZV_SimShape shape = sim.TwoLinkedServers(0, ulConfID);
    ZV_SimHost* lpFrom = shape.Server(0);
    ZV_SimHost* lpTo = shape.Server(1);
    std::vector<uint8_t> vbPayload = WithConfWord(ulConfID, kFields);
    const uint8_t* pData = vbPayload.data();
    uint32_t ulLen = (uint32_t)vbPayload.size();
    uint32_t ulCommand = lpFrom->GetServerConn(2, zvConfServerTypeCommand, 0);
    uint32_t ulData = lpFrom->GetServerConn(2, zvConfServerTypeData, 0);
    const struct
    {
        const char* szName;
        std::function<uint32_t()> fnSend;
        ZV_SimRoute eRoute;
        uint16_t usConnType;
    } aRows[] = {
        {"to servers", [&] { return lpFrom->SendPduToServers(zvConnNone, zvConfServerTypeCommand, 8001, pData, ulLen, 1, 1); },
         ZV_SimRoute::Servers, zvConfServerTypeCommand},
        {"to the server's data link", [&] { return lpFrom->SendPduToServerData(2, zvConfServerTypeData, 8012, pData, ulLen, 1, 1); },
         ZV_SimRoute::ServerData, zvConfServerTypeData},
        {"on the command link", [&] { return lpFrom->SendPduOnLink(ulCommand, 8032, pData, ulLen, 1, 1); },
         ZV_SimRoute::OnLink, zvConfServerTypeCommand},
        {"on the data link", [&] { return lpFrom->SendPduOnLink(ulData, 8013, pData, ulLen, 1, 1); },
         ZV_SimRoute::OnLink, zvConfServerTypeData},
    };
    for (const auto& row : aRows)
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

// Conferences 100 and 200 share the link between machines 1 and 2; the word
// alone says which node of machine 2 gets the PDU.
TEST(SimConference, RoutesAServerPduByItsConferenceWordAndDropsOneWithoutAKnownWord)
{
    ZV_SimFakeConference sim;
    for (uint32_t ulConf : {100u, 200u})
        for (uint32_t ulServer : {1u, 2u})
            ASSERT_TRUE(sim.AddServer(ulConf, ulServer)) << sim.GetError();
    ASSERT_TRUE(sim.LinkServers(1, 2));
    ASSERT_TRUE(sim.Run());
    const struct
    {
        const char* szName;
        std::vector<uint8_t> vbPayload;
        ZV_SimFate eFate;
        uint32_t ulReceivingConf;  // 0: nobody
    } aRows[] = {
        {"an empty payload", {}, ZV_SimFate::NoConfWord, 0},
        {"one byte", {0x64}, ZV_SimFate::NoConfWord, 0},
        {"a conference the peer does not host", WithConfWord(101, kFields), ZV_SimFate::UnknownConf, 0},
        {"its own conference", WithConfWord(100, kFields), ZV_SimFate::Delivered, 100},
        {"the other conference", WithConfWord(200, kFields), ZV_SimFate::Delivered, 200},
    };
    for (const auto& row : aRows)
    {
        SCOPED_TRACE(row.szName);
        size_t anBefore[2] = {Received(sim.FindServer(100, 2)), Received(sim.FindServer(200, 2))};
        size_t nMark = sim.Journal().Size();
        sim.FindServer(100, 1)->SendPduToServers(zvConnNone, zvConfServerTypeCommand, 8001, row.vbPayload.data(),
                                                 (uint32_t)row.vbPayload.size(), 1, 1);
        ASSERT_TRUE(sim.Run()) << sim.GetError();
        EXPECT_EQ(sim.Journal().At(nMark).eFate, row.eFate);
        EXPECT_EQ(Received(sim.FindServer(100, 2)) - anBefore[0], row.ulReceivingConf == 100 ? 1u : 0u);
        EXPECT_EQ(Received(sim.FindServer(200, 2)) - anBefore[1], row.ulReceivingConf == 200 ? 1u : 0u);
    }
    // The link came up once for each conference, on both machines.
    for (uint32_t ulConf : {100u, 200u})
        for (uint32_t ulServer : {1u, 2u})
            EXPECT_EQ(FakeOf(sim.FindServer(ulConf, ulServer)).CallsOf("OnConnect").size(), 2u);
}

TEST(SimConference, RefusesASendItCannotCarryAndSaysSo)
{
    ZV_SimFakeConference sim;
    ZV_SimShape shape = sim.TwoLinkedServers(1);
    ZV_SimHost* lpServer = shape.Server(0);
    ZV_SimHost* lpAlice = shape.Client(0);
    uint32_t ulAlice = lpServer->GetUserConn(&lpAlice->GetUserID(), 0);
    const uint8_t* pData = kFields.data();
    std::vector<uint8_t> vbHuge(zvSimMaxPayload + 1);
    const std::pair<const char*, std::function<uint32_t()>> aRows[] = {
        {"a connection nobody has", [&] { return lpServer->SendPdu(999999, 8002, pData, 3, 1, 1); }},
        {"a connection of another node", [&] { return lpServer->SendPdu(lpAlice->GetServerLink()->GetConn(0), 8002, pData, 3, 1, 1); }},
        {"a server route on a client link", [&] { return lpServer->SendPduOnLink(ulAlice, 8032, pData, 3, 1, 1); }},
        {"a group send from a client", [&] { return lpAlice->SendPduToGroup(zvConnNone, 0, 8002, pData, 3, 1, 1); }},
        {"a server that is not linked", [&] { return lpServer->SendPduToServerData(7, zvConfServerTypeData, 8012, pData, 3, 1, 1); }},
        {"a kick on a command connection", [&] { return lpServer->SendPdu(ulAlice, PDU_CONF_FS_KICK, nullptr, 0, 0, 0); }},
        {"a payload longer than a sender's buffer", [&] { return lpServer->SendPdu(ulAlice, 8002, vbHuge.data(), (uint32_t)vbHuge.size(), 1, 1); }},
        {"a length without data", [&] { return lpServer->SendPdu(ulAlice, 8002, nullptr, 4, 1, 1); }},
    };
    for (const auto& [szName, fnSend] : aRows)
    {
        SCOPED_TRACE(szName);
        size_t nMark = sim.Journal().Size();
        EXPECT_EQ(fnSend(), zvSimSendRefused);
        ASSERT_EQ(sim.Journal().Size(), nMark + 1);
        EXPECT_EQ(sim.Journal().At(nMark).eFate, ZV_SimFate::Refused);
        EXPECT_EQ(sim.GetPending(), 0u);
    }
}
