// roomcrate-server and the test client as real processes on loopback, in the
// clear and on TLS with logins. A PDU that reached a manager prints its trace
// line on standard output; what a bad peer sends must print none.
#include "IZV_FileShare.h"
#include "ZV_TestProxy.h"

using namespace std::chrono_literals;

namespace {

using Bytes = std::vector<uint8_t>;
constexpr int kExitRefused = 5;
// A downloader this slow takes seconds over 2 MiB: time to cut, kill or restart.
const std::vector<std::string> kSlow = {"--rate", "600000"};

struct NetProcess : ::testing::TestWithParam<ZV_NetMode>
{
    QB_TempFolder tmp;
    std::string sDir = tmp.Path();
    ZV_NetSetup setup{sDir, GetParam()};

    std::string At(const std::string& sName) const { return sDir + "/" + sName; }
    void AliceShares(const std::string& sServer, const std::string& sName, size_t nBytes)
    {
        ZV_WriteRandomFile(At(sName), nBytes, (unsigned)nBytes);
        ASSERT_EQ(0, ZV_RunClient(setup, "alice", kAlice, sServer, {"share", sName}));
    }
    bool PartWay(const std::string& sTarget) { return ZV_WaitFor([&] { return ZV_FileSize(At(sTarget)) >= kMiB / 2; }); }
};

Bytes operator+(Bytes a, const Bytes& b) { return a.insert(a.end(), b.begin(), b.end()), a; }
template <size_t N>
Bytes Of(const std::array<uint8_t, N>& ab) { return Bytes(ab.begin(), ab.end()); }
Bytes Hello(uint16_t usKind, uint32_t ulConf = 100, uint16_t usVersion = zvNetVersion)
{
    return Of(ZV_WriteHello({usVersion, usKind, ulConf, 10001}));
}
// A command link's hello, then a frame.
Bytes Frame(uint16_t usWord, uint16_t usPdu, uint32_t ulLen, size_t nPayload)
{
    return Hello(0) + Of(ZV_WriteFrameHead({usWord, usPdu, 0, 0, ulLen})) + Bytes(nPayload, 0x41);
}

}  // namespace

// Downloads go on through a server restart (a cut link and a client's kill:
// CliProcess); a second login of a user takes the place of the first.
TEST_P(NetProcess, ClientsFetchByteForByteThroughARestartAndASecondLoginTakesThePlaceOfTheFirst)
{
    ZV_ServerUnderTest server(setup, At("srv1"), 1);
    ASSERT_TRUE(server.Start(true));
    AliceShares(server.GetAddress(), "a.bin", 2 * kMiB + 123);
    auto lpBob = ZV_StartClient(setup, "bob", kBob, server.GetAddress(), {"get", "a.bin", "b.bin"}, kSlow);
    ASSERT_TRUE(PartWay("b.bin"));
    ASSERT_EQ(0, server.Stop()) << "SIGTERM is a clean exit";
    ASSERT_TRUE(server.Start());
    EXPECT_EQ(0, lpBob->Wait());
    EXPECT_TRUE(ZV_SameFiles(At("a.bin"), At("b.bin")));

    auto Count = [&](const std::string& sWhat) { return QB_CountInFiles(server.GetDir() + "/server.err", sWhat); };
    const size_t nIn = Count("bob (10002) is in conference 100"), nAgain = Count("bob (10002) logs in again");
    auto lpFirst = ZV_StartClient(setup, "first", kBob, server.GetAddress(), {"stay"});
    ASSERT_TRUE(ZV_WaitFor([&] { return Count("bob (10002) is in conference 100") > nIn; }));
    auto lpSecond = ZV_StartClient(setup, "second", kBob, server.GetAddress(), {"stay"});
    EXPECT_EQ(3, lpFirst->Wait(10s)) << "the first is told and stops";
    EXPECT_TRUE(lpSecond->IsRunning());
    EXPECT_EQ(Count("bob (10002) logs in again"), nAgain + 1);
    EXPECT_EQ(0, server.Stop());
    EXPECT_EQ(Count("traffic is in the clear"), GetParam().bTls ? 0u : 2u) << "once a start";
}

// Server 2 waits for server 1's call; the file travels through both. A user
// who left takes an upload that never began with him; a lost link keeps it
// through the grace period.
TEST_P(NetProcess, AFileSharedAtOneServerIsFetchedAtItsLinkedOneAndALeaveComesOnAGoodbyeOrAfterTheGrace)
{
    auto Users = [](uint32_t ulServer) {
        std::string s;
        for (int i = 1; i <= 3; ++i)
            s += "\n[[conference.user]]\nnumber = " + std::to_string(ulServer * 10000 + i) + "\nname = \"peer" +
                 std::to_string(i) + "\"\nhome = " + std::to_string(ulServer) + "\n";
        return s;
    };
    ZV_ServerUnderTest server2(setup, At("srv2"), 2, Users(1), 600, 1001);
    server2.AddPeer(1, 0);
    ASSERT_TRUE(server2.Start());
    ZV_ServerUnderTest server1(setup, At("srv1"), 1, Users(2), 2);
    server1.AddPeer(2, server2.GetPort());
    ASSERT_TRUE(server1.Start());
    ASSERT_TRUE(ZV_WaitFor([&] { return server1.Log().find("server link to server 2 is up") != std::string::npos; }));
    AliceShares(server1.GetAddress(), "a.bin", 3 * kMiB);
    EXPECT_EQ(0, ZV_RunClient(setup, "dave", 20001, server2.GetAddress(), {"get", "a.bin", "d.bin"}));
    EXPECT_TRUE(ZV_SameFiles(At("a.bin"), At("d.bin")));
    EXPECT_TRUE(ZV_SameFiles(At("a.bin"), server2.Stored("a.bin"))) << "server 2 keeps a copy of its own";

    for (const bool bGoodbye : {true, false})
    {
        SCOPED_TRACE(bGoodbye ? "a goodbye" : "a lost link");
        const std::string sName = bGoodbye ? "later1.bin" : "later2.bin";
        ZV_WriteRandomFile(At(sName), 1000, bGoodbye);
        ASSERT_EQ(0, ZV_RunClient(setup, "alice", kAlice, server1.GetAddress(), {"share-later", sName},
                                  bGoodbye ? std::vector<std::string>{} : std::vector<std::string>{"--no-goodbye"}));
        auto Gone = [&] { return !std::filesystem::exists(server1.Stored(sName)); };
        EXPECT_EQ(ZV_WaitFor(Gone, 1s), bGoodbye);
        EXPECT_TRUE(ZV_WaitFor(Gone, 5s));
    }
    EXPECT_NE(server1.Log().find("alice (10001) left conference 100: not back within the grace period"),
              std::string::npos);
}

INSTANTIATE_TEST_SUITE_P(Modes, NetProcess, ::testing::Values(kNetClear, kNetSecure),
                         [](const auto& info) { return std::string(info.param.szName); });

// In the clear, so that a login can be recorded and replayed; each refusal
// slows the address. Server 1 dials server 2 with the wrong link secret.
TEST(NetSecurity, ALoginThatProvesNothingIsClosedLoggedSlowedDownAndReachesNoManager)
{
    QB_TempFolder tmp;
    ZV_NetSetup setup(tmp.Path(), {"LoginsInTheClear", false, true});
    ZV_ServerUnderTest server2(setup, tmp.Path() + "/srv2", 2);
    server2.AddPeer(1, 0);
    ASSERT_TRUE(server2.Start());
    QB_WriteWholeFile(tmp.Path() + "/link.secret", "not the secret of the link\n");
    ZV_ServerUnderTest server(setup, tmp.Path() + "/srv1", 1);
    server.AddPeer(2, server2.GetPort());
    ASSERT_TRUE(server.Start());
    ZV_TestProxy proxy(ZV_FreeLowPort(), server.GetPort());
    ASSERT_EQ(0, ZV_RunClient(setup, "recorded", kBob, proxy.GetAddress(), {"list"}));
    const std::string sRecorded = proxy.Recorded();

    const ZV_Since trace{[&] { return server.Trace(); }};
    const ZV_Since log{[&] { return server.Log(); }};
    // vecOptions none: the recorded login replayed
    const struct { const char* szCase; std::vector<std::string> vecOptions; const char* szLogged; } aRows[] = {
        {"a wrong secret", {"--name", "bob", "--secret-file", setup.SecretFile("alice")},
         "its login was refused: its proof does not hold for user \"bob\""},
        {"an unknown user", {"--name", "mallory", "--secret-file", setup.SecretFile("alice")},
         "its login was refused: no user \"mallory\" has credentials here"},
        {"a login of another user than the hello names", {"--name", "alice", "--secret-file", setup.SecretFile("alice")},
         "its login as \"alice\" is not the one its hello names"},
        {"a replayed login", {}, "its login was refused: its proof does not hold for user \"bob\""},
    };
    for (const auto& row : aRows)
    {
        SCOPED_TRACE(row.szCase);
        const ZV_Since rowLog{[&] { return server.Log(); }};
        if (row.vecOptions.empty())
            EXPECT_TRUE(ZV_SendAndSeeClosed(server.GetPort(), {sRecorded.begin(), sRecorded.end()}, false));
        else
            EXPECT_EQ(kExitRefused,
                      ZV_StartClient(setup, "refused", kBob, server.GetAddress(), {"list"}, row.vecOptions, false)->Wait());
        EXPECT_TRUE(rowLog.Shows(row.szLogged));
        EXPECT_NE(rowLog.Text().find("from 127.0.0.1:"), std::string::npos) << "the line names the address";
    }
    EXPECT_EQ(trace.Text().find("recv a"), std::string::npos) << trace.Text();
    EXPECT_EQ(log.Text().find("is in conference"), std::string::npos) << log.Text();
    const auto tpStart = std::chrono::steady_clock::now();
    EXPECT_EQ(0, ZV_RunClient(setup, "bob", kBob, server.GetAddress(), {"list"}));
    EXPECT_GE(std::chrono::steady_clock::now() - tpStart, 800ms);
    EXPECT_NE(log.Text().find("failed logins from 127.0.0.1 lately: 4; its login waits 800 ms"), std::string::npos)
        << log.Text();
    const ZV_Since log2{[&] { return server2.Log(); }, 0}, log1{[&] { return server.Log(); }, 0};
    EXPECT_TRUE(log2.Shows("its login was refused: its proof does not hold for server \"1\""));
    EXPECT_TRUE(log1.Shows("the server refused it: login refused"));
    EXPECT_EQ(server2.Log().find("server link to server"), std::string::npos);
    EXPECT_EQ(server.Log().find("server link to server"), std::string::npos);
    EXPECT_EQ(server2.Trace().find("recv a"), std::string::npos);
}

// A server in the clear closes a peer that breaks the wire (on TLS the frames
// come to the same checks once a login is done); a client refuses a
// certificate of another authority or name, and a server that asks no login.
TEST(NetSecurity, APeerThatBreaksTheWireOrDoesNotProveWhoItIsIsRefusedAndReachesNoManager)
{
    QB_TempFolder tmp;
    ZV_NetSetup setup(tmp.Path(), kNetSecure);
    ASSERT_TRUE(ZV_MakeCertificates(tmp.Path(), "net", "127.0.0.2"));
    ASSERT_TRUE(ZV_MakeCertificates(tmp.Path(), "other", "127.0.0.1"));
    ZV_ServerUnderTest server(setup, tmp.Path() + "/srv3", 1);
    ASSERT_TRUE(server.Start());
    ZV_NetSetup setupOpen(tmp.Path() + "/open", kNetClear);
    ZV_ServerUnderTest serverOpen(setupOpen, tmp.Path() + "/srv-open", 1);
    ASSERT_TRUE(serverOpen.Start());
    const struct { const char* szCase; Bytes vbSent; bool bEndStream; const char* szLogged; } aBroken[] = {
        {"a stream of garbage", Bytes(40, 0x47), false, "it does not begin with \"RCRT\""},
        {"an unknown version", Hello(zvConfClientTypeCommand, 100, 9), false, "unknown protocol version"},
        {"a hello for a conference not hosted here", Hello(zvConfClientTypeCommand, 999), false, "conference not hosted here"},
        {"a data connection without its command connection", Hello(zvConfClientTypeData), false,
         "a data link before the command link"},
        {"a frame with a huge length", Frame(100, 8001, 0xFFFFFFFF, 0), false, "(4294967295)"},
        {"a frame one byte longer than a module sends", Frame(100, 8001, 65472, 0), false, "longer than 65471 bytes (65472)"},
        {"a frame of a conference the link is not in", Frame(200, 8001, 4, 4), false,
         "a frame for conference word 200 on a link of conference 100"},
        {"a frame cut short", Frame(100, 8001, 100, 10), true, "the stream ended inside a frame"},
        {"a frame head cut short", Hello(0) + Bytes(5, 0), true, "the stream ended inside a frame head"},
        {"a host frame nobody knows", Frame(100, 7, 0, 0), false, "host's own numbers it does not know (7)"},
    };
    for (const auto& row : aBroken)
    {
        SCOPED_TRACE(row.szCase);
        EXPECT_TRUE(ZV_SendAndSeeClosed(serverOpen.GetPort(), row.vbSent, row.bEndStream));
        EXPECT_TRUE(ZV_WaitFor([&] { return serverOpen.Log().find(row.szLogged) != std::string::npos; }, 3s));
    }
    EXPECT_EQ(serverOpen.Trace().find("recv a"), std::string::npos) << serverOpen.Trace();
    EXPECT_EQ(0, ZV_RunClient(setupOpen, "bob", kBob, serverOpen.GetAddress(), {"list"})) << "the server goes on";

    const std::string sPort = std::to_string(server.GetPort());
    // sTrust empty: in the clear
    const struct { const char* szCase; ZV_ServerUnderTest& server; std::string sAddress, sTrust, sWhy; } aRows[] = {
        {"a certificate of another authority", server, "127.0.0.1:" + sPort, tmp.Path() + "/other-ca.pem",
         "the peer's certificate is not trusted: unable to get local issuer"},
        {"a certificate for another address", server, "127.0.0.1:" + sPort, setup.TrustFile(),
         "the peer's certificate is not trusted: IP address mismatch"},
        {"a certificate for no host name", server, "localhost:" + sPort, setup.TrustFile(),
         "the peer's certificate is not trusted: hostname mismatch"},
        {"no login asked", serverOpen, serverOpen.GetAddress(), "", "let it in without a login"},
    };
    for (const auto& row : aRows)
    {
        SCOPED_TRACE(row.szCase);
        const ZV_Since log{[&] { return row.server.Log(); }};
        std::vector<std::string> vecOptions = {"--name", "bob", "--secret-file", setup.SecretFile("bob")};
        if (!row.sTrust.empty())
            vecOptions.insert(vecOptions.end(), {"--trust", row.sTrust});
        EXPECT_EQ(kExitRefused, ZV_StartClient(setup, "refusing", kBob, row.sAddress, {"list"}, vecOptions, false)->Wait());
        const std::string sErr = ZV_ReadText(tmp.Path() + "/refusing.err");
        EXPECT_NE(sErr.rfind(row.sWhy), std::string::npos) << sErr;
        EXPECT_TRUE(row.sTrust.empty() || log.Shows("the TLS handshake failed"));
        EXPECT_EQ(log.Text().find("is in conference"), std::string::npos);
    }
    // A login on one TLS session proves nothing on another.
    const std::string sBinding = ZV_BindingOf(setup, server.GetPort());
    EXPECT_EQ(sBinding.size(), 32u);
    EXPECT_NE(sBinding, ZV_BindingOf(setup, server.GetPort()));
}
