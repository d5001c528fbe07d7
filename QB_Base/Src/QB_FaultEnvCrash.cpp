// The crash of QB_FaultEnv: what the disk would keep of each file and each
// name if the machine stopped now, and the undoing of the rest.
//
// A file's bytes are kept as its last sync left them (or as tracking found
// them) from its first change on, with the ranges written since; a sync
// makes its current bytes the kept ones. A change of names (a file made,
// removed or renamed) is kept with what it replaced until every folder it
// touched has been synced. A crash undoes the changes of names from the
// last to the first, then treats each file's unsynced bytes as asked.
#include "QB_FaultEnvCrash.h"

#include "QB_FileEx.h"

#include <algorithm>

namespace {

std::u16string FolderOf(const std::u16string& sFullPath)
{
    return sFullPath.substr(0, sFullPath.rfind(u'\\') + 1);
}

}  // namespace

QB_FaultDisk::QB_FaultDisk(QB_Env* lpTarget) : m_lpTarget(lpTarget) {}

std::u16string QB_FaultDisk::FullPath(const std::u16string& sPath) const
{
    return m_lpTarget->GetFullPathName(sPath);
}

std::u16string QB_FaultDisk::FullFolder(const std::u16string& sFolder) const
{
    std::u16string s = FullPath(sFolder);
    if (s.empty() || s.back() != u'\\')
        s += u'\\';
    return s;
}

bool QB_FaultDisk::ReadWhole(const std::u16string& sPath, std::string& sBytes) const
{
    sBytes.clear();
    QB_FileHandle hFile = m_lpTarget->OpenFile(sPath, QB_FILE_READ | QB_FILE_OPEN_EXISTING);
    if (hFile == QB_INVALID_FILE)
        return false;
    const int64_t llSize = m_lpTarget->GetFileSize(hFile);
    sBytes.resize(llSize > 0 ? (size_t)llSize : 0);
    const int32_t nRead = sBytes.empty() ? 0 : m_lpTarget->ReadFileAt(hFile, 0, sBytes.data(), (int32_t)sBytes.size());
    m_lpTarget->CloseFile(hFile);
    sBytes.resize(nRead > 0 ? (size_t)nRead : 0);
    return true;
}

void QB_FaultDisk::WriteWhole(const std::u16string& sPath, const std::string& sBytes) const
{
    QB_FileHandle hFile = m_lpTarget->OpenFile(sPath, QB_FILE_WRITE | QB_FILE_CREATE_ALWAYS);
    if (hFile == QB_INVALID_FILE)
        return;
    if (!sBytes.empty())
        m_lpTarget->WriteFileAt(hFile, 0, sBytes.data(), (int32_t)sBytes.size());
    m_lpTarget->CloseFile(hFile);
}

QB_FaultDisk::Victim QB_FaultDisk::VictimAt(const std::u16string& sFullPath)
{
    Victim victim;
    victim.bExisted = ReadWhole(sFullPath, victim.sNow);
    auto it = m_mapDirty.find(sFullPath);
    victim.sKept = it == m_mapDirty.end() ? victim.sNow : it->second.sKept;
    if (it != m_mapDirty.end())
        m_mapDirty.erase(it);
    return victim;
}

void QB_FaultDisk::Track()
{
    m_bTracking = true;
    m_mapDirty.clear();
    m_vecNames.clear();
}

bool QB_FaultDisk::CountStep()
{
    ++m_nSteps;
    if (m_bDown)
        return true;
    if (m_nStepsToCrash > 0 && --m_nStepsToCrash == 0)
    {
        CrashNow(m_armedLoss);
        return true;
    }
    return false;
}

bool QB_FaultDisk::IsDead(QB_FileHandle hFile) const
{
    auto it = m_mapHandles.find(hFile);
    return m_bDown || (it != m_mapHandles.end() && it->second.bDead);
}

const std::u16string* QB_FaultDisk::PathOf(QB_FileHandle hFile) const
{
    auto it = m_mapHandles.find(hFile);
    return it == m_mapHandles.end() ? nullptr : &it->second.sPath;
}

void QB_FaultDisk::BeforeOpen(const std::u16string& sPath, uint32_t ulMode, bool& bExisted)
{
    // Whether the file was there matters only to a disk that keeps track.
    bExisted = !m_bTracking || m_lpTarget->GetFileAttributes(sPath) != QB_ATTR_INVALID;
    const uint32_t ulCreation = ulMode & QB_FILE_CREATION_MASK;
    if (m_bTracking && bExisted && ulCreation == QB_FILE_CREATE_ALWAYS)
        Dirty(FullPath(sPath));  // the cut to nothing is a change of bytes
}

void QB_FaultDisk::Opened(QB_FileHandle hFile, const std::u16string& sPath, bool bExisted)
{
    const std::u16string sFull = FullPath(sPath);
    m_mapHandles[hFile] = Handle{sFull, false};
    if (!m_bTracking || bExisted)
        return;
    m_mapDirty[sFull] = DirtyFile{};  // nothing of a new file is kept yet
    m_vecNames.push_back(NameChange{NameChange::Made, sFull, {}, {FolderOf(sFull)}, {}});
}

void QB_FaultDisk::Closed(QB_FileHandle hFile)
{
    m_mapHandles.erase(hFile);
}

QB_FaultDisk::DirtyFile& QB_FaultDisk::Dirty(const std::u16string& sFullPath)
{
    auto it = m_mapDirty.find(sFullPath);
    if (it != m_mapDirty.end())
        return it->second;
    DirtyFile& dirty = m_mapDirty[sFullPath];
    ReadWhole(sFullPath, dirty.sKept);
    return dirty;
}

void QB_FaultDisk::BeforeWrite(QB_FileHandle hFile, int64_t llOffset, int64_t llCount)
{
    const std::u16string* lpPath = PathOf(hFile);
    if (m_bTracking && lpPath)
        Dirty(*lpPath).vecWritten.emplace_back(llOffset, llCount);
}

void QB_FaultDisk::AfterSync(QB_FileHandle hFile)
{
    const std::u16string* lpPath = PathOf(hFile);
    if (m_bTracking && lpPath)
        m_mapDirty.erase(*lpPath);
}

bool QB_FaultDisk::CutWrite(QB_FileHandle hFile, int64_t llOffset, const void* pBuf, int32_t nCount)
{
    if (m_llBytesToCrash < 0 || nCount < m_llBytesToCrash)
    {
        if (m_llBytesToCrash >= 0)
            m_llBytesToCrash -= nCount;
        return false;
    }
    const int32_t nPart = (int32_t)m_llBytesToCrash;
    m_llBytesToCrash = -1;
    if (nPart > 0)
    {
        BeforeWrite(hFile, llOffset, nPart);
        m_lpTarget->WriteFileAt(hFile, llOffset, pBuf, nPart);
    }
    CrashNow(m_armedLoss);
    return true;
}

void QB_FaultDisk::BeforeDelete(const std::u16string& sPath, Victim& victim)
{
    if (m_bTracking)
        victim = VictimAt(FullPath(sPath));
}

void QB_FaultDisk::Deleted(const std::u16string& sPath, Victim&& victim)
{
    if (!m_bTracking)
        return;
    const std::u16string sFull = FullPath(sPath);
    m_vecNames.push_back(NameChange{NameChange::Removed, sFull, {}, {FolderOf(sFull)}, std::move(victim)});
}

void QB_FaultDisk::BeforeMove(const std::u16string& sTo, Victim& victim)
{
    if (m_bTracking)
        victim = VictimAt(FullPath(sTo));
}

void QB_FaultDisk::Moved(const std::u16string& sFrom, const std::u16string& sTo, Victim&& victim)
{
    const std::u16string sFullFrom = FullPath(sFrom);
    const std::u16string sFullTo = FullPath(sTo);
    for (auto& [hFile, handle] : m_mapHandles)
        if (handle.sPath == sFullFrom)
            handle.sPath = sFullTo;
    if (!m_bTracking)
        return;
    MoveDirty(sFullFrom, sFullTo);
    std::vector<std::u16string> vecFolders = {FolderOf(sFullTo)};
    if (FolderOf(sFullFrom) != vecFolders[0])
        vecFolders.push_back(FolderOf(sFullFrom));
    m_vecNames.push_back(NameChange{NameChange::Renamed, sFullTo, sFullFrom, vecFolders, std::move(victim)});
}

void QB_FaultDisk::MoveDirty(const std::u16string& sFrom, const std::u16string& sTo)
{
    auto it = m_mapDirty.find(sFrom);
    if (it == m_mapDirty.end())
        return;
    m_mapDirty[sTo] = std::move(it->second);
    m_mapDirty.erase(sFrom);
}

void QB_FaultDisk::FolderSynced(const std::u16string& sFolder)
{
    if (!m_bTracking)
        return;
    const std::u16string sFull = FullFolder(sFolder);
    for (NameChange& change : m_vecNames)
        std::erase(change.vecFolders, sFull);
    std::erase_if(m_vecNames, [](const NameChange& change) { return change.vecFolders.empty(); });
}

void QB_FaultDisk::Arm(int nStep, int64_t llBytes, QB_CrashLoss loss)
{
    m_nStepsToCrash = nStep;
    m_llBytesToCrash = llBytes;
    m_armedLoss = loss;
}

void QB_FaultDisk::CrashNow(QB_CrashLoss loss)
{
    for (auto& [hFile, handle] : m_mapHandles)
        if (!handle.bDead)
        {
            m_lpTarget->CloseFile(hFile);
            handle.bDead = true;
        }
    if (m_bTracking)
    {
        for (auto it = m_vecNames.rbegin(); it != m_vecNames.rend(); ++it)
            UndoName(*it, loss);
        for (const auto& [sPath, dirty] : m_mapDirty)
            LoseBytes(sPath, dirty, loss);
    }
    m_mapDirty.clear();
    m_vecNames.clear();
    m_nStepsToCrash = 0;
    m_llBytesToCrash = -1;
    m_bDown = true;
}

void QB_FaultDisk::UndoName(const NameChange& change, QB_CrashLoss loss)
{
    const Victim& victim = change.victim;
    switch (change.kind)
    {
    case NameChange::Made:
        m_lpTarget->DeleteFile(change.sPath);
        m_mapDirty.erase(change.sPath);
        break;
    case NameChange::Removed:
        WriteWhole(change.sPath, loss == QB_CrashLoss::Dropped ? victim.sKept : victim.sNow);
        break;
    case NameChange::Renamed:
        m_lpTarget->MoveFile(change.sPath, change.sFrom);
        MoveDirty(change.sPath, change.sFrom);
        if (victim.bExisted)
            WriteWhole(change.sPath, loss == QB_CrashLoss::Dropped ? victim.sKept : victim.sNow);
        break;
    }
}

// Noise that no checksum takes for data, the same in every run.
void QB_FaultDisk::LoseBytes(const std::u16string& sPath, const DirtyFile& dirty, QB_CrashLoss loss)
{
    std::string sNow;
    if (loss == QB_CrashLoss::Kept || !ReadWhole(sPath, sNow))
        return;
    if (loss == QB_CrashLoss::Dropped)
        return WriteWhole(sPath, dirty.sKept);
    uint32_t ulNoise = 0x9E3779B9u;
    for (const auto& [llOffset, llCount] : dirty.vecWritten)
        for (int64_t i = llOffset; i < llOffset + llCount && i < (int64_t)sNow.size(); ++i)
        {
            ulNoise ^= ulNoise << 13;
            ulNoise ^= ulNoise >> 17;
            ulNoise ^= ulNoise << 5;
            sNow[(size_t)i] = (char)ulNoise;
        }
    WriteWhole(sPath, sNow);
}
