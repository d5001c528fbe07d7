// ZV_SimJournal: what happened in a simulated conference, in order. Every
// PDU a module sent (and what became of it), every event a module raised to
// its user side, and every call the host made into a module apart from
// HandlePdu, which the PDU's own entry stands for, and OnTimer, which comes
// too often to be worth a line.
//
// Entries are only ever added; a test that wants "what happened since"
// notes Size() and passes it as the filter's nFrom. A journal told to keep
// only its newest entries forgets the oldest, but every entry keeps the
// index it was given.
#pragma once

#include "ZV_HostNode.h"

#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

enum class ZV_SimEntryKind
{
    Pdu,
    Event,  // raised by a module to its user side
    Call,   // a call of the host into a module
};

// The host operation a PDU was sent with.
using ZV_SimRoute = ZV_HostRoute;

enum class ZV_SimFate
{
    Queued,       // sent, not yet delivered
    Delivered,    // handed to the receiver's HandlePdu
    Lost,         // its connection went down first
    Kick,         // PDU 257 on a data connection: taken by the host, not delivered
    Refused,      // the send was refused: no such connection, or a bad payload
    NoConfWord,   // came over a server link without the conference word
    UnknownConf,  // its conference word names no conference of the receiver
};

enum class ZV_SimCall
{
    OnConnect,
    OnDisconnect,
    OnSend,
    OnEvent,
};

struct ZV_SimEntry
{
    ZV_SimEntryKind eKind = ZV_SimEntryKind::Pdu;
    uint32_t ulTick = 0;
    std::string sNode;  // sender of a PDU; node of an event or a call
    std::string sPeer;  // receiver of a PDU; the peer or user of a call
    // PDU number, user-side event number, or host event number.
    uint16_t usNumber = 0;
    ZV_SimRoute eRoute = ZV_SimRoute::Pdu;
    ZV_SimFate eFate = ZV_SimFate::Queued;
    ZV_SimCall eCall = ZV_SimCall::OnConnect;
    uint32_t ulConn = 0xFFFFFFFFu;  // as the sender or the called node numbers it
    uint16_t usConnType = 0;
    uint8_t bFlag1 = 0;
    uint8_t bFlag2 = 0;
    uint32_t ulArg = 0;     // a1 of a host event
    uint32_t ulResult = 0;  // what the receiver's HandlePdu gave
    std::vector<uint8_t> vbData;  // a PDU as sent, conference word and all
    // The payload's whole length; vbData may hold only its first bytes
    // (ZV_SimJournal::SetPayloadLimit).
    size_t nDataLen = 0;
};

// Unset fields match anything.
struct ZV_SimFilter
{
    std::optional<ZV_SimEntryKind> eKind;
    std::optional<uint16_t> usNumber;
    std::string sNode;
    std::string sPeer;
    std::optional<ZV_SimRoute> eRoute;
    std::optional<ZV_SimFate> eFate;
    std::optional<ZV_SimCall> eCall;
    size_t nFrom = 0;  // index of the first entry looked at

    bool Matches(const ZV_SimEntry& entry) const;
};

class ZV_SimJournal
{
public:
    // The tick that new entries are stamped with.
    void SetTick(uint32_t ulTick) { m_ulTick = ulTick; }
    // New entries keep at most this many bytes of their payload.
    void SetPayloadLimit(size_t nBytes) { m_nPayloadLimit = nBytes; }
    size_t GetPayloadLimit() const { return m_nPayloadLimit; }
    // At most this many entries are kept; the oldest go first.
    void SetEntryLimit(size_t nEntries);

    // Each gives the index of the new entry.
    size_t Add(ZV_SimEntry entry);
    void SetFate(size_t nEntry, ZV_SimFate eFate);
    void SetDelivered(size_t nEntry, const std::string& sReceiver);
    void SetResult(size_t nEntry, uint32_t ulResult);

    // Entries ever added, the forgotten ones included.
    size_t Size() const { return m_nForgotten + m_entries.size(); }
    // Throws std::out_of_range for an entry not kept.
    const ZV_SimEntry& At(size_t nEntry) const;

    std::vector<ZV_SimEntry> Find(const ZV_SimFilter& filter) const;
    // PDUs of that number, from that node if one is named.
    std::vector<ZV_SimEntry> Pdus(uint16_t usPdu, std::string_view sFrom = {}) const;
    std::vector<ZV_SimEntry> PdusTo(uint16_t usPdu, std::string_view sTo) const;
    // User-side events of that number, of that node if one is named.
    std::vector<ZV_SimEntry> Events(uint16_t usEvent, std::string_view sNode = {}) const;
    std::vector<ZV_SimEntry> Calls(ZV_SimCall eCall, std::string_view sNode = {}) const;

    // One line per entry from nFrom on.
    std::string Dump(size_t nFrom = 0) const;
    static std::string Format(size_t nEntry, const ZV_SimEntry& entry);

private:
    uint32_t m_ulTick = 0;
    size_t m_nPayloadLimit = SIZE_MAX;
    size_t m_nEntryLimit = SIZE_MAX;
    size_t m_nForgotten = 0;  // index of the oldest entry kept
    std::deque<ZV_SimEntry> m_entries;

    // Null for an entry forgotten or not yet made.
    ZV_SimEntry* Kept(size_t nEntry);
};

const char* ZV_SimRouteName(ZV_SimRoute eRoute);
const char* ZV_SimFateName(ZV_SimFate eFate);
const char* ZV_SimCallName(ZV_SimCall eCall);
