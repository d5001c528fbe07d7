// Downloads: Alice shares, others fetch.
#include "ZV_SceneFixture.h"

#include "add/ZV_AddPdu.h"
#include "records/ZV_FileDownloadInfo.h"
#include "wire/ZV_PduFrame.h"
#include "wire/ZV_RecordStream.h"

#include <algorithm>

using DownloadScene = ZV_Scene;

TEST_F(DownloadScene, EveryFileAroundTheBlockEdgesArrivesByteIdenticalInTheStoreAndOnTheDownloadersDisk)
{
    Build(false);
    sim.GetEnv().ResetCounts();
    const size_t aSizes[] = {0, 1, 32767, 32768, 32769, 98304, 98305, 3 * 1024 * 1024 + 7};
    std::vector<uint16_t> vecIDs;
    for (size_t nSize : aSizes)
    {
        vecIDs.push_back(Share(std::to_string(nSize) + ".bin", ZV_RandomBytes(nSize, (unsigned)nSize), false));
        EXPECT_EQ(0u, Fs(Alice())->FsUpload(vecIDs.back())) << nSize;
    }
    ASSERT_TRUE(sim.Run()) << sim.GetError();
    EXPECT_FALSE(IsBusy(Alice())) << "the empty file too is whole at once for its creator";
    // Nothing was lost: each block went once and none was asked for again.
    EXPECT_TRUE(sim.Journal().PdusTo(PDU_CONF_FS_UPLOAD_RESPONSE, Alice()->GetName()).empty());
    EXPECT_EQ(1u + 1u + 1u + 1u + 2u + 3u + 4u + 97u + std::size(aSizes),
              sim.Journal().Pdus(PDU_CONF_FS_UPLOAD_REQUEST, Alice()->GetName()).size());
    for (uint16_t usFileID : vecIDs)
        EXPECT_EQ(0u, Download(Bob(), usFileID)) << usFileID;
    ASSERT_TRUE(sim.AdvanceTime(1000)) << sim.GetError();
    // Every block is read and written where it lies; a new file is not cut.
    EXPECT_EQ(0, sim.GetEnv().GetCount(QB_EnvOp::Seek));
    EXPECT_EQ(0, sim.GetEnv().GetCount(QB_EnvOp::SetEnd));

    for (size_t i = 0; i < std::size(aSizes); ++i)
    {
        const ZV_Bytes data = ZV_RandomBytes(aSizes[i], (unsigned)aSizes[i]);
        ZV_FileUploadInfo row;
        ASSERT_TRUE(Row(shape.Server(), vecIDs[i], row)) << aSizes[i];
        EXPECT_EQ(data, QB_ReadWholeFile(Stored(shape.Server(), row))) << aSizes[i] << " bytes";
        EXPECT_EQ(3u, row.m_BriefInfo.m_usFileState) << aSizes[i];
        EXPECT_EQ(aSizes[i], row.m_ulFileWritePos) << aSizes[i];
        EXPECT_TRUE(std::filesystem::exists(Target(Bob(), vecIDs[i]))) << aSizes[i];
        EXPECT_EQ(data, QB_ReadWholeFile(Target(Bob(), vecIDs[i]))) << aSizes[i] << " bytes";
    }
    // An empty file has no block to send: it is made, and is whole at once.
    EXPECT_EQ(std::size(aSizes), Events(Bob(), zvFsEventDownloadFinished).size());
    EXPECT_FALSE(IsBusy(Bob()));
    for (const auto& event : Events(Bob(), zvFsEventDownloadState))
        EXPECT_EQ(0u, ZV_ResultOf(event));
    for (ZV_SimHost* lpClient : shape.vecClients)
        EXPECT_TRUE(Events(lpClient, zvFsEventTransferError).empty()) << lpClient->GetName();
}

// A block the server cannot read, or Bob's disk cannot write, ends his
// download with 61: the server is asked to stop, nothing more is written.
TEST_F(DownloadScene, ABlockThatCannotBeReadOrWrittenEndsTheDownloadWith61)
{
    Build(false);
    const ZV_Bytes data = ZV_RandomBytes(20 * 32768, 5);
    uint16_t usFileID = Share("full.bin", data);
    for (QB_EnvOp op : {QB_EnvOp::Read, QB_EnvOp::Write})
    {
        const size_t nFrom = sim.Journal().Size();
        // Counted from the request on: asking writes the user's choice down.
        ASSERT_EQ(0u, Download(Bob(), usFileID));
        sim.GetEnv().ResetCounts();
        sim.GetEnv().FailAt(op, 3);
        ASSERT_TRUE(sim.AdvanceTime(1000)) << sim.GetError();
        sim.GetEnv().ClearFaults();
        const auto vecState = Events(Bob(), zvFsEventDownloadState);
        ASSERT_FALSE(vecState.empty());
        EXPECT_EQ(zvResultCannotAccess, ZV_ResultOf(vecState.back()));
        EXPECT_EQ(usFileID, ZV_FileIDOf(vecState.back()));
        EXPECT_EQ(1u, Find({.usNumber = PDU_CONF_FS_IS_STOP_DOWNLOAD_REQUEST, .sNode = Bob()->GetName(), .nFrom = nFrom})
                          .size());
        EXPECT_EQ(2u * 32768, QB_ReadWholeFile(Target(Bob(), usFileID)).size());
        EXPECT_TRUE(Events(Bob(), zvFsEventDownloadFinished).empty());
        usFileID = Share("again.bin", data);
    }
}

// A download of a file with no bytes orders its creator to upload: a creator
// known but without a link gives 56, one whose command link is down 16.
TEST_F(DownloadScene, ADownloadWhoseCreatorCannotBeOrderedToUploadSaysWhy)
{
    Build(true);
    ZV_SimUser zed = ZV_SimBuilder::MakeUser(1, 7);
    sim.GetUsers(ZV_SimBuilder::kConfID).Put(zed);
    ZV_AddRequest ask;
    ask.usFileID = 1500;
    ask.user = zed.id;
    ask.ulFloodSeq = sim.NewFloodSeq();
    ask.brief.SetCreatorID(zed.id);
    ask.brief.SetFileOldName(QB_StringU8("zed.bin"));
    ask.brief.SetFileLenth(1000);
    ask.brief.SetPublic(true);
    ZV_PduBuffer pdu;
    ask.Save(pdu.Stream());
    ZV_SimHost* lpServer2 = shape.Server(1);
    lpServer2->SendPduToServers(zvConnNone, zvConfServerTypeCommand, PDU_CONF_FS_ADD_REQUEST,
                                pdu.WithConfWord(ZV_SimBuilder::kConfID), pdu.WithConfWordLength(), 1, 1);
    const uint16_t usAlice = Share("later.bin", ZV_RandomBytes(1000, 9), false);
    ASSERT_TRUE(sim.Run()) << sim.GetError();
    ASSERT_TRUE(sim.Cut(sim.GetClientLink(Alice()), zvConfClientTypeCommand));
    for (const auto& [usFileID, ulResult] : {std::pair<uint16_t, uint32_t>{1500, zvResultNoCreatorLink},
                                             std::pair<uint16_t, uint32_t>{usAlice, zvResultNoConnection}})
    {
        ASSERT_EQ(0u, Download(Bob(), usFileID));
        ASSERT_TRUE(sim.Run()) << sim.GetError();
        const auto vecState = Events(Bob(), zvFsEventDownloadState);
        ASSERT_FALSE(vecState.empty());
        EXPECT_EQ(ulResult, ZV_ResultOf(vecState.back())) << usFileID;
        EXPECT_EQ(usFileID, ZV_FileIDOf(vecState.back()));
    }
}
