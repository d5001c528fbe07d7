#include "ZV_SimJournal.h"

#include <algorithm>
#include <cstdio>
#include <stdexcept>

namespace {

// Enough of a payload to recognise it in a trace; block PDUs carry 32 KB.
constexpr size_t kTraceBytes = 24;

// ":" and the first bytes of the payload; nothing for an empty one.
std::string Hex(const ZV_SimEntry& e)
{
    if (e.vbData.empty())
        return {};
    std::string sOut = ":";
    char szByte[4];
    for (size_t i = 0; i < e.vbData.size() && i < kTraceBytes; ++i)
    {
        std::snprintf(szByte, sizeof szByte, " %02x", e.vbData[i]);
        sOut += szByte;
    }
    if (e.nDataLen > kTraceBytes)
        sOut += " ...";
    return sOut;
}

std::string FormatPdu(const ZV_SimEntry& e)
{
    char szLine[256];
    std::snprintf(szLine, sizeof szLine, "pdu %u %s -> %s %s conn %u/%u flags %u,%u len %zu %s", e.usNumber,
                  e.sNode.c_str(), e.sPeer.empty() ? "?" : e.sPeer.c_str(), ZV_SimRouteName(e.eRoute), e.ulConn,
                  e.usConnType, e.bFlag1, e.bFlag2, e.nDataLen, ZV_SimFateName(e.eFate));
    std::string sLine = szLine;
    if (e.eFate == ZV_SimFate::Delivered)
        sLine += " result " + std::to_string(e.ulResult);
    return sLine + Hex(e);
}

std::string FormatEvent(const ZV_SimEntry& e)
{
    char szLine[128];
    std::snprintf(szLine, sizeof szLine, "event %u %s len %zu", e.usNumber, e.sNode.c_str(), e.nDataLen);
    return szLine + Hex(e);
}

std::string FormatCall(const ZV_SimEntry& e)
{
    char szLine[192];
    if (e.eCall == ZV_SimCall::OnEvent)
        std::snprintf(szLine, sizeof szLine, "call OnEvent %u %s a1 %u a2 %s", e.usNumber, e.sNode.c_str(), e.ulArg,
                      e.sPeer.empty() ? std::to_string(e.ulConn).c_str() : e.sPeer.c_str());
    else
        std::snprintf(szLine, sizeof szLine, "call %s %s peer %s conn %u/%u", ZV_SimCallName(e.eCall),
                      e.sNode.c_str(), e.sPeer.c_str(), e.ulConn, e.usConnType);
    return szLine;
}

}  // namespace

const char* ZV_SimRouteName(ZV_SimRoute eRoute)
{
    switch (eRoute)
    {
    case ZV_SimRoute::Pdu: return "pdu";
    case ZV_SimRoute::Group: return "group";
    case ZV_SimRoute::Servers: return "servers";
    case ZV_SimRoute::ServerData: return "server-data";
    case ZV_SimRoute::OnLink: return "on-link";
    }
    return "?";
}

const char* ZV_SimFateName(ZV_SimFate eFate)
{
    switch (eFate)
    {
    case ZV_SimFate::Queued: return "queued";
    case ZV_SimFate::Delivered: return "delivered";
    case ZV_SimFate::Lost: return "lost";
    case ZV_SimFate::Kick: return "kick";
    case ZV_SimFate::Refused: return "refused";
    case ZV_SimFate::NoConfWord: return "dropped-no-conference-word";
    case ZV_SimFate::UnknownConf: return "dropped-unknown-conference";
    }
    return "?";
}

const char* ZV_SimCallName(ZV_SimCall eCall)
{
    switch (eCall)
    {
    case ZV_SimCall::OnConnect: return "OnConnect";
    case ZV_SimCall::OnDisconnect: return "OnDisconnect";
    case ZV_SimCall::OnSend: return "OnSend";
    case ZV_SimCall::OnEvent: return "OnEvent";
    }
    return "?";
}

bool ZV_SimFilter::Matches(const ZV_SimEntry& e) const
{
    return (!eKind || *eKind == e.eKind) && (!usNumber || *usNumber == e.usNumber) &&
           (sNode.empty() || sNode == e.sNode) && (sPeer.empty() || sPeer == e.sPeer) &&
           (!eRoute || (e.eKind == ZV_SimEntryKind::Pdu && *eRoute == e.eRoute)) &&
           (!eFate || (e.eKind == ZV_SimEntryKind::Pdu && *eFate == e.eFate)) &&
           (!eCall || (e.eKind == ZV_SimEntryKind::Call && *eCall == e.eCall));
}

size_t ZV_SimJournal::Add(ZV_SimEntry entry)
{
    entry.ulTick = m_ulTick;
    entry.nDataLen = std::max(entry.nDataLen, entry.vbData.size());
    if (entry.vbData.size() > m_nPayloadLimit)
    {
        entry.vbData.resize(m_nPayloadLimit);
        entry.vbData.shrink_to_fit();
    }
    m_entries.push_back(std::move(entry));
    SetEntryLimit(m_nEntryLimit);
    return Size() - 1;
}

void ZV_SimJournal::SetEntryLimit(size_t nEntries)
{
    m_nEntryLimit = nEntries;
    for (; m_entries.size() > m_nEntryLimit; ++m_nForgotten)
        m_entries.pop_front();
}

ZV_SimEntry* ZV_SimJournal::Kept(size_t nEntry)
{
    return nEntry >= m_nForgotten && nEntry < Size() ? &m_entries[nEntry - m_nForgotten] : nullptr;
}

const ZV_SimEntry& ZV_SimJournal::At(size_t nEntry) const
{
    if (nEntry < m_nForgotten)
        throw std::out_of_range("journal entry " + std::to_string(nEntry) + " is no longer kept");
    return m_entries.at(nEntry - m_nForgotten);
}

// The fate of a PDU may come after its entry was forgotten; it is dropped
// with it.
void ZV_SimJournal::SetFate(size_t nEntry, ZV_SimFate eFate)
{
    if (ZV_SimEntry* lpEntry = Kept(nEntry))
        lpEntry->eFate = eFate;
}

void ZV_SimJournal::SetDelivered(size_t nEntry, const std::string& sReceiver)
{
    if (ZV_SimEntry* lpEntry = Kept(nEntry))
    {
        lpEntry->eFate = ZV_SimFate::Delivered;
        lpEntry->sPeer = sReceiver;
    }
}

void ZV_SimJournal::SetResult(size_t nEntry, uint32_t ulResult)
{
    if (ZV_SimEntry* lpEntry = Kept(nEntry))
        lpEntry->ulResult = ulResult;
}

std::vector<ZV_SimEntry> ZV_SimJournal::Find(const ZV_SimFilter& filter) const
{
    std::vector<ZV_SimEntry> vecFound;
    for (size_t i = std::max(filter.nFrom, m_nForgotten); i < Size(); ++i)
        if (filter.Matches(m_entries[i - m_nForgotten]))
            vecFound.push_back(m_entries[i - m_nForgotten]);
    return vecFound;
}

std::vector<ZV_SimEntry> ZV_SimJournal::Pdus(uint16_t usPdu, std::string_view sFrom) const
{
    ZV_SimFilter filter;
    filter.eKind = ZV_SimEntryKind::Pdu;
    filter.usNumber = usPdu;
    filter.sNode = sFrom;
    return Find(filter);
}

std::vector<ZV_SimEntry> ZV_SimJournal::PdusTo(uint16_t usPdu, std::string_view sTo) const
{
    ZV_SimFilter filter;
    filter.eKind = ZV_SimEntryKind::Pdu;
    filter.usNumber = usPdu;
    filter.sPeer = sTo;
    return Find(filter);
}

std::vector<ZV_SimEntry> ZV_SimJournal::Events(uint16_t usEvent, std::string_view sNode) const
{
    ZV_SimFilter filter;
    filter.eKind = ZV_SimEntryKind::Event;
    filter.usNumber = usEvent;
    filter.sNode = sNode;
    return Find(filter);
}

std::vector<ZV_SimEntry> ZV_SimJournal::Calls(ZV_SimCall eCall, std::string_view sNode) const
{
    ZV_SimFilter filter;
    filter.eKind = ZV_SimEntryKind::Call;
    filter.eCall = eCall;
    filter.sNode = sNode;
    return Find(filter);
}

std::string ZV_SimJournal::Dump(size_t nFrom) const
{
    std::string sOut;
    for (size_t i = std::max(nFrom, m_nForgotten); i < Size(); ++i)
        sOut += Format(i, m_entries[i - m_nForgotten]) + "\n";
    return sOut;
}

std::string ZV_SimJournal::Format(size_t nEntry, const ZV_SimEntry& e)
{
    std::string sHead = std::to_string(nEntry) + " t=" + std::to_string(e.ulTick) + " ";
    switch (e.eKind)
    {
    case ZV_SimEntryKind::Pdu: return sHead + FormatPdu(e);
    case ZV_SimEntryKind::Event: return sHead + FormatEvent(e);
    case ZV_SimEntryKind::Call: return sHead + FormatCall(e);
    }
    return sHead;
}
