// The file list between linked servers (8031, 8032). A server that gets a
// server link asks the peer for everything it holds; the peer answers with
// its files and its download records in as many PDUs as they need. The
// asker sets each file against its own catalogue and disk, fetches the
// bytes it lacks, passes back deletes the peer missed, and tells its own
// clients of the result.
#include "core/ZV_FileShareMgr.h"
#include "core/ZV_FileShareSession.h"
#include "delete/ZV_DeletePdu.h"
#include "lists/ZV_ListPdu.h"
#include "wire/ZV_CutList.h"

#include "QB_Log.h"

#include <functional>
#include <unordered_map>
#include <vector>

// What one PDU of files brings about: the files to announce to this
// server's clients, in two series (those whose bytes could be set up here,
// and those that could not), and the rows for one catalogue write.
struct ZV_ListedFiles
{
    QB_Array<uint16_t> arrFileID[2];
    QB_Array<uint32_t> arrPos[2];
    QB_Array<ZV_FileBriefInfo> arrBrief[2];
    QB_Array<ZV_FileUploadInfo> arrRow;
    QB_Array<QB_StringW> arrSection;
    // Files new to this server, to go on to its other linked servers.
    QB_Array<ZV_FileUploadInfo> arrNew;
    QB_Array<bool> arrNewState;
    QB_Array<uint32_t> arrNewMaxPos;

    void Add(int nSeries, ZV_FileShareSession* lpFsSession, const QB_StringW& sSection)
    {
        arrFileID[nSeries].Add(lpFsSession->FileID());
        arrPos[nSeries].Add(lpFsSession->MaxPos());
        arrBrief[nSeries].Add(lpFsSession->FileInfo().m_BriefInfo);
        arrRow.Add(lpFsSession->FileInfo());
        arrSection.Add(sSection);
    }
};

namespace {

bool HasNames(const ZV_FileUploadInfo& entry)
{
    return !entry.m_BriefInfo.m_sFileOldName.IsEmpty() && !entry.m_sFileNewName.IsEmpty();
}

} // namespace

uint32_t ZV_FileShareMgr::SendGetFileListRequest(uint32_t ulConn, const QB_UserID& requester)
{
    ZV_FileListRequest ask;
    ask.requester = requester;
    ZV_PduBuffer pdu;
    ask.Save(pdu.Stream());
    return ZV_SendToLink(m_lpConf, ulConn, PDU_CONF_GET_FILE_LIST_REQUEST, pdu);
}

// Only a linked server may ask, and a server never answers itself.
uint32_t ZV_FileShareMgr::HandleGetFileListRequest(ConfPduData* lpCpd)
{
    try
    {
        ZV_PayloadReader stream(lpCpd);
        ZV_FileListRequest ask;
        ask.Load(stream);
        const QB_UserID self(m_lpConf->GetLocalServerID(), 0);
        if (lpCpd->conn_type != zvConfServerTypeCommand || ask.requester == self)
            return 0;
        QB_Array<ZV_FileUploadInfo> arrInfo;
        QB_Array<bool> arrState;
        QB_Array<uint32_t> arrMaxPos;
        QB_Array<ZV_FileDownloadInfo> arrDownload;
        ForEachSession([&](uint16_t, ZV_FileShareSession* lpFsSession) {
            if (lpFsSession == nullptr)
                return;
            arrInfo.Add(lpFsSession->FileInfo());
            lpFsSession->CollectDownloadEntries(arrDownload);
            arrState.Add(lpFsSession->IsUploadDone());
            arrMaxPos.Add(lpFsSession->MaxPos());
        });
        SendFileList(lpCpd->ulConn, 0, self, arrInfo, arrState, arrMaxPos, arrDownload);
    }
    catch (...)
    {
        QB_WriteLog(QB_LOG_DAILY, "error", "ZV_FileShareMgr::HandleGetFileListRequest exception.\r\n");
    }
    return 0;
}

namespace {

// The files first, then the download records, each cut into as many PDUs
// as it needs and each ending with one more PDU, so that an empty list is
// one empty PDU. fnSend sends the buffer once its body is written.
void CutFileList(ZV_FileListResponse& part, const QB_Array<ZV_FileUploadInfo>& arrInfo, const QB_Array<bool>& arrState,
                 const QB_Array<uint32_t>& arrMaxPos, const QB_Array<ZV_FileDownloadInfo>* lpDownload,
                 const std::function<void(ZV_PduBuffer&)>& fnSend)
{
    ZV_PduBuffer pdu;
    QB_ByteStream& stream = pdu.Stream();
    part.SaveHead(stream);
    const int32_t nHeadEnd = stream.GetPos();
    auto fnFlush = [&]() {
        stream.SeekTo(nHeadEnd);
        part.SaveBody(stream);
        fnSend(pdu);
    };
    part.bUploadList = 1;
    ZV_CutList(
        ZV_FileListResponse::kHeadSize, arrInfo.GetSize(), [&](int i) { return ZV_FileListEntrySize(arrInfo[i]); },
        [&](int nFrom, int nTo, bool) {
            part.arrInfo.RemoveAll();
            part.arrState.RemoveAll();
            part.arrMaxPos.RemoveAll();
            for (int i = nFrom; i < nTo; ++i)
            {
                part.arrInfo.Add(arrInfo[i]);
                part.arrState.Add(arrState[i]);
                part.arrMaxPos.Add(arrMaxPos[i]);
            }
            fnFlush();
        });
    if (lpDownload == nullptr)
        return;
    const QB_Array<ZV_FileDownloadInfo>& arrDownload = *lpDownload;
    part.bUploadList = 0;
    ZV_CutList(
        ZV_FileListResponse::kHeadSize, arrDownload.GetSize(),
        [&](int i) { return ZV_DownloadRecordSize(arrDownload[i]); },
        [&](int nFrom, int nTo, bool) {
            part.arrDownload.RemoveAll();
            for (int i = nFrom; i < nTo; ++i)
                part.arrDownload.Add(arrDownload[i]);
            fnFlush();
        });
}

} // namespace

uint32_t ZV_FileShareMgr::SendFileList(uint32_t ulConn, uint32_t ulResult, const QB_UserID& sender,
                                       const QB_Array<ZV_FileUploadInfo>& arrInfo, const QB_Array<bool>& arrState,
                                       const QB_Array<uint32_t>& arrMaxPos,
                                       const QB_Array<ZV_FileDownloadInfo>& arrDownload)
{
    ZV_FileListResponse part;
    part.ulResult = ulResult;
    part.sender = sender;
    uint32_t ulSent = 0;
    CutFileList(part, arrInfo, arrState, arrMaxPos, &arrDownload, [&](const ZV_PduBuffer& pdu) {
        ulSent = ZV_SendToLink(m_lpConf, ulConn, PDU_CONF_GET_FILE_LIST_RESPONSE, pdu);
    });
    return ulSent;
}

// Files this server first heard of from a peer's list go on, as a list of
// this server's, to its other linked servers: those behind it would never
// hear of them otherwise, and one of them may hold the delete of such a
// file, which it passes back on seeing the file listed.
void ZV_FileShareMgr::ForwardListedFiles(uint32_t ulSkipConn, const QB_Array<ZV_FileUploadInfo>& arrInfo,
                                         const QB_Array<bool>& arrState, const QB_Array<uint32_t>& arrMaxPos)
{
    ZV_FileListResponse part;
    part.sender = QB_UserID(m_lpConf->GetLocalServerID(), 0);
    CutFileList(part, arrInfo, arrState, arrMaxPos, nullptr, [&](ZV_PduBuffer& pdu) {
        ZV_SendToServers(m_lpConf, ulSkipConn, PDU_CONF_GET_FILE_LIST_RESPONSE, pdu);
    });
}

// Each PDU is complete in itself and is acted on at once. The exchange runs
// between servers only: a client's view comes from its own server's lists.
uint32_t ZV_FileShareMgr::HandleGetFileListResponse(ConfPduData* lpCpd)
{
    ZV_FileListResponse part;
    try
    {
        ZV_PayloadReader stream(lpCpd);
        part.Load(stream);
        if (part.ulResult != 0)
            return part.ulResult;
        if (lpCpd->conn_type != zvConfServerTypeCommand || !m_lpConf->IsServerMode())
            return 0;
        if (part.bUploadList == 0)
            EnterListedDownloads(part.arrDownload);
        else
            ApplyListedFiles(lpCpd, part);
    }
    catch (...)
    {
        QB_WriteLog(QB_LOG_DAILY, "error", "ZV_FileShareMgr::HandleGetFileListResponse exception.\r\n");
    }
    return 0;
}

void ZV_FileShareMgr::ApplyListedFiles(const ConfPduData* lpCpd, const ZV_FileListResponse& part)
{
    ZV_ListedFiles listed;
    for (int i = 0; i < part.arrInfo.GetSize(); ++i)
        if (!ApplyListedFile(lpCpd, part, i, listed))
            break;
    const QB_UserID* lpLocal = LocalUser();
    const QB_UserID local = lpLocal != nullptr ? *lpLocal : QB_UserID();
    for (int nSeries = 0; nSeries < 2; ++nSeries)
        if (!listed.arrFileID[nSeries].IsEmpty())
            SendAddFilesList(zvConnNone, part.ulResult, local, 0, listed.arrFileID[nSeries], listed.arrPos[nSeries],
                             listed.arrBrief[nSeries]);
    if (!listed.arrRow.IsEmpty())
        m_Catalog.SaveFiles(m_lpConf->GetConfID(), listed.arrRow, listed.arrSection);
    if (!listed.arrNew.IsEmpty())
        ForwardListedFiles(lpCpd->ulConn, listed.arrNew, listed.arrNewState, listed.arrNewMaxPos);
}

// One file of the peer's list. False ends the walk of this PDU.
bool ZV_FileShareMgr::ApplyListedFile(const ConfPduData* lpCpd, const ZV_FileListResponse& part, int i,
                                      ZV_ListedFiles& listed)
{
    const ZV_FileUploadInfo& entry = part.arrInfo[i];
    const uint16_t usFileID = entry.m_usFileID;
    if (!HasNames(entry) || !(entry.m_ullMask & ZV_UPLOAD_FILE_ID) || usFileID == ZV_NO_FILEID)
        return true;
    ZV_FileShareSession* lpFsSession = nullptr;
    bool bNew = !m_mapSession.Lookup(usFileID, lpFsSession);
    // A FileID that an add here has reserved is that add's to fill.
    if (!bNew && lpFsSession == nullptr)
        return true;
    if (!bNew && !lpFsSession->FileInfo().m_BriefInfo.IsSameFile(entry.m_BriefInfo))
    {
        if (!TakeOverFileID(lpFsSession, entry))
            return true;
        bNew = true;
    }
    if (!bNew)
    {
        if (!RecheckListedSession(lpFsSession, entry, part.arrState[i]))
            return true;
    }
    else if (m_arrDelFileID.Find(usFileID) >= 0 || WasDeleted(entry.m_BriefInfo))
        return PassBackDelete(lpCpd, part.sender, entry);
    else
    {
        std::unique_ptr<ZV_FileShareSession> lpNew = MakeSession();
        lpNew->InitPeerFileInfo(usFileID, entry);
        lpFsSession = lpNew.get();
        ReplaceSession(usFileID, std::move(lpNew));
    }
    lpFsSession->RaiseMaxPos(part.arrMaxPos[i]);
    QB_StringW sSection;
    const uint32_t ulResult = lpFsSession->ReconcileFileInfo(lpCpd, sSection);
    lpFsSession->SetUploadDone(part.arrState[i]);
    listed.Add(ulResult == zvResultOk ? 0 : 1, lpFsSession, sSection);
    if (bNew)
    {
        listed.arrNew.Add(lpFsSession->FileInfo());
        listed.arrNewState.Add(part.arrState[i]);
        listed.arrNewMaxPos.Add(lpFsSession->MaxPos());
    }
    return true;
}

// Two files under one FileID: the number was freed and given out anew
// while one of the two servers was away. The later file is the one the
// number names: one deleted here is not the later, nor is one of another
// server's numbers when this server's range gave out its own, nor one
// shared before the file held here. Otherwise the peer's is the later one,
// and the file held here goes as a deleted one goes; true says so. Two
// servers that meet with neither range's file must both keep the one
// shared later: were each to take the peer's, they would swap, and each
// would fetch its file from a neighbour that holds the other.
bool ZV_FileShareMgr::TakeOverFileID(ZV_FileShareSession* lpFsSession, const ZV_FileUploadInfo& entry)
{
    const uint16_t usFileID = entry.m_usFileID;
    if (WasDeleted(entry.m_BriefInfo) ||
        (usFileID >= m_lpConf->GetFileIDMin() && usFileID <= m_lpConf->GetFileIDMax()) ||
        entry.m_BriefInfo.m_dtShareTime < lpFsSession->FileInfo().m_BriefInfo.m_dtShareTime)
        return false;
    const QB_UserID creator = lpFsSession->FileInfo().m_BriefInfo.m_CreatorID;
    RemoveStoredFile(usFileID, lpFsSession, &creator, m_lpConf->NewFloodSeq(&creator, 0));
    return true;
}

// A file this server already holds: it learns whether all bytes arrived at
// the peer, and is set against the disk once after each loss of a server
// link. False skips the entry. The file's home server tells the others
// where the upload stands.
bool ZV_FileShareMgr::RecheckListedSession(ZV_FileShareSession* lpFsSession, const ZV_FileUploadInfo& entry, bool bDone)
{
    if (!lpFsSession->IsUploadDone())
        lpFsSession->SetUploadDone(bDone);
    if (!lpFsSession->MarkSynced())
        return false;
    return RepublishUpload(lpFsSession, entry.m_BriefInfo.m_CreatorID, entry.m_BriefInfo.m_usFileState);
}

// A file deleted here while the peer was away: the delete goes back on the
// link the list came by, and the file stays gone. A flood number that the
// host already saw from the list's sender stops the walk of this PDU; what
// the walk took so far is still announced and saved, so that no session is
// left without its catalogue row.
bool ZV_FileShareMgr::PassBackDelete(const ConfPduData* lpCpd, const QB_UserID& sender, const ZV_FileUploadInfo& entry)
{
    const QB_UserID& creator = entry.m_BriefInfo.m_CreatorID;
    const uint32_t ulFloodSeq = m_lpConf->NewFloodSeq(&creator, 0);
    if (m_lpConf->IsFloodSeen(&sender, ulFloodSeq))
        return false;
    ZV_DelUploadRequest ask;
    ask.usFileID = entry.m_usFileID;
    ask.user = creator;
    ask.ulFloodSeq = ulFloodSeq;
    ZV_PduBuffer pdu;
    ask.Save(pdu.Stream());
    ZV_SendOnServerLink(m_lpConf, lpCpd->ulConn, PDU_CONF_FS_DEL_UPLOAD_REQUEST, pdu);
    return true;
}

// The peer's download records: a downloader this server did not know of is
// entered, resting, and told by its own server that the download stands.
// Records are taken in the order of the sessions, and within one file in
// the order of the list.
void ZV_FileShareMgr::EnterListedDownloads(const QB_Array<ZV_FileDownloadInfo>& arrDownload)
{
    std::unordered_map<uint16_t, std::vector<int>> mapByFileID;
    for (int i = 0; i < arrDownload.GetSize(); ++i)
    {
        const uint64_t ullMask = arrDownload[i].m_ullMask;
        if ((ullMask & ZV_DOWNLOAD_FILE_ID) && (ullMask & ZV_DOWNLOAD_USER_ID))
            mapByFileID[arrDownload[i].m_usFileID].push_back(i);
    }
    ForEachSession([&](uint16_t usFileID, ZV_FileShareSession* lpFsSession) {
        auto it = mapByFileID.find(usFileID);
        if (lpFsSession == nullptr || it == mapByFileID.end())
            return;
        QB_Array<ZV_FileDownloadInfo> arrNew;
        for (int i : it->second)
        {
            ZV_FileDownloadInfo record = arrDownload[i];
            // A record of another file under the FileID is no download of
            // this one: its user would be handed this file in its place.
            if (lpFsSession->FindDownloadEntry(record.m_UserID) != nullptr || lpFsSession->NamesOtherFile(record))
                continue;
            record.SetActive(false);
            lpFsSession->SetDownloadInfo(record.m_UserID, record);
            arrNew.Add(record);
        }
        if (!arrNew.IsEmpty())
            NotifyNewDownloadInfo(lpFsSession, arrNew);
    });
}

// A downloader homed here whose download only the peer knew of hears of it
// from this server, in a download list of one record.
void ZV_FileShareMgr::NotifyNewDownloadInfo(ZV_FileShareSession* lpFsSession,
                                            const QB_Array<ZV_FileDownloadInfo>& arrRecord)
{
    const QB_DateTimeEx& dtShared = lpFsSession->FileInfo().m_BriefInfo.m_dtShareTime;
    for (int i = 0; i < arrRecord.GetSize(); ++i)
    {
        const ZV_FileDownloadInfo& record = arrRecord[i];
        if (!ZV_FileShareSession::IsLocalUser(m_lpConf, record.m_UserID))
            continue;
        const uint32_t ulConn = m_lpConf->GetUserConn(&record.m_UserID, zvConfClientTypeCommand);
        if (ulConn == zvConnNone)
            continue;
        QB_Array<ZV_FileDownloadInfo> arrOne;
        QB_Array<bool> arrModify;
        arrOne.Add(record);
        arrModify.Add(!(record.m_dtShareTime == dtShared));
        SendDownloadList(ulConn, 0, record.m_UserID, arrOne, arrModify);
    }
}
