// The upload road: the creator's client pushes its file to its server.
//
// The client sends blocks (8005) as fast as its data link takes them, three
// for each OnSend call of the host, and nothing acknowledges them. The
// server writes only a block that starts at its write position; it answers
// (8006) when a block does not fit, when it cannot write, or when it wants
// the uploader to begin again from a position. So 8006 resynchronises, it
// does not acknowledge.
//
// Client side first (pump, answer), then the server's (blocks, finish, the
// flood between servers), then the senders.
#include "core/ZV_FileShareSession.h"
#include "control/ZV_ControlPdu.h"
#include "upload/ZV_UploadPdu.h"

#include "QB_Log.h"

#include <algorithm>

namespace {

// Blocks a client sends for one OnSend call of the host.
constexpr int kBlocksPerSend = 3;

// The store file: read and write, made if missing, its bytes kept.
constexpr uint32_t kOpenStoreFile = QB_FILE_READWRITE | QB_FILE_OPEN_ALWAYS;

} // namespace

// ---------------------------------------------------------------------------
// Client: the pump on the data link

// A file that ends before its shared length gives no bytes where some are
// due; that is a failed read, not an endless run of empty blocks. One that
// grew gives no more than its shared length, which is all the server takes.
// Each block is read at its own position, so no seek goes before the pass;
// a closed file fails the first read as it would have failed the seek.
// A block is read straight into the PDU that carries it.
void ZV_FileShareSession::PumpUpload(ConfPduData* lpCpd)
{
    IZV_ConfHost* lpConf = Conf();
    if (lpConf->IsServerMode() || !lpConf->IsClientMode() || m_BriefInfo.m_usFileState != zvFileStateUploading)
        return;
    ZV_UploadRequest block;
    block.usFileID = m_usFileID;
    block.user = m_BriefInfo.m_CreatorID;
    ZV_PduBuffer pdu;
    for (int i = 0; i < kBlocksPerSend; ++i)
    {
        const int64_t nLeft = (int64_t)m_BriefInfo.m_ulFileLenth - m_ulReadPos;
        block.ulPos = m_ulReadPos;
        block.ulLen = ZV_BLOCK_SIZE;
        uint8_t* pTo = pdu.PlaceData(block, ZV_BLOCK_SIZE);
        const int32_t nRead = (int32_t)std::min<int64_t>(m_File.ReadAt(m_ulReadPos, pTo, (int32_t)ZV_BLOCK_SIZE),
                                                          std::max<int64_t>(nLeft, 0));
        if (nRead < 0 || (nRead == 0 && m_ulReadPos < m_BriefInfo.m_ulFileLenth))
            return FailLocalRead();
        block.ulLen = (uint32_t)nRead;
        pdu.SaveAroundData(block);
        ZV_SendToLink(lpConf, lpCpd->ulConn, PDU_CONF_FS_UPLOAD_REQUEST, pdu);
        m_ulLastIoTick = ZV_Now();
        m_ulReadPos += (uint32_t)nRead;
        if (m_ulReadPos >= m_BriefInfo.m_ulFileLenth)
        {
            m_BriefInfo.SetFileState(zvFileStateComplete);
            return;
        }
    }
}

// Stopped rather than failed: the user took the file back, nothing broke.
void ZV_FileShareSession::WithdrawLocalShare()
{
    CloseFile();
    if (m_BriefInfo.m_usFileState == zvFileStateUploading)
        m_BriefInfo.SetFileState(zvFileStateStopped);
}

// Once the server holds the whole file the local copy no longer matters:
// the upload is over, however it was started again.
bool ZV_FileShareSession::EndIfServerHoldsAll()
{
    if (m_ulMaxPos < m_BriefInfo.m_ulFileLenth)
        return false;
    m_BriefInfo.SetFileState(zvFileStateComplete);
    return true;
}

void ZV_FileShareSession::FailLocalRead()
{
    if (EndIfServerHoldsAll())
        return;
    m_BriefInfo.SetFileState(zvFileStateFailed);
    NotifyTransferError(zvResultCannotAccess, m_usFileID);
    QB_WriteClientLog("ZV_FileShareMgr.OnSend ret = %d \r\n", (int)zvResultCannotAccess);
    const uint32_t ulConn = m_lpMgr->GetLinkConn(zvConfClientTypeCommand);
    if (ulConn != zvConnNone)
        SendUploadErrorRequest(ulConn, m_usFileID, &m_BriefInfo.m_CreatorID, 0, m_ulReadPos);
}

// ---------------------------------------------------------------------------
// 8006: the client's order to (re)start, or a relay's on-demand start

uint32_t ZV_FileShareSession::HandleUploadResponse(ConfPduData* lpCpd)
{
    ZV_PayloadReader stream(lpCpd);
    ZV_UploadResponse answer;
    answer.Load(stream);
    if (lpCpd->conn_type == zvConfServerTypeCommand)
        PassOnUploadStart(answer.user, answer.ulFloodSeq);
    // An answer about a file that is not the user's own (its FileID may
    // name another's file by now) starts nothing and tells the user nothing.
    else if (!Conf()->IsServerMode() && IsLocalCreator())
        ApplyUploadAnswer(answer.ulResult, answer.usFileID, answer.ulPos);
    return 0;
}

// A file the user did not share, or withdrew, is not even looked at; one
// that is no longer the file shared (another file at the path, or the same
// one changed) is refused with 90 once open; a position past its end is
// refused: none of them sends a byte.
void ZV_FileShareSession::ApplyUploadAnswer(uint32_t ulResult, uint16_t usFileID, uint32_t ulPos)
{
    if (ulResult == zvResultOk && ulPos > m_BriefInfo.m_ulFileLenth)
        ulResult = zvResultUntrusted;
    uint32_t ulLocal = zvResultOk;
    if (ulResult == zvResultOk && !m_lpMgr->IsSharedLocalFile(m_BriefInfo))
        ulLocal = zvResultUntrusted;
    else if (ulResult == zvResultOk && !m_File.IsOpen())
        ulLocal = m_lpMgr->OpenSharedLocalFile(m_BriefInfo, m_File);
    // As for a failed read: a server that holds the whole file needs no byte
    // of the local copy, so an order to send again ends the upload, whether
    // the copy will not open or the share record lost it (a save that failed
    // before a restart). Nothing is read either way.
    if (ulLocal != zvResultOk && EndIfServerHoldsAll())
        return;
    if (ulLocal != zvResultOk)
        ulResult = ulLocal;
    if (ulResult != zvResultOk)
    {
        NotifyTransferError(ulResult, usFileID);
        QB_WriteClientLog("ZV_FileShareMgr.HandleUploadResponse ret = %d\r\n", (int)ulResult);
        return;
    }
    if (ulPos < m_BriefInfo.m_ulFileLenth && m_BriefInfo.m_usFileState != zvFileStateStopped)
    {
        m_BriefInfo.SetFileState(zvFileStateUploading);
        m_lpMgr->MarkBusy(true, usFileID);
    }
    m_ulReadPos = ulPos;
    const uint32_t ulDataConn = m_lpMgr->GetLinkConn(zvConfClientTypeData);
    if (ulDataConn != zvConnNone)
        ZV_SendKick(Conf(), ulDataConn);
}

// The first downloader reached a server that is not the creator's home: the
// word travels from server to server until the creator's home sends it on
// to the creator's client.
void ZV_FileShareSession::PassOnUploadStart(const QB_UserID& user, uint32_t ulFloodSeq)
{
    IZV_ConfHost* lpConf = Conf();
    if (lpConf->IsResponseFloodSeen(&user, ulFloodSeq))
        return;
    const QB_UserID& creator = m_FileInfo.m_BriefInfo.m_CreatorID;
    if (IsLocalUser(lpConf, creator))
    {
        IZV_ConfLink* lpLink = lpConf->GetUserLink(&creator);
        if (lpLink == nullptr)
            return;
        m_bResyncPending = true;
        SendUploadResponse(lpLink->GetConn(zvConfClientTypeCommand), m_usFileID, zvResultOk, m_usFileID, &creator,
                           ulFloodSeq, 0);
        return;
    }
    if (!lpConf->HasServerLinks())
        return;
    ZV_UploadResponse answer;
    answer.usRouteID = m_usFileID;
    answer.usFileID = m_usFileID;
    answer.user = user;
    answer.ulFloodSeq = ulFloodSeq;
    ZV_PduBuffer pdu;
    answer.Save(pdu.Stream());
    ZV_SendToServers(lpConf, zvConnNone, PDU_CONF_FS_UPLOAD_RESPONSE, pdu);
}

// ---------------------------------------------------------------------------
// Server: the start marker and the blocks

uint32_t ZV_FileShareSession::HandleUploadRequest(ConfPduData* lpCpd)
{
    ZV_PayloadReader stream(lpCpd);
    ZV_UploadRequest block;
    block.LoadHead(stream);
    if (!Conf()->IsServerMode())
        return 0;
    if (block.bStart)
    {
        ApplyStartMarker(block.user, block.ulFloodSeq);
        return 0;
    }
    if (m_bStopUpload)
        return 0;
    const bool bFits = block.LoadData(stream);
    uint32_t ulConn = Conf()->GetUserConn(&block.user, zvConfClientTypeCommand);
    if (ulConn == zvConnNone)
        ulConn = lpCpd->ulConn;
    // The file holds the length it was announced with, which every client
    // was told and downloads to: a block that would run past it is refused
    // unwritten, as a failed write, and changes nothing here.
    const ZV_FileBriefInfo& brief = m_FileInfo.m_BriefInfo;
    // Only the creator's blocks are the file's: anyone else's is refused
    // and changes nothing here, neither the file's state nor its position.
    if (block.user != brief.m_CreatorID)
    {
        SendUploadResponse(ulConn, m_usFileID, zvResultNotEntitled, m_usFileID, &block.user, 0,
                           m_FileInfo.m_ulFileWritePos);
        return 0;
    }
    if (bFits && (uint64_t)block.ulPos + block.ulLen > brief.m_ulFileLenth)
    {
        SendUploadResponse(ulConn, m_usFileID, zvResultCannotAccess, m_usFileID, &block.user, 0,
                           m_FileInfo.m_ulFileWritePos);
        return 0;
    }
    m_ulLastIoTick = ZV_Now();
    const uint32_t ulResult = bFits ? zvResultOk : zvResultCannotAccess;
    WriteUploadBlock(ulConn, ulResult, block.user, block.ulPos, block.ulLen, block.pData);
    return 0;
}

void ZV_FileShareSession::ApplyStartMarker(const QB_UserID& user, uint32_t ulFloodSeq)
{
    IZV_ConfHost* lpConf = Conf();
    if (!ZV_IsNewFlood(lpConf, user, ulFloodSeq))
        return;
    if (m_FileInfo.m_BriefInfo.m_usFileState == zvFileStateAdded)
        m_FileInfo.m_BriefInfo.SetFileState(zvFileStateUploading);
    if (!lpConf->HasServerLinks())
        return;
    ZV_UploadRequest marker;
    marker.usFileID = m_usFileID;
    marker.user = user;
    marker.ulFloodSeq = ulFloodSeq;
    marker.bStart = 1;
    ZV_PduBuffer pdu;
    marker.Save(pdu.Stream());
    ZV_SendToServers(lpConf, zvConnNone, PDU_CONF_FS_UPLOAD_REQUEST, pdu);
}

// Only a block at the write position is written. A block behind it is a
// duplicate; one beyond it means blocks were lost, and the uploader is told
// once where to go on from.
void ZV_FileShareSession::WriteUploadBlock(uint32_t ulConn, uint32_t ulResult, const QB_UserID& user, uint32_t ulPos,
                                           uint32_t ulLen, const uint8_t* pData)
{
    if (ulResult == zvResultOk && !m_ServerFile.IsOpen())
        ulResult = OpenStoreFile();
    const uint32_t ulWritePos = m_FileInfo.m_ulFileWritePos;
    if (ulResult == zvResultOk && ulPos < ulWritePos)
        return;
    if (ulResult == zvResultOk && ulPos > ulWritePos)
    {
        if (m_bResyncPending)
            return;
        m_bResyncPending = true;
        SendUploadResponse(ulConn, m_usFileID, zvResultOk, m_usFileID, &user, 0, ulWritePos);
        return;
    }
    m_bResyncPending = false;
    if (ulResult == zvResultOk && m_ServerFile.WriteAt(ulWritePos, pData, (int32_t)ulLen) != (int32_t)ulLen)
        ulResult = zvResultCannotAccess;
    if (ulResult != zvResultOk)
    {
        m_bResyncPending = true;
        m_FileInfo.m_BriefInfo.SetFileState(zvFileStateFailed);
        SendUploadResponse(ulConn, m_usFileID, ulResult, m_usFileID, &user, 0, ulWritePos);
        return;
    }
    StoreUploadedBlock(user, ulPos, ulLen);
}

// The first block makes the file's row say that bytes are coming; a store
// file that cannot be opened is tried again with the next block.
uint32_t ZV_FileShareSession::OpenStoreFile()
{
    m_FileInfo.m_BriefInfo.SetFileState(zvFileStateUploading);
    SaveToCatalog();
    if (m_ServerFile.Open(GetStoredPath(m_FileInfo.m_sFileNewName), kOpenStoreFile))
        return zvResultOk;
    return zvResultCannotOpen;
}

void ZV_FileShareSession::StoreUploadedBlock(const QB_UserID& user, uint32_t ulPos, uint32_t ulLen)
{
    if (m_FileInfo.m_ulFileWritePos == 0)
        SendFileStateNotice(m_usFileID, zvFileStateUploading, 1);
    const uint32_t ulNewPos = m_FileInfo.m_ulFileWritePos + ulLen;
    m_FileInfo.SetFileWritePos(ulNewPos);
    if (ulNewPos > m_ulMaxPos)
    {
        m_ulMaxPos = ulNewPos;
        SendProgressing(zvConnNone, m_usFileID, &user, ulNewPos, true);
    }
    if (ulNewPos >= m_FileInfo.m_BriefInfo.m_ulFileLenth)
        FinishUpload();
    WakeDownloaders(ulPos);
}

// The store file stays open, under its name, for the downloaders.
void ZV_FileShareSession::FinishUpload()
{
    IZV_ConfHost* lpConf = Conf();
    m_FileInfo.m_BriefInfo.SetFileState(zvFileStateComplete);
    SaveToCatalog();
    m_bUploadDone = true;
    if (lpConf->HasServerLinks())
    {
        const QB_UserID self(lpConf->GetLocalServerID(), 0);
        FloodUploadFinish(self, lpConf->NewFloodSeq(&self, 0));
    }
    SendFileStateNotice(m_usFileID, zvFileStateComplete, 1);
}

// ---------------------------------------------------------------------------
// 8007: a server completed the file. The flag alone ends the flood.

uint32_t ZV_FileShareSession::HandleUploadFinishResponse(ConfPduData* lpCpd)
{
    ZV_PayloadReader stream(lpCpd);
    ZV_UploadFinish finish;
    finish.Load(stream);
    if (m_bUploadDone)
        return 0;
    m_bUploadDone = true;
    if (Conf()->HasServerLinks())
        FloodUploadFinish(finish.user, finish.ulFloodSeq);
    return 0;
}

void ZV_FileShareSession::FloodUploadFinish(const QB_UserID& server, uint32_t ulFloodSeq)
{
    ZV_UploadFinish finish;
    finish.usFileID = m_usFileID;
    finish.user = server;
    finish.ulFloodSeq = ulFloodSeq;
    ZV_PduBuffer pdu;
    finish.Save(pdu.Stream());
    ZV_SendToServers(Conf(), zvConnNone, PDU_CONF_FS_UPLOAD_FINISH_Response, pdu);
}

// ---------------------------------------------------------------------------
// Senders

uint32_t ZV_FileShareSession::SendUploadRequest(uint32_t ulConn, uint16_t usFileID, const QB_UserID* pUser,
                                               uint32_t ulFloodSeq, uint8_t bStart, uint32_t ulLen,
                                               const uint8_t* pData, uint32_t ulPos)
{
    ZV_UploadRequest block;
    block.usFileID = usFileID;
    block.user = *pUser;
    block.ulFloodSeq = ulFloodSeq;
    block.bStart = bStart;
    block.ulLen = ulLen;
    block.ulPos = ulPos;
    block.pData = pData;
    ZV_PduBuffer pdu;
    block.Save(pdu.Stream());
    return ZV_SendToLink(Conf(), ulConn, PDU_CONF_FS_UPLOAD_REQUEST, pdu);
}

uint32_t ZV_FileShareSession::SendUploadResponse(uint32_t ulConn, uint16_t usFileID, uint32_t ulResult,
                                                uint16_t usFileID2, const QB_UserID* pUser, uint32_t ulFloodSeq,
                                                uint32_t ulPos)
{
    ZV_UploadResponse answer;
    answer.usRouteID = usFileID;
    answer.ulResult = ulResult;
    answer.usFileID = usFileID2;
    answer.user = *pUser;
    answer.ulFloodSeq = ulFloodSeq;
    answer.ulPos = ulPos;
    ZV_PduBuffer pdu;
    answer.Save(pdu.Stream());
    return ZV_SendToLink(Conf(), ulConn, PDU_CONF_FS_UPLOAD_RESPONSE, pdu);
}

uint32_t ZV_FileShareSession::SendFileStateNotice(uint16_t usFileID, uint16_t usState, uint8_t bUpload)
{
    ZV_FileStateNotice notice;
    notice.arrFileID.Add(usFileID);
    notice.usState = usState;
    notice.bUpload = bUpload;
    ZV_PduBuffer pdu;
    notice.Save(pdu.Stream());
    return ZV_SendToGroup(Conf(), zvConnNone, PDU_CONF_FS_FILE_STATE_NOTICE, pdu);
}
