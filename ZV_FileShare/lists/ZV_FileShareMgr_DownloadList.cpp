// The download list (8029, 8030): a user's download records, which the
// server keeps while the user is away. The server's record says which file
// goes where, the local file's length how far it has come, and the client's
// own record whether the download is stopped.
#include "core/ZV_FileShareMgr.h"
#include "rights/ZV_EntryPdu.h"
#include "core/ZV_FileShareSession.h"
#include "lists/ZV_ListPdu.h"
#include "wire/ZV_CutList.h"
#include "core/ZV_Percent.h"

#include "QB_Env.h"
#include "QB_Log.h"

uint32_t ZV_FileShareMgr::HandleGetDownloadSessionListRequest(ConfPduData* lpCpd)
{
    try
    {
        ZV_PayloadReader stream(lpCpd);
        ZV_ListRequest ask;
        ask.Load(stream);
        // Listing a record rests it, so a client asks only for its own (the
        // manager sees to it).
        if (!m_lpConf->IsServerMode())
            return 0;
        QB_Array<ZV_FileDownloadInfo> arrInfo;
        QB_Array<bool> arrModify;
        ForEachSession([&](uint16_t usFileID, ZV_FileShareSession* lpFsSession) {
            if (lpFsSession != nullptr)
                CollectDownloadInfo(usFileID, lpFsSession, ask.user, arrInfo, arrModify);
        });
        if (!arrInfo.IsEmpty())
            SendDownloadList(lpCpd->ulConn, 0, ask.user, arrInfo, arrModify);
    }
    catch (...)
    {
        QB_WriteLog(QB_LOG_DAILY, "error", "ZV_FileShareMgr::HandleGetDownloadSessionListRequest exception.\r\n");
    }
    return 0;
}

// A user who lost the right loses the record on every server, and is still
// told of it, so that the client deletes its partial file. Any other record
// rests until the client asks for blocks again.
void ZV_FileShareMgr::CollectDownloadInfo(uint16_t usFileID, ZV_FileShareSession* lpFsSession, const QB_UserID& user,
                                          QB_Array<ZV_FileDownloadInfo>& arrInfo, QB_Array<bool>& arrModify)
{
    const ZV_FileDownloadInfo* pEntry = lpFsSession->FindDownloadEntry(user);
    if (pEntry == nullptr)
        return;
    ZV_FileDownloadInfo info = *pEntry;
    const ZV_FileBriefInfo& brief = lpFsSession->FileInfo().m_BriefInfo;
    bool bModify = false;
    if (!brief.m_bPublic && brief.m_arrRight.Find(user) < 0)
    {
        const uint32_t ulFloodSeq = m_lpConf->NewFloodSeq(&user, 0);
        if (m_lpConf->IsFloodSeen(&user, ulFloodSeq))
            return;
        ZV_EntryRequest drop;
        drop.usFileID = usFileID;
        drop.user = user;
        drop.ulFloodSeq = ulFloodSeq;
        ZV_PduBuffer pdu;
        drop.Save(pdu.Stream());
        ZV_SendToServers(m_lpConf, zvConnNone, PDU_CONF_FS_DEL_DOWNLOAD_REQUEST, pdu);
        lpFsSession->RemoveDownloadInfo(user);
    }
    else
    {
        bModify = info.m_dtShareTime != brief.m_dtShareTime;
        info.SetActive(false);
        // The client starts again from 0 once; the rested record names the
        // file as it is now, so the next list does not restart it again.
        ZV_FileDownloadInfo rested = info;
        rested.SetShareTime(brief.m_dtShareTime);
        lpFsSession->SetDownloadInfo(user, rested);
    }
    arrInfo.Add(info);
    arrModify.Add(bModify);
}

uint32_t ZV_FileShareMgr::SendDownloadList(uint32_t ulConn, uint32_t ulResult, const QB_UserID& user,
                                           const QB_Array<ZV_FileDownloadInfo>& arrInfo,
                                           const QB_Array<bool>& arrModify)
{
    ZV_DownloadListResponse part;
    part.ulResult = ulResult;
    part.user = user;
    ZV_PduBuffer pdu;
    QB_ByteStream& stream = pdu.Stream();
    part.SaveHead(stream);
    const int32_t nHeadEnd = stream.GetPos();
    uint32_t ulSent = 0;
    ZV_CutList(
        ZV_DownloadListResponse::kHeadSize, arrInfo.GetSize(),
        [&](int i) { return ZV_DownloadListEntrySize(arrInfo[i]); },
        [&](int nFrom, int nTo, bool) {
            part.arrInfo.RemoveAll();
            part.arrModify.RemoveAll();
            for (int i = nFrom; i < nTo; ++i)
            {
                part.arrInfo.Add(arrInfo[i]);
                part.arrModify.Add(i < arrModify.GetSize() && arrModify[i]);
            }
            stream.SeekTo(nHeadEnd);
            part.SaveBody(stream);
            ulSent = ZV_SendToLink(m_lpConf, ulConn, PDU_CONF_GET_DOWNLOAD_SESSION_LIST_RESPONSE, pdu);
        });
    return ulSent;
}

// The running result is not reset between entries: a local file that
// failed stops the data requests of the entries behind it in this PDU.
uint32_t ZV_FileShareMgr::HandleGetDownloadSessionListResponse(ConfPduData* lpCpd)
{
    // A line per entry: written together when the PDU is done.
    QB_LogBatch logBatch;
    try
    {
        if (!m_lpConf->IsClientMode())
            return 0;
        ZV_PayloadReader stream(lpCpd);
        ZV_DownloadListResponse list;
        list.Load(stream);
        uint32_t ulResult = list.ulResult;
        for (int i = 0; i < list.arrInfo.GetSize(); ++i)
            ApplyListedDownload(lpCpd, list.arrInfo[i], list.arrModify[i], list.user, ulResult);
    }
    catch (...)
    {
        QB_WriteLog(QB_LOG_DAILY, "error", "ZV_FileShareMgr::HandleGetDownloadSessionListResponse exception.\r\n");
    }
    return 0;
}

// One listed record, under the lock of the map; the event goes after it.
void ZV_FileShareMgr::ApplyListedDownload(const ConfPduData* lpCpd, ZV_FileDownloadInfo r, bool bModify,
                                          const QB_UserID& listUser, uint32_t& ulResult)
{
    const uint16_t usFileID = r.m_usFileID;
    ZV_FileShareSession* lpFsSession = nullptr;
    uint32_t ulSize = 0;
    {
        QB_Lock lock(&m_mapSession);
        if (!m_mapSession.Lookup(usFileID, lpFsSession) || lpFsSession == nullptr)
            return;
        if (!ResumeListedDownload(lpCpd, lpFsSession, r, bModify, listUser, ulResult, ulSize))
            return;
        lpFsSession->SetLocalDownload(r);
    }
    if (m_lpConfSink == nullptr)
        return;
    QB_WriteLog(QB_LOG_DAILY, "HandleGetDownloadSessionListResponse...fileshare", "ulResult=%d.\r\n", (int)ulResult);
    lpFsSession->NotifyDownloadState(ulResult, usFileID, r,
                                     ZV_PercentOfShare(ulSize, r.m_ulFileLenth, ZV_IfEmpty::Whole));
}

// False when the entry ends before the local record takes it.
bool ZV_FileShareMgr::ResumeListedDownload(const ConfPduData* lpCpd, ZV_FileShareSession* lpFsSession,
                                           ZV_FileDownloadInfo& r, bool bModify, const QB_UserID& listUser,
                                           uint32_t& ulResult, uint32_t& ulSize)
{
    const uint16_t usFileID = r.m_usFileID;
    const ZV_FileDownloadInfo d = lpFsSession->LocalDownload();
    const bool bRecord = d.m_usFileID != ZV_NO_FILEID;
    const QB_UserID me = *LocalUser();
    const QB_StringW sPath(r.m_sFilePath + r.m_sFileName);
    if (bRecord && d.m_usState == zvDownloadStateNew)
    {
        lpFsSession->SendDelDownloadRequest(lpCpd->ulConn, usFileID, &me, 0);
        return false;
    }
    // The client only ever touches a file its user chose to download into:
    // the record's path must be the one this client holds, or, when a
    // restart took its record, the one its user last asked for.
    if (r.m_sFileName.IsEmpty() ||
        (bRecord ? sPath != QB_StringW(d.m_sFilePath + d.m_sFileName)
                 : !m_ShareLedger.HoldsDownload(m_lpConf->GetConfID(), usFileID, r.m_sFilePath + r.m_sFileName)))
        return false;
    // A client's description of a file is the one it was last told, by an
    // announcement or an upload list; the record an upload list brought is
    // not there for a file that was only announced.
    const ZV_FileBriefInfo& brief = lpFsSession->BriefInfo();
    if (!brief.m_bPublic && brief.m_arrRight.Find(listUser) < 0)
    {
        DropWithdrawnDownload(usFileID, lpFsSession, r);
        return false;
    }
    if (!bModify && d.m_usState == zvDownloadStateStopped && r.m_usState != zvDownloadStateStopped)
    {
        r.SetStopped(true);
        r.SetState(zvDownloadStateStopped);
        lpFsSession->SendIsStopDownloadRequest(lpCpd->ulConn, usFileID, &me, 0, 1);
    }
    // A finished download that is whole on disk is only measured, by its
    // folder entry: nothing will be written to it, and opening thousands of
    // files would make a returning user's join cost far more than its list.
    // Anything else is opened as before, since it may be written.
    if (ulResult == zvResultOk && r.m_usState == zvDownloadStateFinished &&
        QB_GetEnv()->GetFileSizeByName(std::u16string(sPath.View())) == (int64_t)r.m_ulFileLenth)
        ulSize = r.m_ulFileLenth;
    else if (ulResult == zvResultOk)
        ulResult = lpFsSession->MeasureLocalFile(sPath, r.m_usState != zvDownloadStateFinished, ulSize);
    if (r.m_usState == zvDownloadStateFinished && ulSize == r.m_ulFileLenth && ulResult == zvResultOk)
    {
        lpFsSession->CloseFile();
        ulSize = r.m_ulDownloadPos;
    }
    else if (ulResult == zvResultOk)
        RestartListedDownload(lpCpd, lpFsSession, r, bModify, d, ulResult, ulSize);
    if (ulResult == zvResultCannotOpen && d.m_usState == zvDownloadStateFinished)
    {
        // A finished download whose file was moved away is no failure.
        lpFsSession->CloseFile();
        ulResult = zvResultOk;
        ulSize = r.m_ulFileLenth;
    }
    return true;
}

void ZV_FileShareMgr::RestartListedDownload(const ConfPduData* lpCpd, ZV_FileShareSession* lpFsSession,
                                            ZV_FileDownloadInfo& r, bool bModify, const ZV_FileDownloadInfo& d,
                                            uint32_t& ulResult, uint32_t& ulSize)
{
    const uint16_t usFileID = r.m_usFileID;
    const QB_UserID me = *LocalUser();
    if (bModify)
    {
        // Another file stands under this FileID now: what is here is of the old one.
        if (!lpFsSession->EmptyLocalFile())
            ulResult = zvResultCannotAccess;
        ulSize = 0;
        r.SetState(zvDownloadStateRunning);
    }
    r.SetDownloadPos(ulSize);
    r.SetLastTick(ZV_Now());
    if (ulResult != zvResultOk)
        return;
    if (ulSize >= r.m_ulFileLenth)
    {
        r.SetState(zvDownloadStateFinished);
        return;
    }
    const bool bStaysStopped = r.m_usState == zvDownloadStateStopped &&
                               (d.m_usFileID == ZV_NO_FILEID || d.m_usState != zvDownloadStateRunning);
    if (!bStaysStopped)
    {
        if (r.m_usState == zvDownloadStateStopped)
        {
            r.SetStopped(false);
            lpFsSession->SendIsStopDownloadRequest(lpCpd->ulConn, usFileID, &me, 0, 0);
        }
        MarkBusy(true, usFileID);
        r.SetState(zvDownloadStateRunning);
    }
    lpFsSession->AskForBlocks(lpCpd->ulConn, usFileID, me, r);
}

// The right went while the user was away: the partial file goes, and the
// local record with it, so that nothing restarts the download later.
void ZV_FileShareMgr::DropWithdrawnDownload(uint16_t usFileID, ZV_FileShareSession* lpFsSession,
                                            const ZV_FileDownloadInfo& r)
{
    const ZV_FileDownloadInfo& download = lpFsSession->LocalDownload();
    lpFsSession->CloseFile();
    // A row the ledger fails to forget (logged) names only a target this user chose.
    m_ShareLedger.ForgetDownload(m_lpConf->GetConfID(), usFileID);
    // The record's path is the local one, or the one the user last asked
    // for when a restart took the local record. Tried once: a partial file
    // that stays is the user's to remove.
    if (r.m_usState != zvDownloadStateFinished && download.m_usState != zvDownloadStateFinished)
        QB_FileEx::Delete(QB_StringW(r.m_sFilePath + r.m_sFileName));
    lpFsSession->ResetLocalDownload(false);
    MarkBusy(false, usFileID);
}
