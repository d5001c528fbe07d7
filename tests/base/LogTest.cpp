#include "QB_FixedTimeEnv.h"
#include "QB_Log.h"
#include "QB_TestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

namespace fs = std::filesystem;

namespace {

constexpr int64_t TIME_2011_03_16_072148 = 1300260108;  // UTC
constexpr int64_t TIME_2011_03_16_235959 = 1300319999;

std::u16string Wide(const std::string& s) { return std::u16string(s.begin(), s.end()); }

// Counts the log's files that are open at once; the yield gives another
// writer the chance to come in while one is inside.
class OverlapCountingEnv : public QB_FixedTimeEnv
{
public:
    std::atomic<int> m_nInside{0};
    std::atomic<int> m_nMostInside{0};

    QB_FileHandle OpenFile(const std::u16string& sPath, uint32_t ulMode) override
    {
        int nInside = ++m_nInside;
        if (nInside > m_nMostInside)
            m_nMostInside = nInside;
        std::this_thread::yield();
        return QB_FixedTimeEnv::OpenFile(sPath, ulMode);
    }
    bool CloseFile(QB_FileHandle hFile) override
    {
        --m_nInside;
        return QB_FixedTimeEnv::CloseFile(hFile);
    }
};

// A module folder of its own, optionally with its "log" folder, and a clock
// that stands where the test puts it.
template <typename Env>
struct LogHomeOf
{
    QB_TempFolder tmp;
    Env env;
    std::u16string sFolder;  // Windows form, trailing backslash

    explicit LogHomeOf(bool bWithLogFolder = true)
    {
        QB_StringW sPath = tmp.PathW();
        sFolder.assign(sPath.GetString(), (size_t)sPath.GetLength());
        env.m_sModuleFolder = sFolder;
        env.m_llTimeT = TIME_2011_03_16_072148;
        if (bWithLogFolder)
            fs::create_directory(tmp.Sub("log"));
    }

    // The Windows-form path below the module folder of a "log/..." name.
    std::u16string PathOf(std::string sRelative) const
    {
        std::replace(sRelative.begin(), sRelative.end(), '/', '\\');
        return sFolder + Wide(sRelative);
    }

    // Names of the files below the module folder, "log/..." for the log's.
    std::vector<std::string> Files() const
    {
        std::vector<std::string> vs;
        for (const auto& entry : fs::recursive_directory_iterator(tmp.Path()))
            if (entry.is_regular_file())
                vs.push_back(fs::relative(entry.path(), tmp.Path()).generic_string());
        std::sort(vs.begin(), vs.end());
        return vs;
    }
    std::string Read(const std::string& sRelative) const
    {
        std::vector<uint8_t> vb = QB_ReadWholeFile(tmp.Sub(sRelative));
        return std::string(vb.begin(), vb.end());
    }
};

using LogHome = LogHomeOf<QB_FixedTimeEnv>;
using Files = std::vector<std::string>;
using Paths = std::vector<std::u16string>;

}  // namespace

TEST(Log, NamesItsFileByTheRotationModeAndTheLogName)
{
    struct
    {
        int nMode;
        const char* pszName;
        int32_t nZoneBias;
        const char* pszFile;
    } const aCases[] = {
        {1, "fileshare", 0, "log/log_fileshare_2011_03_16_07.txt"},
        {1, "fileshare", -3600, "log/log_fileshare_2011_03_16_08.txt"},
        {2, "error", 0, "log/log_error_2011_03_16.txt"},
        {3, "error", 0, "log/log_error_2011_03.txt"},
        {4, "error", 0, "log/log_error_2011.txt"},
        {0, "x", 0, "log/log_x.txt"},
        {5, "x", 0, "log/log_x.txt"},
        {-1, "x", 0, "log/log_x.txt"},
        {2, nullptr, 0, "log/log_2011_03_16.txt"},
        {2, "", 0, "log/log_2011_03_16.txt"},
        {0, nullptr, 0, "log/log.txt"},
    };
    for (const auto& c : aCases)
    {
        LogHome home;
        home.env.m_nZoneBias = c.nZoneBias;
        QB_WriteLog(c.nMode, c.pszName, "line %d\r\n", c.nMode);
        SCOPED_TRACE(c.pszFile);
        EXPECT_TRUE(home.env.OpenedPaths() == Paths{home.PathOf(c.pszFile)});
        EXPECT_EQ(home.Files(), Files{c.pszFile});
        std::string sTime = c.nZoneBias == 0 ? "2011-03-16 07:21:48" : "2011-03-16 08:21:48";
        EXPECT_EQ(home.Read(c.pszFile), sTime + " : line " + std::to_string(c.nMode) + "\r\n");
    }
}

TEST(Log, StartsANewFileAtMidnightInDailyMode)
{
    LogHome home;
    home.env.m_llTimeT = TIME_2011_03_16_235959;
    QB_WriteLog(2, "error", "last\r\n");
    home.env.m_llTimeT = TIME_2011_03_16_235959 + 1;
    QB_WriteLog(2, "error", "first\r\n");

    EXPECT_EQ(home.Files(), (Files{"log/log_error_2011_03_16.txt", "log/log_error_2011_03_17.txt"}));
    EXPECT_EQ(home.Read("log/log_error_2011_03_16.txt"), "2011-03-16 23:59:59 : last\r\n");
    EXPECT_EQ(home.Read("log/log_error_2011_03_17.txt"), "2011-03-17 00:00:00 : first\r\n");
}

TEST(Log, AppendsBehindWhatTheFileHeldAndAddsNoLineEnd)
{
    LogHome home;
    ASSERT_TRUE(QB_WriteWholeFile(home.tmp.Sub("log/log_error_2011_03_16.txt"), "earlier\r\n"));
    QB_WriteLog(2, "error", "%s.%s exception.\r\n", "ZV_FileShareMgr::OnSend", "OnSend");
    QB_WriteLog(2, "error", "no end");
    QB_WriteLog(2, "error", "%s", "");
    EXPECT_EQ(home.Read("log/log_error_2011_03_16.txt"),
              "earlier\r\n"
              "2011-03-16 07:21:48 : ZV_FileShareMgr::OnSend.OnSend exception.\r\n"
              "2011-03-16 07:21:48 : no end"
              "2011-03-16 07:21:48 : ");
}

TEST(Log, LosesTheLineSilentlyWithoutALogFolder)
{
    LogHome home(false);
    QB_WriteLog(2, "error", "lost\r\n");
    QB_WriteClientLog("lost too\r\n");
    EXPECT_EQ(home.env.OpenedPaths().size(), 2u);
    EXPECT_EQ(home.Files(), Files{});
    EXPECT_FALSE(fs::exists(home.tmp.Sub("log")));
}

TEST(Log, KeepsAMessageLongerThanAnyFixedBufferWhole)
{
    LogHome home;
    std::string sLong(5000, 'a');
    sLong.back() = 'z';
    QB_WriteLog(0, "long", "%s\r\n", sLong.c_str());
    QB_WriteClientLog("%s\r\n", sLong.c_str());
    EXPECT_EQ(home.Read("log/log_long.txt"), "2011-03-16 07:21:48 : " + sLong + "\r\n");
    EXPECT_EQ(home.Read("log/log_error_client.txt").size(), 22 + sLong.size() + 2);
}

TEST(Log, WritesTheClientLogWithThePlatformsLocalTimeAndPercentSignsIntact)
{
    struct
    {
        const char* pszName;
        QB_SystemTime st;
        bool bFolderWithBackslash;
        const char* pszArgument;
        const char* pszLine;
    } const aCases[] = {
        {"percent in an argument", {2011, 3, 0, 6, 7, 5, 9, 0}, true, "100% done", "2011-03-06 07:05:09 : 100% done\r\n"},
        {"format directives in an argument", {2011, 3, 0, 16, 23, 59, 59, 0}, true, "%s%n%d",
         "2011-03-16 23:59:59 : %s%n%d\r\n"},
        {"folder without its backslash", {2011, 3, 0, 16, 0, 0, 0, 0}, false, "x", "2011-03-16 00:00:00 : x\r\n"},
        {"year of three digits", {999, 12, 0, 31, 1, 2, 3, 0}, true, "y", " 999-12-31 01:02:03 : y\r\n"},
    };
    for (const auto& c : aCases)
    {
        LogHome home;
        home.env.m_stLocal = c.st;
        if (!c.bFolderWithBackslash)
            home.env.m_sModuleFolder.pop_back();
        QB_WriteClientLog("%s\r\n", c.pszArgument);
        EXPECT_TRUE(home.env.OpenedPaths() == Paths{home.PathOf("log/log_error_client.txt")}) << c.pszName;
        EXPECT_EQ(home.Files(), Files{"log/log_error_client.txt"}) << c.pszName;
        EXPECT_EQ(home.Read("log/log_error_client.txt"), c.pszLine) << c.pszName;
    }
    LogHome home;
    home.env.m_stLocal = {2011, 3, 0, 16, 7, 21, 48, 0};
    QB_WriteClientLog("%d%% of %s\r\n", 50, "file");
    QB_WriteClientLog("again\r\n");
    EXPECT_EQ(home.Read("log/log_error_client.txt"),
              "2011-03-16 07:21:48 : 50% of file\r\n2011-03-16 07:21:48 : again\r\n");
}

TEST(Log, WritesOneLineAtATimeFromManyThreads)
{
    LogHomeOf<OverlapCountingEnv> home;
    constexpr int THREADS = 4;
    constexpr int LINES = 100;
    std::vector<std::thread> vThreads;
    for (int t = 0; t < THREADS; ++t)
        vThreads.emplace_back([t] {
            for (int i = 0; i < LINES; ++i)
                QB_WriteLog(2, "fileshare", "thread %d line %03d\r\n", t, i);
        });
    for (auto& thread : vThreads)
        thread.join();
    EXPECT_EQ(home.env.m_nMostInside, 1);

    std::string sText = home.Read("log/log_fileshare_2011_03_16.txt");
    const std::string sLine = "2011-03-16 07:21:48 : thread 0 line 000\r\n";
    ASSERT_EQ(sText.size(), sLine.size() * THREADS * LINES);
    for (int t = 0; t < THREADS; ++t)
        for (int i = 0; i < LINES; ++i)
        {
            char szLine[64];
            std::snprintf(szLine, sizeof szLine, "2011-03-16 07:21:48 : thread %d line %03d\r\n", t, i);
            EXPECT_NE(sText.find(szLine), std::string::npos) << szLine;
        }
}
