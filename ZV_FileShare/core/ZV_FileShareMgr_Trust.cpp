// What a client trusts its server with. A server names files by the path
// the creator's own client sent, and a client opens that path on the
// server's word: so the word alone must never be enough. A local file is
// opened for an upload only when the user shared that very file (the share
// ledger), and a download target only where the user asked (the session's
// m_sAskedPath, checked in ZV_FileShareSession_Fetch.cpp).
#include "core/ZV_FileShareMgr.h"

#include "QB_Log.h"

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
