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

uint32_t ZV_FileShareSession::SendIsStopDownloadRequest(uint32_t, uint16_t, const QB_UserID*, uint32_t, uint8_t)
{
    return 0;
}

uint32_t ZV_FileShareSession::SendIsStopUploadRequest(uint32_t, uint16_t, const QB_UserID*, uint32_t, uint8_t,
                                                     uint32_t)
{
    return 0;
}

uint32_t ZV_FileShareSession::SendIsStopUploadResponse(uint32_t, uint16_t, uint32_t, uint16_t, const QB_UserID*,
                                                      uint8_t, uint32_t)
{
    return 0;
}

uint32_t ZV_FileShareSession::SendUploadErrorRequest(uint32_t, uint16_t, const QB_UserID*, uint32_t, uint32_t)
{
    return 0;
}

uint32_t ZV_FileShareSession::SendUploadErrorResponse(uint32_t, uint16_t, uint32_t, uint16_t)
{
    return 0;
}

uint32_t ZV_FileShareSession::SendProgressing(uint32_t, uint16_t, const QB_UserID*, uint32_t, bool)
{
    return 0;
}
