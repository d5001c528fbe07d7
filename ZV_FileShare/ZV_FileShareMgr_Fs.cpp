// The user side's operations. Those whose roads are not served yet answer
// ZV_ERR_NO_HANDLER without sending anything, so that a user side can tell
// "not available" from a refusal of the protocol.
#include "ZV_FileShareMgr.h"
#include "ZV_FileShareSession.h"

uint32_t ZV_FileShareMgr::FsSetRight(uint16_t, uint8_t, const QB_UserID*, uint32_t, const QB_UserID*, uint32_t)
{
    return ZV_ERR_NO_HANDLER;
}

uint32_t ZV_FileShareMgr::FsDelUpload(uint16_t)
{
    return ZV_ERR_NO_HANDLER;
}

uint32_t ZV_FileShareMgr::FsDelDownload(uint16_t, uint8_t)
{
    return ZV_ERR_NO_HANDLER;
}

uint32_t ZV_FileShareMgr::FsGetFileInfoByFileID(uint16_t, ZV_FsFileInfo*)
{
    return ZV_ERR_NO_HANDLER;
}

uint32_t ZV_FileShareMgr::FsSetFilesRight(const uint16_t*, uint32_t, uint8_t, const QB_UserID*, uint32_t,
                                          const QB_UserID*, uint32_t)
{
    return ZV_ERR_NO_HANDLER;
}
