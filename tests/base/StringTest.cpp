#include "QB_String.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;

Bytes BytesOf(const QB_StringU8& s) { return Bytes(s.GetString(), s.GetString() + s.GetLength()); }
QB_StringU8 Utf8Of(const Bytes& vb) { return QB_StringU8(reinterpret_cast<const char*>(vb.data()), (int)vb.size()); }
std::u16string UnitsOf(const QB_StringW& s) { return std::u16string(s.GetString(), (size_t)s.GetLength()); }

}  // namespace

// Every changing operation, applied to a copy, must leave the source's text
// and buffer alone and give the copy a private buffer of its own.
TEST(String, CopiesOnWriteWhicheverOperationChangesTheCopy)
{
    const std::pair<const char*, std::function<void(QB_StringA&)>> kChanges[] = {
        {"SetAt", [](QB_StringA& s) { s.SetAt(0, 'n'); }}, {"Append", [](QB_StringA& s) { s.Append("!"); }},
        {"GetBuffer", [](QB_StringA& s) { s.GetBuffer(2)[0] = 'n'; s.ReleaseBuffer(2); }},
        {"Format", [](QB_StringA& s) { s.Format("%d", 7); }},
    };
    for (const auto& [pszName, fnChange] : kChanges)
    {
        SCOPED_TRACE(pszName);
        QB_StringA sFirst(" text ");
        QB_StringA sCopy(sFirst);
        EXPECT_EQ(sCopy.GetString(), sFirst.GetString());
        EXPECT_EQ(sFirst.GetRefCount(), 2);
        fnChange(sCopy);
        EXPECT_EQ(sFirst, " text ");
        EXPECT_NE(sCopy, " text ");
        EXPECT_EQ(sFirst.GetRefCount(), 1);
        EXPECT_EQ(sCopy.GetRefCount(), 1);
    }
}

TEST(String, ConvertsUtf16UnitsToOneToThreeBytesAndBack)
{
    const std::pair<std::u16string, Bytes> kCases[] = {
        {u"A", {0x41}}, {u"\u0080", {0xC2, 0x80}}, {u"\u07FF", {0xDF, 0xBF}}, {u"\u0800", {0xE0, 0xA0, 0x80}},
        {u"\uFFFF", {0xEF, 0xBF, 0xBF}},
        {{0xD83D, 0xDE00}, {0xED, 0xA0, 0xBD, 0xED, 0xB8, 0x80}},  // each half by itself
    };
    for (const auto& [sUnits, vbUtf8] : kCases)
    {
        QB_StringU8 s8(QB_StringW(sUnits.data(), (int)sUnits.size()));
        EXPECT_EQ(BytesOf(s8), vbUtf8);
        EXPECT_EQ(UnitsOf(QB_StringW(Utf8Of(vbUtf8))), sUnits);
    }
}

TEST(String, DecodesUtf8ByTheLeadBitsOnlyAndCutsAtAZeroUnit)
{
    const std::pair<Bytes, std::u16string> kCases[] = {
        {{0xF0, 0x9F, 0x98, 0x80}, u"\u07D8"},  // lead dropped, no U+1F600
        {{0xFF, 'a'}, u"a"},
        {{0xC3, 0x41}, u"\u00C1"},              // the next byte is not tested
        {{'x', 0xC0, 0x80, 'y'}, u"x"},         // a decoded zero unit
        {{'a', 0x00, 'b'}, u"a"},
        {{'a', 0xE4, 0xB8}, u"a"},              // a sequence cut by the end
    };
    for (const auto& [vbUtf8, sUnits] : kCases)
        EXPECT_EQ(UnitsOf(QB_StringW(Utf8Of(vbUtf8))), sUnits);

    const char16_t achZero[] = {u'a', 0, u'b'};
    EXPECT_EQ(BytesOf(QB_StringU8(QB_StringW(achZero, 3))), Bytes{'a'});
    EXPECT_EQ(QB_StringA(QB_StringW(achZero, 3)), "a");
    EXPECT_EQ(UnitsOf(QB_StringW(QB_StringA("a\0b", 3))), u"a");
}

TEST(String, MapsWindows1252BothWaysAndReplacesWhatItLacks)
{
    const std::pair<uint8_t, char16_t> kCases[] = {
        {0x80, 0x20AC}, {0x81, 0x0081}, {0x8A, 0x0160}, {0x99, 0x2122},
        {0x9F, 0x0178}, {0xA0, 0x00A0}, {0xE9, 0x00E9}, {0x41, 0x0041},
    };
    for (const auto& [bAnsi, chUnit] : kCases)
    {
        const char achAnsi[] = {(char)bAnsi, 0};
        EXPECT_EQ(UnitsOf(QB_StringW(QB_StringA(achAnsi))), std::u16string(1, chUnit));
        EXPECT_EQ(QB_StringA(QB_StringW(&chUnit, 1)), achAnsi);
    }
    std::string sAll;
    for (int b = 1; b < 256; ++b)
        sAll += (char)b;
    EXPECT_EQ(QB_StringA(QB_StringW(QB_StringA(sAll.c_str()))), sAll.c_str());

    const char16_t achLacking[] = {0x4E2D, 0x0100, 0x0080, 0xD83D, 0x2603};
    EXPECT_EQ(QB_StringA(QB_StringW(achLacking, 5)), "?????");
    EXPECT_EQ(QB_StringA(QB_StringU8("caf\xC3\xA9")), "caf\xE9");

    // Case-blind names: Latin-1, Latin Extended-A, Greek and Cyrillic capitals.
    const std::pair<char16_t, char16_t> kLower[] = {
        {u'Q', u'q'},     {0xC9, 0xE9},     {0xD7, 0xD7},     {0xDF, 0xDF},     {0x100, 0x101},   {0x101, 0x101},
        {0x139, 0x13A},   {0x13A, 0x13A},   {0x14A, 0x14B},   {0x178, 0xFF},    {0x179, 0x17A},   {0x17A, 0x17A},
        {0x391, 0x3B1},   {0x3A2, 0x3A2},   {0x410, 0x430},   {0x400, 0x450},   {0x17F, 0x17F},   {0x3A9, 0x3C9},
    };
    for (const auto& [ch, chLower] : kLower)
        EXPECT_EQ(QB_CharLowerW(ch), chLower) << std::hex << (int)ch;
}

TEST(String, CutsAndSearchesWithinBoundsForAnyIndex)
{
    const QB_StringA s("hello");
    const std::pair<QB_StringA, const char*> kCuts[] = {
        {s.Left(-1), ""},      {s.Left(9), "hello"}, {s.Mid(-2), "hello"}, {s.Mid(-2, 3), "hel"},
        {s.Mid(5), ""},        {s.Mid(3, 10), "lo"}, {s.Mid(1, 0), ""}, {s.Right(-1), ""},    {s.Right(9), "hello"},
    };
    for (const auto& [sCut, pszExpected] : kCuts)
        EXPECT_EQ(sCut, pszExpected);

    const std::pair<int, int> kFinds[] = {
        {s.Find("l", 3), 3}, {s.Find("l", 4), -1}, {s.Find("lo", -3), 3}, {s.Find("", 5), 5},
        {s.Find("", 6), -1}, {s.Find('o', 9), -1}, {s.ReverseFind('l'), 3},
    };
    for (const auto& [nFound, nExpected] : kFinds)
        EXPECT_EQ(nFound, nExpected);
}

TEST(String, AppendsItsOwnTextFormatsWithoutALimitAndComparesAsUnsigned)
{
    QB_StringA s("abxy");
    s.Append(nullptr, 3);
    s.Append(s.GetString() + 2, 2);
    EXPECT_EQ(s, "abxyxy");
    // A shortened string keeps its room: an append fits in place, and a
    // released buffer is measured to its first zero but never past its room.
    QB_StringA sRoom("ab \t");
    sRoom.TrimRight().Append("cd");
    EXPECT_EQ(sRoom, "abcd");
    EXPECT_EQ(sRoom.GetCapacity(), 4);
    sRoom.Truncate(-1);
    sRoom.GetBuffer(-1)[1] = 0;
    sRoom.ReleaseBuffer();
    EXPECT_EQ(sRoom, "a");
    sRoom.ReleaseBuffer(9);
    EXPECT_EQ(sRoom.GetLength(), 4);
    QB_StringA sNone;
    sNone.ReleaseBuffer(3);
    EXPECT_TRUE(sNone.IsEmpty());

    QB_StringA sFormat;
    std::string sWide(5000, 'w');
    sFormat.Format("%s", sWide.c_str());
    EXPECT_EQ(sFormat.GetLength(), 5000);
    sFormat.Format("<%s>", sFormat.Left(2).GetString());
    EXPECT_EQ(sFormat, "<ww>");
    QB_StringW sUnits;
    sUnits.Format("%d\xC3\xA9", 42);
    EXPECT_EQ(UnitsOf(sUnits), u"42\u00E9");

    EXPECT_GT(QB_StringA("\xE9").Compare("z"), 0);
    EXPECT_LT(QB_StringA("ab").Compare("abc"), 0);
    EXPECT_LT(QB_StringW(u"\u00E9").Compare(QB_StringW(u"\uFFFF")), 0);
}
