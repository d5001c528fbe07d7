// The user side's stop and resume of a transfer. Each sets the client's own
// state at once and tells the server; the server's answer comes later
// (8018 for an upload) and is shown through events.
#include "core/ZV_FileShareMgr.h"
#include "core/ZV_FileShareSession.h"

#include "QB_Env.h"
#include "QB_Log.h"

// A stopped download still counts as busy.
uint32_t ZV_FileShareMgr::FsStopDownload(uint16_t usFileID)
{
    if (m_lpConf == nullptr)
        return zvResultNoHost;
    return GuardFs("ZV_FileShareMgr::FsStopDownload exception.\r\n", [&]() -> uint32_t {
        ZV_FileShareSession* lpFsSession = nullptr;
        if (const uint32_t ulFound = LookupSession(usFileID, lpFsSession); ulFound != zvResultOk)
            return ulFound;
        lpFsSession->StopLocalDownload();
        const uint32_t ulConn = GetLinkConn(zvConfClientTypeCommand);
        if (ulConn == zvConnNone)
            return zvResultNoConnection;
        return lpFsSession->SendIsStopDownloadRequest(ulConn, usFileID, LocalUser(), 0, 1);
    });
}

// The last tick moves so that the pause is not counted as time spent.
uint32_t ZV_FileShareMgr::FsResumeDownload(uint16_t usFileID)
{
    if (m_lpConf == nullptr)
        return zvResultNoHost;
    return GuardFs("ZV_FileShareMgr::FsResumeDownload exception.\r\n", [&]() -> uint32_t {
        ZV_FileShareSession* lpFsSession = nullptr;
        if (const uint32_t ulFound = LookupSession(usFileID, lpFsSession); ulFound != zvResultOk)
            return ulFound;
        lpFsSession->ResumeLocalDownload();
        const uint32_t ulConn = GetLinkConn(zvConfClientTypeCommand);
        if (ulConn == zvConnNone)
            return zvResultNoConnection;
        MarkBusy(true, usFileID);
        return lpFsSession->SendIsStopDownloadRequest(ulConn, usFileID, LocalUser(), 0, 0);
    });
}

// The client's read position goes along; the first server puts its own
// write position in its place.
uint32_t ZV_FileShareMgr::FsStopUpload(uint16_t usFileID)
{
    if (m_lpConf == nullptr)
        return zvResultNoHost;
    return GuardFs("ZV_FileShareMgr::FsStopUpload exception.\r\n", [&]() -> uint32_t {
        ZV_FileShareSession* lpFsSession = nullptr;
        if (const uint32_t ulFound = LookupSession(usFileID, lpFsSession); ulFound != zvResultOk)
            return ulFound;
        lpFsSession->SetUploadStopped(true);
        const uint32_t ulConn = GetLinkConn(zvConfClientTypeCommand);
        if (ulConn == zvConnNone)
            return zvResultNoConnection;
        lpFsSession->StopLocalUpload(true);
        return lpFsSession->SendIsStopUploadRequest(ulConn, usFileID, LocalUser(), 0, 1, lpFsSession->ReadPos());
    });
}

uint32_t ZV_FileShareMgr::FsResumeUpload(uint16_t usFileID)
{
    if (m_lpConf == nullptr)
        return zvResultNoHost;
    return GuardFs("ZV_FileShareMgr::FsResumeUpload exception.\r\n", [&]() -> uint32_t {
        ZV_FileShareSession* lpFsSession = nullptr;
        if (const uint32_t ulFound = LookupSession(usFileID, lpFsSession); ulFound != zvResultOk)
            return ulFound;
        lpFsSession->SetUploadStopped(false);
        const uint32_t ulConn = GetLinkConn(zvConfClientTypeCommand);
        if (ulConn == zvConnNone)
            return zvResultNoConnection;
        lpFsSession->StopLocalUpload(false);
        return lpFsSession->SendIsStopUploadRequest(ulConn, usFileID, LocalUser(), 0, 0, 0);
    });
}
