// The session's slots for the roads of the bytes (upload, download, stop
// and resume, progress, rights of one file) that this build does not serve
// yet. Each takes its PDU, prints its trace line where it has one, and drops
// it: no state changes and nothing is answered.
#include "ZV_FileShareSession.h"
#include "ZV_PduFrame.h"

uint32_t ZV_FileShareSession::HandleUploadRequest(ConfPduData*)
{
    return 0;
}

uint32_t ZV_FileShareSession::HandleUploadResponse(ConfPduData*)
{
    ZV_TraceRecv("PDU_CONF_FS_UPLOAD_RESPONSE");
    return 0;
}

uint32_t ZV_FileShareSession::HandleUploadFinishResponse(ConfPduData*)
{
    ZV_TraceRecv("PDU_CONF_FS_UPLOAD_FINISH_Response");
    return 0;
}

uint32_t ZV_FileShareSession::HandleDownloadRequest(ConfPduData*)
{
    ZV_TraceRecv("PDU_CONF_FS_DOWNLOAD_REQUEST");
    return 0;
}

uint32_t ZV_FileShareSession::HandleDownloadResponse(ConfPduData*)
{
    ZV_TraceRecv("PDU_CONF_FS_DOWNLOAD_RESPONSE");
    return 0;
}

uint32_t ZV_FileShareSession::HandleDownloadDataRequest(ConfPduData*)
{
    ZV_TraceRecv("PDU_CONF_FS_DOWNLOAD_DATA_REQUEST");
    return 0;
}

uint32_t ZV_FileShareSession::HandleDownloadDataResponse(ConfPduData*)
{
    return 0;
}

uint32_t ZV_FileShareSession::HandleSetRightRequest(ConfPduData*)
{
    ZV_TraceRecv("PDU_CONF_FS_SET_RIGHT_REQUEST");
    return 0;
}

uint32_t ZV_FileShareSession::HandleDelDownloadRequest(ConfPduData*)
{
    ZV_TraceRecv("PDU_CONF_FS_DEL_DOWNLOAD_REQUEST");
    return 0;
}

uint32_t ZV_FileShareSession::HandleDelDownloadResponse(ConfPduData*)
{
    ZV_TraceRecv("PDU_CONF_FS_DEL_DOWNLOAD_RESPONSE");
    return 0;
}

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

uint32_t ZV_FileShareSession::HandleNoticeDelDownloadInfoRequest(ConfPduData*)
{
    ZV_TraceRecv("PDU_CONF_FS_NOTICE_DEL_DOWNLOAD_INFO_REQUEST");
    return 0;
}

void ZV_FileShareSession::OnTimer(uint32_t)
{
}

void ZV_FileShareSession::PumpDownload(ConfPduData*, const QB_UserID&)
{
}

void ZV_FileShareSession::PumpUpload(ConfPduData*)
{
}
