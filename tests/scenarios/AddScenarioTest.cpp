// Sharing files through whole simulated conferences: what lands in each
// server's folder and catalogue, which PDUs go where, and what each user
// side is told.
#include "ZV_SimBuilder.h"
#include "ZV_SimConference.h"

#include "ZV_FileBriefInfo.h"
#include "ZV_FileShareMgr.h"
#include "ZV_FileUploadInfo.h"
#include "ZV_RecordStream.h"

#include "QB_ByteStream.h"
#include "QB_TestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <set>

namespace fs = std::filesystem;

namespace {

struct AddedEvent
{
    uint32_t ulResult = 0;
    uint16_t usFileID = 0;
    ZV_FileBriefInfo brief;
};

AddedEvent ParseAdded(const ZV_SimEntry& entry)
{
    AddedEvent added;
    QB_ByteStream stream(entry.vbData.data(), (int32_t)entry.vbData.size());
    stream.Skip(2);
    added.ulResult = stream.ReadU32();
    added.usFileID = stream.ReadU16();
    LoadDelimited(stream, added.brief);
    return added;
}

// Event 3013: the FileIDs of the report.
std::vector<uint16_t> ParseFilesAdded(const ZV_SimEntry& entry)
{
    QB_ByteStream stream(entry.vbData.data(), (int32_t)entry.vbData.size());
    stream.Skip(6);
    QB_Array<uint16_t> arrFileID;
    LoadU16Array(stream, arrFileID);
    return std::vector<uint16_t>(arrFileID.GetData(), arrFileID.GetData() + arrFileID.GetSize());
}

struct FilesResponse
{
    uint32_t ulResult = 0;
    QB_Array<uint16_t> arrFileID;
    QB_Array<uint32_t> arrPos;
    QB_Array<ZV_FileBriefInfo> arrInfo;
    uint8_t bLast = 0;
};

FilesResponse ParseFilesResponse(const ZV_SimEntry& entry)
{
    FilesResponse answer;
    QB_ByteStream stream(entry.vbData.data(), (int32_t)entry.vbData.size());
    answer.ulResult = stream.ReadU32();
    stream.Skip(9);
    LoadU16Array(stream, answer.arrFileID);
    LoadU32Array(stream, answer.arrPos);
    LoadSequence(stream, answer.arrInfo);
    answer.bLast = stream.ReadU8();
    return answer;
}

std::set<std::string> FilesIn(const std::string& sFolder)
{
    std::set<std::string> setNames;
    for (const auto& entry : fs::directory_iterator(sFolder))
        setNames.insert(entry.path().filename().string());
    return setNames;
}

struct AddScene : public ::testing::Test
{
    QB_TempFolder tmp;
    ZV_SimConference sim{ZV_SimModuleApi::Linked(), Options()};
    ZV_SimShape shape;

    ZV_SimOptions Options() const
    {
        ZV_SimOptions options;
        options.sRoot = tmp.Sub("nodes");
        return options;
    }
    void Build(bool bLinked = false)
    {
        shape = bLinked ? ZV_SimBuilder::TwoLinkedServers(sim) : ZV_SimBuilder::OneServerTwoClients(sim);
        ASSERT_TRUE(shape.IsComplete() && sim.Run()) << sim.GetError();
    }
    ZV_SimHost* Alice() const { return shape.Client(0); }
    std::string Local(const std::string& sName) const { return tmp.Sub("alice/" + sName); }
    std::string MakeLocal(const std::string& sName, const std::string& sText = "bytes")
    {
        fs::create_directories(tmp.Sub("alice"));
        QB_WriteWholeFile(Local(sName), sText);
        return Local(sName);
    }
    std::string Store(ZV_SimHost* lpServer) const { return lpServer->GetHome() + "store/100/"; }
    ZV_FileShareMgr* Manager(ZV_SimHost* lpNode) const { return static_cast<ZV_FileShareMgr*>(lpNode->GetModule()); }
    uint32_t Share(const std::string& sPath, uint8_t bPublic = 1)
    {
        const std::u16string sWide(sPath.begin(), sPath.end());
        const uint32_t ulResult = Alice()->GetFileShareMgr()->FsAdd(sWide.c_str(), nullptr, 0, bPublic, 0);
        EXPECT_TRUE(sim.Run()) << sim.GetError();
        return ulResult;
    }
    uint32_t ShareBatch(const std::vector<std::string>& vecNames)
    {
        std::vector<std::u16string> vecWide;
        std::vector<const char16_t*> vecPtr;
        for (const auto& sName : vecNames)
            vecWide.emplace_back(sName.begin(), sName.end());
        for (const auto& sWide : vecWide)
            vecPtr.push_back(sWide.c_str());
        const std::string sFolder = tmp.Sub("alice");
        const std::u16string sWideFolder(sFolder.begin(), sFolder.end());
        const uint32_t ulResult = Alice()->GetFileShareMgr()->FsFilesAdd(
            sWideFolder.c_str(), vecPtr.data(), (uint32_t)vecPtr.size(), nullptr, 0, 1, 0);
        EXPECT_TRUE(sim.Run()) << sim.GetError();
        return ulResult;
    }
    std::vector<AddedEvent> Added(ZV_SimHost* lpNode)
    {
        std::vector<AddedEvent> vec;
        for (const auto& entry : sim.Journal().Events(zvFsEventFileAdded, lpNode->GetName()))
            vec.push_back(ParseAdded(entry));
        return vec;
    }
};

} // namespace

TEST_F(AddScene, StoresTwoFilesOfTheSameNameUnderDistinctNamesWhileEveryoneSeesTheSharedName)
{
    Build();
    const std::string sPath = MakeLocal("report.doc");
    ASSERT_EQ(0u, Share(sPath));
    ASSERT_EQ(0u, Share(sPath));

    EXPECT_EQ((std::set<std::string>{"report.doc", "report(1).doc"}), FilesIn(Store(shape.Server())));
    EXPECT_EQ(0u, fs::file_size(Store(shape.Server()) + "report(1).doc"));
    for (ZV_SimHost* lpClient : shape.vecClients)
    {
        const auto vecAdded = Added(lpClient);
        ASSERT_EQ(2u, vecAdded.size()) << lpClient->GetName();
        EXPECT_EQ(1u, vecAdded[0].usFileID);
        EXPECT_EQ(2u, vecAdded[1].usFileID);
        EXPECT_EQ(QB_StringU8("report.doc"), vecAdded[1].brief.m_sFileOldName);
        EXPECT_EQ(0u, vecAdded[1].ulResult);
    }
    // Shared by its Linux path, the record still names the same local file.
    EXPECT_TRUE(Added(Alice())[0].brief.IsSameLocalFile());
    ZV_FileUploadInfo row;
    QB_StringW sSection;
    ASSERT_TRUE(Manager(shape.Server())->m_Catalog.LoadFile(100, 2, row, sSection));
    EXPECT_EQ(QB_StringU8("report(1).doc"), row.m_sFileNewName);
    EXPECT_EQ(QB_StringU8("report.doc"), row.m_BriefInfo.m_sFileOldName);
}

TEST_F(AddScene, RefusesWithTheRightCodeAndCreatesNothing)
{
    sim.SetFileIDRange(1, 1, 1);
    Build();
    const std::string sPath = MakeLocal("a.txt");
    const std::u16string sMissing = u"/no/such/file.txt";
    EXPECT_EQ(ZV_ERR_OPEN, Alice()->GetFileShareMgr()->FsAdd(sMissing.c_str(), nullptr, 0, 1, 0));

    sim.GetEnv().FailAt(QB_EnvOp::MakeFolder, 1, true);
    ASSERT_EQ(0u, Share(sPath));
    sim.GetEnv().ClearFaults();
    EXPECT_EQ(ZV_ERR_OPEN, Added(Alice()).back().ulResult);
    EXPECT_EQ(0, Manager(shape.Server())->m_mapSession.GetCount());

    ASSERT_EQ(0u, Share(sPath));  // takes the only FileID, freed by the refusal
    ASSERT_EQ(0u, Share(sPath));  // none left
    EXPECT_EQ(ZV_ERR_NO_FILEID, Added(Alice()).back().ulResult);
    EXPECT_EQ(1u, Added(shape.Client(1)).size()) << "a refusal goes to the requester alone";
    EXPECT_EQ(1u, FilesIn(Store(shape.Server())).size());

    ZV_SimUser alice = Alice()->GetUserRecord();
    alice.bCanShare = false;
    sim.GetUsers(100).Put(alice);
    ASSERT_EQ(0u, Share(sPath));
    EXPECT_EQ(ZV_ERR_NOT_ENTITLED, Added(Alice()).back().ulResult);

    sim.GetUsers(100).Remove(alice.id);
    const std::u16string sWide(sPath.begin(), sPath.end());
    EXPECT_EQ(ZV_ERR_NOT_IN_CONF, Alice()->GetFileShareMgr()->FsAdd(sWide.c_str(), nullptr, 0, 1, 0));
}

TEST_F(AddScene, ABatchTooLargeForOnePduGoesOutInSeveralAndIsReportedWhole)
{
    Build();
    std::vector<std::string> vecNames;
    for (int i = 0; i < 500; ++i)
    {
        vecNames.push_back(std::string(100, 'n') + std::to_string(i) + ".bin");
        MakeLocal(vecNames.back());
    }
    ASSERT_EQ(0u, ShareBatch(vecNames));

    const auto vecRequests = sim.Journal().Pdus(PDU_CONF_FS_ADD_FILES_REQUEST, Alice()->GetName());
    ASSERT_GE(vecRequests.size(), 2u);
    for (size_t i = 0; i < vecRequests.size(); ++i)
    {
        EXPECT_LT(vecRequests[i].vbData.size(), 65471u);
        EXPECT_EQ(i + 1 == vecRequests.size() ? 1 : 0, vecRequests[i].vbData.back()) << "bLast of PDU " << i;
    }
    const auto vecAnswers = sim.Journal().PdusTo(PDU_CONF_FS_ADD_FILES_RESPONSE, shape.Client(1)->GetName());
    ASSERT_EQ(vecRequests.size(), vecAnswers.size());
    // 500 records outgrow one event's buffer: the report comes in as many
    // events as it needs, every file once. Each PDU numbers its files from
    // its last one.
    std::vector<uint16_t> vecExpected(500);
    for (uint16_t i = 0; i < 500; ++i)
        vecExpected[i] = (uint16_t)(i + 1);
    for (ZV_SimHost* lpClient : shape.vecClients)
    {
        std::vector<uint16_t> vecReported;
        for (const auto& report : sim.Journal().Events(zvFsEventFilesAdded, lpClient->GetName()))
        {
            const auto vecIDs = ParseFilesAdded(report);
            vecReported.insert(vecReported.end(), vecIDs.begin(), vecIDs.end());
        }
        std::sort(vecReported.begin(), vecReported.end());
        EXPECT_EQ(vecExpected, vecReported) << lpClient->GetName();
    }
    EXPECT_EQ(500u, FilesIn(Store(shape.Server())).size());
}

TEST_F(AddScene, ARangeThatRunsOutInABatchRefusesTheFirstFilesWith40AndKeepsTheLast)
{
    sim.SetFileIDRange(1, 1, 3);
    Build();
    std::vector<std::string> vecNames;
    for (int i = 0; i < 5; ++i)
    {
        vecNames.push_back("f" + std::to_string(i) + ".txt");
        MakeLocal(vecNames.back());
    }
    ASSERT_EQ(0u, ShareBatch(vecNames));

    const auto vecToAlice = sim.Journal().PdusTo(PDU_CONF_FS_ADD_FILES_RESPONSE, Alice()->GetName());
    ASSERT_EQ(2u, vecToAlice.size());
    const FilesResponse refusal = ParseFilesResponse(vecToAlice[0]);
    EXPECT_EQ(ZV_ERR_NOT_ENTITLED, refusal.ulResult);
    EXPECT_EQ(0, refusal.arrFileID.GetSize());
    ASSERT_EQ(2, refusal.arrInfo.GetSize());
    EXPECT_EQ(QB_StringU8("f1.txt"), refusal.arrInfo[0].m_sFileOldName);
    EXPECT_EQ(QB_StringU8("f0.txt"), refusal.arrInfo[1].m_sFileOldName);
    const FilesResponse stored = ParseFilesResponse(vecToAlice[1]);
    ASSERT_EQ(3, stored.arrFileID.GetSize());
    EXPECT_EQ((std::vector<uint16_t>{3, 2, 1}),
              std::vector<uint16_t>(stored.arrFileID.GetData(), stored.arrFileID.GetData() + 3));
    EXPECT_EQ(QB_StringU8("f2.txt"), stored.arrInfo[0].m_sFileOldName);
    EXPECT_EQ((std::set<std::string>{"f2.txt", "f3.txt", "f4.txt"}), FilesIn(Store(shape.Server())));
}

TEST_F(AddScene, AnAddReachesTheLinkedServerWhichStoresItAndFetchesItsBytes)
{
    Build(true);
    ASSERT_EQ(0u, Share(MakeLocal("plan.txt", "the plan")));
    ZV_SimHost* lpServer2 = shape.Server(1);
    EXPECT_EQ((std::set<std::string>{"plan.txt"}), FilesIn(Store(lpServer2)));
    ZV_FileUploadInfo row;
    QB_StringW sSection;
    EXPECT_TRUE(Manager(lpServer2)->m_Catalog.LoadFile(100, 1, row, sSection));
    for (ZV_SimHost* lpClient : shape.vecClients)
        ASSERT_EQ(1u, Added(lpClient).size()) << lpClient->GetName();
    const auto vecFetch = sim.Journal().Pdus(PDU_CONF_FS_DOWNLOAD_REQUEST, lpServer2->GetName());
    ASSERT_EQ(1u, vecFetch.size());
    EXPECT_EQ(shape.Server(0)->GetName(), vecFetch[0].sPeer);
}

TEST_F(AddScene, AServerMadeAgainOnTheSameHomeFindsItsCatalogueRowsAndCleanDataEmptiesTheFolder)
{
    Build();
    ASSERT_EQ(0u, Share(MakeLocal("a.txt")));
    ASSERT_EQ(0u, Share(MakeLocal("b")));
    ASSERT_EQ(0u, Share(MakeLocal("b")));
    ZV_SimModuleApi api = ZV_SimModuleApi::Linked();
    shape.Server()->Stop(api);
    ASSERT_TRUE(shape.Server()->Start(api));
    ZV_FileShareMgr* lpMgr = Manager(shape.Server());
    ZV_FileUploadInfo row;
    QB_StringW sSection;
    ASSERT_TRUE(lpMgr->m_Catalog.LoadFile(100, 3, row, sSection));
    EXPECT_EQ(QB_StringU8("(1)b"), row.m_sFileNewName);

    ZV_SimHost::PointHome(shape.Server()->GetHome());
    EXPECT_EQ(0u, lpMgr->CleanData());
    EXPECT_TRUE(fs::is_directory(Store(shape.Server())));
    EXPECT_TRUE(FilesIn(Store(shape.Server())).empty());
    EXPECT_FALSE(lpMgr->m_Catalog.LoadFile(100, 1, row, sSection));
}
