// Stop, resume, progress, upload errors and the session's timer.
//
// A stop or resume goes from the client to its server, which floods it to
// the other servers and, for an upload, confirms it to every client (8018).
// Nothing here moves a position or touches a file: a stopped transfer keeps
// where it stood, and a resume goes on from the position the server holds.
// Progress (8022) is published by the servers, at most one group PDU per
// ten-thousandth of the file.
#include "core/ZV_FileShareSession.h"
#include "control/ZV_ControlPdu.h"
#include "rights/ZV_RightsPdu.h"
#include "core/ZV_Percent.h"

namespace {

// A client's own request comes over a link type below this; a server's
// flood over 0x1000 and up.
constexpr uint16_t kFirstServerConnType = 23;

// A whole file's progress, in ten-thousandths.
constexpr uint32_t kProgressWhole = 10000;

bool IsClientRequest(const ConfPduData* lpCpd)
{
    return lpCpd->conn_type < kFirstServerConnType;
}

} // namespace

// ---------------------------------------------------------------------------
// Server: stop and resume of a download

uint32_t ZV_FileShareSession::HandleIsStopDownloadRequest(ConfPduData* lpCpd)
{
    IZV_ConfHost* lpConf = Conf();
    ZV_PayloadReader stream(lpCpd);
    ZV_StopDownloadAsk ask;
    ask.Load(stream);
    if (!lpConf->IsServerMode())
        return 0;
    if (!ZV_IsNewFlood(lpConf, ask.user, ask.ulFloodSeq))
        return 0;
    FloodStopAsk(PDU_CONF_FS_IS_STOP_DOWNLOAD_REQUEST, ask.user, ask.ulFloodSeq, ask.bStop, 0);
    ZV_FileDownloadInfo* pEntry = m_mapDownload.Find(ask.user);
    if (pEntry == nullptr || pEntry->m_usState == zvDownloadStateFinished)
        return 0;
    pEntry->SetStopped(ask.bStop != 0);
    pEntry->SetState(zvDownloadStateStopped);
    if (!ask.bStop)
    {
        // The pause does not count as time spent downloading.
        pEntry->SetLastTick(ZV_Now());
        pEntry->SetState(zvDownloadStateRunning);
        if (pEntry->m_bActive)
            KickDownloadConn(lpConf->GetUserConn(&ask.user, zvConfClientTypeData));
    }
    SendFileStateNotice(m_usFileID, pEntry->m_usState, 0);
    return 0;
}

// 8016 and 8017 go on to the other servers as they came, with the sequence
// the first server gave them.
void ZV_FileShareSession::FloodStopAsk(uint16_t usPdu, const QB_UserID& user, uint32_t ulFloodSeq, uint8_t bStop,
                                       uint32_t ulPos)
{
    ZV_StopUploadAsk ask;
    ask.usFileID = m_usFileID;
    ask.user = user;
    ask.ulFloodSeq = ulFloodSeq;
    ask.bStop = bStop;
    ask.ulPos = ulPos;
    ZV_PduBuffer pdu;
    // 8016 is 8017 without the position.
    if (usPdu == PDU_CONF_FS_IS_STOP_UPLOAD_REQUEST)
        ask.Save(pdu.Stream());
    else
        static_cast<const ZV_StopDownloadAsk&>(ask).Save(pdu.Stream());
    ZV_SendToServers(Conf(), zvConnNone, usPdu, pdu);
}

// ---------------------------------------------------------------------------
// Server: stop and resume of an upload

uint32_t ZV_FileShareSession::HandleIsStopUploadRequest(ConfPduData* lpCpd)
{
    IZV_ConfHost* lpConf = Conf();
    ZV_PayloadReader stream(lpCpd);
    ZV_StopUploadAsk ask;
    ask.Load(stream);
    if (!lpConf->IsServerMode())
        return 0;
    const ZV_FileBriefInfo& brief = m_FileInfo.m_BriefInfo;
    if (IsClientRequest(lpCpd))
    {
        if (ask.user != brief.m_CreatorID)
        {
            SendIsStopUploadResponse(lpCpd->ulConn, m_usFileID, zvResultNotEntitled, m_usFileID, &ask.user,
                                     ask.bStop, 0);
            return 0;
        }
        if (brief.m_usFileState == zvFileStateAdded || brief.m_usFileState == zvFileStateComplete)
            return 0;
    }
    // The first server speaks for what it holds, not for what the client read.
    if (ask.ulFloodSeq == 0)
    {
        ask.ulFloodSeq = lpConf->NewFloodSeq(&ask.user, 0);
        ask.ulPos = m_FileInfo.m_ulFileWritePos;
    }
    if (lpConf->IsFloodSeen(&ask.user, ask.ulFloodSeq))
        return 0;
    FloodStopAsk(PDU_CONF_FS_IS_STOP_UPLOAD_REQUEST, ask.user, ask.ulFloodSeq, ask.bStop, ask.ulPos);
    m_bStopUpload = ask.bStop != 0;
    if (ask.bStop)
        StopUpload(ask.user, ask.ulPos);
    else
        ResumeUpload(lpCpd, ask.user, ask.ulFloodSeq);
    // A stop or resume outlives a restart of the server.
    SaveToCatalog();
    return 0;
}

void ZV_FileShareSession::StopUpload(const QB_UserID& user, uint32_t ulPos)
{
    if (m_ulMaxPos < ulPos)
        m_ulMaxPos = ulPos;
    SendIsStopUploadResponse(zvConnNone, m_usFileID, zvResultOk, m_usFileID, &user, 1, m_ulMaxPos);
    m_FileInfo.m_BriefInfo.SetFileState(zvFileStateStopped);
}

// The 8006 to the uploader is what restarts it, from the write position:
// blocks dropped while the upload stood still are sent again.
void ZV_FileShareSession::ResumeUpload(const ConfPduData* lpCpd, const QB_UserID& user, uint32_t ulFloodSeq)
{
    SendIsStopUploadResponse(zvConnNone, m_usFileID, zvResultOk, m_usFileID, &user, 0, 0);
    m_FileInfo.m_BriefInfo.SetFileState(zvFileStateUploading);
    if (IsClientRequest(lpCpd))
    {
        m_bResyncPending = true;
        SendUploadResponse(lpCpd->ulConn, m_usFileID, zvResultOk, m_usFileID, &user, ulFloodSeq,
                           m_FileInfo.m_ulFileWritePos);
    }
    // Downloaders do not count the pause as time spent.
    const uint32_t ulNow = ZV_Now();
    for (QB_POSITION pos = m_mapDownload.GetStartPosition(); pos != nullptr;)
    {
        QB_UserID user;
        ZV_FileDownloadInfo* pEntry = m_mapDownload.GetNextAssoc(pos, user);
        if (pEntry)
            pEntry->SetLastTick(ulNow);
    }
}

// ---------------------------------------------------------------------------
// Client: the server's confirmation of an upload's stop or resume

uint32_t ZV_FileShareSession::HandleIsStopUploadResponse(ConfPduData* lpCpd)
{
    IZV_ConfHost* lpConf = Conf();
    ZV_PayloadReader stream(lpCpd);
    ZV_StopUploadResponse answer;
    answer.Load(stream);
    const uint32_t ulResult = answer.ulResult;
    const uint16_t usFileID = answer.usFileID;
    const uint8_t bStop = answer.bStop;
    const uint32_t ulPos = answer.ulPos;
    if (lpConf->IsServerMode())
        return 0;
    if (ulResult == zvResultOk)
    {
        m_BriefInfo.SetFileState(bStop ? zvFileStateStopped : zvFileStateUploading);
        if (IsLocalCreator())
            m_lpMgr->MarkBusy(!bStop, usFileID);
    }
    if (!IsFileVisible(m_BriefInfo))
        return 0;
    if (ulResult == zvResultOk)
    {
        if (bStop)
            NotifyUploadProgress(usFileID, ZV_PercentOfShare(ulPos, m_BriefInfo.m_ulFileLenth, ZV_IfEmpty::Whole));
        NotifyTransferState(1, usFileID, m_BriefInfo.m_usFileState);
        m_LocalDownload.SetLastTick(ZV_Now());
    }
    NotifyStopResult(ulResult, usFileID, bStop);
    return 0;
}

// The record follows what the server holds, so that the description a
// later event carries says so; only the creator's own upload, which its
// client runs and may have stopped meanwhile, waits for the whole file.
void ZV_FileShareSession::TakeNoticedState(uint16_t usState)
{
    if (!IsLocalCreator() || usState == zvFileStateComplete)
        m_BriefInfo.SetFileState(usState);
}

bool ZV_FileShareSession::IsLocalCreator() const
{
    const QB_UserID* lpLocal = Conf()->GetLocalUserID();
    return lpLocal != nullptr && *lpLocal == m_BriefInfo.m_CreatorID;
}

// ---------------------------------------------------------------------------
// Progress between servers (8021) and to the clients (8022)

uint32_t ZV_FileShareSession::HandleProgressingRequest(ConfPduData* lpCpd)
{
    ZV_PayloadReader stream(lpCpd);
    ZV_ProgressRequest progress;
    progress.Load(stream);
    if (!Conf()->IsServerMode())
        return 0;
    if (progress.bRestart)
        m_mapDownload.RemoveKey(QB_UserID(lpCpd->ulUserMain, lpCpd->ulUserSub));
    else if (progress.ulPos < m_FileInfo.m_ulFileWritePos)
        SendProgressing(lpCpd->ulConn, m_usFileID, &progress.user, 0, false);
    return 0;
}

uint32_t ZV_FileShareSession::HandleProgressingResponse(ConfPduData* lpCpd)
{
    ZV_PayloadReader stream(lpCpd);
    ZV_Progress progress;
    progress.Load(stream);
    if (lpCpd->conn_type == zvConfServerTypeCommand)
        PullFromUpstream(lpCpd, progress.user);
    else if (Conf()->IsClientMode())
        ApplyProgress(progress.usFileID, progress.ulPos);
    return 0;
}

// A relay's upstream has more than the relay: the relay fetches from there,
// once, and tells the other servers to forget it as a downloader.
void ZV_FileShareSession::PullFromUpstream(const ConfPduData* lpCpd, const QB_UserID& user)
{
    IZV_ConfHost* lpConf = Conf();
    if (m_bPulling)
        return;
    m_bPulling = true;
    if (lpConf->HasServerLinks())
    {
        ZV_ProgressRequest progress;
        progress.usFileID = m_usFileID;
        progress.user = QB_UserID(lpConf->GetLocalServerID(), 0);
        progress.ulPos = m_FileInfo.m_ulFileWritePos;
        progress.bRestart = 1;
        ZV_PduBuffer pdu;
        progress.Save(pdu.Stream());
        ZV_SendToServers(lpConf, lpCpd->ulConn, PDU_CONF_FS_PROGRESSING_REQUEST, pdu, 1, 0);
    }
    const QB_StringU8 sPath(GetConfDir() + QB_StringW(m_FileInfo.m_sFileNewName));
    SendDownloadRequest(lpCpd->ulConn, m_usFileID, &user, 0, sPath, m_FileInfo.m_ulFileWritePos, 1, 0);
}

// A client hears how far the file has arrived at the server. The creator's
// client keeps its file open until everything has arrived, so that it can
// send again from any position the server names.
void ZV_FileShareSession::ApplyProgress(uint16_t usFileID, uint32_t ulPos)
{
    const uint32_t ulLength = m_BriefInfo.m_ulFileLenth;
    const bool bCreator = IsLocalCreator();
    m_ulMaxPos = ulPos;
    if (!bCreator)
        m_BriefInfo.SetFileState(ulPos < ulLength ? zvFileStateUploading : zvFileStateComplete);
    if (bCreator && ulPos >= ulLength && m_File.IsOpen())
        m_File.Close();
    if (!IsFileVisible(m_BriefInfo))
        return;
    NotifyUploadProgress(usFileID, ZV_PercentOfShare(ulPos, ulLength, ZV_IfEmpty::Whole));
    if (ulPos >= ulLength && bCreator)
        m_lpMgr->MarkBusy(false, usFileID);
}

// ---------------------------------------------------------------------------
// Upload errors: the uploader's client could not read its file

uint32_t ZV_FileShareSession::HandleUploadErrorRequest(ConfPduData* lpCpd)
{
    IZV_ConfHost* lpConf = Conf();
    ZV_PayloadReader stream(lpCpd);
    ZV_UploadErrorAsk ask;
    ask.Load(stream);
    if (!lpConf->IsServerMode())
        return 0;
    // A client speaks only of the upload of its own file: anyone else's word
    // that it failed is refused and changes nothing. A server's is decided.
    if (IsClientRequest(lpCpd) && !(ask.user == m_FileInfo.m_BriefInfo.m_CreatorID))
    {
        SendUploadErrorResponse(lpCpd->ulConn, m_usFileID, zvResultNotEntitled, m_usFileID);
        return 0;
    }
    if (IsClientRequest(lpCpd) && m_FileInfo.m_BriefInfo.m_usFileState == zvFileStateComplete)
        return 0;
    if (!ZV_IsNewFlood(lpConf, ask.user, ask.ulFloodSeq))
        return 0;
    m_ulMaxPos = ask.ulPos;
    if (lpConf->HasServerLinks())
    {
        ask.usFileID = m_usFileID;
        ZV_PduBuffer pdu;
        ask.Save(pdu.Stream());
        ZV_SendToServers(lpConf, zvConnNone, PDU_CONF_FS_UPLOAD_ERROR_REQUEST, pdu);
    }
    m_FileInfo.m_BriefInfo.SetFileState(zvFileStateFailed);
    SendUploadErrorResponse(zvConnNone, m_usFileID, zvResultOk, m_usFileID);
    return 0;
}

// The PDU's result is not what the user is told: a failed upload is always
// a failed read.
uint32_t ZV_FileShareSession::HandleUploadErrorResponse(ConfPduData* lpCpd)
{
    ZV_PayloadReader stream(lpCpd);
    ZV_UploadErrorResponse answer;
    answer.Load(stream);
    if (Conf()->IsClientMode() && IsFileVisible(m_BriefInfo))
        NotifyTransferError(zvResultCannotAccess, answer.usFileID);
    return 0;
}

// ---------------------------------------------------------------------------
// The timer. No time-out fails a transfer: a stalled one is only nudged.

void ZV_FileShareSession::OnTimer(uint32_t)
{
    if (Conf()->IsServerMode())
        OnServerTimer();
    else
        OnClientTimer();
}

void ZV_FileShareSession::OnServerTimer()
{
    if (m_bCatalogDirty)
        SaveToCatalog();
    if (m_bStoreMissing && MakeDirs(GetConfDir()))
        MakeEmptyStore();
    ZV_FileBriefInfo& brief = m_FileInfo.m_BriefInfo;
    if (brief.m_usFileState == zvFileStateComplete)
        return;
    if (m_FileInfo.m_ulFileWritePos >= brief.m_ulFileLenth)
    {
        brief.SetFileState(zvFileStateComplete);
        // The clients hold the file's state as this server last told it.
        SendFileStateNotice(m_usFileID, zvFileStateComplete, 1);
        return;
    }
    const uint32_t ulNow = ZV_Now();
    if (ulNow - m_ulLastIoTick <= ZV_SERVER_STALL_MS)
        return;
    // Looked at once per wait, not on each tick.
    m_bPulling = false;
    m_ulLastIoTick = ulNow;
    if (IsLocalUser(Conf(), brief.m_CreatorID))
        NudgeUploader();
    else
        AskServersForMore();
}

// A creator whose blocks were lost goes on from what arrived. So does one
// whose file has downloaders and no bytes yet: the start that the first of
// them sent may have found the creator away, and they would wait for good.
void ZV_FileShareSession::NudgeUploader()
{
    const QB_UserID& creator = m_FileInfo.m_BriefInfo.m_CreatorID;
    const uint16_t usState = m_FileInfo.m_BriefInfo.m_usFileState;
    const bool bAwaited = usState == zvFileStateAdded && !m_mapDownload.IsEmpty();
    if (usState != zvFileStateUploading && !m_bUploadDone && !bAwaited)
        return;
    const uint32_t ulConn = Conf()->GetUserConn(&creator, zvConfClientTypeCommand);
    if (ulConn == zvConnNone)
        return;
    m_bResyncPending = true;
    SendUploadResponse(ulConn, m_usFileID, zvResultOk, m_usFileID, &creator, 0, m_FileInfo.m_ulFileWritePos);
}

void ZV_FileShareSession::AskServersForMore()
{
    IZV_ConfHost* lpConf = Conf();
    if (!lpConf->HasServerLinks())
        return;
    ZV_ProgressRequest progress;
    progress.usFileID = m_usFileID;
    progress.user = QB_UserID(lpConf->GetLocalServerID(), 0);
    progress.ulPos = m_FileInfo.m_ulFileWritePos;
    ZV_PduBuffer pdu;
    progress.Save(pdu.Stream());
    ZV_SendToServers(lpConf, zvConnNone, PDU_CONF_FS_PROGRESSING_REQUEST, pdu, 1, 0);
}

// A file that stands still stops counting as busy once nothing has moved
// for a while, so the idle wait can begin: a stopped or failed download, and
// also one that names no file (a resume of a download never asked for) and
// the creator's upload once its pump has sent the last block, whose closing
// progress report may never come (a file the server held whole already, or a
// report lost with a link). Only a running upload or download keeps it; a
// download of a file the user may not see is not running, whatever the user
// side resumed: no server sends it.
void ZV_FileShareSession::OnClientTimer()
{
    const uint32_t ulNow = ZV_Now();
    // An upload started or resumed once the server held the whole file has
    // nothing to send, and its pump may never run (the data link was down
    // when it began): after the wait it is over, as a failed read would say.
    if (IsLocalCreator() && m_BriefInfo.m_usFileState == zvFileStateUploading &&
        m_ulMaxPos >= m_BriefInfo.m_ulFileLenth && ulNow - m_ulLastIoTick >= ZV_CLIENT_STALL_MS)
        m_BriefInfo.SetFileState(zvFileStateComplete);
    const bool bUploading = IsLocalCreator() && m_BriefInfo.m_usFileState == zvFileStateUploading;
    const bool bDownloading = !m_LocalDownload.m_sFileName.IsEmpty() &&
                              m_LocalDownload.m_usState == zvDownloadStateRunning && !m_bDownloadFailed &&
                              IsFileVisible(m_BriefInfo);
    if (bDownloading)
        AskAgainIfStalled(ulNow);
    else if (!bUploading && ulNow - m_ulLastIoTick >= ZV_CLIENT_STALL_MS)
        m_lpMgr->MarkBusy(false, m_usFileID);
}

// A running download to which nothing came for a stall's time, while the
// server has bytes beyond it, is one the server no longer knows of: its
// entry went with a restart, or with a download list that named another
// file while this client was away. It would wait for good; the client asks
// again, to the same path from where its file stands. No time-out fails it.
void ZV_FileShareSession::AskAgainIfStalled(uint32_t ulNow)
{
    const ZV_FileDownloadInfo& download = m_LocalDownload;
    const uint32_t ulConn = m_lpMgr->GetLinkConn(zvConfClientTypeCommand);
    const uint32_t ulStored =
        m_BriefInfo.m_usFileState == zvFileStateComplete ? m_BriefInfo.m_ulFileLenth : m_ulMaxPos;
    // The record's tick moves with each block and with a resume.
    if (ulStored <= download.m_ulDownloadPos || ulNow - m_ulLastIoTick < ZV_CLIENT_STALL_MS ||
        ulNow - download.m_ulLastTick < ZV_CLIENT_STALL_MS || ulConn == zvConnNone)
        return;
    m_ulLastIoTick = ulNow;
    const QB_StringU8 sPath = download.m_sFilePath + download.m_sFileName;
    m_sAskedPath = sPath;
    m_ulAskedPos = download.m_ulDownloadPos;
    m_bDownloadAsked = true;
    SendDownloadRequest(ulConn, m_usFileID, m_lpMgr->LocalUser(), 0, sPath, download.m_ulDownloadPos, 0, 0);
}

// ---------------------------------------------------------------------------
// Senders

uint32_t ZV_FileShareSession::SendIsStopDownloadRequest(uint32_t ulConn, uint16_t usFileID, const QB_UserID* pUser,
                                                       uint32_t ulFloodSeq, uint8_t bStop)
{
    ZV_StopDownloadAsk ask;
    ask.usFileID = usFileID;
    ask.user = *pUser;
    ask.ulFloodSeq = ulFloodSeq;
    ask.bStop = bStop;
    ZV_PduBuffer pdu;
    ask.Save(pdu.Stream());
    return ZV_SendToLink(Conf(), ulConn, PDU_CONF_FS_IS_STOP_DOWNLOAD_REQUEST, pdu);
}

uint32_t ZV_FileShareSession::SendIsStopUploadRequest(uint32_t ulConn, uint16_t usFileID, const QB_UserID* pUser,
                                                     uint32_t ulFloodSeq, uint8_t bStop, uint32_t ulPos)
{
    ZV_StopUploadAsk ask;
    ask.usFileID = usFileID;
    ask.user = *pUser;
    ask.ulFloodSeq = ulFloodSeq;
    ask.bStop = bStop;
    ask.ulPos = ulPos;
    ZV_PduBuffer pdu;
    ask.Save(pdu.Stream());
    return ZV_SendToLink(Conf(), ulConn, PDU_CONF_FS_IS_STOP_UPLOAD_REQUEST, pdu);
}

// A refusal goes to the asker alone; a confirmation to every client.
uint32_t ZV_FileShareSession::SendIsStopUploadResponse(uint32_t ulConn, uint16_t usFileID, uint32_t ulResult,
                                                      uint16_t usFileID2, const QB_UserID* pUser, uint8_t bStop,
                                                      uint32_t ulPos)
{
    ZV_StopUploadResponse answer;
    answer.usRouteID = usFileID;
    answer.ulResult = ulResult;
    answer.usFileID = usFileID2;
    answer.user = *pUser;
    answer.bStop = bStop;
    answer.ulPos = ulPos;
    ZV_PduBuffer pdu;
    answer.Save(pdu.Stream());
    if (ulResult != zvResultOk)
        return ZV_SendToLink(Conf(), ulConn, PDU_CONF_FS_IS_STOP_UPLOAD_RESPONSE, pdu);
    return ZV_SendToGroup(Conf(), zvConnNone, PDU_CONF_FS_IS_STOP_UPLOAD_RESPONSE, pdu);
}

uint32_t ZV_FileShareSession::SendUploadErrorRequest(uint32_t ulConn, uint16_t usFileID, const QB_UserID* pUser,
                                                    uint32_t ulFloodSeq, uint32_t ulPos)
{
    ZV_UploadErrorAsk ask;
    ask.usFileID = usFileID;
    ask.user = *pUser;
    ask.ulFloodSeq = ulFloodSeq;
    ask.ulPos = ulPos;
    ZV_PduBuffer pdu;
    ask.Save(pdu.Stream());
    return ZV_SendToLink(Conf(), ulConn, PDU_CONF_FS_UPLOAD_ERROR_REQUEST, pdu);
}

uint32_t ZV_FileShareSession::SendUploadErrorResponse(uint32_t ulConn, uint16_t usFileID, uint32_t ulResult,
                                                     uint16_t usFileID2)
{
    ZV_UploadErrorResponse answer;
    answer.usRouteID = usFileID;
    answer.ulResult = ulResult;
    answer.usFileID = usFileID2;
    ZV_PduBuffer pdu;
    answer.Save(pdu.Stream());
    if (ulResult != zvResultOk)
        return ZV_SendToLink(Conf(), ulConn, PDU_CONF_FS_UPLOAD_ERROR_RESPONSE, pdu);
    return ZV_SendToGroup(Conf(), zvConnNone, PDU_CONF_FS_UPLOAD_ERROR_RESPONSE, pdu);
}

// Throttled, a PDU goes to the group only when the published value changes,
// so a file yields at most 10000 of them whatever its size. An unchanged
// value would go to the connection the throttled callers pass, -1, which
// carries nothing; that call is left out.
uint32_t ZV_FileShareSession::SendProgressing(uint32_t ulConn, uint16_t usFileID, const QB_UserID* pUser,
                                             uint32_t ulPos, bool bThrottle)
{
    ZV_Progress progress;
    progress.usFileID = usFileID;
    progress.user = *pUser;
    progress.ulPos = ulPos;
    ZV_PduBuffer pdu;
    progress.Save(pdu.Stream());
    if (!bThrottle)
        return ZV_SendToLink(Conf(), ulConn, PDU_CONF_FS_PROGRESSING_RESPONSE, pdu);
    const uint32_t ulLength = m_FileInfo.m_BriefInfo.m_ulFileLenth;
    if (ulPos >= ulLength)
    {
        m_ulProgress = kProgressWhole;
        return ZV_SendToGroup(Conf(), ulConn, PDU_CONF_FS_PROGRESSING_RESPONSE, pdu);
    }
    const uint32_t ulValue = ZV_ProgressStep(ulPos, ulLength);
    if (ulValue == m_ulProgress)
        return 0;
    m_ulProgress = ulValue;
    return ZV_SendToGroup(Conf(), ulConn, PDU_CONF_FS_PROGRESSING_RESPONSE, pdu, 0, 0);
}

// ---------------------------------------------------------------------------
// Client: the user side moves its own transfers

void ZV_FileShareSession::StopLocalDownload()
{
    if (m_LocalDownload.m_usState != zvDownloadStateFinished)
        m_LocalDownload.SetState(zvDownloadStateStopped);
}

// The last tick moves so that the pause is not counted as time spent.
void ZV_FileShareSession::ResumeLocalDownload()
{
    if (m_LocalDownload.m_usState == zvDownloadStateFinished)
        return;
    m_LocalDownload.SetState(zvDownloadStateRunning);
    m_LocalDownload.SetLastTick(ZV_Now());
}

void ZV_FileShareSession::ResetLocalDownload(bool bForget)
{
    m_LocalDownload.SetDownloadPos(0);
    m_LocalDownload.SetState(zvDownloadStateNew);
    if (bForget)
        m_LocalDownload.SetFileName(QB_StringU8(""));
}

void ZV_FileShareSession::StartLocalUpload()
{
    m_ulReadPos = 0;
    m_BriefInfo.SetFileState(zvFileStateUploading);
}

// Begun and not complete; a failed upload counts, so that a resume can
// restart it.
void ZV_FileShareSession::StopLocalUpload(bool bStop)
{
    const uint16_t usState = m_BriefInfo.m_usFileState;
    if (usState != zvFileStateAdded && usState != zvFileStateComplete)
        m_BriefInfo.SetFileState(bStop ? zvFileStateStopped : zvFileStateUploading);
}

void ZV_FileShareSession::ChangeLocalRights(bool bPublic, const QB_Array<QB_UserID>& arrAdd,
                                            const QB_Array<QB_UserID>& arrRemove)
{
    m_BriefInfo.SetRight(ZV_ChangeRights(m_BriefInfo.m_arrRight, bPublic, arrAdd, arrRemove));
    m_BriefInfo.SetPublic(bPublic);
}

uint32_t ZV_FileShareSession::MeasureLocalFile(const QB_StringW& sPath, bool bMayCreate, uint32_t& ulSize)
{
    if (!m_File.IsOpen() && !m_File.Open(sPath, QB_FILE_READWRITE | QB_FILE_OPEN_EXISTING | QB_FILE_NO_LINK) &&
        (!bMayCreate || !m_File.Open(sPath, QB_FILE_READWRITE | QB_FILE_OPEN_ALWAYS | QB_FILE_NO_LINK)))
        return zvResultCannotOpen;
    const int32_t nLength = m_File.GetLength();
    if (nLength < 0)
        return zvResultCannotOpen;
    ulSize = (uint32_t)nLength;
    return zvResultOk;
}

bool ZV_FileShareSession::EmptyLocalFile()
{
    return m_File.Seek(0, QB_SEEK_BEGIN) >= 0 && m_File.SetEnd();
}
