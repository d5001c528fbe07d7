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

// As a restart of the server's process: its links go down, taking what
// they carried; the manager is destroyed and made anew on the same home
// folder; the links that were up come back, and each client whose link came
// back enters again, so that the new manager gives it both lists.
bool ZV_SimConference::RestartServer(ZV_SimHost* lpServer)
{
    if (!lpServer || !lpServer->IsServer())
        return Fail("only a server node restarts");
    struct WasUp
    {
        ZV_SimLink* lpLink;
        bool bCommand;
        bool bData;
    };
    std::vector<WasUp> vecUp;
    for (const ZV_SimLinkEnd& end : m_network.LinksOf(lpServer))
    {
        vecUp.push_back({end.lpLink, end.lpLink->IsUp(zvSimCommand), end.lpLink->IsUp(zvSimData)});
        CutLink(end.lpLink);
    }
    lpServer->Stop(m_api);
    if (!lpServer->Start(m_api))
        return Fail("the module made no manager for " + lpServer->GetName() + ": " + m_api.GetError());
    for (const WasUp& up : vecUp)
    {
        if (up.bCommand)
            m_network.Open(up.lpLink, zvSimCommand);
        if (up.bData)
            m_network.Open(up.lpLink, zvSimData);
        if (!up.bCommand)
            continue;
        if (up.lpLink->IsServerLink())
        {
            RaiseServerLink(up.lpLink, m_network.NodesOn(up.lpLink));
            continue;
        }
        ZV_SimHost* lpClient = up.lpLink->GetMachine(1 - up.lpLink->SideOf(lpServer->GetMachine()))
                                   ->FindNode(lpServer->GetConfID());
        if (lpClient && GetUsers(lpClient->GetConfID()).Find(lpClient->GetUserID()))
        {
            QB_UserID idUser = lpClient->GetUserID();
            lpServer->DeliverEvent(zvConfEventUserEnter, 0, (uintptr_t)&idUser, lpClient->GetMachine()->GetName());
        }
    }
    return true;
}

// As a restart of the user's program: the user leaves, the manager is
// destroyed and made anew on the same home folder, and the user comes back.
bool ZV_SimConference::RestartClient(ZV_SimHost* lpClient)
{
    if (!lpClient || lpClient->IsServer() || !Leave(lpClient))
        return Fail("only a client in its conference restarts");
    lpClient->Stop(m_api);
    if (!lpClient->Start(m_api))
        return Fail("the module made no manager for " + lpClient->GetName() + ": " + m_api.GetError());
    return Rejoin(lpClient, false);
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
