#include "ZV_CliShell.h"

#include <editline/readline.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

namespace {

ZV_CliShell* g_lpShell = nullptr;
std::vector<std::string> g_vecCompletions;

const char* const kVerbs[] = {"share", "ls", "get", "rm", "allow", "deny", "info", "stop", "resume", "drop",
                              "help", "quit"};

const char* const kHelp = R"(share FILE... [--to USER...]   share files (public unless --to)
ls                             the files you may see
get NAME|ID... [-o DIR]        fetch files (in the background)
rm NAME|ID...                  take files out of the conference
allow NAME|ID USER...|--public let users (or everyone) have a file
deny NAME|ID USER...|--public  take it from them
info NAME|ID...                all about files
stop|resume|drop NAME|ID       a running transfer: pause, go on, give up
quit                           leave (Ctrl-D too)
A USER is a number, or the name of one who shared a file you see.)";

}  // namespace

std::vector<std::string> ZV_ShellWords(const std::string& sLine)
{
    std::vector<std::string> vecWords;
    std::string sWord;
    bool bInWord = false;
    bool bQuoted = false;
    for (char c : sLine)
    {
        if (c == '"')
            bQuoted = !bQuoted, bInWord = true;
        else if ((c == ' ' || c == '\t') && !bQuoted)
        {
            if (bInWord)
                vecWords.push_back(sWord);
            sWord.clear();
            bInWord = false;
        }
        else
            sWord += c, bInWord = true;
    }
    if (bInWord)
        vecWords.push_back(sWord);
    return vecWords;
}

bool ZV_ShellCommand(const std::vector<std::string>& vecWords, ZV_CliCommand& command, std::string& sError)
{
    command = ZV_CliCommand{};
    command.sVerb = vecWords.empty() ? "" : vecWords[0];
    bool bUsers = command.sVerb == "allow" || command.sVerb == "deny";
    for (size_t i = 1; i < vecWords.size(); ++i)
    {
        const std::string& sWord = vecWords[i];
        if (sWord == "--to" && command.sVerb == "share")
            bUsers = true;
        else if ((sWord == "-o" || sWord == "--output") && command.sVerb == "get" && i + 1 < vecWords.size())
            command.sOutDir = vecWords[++i];
        else if (sWord == "--public" && (command.sVerb == "allow" || command.sVerb == "deny"))
            command.bPublic = true;
        else if (bUsers && !(command.sVerb != "share" && command.vecArgs.empty()))
            command.vecUsers.push_back(sWord);
        else
            command.vecArgs.push_back(sWord);
    }
    const bool bKnown = std::any_of(std::begin(kVerbs), std::end(kVerbs), [&](const char* sz) { return command.sVerb == sz; });
    if (!bKnown)
        sError = "no command \"" + command.sVerb + "\"; `help` lists them";
    else if (command.sVerb != "ls" && command.sVerb != "help" && command.sVerb != "quit" && command.vecArgs.empty())
        sError = command.sVerb + " needs a file";
    else if ((command.sVerb == "allow" || command.sVerb == "deny") &&
             (command.vecArgs.size() != 1 || (command.vecUsers.empty() && !command.bPublic)))
        sError = command.sVerb + " takes one file, then users or --public";
    else if ((command.sVerb == "stop" || command.sVerb == "resume" || command.sVerb == "drop") &&
             command.vecArgs.size() != 1)
        sError = command.sVerb + " takes one file";
    return sError.empty();
}

ZV_CliShell::ZV_CliShell(asio::io_context& io, ZV_CliSession& session, ZV_CliOutput& out, FILE* lpTerminal,
                         std::function<void(int)> fnQuit)
    : m_io(io), m_session(session), m_out(out), m_lpTerminal(lpTerminal), m_fnQuit(std::move(fnQuit)), m_input(io, ::dup(STDIN_FILENO))
{
}

ZV_CliShell::~ZV_CliShell()
{
    Close();
}

void ZV_CliShell::Open()
{
    g_lpShell = this;
    m_bOpen = true;
    m_session.SetWatching(true);
    if (const char* szHome = std::getenv("HOME"))
        m_sHistory = std::string(szHome) + "/.roomcrate_history";
    // Before the line editor starts, so that it writes where roomcrate does.
    rl_outstream = m_lpTerminal;
    using_history();
    read_history(m_sHistory.c_str());
    rl_attempted_completion_function = &ZV_CliShell::Complete;
    // Output between prompts: the line being typed goes away first and
    // comes back after.
    m_out.SetLineHooks([this] { std::fputs("\r\x1b[2K", m_lpTerminal), std::fflush(m_lpTerminal); },
                       [] { rl_forced_update_display(); });
    m_out.Note("connected; `help` lists the commands, Ctrl-D leaves");
    rl_callback_handler_install("roomcrate> ", &ZV_CliShell::LineHandler);
    Read();
}

void ZV_CliShell::Close()
{
    if (!m_bOpen)
        return;
    m_bOpen = false;
    m_out.SetLineHooks(nullptr, nullptr);
    rl_callback_handler_remove();
    if (!m_sHistory.empty())
        write_history(m_sHistory.c_str());
    asio::error_code ec;
    m_input.cancel(ec);
    m_input.close(ec);
    g_lpShell = nullptr;
}

void ZV_CliShell::Read()
{
    m_input.async_wait(asio::posix::stream_descriptor::wait_read, [this](const asio::error_code& ec) {
        if (ec || !m_bOpen)
            return;
        rl_callback_read_char();
        if (m_bOpen)
            Read();
    });
}

void ZV_CliShell::LineHandler(char* szLine)
{
    if (g_lpShell)
        g_lpShell->OnLine(szLine);
    std::free(szLine);
}

void ZV_CliShell::OnLine(char* szLine)
{
    if (szLine == nullptr)
    {
        std::fputs("\n", m_lpTerminal);
        return m_fnQuit(kCliDone);
    }
    const std::vector<std::string> vecWords = ZV_ShellWords(szLine);
    if (vecWords.empty())
        return;
    add_history(szLine);
    ZV_CliCommand command;
    std::string sError;
    if (!ZV_ShellCommand(vecWords, command, sError))
        return m_out.Error(sError);
    if (command.sVerb == "quit")
        return m_fnQuit(kCliDone);
    if (command.sVerb == "help")
        return m_out.Result(kHelp, {{"type", "help"}});
    if (command.sVerb == "stop" || command.sVerb == "resume" || command.sVerb == "drop")
        return m_session.Control(command.sVerb, command.vecArgs[0], [](int) {});
    m_session.Run(command, [](int) {});
}

char** ZV_CliShell::Complete(const char* szText, int nStart, int)
{
    rl_attempted_completion_over = 1;
    g_vecCompletions.clear();
    if (nStart == 0)
    {
        for (const char* szVerb : kVerbs)
            g_vecCompletions.push_back(szVerb);
        return rl_completion_matches(szText, &ZV_CliShell::CompleteCommand);
    }
    // After share, local files; after the others, the conference's.
    if (std::strncmp(rl_line_buffer, "share", 5) == 0)
    {
        rl_attempted_completion_over = 0;
        return nullptr;
    }
    if (g_lpShell)
        g_vecCompletions = g_lpShell->m_session.Names();
    return rl_completion_matches(szText, &ZV_CliShell::CompleteName);
}

char* ZV_CliShell::CompleteCommand(const char* szText, int nState)
{
    return CompleteName(szText, nState);
}

char* ZV_CliShell::CompleteName(const char* szText, int nState)
{
    static size_t s_nNext = 0;
    if (nState == 0)
        s_nNext = 0;
    const size_t nText = std::strlen(szText);
    while (s_nNext < g_vecCompletions.size())
    {
        const std::string& sCandidate = g_vecCompletions[s_nNext++];
        if (sCandidate.compare(0, nText, szText) == 0)
            return strdup(sCandidate.c_str());
    }
    return nullptr;
}
