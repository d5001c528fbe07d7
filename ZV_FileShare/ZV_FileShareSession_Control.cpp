// Stop, resume, progress, upload errors and the session's timer.
// Not served yet: each slot takes its PDU, prints its trace line where it
// has one, and drops it.
#include "ZV_FileShareSession.h"
#include "ZV_PduFrame.h"

uint32_t ZV_FileShareSession::HandleProgressingRequest(ConfPduData*)
{
    ZV_TraceRecv("PDU_CONF_FS_PROGRESSING_REQUEST");
    return 0;
}

uint32_t ZV_FileShareSession::HandleProgressingResponse(ConfPduData*)
{
    return 0;
}

uint32_t ZV_FileShareSession::HandleIsStopDownloadRequest(ConfPduData*)
{
    ZV_TraceRecv("PDU_CONF_FS_IS_STOP_DOWNLOAD_REQUEST");
    return 0;
}

uint32_t ZV_FileShareSession::HandleIsStopUploadRequest(ConfPduData*)
{
    ZV_TraceRecv("PDU_CONF_FS_IS_STOP_UPLOAD_REQUEST");
    return 0;
}

uint32_t ZV_FileShareSession::HandleIsStopUploadResponse(ConfPduData*)
{
    ZV_TraceRecv("PDU_CONF_FS_IS_STOP_UPLOAD_RESPONSE");
    return 0;
}

uint32_t ZV_FileShareSession::HandleUploadErrorRequest(ConfPduData*)
{
    ZV_TraceRecv("PDU_CONF_FS_UPLOAD_ERROR_REQUEST");
    return 0;
}

uint32_t ZV_FileShareSession::HandleUploadErrorResponse(ConfPduData*)
{
    ZV_TraceRecv("PDU_CONF_FS_UPLOAD_ERROR_RESPONSE");
    return 0;
}

void ZV_FileShareSession::OnTimer(uint32_t)
{
}

