// Download entries between linked servers, through the simulator: a user's
// dropped download ends on every server.
#include "ZV_SceneFixture.h"

#include "rights/ZV_EntryPdu.h"

using EntryScene = ZV_Scene;

// Carol, behind the second server, gives up her download of Alice's file
// and keeps what she has: the drop reaches the first server as a flood with
// its own number, and nothing more reaches her.
TEST_F(EntryScene, ADroppedDownloadEndsOnEveryServerAndKeepsTheLocalFileWhenAsked)
{
    Build(true);
    ZV_SimHost* lpCarol = shape.Client(2);
    const uint16_t usFileID = Share("far.bin", ZV_RandomBytes(3 * 1024 * 1024, 41));
    ASSERT_EQ(0u, Download(lpCarol, usFileID));
    ASSERT_TRUE(StepUntilDelivered(PDU_CONF_FS_DOWNLOAD_DATA_RESPONSE, lpCarol, 6));
    ASSERT_EQ(0u, Fs(lpCarol)->FsDelDownload(usFileID, 0));
    ASSERT_TRUE(sim.AdvanceTime(1000)) << sim.GetError();

    const auto vecFlood = sim.Journal().PdusTo(PDU_CONF_FS_DEL_DOWNLOAD_REQUEST, shape.Server(0)->GetName());
    ASSERT_EQ(1u, vecFlood.size());
    QB_ByteStream stream(vecFlood[0].vbData.data(), (int32_t)vecFlood[0].vbData.size());
    stream.ReadU16();
    ZV_EntryRequest flood;
    flood.Load(stream);
    EXPECT_EQ(usFileID, flood.usFileID);
    EXPECT_EQ(lpCarol->GetUserID(), flood.user);
    EXPECT_NE(0u, flood.ulFloodSeq);
    const size_t nKept = QB_ReadWholeFile(Target(lpCarol, usFileID)).size();
    EXPECT_GT(nKept, 0u);
    EXPECT_LT(nKept, 3u * 1024 * 1024);
    EXPECT_TRUE(Events(lpCarol, zvFsEventDownloadFinished).empty());
}
