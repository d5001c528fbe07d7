// ZV_HostPump: what a host does about OnSend for one node on one data
// connection. A kick wakes a resting pump; the host then calls OnSend while
// the module goes on sending on that connection (a kick counts), holds the
// calls back while the connection holds as much as it may, and lets the
// pump rest after a call that sent nothing there, until the next kick.
//
// The transport decides what "full" means (PDUs in flight, bytes queued)
// and schedules the calls; the pump only says when.
#pragma once

#include <cstdint>

class ZV_HostPump
{
public:
    enum class State
    {
        Resting,    // waits for a kick
        Scheduled,  // an OnSend call is due
        Running,    // inside the OnSend call
        Blocked,    // wants to go on, but the connection holds too much
    };

    State GetState() const { return m_eState; }

    // Each returns true when the transport must now schedule an OnSend call.
    bool OnKick(bool bFull)
    {
        ++m_nSent;
        return m_eState == State::Resting && Arm(bFull);
    }
    // A PDU went out on the connection.
    void OnPdu() { ++m_nSent; }
    // Brackets the OnSend call; BeginCall's mark goes to EndCall.
    uint32_t BeginCall()
    {
        m_eState = State::Running;
        return m_nSent;
    }
    bool EndCall(uint32_t nMark, bool bFull)
    {
        if (m_nSent == nMark)
        {
            m_eState = State::Resting;
            return false;
        }
        return Arm(bFull);
    }
    // The connection took some of what it held.
    bool OnRoom(bool bFull) { return m_eState == State::Blocked && Arm(bFull); }

private:
    bool Arm(bool bFull)
    {
        m_eState = bFull ? State::Blocked : State::Scheduled;
        return !bFull;
    }

    State m_eState = State::Resting;
    uint32_t m_nSent = 0;  // kicks included, so that a call that only kicks goes on
};
