// ZV_FileShareMgr: the module's one object per conference.
//
// The same class runs on a conference server and on a participant's client;
// the role is asked of the host at each decision, never stored. It routes
// PDUs (catalogue numbers to its own handlers, everything else to the
// session of the FileID in the payload's first u16), allocates FileIDs,
// follows the link states, and serves the user side's Fs operations.
//
// The definition is split by road: the sources of this folder (life, links,
// FileIDs, the busy list and the timer; routing; the gate of a client's
// link; restarts after a link came back; the storage folder; look-ups;
// trust in a server's word) and one ZV_FileShareMgr_*.cpp in the folder of
// each road (add/, upload/, download/, control/, delete/, rights/, lists/,
// filelist/, hostevents/). ZV_FsEvents.cpp writes the events to the user
// side. docs/architecture.md has the whole picture.
#pragma once

#include "IZV_FileShare.h"
#include "records/ZV_FileBriefInfo.h"
#include "records/ZV_FileDownloadInfo.h"
#include "records/ZV_FileCatalog.h"
#include "records/ZV_FileUploadInfo.h"
#include "wire/ZV_RequestHead.h"
#include "core/ZV_SessionOwner.h"
#include "records/ZV_ShareLedger.h"

#include "QB_Array.h"
#include "QB_FileEx.h"
#include "QB_List.h"
#include "QB_Locker.h"
#include "QB_Log.h"
#include "QB_Map.h"
#include "QB_String.h"

#include <cstdint>
#include <memory>
#include <vector>

class ZV_FileShareSession;
struct ZV_AddFilesRequest;
struct ZV_EventTarget;
struct ZV_AddFilesResponse;
struct ZV_AddRequest;
struct ZV_FileListResponse;
struct ZV_ListedFiles;

// Sessions by FileID, 97 buckets, with the lock that FileID allocation and
// the client's merging handlers take. A null value reserves a FileID whose
// session is not made yet.
class ZV_SessionMap : public QB_Locker, public QB_Map<uint16_t, ZV_FileShareSession*>
{
public:
    ZV_SessionMap() : QB_Map<uint16_t, ZV_FileShareSession*>(97) {}
};

// Local paths of finished downloads whose session went with the file.
using ZV_FinishedDownloadMap = QB_Map<uint16_t, QB_StringW, QB_HashShift4>;

// States of m_cCmdLink and m_cDataLink. A data link that is down because
// nothing needed it (idle) is no loss; one that was lost (down) is, and
// makes a client report where its downloads stand when it comes back.
enum : char
{
    zvLinkDown = '0',
    zvLinkCmdUp = '1',
    zvLinkDataUp = '2',
    zvLinkPaired = '3',
    zvLinkIdle = '4',
};

// Runs one user-side operation. A caught exception gives ulOnThrow and
// writes the operation's line; state changed before it stays changed.
template <typename F>
uint32_t GuardFs(const char* pszLine, F&& fnBody, uint32_t ulOnThrow = zvResultException)
{
    uint32_t ulResult = ulOnThrow;
    try
    {
        ulResult = fnBody();
    }
    catch (...)
    {
        QB_WriteLog(2, "error", "%s", pszLine);
        ulResult = ulOnThrow;
    }
    return ulResult;
}

// The host and the user side reach the manager through its two faces; its
// sessions through ZV_SessionOwner; tests through ZV_FileShareMgrPeer.
// Nothing else of it is public.
class ZV_FileShareMgr : public IZV_FileShareMgr, public IZV_ConfModule, public ZV_SessionOwner
{
public:
    ZV_FileShareMgr();
    ~ZV_FileShareMgr() override;

    // ---- IZV_ConfModule
    uint16_t GetModuleType() override;
    uint32_t Initialize() override;
    uint32_t ModuleReserved0() override;
    uint32_t CleanData() override;
    void ModuleReserved1(uint32_t ulArg1, uint32_t ulArg2) override;
    bool ModuleReserved2(uint32_t ulArg) override;
    uint32_t HandlePdu(ConfPduData* lpCpd) override;
    uint32_t OnSend(ConfPduData* lpCpd) override;
    uint32_t OnConnect(const QB_UserID* lpPeer, uint32_t ulConn, uint16_t usConnType, uint32_t ulReserved) override;
    uint32_t OnDisconnect(const QB_UserID* lpPeer, uint32_t ulConn, uint16_t usConnType,
                          uint32_t ulReserved) override;
    void OnTimer(uint32_t ulTick) override;
    uint32_t OnEvent(uint16_t usEvent, uintptr_t a1, uintptr_t a2, uintptr_t a3, uintptr_t a4) override;
    bool GetInterface(uint16_t usType, void** lppOut) override;

    // ---- IZV_FileShareMgr
    uint32_t FsAdd(const char16_t* szPath, const QB_UserID* pRight, uint32_t nRight, uint8_t bPublic,
                   uint8_t bStartUpload) override;
    uint32_t FsSetRight(uint16_t usFileID, uint8_t bPublic, const QB_UserID* pAdd, uint32_t nAdd,
                        const QB_UserID* pRemove, uint32_t nRemove) override;
    uint32_t FsUpload(uint16_t usFileID) override;
    uint32_t FsDelUpload(uint16_t usFileID) override;
    uint32_t FsDelDownload(uint16_t usFileID, uint8_t bDeleteFile) override;
    uint32_t FsDownload(uint16_t usFileID, const char16_t* szLocalPath) override;
    uint32_t FsStopDownload(uint16_t usFileID) override;
    uint32_t FsResumeDownload(uint16_t usFileID) override;
    uint32_t FsStopUpload(uint16_t usFileID) override;
    uint32_t FsResumeUpload(uint16_t usFileID) override;
    uint32_t FsGetFileInfoByFileID(uint16_t usFileID, ZV_FsFileInfo* lpInfo) override;
    uint32_t FsFilesAdd(const char16_t* szFolder, const char16_t* const* ppNames, uint32_t nNames,
                        const QB_UserID* pRight, uint32_t nRight, uint8_t bPublic, uint8_t bStartUpload) override;
    uint32_t FsSetFilesRight(const uint16_t* pFileID, uint32_t nFileID, uint8_t bPublic, const QB_UserID* pAdd,
                             uint32_t nAdd, const QB_UserID* pRemove, uint32_t nRemove) override;
    void SetSessionBusy(uint8_t bBusy, uint16_t usFileID) override;

private:
    friend class ZV_FileShareMgrPeer;

    // ---- ZV_SessionOwner
    IZV_ConfHost* Host() const override { return m_lpConf; }
    IZV_ConfSink* Sink() const override { return m_lpConfSink; }
    // The client's connection of the given type towards its server, or zvConnNone.
    uint32_t GetLinkConn(uint16_t usConnType) override;
    // The local user, or null when the host knows none.
    const QB_UserID* LocalUser() const override;
    void MarkBusy(bool bBusy, uint16_t usFileID) override;
    // The server's durable list of what its storage folder holds.
    ZV_FileCatalog& Catalog() override { return m_Catalog; }
    // Whether a server's PDU may make this client open the local file that
    // `brief` names for reading: only a file its user shared, as it was
    // shared, in this conference.
    bool IsSharedLocalFile(const ZV_FileBriefInfo& brief) override;
    uint32_t OpenSharedLocalFile(const ZV_FileBriefInfo& brief, QB_FileEx& file) override;
    void NotifyTransferState(uint8_t bUpload, uint16_t usFileID, uint16_t usState) override;
    // Client: the local user may no longer have the file.
    void DropLostDownload(uint16_t usFileID, ZV_FileShareSession* lpFsSession) override;

    // ---- helpers the handlers share
    // A fresh FileID from the host's range, reserved in the map; ZV_NO_FILEID
    // when the range is used up. Server only.
    uint16_t AllocFileID();
    // Restarts this node's running downloads and republishes upload state
    // after a data link came back.
    void SendFileDownloadPos(bool bClient, uint32_t ulServerID);
    // The session of a FileID; 0 with the session, or 82 / 83.
    uint32_t LookupSession(uint16_t usFileID, ZV_FileShareSession*& lpFsSession);

    // ---- adding files and the storage folder
    // ZV_FileShareMgr_Storage.cpp. A server's removal of one stored file
    // while the conference goes on: session, file and catalogue row.
    void RemoveStoredFile(uint16_t usFileID, ZV_FileShareSession* lpFsSession, const QB_UserID* lpUser,
                          uint32_t ulFloodSeq);
    // Whether a file of this description was deleted here since the start.
    bool WasDeleted(const ZV_FileBriefInfo& brief) const;
    // Initialize with "RestoreCatalog" set: the catalogue's rows of this
    // conference as sessions again.
    void RestoreStoredFiles();
    uint32_t SendDelUploadResponse(uint32_t ulConn, uint16_t usFileID, uint32_t ulResult, uint16_t usFileID2,
                                   const QB_UserID* lpUser, uint32_t ulFloodSeq, bool bToAll);
    // ZV_FileShareMgr_Add.cpp: one file.
    uint32_t SendAddRequest(uint32_t ulConn, uint16_t usFileID, const QB_UserID& creator, uint32_t ulFloodSeq,
                            const ZV_FileBriefInfo& brief, uint8_t bStartUpload);
    uint32_t SendAddResponse(uint32_t ulConn, uint16_t usFileID, uint32_t ulResult, uint16_t usFileID2,
                             const QB_UserID& creator, uint32_t ulWritePos, const ZV_FileBriefInfo& brief,
                             uint8_t bStartUpload, bool bToAll);
    // The map takes the session under usFileID; a session that stood there
    // goes.
    void ReplaceSession(uint16_t usFileID, std::unique_ptr<ZV_FileShareSession> lpFsSession);
    // An add that threw on its way: the key goes from the map, and with it
    // the session it made, its stored file and its catalogue row.
    void DropAddedSession(uint16_t usFileID);
    // The session under usFileID goes, and its key.
    void RemoveSession(uint16_t usFileID);
    // The key goes from the map; its session, if any, is the caller's.
    std::unique_ptr<ZV_FileShareSession> DetachSession(uint16_t usFileID);
    // Client: true when usFileID already names this very file here; the
    // session then takes the new description and keeps its transfers.
    bool RefreshKnownFile(uint16_t usFileID, const ZV_FileBriefInfo& brief, uint32_t ulPos);
    // ZV_FileShareMgr_AddFiles.cpp: several files.
    uint32_t SendAddFilesRequest(uint32_t ulConn, const QB_UserID& user, uint32_t ulFloodSeq, uint8_t bStartUpload,
                                 const QB_Array<uint16_t>& arrFileID, const QB_Array<ZV_FileBriefInfo>& arrInfo);
    uint32_t SendAddFilesResponse(uint32_t ulConn, uint32_t ulResult, const QB_UserID& user, uint8_t bStartUpload,
                                  const QB_Array<uint16_t>& arrFileID, const QB_Array<uint32_t>& arrPos,
                                  const QB_Array<ZV_FileBriefInfo>& arrInfo, uint8_t bLast, bool bToAll);
    // A series of 8056 for any number of files; ulConn zvConnNone means all
    // clients of this server.
    uint32_t SendAddFilesList(uint32_t ulConn, uint32_t ulResult, const QB_UserID& user, uint8_t bStartUpload,
                              const QB_Array<uint16_t>& arrFileID, const QB_Array<uint32_t>& arrPos,
                              const QB_Array<ZV_FileBriefInfo>& arrInfo);
    // An announcement that names the local user as creator of a file the
    // user did not share: true when that is so, and then logged.
    bool IsUntrustedAdd(const ZV_FileBriefInfo& brief, const char* pszHandler);

    // ---- the roads of the bytes are the sessions' (ZV_FileShareSession_*.cpp)

    // ---- events to the user side that the manager raises (ZV_FileShareMgr_Notify.cpp)
    ZV_EventTarget Events() const;
    void NotifyFileAdded(uint32_t ulResult, uint16_t usFileID, const ZV_FileBriefInfo& brief, double dPercent);
    void NotifyRightChanged(uint32_t ulResult, uint16_t usFileID, const ZV_FileBriefInfo& brief, double dPercent);
    void NotifyFileHidden(uint32_t ulResult, uint16_t usFileID);
    void NotifyFileGone(uint32_t ulResult, uint16_t usFileID);
    void NotifyBusy(uint8_t bBusy);
    void NotifyFilesAdded(const QB_Array<uint16_t>& arrFileID, const QB_Array<ZV_FileBriefInfo>& arrInfo,
                          const QB_Array<double>& arrValue);

    // ---- catalogue PDUs the manager serves itself
    uint32_t HandleAddRequest(ConfPduData* lpCpd);
    uint32_t HandleAddResponse(ConfPduData* lpCpd);
    uint32_t HandleSetRightResponse(ConfPduData* lpCpd);
    uint32_t HandleDelUploadRequest(ConfPduData* lpCpd);
    uint32_t HandleDelUploadResponse(ConfPduData* lpCpd);
    uint32_t HandleGetUploadSessionListRequest(ConfPduData* lpCpd);
    uint32_t HandleGetUploadSessionListResponse(ConfPduData* lpCpd);
    uint32_t HandleGetDownloadSessionListRequest(ConfPduData* lpCpd);
    uint32_t HandleGetDownloadSessionListResponse(ConfPduData* lpCpd);
    uint32_t HandleGetFileListRequest(ConfPduData* lpCpd);
    uint32_t HandleGetFileListResponse(ConfPduData* lpCpd);
    uint32_t HandleSetFilesRightRequest(ConfPduData* lpCpd);
    uint32_t HandleFileStateNotice(ConfPduData* lpCpd);
    uint32_t HandleAddFilesRequest(ConfPduData* lpCpd);
    uint32_t HandleAddFilesResponse(ConfPduData* lpCpd);

    // ---- control of a shared file: deletes (ZV_FileShareMgr_Delete.cpp),
    // rights (ZV_FileShareMgr_Rights.cpp) and look-ups (ZV_FileShareMgr_Lookup.cpp)
    uint32_t SendDelUploadRequest(uint32_t ulConn, uint16_t usFileID, const QB_UserID* lpUser, uint32_t ulFloodSeq,
                                  bool bToAll);
    uint32_t SendSetFilesRightRequest(uint32_t ulConn, const QB_Array<uint16_t>& arrFileID, const QB_UserID* lpUser,
                                      uint8_t bPublic, const QB_Array<QB_UserID>& arrAdd,
                                      const QB_Array<QB_UserID>& arrRemove);
    uint32_t SendSetFilesRightResponse(uint32_t ulConn, const QB_Array<uint16_t>& arrFileID, uint32_t ulResult,
                                       const QB_UserID& user, uint32_t ulFloodSeq);
    // Server: 0 when a client's delete of a file may go on, else its code.
    uint32_t CheckDelUpload(ZV_FileShareSession* lpFsSession, const QB_UserID& user);
    // Client: what stays of a deleted file's local download, then the session goes.
    void DropDeletedSession(uint16_t usFileID, ZV_FileShareSession* lpFsSession);
    // Client: a changed description of one file arrived.
    void ApplyNewRights(uint16_t usFileID, const ZV_FileBriefInfo& brief, uint32_t ulMaxPos);
    // Server, host event 4 (ZV_FileShareMgr_UserGone.cpp): what becomes of
    // the files and downloads of a user who left.
    void OnUserLeave(const QB_UserID& user);
    void OnUserGone(ZV_FileShareSession* lpFsSession, QB_UserID user);

    // ---- staying in step: the upload list (ZV_FileShareMgr_UploadList.cpp),
    // the download list (ZV_FileShareMgr_DownloadList.cpp) and the host
    // events (ZV_FileShareMgr_Events.cpp)
    uint32_t SendUploadList(uint32_t ulConn, uint16_t usFileID, uint32_t ulResult, uint16_t usFileID2,
                            const QB_UserID& user, const QB_Array<ZV_FileUploadInfo>& arrInfo,
                            const QB_Array<uint32_t>& arrMaxPos);
    void ApplyUploadList();
    void DropUnlistedSessions(const std::vector<bool>& vecListed);
    void DropUnlistedDownload(uint16_t usFileID, ZV_FileShareSession* lpFsSession);
    void MergeListedFile(const ZV_FileUploadInfo& entry, uint32_t ulMaxPos);
    void RaisePendingFiles();
    uint32_t SendDownloadList(uint32_t ulConn, uint32_t ulResult, const QB_UserID& user,
                              const QB_Array<ZV_FileDownloadInfo>& arrInfo, const QB_Array<bool>& arrModify);
    void CollectDownloadInfo(uint16_t usFileID, ZV_FileShareSession* lpFsSession, const QB_UserID& user,
                             QB_Array<ZV_FileDownloadInfo>& arrInfo, QB_Array<bool>& arrModify);
    void ApplyListedDownload(const ConfPduData* lpCpd, ZV_FileDownloadInfo r, bool bModify,
                             const QB_UserID& listUser, uint32_t& ulResult);
    bool ResumeListedDownload(const ConfPduData* lpCpd, ZV_FileShareSession* lpFsSession, ZV_FileDownloadInfo& r,
                              bool bModify, const QB_UserID& listUser, uint32_t& ulResult, uint32_t& ulSize);
    void RestartListedDownload(const ConfPduData* lpCpd, ZV_FileShareSession* lpFsSession, ZV_FileDownloadInfo& r,
                               bool bModify, const ZV_FileDownloadInfo& d, uint32_t& ulResult, uint32_t& ulSize);
    void DropWithdrawnDownload(uint16_t usFileID, ZV_FileShareSession* lpFsSession, const ZV_FileDownloadInfo& r);
    void OnServerLinkUp(uint32_t ulConn);
    void OnUserEnter(const QB_UserID& user);
    void OnRightChange(bool bMoreVisible, const QB_UserID& user);

    // ---- linked servers in step: the file list (ZV_FileShareMgr_FileList.cpp)
    uint32_t SendGetFileListRequest(uint32_t ulConn, const QB_UserID& requester);
    uint32_t SendFileList(uint32_t ulConn, uint32_t ulResult, const QB_UserID& sender,
                          const QB_Array<ZV_FileUploadInfo>& arrInfo, const QB_Array<bool>& arrState,
                          const QB_Array<uint32_t>& arrMaxPos, const QB_Array<ZV_FileDownloadInfo>& arrDownload);
    void ForwardListedFiles(uint32_t ulSkipConn, const QB_Array<ZV_FileUploadInfo>& arrInfo,
                            const QB_Array<bool>& arrState, const QB_Array<uint32_t>& arrMaxPos);
    void ApplyListedFiles(const ConfPduData* lpCpd, const ZV_FileListResponse& part);
    bool ApplyListedFile(const ConfPduData* lpCpd, const ZV_FileListResponse& part, int i, ZV_ListedFiles& listed);
    bool RecheckListedSession(ZV_FileShareSession* lpFsSession, const ZV_FileUploadInfo& entry, bool bDone);
    bool TakeOverFileID(ZV_FileShareSession* lpFsSession, const ZV_FileUploadInfo& entry);
    bool PassBackDelete(const ConfPduData* lpCpd, const QB_UserID& sender, const ZV_FileUploadInfo& entry);
    void EnterListedDownloads(const QB_Array<ZV_FileDownloadInfo>& arrDownload);
    void NotifyNewDownloadInfo(ZV_FileShareSession* lpFsSession, const QB_Array<ZV_FileDownloadInfo>& arrRecord);
    // The home server of a file's creator tells the other servers where the
    // upload stands (ZV_FileShareMgr_Links.cpp); false when the host has
    // seen that flood already.
    bool RepublishUpload(ZV_FileShareSession* lpFsSession, const QB_UserID& creator, uint16_t usState);

    // ---- what a session and the manager's own helpers ask of the manager
    // A new session under this manager's storage folder, not in the map yet.
    std::unique_ptr<ZV_FileShareSession> MakeSession();
    // Whether usFileID is reserved by an add whose session is not made yet.
    bool IsReservedFileID(uint16_t usFileID);
    // The files of a batch the user side will hear of in one report, and
    // their taking out for that report.
    void NotePendingFile(uint16_t usFileID, double dRate);
    void DrainPendingFiles(QB_Array<uint16_t>& arrFileID, QB_Array<double>& arrRate,
                           QB_Array<ZV_FileBriefInfo>& arrInfo);

    // fn(usFileID, lpFsSession) for every key of the map in its walk order,
    // a reserved key (null session) included.
    template <typename F>
    void ForEachSession(F&& fn)
    {
        for (QB_POSITION pos = m_mapSession.GetStartPosition(); pos != nullptr;)
        {
            uint16_t usFileID = 0;
            ZV_FileShareSession* lpFsSession = nullptr;
            m_mapSession.GetNextAssoc(pos, usFileID, lpFsSession);
            fn(usFileID, lpFsSession);
        }
    }

    uint32_t RouteToSession(ConfPduData* lpCpd);
    uint32_t RouteToManager(ConfPduData* lpCpd, bool& bHandled);
    // ZV_FileShareMgr_Gate.cpp: false for a PDU a server refuses from a
    // client's link, which is then logged and, where it has one, answered.
    // A server takes nothing from a client's link that its row in
    // ZV_PduTable.h does not allow, and nothing whose number has no row.
    bool AdmitPdu(const ConfPduData* lpCpd);
    void AnswerRefusal(uint16_t usAnswer, const ConfPduData* lpCpd);
    void AnswerRefusedAdd(uint16_t usAnswer, QB_ByteStream& stream, uint32_t ulConn);
    void OnClientConnect(uint16_t usConnType);
    void OnServerConnect(const QB_UserID* lpPeer, uint16_t usConnType);
    uint32_t CheckClientAdd(ZV_AddRequest& ask, bool& bRenamed);
    // Whether user may add the files arrInfo describes beside those they
    // share now, under "MaxFilesPerUser" and "MaxBytesPerUser".
    bool IsWithinUserLimits(const QB_UserID& user, const QB_Array<ZV_FileBriefInfo>& arrInfo);
    void ReadUserLimits(const QB_IniFileEx& iniFile);
    uint32_t FinishServerAdd(ConfPduData* lpCpd, const ZV_AddRequest& ask, ZV_FileShareSession* lpFsSession,
                             bool bRenamed);
    // A client's creator is shown by the name the host knows the link's user
    // by; true when the description named them otherwise and was changed.
    bool NameCreatorAsHost(const QB_UserID& user, ZV_FileBriefInfo& brief, bool bThroughAnsi);
    bool AllocBatchFileIDs(ConfPduData* lpCpd, ZV_AddFilesRequest& ask);
    void DropBatch(const QB_Array<uint16_t>& arrFileID, int nMade);
    void StoreAddedFiles(ConfPduData* lpCpd, const ZV_AddFilesRequest& ask, const QB_StringW& sFolder);
    void ApplyAnnouncedFile(const ZV_AddFilesResponse& answer, int nIndex, bool bVisible);
    void ReportPendingFiles();
    void RestartDownload(ZV_FileShareSession* lpFsSession, const ZV_FileDownloadInfo& download,
                         const QB_UserID& creator, bool bClient, uint32_t ulServerID);
    template <typename F>
    uint16_t NextFreeFileID(uint16_t usMin, uint16_t usMax, F&& fnTaken);

    ZV_FileCatalog m_Catalog;
    // A client's record of what its user shared; see ZV_FileShareMgr_Trust.cpp.
    ZV_ShareLedger m_ShareLedger;
    char m_cCmdLink = zvLinkDown;
    char m_cDataLink = zvLinkIdle;
    uint16_t m_usNextFileID = 1;
    ZV_SessionMap m_mapSession;
    ZV_FinishedDownloadMap m_mapFinishedDownload{97};
    QB_StringA m_strPath;
    // What one participant may have shared at once; 0 is no limit.
    uint64_t m_ullMaxFilesPerUser = 0;
    uint64_t m_ullMaxBytesPerUser = 0;
    QB_Array<uint16_t> m_arrBusyFileID;
    uint32_t m_ulIdleSince = 0;
    QB_List<ZV_FileUploadInfo> m_listUpload;
    QB_Array<uint32_t> m_arrMaxPos;
    QB_Array<uint16_t> m_arrPendingFileID;
    QB_Array<double> m_arrPendingRate;
    QB_Array<ZV_FileBriefInfo> m_arrPendingInfo;
    // Files of the batch whose upload this client was to start and could
    // not: FileID and result, told after the batch.
    std::vector<std::pair<uint16_t, uint32_t>> m_vecPendingFailed;
    QB_Array<uint16_t> m_arrDelFileID;
    // The descriptions of the files deleted here, newest last: a FileID may
    // name another file by now, the description names the one deleted.
    QB_Array<ZV_FileBriefInfo> m_arrDeletedFile;
};
