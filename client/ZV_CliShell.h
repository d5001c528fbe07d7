// ZV_CliShell: roomcrate's interactive session. Lines are read through
// libedit (editing, history, completion of commands and file names) on the
// same io_context as the network, so commands run in the background while
// the prompt stays; the conference's events show as they come.
#pragma once

#include "ZV_CliSession.h"

#include <asio.hpp>

#include <cstdio>
#include <functional>
#include <string>
#include <vector>

// A line cut into words at blanks; "double quotes" keep blanks in a word.
std::vector<std::string> ZV_ShellWords(const std::string& sLine);
// A shell line as a command; false with the reason in sError.
bool ZV_ShellCommand(const std::vector<std::string>& vecWords, ZV_CliCommand& command, std::string& sError);

class ZV_CliShell
{
public:
    ZV_CliShell(asio::io_context& io, ZV_CliSession& session, ZV_CliOutput& out, FILE* lpTerminal,
                std::function<void(int)> fnQuit);
    ~ZV_CliShell();
    void Open();
    void Close();

private:
    void Read();
    void OnLine(char* szLine);
    static void LineHandler(char* szLine);
    static char** Complete(const char* szText, int nStart, int nEnd);
    static char* CompleteCommand(const char* szText, int nState);
    static char* CompleteName(const char* szText, int nState);

    asio::io_context& m_io;
    ZV_CliSession& m_session;
    ZV_CliOutput& m_out;
    FILE* m_lpTerminal;
    std::function<void(int)> m_fnQuit;
    asio::posix::stream_descriptor m_input;
    bool m_bOpen = false;
    std::string m_sHistory;
};
