// QB_DateTimeEx: the system's calendar time, local wall-clock time with no
// zone attached. A day number counted from 0000-01-01 of the proleptic
// Gregorian calendar, and ticks of 1/10000 second since midnight. Records
// carry the two words as they are; the catalogue keeps the text form.
#pragma once

#include "QB_Env.h"
#include "QB_String.h"

#include <cstdint>

// Day numbers of a few dates the code and its users name.
constexpr int32_t QB_DATE_MIN = 0;            // 0000-01-01
constexpr int32_t QB_DATE_1900 = 693961;      // 1900-01-01, the default
constexpr int32_t QB_DATE_1970 = 719528;      // 1970-01-01, start of time_t
constexpr int32_t QB_DATE_MAX = 3652424;      // 9999-12-31
constexpr int32_t QB_TICKS_PER_SECOND = 10000;
constexpr int32_t QB_TICKS_PER_DAY = 864000000;

class QB_DateTimeEx
{
public:
    QB_DateTimeEx() = default;

    // From seconds since 1970 (UTC) to local time by the zone bias that the
    // platform gave at first use. False, nothing stored, when the day would
    // fall outside 0000-01-01 .. 9999-12-31.
    bool SetFromTimeT(int64_t llTime);
    // The current time of the platform, as SetFromTimeT.
    bool SetToNow();
    // Day number stored whenever valid; ticks only when both are.
    bool SetRaw(int32_t nDate, int32_t nTime);
    // Stores nothing unless every field is in range; nFraction is in ticks.
    bool SetDateTime(int nYear, int nMonth, int nDay, int nHour, int nMinute, int nSecond, int nFraction);
    // Broken-down local time, to the second: file times are compared by
    // their text form, and a millisecond part would make an unchanged file
    // look changed.
    bool SetFromSystemTime(const QB_SystemTime& st);

    // Text of up to 32 characters: "Y-M-D", optionally white space and
    // "h:m[:s[.f]]"; "/" and "." separate the date as well as "-". When a
    // later part fails, what the earlier parts stored stays.
    bool Parse(const char* pszText);
    bool Parse(const QB_StringA& sText);
    // Mode 1 "h:m:s", mode 2 "h:m", any other "h:m:s" with ".ffff" only
    // when there is a fraction. A null separator counts as "".
    QB_StringA ToText(int nMode = 0, const char* pszSeparator = "-") const;

    int GetYear() const;
    int GetMonth() const;
    int GetDay() const;
    int GetHour() const;
    int GetMinute() const;
    int GetSecond() const;
    int GetFraction() const;  // ticks within the second, 0..9999

    bool operator==(const QB_DateTimeEx& dt) const { return m_Date == dt.m_Date && m_Time == dt.m_Time; }
    bool operator<(const QB_DateTimeEx& dt) const { return m_Date != dt.m_Date ? m_Date < dt.m_Date : m_Time < dt.m_Time; }
    bool operator!=(const QB_DateTimeEx& dt) const { return !(*this == dt); }

    // Forgets the zone bias, so that the next SetFromTimeT asks the
    // platform again. For tests that install an environment of their own.
    static void ResetTimeZoneCache();

    // Day number of a date, and its inverse; no range checks.
    static int32_t DayNumber(int nYear, int nMonth, int nDay);
    static void SplitDayNumber(int32_t nDate, int* pnYear, int* pnMonth, int* pnDay);
    static bool IsLeapYear(int nYear);
    static bool IsValidDate(int nYear, int nMonth, int nDay);

    int32_t m_Date = QB_DATE_1900;
    int32_t m_Time = 0;

private:
    bool ParseText(const char* pch, int nLength);
};
