// ZV_HostNode: the host contract as one manager sees it, kept once for every
// transport. A node is one conference on one machine: it owns the manager,
// answers the manager's questions about users and links, turns the five
// send routes into connections, remembers floods, and makes every call into
// the manager with ROOMCRATE_HOME pointed at the node's own folder, so that
// each node has its own "confsrv.ini", "fsinfo.ini" and "log\".
//
// The transport says which links the node has and carries what the node
// hands it: the simulator with its in-process wires (host/sim), the network
// host with sockets (host/net). Everything a transport must not decide for
// itself (who is named in a PDU, which links a route takes, what a kick
// is, when a send is refused) is decided here.
#pragma once

#include "IZV_FileShare.h"
#include "ZV_HostUserTable.h"

#include <cstdint>
#include <deque>
#include <set>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

class ZV_ModuleApi;

// The two connections of a link.
enum
{
    zvHostCommand = 0,
    zvHostData = 1,
};

// What a send operation gives the module when the host can't carry it out:
// the module's own code for "no connection of the needed type".
constexpr uint32_t zvHostSendRefused = 16;
// Senders build payloads in a buffer of this size, conference word included.
constexpr uint32_t zvHostMaxPayload = 65471;

// The host operation a PDU was sent with.
enum class ZV_HostRoute
{
    Pdu,         // SendPdu
    Group,       // SendPduToGroup
    Servers,     // SendPduToServers
    ServerData,  // SendPduToServerData
    OnLink,      // SendPduOnLink
};

// Whether a route's payload starts with the conference word.
inline bool ZV_CarriesConfWord(ZV_HostRoute eRoute)
{
    return eRoute == ZV_HostRoute::Servers || eRoute == ZV_HostRoute::ServerData || eRoute == ZV_HostRoute::OnLink;
}

// One link of a node as its transport keeps it: a client link (types 0 and
// 4) or a server link (0x1000 and 0x1004), and the numbers this end knows
// its two connections by.
class ZV_HostLink
{
public:
    virtual bool IsServerLink() const = 0;
    // The other end: QB_UserID(server id, 0) for a server; the client's user
    // on a server's client link.
    virtual const QB_UserID& GetPeer() const = 0;
    // The number of the connection on that channel; zvConnNone while it is
    // down.
    virtual uint32_t ConnOn(int nChannel) const = 0;
    // What GetUserLink and GetServerLink hand to the module.
    virtual IZV_ConfLink* GetFace() = 0;

    uint16_t GetConnType(int nChannel) const;
    // zvHostCommand or zvHostData for a type of this link's kind, else -1.
    int ChannelOf(uint16_t usConnType) const;
    // The channel this end numbers ulConn, or -1.
    int FindChannel(uint32_t ulConn) const;

protected:
    ~ZV_HostLink() = default;
};

// One PDU as a send operation hands it over.
struct ZV_HostSend
{
    ZV_HostRoute eRoute = ZV_HostRoute::Pdu;
    ZV_HostLink* lpLink = nullptr;  // none when no connection was found
    int nChannel = zvHostCommand;
    uint32_t ulConn = zvConnNone;  // as the sender named it, or as found
    uint16_t usConnType = 0;       // as the sender named it
    uint16_t usPdu = 0;
    const uint8_t* pData = nullptr;
    uint32_t ulLen = 0;
    uint8_t bFlag1 = 0;
    uint8_t bFlag2 = 0;
};

class ZV_HostNode : public IZV_ConfHost, public IZV_ConfSink
{
public:
    // idLocal names the local user of a client node, or QB_UserID(server
    // id, 0) on a server. sHome may be empty: the node then runs with
    // ROOMCRATE_HOME unset.
    ZV_HostNode(uint32_t ulConfID, const QB_UserID& idLocal, bool bServer, std::string sHome);
    ZV_HostNode(const ZV_HostNode&) = delete;
    ZV_HostNode& operator=(const ZV_HostNode&) = delete;

    bool IsServer() const { return m_bServer; }
    uint32_t GetConfID() const { return m_ulConfID; }
    const QB_UserID& GetLocalID() const { return m_idLocal; }
    // Host form, with a trailing slash; empty when the node has no folder.
    const std::string& GetHome() const { return m_sHome; }

    // Makes the manager, writes this node into it and calls Initialize.
    // False when the module gave no manager. The thread that starts a node
    // is the one thread that may call into its manager from then on.
    bool Start(ZV_ModuleApi& api);
    void Stop(ZV_ModuleApi& api);
    IZV_ConfModule* GetModule() const { return m_lpModule; }
    uint32_t GetInitializeResult() const { return m_ulInitResult; }
    // The user side. It points ROOMCRATE_HOME at this node and leaves it
    // there, since the caller goes on to call into the manager.
    IZV_FileShareMgr* GetFileShareMgr();

    // ROOMCRATE_HOME belongs to the whole process; this is the one place
    // that sets it. An empty folder unsets it. Calls into a manager leave it
    // pointing at the last node called.
    static void PointHome(const std::string& sHome);

    // The host's calls into the manager. peer is the other end of the
    // connection; the user fields of the record follow from it.
    uint32_t CallHandlePdu(const QB_UserID& peer, uint32_t ulConn, uint16_t usConnType, uint16_t usPdu,
                           const uint8_t* pData, uint32_t ulLen);
    void CallOnSend(const QB_UserID& peer, uint32_t ulConn, uint16_t usConnType);
    void CallLinkChange(bool bUp, const QB_UserID& peer, uint32_t ulConn, uint16_t usConnType);
    void CallTimer(uint32_t ulTick);
    uint32_t CallEvent(uint16_t usEvent, uintptr_t a1, uintptr_t a2);
    // Events 4 and 21 for a user, and 11 for a server link by this end's
    // number of its command connection.
    uint32_t RaiseUserEvent(uint16_t usEvent, const QB_UserID& user);
    uint32_t RaiseServerLink(uint32_t ulCommandConn);

    // IZV_ConfHost: all but the node's place in its network, which the
    // transport answers (GetLocalServerID, GetFileIDMin, GetFileIDMax).
    uint32_t GetConfID() override { return m_ulConfID; }
    uint32_t GetClientCount() override;
    const QB_UserID* GetLocalUserID() override { return &m_idLocal; }
    bool IsServerMode() override { return m_bServer; }
    bool IsClientMode() override { return !m_bServer; }
    bool CanShareFiles(const QB_UserID* lpUser) override;
    uint32_t GetUserConn(const QB_UserID* lpUser, uint16_t usConnType) override;
    uint32_t GetServerConn(uint32_t ulServerID, uint16_t usConnType, uint32_t ulReserved) override;
    IZV_ConfLink* GetUserLink(const QB_UserID* lpUser) override;
    IZV_ConfLink* GetServerLink() override;
    const ZV_ConfUserInfo* GetUser(const QB_UserID* lpUser) override;
    uint32_t SendPdu(uint32_t ulConn, uint16_t usPdu, const uint8_t* pData, uint32_t ulLen, uint8_t bFlag1,
                     uint8_t bFlag2) override;
    uint32_t SendPduToGroup(uint32_t ulSkipConn, uint32_t ulReserved, uint16_t usPdu, const uint8_t* pData,
                            uint32_t ulLen, uint8_t bFlag1, uint8_t bFlag2) override;
    uint32_t SendPduOnLink(uint32_t ulConn, uint16_t usPdu, const uint8_t* pData, uint32_t ulLen, uint8_t bFlag1,
                           uint8_t bFlag2) override;
    uint32_t SendPduToServerData(uint32_t ulServerMain, uint16_t usConnType, uint16_t usPdu, const uint8_t* pData,
                                 uint32_t ulLen, uint8_t bFlag1, uint8_t bFlag2) override;
    uint32_t SendPduToServers(uint32_t ulSkipConn, uint16_t usConnType, uint16_t usPdu, const uint8_t* pData,
                              uint32_t ulLen, uint8_t bFlag1, uint8_t bFlag2) override;
    bool HasServerLinks() override;
    uint32_t NewFloodSeq(const QB_UserID* lpOrigin, uint32_t ulReserved) override;
    bool IsFloodSeen(const QB_UserID* lpOrigin, uint32_t ulFloodSeq) override;
    bool IsResponseFloodSeen(const QB_UserID* lpOrigin, uint32_t ulFloodSeq) override;

protected:
    // What the transport provides.
    // The links this node's module may use, in a fixed order.
    virtual std::vector<ZV_HostLink*> Links() const = 0;
    // Carries a PDU on an up connection; 0 when it is on its way.
    virtual uint32_t Carry(const ZV_HostSend& send) = 0;
    // The module asks for OnSend calls on an up data connection.
    virtual uint32_t Kick(const ZV_HostSend& send) = 0;
    // A send that can't be made; the transport may note it.
    virtual uint32_t Refuse(const ZV_HostSend& send);
    // The users of this node's conference.
    virtual const ZV_HostUserTable& Users() const = 0;
    // A fresh flood number, never 0, unique among the servers of the
    // conference.
    virtual uint32_t NextFloodSeq() = 0;

    ZV_HostLink* FindLinkTo(const QB_UserID* lpPeer) const;
    ZV_HostLink* FindServerLinkTo(uint32_t ulServerID) const;
    ZV_HostLink* FindConn(uint32_t ulConn, int* lpnChannel) const;

private:
    // Floods remembered per kind; the oldest are forgotten past this many,
    // long after any flood has died out.
    static constexpr size_t kFloodMemory = 1u << 20;
    using FloodKey = std::tuple<uint32_t, uint32_t, uint32_t>;
    struct FloodMemory
    {
        std::set<FloodKey> setSeen;
        std::deque<FloodKey> queueOrder;
    };

    void SetUserFields(ConfPduData& cpd, const QB_UserID& peer) const;
    void CheckThread() const;
    static ZV_HostSend MakeSend(ZV_HostRoute eRoute, uint16_t usPdu, const uint8_t* pData, uint32_t ulLen,
                                uint8_t bFlag1, uint8_t bFlag2);
    uint32_t SendOn(ZV_HostSend send, ZV_HostLink* lpLink, int nChannel);
    static bool FirstSight(FloodMemory& memory, const QB_UserID* lpOrigin, uint32_t ulFloodSeq);

    uint32_t m_ulConfID;
    QB_UserID m_idLocal;
    bool m_bServer;
    std::string m_sHome;
    IZV_ConfModule* m_lpModule = nullptr;
    uint32_t m_ulInitResult = 0;
    std::thread::id m_idThread;
    FloodMemory m_floodSeen;
    FloodMemory m_responseFloodSeen;
};
