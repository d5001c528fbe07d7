// Links: the kick (PDU 257 on a data connection asks for OnSend calls while
// the module sends and the link has room) and connections that drop and come back.
#include "ZV_SimFakeModule.h"

#include <gtest/gtest.h>

namespace {

const uint8_t kBlock[] = {0x0B, 0x0C};
constexpr int kKickOnly = -1;

// Each OnSend call sends the next count of blocks on its connection, or only
// kicks it again; past the end of the plan it sends nothing.
void SendByPlan(ZV_SimFakeModule& fake, std::vector<int> vecPlan)
{
    fake.fnOnSend = [vecPlan, nCall = size_t(0)](ZV_SimFakeModule& self, const ConfPduData& cpd) mutable {
        const int nBlocks = nCall < vecPlan.size() ? vecPlan[nCall++] : 0;
        if (nBlocks == kKickOnly)
            self.m_lpConf->SendPdu(cpd.ulConn, PDU_CONF_FS_KICK, nullptr, 0, 0, 0);
        for (int i = 0; i < nBlocks; ++i)
            self.m_lpConf->SendPdu(cpd.ulConn, 8005, kBlock, sizeof kBlock, 1, 1);
    };
}

void Kick(ZV_SimHost* lpClient)
{
    lpClient->SendPdu(lpClient->GetServerLink()->GetConn(zvConfClientTypeData), PDU_CONF_FS_KICK, nullptr, 0, 0, 0);
}

}  // namespace

TEST(SimKick, KeepsCallingOnSendWhileTheModuleSendsOnThatConnectionAndRestsWhenItStops)
{
    // Sending and resting at a call that sends nothing: the bound's test.
    // A call that only kicks its link again goes on as one that sends.
    ZV_SimFakeConference sim;
    ZV_SimHost* lpAlice = sim.OneServerTwoClients().Client(0);
    SendByPlan(FakeOf(lpAlice), {kKickOnly, kKickOnly});
    Kick(lpAlice);
    ASSERT_TRUE(sim.Run()) << sim.GetError();
    EXPECT_EQ(FakeOf(lpAlice).CallsOf("OnSend").size(), 3u);
    // A call that sends only on the command connection rests the data link;
    // the next kicks, however many, wake it for one call.
    FakeOf(lpAlice).fnOnSend = [](ZV_SimFakeModule& self, const ConfPduData&) {
        self.m_lpConf->SendPdu(self.m_lpConf->GetServerLink()->GetConn(0), 8012, kBlock, sizeof kBlock, 1, 1);
    };
    Kick(lpAlice);
    ASSERT_TRUE(sim.Run());
    Kick(lpAlice), Kick(lpAlice);
    ASSERT_TRUE(sim.Run());
    EXPECT_EQ(FakeOf(lpAlice).CallsOf("OnSend").size(), 5u);
}

// With a bound of 8, a call that sends 10 leaves the link full; OnSend comes
// back only once deliveries take it below the bound. A cut forgets what the
// link had in flight.
TEST(SimKick, HoldsOnSendBackUntilDeliveriesTakeTheLinkBelowTheBoundAndForgetsTheLostAtACut)
{
    ZV_SimFakeConference sim([](ZV_SimOptions& options) { options.nInFlightBound = 8; });
    ZV_SimShape shape = sim.OneServerTwoClients();
    ASSERT_TRUE(sim.Run());
    ZV_SimHost* lpAlice = shape.Client(0);
    SendByPlan(FakeOf(lpAlice), {10, 1, 0, 10, 10});
    Kick(lpAlice);
    std::vector<size_t> vecPending;
    for (int i = 0; i < 4; ++i)
        sim.Step(), vecPending.push_back(sim.GetPending());
    EXPECT_EQ(vecPending, (std::vector<size_t>{10, 9, 8, 8})) << "OnSend again only below the bound";
    ASSERT_TRUE(sim.Run());
    EXPECT_EQ(FakeOf(lpAlice).CallsOf("OnSend").size(), 3u);
    EXPECT_EQ(FakeOf(shape.Server()).CallsOf("HandlePdu").size(), 11u);

    Kick(lpAlice), sim.Step();
    sim.Cut(sim.GetClientLink(lpAlice), zvConfClientTypeData), sim.Restore(sim.GetClientLink(lpAlice), zvConfClientTypeData);
    Kick(lpAlice);
    ASSERT_TRUE(sim.Run());
    EXPECT_EQ(FakeOf(lpAlice).CallsOf("OnSend").size(), 6u) << "the lost ten don't hold the new link back";
    EXPECT_EQ(FakeOf(shape.Server()).CallsOf("HandlePdu").size(), 21u);
}

// Both ends hear of it and number the connection anew; a server link that
// comes back is also a host event on both servers.
TEST(SimConference, CallsOnDisconnectAndOnConnectOnBothEndsWhenAConnectionDropsAndComesBack)
{
    ZV_SimFakeConference sim;
    ZV_SimShape shape = sim.TwoLinkedServers(1);
    ZV_SimLink* lpAliceLink = sim.GetClientLink(shape.Client(0));
    const size_t nMark = sim.Journal().Size();
    ASSERT_TRUE(sim.Cut(lpAliceLink, zvConfClientTypeData));
    EXPECT_FALSE(sim.Cut(lpAliceLink, zvConfClientTypeData)) << "a connection that is down can't drop";
    ASSERT_TRUE(sim.Restore(lpAliceLink, zvConfClientTypeData));
    ASSERT_TRUE(sim.Cut(sim.GetServerLink(1, 2), zvConfServerTypeCommand));
    ASSERT_TRUE(sim.Restore(sim.GetServerLink(1, 2), zvConfServerTypeCommand));
    EXPECT_EQ(sim.Journal().Dump(nMark),
              JournalLines(nMark, "call ",
                           {"OnDisconnect usr10001@100 peer srv1 conn 3002/4", "OnDisconnect srv1@100 peer usr10001 conn 1004/4",
                            "OnConnect usr10001@100 peer srv1 conn 3003/4", "OnConnect srv1@100 peer usr10001 conn 1005/4",
                            "OnDisconnect srv1@100 peer srv2 conn 1001/4096", "OnDisconnect srv2@100 peer srv1 conn 2001/4096",
                            "OnConnect srv1@100 peer srv2 conn 1006/4096", "OnConnect srv2@100 peer srv1 conn 2005/4096",
                            "OnEvent 11 srv1@100 a1 0 a2 1006", "OnEvent 11 srv2@100 a1 0 a2 2005"}));
    EXPECT_EQ(FakeOf(shape.Client(0)).CallsOf("OnConnect").back().peer, QB_UserID(1, 0)) << "a server by its number";
}
