// The server routes and their conference word, and the sends the host
// refuses.
#include "ZV_SimFakeModule.h"

#include <gtest/gtest.h>

namespace {

const std::vector<uint8_t> kFields = {0xAA, 0xBB, 0xCC};

// The bytes of a payload that starts with the conference word.
std::vector<uint8_t> WithConfWord(uint32_t ulConfID, std::vector<uint8_t> vbFields)
{
    vbFields.insert(vbFields.begin(), {(uint8_t)ulConfID, (uint8_t)(ulConfID >> 8)});
    return vbFields;
}

}  // namespace

// The word holds the low 16 bits of the conference id, so an id above 0xFFFF
// shows whether both ends agree on that. A send the host cannot carry is
// refused and journalled, and nothing goes.
TEST(SimConference, TakesTheConferenceWordOffEveryServerRouteAndRefusesASendItCannotCarry)
{
    const uint32_t ulConfID = 0x30064;
    ZV_SimFakeConference sim;
    ZV_SimShape shape = sim.TwoLinkedServers(1, ulConfID);
    ZV_SimHost *lpFrom = shape.Server(0), *lpAlice = shape.Client(0);
    const std::vector<uint8_t> vbPayload = WithConfWord(ulConfID, kFields), vbHuge(zvSimMaxPayload + 1);
    const uint8_t* pData = vbPayload.data();
    const uint32_t ulLen = (uint32_t)vbPayload.size(), ulData = lpFrom->GetServerConn(2, zvConfServerTypeData, 0);
    const uint32_t ulAlice = lpFrom->GetUserConn(&lpAlice->GetUserID(), 0);
    const auto Refused = ZV_SimRoute(-1);
    const struct { const char* szName; std::function<uint32_t()> fnSend; ZV_SimRoute eRoute; uint16_t usConnType;
    } aRows[] = {
        {"to servers", [&] { return lpFrom->SendPduToServers(zvConnNone, zvConfServerTypeCommand, 8001, pData, ulLen, 1, 1); },
         ZV_SimRoute::Servers, zvConfServerTypeCommand},
        {"to the server's data link", [&] { return lpFrom->SendPduToServerData(2, zvConfServerTypeData, 8012, pData, ulLen, 1, 1); },
         ZV_SimRoute::ServerData, zvConfServerTypeData},
        {"on the data link", [&] { return lpFrom->SendPduOnLink(ulData, 8013, pData, ulLen, 1, 1); },
         ZV_SimRoute::OnLink, zvConfServerTypeData},
        {"a connection nobody has", [&] { return lpFrom->SendPdu(999999, 8002, pData, 3, 1, 1); }, Refused, 0},
        {"a server route on a client link", [&] { return lpFrom->SendPduOnLink(ulAlice, 8032, pData, 3, 1, 1); }, Refused, 0},
        {"a group send from a client", [&] { return lpAlice->SendPduToGroup(zvConnNone, 0, 8002, pData, 3, 1, 1); }, Refused, 0},
        {"a server that is not linked", [&] { return lpFrom->SendPduToServerData(7, zvConfServerTypeData, 8012, pData, 3, 1, 1); },
         Refused, 0},
        {"a kick on a command connection", [&] { return lpFrom->SendPdu(ulAlice, PDU_CONF_FS_KICK, nullptr, 0, 0, 0); }, Refused, 0},
        {"a payload longer than a sender's buffer",
         [&] { return lpFrom->SendPdu(ulAlice, 8002, vbHuge.data(), (uint32_t)vbHuge.size(), 1, 1); }, Refused, 0},
    };
    for (const auto& row : aRows)
    {
        SCOPED_TRACE(row.szName);
        const size_t nMark = sim.Journal().Size();
        EXPECT_EQ(row.fnSend(), row.eRoute == Refused ? zvSimSendRefused : 0u);
        if (row.eRoute == Refused)
        {
            EXPECT_TRUE(sim.Journal().Size() == nMark + 1 && sim.Journal().At(nMark).eFate == ZV_SimFate::Refused && sim.GetPending() == 0);
            continue;
        }
        ASSERT_TRUE(sim.Run()) << sim.GetError();
        const ZV_SimFakeCall& call = FakeOf(shape.Server(1)).m_vecCalls.back();
        EXPECT_EQ(call.sWhat + " " + QB_ToHex(call.vbData), "HandlePdu " + QB_ToHex(kFields));
        EXPECT_EQ(call.usConnType, row.usConnType);
        EXPECT_EQ(sim.Journal().At(nMark).eRoute, row.eRoute);
        EXPECT_EQ(sim.Journal().At(nMark).vbData, vbPayload);
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
    // ulReceivingConf 0: nobody
    const struct { const char* szName; std::vector<uint8_t> vbPayload; ZV_SimFate eFate; uint32_t ulReceivingConf;
    } aRows[] = {
        {"one byte", {0x64}, ZV_SimFate::NoConfWord, 0},
        {"a conference the peer does not host", WithConfWord(101, kFields), ZV_SimFate::UnknownConf, 0},
        {"its own conference", WithConfWord(100, kFields), ZV_SimFate::Delivered, 100},
        {"the other conference", WithConfWord(200, kFields), ZV_SimFate::Delivered, 200},
    };
    for (const auto& row : aRows)
    {
        SCOPED_TRACE(row.szName);
        auto Received = [&](uint32_t ulConf) { return FakeOf(sim.FindServer(ulConf, 2)).CallsOf("HandlePdu").size(); };
        const size_t anBefore[2] = {Received(100), Received(200)}, nMark = sim.Journal().Size();
        sim.FindServer(100, 1)->SendPduToServers(zvConnNone, zvConfServerTypeCommand, 8001, row.vbPayload.data(),
                                                 (uint32_t)row.vbPayload.size(), 1, 1);
        ASSERT_TRUE(sim.Run()) << sim.GetError();
        EXPECT_EQ(sim.Journal().At(nMark).eFate, row.eFate);
        EXPECT_EQ(Received(100) - anBefore[0], row.ulReceivingConf == 100 ? 1u : 0u);
        EXPECT_EQ(Received(200) - anBefore[1], row.ulReceivingConf == 200 ? 1u : 0u);
    }
}
