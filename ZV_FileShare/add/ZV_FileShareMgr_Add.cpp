// Adding one file: the client's FsAdd and 8001, the server's checks, FileID
// and session, and 8002 to every client, whose sessions come from it. The
// session does the per-file work (ZV_FileShareSession_Add.cpp).
#include "core/ZV_FileShareMgr.h"
#include "add/ZV_AddPdu.h"
#include "core/ZV_FileShareSession.h"
#include "wire/ZV_PduTable.h"
#include "records/ZV_SharePath.h"
#include "core/ZV_Percent.h"

#include "QB_FileEx.h"
#include "QB_Log.h"

#include <vector>

namespace {

// Text that FsAdd passes through the configured code page, as the catalogue
// and the platform's older clients see it.
QB_StringU8 ThroughAnsi(const QB_StringW& s)
{
    return QB_StringU8(QB_StringW(QB_StringA(s)));
}

QB_DateTimeEx LastWriteTime(QB_FileEx& file)
{
    QB_SystemTime stWrite;
    QB_DateTimeEx dtWrite;
    if (file.GetTimes(nullptr, &stWrite, nullptr))
        dtWrite.SetFromSystemTime(stWrite);
    return dtWrite;
}

// The record of a file to share, all but its folder, which the two callers
// take differently.
void FillBrief(ZV_FileBriefInfo& brief, IZV_ConfHost* lpConf, const ZV_ConfUserInfo& user, QB_FileEx& file,
               const QB_StringW& sPath, const QB_Array<QB_UserID>& arrRight, uint8_t bPublic)
{
    brief.SetCreatorID(*lpConf->GetLocalUserID());
    brief.SetCreatorName(ThroughAnsi(QB_StringW(QB_StringU8(user.szName ? user.szName : ""))));
    brief.SetFileOldName(file.GetFileName());
    const int nDot = sPath.ReverseFind(u'.');
    brief.SetFileType(ThroughAnsi(nDot < 0 ? sPath : sPath.Mid(nDot + 1)));
    brief.SetFileLenth((uint32_t)file.GetLength());
    QB_DateTimeEx dtNow;
    dtNow.SetToNow();
    brief.SetShareTime(dtNow);
    brief.SetModifyTime(LastWriteTime(file));
    brief.SetFileState(zvFileStateAdded);
    brief.SetPublic(bPublic != 0);
    if (!bPublic)
        brief.SetRight(arrRight);
}

QB_Array<QB_UserID> RightsOf(const QB_UserID* pRight, uint32_t nRight)
{
    QB_Array<QB_UserID> arrRight;
    for (uint32_t i = 0; pRight != nullptr && i < nRight; ++i)
        arrRight.Add(pRight[i]);
    return arrRight;
}

uint32_t FsAddFailed(uint32_t ulResult)
{
    QB_WriteClientLog("ZV_File.FsAdd ret = %d\r\n", (int)ulResult);
    return ulResult;
}

} // namespace

// A client's request: 0 when it may go on, with the FileID it gets. Only a
// server gives FileIDs: one a client chose could name a file already here,
// whose session, stored file and row the add would then take over, or lie
// outside this server's range and clash with a linked server's files. So a
// client's request that names one is refused, whatever the number.
uint32_t ZV_FileShareMgr::CheckClientAdd(ZV_AddRequest& ask, bool& bRenamed)
{
    if (m_lpConf->GetUser(&ask.user) == nullptr)
        return zvResultNotInConf;
    if (!m_lpConf->CanShareFiles(&ask.user) || ask.usFileID != ZV_NO_FILEID)
        return zvResultNotEntitled;
    QB_Array<ZV_FileBriefInfo> arrInfo;
    arrInfo.Add(ask.brief);
    if (!IsWithinUserLimits(ask.user, arrInfo))
        return zvResultOverLimit;
    // Before a FileID is held, so that a throw of the host here holds none.
    // FsAdd names the creator through the code page.
    bRenamed = NameCreatorAsHost(ask.user, ask.brief, true);
    ask.usFileID = AllocFileID();
    return ask.usFileID == ZV_NO_FILEID ? zvResultNoFileID : zvResultOk;
}

// Counted over the files of this conference that the user created and this
// server holds now: a deleted file frees its place. Lengths are the
// announced ones, summed wide so that no count of 32-bit lengths wraps.
bool ZV_FileShareMgr::IsWithinUserLimits(const QB_UserID& user, const QB_Array<ZV_FileBriefInfo>& arrInfo)
{
    if (m_ullMaxFilesPerUser == 0 && m_ullMaxBytesPerUser == 0)
        return true;
    uint64_t ullFiles = (uint64_t)arrInfo.GetSize();
    uint64_t ullBytes = 0;
    for (int i = 0; i < arrInfo.GetSize(); ++i)
        ullBytes += arrInfo[i].m_ulFileLenth;
    ForEachSession([&](uint16_t, ZV_FileShareSession* lpFsSession) {
        if (lpFsSession == nullptr || !(lpFsSession->BriefInfo().m_CreatorID == user))
            return;
        ++ullFiles;
        ullBytes += lpFsSession->BriefInfo().m_ulFileLenth;
    });
    return (m_ullMaxFilesPerUser == 0 || ullFiles <= m_ullMaxFilesPerUser) &&
           (m_ullMaxBytesPerUser == 0 || ullBytes <= m_ullMaxBytesPerUser);
}

// A host that gives no name leaves the description's: there is nothing
// truer to show.
bool ZV_FileShareMgr::NameCreatorAsHost(const QB_UserID& user, ZV_FileBriefInfo& brief, bool bThroughAnsi)
{
    const ZV_ConfUserInfo* lpUser = m_lpConf->GetUser(&user);
    if (lpUser == nullptr || lpUser->szName == nullptr)
        return false;
    const QB_StringU8 sName(lpUser->szName);
    const QB_StringU8 sShown = bThroughAnsi ? ThroughAnsi(QB_StringW(sName)) : sName;
    if ((brief.m_ullMask & ZV_BRIEF_CREATOR_NAME) != 0 && brief.m_sCreatorName == sShown)
        return false;
    brief.SetCreatorName(sShown);
    return true;
}

uint32_t ZV_FileShareMgr::FsAdd(const char16_t* szPath, const QB_UserID* pRight, uint32_t nRight, uint8_t bPublic,
                                uint8_t bStartUpload)
{
    if (m_lpConf == nullptr)
        return zvResultNoHost;
    QB_FileEx file;
    // A rights list too long for one PDU ends in the guard, not in the
    // caller: an exception that crossed into the host's user side would end
    // a program that never saw this module's types. The file closes as it
    // goes out of scope, on every road.
    const uint32_t ulResult = GuardFs("ZV_FileShareMgr::FsAdd exception.\r\n", [&]() -> uint32_t {
        const QB_StringW sPath = QB_WithBackslashes(szPath);
        if (!file.Open(sPath, QB_FILE_READ | QB_FILE_SHARE_DENY_WRITE | QB_FILE_OPEN_EXISTING))
            return FsAddFailed(zvResultCannotOpen);
        // A path the records or the catalogue can't hold would make a share
        // with an empty or changed name, whose bytes could never be found.
        ZV_LocalFileMark mark;
        if (ZV_CheckSharePath(file.GetFullPath(), true) != ZV_SharePathProblem::None ||
            !ZV_ShareLedger::MarkOf(file, mark))
            return FsAddFailed(zvResultCannotOpen);
        const ZV_ConfUserInfo* lpUser = m_lpConf->GetUser(m_lpConf->GetLocalUserID());
        if (lpUser == nullptr)
            return FsAddFailed(zvResultNotInConf);
        ZV_FileBriefInfo brief;
        FillBrief(brief, m_lpConf, *lpUser, file, sPath, RightsOf(pRight, nRight), bPublic);
        brief.SetFilePath(ThroughAnsi(sPath.Left(sPath.ReverseFind(u'\\') + 1)));
        const uint32_t ulConn = GetLinkConn(zvConfClientTypeCommand);
        if (ulConn == zvConnNone)
            return FsAddFailed(zvResultNoConnection);
        // A failed save is logged by the ledger; the row holds for this run,
        // and after a restart the user shares again.
        m_ShareLedger.Remember(m_lpConf->GetConfID(), brief, mark);
        return SendAddRequest(ulConn, ZV_NO_FILEID, *m_lpConf->GetLocalUserID(), 0, brief, bStartUpload);
    });
    return ulResult;
}

uint32_t ZV_FileShareMgr::HandleAddRequest(ConfPduData* lpCpd)
{
    ZV_PayloadReader stream(lpCpd);
    ZV_AddRequest ask;
    ask.LoadHead(stream);
    if (!ZV_IsNewFlood(m_lpConf, ask.user, ask.ulFloodSeq))
        return zvResultOk;
    ask.LoadBody(stream);
    const bool bFromClient = !ZV_IsServerLink(lpCpd->conn_type);
    bool bRenamed = false;
    const uint32_t ulRefusal = bFromClient ? CheckClientAdd(ask, bRenamed) : zvResultOk;
    if (ulRefusal != zvResultOk)
    {
        SendAddResponse(lpCpd->ulConn, ask.usFileID, ulRefusal, ask.usFileID, ask.user, 0, ask.brief,
                        ask.bStartUpload, false);
        return zvResultOk;
    }
    auto lpOwned = MakeSession();
    ZV_FileShareSession* lpFsSession = lpOwned.get();
    ReplaceSession(ask.usFileID, std::move(lpOwned));
    try
    {
        return FinishServerAdd(lpCpd, ask, lpFsSession, bRenamed);
    }
    catch (...)
    {
        DropAddedSession(ask.usFileID);
        throw;
    }
}

uint32_t ZV_FileShareMgr::FinishServerAdd(ConfPduData* lpCpd, const ZV_AddRequest& ask,
                                          ZV_FileShareSession* lpFsSession, bool bRenamed)
{
    const bool bFromClient = !ZV_IsServerLink(lpCpd->conn_type);
    // The session reads and forwards the final FileID and flood number; the
    // host's bytes stay untouched, a patched copy goes instead. A renamed
    // creator is written anew, whole: fields of a newer client's record
    // that this server does not know are then lost, which only a client
    // that named its user falsely meets.
    std::vector<uint8_t> vbPayload(lpCpd->pData, lpCpd->pData + lpCpd->ulLen);
    if (bRenamed)
    {
        ZV_PduBuffer pdu;
        ask.Save(pdu.Stream());
        vbPayload.assign(pdu.Payload(), pdu.Payload() + pdu.PayloadLength());
    }
    ask.SaveHeadOver(vbPayload);
    ConfPduData final = *lpCpd;
    final.pData = vbPayload.data();
    final.ulLen = (uint32_t)vbPayload.size();
    const uint32_t ulResult = lpFsSession->HandleAddRequest(&final);
    uint32_t ulTarget = zvConnNone;
    if (ulResult != zvResultOk && bFromClient)
    {
        ulTarget = lpCpd->ulConn;
        RemoveSession(ask.usFileID);
    }
    const int nDeleted = m_arrDelFileID.Find(ask.usFileID);
    if (nDeleted >= 0)
        m_arrDelFileID.RemoveAt(nDeleted);
    SendAddResponse(ulTarget, ask.usFileID, ulResult, ask.usFileID, ask.user, 0, ask.brief, ask.bStartUpload,
                    ulTarget == zvConnNone);
    return zvResultOk;
}

uint32_t ZV_FileShareMgr::HandleAddResponse(ConfPduData* lpCpd)
{
    ZV_PayloadReader stream(lpCpd);
    ZV_AddResponse answer;
    answer.Load(stream);
    if (!m_lpConf->IsClientMode())
        return answer.ulResult;
    // As an add has always shown it: an empty file's share is not a number.
    const double dPercent = ZV_PercentOfShare(answer.ulWritePos, answer.brief.m_ulFileLenth, ZV_IfEmpty::Quotient);
    // A file said to be the local user's that the user never shared gets
    // no session, so no later PDU can make this client read it.
    if (answer.ulResult == zvResultOk && IsUntrustedAdd(answer.brief, "ZV_FileShareMgr.HandleAddResponse"))
    {
        NotifyFileAdded(zvResultUntrusted, answer.usFileID, answer.brief, dPercent);
        return zvResultUntrusted;
    }
    auto lpOwned = MakeSession();
    if (lpOwned->IsFileVisible(answer.brief))
        NotifyFileAdded(answer.ulResult, answer.usFileID, answer.brief, dPercent);
    if (answer.ulResult != zvResultOk)
    {
        QB_WriteClientLog("ZV_FileShareMgr.HandleAddResponse ret = %d\r\n", (int)answer.ulResult);
        return answer.ulResult;
    }
    QB_Lock lock(&m_mapSession);
    if (RefreshKnownFile(answer.usFileID, answer.brief, answer.ulWritePos))
        return zvResultOk;
    ZV_FileShareSession* lpFsSession = lpOwned.get();
    ReplaceSession(answer.usFileID, std::move(lpOwned));
    uint32_t ulResult = zvResultException;
    try
    {
        ulResult = lpFsSession->HandleAddResponse(lpCpd);
    }
    catch (...)
    {
        DropAddedSession(answer.usFileID);
        throw;
    }
    // A session that caught a throw of the host on its way is not whole.
    if (ulResult == zvResultException)
        DropAddedSession(answer.usFileID);
    return ulResult;
}

// What stood under the key goes with its open files. On a client it was a
// session of another file: it goes as a file the server no longer lists
// goes, with what it had of a download.
void ZV_FileShareMgr::ReplaceSession(uint16_t usFileID, std::unique_ptr<ZV_FileShareSession> lpFsSession)
{
    const std::unique_ptr<ZV_FileShareSession> lpGone = DetachSession(usFileID);
    if (lpGone && m_lpConf->IsClientMode())
    {
        DropUnlistedDownload(usFileID, lpGone.get());
        MarkBusy(false, usFileID);
        if (lpGone->IsFileVisible(lpGone->BriefInfo()))
            NotifyFileGone(0, usFileID);
    }
    m_mapSession.SetAt(usFileID, lpFsSession.release());
}

// A server announces again a file this client holds when a server link came
// back and the file was set against the peer's. The session stays, with the
// transfers it runs; it takes the server's description.
bool ZV_FileShareMgr::RefreshKnownFile(uint16_t usFileID, const ZV_FileBriefInfo& brief, uint32_t ulPos)
{
    ZV_FileShareSession* lpFsSession = nullptr;
    if (!m_mapSession.Lookup(usFileID, lpFsSession) || lpFsSession == nullptr ||
        !lpFsSession->BriefInfo().IsSameFile(brief))
        return false;
    lpFsSession->ApplyAnnouncedAgain(brief, ulPos);
    return true;
}

// A file that goes is no transfer of this client's any more.
void ZV_FileShareMgr::RemoveSession(uint16_t usFileID)
{
    MarkBusy(false, usFileID);
    DetachSession(usFileID);
}

std::unique_ptr<ZV_FileShareSession> ZV_FileShareMgr::DetachSession(uint16_t usFileID)
{
    ZV_FileShareSession* lpFsSession = nullptr;
    m_mapSession.Lookup(usFileID, lpFsSession);
    m_mapSession.RemoveKey(usFileID);
    return std::unique_ptr<ZV_FileShareSession>(lpFsSession);
}

// The session is out of the map before its files are touched, so that a
// second throw there still leaves no key behind.
void ZV_FileShareMgr::DropAddedSession(uint16_t usFileID)
{
    const std::unique_ptr<ZV_FileShareSession> lpOwned = DetachSession(usFileID);
    if (lpOwned)
        lpOwned->UndoAdd();
}

uint32_t ZV_FileShareMgr::SendAddRequest(uint32_t ulConn, uint16_t usFileID, const QB_UserID& creator,
                                         uint32_t ulFloodSeq, const ZV_FileBriefInfo& brief, uint8_t bStartUpload)
{
    ZV_AddRequest ask;
    ask.usFileID = usFileID;
    ask.user = creator;
    ask.ulFloodSeq = ulFloodSeq;
    ask.brief = brief;
    ask.bStartUpload = bStartUpload;
    ZV_PduBuffer pdu;
    ask.Save(pdu.Stream());
    return ZV_SendToLink(m_lpConf, ulConn, PDU_CONF_FS_ADD_REQUEST, pdu);
}

uint32_t ZV_FileShareMgr::SendAddResponse(uint32_t ulConn, uint16_t usFileID, uint32_t ulResult, uint16_t usFileID2,
                                          const QB_UserID& creator, uint32_t ulWritePos,
                                          const ZV_FileBriefInfo& brief, uint8_t bStartUpload, bool bToAll)
{
    ZV_AddResponse answer;
    answer.usRouteID = usFileID;
    answer.ulResult = ulResult;
    answer.usFileID = usFileID2;
    answer.user = creator;
    answer.ulWritePos = ulWritePos;
    answer.brief = brief;
    answer.bStartUpload = bStartUpload;
    ZV_PduBuffer pdu;
    answer.Save(pdu.Stream());
    if (bToAll)
        return ZV_SendToGroup(m_lpConf, ulConn, PDU_CONF_FS_ADD_RESPONSE, pdu);
    return ZV_SendToLink(m_lpConf, ulConn, PDU_CONF_FS_ADD_RESPONSE, pdu);
}
