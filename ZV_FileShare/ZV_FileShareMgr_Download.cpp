// FsDownload: the user side asks for a file. Only the request goes out here;
// the local file is made when the server's answer comes (the session's
// download road).
#include "ZV_FileShareMgr.h"
#include "ZV_FileShareSession.h"

#include "QB_FileEx.h"
#include "QB_Log.h"

#include <cassert>

uint32_t ZV_FileShareMgr::FsDownload(uint16_t usFileID, const char16_t* szLocalPath)
{
    assert(m_lpConf && "m_lpConf");
    uint32_t ulResult = ZV_ERR_EXCEPTION;
    try
    {
        ZV_FileShareSession* lpFsSession = nullptr;
        ulResult = LookupSession(usFileID, lpFsSession);
        if (ulResult != ZV_OK)
            return ulResult;
        const uint32_t ulConn = GetLinkConn(zvConfClientTypeCommand);
        if (ulConn == zvConnNone)
            return ZV_ERR_NO_CONN;
        const QB_StringU8 sPath(QB_WithBackslashes(szLocalPath));
        // The one answer this client will take is the one for this path.
        lpFsSession->m_sAskedPath = sPath;
        lpFsSession->m_ulAskedPos = 0;
        lpFsSession->m_bDownloadAsked = true;
        ulResult = lpFsSession->SendDownloadRequest(ulConn, usFileID, m_lpConf->GetLocalUserID(), 0, sPath, 0, 0, 0);
    }
    catch (...)
    {
        QB_WriteLog(2, "error", "ZV_FileShareMgr::FsDownload exception.\r\n");
        ulResult = ZV_ERR_EXCEPTION;
    }
    return ulResult;
}
