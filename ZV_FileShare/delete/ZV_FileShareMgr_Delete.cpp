// Taking a whole file out of the conference: the creator's or a privileged
// user's FsDelUpload and 8008, the first server's check, the flood to every
// server, and 8009 to every client, which drops its session; and the user's
// FsDelDownload, which gives up only the user's own download.
#include "core/ZV_FileShareMgr.h"
#include "delete/ZV_DeletePdu.h"
#include "core/ZV_FileShareSession.h"
#include "wire/ZV_PduTable.h"

#include "QB_Env.h"
#include "QB_FileEx.h"
#include "QB_Log.h"

#include <string>

namespace {

// Only a file counts: a folder at the path is not what the user downloaded.
bool IsFileAt(const QB_StringW& sPath)
{
    const std::u16string sStd(sPath.GetString(), (size_t)sPath.GetLength());
    const uint32_t ulAttr = QB_GetEnv()->GetFileAttributes(sStd);
    return ulAttr != QB_ATTR_INVALID && (ulAttr & QB_ATTR_DIRECTORY) == 0;
}

QB_StringW LocalPathOf(const ZV_FileDownloadInfo& download)
{
    return QB_StringW(download.m_sFilePath) + QB_StringW(download.m_sFileName);
}

} // namespace

// ---------------------------------------------------------------------------
// Client: the user side

// The session stays until the server's answer; a refused delete leaves the
// upload stopped, as the user asked.
uint32_t ZV_FileShareMgr::FsDelUpload(uint16_t usFileID)
{
    if (m_lpConf == nullptr)
        return zvResultNoHost;
    return GuardFs("ZV_FileShareMgr::FsDelUpload exception.\r\n", [&]() -> uint32_t {
        ZV_FileShareSession* lpFsSession = nullptr;
        if (const uint32_t ulFound = LookupSession(usFileID, lpFsSession); ulFound != zvResultOk)
            return ulFound;
        lpFsSession->SetUploadStopped(true);
        const uint32_t ulConn = GetLinkConn(zvConfClientTypeCommand);
        if (ulConn == zvConnNone)
            return zvResultNoConnection;
        // Once the delete goes, the user has withdrawn the share whatever the
        // server answers: no word of a server makes this client read the file
        // again. A delete that could not go changes nothing, so the user may
        // try again and the file stays where the conference holds it.
        if (lpFsSession->IsLocalCreator())
        {
            m_ShareLedger.Forget(m_lpConf->GetConfID(), lpFsSession->BriefInfo());
            lpFsSession->WithdrawLocalShare();
            MarkBusy(false, usFileID);
        }
        return SendDelUploadRequest(ulConn, usFileID, LocalUser(), 0, false);
    });
}

// Deletes only a file this client downloaded itself: the path comes from
// the local download record or from the path kept when the file went, both
// of which only the user's own FsDownload could fill.
uint32_t ZV_FileShareMgr::FsDelDownload(uint16_t usFileID, uint8_t bDeleteFile)
{
    if (m_lpConf == nullptr)
        return zvResultNoHost;
    return GuardFs("ZV_FileShareMgr::FsDelDownload exception.\r\n", [&]() -> uint32_t {
        MarkBusy(false, usFileID);
        // A row the ledger fails to forget (logged) names only a target this user chose.
        m_ShareLedger.ForgetDownload(m_lpConf->GetConfID(), usFileID);
        ZV_FileShareSession* lpFsSession = nullptr;
        QB_StringW sLocalPath;
        ZV_FileDownloadInfo download;
        if (m_mapSession.Lookup(usFileID, lpFsSession))
        {
            // The user side calls beside the host's thread, which may hold
            // the FileID reserved for an add at this moment.
            if (lpFsSession == nullptr)
                return zvResultReservedFile;
            download = lpFsSession->LocalDownload();
            sLocalPath = LocalPathOf(download);
            // The creator never downloads its own file: its open file is the
            // one it uploads, and closing it would fail the upload.
            if (!lpFsSession->IsLocalCreator())
                lpFsSession->CloseFile();
        }
        else if (m_mapFinishedDownload.Lookup(usFileID, sLocalPath))
            m_mapFinishedDownload.RemoveKey(usFileID);
        else
            return zvResultOk;
        // A record that never named a file names only its folder.
        const bool bNamesFile = lpFsSession == nullptr || !download.m_sFileName.IsEmpty();
        if (bDeleteFile && bNamesFile && IsFileAt(sLocalPath) && !QB_FileEx::Delete(sLocalPath))
            return zvResultCannotDelete;
        if (lpFsSession == nullptr)
            return zvResultOk;
        lpFsSession->ResetLocalDownload(true);
        if (!lpFsSession->IsFileVisible(lpFsSession->BriefInfo()))
            return zvResultOk;
        const uint32_t ulConn = GetLinkConn(zvConfClientTypeCommand);
        if (ulConn == zvConnNone)
            return zvResultNoConnection;
        lpFsSession->SendIsStopDownloadRequest(ulConn, usFileID, LocalUser(), 0, 1);
        return lpFsSession->SendDelDownloadRequest(ulConn, usFileID, LocalUser(), 0);
    });
}

uint32_t ZV_FileShareMgr::SendDelUploadRequest(uint32_t ulConn, uint16_t usFileID, const QB_UserID* lpUser,
                                               uint32_t ulFloodSeq, bool bToAll)
{
    ZV_DelUploadRequest ask;
    ask.usFileID = usFileID;
    ask.user = *lpUser;
    ask.ulFloodSeq = ulFloodSeq;
    ZV_PduBuffer pdu;
    ask.Save(pdu.Stream());
    if (bToAll)
        return ZV_SendToGroup(m_lpConf, ulConn, PDU_CONF_FS_DEL_UPLOAD_REQUEST, pdu);
    return ZV_SendToLink(m_lpConf, ulConn, PDU_CONF_FS_DEL_UPLOAD_REQUEST, pdu);
}

// ---------------------------------------------------------------------------
// Server: the request

// A server link's request is not checked: the first server decided for all.
// A client removes nothing on a request: only the server's answer (8009)
// tells it that the file went.
uint32_t ZV_FileShareMgr::HandleDelUploadRequest(ConfPduData* lpCpd)
{
    ZV_PayloadReader stream(lpCpd);
    ZV_DelUploadRequest ask;
    ask.Load(stream);
    if (!m_lpConf->IsServerMode() || !ZV_IsNewFlood(m_lpConf, ask.user, ask.ulFloodSeq))
        return 0;
    ZV_FileShareSession* lpFsSession = nullptr;
    uint32_t ulResult = m_mapSession.Lookup(ask.usFileID, lpFsSession) ? zvResultOk : zvResultUnknownFile;
    if (!ZV_IsServerLink(lpCpd->conn_type))
    {
        if (ulResult == zvResultOk)
            ulResult = CheckDelUpload(lpFsSession, ask.user);
        if (ulResult != zvResultOk)
        {
            SendDelUploadResponse(lpCpd->ulConn, ask.usFileID, ulResult, ask.usFileID, &ask.user, ask.ulFloodSeq,
                                  false);
            return 0;
        }
    }
    // Passed on even for a FileID unknown here: a neighbour may hold it.
    ZV_PduBuffer pdu;
    ask.Save(pdu.Stream());
    ZV_SendToServers(m_lpConf, zvConnNone, PDU_CONF_FS_DEL_UPLOAD_REQUEST, pdu, 1, 1, false);
    // A reserved FileID has no file to remove yet, and is not remembered as
    // deleted: the add that reserved it will make a file under it, which a
    // peer's list must not then see deleted.
    if (ulResult != zvResultOk || lpFsSession == nullptr)
        return 0;
    RemoveStoredFile(ask.usFileID, lpFsSession, &ask.user, ask.ulFloodSeq);
    if (m_arrDelFileID.Find(ask.usFileID) < 0)
        m_arrDelFileID.Add(ask.usFileID);
    return 0;
}

// A reserved FileID answers 83: the add that reserved it is still under
// way, and there is nothing yet to delete. Only a host that hands the
// manager a PDU while the add is still sending can meet such a FileID.
uint32_t ZV_FileShareMgr::CheckDelUpload(ZV_FileShareSession* lpFsSession, const QB_UserID& user)
{
    if (lpFsSession == nullptr)
        return zvResultReservedFile;
    const ZV_ConfUserInfo* lpUser = m_lpConf->GetUser(&user);
    if (lpUser == nullptr)
        return zvResultNotInConf;
    if (user == lpFsSession->FileInfo().m_BriefInfo.m_CreatorID || lpUser->usRole == zvUserRolePrivileged)
        return zvResultOk;
    return zvResultNotEntitled;
}

// ---------------------------------------------------------------------------
// Client: the answer

uint32_t ZV_FileShareMgr::HandleDelUploadResponse(ConfPduData* lpCpd)
{
    try
    {
        ZV_PayloadReader stream(lpCpd);
        ZV_DelUploadResponse answer;
        answer.Load(stream);
        const uint16_t usFileID = answer.head.usFileID;
        if (m_lpConf->IsResponseFloodSeen(&answer.head.user, answer.ulFloodSeq))
            return 0;
        ZV_FileShareSession* lpFsSession = nullptr;
        m_mapSession.Lookup(usFileID, lpFsSession);
        // A refusal answers the user's own request; a delete is news only to
        // a user who could see the file.
        if (answer.head.ulResult != zvResultOk || (lpFsSession && lpFsSession->IsFileVisible(lpFsSession->BriefInfo())))
            NotifyFileGone(answer.head.ulResult, usFileID);
        if (answer.head.ulResult != zvResultOk)
            return 0;
        MarkBusy(false, usFileID);
        if (lpFsSession != nullptr)
            DropDeletedSession(usFileID, lpFsSession);
    }
    catch (...)
    {
        QB_WriteLog(QB_LOG_DAILY, "error", "ZV_FileShareMgr::HandleDelUploadResponse exception.\r\n");
    }
    return 0;
}

// A finished download is the user's to keep, and its path is kept for a
// later FsDelDownload; an unfinished one is of no use without the file. The
// creator's own shared file is never a download record, so it stays.
void ZV_FileShareMgr::DropDeletedSession(uint16_t usFileID, ZV_FileShareSession* lpFsSession)
{
    // A file shared later under the same FileID is not what the user asked
    // for. A row the ledger fails to forget (logged) names only that target.
    m_ShareLedger.ForgetDownload(m_lpConf->GetConfID(), usFileID);
    // A file of the user's own that left the conference is shared again
    // only by the user.
    if (lpFsSession->IsLocalCreator())
        m_ShareLedger.Forget(m_lpConf->GetConfID(), lpFsSession->BriefInfo());
    const ZV_FileDownloadInfo& download = lpFsSession->LocalDownload();
    const bool bNamed = !download.m_sFileName.IsEmpty() && !download.m_sFilePath.IsEmpty();
    if (download.m_usState == zvDownloadStateFinished || download.m_usState == zvDownloadStateNew)
    {
        if (bNamed)
            m_mapFinishedDownload[usFileID] = LocalPathOf(download);
    }
    else
    {
        lpFsSession->CloseFile();
        // Tried once: a partial file that stays is the user's to remove.
        if (bNamed)
            QB_FileEx::Delete(LocalPathOf(download));
    }
    RemoveSession(usFileID);
}
