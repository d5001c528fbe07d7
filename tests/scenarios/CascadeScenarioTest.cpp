// Three servers in a line, Alice on 1, Erin on 3: the middle server gets
// back in step after cuts and restarts.
#include "ZV_SceneFixture.h"

#include "control/ZV_ControlPdu.h"
#include "download/ZV_DownloadPdu.h"
#include "upload/ZV_UploadPdu.h"

#include <map>

namespace {

struct CascadeScene : ZV_Scene
{
    void BuildLine()
    {
        shape = ZV_SimBuilder::ServersInALine(sim, 3);
        ASSERT_TRUE(shape.IsComplete() && sim.Run()) << sim.GetError();
    }
    ZV_SimHost* Server(int n) const { return shape.Server((size_t)n - 1); }
    ZV_SimHost* Erin() const { return shape.Client(2); }
    ZV_SimLink* Link(uint32_t ulA, uint32_t ulB) const { return sim.GetServerLink(ulA, ulB); }
    ZV_Bytes StoredBytes(int nServer, uint16_t usFileID) { return ZV_Scene::StoredBytes(Server(nServer), usFileID); }
    uint16_t LastAddedFileID() { return AddedFileID(Alice(), Events(Alice(), zvFsEventFileAdded).size() - 1); }
    void ExpectErinFetches(uint16_t usFileID, const ZV_Bytes& data)
    {
        ASSERT_EQ(0u, Download(Erin(), usFileID));
        ASSERT_TRUE(sim.Run()) << sim.GetError();
        EXPECT_EQ(data, QB_ReadWholeFile(Target(Erin(), usFileID)));
    }
};

// Only the data connection between servers 1 and 2 goes and comes back: the
// middle server fetches on at once from where its store ends, and the
// creator's server republishes where the upload stands. (A whole cut link
// catching up on the stall wait is the random conferences' to check.)
TEST_F(CascadeScene, AServerDataLinkThatComesBackRestartsTheFetchAndRepublishesTheUpload)
{
    BuildLine();
    const ZV_Bytes data = ZV_RandomBytes(1024 * 1024, 10);
    StartShare("data.bin", data);
    ASSERT_TRUE(StepUntilDelivered(PDU_CONF_FS_DOWNLOAD_DATA_RESPONSE, Server(2), 3));
    ASSERT_TRUE(sim.Cut(Link(1, 2), zvConfServerTypeData));
    ASSERT_TRUE(sim.Run()) << sim.GetError();
    const uint16_t usFileID = LastAddedFileID();
    ASSERT_EQ(data, StoredBytes(1, usFileID));
    ASSERT_NE(data, StoredBytes(2, usFileID));
    const size_t nFrom = sim.Journal().Size();

    ASSERT_TRUE(sim.Restore(Link(1, 2), zvConfServerTypeData));
    ASSERT_TRUE(sim.Run()) << sim.GetError();
    EXPECT_EQ(data, StoredBytes(2, usFileID));
    EXPECT_EQ(data, StoredBytes(3, usFileID));
    EXPECT_FALSE(Find({.usNumber = PDU_CONF_FS_DOWNLOAD_DATA_REQUEST, .sNode = Server(2)->GetName(),
                       .eRoute = ZV_SimRoute::ServerData, .nFrom = nFrom})
                     .empty());
    const auto vecRepublished = Find({.usNumber = PDU_CONF_FS_IS_STOP_UPLOAD_REQUEST, .sNode = Server(1)->GetName(),
                                      .eRoute = ZV_SimRoute::Servers, .nFrom = nFrom});
    ASSERT_EQ(1u, vecRepublished.size());
    QB_ByteStream stream(vecRepublished[0].vbData.data() + 2, (int32_t)vecRepublished[0].vbData.size() - 2);
    ZV_StopUploadAsk ask;
    ask.Load(stream);
    EXPECT_EQ(usFileID, ask.usFileID);
    EXPECT_EQ(Alice()->GetUserID(), ask.user);
    EXPECT_EQ(0, ask.bStop);
    EXPECT_EQ(data.size(), ask.ulPos);
    // The others only pass that one flood on.
    for (const ZV_SimEntry& entry : Find({.usNumber = PDU_CONF_FS_IS_STOP_UPLOAD_REQUEST, .nFrom = nFrom}))
    {
        QB_ByteStream passed(entry.vbData.data() + 2, (int32_t)entry.vbData.size() - 2);
        ZV_StopUploadAsk flood;
        flood.Load(passed);
        EXPECT_EQ(ask.ulFloodSeq, flood.ulFloodSeq) << entry.sNode;
    }
}

TEST_F(CascadeScene, ARestartedServerKeepsItsStoreAndFetchesOnlyWhatItsDiskLacks)
{
    BuildLine();
    const ZV_Bytes dataA = ZV_RandomBytes(100000, 3), dataB = ZV_RandomBytes(70000, 4), dataC = ZV_RandomBytes(40000, 5);
    const uint16_t usA = Share("a.bin", dataA), usB = Share("b.bin", dataB), usC = Share("c.bin", dataC);
    ASSERT_EQ(dataC, StoredBytes(3, usC));
    ZV_FileUploadInfo rowA, rowB, rowC;
    ASSERT_TRUE(Row(Server(3), usA, rowA) && Row(Server(3), usB, rowB) && Row(Server(3), usC, rowC));
    std::filesystem::resize_file(Stored(Server(3), rowA), 50000);
    std::filesystem::remove(Stored(Server(3), rowB));
    const auto timeC = std::filesystem::last_write_time(Stored(Server(3), rowC));
    const size_t nFrom = sim.Journal().Size();

    ASSERT_TRUE(sim.RestartServer(Server(3)));
    // A file still to be fetched is arriving, whatever state the peer gives.
    const size_t nLists = Find({.usNumber = PDU_CONF_GET_FILE_LIST_RESPONSE, .sPeer = Server(3)->GetName(),
                                .eFate = ZV_SimFate::Delivered})
                              .size();
    ASSERT_TRUE(StepUntilDelivered(PDU_CONF_GET_FILE_LIST_RESPONSE, Server(3), nLists + 1));
    ZV_FileUploadInfo arriving;
    ASSERT_TRUE(Row(Server(3), usB, arriving));
    EXPECT_EQ(zvFileStateUploading, arriving.m_BriefInfo.m_usFileState);
    EXPECT_EQ(0u, arriving.m_ulFileWritePos);
    ASSERT_TRUE(sim.Run()) << sim.GetError();
    std::map<uint16_t, uint32_t> mapAskedFrom;
    for (const ZV_SimEntry& entry :
         Find({.usNumber = PDU_CONF_FS_DOWNLOAD_REQUEST, .sNode = Server(3)->GetName(), .nFrom = nFrom}))
    {
        QB_ByteStream stream(entry.vbData.data(), (int32_t)entry.vbData.size());
        ZV_DownloadAsk ask;
        ask.Load(stream);
        mapAskedFrom[ask.usFileID] = ask.ulPos;
    }
    EXPECT_EQ((std::map<uint16_t, uint32_t>{{usA, 50000}, {usB, 0}}), mapAskedFrom);
    EXPECT_EQ(timeC, std::filesystem::last_write_time(Stored(Server(3), rowC)));
    ZV_FileUploadInfo after;
    ASSERT_TRUE(Row(Server(3), usA, after));
    EXPECT_EQ(rowA.m_sFileNewName, after.m_sFileNewName);
    EXPECT_EQ(zvFileStateComplete, after.m_BriefInfo.m_usFileState);
    using Pair = std::pair<uint16_t, ZV_Bytes>;
    for (const auto& [usFileID, data] : {Pair{usA, dataA}, Pair{usB, dataB}, Pair{usC, dataC}})
    {
        EXPECT_EQ(data, StoredBytes(3, usFileID)) << usFileID;
        ExpectErinFetches(usFileID, data);
    }
}

} // namespace
