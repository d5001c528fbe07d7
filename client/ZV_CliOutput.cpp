#include "ZV_CliOutput.h"

#include <cmath>
#include <cstdio>

std::string ZV_CliSize(double dBytes)
{
    static const char* const aszUnits[] = {"B", "KiB", "MiB", "GiB", "TiB"};
    int nUnit = 0;
    while (dBytes >= 1024 && nUnit < 4)
        dBytes /= 1024, ++nUnit;
    char szText[32];
    std::snprintf(szText, sizeof szText, nUnit == 0 ? "%.0f %s" : "%.1f %s", dBytes, aszUnits[nUnit]);
    return szText;
}

std::string ZV_CliProgressLine(const std::string& sName, uint64_t ullDone, uint64_t ullTotal, double dRate,
                               size_t nWidth)
{
    const double dShare = ullTotal == 0 ? 1.0 : std::min(1.0, (double)ullDone / (double)ullTotal);
    const size_t nFull = (size_t)(dShare * (double)nWidth);
    std::string sLeft = "--:--";
    if (dRate > 0 && ullDone <= ullTotal)
    {
        const uint64_t ullSeconds = (uint64_t)std::ceil((double)(ullTotal - ullDone) / dRate);
        char szLeft[32];
        std::snprintf(szLeft, sizeof szLeft, "%llu:%02llu", (unsigned long long)(ullSeconds / 60),
                      (unsigned long long)(ullSeconds % 60));
        sLeft = szLeft;
    }
    char szPercent[16];
    std::snprintf(szPercent, sizeof szPercent, "%3.0f%%", dShare * 100);
    return sName + " [" + std::string(nFull, '#') + std::string(nWidth - nFull, '.') + "] " + szPercent + " " +
           ZV_CliSize((double)ullDone) + " of " + ZV_CliSize((double)ullTotal) + ", " + ZV_CliSize(dRate) + "/s, " +
           sLeft + " left";
}

ZV_CliOutput::ZV_CliOutput(std::ostream& out, std::ostream& err, bool bJson, bool bQuiet, bool bTerminal)
    : m_out(out), m_err(err), m_bJson(bJson), m_bQuiet(bQuiet), m_bTerminal(bTerminal && !bQuiet)
{
}

namespace {

nlohmann::json FileObject(const ZV_CliFileInfo& info)
{
    return {{"type", "file"},
            {"id", info.usFileID},
            {"name", info.sName},
            {"size", info.ullLength},
            {"creator", info.ulCreator},
            {"creator_name", info.sCreatorName},
            {"server_percent", info.dServerPercent},
            {"public", info.bPublic},
            {"allowed", info.vecAllowed},
            {"download", info.sDownload},
            {"download_percent", info.dDownloadPercent}};
}

std::string Rights(const ZV_CliFileInfo& info)
{
    if (info.bPublic)
        return "everyone";
    std::string s = "the creator";
    for (uint32_t ulUser : info.vecAllowed)
        s += ", " + std::to_string(ulUser);
    return s;
}

}  // namespace

void ZV_CliOutput::Files(const std::vector<ZV_CliFileInfo>& vecFiles)
{
    ClearBars();
    if (m_bJson)
    {
        for (const ZV_CliFileInfo& info : vecFiles)
            m_out << FileObject(info).dump() << "\n";
        m_out.flush();
        return DrawBars();
    }
    char szRow[160];
    // MINE holds "downloading 100%" at its widest.
    std::snprintf(szRow, sizeof szRow, "%5s  %10s  %6s  %-16s  %-16s  %s", "ID", "SIZE", "HELD", "MINE", "SHARED BY",
                  "NAME");
    m_out << szRow << "\n";
    for (const ZV_CliFileInfo& info : vecFiles)
    {
        std::string sMine = info.sDownload;
        if (sMine == "downloading" || sMine == "stopped")
            sMine += " " + std::to_string((int)info.dDownloadPercent) + "%";
        std::snprintf(szRow, sizeof szRow, "%5u  %10s  %5.0f%%  %-16s  %-16s  ", info.usFileID,
                      ZV_CliSize((double)info.ullLength).c_str(), info.dServerPercent, sMine.c_str(),
                      (info.sCreatorName.empty() ? std::to_string(info.ulCreator) : info.sCreatorName).c_str());
        m_out << szRow << info.sName << "\n";
    }
    if (vecFiles.empty())
        m_out << "(no files)\n";
    m_out.flush();
    DrawBars();
}

void ZV_CliOutput::FileDetails(const ZV_CliFileInfo& info)
{
    ClearBars();
    if (m_bJson)
        m_out << FileObject(info).dump() << "\n";
    else
    {
        char szHeld[16];
        std::snprintf(szHeld, sizeof szHeld, "%.1f%%", info.dServerPercent);
        m_out << "id:          " << info.usFileID << "\nname:        " << info.sName << "\nsize:        "
              << info.ullLength << " bytes (" << ZV_CliSize((double)info.ullLength) << ")\nshared by:   "
              << info.sCreatorName << " (" << info.ulCreator << ")\nserver holds: " << szHeld
              << "\nwho may have it: " << Rights(info) << "\nyour download: " << info.sDownload;
        if (info.sDownload != "-")
            m_out << " (" << (int)info.dDownloadPercent << "%)";
        m_out << "\n";
    }
    m_out.flush();
    DrawBars();
}

void ZV_CliOutput::Result(const std::string& sText, const nlohmann::json& obj)
{
    if (m_bJson)
        Line(m_out, obj.dump());
    else if (!m_bQuiet)
        Line(m_out, sText);
}

void ZV_CliOutput::Essential(const std::string& sText, const nlohmann::json& obj)
{
    Line(m_out, m_bJson ? obj.dump() : sText);
}

void ZV_CliOutput::Note(const std::string& sText)
{
    if (!m_bQuiet && !m_bJson)
        Line(m_err, sText);
}

void ZV_CliOutput::Error(const std::string& sText, const nlohmann::json& obj)
{
    Line(m_err, "roomcrate: " + sText);
    if (m_bJson && !obj.is_null())
        Line(m_out, obj.dump());
}

void ZV_CliOutput::Line(std::ostream& os, const std::string& sText)
{
    if (m_fnBefore)
        m_fnBefore();
    ClearBars();
    os << sText << "\n";
    os.flush();
    DrawBars();
    if (m_fnAfter)
        m_fnAfter();
}

void ZV_CliOutput::Progress(const std::string& sKey, const std::string& sName, uint64_t ullDone, uint64_t ullTotal)
{
    if (!m_bTerminal)
        return;
    const auto tpNow = std::chrono::steady_clock::now();
    auto [it, bNew] = m_mapBars.try_emplace(sKey);
    if (bNew)
        it->second = Bar{sName, ullDone, ullTotal, ullDone, tpNow};
    it->second.ullDone = ullDone;
    it->second.ullTotal = ullTotal;
    // Ten redraws a second at most.
    if (!bNew && tpNow - m_tpDrawn < std::chrono::milliseconds(100))
        return;
    if (m_fnBefore)
        m_fnBefore();
    ClearBars();
    DrawBars();
    if (m_fnAfter)
        m_fnAfter();
}

void ZV_CliOutput::EndProgress(const std::string& sKey)
{
    if (!m_bTerminal || !m_mapBars.count(sKey))
        return;
    ClearBars();
    m_mapBars.erase(sKey);
    DrawBars();
}

void ZV_CliOutput::ClearBars()
{
    if (!m_bTerminal || m_nDrawn == 0)
        return;
    // Up to the first bar, clearing each line.
    for (; m_nDrawn > 0; --m_nDrawn)
        m_err << "\x1b[1A\x1b[2K";
    m_err << "\r";
}

void ZV_CliOutput::DrawBars()
{
    if (!m_bTerminal)
        return;
    const auto tpNow = std::chrono::steady_clock::now();
    for (const auto& [sKey, bar] : m_mapBars)
    {
        const double dSeconds = std::chrono::duration<double>(tpNow - bar.tpFirst).count();
        const double dRate = dSeconds > 0.2 ? (double)(bar.ullDone - std::min(bar.ullDone, bar.ullFirst)) / dSeconds : 0;
        m_err << ZV_CliProgressLine(bar.sName, bar.ullDone, bar.ullTotal, dRate, 24) << "\n";
        ++m_nDrawn;
    }
    m_err.flush();
    m_tpDrawn = tpNow;
}
