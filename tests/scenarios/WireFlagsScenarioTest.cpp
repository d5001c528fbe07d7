// The two flags every send ends in are fixed per PDU: a whole conference's traffic is checked, with each result.
#include "ZV_SceneFixture.h"

using WireFlagsScene = ZV_Scene;

namespace {

// A PDU's flags; ulFileLen tells the group's progress report of completion from one while the transfer runs.
std::pair<uint8_t, uint8_t> ExpectedFlags(const ZV_SimEntry& entry, uint32_t ulFileLen)
{
    if (entry.usNumber == 257)
        return {0, 0};
    if (entry.usNumber == PDU_CONF_FS_PROGRESSING_REQUEST)
        return {1, 0};
    if (entry.usNumber != PDU_CONF_FS_PROGRESSING_RESPONSE || entry.eRoute != ZV_SimRoute::Group)
        return {1, 1};
    QB_ByteStream stream(entry.vbData.data(), (int32_t)entry.vbData.size());
    stream.Skip(10);
    const uint8_t bDone = stream.ReadU32() >= ulFileLen ? 1 : 0;
    return {bDone, bDone};
}

}  // namespace

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
        const auto flags = ExpectedFlags(entry, (uint32_t)data.size());
        EXPECT_EQ(flags, std::make_pair(entry.bFlag1, entry.bFlag2))
            << entry.usNumber << " from " << entry.sNode << " to " << entry.sPeer;
        EXPECT_TRUE(entry.eFate != ZV_SimFate::Delivered || entry.ulResult == 0) << entry.usNumber << " to " << entry.sPeer;
        if (entry.usNumber == PDU_CONF_FS_PROGRESSING_RESPONSE && entry.eRoute == ZV_SimRoute::Group)
            ++(flags.first ? nProgressDone : nProgressRunning);
    }
    EXPECT_TRUE(nProgressRunning > 0 && nProgressDone > 0);
}
