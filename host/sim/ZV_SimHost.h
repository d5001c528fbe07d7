// ZV_SimHost: one node of a simulated conference, which is the host as one
// manager sees it. It is what the manager gets as m_lpConf (IZV_ConfHost)
// and m_lpConfSink (IZV_ConfSink); it owns the manager and makes every call
// into it with ROOMCRATE_HOME pointed at the node's own folder, so that each
// node has its own "confsrv.ini", "fsinfo.ini" and "log\".
//
// The contract's queries are in ZV_SimHost_Contract.cpp, its five send
// routes and the flood bookkeeping in ZV_SimHost_Send.cpp.
#pragma once

#include "IZV_FileShare.h"
#include "ZV_SimNetwork.h"
#include "ZV_SimUserTable.h"

#include <functional>
#include <set>
#include <string>
#include <tuple>
#include <vector>

class ZV_SimConference;
class ZV_SimMachine;
class ZV_SimModuleApi;

class ZV_SimHost final : public IZV_ConfHost, public IZV_ConfSink
{
public:
    using EventCallback = std::function<void(ZV_SimHost& host, uint16_t usEvent, const std::vector<uint8_t>& vbData)>;
    using PduCallback = std::function<void(ZV_SimHost& host, uint16_t usPdu, uint32_t ulResult)>;

    // lpUser names the local user of a client node; a server node passes
    // null and is QB_UserID(server id, 0). sHome may be empty: the node then
    // runs with ROOMCRATE_HOME unset.
    ZV_SimHost(ZV_SimConference* lpWorld, uint32_t nIndex, ZV_SimMachine* lpMachine, uint32_t ulConfID,
               const ZV_SimUser* lpUser, std::string sHome);
    ZV_SimHost(const ZV_SimHost&) = delete;
    ZV_SimHost& operator=(const ZV_SimHost&) = delete;

    uint32_t GetIndex() const { return m_nIndex; }
    // "srv1@100", "usr10001@100": how the journal names the node.
    const std::string& GetName() const { return m_sName; }
    ZV_SimMachine* GetMachine() const { return m_lpMachine; }
    bool IsServer() const;
    // The local user; a client node's record as it enters the user table.
    const QB_UserID& GetUserID() const { return m_idLocal; }
    const ZV_SimUser& GetUserRecord() const { return m_user; }
    ZV_SimUser& GetUserRecord() { return m_user; }
    // Host form, with a trailing slash; empty when the node has no folder.
    const std::string& GetHome() const { return m_sHome; }

    // Makes the manager, writes this node into it and calls Initialize.
    // False when the module gave no manager.
    bool Start(ZV_SimModuleApi& api);
    void Stop(ZV_SimModuleApi& api);
    IZV_ConfModule* GetModule() const { return m_lpModule; }
    uint32_t GetInitializeResult() const { return m_ulInitResult; }

    // The user side. GetFileShareMgr points ROOMCRATE_HOME at this node and
    // leaves it there, since the caller goes on to call into the manager.
    IZV_FileShareMgr* GetFileShareMgr();
    void SetEventCallback(EventCallback fnCallback) { m_fnEvent = std::move(fnCallback); }
    // Called after the manager's HandlePdu has returned, with what it gave:
    // whatever the handler wrote meanwhile (its trace line) was this node's.
    void SetPduCallback(PduCallback fnCallback) { m_fnPdu = std::move(fnCallback); }

    // The host's calls into the manager.
    uint32_t DeliverPdu(const ZV_SimMachine& peer, uint32_t ulConn, uint16_t usConnType, uint16_t usPdu,
                        const uint8_t* pData, uint32_t ulLen);
    void DeliverOnSend(const ZV_SimMachine& peer, uint32_t ulConn, uint16_t usConnType);
    void DeliverLinkChange(bool bUp, const ZV_SimMachine& peer, uint32_t ulConn, uint16_t usConnType);
    void DeliverTimer(uint32_t ulTick);
    // sArg2 says in the journal what a2 stands for.
    uint32_t DeliverEvent(uint16_t usEvent, uintptr_t a1, uintptr_t a2, const std::string& sArg2);

    // ROOMCRATE_HOME belongs to the whole process; this is the one place
    // that sets it. An empty folder unsets it. Calls into a manager leave it
    // pointing at the last node called.
    static void PointHome(const std::string& sHome);

    // IZV_ConfHost
    uint32_t GetConfID() override { return m_ulConfID; }
    uint32_t GetConfID() const { return m_ulConfID; }
    uint32_t GetClientCount() override;
    const QB_UserID* GetLocalUserID() override { return &m_idLocal; }
    uint32_t GetLocalServerID() override;
    bool IsServerMode() override { return IsServer(); }
    bool IsClientMode() override { return !IsServer(); }
    bool CanShareFiles(const QB_UserID* lpUser) override;
    uint16_t GetFileIDMin() override;
    uint16_t GetFileIDMax() override;
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

    // IZV_ConfSink
    void OnConfEvent(IZV_ConfHost* lpConf, uint16_t usEvent, uint32_t ulLen, const uint8_t* pData) override;

private:
    void SetUserFields(ConfPduData& cpd, const ZV_SimMachine& peer) const;
    using FloodKey = std::tuple<uint32_t, uint32_t, uint32_t>;

    ZV_SimNetwork& Net() const;
    ZV_SimJournal& Journal() const;
    std::vector<ZV_SimLinkEnd> Links() const;
    ZV_SimLinkEnd FindLinkTo(const QB_UserID* lpPeer) const;
    ZV_SimLinkEnd FindServerLinkTo(uint32_t ulServerID) const;
    ZV_SimLinkEnd FindConn(uint32_t ulConn, int* lpnChannel) const;
    ZV_SimMachine* GetHomeServer() const;
    ZV_SimSend MakeSend(ZV_SimRoute eRoute, uint16_t usPdu, const uint8_t* pData, uint32_t ulLen, uint8_t bFlag1,
                        uint8_t bFlag2);
    uint32_t SendOn(ZV_SimSend send, ZV_SimLinkEnd end, int nChannel);
    static bool FirstSight(std::set<FloodKey>& setSeen, const QB_UserID* lpOrigin, uint32_t ulFloodSeq);
    void JournalCall(ZV_SimCall eCall, const std::string& sPeer, uint32_t ulConn, uint16_t usConnType);

    ZV_SimConference* m_lpWorld;
    uint32_t m_nIndex;
    ZV_SimMachine* m_lpMachine;
    uint32_t m_ulConfID;
    ZV_SimUser m_user;
    QB_UserID m_idLocal;
    std::string m_sName;
    std::string m_sHome;
    IZV_ConfModule* m_lpModule = nullptr;
    uint32_t m_ulInitResult = 0;
    EventCallback m_fnEvent;
    PduCallback m_fnPdu;
    std::set<FloodKey> m_setFloodSeen;
    std::set<FloodKey> m_setResponseFloodSeen;
};
