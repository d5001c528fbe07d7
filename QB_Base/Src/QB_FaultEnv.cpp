#include "QB_FaultEnv.h"

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

QB_FaultEnv::QB_FaultEnv(QB_Env* lpTarget) : m_lpTarget(lpTarget ? lpTarget : QB_GetDefaultEnv()) {}

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
    std::lock_guard<std::mutex> lock(m_mutex);
    for (int& n : m_anCount)
        n = 0;
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

QB_FileHandle QB_FaultEnv::OpenFile(const std::u16string& sPath, uint32_t ulMode)
{
    return Fails(QB_EnvOp::Open) ? QB_INVALID_FILE : m_lpTarget->OpenFile(sPath, ulMode);
}

QB_FileHandle QB_FaultEnv::OpenFileBelow(const std::u16string& sBase, const std::u16string& sBelow, uint32_t ulMode,
                                         bool* pbLink)
{
    if (pbLink != nullptr)
        *pbLink = false;
    return Fails(QB_EnvOp::Open) ? QB_INVALID_FILE : m_lpTarget->OpenFileBelow(sBase, sBelow, ulMode, pbLink);
}

bool QB_FaultEnv::CloseFile(QB_FileHandle hFile)
{
    return m_lpTarget->CloseFile(hFile);
}

int32_t QB_FaultEnv::ReadFile(QB_FileHandle hFile, void* pBuf, int32_t nCount)
{
    return Fails(QB_EnvOp::Read) ? -1 : m_lpTarget->ReadFile(hFile, pBuf, nCount);
}

int32_t QB_FaultEnv::WriteFile(QB_FileHandle hFile, const void* pBuf, int32_t nCount)
{
    return Fails(QB_EnvOp::Write) ? -1 : m_lpTarget->WriteFile(hFile, pBuf, nCount);
}

int64_t QB_FaultEnv::SeekFile(QB_FileHandle hFile, int64_t llOffset, int nOrigin)
{
    return Fails(QB_EnvOp::Seek) ? -1 : m_lpTarget->SeekFile(hFile, llOffset, nOrigin);
}

bool QB_FaultEnv::SetEndOfFile(QB_FileHandle hFile)
{
    return !Fails(QB_EnvOp::SetEnd) && m_lpTarget->SetEndOfFile(hFile);
}

bool QB_FaultEnv::FlushFile(QB_FileHandle hFile)
{
    return !Fails(QB_EnvOp::Sync) && m_lpTarget->FlushFile(hFile);
}

int64_t QB_FaultEnv::GetFileSize(QB_FileHandle hFile)
{
    return m_lpTarget->GetFileSize(hFile);
}

bool QB_FaultEnv::GetFileTimes(QB_FileHandle hFile, QB_SystemTime* pCreation, QB_SystemTime* pLastWrite,
                               QB_SystemTime* pLastAccess)
{
    return m_lpTarget->GetFileTimes(hFile, pCreation, pLastWrite, pLastAccess);
}

bool QB_FaultEnv::GetFileId(QB_FileHandle hFile, uint64_t* pDevice, uint64_t* pNumber)
{
    return m_lpTarget->GetFileId(hFile, pDevice, pNumber);
}

bool QB_FaultEnv::DeleteFile(const std::u16string& sPath)
{
    return !Fails(QB_EnvOp::Delete) && m_lpTarget->DeleteFile(sPath);
}

uint32_t QB_FaultEnv::GetFileAttributes(const std::u16string& sPath)
{
    return m_lpTarget->GetFileAttributes(sPath);
}

bool QB_FaultEnv::CreateDirectory(const std::u16string& sPath)
{
    return !Fails(QB_EnvOp::MakeFolder) && m_lpTarget->CreateDirectory(sPath);
}

bool QB_FaultEnv::MoveFile(const std::u16string& sFrom, const std::u16string& sTo)
{
    return !Fails(QB_EnvOp::Rename) && m_lpTarget->MoveFile(sFrom, sTo);
}

bool QB_FaultEnv::FlushFolder(const std::u16string& sFolder)
{
    return !Fails(QB_EnvOp::Sync) && m_lpTarget->FlushFolder(sFolder);
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
    return Fails(QB_EnvOp::Read) ? -1 : m_lpTarget->ReadFileAt(hFile, llOffset, pBuf, nCount);
}

int32_t QB_FaultEnv::WriteFileAt(QB_FileHandle hFile, int64_t llOffset, const void* pBuf, int32_t nCount)
{
    return Fails(QB_EnvOp::Write) ? -1 : m_lpTarget->WriteFileAt(hFile, llOffset, pBuf, nCount);
}
