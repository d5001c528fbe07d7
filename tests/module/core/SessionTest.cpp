// The session object: its folder, and who may see a file.
#include "core/ZV_FileShareMgr.h"
#include "core/ZV_FileShareSession.h"
#include "ZV_RecordingHost.h"

#include <gtest/gtest.h>

namespace {

struct SessionFixture : public ::testing::Test
{
    ZV_RecordingHost host;
    ZV_FileShareMgr mgr;
    void SetUp() override { host.Attach(&mgr); }
};

} // namespace

using Session = SessionFixture;

TEST_F(Session, ShowsAFileToTheCreatorToListedUsersToEveryoneIfPublicAndToThePrivileged)
{
    const QB_UserID other(10002, 0);
    struct
    {
        const char* szName;
        bool bPublic;
        bool bListed;
        bool bCreator;
        uint16_t usRole;
        bool bVisible;
    } aCases[] = {
        {"nobody's file", false, false, false, 0, false}, {"public", true, false, false, 0, true},
        {"on the list", false, true, false, 0, true},     {"creator", false, false, true, 0, true},
        {"privileged", false, false, false, 1, true},     {"other role", false, false, false, 2, false},
    };
    for (const auto& c : aCases)
    {
        host.m_mapUsers.clear();
        host.AddUser(host.m_LocalUser, 1, "ann", c.usRole);
        ZV_FileBriefInfo brief;
        brief.SetPublic(c.bPublic);
        brief.SetCreatorID(c.bCreator ? host.m_LocalUser : other);
        QB_Array<QB_UserID> arrRight;
        arrRight.Add(other);
        if (c.bListed)
            arrRight.Add(host.m_LocalUser);
        brief.SetRight(arrRight);
        ZV_FileShareSession session(&mgr, "");
        EXPECT_EQ(c.bVisible, session.IsFileVisible(brief)) << c.szName;
    }
}
