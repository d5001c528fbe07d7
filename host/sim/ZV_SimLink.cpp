#include "ZV_SimLink.h"

#include "ZV_SimMachine.h"

ZV_SimLink::ZV_SimLink(uint32_t ulID, ZV_SimMachine* lpA, ZV_SimMachine* lpB, uint32_t ulConfID)
    : m_ulID(ulID), m_ulConfID(ulConfID), m_alpMachine{lpA, lpB}
{
    for (int nSide = 0; nSide < 2; ++nSide)
    {
        m_aEnd[nSide].m_lpLink = this;
        m_aEnd[nSide].m_nSide = nSide;
    }
}

int ZV_SimLink::SideOf(const ZV_SimMachine* lpMachine) const
{
    if (lpMachine == m_alpMachine[0])
        return 0;
    return lpMachine == m_alpMachine[1] ? 1 : -1;
}

const QB_UserID& ZV_SimLink::PeerOf(int nSide) const
{
    return m_alpMachine[1 - nSide]->GetID();
}

uint16_t ZV_SimLink::GetConnType(int nChannel) const
{
    if (IsServerLink())
        return nChannel == zvSimData ? zvConfServerTypeData : zvConfServerTypeCommand;
    return nChannel == zvSimData ? zvConfClientTypeData : zvConfClientTypeCommand;
}

int ZV_SimLink::ChannelOf(uint16_t usConnType) const
{
    for (int nChannel : {zvSimCommand, zvSimData})
        if (GetConnType(nChannel) == usConnType)
            return nChannel;
    return -1;
}

uint32_t ZV_SimLink::GetConn(int nSide, int nChannel) const
{
    return m_aConn[nChannel].aulNumber[nSide];
}

int ZV_SimLink::FindChannel(int nSide, uint32_t ulConn) const
{
    if (ulConn == zvConnNone)
        return -1;
    for (int nChannel : {zvSimCommand, zvSimData})
        if (m_aConn[nChannel].aulNumber[nSide] == ulConn)
            return nChannel;
    return -1;
}

bool ZV_SimLink::Open(int nChannel)
{
    Conn& conn = m_aConn[nChannel];
    if (conn.bUp)
        return false;
    conn.bUp = true;
    for (int nSide = 0; nSide < 2; ++nSide)
        conn.aulNumber[nSide] = m_alpMachine[nSide]->NewConn();
    return true;
}

bool ZV_SimLink::Close(int nChannel)
{
    Conn& conn = m_aConn[nChannel];
    if (!conn.bUp)
        return false;
    conn = Conn{};
    return true;
}

uint32_t ZV_SimLink::End::GetConn(uint16_t usConnType)
{
    int nChannel = m_lpLink->ChannelOf(usConnType);
    return nChannel < 0 ? zvConnNone : m_lpLink->GetConn(m_nSide, nChannel);
}

ZV_SimLinkEnd ZV_SimLink::EndOf(ZV_HostLink* lpHostEnd)
{
    End* lpEnd = static_cast<End*>(lpHostEnd);
    return {lpEnd->m_lpLink, lpEnd->m_nSide};
}
