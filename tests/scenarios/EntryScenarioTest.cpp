// Download entries between linked servers, through the simulator: a user's
// dropped download ends on every server, and a notice that a file's source
// moved turns a server round to fetch from the neighbour that sent it.
#include "ZV_SceneFixture.h"

#include "ZV_EntryPdu.h"
#include "ZV_PduFrame.h"

#include <filesystem>

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

// The second server says it is the file's source now: the first drops the
// entries of it and asks it, as a relay, for the file from its own write
// position on. The same notice again changes nothing.
TEST_F(EntryScene, ANoticeThatTheSourceMovedTurnsTheServerRoundOnceForEachFlood)
{
    Build(true);
    const uint16_t usFileID = Share("turn.bin", ZV_RandomBytes(100000, 42));
    ZV_EntryRequest notice;
    notice.usFileID = usFileID;
    notice.user = QB_UserID(shape.Server(1)->GetLocalServerID(), 0);
    notice.ulFloodSeq = sim.NewFloodSeq();
    for (int nTimes = 1; nTimes <= 2; ++nTimes)
    {
        const size_t nMark = sim.Journal().Size();
        ZV_PduBuffer pdu;
        notice.Save(pdu.Stream());
        shape.Server(1)->SendPduToServers(zvConnNone, zvConfServerTypeCommand,
                                          PDU_CONF_FS_NOTICE_DEL_DOWNLOAD_INFO_REQUEST,
                                          pdu.WithConfWord(ZV_SimBuilder::kConfID), pdu.WithConfWordLength(), 1, 0);
        ASSERT_TRUE(sim.Run()) << sim.GetError();
        ZV_SimFilter filter;
        filter.eKind = ZV_SimEntryKind::Pdu;
        filter.usNumber = PDU_CONF_FS_DOWNLOAD_REQUEST;
        filter.sNode = shape.Server(0)->GetName();
        filter.nFrom = nMark;
        const auto vecAsked = sim.Journal().Find(filter);
        ASSERT_EQ(nTimes == 1 ? 1u : 0u, vecAsked.size()) << nTimes;
        if (vecAsked.empty())
            continue;
        EXPECT_EQ(shape.Server(1)->GetName(), vecAsked[0].sPeer);
        QB_ByteStream stream(vecAsked[0].vbData.data(), (int32_t)vecAsked[0].vbData.size());
        EXPECT_EQ(usFileID, stream.ReadU16());
        QB_UserID asker;
        asker.Load(stream);
        EXPECT_EQ(QB_UserID(shape.Server(0)->GetLocalServerID(), 0), asker);
        stream.ReadU32();
        QB_StringU8 sPath;
        stream.ReadString(sPath);
        EXPECT_NE(std::string::npos, std::string(sPath.GetString()).find("turn.bin"));
        EXPECT_EQ(100000u, stream.ReadU32()) << "from its own write position";
        EXPECT_EQ(1u, stream.ReadU8()) << "as a server";
    }
}
