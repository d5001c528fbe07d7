// roomcrate-testclient: one user of one conference, on the network host,
// doing a few steps in order and then leaving. The process tests drive it;
// it is also the smallest client that shares and fetches files for real.
//
//     roomcrate-testclient --server 127.0.0.1:7000 --conference 100 --user 10001 --home alice share a.pdf
//
// Steps: "share PATH" shares a file and waits until the server holds all of
// it; "share-later PATH" shares it and leaves its bytes for when someone
// asks; "get NAME TARGET" downloads the file called NAME and waits for the
// end; "await NAME" waits for a download of NAME asked for before a restart
// to finish; "list" prints what the server lists; "stay" stays until
// SIGINT or SIGTERM. Exit: 0 done, 1 a step failed, 2 usage, 3 another login
// of the user took this one's place, 4 the time ran out, 5 the server
// refused the login or could not prove who it is.
//
// With --secret-file the client logs in under --name; with --trust it speaks
// TLS and takes only a server certificate for the --server host that leads
// to one of the trust file's.
#include "ZV_CliUtf.h"
#include "ZV_ModuleApi.h"
#include "ZV_NetClient.h"

#include <CLI/CLI.hpp>
#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/spdlog.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <set>

namespace {

// The state of a whole upload in event 3011.
constexpr uint16_t kUploadComplete = 3;

enum : int
{
    kExitDone = 0,
    kExitFailed = 1,
    kExitUsage = 2,
    kExitReplaced = 3,
    kExitTimeOut = 4,
    kExitRefused = 5,
};

// An event's fixed fields, at the offsets docs/host-guide.md gives.
struct EventReader
{
    const std::vector<uint8_t>& vb;
    bool Has(size_t nEnd) const { return vb.size() >= nEnd; }
    uint16_t U16(size_t n) const { return (uint16_t)(vb[n] | vb[n + 1] << 8); }
    uint32_t U32(size_t n) const { return U16(n) | (uint32_t)U16(n + 2) << 16; }
    double F64(size_t n) const
    {
        double d = 0;
        std::memcpy(&d, &vb[n], sizeof d);
        return d;
    }
    // A count and the position behind it; false when it runs off the end.
    bool Count(size_t& n, uint32_t& ulCount) const
    {
        if (!Has(n + 1))
            return false;
        const uint8_t bLead = vb[n];
        const int nMore = bLead < 0x80 ? 0 : bLead < 0xC0 ? 1 : bLead < 0xE0 ? 2 : bLead < 0xF0 ? 3 : 4;
        if (!Has(n + 1 + nMore))
            return false;
        ulCount = nMore == 4 ? 0 : bLead & (0x7F >> nMore);
        for (int k = 1; k <= nMore; ++k)
            ulCount = ulCount << 8 | vb[n + k];
        n += 1 + nMore;
        return true;
    }
};

struct Step
{
    std::string sVerb;
    std::string sArg;
    std::string sTarget;
};

class TestClient
{
public:
    TestClient(asio::io_context& io, ZV_NetClientConfig config, ZV_ModuleApi& api, std::vector<Step> vecSteps,
               bool bGoodbye)
        : m_io(io), m_client(io, std::move(config), api), m_vecSteps(std::move(vecSteps)), m_bGoodbye(bGoodbye),
          m_settle(io)
    {
    }

    const std::string& GetError() const { return m_client.GetError(); }

    bool Start()
    {
        if (!m_client.Start())
            return false;
        m_client.SetEventCallback([this](uint16_t usEvent, std::vector<uint8_t> vbData) { OnEvent(usEvent, vbData); });
        m_client.SetLinkCallback([this](ZV_NetClient::Link eLink) {
            if (eLink == ZV_NetClient::Link::Replaced)
                Finish(kExitReplaced, "another login of this user took this one's place");
            else if (eLink == ZV_NetClient::Link::Refused)
                Finish(kExitRefused, "the server refused the login, or did not prove who it is");
            else if (eLink == ZV_NetClient::Link::Up)
                Settle();
        });
        return true;
    }

    void Finish(int nExit, const std::string& sWhy)
    {
        if (m_bFinished)
            return;
        m_bFinished = true;
        m_nExit = nExit;
        if (!sWhy.empty())
            std::cerr << "roomcrate-testclient: " << sWhy << "\n";
        m_settle.cancel();
        m_client.Stop(m_bGoodbye && nExit != kExitReplaced);
        if (m_fnOnFinish)
            m_fnOnFinish();
    }
    void SetOnFinish(std::function<void()> fnOnFinish) { m_fnOnFinish = std::move(fnOnFinish); }
    int GetExit() const { return m_nExit; }
    std::string Waiting() const { return m_nStep < m_vecSteps.size() ? m_vecSteps[m_nStep].sVerb : "nothing"; }

private:
    // The lists a joining client gets come in a burst; a step that needs
    // them waits for a quiet moment after the link came up.
    void Settle()
    {
        m_bSettled = false;
        m_settle.expires_after(std::chrono::milliseconds(300));
        m_settle.async_wait([this](const asio::error_code& ec) {
            if (ec)
                return;
            m_bSettled = true;
            Advance();
        });
        Advance();
    }

    void Learn(uint16_t usFileID)
    {
        ZV_FsFileInfo info{};
        if (m_client.GetFileShareMgr()->FsGetFileInfoByFileID(usFileID, &info) == 0)
        {
            m_mapNames[Utf8(info.szFileOldName)] = usFileID;
            m_mapLength[usFileID] = info.ulFileLenth;
        }
    }

    void OnEvent(uint16_t usEvent, const std::vector<uint8_t>& vb)
    {
        EventReader ev{vb};
        if (m_bFinished || !ev.Has(8))
            return;
        const uint32_t ulResult = ev.U32(2);
        const uint16_t usFileID = ev.U16(6);
        switch (usEvent)
        {
        case zvFsEventFileAdded:
            if (ulResult == 0)
                Learn(usFileID);
            if (m_usSharing == 0xFFFF && m_bAwaitingAdd)
            {
                m_bAwaitingAdd = false;
                if (ulResult != 0)
                    return Finish(kExitFailed, "the server refused the share: " + std::to_string(ulResult));
                m_usSharing = usFileID;
            }
            break;
        case zvFsEventFilesAdded:
        {
            size_t n = 6;
            uint32_t ulCount = 0;
            if (ev.Count(n, ulCount))
                for (uint32_t i = 0; i < ulCount && ev.Has(n + 2); ++i, n += 2)
                    Learn(ev.U16(n));
            break;
        }
        case zvFsEventFileGone:
            for (auto it = m_mapNames.begin(); it != m_mapNames.end();)
                it = it->second == usFileID ? m_mapNames.erase(it) : std::next(it);
            break;
        case zvFsEventDownloadState:
            if (ulResult != 0 && m_setFetching.count(usFileID))
                return Finish(kExitFailed, "the download was refused: " + std::to_string(ulResult));
            break;
        case zvFsEventDownloadProgress:
            // The first report of a download, then one a tenth.
            if (ev.Has(16) && m_mapTenths.emplace(usFileID, -1).first->second != (int)(ev.F64(8) / 10))
            {
                m_mapTenths[usFileID] = (int)(ev.F64(8) / 10);
                std::cout << "progress " << usFileID << " " << ev.F64(8) << std::endl;
            }
            break;
        case zvFsEventDownloadFinished:
            if (ulResult != 0)
                return Finish(kExitFailed, "the download failed: " + std::to_string(ulResult));
            m_setFinished.insert(usFileID);
            break;
        case zvFsEventTransferState:
            // Direction before the FileID here.
            if (ev.Has(11) && vb[6] == 1 && ev.U16(9) == kUploadComplete)
                m_setUploaded.insert(ev.U16(7));
            break;
        case zvFsEventUploadProgress:
            if (ev.Has(16) && ev.F64(8) >= 100.0)
                m_setUploaded.insert(usFileID);
            break;
        case zvFsEventTransferError:
            return Finish(kExitFailed, "the transfer failed: " + std::to_string(ulResult));
        default:
            break;
        }
        Advance();
    }

    // Runs the steps while each is done; a step that waits returns false.
    void Advance()
    {
        while (!m_bFinished && m_client.GetLink() == ZV_NetClient::Link::Up && m_nStep < m_vecSteps.size())
        {
            if (!m_bSettled && NeedsLists(m_vecSteps[m_nStep]))
                return;
            if (!RunStep(m_vecSteps[m_nStep]))
                return;
            ++m_nStep;
            m_bStarted = false;
        }
        if (m_nStep == m_vecSteps.size())
            Finish(kExitDone, {});
    }

    // A share needs nothing of what the server lists.
    static bool NeedsLists(const Step& step) { return step.sVerb != "share" && step.sVerb != "share-later"; }

    bool RunStep(const Step& step)
    {
        IZV_FileShareMgr* lpFs = m_client.GetFileShareMgr();
        if (step.sVerb == "share" || step.sVerb == "share-later")
        {
            const bool bUpload = step.sVerb == "share";
            if (!m_bStarted)
            {
                m_bStarted = true;
                m_usSharing = 0xFFFF;
                m_bAwaitingAdd = true;
                const std::string sPath = std::filesystem::absolute(step.sArg).string();
                const uint32_t ulResult = lpFs->FsAdd(Utf16(sPath).c_str(), nullptr, 0, 1, bUpload ? 1 : 0);
                if (ulResult != 0)
                    Finish(kExitFailed, "cannot share " + sPath + ": " + std::to_string(ulResult));
                return false;
            }
            if (m_usSharing == 0xFFFF)
                return false;
            if (bUpload && !m_setUploaded.count(m_usSharing))
                return false;
            std::cout << "shared " << m_usSharing << " " << step.sArg << std::endl;
            return true;
        }
        if (step.sVerb == "get" || step.sVerb == "await")
        {
            auto it = m_mapNames.find(step.sArg);
            if (it == m_mapNames.end())
                return false;
            if (!m_bStarted)
            {
                m_bStarted = true;
                m_setFetching.insert(it->second);
                if (step.sVerb == "get")
                {
                    const std::string sTarget = std::filesystem::absolute(step.sTarget).string();
                    const uint32_t ulResult = lpFs->FsDownload(it->second, Utf16(sTarget).c_str());
                    if (ulResult != 0)
                        Finish(kExitFailed, "cannot download " + step.sArg + ": " + std::to_string(ulResult));
                }
            }
            if (!m_setFinished.count(it->second))
                return false;
            std::cout << "fetched " << it->second << " " << step.sArg << std::endl;
            return true;
        }
        if (step.sVerb == "list")
        {
            for (const auto& [sName, usFileID] : m_mapNames)
                std::cout << "file " << usFileID << " " << m_mapLength[usFileID] << " " << sName << std::endl;
            return true;
        }
        return false;  // "stay"
    }

    asio::io_context& m_io;
    ZV_NetClient m_client;
    std::vector<Step> m_vecSteps;
    bool m_bGoodbye;
    asio::steady_timer m_settle;
    bool m_bSettled = false;
    size_t m_nStep = 0;
    bool m_bStarted = false;
    bool m_bFinished = false;
    int m_nExit = kExitDone;
    std::function<void()> m_fnOnFinish;
    uint16_t m_usSharing = 0xFFFF;
    bool m_bAwaitingAdd = false;
    std::map<std::string, uint16_t> m_mapNames;
    std::map<uint16_t, uint32_t> m_mapLength;
    std::map<uint16_t, int> m_mapTenths;
    std::set<uint16_t> m_setFetching;
    std::set<uint16_t> m_setFinished;
    std::set<uint16_t> m_setUploaded;
};

// "share X", "get NAME TARGET", ...: words in order, each verb with its own
// number of arguments.
bool ParseSteps(const std::vector<std::string>& vecWords, std::vector<Step>& vecSteps)
{
    const std::map<std::string, size_t> mapArgs = {{"share", 1}, {"share-later", 1}, {"get", 2},
                                                   {"await", 1}, {"list", 0},        {"stay", 0}};
    for (size_t i = 0; i < vecWords.size();)
    {
        auto it = mapArgs.find(vecWords[i]);
        if (it == mapArgs.end() || i + it->second >= vecWords.size())
            return false;
        Step step{vecWords[i], it->second > 0 ? vecWords[i + 1] : "", it->second > 1 ? vecWords[i + 2] : ""};
        vecSteps.push_back(step);
        i += 1 + it->second;
    }
    return !vecSteps.empty();
}

}  // namespace

int main(int argc, char** argv)
{
    CLI::App app{"roomcrate-testclient: one user of a conference doing a few steps"};
    std::string sServer;
    ZV_NetClientConfig config;
    std::string sHome;
    double dTimeout = 60;
    bool bNoGoodbye = false;
    uint64_t ullRate = 0;
    std::vector<std::string> vecWords;
    app.add_option("--server", sServer, "HOST:PORT of the user's home server")->required();
    app.add_option("--conference", config.ulConfID, "the conference's id")->required();
    app.add_option("--user", config.ulUser, "the user's number")->required();
    app.add_option("--name", config.sName, "the user's name");
    app.add_option("--home", sHome, "the client's folder (made if missing)")->required();
    app.add_option("--rate", ullRate, "bytes a second the client reads at most");
    app.add_option("--timeout", dTimeout, "seconds before the client gives up (default 60)");
    app.add_flag("--no-goodbye", bNoGoodbye, "leave without a goodbye, as a lost link does");
    std::string sSecretFile;
    app.add_option("--secret-file", sSecretFile, "log in under --name with the secret on the file's first line "
                                                 "(- for standard input)");
    app.add_option("--trust", config.sTrust, "speak TLS, and take only a server certificate that leads to one of "
                                             "this file's")
        ->check(CLI::ExistingFile);
    app.add_option("steps", vecWords, "share PATH | share-later PATH | get NAME TARGET | await NAME | list | stay")
        ->required();
    app.set_version_flag("--version", std::string("roomcrate-testclient ") + ROOMCRATE_VERSION);
    CLI11_PARSE(app, argc, argv);

    std::vector<Step> vecSteps;
    const size_t nColon = sServer.rfind(':');
    const std::string sPort = nColon == std::string::npos ? std::string() : sServer.substr(nColon + 1);
    if (!ParseSteps(vecWords, vecSteps) || sPort.empty() || sPort.size() > 5 ||
        sPort.find_first_not_of("0123456789") != std::string::npos || std::stoul(sPort) > 65535)
    {
        std::cerr << "roomcrate-testclient: the steps or the server do not read right (--help says more)\n";
        return kExitUsage;
    }
    if (!sSecretFile.empty())
    {
        std::ifstream file;
        if (sSecretFile != "-")
            file.open(sSecretFile);
        std::getline(sSecretFile == "-" ? std::cin : file, config.sSecret);
        if (config.sSecret.empty() || config.sName.empty())
        {
            std::cerr << "roomcrate-testclient: a login needs --name and a secret on the file's first line\n";
            return kExitUsage;
        }
    }
    config.sServer = sServer.substr(0, nColon);
    config.usPort = (uint16_t)std::stoul(sPort);
    std::filesystem::create_directories(std::filesystem::path(sHome) / "log");
    config.sHome = std::filesystem::absolute(sHome).string() + "/";
    config.limits.ullReadRate = ullRate;

    auto lpLogger = spdlog::stderr_logger_mt("roomcrate-testclient");
    lpLogger->set_pattern("%Y-%m-%d %H:%M:%S.%e %l %v");
    spdlog::set_default_logger(lpLogger);

    asio::io_context io(1);
    ZV_ModuleApi api = ZV_ModuleApi::Linked();
    if (!api.Start())
        return kExitFailed;
    int nExit = kExitDone;
    {
        TestClient client(io, config, api, vecSteps, !bNoGoodbye);
        if (!client.Start())
        {
            std::cerr << "roomcrate-testclient: " << client.GetError() << "\n";
            return kExitFailed;
        }
        asio::steady_timer timeout(io, std::chrono::milliseconds((int64_t)(dTimeout * 1000)));
        timeout.async_wait([&](const asio::error_code& ec) {
            if (!ec)
                client.Finish(kExitTimeOut, "the time ran out while waiting on \"" + client.Waiting() + "\"");
        });
        asio::signal_set signals(io, SIGINT, SIGTERM);
        signals.async_wait([&](const asio::error_code& ec, int) {
            if (!ec)
                client.Finish(kExitDone, {});
        });
        client.SetOnFinish([&] {
            timeout.cancel();
            signals.cancel();
        });
        io.run();
        nExit = client.GetExit();
    }
    api.Stop();
    return nExit;
}
