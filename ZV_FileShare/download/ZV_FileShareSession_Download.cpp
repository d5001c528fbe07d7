// The download road, server side: a server answers a downloader's request,
// keeps an entry for it, and pushes the file's blocks to it.
//
// The downloader asks once (8014, answered by 8015) and then says where it
// stands (8012). From there the server pushes 8013 blocks, up to three each
// time the host calls OnSend for the downloader's data link, and nothing is
// acknowledged: a receiver speaks again only when a block does not fit its
// position. A downloader that has caught up with the upload rests until the
// next stored block wakes it. The downloader's side is in
// ZV_FileShareSession_Fetch.cpp.
#include "core/ZV_FileShareSession.h"
#include "control/ZV_ControlPdu.h"
#include "download/ZV_DownloadPdu.h"
#include "wire/ZV_PduTable.h"
#include "upload/ZV_UploadPdu.h"

#include <algorithm>
#include <cstdint>

namespace {

// Blocks a server sends for one OnSend call of the host.
constexpr int kBlocksPerSend = 3;
// A store that is there already, read and written by the same handle.
constexpr uint32_t kOpenServed = QB_FILE_READWRITE | QB_FILE_OPEN_EXISTING;

bool HasRight(const ZV_FileBriefInfo& brief, const QB_UserID& user)
{
    return brief.m_bPublic || brief.m_arrRight.Find(user) >= 0;
}

// The creator holds the file already; there is nothing to fetch.
bool MayDownload(const ZV_FileBriefInfo& brief, const QB_UserID& user)
{
    return user != brief.m_CreatorID && HasRight(brief, user);
}

// Texts of an entry that would not fit a record's limit stay unset and do
// not travel.
void SetShortText(ZV_FileDownloadInfo& entry, bool (ZV_FileDownloadInfo::*pfnSet)(const QB_StringU8&),
                  const QB_StringU8& sValue)
{
    if (sValue.GetLength() <= ZV_MAX_TEXT_BYTES)
        (entry.*pfnSet)(sValue);
}

ZV_FileDownloadInfo MakeDownloadEntry(const ZV_FileShareSession& session, const ZV_DownloadAsk& ask)
{
    const ZV_FileBriefInfo& brief = session.FileInfo().m_BriefInfo;
    const int nSlash = ask.sPath.ReverseFind('\\');
    ZV_FileDownloadInfo entry;
    entry.SetFileID(session.FileID());
    SetShortText(entry, &ZV_FileDownloadInfo::SetFileFullName, brief.m_sFileOldName);
    SetShortText(entry, &ZV_FileDownloadInfo::SetFilePath, ask.sPath.Left(nSlash + 1));
    SetShortText(entry, &ZV_FileDownloadInfo::SetFileName, ask.sPath.Mid(nSlash + 1));
    SetShortText(entry, &ZV_FileDownloadInfo::SetFileType, brief.m_sFileType);
    entry.SetFileLenth(brief.m_ulFileLenth);
    entry.SetUsedTime(0);
    entry.SetLastTick(ZV_Now());
    entry.SetShareTime(brief.m_dtShareTime);
    entry.SetDownloadPos(ask.ulPos);
    entry.SetState(zvDownloadStateNew);
    entry.SetStopped(false);
    entry.SetActive(false);
    entry.SetUserID(ask.user);
    return entry;
}

// One block's worth of progress on the server's entry.
void AdvanceEntry(ZV_FileDownloadInfo& entry, uint32_t ulCount)
{
    const uint32_t ulNow = ZV_Now();
    entry.SetUsedTime(entry.m_ulDownloadPos == 0 ? 0 : entry.m_ulUsedTime + (ulNow - entry.m_ulLastTick));
    entry.SetLastTick(ulNow);
    entry.SetState(zvDownloadStateRunning);
    entry.SetDownloadPos(entry.m_ulDownloadPos + ulCount);
    if (entry.m_ulDownloadPos == entry.m_ulFileLenth)
        entry.SetState(zvDownloadStateFinished);
}

bool MaySend(const ZV_FileDownloadInfo& entry, uint32_t ulWritePos)
{
    return entry.m_ulDownloadPos < ulWritePos && !entry.m_bStopped && entry.m_bActive;
}

// One 8013 block; a refusal carries no data.
ZV_DownloadBlock MakeDownloadBlock(const ZV_AnswerHead& head, uint32_t ulPos, uint32_t ulLen, const uint8_t* pData,
                                   uint32_t ulMaxPos)
{
    ZV_DownloadBlock block;
    static_cast<ZV_AnswerHead&>(block) = head;
    block.ulPos = ulPos;
    block.ulLen = ulLen;
    block.pData = pData;
    block.ulMaxPos = ulMaxPos;
    return block;
}

} // namespace

// ---------------------------------------------------------------------------
// Server: the request

uint32_t ZV_FileShareSession::HandleDownloadRequest(ConfPduData* lpCpd)
{
    IZV_ConfHost* lpConf = Conf();
    ZV_PayloadReader stream(lpCpd);
    ZV_DownloadAsk ask;
    ask.Load(stream);
    if (!lpConf->IsServerMode())
        return 0;
    // Only a relay skips the rights test, and only a server is one: a
    // client that says it is gets what an unentitled user gets.
    if (ask.bFromServer && !ZV_IsServerLink(lpCpd->conn_type))
    {
        SendDownloadResponse(lpCpd->ulConn, m_usFileID, zvResultNotEntitled, m_usFileID, &ask.user, nullptr);
        return 0;
    }
    if (!ask.bFromServer)
    {
        if (!ZV_IsNewFlood(lpConf, ask.user, ask.ulFloodSeq))
            return 0;
        if (!MayDownload(m_FileInfo.m_BriefInfo, ask.user))
        {
            if (!ask.bFlooded)
                SendDownloadResponse(lpCpd->ulConn, m_usFileID, zvResultNotEntitled, m_usFileID, &ask.user, nullptr);
            return 0;
        }
    }
    // Sending rests until the downloader's data request activates the entry.
    const ZV_FileDownloadInfo entry = MakeDownloadEntry(*this, ask);
    m_mapDownload.SetAt(ask.user, entry);
    if (!ask.bFromServer)
        FloodDownloadRequest(ask.user, ask.ulFloodSeq, ask.sPath, ask.ulPos);
    // Every server keeps an entry of each downloader; only the one the
    // client reached answers.
    if (ask.bFlooded)
        return 0;
    uint32_t ulResult = zvResultOk;
    if (m_FileInfo.m_ulFileWritePos == 0 && lpCpd->conn_type == zvConfClientTypeCommand)
        ulResult = StartUploadOnDemand(ask.user);
    SendDownloadResponse(lpCpd->ulConn, m_usFileID, ulResult, m_usFileID, &ask.user, &entry);
    return 0;
}

void ZV_FileShareSession::FloodDownloadRequest(const QB_UserID& user, uint32_t ulFloodSeq, const QB_StringU8& sPath,
                                               uint32_t ulPos)
{
    ZV_DownloadAsk ask;
    ask.usFileID = m_usFileID;
    ask.user = user;
    ask.ulFloodSeq = ulFloodSeq;
    ask.sPath = sPath;
    ask.ulPos = ulPos;
    ask.bFlooded = 1;
    ZV_PduBuffer pdu;
    ask.Save(pdu.Stream());
    ZV_SendToServers(Conf(), zvConnNone, PDU_CONF_FS_DOWNLOAD_REQUEST, pdu);
}

// The file has no bytes yet: the creator's client is told to begin, or, if
// the creator is homed elsewhere, the servers pass the word on. A missing
// link is only reported in the answer; the entry stays.
uint32_t ZV_FileShareSession::StartUploadOnDemand(const QB_UserID& downloader)
{
    IZV_ConfHost* lpConf = Conf();
    const QB_UserID& creator = m_FileInfo.m_BriefInfo.m_CreatorID;
    if (IsLocalUser(lpConf, creator))
    {
        IZV_ConfLink* lpLink = lpConf->GetUserLink(&creator);
        if (lpLink == nullptr)
            return zvResultNoCreatorLink;
        const uint32_t ulConn = lpLink->GetConn(zvConfClientTypeCommand);
        if (ulConn == zvConnNone)
            return zvResultNoConnection;
        m_bResyncPending = true;
        SendUploadResponse(ulConn, m_usFileID, zvResultOk, m_usFileID, &creator, 0, 0);
        return zvResultOk;
    }
    if (!lpConf->HasServerLinks())
        return zvResultOk;
    ZV_UploadResponse answer;
    answer.usRouteID = m_usFileID;
    answer.usFileID = m_usFileID;
    answer.user = downloader;
    answer.ulFloodSeq = lpConf->NewFloodSeq(&downloader, 0);
    ZV_PduBuffer pdu;
    answer.Save(pdu.Stream());
    ZV_SendToServers(lpConf, zvConnNone, PDU_CONF_FS_UPLOAD_RESPONSE, pdu);
    return zvResultOk;
}

// ---------------------------------------------------------------------------
// Server: the data request, which activates an entry or moves its position

uint32_t ZV_FileShareSession::HandleDownloadDataRequest(ConfPduData* lpCpd)
{
    ZV_PayloadReader stream(lpCpd);
    ZV_DownloadDataRequest ask;
    ask.Load(stream);
    const QB_UserID& user = ask.user;
    const ZV_FileDownloadInfo& record = ask.record;
    ZV_FileDownloadInfo* pEntry = m_mapDownload.Find(user);
    if (pEntry == nullptr && !ZV_IsServerLink(lpCpd->conn_type))
        pEntry = ReadmitDownloader(ask);
    if (pEntry == nullptr)
        return 0;
    // Active before the kick, so that a host that calls OnSend at once finds
    // the entry ready.
    if (ZV_IsServerLink(lpCpd->conn_type))
    {
        if (NamesOtherFile(record))
            return 0;
        *pEntry = record;
        pEntry->SetUserID(user);
        pEntry->SetActive(true);
        KickDownloadConn(Conf()->GetServerConn(user.m_ulMain, zvConfServerTypeData, 0));
        return 0;
    }
    pEntry->SetLastTick(ZV_Now());
    pEntry->SetDownloadPos(record.m_ulDownloadPos);
    pEntry->SetStopped(record.m_bStopped);
    pEntry->SetState(record.m_bStopped ? zvDownloadStateStopped : zvDownloadStateRunning);
    pEntry->SetActive(true);
    KickDownloadConn(Conf()->GetUserConn(&user, zvConfClientTypeData));
    FloodDownloadStop(user, record.m_bStopped);
    return 0;
}

// A client that states where its download of this very file stands, while
// this server has no entry of it, is a downloader the server lost track of:
// its entry went with a restart, or with a change of rights made while the
// user was away and undone since. It would wait for good; it is taken back
// as from a request at the stated position, if it may still have the file.
ZV_FileDownloadInfo* ZV_FileShareSession::ReadmitDownloader(const ZV_DownloadDataRequest& ask)
{
    const ZV_FileBriefInfo& brief = m_FileInfo.m_BriefInfo;
    const ZV_FileDownloadInfo& record = ask.record;
    if (!MayDownload(brief, ask.user) || record.m_sFileName.IsEmpty() || record.m_dtShareTime != brief.m_dtShareTime ||
        record.m_ulDownloadPos > brief.m_ulFileLenth)
        return nullptr;
    ZV_DownloadAsk again;
    again.usFileID = m_usFileID;
    again.user = ask.user;
    again.sPath = record.m_sFilePath + record.m_sFileName;
    again.ulPos = record.m_ulDownloadPos;
    m_mapDownload[ask.user] = MakeDownloadEntry(*this, again);
    return m_mapDownload.Find(ask.user);
}

// A FileID freed and given out again while two servers were apart names
// two files until their lists meet. A record of the other one, a position
// or a neighbour's entry, must not set this file's pump going: it would
// push this file's bytes into the neighbour's store of the other.
bool ZV_FileShareSession::NamesOtherFile(const ZV_FileDownloadInfo& record) const
{
    const ZV_FileBriefInfo& brief = m_FileInfo.m_BriefInfo;
    return ((record.m_ullMask & ZV_DOWNLOAD_FILE_FULL_NAME) && record.m_sFileFullName != brief.m_sFileOldName) ||
           ((record.m_ullMask & ZV_DOWNLOAD_SHARE_TIME) && record.m_dtShareTime != brief.m_dtShareTime);
}

// Other servers keep their copy of the entry in step with a stop or a go.
void ZV_FileShareSession::FloodDownloadStop(const QB_UserID& user, bool bStopped)
{
    IZV_ConfHost* lpConf = Conf();
    const uint32_t ulFloodSeq = lpConf->NewFloodSeq(&user, 0);
    if (lpConf->IsFloodSeen(&user, ulFloodSeq) || !lpConf->HasServerLinks())
        return;
    ZV_StopDownloadAsk ask;
    ask.usFileID = m_usFileID;
    ask.user = user;
    ask.ulFloodSeq = ulFloodSeq;
    ask.bStop = bStopped ? 1 : 0;
    ZV_PduBuffer pdu;
    ask.Save(pdu.Stream());
    ZV_SendToServers(lpConf, zvConnNone, PDU_CONF_FS_IS_STOP_DOWNLOAD_REQUEST, pdu);
}

void ZV_FileShareSession::KickDownloadConn(uint32_t ulConn)
{
    if (ulConn != zvConnNone)
        ZV_SendKick(Conf(), ulConn);
}

// ---------------------------------------------------------------------------
// Server: the pump

// Called for every session on every OnSend, so the test of whether there is
// anything to send is a look-up and a few comparisons, without I/O.
void ZV_FileShareSession::PumpDownload(ConfPduData* lpCpd, const QB_UserID& peer)
{
    ZV_FileDownloadInfo* pEntry = m_mapDownload.Find(peer);
    if (pEntry == nullptr || !MaySend(*pEntry, m_FileInfo.m_ulFileWritePos))
        return;
    // A client may have lost the right since its entry was made; a relay
    // server was decided when it asked.
    if (lpCpd->conn_type == zvConfClientTypeData && !HasRight(m_FileInfo.m_BriefInfo, peer))
        return;
    SendNextBlocks(lpCpd, &peer, pEntry);
}

// Each block is read at the entry's own position, so that the passes of
// several downloaders and the writes of the upload do not disturb each
// other. Only bytes below the write position go out: beyond it the store
// file may hold anything.
// A block is read straight into the PDU that carries it.
void ZV_FileShareSession::SendNextBlocks(ConfPduData* lpCpd, const QB_UserID* pUser, ZV_FileDownloadInfo* pEntry)
{
    ZV_PduBuffer pdu;
    // A store that would not open when its bytes came (an open the disk
    // refused) is opened when they are asked for, rather than failing every
    // downloader from then on.
    bool bReadable = m_ServerFile.IsOpen() || m_ServerFile.Open(GetStoredPath(m_FileInfo.m_sFileNewName), kOpenServed);
    for (int i = 0; bReadable && i < kBlocksPerSend && pEntry->m_ulDownloadPos < m_FileInfo.m_ulFileWritePos; ++i)
    {
        const uint32_t ulPos = pEntry->m_ulDownloadPos;
        const uint32_t ulWant = std::min(ZV_BLOCK_SIZE, m_FileInfo.m_ulFileWritePos - ulPos);
        ZV_DownloadBlock block = MakeDownloadBlock({{m_usFileID, zvResultOk, m_usFileID}, *pUser}, ulPos, ulWant, nullptr, 0);
        uint8_t* pTo = pdu.PlaceData(block, ulWant);
        const int32_t nRead = m_ServerFile.ReadAt(ulPos, pTo, (int32_t)ulWant);
        bReadable = nRead > 0;
        if (!bReadable)
            break;
        AdvanceEntry(*pEntry, (uint32_t)nRead);
        block.ulLen = (uint32_t)nRead;
        block.ulMaxPos = m_ulMaxPos;
        pdu.SaveAroundData(block);
        SendBlockPdu(lpCpd, pdu);
        if (lpCpd->conn_type == zvConfClientTypeData && pEntry->m_usState == zvDownloadStateFinished)
            FloodFinishedDownload(*pUser, *pEntry);
        if (pEntry->m_ulDownloadPos >= m_ulMaxPos)
            break;
    }
    if (bReadable)
        return;
    // The failure goes on the downloader's command link if it has one.
    IZV_ConfLink* lpLink = Conf()->GetUserLink(pUser);
    const uint32_t ulConn = lpLink ? lpLink->GetConn(zvConfClientTypeCommand) : zvConnNone;
    if (ulConn != zvConnNone)
        SendDownloadDataResponse(ulConn, m_usFileID, zvResultCannotAccess, m_usFileID, pUser, pEntry->m_ulDownloadPos, 0,
                                 nullptr);
    else
        SendDownloadBlock(lpCpd, zvResultCannotAccess, *pUser, pEntry->m_ulDownloadPos, 0, nullptr);
}

// To a client on the link OnSend came for; to a relay on the server data
// link, with the conference word.
uint32_t ZV_FileShareSession::SendDownloadBlock(const ConfPduData* lpCpd, uint32_t ulResult, const QB_UserID& user,
                                            uint32_t ulPos, uint32_t ulLen, const uint8_t* pData)
{
    ZV_PduBuffer pdu;
    MakeDownloadBlock({{m_usFileID, ulResult, m_usFileID}, user}, ulPos, ulLen, pData, m_ulMaxPos).Save(pdu.Stream());
    return SendBlockPdu(lpCpd, pdu);
}

uint32_t ZV_FileShareSession::SendBlockPdu(const ConfPduData* lpCpd, ZV_PduBuffer& pdu)
{
    if (lpCpd->conn_type != zvConfServerTypeData)
        return ZV_SendToLink(Conf(), lpCpd->ulConn, PDU_CONF_FS_DOWNLOAD_DATA_RESPONSE, pdu);
    return ZV_SendOnServerLink(Conf(), lpCpd->ulConn, PDU_CONF_FS_DOWNLOAD_DATA_RESPONSE, pdu);
}

// All servers learn that this user has the whole file.
void ZV_FileShareSession::FloodFinishedDownload(const QB_UserID& user, const ZV_FileDownloadInfo& entry)
{
    if (!Conf()->HasServerLinks())
        return;
    ZV_DownloadDataRequest finished;
    finished.usFileID = m_usFileID;
    finished.user = user;
    finished.record = entry;
    ZV_PduBuffer pdu;
    finished.Save(pdu.Stream());
    ZV_SendToServers(Conf(), zvConnNone, PDU_CONF_FS_DOWNLOAD_DATA_REQUEST, pdu);
}

// After a stored block, ulPos is where that block began: a downloader that
// had caught up with the upload rests there.
void ZV_FileShareSession::WakeDownloaders(uint32_t ulPos)
{
    IZV_ConfHost* lpConf = Conf();
    for (QB_POSITION pos = m_mapDownload.GetStartPosition(); pos != nullptr;)
    {
        QB_UserID user;
        const ZV_FileDownloadInfo* pEntry = m_mapDownload.GetNextAssoc(pos, user);
        if (pEntry == nullptr || !pEntry->m_bActive || pEntry->m_ulDownloadPos != ulPos)
            continue;
        uint32_t ulConn = lpConf->GetServerConn(user.m_ulMain, zvConfServerTypeData, 0);
        if (ulConn == zvConnNone)
            ulConn = lpConf->GetUserConn(&user, zvConfClientTypeData);
        KickDownloadConn(ulConn);
    }
}

// ---------------------------------------------------------------------------
// Senders

// A refusal carries an empty record.
uint32_t ZV_FileShareSession::SendDownloadResponse(uint32_t ulConn, uint16_t usFileID, uint32_t ulResult,
                                                  uint16_t usFileID2, const QB_UserID* pUser,
                                                  const ZV_FileDownloadInfo* pInfo)
{
    ZV_DownloadResponse answer;
    answer.usRouteID = usFileID;
    answer.ulResult = ulResult;
    answer.usFileID = usFileID2;
    answer.user = *pUser;
    if (pInfo)
        answer.record = *pInfo;
    ZV_PduBuffer pdu;
    answer.Save(pdu.Stream());
    return ZV_SendToLink(Conf(), ulConn, PDU_CONF_FS_DOWNLOAD_RESPONSE, pdu);
}

uint32_t ZV_FileShareSession::SendDownloadDataResponse(uint32_t ulConn, uint16_t usFileID, uint32_t ulResult,
                                                      uint16_t usFileID2, const QB_UserID* pUser, uint32_t ulPos,
                                                      uint32_t ulLen, const uint8_t* pData)
{
    ZV_PduBuffer pdu;
    MakeDownloadBlock({{usFileID, ulResult, usFileID2}, *pUser}, ulPos, ulLen, pData, m_ulMaxPos).Save(pdu.Stream());
    return ZV_SendToLink(Conf(), ulConn, PDU_CONF_FS_DOWNLOAD_DATA_RESPONSE, pdu);
}
