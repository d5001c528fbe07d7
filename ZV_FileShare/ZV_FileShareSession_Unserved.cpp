// The session's slots for the rights of one file and for dropped downloads,
// which this build does not serve yet. Each takes its PDU, prints its trace
// line, and drops it: no state changes and nothing is answered.
#include "ZV_FileShareSession.h"
#include "ZV_PduFrame.h"

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

uint32_t ZV_FileShareSession::HandleNoticeDelDownloadInfoRequest(ConfPduData*)
{
    ZV_TraceRecv("PDU_CONF_FS_NOTICE_DEL_DOWNLOAD_INFO_REQUEST");
    return 0;
}

