// The upload path: the creator's client pushes blocks to its server.
// Not served yet: each slot takes its PDU, prints its trace line where it
// has one, and drops it.
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

void ZV_FileShareSession::PumpUpload(ConfPduData*)
{
}

uint32_t ZV_FileShareSession::SendUploadRequest(uint32_t, uint16_t, const QB_UserID*, uint32_t, uint8_t, uint32_t,
                                               const uint8_t*, uint32_t)
{
    return 0;
}

uint32_t ZV_FileShareSession::SendUploadResponse(uint32_t, uint16_t, uint32_t, uint16_t, const QB_UserID*, uint32_t,
                                                uint32_t)
{
    return 0;
}

uint32_t ZV_FileShareSession::SendFileStateNotice(uint16_t, uint16_t, uint8_t)
{
    return 0;
}
