#include "ZV_SimUserTable.h"

void ZV_SimUserTable::Put(const ZV_SimUser& user)
{
    Row& row = m_mapUsers[user.id];
    row.user = user;
    row.info = {user.ulHomeServer, row.user.sName.c_str(), user.usRole, user.ulFlags};
}

bool ZV_SimUserTable::Remove(const QB_UserID& id)
{
    return m_mapUsers.erase(id) > 0;
}

const ZV_SimUser* ZV_SimUserTable::Find(const QB_UserID& id) const
{
    auto it = m_mapUsers.find(id);
    return it == m_mapUsers.end() ? nullptr : &it->second.user;
}

const ZV_ConfUserInfo* ZV_SimUserTable::GetInfo(const QB_UserID& id) const
{
    auto it = m_mapUsers.find(id);
    return it == m_mapUsers.end() ? nullptr : &it->second.info;
}
