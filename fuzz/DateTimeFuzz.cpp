// Date and time: the text parser is set against its steps worked out here
// (a date of three numbers and separators up to the first blank, then
// hours and minutes with optional seconds and fraction, and what an earlier
// step stored staying when a later one fails); the setters against their
// ranges; and every valid value reads back from its own text.
#include "ZV_FuzzCheck.h"

#include "QB_DatetimeEx.h"

#include "ZV_FuzzInput.h"

#include <string>

namespace {

bool IsBlank(char ch)
{
    return ch == ' ' || (ch >= 9 && ch <= 13);
}
bool IsDigit(char ch)
{
    return ch >= '0' && ch <= '9';
}
bool IsLeap(int nYear)
{
    return (nYear % 4 == 0 && nYear % 100 != 0) || nYear % 400 == 0;
}
bool IsValidDate(int y, int m, int d)
{
    static const int kDays[] = {31, 29, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    return y >= 0 && y <= 9999 && m >= 1 && m <= 12 && d >= 1 && d <= kDays[m - 1] && (m != 2 || d != 29 || IsLeap(y));
}
int32_t DayNumber(int y, int m, int d)
{
    static const int kBefore[] = {0, 31, 59, 90, 120, 151, 181, 212, 243, 273, 304, 334};
    return 365 * y + y / 4 - y / 100 + y / 400 + kBefore[m - 1] + d - (IsLeap(y) && m <= 2 ? 1 : 0);
}

// Digits up to the next other character, refused once the value reaches
// the limit; none reads as 0.
bool Number(const std::string& s, size_t& i, int nLimit, int& nValue)
{
    nValue = 0;
    for (; i < s.size() && IsDigit(s[i]); ++i)
        if ((nValue = nValue * 10 + (s[i] - '0')) >= nLimit)
            return false;
    return true;
}

// The parse of a text over a value that stands in nDate and nTime.
bool Parse(const std::string& s, int32_t& nDate, int32_t& nTime)
{
    if (s.size() >= 33)
        return false;
    size_t nDateEnd = 0;
    for (; nDateEnd < s.size() && !IsBlank(s[nDateEnd]); ++nDateEnd)
        if (!IsDigit(s[nDateEnd]) && s[nDateEnd] != '-' && s[nDateEnd] != '/' && s[nDateEnd] != '.')
            return false;
    if (nDateEnd == s.size())
        nTime = 0;
    int anField[3] = {0, 0, 0};
    static const int kLimit[] = {10000, 13, 32};
    for (size_t i = 0, iField = 0; i < nDateEnd; ++i)
    {
        if (!IsDigit(s[i]))
        {
            if (++iField > 2)
                return false;
            continue;
        }
        if ((anField[iField] = anField[iField] * 10 + (s[i] - '0')) >= kLimit[iField])
            return false;
    }
    if (!IsValidDate(anField[0], anField[1], anField[2]))
        return false;
    nDate = DayNumber(anField[0], anField[1], anField[2]);
    size_t i = nDateEnd;
    while (i < s.size() && IsBlank(s[i]))
        ++i;
    int nHour = 0, nMinute = 0, nSecond = 0, nFraction = 0;
    if (i < s.size())
    {
        if (!Number(s, i, 24, nHour) || i >= s.size() || s[i++] != ':' || !Number(s, i, 60, nMinute))
            return false;
        if (i < s.size() && (s[i++] != ':' || !Number(s, i, 60, nSecond)))
            return false;
        if (i < s.size() && s[i++] != '.')
            return false;
        for (int nWeight = 1000; i < s.size(); ++i, nWeight /= 10)
        {
            if (!IsDigit(s[i]))
                return false;
            nFraction += (s[i] - '0') * nWeight;
        }
    }
    nTime = ((nHour * 60 + nMinute) * 60 + nSecond) * QB_TICKS_PER_SECOND + nFraction;
    return true;
}

// A valid value: its text of mode 0 reads back as the same value.
void CheckText(const QB_DateTimeEx& dt)
{
    QB_DateTimeEx back;
    const QB_StringA sText = dt.ToText(0, "-");
    FUZZ_CHECK(back.Parse(sText) && back == dt, "%s does not read back as %d %d", sText.GetString(), dt.m_Date, dt.m_Time);
}

void FuzzParse(ZV_FuzzReader& in, QB_DateTimeEx dt)
{
    const std::string sText = in.Rest();
    int32_t nDate = dt.m_Date, nTime = dt.m_Time;
    const bool bExpected = Parse(sText, nDate, nTime);
    const bool bParsed = dt.Parse(QB_StringA(sText.data(), (int)sText.size()));
    FUZZ_CHECK(bParsed == bExpected && dt.m_Date == nDate && dt.m_Time == nTime,
               "\"%s\" gave %d: %d %d, not %d: %d %d", sText.c_str(), bParsed, dt.m_Date, dt.m_Time, bExpected, nDate,
               nTime);
    if (bParsed)
        CheckText(dt);
}

void FuzzSetters(ZV_FuzzReader& in, QB_DateTimeEx dt)
{
    const int32_t nDate = in.Range<int32_t>(-2, QB_DATE_MAX + 2);
    const int32_t nTicks = in.Range<int32_t>(-2, QB_TICKS_PER_DAY + 2);
    const QB_DateTimeEx before = dt;
    const bool bDateOk = nDate >= QB_DATE_MIN && nDate <= QB_DATE_MAX;
    const bool bOk = bDateOk && nTicks >= 0 && nTicks < QB_TICKS_PER_DAY;
    FUZZ_CHECK(dt.SetRaw(nDate, nTicks) == bOk, "SetRaw(%d, %d)", nDate, nTicks);
    FUZZ_CHECK(dt.m_Date == (bDateOk ? nDate : before.m_Date) && dt.m_Time == (bOk ? nTicks : before.m_Time),
               "SetRaw(%d, %d) stored %d %d", nDate, nTicks, dt.m_Date, dt.m_Time);
    if (bOk)
        CheckText(dt);

    const int y = in.Range(-1, 10000), m = in.Range(0, 13),
              d = in.Range(0, 32), h = in.Range(-1, 24),
              mi = in.Range(-1, 60), s = in.Range(-1, 60),
              f = in.Range(-1, 10000);
    const bool bValid = IsValidDate(y, m, d) && h >= 0 && h < 24 && mi >= 0 && mi < 60 && s >= 0 && s < 60 && f >= 0 &&
                        f < 10000;
    FUZZ_CHECK(dt.SetDateTime(y, m, d, h, mi, s, f) == bValid, "SetDateTime %d-%d-%d %d:%d:%d.%d", y, m, d, h, mi, s, f);
    if (!bValid)
        return;
    FUZZ_CHECK(dt.m_Date == DayNumber(y, m, d) && dt.GetYear() == y && dt.GetMonth() == m && dt.GetDay() == d,
               "%d-%d-%d is day %d", y, m, d, dt.m_Date);
    FUZZ_CHECK(dt.GetHour() == h && dt.GetMinute() == mi && dt.GetSecond() == s && dt.GetFraction() == f,
               "%d:%d:%d.%d came back as %d", h, mi, s, f, dt.m_Time);
    char ach[48];
    std::snprintf(ach, sizeof ach, f ? "%04d-%02d-%02d %02d:%02d:%02d.%04d" : "%04d-%02d-%02d %02d:%02d:%02d", y, m, d,
                  h, mi, s, f);
    FUZZ_CHECK(dt.ToText(0, "-") == ach, "%s written as %s", ach, dt.ToText(0, "-").GetString());
    CheckText(dt);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t nSize)
{
    ZV_FuzzReader in(pData, nSize);
    // Parsing starts over a value of its own, which a failure may keep.
    QB_DateTimeEx dt;
    dt.SetRaw(in.Range<int32_t>(QB_DATE_MIN, QB_DATE_MAX),
              in.Range<int32_t>(0, QB_TICKS_PER_DAY - 1));
    in.Bool() ? FuzzSetters(in, dt) : FuzzParse(in, dt);
    return 0;
}
