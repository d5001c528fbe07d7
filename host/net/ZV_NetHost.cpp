#include "ZV_NetHost.h"

#include <spdlog/spdlog.h>

namespace {

// "A few calls a second is plenty" for the managers' timers.
constexpr std::chrono::milliseconds kTimerPeriod{200};

}  // namespace

// ---------------------------------------------------------------------------
// ZV_NetLink and ZV_NetNode

uint32_t ZV_NetLink::ConnOn(int nChannel) const
{
    return m_alpConn[nChannel] ? m_alpConn[nChannel]->GetNumber() : zvConnNone;
}

uint32_t ZV_NetLink::GetConn(uint16_t usConnType)
{
    const int nChannel = ChannelOf(usConnType);
    return nChannel < 0 ? zvConnNone : ConnOn(nChannel);
}

int ZV_NetLink::ChannelOfConnection(const ZV_NetConnection* lpConn) const
{
    for (int nChannel : {zvHostCommand, zvHostData})
        if (lpConn && m_alpConn[nChannel].get() == lpConn)
            return nChannel;
    return -1;
}

ZV_NetNode::ZV_NetNode(ZV_NetHost* lpHost, uint32_t ulConfID, const QB_UserID& idLocal, bool bServer,
                       std::string sHome, ZV_HostUserTable users)
    : ZV_HostNode(ulConfID, idLocal, bServer, std::move(sHome)), m_lpHost(lpHost), m_users(std::move(users))
{
}

void ZV_NetNode::SetServer(uint32_t ulServerID, uint16_t usFileIDMin, uint16_t usFileIDMax)
{
    m_ulServerID = ulServerID;
    m_usFileIDMin = usFileIDMin;
    m_usFileIDMax = usFileIDMax;
}

// The module raises events from inside its calls; the user side may call
// back into the manager, so it hears of them once the call returned.
void ZV_NetNode::OnConfEvent(IZV_ConfHost*, uint16_t usEvent, uint32_t ulLen, const uint8_t* pData)
{
    if (!m_fnEvent)
        return;
    std::vector<uint8_t> vbData(pData, pData + (pData ? ulLen : 0));
    asio::post(m_lpHost->GetIo(), [fnEvent = m_fnEvent, usEvent, vbData = std::move(vbData)]() mutable {
        fnEvent(usEvent, std::move(vbData));
    });
}

std::vector<ZV_HostLink*> ZV_NetNode::Links() const
{
    return m_lpHost->LinksOf(*this);
}

uint32_t ZV_NetNode::Carry(const ZV_HostSend& send)
{
    return m_lpHost->Carry(*this, send);
}

uint32_t ZV_NetNode::Kick(const ZV_HostSend& send)
{
    return m_lpHost->Kick(*this, send);
}

uint32_t ZV_NetNode::NextFloodSeq()
{
    return m_lpHost->NextFloodSeq();
}

// ---------------------------------------------------------------------------
// ZV_NetHost

ZV_NetHost::ZV_NetHost(asio::io_context& io, const ZV_NetLimits& limits)
    : m_io(io), m_limits(limits), m_timer(io), m_hostTimer(kTimerPeriod.count())
{
}

std::shared_ptr<ZV_NetConnection> ZV_NetHost::MakeConnection(asio::ip::tcp::socket socket,
                                                             const ZV_NetSecurity& security)
{
    auto lpConn = std::make_shared<ZV_NetConnection>(std::move(socket), NewConnNumber(), this, m_limits, security);
    m_mapConnections[lpConn->GetNumber()] = lpConn;
    return lpConn;
}

size_t ZV_NetHost::GetQueuedBytes(uint32_t ulConn) const
{
    auto it = m_mapConnections.find(ulConn);
    auto lpConn = it == m_mapConnections.end() ? nullptr : it->second.lock();
    return lpConn ? lpConn->GetQueuedBytes() : 0;
}

// The three server routes carry the conference word at the front of the
// payload; on the wire it is the frame's own word, which the receiving
// host reads to find the conference, so it travels once. Every other frame
// names the sender's conference.
uint32_t ZV_NetHost::Carry(ZV_NetNode& node, const ZV_HostSend& send)
{
    ZV_NetLink& link = static_cast<ZV_NetLink&>(*send.lpLink);
    const std::shared_ptr<ZV_NetConnection>& lpConn = link.GetConnection(send.nChannel);
    ZV_NetFrameHead head;
    head.usPdu = send.usPdu;
    head.bFlag1 = send.bFlag1;
    head.bFlag2 = send.bFlag2;
    const uint8_t* pData = send.pData;
    uint32_t ulLen = send.ulLen;
    if (ZV_CarriesConfWord(send.eRoute))
    {
        if (ulLen < 2)
            return zvHostSendRefused;
        head.usConfWord = (uint16_t)(pData[0] | pData[1] << 8);
        pData += 2;
        ulLen -= 2;
    }
    else
        head.usConfWord = (uint16_t)node.GetConfID();
    head.ulLen = ulLen;
    if (!lpConn || !lpConn->Send(head, pData))
        return zvHostSendRefused;
    PumpOf(node, *lpConn, link, send.nChannel).pump.OnPdu();
    return 0;
}

uint32_t ZV_NetHost::Kick(ZV_NetNode& node, const ZV_HostSend& send)
{
    ZV_NetLink& link = static_cast<ZV_NetLink&>(*send.lpLink);
    const std::shared_ptr<ZV_NetConnection>& lpConn = link.GetConnection(send.nChannel);
    if (!lpConn || !lpConn->IsOpen())
        return zvHostSendRefused;
    if (PumpOf(node, *lpConn, link, send.nChannel).pump.OnKick(lpConn->IsFull()))
        Schedule({lpConn->GetNumber(), &node});
    return 0;
}

ZV_NetHost::Pump& ZV_NetHost::PumpOf(ZV_NetNode& node, ZV_NetConnection& conn, ZV_NetLink& link, int nChannel)
{
    Pump& pump = m_mapPumps[{conn.GetNumber(), &node}];
    if (pump.lpConn.expired())
    {
        pump.peer = link.GetPeer();
        pump.usConnType = link.GetConnType(nChannel);
        pump.lpConn = conn.shared_from_this();
    }
    return pump;
}

// Each OnSend call is a handler of its own, so that reads and the other
// links go on between two calls of one busy pump.
void ZV_NetHost::Schedule(const PumpKey& key)
{
    asio::post(m_io, [this, key] { RunOnSend(key); });
}

void ZV_NetHost::RunOnSend(const PumpKey& key)
{
    auto it = m_mapPumps.find(key);
    if (it == m_mapPumps.end())
        return;
    auto lpConn = it->second.lpConn.lock();
    if (!lpConn || !lpConn->IsOpen())
        return;
    const uint32_t nMark = it->second.pump.BeginCall();
    key.second->CallOnSend(it->second.peer, key.first, it->second.usConnType);
    // The call may have taken the connection and its pumps down.
    it = m_mapPumps.find(key);
    if (it == m_mapPumps.end() || !lpConn->IsOpen())
        return;
    if (it->second.pump.EndCall(nMark, lpConn->IsFull()))
        Schedule(key);
}

void ZV_NetHost::OnRoom(ZV_NetConnection& conn)
{
    for (auto it = m_mapPumps.lower_bound({conn.GetNumber(), nullptr});
         it != m_mapPumps.end() && it->first.first == conn.GetNumber(); ++it)
        if (it->second.pump.OnRoom(conn.IsFull()))
            Schedule(it->first);
}

void ZV_NetHost::Deliver(ZV_NetNode& node, ZV_NetLink& link, ZV_NetConnection& conn, const ZV_NetFrameHead& head,
                         const uint8_t* pData)
{
    const int nChannel = link.ChannelOfConnection(&conn);
    node.CallHandlePdu(link.GetPeer(), conn.GetNumber(), link.GetConnType(nChannel), head.usPdu, pData, head.ulLen);
}

void ZV_NetHost::LinkUp(const std::vector<ZV_NetNode*>& vecNodes, ZV_NetLink& link, int nChannel,
                        std::shared_ptr<ZV_NetConnection> lpConn)
{
    const uint32_t ulConn = lpConn->GetNumber();
    link.SetConnection(nChannel, std::move(lpConn));
    for (ZV_NetNode* lpNode : vecNodes)
        lpNode->CallLinkChange(true, link.GetPeer(), ulConn, link.GetConnType(nChannel));
}

// The module is told with the number it knew the connection by; what the
// connection still held is lost with it, as a dropped connection loses it.
void ZV_NetHost::LinkDown(const std::vector<ZV_NetNode*>& vecNodes, ZV_NetLink& link, int nChannel,
                          const std::string& sReason, bool bFlush)
{
    std::shared_ptr<ZV_NetConnection> lpConn = link.GetConnection(nChannel);
    if (!lpConn)
        return;
    const uint32_t ulConn = lpConn->GetNumber();
    link.SetConnection(nChannel, nullptr);
    std::erase_if(m_mapPumps, [ulConn](const auto& item) { return item.first.first == ulConn; });
    lpConn->Close(sReason, bFlush);
    for (ZV_NetNode* lpNode : vecNodes)
        lpNode->CallLinkChange(false, link.GetPeer(), ulConn, link.GetConnType(nChannel));
}

void ZV_NetHost::StartTimer(std::vector<ZV_NetNode*> vecNodes)
{
    m_vecTimed = std::move(vecNodes);
    m_tpStart = std::chrono::steady_clock::now();
    m_bTimerOn = true;
    m_timer.expires_after(kTimerPeriod);
    m_timer.async_wait([this](const asio::error_code& ec) {
        if (!ec)
            Tick();
    });
}

void ZV_NetHost::StopTimer()
{
    m_bTimerOn = false;
    m_timer.cancel();
}

void ZV_NetHost::Tick()
{
    if (!m_bTimerOn)
        return;
    const auto msElapsed =
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - m_tpStart);
    m_hostTimer.RunUntil((uint64_t)msElapsed.count(), [this](uint64_t, uint32_t ulTick) {
        for (ZV_NetNode* lpNode : m_vecTimed)
            lpNode->CallTimer(ulTick);
        return true;
    });
    OnTick();
    if (!m_bTimerOn)
        return;
    m_timer.expires_after(kTimerPeriod);
    m_timer.async_wait([this](const asio::error_code& ec) {
        if (!ec)
            Tick();
    });
}
