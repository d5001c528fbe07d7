#include "ZV_SimConference.h"

#include "ZV_SimMachine.h"

#include <algorithm>
#include <filesystem>
#include <fstream>

namespace {

// Each machine numbers its connections from its own thousand, so that a
// number taken from the wrong end of a link shows up in a test.
constexpr uint32_t kConnsPerMachine = 1000;
constexpr uint16_t kFileIDsPerServer = 1000;

std::string UserText(const QB_UserID& id)
{
    std::string sText = std::to_string(id.m_ulMain);
    return id.m_ulSub ? sText + "." + std::to_string(id.m_ulSub) : sText;
}

}  // namespace

ZV_SimConference::ZV_SimConference(ZV_SimModuleApi api, ZV_SimOptions options)
    : m_options(std::move(options)),
      m_env(QB_GetEnv()),
      m_envInstalled(&m_env),
      m_api(std::move(api)),
      m_network(&m_journal, m_options.nInFlightBound),
      m_timer(m_options.ulTimerPeriod)
{
    m_journal.SetPayloadLimit(m_options.nJournalPayloadBytes);
    m_journal.SetEntryLimit(m_options.nJournalEntries);
    SetElapsed(0);
    // Calls into the managers write the variable only when the folder
    // changes, so it must start from a value the simulator knows.
    ZV_SimHost::PointHome({});
    if (!m_api.Start())
        m_sError = "the module cannot start: " + m_api.GetError();
}

ZV_SimConference::~ZV_SimConference()
{
    for (auto it = m_vecNodes.rbegin(); it != m_vecNodes.rend(); ++it)
        (*it)->Stop(m_api);
    m_api.Stop();
    ZV_SimHost::PointHome({});
}

bool ZV_SimConference::Fail(const std::string& sError)
{
    m_sError = sError;
    return false;
}

ZV_SimHost* ZV_SimConference::FailNode(const std::string& sError)
{
    m_sError = sError;
    return nullptr;
}

void ZV_SimConference::SetFileIDRange(uint32_t ulServerID, uint16_t usMin, uint16_t usMax)
{
    ZV_SimMachine* lpMachine = FindMachine(ulServerID);
    if (!lpMachine)
        lpMachine = MakeMachine("srv" + std::to_string(ulServerID), QB_UserID(ulServerID, 0), true);
    lpMachine->SetFileIDRange(usMin, usMax);
}

ZV_SimMachine* ZV_SimConference::MakeMachine(const std::string& sName, const QB_UserID& id, bool bServer)
{
    uint32_t ulFirstConn = kConnsPerMachine * (uint32_t)(m_vecMachines.size() + 1) + 1;
    auto lpMachine = std::make_unique<ZV_SimMachine>(sName, id, bServer, ulFirstConn);
    if (bServer)
    {
        // 0xFFFF means "no FileID yet" on the wire, so no range may reach it.
        uint32_t ulMin = (id.m_ulMain - 1) * kFileIDsPerServer + 1;
        if (ulMin + kFileIDsPerServer > 0xFFFF)
            ulMin = 1;
        lpMachine->SetFileIDRange((uint16_t)ulMin, (uint16_t)(ulMin + kFileIDsPerServer - 1));
    }
    m_vecMachines.push_back(std::move(lpMachine));
    return m_vecMachines.back().get();
}

// A server's storage goes below its own folder; a "confsrv.ini" already
// there is kept, so a second simulation on the same root finds the first
// one's catalogue and files.
std::string ZV_SimConference::MakeHome(const std::string& sNode, bool bServer) const
{
    if (m_options.sRoot.empty())
        return {};
    std::filesystem::path pathHome = std::filesystem::path(m_options.sRoot) / sNode;
    std::error_code ec;
    std::filesystem::create_directories(pathHome, ec);
    std::filesystem::path pathIni = pathHome / "confsrv.ini";
    if (bServer && !std::filesystem::exists(pathIni, ec))
    {
        std::string sStore = (pathHome / "store").string();
        std::replace(sStore.begin(), sStore.end(), '/', '\\');
        std::ofstream(pathIni, std::ios::binary) << "[FileShare]\r\nPath=" << sStore << "\\\r\n";
    }
    return pathHome.string() + "/";
}

ZV_SimHost* ZV_SimConference::MakeNode(ZV_SimMachine* lpMachine, uint32_t ulConfID, const ZV_SimUser* lpUser)
{
    std::string sName = lpMachine->GetName() + "@" + std::to_string(ulConfID);
    auto lpNode = std::make_unique<ZV_SimHost>(this, (uint32_t)m_vecNodes.size(), lpMachine, ulConfID, lpUser,
                                               MakeHome(sName, lpMachine->IsServer()));
    if (!m_api.IsUsable() || !lpNode->Start(m_api))
        return FailNode("the module made no manager for " + sName + ": " + m_api.GetError());
    lpMachine->AddNode(lpNode.get());
    m_vecNodes.push_back(std::move(lpNode));
    return m_vecNodes.back().get();
}

ZV_SimHost* ZV_SimConference::AddServer(uint32_t ulConfID, uint32_t ulServerID)
{
    if (ulServerID == 0 || ulConfID == 0)
        return FailNode("servers and conferences are numbered from 1");
    if (FindServer(ulConfID, ulServerID))
        return FailNode("server " + std::to_string(ulServerID) + " hosts conference " + std::to_string(ulConfID) +
                    " already");
    ZV_SimMachine* lpMachine = FindMachine(ulServerID);
    if (!lpMachine)
        lpMachine = MakeMachine("srv" + std::to_string(ulServerID), QB_UserID(ulServerID, 0), true);
    ZV_SimHost* lpNode = MakeNode(lpMachine, ulConfID, nullptr);
    if (lpNode)
        AnnounceServerLinks(lpNode);
    return lpNode;
}

void ZV_SimConference::AnnounceServerLinks(ZV_SimHost* lpNode)
{
    for (const ZV_SimLinkEnd& end : m_network.LinksOf(lpNode))
    {
        if (!end.lpLink->IsServerLink() || !end.lpLink->IsUp(zvSimCommand))
            continue;
        ZV_SimHost* lpPeer = end.lpLink->GetMachine(1 - end.nSide)->FindNode(lpNode->GetConfID());
        m_network.Announce(end.lpLink, zvSimCommand, {lpNode, lpPeer});
        m_network.Announce(end.lpLink, zvSimData, {lpNode, lpPeer});
        RaiseServerLink(end.lpLink, {lpNode, lpPeer});
    }
}

ZV_SimHost* ZV_SimConference::AddClient(uint32_t ulConfID, const ZV_SimUser& user)
{
    ZV_SimHost* lpServer = FindServer(ulConfID, user.ulHomeServer);
    if (!lpServer)
        return FailNode("user " + UserText(user.id) + " has no home server in conference " + std::to_string(ulConfID));
    if (user.id == QB_UserID() || FindClient(ulConfID, user.id))
        return FailNode("user " + UserText(user.id) + " is not new to conference " + std::to_string(ulConfID));
    ZV_SimMachine* lpMachine = MakeMachine("usr" + UserText(user.id), user.id, false);
    ZV_SimHost* lpClient = MakeNode(lpMachine, ulConfID, &user);
    if (!lpClient)
        return nullptr;
    m_network.AddLink(lpMachine, lpServer->GetMachine(), ulConfID);
    Join(lpClient);
    return lpClient;
}

void ZV_SimConference::Join(ZV_SimHost* lpClient)
{
    GetUsers(lpClient->GetConfID()).Put(lpClient->GetUserRecord());
    RestoreLink(GetClientLink(lpClient));
    RaiseUserEvent(lpClient->GetConfID(), zvConfEventUserEnter, lpClient);
}

ZV_SimLink* ZV_SimConference::LinkServers(uint32_t ulServerA, uint32_t ulServerB)
{
    ZV_SimMachine* lpA = FindMachine(ulServerA);
    ZV_SimMachine* lpB = FindMachine(ulServerB);
    if (!lpA || !lpB || lpA == lpB || m_network.FindServerLink(lpA, lpB))
    {
        m_sError = "servers " + std::to_string(ulServerA) + " and " + std::to_string(ulServerB) +
                   " are not two known, unlinked servers";
        return nullptr;
    }
    ZV_SimLink* lpLink = m_network.AddLink(lpA, lpB, 0);
    RestoreLink(lpLink);
    return lpLink;
}
