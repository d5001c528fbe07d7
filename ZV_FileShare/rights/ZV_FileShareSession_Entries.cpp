// What changes who may fetch a file from a server without moving its bytes:
// a downloader's entry dropped (8010), the notice that the file's source
// moved to another server (8037), and the creator's change of the file's
// rights (8003), which each server answers to all its clients with 8004.
#include "core/ZV_FileShareSession.h"
#include "rights/ZV_EntryPdu.h"
#include "rights/ZV_RightsPdu.h"

namespace {

QB_UserID PeerOf(const ConfPduData* lpCpd)
{
    return QB_UserID(lpCpd->ulUserMain, lpCpd->ulUserSub);
}

} // namespace

// ---------------------------------------------------------------------------
// 8010: a downloader gives its download up

// A client drops only its own entry, as the manager sees to: another user's
// is that user's download. A client keeps no entries, so the PDU means
// nothing there. A download in flight ends because OnSend finds no entry.
uint32_t ZV_FileShareSession::HandleDelDownloadRequest(ConfPduData* lpCpd)
{
    IZV_ConfHost* lpConf = Conf();
    ZV_PayloadReader stream(lpCpd);
    ZV_EntryRequest ask;
    ask.Load(stream);
    if (!lpConf->IsServerMode())
        return 0;
    if (!ZV_IsNewFlood(lpConf, ask.user, ask.ulFloodSeq))
        return 0;
    m_mapDownload.RemoveKey(ask.user);
    ask.usFileID = m_usFileID;
    ZV_PduBuffer pdu;
    ask.Save(pdu.Stream());
    ZV_SendToServers(lpConf, zvConnNone, PDU_CONF_FS_DEL_DOWNLOAD_REQUEST, pdu);
    return 0;
}

// Nothing sends it; it is taken and dropped.
uint32_t ZV_FileShareSession::HandleDelDownloadResponse(ConfPduData*)
{
    return 0;
}

// ---------------------------------------------------------------------------
// 8037: the file's source moved

// The server that sent it first was a downloader of the file and is its
// source now, so the entries between servers point the wrong way: each
// server drops those of the sender and of its neighbour on this link, and
// asks that neighbour, as a relay, for what it lacks.
uint32_t ZV_FileShareSession::HandleNoticeDelDownloadInfoRequest(ConfPduData* lpCpd)
{
    IZV_ConfHost* lpConf = Conf();
    ZV_PayloadReader stream(lpCpd);
    ZV_EntryRequest notice;
    notice.Load(stream);
    // Only servers keep entries and relay, and only a server's link brings
    // this (the manager drops it from a client's).
    if (!lpConf->IsServerMode() || lpConf->IsFloodSeen(&notice.user, notice.ulFloodSeq))
        return 0;
    notice.usFileID = m_usFileID;
    ZV_PduBuffer pdu;
    notice.Save(pdu.Stream());
    ZV_SendToServers(lpConf, zvConnNone, PDU_CONF_FS_NOTICE_DEL_DOWNLOAD_INFO_REQUEST, pdu);
    const QB_UserID peer = PeerOf(lpCpd);
    if (peer != notice.user)
        m_mapDownload.RemoveKey(peer);
    m_mapDownload.RemoveKey(notice.user);
    const QB_UserID self(lpConf->GetLocalServerID(), 0);
    const QB_StringU8 sPath(GetConfDir() + QB_StringW(m_FileInfo.m_sFileNewName));
    SendDownloadRequest(lpCpd->ulConn, m_usFileID, &self, 0, sPath, m_FileInfo.m_ulFileWritePos, 1, 0);
    return 0;
}

// ---------------------------------------------------------------------------
// 8003: the creator changes who may have the file

uint32_t ZV_FileShareSession::HandleSetRightRequest(ConfPduData* lpCpd)
{
    IZV_ConfHost* lpConf = Conf();
    ZV_PayloadReader stream(lpCpd);
    ZV_SetRightRequest ask;
    ask.head.Load(stream);
    // Rights are the servers' to keep; a client hears of them by 8004.
    if (!lpConf->IsServerMode())
        return 0;
    if (ask.head.user != m_FileInfo.m_BriefInfo.m_CreatorID)
    {
        SendSetRightResponse(lpCpd->ulConn, zvResultNotEntitled, m_usFileID, &ask.head.user, nullptr, 0, false);
        return 0;
    }
    if (!ZV_IsNewFlood(lpConf, ask.head.user, ask.head.ulFloodSeq))
        return 0;
    ask.LoadBody(stream);
    ask.head.usFileID = m_usFileID;
    ZV_PduBuffer pdu;
    ask.Save(pdu.Stream());
    ZV_SendToServers(lpConf, zvConnNone, PDU_CONF_FS_SET_RIGHT_REQUEST, pdu);
    ApplyRights(ask.bPublic, ask.arrAdd, ask.arrRemove);
    return 0;
}

// Rights are not part of the catalogue, so nothing is saved. A user who lost
// the file stops receiving at once, since the entry is gone. The entries of
// linked servers stay: a relay serves users of its own, whom their server
// judges by the same new list.
void ZV_FileShareSession::ApplyRights(uint8_t bPublic, const QB_Array<QB_UserID>& arrAdd,
                                      const QB_Array<QB_UserID>& arrRemove)
{
    IZV_ConfHost* lpConf = Conf();
    ZV_FileBriefInfo brief = m_FileInfo.m_BriefInfo;
    brief.SetRight(ZV_ChangeRights(brief.m_arrRight, bPublic != 0, arrAdd, arrRemove));
    brief.SetPublic(bPublic != 0);
    m_FileInfo.SetBriefInfo(brief);
    for (QB_POSITION pos = m_mapDownload.GetStartPosition(); !bPublic && pos != nullptr;)
    {
        QB_UserID user;
        ZV_FileDownloadInfo* pEntry = m_mapDownload.GetNextAssoc(pos, user);
        const bool bServer = user.m_ulSub == 0 &&
                             lpConf->GetServerConn(user.m_ulMain, zvConfServerTypeCommand, 0) != zvConnNone;
        if (pEntry == nullptr || bServer || brief.m_arrRight.Find(user) >= 0)
            continue;
        pEntry->SetActive(false);
        m_mapDownload.RemoveKey(user);
    }
    SendSetRightResponse(zvConnNone, zvResultOk, m_usFileID, &brief.m_CreatorID, &brief, m_ulMaxPos, true);
}

void ZV_FileShareSession::SetBriefInfo(const ZV_FileBriefInfo& brief)
{
    m_BriefInfo = brief;
}

// ---------------------------------------------------------------------------
// Senders

uint32_t ZV_FileShareSession::SendSetRightRequest(uint32_t ulConn, uint16_t usFileID, const QB_UserID* pUser,
                                                  uint8_t bPublic, const QB_Array<QB_UserID>& arrAdd,
                                                  const QB_Array<QB_UserID>& arrRemove)
{
    ZV_SetRightRequest ask;
    ask.head.usFileID = usFileID;
    ask.head.user = *pUser;
    ask.bPublic = bPublic;
    ask.arrAdd = arrAdd;
    ask.arrRemove = arrRemove;
    ZV_PduBuffer pdu;
    ask.Save(pdu.Stream());
    return ZV_SendToLink(Conf(), ulConn, PDU_CONF_FS_SET_RIGHT_REQUEST, pdu);
}

uint32_t ZV_FileShareSession::SendSetRightResponse(uint32_t ulConn, uint32_t ulResult, uint16_t usFileID,
                                                   const QB_UserID* pUser, const ZV_FileBriefInfo* pBrief,
                                                   uint32_t ulMaxPos, bool bToAll)
{
    ZV_SetRightResponse answer;
    answer.ulResult = ulResult;
    answer.usFileID = usFileID;
    answer.user = *pUser;
    if (pBrief != nullptr)
        answer.brief = *pBrief;
    answer.ulMaxPos = ulMaxPos;
    ZV_PduBuffer pdu;
    answer.Save(pdu.Stream());
    if (bToAll)
        return ZV_SendToGroup(Conf(), zvConnNone, PDU_CONF_FS_SET_RIGHT_RESPONSE, pdu);
    return ZV_SendToLink(Conf(), ulConn, PDU_CONF_FS_SET_RIGHT_RESPONSE, pdu);
}
