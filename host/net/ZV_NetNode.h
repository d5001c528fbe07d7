// ZV_NetNode: one conference on a network host, and ZV_NetLink, one link of
// it. The contract is ZV_HostNode's; a network node asks its host for its
// links and hands it what the manager sends.
#pragma once

#include "ZV_HostNode.h"

#include <functional>
#include <memory>
#include <vector>

class ZV_NetConnection;
class ZV_NetHost;

// A client link (a user's two connections to its server) or a server link
// (two servers' two connections, shared by every conference they both
// host). A connection belongs to the link, and has its number here, from
// the module's OnConnect to its OnDisconnect.
class ZV_NetLink final : public ZV_HostLink, public IZV_ConfLink
{
public:
    ZV_NetLink(const QB_UserID& peer, bool bServerLink) : m_peer(peer), m_bServerLink(bServerLink) {}

    bool IsServerLink() const override { return m_bServerLink; }
    const QB_UserID& GetPeer() const override { return m_peer; }
    // A client learns its server's number from the welcome.
    void SetPeer(const QB_UserID& peer) { m_peer = peer; }
    uint32_t ConnOn(int nChannel) const override;
    IZV_ConfLink* GetFace() override { return this; }
    uint32_t LinkReserved0() override { return 0; }
    uint32_t GetConn(uint16_t usConnType) override;

    const std::shared_ptr<ZV_NetConnection>& GetConnection(int nChannel) const { return m_alpConn[nChannel]; }
    void SetConnection(int nChannel, std::shared_ptr<ZV_NetConnection> lpConn) { m_alpConn[nChannel] = std::move(lpConn); }
    // The channel of a connection of this link, or -1.
    int ChannelOfConnection(const ZV_NetConnection* lpConn) const;
    bool IsUp() const { return m_alpConn[zvHostCommand] && m_alpConn[zvHostData]; }

private:
    QB_UserID m_peer;
    bool m_bServerLink;
    std::shared_ptr<ZV_NetConnection> m_alpConn[2];
};

class ZV_NetNode final : public ZV_HostNode
{
public:
    using EventCallback = std::function<void(uint16_t usEvent, std::vector<uint8_t> vbData)>;

    ZV_NetNode(ZV_NetHost* lpHost, uint32_t ulConfID, const QB_UserID& idLocal, bool bServer, std::string sHome,
               ZV_HostUserTable users);

    ZV_HostUserTable& GetUsers() { return m_users; }
    // Where the node stands: its server's number and that server's FileIDs.
    void SetServer(uint32_t ulServerID, uint16_t usFileIDMin, uint16_t usFileIDMax);
    // Events for the user side, which hears of them after the manager's
    // call returned.
    void SetEventCallback(EventCallback fnEvent) { m_fnEvent = std::move(fnEvent); }

    uint32_t GetLocalServerID() override { return m_ulServerID; }
    uint16_t GetFileIDMin() override { return m_usFileIDMin; }
    uint16_t GetFileIDMax() override { return m_usFileIDMax; }
    void OnConfEvent(IZV_ConfHost* lpConf, uint16_t usEvent, uint32_t ulLen, const uint8_t* pData) override;

protected:
    std::vector<ZV_HostLink*> Links() const override;
    uint32_t Carry(const ZV_HostSend& send) override;
    uint32_t Kick(const ZV_HostSend& send) override;
    const ZV_HostUserTable& Users() const override { return m_users; }
    uint32_t NextFloodSeq() override;

private:
    ZV_NetHost* m_lpHost;
    ZV_HostUserTable m_users;
    uint32_t m_ulServerID = 0;
    uint16_t m_usFileIDMin = 0;
    uint16_t m_usFileIDMax = 0;
    EventCallback m_fnEvent;
};
