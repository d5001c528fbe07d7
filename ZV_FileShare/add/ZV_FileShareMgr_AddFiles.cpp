// Adding several files at once: FsFilesAdd and its cut into 8055 PDUs, the
// server's FileIDs, sessions and flood for each PDU, and the client's 8056,
// whose report to the application waits for the batch's last PDU.
#include "core/ZV_FileShareMgr.h"
#include "add/ZV_AddPdu.h"
#include "core/ZV_FileShareSession.h"
#include "lists/ZV_ListPdu.h"
#include "wire/ZV_CutList.h"
#include "wire/ZV_PduTable.h"
#include "records/ZV_SharePath.h"
#include "core/ZV_FsEvents.h"
#include "core/ZV_Percent.h"

#include "QB_FileEx.h"
#include "QB_Log.h"

#include <algorithm>

namespace {

QB_DateTimeEx LastWriteTime(QB_FileEx& file)
{
    QB_SystemTime stWrite;
    QB_DateTimeEx dtWrite;
    if (file.GetTimes(nullptr, &stWrite, nullptr))
        dtWrite.SetFromSystemTime(stWrite);
    return dtWrite;
}

// One record as FsAdd fills it, the folder taken straight from UTF-16.
ZV_FileBriefInfo MakeBrief(IZV_ConfHost* lpConf, const ZV_ConfUserInfo& user, QB_FileEx& file,
                           const QB_StringW& sFolder, const QB_StringW& sPath, const QB_Array<QB_UserID>& arrRight,
                           uint8_t bPublic)
{
    ZV_FileBriefInfo brief;
    brief.SetCreatorID(*lpConf->GetLocalUserID());
    brief.SetCreatorName(QB_StringU8(user.szName ? user.szName : ""));
    brief.SetFilePath(sFolder);
    brief.SetFileOldName(file.GetFileName());
    const int nDot = sPath.ReverseFind(u'.');
    brief.SetFileType(nDot < 0 ? sPath : sPath.Mid(nDot + 1));
    brief.SetFileLenth((uint32_t)file.GetLength());
    QB_DateTimeEx dtNow;
    dtNow.SetToNow();
    brief.SetShareTime(dtNow);
    brief.SetModifyTime(LastWriteTime(file));
    brief.SetFileState(zvFileStateAdded);
    brief.SetPublic(bPublic != 0);
    if (!bPublic)
        brief.SetRight(arrRight);
    return brief;
}

// Opens one named file of a batch, one that the records and the catalogue
// can name as it is: a name with a separator in it would be stored under
// its last part, beside a folder that does not hold it.
bool OpenBatchFile(QB_FileEx& file, const QB_StringW& sFolder, const char16_t* pszName)
{
    if (pszName == nullptr || ZV_CheckBatchName(pszName) != ZV_SharePathProblem::None)
        return false;
    if (!file.Open(sFolder + pszName, QB_FILE_READ | QB_FILE_SHARE_DENY_WRITE | QB_FILE_OPEN_EXISTING))
        return false;
    if (ZV_CheckSharePath(file.GetFullPath(), false) == ZV_SharePathProblem::None)
        return true;
    file.Close();
    return false;
}

uint32_t SendFilesPdu(IZV_ConfHost* lpConf, uint32_t ulConn, uint16_t usPdu, const ZV_PduBuffer& pdu, bool bToAll)
{
    if (bToAll)
        return ZV_SendToGroup(lpConf, ulConn, usPdu, pdu);
    return ZV_SendToLink(lpConf, ulConn, usPdu, pdu);
}

template <typename T>
QB_Array<T> Slice(const QB_Array<T>& arr, int nFrom, int nTo)
{
    QB_Array<T> part;
    for (int i = nFrom; i < nTo && i < arr.GetSize(); ++i)
        part.Add(arr[i]);
    return part;
}

// A batch of 8055 or 8056 (`part`), cut on the batches' count:
// fnFill(nFrom, nTo, bLast) puts entries [nFrom, nTo) into the part, whose
// body is then written behind its head and sent by fnSend. The result is
// the last send's.
template <typename TPart, typename FnFill, typename FnSend>
uint32_t SendBatch(TPart& part, int nCount, const QB_Array<ZV_FileBriefInfo>& arrInfo, FnFill fnFill, FnSend fnSend)
{
    ZV_PduBuffer pdu;
    QB_ByteStream& stream = pdu.Stream();
    part.SaveHead(stream);
    const int32_t nHeadEnd = stream.GetPos();
    uint32_t ulSent = 0;
    ZV_CutList(
        (uint32_t)nHeadEnd + ZV_BATCH_HEAD_ROOM, nCount, [&](int i) { return ZV_AddFilesEntrySize(arrInfo[i]); },
        [&](int nFrom, int nTo, bool bLast) {
            fnFill(nFrom, nTo, bLast);
            stream.SeekTo(nHeadEnd);
            part.SaveBody(stream);
            ulSent = fnSend(pdu);
        },
        ZV_BATCH_CUT_LIMIT);
    return ulSent;
}

int CommonCount(const QB_Array<uint16_t>& arrFileID, const QB_Array<ZV_FileBriefInfo>& arrInfo)
{
    return arrFileID.GetSize() < arrInfo.GetSize() ? arrFileID.GetSize() : arrInfo.GetSize();
}

// A series of 8056 whose last PDU carries bLastFinal.
uint32_t SendFilesSeries(IZV_ConfHost* lpConf, uint32_t ulConn, ZV_AddFilesResponse& part,
                         const QB_Array<uint16_t>& arrFileID, const QB_Array<uint32_t>& arrPos,
                         const QB_Array<ZV_FileBriefInfo>& arrInfo, uint8_t bLastFinal, bool bToAll)
{
    return SendBatch(
        part, CommonCount(arrFileID, arrInfo), arrInfo,
        [&](int nFrom, int nTo, bool bLast) {
            part.arrFileID = Slice(arrFileID, nFrom, nTo);
            part.arrPos = Slice(arrPos, nFrom, nTo);
            part.arrInfo = Slice(arrInfo, nFrom, nTo);
            part.bLast = bLast ? bLastFinal : 0;
        },
        [&](const ZV_PduBuffer& pdu) {
            return SendFilesPdu(lpConf, ulConn, PDU_CONF_FS_ADD_FILES_RESPONSE, pdu, bToAll);
        });
}

bool NamesFileID(const QB_Array<uint16_t>& arrFileID)
{
    for (int i = 0; i < arrFileID.GetSize(); ++i)
        if (arrFileID[i] != ZV_NO_FILEID)
            return true;
    return false;
}

} // namespace

// From the last file to the first, so that with a range that runs out the
// files at the batch's end keep their place. False when none is left.
bool ZV_FileShareMgr::AllocBatchFileIDs(ConfPduData* lpCpd, ZV_AddFilesRequest& ask)
{
    QB_Array<ZV_FileBriefInfo> arrRefused;
    for (int i = ask.arrFileID.GetSize() - 1; i >= 0; --i)
    {
        ask.arrFileID[i] = AllocFileID();
        if (ask.arrFileID[i] != ZV_NO_FILEID)
            continue;
        arrRefused.Add(ask.arrInfo[i]);
        ask.arrFileID.RemoveAt(i);
        ask.arrInfo.RemoveAt(i);
    }
    if (arrRefused.IsEmpty())
        return true;
    SendAddFilesResponse(lpCpd->ulConn, zvResultNotEntitled, ask.user, ask.bStartUpload, QB_Array<uint16_t>(),
                         QB_Array<uint32_t>(), arrRefused, ask.bLast, false);
    return !ask.arrFileID.IsEmpty();
}

// A batch that threw gives back the FileIDs it reserved and the sessions it
// made, the first nMade of its files.
void ZV_FileShareMgr::DropBatch(const QB_Array<uint16_t>& arrFileID, int nMade)
{
    for (int i = 0; i < arrFileID.GetSize(); ++i)
    {
        if (i < nMade || IsReservedFileID(arrFileID[i]))
            DropAddedSession(arrFileID[i]);
    }
}

// Sessions, stored names, empty files and catalogue rows, then one 8056 for
// all clients. A batch from a server link is fetched file by file at once.
void ZV_FileShareMgr::StoreAddedFiles(ConfPduData* lpCpd, const ZV_AddFilesRequest& ask, const QB_StringW& sFolder)
{
    int nMade = 0;
    try
    {
        const QB_UserID self(m_lpConf->GetLocalServerID(), 0);
        QB_Array<uint32_t> arrPos;
        for (; nMade < ask.arrFileID.GetSize(); ++nMade)
        {
            const uint16_t usFileID = ask.arrFileID[nMade];
            auto lpOwned = MakeSession();
            ZV_FileShareSession* lpFsSession = lpOwned.get();
            ReplaceSession(usFileID, std::move(lpOwned));
            QB_StringW sPath;
            lpFsSession->InitSrvAddFileInfo(sPath, m_lpConf, usFileID, sFolder, ask.arrInfo[nMade]);
            arrPos.Add(0);
            if (lpCpd->conn_type == zvConfServerTypeCommand)
                lpFsSession->SendDownloadRequest(lpCpd->ulConn, usFileID, &self, 0, QB_StringU8(sPath), 0, 1, 0);
        }
        // Cut like a list, should a peer's batch come too near the limit for
        // the positions to fit; an honest batch makes exactly one PDU.
        ZV_AddFilesResponse part;
        part.user = ask.user;
        part.bStartUpload = ask.bStartUpload;
        SendFilesSeries(m_lpConf, zvConnNone, part, ask.arrFileID, arrPos, ask.arrInfo, ask.bLast, true);
    }
    catch (...)
    {
        DropBatch(ask.arrFileID, nMade + 1);
        throw;
    }
}

// One file of an 8056 on the client: its session, and its place in the
// report if the batch is visible.
void ZV_FileShareMgr::ApplyAnnouncedFile(const ZV_AddFilesResponse& answer, int nIndex, bool bVisible)
{
    const uint16_t usFileID = answer.arrFileID[nIndex];
    const ZV_FileBriefInfo& brief = answer.arrInfo[nIndex];
    const uint32_t ulPos = nIndex < answer.arrPos.GetSize() ? answer.arrPos[nIndex] : 0;
    // In percent, and as for one file an empty file's share is not a number.
    if (bVisible)
        NotePendingFile(usFileID, ZV_PercentOfShare(ulPos, brief.m_ulFileLenth, ZV_IfEmpty::Quotient));
    QB_Lock lock(&m_mapSession);
    if (RefreshKnownFile(usFileID, brief, ulPos))
        return;
    auto lpOwned = MakeSession();
    ZV_FileShareSession* lpFsSession = lpOwned.get();
    ReplaceSession(usFileID, std::move(lpOwned));
    // InitCltAddFileInfo catches a throw of the host itself, and says so.
    const uint32_t ulResult = lpFsSession->InitCltAddFileInfo(m_lpConf, usFileID, ulPos, brief, answer.bStartUpload);
    if (ulResult == zvResultException)
        DropAddedSession(usFileID);
    // The creator's own copy would not open: the upload it asked for fails,
    // which the user hears once it has been told of the file.
    else if (ulResult != zvResultOk && answer.bStartUpload && bVisible)
        m_vecPendingFailed.push_back({usFileID, ulResult});
}

// A batch gathered over several PDUs can outgrow the one buffer of an
// event; it is then told in as many 3013 events as it needs, in order,
// rather than lost. The arrays are emptied first, so a failure to tell
// cannot make them grow from batch to batch.
void ZV_FileShareMgr::ReportPendingFiles()
{
    QB_Array<uint16_t> arrFileID;
    QB_Array<double> arrRate;
    QB_Array<ZV_FileBriefInfo> arrInfo;
    DrainPendingFiles(arrFileID, arrRate, arrInfo);
    const int nCount = std::max({arrFileID.GetSize(), arrRate.GetSize(), arrInfo.GetSize()});
    // Event number, result, and the three counts reckoned at their longest,
    // so an estimate that meets the buffer to the byte still fits it.
    constexpr uint32_t kHead = 2 + 4 + 3 * 5;
    ZV_CutList(
        kHead, nCount,
        [&](int i) { return i < arrInfo.GetSize() ? ZV_FilesAddedEntrySize(arrInfo[i]) : 2 + 8; },
        [&](int nFrom, int nTo, bool) {
            NotifyFilesAdded(Slice(arrFileID, nFrom, nTo), Slice(arrInfo, nFrom, nTo), Slice(arrRate, nFrom, nTo));
        });
    std::vector<std::pair<uint16_t, uint32_t>> vecFailed;
    vecFailed.swap(m_vecPendingFailed);
    for (const auto& [usFileID, ulResult] : vecFailed)
        ZV_RaiseResultEvent(Events(), zvFsEventTransferError, ulResult, usFileID);
}

void ZV_FileShareMgr::NotePendingFile(uint16_t usFileID, double dRate)
{
    m_arrPendingFileID.Add(usFileID);
    m_arrPendingRate.Add(dRate);
}

void ZV_FileShareMgr::DrainPendingFiles(QB_Array<uint16_t>& arrFileID, QB_Array<double>& arrRate,
                                        QB_Array<ZV_FileBriefInfo>& arrInfo)
{
    arrFileID = m_arrPendingFileID;
    arrRate = m_arrPendingRate;
    arrInfo = m_arrPendingInfo;
    m_arrPendingFileID.RemoveAll();
    m_arrPendingRate.RemoveAll();
    m_arrPendingInfo.RemoveAll();
}

uint32_t ZV_FileShareMgr::FsFilesAdd(const char16_t* szFolder, const char16_t* const* ppNames, uint32_t nNames,
                                     const QB_UserID* pRight, uint32_t nRight, uint8_t bPublic, uint8_t bStartUpload)
{
    if (m_lpConf == nullptr)
        return zvResultNoHost;
    return GuardFs("ZV_FileShareMgr::FsFilesAdd exception.\r\n", [&]() -> uint32_t {
        const uint32_t ulConn = GetLinkConn(zvConfClientTypeCommand);
        if (ulConn == zvConnNone)
            return zvResultNoConnection;
        const ZV_ConfUserInfo* lpUser = m_lpConf->GetUser(m_lpConf->GetLocalUserID());
        if (lpUser == nullptr)
            return zvResultNotInConf;
        uint32_t ulResult = zvResultOk;
        QB_StringW sFolder = QB_WithBackslashes(szFolder);
        if (sFolder.IsEmpty() || sFolder[sFolder.GetLength() - 1] != u'\\')
            sFolder += u'\\';
        QB_Array<QB_UserID> arrRight;
        for (uint32_t i = 0; pRight != nullptr && i < nRight; ++i)
            arrRight.Add(pRight[i]);
        QB_Array<uint16_t> arrFileID;
        QB_Array<ZV_FileBriefInfo> arrInfo;
        std::vector<ZV_LocalFileMark> vecMark;
        for (uint32_t i = 0; ppNames != nullptr && i < nNames; ++i)
        {
            QB_FileEx file;
            ZV_LocalFileMark mark;
            if (!OpenBatchFile(file, sFolder, ppNames[i]) || !ZV_ShareLedger::MarkOf(file, mark))
            {
                ulResult = zvResultCannotOpen;
                QB_WriteClientLog("ZV_File.FsFilesAdd[%d] ret = %d\r\n", (int)i, (int)zvResultCannotOpen);
                continue;
            }
            arrInfo.Add(MakeBrief(m_lpConf, *lpUser, file, sFolder, file.GetPath(), arrRight, bPublic));
            vecMark.push_back(mark);
            file.Close();
            arrFileID.Add(ZV_NO_FILEID);
        }
        if (!arrInfo.IsEmpty())
        {
            // A failed save is logged by the ledger; the rows hold for this run,
            // and after a restart the user shares again.
            m_ShareLedger.Remember(m_lpConf->GetConfID(), arrInfo, vecMark);
            SendAddFilesRequest(ulConn, *m_lpConf->GetLocalUserID(), 0, bStartUpload, arrFileID, arrInfo);
        }
        return ulResult;
    });
}

// Each PDU stands by itself: the last one, bLast 1, always goes out, however
// few records remain for it.
uint32_t ZV_FileShareMgr::SendAddFilesRequest(uint32_t ulConn, const QB_UserID& user, uint32_t ulFloodSeq,
                                              uint8_t bStartUpload, const QB_Array<uint16_t>& arrFileID,
                                              const QB_Array<ZV_FileBriefInfo>& arrInfo)
{
    ZV_AddFilesRequest part;
    part.user = user;
    part.ulFloodSeq = ulFloodSeq;
    part.bStartUpload = bStartUpload;
    return SendBatch(
        part, CommonCount(arrFileID, arrInfo), arrInfo,
        [&](int nFrom, int nTo, bool bLast) {
            part.arrFileID = Slice(arrFileID, nFrom, nTo);
            part.arrInfo = Slice(arrInfo, nFrom, nTo);
            part.bLast = bLast ? 1 : 0;
        },
        [&](const ZV_PduBuffer& pdu) { return ZV_SendToLink(m_lpConf, ulConn, PDU_CONF_FS_ADD_FILES_REQUEST, pdu); });
}

uint32_t ZV_FileShareMgr::SendAddFilesResponse(uint32_t ulConn, uint32_t ulResult, const QB_UserID& user,
                                               uint8_t bStartUpload, const QB_Array<uint16_t>& arrFileID,
                                               const QB_Array<uint32_t>& arrPos,
                                               const QB_Array<ZV_FileBriefInfo>& arrInfo, uint8_t bLast, bool bToAll)
{
    ZV_AddFilesResponse answer;
    answer.ulResult = ulResult;
    answer.user = user;
    answer.bStartUpload = bStartUpload;
    answer.arrFileID = arrFileID;
    answer.arrPos = arrPos;
    answer.arrInfo = arrInfo;
    answer.bLast = bLast;
    ZV_PduBuffer pdu;
    answer.SaveHead(pdu.Stream());
    answer.SaveBody(pdu.Stream());
    return SendFilesPdu(m_lpConf, ulConn, PDU_CONF_FS_ADD_FILES_RESPONSE, pdu, bToAll);
}

uint32_t ZV_FileShareMgr::SendAddFilesList(uint32_t ulConn, uint32_t ulResult, const QB_UserID& user,
                                           uint8_t bStartUpload, const QB_Array<uint16_t>& arrFileID,
                                           const QB_Array<uint32_t>& arrPos, const QB_Array<ZV_FileBriefInfo>& arrInfo)
{
    ZV_AddFilesResponse part;
    part.ulResult = ulResult;
    part.user = user;
    part.bStartUpload = bStartUpload;
    return SendFilesSeries(m_lpConf, ulConn, part, arrFileID, arrPos, arrInfo, 1, ulConn == zvConnNone);
}

uint32_t ZV_FileShareMgr::HandleAddFilesRequest(ConfPduData* lpCpd)
{
    ZV_PayloadReader stream(lpCpd);
    ZV_AddFilesRequest ask;
    ask.LoadHead(stream);
    if (!ZV_IsNewFlood(m_lpConf, ask.user, ask.ulFloodSeq))
        return zvResultOk;
    ask.LoadBody(stream);
    const bool bFromClient = !ZV_IsServerLink(lpCpd->conn_type);
    const QB_Array<uint32_t> arrNoPos;
    uint32_t ulRefusal = zvResultOk;
    // As for one file: only a server gives FileIDs (CheckClientAdd).
    if (bFromClient && m_lpConf->GetUser(&ask.user) == nullptr)
        ulRefusal = zvResultNotInConf;
    else if (bFromClient && (!m_lpConf->CanShareFiles(&ask.user) || NamesFileID(ask.arrFileID)))
        ulRefusal = zvResultNotEntitled;
    // A PDU of a batch that would pass a limit goes whole or not at all: the
    // user learns which files stand by what was announced, not by a cut the
    // server chose.
    else if (bFromClient && !IsWithinUserLimits(ask.user, ask.arrInfo))
        ulRefusal = zvResultOverLimit;
    if (ulRefusal != zvResultOk)
    {
        SendAddFilesResponse(lpCpd->ulConn, ulRefusal, ask.user, ask.bStartUpload, ask.arrFileID, arrNoPos,
                             ask.arrInfo, ask.bLast, false);
        return zvResultOk;
    }
    QB_StringW sFolder;
    {
        ZV_FileShareSession probe(this, m_strPath.GetString());
        sFolder = probe.GetConfDir();
    }
    if (!MakeDirs(sFolder))
    {
        if (bFromClient || lpCpd->conn_type == zvConfServerTypeCommand)
            SendAddFilesResponse(bFromClient ? lpCpd->ulConn : zvConnNone, zvResultCannotOpen, ask.user,
                                 ask.bStartUpload, ask.arrFileID, arrNoPos, ask.arrInfo, ask.bLast, !bFromClient);
        return zvResultOk;
    }
    // FsFilesAdd names the creator in UTF-8 as it stands.
    for (int i = 0; bFromClient && i < ask.arrInfo.GetSize(); ++i)
        NameCreatorAsHost(ask.user, ask.arrInfo[i], false);
    try
    {
        if (bFromClient && !AllocBatchFileIDs(lpCpd, ask))
            return zvResultOk;
        if (m_lpConf->HasServerLinks())
        {
            ZV_PduBuffer pdu;
            ask.Save(pdu.Stream());
            ZV_SendToServers(m_lpConf, zvConnNone, PDU_CONF_FS_ADD_FILES_REQUEST, pdu, 1, 1);
        }
    }
    catch (...)
    {
        DropBatch(ask.arrFileID, 0);
        throw;
    }
    StoreAddedFiles(lpCpd, ask, sFolder);
    return zvResultOk;
}

uint32_t ZV_FileShareMgr::HandleAddFilesResponse(ConfPduData* lpCpd)
{
    ZV_PayloadReader stream(lpCpd);
    ZV_AddFilesResponse answer;
    answer.Load(stream);
    const ZV_FileShareSession probe(this, m_strPath.GetString());
    for (int i = 0; i < answer.arrFileID.GetSize() && i < answer.arrInfo.GetSize(); ++i)
    {
        const ZV_FileBriefInfo& brief = answer.arrInfo[i];
        // Each file by its own rights: a server that announces the files a
        // linked server brought mixes files of several creators in one PDU.
        const bool bVisible = probe.IsFileVisible(brief);
        // Told by itself and left out of the batch, which goes on.
        if (IsUntrustedAdd(brief, "ZV_FileShareMgr.HandleAddFilesResponse"))
        {
            NotifyFileAdded(zvResultUntrusted, answer.arrFileID[i], brief, 0.0);
            continue;
        }
        // A refused batch makes no session. In one that was taken, each file
        // gets its own whatever became of the one before it: a creator's
        // copy that cannot be opened would otherwise hide every file behind
        // it in the batch from this user for good.
        if (answer.ulResult == zvResultOk)
            ApplyAnnouncedFile(answer, i, bVisible);
        if (bVisible)
            m_arrPendingInfo.Add(brief);
    }
    if (answer.bLast && (m_arrPendingFileID.GetSize() > 0 || m_arrPendingInfo.GetSize() > 0))
        ReportPendingFiles();
    return zvResultOk;
}

