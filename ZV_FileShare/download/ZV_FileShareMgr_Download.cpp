// FsDownload: the user side asks for a file. Only the request goes out here;
// the local file is made when the server's answer comes (the session's
// download road).
#include "core/ZV_FileShareMgr.h"
#include "core/ZV_FileShareSession.h"

#include "QB_FileEx.h"
#include "QB_Log.h"

uint32_t ZV_FileShareMgr::FsDownload(uint16_t usFileID, const char16_t* szLocalPath)
{
    if (m_lpConf == nullptr)
        return zvResultNoHost;
    return GuardFs("ZV_FileShareMgr::FsDownload exception.\r\n", [&]() -> uint32_t {
        ZV_FileShareSession* lpFsSession = nullptr;
        const uint32_t ulResult = LookupSession(usFileID, lpFsSession);
        if (ulResult != zvResultOk)
            return ulResult;
        const uint32_t ulConn = GetLinkConn(zvConfClientTypeCommand);
        if (ulConn == zvConnNone)
            return zvResultNoConnection;
        const QB_StringU8 sPath(QB_WithBackslashes(szLocalPath));
        // The one answer this client will take is the one for this path;
        // after a restart, the server's list may resume a download only to
        // the path its user last asked for.
        lpFsSession->ExpectDownload(sPath);
        // A path the ledger cannot hold, or a failed save (logged), leaves the
        // download to the client's own record after a restart.
        m_ShareLedger.RememberDownload(m_lpConf->GetConfID(), usFileID, sPath);
        return lpFsSession->SendDownloadRequest(ulConn, usFileID, m_lpConf->GetLocalUserID(), 0, sPath, 0, 0, 0);
    });
}
