// ZV_SimHost: one node of a simulated conference, which is the host as one
// manager sees it. The contract itself is ZV_HostNode's; the simulator adds
// the node's place among its machines and links, and the journal of what
// the node did and was told.
#pragma once

#include "ZV_HostNode.h"
#include "ZV_SimNetwork.h"
#include "ZV_SimUserTable.h"

#include <functional>
#include <string>
#include <vector>

class ZV_SimConference;
class ZV_SimMachine;

class ZV_SimHost final : public ZV_HostNode
{
public:
    using EventCallback = std::function<void(ZV_SimHost& host, uint16_t usEvent, const std::vector<uint8_t>& vbData)>;
    using PduCallback = std::function<void(ZV_SimHost& host, uint16_t usPdu, uint32_t ulResult)>;

    // lpUser names the local user of a client node; a server node passes
    // null and is QB_UserID(server id, 0). sHome may be empty: the node then
    // runs with ROOMCRATE_HOME unset.
    ZV_SimHost(ZV_SimConference* lpWorld, uint32_t nIndex, ZV_SimMachine* lpMachine, uint32_t ulConfID,
               const ZV_SimUser* lpUser, std::string sHome);

    uint32_t GetIndex() const { return m_nIndex; }
    // "srv1@100", "usr10001@100": how the journal names the node.
    const std::string& GetName() const { return m_sName; }
    ZV_SimMachine* GetMachine() const { return m_lpMachine; }
    // The local user; a client node's record as it enters the user table.
    const QB_UserID& GetUserID() const { return GetLocalID(); }
    const ZV_SimUser& GetUserRecord() const { return m_user; }
    ZV_SimUser& GetUserRecord() { return m_user; }

    void SetEventCallback(EventCallback fnCallback) { m_fnEvent = std::move(fnCallback); }
    // Called after the manager's HandlePdu has returned, with what it gave:
    // whatever the handler wrote meanwhile (its trace line) was this node's.
    void SetPduCallback(PduCallback fnCallback) { m_fnPdu = std::move(fnCallback); }

    // The host's calls into the manager, journaled.
    uint32_t DeliverPdu(const ZV_SimMachine& peer, uint32_t ulConn, uint16_t usConnType, uint16_t usPdu,
                        const uint8_t* pData, uint32_t ulLen);
    void DeliverOnSend(const ZV_SimMachine& peer, uint32_t ulConn, uint16_t usConnType);
    void DeliverLinkChange(bool bUp, const ZV_SimMachine& peer, uint32_t ulConn, uint16_t usConnType);
    void DeliverTimer(uint32_t ulTick);
    // sArg2 says in the journal what a2 stands for.
    uint32_t DeliverEvent(uint16_t usEvent, uintptr_t a1, uintptr_t a2, const std::string& sArg2);

    // IZV_ConfHost: the node's place among the machines.
    uint32_t GetLocalServerID() override;
    uint16_t GetFileIDMin() override;
    uint16_t GetFileIDMax() override;

    // IZV_ConfSink
    void OnConfEvent(IZV_ConfHost* lpConf, uint16_t usEvent, uint32_t ulLen, const uint8_t* pData) override;

protected:
    std::vector<ZV_HostLink*> Links() const override;
    uint32_t Carry(const ZV_HostSend& send) override;
    uint32_t Kick(const ZV_HostSend& send) override;
    uint32_t Refuse(const ZV_HostSend& send) override;
    const ZV_HostUserTable& Users() const override;
    uint32_t NextFloodSeq() override;

private:
    ZV_SimNetwork& Net() const;
    ZV_SimJournal& Journal() const;
    ZV_SimMachine* GetHomeServer() const;
    ZV_SimSend ToSimSend(const ZV_HostSend& send);
    void JournalCall(ZV_SimCall eCall, const std::string& sPeer, uint32_t ulConn, uint16_t usConnType);

    ZV_SimConference* m_lpWorld;
    uint32_t m_nIndex;
    ZV_SimMachine* m_lpMachine;
    ZV_SimUser m_user;
    std::string m_sName;
    EventCallback m_fnEvent;
    PduCallback m_fnPdu;
};
