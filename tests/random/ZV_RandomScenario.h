// ZV_RandomScenario: a seeded random run of a whole conference through the
// simulator. Servers in a line, clients on each; a number of random steps
// (shares, downloads, stops and resumes, rights changes, deletes, link cuts
// and restores, users who leave and come back, servers and clients that
// restart, the clock moving on), each followed by some delivery. Then every
// link comes back, everyone returns, stopped transfers resume and the
// conference settles, and the run is checked against what holds for any
// correct run:
//
// - every finished download holds the bytes of the file it was made from;
// - every catalogue row names a stored file no longer than the file, of the
//   file's length and bytes once the row says it is complete;
// - a file deleted by its creator is held by no node and comes back nowhere;
// - nothing was written outside a storage folder or a path a user asked to
//   download to;
// - no client is left busy, but a downloader of a file whose upload never
//   began and that was deleted, or that its creator's server dropped;
// - every user side was told only of files its user may have, and once the
//   conference has settled what it was told is what its server holds for
//   that user (ZV_UserView).
//
// The same seed and step count give the same run. With small FileID
// ranges a server soon runs out of numbers, so that deletes, the reuse of
// a freed number and two servers' different files under one number come
// up in every run.
#pragma once

#include "ZV_SimConference.h"

#include <cstdint>
#include <memory>
#include <random>
#include <set>
#include <functional>
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
    // Draws a number below its bound in place of the seeded generator, so
    // that a fuzzer's input steers the run. Such a run also has a client
    // send its server PDUs of any number and payload, and file operations
    // fail.
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
    // The seed, the problems, the replay command, the last steps and the
    // journal's tail.
    std::string Describe() const;
};

class ZV_RandomScenario
{
public:
    explicit ZV_RandomScenario(ZV_RandomOptions options);
    ~ZV_RandomScenario();
    ZV_RandomScenario(const ZV_RandomScenario&) = delete;
    ZV_RandomScenario& operator=(const ZV_RandomScenario&) = delete;

    ZV_RandomReport Run();

private:
    struct Client;
    struct Share;
    struct Deleted;

    // --- the run
    bool Build();
    void TakeStep();
    void Deliver();
    void Settle();
    void Note(const std::string& sStep);
    void Problem(const std::string& sProblem);

    // --- the steps
    void StepShare();
    void StepShareBatch();
    void StepUpload();
    void StepDownload();
    void StepStopOrResumeDownload();
    void StepStopOrResumeUpload();
    void StepRights();
    void StepDelete();
    void StepDropDownload();
    void StepCutOrRestore();
    void StepLeaveOrRejoin();
    void StepRestartServer();
    void StepRestartClient();
    void StepRole();
    void StepTime();

    // --- the checks
    void CheckDownloads();
    void CheckCatalogues();
    void CheckDeletes();
    void CheckWrites();
    void CheckIdle();
    bool IsWaitingForAnUpload(const Client& client, uint16_t usFileID);
    void CheckFlags();
    void CheckViews();
    void StepHostilePdu();
    void StepFileFault();
    std::string Describe(const Client& client, uint16_t usFileID);
    std::string DescribeServers(uint16_t usFileID);
    bool IsNodeFile(const std::vector<std::string>& vecPart) const;

    // --- helpers
    Client& AnyClient();
    bool IsPresent(const Client& client);
    std::vector<uint16_t> KnownFiles(const Client& client, bool bOwnOnly);
    bool PickFile(const Client& client, bool bOwnOnly, uint16_t& usFileID);
    std::string MakeSource(const Client& client);
    IZV_FileShareMgr* Fs(const Client& client);
    std::vector<QB_UserID> SomeUsers();
    bool AllServerLinksUp() const;
    std::vector<ZV_SimLink*> ServerLinks() const;
    const Share* FindShare(const std::string& sName) const;
    void CollectDeletes();
    uint16_t FileIDsPerServer() const;
    uint32_t Random(uint32_t ulBelow);
    bool Chance(uint32_t ulPercent);

    ZV_RandomOptions m_options;
    std::mt19937 m_rng;
    std::unique_ptr<ZV_SimConference> m_lpSim;
    int m_nServers = 0;
    std::vector<ZV_SimHost*> m_vecServers;
    std::vector<std::unique_ptr<Client>> m_vecClients;
    std::vector<Share> m_vecShares;
    std::vector<Deleted> m_vecDeleted;
    int m_nNextShare = 0;
    int m_nNextTarget = 0;
    // Every delete before this index may come back: a server that forgot
    // it restarted while a linked server was still cut off.
    size_t m_nDeletesMayReturn = 0;
    std::vector<std::string> m_vecSteps;
    std::vector<std::string> m_vecProblems;
};
