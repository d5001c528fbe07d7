// The download road, downloader side: a client, or a relay server that
// fetches a file into its own store, opens its target on the server's answer
// (8015) and takes the blocks (8013) that fit its position.
#include "core/ZV_FileShareSession.h"
#include "download/ZV_DownloadPdu.h"
#include "upload/ZV_UploadPdu.h"
#include "core/ZV_Percent.h"
#include "records/ZV_FileCatalog.h"

#include "QB_FileEx.h"
#include "QB_Log.h"

#include <cstdint>

namespace {

// Read and write and create if missing, keeping what is there.
constexpr uint32_t kOpenForDownload = QB_FILE_READWRITE | QB_FILE_OPEN_ALWAYS;
// A client's target besides: a link planted at the user's path would make
// the client write where the link points.
constexpr uint32_t kOpenClientTarget = kOpenForDownload | QB_FILE_NO_LINK;

} // namespace

// ---------------------------------------------------------------------------
// Downloader: the response, which opens the target

uint32_t ZV_FileShareSession::HandleDownloadResponse(ConfPduData* lpCpd)
{
    ZV_PayloadReader stream(lpCpd);
    ZV_DownloadResponse answer;
    answer.Load(stream);
    const bool bWasOpen = m_File.IsOpen();
    const QB_StringW sWasPath = bWasOpen ? m_File.GetPath() : QB_StringW();
    const ZV_FileDownloadInfo before = m_LocalDownload;
    try
    {
        ApplyDownloadAnswer(lpCpd, answer);
    }
    catch (...)
    {
        // A throw of the host or the user side leaves no file open that
        // this answer opened, and the download as it stood.
        if (m_File.IsOpen() && (!bWasOpen || m_File.GetPath() != sWasPath))
            m_File.Close();
        m_LocalDownload = before;
        throw;
    }
    return 0;
}

void ZV_FileShareSession::ApplyDownloadAnswer(const ConfPduData* lpCpd, ZV_DownloadResponse& answer)
{
    uint32_t ulResult = answer.ulResult;
    const uint16_t usFileID = answer.usFileID;
    const QB_UserID& user = answer.user;
    ZV_FileDownloadInfo& record = answer.record;
    const bool bRelay = Conf()->IsServerMode();
    if (ulResult == zvResultOk && !bRelay && CheckDownloadAnswer(usFileID, record) != zvResultOk)
        return;
    // A neighbour that answers with an entry of another file under this
    // FileID would fill this store with that file's bytes, and end it at
    // that file's length.
    if (ulResult == zvResultOk && bRelay && NamesOtherFile(record))
        return;
    m_bDownloadFailed = false;
    // A new path means a new file: what an earlier download left open
    // belongs to the old path.
    if (ulResult == zvResultOk && !bRelay && m_File.IsOpen() &&
        m_File.GetPath() != QB_StringW(record.m_sFilePath + record.m_sFileName))
        m_File.Close();
    if (ulResult == zvResultOk && !m_File.IsOpen())
        ulResult = bRelay ? OpenRelayTarget(record) : OpenDownloadTarget(record);
    if (ulResult == zvResultOk)
    {
        m_LocalDownload = record;
        m_LocalDownload.SetLastTick(ZV_Now());
        m_LocalDownload.SetState(zvDownloadStateRunning);
        m_ulLastIoTick = ZV_Now();
    }
    if (Conf()->IsClientMode())
        ReportDownloadAnswer(lpCpd, ulResult, usFileID, user, record);
    // A refused download stands still until the user asks again.
    m_bDownloadFailed = ulResult != zvResultOk;
    if (ulResult != zvResultOk)
        return;
    AskForBlocks(lpCpd->ulConn, usFileID, user, record);
    // No block can come for a download that starts at the file's end, an
    // empty file above all: it is whole as it is.
    if (!bRelay && record.m_ulDownloadPos >= record.m_ulFileLenth)
        OnClientBlock(usFileID, true);
}

// The answer must echo what the user's FsDownload asked: its path, its
// start and the length of the file as announced. Anything else is
// refused before a folder is made or a file opened, and sends nothing; the
// user hears of it only if a download was asked for.
uint32_t ZV_FileShareSession::CheckDownloadAnswer(uint16_t usFileID, const ZV_FileDownloadInfo& record)
{
    if (m_bDownloadAsked && record.m_sFilePath + record.m_sFileName == m_sAskedPath &&
        record.m_ulDownloadPos == m_ulAskedPos && record.m_ulFileLenth == m_BriefInfo.m_ulFileLenth)
    {
        m_bDownloadAsked = false;
        return zvResultOk;
    }
    QB_WriteClientLog("ZV_FileShareMgr.HandleDownloadResponse ret = %d\r\n", (int)zvResultUntrusted);
    if (m_bDownloadAsked)
        NotifyDownloadState(zvResultUntrusted, usFileID, record, 0.0);
    return zvResultUntrusted;
}

// A client writes where its user asked. The folders that stood when the
// user asked are the user's and are followed as they stand; the folders
// below them, which the client makes, and the file itself are entered
// without following a link, name by name, so that a folder swapped for a
// link after the ask leads nowhere: that is refused with 90.
uint32_t ZV_FileShareSession::OpenDownloadTarget(const ZV_FileDownloadInfo& record)
{
    const QB_StringW sPath(record.m_sFilePath + record.m_sFileName);
    QB_StringW sBase = m_bAskedBase ? m_sAskedBase : QB_StringW(record.m_sFilePath);
    if (sPath.Left(sBase.GetLength()) != sBase)
        sBase = QB_StringW(record.m_sFilePath);
    bool bLink = false;
    if (record.m_ulDownloadPos > record.m_ulFileLenth ||
        !m_File.OpenBelow(sBase, sPath.Mid(sBase.GetLength()), kOpenClientTarget, &bLink))
        return bLink ? zvResultUntrusted : zvResultCannotOpen;
    return CutDownloadFile(record.m_ulDownloadPos);
}

// A relay writes into its own stored file and nowhere else, whatever path the
// neighbour's record names.
uint32_t ZV_FileShareSession::OpenRelayTarget(ZV_FileDownloadInfo& record)
{
    const QB_StringU8& sName = m_FileInfo.m_sFileNewName;
    const QB_StringW sDir = GetConfDir();
    if (!ZV_FileCatalog::IsPlainFileName(QB_StringA(sName)) || !MakeDirs(sDir))
        return zvResultCannotOpen;
    record.SetFilePath(QB_StringU8(sDir));
    record.SetFileName(sName);
    record.SetFileLenth(m_FileInfo.m_BriefInfo.m_ulFileLenth);
    return OpenDownloadFile(sDir + QB_StringW(sName), record.m_ulDownloadPos, record.m_ulFileLenth,
                            kOpenForDownload);
}

// What lay behind the starting position goes. A start beyond the file's end
// would only make a file of zeros, and is refused like a failed move. A file
// that already ends there is left alone: cutting a new file to nothing
// would have the file system write all of it out when it is closed.
uint32_t ZV_FileShareSession::OpenDownloadFile(const QB_StringW& sPath, uint32_t ulPos, uint32_t ulLength,
                                               uint32_t ulMode)
{
    if (ulPos > ulLength || !m_File.Open(sPath, ulMode))
        return zvResultCannotOpen;
    return CutDownloadFile(ulPos);
}

uint32_t ZV_FileShareSession::CutDownloadFile(uint32_t ulPos)
{
    if ((uint32_t)m_File.GetLength() == ulPos || (SeekTo(m_File, ulPos) && m_File.SetEnd()))
        return zvResultOk;
    m_File.Close();
    return zvResultCannotOpen;
}

void ZV_FileShareSession::ReportDownloadAnswer(const ConfPduData* lpCpd, uint32_t ulResult, uint16_t usFileID,
                                               const QB_UserID& user, const ZV_FileDownloadInfo& record)
{
    QB_WriteLog(QB_LOG_DAILY, "fileshare", "HandleDownloadResponse...ulResult=%d.\r\n", (int)ulResult);
    NotifyDownloadState(ulResult, usFileID, record, 0.0);
    if (ulResult != zvResultOk)
        SendDelDownloadRequest(lpCpd->ulConn, usFileID, &user, 0);
    else
        m_lpMgr->MarkBusy(true, usFileID);
}

// ---------------------------------------------------------------------------
// Downloader: the blocks

uint32_t ZV_FileShareSession::HandleDownloadDataResponse(ConfPduData* lpCpd)
{
    // After a failure nothing more is taken, not even parsed, until the next
    // download response.
    if (m_bDownloadFailed)
        return 0;
    ZV_PayloadReader stream(lpCpd);
    ZV_DownloadBlock block;
    block.ZV_AnswerHead::Load(stream);
    uint32_t ulResult = block.ulResult;
    if (ulResult == zvResultOk)
        ulResult = WriteDownloadBlock(lpCpd, stream, block);
    if (ulResult != zvResultOk)
        FailDownload(lpCpd, ulResult, block.usFileID, block.user);
    return 0;
}

// A block longer than a block is refused unwritten, as a failed write, and
// so is one that runs past the file's end: the sender disagrees with the
// length the file was announced with, and a local file never grows beyond
// it (rather than being written whole with the position stopping at the
// length).
uint32_t ZV_FileShareSession::WriteDownloadBlock(const ConfPduData* lpCpd, QB_ByteStream& stream,
                                                 ZV_DownloadBlock& block)
{
    const uint16_t usFileID = block.usFileID;
    const QB_UserID& user = block.user;
    ZV_FileDownloadInfo& download = m_LocalDownload;
    if (download.m_sFileName.IsEmpty() || download.m_usState == zvDownloadStateFinished)
        return zvResultOk;
    if (!block.LoadBlock(stream))
        return zvResultCannotAccess;
    if (block.ulPos < download.m_ulDownloadPos)
        return zvResultOk;
    if (block.ulPos > download.m_ulDownloadPos)
    {
        // One request for the position is enough; the blocks behind the gap
        // are dropped until one fits.
        if (!m_bResyncPending)
        {
            const ZV_FileDownloadInfo copy = download;
            AskForBlocks(lpCpd->ulConn, usFileID, user, copy);
        }
        return zvResultOk;
    }
    m_bResyncPending = false;
    if ((uint64_t)block.ulPos + block.ulLen > download.m_ulFileLenth ||
        m_File.WriteAt(block.ulPos, block.pData, (int32_t)block.ulLen) != (int32_t)block.ulLen)
        return zvResultCannotAccess;
    const bool bFinished = AdvanceLocalDownload(block.ulLen);
    if (Conf()->IsServerMode())
        OnRelayBlock(usFileID, user, block.ulPos, block.ulMaxPos, bFinished);
    else
        OnClientBlock(usFileID, bFinished);
    return zvResultOk;
}

bool ZV_FileShareSession::AdvanceLocalDownload(uint32_t ulCount)
{
    ZV_FileDownloadInfo& download = m_LocalDownload;
    const uint32_t ulNow = ZV_Now();
    m_ulLastIoTick = ulNow;
    download.SetUsedTime(download.m_ulUsedTime + (ulNow - download.m_ulLastTick));
    download.SetLastTick(ulNow);
    const uint64_t ullPos = std::min<uint64_t>((uint64_t)download.m_ulDownloadPos + ulCount, download.m_ulFileLenth);
    download.SetDownloadPos((uint32_t)ullPos);
    if (download.m_usState == zvDownloadStateNew)
        download.SetState(zvDownloadStateRunning);
    return download.m_ulDownloadPos >= download.m_ulFileLenth;
}

void ZV_FileShareSession::OnClientBlock(uint16_t usFileID, bool bFinished)
{
    ZV_FileDownloadInfo& download = m_LocalDownload;
    NotifyDownloadProgress(zvResultOk, usFileID,
                           ZV_PercentScaledFirst(download.m_ulDownloadPos, download.m_ulFileLenth, ZV_IfEmpty::Whole),
                           download.m_ulUsedTime);
    if (bFinished)
    {
        download.SetState(zvDownloadStateFinished);
        m_File.Close();
        NotifyDownloadFinished(zvResultOk, usFileID);
        m_lpMgr->MarkBusy(false, usFileID);
    }
    if (bFinished || download.m_ulDownloadPos == ZV_BLOCK_SIZE)
        NotifyTransferState(0, usFileID, download.m_usState);
}

// A relay's arrived bytes are its stored bytes: its own clients may read up
// to them at once. The wake comes last, so that a host that calls OnSend at
// once finds the write position moved and the store file open. It goes to
// the position where the block began, as on the creator's server: that is
// where a downloader that caught up with this relay rests. Waking those
// behind the block instead would wake no one, and a caught-up downloader
// would wait for good; only the kicks differ, not a byte of any PDU.
void ZV_FileShareSession::OnRelayBlock(uint16_t usFileID, const QB_UserID& user, uint32_t ulBlockPos,
                                       uint32_t ulMaxPos, bool bFinished)
{
    m_bPulling = true;
    m_FileInfo.SetFileWritePos(m_LocalDownload.m_ulDownloadPos);
    if (ulMaxPos > m_ulMaxPos)
    {
        m_ulMaxPos = ulMaxPos;
        SendProgressing(zvConnNone, usFileID, &user, ulMaxPos, true);
    }
    ZV_FileBriefInfo& brief = m_FileInfo.m_BriefInfo;
    if (bFinished)
    {
        m_LocalDownload.SetState(zvDownloadStateFinished);
        m_File.Close();
        brief.SetFileState(zvFileStateComplete);
        SaveToCatalog();
        m_bUploadDone = true;
        SendFileStateNotice(usFileID, zvFileStateComplete, 1);
    }
    else if (brief.m_usFileState == zvFileStateAdded)
    {
        brief.SetFileState(zvFileStateUploading);
        SaveToCatalog();
        SendFileStateNotice(usFileID, zvFileStateUploading, 1);
    }
    if (!m_ServerFile.IsOpen())
        OpenRelayServedFile();
    WakeDownloaders(ulBlockPos);
}

void ZV_FileShareSession::OpenRelayServedFile()
{
    m_ServerFile.Open(GetStoredPath(m_FileInfo.m_sFileNewName), kOpenForDownload);
}

// ---------------------------------------------------------------------------
// Downloader: failure. Later blocks are ignored until a new response.

void ZV_FileShareSession::FailDownload(const ConfPduData* lpCpd, uint32_t ulResult, uint16_t usFileID,
                                       const QB_UserID& user)
{
    m_bDownloadFailed = true;
    if (Conf()->IsServerMode())
    {
        FailRelayDownload(lpCpd, ulResult, usFileID, user);
        return;
    }
    const uint32_t ulCmdConn = m_lpMgr->GetLinkConn(zvConfClientTypeCommand);
    SendIsStopDownloadRequest(ulCmdConn != zvConnNone ? ulCmdConn : lpCpd->ulConn, usFileID, &user, 0, 1);
    QB_WriteLog(QB_LOG_DAILY, "fileshare", "HandleDownloadDataResponse...ulResult=%d.\r\n", (int)ulResult);
    NotifyDownloadState(ulResult, usFileID, m_LocalDownload,
                        ZV_PercentScaledFirst(m_LocalDownload.m_ulDownloadPos, m_LocalDownload.m_ulFileLenth,
                                              ZV_IfEmpty::Whole));
}

// The relay's clients hear of it as of a failed upload, and the upstream
// server stops sending to this relay.
void ZV_FileShareSession::FailRelayDownload(const ConfPduData* lpCpd, uint32_t ulResult, uint16_t usFileID,
                                            const QB_UserID& user)
{
    IZV_ConfHost* lpConf = Conf();
    ZV_UploadResponse failure;
    failure.usRouteID = usFileID;
    failure.ulResult = ulResult;
    failure.usFileID = usFileID;
    failure.user = user;
    ZV_PduBuffer pdu;
    failure.Save(pdu.Stream());
    ZV_SendToGroup(lpConf, zvConnNone, PDU_CONF_FS_UPLOAD_RESPONSE, pdu);

    uint32_t ulConn = lpConf->GetServerConn(lpCpd->ulUserMain, zvConfServerTypeCommand, 0);
    if (ulConn == zvConnNone)
        ulConn = lpCpd->ulConn;
    const QB_UserID self(lpConf->GetLocalServerID(), 0);
    const uint32_t ulFloodSeq = lpConf->NewFloodSeq(&self, 0);
    if (!lpConf->IsFloodSeen(&self, ulFloodSeq))
        SendIsStopDownloadRequest(ulConn, usFileID, &self, ulFloodSeq, 1);
}

// ---------------------------------------------------------------------------
// Senders

uint32_t ZV_FileShareSession::SendDownloadRequest(uint32_t ulConn, uint16_t usFileID, const QB_UserID* pUser,
                                                 uint32_t ulFloodSeq, const QB_StringU8& sPath, uint32_t ulPos,
                                                 uint8_t bFromServer, uint8_t bFlooded)
{
    ZV_DownloadAsk ask;
    ask.usFileID = usFileID;
    ask.user = *pUser;
    ask.ulFloodSeq = ulFloodSeq;
    ask.sPath = sPath;
    ask.ulPos = ulPos;
    ask.bFromServer = bFromServer;
    ask.bFlooded = bFlooded;
    ZV_PduBuffer pdu;
    ask.Save(pdu.Stream());
    return ZV_SendToLink(Conf(), ulConn, PDU_CONF_FS_DOWNLOAD_REQUEST, pdu);
}

uint32_t ZV_FileShareSession::SendDelDownloadRequest(uint32_t ulConn, uint16_t usFileID, const QB_UserID* pUser,
                                                    uint32_t ulFloodSeq)
{
    const ZV_RequestHead ask{usFileID, *pUser, ulFloodSeq};
    ZV_PduBuffer pdu;
    ask.Save(pdu.Stream());
    return ZV_SendToLink(Conf(), ulConn, PDU_CONF_FS_DEL_DOWNLOAD_REQUEST, pdu);
}
