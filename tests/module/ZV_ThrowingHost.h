// A recording host that throws from its Nth call, of any kind, once: for
// tests that a throw of the host at any point of a road leaves nothing of
// that road behind.
#pragma once

#include "ZV_RecordingHost.h"

#include <stdexcept>

class ZV_ThrowingHost : public ZV_RecordingHost
{
public:
    // The Nth call from now on throws; 0 never.
    void ThrowAt(int nNth)
    {
        m_nThrowAt = nNth;
        m_nCalls = 0;
        m_bThrew = false;
    }
    bool Threw() const { return m_bThrew; }

protected:
    void Called() override
    {
        if (++m_nCalls != m_nThrowAt)
            return;
        m_bThrew = true;
        throw std::runtime_error("the host fails");
    }

private:
    int m_nThrowAt = 0;
    int m_nCalls = 0;
    bool m_bThrew = false;
};
