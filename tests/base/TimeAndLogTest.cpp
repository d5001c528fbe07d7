// The calendar and the clock, and the logs stamped with them.
#include "QB_DatetimeEx.h"
#include "QB_FaultEnv.h"
#include "QB_Log.h"
#include "QB_TestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

namespace fs = std::filesystem;

namespace {

constexpr int64_t TIME_2011_03_16_072148 = 1300260108;  // UTC
constexpr int64_t TIME_2011_03_16_235959 = 1300319999;

using Files = std::vector<std::string>;

int DaysInMonth(int nYear, int nMonth)
{
    const bool bLeap = (nYear % 4 == 0 && nYear % 100 != 0) || nYear % 400 == 0;
    return nMonth == 2 ? (bLeap ? 29 : 28) : nMonth == 4 || nMonth == 6 || nMonth == 9 || nMonth == 11 ? 30 : 31;
}

QB_DateTimeEx Raw(int32_t nDate, int32_t nTime) { QB_DateTimeEx dt; dt.m_Date = nDate, dt.m_Time = nTime; return dt; }

std::string Text(const QB_DateTimeEx& dt, int nMode = 0, const char* pszSeparator = "-") { return dt.ToText(nMode, pszSeparator).GetString(); }

// 0033-09-09 11:11:11: a start value that shows which part a call stored.
const QB_DateTimeEx s_dtMarker = Raw(12305, 402710000);

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

// The client log (mode -2 here) takes the platform's local time as it
// stands, wider than four digits or not, never reads its message as a
// format, and has no fixed buffer to cut a long message.
TEST(Log, NamesItsFileByTheRotationModeAndTheLogNameAndWritesTheClientLogWithPercentSignsIntact)
{
    const int64_t llYear999 = (QB_DateTimeEx::DayNumber(999, 12, 31) - 719528) * 86400LL + 3723;
    const std::string sLong = std::string(5000, 'a') + "z", s0721 = "2011-03-16 07:21:48 : ";
    const struct { int nMode; const char* pszName; int64_t llTimeT; int32_t nBias; std::string sFile, sArgument, sLine; } aCases[] = {
        {1, "fileshare", TIME_2011_03_16_072148, 0, "log_fileshare_2011_03_16_07", "1", s0721},
        {1, "fileshare", TIME_2011_03_16_072148, -3600, "log_fileshare_2011_03_16_08", "1", "2011-03-16 08:21:48 : "},
        {3, "error", TIME_2011_03_16_072148, 0, "log_error_2011_03", "3", s0721},
        {4, "error", TIME_2011_03_16_072148, 0, "log_error_2011", "4", s0721},
        {0, "x", TIME_2011_03_16_072148, 0, "log_x", "0", s0721}, {-1, "x", TIME_2011_03_16_072148, 0, "log_x", "-1", s0721},
        {2, nullptr, TIME_2011_03_16_072148, 0, "log_2011_03_16", "2", s0721}, {0, nullptr, TIME_2011_03_16_072148, 0, "log", "0", s0721},
        {-2, nullptr, TIME_2011_03_16_235959, 0, "log_error_client", "%s%n%d", "2011-03-16 23:59:59 : "},
        {-2, nullptr, llYear999, 0, "log_error_client", "y", " 999-12-31 01:02:03 : "},
        {-2, nullptr, TIME_2011_03_16_072148, 0, "log_error_client", sLong, s0721},
    };
    for (const auto& c : aCases)
    {
        SCOPED_TRACE(c.sFile + " " + c.sArgument.substr(0, 10));
        LogHome home;
        home.SetClock(c.llTimeT, c.nBias);
        c.nMode == -2 ? QB_WriteClientLog("%s\r\n", c.sArgument.c_str()) : QB_WriteLog(c.nMode, c.pszName, "line %s\r\n", c.sArgument.c_str());
        EXPECT_EQ(home.List(), Files{"log/" + c.sFile + ".txt"});
        EXPECT_EQ(home.Read("log/" + c.sFile + ".txt"), c.sLine + (c.nMode == -2 ? "" : "line ") + c.sArgument + "\r\n");
    }
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
        QB_WriteLog(2, "error", "three\r\n");  // the same log a second later
        QB_WriteLog(2, "fileshare", "four\r\n");
        EXPECT_EQ(home.List(), Files{});
    }
    EXPECT_EQ(home.Read("log/log_fileshare_2011_03_16.txt"),
              "2011-03-16 07:21:48 : one\r\n" "2011-03-16 07:21:49 : four\r\n");
    QB_WriteLog(2, "error", "after\r\n");
    EXPECT_EQ(home.Read("log/log_error_2011_03_16.txt"),
              "2011-03-16 07:21:48 : two\r\n" "2011-03-16 07:21:49 : three\r\n" "2011-03-16 07:21:49 : after\r\n");
    // A batch that has kept 64 KB writes them without waiting for its end.
    QB_LogBatch batch;
    QB_WriteLog(2, "big", "%s", std::string(64 * 1024 - 22, 'b').c_str());
    EXPECT_EQ(home.Read("log/log_big_2011_03_16.txt").size(), 64u * 1024);
}

TEST(DateTime, NumbersEveryDayFromYearZeroToYear9999InCalendarOrder)
{
    int nYear = 0, nMonth = 1, nDay = 1;
    QB_DateTimeEx dt;
    for (int32_t nDate = QB_DATE_MIN; nDate <= QB_DATE_MAX; ++nDate)
    {
        dt.m_Date = nDate;
        if (dt.GetYear() != nYear || dt.GetMonth() != nMonth || dt.GetDay() != nDay ||
            QB_DateTimeEx::DayNumber(nYear, nMonth, nDay) != nDate || !QB_DateTimeEx::IsValidDate(nYear, nMonth, nDay))
            FAIL() << "day " << nDate << " is " << Text(dt) << ", expected " << nYear << "-" << nMonth << "-" << nDay;
        if (++nDay <= DaysInMonth(nYear, nMonth))
            continue;
        if (QB_DateTimeEx::IsValidDate(nYear, nMonth, nDay))
            FAIL() << nYear << "-" << nMonth << "-" << nDay << " taken for a date";
        nDay = 1;
        if (++nMonth > 12)
            nMonth = 1, ++nYear;
    }
    EXPECT_EQ(nYear, 10000);
}

TEST(DateTime, StartsAt1900AndWritesItsTextInEachMode)
{
    const QB_DateTimeEx dtFraction = Raw(734577, 265085000);  // 2011-03-16 07:21:48.5
    struct { QB_DateTimeEx dt; int nMode; const char* pszSeparator; const char* pszText; } const aCases[] = {
        {QB_DateTimeEx(), 0, "-", "1900-01-01 00:00:00"}, {dtFraction, 2, ".", "2011.03.16 07:21"},
        {Raw(0, 1), 0, nullptr, "00000101 00:00:00.0001"},
        {Raw(3652424, 863999999), 0, "-", "9999-12-31 23:59:59.9999"},
        {Raw(-1, 0), 0, "-", "0000-01-01 00:00:00"},  // days outside the calendar: its ends
        {Raw(3652425, 0), 0, "-", "9999-12-31 00:00:00"},
    };
    for (const auto& c : aCases)
        EXPECT_EQ(Text(c.dt, c.nMode, c.pszSeparator), c.pszText);
}

TEST(DateTime, ParsesDatesAndTimesAndKeepsWhatEarlierStepsStored)
{
    struct { const char* pszText; bool bOk; const char* pszAfter; } const aCases[] = {
        {"2011-3-6", true, "2011-03-06 00:00:00"}, {"2011/03/16 07:21:48.5", true, "2011-03-16 07:21:48.5000"},
        {"2011-03-16 07:21:48.123456789012", true, "2011-03-16 07:21:48.1234"},  // 32 characters
        {"2011-03-16 07:21:48.1234567890123", false, "0033-09-09 11:11:11"},     // 33
        {"", false, "0033-09-09 00:00:00"}, {"2011x03-16 07:21", false, "0033-09-09 11:11:11"},
        {"2011-13-01", false, "0033-09-09 00:00:00"}, {"2011-03-16 24:00:00", false, "2011-03-16 11:11:11"},
        {"2011-03-16 07:21:48.5x", false, "2011-03-16 11:11:11"}, {"2011.3.6\t07:21", true, "2011-03-06 07:21:00"},
        {"2011-03-16-1", false, "0033-09-09 00:00:00"}, {"2011-03-16 07", false, "2011-03-16 11:11:11"},
        {"2011-03-16 07:21x", false, "2011-03-16 11:11:11"}, {"2011-03-16 07:21:48x", false, "2011-03-16 11:11:11"},
    };
    for (const auto& c : aCases)
    {
        QB_DateTimeEx dtFromChars = s_dtMarker, dtFromString = s_dtMarker;
        EXPECT_EQ(dtFromChars.Parse(c.pszText), c.bOk) << '"' << c.pszText << '"';
        EXPECT_EQ(dtFromString.Parse(QB_StringA(c.pszText)), c.bOk) << '"' << c.pszText << '"';
        EXPECT_EQ(Text(dtFromChars), c.pszAfter) << '"' << c.pszText << '"';
        EXPECT_EQ(dtFromString, dtFromChars) << '"' << c.pszText << '"';
    }
    QB_DateTimeEx dt = s_dtMarker;
    EXPECT_FALSE(dt.Parse((const char*)nullptr) || dt.Parse(QB_StringA("2011-03-16\0", 11)));
    EXPECT_EQ(dt, s_dtMarker);
}

TEST(DateTime, TakesNowFromTheClockLessTheZoneBiasAndBrokenDownTimeToTheSecond)
{
    // A second before 1970, and clocks outside the calendar.
    const struct { int64_t llTime; int32_t nBias; const char* pszText; } aTimes[] = {
        {1300260108, -3600, "2011-03-16 08:21:48"}, {-1, 0, "1969-12-31 23:59:59"}, {-400000000000LL, 0, nullptr},
        {(int64_t)1 << 41, 0, nullptr}};
    for (const auto& [llTime, nBias, pszText] : aTimes)
    {
        LogHome home;
        home.SetClock(llTime, nBias);
        QB_DateTimeEx dtAt = s_dtMarker;
        EXPECT_EQ(pszText != nullptr, dtAt.SetToNow()) << llTime;
        EXPECT_EQ(Text(dtAt), pszText ? pszText : Text(s_dtMarker)) << llTime;
    }
    QB_DateTimeEx dt;
    QB_SystemTime st{2011, 3, 3, 16, 7, 21, 48, 999};
    ASSERT_TRUE(dt.SetFromSystemTime(st)) << "broken-down time is taken to the second";
    EXPECT_EQ(Text(dt), "2011-03-16 07:21:48");
    st.wMonth = 13;
    EXPECT_FALSE(dt.SetFromSystemTime(st) || dt.SetDateTime(2011, 3, 16, 24, 0, 0, 0) ||
                 dt.SetDateTime(2011, 3, 16, 7, 0, 0, QB_TICKS_PER_SECOND));
    EXPECT_EQ(Text(dt), "2011-03-16 07:21:48");
    // A raw day number is stored whenever it is valid, its time only with it.
    dt = Raw(5, 6);
    EXPECT_TRUE(!dt.SetRaw(-1, 0) && dt == Raw(5, 6) && !dt.SetRaw(100, 864000000) && dt == Raw(100, 6));
    EXPECT_TRUE(dt.SetRaw(3652424, 863999999) && dt == Raw(3652424, 863999999) && dt.SetRaw(0, 0) && dt == Raw(0, 0));
}
