// The manager's catalogue handlers that this build does not serve yet. Each
// takes its PDU, prints its trace line where it has one, and drops it.
#include "ZV_FileShareMgr.h"
#include "ZV_PduFrame.h"

#include "QB_Log.h"

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
