// FsDownload: the user side asks for a file. Only the request goes out here;
// the local file is made when the server's answer comes (the session's
// download road).
#include "core/ZV_FileShareMgr.h"
#include "core/ZV_FileShareSession.h"

#include "QB_Env.h"
#include "QB_FileEx.h"
#include "QB_Log.h"

#include <cassert>
#include <string>

namespace {

// The folders of sPath that stand now, from its root on, with their
// trailing backslash: the part of the path that is the user's own.
QB_StringW StandingFolderOf(const QB_StringW& sPath)
{
    const int nLast = sPath.ReverseFind(u'\\');
    QB_StringW sBase;
    for (int nAt = sPath.Find(u'\\'); nAt >= 0 && nAt <= nLast; nAt = sPath.Find(u'\\', nAt + 1))
    {
        const QB_StringW sFolder = sPath.Left(nAt + 1);
        const uint32_t ulAttr = QB_GetEnv()->GetFileAttributes(std::u16string(sFolder.GetString(), (size_t)nAt + 1));
        if (ulAttr == QB_ATTR_INVALID || (ulAttr & QB_ATTR_DIRECTORY) == 0)
            break;
        sBase = sFolder;
    }
    return sBase;
}

} // namespace

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
        lpFsSession->ExpectDownload(sPath, StandingFolderOf(QB_StringW(sPath)));
        // A path the ledger cannot hold, or a failed save (logged), leaves the
        // download to the client's own record after a restart.
        m_ShareLedger.RememberDownload(m_lpConf->GetConfID(), usFileID, sPath);
        return lpFsSession->SendDownloadRequest(ulConn, usFileID, m_lpConf->GetLocalUserID(), 0, sPath, 0, 0, 0);
    });
}
