// ZV_NetClient: a conference client on TCP, one user in one conference. It
// keeps the user's command and data connections to the home server up,
// dialling again with a growing wait while the server is away, and gives
// the user side the manager's IZV_FileShareMgr and its events.
//
// A program drives it from handlers of the same io_context: the user side
// calls the manager between the host's calls, never beside them.
#pragma once

#include "ZV_NetHost.h"

#include <chrono>
#include <functional>
#include <memory>
#include <string>

class ZV_ModuleApi;

struct ZV_NetClientConfig
{
    std::string sServer = "127.0.0.1";
    uint16_t usPort = 0;
    uint32_t ulConfID = 0;
    uint32_t ulUser = 0;
    std::string sName;
    // Host form, with a trailing slash; "fsshared.ini" and "log/" go here.
    std::string sHome;
    std::chrono::milliseconds msRedialMin{100};
    std::chrono::milliseconds msRedialMax{2000};
    ZV_NetLimits limits;
    // The user's secret; the client logs in under sName when it is set,
    // and then takes only a server that proves it holds its keys.
    std::string sSecret;
    // Certificates the server's must lead to; when set, the client speaks
    // TLS and takes only a certificate for sServer.
    std::string sTrust;
};

class ZV_NetClient final : public ZV_NetHost
{
public:
    // How the client stands with its server.
    enum class Link
    {
        Down,      // dialling, or waiting to dial again
        Up,        // both connections stand
        Replaced,  // another login of the user took this one's place; no more dialling
        Refused,   // the server refused the login, or did not prove who it is; no more dialling
        Stopped,
    };
    using LinkCallback = std::function<void(Link eLink)>;

    ZV_NetClient(asio::io_context& io, ZV_NetClientConfig config, ZV_ModuleApi& api);
    ~ZV_NetClient() override;

    // Makes the manager and starts dialling; false, with the reason in
    // GetError, when the module made none or the trust file is unreadable.
    bool Start();
    const std::string& GetError() const { return m_sError; }
    // Says goodbye (when bGoodbye: the server counts the user as gone at
    // once) and closes both connections; no more dialling.
    void Stop(bool bGoodbye);

    IZV_FileShareMgr* GetFileShareMgr() { return m_lpNode ? m_lpNode->GetFileShareMgr() : nullptr; }
    void SetEventCallback(ZV_NetNode::EventCallback fnEvent);
    void SetLinkCallback(LinkCallback fnLink) { m_fnLink = std::move(fnLink); }
    Link GetLink() const { return m_eLink; }

    std::vector<ZV_HostLink*> LinksOf(const ZV_NetNode& node) const override;
    // Floods run between servers; a client's manager never asks.
    uint32_t NextFloodSeq() override { return 1; }

private:
    bool OnWelcome(ZV_NetConnection& conn, const ZV_NetWelcome& welcome) override;
    void OnOpened(ZV_NetConnection& conn) override;
    bool OnFrame(ZV_NetConnection& conn, const ZV_NetFrameHead& head, const uint8_t* pData) override;
    void OnClosed(ZV_NetConnection& conn) override;

    // No more dialling: stopped, replaced or refused.
    bool IsOver() const { return m_eLink == Link::Stopped || m_eLink == Link::Replaced || m_eLink == Link::Refused; }
    void Dial();
    void Redial();
    void SetLink(Link eLink);

    ZV_NetClientConfig m_config;
    ZV_ModuleApi& m_api;
    std::unique_ptr<ZV_NetNode> m_lpNode;
    std::unique_ptr<ZV_NetLink> m_lpLink;
    std::shared_ptr<ZV_NetConnection> m_lpDialing;
    asio::steady_timer m_redial;
    std::chrono::milliseconds m_msBackoff;
    bool m_bBusy = false;
    Link m_eLink = Link::Down;
    LinkCallback m_fnLink;
    ZV_NetSecurity m_security;
    std::string m_sError;
};
