// The thirteen events to the user side, byte for byte, and the share of a
// file that six of them carry.
#include "ZV_RecordingNode.h"
#include "lists/ZV_ListPdu.h"
#include "rights/ZV_RightsPdu.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <tuple>

namespace {

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
    ZV_FileDownloadInfo download;  // only the state travels, as bit 10 of the record
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
         Pdu().Data({0xB8, 0x0B, 0, 0, 0, 0, 9, 0}).Data(kEmptyBrief).F64(50.0).b},
        {"transfer error", [&](auto&, auto& s) { ZV_FileShareSessionPeer::NotifyTransferError(s, 61, 9); }, 3001,
         {0xB9, 0x0B, 61, 0, 0, 0, 9, 0}},
        {"download state", [&](auto&, auto& s) { s.NotifyDownloadState(0, 9, download, 100.0); }, 3002,
         Pdu().Data({0xBA, 0x0B, 0, 0, 0, 0, 9, 0}).Data(kDownload).F64(100.0).b},
        {"right changed", [&](auto& m, auto&) { ZV_FileShareMgrPeer::NotifyRightChanged(m, 40, 9, brief, 0.0); }, 3003,
         Pdu().Data({0xBB, 0x0B, 40, 0, 0, 0, 9, 0}).Data(kEmptyBrief).F64(0.0).b},
        {"file hidden", [&](auto& m, auto&) { ZV_FileShareMgrPeer::NotifyFileHidden(m, 0, 0x1234); }, 3004,
         {0xBC, 0x0B, 0, 0, 0, 0, 0x34, 0x12}},
        {"file gone", [&](auto& m, auto&) { ZV_FileShareMgrPeer::NotifyFileGone(m, 0, 9); }, 3005, {0xBD, 0x0B, 0, 0, 0, 0, 9, 0, 1}},
        {"download finished", [&](auto&, auto& s) { ZV_FileShareSessionPeer::NotifyDownloadFinished(s, 0, 9); }, 3007,
         {0xBF, 0x0B, 0, 0, 0, 0, 9, 0, 1}},
        {"upload progress", [&](auto&, auto& s) { s.NotifyUploadProgress(9, 12.5); }, 3008,
         Pdu().Data({0xC0, 0x0B, 0, 0, 0, 0, 9, 0}).F64(12.5).b},
        {"download progress", [&](auto&, auto& s) { ZV_FileShareSessionPeer::NotifyDownloadProgress(s, 0, 9, 25.0, 0x01020304); }, 3009,
         Pdu().Data({0xC1, 0x0B, 0, 0, 0, 0, 9, 0}).F64(25.0).Data({4, 3, 2, 1}).b},
        {"stop result", [&](auto&, auto& s) { ZV_FileShareSessionPeer::NotifyStopResult(s, 16, 9, 1); }, 3010,
         {0xC2, 0x0B, 16, 0, 0, 0, 9, 0, 1}},
        {"transfer state", [&](auto&, auto& s) { ZV_FileShareSessionPeer::NotifyTransferState(s, 1, 9, 2); }, 3011,
         {0xC3, 0x0B, 0, 0, 0, 0, 1, 9, 0, 2, 0}},
        {"busy", [&](auto& m, auto&) { ZV_FileShareMgrPeer::NotifyBusy(m, 1); }, 3012, {0xC4, 0x0B, 0, 0, 0, 0, 1}},
        {"files added", [&](auto& m, auto&) { ZV_FileShareMgrPeer::NotifyFilesAdded(m, arrID, arrInfo, arrValue); }, 3013,
         Pdu().Data({0xC5, 0x0B, 0, 0, 0, 0}).Data({2, 5, 0, 6, 0}).U8(1).Data(kEmptyBrief).U8(0).b},
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

// Each event that carries a share of a file computes it as its own road
// does, and the last bit of a third tells them apart: 100 * position /
// length, position / length * 100, or position / length * 10000 for the
// files a client's upload list tells of. An empty file shows whole, or,
// where its road divides unguarded, a value that is not a number. Each row
// raises its event through the real handler on a client, for a file of 3
// bytes at 1 and for an empty one.
TEST(Events, EachShareOfAFileFollowsItsRoadsFormulaForAThirdAndForAnEmptyFile)
{
    const QB_UserID kAlice(10001, 0);
    const QB_UserID kBob(10002, 0);
    const double kNaN = std::numeric_limits<double>::quiet_NaN();
    struct Node : ZV_RecordingNode
    {
        ZV_FileShareSession* lpSession = nullptr;
        Node() : ZV_RecordingNode(false) {}
        uint32_t Deliver(uint16_t usPdu, const Bytes& data) { return ZV_RecordingNode::Deliver(usPdu, 0, data); }
    };
    using Raise = std::function<void(Node&, uint32_t ulLength, uint32_t ulPos)>;
    auto Brief = [&](uint32_t ulLength, bool bPublic) { return ZV_Brief(kBob, nullptr, ulLength, bPublic); };
    auto Download = [&](Node& node, uint32_t ulLength, uint32_t ulPos) {
        ZV_FileDownloadInfo download;
        download.SetFileID(5);
        download.SetFilePath(QB_StringU8(node.tmp.PathW() + u"\\"));
        download.SetFileName(QB_StringU8("dl.bin"));
        download.SetFileLenth(ulLength);
        download.SetDownloadPos(ulPos);
        download.SetState(zvDownloadStateRunning);
        download.SetUserID(kAlice);
        return download;
    };
    struct Row
    {
        const char* szName;
        uint16_t usEvent;
        size_t nFromEnd;  // where the share's eight bytes end, from the event's end
        bool bSeen;       // whether Alice may see FileID 5 before the row raises its event
        Raise raise;
        double dThird;
        double dEmpty;
    };
    const Row aRows[] = {
        {"3000, an announced file", zvFsEventFileAdded, 0, true,
         [&](Node& node, uint32_t ulLength, uint32_t ulPos) {
             const ZV_AddResponse answer{{{9, 0, 9}, kBob}, ulPos, Brief(ulLength, true)};
             node.Deliver(PDU_CONF_FS_ADD_RESPONSE, ZV_SavePayload(answer));
         },
         1.0 / 3 * 100.0, kNaN},
        {"3000, a file the user may see now", zvFsEventFileAdded, 0, false,
         [&](Node& node, uint32_t, uint32_t) { node.mgr.OnEvent(zvConfEventRightChange, 1, (uintptr_t)&kAlice, 0, 0); },
         100.0 * 1 / 3, 100.0},
        {"3002, a listed download", zvFsEventDownloadState, 0, true,
         [&](Node& node, uint32_t ulLength, uint32_t ulPos) {
             QB_WriteWholeFile(node.tmp.Sub("dl.bin"), ZV_TestBytes(ulPos, 1));
             ZV_DownloadListResponse list;
             list.user = kAlice;
             list.arrInfo.Add(Download(node, ulLength, 0));
             list.arrModify.Add(false);
             node.Deliver(PDU_CONF_GET_DOWNLOAD_SESSION_LIST_RESPONSE, ZV_SavePayload(list));
         },
         1.0 / 3 * 100.0, 100.0},
        {"3002, a failed block", zvFsEventDownloadState, 0, true,
         [&](Node& node, uint32_t, uint32_t) {
             node.Deliver(PDU_CONF_FS_DOWNLOAD_DATA_RESPONSE, ZV_Pdu().U16(5).U32(61).U16(5).User(kAlice).b);
         },
         100.0 * 1 / 3, 100.0},
        {"3003, new rights", zvFsEventRightChanged, 0, false,
         [&](Node& node, uint32_t ulLength, uint32_t ulPos) {
             const ZV_SetRightResponse answer{0, 5, kBob, Brief(ulLength, true), ulPos};
             node.Deliver(PDU_CONF_FS_SET_RIGHT_RESPONSE, ZV_SavePayload(answer));
         },
         1.0 / 3 * 100.0, 100.0},
        {"3008, a stopped upload", zvFsEventUploadProgress, 0, true,
         [&](Node& node, uint32_t, uint32_t ulPos) {
             node.Deliver(PDU_CONF_FS_IS_STOP_UPLOAD_RESPONSE,
                          ZV_Pdu().U16(5).U32(0).U16(5).User(kBob).U8(1).U32(ulPos).b);
         },
         1.0 / 3 * 100.0, 100.0},
        {"3008, progress", zvFsEventUploadProgress, 0, true,
         [&](Node& node, uint32_t, uint32_t ulPos) { node.Deliver(PDU_CONF_FS_PROGRESSING_RESPONSE, ZV_Pdu().U16(5).User(kBob).U32(ulPos).b); },
         1.0 / 3 * 100.0, 100.0},
        {"3009, a block", zvFsEventDownloadProgress, 4, true,
         [&](Node& node, uint32_t, uint32_t ulPos) {
             ZV_FileShareSessionPeer::LocalDownload(*node.lpSession).SetDownloadPos(0);
             ZV_FileShareSessionPeer::File(*node.lpSession).Open(node.tmp.SubW("dl.bin"), 0x203);
             const Bytes data = ZV_TestBytes(ulPos, 1);
             node.Deliver(PDU_CONF_FS_DOWNLOAD_DATA_RESPONSE,
                          ZV_Pdu().U16(5).U32(0).U16(5).User(kAlice).U32(0).U32(ulPos).Data(data).U32(ulPos).b);
         },
         100.0 * 1 / 3, 100.0},
        {"3013, a client's upload list", zvFsEventFilesAdded, 0, true,
         [&](Node& node, uint32_t ulLength, uint32_t ulPos) {
             ZV_FileUploadInfo info;
             info.SetFileID(6);
             info.SetBriefInfo(Brief(ulLength, true));
             ZV_UploadListResponse list;
             list.user = kAlice;
             list.arrInfo.Add(info);
             list.arrMaxPos.Add(ulPos);
             node.Deliver(PDU_CONF_GET_UPLOAD_SESSION_LIST_RESPONSE, ZV_SavePayload(list));
         },
         1.0 / 3 * 10000.0, 10000.0},
        {"3013, a batch", zvFsEventFilesAdded, 0, true,
         [&](Node& node, uint32_t ulLength, uint32_t ulPos) {
             ZV_AddFilesResponse batch;
             batch.user = kBob;
             batch.arrFileID.Add(6);
             batch.arrPos.Add(ulPos);
             batch.arrInfo.Add(Brief(ulLength, true));
             node.Deliver(PDU_CONF_FS_ADD_FILES_RESPONSE, ZV_SavePayload(batch));
         },
         1.0 / 3 * 100.0, kNaN},
    };
    for (const Row& row : aRows)
        for (const auto& [ulLength, ulPos, dExpected] : {std::tuple<uint32_t, uint32_t, double>{3, 1, row.dThird},
                                                         std::tuple<uint32_t, uint32_t, double>{0, 0, row.dEmpty}})
        {
            SCOPED_TRACE(std::string(row.szName) + ", length " + std::to_string(ulLength));
            Node node;  // FileID 5: Bob's file at ulPos of ulLength, Alice's download of it running
            node.lpSession = &ZV_AdoptFile(node.mgr, 5, "", Brief(ulLength, row.bSeen), "");
            ZV_FileShareSessionPeer::MaxPos(*node.lpSession) = ulPos;
            ZV_FileShareSessionPeer::LocalDownload(*node.lpSession) = Download(node, ulLength, ulPos);
            row.raise(node, ulLength, ulPos);
            const auto it = std::find_if(node.host.m_vecEvents.begin(), node.host.m_vecEvents.end(),
                                         [&](const ZV_RaisedEvent& event) { return event.usEvent == row.usEvent; });
            ASSERT_NE(node.host.m_vecEvents.end(), it);
            const ZV_RaisedEvent* lpEvent = &*it;
            ASSERT_GE(lpEvent->data.size(), row.nFromEnd + 8);
            const Bytes share(lpEvent->data.end() - (ptrdiff_t)(row.nFromEnd + 8),
                              lpEvent->data.end() - (ptrdiff_t)row.nFromEnd);
            double dShare = 0;
            std::memcpy(&dShare, share.data(), 8);
            EXPECT_TRUE(std::isnan(dExpected) ? std::isnan(dShare) : Pdu().F64(dExpected).b == share)
                << dShare << " where " << dExpected << " was due";
        }
}
