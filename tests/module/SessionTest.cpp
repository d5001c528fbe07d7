// The session object: dispatch, links, its folder, and who may see a file.
#include "ZV_FileShareMgr.h"
#include "ZV_FileShareSession.h"
#include "ZV_RecordingHost.h"

#include <gtest/gtest.h>

namespace {

struct SessionFixture : public ::testing::Test
{
    ZV_RecordingHost host;
    ZV_FileShareMgr mgr;
    void SetUp() override { host.Attach(&mgr); }
};

uint32_t Dispatch(ZV_FileShareSession& session, uint16_t usPdu)
{
    uint8_t abPayload[2] = {1, 0};
    ConfPduData cpd{};
    cpd.usPdu = usPdu;
    cpd.ulLen = sizeof(abPayload);
    cpd.pData = abPayload;
    return session.HandlePdu(&cpd);
}

} // namespace

using Session = SessionFixture;

TEST_F(Session, AnswersFiveForANumberWithoutASlotAndZeroForTheReservedOnes)
{
    ZV_FileShareSession session(&mgr, "");
    for (uint16_t usPdu : {8001, 8004, 8019, 8041, 8052, 8056, 257})
        EXPECT_EQ(5u, Dispatch(session, usPdu)) << usPdu;
    EXPECT_EQ(0u, Dispatch(session, 8053));
    EXPECT_EQ(0u, Dispatch(session, 8054));
    EXPECT_TRUE(host.m_vecSent.empty());
}

TEST_F(Session, StartsWithTheDefaultsOfAFileNotYetNumbered)
{
    ZV_FileShareSession session(&mgr, "C:\\Store\\");
    EXPECT_EQ(0xFFFF, session.m_usFileID);
    EXPECT_EQ(0xFFFF, session.m_LocalDownload.m_usFileID);
    EXPECT_TRUE(session.m_bSynced);
    EXPECT_FALSE(session.m_bStopUpload);
    EXPECT_FALSE(session.m_File.IsOpen());
    EXPECT_EQ(nullptr, session.m_lpServerFile);
    EXPECT_STREQ("C:\\Store\\", session.m_sStorePath.GetString());
}

TEST_F(Session, KeepsItsStateWhenALinkDropsUnlessItIsAServerCommandLink)
{
    ZV_FileShareSession session(&mgr, "");
    session.m_ulMaxPos = 65536;
    const QB_UserID peer(10002, 0);
    for (uint16_t usConnType : {zvConfClientTypeCommand, zvConfClientTypeData, zvConfServerTypeData})
    {
        session.OnDisconnect(&peer, 5, usConnType);
        EXPECT_TRUE(session.m_bSynced) << usConnType;
    }
    session.OnDisconnect(&peer, 5, zvConfServerTypeCommand);
    EXPECT_FALSE(session.m_bSynced);
    EXPECT_EQ(65536u, session.m_ulMaxPos);
}

TEST_F(Session, NamesTheConferenceFolderBelowTheStore)
{
    host.m_ulConfID = 123456;
    ZV_FileShareSession session(&mgr, "D:\\Files\\");
    EXPECT_EQ(QB_StringW(u"D:\\Files\\123456\\"), session.GetConfDir());
    // A store path that fills the buffer is cut at 260 units.
    ZV_FileShareSession longSession(&mgr, std::string(300, 'a').c_str());
    EXPECT_EQ(260, longSession.GetConfDir().GetLength());
}

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

TEST_F(Session, CountsAUserAsLocalOnlyWhenHomedOnThisServer)
{
    host.AddUser(QB_UserID(10002, 0), 1, "ben");
    host.AddUser(QB_UserID(10003, 0), 2, "cy");
    EXPECT_TRUE(ZV_FileShareSession::IsLocalUser(&host, QB_UserID(10002, 0)));
    EXPECT_FALSE(ZV_FileShareSession::IsLocalUser(&host, QB_UserID(10003, 0)));
    EXPECT_FALSE(ZV_FileShareSession::IsLocalUser(&host, QB_UserID(10004, 0)));
}

TEST_F(Session, PushesNothingOnACommandLink)
{
    ZV_FileShareSession session(&mgr, "");
    ConfPduData cpd{};
    cpd.ulUserMain = 10001;
    cpd.conn_type = zvConfClientTypeCommand;
    EXPECT_EQ(0u, session.OnSend(&cpd));
    cpd.conn_type = zvConfServerTypeCommand;
    EXPECT_EQ(0u, session.OnSend(&cpd));
    EXPECT_TRUE(host.m_vecSent.empty());
}
