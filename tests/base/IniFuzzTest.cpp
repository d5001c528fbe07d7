#include "QB_IniFileEx.h"
#include "QB_TestSupport.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;

// Lines of every kind, made of words in which characters that shape an ini
// file are frequent, joined mostly by CR LF and now and then by a lone CR,
// LF or zero; UTF-16 input may end in half a character. ANSI input has no
// zero bytes: the code page cuts a line at its first zero, which can leave
// a line end at the end of the rewritten file, where the next load drops it.
std::u16string RandomWord(std::mt19937& rng)
{
    static const char16_t kShape[] = {u'[', u']', u'=', u';', u'\r', u'\n', 0, u'a', u'A', 0xE9, 0x4E2D};
    std::u16string s(rng() % 8, u'a');
    for (char16_t& ch : s)
        ch = rng() % 2 ? kShape[rng() % std::size(kShape)] : (char16_t)rng();
    return s;
}

Bytes RandomIni(std::mt19937& rng, bool bUnicode)
{
    static const std::u16string kFront[] = {u"[", u"", u";", u"=", u"=;", u""};
    static const std::u16string kEnd[] = {u"\n", u"\r", std::u16string(1, 0), u""};
    std::u16string sText;
    for (size_t nLines = rng() % 60; nLines > 0; --nLines)
    {
        size_t nKind = rng() % std::size(kFront);
        sText += kFront[nKind] + RandomWord(rng) + (nKind == 0 ? u"]" : nKind == 1 ? u"=" + RandomWord(rng) : u"");
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

// Loads the bytes, reads through every section found, flushes and loads the
// result again; the second load must find the same sections in the same
// order. Gives the file as flushed.
Bytes LoadFlushReload(const QB_TempFolder& folder, const Bytes& vbFile, const std::string& sWhat,
                      size_t* pnSections = nullptr)
{
    QB_StringA sPath(folder.Sub("f.ini").c_str());
    QB_WriteWholeFile(folder.Sub("f.ini"), vbFile);
    QB_IniFileEx ini;
    EXPECT_TRUE(ini.Open(sPath, false)) << sWhat;
    std::vector<std::u16string> vNames = SectionNames(ini);
    for (const std::u16string& sName : vNames)
        EXPECT_EQ(ini.GetLong(QB_StringW(sName), u"a", -9), ini.GetLong(QB_StringW(sName), u"A", -9)) << sWhat;
    EXPECT_TRUE(ini.Flush()) << sWhat;
    QB_IniFileEx iniAgain;
    EXPECT_TRUE(iniAgain.Open(sPath, false)) << sWhat;
    EXPECT_EQ(SectionNames(iniAgain), vNames) << sWhat;
    EXPECT_EQ(iniAgain.IsUnicode(), ini.IsUnicode()) << sWhat;
    if (pnSections)
        *pnSections = vNames.size();
    return QB_ReadWholeFile(folder.Sub("f.ini"));
}

}  // namespace

TEST(IniFuzz, LoadsRandomBytesAndFindsTheSameSectionsAfterAFlush)
{
    QB_TempFolder folder;
    int nWithSections = 0;
    for (unsigned nSeed = 1; nSeed <= 200; ++nSeed)
    {
        std::mt19937 rng(nSeed);
        size_t nSections = 0;
        LoadFlushReload(folder, RandomIni(rng, nSeed % 2 == 0), "seed " + std::to_string(nSeed), &nSections);
        nWithSections += nSections > 0;
    }
    // Input that never makes a section would test little but the header.
    EXPECT_GT(nWithSections, 100);
}

TEST(IniFuzz, LoadsAByteOrderMarkAloneAndHalfCharacters)
{
    struct Row
    {
        const char* pszName;
        Bytes vbIn, vbOut;
    } rows[] = {
        {"a lone mark", {0xFF, 0xFE}, {0xFF, 0xFE, 0x0D, 0, 0x0A, 0}},
        {"a mark and one byte", {0xFF, 0xFE, 0x41}, {0xFF, 0xFE, 0x0D, 0, 0x0A, 0}},
        {"a section and half a character", {0xFF, 0xFE, '[', 0, 's', 0, ']', 0, 'x'},
         {0xFF, 0xFE, '[', 0, 's', 0, ']', 0, 0x0D, 0, 0x0A, 0}},
        {"zeros only", {0, 0, 0}, {0x0D, 0x0A}},
    };
    QB_TempFolder folder;
    for (const Row& row : rows)
        EXPECT_EQ(QB_ToHex(LoadFlushReload(folder, row.vbIn, row.pszName)), QB_ToHex(row.vbOut)) << row.pszName;
}

TEST(IniFuzz, LoadsATenMegabyteLineWithoutLineEnds)
{
    const size_t nLine = 10u << 20;
    std::string sKeyLine = "[s]\r\nkey=" + std::string(nLine, 'v');
    Bytes vbKey(sKeyLine.begin(), sKeyLine.end());
    Bytes vbJunk(nLine, 'x');
    QB_TempFolder folder;
    EXPECT_EQ(QB_ToHex(LoadFlushReload(folder, vbJunk, "text only")), "0d 0a");
    EXPECT_EQ(LoadFlushReload(folder, vbKey, "a key").size(), vbKey.size() + 2);
    QB_WriteWholeFile(folder.Sub("f.ini"), vbKey);
    QB_IniFileEx ini;
    ASSERT_TRUE(ini.Open(QB_StringA(folder.Sub("f.ini").c_str()), false));
    EXPECT_EQ(ini.GetString(u"s", u"key", u"").GetLength(), (int)nLine);
}
