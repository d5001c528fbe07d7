#include "ZV_SimBuilder.h"

namespace {

const char* const kNames[] = {"Alice", "Bob", "Carol", "Dave", "Erin", "Frank", "Grace", "Heidi"};
constexpr int kNameCount = (int)(sizeof kNames / sizeof kNames[0]);
// Users of server n are n0001, n0002, ...: single numbers of the user plan.
constexpr uint32_t kUsersPerServer = 10000;

void AddClients(ZV_SimConference& sim, ZV_SimShape& shape, uint32_t ulConfID, uint32_t ulServerID, int nCount)
{
    for (int i = 0; i < nCount; ++i)
        shape.vecClients.push_back(sim.AddClient(ulConfID, ZV_SimBuilder::MakeUser(ulServerID, i)));
}

}  // namespace

bool ZV_SimShape::IsComplete() const
{
    for (const auto& vec : {vecServers, vecClients})
        for (ZV_SimHost* lpNode : vec)
            if (!lpNode)
                return false;
    return !vecServers.empty();
}

ZV_SimUser ZV_SimBuilder::MakeUser(uint32_t ulServerID, int nIndex)
{
    ZV_SimUser user;
    user.id = QB_UserID(ulServerID * kUsersPerServer + 1 + (uint32_t)nIndex, 0);
    user.ulHomeServer = ulServerID;
    // Two names a server, so that Carol is on server 2 however many users
    // server 1 has.
    int nName = (int)(ulServerID - 1) * 2 + nIndex;
    bool bNamed = nIndex < 2 && nName < kNameCount;
    user.sName = bNamed ? kNames[nName] : "User " + std::to_string(user.id.m_ulMain);
    return user;
}

ZV_SimShape ZV_SimBuilder::OneServerTwoClients(ZV_SimConference& sim, uint32_t ulConfID)
{
    ZV_SimShape shape;
    shape.vecServers.push_back(sim.AddServer(ulConfID, 1));
    if (shape.IsComplete())
        AddClients(sim, shape, ulConfID, 1, 2);
    return shape;
}

ZV_SimShape ZV_SimBuilder::TwoLinkedServers(ZV_SimConference& sim, uint32_t ulConfID, int nClientsEach)
{
    ZV_SimShape shape;
    shape.vecServers.push_back(sim.AddServer(ulConfID, 1));
    shape.vecServers.push_back(sim.AddServer(ulConfID, 2));
    if (!shape.IsComplete() || !sim.LinkServers(1, 2))
        return shape;
    AddClients(sim, shape, ulConfID, 1, nClientsEach);
    AddClients(sim, shape, ulConfID, 2, nClientsEach);
    return shape;
}

ZV_SimShape ZV_SimBuilder::ServersInALine(ZV_SimConference& sim, int nServers, int nClientsEach, uint32_t ulConfID)
{
    ZV_SimShape shape;
    for (int i = 1; i <= nServers; ++i)
        shape.vecServers.push_back(sim.AddServer(ulConfID, (uint32_t)i));
    for (int i = 1; i < nServers && shape.IsComplete(); ++i)
        if (!sim.LinkServers((uint32_t)i, (uint32_t)i + 1))
            shape.vecServers.push_back(nullptr);
    if (!shape.IsComplete())
        return shape;
    for (int i = 1; i <= nServers; ++i)
        AddClients(sim, shape, ulConfID, (uint32_t)i, nClientsEach);
    return shape;
}
