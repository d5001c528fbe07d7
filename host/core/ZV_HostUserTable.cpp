#include "ZV_HostUserTable.h"

void ZV_HostUserTable::Put(const ZV_HostUser& user)
{
    Row& row = m_mapUsers[user.id];
    row.user = user;
    row.info = {user.ulHomeServer, row.user.sName.c_str(), user.usRole, user.ulFlags};
}

bool ZV_HostUserTable::Remove(const QB_UserID& id)
{
    return m_mapUsers.erase(id) > 0;
}

const ZV_HostUser* ZV_HostUserTable::Find(const QB_UserID& id) const
{
    auto it = m_mapUsers.find(id);
    return it == m_mapUsers.end() ? nullptr : &it->second.user;
}

const ZV_ConfUserInfo* ZV_HostUserTable::GetInfo(const QB_UserID& id) const
{
    auto it = m_mapUsers.find(id);
    return it == m_mapUsers.end() ? nullptr : &it->second.info;
}
