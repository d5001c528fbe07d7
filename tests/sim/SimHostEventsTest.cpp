// The host events that come with users joining and leaving.
#include "ZV_SimFakeModule.h"

#include <gtest/gtest.h>

TEST(SimHostEvents, TellsTheHomeServerFirstAndThenTheOthersWhenAUserJoinsAndLeaves)
{
    ZV_SimFakeConference sim;
    ZV_SimHost* lpHome = sim.TwoLinkedServers(0).Server(0);
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

    std::vector<std::pair<uint16_t, std::string>> vecSeen;
    for (const ZV_SimEntry& entry : sim.Journal().Calls(ZV_SimCall::OnEvent))
        if (entry.sPeer == "usr10001")
            vecSeen.push_back({entry.usNumber, entry.sNode});
    EXPECT_EQ(vecSeen, (std::vector<std::pair<uint16_t, std::string>>{{21, "srv1@100"}, {21, "srv2@100"}, {4, "srv1@100"},
                                                                      {4, "srv2@100"}, {21, "srv1@100"}, {21, "srv2@100"}}));
    EXPECT_TRUE(bKnownAtLeave) << "the home server still finds the record of a user who is leaving";
    const ZV_ConfUserInfo* lpInfo = lpHome->GetUser(&lpAlice->GetUserID());
    EXPECT_TRUE(lpInfo && (lpInfo->ulFlags & zvUserFlagReturning));
    // A flood without an origin is remembered apart from one of the same number from a user.
    EXPECT_TRUE(!lpHome->IsFloodSeen(nullptr, 5) && lpHome->IsFloodSeen(nullptr, 5) && !lpHome->IsFloodSeen(&lpAlice->GetUserID(), 5));
}
