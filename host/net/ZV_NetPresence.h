// ZV_NetPresence: whether the users of one conference are in it, as the
// server host sees them. A lost connection is not a departure: a user whose
// command link dropped stays in the conference for a grace period, and
// leaves (host event 4, which ends the user's unfinished uploads) only when
// the client says goodbye or does not come back in time. A user who left
// and comes back carries the returning flag; one who only lost a link does
// not.
#pragma once

#include "QB_UserID.h"

#include <chrono>
#include <map>
#include <vector>

class ZV_NetPresence
{
public:
    using Clock = std::chrono::steady_clock;

    enum class State
    {
        Away,    // not seen since the server started
        Online,  // both links stand
        Lost,    // the command link dropped; the grace period runs
        Left,    // said goodbye, or the grace period ran out
    };

    explicit ZV_NetPresence(std::chrono::milliseconds msGrace) : m_msGrace(msGrace) {}

    State Of(const QB_UserID& user) const;
    // Both links of the user stand; true when the user had left, which is
    // the returning flag.
    bool Arrive(const QB_UserID& user);
    // The command link dropped without a goodbye.
    void Lose(const QB_UserID& user, Clock::time_point tpNow);
    // A goodbye; true when the user was in the conference, and so leaves.
    bool Leave(const QB_UserID& user);
    // The users whose grace period is over by tpNow; they have left.
    std::vector<QB_UserID> Expire(Clock::time_point tpNow);

private:
    struct Entry
    {
        State eState = State::Away;
        Clock::time_point tpLost;
    };

    std::chrono::milliseconds m_msGrace;
    std::map<QB_UserID, Entry> m_mapUsers;
};
