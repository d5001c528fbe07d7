// Stop and resume through a whole simulated conference: Alice shares, Bob
// fetches, and the bytes on Bob's disk and the events of both say how it went.
#include "ZV_SceneFixture.h"

using ControlScene = ZV_Scene;

TEST_F(ControlScene, StoppedTransfersStandStillWithBlocksInFlightAndGoOnToTheSameBytes)
{
    // Alice shares without starting the upload; Bob's download starts it.
    Build();
    const ZV_Bytes data = ZV_RandomBytes(40 * 32768 + 3, 7);
    const uint16_t usFileID = Share("song.bin", data, false);
    ASSERT_EQ(0u, Download(Bob(), usFileID));
    ASSERT_TRUE(StepUntilDelivered(PDU_CONF_FS_DOWNLOAD_DATA_RESPONSE, Bob(), 2));
    auto Got = [&](uint16_t usID) { return QB_ReadWholeFile(Target(Bob(), usID)); };
    EXPECT_EQ(0u, Fs(Alice())->FsStopUpload(usFileID));
    EXPECT_EQ(0u, Fs(Bob())->FsStopDownload(usFileID));
    ASSERT_TRUE(sim.AdvanceTime(30000)) << sim.GetError();
    const size_t nStopped = Got(usFileID).size();
    EXPECT_LT(nStopped, data.size());
    ASSERT_TRUE(sim.AdvanceTime(30000)) << sim.GetError();
    EXPECT_EQ(nStopped, Got(usFileID).size()) << "nothing moves while stopped, not even after the timers' waits";

    EXPECT_EQ(0u, Fs(Alice())->FsResumeUpload(usFileID));
    EXPECT_EQ(0u, Fs(Bob())->FsResumeDownload(usFileID));
    ASSERT_TRUE(sim.AdvanceTime(1000)) << sim.GetError();
    EXPECT_EQ(data, Got(usFileID));
    EXPECT_EQ(2u, Events(Alice(), zvFsEventStopResult).size());
}
