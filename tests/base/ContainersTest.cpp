#include "QB_Array.h"
#include "QB_Map.h"
#include "QB_String.h"

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
    for (QB_POSITION pos = map.GetStartPosition(); pos;)
    {
        K key{};
        V value{};
        map.GetNextAssoc(pos, key, value);
        vKeys.push_back(key);
    }
    return vKeys;
}

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
    EXPECT_EQ(arr.Find(0), 3);
    EXPECT_EQ(arr.Find(0, 4), 4);
    EXPECT_EQ(arr.Find(6), -1);
}

