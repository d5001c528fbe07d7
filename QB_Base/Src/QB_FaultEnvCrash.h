// QB_FaultDisk: the bookkeeping behind QB_FaultEnv's crash. The caller
// holds the environment's lock around every call, and calls the target for
// the operation itself; this class only remembers and, at a crash, undoes.
#pragma once

#include "QB_FaultEnv.h"

#include <map>
#include <string>
#include <vector>

class QB_FaultDisk
{
public:
    // What a delete or a rename over a file replaced.
    struct Victim
    {
        bool bExisted = false;
        std::string sKept;  // its bytes as a crash would keep them
        std::string sNow;   // its bytes as they were
    };

    explicit QB_FaultDisk(QB_Env* lpTarget);

    void Track();
    bool IsTracking() const { return m_bTracking; }
    int GetSteps() const { return m_nSteps; }
    void ResetSteps() { m_nSteps = 0; }
    bool IsDown() const { return m_bDown; }
    void Restart() { m_bDown = false; }
    // nStep 0 or llBytes -1 leave that trigger off.
    void Arm(int nStep, int64_t llBytes, QB_CrashLoss loss);
    void CrashNow(QB_CrashLoss loss);

    // True when the machine is down or stops at this step.
    bool CountStep();
    bool IsDead(QB_FileHandle hFile) const;

    void BeforeOpen(const std::u16string& sPath, uint32_t ulMode, bool& bExisted);
    void Opened(QB_FileHandle hFile, const std::u16string& sPath, bool bExisted);
    void Closed(QB_FileHandle hFile);
    // llCount bytes from llOffset are about to change.
    void BeforeWrite(QB_FileHandle hFile, int64_t llOffset, int64_t llCount);
    // True when the machine stops within this write; the part before the
    // cut has then been written.
    bool CutWrite(QB_FileHandle hFile, int64_t llOffset, const void* pBuf, int32_t nCount);
    void AfterSync(QB_FileHandle hFile);
    void BeforeDelete(const std::u16string& sPath, Victim& victim);
    void Deleted(const std::u16string& sPath, Victim&& victim);
    void BeforeMove(const std::u16string& sTo, Victim& victim);
    void Moved(const std::u16string& sFrom, const std::u16string& sTo, Victim&& victim);
    void FolderSynced(const std::u16string& sFolder);

private:
    struct Handle
    {
        std::u16string sPath;  // full path, followed through renames
        bool bDead = false;
    };
    struct DirtyFile
    {
        std::string sKept;  // the bytes its last sync left
        std::vector<std::pair<int64_t, int64_t>> vecWritten;  // offset, count
    };
    struct NameChange
    {
        enum Kind
        {
            Made,
            Removed,
            Renamed
        } kind;
        std::u16string sPath;  // the name made, removed, or renamed to
        std::u16string sFrom;  // of a rename
        std::vector<std::u16string> vecFolders;  // still to be synced
        Victim victim;
    };

    QB_Env* m_lpTarget;
    bool m_bTracking = false;
    bool m_bDown = false;
    int m_nSteps = 0;
    int m_nStepsToCrash = 0;
    int64_t m_llBytesToCrash = -1;
    QB_CrashLoss m_armedLoss = QB_CrashLoss::Dropped;
    std::map<QB_FileHandle, Handle> m_mapHandles;
    std::map<std::u16string, DirtyFile> m_mapDirty;  // by full path
    std::vector<NameChange> m_vecNames;               // oldest first

    std::u16string FullPath(const std::u16string& sPath) const;
    std::u16string FullFolder(const std::u16string& sFolder) const;
    const std::u16string* PathOf(QB_FileHandle hFile) const;
    bool ReadWhole(const std::u16string& sPath, std::string& sBytes) const;
    void WriteWhole(const std::u16string& sPath, const std::string& sBytes) const;
    DirtyFile& Dirty(const std::u16string& sFullPath);
    void MoveDirty(const std::u16string& sFrom, const std::u16string& sTo);
    Victim VictimAt(const std::u16string& sFullPath);
    void UndoName(const NameChange& change, QB_CrashLoss loss);
    void LoseBytes(const std::u16string& sPath, const DirtyFile& dirty, QB_CrashLoss loss);
};
