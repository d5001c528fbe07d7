// ZV_FileShareSession: one shared file in one conference on one node.
//
// A session is not a connection: all users that transfer a file share its
// session. On a client it holds the client's view of the file, the local
// file and the local user's download; on a server the stored file's record,
// the open store file and one download record per downloader. A server
// whose file's creator is homed elsewhere is a relay: it downloads the file
// from its neighbour through the same members a client uses.
//
// The definition is split by road: ZV_FileShareSession.cpp here (life,
// dispatch, the catalogue row) and one ZV_FileShareSession_*.cpp in the
// folder of each road: add/ (the file announced), upload/, download/ (the
// server's side, and _Fetch.cpp the downloader's, client or relay),
// control/ (stop, resume, progress, upload errors, the timer), rights/
// (download entries, notices and rights), lists/ (a client's lists) and
// filelist/ (a linked server's list); ZV_FileShareSession_Notify.cpp here
// writes the events a session raises.
#pragma once

#include "IZV_FileShare.h"
#include "records/ZV_FileBriefInfo.h"
#include "records/ZV_FileDownloadInfo.h"
#include "records/ZV_FileUploadInfo.h"
#include "wire/ZV_PduFrame.h"
#include "wire/ZV_RequestHead.h"
#include "core/ZV_SessionOwner.h"

#include "QB_ByteStream.h"
#include "QB_Env.h"
#include "QB_FileEx.h"
#include "QB_Map.h"
#include "QB_String.h"
#include "QB_UserID.h"

#include <cstdint>

struct ZV_DownloadBlock;
struct ZV_EventTarget;
struct ZV_DownloadDataRequest;
struct ZV_DownloadResponse;

using ZV_DownloadMap = QB_Map<QB_UserID, ZV_FileDownloadInfo, QB_HashUserID>;

// Waits of the timer, in milliseconds. A server looks at a file that has
// stalled after the first; a client lets a resting download stop counting
// as busy after the second, and reports its data link idle when nothing has
// been busy for the third.
constexpr uint32_t ZV_SERVER_STALL_MS = 20000;
constexpr uint32_t ZV_CLIENT_STALL_MS = 15000;
constexpr uint32_t ZV_IDLE_WAIT_MS = 15000;

// The host's millisecond tick, which transfers and waits are timed by.
inline uint32_t ZV_Now()
{
    return QB_GetEnv()->GetTickCount();
}

class ZV_FileShareSession
{
public:
    ZV_FileShareSession(ZV_SessionOwner* lpMgr, const char* szStorePath);
    virtual ~ZV_FileShareSession();
    ZV_FileShareSession(const ZV_FileShareSession&) = delete;
    ZV_FileShareSession& operator=(const ZV_FileShareSession&) = delete;

    // The slots, in their fixed order. The manager calls the first five; the
    // handlers of the PDUs behind them are the dispatch's (HandlePdu), and
    // private.
    virtual uint32_t HandlePdu(ConfPduData* lpCpd);
    virtual uint32_t OnSend(ConfPduData* lpCpd);
    virtual void OnTimer(uint32_t ulTick);
    virtual uint32_t OnConnect(uint32_t ulArg1, uint32_t ulArg2, uint32_t ulArg3);
    virtual uint32_t OnDisconnect(const QB_UserID* lpPeer, uint32_t ulConn, uint16_t usConnType);

private:
    virtual uint32_t HandleUploadRequest(ConfPduData* lpCpd);
    virtual uint32_t HandleUploadResponse(ConfPduData* lpCpd);
    virtual uint32_t HandleUploadFinishResponse(ConfPduData* lpCpd);
    virtual uint32_t HandleDownloadRequest(ConfPduData* lpCpd);
    virtual uint32_t HandleDownloadResponse(ConfPduData* lpCpd);
    virtual uint32_t HandleDownloadDataRequest(ConfPduData* lpCpd);
    virtual uint32_t HandleDownloadDataResponse(ConfPduData* lpCpd);
    virtual uint32_t HandleSetRightRequest(ConfPduData* lpCpd);
    virtual uint32_t HandleDelDownloadRequest(ConfPduData* lpCpd);
    virtual uint32_t HandleDelDownloadResponse(ConfPduData* lpCpd);
    virtual uint32_t HandleProgressingRequest(ConfPduData* lpCpd);
    virtual uint32_t HandleProgressingResponse(ConfPduData* lpCpd);
    virtual uint32_t HandleIsStopDownloadRequest(ConfPduData* lpCpd);
    virtual uint32_t HandleIsStopUploadRequest(ConfPduData* lpCpd);
    virtual uint32_t HandleIsStopUploadResponse(ConfPduData* lpCpd);
    virtual uint32_t HandleUploadErrorRequest(ConfPduData* lpCpd);
    virtual uint32_t HandleUploadErrorResponse(ConfPduData* lpCpd);
    virtual uint32_t HandleNoticeDelDownloadInfoRequest(ConfPduData* lpCpd);
    virtual uint32_t SessionReserved0(ConfPduData* lpCpd);
    virtual uint32_t SessionReserved1(ConfPduData* lpCpd);

public:
    // ---- what the manager asks of a session, by road. Nothing else of it
    // is public: what only its own sources use is below, and tests reach
    // that through ZV_FileShareSessionPeer.

    // The file: its key, its records, how far it is known to have come.
    uint16_t FileID() const { return m_usFileID; }
    // Server: the stored file's record; client: the copy the server's list
    // delivered (the client's view of the file is BriefInfo).
    const ZV_FileUploadInfo& FileInfo() const { return m_FileInfo; }
    // Client: the file as the server announced it.
    const ZV_FileBriefInfo& BriefInfo() const { return m_BriefInfo; }
    // The download this node itself performs: a client's, or a relay's.
    const ZV_FileDownloadInfo& LocalDownload() const { return m_LocalDownload; }
    uint32_t MaxPos() const { return m_ulMaxPos; }
    void RaiseMaxPos(uint32_t ulPos)
    {
        if (ulPos > m_ulMaxPos)
            m_ulMaxPos = ulPos;
    }
    // The conference's folder: m_sStorePath, the conference id, a backslash.
    QB_StringW GetConfDir() const;
    // A stored file of the conference: a plain name inside GetConfDir, or
    // empty when there is no such place.
    QB_StringW GetStoredPath(const QB_StringU8& sName) const;
    // Whether the local user may see a file described by `brief`.
    bool IsFileVisible(const ZV_FileBriefInfo& brief) const;
    // Whether the local user shared this file.
    bool IsLocalCreator() const;
    // Whether `id` is homed on this server.
    static bool IsLocalUser(IZV_ConfHost* lpConf, const QB_UserID& id);

    // ---- adding a file (add/ZV_FileShareSession_Add.cpp). The manager makes
    // the session and hands it the PDU that announced the file.
    uint32_t HandleAddRequest(ConfPduData* lpCpd);
    uint32_t HandleAddResponse(ConfPduData* lpCpd);
    // Server: the stored name, the empty stored file and the catalogue row;
    // sPath gets the stored file's full path. False when the row could not
    // be saved (it is then tried again on the timer).
    bool InitSrvAddFileInfo(QB_StringW& sPath, IZV_ConfHost* lpConf, uint16_t usFileID, const QB_StringW& sFolder,
                            const ZV_FileBriefInfo& brief);
    // Client: the file as the server announced it; the creator's client
    // opens its own file and, if asked, starts the upload. 0 or 60.
    uint32_t InitCltAddFileInfo(IZV_ConfHost* lpConf, uint16_t usFileID, uint32_t ulPos, const ZV_FileBriefInfo& brief,
                                uint8_t bStartUpload);
    // Client: the server announced again the file this session holds; the
    // description is the server's, the transfers stay as they stand.
    void ApplyAnnouncedAgain(const ZV_FileBriefInfo& brief, uint32_t ulPos);
    // An add that threw takes back what it made: on a server the stored
    // file and the row, once the stored name was chosen.
    void UndoAdd();

    // ---- the upload (upload/); the user side's part on the creator's client
    // The start marker (bStart 1) of FsUpload, and the blocks of the pump.
    uint32_t SendUploadRequest(uint32_t ulConn, uint16_t usFileID, const QB_UserID* pUser, uint32_t ulFloodSeq,
                               uint8_t bStart, uint32_t ulLen, const uint8_t* pData, uint32_t ulPos);
    // Event 3008.
    void NotifyUploadProgress(uint16_t usFileID, double dPercent);
    // The creator's upload starts again from the beginning.
    void StartLocalUpload();
    // An upload begun and not complete stops, or goes on.
    void StopLocalUpload(bool bStop);
    // A stopped upload sends no block on a client and takes none on a server.
    bool IsUploadStopped() const { return m_bStopUpload; }
    void SetUploadStopped(bool bStopped) { m_bStopUpload = bStopped; }
    // Client: the user withdrew the share; the local file closes and the
    // pump reads no more of it.
    void WithdrawLocalShare();
    // Client: where the upload reads next.
    uint32_t ReadPos() const { return m_ulReadPos; }
    // Server: every byte of the file is stored, here or where a linked
    // server said so.
    bool IsUploadDone() const { return m_bUploadDone; }
    void SetUploadDone(bool bDone) { m_bUploadDone = bDone; }
    // Client: the server's notice of the file's state (8052).
    void TakeNoticedState(uint16_t usState);

    // ---- the download (download/); the user side's part on a client
    uint32_t SendDownloadRequest(uint32_t ulConn, uint16_t usFileID, const QB_UserID* pUser, uint32_t ulFloodSeq,
                                 const QB_StringU8& sPath, uint32_t ulPos, uint8_t bFromServer, uint8_t bFlooded);
    uint32_t SendDownloadResponse(uint32_t ulConn, uint16_t usFileID, uint32_t ulResult, uint16_t usFileID2,
                                  const QB_UserID* pUser, const ZV_FileDownloadInfo* pInfo);
    // 8012, the downloader's statement of where it stands, which asks for
    // blocks from there; the next block that does not fit asks once more.
    uint32_t AskForBlocks(uint32_t ulConn, uint16_t usFileID, const QB_UserID& user,
                          const ZV_FileDownloadInfo& download);
    // 8010: the server drops pUser's entry. A download that cannot start
    // sends it, as do the operations that give a download up.
    uint32_t SendDelDownloadRequest(uint32_t ulConn, uint16_t usFileID, const QB_UserID* pUser, uint32_t ulFloodSeq);
    // Client: the one download answer this session will take is one for
    // sPath from its start; sBase is the part of its folder that stood when
    // the user asked, which alone is followed as it stands.
    void ExpectDownload(const QB_StringU8& sPath, const QB_StringW& sBase)
    {
        m_sAskedPath = sPath;
        m_ulAskedPos = 0;
        m_bDownloadAsked = true;
        m_sAskedBase = sBase;
        m_bAskedBase = true;
    }
    // Event 3002.
    void NotifyDownloadState(uint32_t ulResult, uint16_t usFileID, const ZV_FileDownloadInfo& download,
                             double dPercent);
    // Client: the local download file opened, made only if bMayCreate, and
    // its length; 0 or 60. A link planted at the path is not followed.
    uint32_t MeasureLocalFile(const QB_StringW& sPath, bool bMayCreate, uint32_t& ulSize);
    // Client: the local download file cut to nothing; false when it could not be.
    bool EmptyLocalFile();
    void SetLocalDownload(const ZV_FileDownloadInfo& info);
    // The download ends here: back to no position and no state; bForget
    // also forgets the file it was written to.
    void ResetLocalDownload(bool bForget);
    // A download not finished stops, or runs from now on.
    void StopLocalDownload();
    void ResumeLocalDownload();
    // Closes the local file, or a relay's fetched one, if it is open.
    void CloseFile()
    {
        if (m_File.IsOpen())
            m_File.Close();
    }

    // ---- stop and resume (control/)
    uint32_t SendIsStopDownloadRequest(uint32_t ulConn, uint16_t usFileID, const QB_UserID* pUser,
                                       uint32_t ulFloodSeq, uint8_t bStop);
    uint32_t SendIsStopUploadRequest(uint32_t ulConn, uint16_t usFileID, const QB_UserID* pUser, uint32_t ulFloodSeq,
                                     uint8_t bStop, uint32_t ulPos);
    // Server: 8016 or 8017 to the other servers, with the flood's number.
    void FloodStopAsk(uint16_t usPdu, const QB_UserID& user, uint32_t ulFloodSeq, uint8_t bStop, uint32_t ulPos);

    // ---- rights (rights/ZV_FileShareSession_Entries.cpp)
    uint32_t SendSetRightRequest(uint32_t ulConn, uint16_t usFileID, const QB_UserID* pUser, uint8_t bPublic,
                                 const QB_Array<QB_UserID>& arrAdd, const QB_Array<QB_UserID>& arrRemove);
    uint32_t SendSetRightResponse(uint32_t ulConn, uint32_t ulResult, uint16_t usFileID, const QB_UserID* pUser,
                                  const ZV_FileBriefInfo* pBrief, uint32_t ulMaxPos, bool bToAll);
    // Server: a change of rights on this file, its downloaders who lost the
    // file dropped, and the new description to every client.
    void ApplyRights(uint8_t bPublic, const QB_Array<QB_UserID>& arrAdd, const QB_Array<QB_UserID>& arrRemove);
    // Client: the file's new description.
    void SetBriefInfo(const ZV_FileBriefInfo& brief);
    // The local user's change of this file's rights, as the client sees it
    // until the server's answer.
    void ChangeLocalRights(bool bPublic, const QB_Array<QB_UserID>& arrAdd, const QB_Array<QB_UserID>& arrRemove);

    // ---- the lists that bring a client in step (lists/ZV_FileShareSession_Lists.cpp)
    // Server: this file's record and furthest position, appended for user.
    uint32_t CollectUploadInfo(QB_Array<ZV_FileUploadInfo>& arrInfo, QB_Array<uint32_t>& arrMaxPos,
                               const QB_UserID& user);
    // Client: takes the server's record; true when the local user may see the file.
    bool MergeCltFileInfo(const ZV_FileUploadInfo& entry, uint32_t ulMaxPos);
    // Server: the download entry of a user, or null; a new or changed one;
    // one that goes; one that rests until its downloader asks again.
    const ZV_FileDownloadInfo* FindDownloadEntry(const QB_UserID& user) const { return m_mapDownload.Find(user); }
    // True when a linked server's download record is of another file than
    // the one this session holds under the same FileID.
    bool NamesOtherFile(const ZV_FileDownloadInfo& record) const;
    void SetDownloadInfo(const QB_UserID& user, const ZV_FileDownloadInfo& info);
    void RemoveDownloadInfo(const QB_UserID& user);
    void RestDownloader(const QB_UserID& user);

    // ---- a linked server's list of its files (filelist/ZV_FileShareSession_Reconcile.cpp)
    // A file this server hears of first from a peer's list, as listed.
    void InitPeerFileInfo(uint16_t usFileID, const ZV_FileUploadInfo& entry);
    // Sets the file against this server's catalogue row and stored bytes,
    // and fetches from the peer that sent lpCpd what is missing. sSection
    // gets the row's section, empty for a file new here. 0, or 60 when the
    // stored file or its folder cannot be opened or made.
    uint32_t ReconcileFileInfo(const ConfPduData* lpCpd, QB_StringW& sSection);
    // Server: every download record of this file, appended.
    void CollectDownloadEntries(QB_Array<ZV_FileDownloadInfo>& arrDownload) const;
    // True once after each loss of a server command link: the file is to
    // be set against a peer's list again.
    bool MarkSynced();
    // A catalogue row taken back at start ("RestoreCatalog"), measured
    // against its stored file; false when the file is not there or the row
    // names none.
    bool RestoreStoredFile(const ZV_FileUploadInfo& row);
    // Closes the stored file and the fetched one.
    void CloseStoredFiles();

private:
    friend class ZV_FileShareSessionPeer;

    // The host itself, for what a session sends and for the host's own word
    // on roles, users, links and floods: the owner would only pass each of
    // these on as it is, so a session asks the host, through this one member;
    // what belongs to the conference as a whole it asks of its owner.
    IZV_ConfHost* Conf() const;
    // The user side's sink, and the host it is told raised an event.
    ZV_EventTarget Events() const;

    // ---- the add (add/)
    // sName, or sName with "(n)" before its last dot, whichever the folder
    // does not hold yet.
    static void MakeUniqueFileName(const QB_StringW& sFolder, const QB_StringW& sName, QB_StringW& sDst);
    // A name that can only ever mean a file directly inside sFolder, made
    // from whatever a peer sent as the shared name.
    static QB_StringW MakeStoredFileName(const QB_StringW& sFolder, const QB_StringW& sName);
    // The server's row of this file in the catalogue takes m_FileInfo. A
    // failed save leaves m_bCatalogDirty set, and the timer saves again.
    bool SaveToCatalog();
    // The empty file that takes a new row's stored name on a server. The
    // row is kept when it cannot be made: one that is still missing leaves
    // m_bStoreMissing set, and the timer makes it.
    void MakeEmptyStore();
    // An add refused after its row was made takes the row and the empty
    // stored file back out.
    void UndoServerAdd(const QB_StringW& sPath);

    // ---- the upload (upload/ZV_FileShareSession_Upload.cpp)
    // The creator's client's pump, which OnSend drives.
    void PumpUpload(ConfPduData* lpCpd);
    uint32_t SendUploadResponse(uint32_t ulConn, uint16_t usFileID, uint32_t ulResult, uint16_t usFileID2,
                                const QB_UserID* pUser, uint32_t ulFloodSeq, uint32_t ulPos);
    // 8052 for all clients: a transfer of usFileID changed state.
    uint32_t SendFileStateNotice(uint16_t usFileID, uint16_t usState, uint8_t bUpload);
    // Creator's client: a local file that cannot be read ends the upload.
    bool EndIfServerHoldsAll();
    void FailLocalRead();
    void ApplyUploadAnswer(uint32_t ulResult, uint16_t usFileID, uint32_t ulPos);
    // Server side of the upload road.
    void PassOnUploadStart(const QB_UserID& user, uint32_t ulFloodSeq);
    void ApplyStartMarker(const QB_UserID& user, uint32_t ulFloodSeq);
    void WriteUploadBlock(uint32_t ulConn, uint32_t ulResult, const QB_UserID& user, uint32_t ulPos, uint32_t ulLen,
                          const uint8_t* pData);
    uint32_t OpenStoreFile();
    void StoreUploadedBlock(const QB_UserID& user, uint32_t ulPos, uint32_t ulLen);
    void FinishUpload();
    void FloodUploadFinish(const QB_UserID& server, uint32_t ulFloodSeq);
    // Positions run to 4 GB while a seek takes 31 bits.
    static bool SeekTo(QB_FileEx& file, uint32_t ulPos);

    // ---- the download (download/ZV_FileShareSession_Download.cpp for the
    // server's side, ZV_FileShareSession_Fetch.cpp for the downloader's)
    uint32_t SendDownloadDataRequest(uint32_t ulConn, uint16_t usFileID, const QB_UserID& user,
                                     const ZV_FileDownloadInfo& download);
    uint32_t SendDownloadDataResponse(uint32_t ulConn, uint16_t usFileID, uint32_t ulResult, uint16_t usFileID2,
                                      const QB_UserID* pUser, uint32_t ulPos, uint32_t ulLen, const uint8_t* pData);
    // The server's pump for one downloader, which OnSend drives, and the kick
    // of those that wait at a position the upload has just passed.
    void PumpDownload(ConfPduData* lpCpd, const QB_UserID& peer);
    void SendNextBlocks(ConfPduData* lpCpd, const QB_UserID* pUser, ZV_FileDownloadInfo* pEntry);
    void WakeDownloaders(uint32_t ulPos);
    // Server side of the download road.
    void FloodDownloadRequest(const QB_UserID& user, uint32_t ulFloodSeq, const QB_StringU8& sPath, uint32_t ulPos);
    uint32_t StartUploadOnDemand(const QB_UserID& downloader);
    void FloodDownloadStop(const QB_UserID& user, bool bStopped);
    ZV_FileDownloadInfo* ReadmitDownloader(const ZV_DownloadDataRequest& ask);
    void KickDownloadConn(uint32_t ulConn);
    uint32_t SendBlockPdu(const ConfPduData* lpCpd, ZV_PduBuffer& pdu);
    uint32_t SendDownloadBlock(const ConfPduData* lpCpd, uint32_t ulResult, const QB_UserID& user, uint32_t ulPos,
                               uint32_t ulLen, const uint8_t* pData);
    void FloodFinishedDownload(const QB_UserID& user, const ZV_FileDownloadInfo& entry);
    // Downloader side: a client, or a relay server fetching into its store.
    // A client's check of 8015 against its user's FsDownload; 0 or 90.
    uint32_t CheckDownloadAnswer(uint16_t usFileID, const ZV_FileDownloadInfo& record);
    uint32_t OpenDownloadTarget(const ZV_FileDownloadInfo& record);
    uint32_t OpenRelayTarget(ZV_FileDownloadInfo& record);
    uint32_t OpenDownloadFile(const QB_StringW& sPath, uint32_t ulPos, uint32_t ulLength, uint32_t ulMode);
    uint32_t CutDownloadFile(uint32_t ulPos);
    void ReportDownloadAnswer(const ConfPduData* lpCpd, uint32_t ulResult, uint16_t usFileID, const QB_UserID& user,
                              const ZV_FileDownloadInfo& record);
    void ApplyDownloadAnswer(const ConfPduData* lpCpd, ZV_DownloadResponse& answer);
    uint32_t WriteDownloadBlock(const ConfPduData* lpCpd, QB_ByteStream& stream, ZV_DownloadBlock& block);
    // True when the position has reached the file's length.
    bool AdvanceLocalDownload(uint32_t ulCount);
    void OnClientBlock(uint16_t usFileID, bool bFinished);
    void OnRelayBlock(uint16_t usFileID, const QB_UserID& user, uint32_t ulBlockPos, uint32_t ulMaxPos,
                      bool bFinished);
    void OpenRelayServedFile();
    void FailDownload(const ConfPduData* lpCpd, uint32_t ulResult, uint16_t usFileID, const QB_UserID& user);
    void FailRelayDownload(const ConfPduData* lpCpd, uint32_t ulResult, uint16_t usFileID, const QB_UserID& user);

    // ---- stop, resume, progress, errors and the timer
    // (control/ZV_FileShareSession_Control.cpp)
    uint32_t SendIsStopUploadResponse(uint32_t ulConn, uint16_t usFileID, uint32_t ulResult, uint16_t usFileID2,
                                      const QB_UserID* pUser, uint8_t bStop, uint32_t ulPos);
    uint32_t SendUploadErrorRequest(uint32_t ulConn, uint16_t usFileID, const QB_UserID* pUser, uint32_t ulFloodSeq,
                                    uint32_t ulPos);
    uint32_t SendUploadErrorResponse(uint32_t ulConn, uint16_t usFileID, uint32_t ulResult, uint16_t usFileID2);
    uint32_t SendProgressing(uint32_t ulConn, uint16_t usFileID, const QB_UserID* pUser, uint32_t ulPos,
                             bool bThrottle);
    // Server side: the two halves of 8017.
    void StopUpload(const QB_UserID& user, uint32_t ulPos);
    void ResumeUpload(const ConfPduData* lpCpd, const QB_UserID& user, uint32_t ulFloodSeq);
    // 8022 on a server link makes a relay fetch; on a client it is progress.
    void PullFromUpstream(const ConfPduData* lpCpd, const QB_UserID& user);
    void ApplyProgress(uint16_t usFileID, uint32_t ulPos);
    // The timer by role; a stalled server file nudges its uploader or asks
    // the other servers whether they have more.
    void OnServerTimer();
    void NudgeUploader();
    void AskServersForMore();
    void OnClientTimer();
    void AskAgainIfStalled(uint32_t ulNow);

    // ---- the creator's client in step with the server's list (lists/)
    void MergeCreatorState(bool bNew, uint16_t usOldState, uint32_t ulWritePos);

    // ---- a linked server's list (filelist/)
    uint32_t CompareStoredFile(const QB_StringW& sFolder, const ZV_FileUploadInfo& row, ZV_FileBriefInfo& brief,
                               bool& bFetch);
    uint32_t NameNewStoredFile(const QB_StringW& sFolder, const ZV_FileBriefInfo& brief, bool& bFetch);
    void FetchFromPeer(const ConfPduData* lpCpd);

    // ---- the events to the user side that a session raises
    // (core/ZV_FileShareSession_Notify.cpp); 3002 and 3008 are above.
    void NotifyTransferError(uint32_t ulResult, uint16_t usFileID);
    void NotifyDownloadFinished(uint32_t ulResult, uint16_t usFileID);
    void NotifyDownloadProgress(uint32_t ulResult, uint16_t usFileID, double dPercent, uint32_t ulUsedTime);
    void NotifyStopResult(uint32_t ulResult, uint16_t usFileID, uint8_t bStop);
    void NotifyTransferState(uint8_t bUpload, uint16_t usFileID, uint16_t usState);

    // The file's records, then the server's store, then the client's side.
    uint16_t m_usFileID = ZV_NO_FILEID;
    ZV_FileUploadInfo m_FileInfo;
    QB_FileEx m_ServerFile;
    QB_StringA m_sStorePath;
    bool m_bSynced = true;
    bool m_bPulling = false;
    bool m_bUploadDone = false;
    bool m_bResyncPending = false;
    uint32_t m_ulLastIoTick = 0;
    uint32_t m_ulMaxPos = 0;
    uint32_t m_ulProgress = 0;
    ZV_DownloadMap m_mapDownload{17};
    ZV_FileBriefInfo m_BriefInfo;
    ZV_FileDownloadInfo m_LocalDownload;
    QB_FileEx m_File;
    bool m_bStopUpload = false;
    bool m_bDownloadFailed = false;
    uint32_t m_ulReadPos = 0;
    ZV_SessionOwner* m_lpMgr;
    bool m_bCatalogDirty = false;
    bool m_bStoreMissing = false;
    // The target and start of the user's last FsDownload, until its answer
    // came.
    QB_StringU8 m_sAskedPath;
    uint32_t m_ulAskedPos = 0;
    bool m_bDownloadAsked = false;
    // The folders of that target that stood when the user asked; a download
    // asked again after a restart has only its own folder.
    QB_StringW m_sAskedBase;
    bool m_bAskedBase = false;
};
