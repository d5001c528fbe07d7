// ZV_CliOutput: how the roomcrate client speaks. Results go to standard
// output, as lines for people or, with --json, one JSON object a line for
// scripts; progress bars and notes go to standard error, bars only when it
// is a terminal; errors always go to standard error, as one line.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <nlohmann/json.hpp>
#include <ostream>
#include <string>
#include <vector>

struct ZV_CliFileInfo
{
    uint16_t usFileID = 0;
    std::string sName;
    uint64_t ullLength = 0;
    uint32_t ulCreator = 0;
    std::string sCreatorName;
    double dServerPercent = 0;
    bool bPublic = true;
    std::vector<uint32_t> vecAllowed;
    std::string sDownload = "-";
    double dDownloadPercent = 0;
};

// "5.0 MiB", "812 B": a size for people.
std::string ZV_CliSize(double dBytes);
// One progress line: name, bar, percent, bytes, rate and time left.
std::string ZV_CliProgressLine(const std::string& sName, uint64_t ullDone, uint64_t ullTotal, double dRate,
                               size_t nWidth);

class ZV_CliOutput
{
public:
    ZV_CliOutput(std::ostream& out, std::ostream& err, bool bJson, bool bQuiet, bool bTerminal);

    bool IsJson() const { return m_bJson; }
    // The files of ls (a table) and info (one block each).
    void Files(const std::vector<ZV_CliFileInfo>& vecFiles);
    void FileDetails(const ZV_CliFileInfo& info);
    // A command's result: sText for people, obj for scripts.
    void Result(const std::string& sText, const nlohmann::json& obj);
    // A line that is the point of the command (the SHA-256 lines): printed
    // also with --quiet.
    void Essential(const std::string& sText, const nlohmann::json& obj);
    // A note for people (not with --quiet nor --json).
    void Note(const std::string& sText);
    // An error: one line on standard error, and an object with --json.
    void Error(const std::string& sText, const nlohmann::json& obj = nlohmann::json());
    // A transfer's progress, keyed by the caller; End takes its bar away.
    void Progress(const std::string& sKey, const std::string& sName, uint64_t ullDone, uint64_t ullTotal);
    void EndProgress(const std::string& sKey);
    // Around every write, for a shell whose prompt line must make way.
    void SetLineHooks(std::function<void()> fnBefore, std::function<void()> fnAfter)
    {
        m_fnBefore = std::move(fnBefore), m_fnAfter = std::move(fnAfter);
    }

private:
    struct Bar
    {
        std::string sName;
        uint64_t ullDone = 0;
        uint64_t ullTotal = 0;
        uint64_t ullFirst = 0;
        std::chrono::steady_clock::time_point tpFirst;
    };
    void ClearBars();
    void DrawBars();
    void Line(std::ostream& os, const std::string& sText);

    std::ostream& m_out;
    std::ostream& m_err;
    bool m_bJson;
    bool m_bQuiet;
    bool m_bTerminal;
    std::map<std::string, Bar> m_mapBars;
    size_t m_nDrawn = 0;
    std::chrono::steady_clock::time_point m_tpDrawn;
    std::function<void()> m_fnBefore;
    std::function<void()> m_fnAfter;
};
