// Hostile payloads for every PDU number, on a server and on a client.
//
// Each payload sits in a heap block of exactly its size, so a build with the
// address sanitizer sees any read past it. The payloads are shaped like the
// real ones (a FileID that names a session, then numbers, user identifiers
// and counted strings) so that they get past the first field and into the
// handlers, with edge values and counts far past the end mixed in.
#include "ZV_FileShareMgr.h"
#include "ZV_FileShareSession.h"
#include "ZV_PduFrame.h"
#include "ZV_RecordingHost.h"

#include "QB_Env.h"
#include "QB_TestSupport.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <memory>
#include <random>

namespace {

const uint16_t kPduNumbers[] = {
    PDU_CONF_FS_KICK, 8001, 8002, 8003, 8004, 8005, 8006, 8007, 8008, 8009, 8010, 8011, 8012, 8013, 8014,
    8015,             8016, 8017, 8018, 8021, 8022, 8027, 8028, 8029, 8030, 8031, 8032, 8035, 8036, 8037,
    8040,             8041, 8052, 8053, 8054, 8055, 8056, 8019, 9000, 0};

const uint16_t kConnTypes[] = {zvConfClientTypeCommand, zvConfClientTypeData, zvConfServerTypeCommand,
                               zvConfServerTypeData};

const uint16_t kSessionFileIDs[] = {1, 2, 3};

// Builds payloads from a seeded source: field by field, with values chosen
// to sit on the edges that parsers get wrong.
class ZV_PayloadMaker
{
public:
    explicit ZV_PayloadMaker(uint32_t ulSeed) : m_rng(ulSeed) {}

    std::vector<uint8_t> Make()
    {
        std::vector<uint8_t> vb;
        const int nShape = Pick(10);
        if (nShape == 0)
            return vb;
        if (nShape == 1)
            return RandomBytes(Pick(80));
        PutU16(vb, Pick(4) == 0 ? (uint16_t)m_rng() : kSessionFileIDs[Pick(3)]);
        for (int nFields = Pick(14); nFields > 0; --nFields)
            PutField(vb);
        if (Pick(3) == 0 && !vb.empty())
            vb.resize(Pick((uint32_t)vb.size()));  // cut mid-field
        return vb;
    }

private:
    std::mt19937 m_rng;

    uint32_t Pick(uint32_t ulBound) { return ulBound == 0 ? 0 : m_rng() % ulBound; }

    uint32_t EdgeU32()
    {
        static const uint32_t kEdges[] = {0, 1, 2, 0x7F, 0x80, 0x3FFF, 0x4000, 32767, 32768, 32769, 65535,
                                          0x7FFFFFFF, 0x80000000, 0xFFFFFFFE, 0xFFFFFFFF, 10001, 20001};
        return Pick(3) == 0 ? m_rng() : kEdges[Pick(sizeof kEdges / sizeof kEdges[0])];
    }
    std::vector<uint8_t> RandomBytes(uint32_t n)
    {
        std::vector<uint8_t> vb(n);
        for (uint8_t& b : vb)
            b = (uint8_t)m_rng();
        return vb;
    }
    static void PutU16(std::vector<uint8_t>& vb, uint16_t us)
    {
        vb.push_back((uint8_t)us);
        vb.push_back((uint8_t)(us >> 8));
    }
    static void PutU32(std::vector<uint8_t>& vb, uint32_t ul)
    {
        for (int i = 0; i < 4; ++i)
            vb.push_back((uint8_t)(ul >> (8 * i)));
    }
    // The count form: one byte below 0x80, two bytes below 0x4000, else a
    // marker byte and four bytes; the lengths claimed need not be there.
    void PutCount(std::vector<uint8_t>& vb, uint32_t ulCount)
    {
        if (ulCount < 0x80)
            vb.push_back((uint8_t)ulCount);
        else if (ulCount < 0x4000)
        {
            vb.push_back((uint8_t)(0x80 | (ulCount >> 8)));
            vb.push_back((uint8_t)ulCount);
        }
        else
        {
            vb.push_back(0xC0);
            PutU32(vb, ulCount);
        }
    }
    void PutField(std::vector<uint8_t>& vb)
    {
        switch (Pick(7))
        {
        case 0: vb.push_back((uint8_t)EdgeU32()); break;
        case 1: PutU16(vb, (uint16_t)EdgeU32()); break;
        case 2: PutU32(vb, EdgeU32()); break;
        case 3:  // a user identifier
            PutU32(vb, Pick(2) ? 10001 + Pick(3) : EdgeU32());
            PutU32(vb, Pick(2) ? 0 : EdgeU32());
            break;
        case 4:  // a counted string that may claim more than follows
        {
            const uint32_t ulClaim = Pick(4) == 0 ? EdgeU32() : Pick(40);
            PutCount(vb, ulClaim);
            const std::vector<uint8_t> vbText = RandomBytes(std::min<uint32_t>(ulClaim, Pick(48)));
            vb.insert(vb.end(), vbText.begin(), vbText.end());
            break;
        }
        case 5: PutCount(vb, EdgeU32()); break;
        default:
        {
            const std::vector<uint8_t> vbRaw = RandomBytes(Pick(2) ? Pick(16) : Pick(40000));
            vb.insert(vb.end(), vbRaw.begin(), vbRaw.end());
        }
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

    void AddSession(uint16_t usFileID)
    {
        const std::string sStore = home.Path() + "/store/";
        std::filesystem::create_directories(home.Path() + "/store/7");
        auto* lpFsSession = new ZV_FileShareSession(lpMgr.get(), sStore.c_str());
        lpFsSession->m_usFileID = usFileID;
        lpFsSession->m_BriefInfo.SetCreatorID(QB_UserID(10001, 0));
        lpFsSession->m_BriefInfo.SetFileOldName(QB_StringU8("report.pdf"));
        lpFsSession->m_BriefInfo.SetFileLenth(usFileID == 1 ? 0 : 100000 * usFileID);
        lpFsSession->m_BriefInfo.SetFileState(usFileID == 3 ? ZV_FILESTATE_COMPLETE : ZV_FILESTATE_UPLOADING);
        lpFsSession->m_BriefInfo.SetPublic(true);
        lpFsSession->m_FileInfo.SetFileID(usFileID);
        lpFsSession->m_FileInfo.SetFileNewName(QB_StringU8(("stored" + std::to_string(usFileID)).c_str()));
        lpFsSession->m_FileInfo.SetBriefInfo(lpFsSession->m_BriefInfo);
        lpMgr->m_mapSession.SetAt(usFileID, lpFsSession);
    }

    uint32_t Deliver(uint16_t usPdu, uint16_t usConnType, const std::vector<uint8_t>& vb)
    {
        // Exactly the payload's size on the heap, no slack behind it.
        std::unique_ptr<uint8_t[]> lpExact(vb.empty() ? nullptr : new uint8_t[vb.size()]);
        std::copy(vb.begin(), vb.end(), lpExact.get());
        ConfPduData cpd{};
        cpd.ulUserMain = 10002;
        cpd.ulConn = 5;
        cpd.conn_type = usConnType;
        cpd.usPdu = usPdu;
        cpd.ulLen = (uint32_t)vb.size();
        cpd.pData = lpExact.get();
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
    int nDelivered = 0;
    for (int nRound = 0; nRound < 40; ++nRound)
        for (uint16_t usPdu : kPduNumbers)
            for (uint16_t usConnType : kConnTypes)
            {
                node.Deliver(usPdu, usConnType, maker.Make());
                ++nDelivered;
                if (nRound % 8 == 0)
                    node.lpMgr->OnTimer(nDelivered * 997u);
            }
    std::filesystem::current_path(cwd);
    EXPECT_EQ(40 * (int)std::size(kPduNumbers) * (int)std::size(kConnTypes), nDelivered);
    // Still routing after all that: a payload too short for a FileID is
    // answered with 5, whatever came before.
    EXPECT_EQ(ZV_ERR_NO_HANDLER, node.Deliver(PDU_CONF_FS_DOWNLOAD_DATA_REQUEST, zvConfClientTypeCommand, {0x01}));
    // Sessions come and go, but the FileIDs handed out stay in the range.
    QB_POSITION pos = node.lpMgr->m_mapSession.GetStartPosition();
    while (pos)
    {
        uint16_t usFileID = 0;
        ZV_FileShareSession* lpFsSession = nullptr;
        node.lpMgr->m_mapSession.GetNextAssoc(pos, usFileID, lpFsSession);
        EXPECT_TRUE(usFileID >= 1 && usFileID <= 1000) << usFileID;
    }
}

} // namespace

TEST(PduFuzz, ServerSurvivesHostilePayloadsOfEveryNumberOnEveryLink)
{
    for (uint32_t ulSeed = 1; ulSeed <= 3; ++ulSeed)
    {
        SCOPED_TRACE(ulSeed);
        FuzzRole(true, ulSeed);
    }
}

TEST(PduFuzz, ClientSurvivesHostilePayloadsOfEveryNumberOnEveryLink)
{
    for (uint32_t ulSeed = 1; ulSeed <= 3; ++ulSeed)
    {
        SCOPED_TRACE(ulSeed);
        FuzzRole(false, ulSeed);
    }
}
