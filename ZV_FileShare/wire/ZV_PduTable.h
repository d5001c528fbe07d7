// ZV_PduTable: every PDU number of the protocol, one row each, and nowhere
// else but the public header: who handles it, the member that does, whether
// it prints a trace line, who may send it to a server, where a client's
// request names the user it is made for, and which answer carries a
// refusal back to the asker.
//
// The rows make the constexpr table that the gate, the trace and the tests
// read, and the two dispatch switches: the manager's (RouteToManager) and
// the session's (HandlePdu) each take the rows of their own handler. So a
// new PDU is one row here and its handler, and it is sent in the hostile
// payloads and traced in the trace scene from then on.
//
// A server takes a client's request only in the name of the user the host
// reports for the client's link, and nothing from a client that only
// servers send; the manager checks both here before any handler runs
// (core/ZV_FileShareMgr_Gate.cpp). A number without a row is taken from no
// client's link, so a new handler cannot be reached from one before its
// row says who may send it.
#pragma once

#include "IZV_FileShare.h"

#include <cstdint>

// Who handles a PDU: the manager itself, the session of the FileID in the
// payload's first u16, or nobody (result 5, and no session is looked for).
enum class ZV_PduHandler : uint8_t
{
    Manager,
    Session,
    Nobody,
};

// The trace line "recv a NAME" that a handler prints as it starts: none
// (data blocks and progress, which come by the thousand), once, or once by
// the manager and again by the session it hands the PDU to.
enum class ZV_PduTrace : uint8_t
{
    None,
    Once,
    Twice,
};

// Who may send a PDU to a server.
enum class ZV_PduSender : uint8_t
{
    Client,  // a client, in its own name; servers pass it on in the client's
    Server,  // only a linked server, or a server answering its clients
    Nobody,  // nothing acts on it, so it goes its way from any link
};

// Where a client's request names the user it acts for.
enum class ZV_UserField : uint8_t
{
    None,             // nowhere this table reads: a server's PDU
    BehindFileID,     // FileID, user, ...
    BehindFileIDs,    // FileID array, user, ... (8040)
    AddRequest,       // 8001: the creator behind the FileID, and again in the description
    AddFilesRequest,  // 8055: the creator first, and again in every description
};

// ZV_PDU_ROWS(ROW) calls ROW(number, handler, member, trace, sender, user,
// answer) once for each number. The answer is the one a refused client
// request gets, with 40; 0 where the request has no answer, and a refusal
// gets none either. The lists a client asks for (8027, 8029) are answered
// only with what there is to list, so a list for another user is not
// answered at all. A row nobody handles names no member (NoMember).
// clang-format off
#define ZV_PDU_ROWS(ROW) \
    ROW(PDU_CONF_FS_ADD_REQUEST, Manager, HandleAddRequest, Twice, Client, AddRequest, PDU_CONF_FS_ADD_RESPONSE) \
    ROW(PDU_CONF_FS_ADD_RESPONSE, Manager, HandleAddResponse, Twice, Server, None, 0) \
    ROW(PDU_CONF_FS_SET_RIGHT_REQUEST, Session, HandleSetRightRequest, Once, Client, BehindFileID, \
        PDU_CONF_FS_SET_RIGHT_RESPONSE) \
    ROW(PDU_CONF_FS_SET_RIGHT_RESPONSE, Manager, HandleSetRightResponse, Once, Server, None, 0) \
    ROW(PDU_CONF_FS_UPLOAD_REQUEST, Session, HandleUploadRequest, None, Client, BehindFileID, 0) \
    ROW(PDU_CONF_FS_UPLOAD_RESPONSE, Session, HandleUploadResponse, Once, Server, None, 0) \
    ROW(PDU_CONF_FS_UPLOAD_FINISH_Response, Session, HandleUploadFinishResponse, Once, Server, None, 0) \
    ROW(PDU_CONF_FS_DEL_UPLOAD_REQUEST, Manager, HandleDelUploadRequest, Once, Client, BehindFileID, \
        PDU_CONF_FS_DEL_UPLOAD_RESPONSE) \
    ROW(PDU_CONF_FS_DEL_UPLOAD_RESPONSE, Manager, HandleDelUploadResponse, Once, Server, None, 0) \
    ROW(PDU_CONF_FS_DEL_DOWNLOAD_REQUEST, Session, HandleDelDownloadRequest, Once, Client, BehindFileID, 0) \
    ROW(PDU_CONF_FS_DEL_DOWNLOAD_RESPONSE, Session, HandleDelDownloadResponse, Once, Nobody, None, 0) \
    ROW(PDU_CONF_FS_DOWNLOAD_DATA_REQUEST, Session, HandleDownloadDataRequest, Once, Client, BehindFileID, 0) \
    ROW(PDU_CONF_FS_DOWNLOAD_DATA_RESPONSE, Session, HandleDownloadDataResponse, None, Server, None, 0) \
    ROW(PDU_CONF_FS_DOWNLOAD_REQUEST, Session, HandleDownloadRequest, Once, Client, BehindFileID, \
        PDU_CONF_FS_DOWNLOAD_RESPONSE) \
    ROW(PDU_CONF_FS_DOWNLOAD_RESPONSE, Session, HandleDownloadResponse, Once, Server, None, 0) \
    ROW(PDU_CONF_FS_IS_STOP_DOWNLOAD_REQUEST, Session, HandleIsStopDownloadRequest, Once, Client, BehindFileID, 0) \
    ROW(PDU_CONF_FS_IS_STOP_UPLOAD_REQUEST, Session, HandleIsStopUploadRequest, Once, Client, BehindFileID, 0) \
    ROW(PDU_CONF_FS_IS_STOP_UPLOAD_RESPONSE, Session, HandleIsStopUploadResponse, Once, Server, None, 0) \
    ROW(PDU_CONF_FS_PROGRESSING_REQUEST, Session, HandleProgressingRequest, Once, Server, None, 0) \
    ROW(PDU_CONF_FS_PROGRESSING_RESPONSE, Session, HandleProgressingResponse, None, Server, None, 0) \
    ROW(PDU_CONF_GET_UPLOAD_SESSION_LIST_REQUEST, Manager, HandleGetUploadSessionListRequest, Once, Client, \
        BehindFileID, 0) \
    ROW(PDU_CONF_GET_UPLOAD_SESSION_LIST_RESPONSE, Manager, HandleGetUploadSessionListResponse, Once, Server, \
        None, 0) \
    ROW(PDU_CONF_GET_DOWNLOAD_SESSION_LIST_REQUEST, Manager, HandleGetDownloadSessionListRequest, Once, Client, \
        BehindFileID, 0) \
    ROW(PDU_CONF_GET_DOWNLOAD_SESSION_LIST_RESPONSE, Manager, HandleGetDownloadSessionListResponse, Once, Server, \
        None, 0) \
    ROW(PDU_CONF_GET_FILE_LIST_REQUEST, Manager, HandleGetFileListRequest, Once, Server, None, 0) \
    ROW(PDU_CONF_GET_FILE_LIST_RESPONSE, Manager, HandleGetFileListResponse, Once, Server, None, 0) \
    ROW(PDU_CONF_FS_UPLOAD_ERROR_REQUEST, Session, HandleUploadErrorRequest, Once, Client, BehindFileID, 0) \
    ROW(PDU_CONF_FS_UPLOAD_ERROR_RESPONSE, Session, HandleUploadErrorResponse, Once, Server, None, 0) \
    ROW(PDU_CONF_FS_NOTICE_DEL_DOWNLOAD_INFO_REQUEST, Session, HandleNoticeDelDownloadInfoRequest, Once, Server, \
        None, 0) \
    ROW(PDU_CONF_FS_SET_FILES_RIGHT_REQUEST, Manager, HandleSetFilesRightRequest, Once, Client, BehindFileIDs, \
        PDU_CONF_FS_SET_FILES_RIGHT_RESPONSE) \
    ROW(PDU_CONF_FS_SET_FILES_RIGHT_RESPONSE, Nobody, NoMember, None, Nobody, None, 0) \
    ROW(PDU_CONF_FS_FILE_STATE_NOTICE, Manager, HandleFileStateNotice, None, Server, None, 0) \
    ROW(PDU_CONF_FS_RESERVED0, Session, SessionReserved0, None, Nobody, None, 0) \
    ROW(PDU_CONF_FS_RESERVED1, Session, SessionReserved1, None, Nobody, None, 0) \
    ROW(PDU_CONF_FS_ADD_FILES_REQUEST, Manager, HandleAddFilesRequest, Once, Client, AddFilesRequest, \
        PDU_CONF_FS_ADD_FILES_RESPONSE) \
    ROW(PDU_CONF_FS_ADD_FILES_RESPONSE, Manager, HandleAddFilesResponse, Once, Server, None, 0)
// clang-format on

struct ZV_PduRow
{
    uint16_t usPdu;
    const char* pszName;  // as the public header names the number, and as its trace line says it
    ZV_PduHandler eHandler;
    ZV_PduTrace eTrace;
    ZV_PduSender eSender;
    ZV_UserField eUser;
    uint16_t usAnswer;
};

#define ZV_PDU_ROW_DATA(usPdu, eHandler, Member, eTrace, eSender, eUser, usAnswer)                              \
    {usPdu, #usPdu, ZV_PduHandler::eHandler, ZV_PduTrace::eTrace, ZV_PduSender::eSender, ZV_UserField::eUser, \
     usAnswer},
inline constexpr ZV_PduRow kPduTable[] = {ZV_PDU_ROWS(ZV_PDU_ROW_DATA)};
#undef ZV_PDU_ROW_DATA

// The cases of one handler's switch: ZV_PDU_CASES(Manager) is a
// "case number: return Member(lpCpd);" for each row the manager handles.
#define ZV_PDU_CASES(eWanted) ZV_PDU_ROWS(ZV_PDU_CASE_##eWanted)
#define ZV_PDU_CASE_Manager(usPdu, eHandler, Member, ...) ZV_PDU_CASE_Manager_##eHandler(usPdu, Member)
#define ZV_PDU_CASE_Session(usPdu, eHandler, Member, ...) ZV_PDU_CASE_Session_##eHandler(usPdu, Member)
#define ZV_PDU_CASE_Manager_Manager(usPdu, Member) \
    case usPdu: return Member(lpCpd);
#define ZV_PDU_CASE_Manager_Session(usPdu, Member)
#define ZV_PDU_CASE_Manager_Nobody(usPdu, Member)
#define ZV_PDU_CASE_Session_Session(usPdu, Member) \
    case usPdu: return Member(lpCpd);
#define ZV_PDU_CASE_Session_Manager(usPdu, Member)
#define ZV_PDU_CASE_Session_Nobody(usPdu, Member)

// The row of a PDU number; null for a number outside the protocol.
constexpr const ZV_PduRow* ZV_FindPduRow(uint16_t usPdu)
{
    for (const ZV_PduRow& row : kPduTable)
        if (row.usPdu == usPdu)
            return &row;
    return nullptr;
}

// A server's request names whom it acts for, and only a client's request
// can be checked against its link; a server's row has nothing to read. A
// row that nobody handles prints nothing, and one handled twice is an add.
constexpr bool ZV_RowsAreConsistent()
{
    for (const ZV_PduRow& row : kPduTable)
        if ((row.eSender == ZV_PduSender::Client) == (row.eUser == ZV_UserField::None) ||
            (row.eSender != ZV_PduSender::Client && row.usAnswer != 0) || ZV_FindPduRow(row.usPdu) != &row ||
            (row.eHandler == ZV_PduHandler::Nobody && row.eTrace != ZV_PduTrace::None) ||
            (row.eTrace == ZV_PduTrace::Twice && row.eHandler != ZV_PduHandler::Manager))
            return false;
    return true;
}
static_assert(ZV_RowsAreConsistent(), "every client request names its user, and each number has one row");

// The two link types between servers; anything else the host reports is
// taken as a client's link.
constexpr bool ZV_IsServerLink(uint16_t usConnType)
{
    return usConnType == zvConfServerTypeCommand || usConnType == zvConfServerTypeData;
}
