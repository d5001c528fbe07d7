// ZV_SimConference: a deterministic, single-threaded conference system in one
// process, the reference host of the file-sharing module. It holds server
// and client machines, one or more conferences on them, the links between
// them, a simulated millisecond clock, and a journal of everything the
// modules sent and raised. Each node (one manager) is a ZV_SimHost.
//
// Nothing moves by itself: a test changes the conference (a user joins, a
// link drops), then Run() delivers until nothing is left to deliver, and
// AdvanceTime() lets the clock and the managers' timers go on.
//
//     QB_TempFolder tmp;
//     ZV_SimOptions options;
//     options.sRoot = tmp.Path();
//     ZV_SimConference sim(ZV_SimModuleApi::Linked(), options);
//     ZV_SimShape shape = ZV_SimBuilder::OneServerTwoClients(sim);
//     ASSERT_TRUE(sim.Run()) << sim.GetError();
//     auto vecLists = sim.Journal().Pdus(PDU_CONF_GET_UPLOAD_SESSION_LIST_RESPONSE, shape.Server()->GetName());
#pragma once

#include "QB_FaultEnv.h"
#include "ZV_HostTimer.h"
#include "ZV_SimHost.h"
#include "ZV_SimJournal.h"
#include "ZV_SimModuleApi.h"
#include "ZV_SimNetwork.h"
#include "ZV_SimUserTable.h"

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

class ZV_SimMachine;

struct ZV_SimOptions
{
    // Host form. Each node gets a folder below it, named as the node. Empty:
    // nodes run with ROOMCRATE_HOME unset.
    std::string sRoot;
    uint32_t ulStartTick = 1000000;
    // The wall clock at the start, in seconds since 1970, UTC; it moves with
    // the simulated time, so that the times files are shared at, and all
    // that compares them, are the same in every run of a conference.
    int64_t llStartTime = 1764115200;
    // The host calls OnTimer on every node this often; 0 never.
    uint32_t ulTimerPeriod = 100;
    // PDUs one node may have queued and undelivered on one connection before
    // the host stops calling OnSend for it.
    uint32_t nInFlightBound = 8;
    // Steps one Run may take before it calls the conference stuck.
    size_t nStepLimit = 1000000;
    // Bytes of each PDU's or event's payload the journal keeps. Tests look
    // at whole payloads; a long transfer would otherwise hold every block.
    size_t nJournalPayloadBytes = SIZE_MAX;
    // Entries the journal keeps; beyond it the oldest are forgotten.
    size_t nJournalEntries = SIZE_MAX;
};

class ZV_SimConference
{
public:
    explicit ZV_SimConference(ZV_SimModuleApi api, ZV_SimOptions options = {});
    ZV_SimConference(const ZV_SimConference&) = delete;
    ZV_SimConference& operator=(const ZV_SimConference&) = delete;
    // Destroys every manager, then stops the module.
    ~ZV_SimConference();

    // --- Building. Each gives null (or false) and sets GetError on refusal.

    // A server machine's range of FileIDs; takes effect for managers made
    // after it. The default is 1000 numbers a server: 1-1000 for server 1.
    void SetFileIDRange(uint32_t ulServerID, uint16_t usMin, uint16_t usMax);
    // The node of conference ulConfID on server machine ulServerID, which is
    // made on first use. If the machine already has server links to
    // machines of that conference, the new node and its peers hear of them.
    ZV_SimHost* AddServer(uint32_t ulConfID, uint32_t ulServerID);
    // The user's client joins the conference at its home server, which must
    // have a node there: the user enters the table, the client link comes
    // up (command, then data), and event 21 goes to the conference's servers.
    ZV_SimHost* AddClient(uint32_t ulConfID, const ZV_SimUser& user);
    // Links two server machines, which announces event 11 to both ends of
    // every conference they share.
    ZV_SimLink* LinkServers(uint32_t ulServerA, uint32_t ulServerB);

    // --- Comings and goings.

    // The client's link goes down, event 4 goes to the conference's servers,
    // and the user leaves the table. The node and its manager stay.
    bool Leave(ZV_SimHost* lpClient);
    // The user comes back as at AddClient; bReturning sets the flag word's
    // returning bit.
    bool Rejoin(ZV_SimHost* lpClient, bool bReturning);
    // One connection of a link, by its type (0 or 4 on a client link, 0x1000
    // or 0x1004 on a server link). A cut loses what the connection carried.
    // Restoring a server link's command connection raises event 11 as well.
    bool Cut(ZV_SimLink* lpLink, uint16_t usConnType);
    bool Restore(ZV_SimLink* lpLink, uint16_t usConnType);
    // Both connections: data, then command down; command, then data up.
    bool CutLink(ZV_SimLink* lpLink);
    bool RestoreLink(ZV_SimLink* lpLink);
    // The server node's manager is destroyed and made anew on the same home
    // folder, its store and catalogue as they are on disk; its links go
    // down meanwhile and those that were up come back, with event 11 on
    // server links and event 21 for each client that is still in the
    // conference.
    bool RestartServer(ZV_SimHost* lpServer);
    // The client's user leaves, its manager is destroyed and made anew on
    // the same home folder, and the user rejoins.
    bool RestartClient(ZV_SimHost* lpClient);
    // Changes the user's role and tells the user's client with event 14:
    // a1 is 1 when the privileged role comes, 0 when it goes.
    bool SetUserRole(ZV_SimHost* lpClient, uint16_t usRole);
    // Event 14 for the client's own user, as when others' rights change.
    bool RaiseRightChange(ZV_SimHost* lpClient, bool bMoreVisible);
    // Any host event, as it stands, to one node.
    uint32_t RaiseHostEvent(ZV_SimHost* lpNode, uint16_t usEvent, uintptr_t a1, uintptr_t a2);

    // --- Look-ups.

    ZV_SimHost* FindServer(uint32_t ulConfID, uint32_t ulServerID) const;
    ZV_SimHost* FindClient(uint32_t ulConfID, const QB_UserID& id) const;
    ZV_SimMachine* FindMachine(uint32_t ulServerID) const;
    ZV_SimLink* GetClientLink(const ZV_SimHost* lpClient) const;
    ZV_SimLink* GetServerLink(uint32_t ulServerA, uint32_t ulServerB) const;
    // Every node in the order of making.
    std::vector<ZV_SimHost*> GetNodes() const;
    ZV_SimUserTable& GetUsers(uint32_t ulConfID) { return m_mapUsers[ulConfID]; }

    // --- Running.

    // Delivers until nothing is queued. False when the step limit is hit
    // first; GetError then says so and shows the last of the journal.
    bool Run();
    // One delivery or OnSend call; false when nothing was queued.
    bool Step();
    size_t GetPending() const { return m_network.GetPending(); }
    // Runs, then moves the clock on by ulMs, calling OnTimer on every node
    // at each timer period on the way and running after each round.
    bool AdvanceTime(uint32_t ulMs);
    uint32_t GetTick() const;

    // A fresh sequence for any server of any conference; never 0.
    uint32_t NewFloodSeq();

    ZV_SimJournal& Journal() { return m_journal; }
    ZV_SimNetwork& GetNetwork() { return m_network; }
    // The environment the managers run in; tests may arm its faults.
    QB_FaultEnv& GetEnv() { return m_env; }
    const std::string& GetError() const { return m_sError; }

private:
    ZV_SimMachine* MakeMachine(const std::string& sName, const QB_UserID& id, bool bServer);
    ZV_SimHost* MakeNode(ZV_SimMachine* lpMachine, uint32_t ulConfID, const ZV_SimUser* lpUser);
    std::string MakeHome(const std::string& sNode, bool bServer) const;
    void AnnounceServerLinks(ZV_SimHost* lpNode);
    void Join(ZV_SimHost* lpClient);
    void RaiseUserEvent(uint32_t ulConfID, uint16_t usEvent, const ZV_SimHost* lpClient);
    void RaiseServerLink(ZV_SimLink* lpLink, const std::vector<ZV_SimHost*>& vecNodes);
    std::vector<ZV_SimHost*> ServersOf(uint32_t ulConfID, uint32_t ulHomeFirst) const;
    void SetElapsed(uint64_t ullElapsed);
    bool Fail(const std::string& sError);
    ZV_SimHost* FailNode(const std::string& sError);

    ZV_SimOptions m_options;
    QB_FaultEnv m_env;
    QB_ScopedEnv m_envInstalled;
    ZV_SimModuleApi m_api;
    ZV_SimJournal m_journal;
    ZV_SimNetwork m_network;
    std::map<uint32_t, ZV_SimUserTable> m_mapUsers;
    std::vector<std::unique_ptr<ZV_SimMachine>> m_vecMachines;
    std::vector<std::unique_ptr<ZV_SimHost>> m_vecNodes;
    uint64_t m_ullElapsed = 0;
    ZV_HostTimer m_timer;
    uint32_t m_ulLastFloodSeq = 0;
    std::string m_sError;
};
