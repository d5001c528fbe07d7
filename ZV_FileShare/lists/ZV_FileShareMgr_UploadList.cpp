// The upload list (8027, 8028): every file of the conference with the
// furthest position known of it. A client makes its view equal to the
// server's: what the list does not name goes, what it names is made or
// refreshed, and the user side hears of the files its user may see.
#include "core/ZV_FileShareMgr.h"
#include "core/ZV_FileShareSession.h"
#include "lists/ZV_ListPdu.h"
#include "wire/ZV_CutList.h"
#include "core/ZV_Percent.h"

#include "QB_Log.h"

#include <vector>

namespace {

// FileIDs are u16, so an honest answer never holds more entries than this.
constexpr int kMaxListed = 0x10000;

} // namespace

uint32_t ZV_FileShareMgr::HandleGetUploadSessionListRequest(ConfPduData* lpCpd)
{
    try
    {
        ZV_PayloadReader stream(lpCpd);
        ZV_ListRequest ask;
        ask.Load(stream);
        // A client asks only for itself (the manager sees to it): the list
        // for a creator also ends this server's fetch of the creator's
        // unfinished files.
        if (!m_lpConf->IsServerMode())
            return 0;
        QB_Array<ZV_FileUploadInfo> arrInfo;
        QB_Array<uint32_t> arrMaxPos;
        uint32_t ulResult = 0;
        ForEachSession([&](uint16_t, ZV_FileShareSession* lpFsSession) {
            if (lpFsSession != nullptr)
                ulResult = lpFsSession->CollectUploadInfo(arrInfo, arrMaxPos, ask.user);
        });
        SendUploadList(lpCpd->ulConn, ask.usFileID, ulResult, ask.usFileID, ask.user, arrInfo, arrMaxPos);
    }
    catch (...)
    {
        QB_WriteLog(QB_LOG_DAILY, "error", "ZV_FileShareMgr::HandleGetUploadSessionListRequest exception.\r\n");
    }
    return 0;
}

// The head stays in the buffer; each piece is written behind it.
uint32_t ZV_FileShareMgr::SendUploadList(uint32_t ulConn, uint16_t usFileID, uint32_t ulResult, uint16_t usFileID2,
                                         const QB_UserID& user, const QB_Array<ZV_FileUploadInfo>& arrInfo,
                                         const QB_Array<uint32_t>& arrMaxPos)
{
    ZV_UploadListResponse part;
    part.usRouteID = usFileID;
    part.ulResult = ulResult;
    part.usFileID = usFileID2;
    part.user = user;
    ZV_PduBuffer pdu;
    QB_ByteStream& stream = pdu.Stream();
    part.SaveHead(stream);
    const int32_t nHeadEnd = stream.GetPos();
    uint32_t ulSent = 0;
    ZV_CutList(
        ZV_UploadListResponse::kHeadSize, arrInfo.GetSize(),
        [&](int i) { return ZV_UploadListEntrySize(arrInfo[i]); },
        [&](int nFrom, int nTo, bool bLast) {
            part.arrInfo.RemoveAll();
            part.arrMaxPos.RemoveAll();
            for (int i = nFrom; i < nTo; ++i)
            {
                part.arrInfo.Add(arrInfo[i]);
                part.arrMaxPos.Add(i < arrMaxPos.GetSize() ? arrMaxPos[i] : 0);
            }
            part.bLast = bLast ? 1 : 0;
            stream.SeekTo(nHeadEnd);
            part.SaveBody(stream);
            ulSent = ZV_SendToLink(m_lpConf, ulConn, PDU_CONF_GET_UPLOAD_SESSION_LIST_RESPONSE, pdu);
        });
    return ulSent;
}

uint32_t ZV_FileShareMgr::HandleGetUploadSessionListResponse(ConfPduData* lpCpd)
{
    try
    {
        // A server's view is its store, never a peer's word of it.
        if (!m_lpConf->IsClientMode())
            return 0;
        ZV_PayloadReader stream(lpCpd);
        ZV_UploadListResponse part;
        part.Load(stream);
        if (part.ulResult != 0)
            return 0;
        for (int i = 0; i < part.arrInfo.GetSize(); ++i)
        {
            m_listUpload.AddTail(part.arrInfo[i]);
            m_arrMaxPos.Add(part.arrMaxPos[i]);
        }
        if (!part.bLast && m_listUpload.GetCount() <= kMaxListed)
            return 0;
        if (part.bLast)
            ApplyUploadList();
    }
    catch (...)
    {
        QB_WriteLog(QB_LOG_DAILY, "error", "ZV_FileShareMgr::HandleGetUploadSessionListResponse exception.\r\n");
    }
    // An answer that ends, or that has grown past any honest one, goes.
    m_listUpload.RemoveAll();
    m_arrMaxPos.RemoveAll();
    return 0;
}

void ZV_FileShareMgr::ApplyUploadList()
{
    const int nListed = m_listUpload.GetCount() + 1;
    m_arrPendingFileID.SetSize(0, nListed);
    m_arrPendingInfo.SetSize(0, nListed);
    m_arrPendingRate.SetSize(0, nListed);
    std::vector<bool> vecListed(0x10000, false);
    for (QB_POSITION pos = m_listUpload.GetHeadPosition(); pos != nullptr;)
        vecListed[m_listUpload.GetNext(pos).m_usFileID] = true;
    DropUnlistedSessions(vecListed);
    int i = 0;
    for (QB_POSITION pos = m_listUpload.GetHeadPosition(); pos != nullptr; ++i)
        MergeListedFile(m_listUpload.GetNext(pos), m_arrMaxPos[i]);
    RaisePendingFiles();
}

void ZV_FileShareMgr::DropUnlistedSessions(const std::vector<bool>& vecListed)
{
    QB_Lock lock(&m_mapSession);
    QB_Array<uint16_t> arrGone;
    ForEachSession([&](uint16_t usFileID, ZV_FileShareSession*) {
        if (!vecListed[usFileID])
            arrGone.Add(usFileID);
    });
    for (int i = 0; i < arrGone.GetSize(); ++i)
    {
        ZV_FileShareSession* lpFsSession = nullptr;
        m_mapSession.Lookup(arrGone[i], lpFsSession);
        const bool bVisible = lpFsSession != nullptr && lpFsSession->IsFileVisible(lpFsSession->BriefInfo());
        if (lpFsSession != nullptr)
            DropUnlistedDownload(arrGone[i], lpFsSession);
        RemoveSession(arrGone[i]);
        if (bVisible)
            NotifyFileGone(0, arrGone[i]);
    }
}

// A finished download is the user's file and stays, its path remembered;
// a partial one has no server to finish it and goes.
void ZV_FileShareMgr::DropUnlistedDownload(uint16_t usFileID, ZV_FileShareSession* lpFsSession)
{
    const ZV_FileDownloadInfo& download = lpFsSession->LocalDownload();
    if (download.m_sFileName.IsEmpty())
        return;
    const QB_StringW sPath(download.m_sFilePath + download.m_sFileName);
    if (download.m_usState == zvDownloadStateFinished)
    {
        m_mapFinishedDownload[usFileID] = sPath;
        return;
    }
    lpFsSession->CloseFile();
    // Tried once: a partial file that stays is the user's to remove.
    QB_FileEx::Delete(sPath);
}

// An entry without a FileID of its own names no file.
void ZV_FileShareMgr::MergeListedFile(const ZV_FileUploadInfo& entry, uint32_t ulMaxPos)
{
    if (!(entry.m_ullMask & ZV_UPLOAD_FILE_ID) || entry.m_usFileID == ZV_NO_FILEID)
        return;
    QB_Lock lock(&m_mapSession);
    ZV_FileShareSession* lpFsSession = nullptr;
    // A FileID that names another file now takes a new session; the old
    // one goes with its download.
    if (!m_mapSession.Lookup(entry.m_usFileID, lpFsSession) || lpFsSession == nullptr ||
        !lpFsSession->BriefInfo().IsSameFile(entry.m_BriefInfo))
    {
        std::unique_ptr<ZV_FileShareSession> lpNew = MakeSession();
        lpFsSession = lpNew.get();
        ReplaceSession(entry.m_usFileID, std::move(lpNew));
    }
    if (!lpFsSession->MergeCltFileInfo(entry, ulMaxPos))
        return;
    const uint32_t ulLength = lpFsSession->BriefInfo().m_ulFileLenth;
    m_arrPendingFileID.Add(entry.m_usFileID);
    m_arrPendingInfo.Add(lpFsSession->BriefInfo());
    // On a scale of 10000, unlike a batch's percent.
    m_arrPendingRate.Add(ZV_TenThousandthsOfShare(ulMaxPos, ulLength, ZV_IfEmpty::Whole));
}

void ZV_FileShareMgr::RaisePendingFiles()
{
    ZV_CutList(
        15, m_arrPendingFileID.GetSize(), [&](int i) { return ZV_FilesAddedEntrySize(m_arrPendingInfo[i]); },
        [&](int nFrom, int nTo, bool) {
            if (nFrom == nTo)
                return;
            QB_Array<uint16_t> arrFileID;
            QB_Array<ZV_FileBriefInfo> arrInfo;
            QB_Array<double> arrRate;
            for (int i = nFrom; i < nTo; ++i)
            {
                arrFileID.Add(m_arrPendingFileID[i]);
                arrInfo.Add(m_arrPendingInfo[i]);
                arrRate.Add(m_arrPendingRate[i]);
            }
            NotifyFilesAdded(arrFileID, arrInfo, arrRate);
        });
    // Emptied, and back to their ordinary growth.
    m_arrPendingFileID.SetSize(0, 0);
    m_arrPendingInfo.SetSize(0, 0);
    m_arrPendingRate.SetSize(0, 0);
}
