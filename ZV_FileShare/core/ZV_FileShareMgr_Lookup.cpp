// FsGetFileInfoByFileID: the user side's flat description of a known file,
// taken from the client's record of it.
#include "core/ZV_FileShareMgr.h"
#include "core/ZV_FileShareSession.h"

#include "QB_Log.h"

namespace {

bool IsHighSurrogate(char16_t ch)
{
    return ch >= 0xD800 && ch <= 0xDBFF;
}

// A record's text may hold more than a field: it is cut at the last whole
// character that leaves room for the NUL, never inside a surrogate pair.
template <size_t N>
void CopyText(char16_t (&szField)[N], const QB_StringU8& sText)
{
    const QB_StringW sWide(sText);
    size_t nCount = (size_t)sWide.GetLength();
    if (nCount > N - 1)
    {
        nCount = N - 1;
        if (IsHighSurrogate(sWide[(int)nCount - 1]))
            --nCount;
    }
    for (size_t i = 0; i < nCount; ++i)
        szField[i] = sWide[(int)i];
    szField[nCount] = u'\0';
}

ZV_FsDateTime FlatTime(const QB_DateTimeEx& dt)
{
    return ZV_FsDateTime{(uint32_t)dt.m_Date, (uint32_t)dt.m_Time};
}

} // namespace

uint32_t ZV_FileShareMgr::FsGetFileInfoByFileID(uint16_t usFileID, ZV_FsFileInfo* lpInfo)
{
    if (m_lpConf == nullptr)
        return zvResultNoHost;
    // A throw still answers 0: the record may be partly filled by then.
    return GuardFs("ZV_FileShareMgr::FsGetFileInfoByFileID exception.\r\n", [&]() -> uint32_t {
        ZV_FileShareSession* lpFsSession = nullptr;
        if (const uint32_t ulFound = LookupSession(usFileID, lpFsSession); ulFound != zvResultOk)
            return ulFound;
        if (lpInfo == nullptr)
            return zvResultException;
        const ZV_FileBriefInfo& brief = lpFsSession->BriefInfo();
        lpInfo->ulCreatorSub = brief.m_CreatorID.m_ulSub;
        lpInfo->ulCreatorMain = brief.m_CreatorID.m_ulMain;
        CopyText(lpInfo->szCreatorName, brief.m_sCreatorName);
        CopyText(lpInfo->szFilePath, brief.m_sFilePath);
        CopyText(lpInfo->szFileOldName, brief.m_sFileOldName);
        CopyText(lpInfo->szFileType, brief.m_sFileType);
        lpInfo->ulFileLenth = brief.m_ulFileLenth;
        lpInfo->dtShareTime = FlatTime(brief.m_dtShareTime);
        lpInfo->dtModifyTime = FlatTime(brief.m_dtModifyTime);
        lpInfo->usFileState = brief.m_usFileState;
        return zvResultOk;
    }, zvResultOk);
}
