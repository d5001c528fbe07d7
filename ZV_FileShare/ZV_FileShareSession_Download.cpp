// The download path: a server pushes blocks to each downloader.
// Not served yet: each slot takes its PDU, prints its trace line where it
// has one, and drops it.
#include "ZV_FileShareSession.h"
#include "ZV_PduFrame.h"

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

void ZV_FileShareSession::PumpDownload(ConfPduData*, const QB_UserID&)
{
}

uint32_t ZV_FileShareSession::SendDownloadRequest(uint32_t, uint16_t, const QB_UserID*, uint32_t, const QB_StringU8&,
                                                 uint32_t, uint8_t, uint8_t)
{
    return 0;
}

uint32_t ZV_FileShareSession::SendDownloadResponse(uint32_t, uint16_t, uint32_t, uint16_t, const QB_UserID*,
                                                  const ZV_FileDownloadInfo*)
{
    return 0;
}

uint32_t ZV_FileShareSession::SendDownloadDataResponse(uint32_t, uint16_t, uint32_t, uint16_t, const QB_UserID*,
                                                      uint32_t, uint32_t, const uint8_t*)
{
    return 0;
}

void ZV_FileShareSession::SendNextBlocks(ConfPduData*, const QB_UserID*, ZV_FileDownloadInfo*)
{
}

void ZV_FileShareSession::WakeDownloaders(uint32_t)
{
}
