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

} // namespace

uint32_t ZV_FileShareMgr::Initialize()
{
    // A host that calls before it has given the manager its conference is
    // refused, as the user side is.
    if (m_lpConf == nullptr)
        return zvResultNoHost;
    if (!m_lpConf->IsServerMode())
        return zvResultOk;
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
        m_Catalog.Open();
        m_Catalog.SetRootPath(m_strPath);
    }
    catch (...)
    {
        QB_WriteLog(QB_LOG_DAILY, "error", "ZV_FileShareMgr::Initialize() exception.\r\n");
    }
    return zvResultOk;
}

void ZV_FileShareMgr::RemoveStoredFile(uint16_t usFileID, ZV_FileShareSession* lpFsSession, const QB_UserID* lpUser,
                                       uint32_t ulFloodSeq)
{
    lpFsSession->SetUploadStopped(true);
    if (m_lpConf->GetClientCount() > 0)
        SendDelUploadResponse(zvConnNone, usFileID, zvResultOk, usFileID, lpUser, ulFloodSeq, true);
    const QB_StringW sPath = lpFsSession->GetConfDir() + QB_StringW(lpFsSession->FileInfo().m_sFileNewName);
    const bool bPlain = ZV_FileCatalog::IsPlainFileName(QB_StringA(lpFsSession->FileInfo().m_sFileNewName));
    DetachSession(usFileID);
    // A session without a stored name would name the folder itself.
    // Tried once: a stored file that stays is no row's and goes to no one.
    if (bPlain)
        QB_FileEx::Delete(sPath);
    m_Catalog.DeleteFile((uint16_t)m_lpConf->GetConfID(), usFileID);
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
            const QB_StringU8 sName = lpGone->FileInfo().m_sFileNewName;
            const QB_StringW sPath = lpGone->GetConfDir() + QB_StringW(sName);
            lpGone->CloseStoredFiles();
            // Tried once: a stored file that stays is no row's and goes to no one.
            if (ZV_FileCatalog::IsPlainFileName(QB_StringA(sName)))
                QB_FileEx::Delete(sPath);
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
