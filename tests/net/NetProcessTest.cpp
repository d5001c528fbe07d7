// roomcrate-server and the test client as people run them: real processes
// on loopback, each step bounded in time, the bytes compared at the end;
// each test in the clear without logins, and on TLS with logins.
#include "ZV_NetProcess.h"
#include "ZV_TestProxy.h"

#include <gtest/gtest.h>

#include <filesystem>

namespace {

constexpr uint32_t kAlice = 10001;
constexpr uint32_t kBob = 10002;
constexpr uint32_t kCarol = 10003;
constexpr size_t kMiB = 1 << 20;
// A downloader this slow takes a few seconds over a file of 2 MiB, long
// enough to be cut, killed or have its server restarted in the middle.
const std::vector<std::string> kSlow = {"--rate", "600000"};

struct NetProcess : ::testing::TestWithParam<ZV_NetMode>
{
    QB_TempFolder tmp;
    std::string sDir = tmp.Path();
    ZV_NetSetup setup{sDir, GetParam()};

    std::string At(const std::string& sName) const { return sDir + "/" + sName; }
    int RunClient(const std::string& sName, uint32_t ulUser, const std::string& sServer,
                  const std::vector<std::string>& vecSteps, const std::vector<std::string>& vecOptions = {})
    {
        return ZV_RunClient(setup, sName, ulUser, sServer, vecSteps, vecOptions);
    }
    std::unique_ptr<ZV_Process> StartClient(const std::string& sName, uint32_t ulUser, const std::string& sServer,
                                            const std::vector<std::string>& vecSteps,
                                            const std::vector<std::string>& vecOptions = {})
    {
        return ZV_StartClient(setup, sName, ulUser, sServer, vecSteps, vecOptions);
    }
    // Alice shares a file of nBytes and leaves once the server has it all.
    void AliceShares(const std::string& sServer, const std::string& sName, size_t nBytes)
    {
        ZV_WriteRandomFile(At(sName), nBytes, (unsigned)nBytes);
        ASSERT_EQ(0, RunClient("alice", kAlice, sServer, {"share", sName}));
    }
    // Waits until a download has some bytes and not all of them.
    bool PartWay(const std::string& sTarget, uint64_t ullBytes)
    {
        return ZV_WaitFor([&] { return ZV_FileSize(At(sTarget)) >= ullBytes; });
    }
};

// The first "progress" line of a client's output: how far its download
// stood when the first block came.
double FirstProgress(const std::string& sOut)
{
    const size_t nAt = sOut.find("progress ");
    if (nAt == std::string::npos)
        return -1;
    const size_t nValue = sOut.find(' ', nAt + 9);
    return std::atof(sOut.c_str() + nValue + 1);
}

}  // namespace

// The server stopped and started again under a download shows its files,
// and its clients go on; a second login of a user takes the place of the
// first.
TEST_P(NetProcess, ClientsShareAndFetchByteForByteThroughARestartAndASecondLogin)
{
    ZV_ServerUnderTest server(setup, At("srv1"), 1);
    ASSERT_TRUE(server.Start(true));
    AliceShares(server.GetAddress(), "a.bin", 2 * kMiB + 123);
    auto lpBob = StartClient("bob", kBob, server.GetAddress(), {"get", "a.bin", "b.bin"}, kSlow);
    ASSERT_TRUE(PartWay("b.bin", kMiB / 2));
    ASSERT_EQ(0, server.Stop()) << "SIGTERM is a clean exit";
    ASSERT_TRUE(server.Start());
    EXPECT_EQ(0, lpBob->Wait());
    EXPECT_TRUE(ZV_SameFiles(At("a.bin"), At("b.bin")));
    EXPECT_EQ(0, RunClient("carol", kCarol, server.GetAddress(), {"get", "a.bin", "c.bin"}));
    EXPECT_TRUE(ZV_SameFiles(At("a.bin"), At("c.bin")));

    auto Count = [&](const std::string& sWhat) { return QB_CountInFiles(server.GetDir() + "/server.err", sWhat); };
    const size_t nIn = Count("bob (10002) is in conference 100"), nAgain = Count("bob (10002) logs in again");
    auto lpFirst = StartClient("first", kBob, server.GetAddress(), {"stay"});
    ASSERT_TRUE(ZV_WaitFor([&] { return Count("bob (10002) is in conference 100") > nIn; }));
    auto lpSecond = StartClient("second", kBob, server.GetAddress(), {"stay"});
    EXPECT_EQ(3, lpFirst->Wait(std::chrono::seconds(10))) << "the first is told and stops";
    EXPECT_TRUE(lpSecond->IsRunning());
    EXPECT_EQ(Count("bob (10002) logs in again"), nAgain + 1);
    EXPECT_EQ(0, server.Stop());
    EXPECT_EQ(Count("traffic is in the clear"), GetParam().bTls ? 0u : 2u) << "once a start";
}

// A client killed in the middle of a download asks for nothing once started
// again: its server lists the download, and it goes on from what its file
// holds. One whose link is cut and restored within the grace period ends
// byte for byte, and leaves only at its goodbye.
TEST_P(NetProcess, ADownloadGoesOnWhereItStoodAfterAKillOrACutLink)
{
    ZV_ServerUnderTest server(setup, At("srv1"), 1);
    ASSERT_TRUE(server.Start());
    AliceShares(server.GetAddress(), "a.bin", 2 * kMiB);
    auto lpBob = StartClient("bob", kBob, server.GetAddress(), {"get", "a.bin", "b.bin"}, kSlow);
    ASSERT_TRUE(PartWay("b.bin", kMiB / 2));
    lpBob->Signal(SIGKILL);
    lpBob->Wait();
    std::filesystem::rename(At("bob.out"), At("bob-first.out"));
    EXPECT_EQ(0, RunClient("bob", kBob, server.GetAddress(), {"await", "a.bin"}));
    EXPECT_TRUE(ZV_SameFiles(At("a.bin"), At("b.bin")));
    EXPECT_GE(FirstProgress(ZV_ReadText(At("bob.out"))), 20.0) << "it started again from its file's end";

    ZV_TestProxy proxy(ZV_FreeLowPort(), server.GetPort());
    auto lpCarol = StartClient("carol", kCarol, proxy.GetAddress(), {"get", "a.bin", "c.bin"}, kSlow);
    ASSERT_TRUE(PartWay("c.bin", kMiB / 2));
    proxy.Cut();
    ASSERT_TRUE(ZV_WaitFor([&] { return server.Log().find("carol (10003) lost its link") != std::string::npos; }));
    proxy.Restore();
    EXPECT_EQ(0, lpCarol->Wait()) << ZV_ReadText(At("carol.err")) << server.Log();
    EXPECT_TRUE(ZV_SameFiles(At("a.bin"), At("c.bin")));
    const std::string sLog = server.Log();
    EXPECT_EQ(sLog.find("carol (10003) left"), sLog.find("carol (10003) left conference 100: said goodbye"))
        << "carol only lost her link, and left at her goodbye";
    EXPECT_EQ(sLog.find(", returning"), std::string::npos);
    EXPECT_EQ(proxy.Recorded().find("RCRT") == std::string::npos, GetParam().bTls) << "on TLS no byte shows";
}

// Server 2 waits for server 1's call; the file travels through both.
TEST_P(NetProcess, AFileSharedAtOneServerIsFetchedAtItsLinkedServer)
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
    ZV_ServerUnderTest server1(setup, At("srv1"), 1, Users(2));
    server1.AddPeer(2, server2.GetPort());
    ASSERT_TRUE(server1.Start());
    ASSERT_TRUE(ZV_WaitFor([&] { return server1.Log().find("server link to server 2 is up") != std::string::npos; }));
    AliceShares(server1.GetAddress(), "a.bin", 3 * kMiB);
    EXPECT_EQ(0, RunClient("dave", 20001, server2.GetAddress(), {"get", "a.bin", "d.bin"}));
    EXPECT_TRUE(ZV_SameFiles(At("a.bin"), At("d.bin")));
    EXPECT_TRUE(ZV_SameFiles(At("a.bin"), server2.Stored("a.bin"))) << "server 2 keeps a copy of its own";
}

// A user who left (event 4) takes an upload that never began with him; one
// who only lost the link keeps it through the grace period.
TEST_P(NetProcess, AUserLeavesOnAGoodbyeOrWhenNotBackWithinTheGracePeriod)
{
    ZV_ServerUnderTest server(setup, At("srv1"), 1, {}, 2);
    ASSERT_TRUE(server.Start());
    const struct
    {
        const char* szCase;
        std::vector<std::string> vecOptions;
        bool bGoneAtOnce;
    } aRows[] = {
        {"a goodbye", {}, true},
        {"a lost link", {"--no-goodbye"}, false},
    };
    int nRow = 0;
    for (const auto& row : aRows)
    {
        SCOPED_TRACE(row.szCase);
        const std::string sName = "later" + std::to_string(++nRow) + ".bin";
        ZV_WriteRandomFile(At(sName), 1000, nRow);
        ASSERT_EQ(0, RunClient("alice", kAlice, server.GetAddress(), {"share-later", sName}, row.vecOptions));
        auto Gone = [&] { return !std::filesystem::exists(server.Stored(sName)); };
        EXPECT_EQ(ZV_WaitFor(Gone, std::chrono::seconds(1)), row.bGoneAtOnce);
        EXPECT_TRUE(ZV_WaitFor(Gone, std::chrono::seconds(5)));
    }
    EXPECT_NE(server.Log().find("alice (10001) left conference 100: not back within the grace period"),
              std::string::npos);
}

INSTANTIATE_TEST_SUITE_P(Modes, NetProcess, ::testing::Values(kNetClear, kNetSecure),
                         [](const auto& info) { return std::string(info.param.szName); });
