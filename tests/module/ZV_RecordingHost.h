// A host for tests of one manager on its own: it answers from fields a test
// sets and records every send and every event, so a test can assert on the
// exact bytes. Whole conferences run in the simulator instead.
#pragma once

#include "IZV_FileShare.h"
#include "wire/ZV_RecordStream.h"

#include <bit>
#include <cstdint>
#include <cstring>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

// A payload field by field, as the wire has them.
struct ZV_Pdu
{
    std::vector<uint8_t> b;
    ZV_Pdu& U8(uint8_t v) { b.push_back(v); return *this; }
    ZV_Pdu& U16(uint16_t v) { return U8(v & 0xFF).U8(v >> 8); }
    ZV_Pdu& U32(uint32_t v) { return U16(v & 0xFFFF).U16(v >> 16); }
    ZV_Pdu& User(const QB_UserID& id) { return U32(id.m_ulMain).U32(id.m_ulSub); }
    ZV_Pdu& Data(const std::vector<uint8_t>& data) { b.insert(b.end(), data.begin(), data.end()); return *this; }
    ZV_Pdu& U64(uint64_t v) { return U32(v & 0xFFFFFFFF).U32(v >> 32); }
    ZV_Pdu& F64(double d) { return U64(std::bit_cast<uint64_t>(d)); }
    template <class TRecord> ZV_Pdu& Record(const TRecord& record)
    {
        uint8_t abBuf[4096];
        QB_ByteStream stream(abBuf, sizeof abBuf, false);
        SaveDelimited(stream, record);
        return Data(std::vector<uint8_t>(abBuf, abBuf + stream.GetPos()));
    }
};

using Bytes = std::vector<uint8_t>;
using Pdu = ZV_Pdu;

// File contents that differ at every offset, so a block in the wrong place shows.
inline std::vector<uint8_t> ZV_TestBytes(size_t nSize, unsigned nSeed)
{
    std::vector<uint8_t> data(nSize);
    for (size_t i = 0; i < nSize; ++i)
        data[i] = (uint8_t)((i * 2654435761u + nSeed) >> 13);
    return data;
}

// Hands a payload to a module as a host does: from a peer, on a connection
// of the given type. An empty payload comes as a null pointer.
inline uint32_t ZV_Deliver(IZV_ConfModule& module, uint16_t usPdu, uint16_t usConnType,
                           const std::vector<uint8_t>& data, uint32_t ulConn = 5,
                           const QB_UserID& from = QB_UserID(10002, 0))
{
    ConfPduData cpd{from.m_ulMain, from.m_ulSub, ulConn, 0, usConnType, usPdu, 0, 0, 0, (uint32_t)data.size(),
                    data.empty() ? nullptr : data.data()};
    return module.HandlePdu(&cpd);
}

struct ZV_SentPdu
{
    std::string sRoute;  // "link", "group", "onlink", "serverdata", "servers"
    uint32_t ulConn;     // connection, skip connection, or server id by route
    uint16_t usPdu;
    std::vector<uint8_t> data;
    uint8_t bFlag1;
    uint8_t bFlag2;
};

struct ZV_RaisedEvent
{
    uint16_t usEvent;
    std::vector<uint8_t> data;
};

class ZV_RecordingHost : public IZV_ConfHost, public IZV_ConfLink, public IZV_ConfSink
{
public:
    // What the host answers.
    uint32_t m_ulConfID = 7;
    bool m_bServer = false;
    uint32_t m_ulClientCount = 0;  // server: clients in the conference
    uint32_t m_ulServerID = 1;
    QB_UserID m_LocalUser{10001, 0};
    uint16_t m_usFileIDMin = 1;
    uint16_t m_usFileIDMax = 1000;
    uint32_t m_ulCmdConn = 11;   // client: command connection to the server, zvConnNone when down
    uint32_t m_ulDataConn = 12;  // client: data connection
    bool m_bHasServerLinks = false;
    std::set<uint32_t> m_setLinkedServer;  // server ids with a command link, on connection 900 + id
    std::map<std::pair<uint32_t, uint32_t>, ZV_ConfUserInfo> m_mapUsers;
    std::map<std::pair<uint32_t, uint32_t>, uint32_t> m_mapUserConn;  // server: a user's command connection
    uint32_t m_ulNextFloodSeq = 100;
    std::set<std::pair<uint64_t, uint32_t>> m_setFloodSeen;

    // What the module did.
    std::vector<ZV_SentPdu> m_vecSent;
    std::vector<ZV_RaisedEvent> m_vecEvents;
    // Called after each send is recorded, as a host that hands the manager
    // a PDU while it is still sending would.
    std::function<void(uint16_t usPdu)> m_fnOnSend;

    void AddUser(const QB_UserID& id, uint32_t ulHome, const char* szName, uint16_t usRole = 0, uint32_t ulFlags = 0)
    {
        m_mapUsers[{id.m_ulMain, id.m_ulSub}] = ZV_ConfUserInfo{ulHome, szName, usRole, ulFlags};
    }
    // Writes the host's pointers into a module, as a host does before Initialize.
    void Attach(IZV_ConfModule* lpModule)
    {
        lpModule->m_lpConf = this;
        lpModule->m_lpConfSink = this;
    }
    std::vector<ZV_SentPdu> SentOf(uint16_t usPdu) const
    {
        std::vector<ZV_SentPdu> vec;
        for (const auto& sent : m_vecSent)
            if (sent.usPdu == usPdu)
                vec.push_back(sent);
        return vec;
    }

    // ---- IZV_ConfHost
    uint32_t GetConfID() override { return Called(), m_ulConfID; }
    uint32_t GetClientCount() override { return Called(), m_ulClientCount; }
    const QB_UserID* GetLocalUserID() override { return Called(), &m_LocalUser; }
    uint32_t GetLocalServerID() override { return Called(), m_ulServerID; }
    bool IsServerMode() override { return Called(), m_bServer; }
    bool IsClientMode() override { return Called(), !m_bServer; }
    bool CanShareFiles(const QB_UserID*) override { return Called(), true; }
    uint16_t GetFileIDMin() override { return Called(), m_usFileIDMin; }
    uint16_t GetFileIDMax() override { return Called(), m_usFileIDMax; }
    uint32_t GetUserConn(const QB_UserID* lpUser, uint16_t usType) override
    {
        Called();
        auto it = m_mapUserConn.find({lpUser->m_ulMain, lpUser->m_ulSub});
        return it == m_mapUserConn.end() || usType != zvConfClientTypeCommand ? zvConnNone : it->second;
    }
    uint32_t GetServerConn(uint32_t ulServer, uint16_t, uint32_t) override
    { return Called(), m_setLinkedServer.count(ulServer) ? 900 + ulServer : zvConnNone; }
    IZV_ConfLink* GetUserLink(const QB_UserID*) override { return Called(), nullptr; }
    IZV_ConfLink* GetServerLink() override { return Called(), m_bServer ? nullptr : this; }
    const ZV_ConfUserInfo* GetUser(const QB_UserID* lpUser) override
    {
        Called();
        auto it = m_mapUsers.find({lpUser->m_ulMain, lpUser->m_ulSub});
        return it == m_mapUsers.end() ? nullptr : &it->second;
    }
    uint32_t SendPdu(uint32_t ulConn, uint16_t usPdu, const uint8_t* pData, uint32_t ulLen,
                     uint8_t b1, uint8_t b2) override
    { return Called(), Record("link", ulConn, usPdu, pData, ulLen, b1, b2); }
    uint32_t SendPduToGroup(uint32_t ulSkip, uint32_t, uint16_t usPdu, const uint8_t* pData, uint32_t ulLen,
                            uint8_t b1, uint8_t b2) override
    { return Called(), Record("group", ulSkip, usPdu, pData, ulLen, b1, b2); }
    uint32_t SendPduOnLink(uint32_t ulConn, uint16_t usPdu, const uint8_t* pData, uint32_t ulLen,
                           uint8_t b1, uint8_t b2) override
    { return Called(), Record("onlink", ulConn, usPdu, pData, ulLen, b1, b2); }
    uint32_t SendPduToServerData(uint32_t ulServer, uint16_t, uint16_t usPdu, const uint8_t* pData, uint32_t ulLen,
                                 uint8_t b1, uint8_t b2) override
    { return Called(), Record("serverdata", ulServer, usPdu, pData, ulLen, b1, b2); }
    uint32_t SendPduToServers(uint32_t ulSkip, uint16_t, uint16_t usPdu, const uint8_t* pData, uint32_t ulLen,
                              uint8_t b1, uint8_t b2) override
    { return Called(), Record("servers", ulSkip, usPdu, pData, ulLen, b1, b2); }
    bool HasServerLinks() override { return Called(), m_bHasServerLinks; }
    uint32_t NewFloodSeq(const QB_UserID*, uint32_t) override { return Called(), m_ulNextFloodSeq++; }
    bool IsFloodSeen(const QB_UserID* lpOrigin, uint32_t ulSeq) override
    {
        Called();
        const uint64_t ullKey = ((uint64_t)lpOrigin->m_ulMain << 32) | lpOrigin->m_ulSub;
        return !m_setFloodSeen.insert({ullKey, ulSeq}).second;
    }
    bool IsResponseFloodSeen(const QB_UserID* lpOrigin, uint32_t ulSeq) override { return IsFloodSeen(lpOrigin, ulSeq); }

    // ---- IZV_ConfLink: the client's link to its server
    uint32_t LinkReserved0() override { return Called(), 0; }
    uint32_t GetConn(uint16_t usConnType) override
    {
        Called();
        return usConnType == zvConfClientTypeCommand ? m_ulCmdConn
               : usConnType == zvConfClientTypeData  ? m_ulDataConn
                                                     : zvConnNone;
    }

    // ---- IZV_ConfSink
    void OnConfEvent(IZV_ConfHost*, uint16_t usEvent, uint32_t ulLen, const uint8_t* pData) override
    { Called(), m_vecEvents.push_back({usEvent, std::vector<uint8_t>(pData, pData + ulLen)}); }

protected:
    // Every call of the host passes here first.
    virtual void Called() {}

private:
    uint32_t Record(const char* szRoute, uint32_t ulConn, uint16_t usPdu, const uint8_t* pData, uint32_t ulLen,
                    uint8_t b1, uint8_t b2)
    {
        m_vecSent.push_back({szRoute, ulConn, usPdu,
                             pData ? std::vector<uint8_t>(pData, pData + ulLen) : std::vector<uint8_t>(), b1, b2});
        if (m_fnOnSend)
            m_fnOnSend(usPdu);
        return 0;
    }
};
