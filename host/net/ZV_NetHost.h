// ZV_NetHost: what the server and the client of the network host share.
// It numbers connections, carries the managers' sends as frames, runs the
// OnSend pump of each node on each data connection from the connection's
// room to write, and calls every manager's timer.
//
// One thread. Everything (reads, writes, timers, signals, and so every call
// into a manager) runs as a handler of one io_context, which the program
// runs on its main thread; ZV_HostNode stops the process if a second thread
// ever calls into a manager. A manager does its disk work inside those
// calls, so a slow disk slows every link of the process alike.
#pragma once

#include "ZV_HostPump.h"
#include "ZV_HostTimer.h"
#include "ZV_NetConnection.h"
#include "ZV_NetNode.h"

#include <asio.hpp>

#include <chrono>
#include <map>
#include <memory>
#include <utility>
#include <vector>

class ZV_NetHost : public ZV_NetConnectionOwner
{
public:
    explicit ZV_NetHost(asio::io_context& io, const ZV_NetLimits& limits);
    virtual ~ZV_NetHost() = default;
    ZV_NetHost(const ZV_NetHost&) = delete;
    ZV_NetHost& operator=(const ZV_NetHost&) = delete;

    asio::io_context& GetIo() { return m_io; }
    const ZV_NetLimits& GetLimits() const { return m_limits; }

    // What a node asks of its host.
    virtual std::vector<ZV_HostLink*> LinksOf(const ZV_NetNode& node) const = 0;
    uint32_t Carry(ZV_NetNode& node, const ZV_HostSend& send);
    uint32_t Kick(ZV_NetNode& node, const ZV_HostSend& send);
    virtual uint32_t NextFloodSeq() = 0;

    // The bytes queued on a connection and not yet taken by the kernel.
    size_t GetQueuedBytes(uint32_t ulConn) const;

protected:
    uint32_t NewConnNumber() { return ++m_ulLastConn; }
    // A connection that opens with the security given: the accepting
    // side's, or the dialling side's.
    std::shared_ptr<ZV_NetConnection> MakeConnection(asio::ip::tcp::socket socket, const ZV_NetSecurity& security);
    // Calls every node's timer a few times a second from now on.
    void StartTimer(std::vector<ZV_NetNode*> vecNodes);
    void StopTimer();
    // The host's own work on each timer call, after the nodes'.
    virtual void OnTick() {}

    // A frame for a node from the peer of a link, as its manager sees it.
    void Deliver(ZV_NetNode& node, ZV_NetLink& link, ZV_NetConnection& conn, const ZV_NetFrameHead& head,
                 const uint8_t* pData);
    // The module of each node hears of a connection of the link coming or
    // going; the link takes it or gives it up at the same moment.
    void LinkUp(const std::vector<ZV_NetNode*>& vecNodes, ZV_NetLink& link, int nChannel,
                std::shared_ptr<ZV_NetConnection> lpConn);
    // bFlush lets what is queued go out before the connection closes.
    void LinkDown(const std::vector<ZV_NetNode*>& vecNodes, ZV_NetLink& link, int nChannel,
                  const std::string& sReason, bool bFlush = false);
    // The connections of this process, by number, while they live.
    std::map<uint32_t, std::weak_ptr<ZV_NetConnection>> m_mapConnections;

    void OnRoom(ZV_NetConnection& conn) override;

private:
    struct Pump
    {
        ZV_HostPump pump;
        QB_UserID peer;
        uint16_t usConnType = 0;
        std::weak_ptr<ZV_NetConnection> lpConn;
    };
    using PumpKey = std::pair<uint32_t, ZV_NetNode*>;

    Pump& PumpOf(ZV_NetNode& node, ZV_NetConnection& conn, ZV_NetLink& link, int nChannel);
    void Schedule(const PumpKey& key);
    void RunOnSend(const PumpKey& key);
    void Tick();

    asio::io_context& m_io;
    ZV_NetLimits m_limits;
    uint32_t m_ulLastConn = 0;
    std::map<PumpKey, Pump> m_mapPumps;
    asio::steady_timer m_timer;
    ZV_HostTimer m_hostTimer;
    std::chrono::steady_clock::time_point m_tpStart;
    std::vector<ZV_NetNode*> m_vecTimed;
    bool m_bTimerOn = false;
};
