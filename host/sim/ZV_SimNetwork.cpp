#include "ZV_SimNetwork.h"

#include "ZV_SimHost.h"
#include "ZV_SimMachine.h"

#include <algorithm>

namespace {

bool HostsConf(const ZV_SimMachine* lpMachine, uint32_t ulConfID)
{
    return lpMachine->FindNode(ulConfID) != nullptr;
}

}  // namespace

ZV_SimNetwork::ZV_SimNetwork(ZV_SimJournal* lpJournal, uint32_t nInFlightBound)
    : m_lpJournal(lpJournal), m_nInFlightBound(std::max<uint32_t>(nInFlightBound, 1))
{
}

ZV_SimLink* ZV_SimNetwork::AddLink(ZV_SimMachine* lpA, ZV_SimMachine* lpB, uint32_t ulConfID)
{
    uint32_t ulID = (uint32_t)m_vecLinks.size() + 1;
    m_vecLinks.push_back(std::make_unique<ZV_SimLink>(ulID, lpA, lpB, ulConfID));
    return m_vecLinks.back().get();
}

ZV_SimLink* ZV_SimNetwork::FindServerLink(const ZV_SimMachine* lpA, const ZV_SimMachine* lpB) const
{
    for (const auto& lpLink : m_vecLinks)
        if (lpLink->IsServerLink() && lpLink->SideOf(lpA) >= 0 && lpLink->SideOf(lpB) >= 0 && lpA != lpB)
            return lpLink.get();
    return nullptr;
}

ZV_SimLink* ZV_SimNetwork::FindClientLink(const ZV_SimMachine* lpClient) const
{
    for (const auto& lpLink : m_vecLinks)
        if (!lpLink->IsServerLink() && lpLink->GetMachine(0) == lpClient)
            return lpLink.get();
    return nullptr;
}

std::vector<ZV_SimLinkEnd> ZV_SimNetwork::LinksOf(const ZV_SimHost* lpNode) const
{
    std::vector<ZV_SimLinkEnd> vecEnds;
    uint32_t ulConfID = lpNode->GetConfID();
    for (const auto& lpLink : m_vecLinks)
    {
        int nSide = lpLink->SideOf(lpNode->GetMachine());
        if (nSide < 0)
            continue;
        bool bServes = lpLink->IsServerLink() ? HostsConf(lpLink->GetMachine(1 - nSide), ulConfID)
                                              : lpLink->GetConfID() == ulConfID;
        if (bServes)
            vecEnds.push_back({lpLink.get(), nSide});
    }
    return vecEnds;
}

std::vector<ZV_SimHost*> ZV_SimNetwork::NodesAt(const ZV_SimLink* lpLink, int nSide) const
{
    const ZV_SimMachine* lpMachine = lpLink->GetMachine(nSide);
    const ZV_SimMachine* lpPeer = lpLink->GetMachine(1 - nSide);
    std::vector<ZV_SimHost*> vecNodes;
    for (ZV_SimHost* lpNode : lpMachine->GetNodes())
    {
        bool bServes = lpLink->IsServerLink() ? HostsConf(lpPeer, lpNode->GetConfID())
                                              : lpNode->GetConfID() == lpLink->GetConfID();
        if (bServes)
            vecNodes.push_back(lpNode);
    }
    return vecNodes;
}

std::vector<ZV_SimHost*> ZV_SimNetwork::NodesOn(const ZV_SimLink* lpLink) const
{
    std::vector<ZV_SimHost*> vecNodes = NodesAt(lpLink, 0);
    for (ZV_SimHost* lpNode : NodesAt(lpLink, 1))
        vecNodes.push_back(lpNode);
    return vecNodes;
}

bool ZV_SimNetwork::Open(ZV_SimLink* lpLink, int nChannel)
{
    if (!lpLink->Open(nChannel))
        return false;
    uint32_t aulConn[2] = {lpLink->GetConn(0, nChannel), lpLink->GetConn(1, nChannel)};
    Notify(lpLink, nChannel, true, aulConn, NodesOn(lpLink));
    return true;
}

bool ZV_SimNetwork::Close(ZV_SimLink* lpLink, int nChannel)
{
    if (!lpLink->IsUp(nChannel))
        return false;
    LoseInFlight(lpLink, nChannel);
    // The modules are told the numbers they knew the connection by.
    uint32_t aulConn[2] = {lpLink->GetConn(0, nChannel), lpLink->GetConn(1, nChannel)};
    lpLink->Close(nChannel);
    Notify(lpLink, nChannel, false, aulConn, NodesOn(lpLink));
    return true;
}

void ZV_SimNetwork::Announce(ZV_SimLink* lpLink, int nChannel, const std::vector<ZV_SimHost*>& vecNodes)
{
    if (!lpLink->IsUp(nChannel))
        return;
    uint32_t aulConn[2] = {lpLink->GetConn(0, nChannel), lpLink->GetConn(1, nChannel)};
    Notify(lpLink, nChannel, true, aulConn, vecNodes);
}

void ZV_SimNetwork::Notify(ZV_SimLink* lpLink, int nChannel, bool bUp, const uint32_t aulConn[2],
                           const std::vector<ZV_SimHost*>& vecNodes)
{
    for (ZV_SimHost* lpNode : vecNodes)
    {
        int nSide = lpLink->SideOf(lpNode->GetMachine());
        lpNode->DeliverLinkChange(bUp, *lpLink->GetMachine(1 - nSide), aulConn[nSide], lpLink->GetConnType(nChannel));
    }
}

void ZV_SimNetwork::LoseInFlight(const ZV_SimLink* lpLink, int nChannel)
{
    auto IsOnIt = [lpLink, nChannel](const Task& task) {
        return task.lpLink == lpLink && task.nChannel == nChannel;
    };
    for (const Task& task : m_queue)
        if (IsOnIt(task) && !task.bOnSend)
            m_lpJournal->SetFate(task.nEntry, ZV_SimFate::Lost);
    m_queue.erase(std::remove_if(m_queue.begin(), m_queue.end(), IsOnIt), m_queue.end());
    std::erase_if(m_mapPumps, [lpLink, nChannel](const auto& item) {
        return std::get<1>(item.first) == lpLink->GetID() && std::get<2>(item.first) == nChannel;
    });
}

ZV_SimEntry ZV_SimNetwork::MakeEntry(const ZV_SimSend& send) const
{
    ZV_SimEntry entry;
    entry.eKind = ZV_SimEntryKind::Pdu;
    entry.sNode = send.lpFrom->GetName();
    entry.usNumber = send.usPdu;
    entry.eRoute = send.eRoute;
    entry.ulConn = send.ulConn;
    entry.usConnType = send.end ? send.end.lpLink->GetConnType(send.nChannel) : send.usConnType;
    entry.bFlag1 = send.bFlag1;
    entry.bFlag2 = send.bFlag2;
    // Only what the journal keeps is copied; the delivery takes its own copy.
    entry.nDataLen = send.pData ? send.ulLen : 0;
    if (send.pData)
        entry.vbData.assign(send.pData, send.pData + std::min<size_t>(send.ulLen, m_lpJournal->GetPayloadLimit()));
    return entry;
}

uint32_t ZV_SimNetwork::Refuse(const ZV_SimSend& send)
{
    ZV_SimEntry entry = MakeEntry(send);
    entry.eFate = ZV_SimFate::Refused;
    m_lpJournal->Add(std::move(entry));
    return zvSimSendRefused;
}

uint32_t ZV_SimNetwork::Send(const ZV_SimSend& send)
{
    bool bBadPayload = send.ulLen > zvSimMaxPayload || (!send.pData && send.ulLen > 0);
    if (!send.end || !send.end.lpLink->IsUp(send.nChannel) || bBadPayload)
        return Refuse(send);
    ZV_SimEntry entry = MakeEntry(send);
    if (send.usPdu == PDU_CONF_FS_KICK)
        return Kick(send, std::move(entry));

    ZV_SimLink* lpLink = send.end.lpLink;
    entry.sPeer = ReceiverName(send);
    Task task;
    task.lpFrom = send.lpFrom;
    task.lpLink = lpLink;
    task.nChannel = send.nChannel;
    task.nFromSide = send.end.nSide;
    task.usPdu = send.usPdu;
    task.bConfWord = lpLink->IsServerLink() && ZV_CarriesConfWord(send.eRoute);
    // The sender's buffer is its own again when Send returns.
    task.vbData.assign(send.pData, send.pData + send.ulLen);
    task.nEntry = m_lpJournal->Add(std::move(entry));
    m_queue.push_back(std::move(task));

    Pump& pump = PumpOf(send.lpFrom, lpLink, send.nChannel);
    ++pump.nInFlight;
    pump.pump.OnPdu();
    return 0;
}

// Known at once on a client link; over a server link the receiving host
// finds the conference only when the PDU arrives.
std::string ZV_SimNetwork::ReceiverName(const ZV_SimSend& send) const
{
    const ZV_SimLink* lpLink = send.end.lpLink;
    if (lpLink->IsServerLink())
        return {};
    ZV_SimHost* lpNode = lpLink->GetMachine(1 - send.end.nSide)->FindNode(lpLink->GetConfID());
    return lpNode ? lpNode->GetName() : std::string();
}

uint32_t ZV_SimNetwork::Kick(const ZV_SimSend& send, ZV_SimEntry entry)
{
    if (send.nChannel != zvSimData)
    {
        entry.eFate = ZV_SimFate::Refused;
        m_lpJournal->Add(std::move(entry));
        return zvSimSendRefused;
    }
    entry.eFate = ZV_SimFate::Kick;
    m_lpJournal->Add(std::move(entry));
    Pump& pump = PumpOf(send.lpFrom, send.end.lpLink, send.nChannel);
    if (pump.pump.OnKick(IsFull(pump)))
        Schedule(send.lpFrom, send.end.lpLink, send.nChannel, send.end.nSide);
    return 0;
}

ZV_SimNetwork::Pump& ZV_SimNetwork::PumpOf(const ZV_SimHost* lpNode, const ZV_SimLink* lpLink, int nChannel)
{
    return m_mapPumps[PumpKey(lpNode->GetIndex(), lpLink->GetID(), nChannel)];
}

void ZV_SimNetwork::Schedule(ZV_SimHost* lpNode, ZV_SimLink* lpLink, int nChannel, int nSide)
{
    Task task;
    task.bOnSend = true;
    task.lpFrom = lpNode;
    task.lpLink = lpLink;
    task.nChannel = nChannel;
    task.nFromSide = nSide;
    m_queue.push_back(std::move(task));
}

bool ZV_SimNetwork::Step()
{
    if (m_queue.empty())
        return false;
    Task task = std::move(m_queue.front());
    m_queue.pop_front();
    if (task.bOnSend)
        RunOnSend(task);
    else
        Deliver(task);
    return true;
}

void ZV_SimNetwork::RunOnSend(const Task& task)
{
    ZV_SimLink* lpLink = task.lpLink;
    const uint32_t nMark = PumpOf(task.lpFrom, lpLink, task.nChannel).pump.BeginCall();
    task.lpFrom->DeliverOnSend(*lpLink->GetMachine(1 - task.nFromSide), lpLink->GetConn(task.nFromSide, task.nChannel),
                               lpLink->GetConnType(task.nChannel));
    // A connection cut during the call took its pumps with it.
    if (!lpLink->IsUp(task.nChannel))
        return;
    Pump& pump = PumpOf(task.lpFrom, lpLink, task.nChannel);
    if (pump.pump.EndCall(nMark, IsFull(pump)))
        Schedule(task.lpFrom, lpLink, task.nChannel, task.nFromSide);
}

void ZV_SimNetwork::Deliver(Task& task)
{
    Pump& pump = PumpOf(task.lpFrom, task.lpLink, task.nChannel);
    --pump.nInFlight;
    if (pump.pump.OnRoom(IsFull(pump)))
        Schedule(task.lpFrom, task.lpLink, task.nChannel, task.nFromSide);

    ZV_SimFate eFate = ZV_SimFate::Delivered;
    ZV_SimHost* lpTo = FindReceiver(task, &eFate);
    if (!lpTo)
    {
        m_lpJournal->SetFate(task.nEntry, eFate);
        return;
    }
    m_lpJournal->SetDelivered(task.nEntry, lpTo->GetName());
    const ZV_SimLink* lpLink = task.lpLink;
    int nToSide = 1 - task.nFromSide;
    uint32_t ulResult = lpTo->DeliverPdu(*lpLink->GetMachine(task.nFromSide), lpLink->GetConn(nToSide, task.nChannel),
                                         lpLink->GetConnType(task.nChannel), task.usPdu, task.vbData.data() + task.nSkip,
                                         (uint32_t)(task.vbData.size() - task.nSkip));
    m_lpJournal->SetResult(task.nEntry, ulResult);
}

// The receiving host's part: over a server link the conference word says
// which of the machine's conferences the PDU is for, and comes off before
// the module sees the payload. SendPdu carries no word; the host sends it
// within the sender's own conference.
ZV_SimHost* ZV_SimNetwork::FindReceiver(Task& task, ZV_SimFate* lpeFate) const
{
    const ZV_SimLink* lpLink = task.lpLink;
    const ZV_SimMachine* lpMachine = lpLink->GetMachine(1 - task.nFromSide);
    if (!lpLink->IsServerLink())
        return lpMachine->FindNode(lpLink->GetConfID());
    if (!task.bConfWord)
    {
        ZV_SimHost* lpNode = lpMachine->FindNode(task.lpFrom->GetConfID());
        if (!lpNode)
            *lpeFate = ZV_SimFate::UnknownConf;
        return lpNode;
    }
    if (task.vbData.size() < 2)
    {
        *lpeFate = ZV_SimFate::NoConfWord;
        return nullptr;
    }
    uint16_t usWord = (uint16_t)(task.vbData[0] | (task.vbData[1] << 8));
    ZV_SimHost* lpNode = lpMachine->FindNodeByWord(usWord);
    if (!lpNode)
    {
        *lpeFate = ZV_SimFate::UnknownConf;
        return nullptr;
    }
    task.nSkip = 2;
    return lpNode;
}
