// What a client trusts its server with. A server names files by the path
// the creator's own client sent, and a client opens that path on the
// server's word: so the word alone must never be enough. A local file is
// opened for an upload only when the user shared that very file (the share
// ledger), and a download target only where the user asked (the session's
// m_sAskedPath, checked in ZV_FileShareSession_Fetch.cpp).
#include "core/ZV_FileShareMgr.h"

#include "QB_Env.h"
#include "QB_Log.h"

// Open first, then ask the open file what it is: a check of the path before
// the open would leave a moment in which the path could be pointed at
// another file.
uint32_t ZV_FileShareMgr::OpenSharedLocalFile(const ZV_FileBriefInfo& brief, QB_FileEx& file)
{
    if (!IsSharedLocalFile(brief))
        return zvResultUntrusted;
    const QB_StringW sPath(brief.m_sFilePath + brief.m_sFileOldName);
    if (!file.Open(sPath, QB_FILE_READ | QB_FILE_SHARE_DENY_WRITE | QB_FILE_OPEN_EXISTING))
    {
        const std::u16string sStd(sPath.GetString(), (size_t)sPath.GetLength());
        if (QB_GetEnv()->GetFileAttributes(sStd) == QB_ATTR_INVALID)
            m_ShareLedger.Forget(m_lpConf->GetConfID(), brief);
        return zvResultCannotOpen;
    }
    if (m_ShareLedger.HoldsOpenFile(m_lpConf->GetConfID(), brief, file))
        return zvResultOk;
    file.Close();
    return zvResultUntrusted;
}

bool ZV_FileShareMgr::IsSharedLocalFile(const ZV_FileBriefInfo& brief)
{
    const QB_UserID* lpLocal = m_lpConf->GetLocalUserID();
    return lpLocal != nullptr && brief.m_CreatorID == *lpLocal && m_ShareLedger.Holds(m_lpConf->GetConfID(), brief);
}

bool ZV_FileShareMgr::IsUntrustedAdd(const ZV_FileBriefInfo& brief, const char* pszHandler)
{
    const QB_UserID* lpLocal = m_lpConf->GetLocalUserID();
    if (lpLocal == nullptr || !(brief.m_CreatorID == *lpLocal) || IsSharedLocalFile(brief))
        return false;
    QB_WriteClientLog("%s ret = %d\r\n", pszHandler, (int)zvResultUntrusted);
    return true;
}
