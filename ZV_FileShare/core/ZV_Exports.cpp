// The five entry points of the loadable module. They are the only symbols
// the shared library exports.
#include "IZV_FileShare.h"
#include "core/ZV_FileShareMgr.h"
#include "core/ZV_ManagerRegistry.h"

#include <cstring>
#include <new>

namespace {
// The name with its terminator; a host's name is compared over all of it.
const char kInterfaceName[] = ZV_FILESHARE_INTERFACE_NAME;
static_assert(sizeof(kInterfaceName) == 21, "the interface name is 20 characters and a NUL");

// All 21 bytes must match. Stops at the first difference, so a shorter
// name is never read past its own terminator.
bool IsInterfaceName(const char* pszName)
{
    for (size_t i = 0; i < sizeof(kInterfaceName); ++i)
        if (pszName[i] != kInterfaceName[i])
            return false;
    return true;
}
} // namespace

ZV_ManagerRegistry g_listFileShareMgr;

void ZV_ManagerRegistry::Add(ZV_FileShareMgr* lpMgr)
{
    QB_Lock lock(this);
    m_listMgr.AddTail(lpMgr);
}

bool ZV_ManagerRegistry::Destroy(IZV_ConfModule* lpModule)
{
    QB_Lock lock(this);
    for (QB_POSITION pos = m_listMgr.GetHeadPosition(); pos != nullptr;)
    {
        QB_POSITION posThis = pos;
        ZV_FileShareMgr* lpMgr = m_listMgr.GetNext(pos);
        if (static_cast<IZV_ConfModule*>(lpMgr) != lpModule)
            continue;
        // Unlink first: a destructor that throws must not leave a dangling entry.
        m_listMgr.RemoveAt(posThis);
        if (m_listMgr.IsEmpty())
            m_listMgr.RemoveAll();  // gives the node blocks back
        try
        {
            delete static_cast<IZV_FileShareMgr*>(lpMgr);
        }
        catch (...)
        {
        }
        return true;
    }
    return false;
}

int ZV_ManagerRegistry::GetCount()
{
    QB_Lock lock(this);
    return m_listMgr.GetCount();
}

extern "C" {

bool zvInitialize()
{
    return true;
}

void zvUninitialize()
{
}

bool zvGetInterfaceName(int32_t nIndex, char* pszBuffer)
{
    if (nIndex != 0 || pszBuffer == nullptr)
        return false;
    std::memcpy(pszBuffer, kInterfaceName, sizeof(kInterfaceName));
    return true;
}

IZV_ConfModule* zvCreateInstance(const char* pszName)
{
    if (pszName == nullptr || !IsInterfaceName(pszName))
        return nullptr;
    ZV_FileShareMgr* lpMgr = new (std::nothrow) ZV_FileShareMgr;
    if (lpMgr == nullptr)
        return nullptr;
    g_listFileShareMgr.Add(lpMgr);
    return lpMgr;
}

void zvDestroyInstance(IZV_ConfModule* lpModule)
{
    g_listFileShareMgr.Destroy(lpModule);
}

} // extern "C"
