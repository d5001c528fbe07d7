// ZV_CliSession: one connected user of the roomcrate client, running the
// commands people type (share, ls, get, rm, allow, deny, info) against the
// manager of its network host, and saying what became of them.
#pragma once

#include "ZV_CliCatalog.h"
#include "ZV_CliOutput.h"
#include "ZV_ModuleApi.h"
#include "ZV_NetClient.h"

#include <chrono>
#include <functional>
#include <list>
#include <map>
#include <set>
#include <string>
#include <vector>

// Exit codes; --help lists them.
enum : int
{
    kCliDone = 0,
    kCliFailed = 1,
    kCliUsage = 2,
    kCliNoServer = 3,
    kCliNoSuchFile = 4,
    kCliReplaced = 5,
    kCliInterrupted = 130,
};

struct ZV_CliCommand
{
    std::string sVerb;
    std::vector<std::string> vecArgs;  // files, names or FileIDs
    std::vector<std::string> vecUsers; // share --to, allow, deny: names or numbers
    bool bPublic = false;              // allow --public, deny --public
    std::string sOutDir = ".";         // get -o
};

// Paths grouped by their folder, in the order each folder first comes: the
// folder without its trailing slash, and the names in it.
std::vector<std::pair<std::string, std::vector<std::string>>> ZV_GroupByFolder(
    const std::vector<std::string>& vecPaths);

class ZV_CliSession
{
public:
    ZV_CliSession(asio::io_context& io, ZV_NetClientConfig config, ZV_ModuleApi& api, ZV_CliOutput& out,
                  std::chrono::seconds secRetry);

    // Checks the server answers on its port, then dials. fnReady runs once
    // the link stands and the lists that come with it are in; fnEnd when the
    // session is over for good (refused, replaced, the server gone).
    void Start(std::function<void()> fnReady, std::function<void(int)> fnEnd);
    // Runs one command; fnDone gets its exit code once it is over.
    void Run(const ZV_CliCommand& command, std::function<void(int)> fnDone);
    // Stops, resumes or drops the user's transfers of a file (the shell's).
    void Control(const std::string& sVerb, const std::string& sWord, std::function<void(int)> fnDone);
    // Leaves; bGoodbye false leaves the server's grace period to run.
    void Stop(bool bGoodbye);
    // Whether an upload of this session still runs (Ctrl-C warns then).
    bool IsUploading() const { return !m_mapUploads.empty() || !m_listAdding.empty(); }
    // The names of the files the user sees, for completion.
    std::vector<std::string> Names();
    // Events of others, shown as they come (the shell's).
    void SetWatching(bool bWatching) { m_bWatching = bWatching; }

private:
    struct Upload
    {
        std::string sPath;
        std::string sName;
        uint16_t usFileID = 0xFFFF;
        uint64_t ullLength = 0;
        std::function<void(int)> fnDone;
    };
    struct Download
    {
        std::string sName;
        std::string sTarget;
        uint64_t ullLength = 0;
        std::function<void(int)> fnDone;
    };
    // A request answered by an event about one file.
    struct Pending
    {
        std::string sVerb;
        std::function<void(int)> fnDone;
    };

    void Probe();
    void OnLink(ZV_NetClient::Link eLink);
    void OnEvent(uint16_t usEvent, const std::vector<uint8_t>& vb);
    void Settle();
    void End(int nExit);

    void Share(const ZV_CliCommand& command, std::function<void(int)> fnDone);
    void ShareAll(const std::vector<std::string>& vecPaths, const std::vector<QB_UserID>& vecRights,
                  std::function<void(int)> fnDone);
    void WaitForAdds();
    std::list<Upload>::iterator FindAdding(const std::string& sPath);
    void StartUpload(std::list<Upload>::iterator it, uint16_t usFileID, double dPercent);
    void RefuseUpload(std::list<Upload>::iterator it, uint32_t ulResult);
    void BatchAnswered(const ZV_CliEvent& ev);
    void FinishUpload(uint16_t usFileID, uint32_t ulResult);
    void List(std::function<void(int)> fnDone);
    void Get(const ZV_CliCommand& command, std::function<void(int)> fnDone);
    void Remove(const ZV_CliCommand& command, std::function<void(int)> fnDone);
    void Rights(const ZV_CliCommand& command, std::function<void(int)> fnDone);
    void Info(const ZV_CliCommand& command, std::function<void(int)> fnDone);

    // The FileIDs the words name; false (said) when one names none or several.
    bool Resolve(const std::vector<std::string>& vecWords, std::vector<uint16_t>& vecFileIDs);
    // The users the words name, likewise.
    bool ResolveUsers(const std::vector<std::string>& vecWords, std::vector<QB_UserID>& vecUsers);
    // The users the client knows by name: the user itself and whoever
    // shared a file it sees.
    std::map<uint32_t, std::string> Roster();
    std::string UserText(uint32_t ulUser);
    std::map<uint16_t, std::string> NameMap();
    ZV_CliFileInfo InfoOf(uint16_t usFileID);
    void UploadEvent(const ZV_CliEvent& ev);
    void DownloadEvent(const ZV_CliEvent& ev);
    void FinishDownload(uint16_t usFileID, uint32_t ulResult);
    void Watch(const ZV_CliEvent& ev);

    asio::io_context& m_io;
    ZV_NetClientConfig m_config;
    ZV_NetClient m_client;
    ZV_CliOutput& m_out;
    std::chrono::seconds m_secRetry;
    asio::steady_timer m_settle;
    asio::steady_timer m_lost;
    asio::steady_timer m_addWait;
    std::chrono::steady_clock::time_point m_tpSettleLimit;
    bool m_bStarted = false;
    bool m_bEverUp = false;
    bool m_bSettled = false;
    bool m_bLostSaid = false;
    bool m_bWatching = false;
    bool m_bOver = false;
    std::function<void()> m_fnReady;
    std::function<void(int)> m_fnEnd;
    ZV_CliCatalog m_catalog;
    std::list<Upload> m_listAdding;  // in the order of the adds, until their FileIDs come
    std::map<uint16_t, Upload> m_mapUploads;
    std::map<uint16_t, Download> m_mapDownloads;
    std::map<uint16_t, Pending> m_mapPending;
    // Downloads the server listed at entry, and those of them that ended
    // before a command asked: their targets.
    std::map<uint16_t, std::string> m_mapListed;
    std::map<uint16_t, std::string> m_mapDoneHere;
};
