// QB_FaultEnv: an environment for tests that wraps another one, counts the
// operations that can fail, fails the Nth of a kind on purpose, lets the
// test hold the clocks, and crashes the machine on purpose.
//
// The crash works as a storage engine's fault-injecting environment does.
// Once TrackDurability is called, the double remembers what a crash would
// leave: a file's bytes count once a FlushFile of that file has returned, a
// name made, removed or changed in a folder once a FlushFolder of that
// folder has returned, and what lay on disk when tracking began counts as
// there for good. A crash undoes what was not made durable, kills every
// handle open at that moment and refuses every operation until Restart, as
// a process that died can do nothing more.
#pragma once

#include "QB_Env.h"

#include <cstdint>
#include <memory>
#include <mutex>

// What a crash leaves of the bytes a file took since its last sync.
enum class QB_CrashLoss
{
    Dropped,  // the file is as its last sync left it
    Kept,     // they reached the disk, up to the cut of a write cut short
    Garbled,  // the file keeps its length, but those bytes hold noise, as when
              // a length reaches the disk before the data does
};

class QB_FaultEnv : public QB_Env
{
public:
    // The target does the real work; it must outlive this object.
    explicit QB_FaultEnv(QB_Env* lpTarget = QB_GetDefaultEnv());
    ~QB_FaultEnv() override;

    // The Nth operation of kind `op` from now on fails (N = 1 is the next
    // one; N below 1 counts as 1), and with `bSticky` every later one too.
    // A failing operation gives its failure value without reaching the
    // target. A new call replaces the earlier fault of the same kind.
    void FailAt(QB_EnvOp op, int nNth, bool bSticky = false);
    void ClearFaults();
    // Operations of kind `op` tried since construction or ResetCounts,
    // failed ones included.
    int GetCount(QB_EnvOp op) const;
    void ResetCounts();

    // From the first call on, GetTickCount gives the manual value. Advancing
    // a tick that was never set starts from the target's current one.
    void SetTick(uint32_t ulTick);
    void AdvanceTick(uint32_t ulMs);  // wraps past 0xFFFFFFFF

    // A manual wall clock. Once either is set, GetLocalTime is the time
    // minus the bias as calendar time without daylight saving; GetTimeT and
    // GetTimeZoneBias give the manual values. A manual time without a set
    // bias is UTC (bias 0); a set bias alone applies to the target's time.
    void SetTimeT(int64_t llTime);
    void SetTimeZoneBias(int32_t lBias);

    // From now on, remember what a crash would lose (see above). What is on
    // disk now counts as durable. Tracking costs a copy of each file at its
    // first change and at each sync, so it suits small files; syncs no
    // longer reach the disk, since the double's memory stands in for it.
    void TrackDurability();
    // The machine stops now; a crash without tracking only kills handles.
    void Crash(QB_CrashLoss loss = QB_CrashLoss::Dropped);
    // The machine stops at the nStep-th step from now (1 = the next one),
    // before that step happens. A step is an operation that changes the
    // disk: a write, a cut, a sync of a file or folder, a delete, a rename,
    // a folder made, an open that may create or cut. The step fails.
    void CrashAtStep(int nStep, QB_CrashLoss loss = QB_CrashLoss::Dropped);
    // The machine stops once llBytes more bytes have been written: the
    // write that crosses the count reaches the file up to it and fails.
    void CrashAtByte(int64_t llBytes, QB_CrashLoss loss = QB_CrashLoss::Dropped);
    bool HasCrashed() const;
    // The machine is back. Handles from before the crash stay dead: their
    // operations fail and closing them does nothing. Tracking goes on, with
    // what is on disk now counting as durable.
    void Restart();
    // Steps tried since construction or ResetCounts, failed ones included.
    int GetSteps() const;

    QB_FileHandle OpenFile(const std::u16string& sPath, uint32_t ulMode) override;
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
    QB_FileHandle OpenFileBelow(const std::u16string& sBase, const std::u16string& sBelow, uint32_t ulMode,
                                bool* pbLink) override;

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
    static constexpr int kOpKinds = (int)QB_EnvOp::Count_;

    struct Fault
    {
        bool bArmed = false;
        bool bSticky = false;
        int nSkip = 0;  // operations still to pass before the failing one
    };

    QB_Env* m_lpTarget;
    mutable std::mutex m_mutex;
    int m_anCount[kOpKinds] = {};
    Fault m_aFault[kOpKinds];
    // What tracking and crashes need; its calls are made under m_diskMutex,
    // held across each file operation so that the bookkeeping and the
    // operation stay together.
    std::unique_ptr<class QB_FaultDisk> m_lpDisk;
    mutable std::mutex m_diskMutex;

    bool m_bManualTick = false;
    uint32_t m_ulTick = 0;
    bool m_bManualTime = false;
    int64_t m_llTime = 0;
    bool m_bManualBias = false;
    int32_t m_lBias = 0;

    // Counts one operation of kind `op`; true when it is to fail.
    bool Fails(QB_EnvOp op);
    // Counts a step; true when the machine is down or stops at this step,
    // and then the step fails.
    bool Stops();
};

// Installs an environment for the life of the object and puts the earlier
// one back at the end.
class QB_ScopedEnv
{
public:
    explicit QB_ScopedEnv(QB_Env* lpEnv) : m_lpPrevious(QB_SetEnv(lpEnv)) {}
    ~QB_ScopedEnv() { QB_SetEnv(m_lpPrevious); }
    QB_ScopedEnv(const QB_ScopedEnv&) = delete;
    QB_ScopedEnv& operator=(const QB_ScopedEnv&) = delete;

private:
    QB_Env* m_lpPrevious;
};
