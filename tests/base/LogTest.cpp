#include "QB_DatetimeEx.h"
#include "QB_FaultEnv.h"
#include "QB_Log.h"
#include "QB_TestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

namespace fs = std::filesystem;

namespace {

constexpr int64_t TIME_2011_03_16_072148 = 1300260108;  // UTC
constexpr int64_t TIME_2011_03_16_235959 = 1300319999;

using Files = std::vector<std::string>;

// A home folder of its own with its "log" folder, and a clock that stands
// where the test puts it.
struct LogHome
{
    QB_TempFolder tmp;
    QB_FaultEnv env;
    QB_ScopedEnv install{&env};

    LogHome()
    {
        QB_SetEnvironmentVariable("ROOMCRATE_HOME", tmp.Path().c_str());
        SetClock(TIME_2011_03_16_072148, 0);
        fs::create_directory(tmp.Sub("log"));
    }
    ~LogHome()
    {
        QB_SetEnvironmentVariable("ROOMCRATE_HOME", nullptr);
        QB_DateTimeEx::ResetTimeZoneCache();
    }
    void SetClock(int64_t llTimeT, int32_t nBias)
    {
        env.SetTimeT(llTimeT);
        env.SetTimeZoneBias(nBias);
        QB_DateTimeEx::ResetTimeZoneCache();
    }

    // Names of the files below the home folder, "log/..." for the log's.
    Files List() const
    {
        Files vs;
        for (const auto& entry : fs::recursive_directory_iterator(tmp.Path()))
            if (entry.is_regular_file())
                vs.push_back(fs::relative(entry.path(), tmp.Path()).generic_string());
        std::sort(vs.begin(), vs.end());
        return vs;
    }
    std::string Read(const std::string& sRelative) const
    {
        const std::vector<uint8_t> vb = QB_ReadWholeFile(tmp.Sub(sRelative));
        return {vb.begin(), vb.end()};
    }
};

}  // namespace

TEST(Log, NamesItsFileByTheRotationModeAndTheLogName)
{
    struct { int nMode; const char* pszName; int32_t nZoneBias; const char* pszFile; } const aCases[] = {
        {1, "fileshare", 0, "log/log_fileshare_2011_03_16_07.txt"},
        {1, "fileshare", -3600, "log/log_fileshare_2011_03_16_08.txt"}, {2, "error", 0, "log/log_error_2011_03_16.txt"},
        {3, "error", 0, "log/log_error_2011_03.txt"}, {4, "error", 0, "log/log_error_2011.txt"},
        {0, "x", 0, "log/log_x.txt"}, {-1, "x", 0, "log/log_x.txt"}, {2, nullptr, 0, "log/log_2011_03_16.txt"},
        {0, nullptr, 0, "log/log.txt"},
    };
    for (const auto& c : aCases)
    {
        SCOPED_TRACE(c.pszFile);
        LogHome home;
        home.SetClock(TIME_2011_03_16_072148, c.nZoneBias);
        QB_WriteLog(c.nMode, c.pszName, "line %d\r\n", c.nMode);
        EXPECT_EQ(home.List(), Files{c.pszFile});
        std::string sTime = c.nZoneBias == 0 ? "2011-03-16 07:21:48" : "2011-03-16 08:21:48";
        EXPECT_EQ(home.Read(c.pszFile), sTime + " : line " + std::to_string(c.nMode) + "\r\n");
    }
}

TEST(Log, AppendsWithoutALineEndOfItsOwnAndStartsANewDailyFileAtMidnight)
{
    LogHome home;
    home.SetClock(TIME_2011_03_16_235959, 0);
    ASSERT_TRUE(QB_WriteWholeFile(home.tmp.Sub("log/log_error_2011_03_16.txt"), "earlier\r\n"));
    QB_WriteLog(2, "error", "%s.%s exception.\r\n", "ZV_FileShareMgr::OnSend", "OnSend");
    QB_WriteLog(2, "error", "no end");
    home.SetClock(TIME_2011_03_16_235959 + 1, 0);
    QB_WriteLog(2, "error", "first\r\n");

    EXPECT_EQ(home.List(), (Files{"log/log_error_2011_03_16.txt", "log/log_error_2011_03_17.txt"}));
    EXPECT_EQ(home.Read("log/log_error_2011_03_16.txt"),
              "earlier\r\n" "2011-03-16 23:59:59 : ZV_FileShareMgr::OnSend.OnSend exception.\r\n" "2011-03-16 23:59:59 : no end");
    EXPECT_EQ(home.Read("log/log_error_2011_03_17.txt"), "2011-03-17 00:00:00 : first\r\n");
}

// Lines written in a batch reach their files only when it ends, each file's
// in order and stamped as they were written; outside it each line goes at once.
TEST(Log, ABatchWritesItsLinesWhenItEndsEachFileInOrder)
{
    LogHome home;
    {
        QB_LogBatch batch;
        QB_WriteLog(2, "fileshare", "one\r\n");
        QB_WriteLog(2, "error", "two\r\n");
        home.SetClock(TIME_2011_03_16_072148 + 1, 0);
        QB_WriteLog(2, "fileshare", "three\r\n");
        EXPECT_EQ(home.List(), Files{});
    }
    EXPECT_EQ(home.Read("log/log_fileshare_2011_03_16.txt"),
              "2011-03-16 07:21:48 : one\r\n" "2011-03-16 07:21:49 : three\r\n");
    EXPECT_EQ(home.Read("log/log_error_2011_03_16.txt"), "2011-03-16 07:21:48 : two\r\n");
    QB_WriteLog(2, "error", "after\r\n");
    EXPECT_EQ(home.Read("log/log_error_2011_03_16.txt"),
              "2011-03-16 07:21:48 : two\r\n" "2011-03-16 07:21:49 : after\r\n");
    // A batch that has kept 64 KB writes them without waiting for its end.
    QB_LogBatch batch;
    QB_WriteLog(2, "big", "%s", std::string(64 * 1024 - 22, 'b').c_str());
    EXPECT_EQ(home.Read("log/log_big_2011_03_16.txt").size(), 64u * 1024);
}

// The client log takes the platform's local time as it stands, wider than
// four digits or not, never reads its message as a format, and has no fixed
// buffer to cut a long message.
TEST(Log, WritesTheClientLogWithThePlatformsLocalTimeAndPercentSignsIntact)
{
    const int64_t llYear999 = (QB_DateTimeEx::DayNumber(999, 12, 31) - 719528) * 86400LL + 3723;
    const std::string sLong = std::string(5000, 'a') + "z";
    const std::string sLongLine = "2011-03-16 07:21:48 : " + sLong + "\r\n";
    struct { int64_t llTimeT; const char* pszArgument; const char* pszLine; } const aCases[] = {
        {TIME_2011_03_16_072148, "100% done", "2011-03-16 07:21:48 : 100% done\r\n"},
        {TIME_2011_03_16_235959, "%s%n%d", "2011-03-16 23:59:59 : %s%n%d\r\n"},
        {llYear999, "y", " 999-12-31 01:02:03 : y\r\n"}, {TIME_2011_03_16_072148, sLong.c_str(), sLongLine.c_str()},
    };
    for (const auto& c : aCases)
    {
        LogHome home;
        home.SetClock(c.llTimeT, 0);
        QB_WriteClientLog("%s\r\n", c.pszArgument);
        EXPECT_EQ(home.List(), Files{"log/log_error_client.txt"}) << c.pszArgument;
        EXPECT_EQ(home.Read("log/log_error_client.txt"), c.pszLine);
    }
}

