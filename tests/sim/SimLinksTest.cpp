// Connections as each end numbers them, the peers that each end is told of,
// and links that drop and come back.
#include "ZV_SimFakeModule.h"

#include <gtest/gtest.h>

namespace {

const std::vector<uint8_t> kFields = {1, 2, 3};

// A PDU on a client link is named by its client at both ends, one on a
// server link by the other server.
QB_UserID PeerAsSeenBy(ZV_SimHost* lpEnd, ZV_SimHost* lpOther)
{
    ZV_SimHost* lpClient = !lpEnd->IsServer() ? lpEnd : lpOther;
    return lpClient->IsServer() ? QB_UserID(lpOther->GetLocalServerID(), 0) : lpClient->GetUserID();
}

// Sends from one end of a link and checks what the other end is handed;
// gives the connection the receiver saw, for the answer.
uint32_t ExpectArrival(ZV_SimConference& sim, ZV_SimHost* lpFrom, uint32_t ulFromConn, ZV_SimHost* lpTo,
                       uint16_t usConnType, uint32_t ulToConn)
{
    EXPECT_EQ(lpFrom->SendPdu(ulFromConn, 8001, kFields.data(), 3, 1, 1), 0u);
    EXPECT_TRUE(sim.Run());
    ZV_SimFakeCall call = FakeOf(lpTo).CallsOf("HandlePdu").back();
    EXPECT_EQ(call.peer, PeerAsSeenBy(lpTo, lpFrom));
    EXPECT_EQ(call.ulConn, ulToConn);
    EXPECT_EQ(call.usConnType, usConnType);
    EXPECT_NE(ulToConn, ulFromConn) << "each end numbers a connection itself";
    return call.ulConn;
}

}  // namespace

TEST(SimConference, NamesThePeerAndTheReceiversOwnConnectionOnBothEndsOfEveryConnection)
{
    ZV_SimFakeConference sim;
    ZV_SimShape shape = sim.TwoLinkedServers(1);
    ZV_SimHost* lpServer1 = shape.Server(0);
    ZV_SimHost* lpServer2 = shape.Server(1);
    ZV_SimHost* lpAlice = shape.Client(0);
    for (uint16_t usType : {zvConfClientTypeCommand, zvConfClientTypeData})
    {
        SCOPED_TRACE(usType);
        uint32_t ulClientConn = lpAlice->GetServerLink()->GetConn(usType);
        uint32_t ulServerConn = lpServer1->GetUserConn(&lpAlice->GetUserID(), usType);
        uint32_t ulSeen = ExpectArrival(sim, lpAlice, ulClientConn, lpServer1, usType, ulServerConn);
        ExpectArrival(sim, lpServer1, ulSeen, lpAlice, usType, ulClientConn);
    }
    for (uint16_t usType : {zvConfServerTypeCommand, zvConfServerTypeData})
    {
        SCOPED_TRACE(usType);
        uint32_t ulConn1 = lpServer1->GetServerConn(2, usType, 0);
        uint32_t ulConn2 = lpServer2->GetServerConn(1, usType, 0);
        uint32_t ulSeen = ExpectArrival(sim, lpServer1, ulConn1, lpServer2, usType, ulConn2);
        ExpectArrival(sim, lpServer2, ulSeen, lpServer1, usType, ulConn1);
    }
}

TEST(SimConference, CallsOnDisconnectAndOnConnectOnBothEndsWhenAConnectionDropsAndComesBack)
{
    ZV_SimFakeConference sim;
    ZV_SimShape shape = sim.TwoLinkedServers(1);
    ZV_SimHost* lpAlice = shape.Client(0);
    const struct
    {
        ZV_SimLink* lpLink;
        uint16_t usConnType;
        ZV_SimHost* alpEnds[2];
    } aRows[] = {
        {sim.GetClientLink(lpAlice), zvConfClientTypeData, {lpAlice, shape.Server(0)}},
        {sim.GetClientLink(lpAlice), zvConfClientTypeCommand, {lpAlice, shape.Server(0)}},
        {sim.GetServerLink(1, 2), zvConfServerTypeData, {shape.Server(0), shape.Server(1)}},
        {sim.GetServerLink(1, 2), zvConfServerTypeCommand, {shape.Server(0), shape.Server(1)}},
    };
    for (const auto& row : aRows)
    {
        SCOPED_TRACE(row.usConnType);
        uint32_t aulOld[2];
        for (int nSide = 0; nSide < 2; ++nSide)
            aulOld[nSide] = row.lpLink->GetConn(nSide, row.lpLink->ChannelOf(row.usConnType));
        ASSERT_TRUE(sim.Cut(row.lpLink, row.usConnType));
        EXPECT_FALSE(sim.Cut(row.lpLink, row.usConnType)) << "a connection that is down can't drop";
        ASSERT_TRUE(sim.Restore(row.lpLink, row.usConnType));
        for (int nSide = 0; nSide < 2; ++nSide)
        {
            ZV_SimHost* lpEnd = row.alpEnds[nSide];
            // A link change names the other end, a server by its number.
            ZV_SimHost* lpOther = row.alpEnds[1 - nSide];
            QB_UserID idPeer = lpOther->IsServer() ? QB_UserID(lpOther->GetLocalServerID(), 0) : lpOther->GetUserID();
            ZV_SimFakeCall down = FakeOf(lpEnd).CallsOf("OnDisconnect").back();
            ZV_SimFakeCall up = FakeOf(lpEnd).CallsOf("OnConnect").back();
            EXPECT_EQ(down.peer, idPeer);
            EXPECT_EQ(down.usConnType, row.usConnType);
            EXPECT_EQ(down.ulConn, aulOld[nSide]);
            EXPECT_EQ(up.peer, idPeer);
            EXPECT_EQ(up.usConnType, row.usConnType);
            EXPECT_NE(up.ulConn, aulOld[nSide]) << "a connection that comes back has a new number";
        }
    }
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
