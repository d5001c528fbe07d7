// ZV_NetServer: a conference server on TCP. It hosts one manager per
// conference, each in a home folder of its own, takes the connections of
// its users and of the linked servers that dial it, and dials the linked
// servers of higher number itself, again and again while they are away.
//
// Users. Each user of a conference has a fixed number, unique among the
// linked servers, and a home server; the module knows the user as
// QB_UserID(number, 0), and a server as QB_UserID(server number, 0), so
// user and server numbers never meet. A client names its user in its hello
// and proves it with a login under the user's name (a linked server under
// its number); the server reports that user on both of its connections,
// and the module believes nothing else about who is asking. One login per
// user: a second command connection of a user replaces the first, which is
// told so and closed. Links and departures: see ZV_NetPresence.
//
// Security: see docs/security.md, "The network host of this repository".
#pragma once

#include "ZV_NetHost.h"
#include "ZV_NetPresence.h"

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

class ZV_ModuleApi;

struct ZV_NetUserConfig
{
    uint32_t ulNumber = 0;
    std::string sName;
    uint32_t ulHomeServer = 0;
    bool bPrivileged = false;
    bool bMayShare = true;
};

struct ZV_NetConferenceConfig
{
    uint32_t ulConfID = 0;
    uint16_t usFileIDMin = 1;
    uint16_t usFileIDMax = 1000;
    // Host form, with a trailing slash; its "confsrv.ini" is in place.
    std::string sHome;
    std::vector<ZV_NetUserConfig> vecUsers;
};

struct ZV_NetPeerConfig
{
    uint32_t ulServerID = 0;
    std::string sAddress;  // dialled when this server's number is the lower
    uint16_t usPort = 0;
    std::vector<uint32_t> vecConferences;
    // The link secret this server logs in with when it dials; empty: none.
    std::string sSecret;
};

struct ZV_NetServerConfig
{
    uint32_t ulServerID = 0;
    std::string sListen = "127.0.0.1";
    uint16_t usPort = 0;
    std::chrono::milliseconds msGrace{600000};
    std::chrono::milliseconds msRedialMin{200};
    std::chrono::milliseconds msRedialMax{5000};
    ZV_NetLimits limits;
    std::vector<ZV_NetConferenceConfig> vecConferences;
    std::vector<ZV_NetPeerConfig> vecPeers;
    // TLS on every connection that comes in when both are set.
    std::string sCertificate;
    std::string sPrivateKey;
    // The certificates of the peers this server dials lead to one of these;
    // when set, those peers are dialled on TLS.
    std::string sTrust;
    // A login is asked of every connection that comes in when set.
    bool bLogins = false;
    ZV_Credentials credentials;
    std::chrono::milliseconds msLoginDelay{1000};
};

class ZV_NetServer final : public ZV_NetHost
{
public:
    ZV_NetServer(asio::io_context& io, ZV_NetServerConfig config, ZV_ModuleApi& api);
    ~ZV_NetServer() override;

    // Makes the managers, listens and dials; false, with the reason in
    // GetError, when it could not listen.
    bool Start();
    // Closes every link, lets every manager go, and stops listening; the
    // io_context runs out once the last handler is done.
    void Stop();
    uint16_t GetPort() const { return m_usPort; }
    const std::string& GetError() const { return m_sError; }
    ZV_NetNode* FindNode(uint32_t ulConfID) const;

    std::vector<ZV_HostLink*> LinksOf(const ZV_NetNode& node) const override;
    uint32_t NextFloodSeq() override;

private:
    struct ClientKey
    {
        uint32_t ulConfID;
        QB_UserID user;
        bool operator<(const ClientKey& key) const
        {
            return ulConfID != key.ulConfID ? ulConfID < key.ulConfID : user < key.user;
        }
    };
    struct Conference
    {
        std::unique_ptr<ZV_NetNode> lpNode;
        ZV_NetPresence presence;
        std::map<QB_UserID, std::unique_ptr<ZV_NetLink>> mapLinks;
    };
    struct Peer
    {
        ZV_NetPeerConfig config;
        std::unique_ptr<ZV_NetLink> lpLink;
        asio::steady_timer timer;
        std::chrono::milliseconds msBackoff;
        bool bDials = false;
        // A dial or its wait is under way.
        bool bBusy = false;
        // Connections dialled that have not opened yet.
        std::set<uint32_t> setDialing;
    };

    void Accept();
    ZV_NetWelcome OnHello(ZV_NetConnection& conn, const ZV_NetHello& hello) override;
    bool OnWelcome(ZV_NetConnection& conn, const ZV_NetWelcome& welcome) override;
    void OnOpened(ZV_NetConnection& conn) override;
    bool OnFrame(ZV_NetConnection& conn, const ZV_NetFrameHead& head, const uint8_t* pData) override;
    void OnClosed(ZV_NetConnection& conn) override;
    void OnTick() override;

    bool StartSecurity();
    ZV_NetWelcome AnswerClient(const ZV_NetHello& hello, const std::string& sLogin) const;
    ZV_NetWelcome AnswerServer(const ZV_NetHello& hello, const std::string& sLogin) const;
    void OpenClient(ZV_NetConnection& conn);
    bool ClientFrame(Conference& conf, ZV_NetLink& link, ZV_NetConnection& conn, const ZV_NetFrameHead& head,
                     const uint8_t* pData);
    void ClientGone(Conference& conf, ZV_NetLink& link, bool bGoodbye, const std::string& sReason);
    void Departed(Conference& conf, const QB_UserID& user, const std::string& sWhy);
    void OpenServer(ZV_NetConnection& conn, Peer& peer);
    void ServerGone(Peer& peer, const std::string& sReason);
    void Dial(Peer& peer);
    void Redial(Peer& peer);
    std::vector<ZV_NetNode*> NodesOf(const Peer& peer) const;
    Conference* FindConference(uint32_t ulConfID);
    Conference* FindConferenceByWord(uint16_t usWord, const Peer& peer);
    Peer* FindPeer(uint32_t ulServerID);
    // Where a connection belongs once it opened; null when nowhere (any
    // longer).
    ZV_NetLink* FindLinkOf(const ZV_NetConnection& conn, Conference** lplpConf, Peer** lplpPeer);
    std::string UserName(const Conference& conf, const QB_UserID& user) const;

    ZV_NetServerConfig m_config;
    ZV_ModuleApi& m_api;
    ZV_LoginGuard m_guard;
    ZV_NetSecurity m_accepting;
    ZV_NetSecurity m_dialling;
    asio::ip::tcp::acceptor m_acceptor;
    uint16_t m_usPort = 0;
    std::map<uint32_t, Conference> m_mapConfs;
    std::map<uint32_t, std::unique_ptr<Peer>> m_mapPeers;
    uint32_t m_ulFloodSeq;
    bool m_bStopping = false;
    std::string m_sError;
};
