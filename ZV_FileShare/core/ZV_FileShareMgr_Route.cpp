// Routing of incoming PDUs: catalogue numbers to the manager's handlers,
// everything else to the session of the FileID in the payload's first u16.
#include "core/ZV_FileShareMgr.h"
#include "core/ZV_FileShareSession.h"
#include "wire/ZV_PduTable.h"

#include "QB_ByteStream.h"
#include "QB_Log.h"

#include <cassert>

uint32_t ZV_FileShareMgr::HandlePdu(ConfPduData* lpCpd)
{
    if (lpCpd == nullptr)
        return zvResultNoHandler;
    // A truncated or malformed payload raises out of the stream; nothing may
    // leave towards the host, so every road is caught here, the manager's
    // own handlers as well as the sessions'.
    try
    {
        // A refused request was dealt with; a number without a row is one
        // nothing takes.
        if (!AdmitPdu(lpCpd))
            return ZV_FindPduRow(lpCpd->usPdu) != nullptr ? zvResultOk : zvResultNoHandler;
        bool bHandled = false;
        const uint32_t ulResult = RouteToManager(lpCpd, bHandled);
        return bHandled ? ulResult : RouteToSession(lpCpd);
    }
    catch (...)
    {
        QB_WriteLog(QB_LOG_DAILY, "error", "ZV_FileShareMgr::HandlePdu exception = %u.\r\n", (unsigned)lpCpd->usPdu);
        return zvResultNoHandler;
    }
}

uint32_t ZV_FileShareMgr::RouteToManager(ConfPduData* lpCpd, bool& bHandled)
{
    bHandled = true;
    switch (lpCpd->usPdu)
    {
    case PDU_CONF_FS_ADD_REQUEST: return HandleAddRequest(lpCpd);
    case PDU_CONF_FS_ADD_RESPONSE: return HandleAddResponse(lpCpd);
    case PDU_CONF_FS_SET_RIGHT_RESPONSE: return HandleSetRightResponse(lpCpd);
    case PDU_CONF_FS_DEL_UPLOAD_REQUEST: return HandleDelUploadRequest(lpCpd);
    case PDU_CONF_FS_DEL_UPLOAD_RESPONSE: return HandleDelUploadResponse(lpCpd);
    case PDU_CONF_GET_UPLOAD_SESSION_LIST_REQUEST: return HandleGetUploadSessionListRequest(lpCpd);
    case PDU_CONF_GET_UPLOAD_SESSION_LIST_RESPONSE: return HandleGetUploadSessionListResponse(lpCpd);
    case PDU_CONF_GET_DOWNLOAD_SESSION_LIST_REQUEST: return HandleGetDownloadSessionListRequest(lpCpd);
    case PDU_CONF_GET_DOWNLOAD_SESSION_LIST_RESPONSE: return HandleGetDownloadSessionListResponse(lpCpd);
    case PDU_CONF_GET_FILE_LIST_REQUEST: return HandleGetFileListRequest(lpCpd);
    case PDU_CONF_GET_FILE_LIST_RESPONSE: return HandleGetFileListResponse(lpCpd);
    case PDU_CONF_FS_SET_FILES_RIGHT_REQUEST: return HandleSetFilesRightRequest(lpCpd);
    case PDU_CONF_FS_FILE_STATE_NOTICE: return HandleFileStateNotice(lpCpd);
    case PDU_CONF_FS_ADD_FILES_REQUEST: return HandleAddFilesRequest(lpCpd);
    case PDU_CONF_FS_ADD_FILES_RESPONSE: return HandleAddFilesResponse(lpCpd);
    // Nothing reads the answer to a rights change of several files.
    case PDU_CONF_FS_SET_FILES_RIGHT_RESPONSE: return zvResultNoHandler;
    default: bHandled = false; return zvResultNoHandler;
    }
}

// Any other number, inside the protocol's range or not, belongs to the
// session its first u16 names; an unknown FileID drops the PDU quietly.
uint32_t ZV_FileShareMgr::RouteToSession(ConfPduData* lpCpd)
{
    ZV_PayloadReader stream(lpCpd);
    const uint16_t usFileID = stream.ReadU16();
    ZV_FileShareSession* lpFsSession = nullptr;
    if (!m_mapSession.Lookup(usFileID, lpFsSession))
        return zvResultOk;
    assert(lpFsSession != NULL && "lpFsSession != NULL");
    if (lpFsSession == nullptr)
        return zvResultOk;
    return lpFsSession->HandlePdu(lpCpd);
}
