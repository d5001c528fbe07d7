#include "QB_DatetimeEx.h"

#include <gtest/gtest.h>

#include <random>
#include <string>

namespace {

bool InRange(const QB_DateTimeEx& dt)
{
    return dt.m_Date >= QB_DATE_MIN && dt.m_Date <= QB_DATE_MAX && dt.m_Time >= 0 && dt.m_Time < QB_TICKS_PER_DAY;
}

// Feeds one text through both overloads, from a valid start value, and
// checks what any outcome must keep. Counts the texts that were accepted.
void CheckText(const std::string& sText, int* pnAccepted)
{
    QB_DateTimeEx dt;
    bool bOk = dt.Parse(sText.c_str());
    QB_DateTimeEx dtString;
    EXPECT_EQ(dtString.Parse(QB_StringA(sText.c_str(), (int)sText.size())), bOk) << '"' << sText << '"';
    EXPECT_EQ(dtString, dt) << '"' << sText << '"';
    ASSERT_TRUE(InRange(dt)) << '"' << sText << "\" gives " << dt.m_Date << " " << dt.m_Time;
    if (!bOk)
        return;
    ++*pnAccepted;
    EXPECT_LT(sText.size(), 33u) << '"' << sText << '"';
    QB_DateTimeEx dtBack(dt);
    dtBack.m_Time = 12345;
    ASSERT_TRUE(dtBack.Parse(dt.ToText(0, "-"))) << '"' << sText << '"';
    EXPECT_EQ(dtBack, dt) << '"' << sText << "\" -> " << dt.ToText(0, "-").GetString();
}

std::string RandomValueText(std::mt19937& rng)
{
    static const char* const s_apszSeparator[] = {"-", "/", "."};
    QB_DateTimeEx dt;
    dt.SetRaw(std::uniform_int_distribution<int32_t>(QB_DATE_MIN, QB_DATE_MAX)(rng),
              std::uniform_int_distribution<int32_t>(0, QB_TICKS_PER_DAY - 1)(rng));
    int nMode = std::uniform_int_distribution<int>(0, 2)(rng);
    return dt.ToText(nMode, s_apszSeparator[rng() % 3]).GetString();
}

// A text near the grammar: pieces of dates and times, stray characters.
std::string RandomNearText(std::mt19937& rng)
{
    static const char* const s_apszPiece[] = {"2011", "-",  "/",  ".",  ":",  " ",  "\t", "0",  "9",   "12",
                                              "13",  "31", "32", "23", "24", "59", "60", "x",  "99999", "02-29"};
    std::string sText;
    int nPieces = std::uniform_int_distribution<int>(0, 14)(rng);
    for (int i = 0; i < nPieces; ++i)
        sText += s_apszPiece[rng() % std::size(s_apszPiece)];
    return sText;
}

std::string RandomBytes(std::mt19937& rng)
{
    std::string sText(std::uniform_int_distribution<size_t>(0, 40)(rng), ' ');
    for (char& ch : sText)
        ch = (char)std::uniform_int_distribution<int>(1, 255)(rng);
    return sText;
}

}  // namespace

TEST(DateTimeFuzz, AcceptsOnlyValuesInRangeAndReadsItsOwnTextBack)
{
    std::mt19937 rng(20110316);
    int nAccepted = 0;
    for (int i = 0; i < 3000; ++i)
    {
        std::string sText = RandomValueText(rng);
        for (size_t n = 0; n <= sText.size(); ++n)
            CheckText(sText.substr(0, n), &nAccepted);
        std::string sMutated = sText;
        sMutated[rng() % sMutated.size()] = (char)std::uniform_int_distribution<int>(1, 127)(rng);
        CheckText(sMutated, &nAccepted);
        CheckText(RandomNearText(rng), &nAccepted);
        CheckText(RandomBytes(rng), &nAccepted);
        if (HasFatalFailure())
            return;
    }
    // Without this the loop could pass by refusing everything.
    EXPECT_GT(nAccepted, 9000);
}

TEST(DateTimeFuzz, ReadsBackEveryTextFormOfRandomValues)
{
    std::mt19937 rng(42);
    for (int i = 0; i < 20000; ++i)
    {
        QB_DateTimeEx dt;
        ASSERT_TRUE(dt.SetRaw(std::uniform_int_distribution<int32_t>(QB_DATE_MIN, QB_DATE_MAX)(rng),
                              std::uniform_int_distribution<int32_t>(0, QB_TICKS_PER_DAY - 1)(rng)));
        for (const char* pszSeparator : {"-", "/", "."})
        {
            QB_DateTimeEx dtBack;
            ASSERT_TRUE(dtBack.Parse(dt.ToText(0, pszSeparator))) << dt.ToText(0, pszSeparator).GetString();
            ASSERT_EQ(dtBack, dt) << dt.ToText(0, pszSeparator).GetString();
        }
        // Mode 2 keeps hours and minutes only.
        QB_DateTimeEx dtMinutes;
        ASSERT_TRUE(dtMinutes.Parse(dt.ToText(2, "-")));
        ASSERT_EQ(dtMinutes.m_Date, dt.m_Date);
        ASSERT_EQ(dtMinutes.m_Time, dt.m_Time - dt.m_Time % 600000);
    }
}
