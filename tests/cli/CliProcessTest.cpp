// roomcrate as people use it, against roomcrate-server on loopback: settings
// from each user's TOML file, output read as a person or a script reads it.
#include "ZV_TestProxy.h"

#include <nlohmann/json.hpp>

#include <pty.h>

#include <set>
#include <sstream>

namespace {

// May not share; has no secret, so is left out where logins are asked.
constexpr uint32_t kNobody = 10004;

std::vector<std::string> Lines(const std::string& sText)
{
    std::vector<std::string> vecLines;
    std::istringstream in(sText);
    for (std::string sLine; std::getline(in, sLine);)
        vecLines.push_back(sLine);
    return vecLines;
}

// roomcrate on a pseudo-terminal in sDir, HOME there: what a screen shows.
struct Terminal
{
    int nMaster = -1, nSlave = -1;
    std::string sScreen;
    std::unique_ptr<ZV_Process> lpProcess;

    Terminal(const std::string& sDir, std::vector<std::string> vecArgs)
    {
        if (openpty(&nMaster, &nSlave, nullptr, nullptr, nullptr) != 0)
            return;
        setenv("TERM", "xterm", 0), setenv("HOME", sDir.c_str(), 1), unsetenv("ROOMCRATE_SECRET");
        vecArgs.insert(vecArgs.begin(), ROOMCRATE_CLIENT);
        const std::string sTerminal = ttyname(nSlave);
        lpProcess = std::make_unique<ZV_Process>(sDir, vecArgs, sTerminal, sTerminal, sTerminal);
    }
    ~Terminal() { lpProcess.reset(), close(nMaster), close(nSlave); }
    void Drain()
    {
        pollfd pfd{nMaster, POLLIN, 0};
        char ac[4096];
        for (ssize_t n; poll(&pfd, 1, 50) > 0 && (n = read(nMaster, ac, sizeof ac)) > 0;)
            sScreen.append(ac, (size_t)n);
    }
    // Waits until the screen shows sWhat at or after nFrom.
    bool Until(const std::string& sWhat, size_t nFrom = 0)
    {
        return ZV_WaitFor([&] { return Drain(), sScreen.find(sWhat, nFrom) != std::string::npos; });
    }
    bool Type(const std::string& sKeys) { return write(nMaster, sKeys.data(), sKeys.size()) > 0; }
    int Wait() { const int nExit = lpProcess->Wait(); return Drain(), nExit; }
};

struct CliProcess : ::testing::TestWithParam<ZV_NetMode>
{
    QB_TempFolder tmp;
    std::string sDir = tmp.Path();
    ZV_NetSetup setup{sDir, GetParam()};
    ZV_ServerUnderTest server{setup, sDir + "/srv", 1,
                              "\n[[conference.user]]\nnumber = 10004\nname = \"nobody\"\nmay_share = false\n"};

    std::string At(const std::string& sName) const { return sDir + "/" + sName; }

    // The user's settings file, as the README has people write it; without
    // a secret file when the program is to ask for the secret.
    std::string Config(uint32_t ulUser, const std::string& sServer, bool bAsk = false)
    {
        const std::string sName = ZV_UserName(ulUser);
        const std::string sPath = At(sName + ".toml");
        std::ofstream file(sPath);
        file << "server = \"" << sServer << "\"\nconference = 100\nuser = " << ulUser << "\nhome = \"" << sName
             << ".home\"\n";
        if (GetParam().bLogins || !bAsk)
            file << "name = \"" << sName << "\"\n";
        if (GetParam().bLogins && !bAsk)
            file << "secret_file = \"" << setup.SecretFile(sName) << "\"\n";
        if (GetParam().bTls)
            file << "trust = \"" << setup.TrustFile() << "\"\n";
        return sPath;
    }
    std::unique_ptr<ZV_Process> Start(uint32_t ulUser, const std::vector<std::string>& vecArgs,
                                      const std::string& sServer = {})
    {
        const std::string sName = ZV_UserName(ulUser);
        std::filesystem::remove(At(sName + ".out")), std::filesystem::remove(At(sName + ".err"));
        std::vector<std::string> vecAll = {ROOMCRATE_CLIENT, "--config",
                                           Config(ulUser, sServer.empty() ? server.GetAddress() : sServer)};
        vecAll.insert(vecAll.end(), vecArgs.begin(), vecArgs.end());
        return std::make_unique<ZV_Process>(sDir, vecAll, sName + ".out", sName + ".err", "/dev/null");
    }
    int Run(uint32_t ulUser, const std::vector<std::string>& vecArgs, const std::string& sServer = {})
    {
        return Start(ulUser, vecArgs, sServer)->Wait(std::chrono::seconds(40));
    }
    std::string Out(uint32_t ulUser) const { return ZV_ReadText(At(ZV_UserName(ulUser) + ".out")); }
    std::string Err(uint32_t ulUser) const { return ZV_ReadText(At(ZV_UserName(ulUser) + ".err")); }
    std::set<std::string> Seen(uint32_t ulUser)
    {
        std::set<std::string> setNames;
        EXPECT_EQ(0, Run(ulUser, {"--json", "ls"})) << Err(ulUser);
        for (const std::string& sLine : Lines(Out(ulUser)))
            if (const auto obj = nlohmann::json::parse(sLine); obj.at("type") == "file")
                setNames.insert(obj.at("name").get<std::string>());
            else
                ADD_FAILURE() << sLine;
        return setNames;
    }
};

}  // namespace

// The refusals, a share and two fetches, rights and removal, two files of one
// name, and batches: two files of one folder go as one. Then the shell at a
// terminal: the secret asked for and never shown, completion, a bar, stop and
// resume, another user's share, history kept and called back. Then a killed
// get finishes from its file; a lost link is said once and dialled again;
// Ctrl-C while a share is not whole on the server warns.
TEST_P(CliProcess, ServesItsUserFromTheCommandLineOrItsShellThroughAKillOrALostLinkAndSaysWhatCannotBeDone)
{
    ASSERT_TRUE(server.Start());
    std::ofstream(At("wrong.secret")) << "not the secret\n";
    // A wrong secret comes last: each refused login slows the next ones down.
    const struct { const char* szName; std::vector<std::string> vecArgs; int nExit; const char* szSays; } aRows[] = {
        {"a server that is not there", {"--server", "127.0.0.1:" + std::to_string(ZV_FreeLowPort()), "ls"}, 3,
         "cannot reach the server"},
        {"a file that does not exist", {"share", "nothing.bin"}, 4, "no file nothing.bin"},
        {"a name no file bears", {"get", "nothing.bin"}, 4, "no file called \"nothing.bin\""},
        {"no conference", {"--conference", "0", "ls"}, 2, "not a good conference"},
    };
    auto ExpectRefused = [&](const char* szName, const std::vector<std::string>& vecArgs, int nExit, const char* szSays) {
        SCOPED_TRACE(szName);
        EXPECT_EQ(nExit, Run(kBob, vecArgs));
        EXPECT_EQ(1u, Lines(Err(kBob)).size()) << Err(kBob);
        EXPECT_NE(Err(kBob).find(szSays), std::string::npos) << Err(kBob);
        EXPECT_EQ("", Out(kBob));
    };
    for (const auto& row : aRows)
        ExpectRefused(row.szName, row.vecArgs, row.nExit, row.szSays);

    // A share and a fetch print the SHA-256 line; a second fetch lands beside.
    ZV_WriteRandomFile(At("a.bin"), 5 * kMiB + 123, 5);
    ASSERT_EQ(0, Run(kAlice, {"share", "a.bin"})) << Err(kAlice);
    const std::string sShared = Lines(Out(kAlice)).back();
    EXPECT_EQ(sShared.substr(std::min<size_t>(64, sShared.size())), "  a.bin") << "a hash of 64 digits, then the name";
    ASSERT_EQ(0, Run(kBob, {"get", "a.bin", "-o", "in"})) << Err(kBob);
    EXPECT_TRUE(ZV_SameFiles(At("a.bin"), At("in/a.bin")));
    EXPECT_EQ(sShared, Lines(Out(kBob)).back());
    ASSERT_EQ(0, Run(kBob, {"get", "a.bin", "-o", "in"})) << Err(kBob);
    EXPECT_TRUE(ZV_SameFiles(At("a.bin"), At("in/a(1).bin")));
    EXPECT_EQ(sShared.substr(0, 64) + "  a(1).bin", Lines(Out(kBob)).back());

    for (const char* szName : {"c.txt", "x.bin", "y.bin", "z.bin"})
        ZV_WriteRandomFile(At(szName), 1000, (unsigned)szName[0]);
    ASSERT_EQ(0, Run(kCarol, {"share", "c.txt"})) << Err(kCarol);
    EXPECT_EQ(4, Run(kAlice, {"share", "x.bin", "--to", "bob"})) << "bob shared nothing alice sees";
    EXPECT_NE(Err(kAlice).find("no user called \"bob\""), std::string::npos) << Err(kAlice);
    ASSERT_EQ(0, Run(kAlice, {"share", "x.bin", "--to", std::to_string(kBob)})) << Err(kAlice);
    ASSERT_EQ(0, Run(kAlice, {"share", "y.bin", "z.bin"})) << Err(kAlice);
    EXPECT_EQ((std::set<std::string>{"a.bin", "c.txt", "x.bin", "y.bin", "z.bin"}), Seen(kBob));
    EXPECT_EQ((std::set<std::string>{"a.bin", "c.txt", "y.bin", "z.bin"}), Seen(kCarol));
    ASSERT_EQ(0, Run(kAlice, {"allow", "x.bin", "carol"})) << Err(kAlice);
    ASSERT_EQ(0, Run(kAlice, {"deny", "x.bin", std::to_string(kBob)})) << Err(kAlice);
    EXPECT_EQ((std::set<std::string>{"a.bin", "c.txt", "y.bin", "z.bin"}), Seen(kBob));
    EXPECT_EQ(1, Run(kBob, {"rm", "y.bin"})) << "only its creator removes it";
    EXPECT_NE(Err(kBob).find("not allowed"), std::string::npos) << Err(kBob);
    ASSERT_EQ(0, Run(kAlice, {"rm", "y.bin"})) << Err(kAlice);
    EXPECT_EQ((std::set<std::string>{"a.bin", "c.txt", "x.bin", "z.bin"}), Seen(kCarol));
    ASSERT_EQ(0, Run(kCarol, {"--json", "info", "x.bin"})) << Err(kCarol);
    const auto info = nlohmann::json::parse(Out(kCarol));
    EXPECT_EQ(nlohmann::json({1000, kAlice, 100.0, false, {kCarol}}),
              nlohmann::json({info.at("size"), info.at("creator"), info.at("server_percent"), info.at("public"), info.at("allowed")}));

    // A name of several files is refused with their numbers; a number fetches.
    for (const std::string sSub : {"one", "two"})
        std::filesystem::create_directories(At(sSub)), ZV_WriteRandomFile(At(sSub + "/d.txt"), 3000, sSub[0]);
    ASSERT_EQ(0, Run(kAlice, {"--json", "share", "one/d.txt", "two/d.txt"})) << Err(kAlice);
    std::vector<int> vecIDs;
    for (const std::string& sLine : Lines(Out(kAlice)))
        vecIDs.push_back(nlohmann::json::parse(sLine).at("id").get<int>());
    ASSERT_EQ(2u, vecIDs.size());
    EXPECT_EQ(4, Run(kBob, {"get", "d.txt"}));
    EXPECT_EQ(1u, Lines(Err(kBob)).size()) << Err(kBob);
    for (int nID : vecIDs)
        EXPECT_NE(Err(kBob).find(std::to_string(nID)), std::string::npos) << Err(kBob);
    ASSERT_EQ(0, Run(kBob, {"get", std::to_string(vecIDs[1]), "-o", "in"})) << Err(kBob);
    EXPECT_TRUE(ZV_SameFiles(At("two/d.txt"), At("in/d.txt")));

    // Each file of a refused batch is said refused (nobody has no secret).
    if (!GetParam().bLogins)
    {
        EXPECT_EQ(1, Run(kNobody, {"share", "y.bin", "z.bin"}));
        for (const char* szName : {"y.bin", "z.bin"})
            EXPECT_NE(Err(kNobody).find(std::string("refused to take ") + szName), std::string::npos) << Err(kNobody);
    }

    ZV_WriteRandomFile(At("b.bin"), 2 * kMiB, 9);
    ZV_WriteRandomFile(At("late.bin"), 100, 10);
    ASSERT_EQ(0, Run(kAlice, {"share", "b.bin"})) << Err(kAlice);
    Terminal shell(sDir, {"--config", Config(kBob, server.GetAddress(), true), "--rate", "500000", "shell"});
    ASSERT_TRUE(shell.lpProcess);
    if (GetParam().bLogins)
    {
        ASSERT_TRUE(shell.Until("secret of bob: ")) << shell.sScreen;
        ASSERT_TRUE(shell.Type(setup.Secret("bob") + "\n"));
    }
    EXPECT_TRUE(shell.Until("roomcrate> ")) << shell.sScreen;
    ASSERT_TRUE(shell.Type("ge\t-o in b.\t\n"));
    EXPECT_TRUE(shell.Until("b.bin [#")) << shell.sScreen;
    ASSERT_TRUE(shell.Type("stop b.bin\n"));
    EXPECT_TRUE(shell.Until("still arrive and are kept")) << shell.sScreen;
    ASSERT_TRUE(shell.Type("resume b.bin\n"));
    EXPECT_TRUE(shell.Until("resumed ")) << shell.sScreen;
    ASSERT_EQ(0, Run(kAlice, {"share", "late.bin"})) << Err(kAlice);
    EXPECT_TRUE(shell.Until("* new file: ")) << shell.sScreen;
    EXPECT_TRUE(shell.Until("fetched ")) << shell.sScreen;
    ASSERT_TRUE(shell.Type("info late.bin\n"));
    EXPECT_TRUE(shell.Until("who may have it:")) << shell.sScreen;
    ASSERT_TRUE(shell.Type("\x10\n"));  // Ctrl-P: the line before
    EXPECT_TRUE(shell.Until("who may have it:", shell.sScreen.find("who may have it:") + 1)) << shell.sScreen;
    ASSERT_TRUE(shell.Type("quit\n"));
    EXPECT_EQ(0, shell.Wait());
    EXPECT_TRUE(ZV_SameFiles(At("b.bin"), At("in/b.bin")));
    EXPECT_EQ(shell.sScreen.find(setup.Secret("bob")), std::string::npos) << shell.sScreen;
    const std::string sHistory = ZV_ReadText(At(".roomcrate_history"));  // libedit may write a blank as \\040
    EXPECT_TRUE(sHistory.find("\nget\\040-o\\040in\\040b.bin") != std::string::npos ||
                sHistory.find("\nget -o in b.bin") != std::string::npos) << sHistory;

    auto lpBob = Start(kBob, {"--rate", "600000", "get", "b.bin", "-o", "got"});
    ASSERT_TRUE(ZV_WaitFor([&] { return ZV_FileSize(At("got/b.bin")) >= kMiB / 2; }));
    lpBob->Signal(SIGKILL), lpBob->Wait();
    ASSERT_LT(ZV_FileSize(At("got/b.bin")), 2 * kMiB);
    ASSERT_EQ(0, Run(kBob, {"get", "b.bin", "-o", "got"})) << Err(kBob);
    EXPECT_TRUE(ZV_SameFiles(At("b.bin"), At("got/b.bin")));
    EXPECT_FALSE(std::filesystem::exists(At("got/b(1).bin"))) << "it went on, rather than start anew";

    // The server too sees a lost link, not a leave, and (bob said goodbye
    // last time) a user who returns; on TLS no byte on the way shows.
    ZV_TestProxy proxy(ZV_FreeLowPort(), server.GetPort());
    const ZV_Since logBack{[&] { return server.Log(); }};
    lpBob = Start(kBob, {"--rate", "600000", "get", "b.bin", "-o", "out"}, proxy.GetAddress());
    ASSERT_TRUE(ZV_WaitFor([&] { return ZV_FileSize(At("out/b.bin")) >= kMiB / 2; }));
    EXPECT_TRUE(logBack.Shows("bob (10002) is in conference 100, returning")) << logBack.Text();
    const ZV_Since log{[&] { return server.Log(); }};
    proxy.Cut();
    ASSERT_TRUE(ZV_WaitFor([&] { return Err(kBob).find("was lost") != std::string::npos; }));
    ASSERT_TRUE(log.Shows("bob (10002) lost its link"));
    proxy.Restore();
    EXPECT_EQ(0, lpBob->Wait(std::chrono::seconds(60))) << Err(kBob);
    EXPECT_TRUE(ZV_SameFiles(At("b.bin"), At("out/b.bin")));
    const std::string sBobErr = Err(kBob);
    EXPECT_EQ(sBobErr.find("was lost"), sBobErr.rfind("was lost")) << "said once\n" << sBobErr;
    EXPECT_NE(sBobErr.find("connected again"), std::string::npos) << sBobErr;
    EXPECT_EQ(log.Text().find("bob (10002) left"), log.Text().find("bob (10002) left conference 100: said goodbye"))
        << log.Text();
    EXPECT_EQ(log.Text().find(", returning"), std::string::npos);
    EXPECT_EQ(proxy.Recorded().find("RCRT") == std::string::npos, GetParam().bTls && !proxy.Recorded().empty())
        << "on TLS no byte shows";

    ZV_WriteRandomFile(At("big.bin"), 32 * kMiB, 4);
    auto lpAlice = Start(kAlice, {"share", "big.bin"}, proxy.GetAddress());
    ASSERT_TRUE(ZV_WaitFor([&] { return Err(kAlice).find("roomcrate stays") != std::string::npos; }));
    proxy.Cut();
    lpAlice->Signal(SIGINT);
    EXPECT_EQ(130, lpAlice->Wait()) << Err(kAlice);
    EXPECT_NE(Err(kAlice).find("left before the server held the whole file"), std::string::npos) << Err(kAlice);
    if (GetParam().bLogins)
        ExpectRefused("a wrong secret", {"--secret-file", "wrong.secret", "ls"}, 3, "refused the login");
    server.Stop();
    EXPECT_EQ(QB_CountInFiles(server.GetDir() + "/server.out", "recv a PDU_CONF_FS_ADD_FILES_REQUEST"),
              GetParam().bLogins ? 1u : 2u) << server.Trace();
}

INSTANTIATE_TEST_SUITE_P(Modes, CliProcess, ::testing::Values(kNetClear, kNetSecure),
                         [](const auto& info) { return std::string(info.param.szName); });
