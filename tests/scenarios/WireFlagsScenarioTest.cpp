// A group progress report ends in 0, 0 while its transfer runs and in 1, 1 once complete (the random conferences
// check every other PDU's flags, and allow either here); every PDU of a whole transfer is taken with 0.
#include "ZV_SceneFixture.h"

using WireFlagsScene = ZV_Scene;

TEST_F(WireFlagsScene, EveryPduOfATransferAcrossTwoServersCarriesTheFlagsOfItsKindAndIsTakenWith0)
{
    Build(true);
    ZV_SimHost* lpCarol = shape.Client(2);
    const ZV_Bytes data = ZV_RandomBytes(30 * 32768 + 9, 11);
    const uint16_t usFileID = Share("flags.bin", data, false);
    ASSERT_EQ(0u, Download(Bob(), usFileID));
    ASSERT_EQ(0u, Download(lpCarol, usFileID));
    ASSERT_TRUE(StepUntilDelivered(PDU_CONF_FS_DOWNLOAD_DATA_RESPONSE, Bob(), 2));
    ASSERT_EQ(0u, Fs(Alice())->FsStopUpload(usFileID));
    ASSERT_TRUE(sim.AdvanceTime(25000)) << sim.GetError();
    ASSERT_EQ(0u, Fs(Alice())->FsResumeUpload(usFileID));
    ASSERT_TRUE(sim.AdvanceTime(25000)) << sim.GetError();
    ASSERT_EQ(data, QB_ReadWholeFile(Target(lpCarol, usFileID)));

    size_t nProgressRunning = 0, nProgressDone = 0;
    for (const ZV_SimEntry& entry : Find({.eKind = ZV_SimEntryKind::Pdu}))
    {
        EXPECT_TRUE(entry.eFate != ZV_SimFate::Delivered || entry.ulResult == 0) << entry.usNumber << " to " << entry.sPeer;
        if (entry.usNumber != PDU_CONF_FS_PROGRESSING_RESPONSE || entry.eRoute != ZV_SimRoute::Group)
            continue;
        QB_ByteStream stream(entry.vbData.data(), (int32_t)entry.vbData.size());
        stream.Skip(10);
        const uint8_t bDone = stream.ReadU32() >= data.size() ? 1 : 0;
        EXPECT_EQ(std::make_pair(bDone, bDone), std::make_pair(entry.bFlag1, entry.bFlag2)) << "from " << entry.sNode;
        ++(bDone ? nProgressDone : nProgressRunning);
    }
    EXPECT_TRUE(nProgressRunning > 0 && nProgressDone > 0);
}
