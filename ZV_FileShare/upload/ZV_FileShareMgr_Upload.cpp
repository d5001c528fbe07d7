// The manager's part in the upload road: the user side's start of an
// upload, and the file state notice that the manager dispatches itself.
#include "core/ZV_FileShareMgr.h"
#include "core/ZV_FileShareSession.h"
#include "control/ZV_ControlPdu.h"

#include "QB_Log.h"

// Without a data link the start marker still goes: the server then knows
// the upload is coming before the link is up. A caught exception gives 0.
// The call is a client's; on a server, whose host has no link to a server
// of its own, it sends nothing.
uint32_t ZV_FileShareMgr::FsUpload(uint16_t usFileID)
{
    if (m_lpConf == nullptr)
        return zvResultNoHost;
    return GuardFs("ZV_FileShareMgr::FsUpload exception.\r\n", [&]() -> uint32_t {
        ZV_FileShareSession* lpFsSession = nullptr;
        const uint32_t ulFound = LookupSession(usFileID, lpFsSession);
        if (ulFound == zvResultUnknownFile)
            QB_WriteClientLog("ZV_FileShareMgr.FsUpload ret = %d\r\n", (int)ulFound);
        if (ulFound != zvResultOk)
            return ulFound;
        // A share its user withdrew is not read again, on the user's word
        // any more than on a server's.
        if (lpFsSession->IsLocalCreator() && !IsSharedLocalFile(lpFsSession->BriefInfo()))
            return zvResultUntrusted;
        MarkBusy(true, usFileID);
        lpFsSession->StartLocalUpload();
        const uint32_t ulDataConn = GetLinkConn(zvConfClientTypeData);
        if (ulDataConn != zvConnNone)
            ZV_SendKick(m_lpConf, ulDataConn);
        lpFsSession->NotifyUploadProgress(usFileID, 0.0);
        lpFsSession->SendUploadRequest(GetLinkConn(zvConfClientTypeCommand), usFileID, LocalUser(), 0, 1, 0, nullptr,
                                       0);
        return zvResultOk;
    }, zvResultOk);
}

uint32_t ZV_FileShareMgr::HandleFileStateNotice(ConfPduData* lpCpd)
{
    ZV_PayloadReader stream(lpCpd);
    ZV_FileStateNotice notice;
    notice.Load(stream);
    for (int i = 0; i < notice.arrFileID.GetSize(); ++i)
    {
        ZV_FileShareSession* lpFsSession = nullptr;
        m_mapSession.Lookup(notice.arrFileID[i], lpFsSession);
        // The notice goes to every client; it is news only of a file this
        // client holds (not of one it refused as no share of its user's) and
        // only to a user who may see the file.
        if (lpFsSession == nullptr)
            continue;
        if (notice.bUpload)
            lpFsSession->TakeNoticedState(notice.usState);
        if (!lpFsSession->IsFileVisible(lpFsSession->BriefInfo()))
            continue;
        NotifyTransferState(notice.bUpload, notice.arrFileID[i], notice.usState);
        // The server holds the whole file: the creator's upload is over. An
        // empty file's upload reports no progress, which would end it.
        if (notice.bUpload && notice.usState == zvFileStateComplete && m_lpConf->IsClientMode() &&
            lpFsSession->IsLocalCreator())
            MarkBusy(false, notice.arrFileID[i]);
    }
    return 0;
}
