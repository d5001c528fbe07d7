// Logins of the network host: what proves a secret and what does not, the
// credentials file, and the slowing down of an address that keeps failing.
#include "ZV_NetLogin.h"

#include "QB_TestSupport.h"

#include <gtest/gtest.h>

#include <filesystem>

namespace {

using State = ZV_LoginStep::State;

ZV_ChannelBinding Tls(char cFill) { return {true, std::string(32, cFill)}; }

// Runs one login through; "done", or which side refused. A tamper flips a
// byte of the server's last word.
std::string Exchange(ZV_LoginClient& client, ZV_LoginServer& server, const std::string& sOffer, bool bTamper = false)
{
    ZV_LoginStep step = client.Start(sOffer);
    for (int nRound = 0; step.eState == State::More; ++nRound)
    {
        const ZV_LoginStep answer =
            nRound == 0 ? server.Start(client.GetMechanism(), step.sData) : server.Step(step.sData);
        if (answer.eState == State::Refused)
            return "server refused";
        std::string sServer = answer.sData;
        if (bTamper && answer.eState == State::Done)
            sServer[sServer.size() / 2] ^= 1;
        step = client.Step(sServer);
        if (step.eState == State::Refused)
            return "client refused";
        if ((step.eState == State::Done) != (answer.eState == State::Done))
            return "out of step";
    }
    return step.eState == State::Done ? "done" : "client refused";
}

}  // namespace

TEST(NetLogin, ProvesTheSecretOfItsNameOnItsOwnChannel)
{
    ZV_Credentials credentials;
    credentials.Put(ZV_LoginKind::User, "alice", ZV_Credentials::Derive("open sesame"));
    credentials.Put(ZV_LoginKind::Server, "1", ZV_Credentials::Derive("link secret"));
    const auto User = ZV_LoginKind::User;
    // Right secrets are the logins of every process test; wrong secrets, unknown
    // names and replays are the server's login scene (NetSecurity).
    const struct { const char* szCase; std::string sName, sSecret; ZV_LoginKind eKind; ZV_ChannelBinding client, server;
                   bool bTamper; const char* szOutcome; } aRows[] = {
        {"a server's secret as a user's", "1", "link secret", User, {}, {}, false, "server refused"},
        {"a login made on another TLS channel", "alice", "open sesame", User, Tls('a'), Tls('b'), false, "server refused"},
        {"a server whose last word is not the keys'", "alice", "open sesame", User, {}, {}, true, "client refused"},
    };
    for (const auto& row : aRows)
    {
        SCOPED_TRACE(row.szCase);
        ZV_LoginClient client(row.sName, row.sSecret, row.client);
        ZV_LoginServer server(credentials, row.eKind, row.server);
        EXPECT_EQ(Exchange(client, server, ZV_LoginMechanism(row.server), row.bTamper), row.szOutcome);
    }
    // A name without credentials is challenged as a name with them is, under
    // the same salt each time, so that nobody learns which names exist.
    auto SaltOf = [&](const std::string& sName) {
        ZV_LoginClient client(sName, "a guess", {});
        ZV_LoginServer server(credentials, ZV_LoginKind::User, {});
        const ZV_LoginStep challenge = server.Start("SCRAM-SHA-256", client.Start("SCRAM-SHA-256").sData);
        return challenge.eState == State::More ? challenge.sData.substr(challenge.sData.find(",s=")) : "refused";
    };
    EXPECT_EQ(SaltOf("mallory"), SaltOf("mallory"));
    EXPECT_NE(SaltOf("mallory"), SaltOf("mallorie"));
    // A client on TLS takes no offer without channel binding, nor one in the
    // clear an offer it cannot bind.
    EXPECT_EQ(ZV_LoginClient("alice", "open sesame", Tls('a')).Start("SCRAM-SHA-256").eState, State::Refused);
    EXPECT_EQ(ZV_LoginClient("alice", "open sesame", {}).Start("SCRAM-SHA-256-PLUS").eState, State::Refused);
}

TEST(NetLogin, KeepsKeysButNoSecretInAPrivateCredentialsFileAndRefusesABrokenLine)
{
    QB_TempFolder tmp;
    const std::string sPath = tmp.Path() + "/server.credentials";
    ZV_Credentials written, read;
    written.Put(ZV_LoginKind::User, "alice smith", ZV_Credentials::Derive("open sesame"));
    written.Put(ZV_LoginKind::Server, "2", ZV_Credentials::Derive("link secret"));
    std::string sError;
    std::vector<std::string> vecErrors;
    ASSERT_TRUE(written.Save(sPath, sError) && read.Load(sPath, vecErrors)) << sError;
    EXPECT_EQ(std::filesystem::status(sPath).permissions(), std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
    EXPECT_EQ(QB_CountInFiles(sPath, "open sesame") + QB_CountInFiles(sPath, "link secret"), 0u);
    ZV_LoginClient client("alice smith", "open sesame", {});
    ZV_LoginServer server(read, ZV_LoginKind::User, {});
    EXPECT_EQ(Exchange(client, server, "SCRAM-SHA-256"), "done") << "a name with a blank";

    const std::string sKey = " AAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAA=";
    const struct { const char* szCase; std::string sLine; const char* szError; } aRows[] = {
        {"another kind", "admin 4096 c2FsdA==" + sKey + sKey + " x", "begins with \"user\" or \"server\""},
        {"no name", "user 4096 c2FsdA==" + sKey + sKey, "names nobody"},
        {"too few iterations", "user 4095 c2FsdA==" + sKey + sKey + " x", "from 4096 to 10000000"},
        {"a count that is no number", "user 4096k c2FsdA==" + sKey + sKey + " x", "from 4096 to 10000000"},
        {"a short key", "user 4096 c2FsdA== c2FsdA==" + sKey + " x", "the keys of 32 bytes"},
        {"a salt that is no base64", "user 4096 ***" + sKey + sKey + " x", "must be base64"},
        {"a name twice", "user 4096 c2FsdA==" + sKey + sKey + " x\nuser 4096 c2FsdA==" + sKey + sKey + " x",
         ":3: user \"x\" appears twice"},
    };
    for (const auto& row : aRows)
    {
        SCOPED_TRACE(row.szCase);
        QB_WriteWholeFile(sPath, "# a comment\n" + row.sLine + "\n");
        vecErrors.clear();
        EXPECT_FALSE(read.Load(sPath, vecErrors));
        ASSERT_EQ(vecErrors.size(), 1u);
        EXPECT_NE(vecErrors[0].find(row.szError), std::string::npos) << vecErrors[0];
        EXPECT_EQ(vecErrors[0].rfind(sPath + ":", 0), 0u) << vecErrors[0];
    }
}

// Steps: 'f' a failed login from the address, '?' how long its next login
// waits (in units of the setting), 'o' the same for another address, '+'
// the guard's memory runs out.
TEST(NetLogin, SlowsDownAnAddressThatFailsDoublingUpTo32TimesAndForgetsItLater)
{
    const struct { const char* szCase; const char* szSteps; std::vector<int> vecWaits; } aRows[] = {
        {"none, then doubling with each failure", "?f?f?f?", {0, 1, 2, 4}},
        {"at most 32 times", "ffffff?f?", {32, 32}},
        {"another address", "fff?o", {4, 0}},
        {"forgotten a while after the last failure", "ff?+?", {2, 0}},
    };
    for (const auto& row : aRows)
    {
        SCOPED_TRACE(row.szCase);
        const std::chrono::milliseconds msUnit(100);
        ZV_LoginGuard guard(msUnit);
        auto tpNow = ZV_LoginGuard::Clock::now();
        std::vector<int> vecWaits;
        for (const char* p = row.szSteps; *p; ++p)
        {
            if (*p == 'f')
                guard.Fail("10.0.0.1", tpNow);
            else if (*p == '+')
                tpNow += ZV_LoginGuard::kMemory + std::chrono::seconds(1);
            else
                vecWaits.push_back((int)(guard.DelayOf(*p == '?' ? "10.0.0.1" : "10.0.0.2", tpNow) / msUnit));
        }
        EXPECT_EQ(vecWaits, row.vecWaits);
    }
}
