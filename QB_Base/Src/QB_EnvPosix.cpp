// The environment on a POSIX system (Linux): the only source of the project
// that includes system headers.
//
// Sharing. Windows refuses an open that clashes with the deny
// bits of a handle already open on the same file, or whose own deny bits
// clash with an open handle's access. POSIX has no such locks, so this
// environment keeps its own table of open handles, keyed by device and inode,
// and applies the same rule to every file opened through it in this process.
// Other processes are not held off, and this process can still reach the
// files through anything that bypasses the environment (fopen, std::fstream).
// Deleting a file that is open is allowed here, where Windows refuses it;
// the system closes its files before it deletes them.
//
// Parked files. A process may hold only so many descriptors, and a client
// that shares thousands of files keeps each of them open. A handle is
// therefore not a descriptor: when the handles hold half of the process's
// limit, or the system has no descriptor left for an open, the handle used
// longest ago gives its descriptor back (it is parked, its position kept)
// and takes a new one at its next use, after a check that its path still
// names the same file. The other half stays for the host and the logs. A parked handle keeps its
// place in the sharing table, so parking changes nothing a caller can see
// but the failure of a handle whose file was deleted or replaced meanwhile.
//
// Read-only. A file without any write permission bit counts as carrying the
// read-only attribute: opening it for writing, replacing it and deleting it
// fail, as Windows does, also when the process runs as
// root and the kernel would allow all three.
#include "QB_Env.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <map>
#include <mutex>
#include <new>
#include <random>
#include <vector>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

[[maybe_unused]] constexpr uint32_t kAccessRead = 0x1;  // sharing checks compare the access bits whole
constexpr uint32_t kAccessWrite = 0x2;
constexpr uint32_t kAccessMask = 0x3;
constexpr uint32_t kCreationMask = 0xF00;
constexpr uint32_t kOpenExisting = 0x100;
constexpr uint32_t kOpenAlways = 0x200;
constexpr uint32_t kCreateAlways = 0x300;
constexpr uint32_t kCreateNew = 0x400;
constexpr uint32_t kAttrReadOnly = 0x1000;
constexpr uint32_t kNoLink = 0x10000;

constexpr mode_t kAnyWriteBit = S_IWUSR | S_IWGRP | S_IWOTH;

// ---- text of paths ----

void AppendUtf8(std::string& s, char32_t c)
{
    if (c < 0x80)
        s += (char)c;
    else if (c < 0x800)
    {
        s += (char)(0xC0 | (c >> 6));
        s += (char)(0x80 | (c & 0x3F));
    }
    else if (c < 0x10000)
    {
        s += (char)(0xE0 | (c >> 12));
        s += (char)(0x80 | ((c >> 6) & 0x3F));
        s += (char)(0x80 | (c & 0x3F));
    }
    else
    {
        s += (char)(0xF0 | (c >> 18));
        s += (char)(0x80 | ((c >> 12) & 0x3F));
        s += (char)(0x80 | ((c >> 6) & 0x3F));
        s += (char)(0x80 | (c & 0x3F));
    }
}

void AppendUtf16(std::u16string& s, char32_t c)
{
    if (c < 0x10000)
    {
        s += (char16_t)c;
        return;
    }
    c -= 0x10000;
    s += (char16_t)(0xD800 + (c >> 10));
    s += (char16_t)(0xDC00 + (c & 0x3FF));
}

bool IsHighSurrogate(char32_t c) { return c >= 0xD800 && c <= 0xDBFF; }
bool IsLowSurrogate(char32_t c) { return c >= 0xDC00 && c <= 0xDFFF; }

// Decodes one UTF-8 sequence at `i`, moving `i` behind it. Anything that is
// not the shortest form of a scalar value costs one byte and gives U+FFFD.
char32_t DecodeUtf8(const std::string& s, size_t& i)
{
    unsigned char b = (unsigned char)s[i++];
    if (b < 0x80)
        return b;
    int nMore = b >= 0xF0 ? 3 : (b >= 0xE0 ? 2 : (b >= 0xC0 ? 1 : -1));
    if (nMore < 0 || b > 0xF4 || i + nMore > s.size())
        return 0xFFFD;
    char32_t c = b & (0x3F >> nMore);
    for (int k = 0; k < nMore; ++k)
    {
        unsigned char t = (unsigned char)s[i + k];
        if ((t & 0xC0) != 0x80)
            return 0xFFFD;
        c = (c << 6) | (t & 0x3F);
    }
    static const char32_t kMinimum[4] = {0, 0x80, 0x800, 0x10000};
    if (c < kMinimum[nMore] || c > 0x10FFFF || (c >= 0xD800 && c <= 0xDFFF))
        return 0xFFFD;
    i += nMore;
    return c;
}

// Windows form with its separators unified to "\", cut at the first zero
// unit as the platform's null-terminated strings were.
std::u16string WithBackslashes(const std::u16string& sPath)
{
    std::u16string s = sPath.substr(0, sPath.find(u'\0'));
    for (char16_t& ch : s)
        if (ch == u'/')
            ch = u'\\';
    return s;
}

// Resolves "." and ".." by text alone; ".." at the root stays at the root.
// The result keeps a trailing backslash when the path ended in one.
std::u16string ResolveDots(const std::u16string& sAbsolute)
{
    std::vector<std::u16string> vSegments;
    size_t nStart = 0;
    while (nStart <= sAbsolute.size())
    {
        size_t nEnd = sAbsolute.find(u'\\', nStart);
        if (nEnd == std::u16string::npos)
            nEnd = sAbsolute.size();
        std::u16string sSeg = sAbsolute.substr(nStart, nEnd - nStart);
        if (sSeg == u"..")
        {
            if (!vSegments.empty())
                vSegments.pop_back();
        }
        else if (!sSeg.empty() && sSeg != u".")
            vSegments.push_back(sSeg);
        nStart = nEnd + 1;
    }
    std::u16string sOut;
    for (const auto& sSeg : vSegments)
        sOut += u'\\' + sSeg;
    if (sOut.empty() || sAbsolute.back() == u'\\')
        sOut += u'\\';
    return sOut;
}

std::string CurrentFolder()
{
    std::vector<char> vch(256);
    while (getcwd(vch.data(), vch.size()) == nullptr)
    {
        if (errno != ERANGE)
            return "/";
        vch.resize(vch.size() * 2);
    }
    return vch.data();
}

std::string ExecutablePath()
{
    std::vector<char> vch(256);
    for (;;)
    {
        ssize_t n = readlink("/proc/self/exe", vch.data(), vch.size());
        if (n < 0)
            return {};
        if ((size_t)n < vch.size())
            return std::string(vch.data(), (size_t)n);
        vch.resize(vch.size() * 2);
    }
}

// ---- time ----

QB_SystemTime FromTm(const struct tm& t, long lNanoseconds)
{
    QB_SystemTime st;
    st.wYear = (uint16_t)(t.tm_year + 1900);
    st.wMonth = (uint16_t)(t.tm_mon + 1);
    st.wDayOfWeek = (uint16_t)t.tm_wday;
    st.wDay = (uint16_t)t.tm_mday;
    st.wHour = (uint16_t)t.tm_hour;
    st.wMinute = (uint16_t)t.tm_min;
    st.wSecond = (uint16_t)t.tm_sec;
    st.wMilliseconds = (uint16_t)(lNanoseconds / 1000000);
    return st;
}

QB_SystemTime LocalFromSeconds(int64_t llSeconds, long lNanoseconds)
{
    // localtime_r reads the zone only once; a change of TZ should show.
    tzset();
    time_t t = (time_t)llSeconds;
    struct tm tmLocal = {};
    localtime_r(&t, &tmLocal);
    return FromTm(tmLocal, lNanoseconds);
}

void StoreTime(QB_SystemTime* pOut, const struct statx_timestamp& ts)
{
    if (pOut)
        *pOut = LocalFromSeconds(ts.tv_sec, ts.tv_nsec);
}

// ---- the open-file table ----

struct OpenRecord
{
    dev_t dev;
    ino_t ino;
    uint32_t ulAccess;  // kAccessRead / kAccessWrite
    uint32_t ulDeny;    // the same bits: what others may not do
    std::string sPath;  // for taking a parked handle's descriptor again
    int nFlags = 0;     // its open flags, without those that create or cut
    int nFd = -1;       // -1 while parked
    off_t llPos = 0;    // the position kept while parked
    uint64_t ullLastUse = 0;  // its key in the live handles' order of use
};

// Whether an open record of the same file forbids the request, or the
// request forbids what the record already does.
bool Clashes(const OpenRecord& rec, uint32_t ulAccess, uint32_t ulDeny)
{
    return (ulAccess & rec.ulDeny) != 0 || (rec.ulAccess & ulDeny) != 0;
}

struct OpenRequest
{
    int nFlags = 0;
    uint32_t ulAccess = 0;
    uint32_t ulDeny = 0;
    uint32_t ulCreation = 0;
    mode_t mode = 0666;
};

// False for a mode word that Windows would refuse.
bool ParseMode(uint32_t ulMode, OpenRequest& req)
{
    req.ulAccess = ulMode & kAccessMask;
    req.ulDeny = (ulMode >> 4) & kAccessMask;
    req.ulCreation = ulMode & kCreationMask;
    if (req.ulCreation == 0)
        req.ulCreation = kOpenExisting;
    static const int kAccessFlags[4] = {0, O_RDONLY, O_WRONLY, O_RDWR};
    if (req.ulAccess == 0)
        return false;
    req.nFlags = kAccessFlags[req.ulAccess] | O_CLOEXEC | O_NONBLOCK;
    switch (req.ulCreation)
    {
    case kOpenExisting: break;
    case kOpenAlways: req.nFlags |= O_CREAT; break;
    case kCreateAlways: req.nFlags |= O_CREAT | O_TRUNC; break;
    case kCreateNew: req.nFlags |= O_CREAT | O_EXCL; break;
    default: return false;
    }
    if (ulMode & kAttrReadOnly)
        req.mode = 0444;
    if (ulMode & kNoLink)
        req.nFlags |= O_NOFOLLOW;
    return true;
}

class QB_EnvPosix : public QB_Env
{
public:
    QB_FileHandle OpenFile(const std::u16string& sPath, uint32_t ulMode) override;
    QB_FileHandle OpenFileBelow(const std::u16string& sBase, const std::u16string& sBelow, uint32_t ulMode,
                                bool* pbLink) override;
    bool CloseFile(QB_FileHandle hFile) override;
    int32_t ReadFile(QB_FileHandle hFile, void* pBuf, int32_t nCount) override;
    int32_t WriteFile(QB_FileHandle hFile, const void* pBuf, int32_t nCount) override;
    int64_t SeekFile(QB_FileHandle hFile, int64_t llOffset, int nOrigin) override;
    bool SetEndOfFile(QB_FileHandle hFile) override;
    bool FlushFile(QB_FileHandle hFile) override;
    int64_t GetFileSize(QB_FileHandle hFile) override;
    bool GetFileTimes(QB_FileHandle hFile, QB_SystemTime* pCreation, QB_SystemTime* pLastWrite,
                      QB_SystemTime* pLastAccess) override;
    bool GetFileId(QB_FileHandle hFile, uint64_t* pDevice, uint64_t* pNumber) override;

    bool DeleteFile(const std::u16string& sPath) override;
    uint32_t GetFileAttributes(const std::u16string& sPath) override;
    int64_t GetFileSizeByName(const std::u16string& sPath) override;
    bool CreateDirectory(const std::u16string& sPath) override;
    bool MoveFile(const std::u16string& sFrom, const std::u16string& sTo) override;
    bool FlushFolder(const std::u16string& sFolder) override;
    std::u16string GetFullPathName(const std::u16string& sPath) override;
    std::u16string GetModuleFolder() override;

    uint32_t GetTickCount() override;
    int64_t GetTimeT() override;
    void GetLocalTime(QB_SystemTime* pTime) override;
    int32_t GetTimeZoneBias() override;

    void NewGuid(uint8_t abGuid[16]) override;

    int32_t ReadFileAt(QB_FileHandle hFile, int64_t llOffset, void* pBuf, int32_t nCount) override;
    int32_t WriteFileAt(QB_FileHandle hFile, int64_t llOffset, const void* pBuf, int32_t nCount) override;

private:
    // Guards m_mapOpen, and is held across each operation on a handle, so
    // that no other thread parks the descriptor in use.
    std::mutex m_mutex;
    std::map<QB_FileHandle, OpenRecord> m_mapOpen;
    // The same handles by file, so that an open meets only the handles of
    // its own file, not every file this process holds.
    using FileKey = std::pair<dev_t, ino_t>;
    std::multimap<FileKey, QB_FileHandle> m_mapByFile;
    // Handles are numbered apart from descriptors, so that a descriptor
    // passed by mistake is not taken for a handle.
    QB_FileHandle m_hNext = 0x100000;
    uint64_t m_ullUseClock = 0;
    // The handles that hold a descriptor, the least recently used first, so
    // that parking one costs the same with ten files open or ten thousand.
    std::map<uint64_t, QB_FileHandle> m_mapLive;
    size_t m_nLive = 0;  // handles that hold a descriptor

    void MarkUsed(QB_FileHandle hFile, OpenRecord& rec);

    int LiveFd(QB_FileHandle hFile);
    int OpenWithRoom(const std::string& sPath, int nFlags, mode_t mode, QB_FileHandle hKeep);
    bool ParkOldest(QB_FileHandle hKeep);
    bool MayOpen(const std::string& sPath, const OpenRequest& req);
    bool MayOpenFile(const struct stat& st, const OpenRequest& req);
    QB_FileHandle Admit(int nFd, const OpenRequest& req, const std::string& sSystem, int nReopenFlags);
};

// The descriptor of a handle, taken again if the handle was parked; -1 for
// a handle this environment did not give out, so a stale or made-up value
// can't reach another descriptor of the process. The caller holds m_mutex.
int QB_EnvPosix::LiveFd(QB_FileHandle hFile)
{
    auto it = m_mapOpen.find(hFile);
    if (it == m_mapOpen.end())
        return -1;
    OpenRecord& rec = it->second;
    if (rec.nFd >= 0)
    {
        MarkUsed(hFile, rec);
        return rec.nFd;
    }
    int nFd = OpenWithRoom(rec.sPath, rec.nFlags, 0, hFile);
    struct stat st;
    if (nFd >= 0 && (fstat(nFd, &st) != 0 || st.st_dev != rec.dev || st.st_ino != rec.ino ||
                     lseek(nFd, rec.llPos, SEEK_SET) != rec.llPos))
    {
        close(nFd);
        --m_nLive;
        return -1;
    }
    rec.nFd = nFd;
    MarkUsed(hFile, rec);
    return nFd;
}

// Moves a live handle to the newest end of the order of use, or puts a
// handle taken again from parking there. Block after block of one file
// finds it there already, and an entry moves without an allocation.
void QB_EnvPosix::MarkUsed(QB_FileHandle hFile, OpenRecord& rec)
{
    if (rec.ullLastUse == m_ullUseClock)
        return;
    auto node = m_mapLive.extract(rec.ullLastUse);
    rec.ullLastUse = ++m_ullUseClock;
    if (node.empty())
        m_mapLive.emplace(rec.ullLastUse, hFile);
    else
    {
        node.key() = rec.ullLastUse;
        m_mapLive.insert(std::move(node));
    }
}

size_t LiveBudget()
{
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY || limit.rlim_cur > (1u << 24))
        return (size_t)1 << 23;
    return std::max<size_t>((size_t)limit.rlim_cur / 2, 1);
}

// Parks handles, the least recently used first, to stay within the budget
// and while the system has no descriptor to give. hKeep is never parked.
// The caller holds m_mutex.
int QB_EnvPosix::OpenWithRoom(const std::string& sPath, int nFlags, mode_t mode, QB_FileHandle hKeep)
{
    for (const size_t nBudget = LiveBudget(); m_nLive >= nBudget && ParkOldest(hKeep);)
    {
    }
    for (;;)
    {
        int nFd = open(sPath.c_str(), nFlags, mode);
        if (nFd >= 0)
            ++m_nLive;
        if (nFd >= 0 || (errno != EMFILE && errno != ENFILE) || !ParkOldest(hKeep))
            return nFd;
    }
}

bool QB_EnvPosix::ParkOldest(QB_FileHandle hKeep)
{
    auto itOldest = m_mapLive.begin();
    if (itOldest != m_mapLive.end() && itOldest->second == hKeep)
        ++itOldest;
    if (itOldest == m_mapLive.end())
        return false;
    OpenRecord& rec = m_mapOpen.at(itOldest->second);
    m_mapLive.erase(itOldest);
    rec.llPos = lseek(rec.nFd, 0, SEEK_CUR);
    close(rec.nFd);
    rec.nFd = -1;
    rec.ullLastUse = 0;  // out of the order of use until it is taken again
    --m_nLive;
    return true;
}

// Checks an existing file against the sharing table and its read-only state.
// The caller holds m_mutex.
bool QB_EnvPosix::MayOpen(const std::string& sPath, const OpenRequest& req)
{
    struct stat st;
    if (stat(sPath.c_str(), &st) != 0)
        return true;  // a missing file: open() itself decides
    return MayOpenFile(st, req);
}

bool QB_EnvPosix::MayOpenFile(const struct stat& st, const OpenRequest& req)
{
    if (!S_ISREG(st.st_mode))
        return false;
    bool bWrites = (req.ulAccess & kAccessWrite) || req.ulCreation == kCreateAlways;
    if (bWrites && (st.st_mode & kAnyWriteBit) == 0)
        return false;
    auto range = m_mapByFile.equal_range(FileKey{st.st_dev, st.st_ino});
    for (auto it = range.first; it != range.second; ++it)
        if (Clashes(m_mapOpen.at(it->second), req.ulAccess, req.ulDeny))
            return false;
    return true;
}

QB_FileHandle QB_EnvPosix::OpenFile(const std::u16string& sPath, uint32_t ulMode)
{
    OpenRequest req;
    std::string sSystem = QB_PathToSystem(sPath);
    if (sSystem.empty() || !ParseMode(ulMode, req))
        return QB_INVALID_FILE;
    // Held across the check and the open, so two threads can't both pass the
    // sharing check before either is in the table.
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!MayOpen(sSystem, req))
        return QB_INVALID_FILE;
    int nFd = OpenWithRoom(sSystem, req.nFlags, req.mode, QB_INVALID_FILE);
    if (nFd < 0)
        return QB_INVALID_FILE;
    return Admit(nFd, req, sSystem, req.nFlags & ~(O_CREAT | O_TRUNC | O_EXCL));
}

namespace {

// The names of a relative path, or none when one of them is "." or "..".
std::vector<std::string> NamesOf(const std::string& sPath)
{
    std::vector<std::string> vecName;
    size_t nAt = 0;
    while (nAt <= sPath.size())
    {
        size_t nEnd = sPath.find('/', nAt);
        if (nEnd == std::string::npos)
            nEnd = sPath.size();
        const std::string sName = sPath.substr(nAt, nEnd - nAt);
        if (sName == "." || sName == "..")
            return {};
        if (!sName.empty())
            vecName.push_back(sName);
        nAt = nEnd + 1;
    }
    return vecName;
}

// Whether a name in the folder nDir is a symbolic link.
bool IsLinkAt(int nDir, const char* pszName)
{
    struct stat st;
    return fstatat(nDir, pszName, &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISLNK(st.st_mode);
}

} // namespace

QB_FileHandle QB_EnvPosix::OpenFileBelow(const std::u16string& sBase, const std::u16string& sBelow, uint32_t ulMode,
                                         bool* pbLink)
{
    bool bLink = false;
    if (pbLink == nullptr)
        pbLink = &bLink;
    *pbLink = false;
    OpenRequest req;
    std::string sBaseSystem = sBase.empty() ? std::string(".") : QB_PathToSystem(sBase);
    const std::vector<std::string> vecName = NamesOf(QB_PathToSystem(sBelow));
    if (sBaseSystem.empty() || vecName.empty() || !ParseMode(ulMode, req))
        return QB_INVALID_FILE;
    std::lock_guard<std::mutex> lock(m_mutex);
    int nDir = open(sBaseSystem.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    for (size_t i = 0; nDir >= 0 && i + 1 < vecName.size(); ++i)
    {
        const char* pszName = vecName[i].c_str();
        int nNext = -1;
        if (mkdirat(nDir, pszName, 0777) == 0 || errno == EEXIST)
            nNext = openat(nDir, pszName, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        if (nNext < 0)
            *pbLink = IsLinkAt(nDir, pszName);
        close(nDir);
        nDir = nNext;
    }
    if (nDir < 0)
        return QB_INVALID_FILE;
    const char* pszFile = vecName.back().c_str();
    struct stat st;
    // The sharing check comes before an open that could make or cut the file.
    if (fstatat(nDir, pszFile, &st, AT_SYMLINK_NOFOLLOW) == 0 && !MayOpenFile(st, req))
    {
        *pbLink = S_ISLNK(st.st_mode);
        close(nDir);
        return QB_INVALID_FILE;
    }
    for (const size_t nBudget = LiveBudget(); m_nLive >= nBudget && ParkOldest(QB_INVALID_FILE);)
    {
    }
    const int nFd = openat(nDir, pszFile, req.nFlags | O_NOFOLLOW, req.mode);
    if (nFd < 0)
        *pbLink = IsLinkAt(nDir, pszFile);
    close(nDir);
    if (nFd < 0)
        return QB_INVALID_FILE;
    ++m_nLive;
    if (sBaseSystem.back() != '/')
        sBaseSystem += '/';
    std::string sSystem = sBaseSystem;
    for (size_t i = 0; i < vecName.size(); ++i)
        sSystem += (i == 0 ? "" : "/") + vecName[i];
    // A parked handle is opened again by this name only onto the same file.
    return Admit(nFd, req, sSystem, (req.nFlags | O_NOFOLLOW) & ~(O_CREAT | O_TRUNC | O_EXCL));
}

// Takes an open descriptor into the table; the caller holds m_mutex.
QB_FileHandle QB_EnvPosix::Admit(int nFd, const OpenRequest& req, const std::string& sSystem, int nReopenFlags)
{
    struct stat st;
    if (fstat(nFd, &st) != 0 || !S_ISREG(st.st_mode))
    {
        close(nFd);
        --m_nLive;
        return QB_INVALID_FILE;
    }
    const QB_FileHandle hFile = m_hNext++;
    m_mapOpen[hFile] =
        OpenRecord{st.st_dev, st.st_ino, req.ulAccess, req.ulDeny, sSystem, nReopenFlags, nFd, 0, ++m_ullUseClock};
    m_mapLive.emplace(m_ullUseClock, hFile);
    m_mapByFile.emplace(FileKey{st.st_dev, st.st_ino}, hFile);
    return hFile;
}

bool QB_EnvPosix::CloseFile(QB_FileHandle hFile)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    auto it = m_mapOpen.find(hFile);
    if (it == m_mapOpen.end())
        return false;
    const int nFd = it->second.nFd;
    const uint64_t ullLastUse = it->second.ullLastUse;
    auto range = m_mapByFile.equal_range(FileKey{it->second.dev, it->second.ino});
    for (auto itFile = range.first; itFile != range.second; ++itFile)
        if (itFile->second == hFile)
        {
            m_mapByFile.erase(itFile);
            break;
        }
    m_mapOpen.erase(it);
    if (nFd < 0)
        return true;
    m_mapLive.erase(ullLastUse);
    --m_nLive;
    return close(nFd) == 0;
}

namespace {

// A file gives the whole count unless its end comes first, so short reads
// and writes of the kernel are continued here. llOffset below 0 moves the
// bytes at the file's own position.
int32_t ReadFully(int nFd, int64_t llOffset, void* pBuf, int32_t nCount)
{
    int32_t nDone = 0;
    while (nDone < nCount)
    {
        char* pTo = (char*)pBuf + nDone;
        size_t nLeft = (size_t)(nCount - nDone);
        ssize_t n = llOffset < 0 ? read(nFd, pTo, nLeft) : pread(nFd, pTo, nLeft, (off_t)(llOffset + nDone));
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return -1;
        if (n == 0)
            break;
        nDone += (int32_t)n;
    }
    return nDone;
}

int32_t WriteFully(int nFd, int64_t llOffset, const void* pBuf, int32_t nCount)
{
    int32_t nDone = 0;
    while (nDone < nCount)
    {
        const char* pFrom = (const char*)pBuf + nDone;
        size_t nLeft = (size_t)(nCount - nDone);
        ssize_t n = llOffset < 0 ? write(nFd, pFrom, nLeft) : pwrite(nFd, pFrom, nLeft, (off_t)(llOffset + nDone));
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return -1;
        nDone += (int32_t)n;
    }
    return nDone;
}

}  // namespace

int32_t QB_EnvPosix::ReadFile(QB_FileHandle hFile, void* pBuf, int32_t nCount)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    int nFd = LiveFd(hFile);
    return !pBuf || nCount < 0 || nFd < 0 ? -1 : ReadFully(nFd, -1, pBuf, nCount);
}

int32_t QB_EnvPosix::WriteFile(QB_FileHandle hFile, const void* pBuf, int32_t nCount)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    int nFd = LiveFd(hFile);
    return !pBuf || nCount < 0 || nFd < 0 ? -1 : WriteFully(nFd, -1, pBuf, nCount);
}

int32_t QB_EnvPosix::ReadFileAt(QB_FileHandle hFile, int64_t llOffset, void* pBuf, int32_t nCount)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    int nFd = LiveFd(hFile);
    return !pBuf || nCount < 0 || llOffset < 0 || nFd < 0 ? -1 : ReadFully(nFd, llOffset, pBuf, nCount);
}

int32_t QB_EnvPosix::WriteFileAt(QB_FileHandle hFile, int64_t llOffset, const void* pBuf, int32_t nCount)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    int nFd = LiveFd(hFile);
    return !pBuf || nCount < 0 || llOffset < 0 || nFd < 0 ? -1 : WriteFully(nFd, llOffset, pBuf, nCount);
}

int64_t QB_EnvPosix::SeekFile(QB_FileHandle hFile, int64_t llOffset, int nOrigin)
{
    static const int kWhence[3] = {SEEK_SET, SEEK_CUR, SEEK_END};
    if (nOrigin < QB_SEEK_BEGIN || nOrigin > QB_SEEK_END)
        return -1;
    std::lock_guard<std::mutex> lock(m_mutex);
    int nFd = LiveFd(hFile);
    off_t pos = nFd < 0 ? -1 : lseek(nFd, (off_t)llOffset, kWhence[nOrigin]);
    return pos < 0 ? -1 : (int64_t)pos;
}

bool QB_EnvPosix::SetEndOfFile(QB_FileHandle hFile)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    int nFd = LiveFd(hFile);
    off_t pos = nFd < 0 ? -1 : lseek(nFd, 0, SEEK_CUR);
    return pos >= 0 && ftruncate(nFd, pos) == 0;
}

bool QB_EnvPosix::FlushFile(QB_FileHandle hFile)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    int nFd = LiveFd(hFile);
    return nFd >= 0 && fsync(nFd) == 0;
}

int64_t QB_EnvPosix::GetFileSize(QB_FileHandle hFile)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    int nFd = LiveFd(hFile);
    struct stat st;
    if (nFd < 0 || fstat(nFd, &st) != 0)
        return -1;
    return (int64_t)st.st_size;
}

bool QB_EnvPosix::GetFileTimes(QB_FileHandle hFile, QB_SystemTime* pCreation, QB_SystemTime* pLastWrite,
                               QB_SystemTime* pLastAccess)
{
    struct statx stx;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        int nFd = LiveFd(hFile);
        if (nFd < 0 || statx(nFd, "", AT_EMPTY_PATH, STATX_BASIC_STATS | STATX_BTIME, &stx) != 0)
            return false;
    }
    // Not every file system keeps a birth time; the status change time is
    // the nearest thing it has.
    StoreTime(pCreation, (stx.stx_mask & STATX_BTIME) ? stx.stx_btime : stx.stx_ctime);
    StoreTime(pLastWrite, stx.stx_mtime);
    StoreTime(pLastAccess, stx.stx_atime);
    return true;
}

// Taken when the handle was opened, from the descriptor itself, and held
// by a parked handle too: a handle is reopened only onto the same pair.
bool QB_EnvPosix::GetFileId(QB_FileHandle hFile, uint64_t* pDevice, uint64_t* pNumber)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    const auto it = m_mapOpen.find(hFile);
    if (it == m_mapOpen.end() || pDevice == nullptr || pNumber == nullptr)
        return false;
    *pDevice = (uint64_t)it->second.dev;
    *pNumber = (uint64_t)it->second.ino;
    return true;
}

bool QB_EnvPosix::DeleteFile(const std::u16string& sPath)
{
    std::string sSystem = QB_PathToSystem(sPath);
    struct stat st;
    if (sSystem.empty() || lstat(sSystem.c_str(), &st) != 0 || S_ISDIR(st.st_mode))
        return false;
    if (S_ISREG(st.st_mode) && (st.st_mode & kAnyWriteBit) == 0)
        return false;
    return unlink(sSystem.c_str()) == 0;
}

uint32_t QB_EnvPosix::GetFileAttributes(const std::u16string& sPath)
{
    std::string sSystem = QB_PathToSystem(sPath);
    struct stat st;
    if (sSystem.empty() || stat(sSystem.c_str(), &st) != 0)
        return QB_ATTR_INVALID;
    if (S_ISDIR(st.st_mode))
        return QB_ATTR_DIRECTORY;
    return (st.st_mode & kAnyWriteBit) == 0 ? QB_ATTR_READONLY : QB_ATTR_NORMAL;
}

int64_t QB_EnvPosix::GetFileSizeByName(const std::u16string& sPath)
{
    std::string sSystem = QB_PathToSystem(sPath);
    struct stat st;
    if (sSystem.empty() || lstat(sSystem.c_str(), &st) != 0 || !S_ISREG(st.st_mode))
        return -1;
    return (int64_t)st.st_size;
}

bool QB_EnvPosix::CreateDirectory(const std::u16string& sPath)
{
    std::string sSystem = QB_PathToSystem(sPath);
    return !sSystem.empty() && mkdir(sSystem.c_str(), 0777) == 0;
}

// A read-only target is kept, as Windows keeps it.
bool QB_EnvPosix::MoveFile(const std::u16string& sFrom, const std::u16string& sTo)
{
    std::string sSystemFrom = QB_PathToSystem(sFrom);
    std::string sSystemTo = QB_PathToSystem(sTo);
    struct stat st;
    if (sSystemFrom.empty() || sSystemTo.empty())
        return false;
    if (lstat(sSystemTo.c_str(), &st) == 0 && (S_ISDIR(st.st_mode) || (st.st_mode & kAnyWriteBit) == 0))
        return false;
    return rename(sSystemFrom.c_str(), sSystemTo.c_str()) == 0;
}

bool QB_EnvPosix::FlushFolder(const std::u16string& sFolder)
{
    std::string sSystem = QB_PathToSystem(sFolder);
    if (sSystem.empty())
        return false;
    int nFd = open(sSystem.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (nFd < 0)
        return false;
    bool bSynced = fsync(nFd) == 0;
    close(nFd);
    return bSynced;
}

std::u16string QB_EnvPosix::GetFullPathName(const std::u16string& sPath)
{
    std::u16string s = WithBackslashes(sPath);
    if (s.empty())
        return s;
    if (s[0] != u'\\')
        s = QB_PathFromSystem(CurrentFolder()) + u'\\' + s;
    return ResolveDots(s);
}

std::u16string QB_EnvPosix::GetModuleFolder()
{
    const char* pszHome = getenv("ROOMCRATE_HOME");
    std::u16string s;
    if (pszHome && *pszHome)
        s = QB_PathFromSystem(pszHome);
    else
    {
        std::string sExe = ExecutablePath();
        s = QB_PathFromSystem(sExe.substr(0, sExe.rfind('/') + 1));
    }
    if (s.empty() || s.back() != u'\\')
        s += u'\\';
    return s;
}

uint32_t QB_EnvPosix::GetTickCount()
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    uint64_t ullMs = (uint64_t)ts.tv_sec * 1000u + (uint64_t)ts.tv_nsec / 1000000u;
    return (uint32_t)ullMs;
}

int64_t QB_EnvPosix::GetTimeT()
{
    return (int64_t)time(nullptr);
}

void QB_EnvPosix::GetLocalTime(QB_SystemTime* pTime)
{
    if (!pTime)
        return;
    struct timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    *pTime = LocalFromSeconds(ts.tv_sec, ts.tv_nsec);
}

int32_t QB_EnvPosix::GetTimeZoneBias()
{
    tzset();
    return (int32_t)timezone;
}

void QB_EnvPosix::NewGuid(uint8_t abGuid[16])
{
    std::random_device rd;
    for (int i = 0; i < 16; i += 4)
    {
        uint32_t ul = rd();
        for (int k = 0; k < 4; ++k)
            abGuid[i + k] = (uint8_t)(ul >> (8 * k));
    }
}

std::atomic<QB_Env*> g_lpEnv{nullptr};

}  // namespace

QB_Env* QB_GetDefaultEnv()
{
    // Never destroyed: logging may still ask for it while statics go away.
    // It lives in the library's own storage, not on the heap, so a host that
    // unloads the library does not leave it behind.
    alignas(QB_EnvPosix) static unsigned char s_abStorage[sizeof(QB_EnvPosix)];
    static QB_Env* s_lpDefault = new (s_abStorage) QB_EnvPosix;
    return s_lpDefault;
}

QB_Env* QB_GetEnv()
{
    QB_Env* lpEnv = g_lpEnv.load();
    return lpEnv ? lpEnv : QB_GetDefaultEnv();
}

QB_Env* QB_SetEnv(QB_Env* lpEnv)
{
    QB_Env* lpPrevious = g_lpEnv.exchange(lpEnv);
    return lpPrevious ? lpPrevious : QB_GetDefaultEnv();
}

bool QB_SetEnvironmentVariable(const char* pszName, const char* pszValue)
{
    if (!pszName || !*pszName || std::string(pszName).find('=') != std::string::npos)
        return false;
    return (pszValue ? setenv(pszName, pszValue, 1) : unsetenv(pszName)) == 0;
}

std::string QB_PathToSystem(const std::u16string& sPath)
{
    std::u16string s = WithBackslashes(sPath);
    std::string sOut;
    sOut.reserve(s.size());
    for (size_t i = 0; i < s.size(); ++i)
    {
        char32_t c = s[i];
        if (IsHighSurrogate(c) && i + 1 < s.size() && IsLowSurrogate(s[i + 1]))
            c = 0x10000 + ((c - 0xD800) << 10) + (s[++i] - 0xDC00);
        else if (IsHighSurrogate(c) || IsLowSurrogate(c))
            c = 0xFFFD;
        else if (c == u'\\')
            c = u'/';
        AppendUtf8(sOut, c);
    }
    return sOut;
}

std::u16string QB_PathFromSystem(const std::string& sPath)
{
    std::u16string sOut;
    sOut.reserve(sPath.size());
    size_t i = 0;
    while (i < sPath.size())
    {
        char32_t c = DecodeUtf8(sPath, i);
        AppendUtf16(sOut, c == U'/' ? U'\\' : c);
    }
    return sOut;
}
