// roomcrate: the conference client people use. One command a run (share,
// ls, get, rm, allow, deny, info), or a shell that stays connected.
//
//     roomcrate share report.pdf
//     roomcrate get report.pdf -o ~/Downloads
#include "ZV_CliSession.h"
#include "ZV_CliSettings.h"
#include "ZV_CliShell.h"

#include <CLI/CLI.hpp>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>
#include <unistd.h>

#include <fcntl.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>

namespace {

const char* const kFooter = R"(Settings come from the first of: an option, the environment (ROOMCRATE_SERVER,
ROOMCRATE_CONFERENCE, ROOMCRATE_USER, ROOMCRATE_NAME, ROOMCRATE_SECRET_FILE, ROOMCRATE_TRUST,
ROOMCRATE_CLIENT_HOME), the TOML file (--config; by default $XDG_CONFIG_HOME/roomcrate/client.toml
or ~/.config/roomcrate/client.toml), with the keys server, conference, user, name, secret_file,
trust, home. The secret comes from secret_file ("-": standard input), ROOMCRATE_SECRET, or a
prompt without echo; never from the command line. The client keeps its share record and its log
in home (by default $XDG_DATA_HOME/roomcrate or ~/.local/share/roomcrate).

Exit codes: 0 done; 1 a request or a transfer failed; 2 wrong usage or settings; 3 the server
could not be reached or refused the login; 4 no such file or user (local, or in the conference, or a
name several files or users carry: give the number); 5 another roomcrate of the same user took this one's
place; 130 interrupted.

With --json each line of standard output is one JSON object, its "type" one of:
  file     (ls, info) id, name, size, creator, creator_name, server_percent, public, allowed,
           download ("-", "downloading", "stopped", "downloaded", "failed"), download_percent
  shared   (share) id, name, size, path, sha256
  fetched  (get) id, name, size, path, sha256
  removed  (rm) id, name
  rights   (allow, deny) id, name, public, allowed
  event    (shell) event, id, name
  error    message, and where known id, name, user, code (the module's result code), matches)";

// An ostream's bytes to a FILE, which the shell's line editor writes to
// as well.
class ZV_FileBuffer : public std::streambuf
{
public:
    explicit ZV_FileBuffer(FILE* lpFile) : m_lpFile(lpFile) {}

protected:
    int_type overflow(int_type c) override
    {
        return c == traits_type::eof() || std::fputc(c, m_lpFile) != EOF ? traits_type::not_eof(c) : traits_type::eof();
    }
    std::streamsize xsputn(const char* pc, std::streamsize n) override
    {
        return (std::streamsize)std::fwrite(pc, 1, (size_t)n, m_lpFile);
    }
    int sync() override { return std::fflush(m_lpFile) == 0 ? 0 : -1; }

private:
    FILE* m_lpFile;
};

std::function<const char*(const char*)> Env()
{
    return [](const char* szName) { return std::getenv(szName); };
}

std::string ReadFile(const std::string& sPath, bool& bFound)
{
    std::ifstream file(sPath);
    bFound = (bool)file;
    std::stringstream ss;
    ss << file.rdbuf();
    return ss.str();
}

}  // namespace

int main(int argc, char** argv)
{
    CLI::App app{"roomcrate: share files with your conference, and fetch theirs"};
    app.footer(kFooter);
    app.require_subcommand(1);
    app.set_version_flag("--version", std::string("roomcrate ") + ROOMCRATE_VERSION);
    ZV_CliValues mapOptions;
    std::string sConfig;
    bool bJson = false;
    bool bQuiet = false;
    int nRetry = 60;
    uint64_t ullRate = 0;
    auto Setting = [&](const char* szName, const char* szKey, const std::string& sHelp) {
        app.add_option_function<std::string>(
               szName, [&mapOptions, szKey](const std::string& sValue) { mapOptions[szKey] = sValue; }, sHelp)
            ->option_text("TEXT");
    };
    app.add_option("--config", sConfig, "the client's TOML file");
    Setting("--server", "server", "HOST[:PORT] of your server (port 7100 by default)");
    Setting("--conference", "conference", "the conference's number");
    Setting("--user", "user", "your user number in it");
    Setting("--name", "name", "your login name");
    Setting("--secret-file", "secret_file", "the file whose first line is your secret (- for standard input)");
    Setting("--trust", "trust", "speak TLS, and take only a server certificate that leads to one of this file's");
    Setting("--home", "home", "the client's own folder");
    app.add_flag("--json", bJson, "one JSON object a line on standard output, for scripts");
    app.add_flag("-q,--quiet", bQuiet, "no progress and no notes: errors, lists and the SHA-256 lines only");
    app.add_option("--retry", nRetry, "seconds to keep dialling a lost server during a command (default 60)")
        ->check(CLI::Range(1, 86400));

    app.add_option("--rate", ullRate, "bytes a second the client reads from the server at most (0: no limit)");

    ZV_CliCommand command;
    std::vector<std::string> vecRightsArgs;
    CLI::App* lpShare = app.add_subcommand("share", "share files: one alone, several of one folder as one batch; "
                                                    "roomcrate stays until the server holds all of them");
    lpShare->add_option("files", command.vecArgs, "the files")->required();
    lpShare->add_option("--to", command.vecUsers, "users who may have them (everyone by default): numbers, or names of users who shared a file you see");
    app.add_subcommand("ls", "list the conference's files you may see: number, size, how much the server holds, "
                             "your download, who shared it, name");
    CLI::App* lpGet = app.add_subcommand("get", "fetch files by name or number, wait for the end, check the length "
                                                "and print each SHA-256; a file of the same name stays, the new one "
                                                "lands as name(1).ext");
    lpGet->add_option("files", command.vecArgs, "names or numbers")->required();
    lpGet->add_option("-o,--output", command.sOutDir, "the folder to fetch into (the current one by default)");
    CLI::App* lpRm = app.add_subcommand("rm", "take files out of the conference (yours, or any as a privileged user)");
    lpRm->add_option("files", command.vecArgs, "names or numbers")->required();
    CLI::App* lpAllow = app.add_subcommand("allow", "let users have a file you shared (--public: everyone)");
    CLI::App* lpDeny = app.add_subcommand("deny", "take a file from users (--public: from everyone not allowed)");
    for (CLI::App* lpRights : {lpAllow, lpDeny})
    {
        lpRights->add_option("file", vecRightsArgs, "the file's name or number, then users' names or numbers")->required();
        lpRights->add_flag("--public", command.bPublic, "everyone");
    }
    CLI::App* lpInfo = app.add_subcommand("info", "all there is to know of files");
    lpInfo->add_option("files", command.vecArgs, "names or numbers")->required();
    app.add_subcommand("shell", "stay connected: the same commands, and stop, resume, drop of running transfers; "
                                "the conference's events as they come");
    CLI11_PARSE(app, argc, argv);
    command.sVerb = app.get_subcommands().front()->get_name();

    // The module writes its trace lines on standard output; they go to the
    // client's folder, and what roomcrate says goes to the standard output
    // it was given.
    std::fflush(stdout);
    FILE* lpOut = fdopen(dup(STDOUT_FILENO), "w");
    // The shell's line editor writes a character at a time.
    if (command.sVerb == "shell")
        setvbuf(lpOut, nullptr, _IONBF, 0);
    ZV_FileBuffer outBuffer(lpOut);
    std::ostream outStream(&outBuffer);
    ZV_CliOutput out(outStream, std::cerr, bJson, bQuiet, isatty(STDERR_FILENO) != 0);
    if (!vecRightsArgs.empty())
    {
        command.vecArgs = {vecRightsArgs[0]};
        command.vecUsers.assign(vecRightsArgs.begin() + 1, vecRightsArgs.end());
        if (command.vecUsers.empty() && !command.bPublic)
        {
            out.Error(command.sVerb + " needs users or --public");
            return kCliUsage;
        }
    }

    // Settings and the secret.
    bool bFound = false;
    const std::string sTomlName = sConfig.empty() ? ZV_DefaultCliConfig(Env()) : sConfig;
    const std::string sToml = ReadFile(sTomlName, bFound);
    if (!bFound && !sConfig.empty())
    {
        out.Error("cannot read the settings file " + sConfig);
        return kCliUsage;
    }
    ZV_CliSettings settings;
    std::string sError;
    if (!ZV_LoadCliSettings(mapOptions, Env(), sToml, sTomlName, settings, sError))
    {
        out.Error(sError);
        return kCliUsage;
    }
    const auto osSecret = ZV_ReadCliSecret(settings, Env(), sError);
    if (!osSecret)
    {
        out.Error(sError);
        return kCliUsage;
    }
    ZV_NetClientConfig config;
    config.sServer = settings.sServer;
    config.usPort = settings.usPort;
    config.ulConfID = settings.ulConference;
    config.ulUser = settings.ulUser;
    config.sName = settings.sName;
    config.sSecret = *osSecret;
    config.sTrust = settings.sTrust;
    config.msRedialMax = std::chrono::milliseconds(5000);
    config.limits.ullReadRate = ullRate;
    if (!config.sSecret.empty() && config.sName.empty())
    {
        out.Error("a login needs your name: give --name, set ROOMCRATE_NAME or write name in " + sTomlName);
        return kCliUsage;
    }
    // One folder per user of a conference, so that each keeps its own
    // share record.
    const std::filesystem::path home = std::filesystem::absolute(settings.sHome) /
                                       ("conference-" + std::to_string(settings.ulConference) + "-user-" +
                                        std::to_string(settings.ulUser));
    std::error_code ec;
    std::filesystem::create_directories(home / "log", ec);
    if (ec)
    {
        out.Error("cannot make the client's folder " + home.string() + ": " + ec.message());
        return kCliUsage;
    }
    config.sHome = home.string() + "/";
    const int nTrace = open((home / "trace.log").c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
    if (nTrace >= 0)
        dup2(nTrace, STDOUT_FILENO), close(nTrace);
    auto lpLogger = spdlog::basic_logger_mt("roomcrate", (home / "roomcrate.log").string());
    lpLogger->set_pattern("%Y-%m-%d %H:%M:%S.%e %l %v");
    spdlog::set_default_logger(lpLogger);

    asio::io_context io(1);
    ZV_ModuleApi api = ZV_ModuleApi::Linked();
    if (!api.Start())
    {
        out.Error("the file-sharing module did not start");
        return kCliFailed;
    }
    int nExit = kCliDone;
    {
        ZV_CliSession session(io, config, api, out, std::chrono::seconds(nRetry));
        asio::signal_set signals(io, SIGINT, SIGTERM);
        std::unique_ptr<ZV_CliShell> lpShell;
        auto fnFinish = [&](int nCode, bool bGoodbye) {
            nExit = nCode;
            signals.cancel();
            if (lpShell)
                lpShell->Close();
            session.Stop(bGoodbye);
        };
        signals.async_wait([&](const asio::error_code& ecSignal, int) {
            if (ecSignal)
                return;
            if (session.IsUploading())
                out.Error("left before the server held the whole file: the upload ends once the server's grace "
                          "period has passed, unless roomcrate comes back");
            // No goodbye: the server keeps the user's transfers through its
            // grace period, and a new run goes on with them.
            fnFinish(kCliInterrupted, false);
        });
        session.Start(
            [&] {
                if (command.sVerb == "shell")
                {
                    lpShell = std::make_unique<ZV_CliShell>(io, session, out, lpOut, [&](int nCode) { fnFinish(nCode, true); });
                    return lpShell->Open();
                }
                session.Run(command, [&](int nCode) { fnFinish(nCode, true); });
            },
            [&](int nCode) { fnFinish(nCode, false); });
        io.run();
    }
    api.Stop();
    return nExit;
}
