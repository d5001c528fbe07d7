// ZV_CliCatalog: what the roomcrate client knows of its conference's files,
// learnt from the events its manager raises: each file's rights and how
// much of it the server holds, and the user's own download of it. The
// manager answers the rest (name, length, creator) by FileID.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

// The fields of one event that the client uses; bValid false when the
// payload is shorter than its fixed part.
struct ZV_CliEvent
{
    bool bValid = false;
    uint16_t usEvent = 0;
    uint32_t ulResult = 0;
    uint16_t usFileID = 0;
    // 3000, 3003, 3008: the percent the server holds; 3002, 3009: the
    // percent downloaded. Negative when the event carries none.
    double dPercent = -1;
    // 3000, 3003: the file's rights, when its record names them.
    std::optional<bool> obPublic;
    std::optional<std::vector<uint32_t>> ovecAllowed;
    // 3002: the local target and the state (0 new, 1 running, 2 stopped,
    // 3 finished; -1 untold) as the download record gives them.
    std::string sTarget;
    int nDownloadState = -1;
    // 3011: 1 upload, 0 download, and the state.
    uint8_t bUpload = 0;
    uint16_t usState = 0;
    // 3013: the files of a batch, and the value each carries.
    std::vector<uint16_t> vecFileIDs;
    std::vector<double> vecValues;
    std::vector<std::optional<bool>> vecPublic;
    std::vector<std::optional<std::vector<uint32_t>>> vecAllowed;
    std::vector<std::string> vecPaths;  // where each record says it was shared from
};

ZV_CliEvent ZV_ReadCliEvent(uint16_t usEvent, const std::vector<uint8_t>& vb);

// The user's download of a file as the client last heard of it.
enum class ZV_CliDownload
{
    None,
    Running,
    Stopped,
    Finished,
    Failed,
};
const char* ZV_CliDownloadText(ZV_CliDownload eState);

struct ZV_CliFileState
{
    double dServerPercent = 0;
    bool bPublic = true;
    std::vector<uint32_t> vecAllowed;
    ZV_CliDownload eDownload = ZV_CliDownload::None;
    double dDownloadPercent = 0;
    std::string sTarget;
};

class ZV_CliCatalog
{
public:
    // Takes in an event; bJoining: a 3013 of the list a joining client gets,
    // whose values are hundredths of a percent.
    void Apply(const ZV_CliEvent& ev, bool bJoining);
    const std::map<uint16_t, ZV_CliFileState>& Files() const { return m_mapFiles; }
    ZV_CliFileState* Find(uint16_t usFileID);
    void Forget(uint16_t usFileID) { m_mapFiles.erase(usFileID); }

private:
    std::map<uint16_t, ZV_CliFileState> m_mapFiles;
};

// Which file a person means by a word: a FileID, or a name that one file
// alone carries. vecMatches holds every file of that name when several do.
struct ZV_CliMatch
{
    std::optional<uint16_t> ousFileID;
    std::vector<uint16_t> vecMatches;
};
ZV_CliMatch ZV_ResolveFile(const std::string& sWord, const std::map<uint16_t, std::string>& mapNames);

// Which user a person means by a word: a number as it stands, or a name
// that one user alone goes by among those the client knows (mapNames:
// number to name). vecMatches holds every user of that name when several
// do.
struct ZV_CliUserMatch
{
    std::optional<uint32_t> oulUser;
    std::vector<uint32_t> vecMatches;
};
ZV_CliUserMatch ZV_ResolveUser(const std::string& sWord, const std::map<uint32_t, std::string>& mapNames);

// A free local name for sName in sDir: the name itself, or "name(1).ext",
// "name(2).ext"... beside a file of that name, as Windows does.
std::string ZV_FreeTarget(const std::string& sDir, const std::string& sName);

// Hex of the SHA-256 of a file; empty when it cannot be read.
std::string ZV_Sha256OfFile(const std::string& sPath);
