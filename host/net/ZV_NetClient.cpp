#include "ZV_NetClient.h"

#include "ZV_ModuleApi.h"

#include <spdlog/spdlog.h>

ZV_NetClient::ZV_NetClient(asio::io_context& io, ZV_NetClientConfig config, ZV_ModuleApi& api)
    : ZV_NetHost(io, config.limits),
      m_config(std::move(config)),
      m_api(api),
      m_lpLink(std::make_unique<ZV_NetLink>(QB_UserID(), false)),
      m_redial(io),
      m_msBackoff(m_config.msRedialMin)
{
}

ZV_NetClient::~ZV_NetClient()
{
    if (m_lpNode)
        m_lpNode->Stop(m_api);
}

bool ZV_NetClient::Start()
{
    if (!m_config.sTrust.empty() && !(m_security.lpTls = ZV_MakeClientTls(m_config.sTrust, m_sError)))
        return false;
    const QB_UserID self(m_config.ulUser, 0);
    ZV_HostUserTable users;
    ZV_HostUser record;
    record.id = self;
    record.sName = m_config.sName;
    users.Put(record);
    m_lpNode = std::make_unique<ZV_NetNode>(this, m_config.ulConfID, self, false, m_config.sHome, std::move(users));
    if (!m_lpNode->Start(m_api))
    {
        m_sError = "the module made no manager: " + m_api.GetError();
        return false;
    }
    StartTimer({m_lpNode.get()});
    Dial();
    return true;
}

void ZV_NetClient::SetEventCallback(ZV_NetNode::EventCallback fnEvent)
{
    if (m_lpNode)
        m_lpNode->SetEventCallback(std::move(fnEvent));
}

void ZV_NetClient::SetLink(Link eLink)
{
    if (m_eLink == eLink)
        return;
    m_eLink = eLink;
    if (m_fnLink)
        m_fnLink(eLink);
}

std::vector<ZV_HostLink*> ZV_NetClient::LinksOf(const ZV_NetNode&) const
{
    return {m_lpLink.get()};
}

// The command connection first, then the data connection.
void ZV_NetClient::Dial()
{
    if (IsOver())
        return;
    m_bBusy = true;
    const bool bData = m_lpLink->GetConnection(zvHostCommand) != nullptr;
    auto lpResolver = std::make_shared<asio::ip::tcp::resolver>(GetIo());
    auto lpSocket = std::make_shared<asio::ip::tcp::socket>(GetIo());
    lpResolver->async_resolve(
        m_config.sServer, std::to_string(m_config.usPort),
        [this, lpResolver, lpSocket, bData](const asio::error_code& ec,
                                            asio::ip::tcp::resolver::results_type results) {
            if (IsOver())
                return;
            if (ec)
            {
                m_bBusy = false;
                return Redial();
            }
            asio::async_connect(*lpSocket, results, [this, lpSocket, bData](const asio::error_code& ecConnect,
                                                                            const asio::ip::tcp::endpoint&) {
                if (IsOver())
                    return;
                if (ecConnect || ZV_IsSelfConnected(*lpSocket))
                {
                    m_bBusy = false;
                    return Redial();
                }
                m_lpDialing = MakeConnection(std::move(*lpSocket), m_security);
                m_lpDialing->SetName(std::string(bData ? "data" : "command") + " connection " +
                                     std::to_string(m_lpDialing->GetNumber()) + " to the server");
                ZV_NetHello hello;
                hello.usKind = bData ? zvConfClientTypeData : zvConfClientTypeCommand;
                hello.ulConfID = m_config.ulConfID;
                hello.ulWho = m_config.ulUser;
                ZV_NetLoginAs loginAs;
                if (!m_config.sSecret.empty())
                    loginAs = {m_config.sName, m_config.sSecret};
                m_lpDialing->Dial(hello, std::move(loginAs), m_config.sServer);
            });
        });
}

void ZV_NetClient::Redial()
{
    if (IsOver() || m_bBusy)
        return;
    m_bBusy = true;
    m_redial.expires_after(m_msBackoff);
    m_msBackoff = std::min(m_msBackoff * 2, m_config.msRedialMax);
    m_redial.async_wait([this](const asio::error_code& ec) {
        if (ec)
            return;
        m_bBusy = false;
        Dial();
    });
}

// The server says who it is and what the user may; the client's manager
// asks its host for both.
bool ZV_NetClient::OnWelcome(ZV_NetConnection&, const ZV_NetWelcome& welcome)
{
    m_lpNode->SetServer(welcome.ulServerID, welcome.usFileIDMin, welcome.usFileIDMax);
    ZV_HostUser record = *m_lpNode->GetUsers().Find(QB_UserID(m_config.ulUser, 0));
    record.ulHomeServer = welcome.ulServerID;
    record.usRole = welcome.usRole;
    m_lpNode->GetUsers().Put(record);
    m_lpLink->SetPeer(QB_UserID(welcome.ulServerID, 0));
    return true;
}

void ZV_NetClient::OnOpened(ZV_NetConnection& conn)
{
    m_lpDialing.reset();
    const int nChannel = conn.GetHello().usKind == zvConfClientTypeData ? zvHostData : zvHostCommand;
    LinkUp({m_lpNode.get()}, *m_lpLink, nChannel, conn.shared_from_this());
    if (nChannel == zvHostCommand)
        return Dial();
    m_bBusy = false;
    m_msBackoff = m_config.msRedialMin;
    spdlog::info("in conference {} at server {}", m_config.ulConfID, m_lpNode->GetLocalServerID());
    SetLink(Link::Up);
}

bool ZV_NetClient::OnFrame(ZV_NetConnection& conn, const ZV_NetFrameHead& head, const uint8_t* pData)
{
    if (m_lpLink->ChannelOfConnection(&conn) < 0)
        return false;
    if (head.usConfWord != (uint16_t)m_config.ulConfID)
    {
        spdlog::warn("{}: a frame for conference word {}", conn.GetName(), head.usConfWord);
        return false;
    }
    if (head.usPdu == zvNetReplaced)
    {
        spdlog::warn("another login of user {} took this one's place", m_config.ulUser);
        Stop(false);
        SetLink(Link::Replaced);
        return true;
    }
    if (head.usPdu < 256)
    {
        spdlog::warn("{}: a frame of the host's own numbers it does not know ({})", conn.GetName(), head.usPdu);
        return false;
    }
    Deliver(*m_lpNode, *m_lpLink, conn, head, pData);
    return true;
}

void ZV_NetClient::OnClosed(ZV_NetConnection& conn)
{
    m_mapConnections.erase(conn.GetNumber());
    if (m_lpDialing.get() == &conn)
    {
        m_lpDialing.reset();
        m_bBusy = false;
        // Dialling again would meet the same refusal, or the same stranger.
        if (conn.GetFailure() != ZV_NetConnection::Failure::None)
        {
            Stop(false);
            m_eLink = Link::Refused;
            if (m_fnLink)
                m_fnLink(Link::Refused);
            return;
        }
        return Redial();
    }
    const int nChannel = m_lpLink->ChannelOfConnection(&conn);
    if (nChannel < 0)
        return;
    LinkDown({m_lpNode.get()}, *m_lpLink, zvHostData, {});
    if (nChannel == zvHostCommand)
        LinkDown({m_lpNode.get()}, *m_lpLink, zvHostCommand, {});
    SetLink(Link::Down);
    Redial();
}

void ZV_NetClient::Stop(bool bGoodbye)
{
    if (m_eLink == Link::Stopped)
        return;
    const bool bWasReplaced = m_eLink == Link::Replaced;
    m_eLink = Link::Stopped;
    m_redial.cancel();
    StopTimer();
    if (m_lpDialing)
        m_lpDialing->Close({});
    if (auto lpCommand = m_lpLink->GetConnection(zvHostCommand); lpCommand && bGoodbye)
    {
        ZV_NetFrameHead head;
        head.usConfWord = (uint16_t)m_config.ulConfID;
        head.usPdu = zvNetGoodbye;
        lpCommand->Send(head, nullptr);
    }
    LinkDown({m_lpNode.get()}, *m_lpLink, zvHostData, {});
    LinkDown({m_lpNode.get()}, *m_lpLink, zvHostCommand, {}, true);
    m_lpNode->Stop(m_api);
    if (bWasReplaced)
        m_eLink = Link::Replaced;
}
