// The manager on its own: routing, FileIDs, link states, the busy list and
// the timer, against a host that records what the manager sends.
#include "ZV_FileShareMgr.h"
#include "ZV_FileShareSession.h"
#include "ZV_RecordingHost.h"

#include "QB_ByteStream.h"
#include "QB_FaultEnv.h"
#include "QB_TestSupport.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>

namespace {

struct ManagerFixture : public ::testing::Test
{
    ZV_RecordingHost host;
    ZV_FileShareMgr mgr;
    void SetUp() override { host.Attach(&mgr); }

    ZV_FileShareSession* AddSession(uint16_t usFileID)
    {
        auto* lpFsSession = new ZV_FileShareSession(&mgr, "");
        lpFsSession->m_usFileID = usFileID;
        mgr.m_mapSession.SetAt(usFileID, lpFsSession);
        return lpFsSession;
    }
    uint32_t Deliver(uint16_t usPdu, std::vector<uint8_t> data, uint16_t usConnType = zvConfClientTypeCommand)
    {
        ConfPduData cpd{};
        cpd.ulUserMain = 10002;
        cpd.ulConn = 5;
        cpd.conn_type = usConnType;
        cpd.usPdu = usPdu;
        cpd.ulLen = (uint32_t)data.size();
        cpd.pData = data.empty() ? nullptr : data.data();
        return mgr.HandlePdu(&cpd);
    }
};

// A session that records which PDUs reached it.
class ZV_ProbeSession : public ZV_FileShareSession
{
public:
    using ZV_FileShareSession::ZV_FileShareSession;
    std::vector<uint16_t> m_vecSeen;
    uint32_t HandleDownloadRequest(ConfPduData* lpCpd) override
    {
        m_vecSeen.push_back(lpCpd->usPdu);
        return 0;
    }
};

} // namespace

using ManagerRouting = ManagerFixture;

TEST_F(ManagerRouting, RefusesTheAnswerToARightsChangeOfSeveralFilesWhateverItHolds)
{
    EXPECT_EQ(5u, Deliver(PDU_CONF_FS_SET_FILES_RIGHT_RESPONSE, {}));
    EXPECT_EQ(5u, Deliver(PDU_CONF_FS_SET_FILES_RIGHT_RESPONSE, {7, 0, 1, 2, 3}));
    EXPECT_TRUE(host.m_vecSent.empty());
}

TEST_F(ManagerRouting, DropsASessionPduForAnUnknownFileIDQuietly)
{
    AddSession(7);
    EXPECT_EQ(0u, Deliver(PDU_CONF_FS_DOWNLOAD_REQUEST, {8, 0, 1, 2}));
    EXPECT_EQ(0u, Deliver(100, {9, 0}));
    EXPECT_TRUE(host.m_vecSent.empty());
    EXPECT_TRUE(host.m_vecEvents.empty());
}

TEST_F(ManagerRouting, HandsAnyOtherNumberToTheSessionTheFirstWordNames)
{
    auto* lpProbe = new ZV_ProbeSession(&mgr, "");
    mgr.m_mapSession.SetAt(0x0102, lpProbe);
    EXPECT_EQ(0u, Deliver(PDU_CONF_FS_DOWNLOAD_REQUEST, {0x02, 0x01, 0xAA}));
    ASSERT_EQ(1u, lpProbe->m_vecSeen.size());
    // Reserved slots answer 0, numbers without a slot 5, inside the range or not.
    const struct
    {
        uint16_t usPdu;
        uint32_t ulResult;
    } aCases[] = {{8053, 0}, {8054, 0}, {8019, 5}, {8042, 5}, {100, 5}, {9000, 5}};
    for (const auto& c : aCases)
        EXPECT_EQ(c.ulResult, Deliver(c.usPdu, {0x02, 0x01})) << c.usPdu;
}

TEST_F(ManagerRouting, AnswersFiveAndLogsWhenThePayloadCannotHoldAFileID)
{
    QB_TempFolder folder;
    std::filesystem::create_directories(folder.Sub("log"));
    QB_SetEnvironmentVariable("ROOMCRATE_HOME", folder.Path().c_str());
    EXPECT_EQ(5u, Deliver(PDU_CONF_FS_DOWNLOAD_REQUEST, {}));
    EXPECT_EQ(5u, Deliver(PDU_CONF_FS_DOWNLOAD_REQUEST, {7}));
    QB_SetEnvironmentVariable("ROOMCRATE_HOME", nullptr);

    std::string sLog;
    for (const auto& entry : std::filesystem::directory_iterator(folder.Sub("log")))
    {
        std::ifstream in(entry.path(), std::ios::binary);
        sLog += std::string(std::istreambuf_iterator<char>(in), {});
    }
    const std::string sLine = " : ZV_FileShareMgr::HandlePdu exception = 8014.\r\n";
    size_t nCount = 0;
    for (size_t n = sLog.find(sLine); n != std::string::npos; n = sLog.find(sLine, n + 1))
        ++nCount;
    EXPECT_EQ(2u, nCount) << sLog;
}

using FileIDAllocation = ManagerFixture;

TEST_F(FileIDAllocation, GivesTheOneFreeIDOfASingleRangeThenNone)
{
    host.m_usFileIDMin = host.m_usFileIDMax = 42;
    mgr.m_usNextFileID = 42;
    EXPECT_EQ(42, mgr.AllocFileID());
    EXPECT_EQ(0xFFFF, mgr.AllocFileID());
    ZV_FileShareSession* lpReserved = reinterpret_cast<ZV_FileShareSession*>(1);
    ASSERT_TRUE(mgr.m_mapSession.Lookup(42, lpReserved));
    EXPECT_EQ(nullptr, lpReserved) << "a fresh FileID is reserved without a session";
}

TEST_F(FileIDAllocation, WrapsToTheBottomAndSkipsTakenIDs)
{
    host.m_usFileIDMin = 10;
    host.m_usFileIDMax = 14;
    mgr.m_usNextFileID = 15;
    AddSession(10);
    AddSession(12);
    EXPECT_EQ(11, mgr.AllocFileID());
    EXPECT_EQ(13, mgr.AllocFileID());
    EXPECT_EQ(14, mgr.AllocFileID());
    EXPECT_EQ(0xFFFF, mgr.AllocFileID());
}

TEST_F(FileIDAllocation, StaysInsideTheRangeWhateverTheMapHoldsBesides)
{
    host.m_usFileIDMin = 1001;
    host.m_usFileIDMax = 1003;
    mgr.m_usNextFileID = 1;  // as constructed, before the range is known
    AddSession(5);           // learnt from a server with another range
    AddSession(6);
    AddSession(7);
    for (uint16_t usExpected : {1001, 1002, 1003})
        EXPECT_EQ(usExpected, mgr.AllocFileID());
    EXPECT_EQ(0xFFFF, mgr.AllocFileID());
}

using LinkStates = ManagerFixture;

TEST_F(LinkStates, ClientReportsDownloadsOnlyWhenTheDataLinkReturnsAfterALoss)
{
    ZV_FileShareSession* lpFsSession = AddSession(3);
    lpFsSession->m_LocalDownload.m_usState = ZV_DLSTATE_RUNNING;
    lpFsSession->m_FileInfo.m_BriefInfo.m_CreatorID = QB_UserID(10009, 0);
    const QB_UserID server(1, 0);

    mgr.OnConnect(&server, 11, zvConfClientTypeCommand, 0);
    EXPECT_EQ('1', mgr.m_cCmdLink);
    mgr.OnConnect(&server, 12, zvConfClientTypeData, 0);
    EXPECT_EQ('2', mgr.m_cDataLink);
    ASSERT_EQ(1u, host.m_vecSent.size());
    EXPECT_EQ(PDU_CONF_FS_KICK, host.m_vecSent[0].usPdu);
    EXPECT_EQ(12u, host.m_vecSent[0].ulConn);
    EXPECT_TRUE(host.m_vecSent[0].data.empty());
    EXPECT_EQ(0, host.m_vecSent[0].bFlag1 | host.m_vecSent[0].bFlag2);

    mgr.OnDisconnect(&server, 12, zvConfClientTypeData, 0);
    EXPECT_EQ('0', mgr.m_cDataLink);
    mgr.OnConnect(&server, 12, zvConfClientTypeData, 0);
    ASSERT_EQ(1u, host.SentOf(PDU_CONF_FS_DOWNLOAD_DATA_REQUEST).size());
    const ZV_SentPdu sent = host.SentOf(PDU_CONF_FS_DOWNLOAD_DATA_REQUEST)[0];
    EXPECT_EQ(11u, sent.ulConn) << "the report goes on the command link";
    EXPECT_EQ((std::vector<uint8_t>{3, 0, 0x11, 0x27, 0, 0, 0, 0, 0, 0}),
              std::vector<uint8_t>(sent.data.begin(), sent.data.begin() + 10));
    EXPECT_TRUE(lpFsSession->m_bResyncPending);
    EXPECT_EQ('2', mgr.m_cDataLink);
}

TEST_F(LinkStates, ClientOnlyKicksADataLinkThatWasIdleRatherThanLost)
{
    AddSession(3)->m_LocalDownload.m_usState = ZV_DLSTATE_RUNNING;
    const QB_UserID server(1, 0);
    mgr.OnConnect(&server, 11, zvConfClientTypeCommand, 0);
    mgr.m_cDataLink = '4';
    mgr.OnConnect(&server, 12, zvConfClientTypeData, 0);
    EXPECT_TRUE(host.SentOf(PDU_CONF_FS_DOWNLOAD_DATA_REQUEST).empty());
    EXPECT_EQ(1u, host.SentOf(PDU_CONF_FS_KICK).size());
    // Losing the command link takes both states down.
    mgr.OnDisconnect(&server, 11, zvConfClientTypeCommand, 0);
    EXPECT_EQ('0', mgr.m_cCmdLink);
    EXPECT_EQ('0', mgr.m_cDataLink);
}

TEST_F(LinkStates, ServerSendsNothingForTheFirstPairAndRestartsOnEachFurtherDataLink)
{
    host.m_bServer = true;
    host.m_bHasServerLinks = true;
    ZV_FileShareSession* lpFsSession = AddSession(3);
    lpFsSession->m_LocalDownload.m_usState = ZV_DLSTATE_RUNNING;
    const QB_UserID peer(2, 0);

    mgr.OnConnect(&peer, 21, zvConfServerTypeCommand, 0);
    mgr.OnConnect(&peer, 22, zvConfServerTypeData, 0);
    EXPECT_EQ('3', mgr.m_cCmdLink);
    EXPECT_TRUE(host.m_vecSent.empty());

    mgr.OnConnect(&peer, 23, zvConfServerTypeData, 0);
    ASSERT_EQ(1u, host.m_vecSent.size());
    const ZV_SentPdu& sent = host.m_vecSent[0];
    EXPECT_EQ("serverdata", sent.sRoute);
    EXPECT_EQ(2u, sent.ulConn) << "to the data link of the peer's server id";
    EXPECT_EQ(PDU_CONF_FS_DOWNLOAD_DATA_REQUEST, sent.usPdu);
    // Conference word, FileID, this server as the downloader.
    EXPECT_EQ((std::vector<uint8_t>{7, 0, 3, 0, 1, 0, 0, 0, 0, 0, 0, 0}),
              std::vector<uint8_t>(sent.data.begin(), sent.data.begin() + 12));
}

TEST_F(LinkStates, ServerMarksItsFilesOutOfStepWhenACommandLinkToAServerDrops)
{
    host.m_bServer = true;
    ZV_FileShareSession* lpFsSession = AddSession(3);
    const QB_UserID peer(2, 0);
    mgr.OnDisconnect(&peer, 22, zvConfServerTypeData, 0);
    EXPECT_TRUE(lpFsSession->m_bSynced);
    EXPECT_EQ('0', mgr.m_cDataLink);
    mgr.m_cCmdLink = '3';
    mgr.OnDisconnect(&peer, 21, zvConfServerTypeCommand, 0);
    EXPECT_FALSE(lpFsSession->m_bSynced);
    EXPECT_EQ('0', mgr.m_cCmdLink);
}

using BusyAndTimer = ManagerFixture;

TEST_F(BusyAndTimer, KeepsEachBusyFileIDOnceInTheOrderTheyCame)
{
    for (uint16_t usFileID : {5, 3, 5, 9})
        mgr.SetSessionBusy(1, usFileID);
    mgr.SetSessionBusy(0, 3);
    mgr.SetSessionBusy(0, 77);
    ASSERT_EQ(2, mgr.m_arrBusyFileID.GetSize());
    EXPECT_EQ(5, mgr.m_arrBusyFileID[0]);
    EXPECT_EQ(9, mgr.m_arrBusyFileID[1]);
}

TEST_F(BusyAndTimer, WorksOnlyOnTheTicksOfItsConferencesRemainder)
{
    mgr.SetSessionBusy(1, 4);
    std::vector<uint32_t> vecWorked;
    for (uint32_t ulTick = 0; ulTick < 10; ++ulTick)
    {
        const size_t nBefore = host.m_vecEvents.size();
        mgr.OnTimer(ulTick);
        if (host.m_vecEvents.size() > nBefore)
            vecWorked.push_back(ulTick);
    }
    EXPECT_EQ((std::vector<uint32_t>{2, 7}), vecWorked);
    // Event 3012: number, u32 0, bBusy 1.
    EXPECT_EQ((std::vector<uint8_t>{0xC4, 0x0B, 0, 0, 0, 0, 1}), host.m_vecEvents.back().data);
}

TEST_F(BusyAndTimer, ReportsIdleAndLetsTheDataLinkRestAfterFifteenSeconds)
{
    QB_FaultEnv env;
    QB_ScopedEnv scoped(&env);
    env.SetTick(1000);
    mgr.m_cDataLink = '2';
    mgr.OnTimer(2);
    EXPECT_EQ(1000u, mgr.m_ulIdleSince);
    env.AdvanceTick(14999);
    mgr.OnTimer(7);
    EXPECT_TRUE(host.m_vecEvents.empty());
    EXPECT_EQ('2', mgr.m_cDataLink);
    env.AdvanceTick(1);
    mgr.OnTimer(12);
    ASSERT_EQ(1u, host.m_vecEvents.size());
    EXPECT_EQ((std::vector<uint8_t>{0xC4, 0x0B, 0, 0, 0, 0, 0}), host.m_vecEvents[0].data);
    EXPECT_EQ('4', mgr.m_cDataLink);
    EXPECT_EQ(0u, mgr.m_ulIdleSince);
}

TEST_F(BusyAndTimer, LetsTheDataLinkRestWithoutASinkToo)
{
    QB_FaultEnv env;
    QB_ScopedEnv scoped(&env);
    host.Attach(&mgr, false);
    env.SetTick(500);
    mgr.m_cDataLink = '2';
    mgr.OnTimer(2);
    env.AdvanceTick(15000);
    mgr.OnTimer(2);
    EXPECT_EQ('4', mgr.m_cDataLink);
    EXPECT_EQ(0u, mgr.m_ulIdleSince);
    EXPECT_TRUE(host.m_vecEvents.empty());
}
