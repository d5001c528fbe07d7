// The byte stream's hot paths: a 32 KiB data block through ReadBytes and
// WriteBytes, measured beside a plain memcpy of the same block so that the
// two can be compared within one run, and the count form over values of
// every size.
#include "QB_ByteStream.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <vector>

namespace {

constexpr int32_t BLOCK_SIZE = 32768;

// Equal numbers of values of each form size, shuffled so that the decoder's
// branch on the lead byte can't be learnt.
std::vector<uint32_t> SpreadOfCounts()
{
    const uint32_t kRanges[5][2] = {
        {0, 0x7F}, {0x80, 0x3FFF}, {0x4000, 0x1FFFFF}, {0x200000, 0xFFFFFFF}, {0x10000000, 0xFFFFFFFF},
    };
    std::mt19937 rng(17);
    std::vector<uint32_t> vulCounts;
    for (int i = 0; i < 1000; ++i)
        for (const auto& range : kRanges)
            vulCounts.push_back(range[0] + (uint32_t)(rng() % ((uint64_t)range[1] - range[0] + 1)));
    std::shuffle(vulCounts.begin(), vulCounts.end(), rng);
    return vulCounts;
}

void BM_BlockMemcpy(benchmark::State& state)
{
    std::vector<uint8_t> vbFrom(BLOCK_SIZE, 0x5A);
    std::vector<uint8_t> vbTo(BLOCK_SIZE);
    for (auto _ : state)
    {
        std::memcpy(vbTo.data(), vbFrom.data(), BLOCK_SIZE);
        benchmark::DoNotOptimize(vbTo.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * BLOCK_SIZE);
}

void BM_BlockReadBytes(benchmark::State& state)
{
    std::vector<uint8_t> vbFrom(BLOCK_SIZE, 0x5A);
    std::vector<uint8_t> vbTo(BLOCK_SIZE);
    for (auto _ : state)
    {
        QB_ByteStream load(vbFrom.data(), BLOCK_SIZE);
        load.ReadBytes(vbTo.data(), BLOCK_SIZE);
        benchmark::DoNotOptimize(vbTo.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * BLOCK_SIZE);
}

void BM_BlockWriteBytes(benchmark::State& state)
{
    std::vector<uint8_t> vbFrom(BLOCK_SIZE, 0x5A);
    std::vector<uint8_t> vbTo(QB_PDU_BUFFER_SIZE);
    for (auto _ : state)
    {
        QB_ByteStream save(vbTo.data(), QB_PDU_BUFFER_SIZE, false);
        save.WriteBytes(vbFrom.data(), BLOCK_SIZE);
        benchmark::DoNotOptimize(vbTo.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * BLOCK_SIZE);
}

void BM_CountEncode(benchmark::State& state)
{
    std::vector<uint32_t> vulCounts = SpreadOfCounts();
    std::vector<uint8_t> vbTo(vulCounts.size() * 5);
    for (auto _ : state)
    {
        QB_ByteStream save(vbTo.data(), (int32_t)vbTo.size(), false);
        for (uint32_t ulCount : vulCounts)
            save.WriteCount(ulCount);
        benchmark::DoNotOptimize(vbTo.data());
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * (int64_t)vulCounts.size());
}

void BM_CountDecode(benchmark::State& state)
{
    std::vector<uint32_t> vulCounts = SpreadOfCounts();
    std::vector<uint8_t> vbForms(vulCounts.size() * 5);
    QB_ByteStream save(vbForms.data(), (int32_t)vbForms.size(), false);
    for (uint32_t ulCount : vulCounts)
        save.WriteCount(ulCount);
    for (auto _ : state)
    {
        QB_ByteStream load(vbForms.data(), save.GetPos());
        uint32_t ulSum = 0;
        for (size_t i = 0; i < vulCounts.size(); ++i)
            ulSum += load.ReadCount();
        benchmark::DoNotOptimize(ulSum);
    }
    state.SetItemsProcessed(state.iterations() * (int64_t)vulCounts.size());
}

}  // namespace

BENCHMARK(BM_BlockMemcpy);
BENCHMARK(BM_BlockReadBytes);
BENCHMARK(BM_BlockWriteBytes);
BENCHMARK(BM_CountEncode);
BENCHMARK(BM_CountDecode);
