#include "QB_DatetimeEx.h"

#include <atomic>

namespace {

constexpr int MAX_TEXT_LENGTH = 32;
constexpr int SECONDS_PER_DAY = 86400;
constexpr int TICKS_PER_MINUTE = 60 * QB_TICKS_PER_SECOND;
constexpr int TICKS_PER_HOUR = 60 * TICKS_PER_MINUTE;

const int s_anDaysBefore[12] = {0, 31, 59, 90, 120, 151, 181, 212, 243, 273, 304, 334};
const int s_anDaysIn[12] = {31, 29, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};

// The bias is read once: a zone change while the process runs would make
// two times taken a second apart compare out of order.
constexpr int64_t ZONE_UNREAD = INT64_MIN;
std::atomic<int64_t> s_llZoneBias{ZONE_UNREAD};

int32_t ZoneBias()
{
    int64_t llBias = s_llZoneBias.load();
    if (llBias == ZONE_UNREAD)
    {
        llBias = QB_GetEnv()->GetTimeZoneBias();
        s_llZoneBias.store(llBias);
    }
    return (int32_t)llBias;
}

bool IsBlank(char ch) { return ch == ' ' || (ch >= '\t' && ch <= '\r'); }
bool IsDigit(char ch) { return ch >= '0' && ch <= '9'; }
bool IsDateSeparator(char ch) { return ch == '-' || ch == '/' || ch == '.'; }

// A read position that never passes the end of the text.
struct Cursor
{
    const char* pch;
    int nPos;
    int nEnd;

    bool AtEnd() const { return nPos >= nEnd; }
    bool Take(char ch)
    {
        if (AtEnd() || pch[nPos] != ch)
            return false;
        ++nPos;
        return true;
    }
};

// Digits up to the next other character; none reads as 0. False as soon as
// the value reaches nLimit, which also keeps long digit runs from overflowing.
bool ReadNumber(Cursor& cur, int nLimit, int* pnValue)
{
    int nValue = 0;
    for (; !cur.AtEnd() && IsDigit(cur.pch[cur.nPos]); ++cur.nPos)
    {
        nValue = nValue * 10 + (cur.pch[cur.nPos] - '0');
        if (nValue >= nLimit)
            return false;
    }
    *pnValue = nValue;
    return true;
}

// Only four digits fit the tick; the rest are read so that they must be
// digits, and weigh nothing.
int ReadFraction(Cursor& cur)
{
    int nFraction = 0;
    int nWeight = 1000;
    for (; !cur.AtEnd() && IsDigit(cur.pch[cur.nPos]); ++cur.nPos)
    {
        nFraction += (cur.pch[cur.nPos] - '0') * nWeight;
        nWeight /= 10;
    }
    return nFraction;
}

// "Y-M-D" with any of the three separators between exactly three numbers.
bool ReadDate(const char* pch, int nLength, int32_t* pnDate)
{
    static const int s_anLimit[3] = {10000, 13, 32};
    int anField[3] = {0, 0, 0};
    int iField = 0;
    for (int i = 0; i < nLength; ++i)
    {
        if (IsDateSeparator(pch[i]))
        {
            if (++iField > 2)
                return false;
            continue;
        }
        anField[iField] = anField[iField] * 10 + (pch[i] - '0');
        if (anField[iField] >= s_anLimit[iField])
            return false;
    }
    if (!QB_DateTimeEx::IsValidDate(anField[0], anField[1], anField[2]))
        return false;
    *pnDate = QB_DateTimeEx::DayNumber(anField[0], anField[1], anField[2]);
    return true;
}

// "h:m", optionally ":s", optionally ".f", and nothing behind.
bool ReadTime(Cursor& cur, int32_t* pnTime)
{
    int nHour = 0, nMinute = 0, nSecond = 0, nFraction = 0;
    if (!ReadNumber(cur, 24, &nHour) || !cur.Take(':') || !ReadNumber(cur, 60, &nMinute))
        return false;
    if (!cur.AtEnd())
    {
        if (!cur.Take(':') || !ReadNumber(cur, 60, &nSecond))
            return false;
        if (!cur.AtEnd())
        {
            if (!cur.Take('.'))
                return false;
            nFraction = ReadFraction(cur);
        }
    }
    if (!cur.AtEnd())
        return false;
    *pnTime = nHour * TICKS_PER_HOUR + nMinute * TICKS_PER_MINUTE + nSecond * QB_TICKS_PER_SECOND + nFraction;
    return true;
}

}  // namespace

bool QB_DateTimeEx::IsLeapYear(int nYear) { return (nYear % 4 == 0 && nYear % 100 != 0) || nYear % 400 == 0; }

bool QB_DateTimeEx::IsValidDate(int nYear, int nMonth, int nDay)
{
    if (nYear < 0 || nYear > 9999 || nMonth < 1 || nMonth > 12 || nDay < 1)
        return false;
    if (nMonth == 2 && nDay == 29)
        return IsLeapYear(nYear);
    return nDay <= s_anDaysIn[nMonth - 1];
}

int32_t QB_DateTimeEx::DayNumber(int nYear, int nMonth, int nDay)
{
    int32_t nDate = 365 * nYear + nYear / 4 - nYear / 100 + nYear / 400 + s_anDaysBefore[nMonth - 1] + nDay;
    if (nMonth <= 2 && IsLeapYear(nYear))
        --nDate;
    return nDate;
}

void QB_DateTimeEx::SplitDayNumber(int32_t nDate, int* pnYear, int* pnMonth, int* pnDay)
{
    // The members are public; whatever was put there must still give a
    // calendar date and keep the arithmetic below in 32 bits.
    if (nDate < QB_DATE_MIN)
        nDate = QB_DATE_MIN;
    if (nDate > QB_DATE_MAX)
        nDate = QB_DATE_MAX;
    // 146097 days make 400 years; the estimate is off by at most one.
    int nYear = (int)((int64_t)nDate * 400 / 146097);
    while (nYear > 0 && DayNumber(nYear, 1, 1) > nDate)
        --nYear;
    while (nYear < 9999 && DayNumber(nYear + 1, 1, 1) <= nDate)
        ++nYear;
    int nDayOfYear = nDate - DayNumber(nYear, 1, 1);
    int nLeap = IsLeapYear(nYear) ? 1 : 0;
    int nMonth = 12;
    while (nMonth > 1 && nDayOfYear < s_anDaysBefore[nMonth - 1] + (nMonth > 2 ? nLeap : 0))
        --nMonth;
    *pnYear = nYear;
    *pnMonth = nMonth;
    *pnDay = nDayOfYear - s_anDaysBefore[nMonth - 1] - (nMonth > 2 ? nLeap : 0) + 1;
}

void QB_DateTimeEx::ResetTimeZoneCache() { s_llZoneBias.store(ZONE_UNREAD); }

bool QB_DateTimeEx::SetFromTimeT(int64_t llTime)
{
    // Far outside the calendar either way; keeps the subtraction below from
    // overflowing.
    constexpr int64_t LIMIT = (int64_t)1 << 40;
    if (llTime < -LIMIT || llTime > LIMIT)
        return false;
    int64_t llLocal = llTime - ZoneBias();
    int64_t llDays = llLocal / SECONDS_PER_DAY;
    int64_t llSeconds = llLocal % SECONDS_PER_DAY;
    if (llSeconds < 0)
    {
        llSeconds += SECONDS_PER_DAY;
        --llDays;
    }
    int64_t llDate = QB_DATE_1970 + llDays;
    if (llDate < QB_DATE_MIN || llDate > QB_DATE_MAX)
        return false;
    m_Date = (int32_t)llDate;
    m_Time = (int32_t)(llSeconds * QB_TICKS_PER_SECOND);
    return true;
}

bool QB_DateTimeEx::SetToNow() { return SetFromTimeT(QB_GetEnv()->GetTimeT()); }

bool QB_DateTimeEx::SetRaw(int32_t nDate, int32_t nTime)
{
    if (nDate < QB_DATE_MIN || nDate > QB_DATE_MAX)
        return false;
    m_Date = nDate;
    if (nTime < 0 || nTime >= QB_TICKS_PER_DAY)
        return false;
    m_Time = nTime;
    return true;
}

bool QB_DateTimeEx::SetDateTime(int nYear, int nMonth, int nDay, int nHour, int nMinute, int nSecond,
                                int nFraction)
{
    if (!IsValidDate(nYear, nMonth, nDay))
        return false;
    if (nHour < 0 || nHour > 23 || nMinute < 0 || nMinute > 59 || nSecond < 0 || nSecond > 59)
        return false;
    if (nFraction < 0 || nFraction >= QB_TICKS_PER_SECOND)
        return false;
    m_Date = DayNumber(nYear, nMonth, nDay);
    m_Time = nHour * TICKS_PER_HOUR + nMinute * TICKS_PER_MINUTE + nSecond * QB_TICKS_PER_SECOND + nFraction;
    return true;
}

bool QB_DateTimeEx::SetFromSystemTime(const QB_SystemTime& st)
{
    return SetDateTime(st.wYear, st.wMonth, st.wDay, st.wHour, st.wMinute, st.wSecond, 0);
}

bool QB_DateTimeEx::Parse(const char* pszText)
{
    if (!pszText)
        return false;
    // Measure no further than needed to refuse, so an unterminated buffer
    // is not walked to its end.
    int nLength = 0;
    while (nLength <= MAX_TEXT_LENGTH && pszText[nLength])
        ++nLength;
    return ParseText(pszText, nLength);
}

bool QB_DateTimeEx::Parse(const QB_StringA& sText) { return ParseText(sText.GetString(), sText.GetLength()); }

bool QB_DateTimeEx::ParseText(const char* pch, int nLength)
{
    if (nLength > MAX_TEXT_LENGTH)
        return false;
    int nDateEnd = 0;
    while (nDateEnd < nLength && !IsBlank(pch[nDateEnd]))
    {
        if (!IsDigit(pch[nDateEnd]) && !IsDateSeparator(pch[nDateEnd]))
            return false;
        ++nDateEnd;
    }
    if (nDateEnd == nLength)
        m_Time = 0;
    int32_t nDate = 0;
    if (!ReadDate(pch, nDateEnd, &nDate))
        return false;
    m_Date = nDate;

    Cursor cur{pch, nDateEnd, nLength};
    while (!cur.AtEnd() && IsBlank(pch[cur.nPos]))
        ++cur.nPos;
    int32_t nTime = 0;
    if (!cur.AtEnd() && !ReadTime(cur, &nTime))
        return false;
    m_Time = nTime;
    return true;
}

QB_StringA QB_DateTimeEx::ToText(int nMode, const char* pszSeparator) const
{
    const char* pszSep = pszSeparator ? pszSeparator : "";
    int nYear = 0, nMonth = 0, nDay = 0;
    SplitDayNumber(m_Date, &nYear, &nMonth, &nDay);
    QB_StringA sText;
    if (nMode == 2)
        sText.Format("%04d%s%02d%s%02d %02d:%02d", nYear, pszSep, nMonth, pszSep, nDay, GetHour(), GetMinute());
    else if (nMode == 1 || GetFraction() == 0)
        sText.Format("%04d%s%02d%s%02d %02d:%02d:%02d", nYear, pszSep, nMonth, pszSep, nDay, GetHour(),
                     GetMinute(), GetSecond());
    else
        sText.Format("%04d%s%02d%s%02d %02d:%02d:%02d.%04d", nYear, pszSep, nMonth, pszSep, nDay, GetHour(),
                     GetMinute(), GetSecond(), GetFraction());
    return sText;
}

int QB_DateTimeEx::GetYear() const
{
    int nYear = 0, nMonth = 0, nDay = 0;
    SplitDayNumber(m_Date, &nYear, &nMonth, &nDay);
    return nYear;
}

int QB_DateTimeEx::GetMonth() const
{
    int nYear = 0, nMonth = 0, nDay = 0;
    SplitDayNumber(m_Date, &nYear, &nMonth, &nDay);
    return nMonth;
}

int QB_DateTimeEx::GetDay() const
{
    int nYear = 0, nMonth = 0, nDay = 0;
    SplitDayNumber(m_Date, &nYear, &nMonth, &nDay);
    return nDay;
}

int QB_DateTimeEx::GetHour() const { return m_Time / TICKS_PER_HOUR; }
int QB_DateTimeEx::GetMinute() const { return m_Time / TICKS_PER_MINUTE % 60; }
int QB_DateTimeEx::GetSecond() const { return m_Time / QB_TICKS_PER_SECOND % 60; }
int QB_DateTimeEx::GetFraction() const { return m_Time % QB_TICKS_PER_SECOND; }
