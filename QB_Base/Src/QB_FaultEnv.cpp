#include "QB_FaultEnv.h"

#include "QB_FaultEnvCrash.h"
#include "QB_FileEx.h"

#include <algorithm>
#include <chrono>

namespace {

// Calendar time of seconds since 1970 without any zone; days before 1970
// round towards the past, so the time of day is never negative.
QB_SystemTime CalendarOf(int64_t llSeconds)
{
    using namespace std::chrono;
    int64_t llDays = llSeconds >= 0 ? llSeconds / 86400 : -((-llSeconds + 86399) / 86400);
    int64_t llOfDay = llSeconds - llDays * 86400;
    sys_days day{days{llDays}};
    year_month_day ymd{day};
    QB_SystemTime st;
    st.wYear = (uint16_t)(int)ymd.year();
    st.wMonth = (uint16_t)(unsigned)ymd.month();
    st.wDay = (uint16_t)(unsigned)ymd.day();
    st.wDayOfWeek = (uint16_t)weekday{day}.c_encoding();
    st.wHour = (uint16_t)(llOfDay / 3600);
    st.wMinute = (uint16_t)(llOfDay / 60 % 60);
    st.wSecond = (uint16_t)(llOfDay % 60);
    return st;
}

}  // namespace

QB_FaultEnv::QB_FaultEnv(QB_Env* lpTarget)
    : m_lpTarget(lpTarget ? lpTarget : QB_GetDefaultEnv()), m_lpDisk(std::make_unique<QB_FaultDisk>(m_lpTarget))
{
}

QB_FaultEnv::~QB_FaultEnv() = default;

void QB_FaultEnv::FailAt(QB_EnvOp op, int nNth, bool bSticky)
{
    if ((int)op < 0 || op >= QB_EnvOp::Count_)
        return;
    std::lock_guard<std::mutex> lock(m_mutex);
    m_aFault[(int)op] = Fault{true, bSticky, nNth > 1 ? nNth - 1 : 0};
}

void QB_FaultEnv::ClearFaults()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    for (Fault& fault : m_aFault)
        fault = Fault{};
}

int QB_FaultEnv::GetCount(QB_EnvOp op) const
{
    if ((int)op < 0 || op >= QB_EnvOp::Count_)
        return 0;
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_anCount[(int)op];
}

void QB_FaultEnv::ResetCounts()
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        for (int& n : m_anCount)
            n = 0;
    }
    std::lock_guard<std::mutex> lock(m_diskMutex);
    m_lpDisk->ResetSteps();
}

void QB_FaultEnv::TrackDurability()
{
    std::lock_guard<std::mutex> lock(m_diskMutex);
    m_lpDisk->Track();
}

void QB_FaultEnv::Crash(QB_CrashLoss loss)
{
    std::lock_guard<std::mutex> lock(m_diskMutex);
    if (!m_lpDisk->IsDown())
        m_lpDisk->CrashNow(loss);
}

void QB_FaultEnv::CrashAtStep(int nStep, QB_CrashLoss loss)
{
    std::lock_guard<std::mutex> lock(m_diskMutex);
    m_lpDisk->Arm(nStep > 1 ? nStep : 1, -1, loss);
}

void QB_FaultEnv::CrashAtByte(int64_t llBytes, QB_CrashLoss loss)
{
    std::lock_guard<std::mutex> lock(m_diskMutex);
    m_lpDisk->Arm(0, llBytes > 0 ? llBytes : 0, loss);
}

bool QB_FaultEnv::HasCrashed() const
{
    std::lock_guard<std::mutex> lock(m_diskMutex);
    return m_lpDisk->IsDown();
}

void QB_FaultEnv::Restart()
{
    std::lock_guard<std::mutex> lock(m_diskMutex);
    m_lpDisk->Restart();
}

int QB_FaultEnv::GetSteps() const
{
    std::lock_guard<std::mutex> lock(m_diskMutex);
    return m_lpDisk->GetSteps();
}

// The caller holds m_diskMutex.
bool QB_FaultEnv::Stops()
{
    return m_lpDisk->CountStep();
}

bool QB_FaultEnv::Fails(QB_EnvOp op)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    ++m_anCount[(int)op];
    Fault& fault = m_aFault[(int)op];
    if (!fault.bArmed)
        return false;
    if (fault.nSkip > 0)
    {
        --fault.nSkip;
        return false;
    }
    fault.bArmed = fault.bSticky;
    return true;
}

void QB_FaultEnv::SetTick(uint32_t ulTick)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_bManualTick = true;
    m_ulTick = ulTick;
}

void QB_FaultEnv::AdvanceTick(uint32_t ulMs)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_bManualTick)
        m_ulTick = m_lpTarget->GetTickCount();
    m_bManualTick = true;
    m_ulTick += ulMs;
}

void QB_FaultEnv::SetTimeT(int64_t llTime)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_bManualTime = true;
    m_llTime = llTime;
}

void QB_FaultEnv::SetTimeZoneBias(int32_t lBias)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_bManualBias = true;
    m_lBias = lBias;
}

// An open that may make or cut a file is a step; one that only opens is not.
QB_FileHandle QB_FaultEnv::OpenFile(const std::u16string& sPath, uint32_t ulMode)
{
    std::lock_guard<std::mutex> lock(m_diskMutex);
    const uint32_t ulCreation = ulMode & QB_FILE_CREATION_MASK;
    const bool bStep = ulCreation != 0 && ulCreation != QB_FILE_OPEN_EXISTING;
    if ((bStep ? Stops() : m_lpDisk->IsDown()) || Fails(QB_EnvOp::Open))
        return QB_INVALID_FILE;
    bool bExisted = true;
    m_lpDisk->BeforeOpen(sPath, ulMode, bExisted);
    const QB_FileHandle hFile = m_lpTarget->OpenFile(sPath, ulMode);
    if (hFile != QB_INVALID_FILE)
        m_lpDisk->Opened(hFile, sPath, bExisted);
    return hFile;
}

// Made below a folder the user named; not one of the crash tests' steps,
// which the download road does not take part in.
QB_FileHandle QB_FaultEnv::OpenFileBelow(const std::u16string& sBase, const std::u16string& sBelow, uint32_t ulMode,
                                         bool* pbLink)
{
    if (pbLink != nullptr)
        *pbLink = false;
    std::lock_guard<std::mutex> lock(m_diskMutex);
    if (m_lpDisk->IsDown() || Fails(QB_EnvOp::Open))
        return QB_INVALID_FILE;
    return m_lpTarget->OpenFileBelow(sBase, sBelow, ulMode, pbLink);
}

// A handle that died with the machine was closed then.
bool QB_FaultEnv::CloseFile(QB_FileHandle hFile)
{
    std::lock_guard<std::mutex> lock(m_diskMutex);
    const bool bDead = m_lpDisk->IsDead(hFile);
    m_lpDisk->Closed(hFile);
    return bDead || m_lpTarget->CloseFile(hFile);
}

int32_t QB_FaultEnv::ReadFile(QB_FileHandle hFile, void* pBuf, int32_t nCount)
{
    std::lock_guard<std::mutex> lock(m_diskMutex);
    if (m_lpDisk->IsDead(hFile) || Fails(QB_EnvOp::Read))
        return -1;
    return m_lpTarget->ReadFile(hFile, pBuf, nCount);
}

int32_t QB_FaultEnv::WriteFile(QB_FileHandle hFile, const void* pBuf, int32_t nCount)
{
    std::lock_guard<std::mutex> lock(m_diskMutex);
    if (m_lpDisk->IsDead(hFile) || Stops() || Fails(QB_EnvOp::Write))
        return -1;
    const int64_t llOffset = m_lpTarget->SeekFile(hFile, 0, QB_SEEK_CURRENT);
    if (pBuf && nCount > 0 && llOffset >= 0)
    {
        if (m_lpDisk->CutWrite(hFile, llOffset, pBuf, nCount))
            return -1;
        m_lpDisk->BeforeWrite(hFile, llOffset, nCount);
    }
    return m_lpTarget->WriteFile(hFile, pBuf, nCount);
}

int64_t QB_FaultEnv::SeekFile(QB_FileHandle hFile, int64_t llOffset, int nOrigin)
{
    std::lock_guard<std::mutex> lock(m_diskMutex);
    if (m_lpDisk->IsDead(hFile) || Fails(QB_EnvOp::Seek))
        return -1;
    return m_lpTarget->SeekFile(hFile, llOffset, nOrigin);
}

// A cut or a growth changes the bytes from the new end or the old one.
bool QB_FaultEnv::SetEndOfFile(QB_FileHandle hFile)
{
    std::lock_guard<std::mutex> lock(m_diskMutex);
    if (m_lpDisk->IsDead(hFile) || Stops() || Fails(QB_EnvOp::SetEnd))
        return false;
    const int64_t llPos = m_lpTarget->SeekFile(hFile, 0, QB_SEEK_CURRENT);
    const int64_t llSize = m_lpTarget->GetFileSize(hFile);
    if (llPos >= 0 && llSize >= 0)
        m_lpDisk->BeforeWrite(hFile, std::min(llPos, llSize), llPos > llSize ? llPos - llSize : 0);
    return m_lpTarget->SetEndOfFile(hFile);
}

// While tracking, the double's memory of what is durable stands in for the
// disk's, so a sync need not wait for the disk.
bool QB_FaultEnv::FlushFile(QB_FileHandle hFile)
{
    std::lock_guard<std::mutex> lock(m_diskMutex);
    if (m_lpDisk->IsDead(hFile) || Stops() || Fails(QB_EnvOp::Sync))
        return false;
    if (!m_lpDisk->IsTracking() && !m_lpTarget->FlushFile(hFile))
        return false;
    m_lpDisk->AfterSync(hFile);
    return true;
}

int64_t QB_FaultEnv::GetFileSize(QB_FileHandle hFile)
{
    std::lock_guard<std::mutex> lock(m_diskMutex);
    return m_lpDisk->IsDead(hFile) ? -1 : m_lpTarget->GetFileSize(hFile);
}

bool QB_FaultEnv::GetFileTimes(QB_FileHandle hFile, QB_SystemTime* pCreation, QB_SystemTime* pLastWrite,
                               QB_SystemTime* pLastAccess)
{
    std::lock_guard<std::mutex> lock(m_diskMutex);
    return !m_lpDisk->IsDead(hFile) && m_lpTarget->GetFileTimes(hFile, pCreation, pLastWrite, pLastAccess);
}

bool QB_FaultEnv::GetFileId(QB_FileHandle hFile, uint64_t* pDevice, uint64_t* pNumber)
{
    return m_lpTarget->GetFileId(hFile, pDevice, pNumber);
}

bool QB_FaultEnv::DeleteFile(const std::u16string& sPath)
{
    std::lock_guard<std::mutex> lock(m_diskMutex);
    if (Stops() || Fails(QB_EnvOp::Delete))
        return false;
    QB_FaultDisk::Victim victim;
    m_lpDisk->BeforeDelete(sPath, victim);
    if (!m_lpTarget->DeleteFile(sPath))
        return false;
    m_lpDisk->Deleted(sPath, std::move(victim));
    return true;
}

uint32_t QB_FaultEnv::GetFileAttributes(const std::u16string& sPath)
{
    std::lock_guard<std::mutex> lock(m_diskMutex);
    return m_lpDisk->IsDown() ? QB_ATTR_INVALID : m_lpTarget->GetFileAttributes(sPath);
}

int64_t QB_FaultEnv::GetFileSizeByName(const std::u16string& sPath)
{
    std::lock_guard<std::mutex> lock(m_diskMutex);
    return m_lpDisk->IsDown() ? -1 : m_lpTarget->GetFileSizeByName(sPath);
}

bool QB_FaultEnv::CreateDirectory(const std::u16string& sPath)
{
    std::lock_guard<std::mutex> lock(m_diskMutex);
    return !Stops() && !Fails(QB_EnvOp::MakeFolder) && m_lpTarget->CreateDirectory(sPath);
}

bool QB_FaultEnv::MoveFile(const std::u16string& sFrom, const std::u16string& sTo)
{
    std::lock_guard<std::mutex> lock(m_diskMutex);
    if (Stops() || Fails(QB_EnvOp::Rename))
        return false;
    QB_FaultDisk::Victim victim;
    m_lpDisk->BeforeMove(sTo, victim);
    if (!m_lpTarget->MoveFile(sFrom, sTo))
        return false;
    m_lpDisk->Moved(sFrom, sTo, std::move(victim));
    return true;
}

bool QB_FaultEnv::FlushFolder(const std::u16string& sFolder)
{
    std::lock_guard<std::mutex> lock(m_diskMutex);
    if (Stops() || Fails(QB_EnvOp::Sync))
        return false;
    if (!m_lpDisk->IsTracking() && !m_lpTarget->FlushFolder(sFolder))
        return false;
    m_lpDisk->FolderSynced(sFolder);
    return true;
}

std::u16string QB_FaultEnv::GetFullPathName(const std::u16string& sPath)
{
    return m_lpTarget->GetFullPathName(sPath);
}

std::u16string QB_FaultEnv::GetModuleFolder()
{
    return m_lpTarget->GetModuleFolder();
}

uint32_t QB_FaultEnv::GetTickCount()
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_bManualTick)
            return m_ulTick;
    }
    return m_lpTarget->GetTickCount();
}

int64_t QB_FaultEnv::GetTimeT()
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_bManualTime)
            return m_llTime;
    }
    return m_lpTarget->GetTimeT();
}

void QB_FaultEnv::GetLocalTime(QB_SystemTime* pTime)
{
    if (!pTime)
        return;
    bool bManual;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        bManual = m_bManualTime || m_bManualBias;
    }
    if (bManual)
        *pTime = CalendarOf(GetTimeT() - GetTimeZoneBias());
    else
        m_lpTarget->GetLocalTime(pTime);
}

int32_t QB_FaultEnv::GetTimeZoneBias()
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_bManualBias)
            return m_lBias;
        if (m_bManualTime)
            return 0;
    }
    return m_lpTarget->GetTimeZoneBias();
}

void QB_FaultEnv::NewGuid(uint8_t abGuid[16])
{
    m_lpTarget->NewGuid(abGuid);
}

int32_t QB_FaultEnv::ReadFileAt(QB_FileHandle hFile, int64_t llOffset, void* pBuf, int32_t nCount)
{
    std::lock_guard<std::mutex> lock(m_diskMutex);
    if (m_lpDisk->IsDead(hFile) || Fails(QB_EnvOp::Read))
        return -1;
    return m_lpTarget->ReadFileAt(hFile, llOffset, pBuf, nCount);
}

int32_t QB_FaultEnv::WriteFileAt(QB_FileHandle hFile, int64_t llOffset, const void* pBuf, int32_t nCount)
{
    std::lock_guard<std::mutex> lock(m_diskMutex);
    if (m_lpDisk->IsDead(hFile) || Stops() || Fails(QB_EnvOp::Write))
        return -1;
    if (pBuf && nCount > 0 && llOffset >= 0)
    {
        if (m_lpDisk->CutWrite(hFile, llOffset, pBuf, nCount))
            return -1;
        m_lpDisk->BeforeWrite(hFile, llOffset, nCount);
    }
    return m_lpTarget->WriteFileAt(hFile, llOffset, pBuf, nCount);
}
