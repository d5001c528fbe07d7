// Who gets in: a login that proves nothing, a linked server without its
// link secret and a server whose certificate a client cannot trust each end
// in a closed connection and a log line, and no manager hears of them.
#include "ZV_NetProcess.h"
#include "ZV_TestPki.h"
#include "ZV_TestProxy.h"

#include <gtest/gtest.h>

namespace {

constexpr uint32_t kBob = 10002;
constexpr int kExitRefused = 5;

// What a log or a trace gained since a mark.
struct Since
{
    std::function<std::string()> fnText;
    size_t nMark = fnText().size();
    std::string Text() const { return fnText().substr(nMark); }
    bool Shows(const std::string& sWhat) const
    {
        return ZV_WaitFor([&] { return Text().find(sWhat) != std::string::npos; }, std::chrono::seconds(5));
    }
};

}  // namespace

// In the clear, so that a login can be recorded on the way and replayed.
// Every refusal counts against the address: each login waits longer.
TEST(NetSecurity, ALoginThatProvesNothingIsClosedLoggedSlowedDownAndReachesNoManager)
{
    QB_TempFolder tmp;
    ZV_NetSetup setup(tmp.Path(), kNetLoginsInTheClear);
    ZV_ServerUnderTest server(setup, tmp.Path() + "/srv1", 1);
    ASSERT_TRUE(server.Start());
    ZV_TestProxy proxy(ZV_FreeLowPort(), server.GetPort());
    ASSERT_EQ(0, ZV_RunClient(setup, "recorded", kBob, proxy.GetAddress(), {"list"}));
    const std::string sRecorded = proxy.Recorded();

    const Since trace{[&] { return server.Trace(); }};
    const Since log{[&] { return server.Log(); }};
    const struct
    {
        const char* szCase;
        std::vector<std::string> vecOptions;  // none: the recorded login replayed
        const char* szLogged;
    } aRows[] = {
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
        const Since rowLog{[&] { return server.Log(); }};
        if (row.vecOptions.empty())
            EXPECT_TRUE(ZV_RawPeer(setup, false)
                            .SendAndSeeClosed(server.GetPort(), {sRecorded.begin(), sRecorded.end()}, false));
        else
            EXPECT_EQ(kExitRefused, ZV_StartClientAs(tmp.Path(), "refused", kBob, server.GetAddress(), {"list"},
                                                     row.vecOptions)
                                        ->Wait());
        EXPECT_TRUE(rowLog.Shows(row.szLogged));
        EXPECT_NE(rowLog.Text().find("from 127.0.0.1:"), std::string::npos) << "the line names the address";
    }
    EXPECT_EQ(trace.Text().find("recv a"), std::string::npos) << trace.Text();
    EXPECT_EQ(log.Text().find("is in conference"), std::string::npos) << log.Text();
    const auto tpStart = std::chrono::steady_clock::now();
    EXPECT_EQ(0, ZV_RunClient(setup, "bob", kBob, server.GetAddress(), {"list"}));
    EXPECT_GE(std::chrono::steady_clock::now() - tpStart, std::chrono::milliseconds(800));
    EXPECT_NE(log.Text().find("failed logins from 127.0.0.1 lately: 4; its login waits 800 ms"), std::string::npos)
        << log.Text();
}

// Server 1 dials server 2 with a link secret that is not the one server 2
// keeps the keys of.
TEST(NetSecurity, AServerLinkWithoutItsLinkSecretIsClosedLoggedAndCarriesNothing)
{
    QB_TempFolder tmp;
    ZV_NetSetup setup(tmp.Path(), kNetSecure);
    ZV_ServerUnderTest server2(setup, tmp.Path() + "/srv2", 2, {}, 600, 1001);
    server2.AddPeer(1, 0);
    ASSERT_TRUE(server2.Start());
    QB_WriteWholeFile(tmp.Path() + "/link.secret", "not the secret of the link\n");
    ZV_ServerUnderTest server1(setup, tmp.Path() + "/srv1", 1);
    server1.AddPeer(2, server2.GetPort());
    ASSERT_TRUE(server1.Start());
    EXPECT_TRUE(ZV_WaitFor([&] {
        return server2.Log().find("its login was refused: its proof does not hold for server \"1\"") !=
               std::string::npos;
    }));
    EXPECT_TRUE(ZV_WaitFor([&] { return server1.Log().find("the server refused it: login refused") != std::string::npos; }));
    EXPECT_EQ(server2.Log().find("server link to server"), std::string::npos);
    EXPECT_EQ(server1.Log().find("server link to server"), std::string::npos);
    EXPECT_EQ(server2.Trace().find("recv a"), std::string::npos);
}

// The server's certificate is signed by the test's authority, for an
// address the client does not dial; the other server asks for no login, and
// so proves nothing of itself.
TEST(NetSecurity, AClientRefusesAServerThatDoesNotProveWhoItIs)
{
    QB_TempFolder tmp;
    ZV_NetSetup setup(tmp.Path(), kNetSecure);
    ASSERT_TRUE(ZV_MakeCertificates(tmp.Path(), "net", "127.0.0.2", "net"));
    ASSERT_TRUE(ZV_MakeCertificates(tmp.Path(), "other", "127.0.0.1"));
    ZV_ServerUnderTest server(setup, tmp.Path() + "/srv1", 1);
    ASSERT_TRUE(server.Start());
    ZV_NetSetup setupOpen(tmp.Path() + "/open", kNetClear);
    ZV_ServerUnderTest serverOpen(setupOpen, tmp.Path() + "/srv-open", 1);
    ASSERT_TRUE(serverOpen.Start());
    const std::string sPort = std::to_string(server.GetPort());
    const struct
    {
        const char* szCase;
        ZV_ServerUnderTest& server;
        std::string sAddress;
        std::string sTrust;  // empty: in the clear
        std::string sWhy;
    } aRows[] = {
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
        const Since log{[&] { return row.server.Log(); }};
        std::vector<std::string> vecOptions = {"--name", "bob", "--secret-file", setup.SecretFile("bob")};
        if (!row.sTrust.empty())
            vecOptions.insert(vecOptions.end(), {"--trust", row.sTrust});
        EXPECT_EQ(kExitRefused, ZV_StartClientAs(tmp.Path(), "refusing", kBob, row.sAddress, {"list"}, vecOptions)
                                    ->Wait());
        const std::string sErr = ZV_ReadText(tmp.Path() + "/refusing.err");
        EXPECT_NE(sErr.rfind(row.sWhy), std::string::npos) << sErr;
        EXPECT_TRUE(row.sTrust.empty() || log.Shows("the TLS handshake failed"));
        EXPECT_EQ(log.Text().find("is in conference"), std::string::npos);
    }
    // A login on one TLS session proves nothing on another.
    ZV_RawPeer peer(setup);
    const std::string sBinding = peer.BindingOf(server.GetPort());
    EXPECT_EQ(sBinding.size(), 32u);
    EXPECT_NE(sBinding, peer.BindingOf(server.GetPort()));
}
