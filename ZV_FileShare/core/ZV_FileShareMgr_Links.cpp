// SendFileDownloadPos: after a data link came back, restart this node's
// running downloads where they stand and republish the upload state of the
// files whose creators are homed here.
#include "core/ZV_FileShareMgr.h"
#include "core/ZV_FileShareSession.h"
#include "control/ZV_ControlPdu.h"
#include "download/ZV_DownloadPdu.h"

#include "QB_Log.h"

void ZV_FileShareMgr::RestartDownload(ZV_FileShareSession* lpFsSession, const ZV_FileDownloadInfo& download,
                                      const QB_UserID& creator, bool bClient, uint32_t ulServerID)
{
    IZV_ConfHost* lpConf = m_lpConf;
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
    const uint32_t ulConn = GetLinkConn(zvConfClientTypeCommand);
    if (lpLocal == nullptr || *lpLocal == creator || ulConn == zvConnNone)
        return;
    lpFsSession->AskForBlocks(ulConn, lpFsSession->FileID(), *lpLocal, download);
}

void ZV_FileShareMgr::SendFileDownloadPos(bool bClient, uint32_t ulServerID)
{
    try
    {
        ForEachSession([&](uint16_t, ZV_FileShareSession* lpFsSession) {
            if (lpFsSession == nullptr)
                return;
            const QB_UserID creator = lpFsSession->FileInfo().m_BriefInfo.m_CreatorID;
            const ZV_FileDownloadInfo download = lpFsSession->LocalDownload();
            if (download.m_usState == zvDownloadStateRunning)
                RestartDownload(lpFsSession, download, creator, bClient, ulServerID);
            RepublishUpload(lpFsSession, creator, lpFsSession->FileInfo().m_BriefInfo.m_usFileState);
        });
    }
    catch (...)
    {
        QB_WriteLog(QB_LOG_DAILY, "error", "ZV_FileShareMgr::SendFileDownloadPos exception.\r\n");
    }
}

// The creator's home server tells its peers whether the upload runs and
// how far it has come, as a stop or resume would. False when the host has
// seen the flood already.
bool ZV_FileShareMgr::RepublishUpload(ZV_FileShareSession* lpFsSession, const QB_UserID& creator, uint16_t usState)
{
    if (!ZV_FileShareSession::IsLocalUser(m_lpConf, creator) || usState == zvFileStateAdded)
        return true;
    const uint32_t ulFloodSeq = m_lpConf->NewFloodSeq(&creator, 0);
    if (m_lpConf->IsFloodSeen(&creator, ulFloodSeq))
        return false;
    lpFsSession->FloodStopAsk(PDU_CONF_FS_IS_STOP_UPLOAD_REQUEST, creator, ulFloodSeq,
                              lpFsSession->IsUploadStopped() ? 1 : 0, lpFsSession->FileInfo().m_ulFileWritePos);
    return true;
}
