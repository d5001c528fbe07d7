// ZV_Percent: how far a file has come, as the events to the user side and
// the server's progress report carry it. The roads compute it in three ways
// whose last bits differ, and each keeps its own: the user side of each
// road has always read that road's value.
#pragma once

#include <cmath>
#include <cstdint>

// What an empty file shows: whole (the full scale), or the plain quotient,
// which is not a finite number, where the road divides unguarded.
enum class ZV_IfEmpty : uint8_t
{
    Whole,
    Quotient,
};

// 100 * position / length: a file that comes into sight (3000 on a change of
// rights), a download's progress (3009) and its failure (3002).
inline double ZV_PercentScaledFirst(uint32_t ulPos, uint32_t ulLength, ZV_IfEmpty eEmpty)
{
    if (ulLength == 0 && eEmpty == ZV_IfEmpty::Whole)
        return 100.0;
    return 100.0 * ulPos / ulLength;
}

// position / length * 100: an announced file (3000), a listed download
// (3002), new rights (3003), upload progress (3008), a batch (3013).
inline double ZV_PercentOfShare(uint32_t ulPos, uint32_t ulLength, ZV_IfEmpty eEmpty)
{
    if (ulLength == 0 && eEmpty == ZV_IfEmpty::Whole)
        return 100.0;
    return (double)ulPos / ulLength * 100.0;
}

// position / length * 10000: the files of a client's upload list (3013).
inline double ZV_TenThousandthsOfShare(uint32_t ulPos, uint32_t ulLength, ZV_IfEmpty eEmpty)
{
    if (ulLength == 0 && eEmpty == ZV_IfEmpty::Whole)
        return 10000.0;
    return (double)ulPos / ulLength * 10000.0;
}

// floor(position / length * 10000): the step of a file's progress that a
// server publishes (8022). Its caller publishes a whole file apart, so the
// position is short of the length here, and the length is not 0.
inline uint32_t ZV_ProgressStep(uint32_t ulPos, uint32_t ulLength)
{
    return (uint32_t)std::floor((double)ulPos / ulLength * 10000.0);
}
