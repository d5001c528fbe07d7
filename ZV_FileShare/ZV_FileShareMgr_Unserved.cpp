// The manager's catalogue handlers that this build does not serve yet. Each
// takes its PDU, prints its trace line where it has one, and drops it.
#include "ZV_FileShareMgr.h"
#include "ZV_PduFrame.h"

#include "QB_Log.h"

uint32_t ZV_FileShareMgr::HandleGetUploadSessionListRequest(ConfPduData*)
{
    ZV_TraceRecv("PDU_CONF_GET_UPLOAD_SESSION_LIST_REQUEST");
    return 0;
}

uint32_t ZV_FileShareMgr::HandleGetUploadSessionListResponse(ConfPduData*)
{
    ZV_TraceRecv("PDU_CONF_GET_UPLOAD_SESSION_LIST_RESPONSE");
    return 0;
}

uint32_t ZV_FileShareMgr::HandleGetDownloadSessionListRequest(ConfPduData*)
{
    ZV_TraceRecv("PDU_CONF_GET_DOWNLOAD_SESSION_LIST_REQUEST");
    return 0;
}

uint32_t ZV_FileShareMgr::HandleGetDownloadSessionListResponse(ConfPduData*)
{
    ZV_TraceRecv("PDU_CONF_GET_DOWNLOAD_SESSION_LIST_RESPONSE");
    return 0;
}

uint32_t ZV_FileShareMgr::HandleGetFileListRequest(ConfPduData*)
{
    ZV_TraceRecv("PDU_CONF_GET_FILE_LIST_REQUEST");
    return 0;
}

uint32_t ZV_FileShareMgr::HandleGetFileListResponse(ConfPduData*)
{
    ZV_TraceRecv("PDU_CONF_GET_FILE_LIST_RESPONSE");
    return 0;
}

// Host events: a user's leave is served; the others not yet.
uint32_t ZV_FileShareMgr::OnEvent(uint16_t usEvent, uintptr_t, uintptr_t a2, uintptr_t, uintptr_t)
{
    try
    {
        if (usEvent == zvConfEventUserLeave && a2 != 0)
            OnUserLeave(*reinterpret_cast<const QB_UserID*>(a2));
    }
    catch (...)
    {
        QB_WriteLog(2, "error", "ZV_FileShareMgr::OnEvent exception.\r\n");
    }
    return 0;
}
