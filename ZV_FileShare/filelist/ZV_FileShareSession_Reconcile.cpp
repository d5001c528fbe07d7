// A server's session set against a linked server's word of the file: the
// file as the peer listed it, what this server's catalogue and disk hold of
// it, and the fetch of the bytes it lacks.
#include "core/ZV_FileShareSession.h"
#include "control/ZV_ControlPdu.h"
#include "records/ZV_FileCatalog.h"

#include "QB_FileEx.h"

#include <algorithm>

namespace {

// Read and write, created if missing, keeping what is there.
constexpr uint32_t kOpenStored = QB_FILE_READWRITE | QB_FILE_OPEN_ALWAYS;
// A stored file taken back at start must be there already.
constexpr uint32_t kOpenRestored = QB_FILE_READWRITE | QB_FILE_OPEN_EXISTING;

} // namespace

void ZV_FileShareSession::InitPeerFileInfo(uint16_t usFileID, const ZV_FileUploadInfo& entry)
{
    m_usFileID = usFileID;
    m_FileInfo = entry;
    m_BriefInfo = entry.m_BriefInfo;
}

uint32_t ZV_FileShareSession::ReconcileFileInfo(const ConfPduData* lpCpd, QB_StringW& sSection)
{
    ZV_FileBriefInfo brief = m_FileInfo.m_BriefInfo;
    const QB_StringW sFolder = GetConfDir();
    ZV_FileUploadInfo row;
    bool bFetch = false;
    uint32_t ulResult = zvResultOk;
    // A row whose stored name could leave the folder is no row of ours: the
    // file gets a fresh name, and the row is written over with it.
    if (m_lpMgr->Catalog().LoadFile((uint16_t)Conf()->GetConfID(), m_usFileID, row, sSection) &&
        ZV_FileCatalog::IsPlainFileName(QB_StringA(row.m_sFileNewName)))
        ulResult = CompareStoredFile(sFolder, row, brief, bFetch);
    else
        ulResult = NameNewStoredFile(sFolder, brief, bFetch);
    if (ulResult != zvResultOk)
        return ulResult;
    // Whole at the peer is not whole here: a file that this server has yet
    // to fetch is arriving, so that its row says so and a stalled fetch is
    // looked at again by the timer.
    if (bFetch && brief.m_usFileState == zvFileStateComplete)
        brief.SetFileState(zvFileStateUploading);
    m_FileInfo.SetBriefInfo(brief);
    m_BriefInfo = brief;
    m_bStopUpload = brief.m_usFileState == zvFileStateStopped;
    if (bFetch)
        FetchFromPeer(lpCpd);
    return zvResultOk;
}

// The stored name of this server holds, whatever the peer calls the file.
// Another file under the FileID loses its bytes; the same one is measured
// on disk, which is the truth about how far it has come.
uint32_t ZV_FileShareSession::CompareStoredFile(const QB_StringW& sFolder, const ZV_FileUploadInfo& row,
                                                ZV_FileBriefInfo& brief, bool& bFetch)
{
    m_FileInfo.SetFileNewName(row.m_sFileNewName);
    const QB_StringW sPath = sFolder + QB_StringW(row.m_sFileNewName);
    if (!brief.IsSameFile(row.m_BriefInfo))
    {
        CloseStoredFiles();
        // One that stays is cut to nothing when the fetch opens it at 0.
        QB_FileEx::Delete(sPath);
        m_FileInfo.SetFileWritePos(0);
        bFetch = true;
        return zvResultOk;
    }
    if (!m_ServerFile.IsOpen() && (!MakeDirs(sFolder) || !m_ServerFile.Open(sPath, kOpenStored)))
        return zvResultCannotOpen;
    const uint32_t ulLength = (uint32_t)m_ServerFile.GetLength();
    const uint32_t ulPos = m_FileInfo.m_ulFileWritePos;
    if (ulLength < ulPos)
        bFetch = true;
    else if (ulLength == brief.m_ulFileLenth)
        brief.SetFileState(zvFileStateComplete);
    else if (ulLength > ulPos)
        brief.SetFileState(row.m_BriefInfo.m_usFileState);
    m_FileInfo.SetFileWritePos(ulLength);
    // Bytes held here exist at the source, however little the peer knew:
    // the lists this server gives its clients say so, and a creator whose
    // file is whole here does not wait to upload it again.
    RaiseMaxPos(std::min(ulLength, brief.m_ulFileLenth));
    return zvResultOk;
}

// A file this server never stored gets a name of its own before anything
// else, so that even a file whose folder cannot be made is saved in the
// catalogue under a name that stays inside the folder.
uint32_t ZV_FileShareSession::NameNewStoredFile(const QB_StringW& sFolder, const ZV_FileBriefInfo& brief, bool& bFetch)
{
    bFetch = true;
    m_FileInfo.SetFileWritePos(0);
    QB_StringW sName;
    MakeUniqueFileName(sFolder, MakeStoredFileName(sFolder, QB_StringW(brief.m_sFileOldName)), sName);
    m_FileInfo.SetFileNewName(sName);
    if (!MakeDirs(sFolder))
        return zvResultCannotOpen;
    // The name is taken at once, as an add takes it, empty until the fetch
    // writes: another file of the same name in this list must not get it
    // too.
    MakeEmptyStore();
    return zvResultOk;
}

bool ZV_FileShareSession::MarkSynced()
{
    const bool bWasOut = !m_bSynced;
    m_bSynced = true;
    return bWasOut;
}

// The disk is the truth about how far a file came: a file as long as its
// row is complete; a shorter one arrives from where it ends, and a stopped
// one stays stopped. Bytes beyond the row's length are never served.
bool ZV_FileShareSession::RestoreStoredFile(const ZV_FileUploadInfo& row)
{
    if (!m_ServerFile.Open(GetStoredPath(row.m_sFileNewName), kOpenRestored))
        return false;
    InitPeerFileInfo(row.m_usFileID, row);
    ZV_FileBriefInfo brief = row.m_BriefInfo;
    const uint32_t ulLength = std::min((uint32_t)m_ServerFile.GetLength(), brief.m_ulFileLenth);
    m_bUploadDone = ulLength == brief.m_ulFileLenth;
    if (m_bUploadDone)
        brief.SetFileState(zvFileStateComplete);
    else if (brief.m_usFileState != zvFileStateStopped)
        brief.SetFileState(zvFileStateUploading);
    m_FileInfo.SetBriefInfo(brief);
    m_FileInfo.SetFileWritePos(ulLength);
    m_BriefInfo = brief;
    m_bStopUpload = brief.m_usFileState == zvFileStateStopped;
    m_ulMaxPos = ulLength;
    m_bSynced = false;
    return true;
}

void ZV_FileShareSession::CloseStoredFiles()
{
    if (m_ServerFile.IsOpen())
        m_ServerFile.Close();
    if (m_File.IsOpen())
        m_File.Close();
}

// The other servers forget this one as a downloader that is further on, and
// the peer that listed the file sends it from where the store ends.
void ZV_FileShareSession::FetchFromPeer(const ConfPduData* lpCpd)
{
    IZV_ConfHost* lpConf = Conf();
    const uint32_t ulPos = m_FileInfo.m_ulFileWritePos;
    const QB_UserID self(lpConf->GetLocalServerID(), 0);
    ZV_ProgressRequest progress;
    progress.usFileID = m_usFileID;
    progress.user = self;
    progress.ulPos = ulPos;
    progress.bRestart = 1;
    ZV_PduBuffer pdu;
    progress.Save(pdu.Stream());
    ZV_SendToServers(lpConf, zvConnNone, PDU_CONF_FS_PROGRESSING_REQUEST, pdu, 1, 0, false);
    const QB_StringU8 sPath(GetConfDir() + QB_StringW(m_FileInfo.m_sFileNewName));
    SendDownloadRequest(lpCpd->ulConn, m_usFileID, &self, 0, sPath, ulPos, 1, 0);
}
