#include "QB_Library.h"

#include <dlfcn.h>

namespace {

// dlerror() forgets its text at the next call, so keep our own copy.
thread_local std::string t_sLastError;

void TakeError(const char* pszFallback)
{
    const char* pszError = dlerror();
    t_sLastError = pszError ? pszError : pszFallback;
}

}  // namespace

QB_LibraryHandle QB_LoadLibrary(const char* pszPath)
{
    if (!pszPath || !*pszPath)
    {
        t_sLastError = "no library path given";
        return nullptr;
    }
    dlerror();
    // RTLD_LOCAL: two modules loaded side by side must not resolve each
    // other's symbols.
    void* hLibrary = dlopen(pszPath, RTLD_NOW | RTLD_LOCAL);
    if (hLibrary)
        t_sLastError.clear();
    else
        TakeError("the library could not be loaded");
    return hLibrary;
}

void* QB_GetProcAddress(QB_LibraryHandle hLibrary, const char* pszName)
{
    if (!hLibrary || !pszName)
    {
        t_sLastError = "no library handle or no name";
        return nullptr;
    }
    dlerror();
    void* lpProc = dlsym(hLibrary, pszName);
    if (lpProc)
        t_sLastError.clear();
    else
        TakeError("the library has no such export");
    return lpProc;
}

bool QB_FreeLibrary(QB_LibraryHandle hLibrary)
{
    if (!hLibrary)
    {
        t_sLastError = "no library handle";
        return false;
    }
    dlerror();
    if (dlclose(hLibrary) != 0)
    {
        TakeError("the library could not be unloaded");
        return false;
    }
    t_sLastError.clear();
    return true;
}

std::string QB_GetLibraryError()
{
    return t_sLastError;
}
