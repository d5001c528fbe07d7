// ZV_SimUserTable: the users of one conference as the host knows them. A
// user is in the table while in the conference; the modules read the
// records through IZV_ConfHost::GetUser.
#pragma once

#include "IZV_FileShare.h"

#include <map>
#include <string>

struct ZV_SimUser
{
    QB_UserID id;
    uint32_t ulHomeServer = 0;
    std::string sName;  // UTF-8
    uint16_t usRole = 0;
    uint32_t ulFlags = 0;
    bool bCanShare = true;
};

class ZV_SimUserTable
{
public:
    // Enters the user, or replaces the record of one already there.
    void Put(const ZV_SimUser& user);
    bool Remove(const QB_UserID& id);
    const ZV_SimUser* Find(const QB_UserID& id) const;
    // The record in the host's form, or null. It stays valid until the user
    // is put again or removed, which the host never does during a call.
    const ZV_ConfUserInfo* GetInfo(const QB_UserID& id) const;

private:
    struct Row
    {
        ZV_SimUser user;
        ZV_ConfUserInfo info;
    };
    std::map<QB_UserID, Row> m_mapUsers;
};
