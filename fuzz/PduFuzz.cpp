// One manager, server or client, fed PDUs of any number and payload on any
// link from any user, with the clock and the send pump in between, so that
// what one PDU leaves behind meets the next. It starts with three files:
// an empty one, one half uploaded and one complete, shared by Alice.
//
// The oracle, besides the sanitizers: every call returns, nothing is
// written beside the node's home, and afterwards the manager still routes
// (a payload too short for a FileID is answered with 5).
//
// Input: a role byte, then steps. A step is a choice among deliver, timer
// and send; a delivery names the PDU (an index into the table, the kick or
// a number outside it), the link type, the sender and a payload of up to
// 64 KiB behind a 16-bit length.
#include "ZV_FuzzCheck.h"
#include "ZV_FuzzInput.h"

#include "ZV_RecordingHost.h"
#include "ZV_FileShareMgrPeer.h"
#include "ZV_FileShareSessionPeer.h"
#include "core/ZV_FileShareMgr.h"
#include "core/ZV_FileShareSession.h"
#include "wire/ZV_PduFrame.h"
#include "wire/ZV_PduTable.h"

#include "QB_Env.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>

namespace fs = std::filesystem;

namespace {

const uint16_t kConnTypes[] = {zvConfClientTypeCommand, zvConfClientTypeData, zvConfServerTypeCommand,
                               zvConfServerTypeData};
const QB_UserID kUsers[] = {QB_UserID(10001, 0), QB_UserID(10002, 0), QB_UserID(20001, 3)};
constexpr size_t kRows = std::size(kPduTable);

// A home of its own for the whole run, emptied before each input, inside
// a folder that holds nothing else: "../name" from the home lands there.
const fs::path& Home()
{
    static const fs::path home = [] {
        const fs::path made = ZV_FuzzScratch("roomcrate-pdufuzz");
        const fs::path node = made / "node";
        fs::create_directories(node);
        QB_SetEnvironmentVariable("ROOMCRATE_HOME", node.c_str());
        fs::current_path(node);  // a relative path a payload names lands here
        ZV_SetTraceStream(std::fopen("/dev/null", "w"));
        return node;
    }();
    return home;
}

void AddSession(ZV_FileShareMgr& mgr, uint16_t usFileID)
{
    ZV_FileShareSession& session = ZV_FileShareMgrPeer::Adopt(mgr, usFileID, (Home().string() + "/store/").c_str());
    ZV_FileShareSessionPeer::FileID(session) = usFileID;
    ZV_FileBriefInfo& brief = ZV_FileShareSessionPeer::BriefInfo(session);
    brief.SetCreatorID(kUsers[0]);
    brief.SetFileOldName(QB_StringU8("report.pdf"));
    brief.SetFileLenth(usFileID == 1 ? 0 : 100000 * usFileID);
    brief.SetFileState(usFileID == 3 ? zvFileStateComplete : zvFileStateUploading);
    brief.SetPublic(usFileID != 2);
    ZV_FileUploadInfo& info = ZV_FileShareSessionPeer::FileInfo(session);
    info.SetFileID(usFileID);
    info.SetFileNewName(QB_StringU8(("stored" + std::to_string(usFileID)).c_str()));
    info.SetBriefInfo(brief);
}

uint32_t Deliver(ZV_FileShareMgr& mgr, uint16_t usPdu, uint16_t usConnType, const QB_UserID& from,
                 const std::vector<uint8_t>& vb)
{
    // Exactly the payload's size on the heap, so a read past it is seen.
    std::unique_ptr<uint8_t[]> lpExact(vb.empty() ? nullptr : new uint8_t[vb.size()]);
    std::copy(vb.begin(), vb.end(), lpExact.get());
    ConfPduData cpd{from.m_ulMain, from.m_ulSub, 5, 0, usConnType, usPdu, 0, 0, 0, (uint32_t)vb.size(),
                    lpExact.get()};
    return mgr.HandlePdu(&cpd);
}

// Nothing may appear beside the home.
void CheckNothingOutside(const fs::path& home)
{
    for (const auto& entry : fs::directory_iterator(home.parent_path()))
        FUZZ_CHECK(entry.path() == home, "a file appeared outside the node's home: %s", entry.path().c_str());
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t nSize)
{
    const fs::path& home = Home();
    for (const auto& entry : fs::directory_iterator(home))
        fs::remove_all(entry.path());
    fs::create_directories(home / "store" / "7");
    ZV_FuzzReader in(pData, nSize);
    {
        ZV_RecordingHost host;
        host.m_bServer = in.Bool();
        for (const QB_UserID& user : kUsers)
            host.AddUser(user, 1, "someone");
        auto lpMgr = std::make_unique<ZV_FileShareMgr>();
        host.Attach(lpMgr.get());
        lpMgr->Initialize();
        for (uint16_t usFileID : {1, 2, 3})
            AddSession(*lpMgr, usFileID);
        uint32_t ulTick = 0;
        for (int nStep = 0; nStep < 64 && !in.Empty(); ++nStep)
        {
            switch (in.Range(0, 5))
            {
            case 0:
                lpMgr->OnTimer(ulTick += in.Range<uint32_t>(0, 120000));
                break;
            case 1:
            {
                ConfPduData cpd{};
                cpd.conn_type = kConnTypes[in.Range<size_t>(0, 3)];
                cpd.usPdu = PDU_CONF_FS_KICK;
                lpMgr->OnSend(&cpd);
                break;
            }
            default:
            {
                const size_t nRow = in.Range<size_t>(0, kRows + 1);
                const uint16_t usPdu = nRow < kRows ? kPduTable[nRow].usPdu
                                                    : nRow == kRows ? PDU_CONF_FS_KICK : in.Int<uint16_t>();
                const uint16_t usConnType = kConnTypes[in.Range<size_t>(0, 3)];
                const QB_UserID& from = kUsers[in.Range<size_t>(0, 2)];
                const std::vector<uint8_t> vb = in.Bytes(in.Int<uint16_t>());
                Deliver(*lpMgr, usPdu, usConnType, from, vb);
            }
            }
        }
        FUZZ_CHECK(Deliver(*lpMgr, PDU_CONF_FS_DOWNLOAD_DATA_REQUEST, zvConfClientTypeCommand, kUsers[1], {0x01}) ==
                       zvResultNoHandler,
                   "the manager stopped routing");
    }
    CheckNothingOutside(home);
    return 0;
}
