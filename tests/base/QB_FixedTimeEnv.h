// An environment whose clock, zone and executable folder are whatever the
// test says; files and everything else go to the system's own environment.
// It installs itself for its lifetime and puts the previous one back.
#pragma once

#include "QB_DatetimeEx.h"
#include "QB_Env.h"

#include <atomic>
#include <mutex>
#include <string>
#include <vector>

class QB_FixedTimeEnv : public QB_Env
{
public:
    QB_FixedTimeEnv() : m_lpReal(QB_GetDefaultEnv())
    {
        m_lpPrevious = QB_SetEnv(this);
        QB_DateTimeEx::ResetTimeZoneCache();
    }
    ~QB_FixedTimeEnv() override
    {
        QB_SetEnv(m_lpPrevious);
        QB_DateTimeEx::ResetTimeZoneCache();
    }
    QB_FixedTimeEnv(const QB_FixedTimeEnv&) = delete;
    QB_FixedTimeEnv& operator=(const QB_FixedTimeEnv&) = delete;

    int64_t m_llTimeT = 0;
    QB_SystemTime m_stLocal;
    int32_t m_nZoneBias = 0;
    std::u16string m_sModuleFolder;
    std::atomic<int> m_nZoneReads{0};

    // Paths of the files opened so far, in the order of the calls.
    std::vector<std::u16string> OpenedPaths()
    {
        std::lock_guard<std::mutex> lock(m_mutexOpened);
        return m_vsOpened;
    }

    int64_t GetTimeT() override { return m_llTimeT; }
    void GetLocalTime(QB_SystemTime* pTime) override { *pTime = m_stLocal; }
    int32_t GetTimeZoneBias() override
    {
        ++m_nZoneReads;
        return m_nZoneBias;
    }
    std::u16string GetModuleFolder() override { return m_sModuleFolder; }

    QB_FileHandle OpenFile(const std::u16string& sPath, uint32_t ulMode) override
    {
        {
            std::lock_guard<std::mutex> lock(m_mutexOpened);
            m_vsOpened.push_back(sPath);
        }
        return m_lpReal->OpenFile(sPath, ulMode);
    }

    // The rest goes to the system's own environment.
    bool CloseFile(QB_FileHandle hFile) override { return m_lpReal->CloseFile(hFile); }
    int32_t ReadFile(QB_FileHandle hFile, void* pBuf, int32_t nCount) override
    {
        return m_lpReal->ReadFile(hFile, pBuf, nCount);
    }
    int32_t WriteFile(QB_FileHandle hFile, const void* pBuf, int32_t nCount) override
    {
        return m_lpReal->WriteFile(hFile, pBuf, nCount);
    }
    int64_t SeekFile(QB_FileHandle hFile, int64_t llOffset, int nOrigin) override
    {
        return m_lpReal->SeekFile(hFile, llOffset, nOrigin);
    }
    bool SetEndOfFile(QB_FileHandle hFile) override { return m_lpReal->SetEndOfFile(hFile); }
    int64_t GetFileSize(QB_FileHandle hFile) override { return m_lpReal->GetFileSize(hFile); }
    bool GetFileTimes(QB_FileHandle hFile, QB_SystemTime* pCreation, QB_SystemTime* pLastWrite,
                      QB_SystemTime* pLastAccess) override
    {
        return m_lpReal->GetFileTimes(hFile, pCreation, pLastWrite, pLastAccess);
    }
    bool DeleteFile(const std::u16string& sPath) override { return m_lpReal->DeleteFile(sPath); }
    uint32_t GetFileAttributes(const std::u16string& sPath) override { return m_lpReal->GetFileAttributes(sPath); }
    bool CreateDirectory(const std::u16string& sPath) override { return m_lpReal->CreateDirectory(sPath); }
    std::u16string GetFullPathName(const std::u16string& sPath) override { return m_lpReal->GetFullPathName(sPath); }
    uint32_t GetTickCount() override { return m_lpReal->GetTickCount(); }
    void NewGuid(uint8_t abGuid[16]) override { m_lpReal->NewGuid(abGuid); }

private:
    QB_Env* m_lpReal;
    QB_Env* m_lpPrevious;
    std::mutex m_mutexOpened;
    std::vector<std::u16string> m_vsOpened;
};
