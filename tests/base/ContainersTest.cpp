#include "QB_Array.h"
#include "QB_Map.h"
#include "QB_String.h"
#include "QB_TestSupport.h"

#include <gtest/gtest.h>

#include <cinttypes>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

namespace {

template <class K, class V, class H>
std::vector<K> WalkKeys(const QB_Map<K, V, H>& map)
{
    std::vector<K> vKeys;
    K key{};
    V value{};
    for (QB_POSITION pos = map.GetStartPosition(); pos; vKeys.push_back(key))
        map.GetNextAssoc(pos, key, value);
    return vKeys;
}

using Bytes = std::vector<uint8_t>;
Bytes BytesOf(const QB_StringU8& s) { return Bytes(s.GetString(), s.GetString() + s.GetLength()); }
QB_StringU8 Utf8Of(const Bytes& vb) { return QB_StringU8(reinterpret_cast<const char*>(vb.data()), (int)vb.size()); }
std::u16string UnitsOf(const QB_StringW& s) { return std::u16string(s.GetString(), (size_t)s.GetLength()); }
std::vector<int> Elements(const QB_Array<int>& arr) { return std::vector<int>(arr.GetData(), arr.GetData() + arr.GetSize()); }

}  // namespace

TEST(Map, WalksBucketsUpwardsAndEachBucketFromTheNewestKeyToTheOldest)
{
    struct Row { const char* pszName; uint32_t nTableSize; bool bShift4; std::vector<uint16_t> vInsert, vRemove, vWalk; } rows[] = {
        {"keys sharing bucket 1 of 17", 17, false, {1, 18, 35}, {}, {35, 18, 1}},
        {"buckets 0 to 3 of 17", 17, false, {3, 20, 0, 2}, {}, {0, 2, 20, 3}},
        {"FileIDs in 97 buckets", 97, false, {100, 3, 197, 96, 0}, {}, {0, 197, 3, 100, 96}},
        {"a chain's middle removed", 97, false, {100, 3, 197, 96}, {3}, {197, 100, 96}},
        {"sixteen FileIDs a bucket", 97, true, {0x10, 0x1F, 0x20, 5, 0x611}, {}, {0x611, 5, 0x1F, 0x10, 0x20}},
    };
    for (const Row& row : rows)
    {
        QB_Map<uint16_t, int> mapPlain(row.nTableSize);
        QB_Map<uint16_t, int, QB_HashShift4> mapShift(row.nTableSize);
        for (uint16_t k : row.vInsert)
            row.bShift4 ? mapShift.SetAt(k, k * 2) : mapPlain.SetAt(k, k * 2);
        for (uint16_t k : row.vRemove)
            EXPECT_TRUE(row.bShift4 ? mapShift.RemoveKey(k) : mapPlain.RemoveKey(k)) << row.pszName;
        EXPECT_EQ(row.bShift4 ? WalkKeys(mapShift) : WalkKeys(mapPlain), row.vWalk) << row.pszName;
    }
}

// Keys that are multiples of 17 share bucket 0 of the default table; in a
// chain of 40 the key 17 * i is found at step 40 - i.
TEST(Map, WarnsOnceForALookupThatWalksFurtherThanThirtyStepsAndFurtherThanAnyBefore)
{
    QB_Map<uint32_t, int> map;
    for (int i = 0; i < 40; ++i)
        map.AddNew(17u * i) = i;  // no look-up, so no walk yet
    struct Row { const char* pszName; uint32_t ulKey; bool bWarns; } rows[] = {
        {"the newest", 17 * 39, false},       {"30 steps", 17 * 10, false},
        {"31 steps", 17 * 9, true},           {"31 steps again", 17 * 9, false},
        {"fewer steps", 17 * 10, false},      {"33 steps", 17 * 7, true},
        {"a miss walks all 40", 17 * 99, true}, {"the same miss", 17 * 99, false},
    };
    char szLine[160];
    std::snprintf(szLine, sizeof szLine,
                  "warning: unreasonable hash key! addr = 0x%016" PRIXPTR " hash table = 17 count = 40\r\n",
                  (uintptr_t)&map);
    for (const Row& row : rows)
    {
        int nValue = 0;
        testing::internal::CaptureStdout();
        const bool bFound = map.Lookup(row.ulKey, nValue);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), row.bWarns ? szLine : "") << row.pszName;
        EXPECT_EQ(bFound, row.ulKey < 17u * 40) << row.pszName;
    }

    // A host may send the lines elsewhere. Adding the 41st key walks 40
    // steps, the 42nd 41.
    std::FILE* lpFile = std::tmpfile();
    QB_SetHashWarningStream(lpFile);
    testing::internal::CaptureStdout();
    map[17u * 40] = 40;
    map[17u * 41] = 41;
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    QB_SetHashWarningStream(nullptr);
    std::rewind(lpFile);
    char szRead[320] = {};
    szRead[std::fread(szRead, 1, sizeof szRead - 1, lpFile)] = 0;
    std::fclose(lpFile);
    std::string sExpected(szLine);
    EXPECT_EQ(szRead, sExpected.replace(sExpected.find("count = 40"), 10, "count = 41"));
}

TEST(Array, InsertsRemovesAndFindsByIndexAndRefusesNegativeNumbers)
{
    QB_Array<int> arr;
    struct Step { const char* pszName; std::function<void()> fn; std::vector<int> vAfter; } steps[] = {
        {"add", [&] { for (int i = 1; i <= 4; ++i) arr.Add(i); }, {1, 2, 3, 4}},
        {"insert at the front", [&] { arr.InsertAt(0, 9); }, {9, 1, 2, 3, 4}},
        {"insert past the end", [&] { arr.InsertAt(7, 5); }, {9, 1, 2, 3, 4, 0, 0, 5}},
        {"remove two", [&] { arr.RemoveAt(1, 2); }, {9, 3, 4, 0, 0, 5}},
        {"remove too many", [&] { arr.RemoveAt(5, 4); }, {9, 3, 4, 0, 0, 5}},
        {"add one of its own to a full array",
         [&] { arr.SetSize(arr.GetCapacity()), arr.Add(arr[0]); const int nAdded = arr[arr.GetSize() - 1]; arr.SetSize(6), arr.Add(nAdded); },
         {9, 3, 4, 0, 0, 5, 9}},
        {"negative numbers", [&] { arr.RemoveAt(-1); arr.SetSize(-2); arr.InsertAt(-1, 1); }, {9, 3, 4, 0, 0, 5, 9}},
    };
    for (const Step& step : steps)
    {
        step.fn();
        EXPECT_EQ(Elements(arr), step.vAfter) << step.pszName;
    }
    EXPECT_EQ((std::vector<int>{arr.Find(0), arr.Find(0, 4), arr.Find(6)}), (std::vector<int>{3, 4, -1}));
}

// Rows with bBack also write their units as those very bytes.
TEST(String, ConvertsUtf16UnitsToOneToThreeBytesAndDecodesByTheLeadBitsOnly)
{
    const struct { Bytes vbUtf8; std::u16string sUnits; bool bBack; } kCases[] = {
        {{0x41}, u"A", true}, {{0xC2, 0x80}, u"\u0080", true}, {{0xDF, 0xBF}, u"\u07FF", true},
        {{0xE0, 0xA0, 0x80}, u"\u0800", true}, {{0xEF, 0xBF, 0xBF}, u"\uFFFF", true},
        {{0xED, 0xA0, 0xBD, 0xED, 0xB8, 0x80}, {0xD83D, 0xDE00}, true},  // each half by itself
        {{0xF0, 0x9F, 0x98, 0x80}, u"\u07D8", false},                     // lead dropped, no U+1F600
        {{0xFF, 'a'}, u"a", false}, {{0xC3, 0x41}, u"\u00C1", false},      // the next byte is not tested
        {{'x', 0xC0, 0x80, 'y'}, u"x", false},                            // a decoded zero unit
        {{'a', 0x00, 'b'}, u"a", false}, {{'a', 0xE4, 0xB8}, u"a", false}, // a sequence cut by the end
    };
    for (const auto& c : kCases)
    {
        EXPECT_EQ(UnitsOf(QB_StringW(Utf8Of(c.vbUtf8))), c.sUnits) << QB_ToHex(c.vbUtf8);
        EXPECT_TRUE(!c.bBack || BytesOf(QB_StringU8(QB_StringW(c.sUnits.data(), (int)c.sUnits.size()))) == c.vbUtf8)
            << QB_ToHex(c.vbUtf8);
    }
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

TEST(String, CopiesOnWriteAppendsItsOwnTextFormatsWithoutALimitAndComparesAsUnsigned)
{
    // Copies share their source's buffer until a change, whichever, gives
    // each one of its own.
    const QB_StringA sSource(" text ");
    QB_StringA aCopies[4] = {sSource, sSource, sSource, sSource};
    EXPECT_TRUE(aCopies[0].GetString() == sSource.GetString() && sSource.GetRefCount() == 5);
    aCopies[0].SetAt(0, 'n');
    aCopies[1].Append("!");
    aCopies[2].GetBuffer(2)[0] = 'n';
    aCopies[3].Format("%d", 7);
    EXPECT_TRUE(sSource == " text " && sSource.GetRefCount() == 1) << sSource.GetString();
    EXPECT_TRUE(aCopies[0] == "ntext " && aCopies[1] == " text !" && aCopies[2] == "ntext " && aCopies[3] == "7");

    QB_StringA s("abxy");
    s.Append(nullptr, 3), s.Append(s.GetString() + 2, 2);
    EXPECT_EQ(s, "abxyxy");
    // A shortened string keeps its room: an append fits in place, and a
    // released buffer is measured to its first zero but never past its room.
    QB_StringA sRoom("ab \t");
    sRoom.TrimRight().Append("cd");
    EXPECT_TRUE(sRoom == "abcd" && sRoom.GetCapacity() == 4) << sRoom.GetString() << " in " << sRoom.GetCapacity();
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
    sFormat.Format("%s", std::string(5000, 'w').c_str());
    EXPECT_EQ(sFormat.GetLength(), 5000);
    sFormat.Format("<%s>", sFormat.Left(2).GetString());
    EXPECT_EQ(sFormat, "<ww>");
    QB_StringW sUnits;
    sUnits.Format("%d\xC3\xA9", 42);
    EXPECT_EQ(UnitsOf(sUnits), u"42\u00E9");

    EXPECT_TRUE(QB_StringA("\xE9").Compare("z") > 0 && QB_StringA("ab").Compare("abc") < 0 &&
                QB_StringW(u"\u00E9").Compare(QB_StringW(u"\uFFFF")) < 0);
}
