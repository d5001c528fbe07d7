// ZV_ManagerRegistry: the process-wide list of managers that the exports
// make and end, under its own lock. Managers share nothing else.
#pragma once

#include "QB_List.h"
#include "QB_Locker.h"

class ZV_FileShareMgr;
class IZV_ConfModule;

class ZV_ManagerRegistry : public QB_Locker
{
public:
    ZV_ManagerRegistry() : QB_Locker("g_listFileShareMgr") {}

    // Appends under the lock.
    void Add(ZV_FileShareMgr* lpMgr);
    // Destroys and unlinks the manager whose IZV_ConfModule face is
    // lpModule; false when no manager has that face. The lock is held
    // throughout, the destructor included, and released whatever it throws.
    bool Destroy(IZV_ConfModule* lpModule);
    int GetCount();

private:
    QB_List<ZV_FileShareMgr*> m_listMgr;
};

extern ZV_ManagerRegistry g_listFileShareMgr;
