// Deletes: who may delete, the codes the others hear; a user drops a
// download of his own.
#include "ZV_SceneFixture.h"

#include <filesystem>

using DeleteScene = ZV_Scene;
using std::filesystem::exists;

// A refused delete reaches only the requester, as 3005 with its code.
TEST_F(DeleteScene, RefusedAndRepeatedDeletesAnswerOnlyTheRequesterWithTheirCode)
{
    Build(false);
    const uint16_t usFileID = Share("kept.bin", ZV_RandomBytes(70000, 13));
    ZV_FileUploadInfo row;
    ASSERT_TRUE(Row(shape.Server(), usFileID, row));
    const std::string sStored = Stored(shape.Server(), row);

    // Bob is neither creator nor privileged.
    EXPECT_EQ(0u, Fs(Bob())->FsDelUpload(usFileID));
    ASSERT_TRUE(sim.Run()) << sim.GetError();
    EXPECT_EQ(40u, LastResult(Bob(), zvFsEventFileGone));
    EXPECT_TRUE(Events(Alice(), zvFsEventFileGone).empty());
    EXPECT_TRUE(exists(sStored) && Knows(Bob(), usFileID));

    const ZV_SimUser alice = *sim.GetUsers(ZV_SimBuilder::kConfID).Find(Alice()->GetUserID());
    ASSERT_TRUE(sim.GetUsers(ZV_SimBuilder::kConfID).Remove(alice.id));
    EXPECT_EQ(0u, Fs(Alice())->FsDelUpload(usFileID));
    ASSERT_TRUE(sim.Run()) << sim.GetError();
    EXPECT_EQ(33u, LastResult(Alice(), zvFsEventFileGone));
    EXPECT_EQ(1u, Events(Bob(), zvFsEventFileGone).size());
    EXPECT_TRUE(exists(sStored));
    sim.GetUsers(ZV_SimBuilder::kConfID).Put(alice);

    // Bob, now privileged, and Alice ask at once: Bob's goes first.
    ASSERT_TRUE(sim.SetUserRole(Bob(), zvUserRolePrivileged));
    EXPECT_EQ(0u, Fs(Bob())->FsDelUpload(usFileID));
    EXPECT_EQ(0u, Fs(Alice())->FsDelUpload(usFileID));
    ASSERT_TRUE(sim.Run()) << sim.GetError();
    EXPECT_FALSE(exists(sStored));
    EXPECT_EQ(0u, LastResult(Bob(), zvFsEventFileGone));
    const auto vecAlice = Events(Alice(), zvFsEventFileGone);
    ASSERT_EQ(3u, vecAlice.size());
    EXPECT_EQ(0u, ZV_ResultOf(vecAlice[1]));
    EXPECT_EQ(82u, ZV_ResultOf(vecAlice[2]));
    // Her client has no session left to ask about.
    EXPECT_EQ(82u, Fs(Alice())->FsDelUpload(usFileID));
}

// Bob drops his download, with the file or without; a disk that refuses the
// delete gives 62. The server forgets his entry; the file stays shared.
TEST_F(DeleteScene, DroppingADownloadEndsItOnTheServerAndDeletesTheLocalFileOnlyWhenAsked)
{
    Build(false);
    const ZV_Bytes data = ZV_RandomBytes(3 * 1024 * 1024, 14);
    const uint16_t usFileID = Share("mine.bin", data);
    const std::string sTarget = Target(Bob(), usFileID);
    ASSERT_EQ(0u, Download(Bob(), usFileID));
    ASSERT_TRUE(StepUntilDelivered(PDU_CONF_FS_DOWNLOAD_DATA_RESPONSE, Bob(), 6));

    sim.GetEnv().FailAt(QB_EnvOp::Delete, 1);
    EXPECT_EQ(62u, Fs(Bob())->FsDelDownload(usFileID, 1));
    sim.GetEnv().ClearFaults();
    EXPECT_TRUE(exists(sTarget));
    const size_t nMark = sim.Journal().Size();
    EXPECT_EQ(0u, Fs(Bob())->FsDelDownload(usFileID, 1));
    ASSERT_TRUE(sim.AdvanceTime(1000)) << sim.GetError();
    EXPECT_FALSE(exists(sTarget));
    ZV_SimFilter filter{.usNumber = PDU_CONF_FS_DOWNLOAD_DATA_RESPONSE, .sPeer = Bob()->GetName(),
                        .eFate = ZV_SimFate::Delivered, .nFrom = nMark};
    EXPECT_LE(sim.Journal().Find(filter).size(), 3u) << "at most the blocks already under way";
    // The server has forgotten the download: a resume brings nothing.
    filter.nFrom = sim.Journal().Size();
    EXPECT_EQ(0u, Fs(Bob())->FsResumeDownload(usFileID));
    ASSERT_TRUE(sim.AdvanceTime(1000)) << sim.GetError();
    EXPECT_TRUE(sim.Journal().Find(filter).empty());
    EXPECT_EQ(1u, sim.Journal().PdusTo(PDU_CONF_FS_DEL_DOWNLOAD_REQUEST, shape.Server()->GetName()).size());
    EXPECT_TRUE(Events(Bob(), zvFsEventDownloadFinished).empty());

    ASSERT_EQ(0u, Download(Bob(), usFileID));
    ASSERT_TRUE(sim.AdvanceTime(1000)) << sim.GetError();
    EXPECT_EQ(data, QB_ReadWholeFile(sTarget));
    EXPECT_EQ(0u, Fs(Bob())->FsDelDownload(usFileID, 0));
    EXPECT_EQ(data, QB_ReadWholeFile(sTarget));
}
