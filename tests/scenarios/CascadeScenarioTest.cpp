// Three servers in a line, a user on each: Alice on server 1, Carol on 2,
// Erin on 3. Files travel from end to end through the middle server's
// store, and the servers get back in step after cuts, restarts and deletes.
#include "ZV_SceneFixture.h"

#include "core/ZV_FileShareSession.h"
#include "control/ZV_ControlPdu.h"
#include "download/ZV_DownloadPdu.h"
#include "lists/ZV_ListPdu.h"
#include "upload/ZV_UploadPdu.h"

#include <filesystem>
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
    ZV_SimHost* Carol() const { return shape.Client(1); }
    ZV_SimHost* Erin() const { return shape.Client(2); }
    ZV_SimLink* Link(uint32_t ulA, uint32_t ulB) const { return sim.GetServerLink(ulA, ulB); }

    // The bytes a server stores of a file; empty when it has no row or no
    // stored file.
    ZV_Bytes StoredBytes(int nServer, uint16_t usFileID)
    {
        ZV_FileUploadInfo row;
        if (!Row(Server(nServer), usFileID, row) || !std::filesystem::exists(Stored(Server(nServer), row)))
            return {};
        return QB_ReadWholeFile(Stored(Server(nServer), row));
    }
    static bool HasSession(ZV_SimHost* lpNode, uint16_t usFileID)
    {
        ZV_FileShareSession* lpFsSession = nullptr;
        return ZV_FileShareMgrPeer::Sessions(*Manager(lpNode)).Lookup(usFileID, lpFsSession);
    }
    // The FileID of the last file Alice was told she shared.
    uint16_t LastAddedFileID()
    {
        const auto vecAdded = Events(Alice(), zvFsEventFileAdded);
        if (vecAdded.empty())
            return 0xFFFF;
        QB_ByteStream stream(vecAdded.back().vbData.data(), (int32_t)vecAdded.back().vbData.size());
        stream.Skip(6);
        return stream.ReadU16();
    }
    // Settles the conference: delivers, then lets the timers run long
    // enough for any stalled file to be looked at again.
    void Settle()
    {
        ASSERT_TRUE(sim.Run()) << sim.GetError();
        ASSERT_TRUE(sim.AdvanceTime(60000)) << sim.GetError();
    }
};

TEST_F(CascadeScene, AFileSharedAtOneEndIsStoredOnEveryServerAndDownloadedAtTheOther)
{
    BuildLine();
    const ZV_Bytes data = ZV_RandomBytes(3 * 1024 * 1024 + 7, 1);
    const uint16_t usFileID = Share("far.bin", data);
    ASSERT_NE(0xFFFF, usFileID);
    ASSERT_EQ(0u, Download(Erin(), usFileID));
    ASSERT_TRUE(sim.Run()) << sim.GetError();
    EXPECT_EQ(data, QB_ReadWholeFile(Target(Erin(), usFileID)));
    EXPECT_EQ(1u, Events(Erin(), zvFsEventDownloadFinished).size());
    for (int n = 1; n <= 3; ++n)
    {
        EXPECT_EQ(data, StoredBytes(n, usFileID)) << n;
        ZV_FileUploadInfo row;
        ASSERT_TRUE(Row(Server(n), usFileID, row)) << n;
        EXPECT_EQ(zvFileStateComplete, row.m_BriefInfo.m_usFileState) << n;
    }
    // Each server passes the blocks on over its data link to the next, and
    // only the first hears from Alice.
    const auto vecPassed = sim.Journal().Pdus(PDU_CONF_FS_DOWNLOAD_DATA_RESPONSE, Server(1)->GetName());
    EXPECT_FALSE(vecPassed.empty());
    for (const auto& entry : vecPassed)
        EXPECT_EQ(ZV_SimRoute::OnLink, entry.eRoute);
    EXPECT_TRUE(sim.Journal().PdusTo(PDU_CONF_FS_UPLOAD_REQUEST, Server(2)->GetName()).empty());
}

TEST_F(CascadeScene, TheMiddleServerCutOffDuringTheUploadCatchesUpWhenItsLinksComeBack)
{
    BuildLine();
    const ZV_Bytes data = ZV_RandomBytes(2 * 1024 * 1024 + 3, 2);
    StartShare("cut.bin", data);
    ASSERT_TRUE(StepUntilDelivered(PDU_CONF_FS_DOWNLOAD_DATA_RESPONSE, Server(2), 5));
    ASSERT_TRUE(sim.CutLink(Link(1, 2)));
    ASSERT_TRUE(sim.CutLink(Link(2, 3)));
    ASSERT_TRUE(sim.Run()) << sim.GetError();
    const uint16_t usFileID = LastAddedFileID();
    ASSERT_EQ(data, StoredBytes(1, usFileID));
    EXPECT_NE(data, StoredBytes(2, usFileID));

    ASSERT_TRUE(sim.RestoreLink(Link(1, 2)));
    ASSERT_TRUE(sim.RestoreLink(Link(2, 3)));
    // The middle server's store is as it was when the links went; the
    // first stall wait after they are back has it ask for the rest.
    Settle();
    EXPECT_EQ(data, StoredBytes(2, usFileID));
    EXPECT_EQ(data, StoredBytes(3, usFileID));
    ASSERT_EQ(0u, Download(Erin(), usFileID));
    ASSERT_TRUE(sim.Run()) << sim.GetError();
    EXPECT_EQ(data, QB_ReadWholeFile(Target(Erin(), usFileID)));
}

TEST_F(CascadeScene, ARestartedServerKeepsItsStoreAndFetchesOnlyWhatItsDiskLacks)
{
    BuildLine();
    const ZV_Bytes dataA = ZV_RandomBytes(100000, 3);
    const ZV_Bytes dataB = ZV_RandomBytes(70000, 4);
    const ZV_Bytes dataC = ZV_RandomBytes(40000, 5);
    const uint16_t usA = Share("a.bin", dataA);
    const uint16_t usB = Share("b.bin", dataB);
    const uint16_t usC = Share("c.bin", dataC);
    ASSERT_EQ(dataC, StoredBytes(3, usC));
    ZV_FileUploadInfo rowA, rowB, rowC;
    ASSERT_TRUE(Row(Server(3), usA, rowA) && Row(Server(3), usB, rowB) && Row(Server(3), usC, rowC));
    std::filesystem::resize_file(Stored(Server(3), rowA), 50000);
    std::filesystem::remove(Stored(Server(3), rowB));
    const auto timeC = std::filesystem::last_write_time(Stored(Server(3), rowC));
    const size_t nFrom = sim.Journal().Size();

    ASSERT_TRUE(sim.RestartServer(Server(3)));
    // A file still to be fetched is arriving, whatever state the peer gives.
    ZV_SimFilter lists;
    lists.usNumber = PDU_CONF_GET_FILE_LIST_RESPONSE;
    lists.sPeer = Server(3)->GetName();
    lists.eFate = ZV_SimFate::Delivered;
    ASSERT_TRUE(StepUntilDelivered(PDU_CONF_GET_FILE_LIST_RESPONSE, Server(3), sim.Journal().Find(lists).size() + 1));
    ZV_FileUploadInfo arriving;
    ASSERT_TRUE(Row(Server(3), usB, arriving));
    EXPECT_EQ(zvFileStateUploading, arriving.m_BriefInfo.m_usFileState);
    EXPECT_EQ(0u, arriving.m_ulFileWritePos);
    ASSERT_TRUE(sim.Run()) << sim.GetError();
    std::map<uint16_t, uint32_t> mapAskedFrom;
    ZV_SimFilter filter;
    filter.usNumber = PDU_CONF_FS_DOWNLOAD_REQUEST;
    filter.sNode = Server(3)->GetName();
    filter.nFrom = nFrom;
    for (const ZV_SimEntry& entry : sim.Journal().Find(filter))
    {
        QB_ByteStream stream(entry.vbData.data(), (int32_t)entry.vbData.size());
        ZV_DownloadAsk ask;
        ask.Load(stream);
        mapAskedFrom[ask.usFileID] = ask.ulPos;
    }
    EXPECT_EQ((std::map<uint16_t, uint32_t>{{usA, 50000}, {usB, 0}}), mapAskedFrom);
    EXPECT_EQ(dataA, StoredBytes(3, usA));
    EXPECT_EQ(dataB, StoredBytes(3, usB));
    EXPECT_EQ(dataC, StoredBytes(3, usC));
    EXPECT_EQ(timeC, std::filesystem::last_write_time(Stored(Server(3), rowC)));
    ZV_FileUploadInfo after;
    ASSERT_TRUE(Row(Server(3), usA, after));
    EXPECT_EQ(rowA.m_sFileNewName, after.m_sFileNewName);
    EXPECT_EQ(zvFileStateComplete, after.m_BriefInfo.m_usFileState);

    for (uint16_t usFileID : {usA, usB, usC})
        ASSERT_EQ(0u, Download(Erin(), usFileID)) << usFileID;
    ASSERT_TRUE(sim.Run()) << sim.GetError();
    EXPECT_EQ(dataA, QB_ReadWholeFile(Target(Erin(), usA)));
    EXPECT_EQ(dataB, QB_ReadWholeFile(Target(Erin(), usB)));
    EXPECT_EQ(dataC, QB_ReadWholeFile(Target(Erin(), usC)));
}

TEST_F(CascadeScene, AFileDeletedWhileALinkWasDownGoesFromTheFarSideWhenTheLinkComesBack)
{
    BuildLine();
    const uint16_t usFileID = Share("gone.bin", ZV_RandomBytes(50000, 6));
    const uint16_t usKept = Share("kept.bin", ZV_RandomBytes(30000, 7));
    ASSERT_FALSE(StoredBytes(3, usFileID).empty());
    ASSERT_TRUE(sim.CutLink(Link(1, 2)));
    ASSERT_EQ(0u, Fs(Alice())->FsDelUpload(usFileID));
    ASSERT_TRUE(sim.Run()) << sim.GetError();
    ASSERT_TRUE(StoredBytes(1, usFileID).empty());
    ASSERT_FALSE(StoredBytes(2, usFileID).empty());
    const size_t nFrom = sim.Journal().Size();

    ASSERT_TRUE(sim.RestoreLink(Link(1, 2)));
    ASSERT_TRUE(sim.Run()) << sim.GetError();
    ZV_SimFilter filter;
    filter.usNumber = PDU_CONF_FS_DEL_UPLOAD_REQUEST;
    filter.sNode = Server(1)->GetName();
    filter.sPeer = Server(2)->GetName();
    filter.eRoute = ZV_SimRoute::OnLink;
    filter.nFrom = nFrom;
    EXPECT_EQ(1u, sim.Journal().Find(filter).size());
    for (int n = 1; n <= 3; ++n)
    {
        ZV_FileUploadInfo row;
        EXPECT_FALSE(Row(Server(n), usFileID, row)) << n;
        EXPECT_FALSE(HasSession(Server(n), usFileID)) << n;
        EXPECT_FALSE(StoredBytes(n, usKept).empty()) << n;
    }
    EXPECT_EQ(1u, std::distance(std::filesystem::directory_iterator(Server(2)->GetHome() + "store/100"),
                                std::filesystem::directory_iterator()));
    ZV_FsFileInfo info;
    for (ZV_SimHost* lpClient : {Carol(), Erin()})
    {
        EXPECT_EQ(zvResultUnknownFile, Fs(lpClient)->FsGetFileInfoByFileID(usFileID, &info)) << lpClient->GetName();
        EXPECT_EQ(zvResultOk, Fs(lpClient)->FsGetFileInfoByFileID(usKept, &info)) << lpClient->GetName();
    }
}

// Servers 2 and 3 were away, and restarted, while server 1 deleted its only
// file and gave FileID 1 to a new one. Each takes the new file when it
// hears of it first: the old one's stored bytes go and the new ones come.
TEST_F(CascadeScene, AFileIDGivenToAnotherFileWhileTwoServersWereAwayBringsThemTheNewFile)
{
    sim.SetFileIDRange(1, 1, 1);
    BuildLine();
    const ZV_Bytes dataOld = ZV_RandomBytes(60000, 8);
    const ZV_Bytes dataNew = ZV_RandomBytes(45000, 9);
    ASSERT_EQ(1, Share("old.bin", dataOld));
    ASSERT_EQ(dataOld, StoredBytes(3, 1));
    ASSERT_TRUE(sim.CutLink(Link(1, 2)));
    ASSERT_TRUE(sim.CutLink(Link(2, 3)));
    ASSERT_EQ(0u, Fs(Alice())->FsDelUpload(1));
    ASSERT_TRUE(sim.Run()) << sim.GetError();
    ASSERT_EQ(1, Share("new.bin", dataNew));
    ASSERT_TRUE(sim.RestartServer(Server(2)));
    ASSERT_TRUE(sim.RestartServer(Server(3)));
    ASSERT_TRUE(sim.Run()) << sim.GetError();
    ASSERT_EQ(dataOld, StoredBytes(3, 1));

    ASSERT_TRUE(sim.RestoreLink(Link(1, 2)));
    ASSERT_TRUE(sim.Run()) << sim.GetError();
    ASSERT_TRUE(sim.RestoreLink(Link(2, 3)));
    ASSERT_TRUE(sim.Run()) << sim.GetError();
    for (int n = 1; n <= 3; ++n)
    {
        EXPECT_EQ(dataNew, StoredBytes(n, 1)) << n;
        EXPECT_EQ(1u, std::distance(std::filesystem::directory_iterator(Server(n)->GetHome() + "store/100"),
                                    std::filesystem::directory_iterator()))
            << n;
    }
    ASSERT_EQ(0u, Download(Erin(), 1));
    ASSERT_TRUE(sim.Run()) << sim.GetError();
    EXPECT_EQ(dataNew, QB_ReadWholeFile(Target(Erin(), 1)));
}

// Only the data connection between servers 1 and 2 goes and comes back: the
// middle server restarts its fetch where its store ends, without waiting for
// a stall, and the creator's server tells it where the upload stands.
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
    ZV_SimFilter filter;
    filter.usNumber = PDU_CONF_FS_DOWNLOAD_DATA_REQUEST;
    filter.sNode = Server(2)->GetName();
    filter.eRoute = ZV_SimRoute::ServerData;
    filter.nFrom = nFrom;
    EXPECT_FALSE(sim.Journal().Find(filter).empty());
    filter.usNumber = PDU_CONF_FS_IS_STOP_UPLOAD_REQUEST;
    filter.sNode = Server(1)->GetName();
    filter.eRoute = ZV_SimRoute::Servers;
    const std::vector<ZV_SimEntry> vecRepublished = sim.Journal().Find(filter);
    ASSERT_EQ(1u, vecRepublished.size());
    QB_ByteStream stream(vecRepublished[0].vbData.data() + 2, (int32_t)vecRepublished[0].vbData.size() - 2);
    ZV_StopUploadAsk ask;
    ask.Load(stream);
    EXPECT_EQ(usFileID, ask.usFileID);
    EXPECT_EQ(Alice()->GetUserID(), ask.user);
    EXPECT_EQ(0, ask.bStop);
    EXPECT_EQ(data.size(), ask.ulPos);
    // The others only pass that one flood on.
    filter.sNode.clear();
    filter.eRoute.reset();
    for (const ZV_SimEntry& entry : sim.Journal().Find(filter))
    {
        QB_ByteStream passed(entry.vbData.data() + 2, (int32_t)entry.vbData.size() - 2);
        ZV_StopUploadAsk flood;
        flood.Load(passed);
        EXPECT_EQ(ask.ulFloodSeq, flood.ulFloodSeq) << entry.sNode;
    }
}

// The creator's server set itself against the middle server's list and
// tells the others that the upload was stopped while they were away.
TEST_F(CascadeScene, AStopMadeWhileTheMiddleServerWasAwayReachesItWhenTheLinkComesBack)
{
    BuildLine();
    const ZV_Bytes data = ZV_RandomBytes(512 * 1024, 11);
    StartShare("slow.bin", data);
    ASSERT_TRUE(StepUntilDelivered(PDU_CONF_FS_DOWNLOAD_DATA_RESPONSE, Server(2), 2));
    const uint16_t usFileID = LastAddedFileID();
    ASSERT_TRUE(sim.CutLink(Link(1, 2)));
    ASSERT_EQ(0u, Fs(Alice())->FsStopUpload(usFileID));
    ASSERT_TRUE(sim.Run()) << sim.GetError();
    ZV_FileUploadInfo row;
    ASSERT_TRUE(Row(Server(2), usFileID, row));
    ASSERT_NE(zvFileStateStopped, row.m_BriefInfo.m_usFileState);
    const size_t nFrom = sim.Journal().Size();

    ASSERT_TRUE(sim.RestoreLink(Link(1, 2)));
    ASSERT_TRUE(sim.Run()) << sim.GetError();
    for (int n = 2; n <= 3; ++n)
    {
        ASSERT_TRUE(Row(Server(n), usFileID, row)) << n;
        EXPECT_EQ(zvFileStateStopped, row.m_BriefInfo.m_usFileState) << n;
    }
    ZV_SimFilter filter;
    filter.usNumber = PDU_CONF_FS_IS_STOP_UPLOAD_RESPONSE;
    filter.sPeer = Carol()->GetName();
    filter.eFate = ZV_SimFate::Delivered;
    filter.nFrom = nFrom;
    EXPECT_EQ(1u, sim.Journal().Find(filter).size());
}

// Server 3 hears from server 1 only through server 2, which passes on the
// end of the upload and a download stopped at the far end.
TEST_F(CascadeScene, TheMiddleServerPassesOnTheEndOfAnUploadAndAStoppedDownload)
{
    BuildLine();
    const ZV_Bytes data = ZV_RandomBytes(3 * 1024 * 1024, 12);
    StartShare("long.bin", data);
    ASSERT_TRUE(StepUntilDelivered(PDU_CONF_FS_UPLOAD_FINISH_Response, Server(3), 1));
    const uint16_t usFileID = LastAddedFileID();
    ASSERT_NE(data, StoredBytes(3, usFileID));
    // The creator leaves while server 3 still fetches. Having heard that
    // every byte arrived, server 3 keeps the file.
    ASSERT_TRUE(sim.Leave(Alice()));
    ASSERT_TRUE(sim.Run()) << sim.GetError();
    EXPECT_EQ(data, StoredBytes(3, usFileID));

    ASSERT_EQ(0u, Download(Erin(), usFileID));
    ASSERT_TRUE(StepUntilDelivered(PDU_CONF_FS_DOWNLOAD_DATA_RESPONSE, Erin(), 2));
    const size_t nFrom = sim.Journal().Size();
    ASSERT_EQ(0u, Fs(Erin())->FsStopDownload(usFileID));
    ASSERT_TRUE(sim.Run()) << sim.GetError();
    ZV_SimFilter filter;
    filter.usNumber = PDU_CONF_FS_IS_STOP_DOWNLOAD_REQUEST;
    filter.sPeer = Server(1)->GetName();
    filter.eFate = ZV_SimFate::Delivered;
    filter.nFrom = nFrom;
    EXPECT_EQ(1u, sim.Journal().Find(filter).size());
}

// Server 3 restarts while Erin downloads from it. Its first list to her is
// empty, so her partial file goes; once server 2 has listed the file and
// Erin's download record, server 3 announces the file and gives her the
// record, and her client, which asked for that download, fetches it again.
TEST_F(CascadeScene, AServerRestartedInTheMiddleOfADownloadGivesItBackOnceAPeerListedIt)
{
    BuildLine();
    const ZV_Bytes data = ZV_RandomBytes(1024 * 1024, 13);
    const uint16_t usFileID = Share("big.bin", data);
    ASSERT_EQ(data, StoredBytes(3, usFileID));
    ASSERT_EQ(0u, Download(Erin(), usFileID));
    ASSERT_TRUE(StepUntilDelivered(PDU_CONF_FS_DOWNLOAD_DATA_RESPONSE, Erin(), 5));
    const size_t nFrom = sim.Journal().Size();
    ASSERT_TRUE(sim.RestartServer(Server(3)));
    ASSERT_TRUE(sim.Run()) << sim.GetError();

    ZV_SimFilter filter;
    filter.usNumber = PDU_CONF_GET_DOWNLOAD_SESSION_LIST_RESPONSE;
    filter.sNode = Server(3)->GetName();
    filter.sPeer = Erin()->GetName();
    filter.nFrom = nFrom;
    const std::vector<ZV_SimEntry> vecLists = sim.Journal().Find(filter);
    ASSERT_EQ(1u, vecLists.size());
    QB_ByteStream stream(vecLists[0].vbData.data(), (int32_t)vecLists[0].vbData.size());
    ZV_DownloadListResponse list;
    list.Load(stream);
    ASSERT_EQ(1, list.arrInfo.GetSize());
    EXPECT_EQ(usFileID, list.arrInfo[0].m_usFileID);
    EXPECT_FALSE(list.arrModify[0]) << "the same file as she began with";
    EXPECT_EQ(data, QB_ReadWholeFile(Target(Erin(), usFileID)));
}

// Server 1 shares a file while cut off from server 2; when the link comes
// back, server 2 learns of it from the list and passes it on to server 3,
// which would hear of it nowhere else. And a file deleted on server 3 while
// it was away goes for good when server 2, which had forgotten it in a
// restart, learns of it again from server 1.
TEST_F(CascadeScene, AListPassesItsNewFilesOnAndADeleteMadeTwoServersAwayComesBack)
{
    BuildLine();
    ASSERT_TRUE(sim.CutLink(Link(1, 2)));
    const ZV_Bytes data = ZV_RandomBytes(80000, 14);
    const uint16_t usFileID = Share("behind.bin", data);
    ASSERT_TRUE(StoredBytes(3, usFileID).empty());
    ASSERT_TRUE(sim.RestoreLink(Link(1, 2)));
    ASSERT_TRUE(sim.Run()) << sim.GetError();
    EXPECT_EQ(data, StoredBytes(3, usFileID));
    ASSERT_EQ(0u, Download(Erin(), usFileID));
    ASSERT_TRUE(sim.Run()) << sim.GetError();
    EXPECT_EQ(data, QB_ReadWholeFile(Target(Erin(), usFileID)));

    ASSERT_TRUE(sim.SetUserRole(Erin(), zvUserRolePrivileged));
    ASSERT_TRUE(sim.CutLink(Link(1, 2)));
    ASSERT_TRUE(sim.CutLink(Link(2, 3)));
    ASSERT_EQ(0u, Fs(Erin())->FsDelUpload(usFileID));
    ASSERT_TRUE(sim.Run()) << sim.GetError();
    ASSERT_TRUE(StoredBytes(3, usFileID).empty());
    ASSERT_TRUE(sim.RestartServer(Server(2)));
    ASSERT_TRUE(sim.RestoreLink(Link(2, 3)));
    ASSERT_TRUE(sim.Run()) << sim.GetError();
    ASSERT_TRUE(sim.RestoreLink(Link(1, 2)));
    ASSERT_TRUE(sim.Run()) << sim.GetError();
    for (int n = 1; n <= 3; ++n)
    {
        EXPECT_FALSE(HasSession(Server(n), usFileID)) << n;
        EXPECT_TRUE(StoredBytes(n, usFileID).empty()) << n;
    }
}

} // namespace
