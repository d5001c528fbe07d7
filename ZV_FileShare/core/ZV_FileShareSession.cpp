// A session's life, its dispatch of PDUs to the slots, and the helpers that
// every road of the bytes shares.
#include "core/ZV_FileShareSession.h"
#include "download/ZV_DownloadPdu.h"
#include "records/ZV_FileCatalog.h"
#include "records/ZV_SharePath.h"
#include "wire/ZV_PduTable.h"
#include "wire/ZV_RecordStream.h"

#include "QB_Env.h"

#include <algorithm>
#include <cstdint>

ZV_FileShareSession::ZV_FileShareSession(ZV_SessionOwner* lpMgr, const char* szStorePath)
    : m_sStorePath(szStorePath), m_ulLastIoTick(ZV_Now()), m_lpMgr(lpMgr)
{
    m_LocalDownload.m_usFileID = ZV_NO_FILEID;
}

// Files are closed, records freed; nothing on disk is touched here.
ZV_FileShareSession::~ZV_FileShareSession()
{
    if (m_ServerFile.IsOpen())
        m_ServerFile.Close();
    if (m_File.IsOpen())
        m_File.Close();
    m_mapDownload.RemoveAll();
}

IZV_ConfHost* ZV_FileShareSession::Conf() const
{
    return m_lpMgr->Host();
}

// The rows of the PDU table that a session handles, each after its trace
// line; any other number gives 5.
uint32_t ZV_FileShareSession::HandlePdu(ConfPduData* lpCpd)
{
    const ZV_PduRow* lpRow = ZV_FindPduRow(lpCpd->usPdu);
    if (lpRow != nullptr && lpRow->eHandler == ZV_PduHandler::Session && lpRow->eTrace != ZV_PduTrace::None)
        ZV_TraceRecv(lpCpd->usPdu);
    switch (lpCpd->usPdu)
    {
        ZV_PDU_CASES(Session)
    default: return zvResultNoHandler;
    }
}

// Bytes move only on data links: the server pushes to the downloader the
// host names, the creator's client pushes to its server.
uint32_t ZV_FileShareSession::OnSend(ConfPduData* lpCpd)
{
    if (lpCpd->conn_type != zvConfClientTypeData && lpCpd->conn_type != zvConfServerTypeData)
        return 0;
    const QB_UserID peer(lpCpd->ulUserMain, lpCpd->ulUserSub);
    if (Conf()->IsServerMode())
        PumpDownload(lpCpd, peer);
    else if (peer == m_BriefInfo.m_CreatorID)
        PumpUpload(lpCpd);
    return 0;
}

uint32_t ZV_FileShareSession::OnConnect(uint32_t, uint32_t, uint32_t)
{
    return 0;
}

// A dropped link neither stops nor fails the transfer: positions, entries
// and open files stay, and a later request continues from them. Only the
// loss of a server command link says that this file may be out of step.
uint32_t ZV_FileShareSession::OnDisconnect(const QB_UserID*, uint32_t, uint16_t usConnType)
{
    if (usConnType == zvConfServerTypeCommand)
        m_bSynced = false;
    return 0;
}

uint32_t ZV_FileShareSession::SessionReserved0(ConfPduData*)
{
    return 0;
}

uint32_t ZV_FileShareSession::SessionReserved1(ConfPduData*)
{
    return 0;
}

// A server whose configuration could not be read has no storage folder;
// its conference folder is then empty, so that no file lands beside
// whatever folder the process happens to run in.
QB_StringW ZV_FileShareSession::GetConfDir() const
{
    if (m_sStorePath.IsEmpty())
        return QB_StringW();
    QB_StringA sDir;
    sDir.Format("%s%u\\", m_sStorePath.GetString(), (unsigned)Conf()->GetConfID());
    QB_StringW sWide(sDir);
    // As long as a path buffer of Windows holds, terminator and all.
    return sWide.Left(ZV_MAX_SHARE_PATH + 1);
}

// A server whose configuration could not be read has no storage folder, and
// then no stored files: a bare name would be a path in the process's working
// folder, where nothing of the conference belongs.
QB_StringW ZV_FileShareSession::GetStoredPath(const QB_StringU8& sName) const
{
    const QB_StringW sFolder = GetConfDir();
    if (sFolder.IsEmpty() || !ZV_FileCatalog::IsPlainFileName(QB_StringA(sName)))
        return QB_StringW();
    return sFolder + QB_StringW(sName);
}

bool ZV_FileShareSession::IsFileVisible(const ZV_FileBriefInfo& brief) const
{
    IZV_ConfHost* lpConf = Conf();
    const QB_UserID* lpLocal = lpConf->GetLocalUserID();
    if (brief.m_bPublic)
        return true;
    if (lpLocal && (brief.m_arrRight.Find(*lpLocal) >= 0 || brief.m_CreatorID == *lpLocal))
        return true;
    const ZV_ConfUserInfo* lpUser = lpLocal ? lpConf->GetUser(lpLocal) : nullptr;
    return lpUser && lpUser->usRole == zvUserRolePrivileged;
}

bool ZV_FileShareSession::IsLocalUser(IZV_ConfHost* lpConf, const QB_UserID& id)
{
    const ZV_ConfUserInfo* lpUser = lpConf->GetUser(&id);
    return lpUser && lpUser->ulHomeServer == lpConf->GetLocalServerID();
}

uint32_t ZV_FileShareSession::SendDownloadDataRequest(uint32_t ulConn, uint16_t usFileID, const QB_UserID& user,
                                                      const ZV_FileDownloadInfo& download)
{
    ZV_DownloadDataRequest ask;
    ask.usFileID = usFileID;
    ask.user = user;
    ask.record = download;
    ZV_PduBuffer pdu;
    ask.Save(pdu.Stream());
    return ZV_SendToLink(Conf(), ulConn, PDU_CONF_FS_DOWNLOAD_DATA_REQUEST, pdu);
}

uint32_t ZV_FileShareSession::AskForBlocks(uint32_t ulConn, uint16_t usFileID, const QB_UserID& user,
                                           const ZV_FileDownloadInfo& download)
{
    m_bResyncPending = true;
    return SendDownloadDataRequest(ulConn, usFileID, user, download);
}

bool ZV_FileShareSession::SaveToCatalog()
{
    m_bCatalogDirty = !m_lpMgr->Catalog().SaveFile(Conf()->GetConfID(), m_FileInfo);
    return !m_bCatalogDirty;
}

void ZV_FileShareSession::UndoServerAdd(const QB_StringW& sPath)
{
    m_lpMgr->Catalog().DeleteFile((uint16_t)Conf()->GetConfID(), m_usFileID);
    m_bCatalogDirty = false;
    // An empty file that stays is no row's; a later add of its name takes a counter.
    QB_FileEx::Delete(sPath);
}

void ZV_FileShareSession::UndoAdd()
{
    if (m_FileInfo.m_sFileNewName.IsEmpty() || !Conf()->IsServerMode())
        return;
    UndoServerAdd(GetStoredPath(m_FileInfo.m_sFileNewName));
}

// A far position is reached in two steps.
bool ZV_FileShareSession::SeekTo(QB_FileEx& file, uint32_t ulPos)
{
    const uint32_t ulFirst = std::min<uint32_t>(ulPos, INT32_MAX);
    if ((uint32_t)file.Seek((int32_t)ulFirst, QB_SEEK_BEGIN) != ulFirst)
        return false;
    return ulPos == ulFirst || (uint32_t)file.Seek((int32_t)(ulPos - ulFirst), QB_SEEK_CURRENT) == ulPos;
}
