// The manager on its own: routing, FileIDs, link states and the busy list,
// against a host that records what the manager sends.
#include "ZV_FileShareMgr.h"
#include "ZV_FileShareSession.h"
#include "ZV_RecordingHost.h"

#include "QB_TestSupport.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

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
    uint32_t Deliver(uint16_t usPdu, std::vector<uint8_t> data)
    {
        ConfPduData cpd{};
        cpd.ulUserMain = 10002;
        cpd.ulConn = 5;
        cpd.conn_type = zvConfClientTypeCommand;
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

TEST_F(ManagerRouting, HandsAPduToTheSessionItsFirstWordNamesAndAnswersFiveForNumbersWithoutASlot)
{
    auto* lpProbe = new ZV_ProbeSession(&mgr, "");
    mgr.m_mapSession.SetAt(0x0102, lpProbe);
    const struct
    {
        const char* szName;
        uint16_t usPdu;
        std::vector<uint8_t> data;
        uint32_t ulResult;
    } aCases[] = {
        {"to the session", PDU_CONF_FS_DOWNLOAD_REQUEST, {0x02, 0x01, 0xAA}, 0},
        {"unknown FileID", PDU_CONF_FS_DOWNLOAD_REQUEST, {8, 0, 1, 2}, 0},
        {"unknown FileID, no slot", 100, {9, 0}, 0},
        {"rights of several files, empty", PDU_CONF_FS_SET_FILES_RIGHT_RESPONSE, {}, 5},
        {"rights of several files", PDU_CONF_FS_SET_FILES_RIGHT_RESPONSE, {0x02, 0x01, 1, 2, 3}, 5},
        {"reserved", 8053, {0x02, 0x01}, 0},
        {"reserved", 8054, {0x02, 0x01}, 0},
        {"no slot in the range", 8019, {0x02, 0x01}, 5},
        {"no slot in the range", 8042, {0x02, 0x01}, 5},
        {"below the range", 100, {0x02, 0x01}, 5},
        {"above the range", 9000, {0x02, 0x01}, 5},
    };
    for (const auto& c : aCases)
        EXPECT_EQ(c.ulResult, Deliver(c.usPdu, c.data)) << c.szName << " " << c.usPdu;
    EXPECT_EQ(std::vector<uint16_t>{PDU_CONF_FS_DOWNLOAD_REQUEST}, lpProbe->m_vecSeen);
    EXPECT_TRUE(host.m_vecSent.empty());
    EXPECT_TRUE(host.m_vecEvents.empty());
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

TEST(FileIDAllocation, GivesFreeIDsOfTheRangeFromTheNextOneOnWrappingOnceThenNone)
{
    const struct
    {
        const char* szName;
        uint16_t usMin, usMax, usNext;
        std::vector<uint16_t> vecTaken, vecExpected;
    } aCases[] = {
        {"a single ID", 42, 42, 42, {}, {42, 0xFFFF}},
        {"wraps and skips taken IDs", 10, 14, 15, {10, 12}, {11, 13, 14, 0xFFFF}},
        // The next ID as constructed, before the range is known, and IDs
        // learnt from a server with another range.
        {"outside the range", 1001, 1003, 1, {5, 6, 7}, {1001, 1002, 1003, 0xFFFF}},
    };
    for (const auto& c : aCases)
    {
        ZV_RecordingHost host;
        ZV_FileShareMgr mgr;
        host.Attach(&mgr);
        host.m_usFileIDMin = c.usMin;
        host.m_usFileIDMax = c.usMax;
        mgr.m_usNextFileID = c.usNext;
        for (uint16_t usFileID : c.vecTaken)
            mgr.m_mapSession.SetAt(usFileID, new ZV_FileShareSession(&mgr, ""));
        std::vector<uint16_t> vecGiven;
        for (size_t i = 0; i < c.vecExpected.size(); ++i)
            vecGiven.push_back(mgr.AllocFileID());
        EXPECT_EQ(c.vecExpected, vecGiven) << c.szName;
        ZV_FileShareSession* lpReserved = reinterpret_cast<ZV_FileShareSession*>(1);
        ASSERT_TRUE(mgr.m_mapSession.Lookup(c.vecExpected[0], lpReserved));
        EXPECT_EQ(nullptr, lpReserved) << "a fresh FileID is reserved without a session";
    }
}

using LinkStates = ManagerFixture;

TEST_F(LinkStates, ClientReportsDownloadsOnlyWhenTheDataLinkReturnsAfterALossAndOnlyKicksAnIdleOne)
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

    host.m_vecSent.clear();
    mgr.m_cDataLink = '4';
    mgr.OnConnect(&server, 12, zvConfClientTypeData, 0);
    EXPECT_TRUE(host.SentOf(PDU_CONF_FS_DOWNLOAD_DATA_REQUEST).empty()) << "a resting link lost nothing";
    EXPECT_EQ(1u, host.SentOf(PDU_CONF_FS_KICK).size());
    // Losing the command link takes both states down.
    mgr.OnDisconnect(&server, 11, zvConfClientTypeCommand, 0);
    EXPECT_EQ('0', mgr.m_cCmdLink);
    EXPECT_EQ('0', mgr.m_cDataLink);
}

TEST_F(LinkStates, ServerMarksItsFilesOutOfStepOnlyWhenACommandLinkToAServerDrops)
{
    host.m_bServer = true;
    ZV_FileShareSession* lpFsSession = AddSession(3);
    const QB_UserID peer(2, 0);
    for (uint16_t usConnType : {zvConfClientTypeCommand, zvConfClientTypeData, zvConfServerTypeData})
    {
        mgr.OnDisconnect(&peer, 22, usConnType, 0);
        EXPECT_TRUE(lpFsSession->m_bSynced) << usConnType;
    }
    EXPECT_EQ('0', mgr.m_cDataLink);
    mgr.m_cCmdLink = '3';
    mgr.OnDisconnect(&peer, 21, zvConfServerTypeCommand, 0);
    EXPECT_FALSE(lpFsSession->m_bSynced);
    EXPECT_EQ('0', mgr.m_cCmdLink);
}

using BusyList = ManagerFixture;

TEST_F(BusyList, KeepsEachFileIDOnceInTheOrderTheyCame)
{
    for (uint16_t usFileID : {5, 3, 5, 9})
        mgr.SetSessionBusy(1, usFileID);
    mgr.SetSessionBusy(0, 3);
    mgr.SetSessionBusy(0, 77);
    ASSERT_EQ(2, mgr.m_arrBusyFileID.GetSize());
    EXPECT_EQ(5, mgr.m_arrBusyFileID[0]);
    EXPECT_EQ(9, mgr.m_arrBusyFileID[1]);
}
