// The manager's part in the roads of the bytes: the file state notice.
// Not served yet.
#include "ZV_FileShareMgr.h"
#include "ZV_PduFrame.h"

uint32_t ZV_FileShareMgr::HandleFileStateNotice(ConfPduData*)
{
    return 0;
}

