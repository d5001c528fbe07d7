// The tests' one way into a manager's private state, so that a change of
// that state moves this file, not the tests.
#pragma once

#include "core/ZV_FileShareMgr.h"
#include "core/ZV_FileShareSession.h"

#include <memory>

class ZV_FileShareMgrPeer
{
public:
    using M = ZV_FileShareMgr;
    static ZV_SessionMap& Sessions(M& mgr) { return mgr.m_mapSession; }
    // fn(usFileID, session) for each session in the map's order; a
    // reservation has none and is left out.
    template <typename F>
    static void ForEach(M& mgr, F&& fn)
    {
        mgr.ForEachSession([&](uint16_t usFileID, ZV_FileShareSession* lpFsSession) {
            if (lpFsSession != nullptr)
                fn(usFileID, lpFsSession);
        });
    }
    // The session under usFileID; null when there is none, or only a reservation.
    static ZV_FileShareSession* Find(M& mgr, uint16_t usFileID)
    {
        ZV_FileShareSession* lpFsSession = nullptr;
        mgr.m_mapSession.Lookup(usFileID, lpFsSession);
        return lpFsSession;
    }
    static QB_Array<uint16_t>& BusyFileIDs(M& mgr) { return mgr.m_arrBusyFileID; }
    static char& DataLink(M& mgr) { return mgr.m_cDataLink; }
    static uint16_t& NextFileID(M& mgr) { return mgr.m_usNextFileID; }
    static const QB_Array<uint16_t>& DeletedFileIDs(M& mgr) { return mgr.m_arrDelFileID; }
    // The manager's own events to the user side and what the tests ask of it directly.
    static void NotifyFileAdded(M& mgr, uint32_t ulResult, uint16_t usFileID, const ZV_FileBriefInfo& brief, double d)
    { mgr.NotifyFileAdded(ulResult, usFileID, brief, d); }
    static void NotifyRightChanged(M& mgr, uint32_t ulResult, uint16_t usFileID, const ZV_FileBriefInfo& brief, double d)
    { mgr.NotifyRightChanged(ulResult, usFileID, brief, d); }
    static void NotifyFileHidden(M& mgr, uint32_t ulResult, uint16_t usFileID) { mgr.NotifyFileHidden(ulResult, usFileID); }
    static void NotifyFileGone(M& mgr, uint32_t ulResult, uint16_t usFileID) { mgr.NotifyFileGone(ulResult, usFileID); }
    static void NotifyBusy(M& mgr, uint8_t bBusy) { mgr.NotifyBusy(bBusy); }
    static void NotifyFilesAdded(M& mgr, const QB_Array<uint16_t>& arrFileID, const QB_Array<ZV_FileBriefInfo>& arrInfo,
                                 const QB_Array<double>& arrValue) { mgr.NotifyFilesAdded(arrFileID, arrInfo, arrValue); }
    static ZV_FileCatalog& Catalog(M& mgr) { return mgr.Catalog(); }
    static ZV_ShareLedger& Ledger(M& mgr) { return mgr.m_ShareLedger; }
    static uint16_t AllocFileID(M& mgr) { return mgr.AllocFileID(); }
    static uint32_t SendFileList(M& mgr, uint32_t ulConn, const QB_UserID& sender, const QB_Array<ZV_FileUploadInfo>& arrInfo,
                                 const QB_Array<bool>& arrState, const QB_Array<uint32_t>& arrMaxPos,
                                 const QB_Array<ZV_FileDownloadInfo>& arrDownload)
    { return mgr.SendFileList(ulConn, 0, sender, arrInfo, arrState, arrMaxPos, arrDownload); }
    // A new session under usFileID, the manager's from here on; one that stood there goes.
    static ZV_FileShareSession& Adopt(M& mgr, uint16_t usFileID, const char* szStorePath)
    {
        auto lpOwned = std::make_unique<ZV_FileShareSession>(&mgr, szStorePath);
        mgr.DetachSession(usFileID);
        mgr.m_mapSession.SetAt(usFileID, lpOwned.get());
        return *lpOwned.release();
    }
};
