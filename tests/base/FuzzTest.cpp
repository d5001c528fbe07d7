// Random and truncated input for the parsers that face the outside: date
// and user-identifier text, the load stream and the ini loader. Seeded, so a
// failure repeats.
#include "QB_ByteStream.h"
#include "QB_DatetimeEx.h"
#include "QB_IniFileEx.h"
#include "QB_TestSupport.h"
#include "QB_UserID.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;

// Any outcome stays a valid value, and an accepted text is short and reads
// back from the value's own text form.
void CheckDateText(const std::string& sText, int* pnAccepted)
{
    QB_DateTimeEx dt;
    const bool bOk = dt.Parse(sText.c_str());
    ASSERT_TRUE(dt.m_Date >= QB_DATE_MIN && dt.m_Date <= QB_DATE_MAX && dt.m_Time >= 0 &&
                dt.m_Time < QB_TICKS_PER_DAY)
        << '"' << sText << "\" gives " << dt.m_Date << " " << dt.m_Time;
    if (!bOk)
        return;
    ++*pnAccepted;
    EXPECT_LT(sText.size(), 33u) << '"' << sText << '"';
    QB_DateTimeEx dtBack;
    ASSERT_TRUE(dtBack.Parse(dt.ToText(0, "-"))) << '"' << sText << '"';
    EXPECT_EQ(dtBack, dt) << '"' << sText << '"';
}

// A refusal (kind 0) leaves both words 0; any other kind is the words' own
// kind, and their text reads back as the same words.
void CheckUserIDText(const std::string& sText)
{
    QB_UserID id(7, 7);
    const int nKind = id.FromText(sText.c_str());
    if (nKind == 0)
    {
        ASSERT_EQ(id, QB_UserID(0, 0)) << sText;
        return;
    }
    ASSERT_EQ(id.GetKind(), nKind) << sText;
    QB_UserID back;
    ASSERT_EQ(back.FromText(id.ToText().c_str()), nKind) << sText;
    ASSERT_EQ(back, id) << sText;
}

// Characters from the given alphabet, or any byte but zero when it is null.
std::string RandomText(std::mt19937& rng, size_t nMax, const char* pszAlphabet)
{
    std::string sText(rng() % (nMax + 1), ' ');
    for (char& ch : sText)
        ch = pszAlphabet ? pszAlphabet[rng() % std::strlen(pszAlphabet)] : (char)(1 + rng() % 255);
    return sText;
}

// One random read. A refusal must be the load failure and leave the
// position where the read began.
void RandomRead(QB_ByteStream& s, std::mt19937& rng)
{
    int32_t nBefore = s.GetPos();
    try
    {
        QB_StringU8 str;
        switch (rng() % 7)
        {
        case 0: s.ReadCount(); break;
        case 1: s.ReadString(str); break;
        case 2: s.ReadU16(); break;
        case 3: s.ReadU64(); break;
        case 4: s.ReadDouble(); break;
        case 5: s.Skip((int32_t)(rng() % 9) - 4); break;
        default: QB_UserID().Load(s); break;
        }
    }
    catch (const QB_StreamException& e)
    {
        EXPECT_EQ(e.m_ulCode, QB_STREAM_LOAD_FAILURE);
        EXPECT_EQ(s.GetPos(), nBefore);
    }
    EXPECT_LE(s.GetPos(), s.GetLength());
}

// Lines of every kind, made of characters that shape an ini file, joined
// mostly by CR LF and now and then by a lone CR, LF or zero; UTF-16 input
// may end in half a character. ANSI input has no zero bytes: the code page
// cuts a line at its first zero, which can leave a line end at the end of
// the rewritten file, where the next load drops it.
Bytes RandomIni(std::mt19937& rng, bool bUnicode)
{
    static const char16_t kShape[] = {u'[', u']', u'=', u';', u'\r', u'\n', 0, u'a', u'A', 0xE9, 0x4E2D};
    static const std::u16string kFront[] = {u"[", u"", u";", u"=", u"=;"};
    static const std::u16string kEnd[] = {u"\n", u"\r", std::u16string(1, 0), u""};
    auto Word = [&] {
        std::u16string s(rng() % 8, u'a');
        for (char16_t& ch : s)
            ch = rng() % 2 ? kShape[rng() % std::size(kShape)] : (char16_t)rng();
        return s;
    };
    std::u16string sText;
    for (size_t nLines = rng() % 60; nLines > 0; --nLines)
    {
        size_t nKind = rng() % std::size(kFront);
        sText += kFront[nKind];
        sText += Word();
        if (nKind == 0)
            sText += u']';
        if (nKind == 1)
        {
            sText += u'=';
            sText += Word();
        }
        sText += rng() % 8 ? std::u16string(u"\r\n") : kEnd[rng() % std::size(kEnd)];
    }
    Bytes vb;
    if (bUnicode)
        vb = {0xFF, 0xFE};
    for (char16_t ch : sText)
    {
        if (!bUnicode && (uint8_t)ch == 0)
            continue;
        vb.push_back((uint8_t)ch);
        if (bUnicode)
            vb.push_back((uint8_t)(ch >> 8));
    }
    if (bUnicode && rng() % 2)
        vb.push_back((uint8_t)rng());
    return vb;
}

std::vector<std::u16string> SectionNames(const QB_IniFileEx& ini)
{
    QB_Array<QB_StringW> arrNames;
    ini.GetSectionNames(arrNames);
    std::vector<std::u16string> v;
    for (int i = 0; i < arrNames.GetSize(); ++i)
        v.emplace_back(arrNames.GetAt(i).View());
    return v;
}

}  // namespace

TEST(Fuzz, DateTimeTextAcceptsOnlyValuesInRangeAndReadsItsOwnTextBack)
{
    static const char* const kSeparators[] = {"-", "/", "."};
    std::mt19937 rng(20110316);
    int nAccepted = 0;
    for (int i = 0; i < 2000 && !HasFatalFailure(); ++i)
    {
        QB_DateTimeEx dt;
        dt.SetRaw(std::uniform_int_distribution<int32_t>(QB_DATE_MIN, QB_DATE_MAX)(rng),
                  std::uniform_int_distribution<int32_t>(0, QB_TICKS_PER_DAY - 1)(rng));
        std::string sText = dt.ToText((int)(rng() % 3), kSeparators[rng() % 3]).GetString();
        for (size_t n = 0; n <= sText.size(); ++n)
            CheckDateText(sText.substr(0, n), &nAccepted);
        sText[rng() % sText.size()] = (char)(1 + rng() % 127);
        CheckDateText(sText, &nAccepted);
        CheckDateText(RandomText(rng, 30, "0123456789-/.: \t9x"), &nAccepted);
        CheckDateText(RandomText(rng, 40, nullptr), &nAccepted);
    }
    // Without this the loop could pass by refusing everything.
    EXPECT_GT(nAccepted, 6000);
}

TEST(Fuzz, UserIDTextNeverMisparsesRandomOrTruncatedInput)
{
    std::mt19937 rng(5771);
    for (int i = 0; i < 10000 && !HasFatalFailure(); ++i)
        CheckUserIDText(RandomText(rng, 21, i % 4 == 3 ? nullptr : "0123456789 \t0123456789\n0123456789"));
    // Every prefix of the text of random words, valid or not.
    for (int i = 0; i < 1000 && !HasFatalFailure(); ++i)
    {
        const uint32_t ulMain = i % 2 ? rng() : 90000 + rng() % 10000;
        const std::string sText = QB_UserID(ulMain, rng() % 2 ? rng() % 10000 : rng()).ToText();
        for (size_t n = 0; n <= sText.size(); ++n)
            CheckUserIDText(sText.substr(0, n));
    }
}

TEST(Fuzz, LoadStreamRaisesOnlyTheLoadFailureOnRandomBytes)
{
    std::mt19937 rng(9001);
    for (int i = 0; i < 5000; ++i)
    {
        // An exact-size heap block, so that a sanitizer sees any overrun.
        int32_t nLen = (int32_t)(rng() % 40);
        std::unique_ptr<uint8_t[]> pBlock(new uint8_t[nLen]);
        for (int32_t j = 0; j < nLen; ++j)
            pBlock[j] = (uint8_t)(i % 3 ? rng() : 0x80 + rng() % 0x80);
        QB_ByteStream s(pBlock.get(), nLen);
        for (int nOp = 0; nOp < 12; ++nOp)
            RandomRead(s, rng);
    }
}

// A load, a read of every section found and a flush; loading the flushed
// file again must find the same sections in the same order and form.
TEST(Fuzz, IniLoaderFindsTheSameSectionsAfterAFlushOfRandomBytes)
{
    QB_TempFolder folder;
    QB_StringA sPath(folder.Sub("f.ini").c_str());
    int nWithSections = 0;
    for (unsigned nSeed = 1; nSeed <= 200; ++nSeed)
    {
        SCOPED_TRACE(nSeed);
        std::mt19937 rng(nSeed);
        QB_WriteWholeFile(folder.Sub("f.ini"), RandomIni(rng, nSeed % 2 == 0));
        QB_IniFileEx ini;
        ASSERT_TRUE(ini.Open(sPath, false));
        std::vector<std::u16string> vNames = SectionNames(ini);
        for (const std::u16string& sName : vNames)
            EXPECT_EQ(ini.GetLong(QB_StringW(sName), u"a", -9), ini.GetLong(QB_StringW(sName), u"A", -9));
        ASSERT_TRUE(ini.Flush());
        QB_IniFileEx iniAgain;
        ASSERT_TRUE(iniAgain.Open(sPath, false));
        EXPECT_EQ(SectionNames(iniAgain), vNames);
        EXPECT_EQ(iniAgain.IsUnicode(), ini.IsUnicode());
        nWithSections += !vNames.empty();
    }
    // Input that never makes a section would test little but the header.
    EXPECT_GT(nWithSections, 100);
}

// No line end in ten megabytes, of a key and of junk before any section.
TEST(Fuzz, IniLoaderTakesATenMegabyteLineWithoutLineEnds)
{
    QB_TempFolder folder;
    const size_t nLine = 10u << 20;
    const std::string sKeyLine = "[s]\r\nkey=" + std::string(nLine, 'v');
    QB_WriteWholeFile(folder.Sub("k.ini"), sKeyLine);
    QB_IniFileEx ini;
    ASSERT_TRUE(ini.Open(QB_StringA(folder.Sub("k.ini").c_str()), false));
    EXPECT_EQ(ini.GetString(u"s", u"key", u"").GetLength(), (int)nLine);
    QB_WriteWholeFile(folder.Sub("j.ini"), std::string(nLine, 'x'));
    QB_IniFileEx junk;
    ASSERT_TRUE(junk.Open(QB_StringA(folder.Sub("j.ini").c_str()), false));
    EXPECT_TRUE(SectionNames(junk).empty());
}
