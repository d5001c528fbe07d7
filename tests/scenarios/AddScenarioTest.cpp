// Sharing files through whole simulated conferences: the refusals a user
// side hears, and a batch too large for one PDU.
#include "ZV_SceneFixture.h"

#include "ZV_RecordStream.h"

#include <algorithm>

namespace {

struct AddScene : public ZV_Scene
{
    std::string Store() const { return shape.Server()->GetHome() + "store/100/"; }
    size_t StoredCount() const
    {
        auto it = std::filesystem::directory_iterator(Store());
        return (size_t)std::distance(it, std::filesystem::directory_iterator());
    }
    uint32_t LastAddResult(ZV_SimHost* lpClient) { return ZV_ResultOf(Events(lpClient, zvFsEventFileAdded).back()); }
};

} // namespace

TEST_F(AddScene, RefusesWithTheRightCodeAndCreatesNothing)
{
    sim.SetFileIDRange(1, 1, 1);
    Build();
    EXPECT_EQ(ZV_ERR_OPEN, Fs(Alice())->FsAdd(u"/no/such/file.txt", nullptr, 0, 1, 0));

    sim.GetEnv().FailAt(QB_EnvOp::MakeFolder, 1, true);
    Share("a.txt", {1}, false);
    sim.GetEnv().ClearFaults();
    EXPECT_EQ(ZV_ERR_OPEN, LastAddResult(Alice()));
    EXPECT_EQ(0, Manager(shape.Server())->m_mapSession.GetCount());

    EXPECT_EQ(1u, Share("a.txt", {1}, false)) << "the only FileID, freed by the refusal";
    Share("a.txt", {1}, false);
    EXPECT_EQ(ZV_ERR_NO_FILEID, LastAddResult(Alice()));
    EXPECT_EQ(1u, Events(Bob(), zvFsEventFileAdded).size()) << "a refusal goes to the requester alone";
    EXPECT_EQ(1u, StoredCount());

    ZV_SimUser alice = Alice()->GetUserRecord();
    alice.bCanShare = false;
    sim.GetUsers(ZV_SimBuilder::kConfID).Put(alice);
    Share("a.txt", {1}, false);
    EXPECT_EQ(ZV_ERR_NOT_ENTITLED, LastAddResult(Alice()));

    sim.GetUsers(ZV_SimBuilder::kConfID).Remove(alice.id);
    EXPECT_EQ(ZV_ERR_NOT_IN_CONF, Fs(Alice())->FsAdd(ZV_Wide(tmp.Sub("alice/a.txt")).c_str(), nullptr, 0, 1, 0));
}

TEST_F(AddScene, ABatchTooLargeForOnePduGoesOutInSeveralAndIsReportedWhole)
{
    Build();
    std::vector<std::u16string> vecNames;
    std::vector<const char16_t*> vecPtr;
    std::filesystem::create_directories(tmp.Sub("alice"));
    for (int i = 0; i < 500; ++i)
    {
        const std::string sName = std::string(100, 'n') + std::to_string(i) + ".bin";
        QB_WriteWholeFile(tmp.Sub("alice/" + sName), ZV_Bytes{1});
        vecNames.push_back(ZV_Wide(sName));
    }
    for (const auto& sName : vecNames)
        vecPtr.push_back(sName.c_str());
    ASSERT_EQ(0u, Fs(Alice())->FsFilesAdd(ZV_Wide(tmp.Sub("alice")).c_str(), vecPtr.data(), 500, nullptr, 0, 1, 0));
    ASSERT_TRUE(sim.Run()) << sim.GetError();

    const auto vecRequests = sim.Journal().Pdus(PDU_CONF_FS_ADD_FILES_REQUEST, Alice()->GetName());
    ASSERT_GE(vecRequests.size(), 2u);
    for (size_t i = 0; i < vecRequests.size(); ++i)
    {
        EXPECT_LT(vecRequests[i].vbData.size(), 65471u);
        EXPECT_EQ(i + 1 == vecRequests.size() ? 1 : 0, vecRequests[i].vbData.back()) << "bLast of PDU " << i;
    }
    // 500 records outgrow one event's buffer: the report comes in as many
    // events as it needs, every file once.
    std::vector<uint16_t> vecExpected(500);
    for (uint16_t i = 0; i < 500; ++i)
        vecExpected[i] = (uint16_t)(i + 1);
    for (ZV_SimHost* lpClient : shape.vecClients)
    {
        std::vector<uint16_t> vecReported;
        for (const auto& report : Events(lpClient, zvFsEventFilesAdded))
        {
            QB_ByteStream stream(report.vbData.data(), (int32_t)report.vbData.size());
            stream.Skip(6);
            QB_Array<uint16_t> arrFileID;
            LoadU16Array(stream, arrFileID);
            vecReported.insert(vecReported.end(), arrFileID.GetData(), arrFileID.GetData() + arrFileID.GetSize());
        }
        std::sort(vecReported.begin(), vecReported.end());
        EXPECT_EQ(vecExpected, vecReported) << lpClient->GetName();
    }
    EXPECT_EQ(500u, StoredCount());
}
