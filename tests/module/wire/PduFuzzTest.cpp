// Hostile payloads for every PDU number on every link, on a server and on a
// client. Each payload sits in a heap block of exactly its size, so a build
// with the address sanitizer sees any read past it.
#include "ZV_FileShareSessionPeer.h"
#include "core/ZV_FileShareMgr.h"
#include "ZV_FileShareMgrPeer.h"
#include "core/ZV_FileShareSession.h"
#include "wire/ZV_PduFrame.h"
#include "wire/ZV_PduTable.h"
#include "ZV_RecordingHost.h"

#include "QB_Env.h"
#include "QB_TestSupport.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <memory>
#include <random>

namespace {

// Every number of the PDU table, the kick, and numbers the table lacks.
std::vector<uint16_t> PduNumbers()
{
    std::vector<uint16_t> vecNumber = {PDU_CONF_FS_KICK, 8019, 9000, 0};
    for (const ZV_PduRow& row : kPduTable)
        vecNumber.push_back(row.usPdu);
    return vecNumber;
}

const uint16_t kConnTypes[] = {zvConfClientTypeCommand, zvConfClientTypeData, zvConfServerTypeCommand,
                               zvConfServerTypeData};

const uint16_t kSessionFileIDs[] = {1, 2, 3};

// Payloads shaped like the real ones, from a seeded source: a FileID that
// names a session, then numbers, user identifiers and counted strings, with
// values on the edges parsers get wrong and counts far past the end.
class ZV_PayloadMaker
{
public:
    explicit ZV_PayloadMaker(uint32_t ulSeed) : m_rng(ulSeed) {}

    std::vector<uint8_t> Make()
    {
        std::vector<uint8_t> vb;
        if (Pick(10) == 0)
            return vb;
        Put(vb, Pick(4) == 0 ? m_rng() : kSessionFileIDs[Pick(3)], 2);
        for (int nFields = Pick(14); nFields > 0; --nFields)
            PutField(vb);
        if (Pick(3) == 0)
            vb.resize(Pick((uint32_t)vb.size()));  // cut mid-field
        return vb;
    }

private:
    std::mt19937 m_rng;

    uint32_t Pick(uint32_t ulBound) { return ulBound == 0 ? 0 : m_rng() % ulBound; }
    uint32_t Edge()
    {
        static const uint32_t kEdges[] = {0, 1, 0x7F, 0x80, 0x3FFF, 0x4000, 32767, 32768, 32769, 65535,
                                          0x7FFFFFFF, 0x80000000, 0xFFFFFFFF, 10001, 10002};
        return Pick(3) == 0 ? m_rng() : kEdges[Pick(std::size(kEdges))];
    }
    static void Put(std::vector<uint8_t>& vb, uint32_t ul, int nBytes)
    {
        for (int i = 0; i < nBytes; ++i)
            vb.push_back((uint8_t)(ul >> (8 * i)));
    }
    void PutField(std::vector<uint8_t>& vb)
    {
        switch (Pick(5))
        {
        case 0: Put(vb, Edge(), 1 << Pick(3)); break;  // a number of 1, 2 or 4 bytes
        case 1:  // a user identifier
            Put(vb, Edge(), 4);
            Put(vb, Pick(2) ? 0 : Edge(), 4);
            break;
        case 2:  // a count in any of its three forms, claiming more text than follows
        {
            const uint32_t ulClaim = Edge();
            if (ulClaim >= 0x4000)
            {
                Put(vb, 0xC0, 1);
                Put(vb, ulClaim, 4);
            }
            else if (ulClaim >= 0x80)
            {
                Put(vb, 0x80 | (ulClaim >> 8), 1);
                Put(vb, ulClaim, 1);
            }
            else
                Put(vb, ulClaim, 1);
            break;
        }
        default:  // raw bytes, now and then more than a block
            for (uint32_t n = Pick(2) ? Pick(48) : Pick(40000); n > 0; --n)
                vb.push_back((uint8_t)m_rng());
        }
    }
};

// One node of either role with a few sessions in different states, alone
// with a host that records and answers.
struct ZV_FuzzNode
{
    std::FILE* lpTrace = std::tmpfile();  // thousands of trace lines nobody reads
    QB_TempFolder home;
    ZV_RecordingHost host;
    std::unique_ptr<ZV_FileShareMgr> lpMgr = std::make_unique<ZV_FileShareMgr>();

    explicit ZV_FuzzNode(bool bServer)
    {
        ZV_SetTraceStream(lpTrace);
        QB_SetEnvironmentVariable("ROOMCRATE_HOME", home.Path().c_str());
        host.m_bServer = bServer;
        host.AddUser(QB_UserID(10001, 0), 1, "Alice");
        host.AddUser(QB_UserID(10002, 0), 1, "Bob");
        host.Attach(lpMgr.get());
        lpMgr->Initialize();
        for (uint16_t usFileID : kSessionFileIDs)
            AddSession(usFileID);
    }
    ~ZV_FuzzNode()
    {
        lpMgr.reset();
        ZV_SetTraceStream(nullptr);
        std::fclose(lpTrace);
        QB_SetEnvironmentVariable("ROOMCRATE_HOME", nullptr);
    }

    // FileID 1 is empty, 2 is uploading and 3 complete.
    void AddSession(uint16_t usFileID)
    {
        std::filesystem::create_directories(home.Path() + "/store/7");
        ZV_FileShareSession* lpFsSession =
            &ZV_FileShareMgrPeer::Adopt(*lpMgr, usFileID, (home.Path() + "/store/").c_str());
        ZV_FileShareSessionPeer::FileID(*lpFsSession) = usFileID;
        ZV_FileShareSessionPeer::BriefInfo(*lpFsSession).SetCreatorID(QB_UserID(10001, 0));
        ZV_FileShareSessionPeer::BriefInfo(*lpFsSession).SetFileOldName(QB_StringU8("report.pdf"));
        ZV_FileShareSessionPeer::BriefInfo(*lpFsSession).SetFileLenth(usFileID == 1 ? 0 : 100000 * usFileID);
        ZV_FileShareSessionPeer::BriefInfo(*lpFsSession).SetFileState(usFileID == 3 ? zvFileStateComplete : zvFileStateUploading);
        ZV_FileShareSessionPeer::BriefInfo(*lpFsSession).SetPublic(true);
        ZV_FileShareSessionPeer::FileInfo(*lpFsSession).SetFileID(usFileID);
        ZV_FileShareSessionPeer::FileInfo(*lpFsSession).SetFileNewName(QB_StringU8(("stored" + std::to_string(usFileID)).c_str()));
        ZV_FileShareSessionPeer::FileInfo(*lpFsSession).SetBriefInfo(ZV_FileShareSessionPeer::BriefInfo(*lpFsSession));
    }

    uint32_t Deliver(uint16_t usPdu, uint16_t usConnType, const std::vector<uint8_t>& vb)
    {
        // Exactly the payload's size on the heap, no slack behind it.
        std::unique_ptr<uint8_t[]> lpExact(vb.empty() ? nullptr : new uint8_t[vb.size()]);
        std::copy(vb.begin(), vb.end(), lpExact.get());
        ConfPduData cpd{10002, 0, 5, 0, usConnType, usPdu, 0, 0, 0, (uint32_t)vb.size(), lpExact.get()};
        const uint32_t ulResult = lpMgr->HandlePdu(&cpd);
        cpd.usPdu = PDU_CONF_FS_KICK;
        lpMgr->OnSend(&cpd);  // let any pump the PDU started run once
        return ulResult;
    }
};

void FuzzRole(bool bServer, uint32_t ulSeed)
{
    ZV_FuzzNode node(bServer);
    const std::filesystem::path cwd = std::filesystem::current_path();
    std::filesystem::current_path(node.home.Path());  // any relative path a payload names lands here
    ZV_PayloadMaker maker(ulSeed);
    uint32_t ulTick = 0;
    for (int nRound = 0; nRound < 40; ++nRound)
        for (uint16_t usPdu : PduNumbers())
            for (uint16_t usConnType : kConnTypes)
            {
                node.Deliver(usPdu, usConnType, maker.Make());
                if (nRound % 8 == 0)
                    node.lpMgr->OnTimer(ulTick += 997);
            }
    std::filesystem::current_path(cwd);
    // Still routing after all that: a payload too short for a FileID is
    // answered with 5, whatever came before.
    EXPECT_EQ(zvResultNoHandler, node.Deliver(PDU_CONF_FS_DOWNLOAD_DATA_REQUEST, zvConfClientTypeCommand, {0x01}))
        << "seed " << ulSeed;
}

} // namespace

TEST(PduFuzz, ServerSurvivesHostilePayloadsOfEveryNumberOnEveryLink)
{
    for (uint32_t ulSeed : {1, 2, 3})
        FuzzRole(true, ulSeed);
}

TEST(PduFuzz, ClientSurvivesHostilePayloadsOfEveryNumberOnEveryLink)
{
    for (uint32_t ulSeed : {1, 2, 3})
        FuzzRole(false, ulSeed);
}
