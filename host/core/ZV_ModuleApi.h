// ZV_ModuleApi: the five exports of a file-sharing module, as a host
// calls them. They may be the ones linked into the program, those of a
// library loaded at run time, or a test's own factory.
#pragma once

#include "IZV_FileShare.h"

#include <string>

class ZV_ModuleApi
{
public:
    using PfnInitialize = bool (*)();
    using PfnUninitialize = void (*)();
    using PfnGetInterfaceName = bool (*)(int32_t, char*);
    using PfnCreateInstance = IZV_ConfModule* (*)(const char*);
    using PfnDestroyInstance = void (*)(IZV_ConfModule*);

    // The module linked into this program. Inline on purpose: only programs
    // that ask for it need the module's exports at link time.
    static ZV_ModuleApi Linked()
    {
        return FromExports(&zvInitialize, &zvUninitialize, &zvGetInterfaceName, &zvCreateInstance,
                           &zvDestroyInstance);
    }
    static ZV_ModuleApi FromExports(PfnInitialize pfnInitialize, PfnUninitialize pfnUninitialize,
                                       PfnGetInterfaceName pfnGetInterfaceName, PfnCreateInstance pfnCreate,
                                       PfnDestroyInstance pfnDestroy);
    // A factory alone; the interface name is then the one of IZV_FileShare.h.
    static ZV_ModuleApi FromFactory(PfnCreateInstance pfnCreate, PfnDestroyInstance pfnDestroy);
    // Loads the library and finds the five exports. If that fails the result
    // is not usable and GetError says why.
    static ZV_ModuleApi Load(const std::string& sPath);

    ZV_ModuleApi(ZV_ModuleApi&& api) noexcept;
    ZV_ModuleApi& operator=(ZV_ModuleApi&& api) noexcept;
    ZV_ModuleApi(const ZV_ModuleApi&) = delete;
    ZV_ModuleApi& operator=(const ZV_ModuleApi&) = delete;
    // Stops the module and unloads its library.
    ~ZV_ModuleApi();

    bool IsUsable() const { return m_pfnCreate && m_pfnDestroy; }
    const std::string& GetError() const { return m_sError; }

    // zvInitialize, once; false when the module refuses or is not usable.
    bool Start();
    // zvUninitialize, if Start succeeded.
    void Stop();
    // A new manager under the name the module itself gives; null when the
    // module refuses.
    IZV_ConfModule* CreateInstance();
    void DestroyInstance(IZV_ConfModule* lpModule);

private:
    ZV_ModuleApi() = default;
    void Release();

    void* m_hLibrary = nullptr;
    PfnInitialize m_pfnInitialize = nullptr;
    PfnUninitialize m_pfnUninitialize = nullptr;
    PfnGetInterfaceName m_pfnGetInterfaceName = nullptr;
    PfnCreateInstance m_pfnCreate = nullptr;
    PfnDestroyInstance m_pfnDestroy = nullptr;
    bool m_bStarted = false;
    std::string m_sError;
};
