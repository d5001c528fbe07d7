// Flood bookkeeping, the user table, and the host events that come with
// users and links.
#include "QB_TestSupport.h"
#include "ZV_SimBuilder.h"
#include "ZV_SimFakeModule.h"

#include <gtest/gtest.h>

#include <set>

TEST(SimFlood, AnswersFalseOnlyTheFirstTimeAServerIsAskedAboutAnOriginAndSequence)
{
    QB_TempFolder tmp;
    ZV_SimConference sim(ZV_SimFakeApi(), ZV_SimFakeOptions(tmp.Path()));
    ZV_SimShape shape = ZV_SimBuilder::TwoLinkedServers(sim, 100, 0);
    ASSERT_TRUE(shape.IsComplete()) << sim.GetError();
    const QB_UserID idAlice(10001, 0), idBob(10002, 0);

    struct Row
    {
        const char* szName;
        int nServer;
        bool bResponse;
        const QB_UserID* lpOrigin;
        uint32_t ulSeq;
        bool bSeen;
    };
    const Row aRows[] = {
        {"first request", 0, false, &idAlice, 5, false},
        {"the same request again", 0, false, &idAlice, 5, true},
        {"the answer to it keeps its own memory", 0, true, &idAlice, 5, false},
        {"the answer again", 0, true, &idAlice, 5, true},
        {"the other server has not seen it", 1, false, &idAlice, 5, false},
        {"another sequence", 0, false, &idAlice, 6, false},
        {"another origin", 0, false, &idBob, 5, false},
        {"no origin, first time", 0, false, nullptr, 5, false},
        {"no origin again", 0, false, nullptr, 5, true},
    };
    for (const Row& row : aRows)
    {
        SCOPED_TRACE(row.szName);
        ZV_SimHost* lpServer = shape.Server(row.nServer);
        bool bSeen = row.bResponse ? lpServer->IsResponseFloodSeen(row.lpOrigin, row.ulSeq)
                                   : lpServer->IsFloodSeen(row.lpOrigin, row.ulSeq);
        EXPECT_EQ(bSeen, row.bSeen);
    }
}

TEST(SimFlood, HandsOutSequencesThatAreNeverZeroAndNeverRepeatAcrossServersAndConferences)
{
    QB_TempFolder tmp;
    ZV_SimConference sim(ZV_SimFakeApi(), ZV_SimFakeOptions(tmp.Path()));
    std::vector<ZV_SimHost*> vecServers = {sim.AddServer(100, 1), sim.AddServer(100, 2), sim.AddServer(200, 1)};
    QB_UserID idAlice(10001, 0);
    std::set<uint32_t> setSeq;
    for (int i = 0; i < 30; ++i)
        for (ZV_SimHost* lpServer : vecServers)
        {
            uint32_t ulSeq = lpServer->NewFloodSeq(&idAlice, 0);
            EXPECT_NE(ulSeq, 0u);
            EXPECT_TRUE(setSeq.insert(ulSeq).second) << ulSeq << " came twice";
        }
}

TEST(SimHostEvents, TellsTheHomeServerFirstAndThenTheOthersWhenAUserJoinsAndLeaves)
{
    QB_TempFolder tmp;
    ZV_SimConference sim(ZV_SimFakeApi(), ZV_SimFakeOptions(tmp.Path()));
    ZV_SimShape shape = ZV_SimBuilder::TwoLinkedServers(sim, 100, 0);
    ASSERT_TRUE(shape.IsComplete()) << sim.GetError();
    ZV_SimHost* lpHome = shape.Server(0);
    bool bKnownAtLeave = false;
    FakeOf(lpHome).fnOnEvent = [&](ZV_SimFakeModule& self, uint16_t usEvent, uintptr_t, uintptr_t a2) {
        if (usEvent == zvConfEventUserLeave)
            bKnownAtLeave = self.m_lpConf->GetUser(reinterpret_cast<const QB_UserID*>(a2)) != nullptr;
    };

    ZV_SimHost* lpAlice = sim.AddClient(100, ZV_SimBuilder::MakeUser(1, 0));
    ASSERT_TRUE(lpAlice) << sim.GetError();
    ASSERT_TRUE(sim.Leave(lpAlice));
    EXPECT_FALSE(sim.Leave(lpAlice)) << "a user who left can't leave again";
    ASSERT_TRUE(sim.Rejoin(lpAlice, true));

    std::vector<ZV_SimEntry> vecEvents = sim.Journal().Calls(ZV_SimCall::OnEvent);
    std::vector<std::pair<uint16_t, std::string>> vecSeen;
    for (const ZV_SimEntry& entry : vecEvents)
        if (entry.sPeer == "usr10001")
            vecSeen.push_back({entry.usNumber, entry.sNode});
    std::vector<std::pair<uint16_t, std::string>> vecExpected = {
        {21, "srv1@100"}, {21, "srv2@100"}, {4, "srv1@100"}, {4, "srv2@100"}, {21, "srv1@100"}, {21, "srv2@100"}};
    EXPECT_EQ(vecSeen, vecExpected);
    EXPECT_EQ(FakeOf(lpHome).CallsOf("OnEvent").back().peer, lpAlice->GetUserID());
    EXPECT_TRUE(bKnownAtLeave) << "the home server still finds the record of a user who is leaving";
    const ZV_ConfUserInfo* lpInfo = lpHome->GetUser(&lpAlice->GetUserID());
    ASSERT_NE(lpInfo, nullptr);
    EXPECT_EQ(lpInfo->ulFlags & zvUserFlagReturning, zvUserFlagReturning);
}

TEST(SimHostEvents, TakesALeavingUsersLinkDownBeforeTheServersHearOfIt)
{
    QB_TempFolder tmp;
    ZV_SimConference sim(ZV_SimFakeApi(), ZV_SimFakeOptions(tmp.Path()));
    ZV_SimShape shape = ZV_SimBuilder::OneServerTwoClients(sim);
    ASSERT_TRUE(shape.IsComplete()) << sim.GetError();
    size_t nMark = sim.Journal().Size();

    ASSERT_TRUE(sim.Leave(shape.Client(0)));

    std::string sTrace = sim.Journal().Dump(nMark);
    EXPECT_EQ(sTrace,
              std::to_string(nMark) + " t=1000000 call OnDisconnect usr10001@100 peer srv1 conn 2002/4\n" +
                  std::to_string(nMark + 1) + " t=1000000 call OnDisconnect srv1@100 peer usr10001 conn 1002/4\n" +
                  std::to_string(nMark + 2) + " t=1000000 call OnDisconnect usr10001@100 peer srv1 conn 2001/0\n" +
                  std::to_string(nMark + 3) + " t=1000000 call OnDisconnect srv1@100 peer usr10001 conn 1001/0\n" +
                  std::to_string(nMark + 4) + " t=1000000 call OnEvent 4 srv1@100 a1 0 a2 usr10001\n");
    EXPECT_EQ(shape.Server()->GetUser(&shape.Client(0)->GetUserID()), nullptr);
    EXPECT_EQ(shape.Server()->GetClientCount(), 1u);
}

TEST(SimHostEvents, TellsBothEndsOfAServerLinkThatComesUpWithTheirOwnCommandConnection)
{
    QB_TempFolder tmp;
    ZV_SimConference sim(ZV_SimFakeApi(), ZV_SimFakeOptions(tmp.Path()));
    ZV_SimShape shape = ZV_SimBuilder::TwoLinkedServers(sim, 100, 0);
    ASSERT_TRUE(shape.IsComplete()) << sim.GetError();
    ZV_SimLink* lpLink = sim.GetServerLink(1, 2);
    ASSERT_TRUE(sim.CutLink(lpLink));
    ASSERT_TRUE(sim.RestoreLink(lpLink));

    for (int nServer = 0; nServer < 2; ++nServer)
    {
        SCOPED_TRACE(nServer);
        ZV_SimHost* lpServer = shape.Server(nServer);
        std::vector<ZV_SimFakeCall> vecEvents = FakeOf(lpServer).CallsOf("OnEvent");
        ASSERT_EQ(vecEvents.size(), 2u);
        EXPECT_EQ(vecEvents[1].usNumber, zvConfEventServerLink);
        EXPECT_EQ(vecEvents[1].ulConn, lpServer->GetServerConn(2 - nServer, zvConfServerTypeCommand, 0));
        EXPECT_NE(vecEvents[0].ulConn, vecEvents[1].ulConn);
        // Both connections stand by the time the event comes.
        EXPECT_EQ(FakeOf(lpServer).m_vecCalls.back().sWhat, "OnEvent");
    }
}

TEST(SimHostEvents, TellsAClientWhenWhatItsUserMaySeeChanges)
{
    QB_TempFolder tmp;
    ZV_SimConference sim(ZV_SimFakeApi(), ZV_SimFakeOptions(tmp.Path()));
    ZV_SimShape shape = ZV_SimBuilder::OneServerTwoClients(sim);
    ASSERT_TRUE(shape.IsComplete()) << sim.GetError();
    ZV_SimHost* lpAlice = shape.Client(0);

    struct Row
    {
        uint16_t usRole;
        uintptr_t a1;
    };
    for (const Row& row : {Row{zvUserRolePrivileged, 1}, Row{0, 0}})
    {
        SCOPED_TRACE(row.usRole);
        ASSERT_TRUE(sim.SetUserRole(lpAlice, row.usRole));
        const ZV_SimFakeCall& call = FakeOf(lpAlice).m_vecCalls.back();
        EXPECT_EQ(call.usNumber, zvConfEventRightChange);
        EXPECT_EQ(call.a1, row.a1);
        EXPECT_EQ(call.peer, lpAlice->GetUserID());
        EXPECT_EQ(lpAlice->GetUser(&lpAlice->GetUserID())->usRole, row.usRole);
    }
    EXPECT_TRUE(FakeOf(shape.Client(1)).CallsOf("OnEvent").empty());
    EXPECT_FALSE(sim.SetUserRole(shape.Server(), 1)) << "a server has no role";
}
