#include "ZV_SimHost.h"

#include "ZV_SimConference.h"
#include "ZV_SimMachine.h"

#include <algorithm>

namespace {

std::string NodeName(const ZV_SimMachine* lpMachine, uint32_t ulConfID)
{
    return lpMachine->GetName() + "@" + std::to_string(ulConfID);
}

}  // namespace

ZV_SimHost::ZV_SimHost(ZV_SimConference* lpWorld, uint32_t nIndex, ZV_SimMachine* lpMachine, uint32_t ulConfID,
                       const ZV_SimUser* lpUser, std::string sHome)
    : ZV_HostNode(ulConfID, lpUser ? lpUser->id : lpMachine->GetID(), lpMachine->IsServer(), std::move(sHome)),
      m_lpWorld(lpWorld),
      m_nIndex(nIndex),
      m_lpMachine(lpMachine),
      m_user(lpUser ? *lpUser : ZV_SimUser{}),
      m_sName(NodeName(lpMachine, ulConfID))
{
}

ZV_SimNetwork& ZV_SimHost::Net() const
{
    return m_lpWorld->GetNetwork();
}

ZV_SimJournal& ZV_SimHost::Journal() const
{
    return m_lpWorld->Journal();
}

uint32_t ZV_SimHost::DeliverPdu(const ZV_SimMachine& peer, uint32_t ulConn, uint16_t usConnType, uint16_t usPdu,
                                const uint8_t* pData, uint32_t ulLen)
{
    const uint32_t ulResult = CallHandlePdu(peer.GetID(), ulConn, usConnType, usPdu, pData, ulLen);
    if (m_fnPdu)
        m_fnPdu(*this, usPdu, ulResult);
    return ulResult;
}

void ZV_SimHost::DeliverOnSend(const ZV_SimMachine& peer, uint32_t ulConn, uint16_t usConnType)
{
    JournalCall(ZV_SimCall::OnSend, peer.GetName(), ulConn, usConnType);
    CallOnSend(peer.GetID(), ulConn, usConnType);
}

void ZV_SimHost::DeliverLinkChange(bool bUp, const ZV_SimMachine& peer, uint32_t ulConn, uint16_t usConnType)
{
    JournalCall(bUp ? ZV_SimCall::OnConnect : ZV_SimCall::OnDisconnect, peer.GetName(), ulConn, usConnType);
    CallLinkChange(bUp, peer.GetID(), ulConn, usConnType);
}

void ZV_SimHost::DeliverTimer(uint32_t ulTick)
{
    CallTimer(ulTick);
}

uint32_t ZV_SimHost::DeliverEvent(uint16_t usEvent, uintptr_t a1, uintptr_t a2, const std::string& sArg2)
{
    ZV_SimEntry entry;
    entry.eKind = ZV_SimEntryKind::Call;
    entry.eCall = ZV_SimCall::OnEvent;
    entry.sNode = m_sName;
    entry.sPeer = sArg2;
    entry.usNumber = usEvent;
    entry.ulArg = (uint32_t)a1;
    // A pointer in a2 would make two runs of one scenario journal apart.
    entry.ulConn = sArg2.empty() ? (uint32_t)a2 : zvConnNone;
    Journal().Add(std::move(entry));
    return CallEvent(usEvent, a1, a2);
}

void ZV_SimHost::JournalCall(ZV_SimCall eCall, const std::string& sPeer, uint32_t ulConn, uint16_t usConnType)
{
    ZV_SimEntry entry;
    entry.eKind = ZV_SimEntryKind::Call;
    entry.eCall = eCall;
    entry.sNode = m_sName;
    entry.sPeer = sPeer;
    entry.ulConn = ulConn;
    entry.usConnType = usConnType;
    Journal().Add(std::move(entry));
}

void ZV_SimHost::OnConfEvent(IZV_ConfHost* lpConf, uint16_t usEvent, uint32_t ulLen, const uint8_t* pData)
{
    ZV_SimEntry entry;
    entry.eKind = ZV_SimEntryKind::Event;
    entry.sNode = m_sName;
    entry.usNumber = usEvent;
    std::vector<uint8_t> vbData;
    if (pData)
        vbData.assign(pData, pData + ulLen);
    // The journal keeps only the head of a payload; the callback gets it all.
    entry.nDataLen = vbData.size();
    entry.vbData.assign(vbData.begin(), vbData.begin() + std::min(vbData.size(), Journal().GetPayloadLimit()));
    Journal().Add(std::move(entry));
    if (m_fnEvent)
        m_fnEvent(*this, usEvent, vbData);
}

// ---------------------------------------------------------------------------
// The node's place among the machines, and its links.

std::vector<ZV_HostLink*> ZV_SimHost::Links() const
{
    std::vector<ZV_HostLink*> vecLinks;
    for (const ZV_SimLinkEnd& end : Net().LinksOf(this))
        vecLinks.push_back(end.lpLink->GetHostEnd(end.nSide));
    return vecLinks;
}

ZV_SimMachine* ZV_SimHost::GetHomeServer() const
{
    return IsServer() ? m_lpMachine : m_lpWorld->FindMachine(m_user.ulHomeServer);
}

uint32_t ZV_SimHost::GetLocalServerID()
{
    return IsServer() ? m_lpMachine->GetServerID() : m_user.ulHomeServer;
}

uint16_t ZV_SimHost::GetFileIDMin()
{
    ZV_SimMachine* lpServer = GetHomeServer();
    return lpServer ? lpServer->GetFileIDMin() : 0;
}

uint16_t ZV_SimHost::GetFileIDMax()
{
    ZV_SimMachine* lpServer = GetHomeServer();
    return lpServer ? lpServer->GetFileIDMax() : 0;
}

const ZV_HostUserTable& ZV_SimHost::Users() const
{
    return m_lpWorld->GetUsers(GetConfID());
}

uint32_t ZV_SimHost::NextFloodSeq()
{
    return m_lpWorld->NewFloodSeq();
}

// ---------------------------------------------------------------------------
// Sends go into the network's queue, which journals each.

ZV_SimSend ZV_SimHost::ToSimSend(const ZV_HostSend& send)
{
    ZV_SimSend simSend;
    simSend.lpFrom = this;
    simSend.eRoute = send.eRoute;
    if (send.lpLink)
        simSend.end = ZV_SimLink::EndOf(send.lpLink);
    simSend.nChannel = send.nChannel;
    simSend.ulConn = send.ulConn;
    simSend.usConnType = send.usConnType;
    simSend.usPdu = send.usPdu;
    simSend.pData = send.pData;
    simSend.ulLen = send.ulLen;
    simSend.bFlag1 = send.bFlag1;
    simSend.bFlag2 = send.bFlag2;
    return simSend;
}

uint32_t ZV_SimHost::Carry(const ZV_HostSend& send)
{
    return Net().Send(ToSimSend(send));
}

uint32_t ZV_SimHost::Kick(const ZV_HostSend& send)
{
    return Net().Send(ToSimSend(send));
}

uint32_t ZV_SimHost::Refuse(const ZV_HostSend& send)
{
    return Net().Refuse(ToSimSend(send));
}
