// Links: the kick (PDU 257 on a data connection is the module asking for
// OnSend calls, which go on while it sends and pause while the link is full)
// and connections that drop and come back.
#include "ZV_SimFakeModule.h"

#include <gtest/gtest.h>

namespace {

const uint8_t kBlock[] = {0x0B, 0x0C};
const std::vector<uint8_t> kFields = {1, 2, 3};

constexpr int kKickOnly = -1;

// Each OnSend call sends the next count of blocks on the connection it is
// for, or only kicks it again; past the end of the plan it sends nothing.
void SendByPlan(ZV_SimFakeModule& fake, std::vector<int> vecPlan)
{
    fake.fnOnSend = [vecPlan, nCall = size_t(0)](ZV_SimFakeModule& self, const ConfPduData& cpd) mutable {
        int nBlocks = nCall < vecPlan.size() ? vecPlan[nCall] : 0;
        ++nCall;
        if (nBlocks == kKickOnly)
            self.m_lpConf->SendPdu(cpd.ulConn, PDU_CONF_FS_KICK, nullptr, 0, 0, 0);
        for (int i = 0; i < nBlocks; ++i)
            self.m_lpConf->SendPdu(cpd.ulConn, 8005, kBlock, sizeof kBlock, 1, 1);
    };
}

uint32_t Kick(ZV_SimHost* lpNode, uint32_t ulConn)
{
    return lpNode->SendPdu(ulConn, PDU_CONF_FS_KICK, nullptr, 0, 0, 0);
}

uint32_t DataConn(ZV_SimHost* lpClient)
{
    return lpClient->GetServerLink()->GetConn(zvConfClientTypeData);
}

}  // namespace

TEST(SimKick, KeepsCallingOnSendWhileTheModuleSendsOnThatConnectionAndRestsWhenItStops)
{
    const struct
    {
        const char* szName;
        std::vector<int> vecPlan;
        size_t nCalls;
    } aRows[] = {
        {"sends three blocks a call, three times", {3, 3, 3}, 4},
        {"sends one block, pauses a call, and would send again", {1, 0, 5}, 2},
        {"only kicks its link again, twice", {kKickOnly, kKickOnly}, 3},
    };
    for (const auto& row : aRows)
    {
        SCOPED_TRACE(row.szName);
        ZV_SimFakeConference sim;
        ZV_SimHost* lpAlice = sim.OneServerTwoClients().Client(0);
        SendByPlan(FakeOf(lpAlice), row.vecPlan);
        Kick(lpAlice, DataConn(lpAlice));
        ASSERT_TRUE(sim.Run()) << sim.GetError();
        EXPECT_EQ(FakeOf(lpAlice).CallsOf("OnSend").size(), row.nCalls);
    }
}

// A call that only sends on the command connection leaves the data link
// resting; the next kicks, however many, wake it for one call.
TEST(SimKick, WakesARestingLinkOnceAtTheNextKicks)
{
    ZV_SimFakeConference sim;
    ZV_SimHost* lpAlice = sim.OneServerTwoClients().Client(0);
    FakeOf(lpAlice).fnOnSend = [](ZV_SimFakeModule& self, const ConfPduData&) {
        self.m_lpConf->SendPdu(self.m_lpConf->GetServerLink()->GetConn(0), 8012, kBlock, sizeof kBlock, 1, 1);
    };
    Kick(lpAlice, DataConn(lpAlice));
    ASSERT_TRUE(sim.Run());
    ASSERT_EQ(FakeOf(lpAlice).CallsOf("OnSend").size(), 1u);
    Kick(lpAlice, DataConn(lpAlice));
    Kick(lpAlice, DataConn(lpAlice));
    ASSERT_TRUE(sim.Run());
    EXPECT_EQ(FakeOf(lpAlice).CallsOf("OnSend").size(), 2u);
}

// With a bound of 8, a call that sends 10 leaves the link full; OnSend comes
// back only once three deliveries have taken it below the bound. A cut
// forgets what the link had in flight, so the next ten go out at once.
TEST(SimKick, HoldsOnSendBackUntilDeliveriesTakeTheLinkBelowTheBoundAndForgetsTheLostAtACut)
{
    ZV_SimFakeConference sim([](ZV_SimOptions& options) { options.nInFlightBound = 8; });
    ZV_SimShape shape = sim.OneServerTwoClients();
    ASSERT_TRUE(sim.Run());
    ZV_SimHost* lpAlice = shape.Client(0);
    SendByPlan(FakeOf(lpAlice), {10, 1, 0, 10, 10});

    Kick(lpAlice, DataConn(lpAlice));
    ASSERT_EQ(sim.GetPending(), 1u);
    sim.Step();
    EXPECT_EQ(sim.GetPending(), 10u) << "ten blocks and no OnSend";
    sim.Step();
    sim.Step();
    EXPECT_EQ(sim.GetPending(), 8u) << "nine in flight is still too many";
    sim.Step();
    EXPECT_EQ(sim.GetPending(), 8u) << "seven blocks and the OnSend call";
    ASSERT_TRUE(sim.Run());
    EXPECT_EQ(FakeOf(lpAlice).CallsOf("OnSend").size(), 3u);
    EXPECT_EQ(FakeOf(shape.Server()).CallsOf("HandlePdu").size(), 11u);

    Kick(lpAlice, DataConn(lpAlice));
    sim.Step();
    sim.Cut(sim.GetClientLink(lpAlice), zvConfClientTypeData);
    sim.Restore(sim.GetClientLink(lpAlice), zvConfClientTypeData);
    Kick(lpAlice, DataConn(lpAlice));
    ASSERT_TRUE(sim.Run());
    EXPECT_EQ(FakeOf(lpAlice).CallsOf("OnSend").size(), 6u) << "the lost ten don't hold the new link back";
    EXPECT_EQ(FakeOf(shape.Server()).CallsOf("HandlePdu").size(), 21u);
}

// Both ends hear of it and number the connection anew; a server link that
// comes back is also a host event on both servers, once both its ends stand.
TEST(SimConference, CallsOnDisconnectAndOnConnectOnBothEndsWhenAConnectionDropsAndComesBack)
{
    ZV_SimFakeConference sim;
    ZV_SimShape shape = sim.TwoLinkedServers(1);
    ZV_SimLink* lpAliceLink = sim.GetClientLink(shape.Client(0));
    size_t nMark = sim.Journal().Size();
    ASSERT_TRUE(sim.Cut(lpAliceLink, zvConfClientTypeData));
    EXPECT_FALSE(sim.Cut(lpAliceLink, zvConfClientTypeData)) << "a connection that is down can't drop";
    ASSERT_TRUE(sim.Restore(lpAliceLink, zvConfClientTypeData));
    ASSERT_TRUE(sim.Cut(sim.GetServerLink(1, 2), zvConfServerTypeCommand));
    ASSERT_TRUE(sim.Restore(sim.GetServerLink(1, 2), zvConfServerTypeCommand));

    auto Line = [nMark](size_t n, const std::string& sText) {
        return std::to_string(nMark + n) + " t=1000000 call " + sText + "\n";
    };
    EXPECT_EQ(sim.Journal().Dump(nMark), Line(0, "OnDisconnect usr10001@100 peer srv1 conn 3002/4") +
                                             Line(1, "OnDisconnect srv1@100 peer usr10001 conn 1004/4") +
                                             Line(2, "OnConnect usr10001@100 peer srv1 conn 3003/4") +
                                             Line(3, "OnConnect srv1@100 peer usr10001 conn 1005/4") +
                                             Line(4, "OnDisconnect srv1@100 peer srv2 conn 1001/4096") +
                                             Line(5, "OnDisconnect srv2@100 peer srv1 conn 2001/4096") +
                                             Line(6, "OnConnect srv1@100 peer srv2 conn 1006/4096") +
                                             Line(7, "OnConnect srv2@100 peer srv1 conn 2005/4096") +
                                             Line(8, "OnEvent 11 srv1@100 a1 0 a2 1006") +
                                             Line(9, "OnEvent 11 srv2@100 a1 0 a2 2005"));
    // The module hears of a server by its number.
    EXPECT_EQ(FakeOf(shape.Client(0)).CallsOf("OnConnect").back().peer, QB_UserID(1, 0));
    EXPECT_EQ(FakeOf(shape.Server(1)).CallsOf("OnConnect").back().peer, QB_UserID(1, 0));
}

TEST(SimConference, LosesWhatACutConnectionCarriedAndNothingElse)
{
    ZV_SimFakeConference sim;
    ZV_SimShape shape = sim.OneServerTwoClients();
    ASSERT_TRUE(sim.Run());
    ZV_SimHost* lpAlice = shape.Client(0);
    IZV_ConfLink* lpLink = lpAlice->GetServerLink();
    size_t nMark = sim.Journal().Size();
    lpAlice->SendPdu(lpLink->GetConn(zvConfClientTypeCommand), 8001, kFields.data(), 3, 1, 1);
    lpAlice->SendPdu(lpLink->GetConn(zvConfClientTypeData), 8005, kFields.data(), 3, 1, 1);
    lpAlice->SendPdu(lpLink->GetConn(zvConfClientTypeCommand), 8014, kFields.data(), 3, 1, 1);
    sim.Cut(sim.GetClientLink(lpAlice), zvConfClientTypeCommand);
    ASSERT_TRUE(sim.Run());

    EXPECT_EQ(sim.Journal().At(nMark).eFate, ZV_SimFate::Lost);
    EXPECT_EQ(sim.Journal().At(nMark + 1).eFate, ZV_SimFate::Delivered);
    EXPECT_EQ(sim.Journal().At(nMark + 2).eFate, ZV_SimFate::Lost);
    std::vector<ZV_SimFakeCall> vecArrived = FakeOf(shape.Server()).CallsOf("HandlePdu");
    ASSERT_EQ(vecArrived.size(), 1u);
    EXPECT_EQ(vecArrived[0].usNumber, 8005);
}

// A client link is named by its client at both ends, a server link by the
// server at the other end.
TEST(SimConference, NamesTheClientOnBothEndsOfAClientLinkAndThePeerOnAServerLink)
{
    ZV_SimFakeConference sim;
    ZV_SimShape shape = sim.TwoLinkedServers(1);
    ZV_SimHost* lpServer = shape.Server(0);
    ZV_SimHost* lpAlice = shape.Client(0);
    const QB_UserID& idAlice = lpAlice->GetUserID();
    const struct
    {
        ZV_SimHost* lpFrom;
        uint32_t ulConn;
        ZV_SimHost* lpTo;
        QB_UserID idNamed;
    } aRows[] = {
        {lpAlice, lpAlice->GetServerLink()->GetConn(zvConfClientTypeCommand), lpServer, idAlice},
        {lpServer, lpServer->GetUserConn(&idAlice, zvConfClientTypeData), lpAlice, idAlice},
        {lpServer, lpServer->GetServerConn(2, zvConfServerTypeCommand, 0), shape.Server(1), QB_UserID(1, 0)},
    };
    for (const auto& row : aRows)
    {
        EXPECT_EQ(row.lpFrom->SendPdu(row.ulConn, 8001, kFields.data(), 3, 1, 1), 0u);
        ASSERT_TRUE(sim.Run()) << sim.GetError();
        EXPECT_EQ(FakeOf(row.lpTo).CallsOf("HandlePdu").back().peer, row.idNamed) << row.lpTo->GetName();
    }
    Kick(lpAlice, DataConn(lpAlice));
    ASSERT_TRUE(sim.Run()) << sim.GetError();
    EXPECT_EQ(FakeOf(lpAlice).CallsOf("OnSend").back().peer, idAlice);
}
