// The manager's side of adding files and of its storage folder.
// Not served yet: each handler takes its PDU, prints its trace line, and
// drops it.
#include "ZV_FileShareMgr.h"
#include "ZV_PduFrame.h"

uint32_t ZV_FileShareMgr::HandleAddRequest(ConfPduData*)
{
    ZV_TraceRecv("PDU_CONF_FS_ADD_REQUEST");
    return 0;
}

uint32_t ZV_FileShareMgr::HandleAddResponse(ConfPduData*)
{
    ZV_TraceRecv("PDU_CONF_FS_ADD_RESPONSE");
    return 0;
}

uint32_t ZV_FileShareMgr::HandleAddFilesRequest(ConfPduData*)
{
    ZV_TraceRecv("PDU_CONF_FS_ADD_FILES_REQUEST");
    return 0;
}

uint32_t ZV_FileShareMgr::HandleAddFilesResponse(ConfPduData*)
{
    ZV_TraceRecv("PDU_CONF_FS_ADD_FILES_RESPONSE");
    return 0;
}

uint32_t ZV_FileShareMgr::Initialize()
{
    return 0;
}

uint32_t ZV_FileShareMgr::CleanData()
{
    return 0;
}

