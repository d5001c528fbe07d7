// ZV_FsGuard: the top of a user-side operation. A caught exception leaves the
// result at 1 and writes the operation's line to the error log; state that
// changed before it stays changed.
#pragma once

#include "IZV_FileShare.h"

#include "QB_Log.h"

#include <cstdint>

template <typename F>
uint32_t ZV_GuardFs(const char* pszLine, F&& fnBody)
{
    uint32_t ulResult = zvResultException;
    try
    {
        ulResult = fnBody();
    }
    catch (...)
    {
        QB_WriteLog(2, "error", "%s", pszLine);
    }
    return ulResult;
}
