// Comings and goings: users who join and leave, links that drop and come
// back, and the host events that go with them.
#include "ZV_SimConference.h"

#include "ZV_SimMachine.h"

// A user's own server hears first; the others keep the same user table and
// hear too, which is how a server learns that a creator homed elsewhere has
// gone.
std::vector<ZV_SimHost*> ZV_SimConference::ServersOf(uint32_t ulConfID, uint32_t ulHomeFirst) const
{
    std::vector<ZV_SimHost*> vecServers;
    ZV_SimHost* lpHome = FindServer(ulConfID, ulHomeFirst);
    if (lpHome)
        vecServers.push_back(lpHome);
    for (const auto& lpNode : m_vecNodes)
        if (lpNode->IsServer() && lpNode->GetConfID() == ulConfID && lpNode.get() != lpHome)
            vecServers.push_back(lpNode.get());
    return vecServers;
}

void ZV_SimConference::RaiseUserEvent(uint32_t ulConfID, uint16_t usEvent, const ZV_SimHost* lpClient)
{
    QB_UserID idUser = lpClient->GetUserID();
    for (ZV_SimHost* lpServer : ServersOf(ulConfID, lpClient->GetUserRecord().ulHomeServer))
        lpServer->DeliverEvent(usEvent, 0, (uintptr_t)&idUser, lpClient->GetMachine()->GetName());
}

void ZV_SimConference::RaiseServerLink(ZV_SimLink* lpLink, const std::vector<ZV_SimHost*>& vecNodes)
{
    for (ZV_SimHost* lpNode : vecNodes)
    {
        uint32_t ulConn = lpLink->GetConn(lpLink->SideOf(lpNode->GetMachine()), zvSimCommand);
        lpNode->DeliverEvent(zvConfEventServerLink, 0, ulConn, {});
    }
}

bool ZV_SimConference::Leave(ZV_SimHost* lpClient)
{
    ZV_SimLink* lpLink = GetClientLink(lpClient);
    if (!lpLink || !GetUsers(lpClient->GetConfID()).Find(lpClient->GetUserID()))
        return Fail("only a client in its conference can leave");
    CutLink(lpLink);
    // The user is still in the table while the servers hear of the leave:
    // its home server decides by the record what becomes of its files.
    RaiseUserEvent(lpClient->GetConfID(), zvConfEventUserLeave, lpClient);
    GetUsers(lpClient->GetConfID()).Remove(lpClient->GetUserID());
    return true;
}

bool ZV_SimConference::Rejoin(ZV_SimHost* lpClient, bool bReturning)
{
    if (!GetClientLink(lpClient) || GetUsers(lpClient->GetConfID()).Find(lpClient->GetUserID()))
        return Fail("only a client that has left can rejoin");
    uint32_t& ulFlags = lpClient->GetUserRecord().ulFlags;
    ulFlags = bReturning ? (ulFlags | zvUserFlagReturning) : (ulFlags & ~zvUserFlagReturning);
    Join(lpClient);
    return true;
}

bool ZV_SimConference::Cut(ZV_SimLink* lpLink, uint16_t usConnType)
{
    int nChannel = lpLink ? lpLink->ChannelOf(usConnType) : -1;
    if (nChannel < 0)
        return Fail("no connection of type " + std::to_string(usConnType) + " on that link");
    return m_network.Close(lpLink, nChannel);
}

bool ZV_SimConference::Restore(ZV_SimLink* lpLink, uint16_t usConnType)
{
    int nChannel = lpLink ? lpLink->ChannelOf(usConnType) : -1;
    if (nChannel < 0)
        return Fail("no connection of type " + std::to_string(usConnType) + " on that link");
    if (!m_network.Open(lpLink, nChannel))
        return false;
    if (lpLink->IsServerLink() && nChannel == zvSimCommand)
        RaiseServerLink(lpLink, m_network.NodesOn(lpLink));
    return true;
}

bool ZV_SimConference::CutLink(ZV_SimLink* lpLink)
{
    if (!lpLink)
        return false;
    bool bData = m_network.Close(lpLink, zvSimData);
    bool bCommand = m_network.Close(lpLink, zvSimCommand);
    return bData || bCommand;
}

// Event 11 waits until both connections stand: what the servers send on it
// may need the data connection at once.
bool ZV_SimConference::RestoreLink(ZV_SimLink* lpLink)
{
    if (!lpLink)
        return false;
    bool bCommand = m_network.Open(lpLink, zvSimCommand);
    bool bData = m_network.Open(lpLink, zvSimData);
    if (lpLink->IsServerLink() && bCommand)
        RaiseServerLink(lpLink, m_network.NodesOn(lpLink));
    return bCommand || bData;
}

bool ZV_SimConference::SetUserRole(ZV_SimHost* lpClient, uint16_t usRole)
{
    if (!lpClient || lpClient->IsServer() || !GetUsers(lpClient->GetConfID()).Find(lpClient->GetUserID()))
        return Fail("only a client in its conference has a role");
    lpClient->GetUserRecord().usRole = usRole;
    GetUsers(lpClient->GetConfID()).Put(lpClient->GetUserRecord());
    return RaiseRightChange(lpClient, usRole == zvUserRolePrivileged);
}

bool ZV_SimConference::RaiseRightChange(ZV_SimHost* lpClient, bool bMoreVisible)
{
    if (!lpClient || lpClient->IsServer())
        return Fail("event 14 is for clients");
    QB_UserID idUser = lpClient->GetUserID();
    lpClient->DeliverEvent(zvConfEventRightChange, bMoreVisible ? 1 : 0, (uintptr_t)&idUser,
                           lpClient->GetMachine()->GetName());
    return true;
}

uint32_t ZV_SimConference::RaiseHostEvent(ZV_SimHost* lpNode, uint16_t usEvent, uintptr_t a1, uintptr_t a2)
{
    return lpNode ? lpNode->DeliverEvent(usEvent, a1, a2, {}) : 0;
}
