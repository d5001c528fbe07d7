// ZV_HostTimer: the host's timer, in one place for every transport. A
// manager works on every fifth call, so the host hands over a running count
// of its calls, one a period, never the clock.
#pragma once

#include <cstdint>

class ZV_HostTimer
{
public:
    explicit ZV_HostTimer(uint64_t ullPeriodMs) : m_ullPeriod(ullPeriodMs), m_ullNext(ullPeriodMs) {}

    uint64_t GetPeriod() const { return m_ullPeriod; }
    // The calls due by ullElapsedMs, one at a time: fnCall(ullDueMs, ulTick)
    // for each, in order, until it answers false. A period of 0 never calls.
    template <typename F>
    bool RunUntil(uint64_t ullElapsedMs, F&& fnCall)
    {
        while (m_ullPeriod > 0 && m_ullNext <= ullElapsedMs)
        {
            const uint64_t ullDue = m_ullNext;
            m_ullNext += m_ullPeriod;
            if (!fnCall(ullDue, ++m_ulCount))
                return false;
        }
        return true;
    }

private:
    uint64_t m_ullPeriod;
    uint64_t m_ullNext;
    uint32_t m_ulCount = 0;
};
