// roomcrate-server: hosts the conferences of its configuration on TCP, with
// one manager of the module per conference.
//
//     roomcrate-server CONFIG       run until SIGINT or SIGTERM, then exit 0
//     roomcrate-server --check CONFIG
//     roomcrate-server passwd --config CONFIG NAME         a user's secret
//     roomcrate-server passwd --config CONFIG --peer N     the link secret of server N
//
// Log lines go to standard error with their level; the module's own trace
// lines go to standard output, and its logs to each conference's "log/".
#include "ZV_ModuleApi.h"
#include "ZV_NetServer.h"
#include "ZV_ServerConfig.h"

#include <CLI/CLI.hpp>
#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/spdlog.h>

#include <termios.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>

namespace {

// Written whole and then renamed, so that a reader never sees half a number.
bool WritePortFile(const std::string& sPath, uint16_t usPort)
{
    const std::string sTemp = sPath + ".new";
    {
        std::ofstream file(sTemp, std::ios::trunc);
        file << usPort << "\n";
        if (!file)
            return false;
    }
    std::error_code ec;
    std::filesystem::rename(sTemp, sPath, ec);
    return !ec;
}

// From a terminal twice and without echo; otherwise the first line of
// standard input, so that a script can pipe it in. Never from the command
// line, where every user of the machine could read it.
bool ReadSecret(const std::string& sWhose, std::string& sSecret)
{
    auto ReadLine = [](std::string& sLine) {
        std::getline(std::cin, sLine);
        if (!sLine.empty() && sLine.back() == '\r')
            sLine.pop_back();
    };
    if (!isatty(STDIN_FILENO))
    {
        ReadLine(sSecret);
        return !sSecret.empty();
    }
    termios old{};
    tcgetattr(STDIN_FILENO, &old);
    termios quiet = old;
    quiet.c_lflag &= ~(tcflag_t)ECHO;
    tcsetattr(STDIN_FILENO, TCSAFLUSH, &quiet);
    std::string sAgain;
    std::cerr << "Secret of " << sWhose << ": " << std::flush;
    ReadLine(sSecret);
    std::cerr << "\nOnce more: " << std::flush;
    ReadLine(sAgain);
    std::cerr << "\n";
    tcsetattr(STDIN_FILENO, TCSAFLUSH, &old);
    if (sSecret != sAgain)
    {
        std::cerr << "roomcrate-server: the two differ; nothing was written\n";
        return false;
    }
    return !sSecret.empty();
}

// Writes the keys of one secret into the credentials file of the
// configuration, keeping every other line.
int Passwd(const std::string& sConfig, const std::string& sName, bool bPeer)
{
    ZV_ServerConfig config;
    if (!config.Load(sConfig))
    {
        for (const std::string& sError : config.GetErrors())
            std::cerr << sError << "\n";
        return 1;
    }
    if (bPeer && (sName.empty() || sName.find_first_not_of("0123456789") != std::string::npos))
    {
        std::cerr << "roomcrate-server: a peer is named by its server number\n";
        return 2;
    }
    if (!ZV_Credentials::IsGoodName(sName))
    {
        std::cerr << "roomcrate-server: a name holds no control character and no space at either end\n";
        return 2;
    }
    const std::string& sPath = config.GetSettings().sCredentials;
    ZV_Credentials credentials;
    std::vector<std::string> vecErrors;
    if (std::filesystem::exists(sPath) && !credentials.Load(sPath, vecErrors))
    {
        for (const std::string& sError : vecErrors)
            std::cerr << sError << "\n";
        return 1;
    }
    const std::string sWhose = (bPeer ? "server " : "user ") + sName;
    std::string sSecret;
    if (!ReadSecret(sWhose, sSecret))
    {
        std::cerr << "roomcrate-server: no secret was given\n";
        return 1;
    }
    credentials.Put(bPeer ? ZV_LoginKind::Server : ZV_LoginKind::User, sName, ZV_Credentials::Derive(sSecret));
    std::string sError;
    if (!credentials.Save(sPath, sError))
    {
        std::cerr << "roomcrate-server: " << sError << "\n";
        return 1;
    }
    std::cout << "the keys of " << sWhose << " are in " << sPath << "\n";
    return 0;
}

void SetUpLog(const std::string& sLevel)
{
    auto lpLogger = spdlog::stderr_logger_mt("roomcrate-server");
    lpLogger->set_pattern("%Y-%m-%d %H:%M:%S.%e %l %v");
    lpLogger->set_level(spdlog::level::from_str(sLevel));
    lpLogger->flush_on(spdlog::level::trace);
    spdlog::set_default_logger(lpLogger);
}

int Run(ZV_ServerConfig& config)
{
    const ZV_ServerSettings& settings = config.GetSettings();
    SetUpLog(settings.sLogLevel);
    if (!config.PrepareHomes())
    {
        for (const std::string& sError : config.GetErrors())
            spdlog::critical("{}", sError);
        return 1;
    }
    // One thread runs every handler, so the io_context needs no locks of its own.
    asio::io_context io(1);
    ZV_ModuleApi api = ZV_ModuleApi::Linked();
    if (!api.Start())
    {
        spdlog::critical("the module does not start: {}", api.GetError());
        return 1;
    }
    int nExit = 0;
    {
        ZV_NetServer server(io, settings.net, api);
        if (!server.Start())
        {
            spdlog::critical("{}", server.GetError());
            nExit = 1;
        }
        else if (!settings.sPortFile.empty() && !WritePortFile(settings.sPortFile, server.GetPort()))
        {
            spdlog::critical("cannot write the port to {}", settings.sPortFile);
            server.Stop();
            nExit = 1;
        }
        asio::signal_set signals(io, SIGINT, SIGTERM);
        signals.async_wait([&server](const asio::error_code& ec, int nSignal) {
            if (!ec)
                spdlog::info("signal {}", nSignal);
            server.Stop();
        });
        if (nExit != 0)
            signals.cancel();
        io.run();
    }
    api.Stop();
    spdlog::info("stopped");
    return nExit;
}

}  // namespace

int main(int argc, char** argv)
{
    CLI::App app{"roomcrate-server: the file sharing of conferences, on TCP"};
    std::string sConfig;
    std::string sCheck;
    app.add_option("config", sConfig, "the TOML configuration to run")->check(CLI::ExistingFile);
    app.add_option("--check", sCheck, "check a configuration, say what is wrong with it, and exit")
        ->check(CLI::ExistingFile);
    app.set_version_flag("--version", std::string("roomcrate-server ") + ROOMCRATE_VERSION);
    app.footer("Signals: SIGINT and SIGTERM close every link and exit 0. README.md, \"Run a server\", shows a "
               "configuration.");
    CLI::App* lpPasswd = app.add_subcommand(
        "passwd", "write the keys of a user's secret (or with --peer, of a linked server's link secret) into the "
                  "configuration's credentials file; the secret is read from the terminal without echo, or from "
                  "standard input");
    std::string sPasswdConfig, sName;
    bool bPeer = false;
    lpPasswd->add_option("--config", sPasswdConfig, "the TOML configuration")->required()->check(CLI::ExistingFile);
    lpPasswd->add_option("name", sName, "the user's name, or with --peer the server's number")->required();
    lpPasswd->add_flag("--peer", bPeer, "the link secret of the server of that number, which dials this one");
    CLI11_PARSE(app, argc, argv);
    if (*lpPasswd)
        return Passwd(sPasswdConfig, sName, bPeer);
    const std::string sPath = sCheck.empty() ? sConfig : sCheck;
    if (sPath.empty())
    {
        std::cerr << "roomcrate-server: name a configuration (--help says more)\n";
        return 2;
    }
    ZV_ServerConfig config;
    if (!config.Load(sPath) || !config.LoadCredentials())
    {
        for (const std::string& sError : config.GetErrors())
            std::cerr << sError << "\n";
        return 1;
    }
    if (!sCheck.empty())
    {
        std::cout << sPath << ": the configuration is sound\n";
        return 0;
    }
    return Run(config);
}
