// The thirteen events to the user side, byte for byte.
#include "core/ZV_FileShareMgr.h"
#include "ZV_FileShareMgrPeer.h"
#include "core/ZV_FileShareSession.h"
#include "ZV_RecordingHost.h"

#include <gtest/gtest.h>

#include <functional>

namespace {

using Bytes = std::vector<uint8_t>;

Bytes Cat(std::initializer_list<Bytes> parts)
{
    Bytes out;
    for (const Bytes& part : parts)
        out.insert(out.end(), part.begin(), part.end());
    return out;
}

Bytes F64(double d)
{
    return ZV_Pdu().F64(d).b;
}

// An empty brief as a delimited record: length 6, then the 2-byte mask word.
const Bytes kEmptyBrief = {6, 0, 0, 0, 0x01, 0x00};

struct EventCase
{
    const char* szName;
    std::function<void(ZV_FileShareMgr&, ZV_FileShareSession&)> raise;
    uint16_t usEvent;
    Bytes expected;
};

} // namespace

TEST(Events, AreWrittenByteForByteAsTheUserSideReadsThem)
{
    const ZV_FileBriefInfo brief;
    ZV_FileDownloadInfo download;
    // Only the set fields travel; the state is bit 10 of the download record.
    download.SetState(3);
    const Bytes kDownload = {8, 0, 0, 0, 0x01, 0x10, 3, 0};

    QB_Array<uint16_t> arrID;
    arrID.Add(5);
    arrID.Add(6);
    QB_Array<ZV_FileBriefInfo> arrInfo;
    arrInfo.Add(brief);
    QB_Array<double> arrValue;

    const EventCase aCases[] = {
        {"file added", [&](auto& m, auto&) { ZV_FileShareMgrPeer::NotifyFileAdded(m, 0, 9, brief, 50.0); }, 3000,
         Cat({{0xB8, 0x0B, 0, 0, 0, 0, 9, 0}, kEmptyBrief, F64(50.0)})},
        {"transfer error", [&](auto&, auto& s) { s.NotifyTransferError(61, 9); }, 3001,
         {0xB9, 0x0B, 61, 0, 0, 0, 9, 0}},
        {"download state", [&](auto&, auto& s) { s.NotifyDownloadState(0, 9, download, 100.0); }, 3002,
         Cat({{0xBA, 0x0B, 0, 0, 0, 0, 9, 0}, kDownload, F64(100.0)})},
        {"right changed", [&](auto& m, auto&) { ZV_FileShareMgrPeer::NotifyRightChanged(m, 40, 9, brief, 0.0); }, 3003,
         Cat({{0xBB, 0x0B, 40, 0, 0, 0, 9, 0}, kEmptyBrief, F64(0.0)})},
        {"file hidden", [&](auto& m, auto&) { ZV_FileShareMgrPeer::NotifyFileHidden(m, 0, 0x1234); }, 3004,
         {0xBC, 0x0B, 0, 0, 0, 0, 0x34, 0x12}},
        {"file gone", [&](auto& m, auto&) { ZV_FileShareMgrPeer::NotifyFileGone(m, 0, 9); }, 3005, {0xBD, 0x0B, 0, 0, 0, 0, 9, 0, 1}},
        {"download finished", [&](auto&, auto& s) { s.NotifyDownloadFinished(0, 9); }, 3007,
         {0xBF, 0x0B, 0, 0, 0, 0, 9, 0, 1}},
        {"upload progress", [&](auto&, auto& s) { s.NotifyUploadProgress(9, 12.5); }, 3008,
         Cat({{0xC0, 0x0B, 0, 0, 0, 0, 9, 0}, F64(12.5)})},
        {"download progress", [&](auto&, auto& s) { s.NotifyDownloadProgress(0, 9, 25.0, 0x01020304); }, 3009,
         Cat({{0xC1, 0x0B, 0, 0, 0, 0, 9, 0}, F64(25.0), {4, 3, 2, 1}})},
        {"stop result", [&](auto&, auto& s) { s.NotifyStopResult(16, 9, 1); }, 3010,
         {0xC2, 0x0B, 16, 0, 0, 0, 9, 0, 1}},
        {"transfer state", [&](auto&, auto& s) { s.NotifyTransferState(1, 9, 2); }, 3011,
         {0xC3, 0x0B, 0, 0, 0, 0, 1, 9, 0, 2, 0}},
        {"busy", [&](auto& m, auto&) { ZV_FileShareMgrPeer::NotifyBusy(m, 1); }, 3012, {0xC4, 0x0B, 0, 0, 0, 0, 1}},
        {"files added", [&](auto& m, auto&) { ZV_FileShareMgrPeer::NotifyFilesAdded(m, arrID, arrInfo, arrValue); }, 3013,
         Cat({{0xC5, 0x0B, 0, 0, 0, 0}, {2, 5, 0, 6, 0}, {1}, kEmptyBrief, {0}})},
    };
    for (const EventCase& c : aCases)
    {
        ZV_RecordingHost host;
        ZV_FileShareMgr mgr;
        host.Attach(&mgr);
        ZV_FileShareSession session(&mgr, "");
        c.raise(mgr, session);
        ASSERT_EQ(1u, host.m_vecEvents.size()) << c.szName;
        EXPECT_EQ(c.usEvent, host.m_vecEvents[0].usEvent) << c.szName;
        EXPECT_EQ(c.expected, host.m_vecEvents[0].data) << c.szName;
    }
}
