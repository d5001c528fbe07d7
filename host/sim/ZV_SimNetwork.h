// ZV_SimNetwork: the links of a simulation and everything in flight on them.
// It queues what the modules send, delivers it in the order it was sent,
// turns a kick into OnSend calls, and loses what a connection carried when
// the connection goes down.
//
// One queue holds both deliveries and OnSend calls, first in first out, so
// a run depends on nothing but the order of the calls that made it.
#pragma once

#include "ZV_SimJournal.h"
#include "ZV_HostPump.h"
#include "ZV_SimLink.h"

#include <deque>
#include <map>
#include <memory>
#include <tuple>
#include <vector>

class ZV_SimHost;
class ZV_SimMachine;

// One PDU as a send operation of the host hands it over.
struct ZV_SimSend
{
    ZV_SimHost* lpFrom = nullptr;
    ZV_SimRoute eRoute = ZV_SimRoute::Pdu;
    ZV_SimLinkEnd end;           // none when the host found no connection
    int nChannel = zvSimCommand;
    uint32_t ulConn = zvConnNone;  // as the sender named it
    uint16_t usConnType = 0;
    uint16_t usPdu = 0;
    const uint8_t* pData = nullptr;
    uint32_t ulLen = 0;
    uint8_t bFlag1 = 0;
    uint8_t bFlag2 = 0;
};

constexpr uint32_t zvSimSendRefused = zvHostSendRefused;
constexpr uint32_t zvSimMaxPayload = zvHostMaxPayload;

class ZV_SimNetwork
{
public:
    ZV_SimNetwork(ZV_SimJournal* lpJournal, uint32_t nInFlightBound);
    ZV_SimNetwork(const ZV_SimNetwork&) = delete;
    ZV_SimNetwork& operator=(const ZV_SimNetwork&) = delete;

    // ulConfID 0 makes a server link. The new link is down.
    ZV_SimLink* AddLink(ZV_SimMachine* lpA, ZV_SimMachine* lpB, uint32_t ulConfID);
    ZV_SimLink* FindServerLink(const ZV_SimMachine* lpA, const ZV_SimMachine* lpB) const;
    ZV_SimLink* FindClientLink(const ZV_SimMachine* lpClient) const;
    // The links a node's module may use: the client links of its conference
    // at its machine, and its machine's server links towards machines that
    // host its conference too.
    std::vector<ZV_SimLinkEnd> LinksOf(const ZV_SimHost* lpNode) const;
    // The nodes a link serves at one end.
    std::vector<ZV_SimHost*> NodesAt(const ZV_SimLink* lpLink, int nSide) const;
    // Those of side 0, then those of side 1.
    std::vector<ZV_SimHost*> NodesOn(const ZV_SimLink* lpLink) const;

    // Brings the connection up and calls OnConnect on every node it serves,
    // side 0 first. False if it was up already.
    bool Open(ZV_SimLink* lpLink, int nChannel);
    // Loses what the connection carries, takes it down, and calls
    // OnDisconnect on every node it served. False if it was down.
    bool Close(ZV_SimLink* lpLink, int nChannel);
    // OnConnect for a connection that is up already, to these nodes only:
    // for a conference that starts on machines whose link stands.
    void Announce(ZV_SimLink* lpLink, int nChannel, const std::vector<ZV_SimHost*>& vecNodes);

    // 0 when the PDU is on its way (or, for a kick, taken); else the send is
    // refused and journaled as such.
    uint32_t Send(const ZV_SimSend& send);
    uint32_t Refuse(const ZV_SimSend& send);

    // Carries out the next queued delivery or OnSend call; false when none.
    bool Step();
    size_t GetPending() const { return m_queue.size(); }

private:
    struct Task
    {
        bool bOnSend = false;
        ZV_SimHost* lpFrom = nullptr;
        ZV_SimLink* lpLink = nullptr;
        int nChannel = 0;
        int nFromSide = 0;
        size_t nEntry = 0;
        uint16_t usPdu = 0;
        bool bConfWord = false;
        std::vector<uint8_t> vbData;
        size_t nSkip = 0;  // leading bytes the receiving host took off
    };

    // What the host does about OnSend for one node on one connection, and
    // the PDUs that node has in flight there.
    struct Pump
    {
        ZV_HostPump pump;
        uint32_t nInFlight = 0;
    };
    using PumpKey = std::tuple<uint32_t, uint32_t, int>;

    ZV_SimEntry MakeEntry(const ZV_SimSend& send) const;
    std::string ReceiverName(const ZV_SimSend& send) const;
    uint32_t Kick(const ZV_SimSend& send, ZV_SimEntry entry);
    Pump& PumpOf(const ZV_SimHost* lpNode, const ZV_SimLink* lpLink, int nChannel);
    void Schedule(ZV_SimHost* lpNode, ZV_SimLink* lpLink, int nChannel, int nSide);
    bool IsFull(const Pump& pump) const { return pump.nInFlight >= m_nInFlightBound; }
    void RunOnSend(const Task& task);
    void Deliver(Task& task);
    ZV_SimHost* FindReceiver(Task& task, ZV_SimFate* lpeFate) const;
    void LoseInFlight(const ZV_SimLink* lpLink, int nChannel);
    void Notify(ZV_SimLink* lpLink, int nChannel, bool bUp, const uint32_t aulConn[2],
                const std::vector<ZV_SimHost*>& vecNodes);

    ZV_SimJournal* m_lpJournal;
    uint32_t m_nInFlightBound;
    std::vector<std::unique_ptr<ZV_SimLink>> m_vecLinks;
    std::deque<Task> m_queue;
    std::map<PumpKey, Pump> m_mapPumps;
};
