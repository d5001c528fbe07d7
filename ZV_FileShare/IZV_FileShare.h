// IZV_FileShare.h: everything a conference host needs to load and drive the
// file-sharing module, and everything the module needs of the host.
//
// The module is a shared library with five exports. The host asks it for its
// interface name, makes one manager per conference with zvCreateInstance,
// writes its own two pointers into the returned object, and from then on
// hands it PDUs, link changes, host events and timer ticks through
// IZV_ConfModule. The user side reaches the manager's file operations
// through IZV_FileShareMgr, obtained with GetInterface.
//
// Every interface here is a table of virtual operations whose order is part
// of the contract: operations are only ever added at the end. Wide text is
// UTF-16 (char16_t); the module's records and the host's user names are
// UTF-8. Arrays cross the boundary as a pointer and a count.
//
// The header stands alone: it compiles as C++17 or later with the two base
// headers installed beside it, and a host links libroomcrate.so and nothing
// else. docs/host-guide.md tells the whole contract.
//
// Threads. The module starts none and calls back only on the thread that
// called it. The host makes the calls of IZV_ConfModule one at a time, never
// two at once on one manager nor nested in a send (a send queues, it does not
// deliver). The Fs operations of the user side reach the same sessions
// without a lock, so the user side calls them between the host's calls, on
// the host's thread or under the same serialisation. Events reach the sink
// on the thread of the call that raised them, from inside that call; the
// sink records them and acts after the call returns. zvCreateInstance and
// zvDestroyInstance may come from any thread. ROOMCRATE_HOME is read at each
// call and belongs to the whole process.
//
// Trace lines. Each PDU handler writes "recv a NAME" and CR LF as it starts,
// on standard output, or appended to the file that the environment variable
// ROOMCRATE_TRACE names; that one too is read at each line.
#pragma once

#include "QB_UserID.h"

#include <cstdint>

// ---------------------------------------------------------------------------
// Numbers of the protocol

// Link types (conn_type).
enum : uint16_t
{
    zvConfClientTypeCommand = 0,
    zvConfClientTypeData = 4,
    zvConfServerTypeCommand = 0x1000,
    zvConfServerTypeData = 0x1004,
};

// A connection number that names no connection.
constexpr uint32_t zvConnNone = 0xFFFFFFFFu;

// PDU numbers. Payloads are the module's business; the host only carries them.
enum : uint16_t
{
    // Sent by the module on a data link, never delivered: it asks the host to
    // call OnSend for that link.
    PDU_CONF_FS_KICK = 257,

    PDU_CONF_FS_ADD_REQUEST = 8001,
    PDU_CONF_FS_ADD_RESPONSE = 8002,
    PDU_CONF_FS_SET_RIGHT_REQUEST = 8003,
    PDU_CONF_FS_SET_RIGHT_RESPONSE = 8004,
    PDU_CONF_FS_UPLOAD_REQUEST = 8005,
    PDU_CONF_FS_UPLOAD_RESPONSE = 8006,
    PDU_CONF_FS_UPLOAD_FINISH_Response = 8007,
    PDU_CONF_FS_DEL_UPLOAD_REQUEST = 8008,
    PDU_CONF_FS_DEL_UPLOAD_RESPONSE = 8009,
    PDU_CONF_FS_DEL_DOWNLOAD_REQUEST = 8010,
    PDU_CONF_FS_DEL_DOWNLOAD_RESPONSE = 8011,
    PDU_CONF_FS_DOWNLOAD_DATA_REQUEST = 8012,
    PDU_CONF_FS_DOWNLOAD_DATA_RESPONSE = 8013,
    PDU_CONF_FS_DOWNLOAD_REQUEST = 8014,
    PDU_CONF_FS_DOWNLOAD_RESPONSE = 8015,
    PDU_CONF_FS_IS_STOP_DOWNLOAD_REQUEST = 8016,
    PDU_CONF_FS_IS_STOP_UPLOAD_REQUEST = 8017,
    PDU_CONF_FS_IS_STOP_UPLOAD_RESPONSE = 8018,
    PDU_CONF_FS_PROGRESSING_REQUEST = 8021,
    PDU_CONF_FS_PROGRESSING_RESPONSE = 8022,
    PDU_CONF_GET_UPLOAD_SESSION_LIST_REQUEST = 8027,
    PDU_CONF_GET_UPLOAD_SESSION_LIST_RESPONSE = 8028,
    PDU_CONF_GET_DOWNLOAD_SESSION_LIST_REQUEST = 8029,
    PDU_CONF_GET_DOWNLOAD_SESSION_LIST_RESPONSE = 8030,
    PDU_CONF_GET_FILE_LIST_REQUEST = 8031,
    PDU_CONF_GET_FILE_LIST_RESPONSE = 8032,
    PDU_CONF_FS_UPLOAD_ERROR_REQUEST = 8035,
    PDU_CONF_FS_UPLOAD_ERROR_RESPONSE = 8036,
    PDU_CONF_FS_NOTICE_DEL_DOWNLOAD_INFO_REQUEST = 8037,
    PDU_CONF_FS_SET_FILES_RIGHT_REQUEST = 8040,
    PDU_CONF_FS_SET_FILES_RIGHT_RESPONSE = 8041,
    PDU_CONF_FS_FILE_STATE_NOTICE = 8052,
    PDU_CONF_FS_RESERVED0 = 8053,
    PDU_CONF_FS_RESERVED1 = 8054,
    PDU_CONF_FS_ADD_FILES_REQUEST = 8055,
    PDU_CONF_FS_ADD_FILES_RESPONSE = 8056,
};

// Host events, the first argument of IZV_ConfModule::OnEvent.
enum : uint16_t
{
    zvConfEventUserLeave = 4,    // a2: const QB_UserID* of the user
    zvConfEventServerLink = 11,  // a2: connection of the new server link
    zvConfEventRightChange = 14, // a1: non-zero when files become visible; a2: const QB_UserID*
    zvConfEventUserEnter = 21,   // a2: const QB_UserID* of the user
};

// Events to the user side (IZV_ConfSink::OnConfEvent). The data begins with
// the event number as a u16, little-endian.
enum : uint16_t
{
    zvFsEventFileAdded = 3000,
    zvFsEventTransferError = 3001,
    zvFsEventDownloadState = 3002,
    zvFsEventRightChanged = 3003,
    zvFsEventFileHidden = 3004,
    zvFsEventFileGone = 3005,
    zvFsEventDownloadFinished = 3007,
    zvFsEventUploadProgress = 3008,
    zvFsEventDownloadProgress = 3009,
    zvFsEventStopResult = 3010,
    zvFsEventTransferState = 3011,
    zvFsEventBusy = 3012,
    zvFsEventFilesAdded = 3013,
};

// Result codes of the Fs operations, of the ulResult fields of PDUs and of
// the events. ZV_ResultText.h says each in plain words.
enum : uint32_t
{
    zvResultOk = 0,
    zvResultException = 1,       // an Fs operation caught an exception
    zvResultNoHandler = 5,       // HandlePdu: no handler takes this PDU number
    zvResultNoConfig = 6,        // Initialize: "confsrv.ini" could not be opened
    zvResultNoConnection = 16,   // no connection of the needed type
    zvResultNoHost = 32,         // FsFilesAdd: no host pointer
    zvResultNotInConf = 33,      // the user is not in the conference
    zvResultNotEntitled = 40,    // the user is not entitled
    zvResultNoCreatorLink = 56,  // the file's creator has no link object
    zvResultCannotOpen = 60,     // a file could not be opened, or a folder made
    zvResultCannotAccess = 61,   // a file could not be read, written or positioned
    zvResultCannotDelete = 62,   // a local file could not be deleted
    zvResultUnknownFile = 82,    // the FileID has no session
    zvResultReservedFile = 83,   // the FileID is reserved and has no session yet
    zvResultNoFileID = 88,       // no free FileID
    zvResultUntrusted = 90,      // a server's PDU would make this client read a file its
                                 // user did not share, or write where the user did not ask
    zvResultOverLimit = 91,      // an add would pass the files or bytes one user may share
                                 // ("MaxFilesPerUser", "MaxBytesPerUser" of "confsrv.ini")
};

// Module type (GetModuleType) and the interface type of GetInterface.
constexpr uint16_t zvModuleTypeFileShare = 4;
constexpr uint16_t zvInterfaceFileShareMgr = 4;

// Name of the one interface the module implements, NUL included: 21 bytes.
#define ZV_FILESHARE_INTERFACE_NAME "IZV_FileShareMgr 1.0"

// Role bit of the host's user record: such a user sees and deletes every file.
constexpr uint16_t zvUserRolePrivileged = 1;
// Flag bit of the host's user record: the user is coming back.
constexpr uint32_t zvUserFlagReturning = 0x40000000u;

// ---------------------------------------------------------------------------
// Records

// A PDU as the host hands it over. OnSend fills only the first five fields.
struct ConfPduData
{
    uint32_t ulUserMain;  // peer: the client for a client link, the server for a server link
    uint32_t ulUserSub;
    uint32_t ulConn;      // the connection it came in on; answers go back on it
    uint32_t ulReserved0;
    uint16_t conn_type;
    uint16_t usPdu;
    uint32_t ulReserved1;
    uint32_t ulReserved2;
    uint32_t ulReserved3;
    uint32_t ulLen;
    const uint8_t* pData; // valid for the duration of the call only
};

// The host's record of a user, read-only to the module.
struct ZV_ConfUserInfo
{
    uint32_t ulHomeServer;  // equal to GetLocalServerID(): a local user
    const char* szName;     // UTF-8, NUL-terminated
    uint16_t usRole;        // zvUserRolePrivileged or 0
    uint32_t ulFlags;       // zvUserFlagReturning
};

// A date-time as the records carry it: day number and ticks of 1/10000 s.
struct ZV_FsDateTime
{
    uint32_t ulDate;
    uint32_t ulTime;
};

// Flat description of a known file, filled by FsGetFileInfoByFileID. A text
// always ends in a NUL inside its field; one that does not fit is cut at the
// last whole character that leaves room for it, never inside a surrogate
// pair. A null lpInfo gives zvResultException and fills nothing.
struct ZV_FsFileInfo
{
    uint32_t ulCreatorSub;
    uint32_t ulCreatorMain;
    char16_t szCreatorName[256];
    char16_t szFilePath[260];
    char16_t szFileOldName[260];
    char16_t szFileType[260];
    uint32_t ulFileLenth;
    ZV_FsDateTime dtShareTime;
    ZV_FsDateTime dtModifyTime;
    uint16_t usFileState;
};

// ---------------------------------------------------------------------------
// What the host provides

class IZV_ConfLink
{
public:
    // Not called by the module; the slot belongs to the host.
    virtual uint32_t LinkReserved0() = 0;
    // The connection of the given type on this link, or zvConnNone.
    virtual uint32_t GetConn(uint16_t usConnType) = 0;

protected:
    ~IZV_ConfLink() = default;
};

class IZV_ConfHost
{
public:
    virtual uint32_t GetConfID() = 0;  // low 16 bits used
    virtual uint32_t GetClientCount() = 0;
    // A client's user; a server answers QB_UserID(GetLocalServerID(), 0).
    virtual const QB_UserID* GetLocalUserID() = 0;
    virtual uint32_t GetLocalServerID() = 0;
    virtual bool IsServerMode() = 0;
    virtual bool IsClientMode() = 0;
    virtual bool CanShareFiles(const QB_UserID* lpUser) = 0;
    // The FileIDs this server gives out; a client answers its server's range.
    virtual uint16_t GetFileIDMin() = 0;
    virtual uint16_t GetFileIDMax() = 0;
    virtual uint32_t GetUserConn(const QB_UserID* lpUser, uint16_t usConnType) = 0;
    virtual uint32_t GetServerConn(uint32_t ulServerID, uint16_t usConnType, uint32_t ulReserved) = 0;
    virtual IZV_ConfLink* GetUserLink(const QB_UserID* lpUser) = 0;
    virtual IZV_ConfLink* GetServerLink() = 0;  // client: the link to its server
    // The record and its name stay valid at least until the call into the
    // module that asked for them returns.
    virtual const ZV_ConfUserInfo* GetUser(const QB_UserID* lpUser) = 0;

    // Sends copy the data before they return. The two flags belong to the
    // host; the module only chooses their values. A send that cannot be made
    // answers non-zero; the module hands that up as the result of the user's
    // operation that caused it. SendPdu on a server connection carries no
    // conference word: it belongs to the conference of the manager that sent it.
    virtual uint32_t SendPdu(uint32_t ulConn, uint16_t usPdu, const uint8_t* pData, uint32_t ulLen, uint8_t bFlag1,
                             uint8_t bFlag2) = 0;
    // To every client of this server in this conference but the one on
    // ulSkipConn (zvConnNone: all). Other servers tell their own clients.
    virtual uint32_t SendPduToGroup(uint32_t ulSkipConn, uint32_t ulReserved, uint16_t usPdu, const uint8_t* pData,
                                    uint32_t ulLen, uint8_t bFlag1, uint8_t bFlag2) = 0;
    // On that server link. The payload starts with the conference word.
    virtual uint32_t SendPduOnLink(uint32_t ulConn, uint16_t usPdu, const uint8_t* pData, uint32_t ulLen,
                                   uint8_t bFlag1, uint8_t bFlag2) = 0;
    // On the data link to the server ulServerMain. Starts with the conference word.
    virtual uint32_t SendPduToServerData(uint32_t ulServerMain, uint16_t usConnType, uint16_t usPdu,
                                         const uint8_t* pData, uint32_t ulLen, uint8_t bFlag1, uint8_t bFlag2) = 0;
    // To every linked server but the one on ulSkipConn. Starts with the conference word.
    virtual uint32_t SendPduToServers(uint32_t ulSkipConn, uint16_t usConnType, uint16_t usPdu, const uint8_t* pData,
                                      uint32_t ulLen, uint8_t bFlag1, uint8_t bFlag2) = 0;
    virtual bool HasServerLinks() = 0;

    // Flood bookkeeping between servers: a fresh sequence (never 0), and
    // whether a request or an answer of that origin and sequence was seen.
    virtual uint32_t NewFloodSeq(const QB_UserID* lpOrigin, uint32_t ulReserved) = 0;
    virtual bool IsFloodSeen(const QB_UserID* lpOrigin, uint32_t ulFloodSeq) = 0;
    virtual bool IsResponseFloodSeen(const QB_UserID* lpOrigin, uint32_t ulFloodSeq) = 0;

protected:
    ~IZV_ConfHost() = default;
};

// The user side. lpConf is the host of the manager that raised the event.
class IZV_ConfSink
{
public:
    virtual void OnConfEvent(IZV_ConfHost* lpConf, uint16_t usEvent, uint32_t ulLen, const uint8_t* pData) = 0;

protected:
    ~IZV_ConfSink() = default;
};

// ---------------------------------------------------------------------------
// What the module provides

// The face that zvCreateInstance returns. The host writes m_lpConf and
// m_lpConfSink straight into it before it calls anything; the module never
// assigns them.
class IZV_ConfModule
{
public:
    IZV_ConfHost* m_lpConf = nullptr;
    IZV_ConfSink* m_lpConfSink = nullptr;  // may stay null: no events then
    uint32_t m_ulReserved = 0;
    uint16_t m_usModuleType = zvModuleTypeFileShare;

    virtual uint16_t GetModuleType() = 0;
    virtual uint32_t Initialize() = 0;
    virtual uint32_t ModuleReserved0() = 0;
    virtual uint32_t CleanData() = 0;
    virtual void ModuleReserved1(uint32_t ulArg1, uint32_t ulArg2) = 0;
    virtual bool ModuleReserved2(uint32_t ulArg) = 0;
    virtual uint32_t HandlePdu(ConfPduData* lpCpd) = 0;
    virtual uint32_t OnSend(ConfPduData* lpCpd) = 0;
    virtual uint32_t OnConnect(const QB_UserID* lpPeer, uint32_t ulConn, uint16_t usConnType, uint32_t ulReserved) = 0;
    virtual uint32_t OnDisconnect(const QB_UserID* lpPeer, uint32_t ulConn, uint16_t usConnType,
                                  uint32_t ulReserved) = 0;
    virtual void OnTimer(uint32_t ulTick) = 0;
    // The arguments are pointer-wide: some events pass a const QB_UserID*.
    virtual uint32_t OnEvent(uint16_t usEvent, uintptr_t a1, uintptr_t a2, uintptr_t a3, uintptr_t a4) = 0;
    // Type zvInterfaceFileShareMgr gives the IZV_FileShareMgr face.
    virtual bool GetInterface(uint16_t usType, void** lppOut) = 0;

protected:
    ~IZV_ConfModule() = default;
};

// The face of the user side. Operations return the result codes of the
// module (0 success, 16 no link, 33 not in the conference, 60 file not
// opened, 82 unknown FileID, ...).
class IZV_FileShareMgr
{
public:
    virtual uint32_t FsAdd(const char16_t* szPath, const QB_UserID* pRight, uint32_t nRight, uint8_t bPublic,
                           uint8_t bStartUpload) = 0;
    virtual uint32_t FsSetRight(uint16_t usFileID, uint8_t bPublic, const QB_UserID* pAdd, uint32_t nAdd,
                                const QB_UserID* pRemove, uint32_t nRemove) = 0;
    virtual uint32_t FsUpload(uint16_t usFileID) = 0;
    virtual uint32_t FsDelUpload(uint16_t usFileID) = 0;
    virtual uint32_t FsDelDownload(uint16_t usFileID, uint8_t bDeleteFile) = 0;
    virtual uint32_t FsDownload(uint16_t usFileID, const char16_t* szLocalPath) = 0;
    virtual uint32_t FsStopDownload(uint16_t usFileID) = 0;
    virtual uint32_t FsResumeDownload(uint16_t usFileID) = 0;
    virtual uint32_t FsStopUpload(uint16_t usFileID) = 0;
    virtual uint32_t FsResumeUpload(uint16_t usFileID) = 0;
    virtual uint32_t FsGetFileInfoByFileID(uint16_t usFileID, ZV_FsFileInfo* lpInfo) = 0;
    // Shares the files ppNames[0..nNames) of the folder szFolder.
    virtual uint32_t FsFilesAdd(const char16_t* szFolder, const char16_t* const* ppNames, uint32_t nNames,
                                const QB_UserID* pRight, uint32_t nRight, uint8_t bPublic, uint8_t bStartUpload) = 0;
    // Hosts never delete the manager themselves: zvDestroyInstance does.
    // (On this compiler's ABI a virtual destructor fills two table entries.)
    virtual ~IZV_FileShareMgr() = default;
    virtual uint32_t FsSetFilesRight(const uint16_t* pFileID, uint32_t nFileID, uint8_t bPublic,
                                     const QB_UserID* pAdd, uint32_t nAdd, const QB_UserID* pRemove,
                                     uint32_t nRemove) = 0;
    virtual void SetSessionBusy(uint8_t bBusy, uint16_t usFileID) = 0;
};

// ---------------------------------------------------------------------------
// The five exports

extern "C" {
bool zvInitialize();
void zvUninitialize();
// Copies the interface name (21 bytes with its NUL) for index 0.
bool zvGetInterfaceName(int32_t nIndex, char* pszBuffer);
// A new manager, or null when the name is not exactly the interface name.
IZV_ConfModule* zvCreateInstance(const char* pszName);
// Ends a manager made by zvCreateInstance; anything else is ignored.
void zvDestroyInstance(IZV_ConfModule* lpModule);
}
