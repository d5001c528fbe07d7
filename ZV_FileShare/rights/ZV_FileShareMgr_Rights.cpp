// Who may have a file: the creator's FsSetRight (one file, answered by 8004
// from every server to every client) and FsSetFilesRight (several files,
// 8040, applied by the client at once), and what a client does with a new
// description: a user who lost the file loses the partial download too.
#include "core/ZV_FileShareMgr.h"
#include "rights/ZV_EntryPdu.h"
#include "core/ZV_FileShareSession.h"
#include "rights/ZV_RightsPdu.h"
#include "core/ZV_Percent.h"

#include "QB_FileEx.h"
#include "QB_Log.h"

namespace {

QB_Array<QB_UserID> UsersOf(const QB_UserID* pUser, uint32_t nUser)
{
    QB_Array<QB_UserID> arrUser;
    for (uint32_t i = 0; pUser != nullptr && i < nUser; ++i)
        arrUser.Add(pUser[i]);
    return arrUser;
}

// Whether `user` may keep a download: neither creator nor role counts here.
bool MayHave(const ZV_FileBriefInfo& brief, const QB_UserID& user)
{
    return brief.m_bPublic || brief.m_arrRight.Find(user) >= 0;
}

} // namespace

// ---------------------------------------------------------------------------
// Client: the user side

// Nothing changes here: the new description comes back in 8004.
uint32_t ZV_FileShareMgr::FsSetRight(uint16_t usFileID, uint8_t bPublic, const QB_UserID* pAdd, uint32_t nAdd,
                                     const QB_UserID* pRemove, uint32_t nRemove)
{
    if (m_lpConf == nullptr)
        return zvResultNoHost;
    return GuardFs("ZV_FileShareMgr::FsSetRight exception.\r\n", [&]() -> uint32_t {
        ZV_FileShareSession* lpFsSession = nullptr;
        if (const uint32_t ulFound = LookupSession(usFileID, lpFsSession); ulFound != zvResultOk)
            return ulFound;
        const uint32_t ulConn = GetLinkConn(zvConfClientTypeCommand);
        if (ulConn == zvConnNone)
            return zvResultNoConnection;
        return lpFsSession->SendSetRightRequest(ulConn, usFileID, LocalUser(), bPublic, UsersOf(pAdd, nAdd),
                                                UsersOf(pRemove, nRemove));
    });
}

// No client reads the answer to 8040, so the client's own records change as
// soon as the request is out.
uint32_t ZV_FileShareMgr::FsSetFilesRight(const uint16_t* pFileID, uint32_t nFileID, uint8_t bPublic,
                                          const QB_UserID* pAdd, uint32_t nAdd, const QB_UserID* pRemove,
                                          uint32_t nRemove)
{
    if (m_lpConf == nullptr)
        return zvResultNoHost;
    bool bSent = false;
    const uint32_t ulResult = GuardFs("ZV_FileShareMgr::FsSetFilesRight exception.\r\n", [&]() -> uint32_t {
        QB_Array<uint16_t> arrFileID;
        QB_Array<ZV_FileShareSession*> arrSession;
        for (uint32_t i = 0; pFileID != nullptr && i < nFileID; ++i)
        {
            ZV_FileShareSession* lpFsSession = nullptr;
            if (const uint32_t ulFound = LookupSession(pFileID[i], lpFsSession); ulFound != zvResultOk)
                return ulFound;
            arrFileID.Add(pFileID[i]);
            arrSession.Add(lpFsSession);
        }
        const uint32_t ulConn = GetLinkConn(zvConfClientTypeCommand);
        if (ulConn == zvConnNone)
            return zvResultNoConnection;
        const QB_Array<QB_UserID> arrAdd = UsersOf(pAdd, nAdd);
        const QB_Array<QB_UserID> arrRemove = UsersOf(pRemove, nRemove);
        const uint32_t ulSent = SendSetFilesRightRequest(ulConn, arrFileID, LocalUser(), bPublic, arrAdd, arrRemove);
        bSent = true;
        if (ulSent != zvResultOk)
            return ulSent;
        for (int i = 0; i < arrSession.GetSize(); ++i)
            arrSession[i]->ChangeLocalRights(bPublic != 0, arrAdd, arrRemove);
        return zvResultOk;
    });
    // The request went out: what failed after it is the client's own view.
    return bSent && ulResult == zvResultException ? zvResultOk : ulResult;
}

uint32_t ZV_FileShareMgr::SendSetFilesRightRequest(uint32_t ulConn, const QB_Array<uint16_t>& arrFileID,
                                                   const QB_UserID* lpUser, uint8_t bPublic,
                                                   const QB_Array<QB_UserID>& arrAdd,
                                                   const QB_Array<QB_UserID>& arrRemove)
{
    ZV_SetFilesRightRequest ask;
    ask.arrFileID = arrFileID;
    ask.user = *lpUser;
    ask.bPublic = bPublic;
    ask.arrAdd = arrAdd;
    ask.arrRemove = arrRemove;
    ZV_PduBuffer pdu;
    ask.Save(pdu.Stream());
    return ZV_SendToLink(m_lpConf, ulConn, PDU_CONF_FS_SET_FILES_RIGHT_REQUEST, pdu);
}

uint32_t ZV_FileShareMgr::SendSetFilesRightResponse(uint32_t ulConn, const QB_Array<uint16_t>& arrFileID,
                                                    uint32_t ulResult, const QB_UserID& user, uint32_t ulFloodSeq)
{
    ZV_SetFilesRightRefusal refusal;
    refusal.arrFileID = arrFileID;
    refusal.ulResult = ulResult;
    refusal.user = user;
    refusal.ulFloodSeq = ulFloodSeq;
    ZV_PduBuffer pdu;
    refusal.Save(pdu.Stream());
    return ZV_SendToLink(m_lpConf, ulConn, PDU_CONF_FS_SET_FILES_RIGHT_RESPONSE, pdu);
}

// ---------------------------------------------------------------------------
// Server: several files at once

// Refused as a whole when a FileID is unknown or the first file is not the
// asker's. Each server then changes, of the files named, those the asker
// created, exactly as one 8003 would: the batch is no way round the
// creator's say over a file that stands behind the first.
uint32_t ZV_FileShareMgr::HandleSetFilesRightRequest(ConfPduData* lpCpd)
{
    ZV_PayloadReader stream(lpCpd);
    ZV_SetFilesRightRequest ask;
    ask.LoadHead(stream);
    // Rights are the servers' to keep. A batch of no file asks nothing, and
    // has no first file whose creator could be checked.
    if (!m_lpConf->IsServerMode() || ask.arrFileID.GetSize() == 0)
        return 0;
    QB_Array<ZV_FileShareSession*> arrSession;
    for (int i = 0; i < ask.arrFileID.GetSize(); ++i)
    {
        ZV_FileShareSession* lpFsSession = nullptr;
        // A reserved FileID answers 83 rather than 82: it is known here, it
        // only has no file yet.
        const uint32_t ulFound = LookupSession(ask.arrFileID[i], lpFsSession);
        if (ulFound != zvResultOk)
        {
            SendSetFilesRightResponse(lpCpd->ulConn, ask.arrFileID, ulFound, ask.user, ask.ulFloodSeq);
            return 0;
        }
        arrSession.Add(lpFsSession);
    }
    if (arrSession[0]->FileInfo().m_BriefInfo.m_CreatorID != ask.user)
    {
        SendSetFilesRightResponse(lpCpd->ulConn, ask.arrFileID, zvResultNotEntitled, ask.user, ask.ulFloodSeq);
        return 0;
    }
    if (!ZV_IsNewFlood(m_lpConf, ask.user, ask.ulFloodSeq))
        return 0;
    ask.LoadBody(stream);
    ZV_PduBuffer pdu;
    ask.Save(pdu.Stream());
    ZV_SendToServers(m_lpConf, zvConnNone, PDU_CONF_FS_SET_FILES_RIGHT_REQUEST, pdu);
    for (int i = 0; i < arrSession.GetSize(); ++i)
        if (arrSession[i]->FileInfo().m_BriefInfo.m_CreatorID == ask.user)
            arrSession[i]->ApplyRights(ask.bPublic, ask.arrAdd, ask.arrRemove);
    return 0;
}

// ---------------------------------------------------------------------------
// Client: a file's new description

uint32_t ZV_FileShareMgr::HandleSetRightResponse(ConfPduData* lpCpd)
{
    try
    {
        ZV_PayloadReader stream(lpCpd);
        ZV_SetRightResponse answer;
        answer.Load(stream);
        // A file's new description is for clients; servers learn rights
        // from the request itself.
        if (m_lpConf->IsServerMode())
            return 0;
        if (answer.ulResult != zvResultOk)
        {
            NotifyFileHidden(answer.ulResult, answer.usFileID);
            return 0;
        }
        QB_Lock lock(&m_mapSession);
        ApplyNewRights(answer.usFileID, answer.brief, answer.ulMaxPos);
    }
    catch (...)
    {
        QB_WriteLog(QB_LOG_DAILY, "error", "ZV_FileShareMgr::HandleSetRightResponse.AddRight exception.\r\n");
    }
    return 0;
}

// The loss comes first, so that the user side hears "gone" before any new
// view of the file.
void ZV_FileShareMgr::ApplyNewRights(uint16_t usFileID, const ZV_FileBriefInfo& brief, uint32_t ulMaxPos)
{
    ZV_FileShareSession* lpFsSession = nullptr;
    if (!m_mapSession.Lookup(usFileID, lpFsSession) || lpFsSession == nullptr)
        return;
    const ZV_FileBriefInfo old = lpFsSession->BriefInfo();
    lpFsSession->SetBriefInfo(brief);
    lpFsSession->RaiseMaxPos(ulMaxPos);
    if (old.m_bPublic && brief.m_bPublic)
        return;
    const QB_UserID& local = *LocalUser();
    if (local != brief.m_CreatorID && MayHave(old, local) && !MayHave(brief, local))
        DropLostDownload(usFileID, lpFsSession);
    if (lpFsSession->IsFileVisible(brief))
        NotifyRightChanged(zvResultOk, usFileID, brief,
                           ZV_PercentOfShare(ulMaxPos, brief.m_ulFileLenth, ZV_IfEmpty::Whole));
}

// A finished download is the user's file now and stays; a partial one goes.
void ZV_FileShareMgr::DropLostDownload(uint16_t usFileID, ZV_FileShareSession* lpFsSession)
{
    NotifyFileHidden(zvResultOk, usFileID);
    lpFsSession->CloseFile();
    // A row the ledger fails to forget (logged) names only a target this user chose.
    m_ShareLedger.ForgetDownload(m_lpConf->GetConfID(), usFileID);
    const ZV_FileDownloadInfo& download = lpFsSession->LocalDownload();
    if (download.m_usState != zvDownloadStateFinished)
    {
        // A record that never named a file names only its folder.
        // Tried once: a partial file that stays is the user's to remove.
        if (!download.m_sFileName.IsEmpty())
            QB_FileEx::Delete(QB_StringW(download.m_sFilePath) + QB_StringW(download.m_sFileName));
        MarkBusy(false, usFileID);
    }
    lpFsSession->ResetLocalDownload(false);
}
