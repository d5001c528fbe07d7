// ZV_RandomScenario: a seeded random conference through the simulator
// (servers in a line, clients on each, random steps each followed by some
// delivery); then everything comes back and settles, and downloads,
// catalogues, deletes, writes, idle clients, wire flags and what each user
// side was told are checked (each check says what it allows). A seed and a
// step count give one run; few FileIDs make numbers run out and come back.
#pragma once

#include "ZV_SimConference.h"

#include <cstdint>
#include <memory>
#include <random>
#include <set>
#include <functional>
#include <map>
#include <string>
#include <vector>

struct ZV_RandomOptions
{
    uint32_t ulSeed = 1;
    int nSteps = 60;
    // Folder the run works in; it must exist and be empty.
    std::string sRoot;
    // Keep the whole journal, and report all of it and every step.
    bool bWholeJournal = false;
    // A handful of FileIDs per server instead of a thousand.
    bool bSmallFileIDs = false;
    // Draws a number below its bound in place of the seeded generator (a
    // fuzzer's input); such a run also sends hostile PDUs and fails the disk.
    std::function<uint32_t(uint32_t)> fnDraw;
};

struct ZV_RandomReport
{
    uint32_t ulSeed = 0;
    int nSteps = 0;
    bool bSmallFileIDs = false;
    std::vector<std::string> vecProblems;
    // The steps as taken, one a line, and the last of the journal.
    std::string sSteps;
    std::string sJournalTail;

    bool Passed() const { return vecProblems.empty(); }
    // The seed, the problems, the replay command, last steps, journal tail.
    std::string Describe() const;
};

class ZV_RandomScenario
{
public:
    explicit ZV_RandomScenario(ZV_RandomOptions options);
    ~ZV_RandomScenario();

    ZV_RandomReport Run();

private:
    struct Client;
    struct Deleted;

    bool Build();
    void TakeStep();
    void Deliver();
    void Settle();
    void Note(const std::string& sStep) { m_vecSteps.push_back(sStep); }
    void Problem(const std::string& s) { if (m_vecProblems.size() < 20) m_vecProblems.push_back(s); }
    // A simulator call that failed is a problem, with the simulator's reason.
    void Expect(bool bDone, const std::string& s) { if (!bDone) Problem(s + ": " + m_lpSim->GetError()); }

    void StepShare();
    void StepShareBatch();
    void StepUpload(Client& client, uint16_t usFileID);
    void StepDownload(Client& client, uint16_t usFileID);
    void StepStopOrResume(bool bUpload, Client& client, uint16_t usFileID);
    void StepRights(Client& client, uint16_t usFileID);
    void StepDelete(Client& client, uint16_t usFileID);
    void StepDropDownload(Client& client, uint16_t usFileID);
    void StepCutOrRestore();
    void StepLeaveOrRejoin();
    void StepRestartServer();
    void StepRestartClient();
    void StepRole();
    void StepTime();
    void StepHostilePdu();
    void StepFileFault();

    void CheckDownloads();
    void CheckCatalogues();
    void CheckDeletes();
    void CheckWrites();
    void CheckIdle();
    bool IsWaitingForAnUpload(const Client& client, uint16_t usFileID);
    void CheckFlags();
    void CheckViews();

    Client& AnyClient();
    enum class Whose { Any, Own, MostlyOwn };
    void WithFile(Whose eWhose, const std::function<void(Client&, uint16_t)>& fnStep);
    std::string MakeSource(const Client& client);
    std::vector<QB_UserID> SomeUsers();
    std::vector<ZV_SimLink*> ServerLinks() const;
    const std::string* FindShare(const std::string& sName) const;
    // FileIDs of server n run from FileIDsPerServer() * (n - 1) + 1.
    uint16_t FileIDsPerServer() const { return m_options.bSmallFileIDs ? 3 : 1000; }
    uint32_t Random(uint32_t ulBelow);
    bool Chance(uint32_t ulPercent) { return Random(100) < ulPercent; }

    ZV_RandomOptions m_options;
    std::mt19937 m_rng;
    std::unique_ptr<ZV_SimConference> m_lpSim;
    int m_nServers = 0;
    std::vector<ZV_SimHost*> m_vecServers;
    std::vector<std::unique_ptr<Client>> m_vecClients;
    // The source of each file shared, by its name, unique in the run.
    std::map<std::string, std::string> m_mapShares;
    std::vector<Deleted> m_vecDeleted;
    int m_nNextShare = 0;
    int m_nNextTarget = 0;
    // Every delete before this index may come back: a server that forgot
    // it restarted while a linked server was still cut off.
    size_t m_nDeletesMayReturn = 0;
    std::vector<std::string> m_vecSteps;
    std::vector<std::string> m_vecProblems;
};
