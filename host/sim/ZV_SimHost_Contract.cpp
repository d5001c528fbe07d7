// What a manager asks of its host: who it is, who is in the conference, and
// which connections lead where. Connections that are down have no number.
#include "ZV_SimConference.h"
#include "ZV_SimHost.h"
#include "ZV_SimMachine.h"

std::vector<ZV_SimLinkEnd> ZV_SimHost::Links() const
{
    return Net().LinksOf(this);
}

ZV_SimLinkEnd ZV_SimHost::FindLinkTo(const QB_UserID* lpPeer) const
{
    if (!lpPeer)
        return {};
    for (const ZV_SimLinkEnd& end : Links())
        if (end.lpLink->PeerOf(end.nSide) == *lpPeer)
            return end;
    return {};
}

ZV_SimLinkEnd ZV_SimHost::FindServerLinkTo(uint32_t ulServerID) const
{
    QB_UserID idServer(ulServerID, 0);
    ZV_SimLinkEnd end = FindLinkTo(&idServer);
    return end && end.lpLink->IsServerLink() ? end : ZV_SimLinkEnd{};
}

ZV_SimLinkEnd ZV_SimHost::FindConn(uint32_t ulConn, int* lpnChannel) const
{
    for (const ZV_SimLinkEnd& end : Links())
    {
        *lpnChannel = end.lpLink->FindChannel(end.nSide, ulConn);
        if (*lpnChannel >= 0)
            return end;
    }
    return {};
}

ZV_SimMachine* ZV_SimHost::GetHomeServer() const
{
    return IsServer() ? m_lpMachine : m_lpWorld->FindMachine(m_user.ulHomeServer);
}

uint32_t ZV_SimHost::GetClientCount()
{
    uint32_t nCount = 0;
    if (IsServer())
        for (const ZV_SimLinkEnd& end : Links())
            if (!end.lpLink->IsServerLink() && end.lpLink->IsUp(zvSimCommand))
                ++nCount;
    return nCount;
}

uint32_t ZV_SimHost::GetLocalServerID()
{
    return IsServer() ? m_lpMachine->GetServerID() : m_user.ulHomeServer;
}

bool ZV_SimHost::CanShareFiles(const QB_UserID* lpUser)
{
    const ZV_SimUser* lpRecord = lpUser ? m_lpWorld->GetUsers(m_ulConfID).Find(*lpUser) : nullptr;
    return lpRecord && lpRecord->bCanShare;
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

uint32_t ZV_SimHost::GetUserConn(const QB_UserID* lpUser, uint16_t usConnType)
{
    ZV_SimLinkEnd end = FindLinkTo(lpUser);
    return end ? end.lpLink->GetEnd(end.nSide)->GetConn(usConnType) : zvConnNone;
}

uint32_t ZV_SimHost::GetServerConn(uint32_t ulServerID, uint16_t usConnType, uint32_t ulReserved)
{
    ZV_SimLinkEnd end = FindServerLinkTo(ulServerID);
    return end ? end.lpLink->GetEnd(end.nSide)->GetConn(usConnType) : zvConnNone;
}

IZV_ConfLink* ZV_SimHost::GetUserLink(const QB_UserID* lpUser)
{
    ZV_SimLinkEnd end = FindLinkTo(lpUser);
    return end ? end.lpLink->GetEnd(end.nSide) : nullptr;
}

IZV_ConfLink* ZV_SimHost::GetServerLink()
{
    // A client node has one link, to its home server.
    std::vector<ZV_SimLinkEnd> vecEnds = IsServer() ? std::vector<ZV_SimLinkEnd>() : Links();
    return vecEnds.empty() ? nullptr : vecEnds[0].lpLink->GetEnd(vecEnds[0].nSide);
}

const ZV_ConfUserInfo* ZV_SimHost::GetUser(const QB_UserID* lpUser)
{
    return lpUser ? m_lpWorld->GetUsers(m_ulConfID).GetInfo(*lpUser) : nullptr;
}

bool ZV_SimHost::HasServerLinks()
{
    if (!IsServer())
        return false;
    for (const ZV_SimLinkEnd& end : Links())
        if (end.lpLink->IsServerLink() && end.lpLink->IsUp(zvSimCommand))
            return true;
    return false;
}
