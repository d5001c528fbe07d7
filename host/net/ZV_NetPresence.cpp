#include "ZV_NetPresence.h"

ZV_NetPresence::State ZV_NetPresence::Of(const QB_UserID& user) const
{
    auto it = m_mapUsers.find(user);
    return it == m_mapUsers.end() ? State::Away : it->second.eState;
}

bool ZV_NetPresence::Arrive(const QB_UserID& user)
{
    Entry& entry = m_mapUsers[user];
    const bool bReturning = entry.eState == State::Left;
    entry.eState = State::Online;
    return bReturning;
}

void ZV_NetPresence::Lose(const QB_UserID& user, Clock::time_point tpNow)
{
    Entry& entry = m_mapUsers[user];
    if (entry.eState != State::Online)
        return;
    entry.eState = State::Lost;
    entry.tpLost = tpNow;
}

bool ZV_NetPresence::Leave(const QB_UserID& user)
{
    Entry& entry = m_mapUsers[user];
    const bool bWasIn = entry.eState == State::Online || entry.eState == State::Lost;
    if (bWasIn)
        entry.eState = State::Left;
    return bWasIn;
}

std::vector<QB_UserID> ZV_NetPresence::Expire(Clock::time_point tpNow)
{
    std::vector<QB_UserID> vecGone;
    for (auto& [user, entry] : m_mapUsers)
        if (entry.eState == State::Lost && tpNow - entry.tpLost >= m_msGrace)
        {
            entry.eState = State::Left;
            vecGone.push_back(user);
        }
    return vecGone;
}
