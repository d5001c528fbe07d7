// Running a conference: the clock and the timer, the journal, and a module
// that comes from a library.
#include "ZV_SimFakeModule.h"

#include <gtest/gtest.h>

#include <stdexcept>

TEST(SimClock, CallsOnTimerOnEveryNodeAtEachPeriodWithARunningCountOfItsCalls)
{
    const struct { const char* szName; uint32_t ulStartTick; std::vector<uint32_t> vecAdvance, vecTicks;
                   uint32_t ulEndTick; } aRows[] = {
        {"two and a half periods, then one more past the wrap of the clock", 0xFFFFFF9Cu, {250, 100}, {1, 2, 3}, 250},
        {"small steps add up", 1000, {60, 60, 60}, {1}, 1180},
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

// Run twice, so that nothing of one run (addresses, counters) leaks into the
// next one's journal.
TEST(SimJournal, TracesEachPduEventAndCallOnOneLineTheSameInEveryRun)
{
    for (int nRun = 0; nRun < 2; ++nRun)
    {
        ZV_SimFakeConference sim;
        ZV_SimShape shape = sim.OneServerTwoClients();
        ZV_SimHost* lpAlice = shape.Client(0);
        static const uint8_t kAnswer[] = {7}, kEvent[] = {0xb8, 0x0b};
        FakeOf(shape.Server()).fnOnPdu = [](ZV_SimFakeModule& self, const ConfPduData& cpd) {
            self.m_lpConf->SendPduToGroup(cpd.ulConn, 0, 8002, kAnswer, 1, 1, 1);
        };
        FakeOf(shape.Client(1)).fnOnPdu = [](ZV_SimFakeModule& self, const ConfPduData&) {
            self.m_lpConfSink->OnConfEvent(self.m_lpConf, 3000, 2, kEvent);
        };
        std::vector<std::string> vecSeen;
        shape.Client(1)->SetEventCallback([&vecSeen](ZV_SimHost& host, uint16_t usEvent, const std::vector<uint8_t>& vb) {
            vecSeen.push_back(host.GetName() + " " + std::to_string(usEvent) + " " + QB_ToHex(vb));
        });
        const size_t nMark = sim.Journal().Size();
        const uint8_t kAsk[] = {1, 2};
        lpAlice->SendPdu(lpAlice->GetServerLink()->GetConn(0), 8001, kAsk, 2, 1, 1);
        lpAlice->SendPdu(lpAlice->GetServerLink()->GetConn(4), PDU_CONF_FS_KICK, nullptr, 0, 0, 0);
        ASSERT_TRUE(sim.Run());

        EXPECT_EQ(sim.Journal().Dump(nMark),
                  JournalLines(nMark, "",
                               {"pdu 8001 usr10001@100 -> srv1@100 pdu conn 2001/0 flags 1,1 len 2 delivered result 0: 01 02",
                                "pdu 257 usr10001@100 -> ? pdu conn 2002/4 flags 0,0 len 0 kick",
                                "pdu 8002 srv1@100 -> usr10002@100 group conn 1003/0 flags 1,1 len 1 delivered result 0: 07",
                                "call OnSend usr10001@100 peer srv1 conn 2002/4", "event 3000 usr10002@100 len 2: b8 0b"}));
        EXPECT_EQ(vecSeen, std::vector<std::string>{"usr10002@100 3000 b8 0b"});
    }
}

// The receiver still gets every byte; the journal keeps two of them, the
// whole length, and the three newest entries under their first numbers.
TEST(SimJournal, KeepsOnlyTheFirstPayloadBytesAndTheNewestEntriesWhenToldTo)
{
    ZV_SimFakeConference sim([](ZV_SimOptions& options) {
        options.nJournalPayloadBytes = 2;
        options.nJournalEntries = 3;
    });
    ZV_SimShape shape = sim.OneServerTwoClients();
    ZV_SimHost* lpAlice = shape.Client(0);
    const std::vector<uint8_t> vbPayload = {1, 2, 3, 4, 5};
    const size_t nMark = sim.Journal().Size();
    for (uint16_t usPdu : {8001, 8002, 8003, 8004})
        lpAlice->SendPdu(lpAlice->GetServerLink()->GetConn(0), usPdu, vbPayload.data(), 5, 1, 1);
    ASSERT_TRUE(sim.Run());

    EXPECT_EQ(FakeOf(shape.Server()).m_vecCalls.back().vbData, vbPayload);
    EXPECT_EQ(sim.Journal().Size(), nMark + 4);
    EXPECT_THROW(sim.Journal().At(nMark), std::out_of_range);
    const std::string sDump = sim.Journal().Dump();
    EXPECT_EQ(sDump.substr(0, sDump.find('\n')), std::to_string(nMark + 1) +
              " t=1000000 pdu 8002 usr10001@100 -> srv1@100 pdu conn 2001/0 flags 1,1 len 5 delivered result 0: 01 02");
}

// The module's own shared library, driven through its five exports alone:
// the server sends each client that joins the conference's list (PDU 8028).
TEST(SimModuleApi, DrivesTheModuleLoadedFromItsLibraryThroughItsFiveExports)
{
    ZV_SimFakeConference sim({}, ZV_SimModuleApi::Load(ZV_SIM_MODULE_LIBRARY));
    ZV_SimShape shape = sim.OneServerTwoClients();
    ASSERT_TRUE(sim.Run()) << sim.GetError();
    for (ZV_SimHost* lpClient : shape.vecClients)
        EXPECT_EQ(sim.Journal().PdusTo(8028, lpClient->GetName()).size(), 1u) << lpClient->GetName();
}
