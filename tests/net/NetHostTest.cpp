// The network host in this process, on a manager that records what it is told:
// its bytes on the wire, who is in the conference, the OnSend pump of a slow reader.
#include "ZV_NetServer.h"
#include "ZV_NetPresence.h"
#include "ZV_NetWire.h"
#include "ZV_SimFakeModule.h"

#include <gtest/gtest.h>

namespace {

using Bytes = std::vector<uint8_t>;

template <size_t N>
Bytes Of(const std::array<uint8_t, N>& ab) { return Bytes(ab.begin(), ab.end()); }

// Writes the value, checks its bytes, reads them and writes what was read.
template <typename T, typename W, typename R>
void ExpectRoundTrip(const T& value, const Bytes& vbForm, W fnWrite, R fnRead)
{
    EXPECT_EQ(Of(fnWrite(value)), vbForm);
    T read{};
    ASSERT_EQ(fnRead(vbForm.data(), read), ZV_NetFault::None);
    EXPECT_EQ(Of(fnWrite(read)), vbForm);
}

template <typename T>
ZV_NetFault Read(ZV_NetFault (*fnRead)(const uint8_t*, T&), Bytes vb)
{
    T value{};
    return vb.resize(64), fnRead(vb.data(), value);
}

}  // namespace

TEST(NetWire, WritesEachOpeningAsTheProtocolPageShowsReadsItBackAndRefusesWhatNoPeerSends)
{
    ExpectRoundTrip(ZV_NetHello{2, zvConfClientTypeData, 100, 10001},
                    {'R', 'C', 'R', 'T', 0x02, 0x00, 0x04, 0x00, 0x64, 0x00, 0x00, 0x00, 0x11, 0x27, 0x00, 0x00},
                    ZV_WriteHello, ZV_ReadHello);
    ExpectRoundTrip(ZV_NetWelcome{2, zvNetAccepted, 2, 1001, 2000, 1, 44},
                    {'R', 'C', 'R', 'T', 0x02, 0x00, 0x00, 0x00, 0x02, 0x00, 0x00, 0x00, 0xE9, 0x03, 0xD0, 0x07,
                     0x01, 0x00, 0x2C, 0x00},
                    ZV_WriteWelcome, ZV_ReadWelcome);
    ExpectRoundTrip(ZV_NetLoginHead{13, 42}, {0x0D, 0x2A, 0x00}, ZV_WriteLoginHead, ZV_ReadLoginHead);
    ExpectRoundTrip(ZV_NetFrameHead{100, 8005, 1, 0, 32782}, {0x64, 0x00, 0x45, 0x1F, 0x01, 0x00, 0x0E, 0x80, 0x00, 0x00},
                    ZV_WriteFrameHead, ZV_ReadFrameHead);

    using F = ZV_NetFault;
    const struct { const char* szCase; ZV_NetFault eRead, eFault; } aRows[] = {
        {"a hello of another magic", Read(ZV_ReadHello, {'R', 'C', 'R', 'X', 0x01}), F::BadMagic},
        {"a hello of version 1", Read(ZV_ReadHello, Of(ZV_WriteHello({1, 0, 100, 1}))), F::UnknownVersion},
        {"a hello of kind 1", Read(ZV_ReadHello, Of(ZV_WriteHello({2, 1, 100, 1}))), F::UnknownKind},
        {"the longest mechanism name and login data", Read(ZV_ReadLoginHead, Of(ZV_WriteLoginHead({20, 4096}))), F::None},
        {"a mechanism name of 21", Read(ZV_ReadLoginHead, Of(ZV_WriteLoginHead({21, 10}))), F::LoginTooLong},
        {"login data of 4097", Read(ZV_ReadLoginHead, Of(ZV_WriteLoginHead({0, 4097}))), F::LoginTooLong},
        {"a welcome with login data of 4097", Read(ZV_ReadWelcome, Of(ZV_WriteWelcome({2, 0, 0, 0, 0, 0, 4097}))), F::LoginTooLong},
        {"the longest frame", Read(ZV_ReadFrameHead, Of(ZV_WriteFrameHead({0, 0, 0, 0, kNetMaxPayload}))), F::None},
    };
    for (const auto& row : aRows)
        EXPECT_EQ(row.eRead, row.eFault) << row.szCase;
}

// Steps: 'a' both links stand (the answer is the returning flag), 'l' the
// command link is lost, 'g' a goodbye (the answer is whether event 4 is
// due), '+' the clock moves on by a second and the expired leave (the
// answer is whether the user was among them). Answers 1 or 0, '-' for none.
TEST(NetPresence, MakesALeaveOfAGoodbyeOrOfALinkNotBackInTimeAndFlagsOnlyTheReturnOfOneWhoLeft)
{
    const struct { const char* szCase; const char* szSteps; const char* szAnswers; } aRows[] = {
        {"a goodbye of one already gone", "al++g", "0-010"},
        {"lost twice, the second time not back", "al+al++", "0-00-01"},
    };
    for (const auto& row : aRows)
    {
        SCOPED_TRACE(row.szCase);
        const QB_UserID alice(10001, 0);
        ZV_NetPresence presence(std::chrono::milliseconds(1500));
        auto tpNow = ZV_NetPresence::Clock::now();
        std::string sAnswers;
        for (const char* p = row.szSteps; *p; ++p)
        {
            if (*p == '+')
                tpNow += std::chrono::seconds(1);
            sAnswers += *p == 'a'   ? (presence.Arrive(alice) ? '1' : '0')
                        : *p == 'l' ? (presence.Lose(alice, tpNow), '-')
                        : *p == 'g' ? (presence.Leave(alice) ? '1' : '0')
                                    : (presence.Expire(tpNow).empty() ? '0' : '1');
        }
        EXPECT_EQ(sAnswers, row.szAnswers);
    }
}

// The manager pushes three blocks on every OnSend call; the peer reads
// nothing. The host stops calling once the connection holds its bound, and
// keeps the connection: a slow reader is not a broken one.
TEST(NetHost, HoldsTheOnSendPumpOfAReaderThatNeverReadsAtTheQueueBound)
{
    QB_TempFolder tmp;
    asio::io_context io;
    ZV_ModuleApi api = ZV_SimFakeApi();
    ZV_NetServerConfig config;
    config.ulServerID = 1;
    config.limits.nQueueBound = 256 * 1024;
    config.vecConferences.push_back({100, 1, 1000, tmp.Path() + "/", {{10001, "alice", 1, false, true}}});
    ZV_NetServer server(io, config, api);
    ASSERT_TRUE(server.Start()) << server.GetError();
    auto& fake = *static_cast<ZV_SimFakeModule*>(server.FindNode(100)->GetModule());
    static const uint8_t abBlock[32768] = {};
    fake.fnOnEvent = [](ZV_SimFakeModule& self, uint16_t usEvent, uintptr_t, uintptr_t a2) {
        if (usEvent == zvConfEventUserEnter)
            self.m_lpConf->SendPdu(self.m_lpConf->GetUserConn((const QB_UserID*)a2, zvConfClientTypeData),
                                   PDU_CONF_FS_KICK, nullptr, 0, 0, 0);
    };
    fake.fnOnSend = [](ZV_SimFakeModule& self, const ConfPduData& cpd) {
        for (int i = 0; i < 3; ++i)
            self.m_lpConf->SendPdu(cpd.ulConn, 8013, abBlock, sizeof abBlock, 1, 1);
    };

    asio::ip::tcp::socket command(io), data(io);
    std::array<uint8_t, kNetWelcomeSize> abWelcome;
    for (auto* lpSocket : {&command, &data})
    {
        lpSocket->connect({asio::ip::address_v4::loopback(), server.GetPort()});
        const uint16_t usKind = lpSocket == &data ? zvConfClientTypeData : zvConfClientTypeCommand;
        asio::write(*lpSocket, asio::buffer(ZV_WriteHello({zvNetVersion, usKind, 100, 10001})));
        io.run_for(std::chrono::milliseconds(200)), asio::read(*lpSocket, asio::buffer(abWelcome));
    }
    io.run_for(std::chrono::milliseconds(1500));
    ASSERT_EQ(fake.CallsOf("OnConnect").size(), 2u);
    const uint32_t ulData = fake.CallsOf("OnConnect")[1].ulConn;
    const size_t nCalls = fake.CallsOf("OnSend").size();
    const size_t nQueued = server.GetQueuedBytes(ulData);
    EXPECT_GE(nQueued, config.limits.nQueueBound);
    EXPECT_LE(nQueued, config.limits.nQueueBound + 3 * (sizeof abBlock + kNetFrameHeadSize)) << "one call's worth";
    io.run_for(std::chrono::milliseconds(500));
    EXPECT_EQ(fake.CallsOf("OnSend").size(), nCalls) << "the pump holds";
    EXPECT_EQ(server.GetQueuedBytes(ulData), nQueued) << "and the connection stays";
    server.Stop();
    io.run_for(std::chrono::milliseconds(200));
}
