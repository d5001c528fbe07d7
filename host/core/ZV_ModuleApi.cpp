#include "ZV_ModuleApi.h"

#include "QB_Library.h"

#include <cstring>
#include <utility>

ZV_ModuleApi ZV_ModuleApi::FromExports(PfnInitialize pfnInitialize, PfnUninitialize pfnUninitialize,
                                             PfnGetInterfaceName pfnGetInterfaceName, PfnCreateInstance pfnCreate,
                                             PfnDestroyInstance pfnDestroy)
{
    ZV_ModuleApi api;
    api.m_pfnInitialize = pfnInitialize;
    api.m_pfnUninitialize = pfnUninitialize;
    api.m_pfnGetInterfaceName = pfnGetInterfaceName;
    api.m_pfnCreate = pfnCreate;
    api.m_pfnDestroy = pfnDestroy;
    if (!api.IsUsable())
        api.m_sError = "the module has no zvCreateInstance or no zvDestroyInstance";
    return api;
}

ZV_ModuleApi ZV_ModuleApi::FromFactory(PfnCreateInstance pfnCreate, PfnDestroyInstance pfnDestroy)
{
    return FromExports(nullptr, nullptr, nullptr, pfnCreate, pfnDestroy);
}

ZV_ModuleApi ZV_ModuleApi::Load(const std::string& sPath)
{
    ZV_ModuleApi api;
    api.m_hLibrary = QB_LoadLibrary(sPath.c_str());
    if (!api.m_hLibrary)
    {
        api.m_sError = "cannot load " + sPath + ": " + QB_GetLibraryError();
        return api;
    }
    auto Find = [&api, &sPath](const char* pszName) {
        void* lpProc = QB_GetProcAddress(api.m_hLibrary, pszName);
        if (!lpProc && api.m_sError.empty())
            api.m_sError = sPath + " does not export " + pszName;
        return lpProc;
    };
    api.m_pfnInitialize = reinterpret_cast<PfnInitialize>(Find("zvInitialize"));
    api.m_pfnUninitialize = reinterpret_cast<PfnUninitialize>(Find("zvUninitialize"));
    api.m_pfnGetInterfaceName = reinterpret_cast<PfnGetInterfaceName>(Find("zvGetInterfaceName"));
    api.m_pfnCreate = reinterpret_cast<PfnCreateInstance>(Find("zvCreateInstance"));
    api.m_pfnDestroy = reinterpret_cast<PfnDestroyInstance>(Find("zvDestroyInstance"));
    // A library that lacks any of the five is not the module, even if it
    // could make instances.
    if (!api.m_sError.empty())
    {
        api.m_pfnCreate = nullptr;
        api.m_pfnDestroy = nullptr;
    }
    return api;
}

ZV_ModuleApi::ZV_ModuleApi(ZV_ModuleApi&& api) noexcept
{
    *this = std::move(api);
}

ZV_ModuleApi& ZV_ModuleApi::operator=(ZV_ModuleApi&& api) noexcept
{
    if (this != &api)
    {
        Release();
        m_hLibrary = std::exchange(api.m_hLibrary, nullptr);
        m_pfnInitialize = std::exchange(api.m_pfnInitialize, nullptr);
        m_pfnUninitialize = std::exchange(api.m_pfnUninitialize, nullptr);
        m_pfnGetInterfaceName = std::exchange(api.m_pfnGetInterfaceName, nullptr);
        m_pfnCreate = std::exchange(api.m_pfnCreate, nullptr);
        m_pfnDestroy = std::exchange(api.m_pfnDestroy, nullptr);
        m_bStarted = std::exchange(api.m_bStarted, false);
        m_sError = std::move(api.m_sError);
    }
    return *this;
}

ZV_ModuleApi::~ZV_ModuleApi()
{
    Release();
}

void ZV_ModuleApi::Release()
{
    Stop();
    if (m_hLibrary)
        QB_FreeLibrary(m_hLibrary);
    m_hLibrary = nullptr;
}

bool ZV_ModuleApi::Start()
{
    if (!IsUsable())
        return false;
    if (!m_bStarted)
        m_bStarted = !m_pfnInitialize || m_pfnInitialize();
    if (!m_bStarted)
        m_sError = "zvInitialize refused";
    return m_bStarted;
}

void ZV_ModuleApi::Stop()
{
    if (m_bStarted && m_pfnUninitialize)
        m_pfnUninitialize();
    m_bStarted = false;
}

IZV_ConfModule* ZV_ModuleApi::CreateInstance()
{
    if (!IsUsable())
        return nullptr;
    // The module writes 21 bytes; the rest is room for a module that
    // misbehaves, and stays zero so the name ends in any case.
    char szName[64] = {};
    if (!m_pfnGetInterfaceName)
        std::strcpy(szName, ZV_FILESHARE_INTERFACE_NAME);
    else if (!m_pfnGetInterfaceName(0, szName))
        return nullptr;
    return m_pfnCreate(szName);
}

void ZV_ModuleApi::DestroyInstance(IZV_ConfModule* lpModule)
{
    if (lpModule && m_pfnDestroy)
        m_pfnDestroy(lpModule);
}
