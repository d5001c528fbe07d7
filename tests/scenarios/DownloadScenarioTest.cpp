// Downloads through whole simulated conferences: Alice shares, others fetch,
// and the bytes on their disks, their events and the journal of PDUs say how
// it went.
#include "ZV_SimBuilder.h"
#include "ZV_SimConference.h"
#include "ZV_SimLink.h"

#include "ZV_FileDownloadInfo.h"
#include "ZV_RecordStream.h"

#include "QB_ByteStream.h"
#include "QB_TestSupport.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <random>

namespace {

using Bytes = std::vector<uint8_t>;

Bytes RandomBytes(size_t nSize, unsigned nSeed)
{
    std::mt19937 rng(nSeed);
    Bytes data(nSize);
    for (uint8_t& b : data)
        b = (uint8_t)rng();
    return data;
}

std::u16string Wide(const std::string& s)
{
    QB_StringW sWide = QB_ToWindowsPath(s);
    return std::u16string(sWide.GetString(), (size_t)sWide.GetLength());
}

uint32_t ResultOf(const ZV_SimEntry& event)
{
    QB_ByteStream stream(event.vbData.data(), (int32_t)event.vbData.size());
    stream.ReadU16();
    return stream.ReadU32();
}

struct DownloadScene : public ::testing::Test
{
    QB_TempFolder tmp;
    ZV_SimConference sim{ZV_SimModuleApi::Linked(), Options()};
    ZV_SimShape shape;

    ZV_SimOptions Options() const
    {
        ZV_SimOptions options;
        options.sRoot = tmp.Sub("nodes");
        return options;
    }
    void Build(bool bLinked)
    {
        shape = bLinked ? ZV_SimBuilder::TwoLinkedServers(sim) : ZV_SimBuilder::OneServerTwoClients(sim);
        ASSERT_TRUE(shape.IsComplete() && sim.Run()) << sim.GetError();
    }
    ZV_SimHost* Alice() const { return shape.Client(0); }
    // Alice shares `data` as `sName`; the FileID is what the server gave.
    uint16_t Share(const std::string& sName, const Bytes& data, bool bStartUpload = true)
    {
        const std::string sPath = tmp.Sub("alice/" + sName);
        std::filesystem::create_directories(tmp.Sub("alice"));
        QB_WriteWholeFile(sPath, data);
        const size_t nFrom = sim.Journal().Size();
        EXPECT_EQ(0u, Alice()->GetFileShareMgr()->FsAdd(Wide(sPath).c_str(), nullptr, 0, 1, bStartUpload ? 1 : 0));
        EXPECT_TRUE(sim.Run()) << sim.GetError();
        ZV_SimFilter filter;
        filter.eKind = ZV_SimEntryKind::Event;
        filter.usNumber = zvFsEventFileAdded;
        filter.sNode = Alice()->GetName();
        filter.nFrom = nFrom;
        const auto vecAdded = sim.Journal().Find(filter);
        if (vecAdded.empty())
            return 0xFFFF;
        QB_ByteStream stream(vecAdded.back().vbData.data(), (int32_t)vecAdded.back().vbData.size());
        stream.Skip(6);
        return stream.ReadU16();
    }
    std::string Target(ZV_SimHost* lpClient, uint16_t usFileID) const
    {
        return tmp.Sub("downloads/" + lpClient->GetUserRecord().sName + "/" + std::to_string(usFileID) + ".bin");
    }
    uint32_t Download(ZV_SimHost* lpClient, uint16_t usFileID)
    {
        return lpClient->GetFileShareMgr()->FsDownload(usFileID, Wide(Target(lpClient, usFileID)).c_str());
    }
    std::vector<ZV_SimEntry> Events(ZV_SimHost* lpNode, uint16_t usEvent)
    {
        return sim.Journal().Events(usEvent, lpNode->GetName());
    }
    // Steps until `pdu` has reached `lpTo` n times.
    bool StepUntilDelivered(uint16_t usPdu, ZV_SimHost* lpTo, size_t nTimes)
    {
        for (;;)
        {
            ZV_SimFilter filter;
            filter.usNumber = usPdu;
            filter.sPeer = lpTo->GetName();
            filter.eFate = ZV_SimFate::Delivered;
            if (sim.Journal().Find(filter).size() >= nTimes)
                return true;
            if (!sim.Step())
                return false;
        }
    }
};

} // namespace

TEST_F(DownloadScene, ArrivesByteIdenticalForEverySizeAroundTheBlockEdges)
{
    Build(false);
    ZV_SimHost* lpBob = shape.Client(1);
    const size_t aSizes[] = {0, 1, 32767, 32768, 32769, 98304, 98305, 3 * 1024 * 1024 + 7};
    std::vector<std::pair<uint16_t, Bytes>> vecFiles;
    for (size_t nSize : aSizes)
        vecFiles.emplace_back(Share(std::to_string(nSize) + ".bin", RandomBytes(nSize, (unsigned)nSize)),
                              RandomBytes(nSize, (unsigned)nSize));
    for (const auto& [usFileID, data] : vecFiles)
        EXPECT_EQ(0u, Download(lpBob, usFileID)) << data.size();
    ASSERT_TRUE(sim.AdvanceTime(1000)) << sim.GetError();

    for (const auto& [usFileID, data] : vecFiles)
        EXPECT_EQ(data, QB_ReadWholeFile(Target(lpBob, usFileID))) << data.size() << " bytes";
    // An empty file has no block to send: it is made, and nothing follows.
    EXPECT_EQ(std::size(aSizes) - 1, Events(lpBob, zvFsEventDownloadFinished).size());
    for (const auto& event : Events(lpBob, zvFsEventDownloadState))
        EXPECT_EQ(0u, ResultOf(event));
}

TEST_F(DownloadScene, AFirstDownloaderStartsTheCreatorsUploadAndGetsTheWholeFile)
{
    Build(false);
    ZV_SimHost* lpBob = shape.Client(1);
    const Bytes data = RandomBytes(200000, 1);
    const uint16_t usFileID = Share("late.bin", data, false);
    ASSERT_TRUE(sim.Journal().Pdus(PDU_CONF_FS_UPLOAD_REQUEST).empty()) << "nothing moves before anyone asks";

    const size_t nFrom = sim.Journal().Size();
    ASSERT_EQ(0u, Download(lpBob, usFileID));
    ASSERT_TRUE(sim.AdvanceTime(1000)) << sim.GetError();
    EXPECT_EQ(data, QB_ReadWholeFile(Target(lpBob, usFileID)));

    // The order to Alice goes out before the answer to Bob.
    size_t nOrder = 0, nAnswer = 0;
    for (size_t i = nFrom; i < sim.Journal().Size(); ++i)
    {
        const ZV_SimEntry& entry = sim.Journal().At(i);
        if (!nOrder && entry.usNumber == PDU_CONF_FS_UPLOAD_RESPONSE && entry.sPeer == Alice()->GetName())
            nOrder = i;
        if (!nAnswer && entry.usNumber == PDU_CONF_FS_DOWNLOAD_RESPONSE && entry.sPeer == lpBob->GetName())
            nAnswer = i;
    }
    EXPECT_TRUE(nOrder && nAnswer && nOrder < nAnswer) << sim.Journal().Dump(nFrom);
}

TEST_F(DownloadScene, RestsWhereTheUploadStandsAndGoesOnWhenTheUploadDoes)
{
    Build(false);
    ZV_SimHost* lpBob = shape.Client(1);
    ZV_SimLink* lpAliceLink = sim.GetClientLink(Alice());
    const Bytes data = RandomBytes(10 * 32768 + 5, 2);
    const uint16_t usFileID = Share("half.bin", data, false);
    ASSERT_EQ(0u, Download(lpBob, usFileID));
    // Alice's data link falls after four blocks have reached the server.
    ASSERT_TRUE(StepUntilDelivered(PDU_CONF_FS_UPLOAD_REQUEST, shape.Server(), 5));
    ASSERT_TRUE(sim.Cut(lpAliceLink, zvConfClientTypeData));
    ASSERT_TRUE(sim.Run()) << sim.GetError();

    const Bytes got = QB_ReadWholeFile(Target(lpBob, usFileID));
    ASSERT_GT(got.size(), 0u);
    ASSERT_LT(got.size(), data.size());
    EXPECT_TRUE(std::equal(got.begin(), got.end(), data.begin()));
    EXPECT_TRUE(Events(lpBob, zvFsEventDownloadFinished).empty());

    ASSERT_TRUE(sim.Restore(lpAliceLink, zvConfClientTypeData));
    ASSERT_TRUE(sim.AdvanceTime(30000)) << sim.GetError();
    EXPECT_EQ(data, QB_ReadWholeFile(Target(lpBob, usFileID)));
    EXPECT_EQ(1u, Events(lpBob, zvFsEventDownloadFinished).size());
}

TEST_F(DownloadScene, TwoDownloadersAtDifferentPositionsEachGetTheWholeFile)
{
    Build(false);
    ZV_SimHost* lpBob = shape.Client(1);
    ZV_SimHost* lpCarol = sim.AddClient(ZV_SimBuilder::kConfID, ZV_SimBuilder::MakeUser(1, 2));
    ASSERT_TRUE(lpCarol && sim.Run()) << sim.GetError();
    const Bytes data = RandomBytes(20 * 32768 + 1, 3);
    const uint16_t usFileID = Share("both.bin", data);
    ASSERT_EQ(0u, Download(lpBob, usFileID));
    ASSERT_TRUE(StepUntilDelivered(PDU_CONF_FS_DOWNLOAD_DATA_RESPONSE, lpBob, 6));
    ASSERT_EQ(0u, Download(lpCarol, usFileID));
    ASSERT_TRUE(sim.AdvanceTime(1000)) << sim.GetError();

    for (ZV_SimHost* lpClient : {lpBob, lpCarol})
    {
        EXPECT_EQ(data, QB_ReadWholeFile(Target(lpClient, usFileID))) << lpClient->GetName();
        EXPECT_EQ(21u, sim.Journal().PdusTo(PDU_CONF_FS_DOWNLOAD_DATA_RESPONSE, lpClient->GetName()).size())
            << "each block once, in its own order";
    }
}

TEST_F(DownloadScene, GoesOnFromTheLocalPositionAfterTheDataLinkComesBack)
{
    Build(false);
    ZV_SimHost* lpBob = shape.Client(1);
    ZV_SimLink* lpBobLink = sim.GetClientLink(lpBob);
    const Bytes data = RandomBytes(4 * 1024 * 1024, 4);
    const uint16_t usFileID = Share("long.bin", data);
    ASSERT_EQ(0u, Download(lpBob, usFileID));
    ASSERT_TRUE(StepUntilDelivered(PDU_CONF_FS_DOWNLOAD_DATA_RESPONSE, lpBob, 40));
    ASSERT_TRUE(sim.Cut(lpBobLink, zvConfClientTypeData));
    ASSERT_TRUE(sim.Run()) << sim.GetError();
    const size_t nHad = QB_ReadWholeFile(Target(lpBob, usFileID)).size();
    ASSERT_LT(nHad, data.size());

    const size_t nFrom = sim.Journal().Size();
    ASSERT_TRUE(sim.Restore(lpBobLink, zvConfClientTypeData));
    ASSERT_TRUE(sim.AdvanceTime(1000)) << sim.GetError();
    EXPECT_EQ(data, QB_ReadWholeFile(Target(lpBob, usFileID)));
    // Bob said where he stood, on his command link, and the server went on
    // from there.
    ZV_SimFilter filter;
    filter.usNumber = PDU_CONF_FS_DOWNLOAD_DATA_REQUEST;
    filter.sNode = lpBob->GetName();
    filter.nFrom = nFrom;
    const auto vecStated = sim.Journal().Find(filter);
    ASSERT_EQ(1u, vecStated.size());
    EXPECT_EQ(ZV_SimRoute::Pdu, vecStated[0].eRoute);
    QB_ByteStream stream(vecStated[0].vbData.data(), (int32_t)vecStated[0].vbData.size());
    stream.Skip(10);
    ZV_FileDownloadInfo stated;
    LoadDelimited(stream, stated);
    EXPECT_EQ(nHad, stated.m_ulDownloadPos);
    EXPECT_EQ(1u, Events(lpBob, zvFsEventDownloadFinished).size());
}

TEST_F(DownloadScene, AWriteFailureOnTheClientStopsTheDownloadAndSaysSo)
{
    Build(false);
    ZV_SimHost* lpBob = shape.Client(1);
    // The server holds the whole file first: the fault hits every node's writes.
    const uint16_t usFileID = Share("fail.bin", RandomBytes(5 * 32768, 5), false);
    ASSERT_EQ(0u, Alice()->GetFileShareMgr()->FsUpload(usFileID));
    ASSERT_TRUE(sim.Run()) << sim.GetError();
    ASSERT_EQ(0u, Download(lpBob, usFileID));
    ASSERT_TRUE(StepUntilDelivered(PDU_CONF_FS_DOWNLOAD_RESPONSE, lpBob, 1));
    sim.GetEnv().FailAt(QB_EnvOp::Write, 1, true);
    ASSERT_TRUE(sim.AdvanceTime(1000)) << sim.GetError();
    sim.GetEnv().ClearFaults();

    EXPECT_EQ(0u, QB_ReadWholeFile(Target(lpBob, usFileID)).size());
    const auto vecState = Events(lpBob, zvFsEventDownloadState);
    ASSERT_EQ(2u, vecState.size());
    EXPECT_EQ(61u, ResultOf(vecState[1]));
    EXPECT_TRUE(Events(lpBob, zvFsEventDownloadFinished).empty());
    EXPECT_EQ(1u, sim.Journal().Pdus(PDU_CONF_FS_IS_STOP_DOWNLOAD_REQUEST, lpBob->GetName()).size());
}

TEST_F(DownloadScene, ARelayServerFetchesIntoItsStoreAndServesItsOwnClient)
{
    Build(true);
    ZV_SimHost* lpCarol = shape.Client(2);
    const Bytes data = RandomBytes(300000, 6);
    const uint16_t usFileID = Share("far.bin", data);
    ASSERT_EQ(0u, Download(lpCarol, usFileID));
    ASSERT_TRUE(sim.AdvanceTime(1000)) << sim.GetError();

    EXPECT_EQ(data, QB_ReadWholeFile(Target(lpCarol, usFileID)));
    EXPECT_EQ(1u, Events(lpCarol, zvFsEventDownloadFinished).size());
    const std::string sRelayStore = shape.Server(1)->GetHome() + "store/" + std::to_string(ZV_SimBuilder::kConfID);
    ASSERT_TRUE(std::filesystem::exists(sRelayStore + "/far.bin"));
    EXPECT_EQ(data, QB_ReadWholeFile(sRelayStore + "/far.bin"));
    // Server 1 pushed to server 2 over their data link, and server 2 to Carol.
    EXPECT_FALSE(sim.Journal().PdusTo(PDU_CONF_FS_DOWNLOAD_DATA_RESPONSE, shape.Server(1)->GetName()).empty());
    for (const auto& entry : sim.Journal().Pdus(PDU_CONF_FS_DOWNLOAD_DATA_RESPONSE, shape.Server(0)->GetName()))
        EXPECT_EQ(ZV_SimRoute::OnLink, entry.eRoute);
}
