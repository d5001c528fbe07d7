// roomcrate as people use it: real processes on loopback against
// roomcrate-server, settings from each user's TOML file, the output read
// as a person or a script reads it.
#include "ZV_NetProcess.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <pty.h>
#include <sys/wait.h>
#include <poll.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>

namespace {

constexpr uint32_t kAlice = 10001;
constexpr uint32_t kBob = 10002;
constexpr uint32_t kCarol = 10003;
constexpr size_t kMiB = 1 << 20;

std::vector<std::string> Lines(const std::string& sText)
{
    std::vector<std::string> vecLines;
    std::istringstream in(sText);
    for (std::string sLine; std::getline(in, sLine);)
        vecLines.push_back(sLine);
    return vecLines;
}

struct CliProcess : ::testing::TestWithParam<ZV_NetMode>
{
    QB_TempFolder tmp;
    std::string sDir = tmp.Path();
    ZV_NetSetup setup{sDir, GetParam()};
    ZV_ServerUnderTest server{setup, sDir + "/srv", 1};

    std::string At(const std::string& sName) const { return sDir + "/" + sName; }

    // The user's settings file, as the README has people write it.
    std::string Config(uint32_t ulUser, const std::string& sServer)
    {
        const std::string sName = ZV_UserName(ulUser);
        const std::string sPath = At(sName + ".toml");
        std::ofstream file(sPath);
        file << "server = \"" << sServer << "\"\nconference = 100\nuser = " << ulUser << "\nhome = \"" << sName
             << ".home\"\n";
        if (GetParam().bLogins)
            file << "name = \"" << sName << "\"\nsecret_file = \"" << setup.SecretFile(sName) << "\"\n";
        if (GetParam().bTls)
            file << "trust = \"" << setup.TrustFile() << "\"\n";
        return sPath;
    }
    std::unique_ptr<ZV_Process> Start(uint32_t ulUser, const std::vector<std::string>& vecArgs,
                                      const std::string& sServer = {})
    {
        const std::string sName = ZV_UserName(ulUser);
        std::filesystem::remove(At(sName + ".out"));
        std::filesystem::remove(At(sName + ".err"));
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
    // The names `ls --json` shows the user.
    std::set<std::string> Seen(uint32_t ulUser)
    {
        std::set<std::string> setNames;
        EXPECT_EQ(0, Run(ulUser, {"--json", "ls"})) << Err(ulUser);
        for (const std::string& sLine : Lines(Out(ulUser)))
        {
            const auto obj = nlohmann::json::parse(sLine);
            EXPECT_EQ("file", obj.at("type"));
            setNames.insert(obj.at("name").get<std::string>());
        }
        return setNames;
    }
};

const std::string kHex64 = "^[0-9a-f]{64}  ";

}  // namespace

TEST_P(CliProcess, AFileSharedByOneIsFetchedByAnotherByteForByteWithEqualShaLines)
{
    ASSERT_TRUE(server.Start());
    ZV_WriteRandomFile(At("a.bin"), 5 * kMiB + 123, 5);
    ASSERT_EQ(0, Run(kAlice, {"share", "a.bin"})) << Err(kAlice);
    const std::string sShared = Lines(Out(kAlice)).back();
    EXPECT_EQ(sShared.size(), 64 + 2 + 5) << Out(kAlice);
    EXPECT_EQ(sShared.substr(64), "  a.bin");

    ASSERT_EQ(0, Run(kBob, {"get", "a.bin", "-o", "in"})) << Err(kBob);
    EXPECT_TRUE(ZV_SameFiles(At("a.bin"), At("in/a.bin")));
    EXPECT_EQ(sShared, Lines(Out(kBob)).back());

    // Again: the first stays, the second lands beside it.
    ASSERT_EQ(0, Run(kBob, {"get", "a.bin", "-o", "in"})) << Err(kBob);
    EXPECT_TRUE(ZV_SameFiles(At("a.bin"), At("in/a(1).bin")));
    EXPECT_EQ(sShared.substr(0, 64) + "  a(1).bin", Lines(Out(kBob)).back());
}

TEST_P(CliProcess, RightsAndRemovalChangeWhatTheOthersSee)
{
    ASSERT_TRUE(server.Start());
    ZV_WriteRandomFile(At("x.bin"), 1000, 1);
    ZV_WriteRandomFile(At("y.bin"), 1000, 2);
    ASSERT_EQ(0, Run(kAlice, {"share", "x.bin", "--to", std::to_string(kBob)})) << Err(kAlice);
    ASSERT_EQ(0, Run(kAlice, {"share", "y.bin"})) << Err(kAlice);
    EXPECT_EQ((std::set<std::string>{"x.bin", "y.bin"}), Seen(kBob));
    EXPECT_EQ((std::set<std::string>{"y.bin"}), Seen(kCarol));

    ASSERT_EQ(0, Run(kAlice, {"allow", "x.bin", std::to_string(kCarol)})) << Err(kAlice);
    EXPECT_EQ((std::set<std::string>{"x.bin", "y.bin"}), Seen(kCarol));
    ASSERT_EQ(0, Run(kAlice, {"deny", "x.bin", std::to_string(kBob)})) << Err(kAlice);
    EXPECT_EQ((std::set<std::string>{"y.bin"}), Seen(kBob));

    EXPECT_EQ(1, Run(kBob, {"rm", "y.bin"})) << "only its creator removes it";
    EXPECT_NE(Err(kBob).find("not allowed"), std::string::npos) << Err(kBob);
    ASSERT_EQ(0, Run(kAlice, {"rm", "y.bin"})) << Err(kAlice);
    EXPECT_EQ((std::set<std::string>{"x.bin"}), Seen(kCarol));

    ASSERT_EQ(0, Run(kCarol, {"--json", "info", "x.bin"})) << Err(kCarol);
    const auto info = nlohmann::json::parse(Out(kCarol));
    EXPECT_EQ(1000, info.at("size"));
    EXPECT_EQ(kAlice, info.at("creator"));
    EXPECT_EQ(100.0, info.at("server_percent"));
    EXPECT_EQ(false, info.at("public"));
    EXPECT_EQ((std::vector<uint32_t>{kCarol}), info.at("allowed").get<std::vector<uint32_t>>());
}

TEST_P(CliProcess, SeveralFilesOfOneNameAreRefusedWithTheirNumbersAndANumberFetchesOne)
{
    ASSERT_TRUE(server.Start());
    for (const char* szDir : {"one", "two"})
    {
        std::filesystem::create_directories(At(szDir));
        ZV_WriteRandomFile(At(std::string(szDir) + "/d.txt"), 3000, (unsigned)szDir[0]);
    }
    ASSERT_EQ(0, Run(kAlice, {"--json", "share", "one/d.txt", "two/d.txt"})) << Err(kAlice);
    std::vector<int> vecIDs;
    for (const std::string& sLine : Lines(Out(kAlice)))
        vecIDs.push_back(nlohmann::json::parse(sLine).at("id").get<int>());
    ASSERT_EQ(2u, vecIDs.size());

    EXPECT_EQ(4, Run(kBob, {"get", "d.txt"}));
    const std::string sErr = Err(kBob);
    EXPECT_EQ(1u, Lines(sErr).size()) << sErr;
    for (int nID : vecIDs)
        EXPECT_NE(sErr.find(std::to_string(nID)), std::string::npos) << sErr;
    ASSERT_EQ(0, Run(kBob, {"get", std::to_string(vecIDs[1]), "-o", "in"})) << Err(kBob);
    EXPECT_TRUE(ZV_SameFiles(At("two/d.txt"), At("in/d.txt")));
}

TEST_P(CliProcess, AGetKilledHalfWayFinishesFromItsFileWhenRunAgain)
{
    ASSERT_TRUE(server.Start());
    ZV_WriteRandomFile(At("a.bin"), 2 * kMiB, 7);
    ASSERT_EQ(0, Run(kAlice, {"share", "a.bin"})) << Err(kAlice);
    auto lpBob = Start(kBob, {"--rate", "600000", "get", "a.bin", "-o", "in"});
    ASSERT_TRUE(ZV_WaitFor([&] { return ZV_FileSize(At("in/a.bin")) >= kMiB / 2; }));
    lpBob->Signal(SIGKILL);
    lpBob->Wait();
    ASSERT_LT(ZV_FileSize(At("in/a.bin")), 2 * kMiB);
    ASSERT_EQ(0, Run(kBob, {"get", "a.bin", "-o", "in"})) << Err(kBob);
    EXPECT_TRUE(ZV_SameFiles(At("a.bin"), At("in/a.bin")));
    EXPECT_FALSE(std::filesystem::exists(At("in/a(1).bin"))) << "it went on, rather than start anew";
}

TEST_P(CliProcess, WhatCannotBeDoneIsSaidInOneLineWithItsExitCode)
{
    ASSERT_TRUE(server.Start());
    std::ofstream(At("wrong.secret")) << "not the secret\n";
    struct Row
    {
        const char* szName;
        std::vector<std::string> vecArgs;
        int nExit;
        const char* szSays;
        bool bNeedsLogins;
    } aRows[] = {
        {"a server that is not there", {"--server", "127.0.0.1:" + std::to_string(ZV_FreeLowPort()), "ls"}, 3,
         "cannot reach the server", false},
        {"a wrong secret", {"--secret-file", "wrong.secret", "ls"}, 3, "refused the login", true},
        {"a file that does not exist", {"share", "nothing.bin"}, 4, "no file nothing.bin", false},
        {"a name no file bears", {"get", "nothing.bin"}, 4, "no file called \"nothing.bin\"", false},
        {"no conference", {"--conference", "0", "ls"}, 2, "not a good conference", false},
    };
    for (const Row& row : aRows)
    {
        if (row.bNeedsLogins && !GetParam().bLogins)
            continue;
        EXPECT_EQ(row.nExit, Run(kBob, row.vecArgs)) << row.szName;
        const std::vector<std::string> vecErr = Lines(Err(kBob));
        ASSERT_EQ(1u, vecErr.size()) << row.szName << ": " << Err(kBob);
        EXPECT_NE(vecErr[0].find(row.szSays), std::string::npos) << row.szName << ": " << vecErr[0];
        EXPECT_EQ("", Out(kBob)) << row.szName;
    }
}

// The shell on a pseudo-terminal, as a person at a terminal sees it: a
// progress bar, a stop and a resume of the running download, and an event
// of another user's share.
TEST_P(CliProcess, TheShellShowsABarAStopAResumeAndAnotherUsersShare)
{
    ASSERT_TRUE(server.Start());
    ZV_WriteRandomFile(At("a.bin"), 2 * kMiB, 9);
    ZV_WriteRandomFile(At("late.bin"), 100, 10);
    ASSERT_EQ(0, Run(kAlice, {"share", "a.bin"})) << Err(kAlice);
    const std::string sConfig = Config(kBob, server.GetAddress());
    int nTerminal = -1;
    const pid_t nPid = forkpty(&nTerminal, nullptr, nullptr, nullptr);
    ASSERT_GE(nPid, 0);
    if (nPid == 0)
    {
        setenv("TERM", "xterm", 0);
        if (chdir(sDir.c_str()) == 0)
            execl(ROOMCRATE_CLIENT, ROOMCRATE_CLIENT, "--config", sConfig.c_str(), "--rate", "500000", "shell",
                  (char*)nullptr);
        _exit(127);
    }
    std::string sScreen;
    auto Until = [&](const std::string& sWhat) {
        return ZV_WaitFor([&] {
            pollfd pfd{nTerminal, POLLIN, 0};
            char ac[4096];
            while (poll(&pfd, 1, 50) > 0)
            {
                const ssize_t n = read(nTerminal, ac, sizeof ac);
                if (n <= 0)
                    break;
                sScreen.append(ac, (size_t)n);
            }
            return sScreen.find(sWhat) != std::string::npos;
        });
    };
    auto Type = [&](const std::string& sLine) { return write(nTerminal, sLine.data(), sLine.size()) > 0; };
    EXPECT_TRUE(Until("roomcrate> ")) << sScreen;
    ASSERT_TRUE(Type("get a.bin -o in\n"));
    EXPECT_TRUE(Until("a.bin [#")) << sScreen;
    ASSERT_TRUE(Type("stop a.bin\n"));
    EXPECT_TRUE(Until("stopped ")) << sScreen;
    ASSERT_TRUE(Type("resume a.bin\n"));
    EXPECT_TRUE(Until("resumed ")) << sScreen;
    ASSERT_EQ(0, Run(kAlice, {"share", "late.bin"})) << Err(kAlice);
    EXPECT_TRUE(Until("* new file: ")) << sScreen;
    EXPECT_TRUE(Until("fetched ")) << sScreen;
    ASSERT_TRUE(Type("quit\n"));
    int nStatus = -1;
    EXPECT_TRUE(ZV_WaitFor([&] { return waitpid(nPid, &nStatus, WNOHANG) == nPid; }));
    EXPECT_TRUE(WIFEXITED(nStatus) && WEXITSTATUS(nStatus) == 0) << nStatus;
    close(nTerminal);
    EXPECT_TRUE(ZV_SameFiles(At("a.bin"), At("in/a.bin")));
}

INSTANTIATE_TEST_SUITE_P(Modes, CliProcess, ::testing::Values(kNetClear, kNetSecure),
                         [](const auto& info) { return std::string(info.param.szName); });
