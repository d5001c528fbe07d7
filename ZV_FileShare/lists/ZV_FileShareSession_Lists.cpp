// A session's part in the two lists that bring a client in step: the
// server's record of the file for the upload list, a user's download record
// for the download list, and the client's merge of the server's record.
#include "core/ZV_FileShareSession.h"
#include "rights/ZV_EntryPdu.h"

// A creator who comes back to an unfinished file uploads it again from its
// own client, so this server stops fetching it from a neighbour and tells
// the others it is no longer a downloader.
uint32_t ZV_FileShareSession::CollectUploadInfo(QB_Array<ZV_FileUploadInfo>& arrInfo, QB_Array<uint32_t>& arrMaxPos,
                                                const QB_UserID& user)
{
    IZV_ConfHost* lpConf = Conf();
    const ZV_FileBriefInfo& brief = m_FileInfo.m_BriefInfo;
    if (user == brief.m_CreatorID && brief.m_usFileState != zvFileStateComplete)
    {
        const QB_UserID self(lpConf->GetLocalServerID(), 0);
        m_mapDownload.RemoveKey(self);
        uint32_t ulFloodSeq = 0;
        if (lpConf->HasServerLinks() && !lpConf->IsFloodSeen(&self, ulFloodSeq = lpConf->NewFloodSeq(&self, 0)))
        {
            ZV_EntryRequest notice;
            notice.usFileID = m_usFileID;
            notice.user = self;
            notice.ulFloodSeq = ulFloodSeq;
            ZV_PduBuffer pdu;
            notice.Save(pdu.Stream());
            // The server that starts this notice sends it with the flags 1, 0;
            // those that pass it on use 1, 1, as for any flood.
            ZV_SendToServers(lpConf, zvConnNone, PDU_CONF_FS_NOTICE_DEL_DOWNLOAD_INFO_REQUEST, pdu, 1, 0);
        }
    }
    arrInfo.Add(m_FileInfo);
    arrMaxPos.Add(m_ulMaxPos);
    return 0;
}

// The server's record wins, except that the creator's own client may be
// ahead of it on whether the upload runs.
bool ZV_FileShareSession::MergeCltFileInfo(const ZV_FileUploadInfo& entry, uint32_t ulMaxPos)
{
    const bool bNew = m_usFileID == ZV_NO_FILEID;
    const bool bWasVisible = !bNew && IsFileVisible(m_BriefInfo);
    const bool bVisible = IsFileVisible(entry.m_BriefInfo);
    const uint16_t usOldState = m_BriefInfo.m_usFileState;
    m_ulMaxPos = ulMaxPos;
    m_usFileID = entry.m_usFileID;
    m_ulReadPos = entry.m_ulFileWritePos;
    m_BriefInfo = entry.m_BriefInfo;
    m_FileInfo = entry;
    // The user of this client, not any user homed on its server: only the
    // creator's own client can be ahead of the server.
    if (IsLocalCreator())
        MergeCreatorState(bNew, usOldState, entry.m_ulFileWritePos);
    // Out of sight is out of reach: as when the change comes live, a
    // download of the file ends and its partial file goes.
    if (bWasVisible && !bVisible)
        m_lpMgr->DropLostDownload(m_usFileID, this);
    return bVisible;
}

void ZV_FileShareSession::MergeCreatorState(bool bNew, uint16_t usOldState, uint32_t ulWritePos)
{
    uint16_t usState = m_BriefInfo.m_usFileState;
    if (!bNew && usOldState == usState)
        return;
    if (!bNew && usOldState != zvFileStateComplete)
    {
        m_BriefInfo.SetFileState(usOldState);
        usState = usOldState;
    }
    if (usState == zvFileStateUploading || usState == zvFileStateFailed)
    {
        // Only the very file the user shared is opened on the server's word;
        // a failed or refused open shows later as a failed read.
        if (!m_File.IsOpen())
            m_lpMgr->OpenSharedLocalFile(m_BriefInfo, m_File);
        m_lpMgr->MarkBusy(true, m_usFileID);
        if (m_BriefInfo.m_usFileState == zvFileStateFailed)
            m_BriefInfo.SetFileState(zvFileStateUploading);
        return;
    }
    const uint32_t ulConn = m_lpMgr->GetLinkConn(zvConfClientTypeCommand);
    if (!bNew && usState == zvFileStateStopped && ulConn != zvConnNone)
        SendIsStopUploadRequest(ulConn, m_usFileID, m_lpMgr->LocalUser(), 0, 1, ulWritePos);
}

void ZV_FileShareSession::SetDownloadInfo(const QB_UserID& user, const ZV_FileDownloadInfo& info)
{
    m_mapDownload[user] = info;
}

void ZV_FileShareSession::RemoveDownloadInfo(const QB_UserID& user)
{
    m_mapDownload.RemoveKey(user);
}

void ZV_FileShareSession::SetLocalDownload(const ZV_FileDownloadInfo& info)
{
    m_LocalDownload = info;
}

void ZV_FileShareSession::CollectDownloadEntries(QB_Array<ZV_FileDownloadInfo>& arrDownload) const
{
    for (QB_POSITION pos = m_mapDownload.GetStartPosition(); pos != nullptr;)
    {
        QB_UserID user;
        ZV_FileDownloadInfo entry;
        m_mapDownload.GetNextAssoc(pos, user, entry);
        arrDownload.Add(entry);
    }
}

void ZV_FileShareSession::RestDownloader(const QB_UserID& user)
{
    if (ZV_FileDownloadInfo* pEntry = m_mapDownload.Find(user))
        pEntry->SetActive(false);
}
