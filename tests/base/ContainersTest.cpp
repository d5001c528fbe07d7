#include "QB_Array.h"
#include "QB_List.h"
#include "QB_Locker.h"
#include "QB_Map.h"
#include "QB_String.h"

#include <gtest/gtest.h>

#include <cinttypes>
#include <cstdio>
#include <functional>
#include <string>
#include <thread>
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

template <class T>
std::vector<T> Forward(const QB_List<T>& list)
{
    std::vector<T> v;
    for (QB_POSITION pos = list.GetHeadPosition(); pos;)
        v.push_back(list.GetNext(pos));
    return v;
}

template <class T>
std::vector<T> Backward(QB_List<T>& list)
{
    std::vector<T> v;
    for (QB_POSITION pos = list.GetTailPosition(); pos;)
        v.insert(v.begin(), list.GetPrev(pos));
    return v;
}

std::vector<int> Elements(const QB_Array<int>& arr)
{
    return std::vector<int>(arr.GetData(), arr.GetData() + arr.GetSize());
}

// Whether another thread could take the lock right now; it gives the lock
// straight back if it got it.
bool FreeForAnotherThread(QB_Locker& locker)
{
    bool bTaken = false;
    std::thread other([&] {
        bTaken = locker.TryLock();
        if (bTaken)
            locker.Unlock();
    });
    other.join();
    return bTaken;
}

}  // namespace

TEST(Map, WalksBucketsUpwardsAndEachBucketFromTheNewestKeyToTheOldest)
{
    struct Row
    {
        const char* pszName;
        uint32_t nTableSize;
        bool bShift4;
        std::vector<uint16_t> vInsert, vRemove, vWalk;
    } rows[] = {
        {"keys sharing bucket 1 of 17", 17, false, {1, 18, 35}, {}, {35, 18, 1}},
        {"buckets 0 to 3 of 17", 17, false, {3, 20, 0, 2}, {}, {0, 2, 20, 3}},
        {"FileIDs in 97 buckets", 97, false, {100, 3, 197, 96, 0}, {}, {0, 197, 3, 100, 96}},
        {"a chain's middle removed", 97, false, {100, 3, 197, 96}, {3}, {197, 100, 96}},
        {"a bucket emptied", 97, false, {5, 102, 7}, {5, 102}, {7}},
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

TEST(Map, PrintsOneWarningLineForEachLookupStepBeyondThirty)
{
    enum Op { kLookup, kFind, kFindOrAdd, kRemoveKey };
    struct Row
    {
        const char* pszName;
        int nChain;
        uint32_t ulKey;  // all keys are multiples of 17, sharing bucket 0
        Op op;
        int nLines;
    } rows[] = {
        {"a miss in a chain of 30", 30, 17 * 99, kLookup, 0},
        {"the oldest of 30", 30, 0, kFind, 0},
        {"the oldest of 31", 31, 0, kLookup, 1},
        {"the newest of 31", 31, 17 * 30, kLookup, 0},
        {"a miss in a chain of 31", 31, 17 * 99, kFind, 1},
        {"the oldest of 33", 33, 0, kFind, 3},
        {"an insertion behind 31", 31, 17 * 99, kFindOrAdd, 1},
        {"a removal at the end of 33", 33, 0, kRemoveKey, 0},
    };
    for (const Row& row : rows)
    {
        QB_Map<uint32_t, int> map;
        for (int i = 0; i < row.nChain; ++i)
            map[17u * i] = i;
        int nValue = 0;
        testing::internal::CaptureStdout();
        bool bFound = row.op == kLookup     ? map.Lookup(row.ulKey, nValue)
                      : row.op == kFind     ? map.Find(row.ulKey) != nullptr
                      : row.op == kRemoveKey ? map.RemoveKey(row.ulKey)
                                             : (map.FindOrAdd(row.ulKey), true);
        std::string sOut = testing::internal::GetCapturedStdout();
        EXPECT_EQ(bFound, row.ulKey < 17u * row.nChain || row.op == kFindOrAdd) << row.pszName;

        char szLine[160];
        std::snprintf(szLine, sizeof szLine, "warning: unreasonable hash key! addr = 0x%016" PRIXPTR
                      " hash table = 17 count = %d\r\n", (uintptr_t)&map, row.nChain);
        std::string sExpected;
        for (int i = 0; i < row.nLines; ++i)
            sExpected += szLine;
        EXPECT_EQ(sOut, sExpected) << row.pszName;
    }
}

TEST(Map, TakesATableAtTheFirstInsertAndFreesItWithTheLastElement)
{
    for (bool bRemoveAll : {false, true})
    {
        QB_Map<uint16_t, int> map(97);
        int nValue = 7;
        EXPECT_FALSE(map.Lookup(5, nValue));
        EXPECT_FALSE(map.RemoveKey(5));
        EXPECT_FALSE(map.IsTableAllocated());
        EXPECT_EQ(map.GetStartPosition(), nullptr);
        for (uint16_t k : {1, 98, 2})
            map[k] = k;
        if (bRemoveAll)
            map.RemoveAll();
        else
            for (uint16_t k : {98, 1, 2})
                map.RemoveKey(k);
        EXPECT_FALSE(map.IsTableAllocated());
        EXPECT_EQ(map.GetStartPosition(), nullptr);
        EXPECT_EQ(map.GetHashTableSize(), 97u);

        map[195] = 5;
        EXPECT_EQ(WalkKeys(map), std::vector<uint16_t>{195});
        EXPECT_EQ(*map.Find(195), 5);
    }
}

TEST(Array, GrowsByAnEighthOfItsSizeKeptBetweenFourAndOneThousandTwentyFour)
{
    struct Row
    {
        int nSize, nGrowBy, nCapacityAfterAdd;
    } rows[] = {
        {0, 0, 4}, {3, 0, 4}, {20, 0, 24}, {100, 0, 112}, {16000, 0, 17024}, {8200, 0, 9224}, {10, 7, 17},
    };
    for (const Row& row : rows)
    {
        QB_Array<int> arr;
        arr.SetSize(row.nSize, row.nGrowBy);
        for (int i = 0; i < row.nSize; ++i)
            arr[i] = i + 1;
        EXPECT_EQ(arr.Add(-1), row.nSize);
        EXPECT_EQ(arr.GetCapacity(), row.nCapacityAfterAdd) << row.nSize;
        for (int i = 0; i < row.nSize; ++i)
            ASSERT_EQ(arr[i], i + 1) << "moved element " << i;
    }
}

TEST(Array, InsertsRemovesAndFindsByIndexAndRefusesNegativeNumbers)
{
    QB_Array<int> arr;
    struct Step
    {
        const char* pszName;
        std::function<void()> fn;
        std::vector<int> vAfter;
    } steps[] = {
        {"add", [&] { for (int i = 1; i <= 4; ++i) arr.Add(i); }, {1, 2, 3, 4}},
        {"insert at the front", [&] { arr.InsertAt(0, 9); }, {9, 1, 2, 3, 4}},
        {"insert in the middle", [&] { arr.InsertAt(3, 7); }, {9, 1, 2, 7, 3, 4}},
        {"insert past the end", [&] { arr.InsertAt(7, 5); }, {9, 1, 2, 7, 3, 4, 0, 5}},
        {"remove two", [&] { arr.RemoveAt(1, 2); }, {9, 7, 3, 4, 0, 5}},
        {"set beyond the end", [&] { arr.SetAtGrow(7, 8); }, {9, 7, 3, 4, 0, 5, 0, 8}},
        {"remove the last", [&] { arr.RemoveAt(7); }, {9, 7, 3, 4, 0, 5, 0}},
        {"remove too many", [&] { arr.RemoveAt(5, 3); }, {9, 7, 3, 4, 0, 5, 0}},
        {"negative numbers", [&] { arr.RemoveAt(-1); arr.SetSize(-2); arr.SetAtGrow(-1, 1); arr.InsertAt(-1, 1); },
         {9, 7, 3, 4, 0, 5, 0}},
        {"shrink and grow again", [&] { arr.SetSize(1); arr.SetSize(3); }, {9, 0, 0}},
    };
    for (const Step& step : steps)
    {
        step.fn();
        EXPECT_EQ(Elements(arr), step.vAfter) << step.pszName;
    }
    EXPECT_EQ(arr.Find(0), 1);
    EXPECT_EQ(arr.Find(0, 2), 2);
    EXPECT_EQ(arr.Find(0, -3), 1);
    EXPECT_EQ(arr.Find(6), -1);
    arr.SetSize(0);
    EXPECT_EQ(arr.GetData(), nullptr);
}

TEST(Array, AddsACopyOfItsOwnElementWhileGrowing)
{
    QB_Array<QB_StringA> arr;
    arr.Add(QB_StringA("first"));
    arr.SetSize(4);
    ASSERT_EQ(arr.GetCapacity(), 4);
    arr.Add(arr[0]);
    EXPECT_EQ(arr[4], "first");
    arr.SetSize(arr.GetCapacity());
    arr.InsertAt(1, arr[0]);
    EXPECT_EQ(arr[1], "first");
    EXPECT_EQ(arr[2], "");
    EXPECT_EQ(arr[5], "first");
}

TEST(List, KeepsInsertionOrderThroughAddsAndRemovals)
{
    QB_List<int> list;
    QB_List<int> other;
    other.AddTail(8);
    other.AddTail(9);
    int nTaken = 0;
    struct Step
    {
        const char* pszName;
        std::function<void()> fn;
        std::vector<int> vAfter;
    } steps[] = {
        {"tails and a head", [&] { list.AddTail(2); list.AddTail(3); list.AddHead(1); }, {1, 2, 3}},
        {"another list", [&] { list.AddTail(other); }, {1, 2, 3, 8, 9}},
        {"remove head", [&] { nTaken = list.RemoveHead(); }, {2, 3, 8, 9}},
        {"remove tail", [&] { nTaken += 10 * list.RemoveTail(); }, {2, 3, 8}},
        {"remove the middle", [&] { list.RemoveAt(list.Find(3)); }, {2, 8}},
        {"itself", [&] { list.AddTail(list); }, {2, 8, 2, 8}},
        {"second occurrence", [&] { list.RemoveAt(list.Find(2, list.Find(2))); }, {2, 8, 8}},
        {"a null position", [&] { list.RemoveAt(nullptr); }, {2, 8, 8}},
        {"all", [&] { list.RemoveAll(); }, {}},
        {"head of nothing", [&] { nTaken += 100 * list.RemoveHead() + list.RemoveTail(); }, {}},
        {"after emptying", [&] { list.AddHead(4); }, {4}},
    };
    for (const Step& step : steps)
    {
        step.fn();
        EXPECT_EQ(Forward(list), step.vAfter) << step.pszName;
        EXPECT_EQ(Backward(list), step.vAfter) << step.pszName;
        EXPECT_EQ(list.GetCount(), (int)step.vAfter.size()) << step.pszName;
    }
    EXPECT_EQ(nTaken, 91);
    EXPECT_EQ(list.GetHead(), 4);
    EXPECT_EQ(list.GetTail(), 4);
}

TEST(Containers, GiveBackEveryStringReferenceOnRemovalAndDestruction)
{
    QB_StringA s("shared text");
    QB_Map<uint32_t, QB_StringA> map;
    QB_List<QB_StringA> list;
    QB_Array<QB_StringA> arr;
    struct Step
    {
        const char* pszName;
        std::function<void()> fn;
        int nRefs;
    } steps[] = {
        {"map across two blocks", [&] { for (uint32_t k = 0; k < 12; ++k) map[k] = s; }, 13},
        {"map removal", [&] { map.RemoveKey(4); }, 12},
        {"map copy", [&] { QB_Map<uint32_t, QB_StringA> copy(map); map = copy; }, 12},
        {"map emptied", [&] { map.RemoveAll(); }, 1},
        {"list", [&] { for (int i = 0; i < 12; ++i) list.AddTail(s); }, 13},
        {"list removal", [&] { list.RemoveAt(list.GetHeadPosition()); }, 12},
        {"list copy", [&] { QB_List<QB_StringA> copy(list); list.AddTail(copy); }, 23},
        {"array growth", [&] { for (int i = 0; i < 20; ++i) arr.Add(s); }, 43},
        {"array removal", [&] { arr.RemoveAt(2, 4); }, 39},
        {"array shrink", [&] { arr.SetSize(5); }, 28},
        {"array copy", [&] { QB_Array<QB_StringA> copy(arr); arr = copy; }, 28},
        {"all gone", [&] { arr.RemoveAll(); list.RemoveAll(); }, 1},
    };
    for (const Step& step : steps)
    {
        step.fn();
        EXPECT_EQ(s.GetRefCount(), step.nRefs) << step.pszName;
    }
}

TEST(Locker, IsFreeAgainOnlyWhenReleasedAsOftenAsTakenAndAnEarlyUnlockCountsOnce)
{
    QB_Locker locker("test");
    locker.Lock();
    {
        QB_Lock lock(&locker);
        EXPECT_FALSE(FreeForAnotherThread(locker));
        lock.Unlock();
    }
    EXPECT_FALSE(FreeForAnotherThread(locker)) << "the scope guard released a second time";
    locker.Unlock();
    EXPECT_TRUE(FreeForAnotherThread(locker));
}
