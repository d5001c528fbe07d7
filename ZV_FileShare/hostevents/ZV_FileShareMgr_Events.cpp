// Host events: users who come and go, server links that come up, and a
// change in what the local user may see. A user who enters is given both
// lists unasked; a user who leaves is handled in ZV_FileShareMgr_UserGone.cpp.
#include "core/ZV_FileShareMgr.h"
#include "core/ZV_FileShareSession.h"
#include "core/ZV_Percent.h"

#include "QB_Log.h"

// Numbers other than these four are not the manager's business.
uint32_t ZV_FileShareMgr::OnEvent(uint16_t usEvent, uintptr_t a1, uintptr_t a2, uintptr_t, uintptr_t)
{
    if (m_lpConf == nullptr)
        return zvResultNoHost;
    try
    {
        const QB_UserID* lpUser = reinterpret_cast<const QB_UserID*>(a2);
        switch (usEvent)
        {
        case zvConfEventUserLeave:
            if (lpUser != nullptr)
                OnUserLeave(*lpUser);
            break;
        case zvConfEventServerLink: OnServerLinkUp((uint32_t)a2); break;
        case zvConfEventRightChange:
            if (lpUser != nullptr)
                OnRightChange(a1 != 0, *lpUser);
            break;
        case zvConfEventUserEnter:
            if (lpUser != nullptr)
                OnUserEnter(*lpUser);
            break;
        default: break;
        }
    }
    catch (...)
    {
        QB_WriteLog(QB_LOG_DAILY, "error", "ZV_FileShareMgr::OnEvent exception.\r\n");
    }
    return 0;
}

// The server that gets the link asks the peer for its catalogue.
void ZV_FileShareMgr::OnServerLinkUp(uint32_t ulConn)
{
    if (!m_lpConf->IsServerMode())
        return;
    SendGetFileListRequest(ulConn, QB_UserID(m_lpConf->GetLocalServerID(), 0));
}

// The sessions are gathered first: a returning creator's unfinished file
// leaves the map during the walk.
void ZV_FileShareMgr::OnUserEnter(const QB_UserID& user)
{
    if (!m_lpConf->IsServerMode())
        return;
    const ZV_ConfUserInfo* lpUser = m_lpConf->GetUser(&user);
    if (lpUser == nullptr || lpUser->ulHomeServer != m_lpConf->GetLocalServerID())
        return;
    const bool bReturning = (lpUser->ulFlags & zvUserFlagReturning) != 0;
    const uint32_t ulConn = m_lpConf->GetUserConn(&user, zvConfClientTypeCommand);
    try
    {
        QB_Array<uint16_t> arrFileID;
        ForEachSession([&](uint16_t usFileID, ZV_FileShareSession*) { arrFileID.Add(usFileID); });
        // One allocation each for the whole list rather than a growth per step.
        QB_Array<ZV_FileUploadInfo> arrInfo;
        QB_Array<uint32_t> arrMaxPos;
        arrInfo.SetSize(0, arrFileID.GetSize() + 1);
        arrMaxPos.SetSize(0, arrFileID.GetSize() + 1);
        QB_Array<ZV_FileDownloadInfo> arrDownload;
        QB_Array<bool> arrModify;
        uint16_t usFileID = 0;
        uint32_t ulResult = 0;
        for (int i = 0; i < arrFileID.GetSize(); ++i)
        {
            ZV_FileShareSession* lpFsSession = nullptr;
            if (!m_mapSession.Lookup(arrFileID[i], lpFsSession) || lpFsSession == nullptr)
                continue;
            usFileID = arrFileID[i];
            if (user == lpFsSession->FileInfo().m_BriefInfo.m_CreatorID && bReturning && !lpFsSession->IsUploadDone())
            {
                OnUserGone(lpFsSession, user);
                // A file that is whole here stays, and so stays in the list:
                // left out, it would leave the creator's client for good.
                if (!m_mapSession.Lookup(usFileID, lpFsSession) || lpFsSession == nullptr)
                    continue;
            }
            ulResult = lpFsSession->CollectUploadInfo(arrInfo, arrMaxPos, user);
            CollectDownloadInfo(usFileID, lpFsSession, user, arrDownload, arrModify);
        }
        SendUploadList(ulConn, usFileID, ulResult, usFileID, user, arrInfo, arrMaxPos);
        if (!arrDownload.IsEmpty())
            SendDownloadList(ulConn, 0, user, arrDownload, arrModify);
    }
    catch (...)
    {
        QB_WriteLog(QB_LOG_DAILY, "error", "ZV_FileShareMgr::OnEvent #1 exception.\r\n");
    }
}

// Files the local user could not see: more of them may be seen now, or
// fewer; a download of a file that goes out of sight ends.
void ZV_FileShareMgr::OnRightChange(bool bMoreVisible, const QB_UserID& user)
{
    if (!m_lpConf->IsClientMode() || LocalUser() == nullptr || user != *LocalUser())
        return;
    const QB_UserID local = user;
    ForEachSession([&](uint16_t usFileID, ZV_FileShareSession* lpFsSession) {
        if (lpFsSession == nullptr)
            return;
        const ZV_FileBriefInfo& brief = lpFsSession->BriefInfo();
        if (brief.m_CreatorID == local || brief.m_bPublic || brief.m_arrRight.Find(local) >= 0)
            return;
        if (bMoreVisible)
            NotifyFileAdded(0, usFileID, brief,
                            ZV_PercentScaledFirst(lpFsSession->MaxPos(), brief.m_ulFileLenth, ZV_IfEmpty::Whole));
        else
            DropLostDownload(usFileID, lpFsSession);
    });
}
