// Lookups in QB_Map at the shapes the system runs them, against
// std::unordered_map holding the same keys.
//
// Sessions by FileID: 97 buckets, keyed by u16. At 10,000 keys the chains
// average a hundred nodes and most lookups print the long-chain warning; the
// lines go to a null stream so the report stays readable, but their cost is
// measured, as a running system would pay it.
// Downloads by user: 17 buckets, keyed by two 32-bit words hashed by xor.
#include "QB_Map.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <random>
#include <unordered_map>
#include <vector>

namespace {

struct UserKey
{
    uint32_t ulMain;
    uint32_t ulSub;
    bool operator==(const UserKey& other) const { return ulMain == other.ulMain && ulSub == other.ulSub; }
};

struct UserKeyXor
{
    uint32_t operator()(const UserKey& key) const { return key.ulMain ^ key.ulSub; }
};

struct UserKeyXorStd
{
    size_t operator()(const UserKey& key) const { return key.ulMain ^ key.ulSub; }
};

// FileIDs come from a server's range one after the other.
std::vector<uint16_t> FileIds(int nCount)
{
    std::vector<uint16_t> v;
    for (int i = 0; i < nCount; ++i)
        v.push_back((uint16_t)(1000 + i));
    return v;
}

// Users of one server: consecutive numbers, with the server in the second word.
std::vector<UserKey> Users(int nCount)
{
    std::vector<UserKey> v;
    for (int i = 0; i < nCount; ++i)
        v.push_back({(uint32_t)(20000 + i * 7), 3});
    return v;
}

// Present keys in a fixed shuffled order, so no chain position is favoured.
template <class K>
std::vector<K> Probes(std::vector<K> vKeys)
{
    std::mt19937 rng(12345);
    std::shuffle(vKeys.begin(), vKeys.end(), rng);
    return vKeys;
}

template <class Map, class K>
void RunLookups(benchmark::State& state, Map& map, const std::vector<K>& vProbes)
{
    size_t i = 0;
    for (auto _ : state)
    {
        benchmark::DoNotOptimize(map.find(vProbes[i]));
        if (++i == vProbes.size())
            i = 0;
    }
    state.SetItemsProcessed(state.iterations());
}

// A QB_Map seen through the std spelling of a lookup, so one loop serves both.
template <class K, class V, class H>
struct QbFinder
{
    QB_Map<K, V, H>& map;
    V* find(const K& key) { return map.Find(key); }
};

template <class K, class V, class H>
void QbLookups(benchmark::State& state, QB_Map<K, V, H>& map, const std::vector<K>& vKeys)
{
    std::FILE* lpNull = std::fopen("/dev/null", "w");
    std::FILE* lpPrevious = QB_SetHashWarningStream(lpNull);
    for (const K& key : vKeys)
        map[key] = V{};
    QbFinder<K, V, H> finder{map};
    RunLookups(state, finder, Probes(vKeys));
    QB_SetHashWarningStream(lpPrevious);
    if (lpNull)
        std::fclose(lpNull);
}

void BM_QbMapFileId97(benchmark::State& state)
{
    QB_Map<uint16_t, void*> map(97);
    QbLookups(state, map, FileIds((int)state.range(0)));
}

void BM_StdMapFileId(benchmark::State& state)
{
    std::vector<uint16_t> vKeys = FileIds((int)state.range(0));
    std::unordered_map<uint16_t, void*> map;
    for (uint16_t k : vKeys)
        map[k] = nullptr;
    RunLookups(state, map, Probes(vKeys));
}

void BM_QbMapUser17(benchmark::State& state)
{
    QB_Map<UserKey, int, UserKeyXor> map(17);
    QbLookups(state, map, Users((int)state.range(0)));
}

void BM_StdMapUser(benchmark::State& state)
{
    std::vector<UserKey> vKeys = Users((int)state.range(0));
    std::unordered_map<UserKey, int, UserKeyXorStd> map;
    for (const UserKey& k : vKeys)
        map[k] = 0;
    RunLookups(state, map, Probes(vKeys));
}

}  // namespace

BENCHMARK(BM_QbMapFileId97)->Arg(100)->Arg(1000)->Arg(10000);
BENCHMARK(BM_StdMapFileId)->Arg(100)->Arg(1000)->Arg(10000);
BENCHMARK(BM_QbMapUser17)->Arg(10)->Arg(30)->Arg(100);
BENCHMARK(BM_StdMapUser)->Arg(10)->Arg(30)->Arg(100);
