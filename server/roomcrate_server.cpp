// roomcrate-server: hosts the conferences of its configuration on TCP, with
// one manager of the module per conference.
//
//     roomcrate-server CONFIG       run until SIGINT or SIGTERM, then exit 0
//     roomcrate-server --check CONFIG
//
// Log lines go to standard error with their level; the module's own trace
// lines go to standard output, and its logs to each conference's "log/".
#include "ZV_ModuleApi.h"
#include "ZV_NetServer.h"
#include "ZV_ServerConfig.h"

#include <CLI/CLI.hpp>
#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/spdlog.h>

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
    asio::io_context io;
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
    CLI11_PARSE(app, argc, argv);
    const std::string sPath = sCheck.empty() ? sConfig : sCheck;
    if (sPath.empty())
    {
        std::cerr << "roomcrate-server: name a configuration (--help says more)\n";
        return 2;
    }
    ZV_ServerConfig config;
    if (!config.Load(sPath))
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
