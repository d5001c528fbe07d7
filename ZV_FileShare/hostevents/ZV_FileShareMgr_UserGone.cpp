// A user left the conference (host event 4): a downloader's entries rest,
// and a file whose creator left before its upload was done leaves with the
// creator, decided by the creator's home server for all.
#include "core/ZV_FileShareMgr.h"
#include "delete/ZV_DeletePdu.h"
#include "core/ZV_FileShareSession.h"

#include <cassert>

// Keys go after the walk, since RemoveStoredFile takes a session's key out.
void ZV_FileShareMgr::OnUserLeave(const QB_UserID& user)
{
    if (!m_lpConf->IsServerMode())
        return;
    QB_Array<ZV_FileShareSession*> arrSession;
    ForEachSession([&](uint16_t, ZV_FileShareSession* lpFsSession) {
        assert(lpFsSession != NULL && "lpFsSession != NULL");
        if (lpFsSession != nullptr && !lpFsSession->IsUploadDone())
            arrSession.Add(lpFsSession);
    });
    for (int i = 0; i < arrSession.GetSize(); ++i)
        OnUserGone(arrSession[i], user);
}

void ZV_FileShareMgr::OnUserGone(ZV_FileShareSession* lpFsSession, QB_UserID user)
{
    const ZV_FileBriefInfo& brief = lpFsSession->FileInfo().m_BriefInfo;
    const QB_UserID creator = brief.m_CreatorID;
    if (user != creator)
    {
        lpFsSession->RestDownloader(user);
        return;
    }
    if (brief.m_usFileState == zvFileStateComplete)
        return;
    const ZV_ConfUserInfo* lpCreator = m_lpConf->GetUser(&creator);
    const bool bHomeHere = lpCreator != nullptr && lpCreator->ulHomeServer == m_lpConf->GetLocalServerID();
    // The creator's home server, still linked, decides for this one.
    if (lpCreator != nullptr && !bHomeHere &&
        m_lpConf->GetServerConn(lpCreator->ulHomeServer, zvConfServerTypeCommand, 0) != zvConnNone)
        return;
    const uint16_t usFileID = lpFsSession->FileID();
    const uint32_t ulFloodSeq = m_lpConf->NewFloodSeq(&creator, 0);
    if (!m_lpConf->IsFloodSeen(&creator, ulFloodSeq))
        RemoveStoredFile(usFileID, lpFsSession, &creator, ulFloodSeq);
    if (!bHomeHere)
        return;
    ZV_DelUploadRequest ask;
    ask.usFileID = usFileID;
    ask.user = creator;
    ask.ulFloodSeq = ulFloodSeq;
    ZV_PduBuffer pdu;
    ask.Save(pdu.Stream());
    ZV_SendToServers(m_lpConf, zvConnNone, PDU_CONF_FS_DEL_UPLOAD_REQUEST, pdu, 1, 1, false);
}
