// The tests' one way into a session's private state, so that a change of
// that state moves this file, not the tests.
#pragma once

#include "core/ZV_FileShareSession.h"

class ZV_FileShareSessionPeer
{
public:
    using S = ZV_FileShareSession;
    static uint16_t& FileID(S& s) { return s.m_usFileID; }
    static ZV_FileUploadInfo& FileInfo(S& s) { return s.m_FileInfo; }
    static QB_FileEx& ServerFile(S& s) { return s.m_ServerFile; }
    static bool& Pulling(S& s) { return s.m_bPulling; }
    static bool& UploadDone(S& s) { return s.m_bUploadDone; }
    static bool& ResyncPending(S& s) { return s.m_bResyncPending; }
    static uint32_t& LastIoTick(S& s) { return s.m_ulLastIoTick; }
    static uint32_t& MaxPos(S& s) { return s.m_ulMaxPos; }
    static ZV_DownloadMap& Downloads(S& s) { return s.m_mapDownload; }
    static ZV_FileBriefInfo& BriefInfo(S& s) { return s.m_BriefInfo; }
    static ZV_FileDownloadInfo& LocalDownload(S& s) { return s.m_LocalDownload; }
    static QB_FileEx& File(S& s) { return s.m_File; }
    static bool& StopUpload(S& s) { return s.m_bStopUpload; }
    static bool& DownloadFailed(S& s) { return s.m_bDownloadFailed; }
    static QB_StringU8& AskedPath(S& s) { return s.m_sAskedPath; }
    static uint32_t& AskedPos(S& s) { return s.m_ulAskedPos; }
    static bool& DownloadAsked(S& s) { return s.m_bDownloadAsked; }
    static void SetAskedBase(S& s, const QB_StringW& sBase) { s.m_sAskedBase = sBase, s.m_bAskedBase = true; }
    // Members only the session's own sources call.
    static void NotifyTransferError(S& s, uint32_t ulResult, uint16_t usFileID) { s.NotifyTransferError(ulResult, usFileID); }
    static void NotifyDownloadFinished(S& s, uint32_t ulResult, uint16_t usFileID) { s.NotifyDownloadFinished(ulResult, usFileID); }
    static void NotifyDownloadProgress(S& s, uint32_t ulResult, uint16_t usFileID, double dPercent, uint32_t ulUsed)
    { s.NotifyDownloadProgress(ulResult, usFileID, dPercent, ulUsed); }
    static void NotifyStopResult(S& s, uint32_t ulResult, uint16_t usFileID, uint8_t bStop) { s.NotifyStopResult(ulResult, usFileID, bStop); }
    static void NotifyTransferState(S& s, uint8_t bUpload, uint16_t usFileID, uint16_t usState)
    { s.NotifyTransferState(bUpload, usFileID, usState); }
    static void WakeDownloaders(S& s, uint32_t ulPos) { s.WakeDownloaders(ulPos); }
    static QB_StringW MakeStoredFileName(const QB_StringW& sFolder, const QB_StringW& sName) { return S::MakeStoredFileName(sFolder, sName); }
};
