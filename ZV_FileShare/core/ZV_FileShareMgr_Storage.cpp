// The server's storage folder: where it lies, the removal of one stored file
// while the conference goes on, and the removal of all of them at its end.
// A client keeps no store, so it does nothing here.
#include "core/ZV_FileShareMgr.h"
#include "delete/ZV_DeletePdu.h"
#include "wire/ZV_AnswerHead.h"
#include "core/ZV_FileShareSession.h"

#include "QB_Env.h"
#include "QB_FileEx.h"
#include "QB_IniFileEx.h"
#include "QB_Log.h"

#include <string>

namespace {

// Where the conference files go when "confsrv.ini" names no folder: beside
// the configuration, so that a server works out of the box wherever it is
// installed.
QB_StringA DefaultStorePath(const QB_StringW& sHome)
{
    return QB_StringA(sHome + u"FileShare\\");
}

QB_StringW HomeFolder()
{
    const std::u16string sFolder = QB_GetEnv()->GetModuleFolder();
    return QB_StringW(sFolder.data(), (int)sFolder.size());
}

// A limit as the administrator wrote it: decimal digits, blanks around them
// allowed. Anything else sets no limit, and says so in the log.
uint64_t ReadLimit(const QB_IniFileEx& iniFile, const char* pszKey)
{
    QB_StringA sValue = iniFile.GetString(QB_StringA("FileShare"), QB_StringA(pszKey), QB_StringA());
    sValue.TrimLeft();
    sValue.TrimRight();
    uint64_t ullValue = 0;
    for (int i = 0; i < sValue.GetLength(); ++i)
    {
        const char ch = sValue[i];
        if (ch < '0' || ch > '9' || ullValue > (UINT64_MAX - 9) / 10)
        {
            QB_WriteLog(QB_LOG_DAILY, "error", "ZV_FileShareMgr::Initialize %s is no number: no limit.\r\n", pszKey);
            return 0;
        }
        ullValue = ullValue * 10 + (uint64_t)(ch - '0');
    }
    return ullValue;
}

} // namespace

// Two keys beside "Path" that a host may set to bound what one participant
// shares at once, so that no one client can fill the store or hold the PDU
// thread with adds. Neither is set by default: a server that sets nothing
// takes every add, as it always has.
void ZV_FileShareMgr::ReadUserLimits(const QB_IniFileEx& iniFile)
{
    m_ullMaxFilesPerUser = ReadLimit(iniFile, "MaxFilesPerUser");
    m_ullMaxBytesPerUser = ReadLimit(iniFile, "MaxBytesPerUser");
}

uint32_t ZV_FileShareMgr::Initialize()
{
    // A host that calls before it has given the manager its conference is
    // refused, as the user side is.
    if (m_lpConf == nullptr)
        return zvResultNoHost;
    if (!m_lpConf->IsServerMode())
    {
        // Read now rather than at the user's first share, which would
        // otherwise pay for every row the record holds.
        m_ShareLedger.Preload();
        return zvResultOk;
    }
    m_usNextFileID = m_lpConf->GetFileIDMin();
    try
    {
        const QB_StringW sHome = HomeFolder();
        QB_IniFileEx iniFile;
        if (!iniFile.Open(sHome + u"confsrv.ini", false))
            return zvResultNoConfig;
        const QB_StringA sDefault = DefaultStorePath(sHome);
        m_strPath = iniFile.GetString(QB_StringA("FileShare"), QB_StringA("Path"), sDefault);
        m_strPath.TrimLeft();
        m_strPath.TrimRight();
        if (m_strPath.IsEmpty())
            m_strPath = sDefault;
        // A "Path" written with slashes by a Linux administrator is as good.
        m_strPath = QB_WithBackslashes(m_strPath);
        if (m_strPath[m_strPath.GetLength() - 1] != '\\')
            m_strPath += '\\';
        ReadUserLimits(iniFile);
        m_Catalog.Open();
        m_Catalog.SetRootPath(m_strPath);
        if (iniFile.GetLong(QB_StringA("FileShare"), QB_StringA("RestoreCatalog"), 0) != 0)
        {
            m_Catalog.SetKeepRights(true);
            RestoreStoredFiles();
        }
    }
    catch (...)
    {
        QB_WriteLog(QB_LOG_DAILY, "error", "ZV_FileShareMgr::Initialize() exception.\r\n");
    }
    return zvResultOk;
}

// A lone server learns its live files only from the lists of linked
// servers, so after a restart it would hide every stored file, and the
// clients that come back would drop their partial downloads on its upload
// list. With "RestoreCatalog" set the server takes its catalogue's rows of
// this conference back as sessions, each measured against its stored file:
// a whole file is complete, a short one is arriving from where its bytes
// end, and a row whose file is gone is dropped, since nothing could serve
// it; one whose file is there but would not open stays for the next start.
// Each restored file is set against the first list of a linked server
// all the same, as after the loss of a server link.
void ZV_FileShareMgr::RestoreStoredFiles()
{
    const uint16_t usConfID = (uint16_t)m_lpConf->GetConfID();
    QB_Array<ZV_FileUploadInfo> arrRow;
    QB_Array<QB_StringW> arrSection;
    m_Catalog.LoadConf(usConfID, arrRow, arrSection);
    QB_Array<ZV_FileUploadInfo> arrKept;
    QB_Array<QB_StringW> arrKeptSection;
    for (int i = 0; i < arrRow.GetSize(); ++i)
    {
        const uint16_t usFileID = arrRow[i].m_usFileID;
        ZV_FileShareSession* lpExisting = nullptr;
        if (usFileID == ZV_NO_FILEID || m_mapSession.Lookup(usFileID, lpExisting))
            continue;
        std::unique_ptr<ZV_FileShareSession> lpNew = MakeSession();
        if (!lpNew->RestoreStoredFile(arrRow[i]))
        {
            const QB_StringW sPath = lpNew->GetStoredPath(arrRow[i].m_sFileNewName);
            const std::u16string sStd(sPath.GetString(), (size_t)sPath.GetLength());
            if (sPath.IsEmpty() || QB_GetEnv()->GetFileAttributes(sStd) == QB_ATTR_INVALID)
                m_Catalog.DeleteFile(usConfID, usFileID);
            continue;
        }
        arrKept.Add(lpNew->FileInfo());
        arrKeptSection.Add(arrSection[i]);
        ReplaceSession(usFileID, std::move(lpNew));
    }
    if (!arrKept.IsEmpty())
        m_Catalog.SaveFiles(usConfID, arrKept, arrKeptSection);
}

void ZV_FileShareMgr::RemoveStoredFile(uint16_t usFileID, ZV_FileShareSession* lpFsSession, const QB_UserID* lpUser,
                                       uint32_t ulFloodSeq)
{
    // Enough for every FileID a server can hold to have been freed a few
    // times over; the oldest go first.
    constexpr int kDeletedKept = 4096;
    if (m_arrDeletedFile.GetSize() >= kDeletedKept)
        m_arrDeletedFile.RemoveAt(0);
    m_arrDeletedFile.Add(lpFsSession->FileInfo().m_BriefInfo);
    lpFsSession->SetUploadStopped(true);
    if (m_lpConf->GetClientCount() > 0)
        SendDelUploadResponse(zvConnNone, usFileID, zvResultOk, usFileID, lpUser, ulFloodSeq, true);
    const QB_StringW sPath = lpFsSession->GetStoredPath(lpFsSession->FileInfo().m_sFileNewName);
    const QB_StringW sFolder = lpFsSession->GetConfDir();
    DetachSession(usFileID);
    // Tried once: a stored file that stays is no row's and goes to no one.
    // The folder is synced before the row goes: otherwise a crash could
    // keep the file and lose the row, and the file would stay for good.
    if (QB_FileEx::Delete(sPath))
        QB_GetEnv()->FlushFolder(std::u16string(sFolder.GetString(), (size_t)sFolder.GetLength()));
    m_Catalog.DeleteFile((uint16_t)m_lpConf->GetConfID(), usFileID);
}

bool ZV_FileShareMgr::WasDeleted(const ZV_FileBriefInfo& brief) const
{
    for (int i = 0; i < m_arrDeletedFile.GetSize(); ++i)
        if (m_arrDeletedFile[i].IsSameFile(brief))
            return true;
    return false;
}

uint32_t ZV_FileShareMgr::CleanData()
{
    if (m_lpConf == nullptr)
        return zvResultNoHost;
    try
    {
        if (!m_lpConf->IsServerMode())
            return zvResultOk;
        // The keys are gathered first: the walk must not lose its place.
        QB_Array<uint16_t> arrFileID;
        ForEachSession([&](uint16_t usFileID, ZV_FileShareSession*) { arrFileID.Add(usFileID); });
        for (int i = 0; i < arrFileID.GetSize(); ++i)
        {
            const std::unique_ptr<ZV_FileShareSession> lpGone = DetachSession(arrFileID[i]);
            if (!lpGone)
                continue;
            lpGone->CloseStoredFiles();
            // Tried once: a stored file that stays is no row's and goes to no one.
            QB_FileEx::Delete(lpGone->GetStoredPath(lpGone->FileInfo().m_sFileNewName));
        }
        m_Catalog.DeleteConf(m_lpConf->GetConfID());
    }
    catch (...)
    {
        QB_WriteLog(QB_LOG_DAILY, "error", "ZV_FileShareMgr::CleanData exception.\r\n");
    }
    return zvResultOk;
}

uint32_t ZV_FileShareMgr::SendDelUploadResponse(uint32_t ulConn, uint16_t usFileID, uint32_t ulResult,
                                                uint16_t usFileID2, const QB_UserID* lpUser, uint32_t ulFloodSeq,
                                                bool bToAll)
{
    ZV_DelUploadResponse answer;
    answer.head = ZV_AnswerHead{{usFileID, ulResult, usFileID2}, *lpUser};
    answer.ulFloodSeq = ulFloodSeq;
    ZV_PduBuffer pdu;
    answer.Save(pdu.Stream());
    if (bToAll)
        return ZV_SendToGroup(m_lpConf, ulConn, PDU_CONF_FS_DEL_UPLOAD_RESPONSE, pdu);
    return ZV_SendToLink(m_lpConf, ulConn, PDU_CONF_FS_DEL_UPLOAD_RESPONSE, pdu);
}
