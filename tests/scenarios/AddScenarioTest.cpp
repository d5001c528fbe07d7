// Sharing files: stored names, refusals, which FileID is given.
#include "ZV_FileShareMgrPeer.h"
#include "ZV_SceneFixture.h"
#include "add/ZV_AddPdu.h"
#include "wire/ZV_RecordStream.h"

#include <algorithm>
#include <set>

namespace {

struct AddScene : public ZV_Scene
{
    std::string Store() const { return shape.Server()->GetHome() + "store/100/"; }
    std::set<std::string> StoredNames() const
    {
        std::set<std::string> setNames;
        for (const auto& entry : std::filesystem::directory_iterator(Store()))
            setNames.insert(entry.path().filename().string());
        return setNames;
    }
    // Alice's local files of one byte each, shared as one batch.
    void ShareBatch(const std::vector<std::string>& vecNames)
    {
        std::vector<std::u16string> vecWide;
        std::vector<const char16_t*> vecPtr;
        std::filesystem::create_directories(tmp.Sub("alice"));
        for (const auto& sName : vecNames)
        {
            QB_WriteWholeFile(tmp.Sub("alice/" + sName), ZV_Bytes{1});
            vecWide.push_back(ZV_Wide(sName));
        }
        for (const auto& sWide : vecWide)
            vecPtr.push_back(sWide.c_str());
        ASSERT_EQ(0u, Fs(Alice())->FsFilesAdd(ZV_Wide(tmp.Sub("alice")).c_str(), vecPtr.data(),
                                              (uint32_t)vecPtr.size(), nullptr, 0, 1, 0));
        ASSERT_TRUE(sim.Run()) << sim.GetError();
    }
    uint32_t LastAddResult(ZV_SimHost* lpClient) { return ZV_ResultOf(Events(lpClient, zvFsEventFileAdded).back()); }
};

} // namespace

TEST_F(AddScene, RefusesWithTheRightCodeAndCreatesNothing)
{
    sim.SetFileIDRange(1, 1, 1);
    Build();
    EXPECT_EQ(zvResultCannotOpen, Fs(Alice())->FsAdd(u"/no/such/file.txt", nullptr, 0, 1, 0));

    sim.GetEnv().FailAt(QB_EnvOp::MakeFolder, 1, true);
    Share("a.txt", {1}, false);
    sim.GetEnv().ClearFaults();
    EXPECT_EQ(zvResultCannotOpen, LastAddResult(Alice()));
    EXPECT_EQ(0, ZV_FileShareMgrPeer::Sessions(*Manager(shape.Server())).GetCount());

    EXPECT_EQ(1u, Share("a.txt", {1}, false)) << "the only FileID, freed by the refusal";
    Share("a.txt", {1}, false);
    EXPECT_EQ(zvResultNoFileID, LastAddResult(Alice()));
    EXPECT_EQ(1u, Events(Bob(), zvFsEventFileAdded).size()) << "a refusal goes to the requester alone";
    EXPECT_EQ(1u, StoredNames().size());

    ZV_SimUser alice = Alice()->GetUserRecord();
    alice.bCanShare = false;
    sim.GetUsers(ZV_SimBuilder::kConfID).Put(alice);
    Share("a.txt", {1}, false);
    EXPECT_EQ(zvResultNotEntitled, LastAddResult(Alice()));

    sim.GetUsers(ZV_SimBuilder::kConfID).Remove(alice.id);
    EXPECT_EQ(zvResultNotInConf, Fs(Alice())->FsAdd(ZV_Wide(tmp.Sub("alice/a.txt")).c_str(), nullptr, 0, 1, 0));
}

TEST_F(AddScene, StoresTwoFilesOfTheSameNameApartWhileEveryoneSeesTheSharedName)
{
    Build();
    Share("report.doc", {1, 2}, false);
    Share("report.doc", {1, 2}, false);
    EXPECT_EQ((std::set<std::string>{"report.doc", "report(1).doc"}), StoredNames());
    for (ZV_SimHost* lpClient : shape.vecClients)
    {
        const auto vecAdded = Events(lpClient, zvFsEventFileAdded);
        ASSERT_EQ(2u, vecAdded.size()) << lpClient->GetName();
        EXPECT_EQ(2u, ZV_FileIDOf(vecAdded[1]));
        QB_ByteStream stream(vecAdded[1].vbData.data() + 8, (int32_t)vecAdded[1].vbData.size() - 8);
        ZV_FileBriefInfo brief;
        LoadDelimited(stream, brief);
        EXPECT_EQ(QB_StringU8("report.doc"), brief.m_sFileOldName);
        // Shared by its Linux path, the record still names the same local file.
        EXPECT_TRUE(brief.IsSameLocalFile()) << lpClient->GetName();
    }
    ZV_FileUploadInfo row;
    ASSERT_TRUE(Row(shape.Server(), 2, row));
    EXPECT_EQ(QB_StringU8("report(1).doc"), row.m_sFileNewName);
}

TEST_F(AddScene, ARangeThatRunsOutInABatchRefusesTheFirstFilesWith40AndKeepsTheLast)
{
    sim.SetFileIDRange(1, 1, 3);
    Build();
    ShareBatch({"f0.txt", "f1.txt", "f2.txt", "f3.txt", "f4.txt"});
    // The server walks from the last file: f4, f3, f2 take the range.
    const auto vecToAlice = sim.Journal().PdusTo(PDU_CONF_FS_ADD_FILES_RESPONSE, Alice()->GetName());
    ASSERT_EQ(2u, vecToAlice.size());
    for (size_t i = 0; i < 2; ++i)
    {
        QB_ByteStream stream(vecToAlice[i].vbData.data(), (int32_t)vecToAlice[i].vbData.size());
        EXPECT_EQ(i == 0 ? zvResultNotEntitled : zvResultOk, stream.ReadU32()) << i;
        stream.Skip(9);
        QB_Array<uint16_t> arrFileID;
        LoadU16Array(stream, arrFileID);
        EXPECT_EQ(i == 0 ? 0 : 3, arrFileID.GetSize()) << "a refusal names no FileIDs";
    }
    EXPECT_EQ((std::set<std::string>{"f2.txt", "f3.txt", "f4.txt"}), StoredNames());
}

// A FileID still catalogued, or deleted (the delete may have to reach a
// server that was away), is given again only when no other is free.
TEST_F(AddScene, AFileIDOfADeletedOrCataloguedFileIsGivenOnlyWhenNoOtherIsFree)
{
    sim.SetFileIDRange(1, 1, 3);
    Build();
    ASSERT_EQ(1, Share("kept.bin", {1, 2, 3}));
    ASSERT_TRUE(sim.RestartServer(shape.Server()));
    ASSERT_TRUE(sim.Run()) << sim.GetError();
    EXPECT_EQ(2, Share("second.bin", {4})) << "the catalogued 1 stays";
    ShareBy(Bob(), "later.bin", ZV_Bytes(5000, 1), false);
    ASSERT_EQ(0u, Fs(Alice())->FsDelUpload(2));
    ASSERT_TRUE(sim.Leave(Bob()));
    ASSERT_TRUE(sim.Run()) << sim.GetError();
    EXPECT_EQ(3, Share("fourth.bin", {7})) << "Bob's 3 went with him; the deleted 2 waits";
    EXPECT_EQ(2, Share("fifth.bin", {8})) << "only the deleted one is left";
    EXPECT_EQ(0xFFFF, Share("sixth.bin", {9}));
    ZV_FileUploadInfo row;
    ASSERT_TRUE(Row(shape.Server(), 1, row));
    EXPECT_EQ(QB_StringU8("kept.bin"), row.m_BriefInfo.m_sFileOldName);
}

// Uploads against a server whose catalogue saves fail.
using UploadScene = ZV_Scene;

// A failed catalogue save is never taken for a success: the add is refused
// (61) leaving nothing stored, an upload's row is saved on the timer.
TEST_F(UploadScene, AFailedCatalogueSaveRefusesTheAddOrIsMadeGoodOnTheTimer)
{
    Build();
    const ZV_Bytes data = ZV_RandomBytes(1000, 3);
    const uint16_t usFirst = Share("first.bin", data);
    sim.GetEnv().FailAt(QB_EnvOp::Sync, 1, true);
    Share("second.bin", data);
    sim.GetEnv().ClearFaults();
    EXPECT_EQ(zvResultCannotAccess, ZV_ResultOf(Events(Alice(), zvFsEventFileAdded).back()));
    EXPECT_EQ(1, ZV_FileShareMgrPeer::Sessions(*Manager(shape.Server())).GetCount());
    EXPECT_EQ(1u, StoreCount(shape.Server()));

    const uint16_t usThird = Share("third.bin", data, false);
    // The first block's save goes out; the last one's does not.
    sim.GetEnv().FailAt(QB_EnvOp::Write, 3, true);
    EXPECT_EQ(0u, Fs(Alice())->FsUpload(usThird));
    ASSERT_TRUE(sim.Run()) << sim.GetError();
    sim.GetEnv().ClearFaults();
    auto OnDisk = [&](uint16_t usFileID) {
        ZV_SimHost::PointHome(shape.Server()->GetHome());
        ZV_FileCatalog catalog;
        catalog.Open();
        ZV_FileUploadInfo row;
        QB_StringW sSection;
        return catalog.LoadFile(ZV_SimBuilder::kConfID, usFileID, row, sSection) ? row.m_BriefInfo.m_usFileState
                                                                                  : 0xFFFF;
    };
    EXPECT_EQ(3, OnDisk(usFirst));
    EXPECT_EQ(1, OnDisk(usThird));
    ASSERT_TRUE(sim.AdvanceTime(5000)) << sim.GetError();
    EXPECT_EQ(3, OnDisk(usThird));
    EXPECT_EQ(0xFFFF, OnDisk(usFirst + 1)) << "the refused add left no row";
}
