#include "ZV_NetServer.h"

#include "ZV_ModuleApi.h"

#include <spdlog/spdlog.h>

#include <ctime>

namespace {

bool IsServerKind(uint16_t usKind)
{
    return usKind == zvConfServerTypeCommand || usKind == zvConfServerTypeData;
}

int ChannelOfKind(uint16_t usKind)
{
    return usKind == zvConfClientTypeData || usKind == zvConfServerTypeData ? zvHostData : zvHostCommand;
}

const char* ChannelText(int nChannel)
{
    return nChannel == zvHostData ? "data" : "command";
}

}  // namespace

ZV_NetServer::ZV_NetServer(asio::io_context& io, ZV_NetServerConfig config, ZV_ModuleApi& api)
    : ZV_NetHost(io, config.limits),
      m_config(std::move(config)),
      m_api(api),
      m_guard(m_config.msLoginDelay),
      m_acceptor(io)
{
    // Two servers' numbers differ in their low byte, which leads each
    // number; the rest starts where the clock says, so that a restarted
    // server does not hand out numbers its peers still remember.
    m_ulFloodSeq = (uint32_t)(std::time(nullptr) * 64) & 0xFFFFFF;
}

ZV_NetServer::~ZV_NetServer()
{
    for (auto& [ulConfID, conf] : m_mapConfs)
        conf.lpNode->Stop(m_api);
}

uint32_t ZV_NetServer::NextFloodSeq()
{
    uint32_t ulSeq = 0;
    while (ulSeq == 0)
    {
        m_ulFloodSeq = (m_ulFloodSeq + 1) & 0xFFFFFF;
        ulSeq = (m_config.ulServerID & 0xFF) << 24 | m_ulFloodSeq;
    }
    return ulSeq;
}

// Said once at start: what a peer must prove, and whether anyone between
// can read along.
bool ZV_NetServer::StartSecurity()
{
    if (!m_config.sCertificate.empty())
    {
        m_accepting.lpTls = ZV_MakeServerTls(m_config.sCertificate, m_config.sPrivateKey, m_sError);
        if (!m_accepting.lpTls)
            return false;
    }
    else
        spdlog::warn("no certificate is configured: traffic is in the clear, file names and contents included, and "
                     "anyone on the way can read or change it");
    if (!m_config.sTrust.empty())
    {
        m_dialling.lpTls = ZV_MakeClientTls(m_config.sTrust, m_sError);
        if (!m_dialling.lpTls)
            return false;
    }
    if (!m_config.bLogins)
    {
        spdlog::warn("logins are off: whoever reaches this server may claim to be any of its users or peers");
        return true;
    }
    m_accepting.lpCredentials = &m_config.credentials;
    m_accepting.lpGuard = &m_guard;
    std::set<std::string> setWarned;
    for (const ZV_NetConferenceConfig& conf : m_config.vecConferences)
        for (const ZV_NetUserConfig& user : conf.vecUsers)
            if (user.ulHomeServer == m_config.ulServerID && !m_config.credentials.Find(ZV_LoginKind::User, user.sName) &&
                setWarned.insert(user.sName).second)
                spdlog::warn("user \"{}\" has no credentials and cannot log in (roomcrate-server passwd)", user.sName);
    for (const ZV_NetPeerConfig& peer : m_config.vecPeers)
        if (peer.ulServerID < m_config.ulServerID &&
            !m_config.credentials.Find(ZV_LoginKind::Server, std::to_string(peer.ulServerID)))
            spdlog::warn("server {} has no link secret here and cannot log in (roomcrate-server passwd --peer)",
                         peer.ulServerID);
    return true;
}

bool ZV_NetServer::Start()
{
    const uint32_t ulSelf = m_config.ulServerID;
    if (!StartSecurity())
        return false;
    for (const ZV_NetConferenceConfig& confConfig : m_config.vecConferences)
    {
        ZV_HostUserTable users;
        for (const ZV_NetUserConfig& userConfig : confConfig.vecUsers)
        {
            ZV_HostUser user;
            user.id = QB_UserID(userConfig.ulNumber, 0);
            user.ulHomeServer = userConfig.ulHomeServer;
            user.sName = userConfig.sName;
            user.usRole = userConfig.bPrivileged ? zvUserRolePrivileged : 0;
            user.bCanShare = userConfig.bMayShare;
            users.Put(user);
        }
        auto lpNode = std::make_unique<ZV_NetNode>(this, confConfig.ulConfID, QB_UserID(ulSelf, 0), true,
                                                   confConfig.sHome, std::move(users));
        lpNode->SetServer(ulSelf, confConfig.usFileIDMin, confConfig.usFileIDMax);
        if (!lpNode->Start(m_api))
        {
            m_sError = "the module made no manager for conference " + std::to_string(confConfig.ulConfID) + ": " +
                       m_api.GetError();
            return false;
        }
        if (lpNode->GetInitializeResult() != 0)
        {
            m_sError = "conference " + std::to_string(confConfig.ulConfID) + ": the manager could not read " +
                       confConfig.sHome + "confsrv.ini (result " + std::to_string(lpNode->GetInitializeResult()) + ")";
            lpNode->Stop(m_api);
            return false;
        }
        Conference conf{std::move(lpNode), ZV_NetPresence(m_config.msGrace), {}};
        for (const ZV_NetUserConfig& userConfig : confConfig.vecUsers)
            if (userConfig.ulHomeServer == ulSelf)
                conf.mapLinks.emplace(QB_UserID(userConfig.ulNumber, 0),
                                      std::make_unique<ZV_NetLink>(QB_UserID(userConfig.ulNumber, 0), false));
        spdlog::info("conference {}: home {}", confConfig.ulConfID, confConfig.sHome);
        m_mapConfs.emplace(confConfig.ulConfID, std::move(conf));
    }
    for (const ZV_NetPeerConfig& peerConfig : m_config.vecPeers)
    {
        auto lpPeer = std::unique_ptr<Peer>(new Peer{peerConfig,
                                                     std::make_unique<ZV_NetLink>(QB_UserID(peerConfig.ulServerID, 0), true),
                                                     asio::steady_timer(GetIo()), m_config.msRedialMin,
                                                     ulSelf < peerConfig.ulServerID, false, {}});
        m_mapPeers.emplace(peerConfig.ulServerID, std::move(lpPeer));
    }

    asio::error_code ec;
    const asio::ip::address address = asio::ip::make_address(m_config.sListen, ec);
    if (!ec)
    {
        const asio::ip::tcp::endpoint endpoint(address, m_config.usPort);
        m_acceptor.open(endpoint.protocol(), ec);
        if (!ec)
            m_acceptor.set_option(asio::ip::tcp::acceptor::reuse_address(true), ec);
        if (!ec)
            m_acceptor.bind(endpoint, ec);
        if (!ec)
            m_acceptor.listen(asio::socket_base::max_listen_connections, ec);
    }
    if (ec)
    {
        m_sError = "cannot listen on " + m_config.sListen + " port " + std::to_string(m_config.usPort) + ": " +
                   ec.message();
        return false;
    }
    m_usPort = m_acceptor.local_endpoint().port();
    spdlog::info("server {} listens on {} port {}", ulSelf, m_config.sListen, m_usPort);
    Accept();
    std::vector<ZV_NetNode*> vecNodes;
    for (auto& [ulConfID, conf] : m_mapConfs)
        vecNodes.push_back(conf.lpNode.get());
    StartTimer(vecNodes);
    for (auto& [ulPeer, lpPeer] : m_mapPeers)
        if (lpPeer->bDials)
            Dial(*lpPeer);
    return true;
}

void ZV_NetServer::Stop()
{
    if (m_bStopping)
        return;
    m_bStopping = true;
    spdlog::info("server {} stops", m_config.ulServerID);
    asio::error_code ec;
    m_acceptor.close(ec);
    StopTimer();
    const std::string sReason = "the server stops";
    for (auto& [ulPeer, lpPeer] : m_mapPeers)
    {
        lpPeer->timer.cancel();
        LinkDown(NodesOf(*lpPeer), *lpPeer->lpLink, zvHostData, sReason);
        LinkDown(NodesOf(*lpPeer), *lpPeer->lpLink, zvHostCommand, sReason);
    }
    for (auto& [ulConfID, conf] : m_mapConfs)
        for (auto& [user, lpLink] : conf.mapLinks)
        {
            LinkDown({conf.lpNode.get()}, *lpLink, zvHostData, {});
            LinkDown({conf.lpNode.get()}, *lpLink, zvHostCommand, {});
        }
    for (auto& [ulConn, lpWeak] : m_mapConnections)
        if (auto lpConn = lpWeak.lock())
            lpConn->Close({});
    // Every change of a manager is on disk already; destroying it closes
    // its files.
    for (auto& [ulConfID, conf] : m_mapConfs)
        conf.lpNode->Stop(m_api);
}

void ZV_NetServer::Accept()
{
    m_acceptor.async_accept([this](const asio::error_code& ec, asio::ip::tcp::socket socket) {
        if (m_bStopping || ec == asio::error::operation_aborted)
            return;
        if (!ec)
        {
            asio::error_code ecPeer;
            const auto endpoint = socket.remote_endpoint(ecPeer);
            auto lpConn = MakeConnection(std::move(socket), m_accepting);
            lpConn->SetName("connection " + std::to_string(lpConn->GetNumber()) + " from " +
                            (ecPeer ? std::string("?") : endpoint.address().to_string() + ":" +
                                                             std::to_string(endpoint.port())));
            lpConn->Accept();
        }
        Accept();
    });
}

ZV_NetNode* ZV_NetServer::FindNode(uint32_t ulConfID) const
{
    auto it = m_mapConfs.find(ulConfID);
    return it == m_mapConfs.end() ? nullptr : it->second.lpNode.get();
}

ZV_NetServer::Conference* ZV_NetServer::FindConference(uint32_t ulConfID)
{
    auto it = m_mapConfs.find(ulConfID);
    return it == m_mapConfs.end() ? nullptr : &it->second;
}

ZV_NetServer::Conference* ZV_NetServer::FindConferenceByWord(uint16_t usWord, const Peer& peer)
{
    for (uint32_t ulConfID : peer.config.vecConferences)
        if ((uint16_t)ulConfID == usWord)
            return FindConference(ulConfID);
    return nullptr;
}

ZV_NetServer::Peer* ZV_NetServer::FindPeer(uint32_t ulServerID)
{
    auto it = m_mapPeers.find(ulServerID);
    return it == m_mapPeers.end() ? nullptr : it->second.get();
}

std::vector<ZV_NetNode*> ZV_NetServer::NodesOf(const Peer& peer) const
{
    std::vector<ZV_NetNode*> vecNodes;
    for (uint32_t ulConfID : peer.config.vecConferences)
        if (ZV_NetNode* lpNode = FindNode(ulConfID))
            vecNodes.push_back(lpNode);
    return vecNodes;
}

std::vector<ZV_HostLink*> ZV_NetServer::LinksOf(const ZV_NetNode& node) const
{
    std::vector<ZV_HostLink*> vecLinks;
    auto it = m_mapConfs.find(node.GetConfID());
    if (it == m_mapConfs.end())
        return vecLinks;
    for (const auto& [user, lpLink] : it->second.mapLinks)
        vecLinks.push_back(lpLink.get());
    for (const auto& [ulPeer, lpPeer] : m_mapPeers)
        for (uint32_t ulConfID : lpPeer->config.vecConferences)
            if (ulConfID == node.GetConfID())
                vecLinks.push_back(lpPeer->lpLink.get());
    return vecLinks;
}

std::string ZV_NetServer::UserName(const Conference& conf, const QB_UserID& user) const
{
    const ZV_HostUser* lpUser = conf.lpNode->GetUsers().Find(user);
    return (lpUser ? lpUser->sName : std::string("?")) + " (" + std::to_string(user.m_ulMain) + ")";
}

ZV_NetLink* ZV_NetServer::FindLinkOf(const ZV_NetConnection& conn, Conference** lplpConf, Peer** lplpPeer)
{
    *lplpConf = nullptr;
    *lplpPeer = nullptr;
    const ZV_NetHello& hello = conn.GetHello();
    ZV_NetLink* lpLink = nullptr;
    if (IsServerKind(hello.usKind))
    {
        for (auto& [ulPeer, lpPeer] : m_mapPeers)
            if (lpPeer->lpLink->ChannelOfConnection(&conn) >= 0)
            {
                *lplpPeer = lpPeer.get();
                lpLink = lpPeer->lpLink.get();
            }
    }
    else if ((*lplpConf = FindConference(hello.ulConfID)) != nullptr)
    {
        auto it = (*lplpConf)->mapLinks.find(QB_UserID(hello.ulWho, 0));
        lpLink = it == (*lplpConf)->mapLinks.end() ? nullptr : it->second.get();
    }
    return lpLink && lpLink->ChannelOfConnection(&conn) >= 0 ? lpLink : nullptr;
}

// ---------------------------------------------------------------------------
// Openings

ZV_NetWelcome ZV_NetServer::OnHello(ZV_NetConnection& conn, const ZV_NetHello& hello)
{
    // With logins on, a connection comes this far only with a login; the
    // check stands here too, so that no path lets one in without.
    const std::string& sLogin = conn.GetLogin();
    if (m_config.bLogins && sLogin.empty())
    {
        ZV_NetWelcome welcome;
        welcome.usResult = zvNetNotThatUser;
        return welcome;
    }
    ZV_NetWelcome welcome = IsServerKind(hello.usKind) ? AnswerServer(hello, sLogin) : AnswerClient(hello, sLogin);
    if (welcome.usResult != zvNetAccepted)
        return welcome;
    if (IsServerKind(hello.usKind))
        conn.SetName("server " + std::to_string(hello.ulWho) + " " + ChannelText(ChannelOfKind(hello.usKind)) +
                     " connection " + std::to_string(conn.GetNumber()));
    else
        conn.SetName(UserName(*FindConference(hello.ulConfID), QB_UserID(hello.ulWho, 0)) + " " +
                     ChannelText(ChannelOfKind(hello.usKind)) + " connection " + std::to_string(conn.GetNumber()) +
                     " in conference " + std::to_string(hello.ulConfID));
    return welcome;
}

// The user the login proved is the user the hello names, or the hello is
// refused: what the host reports on the link is the proved user.
ZV_NetWelcome ZV_NetServer::AnswerClient(const ZV_NetHello& hello, const std::string& sLogin) const
{
    ZV_NetWelcome welcome;
    welcome.ulServerID = m_config.ulServerID;
    auto it = m_mapConfs.find(hello.ulConfID);
    if (it == m_mapConfs.end())
    {
        welcome.usResult = zvNetUnknownConference;
        return welcome;
    }
    const QB_UserID user(hello.ulWho, 0);
    auto itLink = it->second.mapLinks.find(user);
    const ZV_HostUser* lpUser = it->second.lpNode->GetUsers().Find(user);
    if (itLink == it->second.mapLinks.end() || !lpUser)
        welcome.usResult = zvNetUnknownUser;
    else if (!sLogin.empty() && lpUser->sName != sLogin)
        welcome.usResult = zvNetNotThatUser;
    else if (hello.usKind == zvConfClientTypeData && !itLink->second->GetConnection(zvHostCommand))
        welcome.usResult = zvNetNoCommandLink;
    if (welcome.usResult != zvNetAccepted)
        return welcome;
    ZV_NetNode& node = *it->second.lpNode;
    welcome.usFileIDMin = node.GetFileIDMin();
    welcome.usFileIDMax = node.GetFileIDMax();
    welcome.usRole = lpUser->usRole;
    return welcome;
}

// The server of the lower number dials; one that should be waiting for this
// server's call is refused, so that two servers never hold two links.
ZV_NetWelcome ZV_NetServer::AnswerServer(const ZV_NetHello& hello, const std::string& sLogin) const
{
    ZV_NetWelcome welcome;
    welcome.ulServerID = m_config.ulServerID;
    auto it = m_mapPeers.find(hello.ulWho);
    if (it == m_mapPeers.end() || it->second->bDials || hello.ulConfID != 0)
        welcome.usResult = zvNetUnknownServer;
    else if (!sLogin.empty() && sLogin != std::to_string(hello.ulWho))
        welcome.usResult = zvNetNotThatUser;
    else if (hello.usKind == zvConfServerTypeData && !it->second->lpLink->GetConnection(zvHostCommand))
        welcome.usResult = zvNetNoCommandLink;
    return welcome;
}

bool ZV_NetServer::OnWelcome(ZV_NetConnection& conn, const ZV_NetWelcome& welcome)
{
    Peer* lpPeer = nullptr;
    for (auto& [ulPeer, lpCandidate] : m_mapPeers)
        if (lpCandidate->setDialing.count(conn.GetNumber()))
            lpPeer = lpCandidate.get();
    return lpPeer && welcome.ulServerID == lpPeer->config.ulServerID;
}

void ZV_NetServer::OnOpened(ZV_NetConnection& conn)
{
    if (m_bStopping)
        return conn.Close({});
    if (!IsServerKind(conn.GetHello().usKind))
        return OpenClient(conn);
    // A connection this server dialled, or one a peer dialled here.
    Peer* lpPeer = nullptr;
    for (auto& [ulPeer, lpCandidate] : m_mapPeers)
        if (lpCandidate->setDialing.erase(conn.GetNumber()))
            lpPeer = lpCandidate.get();
    if (!lpPeer)
        lpPeer = FindPeer(conn.GetHello().ulWho);
    if (lpPeer)
        OpenServer(conn, *lpPeer);
    else
        conn.Close("no such server");
}

// ---------------------------------------------------------------------------
// Clients

// A second login of a user takes the place of the first, which is told so
// before it closes, so that its program stops rather than dials again.
void ZV_NetServer::OpenClient(ZV_NetConnection& conn)
{
    Conference* lpConf = FindConference(conn.GetHello().ulConfID);
    auto it = lpConf->mapLinks.find(QB_UserID(conn.GetHello().ulWho, 0));
    ZV_NetLink& link = *it->second;
    ZV_NetNode* lpNode = lpConf->lpNode.get();
    const QB_UserID user = link.GetPeer();
    auto lpConn = conn.shared_from_this();
    if (ChannelOfKind(conn.GetHello().usKind) == zvHostCommand)
    {
        if (auto lpOld = link.GetConnection(zvHostCommand))
        {
            spdlog::warn("{} logs in again on connection {}; the login on connection {} is closed",
                         UserName(*lpConf, user), conn.GetNumber(), lpOld->GetNumber());
            ZV_NetFrameHead head;
            head.usConfWord = (uint16_t)lpConf->lpNode->GetConfID();
            head.usPdu = zvNetReplaced;
            lpOld->Send(head, nullptr);
            LinkDown({lpNode}, link, zvHostData, "another login of its user took its place");
            LinkDown({lpNode}, link, zvHostCommand, "another login of its user took its place", true);
        }
        LinkUp({lpNode}, link, zvHostCommand, lpConn);
        return;
    }
    if (!link.GetConnection(zvHostCommand))
        return conn.Close("its command connection went meanwhile");
    LinkDown({lpNode}, link, zvHostData, "a new data connection of its user took its place");
    LinkUp({lpNode}, link, zvHostData, lpConn);
    const bool bReturning = lpConf->presence.Arrive(user);
    ZV_HostUser record = *lpNode->GetUsers().Find(user);
    record.ulFlags = bReturning ? (record.ulFlags | zvUserFlagReturning) : (record.ulFlags & ~zvUserFlagReturning);
    lpNode->GetUsers().Put(record);
    spdlog::info("{} is in conference {}{}", UserName(*lpConf, user), lpNode->GetConfID(),
                 bReturning ? ", returning" : "");
    lpNode->RaiseUserEvent(zvConfEventUserEnter, user);
}

bool ZV_NetServer::OnFrame(ZV_NetConnection& conn, const ZV_NetFrameHead& head, const uint8_t* pData)
{
    Conference* lpConf = nullptr;
    Peer* lpPeer = nullptr;
    ZV_NetLink* lpLink = FindLinkOf(conn, &lpConf, &lpPeer);
    if (!lpLink)
        return false;
    if (lpConf)
        return ClientFrame(*lpConf, *lpLink, conn, head, pData);
    Conference* lpTarget = FindConferenceByWord(head.usConfWord, *lpPeer);
    if (!lpTarget)
    {
        spdlog::warn("{}: a frame for conference word {}, which the link does not carry", conn.GetName(),
                     head.usConfWord);
        return false;
    }
    if (head.usPdu < 256)
    {
        spdlog::warn("{}: a frame of the host's own numbers it does not know ({})", conn.GetName(), head.usPdu);
        return false;
    }
    Deliver(*lpTarget->lpNode, *lpLink, conn, head, pData);
    return true;
}

bool ZV_NetServer::ClientFrame(Conference& conf, ZV_NetLink& link, ZV_NetConnection& conn,
                               const ZV_NetFrameHead& head, const uint8_t* pData)
{
    if (head.usConfWord != (uint16_t)conf.lpNode->GetConfID())
    {
        spdlog::warn("{}: a frame for conference word {} on a link of conference {}", conn.GetName(),
                     head.usConfWord, conf.lpNode->GetConfID());
        return false;
    }
    if (head.usPdu == zvNetGoodbye && link.ChannelOfConnection(&conn) == zvHostCommand)
    {
        ClientGone(conf, link, true, "its user said goodbye");
        return true;
    }
    if (head.usPdu < 256)
    {
        spdlog::warn("{}: a frame of the host's own numbers it does not know ({})", conn.GetName(), head.usPdu);
        return false;
    }
    Deliver(*conf.lpNode, link, conn, head, pData);
    return true;
}

// The data link goes first, as when a client's links are cut. A goodbye is
// a departure at once; a lost command link only starts the grace period.
void ZV_NetServer::ClientGone(Conference& conf, ZV_NetLink& link, bool bGoodbye, const std::string& sReason)
{
    const QB_UserID user = link.GetPeer();
    ZV_NetNode* lpNode = conf.lpNode.get();
    LinkDown({lpNode}, link, zvHostData, sReason);
    LinkDown({lpNode}, link, zvHostCommand, sReason);
    if (bGoodbye)
    {
        if (conf.presence.Leave(user))
            Departed(conf, user, "said goodbye");
        return;
    }
    conf.presence.Lose(user, ZV_NetPresence::Clock::now());
    spdlog::info("{} lost its link to conference {}; it stays {} s before it counts as gone",
                 UserName(conf, user), lpNode->GetConfID(),
                 std::chrono::duration_cast<std::chrono::seconds>(m_config.msGrace).count());
}

// The user's record still answers GetUser while the managers hear of it,
// as event 4 wants.
void ZV_NetServer::Departed(Conference& conf, const QB_UserID& user, const std::string& sWhy)
{
    spdlog::info("{} left conference {}: {}", UserName(conf, user), conf.lpNode->GetConfID(), sWhy);
    conf.lpNode->RaiseUserEvent(zvConfEventUserLeave, user);
}

void ZV_NetServer::OnTick()
{
    const auto tpNow = ZV_NetPresence::Clock::now();
    for (auto& [ulConfID, conf] : m_mapConfs)
        for (const QB_UserID& user : conf.presence.Expire(tpNow))
            Departed(conf, user, "not back within the grace period");
}

// ---------------------------------------------------------------------------
// Linked servers

void ZV_NetServer::OpenServer(ZV_NetConnection& conn, Peer& peer)
{
    const int nChannel = ChannelOfKind(conn.GetHello().usKind);
    ZV_NetLink& link = *peer.lpLink;
    const std::vector<ZV_NetNode*> vecNodes = NodesOf(peer);
    if (nChannel == zvHostData && !link.GetConnection(zvHostCommand))
    {
        peer.bBusy = false;
        conn.Close("its command connection went meanwhile");
        return Redial(peer);
    }
    if (link.GetConnection(nChannel))
    {
        LinkDown(vecNodes, link, zvHostData, "a new connection of its server took its place");
        if (nChannel == zvHostCommand)
            LinkDown(vecNodes, link, zvHostCommand, "a new connection of its server took its place");
    }
    LinkUp(vecNodes, link, nChannel, conn.shared_from_this());
    if (nChannel == zvHostCommand && peer.bDials)
        return Dial(peer);
    if (!link.IsUp())
        return;
    peer.bBusy = false;
    peer.msBackoff = m_config.msRedialMin;
    spdlog::info("server link to server {} is up", peer.config.ulServerID);
    for (ZV_NetNode* lpNode : vecNodes)
        lpNode->RaiseServerLink(link.ConnOn(zvHostCommand));
}

void ZV_NetServer::ServerGone(Peer& peer, const std::string& sReason)
{
    const bool bWasUp = peer.lpLink->IsUp();
    LinkDown(NodesOf(peer), *peer.lpLink, zvHostData, sReason);
    LinkDown(NodesOf(peer), *peer.lpLink, zvHostCommand, sReason);
    if (bWasUp)
        spdlog::info("server link to server {} is down", peer.config.ulServerID);
    peer.bBusy = false;
    Redial(peer);
}

// The command connection first, then the data connection, each with its
// hello; a failure anywhere waits and starts again.
void ZV_NetServer::Dial(Peer& peer)
{
    if (m_bStopping || !peer.bDials)
        return;
    peer.bBusy = true;
    const bool bData = peer.lpLink->GetConnection(zvHostCommand) != nullptr;
    auto lpResolver = std::make_shared<asio::ip::tcp::resolver>(GetIo());
    auto lpSocket = std::make_shared<asio::ip::tcp::socket>(GetIo());
    const uint32_t ulPeer = peer.config.ulServerID;
    lpResolver->async_resolve(
        peer.config.sAddress, std::to_string(peer.config.usPort),
        [this, lpResolver, lpSocket, ulPeer, bData](const asio::error_code& ec,
                                                    asio::ip::tcp::resolver::results_type results) {
            Peer* lpPeer = FindPeer(ulPeer);
            if (m_bStopping || !lpPeer)
                return;
            if (ec)
            {
                lpPeer->bBusy = false;
                return Redial(*lpPeer);
            }
            asio::async_connect(*lpSocket, results,
                                [this, lpSocket, ulPeer, bData](const asio::error_code& ecConnect,
                                                                const asio::ip::tcp::endpoint&) {
                                    Peer* lpPeer = FindPeer(ulPeer);
                                    if (m_bStopping || !lpPeer)
                                        return;
                                    if (ecConnect || ZV_IsSelfConnected(*lpSocket))
                                    {
                                        lpPeer->bBusy = false;
                                        return Redial(*lpPeer);
                                    }
                                    auto lpConn = MakeConnection(std::move(*lpSocket), m_dialling);
                                    lpConn->SetName("server " + std::to_string(ulPeer) + " " +
                                                    ChannelText(bData ? zvHostData : zvHostCommand) +
                                                    " connection " + std::to_string(lpConn->GetNumber()));
                                    lpPeer->setDialing.insert(lpConn->GetNumber());
                                    ZV_NetHello hello;
                                    hello.usKind = bData ? zvConfServerTypeData : zvConfServerTypeCommand;
                                    hello.ulWho = m_config.ulServerID;
                                    // A linked server logs in under its number.
                                    ZV_NetLoginAs loginAs;
                                    if (!lpPeer->config.sSecret.empty())
                                        loginAs = {std::to_string(m_config.ulServerID), lpPeer->config.sSecret};
                                    lpConn->Dial(hello, std::move(loginAs), lpPeer->config.sAddress);
                                });
        });
}

void ZV_NetServer::Redial(Peer& peer)
{
    if (m_bStopping || !peer.bDials || peer.bBusy)
        return;
    peer.bBusy = true;
    const uint32_t ulPeer = peer.config.ulServerID;
    peer.timer.expires_after(peer.msBackoff);
    peer.msBackoff = std::min(peer.msBackoff * 2, m_config.msRedialMax);
    peer.timer.async_wait([this, ulPeer](const asio::error_code& ec) {
        Peer* lpPeer = FindPeer(ulPeer);
        if (ec || !lpPeer)
            return;
        lpPeer->bBusy = false;
        Dial(*lpPeer);
    });
}

void ZV_NetServer::OnClosed(ZV_NetConnection& conn)
{
    m_mapConnections.erase(conn.GetNumber());
    if (m_bStopping)
        return;
    for (auto& [ulPeer, lpPeer] : m_mapPeers)
        if (lpPeer->setDialing.erase(conn.GetNumber()))
        {
            // Dialled, and gone before it opened.
            lpPeer->bBusy = false;
            ServerGone(*lpPeer, {});
            return;
        }
    Conference* lpConf = nullptr;
    Peer* lpPeer = nullptr;
    ZV_NetLink* lpLink = FindLinkOf(conn, &lpConf, &lpPeer);
    if (!lpLink)
        return;
    if (lpPeer)
        return ServerGone(*lpPeer, {});
    if (lpLink->ChannelOfConnection(&conn) == zvHostCommand)
        ClientGone(*lpConf, *lpLink, false, {});
    else
        LinkDown({lpConf->lpNode.get()}, *lpLink, zvHostData, {});
}
