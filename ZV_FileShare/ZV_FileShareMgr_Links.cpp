// SendFileDownloadPos: after a data link came back, restart this node's
// running downloads where they stand and republish the upload state of the
// files whose creators are homed here.
#include "ZV_FileShareMgr.h"
#include "ZV_FileShareSession.h"
#include "ZV_ControlPdu.h"
#include "ZV_DownloadPdu.h"

#include "QB_Log.h"

namespace {

void RestartDownload(ZV_FileShareMgr* lpMgr, ZV_FileShareSession* lpFsSession, const ZV_FileDownloadInfo& download,
                     const QB_UserID& creator, bool bClient, uint32_t ulServerID)
{
    IZV_ConfHost* lpConf = lpMgr->m_lpConf;
    if (!bClient)
    {
        if (!lpConf->HasServerLinks())
            return;
        ZV_DownloadDataRequest ask;
        ask.usFileID = lpFsSession->FileID();
        ask.user = QB_UserID(lpConf->GetLocalServerID(), 0);
        ask.record = download;
        ZV_PduBuffer pdu;
        ask.Save(pdu.Stream());
        ZV_SendToServerData(lpConf, ulServerID, PDU_CONF_FS_DOWNLOAD_DATA_REQUEST, pdu);
        return;
    }
    const QB_UserID* lpLocal = lpConf->GetLocalUserID();
    const uint32_t ulConn = lpMgr->GetLinkConn(zvConfClientTypeCommand);
    if (lpLocal == nullptr || *lpLocal == creator || ulConn == zvConnNone)
        return;
    lpFsSession->SetResyncPending();
    lpFsSession->SendDownloadDataRequest(ulConn, lpFsSession->FileID(), *lpLocal, download);
}

// The creator's home server tells its peers whether the upload runs and
// how far it has come, as a stop or resume would.
void RepublishUpload(ZV_FileShareMgr* lpMgr, ZV_FileShareSession* lpFsSession, const QB_UserID& creator)
{
    IZV_ConfHost* lpConf = lpMgr->m_lpConf;
    const ZV_ConfUserInfo* lpUser = lpConf->GetUser(&creator);
    const ZV_FileUploadInfo& info = lpFsSession->FileInfo();
    if (lpUser == nullptr || lpUser->ulHomeServer != lpConf->GetLocalServerID() ||
        info.m_BriefInfo.m_usFileState == ZV_FILESTATE_ADDED)
        return;
    const uint32_t ulFloodSeq = lpConf->NewFloodSeq(&creator, 0);
    if (lpConf->IsFloodSeen(&creator, ulFloodSeq))
        return;
    ZV_StopUploadAsk ask;
    ask.usFileID = lpFsSession->FileID();
    ask.user = creator;
    ask.ulFloodSeq = ulFloodSeq;
    ask.bStop = lpFsSession->IsUploadStopped() ? 1 : 0;
    ask.ulPos = info.m_ulFileWritePos;
    ZV_PduBuffer pdu;
    ask.Save(pdu.Stream());
    ZV_SendToServers(lpConf, zvConnNone, PDU_CONF_FS_IS_STOP_UPLOAD_REQUEST, pdu);
}

} // namespace

void ZV_FileShareMgr::SendFileDownloadPos(bool bClient, uint32_t ulServerID)
{
    try
    {
        ForEachSession([&](uint16_t, ZV_FileShareSession* lpFsSession) {
            if (lpFsSession == nullptr)
                return;
            const QB_UserID creator = lpFsSession->FileInfo().m_BriefInfo.m_CreatorID;
            const ZV_FileDownloadInfo download = lpFsSession->LocalDownload();
            if (download.m_usState == ZV_DLSTATE_RUNNING)
                RestartDownload(this, lpFsSession, download, creator, bClient, ulServerID);
            RepublishUpload(this, lpFsSession, creator);
        });
    }
    catch (...)
    {
        QB_WriteLog(2, "error", "ZV_FileShareMgr::SendFileDownloadPos exception.\r\n");
    }
}
