// Adding a file on one manager with a recording host: the exact bytes of
// 8001 and 8002, the stored names, and where hostile names land.
#include "ZV_RecordingHost.h"

#include "ZV_AddPdu.h"
#include "ZV_FileShareMgr.h"
#include "ZV_FileShareSession.h"

#include "QB_Env.h"
#include "QB_TestSupport.h"

#include <gtest/gtest.h>

#include <filesystem>

namespace fs = std::filesystem;

namespace {

using Bytes = std::vector<uint8_t>;

Bytes Head(const Bytes& data, size_t n)
{
    return Bytes(data.begin(), data.begin() + (long)std::min(n, data.size()));
}

// A manager on a recording host whose home is a fresh folder; a server
// stores below it in "store".
struct Node
{
    QB_TempFolder tmp;
    ZV_RecordingHost host;
    ZV_FileShareMgr mgr;

    explicit Node(bool bServer)
    {
        QB_SetEnvironmentVariable("ROOMCRATE_HOME", tmp.Path().c_str());
        if (bServer)
            QB_WriteWholeFile(tmp.Sub("confsrv.ini"), "[FileShare]\r\nPath=" + tmp.Sub("store") + "\r\n");
        host.m_bServer = bServer;
        host.AddUser(host.m_LocalUser, 1, "Alice");
        host.Attach(&mgr);
    }
    ~Node() { QB_SetEnvironmentVariable("ROOMCRATE_HOME", nullptr); }
    uint32_t Deliver(uint16_t usPdu, uint16_t usConnType, const Bytes& data)
    {
        ConfPduData cpd{};
        cpd.ulConn = 5;
        cpd.conn_type = usConnType;
        cpd.usPdu = usPdu;
        cpd.ulLen = (uint32_t)data.size();
        cpd.pData = data.data();
        return mgr.HandlePdu(&cpd);
    }
};

Bytes AddRequest(uint16_t usFileID, const QB_StringU8& sName, uint32_t ulFloodSeq = 0)
{
    ZV_AddRequest ask;
    ask.usFileID = usFileID;
    ask.creator = QB_UserID(10001, 0);
    ask.ulFloodSeq = ulFloodSeq;
    ask.brief.SetCreatorID(ask.creator);
    ask.brief.SetFileOldName(sName);
    ask.brief.SetPublic(true);
    Bytes data(70000);
    QB_ByteStream stream(data.data(), (int32_t)data.size(), false);
    ask.Save(stream);
    data.resize((size_t)stream.GetPos());
    return data;
}

ZV_AddResponse ParseResponse(const Bytes& data)
{
    QB_ByteStream stream(data.data(), (int32_t)data.size());
    ZV_AddResponse answer;
    answer.Load(stream);
    return answer;
}

} // namespace

TEST(AddFile, ClientSendsItsRequestWithTheFileInWindowsForm)
{
    Node node(false);
    const std::string sPath = node.tmp.Sub("report.doc");
    QB_WriteWholeFile(sPath, "12345");
    const std::u16string sWide(sPath.begin(), sPath.end());
    ASSERT_EQ(0u, node.mgr.FsAdd(sWide.c_str(), nullptr, 0, 1, 1));

    ASSERT_EQ(1u, node.host.m_vecSent.size());
    const ZV_SentPdu& sent = node.host.m_vecSent[0];
    EXPECT_EQ("link", sent.sRoute);
    EXPECT_EQ(11u, sent.ulConn);
    EXPECT_EQ(PDU_CONF_FS_ADD_REQUEST, sent.usPdu);
    EXPECT_EQ((Bytes{0xff, 0xff, 0x11, 0x27, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}), Head(sent.data, 14));
    EXPECT_EQ(1, sent.data.back());
    QB_ByteStream stream(sent.data.data(), (int32_t)sent.data.size());
    ZV_AddRequest ask;
    ask.LoadHead(stream);
    ask.LoadBody(stream);
    EXPECT_EQ(QB_StringU8(node.tmp.PathW()), ask.brief.m_sFilePath);
    EXPECT_EQ(QB_StringU8("report.doc"), ask.brief.m_sFileOldName);
    EXPECT_EQ(QB_StringU8("doc"), ask.brief.m_sFileType);
    EXPECT_EQ(5u, ask.brief.m_ulFileLenth);
    EXPECT_EQ(0u, ask.brief.m_ullMask & ZV_BRIEF_RIGHT) << "a public file carries no rights";
    EXPECT_TRUE(ask.brief.IsSameLocalFile());
}

TEST(AddFile, ServerAnswersAllClientsAndFloodsTheFinalFileIDAndFloodNumber)
{
    Node node(true);
    node.host.m_bHasServerLinks = true;
    ASSERT_EQ(0u, node.mgr.Initialize());
    ASSERT_EQ(0u, node.Deliver(PDU_CONF_FS_ADD_REQUEST, zvConfClientTypeCommand, AddRequest(0xFFFF, "a.txt")));

    const auto vecFlood = node.host.SentOf(PDU_CONF_FS_ADD_REQUEST);
    ASSERT_EQ(1u, vecFlood.size());
    EXPECT_EQ("servers", vecFlood[0].sRoute);
    EXPECT_EQ((Bytes{0x07, 0, 0x01, 0, 0x11, 0x27, 0, 0, 0, 0, 0, 0, 0x64, 0, 0, 0}), Head(vecFlood[0].data, 16));
    const auto vecAnswer = node.host.SentOf(PDU_CONF_FS_ADD_RESPONSE);
    ASSERT_EQ(1u, vecAnswer.size());
    EXPECT_EQ("group", vecAnswer[0].sRoute);
    EXPECT_EQ((Bytes{0x01, 0, 0, 0, 0, 0, 0x01, 0, 0x11, 0x27, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}),
              Head(vecAnswer[0].data, 20));
    EXPECT_TRUE(fs::exists(node.tmp.Sub("store/7/a.txt")));
}

TEST(AddFile, KeepsEveryHostileNameInsideTheConferenceFolder)
{
    Node node(true);
    ASSERT_EQ(0u, node.mgr.Initialize());
    const QB_StringU8 aNames[] = {"..\\..\\evil.txt", "../../evil.txt", "C:\\evil.txt", "", "..", ".", " ",
                                  "a/b\\c:d", QB_StringU8(std::string(1024, 'x').c_str()),
                                  QB_StringU8((std::string(1000, 'y') + "/../z.doc").c_str())};
    uint16_t usFileID = 1;
    for (const QB_StringU8& sName : aNames)
        ASSERT_EQ(0u, node.Deliver(PDU_CONF_FS_ADD_REQUEST, zvConfServerTypeCommand, AddRequest(usFileID++, sName)));

    size_t nStored = 0;
    for (const auto& entry : fs::recursive_directory_iterator(node.tmp.Path()))
    {
        const std::string sRel = fs::relative(entry.path(), node.tmp.Path()).string();
        if (entry.is_directory() || sRel == "confsrv.ini" || sRel == "fsinfo.ini" || sRel.rfind("log/", 0) == 0)
            continue;
        EXPECT_EQ(node.tmp.Sub("store/7"), entry.path().parent_path().string()) << sRel;
        ++nStored;
    }
    EXPECT_EQ(std::size(aNames), nStored);
    // The shared name travels on as the user gave it.
    const auto vecAnswer = node.host.SentOf(PDU_CONF_FS_ADD_RESPONSE);
    ASSERT_EQ(std::size(aNames), vecAnswer.size());
    EXPECT_EQ(aNames[0], ParseResponse(vecAnswer[0].data).brief.m_sFileOldName);
    // Every stored name is one the catalogue will delete at the end.
    EXPECT_EQ(0u, node.mgr.CleanData());
    EXPECT_TRUE(fs::is_empty(node.tmp.Sub("store/7")));
}

TEST(AddFile, StoredNamesTakeACounterBeforeTheLastDotOrInFront)
{
    QB_TempFolder tmp;
    QB_WriteWholeFile(tmp.Sub("report.doc"), "");
    QB_WriteWholeFile(tmp.Sub("report(2).doc"), "");
    QB_WriteWholeFile(tmp.Sub("readme"), "");
    const struct
    {
        const char16_t* szName;
        const char16_t* szStored;
    } aRows[] = {{u"report.doc", u"report(1).doc"}, {u"readme", u"(1)readme"}, {u"new.txt", u"new.txt"}};
    for (const auto& row : aRows)
    {
        QB_StringW sDst;
        ZV_FileShareSession::MakeUniqueFileName(tmp.PathW(), row.szName, sDst);
        EXPECT_EQ(QB_StringW(row.szStored), sDst);
    }
}
