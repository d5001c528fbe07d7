// A simulated conference (one server with Alice and Bob, or two linked servers with two users each) and helpers.
#pragma once

#include "ZV_SimBuilder.h"
#include "ZV_SimConference.h"

#include "core/ZV_FileShareMgr.h"
#include "core/ZV_FileShareSession.h"
#include "ZV_FileShareMgrPeer.h"
#include "records/ZV_FileUploadInfo.h"
#include "wire/ZV_PduFrame.h"

#include "QB_ByteStream.h"
#include "QB_TestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

// Journal filters name only the fields that narrow the search.
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"

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

inline std::string ZV_Text(const std::string& sPath)
{
    const ZV_Bytes vb = QB_ReadWholeFile(sPath);
    return {vb.begin(), vb.end()};
}

// The u32 result that stands behind the number of most events.
inline uint32_t ZV_ResultOf(const ZV_SimEntry& event)
{
    QB_ByteStream stream(event.vbData.data(), (int32_t)event.vbData.size());
    stream.ReadU16();
    return stream.ReadU32();
}

// The FileID that most events carry right behind their result.
inline uint16_t ZV_FileIDOf(const ZV_SimEntry& event)
{
    return (uint16_t)(event.vbData.at(6) | event.vbData.at(7) << 8);
}

// The trace goes nowhere while this stands.
struct ZV_QuietTrace
{
    std::FILE* lpSink = std::fopen("/dev/null", "w");
    ZV_QuietTrace() { ZV_SetTraceStream(lpSink); }
    ~ZV_QuietTrace() { ZV_SetTraceStream(nullptr), std::fclose(lpSink); }
    ZV_QuietTrace(const ZV_QuietTrace&) = delete;
};

struct ZV_Scene : public ::testing::Test
{
    QB_TempFolder tmp;
    ZV_SimConference sim{ZV_SimModuleApi::Linked(), Options()};
    ZV_SimShape shape;

    ZV_SimOptions Options() const { return ZV_SimOptions{.sRoot = tmp.Sub("nodes")}; }
    // bLogs: every node writes its logs, which go only where their folder stands.
    void Build(bool bLinked = false, bool bLogs = false)
    {
        shape = bLinked ? ZV_SimBuilder::TwoLinkedServers(sim) : ZV_SimBuilder::OneServerTwoClients(sim);
        ASSERT_TRUE(shape.IsComplete() && sim.Run()) << sim.GetError();
        for (ZV_SimHost* lpNode : sim.GetNodes())
            if (bLogs)
                std::filesystem::create_directories(lpNode->GetHome() + "log");
    }
    // The server's "confsrv.ini", read at its next start.
    static void WriteServerConfig(ZV_SimHost* lpServer, bool bRestore)
    {
        std::string sStore = lpServer->GetHome() + "store/";
        std::replace(sStore.begin(), sStore.end(), '/', '\\');
        QB_WriteWholeFile(lpServer->GetHome() + "confsrv.ini",
                          "[FileShare]\r\nPath=" + sStore + "\r\n" + (bRestore ? "RestoreCatalog=1\r\n" : ""));
    }
    ZV_SimHost* Alice() const { return shape.Client(0); }
    ZV_SimHost* Bob() const { return shape.Client(1); }
    IZV_FileShareMgr* Fs(ZV_SimHost* lpClient) const { return lpClient->GetFileShareMgr(); }

    // A client shares `data` from its own folder: the FileID given, or 0xFFFF.
    uint16_t ShareBy(ZV_SimHost* lpClient, const std::string& sName, const ZV_Bytes& data, bool bStart = true,
                     bool bPublic = true, const std::vector<QB_UserID>& vecRight = {})
    {
        const size_t nBefore = Events(lpClient, zvFsEventFileAdded).size();
        std::string sFolder = lpClient->GetUserRecord().sName;
        std::transform(sFolder.begin(), sFolder.end(), sFolder.begin(), [](char c) { return (char)std::tolower(c); });
        sFolder = tmp.Sub(sFolder);
        std::filesystem::create_directories(sFolder);
        QB_WriteWholeFile(sFolder + "/" + sName, data);
        EXPECT_EQ(0u, Fs(lpClient)->FsAdd(ZV_Wide(sFolder + "/" + sName).c_str(), vecRight.data(),
                                          (uint32_t)vecRight.size(), bPublic ? 1 : 0, bStart ? 1 : 0));
        EXPECT_TRUE(sim.Run()) << sim.GetError();
        const auto vecAdded = Events(lpClient, zvFsEventFileAdded);
        return vecAdded.size() <= nBefore ? 0xFFFF : ZV_FileIDOf(vecAdded.back());
    }
    uint16_t Share(const std::string& sName, const ZV_Bytes& data, bool bStart = true) { return ShareBy(Alice(), sName, data, bStart); }
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
    // The server sends lpTo a PDU on its command link, as of its own accord.
    void SendFromServer(ZV_SimHost* lpTo, uint16_t usPdu, const uint8_t* pData, uint32_t ulLen)
    {
        const uint32_t ulConn = shape.Server()->GetUserConn(&lpTo->GetUserID(), zvConfClientTypeCommand);
        shape.Server()->SendPdu(ulConn, usPdu, pData, ulLen, 1, 1);
        ASSERT_TRUE(sim.Run()) << sim.GetError();
    }
    void SendFromServer(ZV_SimHost* lpTo, uint16_t usPdu, ZV_PduBuffer& pdu) { SendFromServer(lpTo, usPdu, pdu.Payload(), pdu.PayloadLength()); }
    std::vector<ZV_SimEntry> Find(const ZV_SimFilter& filter) { return sim.Journal().Find(filter); }
    // Result of the node's latest event of that number, 0xFFFFFFFF with none.
    uint32_t LastResult(ZV_SimHost* lpNode, uint16_t usEvent)
    {
        const auto vecEvents = Events(lpNode, usEvent);
        return vecEvents.empty() ? 0xFFFFFFFFu : ZV_ResultOf(vecEvents.back());
    }
    bool Knows(ZV_SimHost* lpClient, uint16_t usFileID)
    {
        ZV_FsFileInfo info{};
        return Fs(lpClient)->FsGetFileInfoByFileID(usFileID, &info) == 0;
    }
    static ZV_FileShareSession* Session(ZV_SimHost* lpNode, uint16_t usFileID)
    {
        return ZV_FileShareMgrPeer::Find(*Manager(lpNode), usFileID);
    }
    static bool IsBusy(ZV_SimHost* lpClient) { return !ZV_FileShareMgrPeer::BusyFileIDs(*Manager(lpClient)).IsEmpty(); }
    // Steps until `usPdu` has reached `lpTo` nTimes.
    bool StepUntilDelivered(uint16_t usPdu, ZV_SimHost* lpTo, size_t nTimes)
    {
        while (Find({.usNumber = usPdu, .sPeer = lpTo->GetName(), .eFate = ZV_SimFate::Delivered}).size() < nTimes)
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
    static size_t StoreCount(ZV_SimHost* lpServer)
    {
        return (size_t)std::distance(std::filesystem::directory_iterator(lpServer->GetHome() + "store/" +
                                                                         std::to_string(ZV_SimBuilder::kConfID)), {});
    }
};
