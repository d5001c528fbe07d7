// ZV_HostUserTable: the users of one conference as the host knows them; the
// modules read the records through IZV_ConfHost::GetUser. The simulator
// keeps a user in the table while in the conference, the network host every
// user its configuration names.
#pragma once

#include "IZV_FileShare.h"

#include <map>
#include <string>

struct ZV_HostUser
{
    QB_UserID id;
    uint32_t ulHomeServer = 0;
    std::string sName;  // UTF-8
    uint16_t usRole = 0;
    uint32_t ulFlags = 0;
    bool bCanShare = true;
};

class ZV_HostUserTable
{
public:
    // Enters the user, or replaces the record of one already there.
    void Put(const ZV_HostUser& user);
    bool Remove(const QB_UserID& id);
    const ZV_HostUser* Find(const QB_UserID& id) const;
    // The record in the host's form, or null. It stays valid until the user
    // is put again or removed, which the host never does during a call.
    const ZV_ConfUserInfo* GetInfo(const QB_UserID& id) const;

private:
    struct Row
    {
        ZV_HostUser user;
        ZV_ConfUserInfo info;
    };
    std::map<QB_UserID, Row> m_mapUsers;
};
