// A simulated conference for the scenario tests of the byte roads: one
// server with Alice and Bob, or two linked servers with two users each;
// Alice shares files, others fetch them, and the helpers read what landed
// on disk, in the catalogue, in the events and in the journal.
#pragma once

#include "ZV_SimBuilder.h"
#include "ZV_SimConference.h"

#include "core/ZV_FileShareMgr.h"
#include "ZV_FileShareMgrPeer.h"
#include "ZV_FilesAddedEvent.h"
#include "records/ZV_FileUploadInfo.h"
#include "wire/ZV_PduFrame.h"

#include "QB_ByteStream.h"
#include "QB_TestSupport.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

using ZV_Bytes = std::vector<uint8_t>;

inline ZV_Bytes ZV_RandomBytes(size_t nSize, unsigned nSeed)
{
    std::mt19937 rng(nSeed);
    ZV_Bytes data(nSize);
    for (uint8_t& b : data)
        b = (uint8_t)rng();
    return data;
}

inline std::u16string ZV_Wide(const std::string& s)
{
    QB_StringW sWide = QB_ToWindowsPath(s);
    return std::u16string(sWide.GetString(), (size_t)sWide.GetLength());
}

// The u32 result that stands behind the number of most events.
inline uint32_t ZV_ResultOf(const ZV_SimEntry& event)
{
    QB_ByteStream stream(event.vbData.data(), (int32_t)event.vbData.size());
    stream.ReadU16();
    return stream.ReadU32();
}

// The trace of the many conferences a sweep runs says nothing: it goes
// nowhere while this stands.
struct ZV_QuietTrace
{
    std::FILE* lpSink = std::fopen("/dev/null", "w");
    ZV_QuietTrace() { ZV_SetTraceStream(lpSink); }
    ~ZV_QuietTrace()
    {
        ZV_SetTraceStream(nullptr);
        std::fclose(lpSink);
    }
    ZV_QuietTrace(const ZV_QuietTrace&) = delete;
    ZV_QuietTrace& operator=(const ZV_QuietTrace&) = delete;
};

struct ZV_Scene : public ::testing::Test
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
    void Build(bool bLinked = false)
    {
        shape = bLinked ? ZV_SimBuilder::TwoLinkedServers(sim) : ZV_SimBuilder::OneServerTwoClients(sim);
        ASSERT_TRUE(shape.IsComplete() && sim.Run()) << sim.GetError();
    }
    ZV_SimHost* Alice() const { return shape.Client(0); }
    ZV_SimHost* Bob() const { return shape.Client(1); }
    IZV_FileShareMgr* Fs(ZV_SimHost* lpClient) const { return lpClient->GetFileShareMgr(); }

    // Alice shares `data` as `sName`; the FileID is what the server gave,
    // 0xFFFF when she was told of none.
    // Alice's file, shared, without delivering anything yet.
    void StartShare(const std::string& sName, const ZV_Bytes& data, bool bStartUpload = true)
    {
        std::filesystem::create_directories(tmp.Sub("alice"));
        QB_WriteWholeFile(tmp.Sub("alice/" + sName), data);
        EXPECT_EQ(0u, Fs(Alice())->FsAdd(ZV_Wide(tmp.Sub("alice/" + sName)).c_str(), nullptr, 0, 1,
                                         bStartUpload ? 1 : 0));
    }
    uint16_t Share(const std::string& sName, const ZV_Bytes& data, bool bStartUpload = true)
    {
        const size_t nBefore = Events(Alice(), zvFsEventFileAdded).size();
        StartShare(sName, data, bStartUpload);
        EXPECT_TRUE(sim.Run()) << sim.GetError();
        return AddedFileID(Alice(), nBefore);
    }
    // The FileID of the newest 3000 raised to lpClient once it had nBefore
    // of them; 0xFFFF when no new one came.
    uint16_t AddedFileID(ZV_SimHost* lpClient, size_t nBefore)
    {
        const auto vecAdded = Events(lpClient, zvFsEventFileAdded);
        if (vecAdded.size() <= nBefore)
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
        return Fs(lpClient)->FsDownload(usFileID, ZV_Wide(Target(lpClient, usFileID)).c_str());
    }
    std::vector<ZV_SimEntry> Events(ZV_SimHost* lpNode, uint16_t usEvent)
    {
        return sim.Journal().Events(usEvent, lpNode->GetName());
    }
    // FileIDs of every event 3013 of the node, in order.
    std::vector<uint16_t> FilesAdded(ZV_SimHost* lpNode)
    {
        std::vector<uint16_t> vecFileID;
        for (const ZV_SimEntry& event : Events(lpNode, zvFsEventFilesAdded))
        {
            const std::vector<uint16_t> vecTold = ZV_ReadFilesAdded(event.vbData).vecFileID;
            vecFileID.insert(vecFileID.end(), vecTold.begin(), vecTold.end());
        }
        return vecFileID;
    }
    // Steps until `usPdu` has reached `lpTo` nTimes.
    bool StepUntilDelivered(uint16_t usPdu, ZV_SimHost* lpTo, size_t nTimes)
    {
        ZV_SimFilter filter;
        filter.usNumber = usPdu;
        filter.sPeer = lpTo->GetName();
        filter.eFate = ZV_SimFate::Delivered;
        while (sim.Journal().Find(filter).size() < nTimes)
            if (!sim.Step())
                return false;
        return true;
    }

    // A server's side: its manager, its catalogue row and stored file.
    static ZV_FileShareMgr* Manager(ZV_SimHost* lpServer) { return static_cast<ZV_FileShareMgr*>(lpServer->GetModule()); }
    static bool Row(ZV_SimHost* lpServer, uint16_t usFileID, ZV_FileUploadInfo& row)
    {
        QB_StringW sSection;
        return ZV_FileShareMgrPeer::Catalog(*Manager(lpServer)).LoadFile(ZV_SimBuilder::kConfID, usFileID, row, sSection);
    }
    static std::string Stored(ZV_SimHost* lpServer, const ZV_FileUploadInfo& row)
    {
        return lpServer->GetHome() + "store/" + std::to_string(ZV_SimBuilder::kConfID) + "/" +
               row.m_sFileNewName.GetString();
    }
};
