// Running a conference: the clock and the timer, each node's own folder,
// the journal, a conference that never settles, and modules that come from
// a library.
#include "ZV_SimFakeModule.h"

#include <gtest/gtest.h>

#include <cstdlib>

TEST(SimClock, CallsOnTimerOnEveryNodeAtEachPeriodWithTheSimulatedTick)
{
    const struct
    {
        const char* szName;
        uint32_t ulStartTick;
        std::vector<uint32_t> vecAdvance;
        std::vector<uint32_t> vecTicks;
        uint32_t ulEndTick;
    } aRows[] = {
        {"less than a period", 1000, {99}, {}, 1099},
        {"two and a half periods", 1000, {250}, {1100, 1200}, 1250},
        {"small steps add up", 1000, {60, 60, 60}, {1100}, 1180},
        {"past the wrap of the counter", 0xFFFFFF9Cu, {250}, {0, 100}, 150},
    };
    for (const auto& row : aRows)
    {
        SCOPED_TRACE(row.szName);
        ZV_SimFakeConference sim([&](ZV_SimOptions& options) { options.ulStartTick = row.ulStartTick; });
        sim.OneServerTwoClients();
        for (uint32_t ulMs : row.vecAdvance)
            ASSERT_TRUE(sim.AdvanceTime(ulMs));
        for (ZV_SimHost* lpNode : sim.GetNodes())
        {
            std::vector<uint32_t> vecTicks;
            for (const ZV_SimFakeCall& call : FakeOf(lpNode).CallsOf("OnTimer"))
                vecTicks.push_back(call.ulConn);
            EXPECT_EQ(vecTicks, row.vecTicks) << lpNode->GetName();
        }
        EXPECT_EQ(sim.GetTick(), row.ulEndTick);
        EXPECT_EQ(QB_GetEnv()->GetTickCount(), row.ulEndTick) << "the managers read the simulated clock";
    }
}

TEST(SimConference, PointsTheHomeFolderAtTheNodeBeforeEveryCallIntoItsManager)
{
    ZV_SimFakeConference sim;
    ZV_SimShape shape = sim.TwoLinkedServers();
    for (ZV_SimHost* lpServer : shape.vecServers)
        FakeOf(lpServer).fnOnPdu = [](ZV_SimFakeModule& self, const ConfPduData& cpd) {
            self.m_lpConf->SendPduToGroup(cpd.ulConn, 0, cpd.usPdu + 1, cpd.pData, cpd.ulLen, 1, 1);
        };
    shape.Client(0)->SendPdu(shape.Client(0)->GetServerLink()->GetConn(0), 8001, nullptr, 0, 1, 1);
    ASSERT_TRUE(sim.AdvanceTime(100));
    for (ZV_SimHost* lpNode : sim.GetNodes())
    {
        EXPECT_EQ(lpNode->GetHome(), sim.tmp.Path() + "/" + lpNode->GetName() + "/");
        for (const ZV_SimFakeCall& call : FakeOf(lpNode).m_vecCalls)
            EXPECT_EQ(call.sHome, lpNode->GetHome()) << lpNode->GetName() << " " << call.sWhat;
    }
    std::vector<uint8_t> vbIni = QB_ReadWholeFile(shape.Server(1)->GetHome() + "confsrv.ini");
    std::string sIni(vbIni.begin(), vbIni.end());
    EXPECT_NE(sIni.find("[FileShare]\r\nPath="), std::string::npos);
    EXPECT_NE(sIni.find("srv2@100\\store\\\r\n"), std::string::npos);

    shape.Client(1)->GetFileShareMgr();
    EXPECT_STREQ(std::getenv("ROOMCRATE_HOME"), shape.Client(1)->GetHome().c_str())
        << "the user side calls the manager next, so the folder stays";
}

// Run twice, so that nothing of one run (addresses, counters) leaks into the
// next one's journal.
TEST(SimJournal, TracesEachPduEventAndCallOnOneLineTheSameInEveryRun)
{
    for (int nRun = 0; nRun < 2; ++nRun)
    {
        ZV_SimFakeConference sim;
        ZV_SimShape shape = sim.OneServerTwoClients();
        ZV_SimHost* lpAlice = shape.Client(0);
        FakeOf(shape.Server()).fnOnPdu = [](ZV_SimFakeModule& self, const ConfPduData& cpd) {
            const uint8_t kAnswer[] = {7};
            self.m_lpConf->SendPduToGroup(cpd.ulConn, 0, 8002, kAnswer, 1, 1, 1);
        };
        FakeOf(shape.Client(1)).fnOnPdu = [](ZV_SimFakeModule& self, const ConfPduData&) {
            const uint8_t kEvent[] = {0xb8, 0x0b};
            self.m_lpConfSink->OnConfEvent(self.m_lpConf, 3000, 2, kEvent);
        };
        std::vector<std::string> vecSeen;
        shape.Client(1)->SetEventCallback([&vecSeen](ZV_SimHost& host, uint16_t usEvent, const std::vector<uint8_t>& vb) {
            vecSeen.push_back(host.GetName() + " " + std::to_string(usEvent) + " " + QB_ToHex(vb));
        });
        size_t nMark = sim.Journal().Size();
        const uint8_t kAsk[] = {1, 2};
        lpAlice->SendPdu(lpAlice->GetServerLink()->GetConn(0), 8001, kAsk, 2, 1, 1);
        lpAlice->SendPdu(lpAlice->GetServerLink()->GetConn(4), PDU_CONF_FS_KICK, nullptr, 0, 0, 0);
        ASSERT_TRUE(sim.Run());

        auto Line = [nMark](size_t n, const std::string& sText) {
            return std::to_string(nMark + n) + " t=1000000 " + sText + "\n";
        };
        EXPECT_EQ(sim.Journal().Dump(nMark),
                  Line(0, "pdu 8001 usr10001@100 -> srv1@100 pdu conn 2001/0 flags 1,1 len 2 delivered result 0: 01 02") +
                      Line(1, "pdu 257 usr10001@100 -> ? pdu conn 2002/4 flags 0,0 len 0 kick") +
                      Line(2, "pdu 8002 srv1@100 -> usr10002@100 group conn 1003/0 flags 1,1 len 1 delivered result 0: 07") +
                      Line(3, "call OnSend usr10001@100 peer srv1 conn 2002/4") +
                      Line(4, "event 3000 usr10002@100 len 2: b8 0b"));
        EXPECT_EQ(vecSeen, std::vector<std::string>{"usr10002@100 3000 b8 0b"});
        EXPECT_EQ(sim.Journal().Events(3000, "usr10002@100").size(), 1u);
        EXPECT_EQ(sim.Journal().PdusTo(8002, "usr10001@100").size(), 0u);
    }
}

TEST(SimConference, ReportsAConferenceThatNeverSettlesInsteadOfRunningForever)
{
    ZV_SimFakeConference sim([](ZV_SimOptions& options) { options.nStepLimit = 50; });
    ZV_SimShape shape = sim.OneServerTwoClients();
    for (ZV_SimHost* lpNode : sim.GetNodes())
        FakeOf(lpNode).fnOnPdu = [](ZV_SimFakeModule& self, const ConfPduData& cpd) {
            self.m_lpConf->SendPdu(cpd.ulConn, cpd.usPdu, cpd.pData, cpd.ulLen, 1, 1);
        };
    shape.Client(0)->SendPdu(shape.Client(0)->GetServerLink()->GetConn(0), 8001, nullptr, 0, 1, 1);
    EXPECT_FALSE(sim.Run());
    EXPECT_NE(sim.GetError().find("stuck"), std::string::npos) << sim.GetError();
    EXPECT_NE(sim.GetError().find("pdu 8001"), std::string::npos) << sim.GetError();
    EXPECT_EQ(sim.GetPending(), 1u);
}

TEST(SimModuleApi, ExplainsWhyAModuleCannotBeUsed)
{
    ZV_SimModuleApi api = ZV_SimModuleApi::Load("/nonexistent/libroomcrate.so");
    EXPECT_FALSE(api.IsUsable());
    EXPECT_NE(api.GetError().find("/nonexistent/libroomcrate.so"), std::string::npos) << api.GetError();
    ZV_SimFakeConference sim({}, std::move(api));
    EXPECT_EQ(sim.AddServer(100, 1), nullptr);
    EXPECT_NE(sim.GetError().find("no manager"), std::string::npos) << sim.GetError();
}

// The library answers a client's hello on the command link and raises
// event 3000 with the answer on the client.
TEST(SimModuleApi, DrivesAModuleLoadedFromALibraryThroughItsFiveExports)
{
    ZV_SimFakeConference sim({}, ZV_SimModuleApi::Load(ZV_SIM_ECHO_MODULE));
    ZV_SimShape shape = sim.OneServerTwoClients();
    ASSERT_TRUE(sim.Run()) << sim.GetError();
    EXPECT_EQ(sim.Journal().PdusTo(8001, shape.Server()->GetName()).size(), 2u);
    for (ZV_SimHost* lpClient : shape.vecClients)
    {
        std::vector<ZV_SimEntry> vecEvents = sim.Journal().Events(3000, lpClient->GetName());
        ASSERT_EQ(vecEvents.size(), 1u);
        EXPECT_EQ(vecEvents[0].vbData, std::vector<uint8_t>({'h', 'i'}));
    }
}
