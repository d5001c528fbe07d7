// QB_FaultEnv: an environment for tests that wraps another one, counts the
// operations that can fail, fails the Nth of a kind on purpose, and lets the
// test hold the clocks.
#pragma once

#include "QB_Env.h"

#include <mutex>

class QB_FaultEnv : public QB_Env
{
public:
    // The target does the real work; it must outlive this object.
    explicit QB_FaultEnv(QB_Env* lpTarget = QB_GetDefaultEnv());

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

    bool m_bManualTick = false;
    uint32_t m_ulTick = 0;
    bool m_bManualTime = false;
    int64_t m_llTime = 0;
    bool m_bManualBias = false;
    int32_t m_lBias = 0;

    // Counts one operation of kind `op`; true when it is to fail.
    bool Fails(QB_EnvOp op);
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
