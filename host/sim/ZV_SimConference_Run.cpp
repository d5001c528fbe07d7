// Look-ups, the delivery loop and the clock.
#include "ZV_SimConference.h"

#include "ZV_SimMachine.h"

namespace {

// How much of the journal a stuck run shows.
constexpr size_t kStuckTraceLines = 20;

}  // namespace

ZV_SimHost* ZV_SimConference::FindServer(uint32_t ulConfID, uint32_t ulServerID) const
{
    ZV_SimMachine* lpMachine = FindMachine(ulServerID);
    return lpMachine ? lpMachine->FindNode(ulConfID) : nullptr;
}

ZV_SimHost* ZV_SimConference::FindClient(uint32_t ulConfID, const QB_UserID& id) const
{
    for (const auto& lpNode : m_vecNodes)
        if (!lpNode->IsServer() && lpNode->GetConfID() == ulConfID && lpNode->GetUserID() == id)
            return lpNode.get();
    return nullptr;
}

ZV_SimMachine* ZV_SimConference::FindMachine(uint32_t ulServerID) const
{
    for (const auto& lpMachine : m_vecMachines)
        if (lpMachine->IsServer() && lpMachine->GetServerID() == ulServerID)
            return lpMachine.get();
    return nullptr;
}

ZV_SimLink* ZV_SimConference::GetClientLink(const ZV_SimHost* lpClient) const
{
    return lpClient ? m_network.FindClientLink(lpClient->GetMachine()) : nullptr;
}

ZV_SimLink* ZV_SimConference::GetServerLink(uint32_t ulServerA, uint32_t ulServerB) const
{
    return m_network.FindServerLink(FindMachine(ulServerA), FindMachine(ulServerB));
}

std::vector<ZV_SimHost*> ZV_SimConference::GetNodes() const
{
    std::vector<ZV_SimHost*> vecNodes;
    for (const auto& lpNode : m_vecNodes)
        vecNodes.push_back(lpNode.get());
    return vecNodes;
}

uint32_t ZV_SimConference::NewFloodSeq()
{
    if (++m_ulLastFloodSeq == 0)
        ++m_ulLastFloodSeq;
    return m_ulLastFloodSeq;
}

bool ZV_SimConference::Step()
{
    return m_network.Step();
}

bool ZV_SimConference::Run()
{
    for (size_t nStep = 0; nStep < m_options.nStepLimit; ++nStep)
        if (!m_network.Step())
            return true;
    if (GetPending() == 0)
        return true;
    size_t nSize = m_journal.Size();
    m_sError = "the conference seems stuck: Run stopped after " + std::to_string(m_options.nStepLimit) +
               " steps with " + std::to_string(GetPending()) + " still queued. The journal ends:\n" +
               m_journal.Dump(nSize > kStuckTraceLines ? nSize - kStuckTraceLines : 0);
    return false;
}

uint32_t ZV_SimConference::GetTick() const
{
    return m_options.ulStartTick + (uint32_t)m_ullElapsed;
}

void ZV_SimConference::SetElapsed(uint64_t ullElapsed)
{
    m_ullElapsed = ullElapsed;
    m_env.SetTick(GetTick());
    m_env.SetTimeT(m_options.llStartTime + (int64_t)(m_ullElapsed / 1000));
    m_journal.SetTick(GetTick());
}

bool ZV_SimConference::AdvanceTime(uint32_t ulMs)
{
    if (!Run())
        return false;
    const uint64_t ullEnd = m_ullElapsed + ulMs;
    const bool bSettled = m_timer.RunUntil(ullEnd, [this](uint64_t ullDue, uint32_t ulTick) {
        SetElapsed(ullDue);
        for (const auto& lpNode : m_vecNodes)
            lpNode->DeliverTimer(ulTick);
        return Run();
    });
    if (!bSettled)
        return false;
    SetElapsed(ullEnd);
    return true;
}
