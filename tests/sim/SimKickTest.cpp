// The kick: PDU 257 on a data connection is the module asking for OnSend
// calls, which go on while it sends and pause while the link is full.
#include "ZV_SimFakeModule.h"

#include <gtest/gtest.h>

namespace {

const uint8_t kBlock[] = {0x0B, 0x0C};

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

TEST(SimKick, CallsOnSendOfTheKickingNodeForThatConnectionInsteadOfDeliveringTheKick)
{
    ZV_SimFakeConference sim;
    ZV_SimShape shape = sim.TwoLinkedServers(1);
    ZV_SimHost* lpServer = shape.Server(0);
    ZV_SimHost* lpAlice = shape.Client(0);
    const struct
    {
        const char* szName;
        ZV_SimHost* lpKicker;
        ZV_SimHost* lpOther;
        uint32_t ulConn;
        uint16_t usConnType;
        QB_UserID idPeer;
    } aRows[] = {
        {"client data link, client end", lpAlice, lpServer, DataConn(lpAlice), 4, lpAlice->GetUserID()},
        {"client data link, server end", lpServer, lpAlice, lpServer->GetUserConn(&lpAlice->GetUserID(), 4), 4,
         lpAlice->GetUserID()},
        {"server data link", lpServer, shape.Server(1), lpServer->GetServerConn(2, zvConfServerTypeData, 0),
         zvConfServerTypeData, QB_UserID(2, 0)},
    };
    for (const auto& row : aRows)
    {
        SCOPED_TRACE(row.szName);
        size_t nArrived = FakeOf(row.lpOther).CallsOf("HandlePdu").size();
        size_t nMark = sim.Journal().Size();
        EXPECT_EQ(Kick(row.lpKicker, row.ulConn), 0u);
        ASSERT_TRUE(sim.Run());
        const ZV_SimFakeCall& call = FakeOf(row.lpKicker).m_vecCalls.back();
        EXPECT_EQ(call.sWhat, "OnSend");
        EXPECT_EQ(call.peer, row.idPeer);
        EXPECT_EQ(call.ulConn, row.ulConn);
        EXPECT_EQ(call.usConnType, row.usConnType);
        EXPECT_EQ(FakeOf(row.lpOther).CallsOf("HandlePdu").size(), nArrived);
        EXPECT_EQ(sim.Journal().At(nMark).eFate, ZV_SimFate::Kick);
    }
}

TEST(SimKick, KeepsCallingOnSendWhileTheModuleSendsOnThatConnectionAndRestsWhenItStops)
{
    const struct
    {
        const char* szName;
        std::vector<int> vecPlan;
        size_t nCalls;
    } aRows[] = {
        {"sends nothing", {}, 1},
        {"sends three blocks a call, three times", {3, 3, 3}, 4},
        {"sends one block, pauses a call, and would send again", {1, 0, 5}, 2},
        {"fills the link in one call", {20}, 2},
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
