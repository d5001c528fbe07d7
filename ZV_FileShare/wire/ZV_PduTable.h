// ZV_PduTable: one row for each PDU number of the protocol, keyed by the
// number: who may send it to a server, where a client's request names the
// user it is made for, and which answer carries a refusal back to the asker.
//
// A server takes a client's request only in the name of the user the host
// reports for the client's link, and nothing from a client that only
// servers send; the manager checks both here before any handler runs
// (ZV_FileShareMgr_Gate.cpp). A number without a row is taken from no
// client's link, so a new handler cannot be reached from one before its
// row says who may send it.
#pragma once

#include "IZV_FileShare.h"

#include <cstdint>

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
    None,          // nowhere this table reads: a server's PDU
    BehindFileID,  // FileID, user, ...
    BehindFileIDs, // FileID array, user, ... (8040)
    AddRequest,    // 8001: the creator behind the FileID, and again in the description
    AddFilesRequest, // 8055: the creator first, and again in every description
};

struct ZV_PduRow
{
    uint16_t usPdu;
    const char* pszName;
    ZV_PduSender eSender;
    ZV_UserField eUser;
    // The answer a refused client request gets, with 40; 0 where the
    // request has no answer, and a refusal gets none either. The lists a
    // client asks for (8027, 8029) are answered only with what there is to
    // list, so a list for another user is not answered at all.
    uint16_t usAnswer;
};

inline constexpr ZV_PduRow kPduTable[] = {
    {PDU_CONF_FS_ADD_REQUEST, "PDU_CONF_FS_ADD_REQUEST", ZV_PduSender::Client, ZV_UserField::AddRequest,
     PDU_CONF_FS_ADD_RESPONSE},
    {PDU_CONF_FS_ADD_RESPONSE, "PDU_CONF_FS_ADD_RESPONSE", ZV_PduSender::Server, ZV_UserField::None, 0},
    {PDU_CONF_FS_SET_RIGHT_REQUEST, "PDU_CONF_FS_SET_RIGHT_REQUEST", ZV_PduSender::Client, ZV_UserField::BehindFileID,
     PDU_CONF_FS_SET_RIGHT_RESPONSE},
    {PDU_CONF_FS_SET_RIGHT_RESPONSE, "PDU_CONF_FS_SET_RIGHT_RESPONSE", ZV_PduSender::Server, ZV_UserField::None, 0},
    {PDU_CONF_FS_UPLOAD_REQUEST, "PDU_CONF_FS_UPLOAD_REQUEST", ZV_PduSender::Client, ZV_UserField::BehindFileID, 0},
    {PDU_CONF_FS_UPLOAD_RESPONSE, "PDU_CONF_FS_UPLOAD_RESPONSE", ZV_PduSender::Server, ZV_UserField::None, 0},
    {PDU_CONF_FS_UPLOAD_FINISH_Response, "PDU_CONF_FS_UPLOAD_FINISH_Response", ZV_PduSender::Server,
     ZV_UserField::None, 0},
    {PDU_CONF_FS_DEL_UPLOAD_REQUEST, "PDU_CONF_FS_DEL_UPLOAD_REQUEST", ZV_PduSender::Client,
     ZV_UserField::BehindFileID, PDU_CONF_FS_DEL_UPLOAD_RESPONSE},
    {PDU_CONF_FS_DEL_UPLOAD_RESPONSE, "PDU_CONF_FS_DEL_UPLOAD_RESPONSE", ZV_PduSender::Server, ZV_UserField::None, 0},
    {PDU_CONF_FS_DEL_DOWNLOAD_REQUEST, "PDU_CONF_FS_DEL_DOWNLOAD_REQUEST", ZV_PduSender::Client,
     ZV_UserField::BehindFileID, 0},
    {PDU_CONF_FS_DEL_DOWNLOAD_RESPONSE, "PDU_CONF_FS_DEL_DOWNLOAD_RESPONSE", ZV_PduSender::Nobody, ZV_UserField::None,
     0},
    {PDU_CONF_FS_DOWNLOAD_DATA_REQUEST, "PDU_CONF_FS_DOWNLOAD_DATA_REQUEST", ZV_PduSender::Client,
     ZV_UserField::BehindFileID, 0},
    {PDU_CONF_FS_DOWNLOAD_DATA_RESPONSE, "PDU_CONF_FS_DOWNLOAD_DATA_RESPONSE", ZV_PduSender::Server,
     ZV_UserField::None, 0},
    {PDU_CONF_FS_DOWNLOAD_REQUEST, "PDU_CONF_FS_DOWNLOAD_REQUEST", ZV_PduSender::Client, ZV_UserField::BehindFileID,
     PDU_CONF_FS_DOWNLOAD_RESPONSE},
    {PDU_CONF_FS_DOWNLOAD_RESPONSE, "PDU_CONF_FS_DOWNLOAD_RESPONSE", ZV_PduSender::Server, ZV_UserField::None, 0},
    {PDU_CONF_FS_IS_STOP_DOWNLOAD_REQUEST, "PDU_CONF_FS_IS_STOP_DOWNLOAD_REQUEST", ZV_PduSender::Client,
     ZV_UserField::BehindFileID, 0},
    {PDU_CONF_FS_IS_STOP_UPLOAD_REQUEST, "PDU_CONF_FS_IS_STOP_UPLOAD_REQUEST", ZV_PduSender::Client,
     ZV_UserField::BehindFileID, 0},
    {PDU_CONF_FS_IS_STOP_UPLOAD_RESPONSE, "PDU_CONF_FS_IS_STOP_UPLOAD_RESPONSE", ZV_PduSender::Server,
     ZV_UserField::None, 0},
    {PDU_CONF_FS_PROGRESSING_REQUEST, "PDU_CONF_FS_PROGRESSING_REQUEST", ZV_PduSender::Server, ZV_UserField::None, 0},
    {PDU_CONF_FS_PROGRESSING_RESPONSE, "PDU_CONF_FS_PROGRESSING_RESPONSE", ZV_PduSender::Server, ZV_UserField::None,
     0},
    {PDU_CONF_GET_UPLOAD_SESSION_LIST_REQUEST, "PDU_CONF_GET_UPLOAD_SESSION_LIST_REQUEST", ZV_PduSender::Client,
     ZV_UserField::BehindFileID, 0},
    {PDU_CONF_GET_UPLOAD_SESSION_LIST_RESPONSE, "PDU_CONF_GET_UPLOAD_SESSION_LIST_RESPONSE", ZV_PduSender::Server,
     ZV_UserField::None, 0},
    {PDU_CONF_GET_DOWNLOAD_SESSION_LIST_REQUEST, "PDU_CONF_GET_DOWNLOAD_SESSION_LIST_REQUEST", ZV_PduSender::Client,
     ZV_UserField::BehindFileID, 0},
    {PDU_CONF_GET_DOWNLOAD_SESSION_LIST_RESPONSE, "PDU_CONF_GET_DOWNLOAD_SESSION_LIST_RESPONSE", ZV_PduSender::Server,
     ZV_UserField::None, 0},
    {PDU_CONF_GET_FILE_LIST_REQUEST, "PDU_CONF_GET_FILE_LIST_REQUEST", ZV_PduSender::Server, ZV_UserField::None, 0},
    {PDU_CONF_GET_FILE_LIST_RESPONSE, "PDU_CONF_GET_FILE_LIST_RESPONSE", ZV_PduSender::Server, ZV_UserField::None, 0},
    {PDU_CONF_FS_UPLOAD_ERROR_REQUEST, "PDU_CONF_FS_UPLOAD_ERROR_REQUEST", ZV_PduSender::Client,
     ZV_UserField::BehindFileID, 0},
    {PDU_CONF_FS_UPLOAD_ERROR_RESPONSE, "PDU_CONF_FS_UPLOAD_ERROR_RESPONSE", ZV_PduSender::Server, ZV_UserField::None,
     0},
    {PDU_CONF_FS_NOTICE_DEL_DOWNLOAD_INFO_REQUEST, "PDU_CONF_FS_NOTICE_DEL_DOWNLOAD_INFO_REQUEST", ZV_PduSender::Server,
     ZV_UserField::None, 0},
    {PDU_CONF_FS_SET_FILES_RIGHT_REQUEST, "PDU_CONF_FS_SET_FILES_RIGHT_REQUEST", ZV_PduSender::Client,
     ZV_UserField::BehindFileIDs, PDU_CONF_FS_SET_FILES_RIGHT_RESPONSE},
    {PDU_CONF_FS_SET_FILES_RIGHT_RESPONSE, "PDU_CONF_FS_SET_FILES_RIGHT_RESPONSE", ZV_PduSender::Nobody,
     ZV_UserField::None, 0},
    {PDU_CONF_FS_FILE_STATE_NOTICE, "PDU_CONF_FS_FILE_STATE_NOTICE", ZV_PduSender::Server, ZV_UserField::None, 0},
    {PDU_CONF_FS_RESERVED0, "PDU_CONF_FS_RESERVED0", ZV_PduSender::Nobody, ZV_UserField::None, 0},
    {PDU_CONF_FS_RESERVED1, "PDU_CONF_FS_RESERVED1", ZV_PduSender::Nobody, ZV_UserField::None, 0},
    {PDU_CONF_FS_ADD_FILES_REQUEST, "PDU_CONF_FS_ADD_FILES_REQUEST", ZV_PduSender::Client,
     ZV_UserField::AddFilesRequest, PDU_CONF_FS_ADD_FILES_RESPONSE},
    {PDU_CONF_FS_ADD_FILES_RESPONSE, "PDU_CONF_FS_ADD_FILES_RESPONSE", ZV_PduSender::Server, ZV_UserField::None, 0},
};

// The row of a PDU number; null for a number outside the protocol.
constexpr const ZV_PduRow* ZV_FindPduRow(uint16_t usPdu)
{
    for (const ZV_PduRow& row : kPduTable)
        if (row.usPdu == usPdu)
            return &row;
    return nullptr;
}

// A server's request names whom it acts for, and only a client's request
// can be checked against its link; a server's row has nothing to read.
constexpr bool ZV_RowsAreConsistent()
{
    for (const ZV_PduRow& row : kPduTable)
        if ((row.eSender == ZV_PduSender::Client) == (row.eUser == ZV_UserField::None) ||
            (row.eSender != ZV_PduSender::Client && row.usAnswer != 0) || ZV_FindPduRow(row.usPdu) != &row)
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
