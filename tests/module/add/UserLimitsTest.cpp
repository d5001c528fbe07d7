// What one participant may share on a server that sets "MaxFilesPerUser" or
// "MaxBytesPerUser": an add over a limit is answered with 91 to the asker
// alone and leaves no session, stored file, catalogue row or flood behind.
#include "ZV_RecordingNode.h"

#include <filesystem>
#include <iterator>

namespace fs = std::filesystem;

namespace {

const QB_UserID kAlice(10001, 0);  // the user of the client link (conn 5)
const QB_UserID kBob(10002, 0);

size_t StoredFiles(const std::string& sFolder)
{
    if (!fs::exists(sFolder))
        return 0;
    return (size_t)std::distance(fs::directory_iterator(sFolder), fs::directory_iterator());
}

// The conference's rows as the catalogue holds them, journal and all.
size_t CatalogueRows(ZV_FileShareMgr& mgr)
{
    QB_Array<ZV_FileUploadInfo> arrInfo;
    QB_Array<QB_StringW> arrSection;
    ZV_FileShareMgrPeer::Catalog(mgr).LoadConf(7, arrInfo, arrSection);
    return (size_t)arrInfo.GetSize();
}

struct LimitRow
{
    const char* szName;
    std::string sKeys;        // lines added to [FileShare]
    int nPrior;               // files already shared, as a linked server announced them
    QB_UserID priorCreator;
    uint32_t ulPriorLength;
    bool bBatch;              // 8055 rather than 8001
    std::vector<uint32_t> vecLength;
    uint32_t ulExpected;
};

} // namespace

TEST(UserLimits, AnAddOverALimitIsRefusedWith91AndStoresNothing)
{
    const uint32_t kMax = 0xFFFFFFFFu;
    const LimitRow aRows[] = {
        {"no keys: no limit", "", 3, kAlice, kMax, false, {kMax}, 0},
        {"0 is no limit", "MaxFilesPerUser=0\r\nMaxBytesPerUser=0\r\n", 4, kAlice, 1, false, {1}, 0},
        {"a word is no limit", "MaxFilesPerUser=two\r\n", 4, kAlice, 1, false, {1}, 0},
        {"one file too many", "MaxFilesPerUser= 3 \r\n", 3, kAlice, 1, false, {1}, 91},
        {"another user's files count for them", "MaxFilesPerUser=3\r\n", 3, kBob, 1, false, {1}, 0},
        {"bytes to the limit", "MaxBytesPerUser=100\r\n", 1, kAlice, 60, false, {40}, 0},
        {"one byte too many", "MaxBytesPerUser=100\r\n", 1, kAlice, 60, false, {41}, 91},
        {"bytes summed past 32 bits", "MaxBytesPerUser=4294967295\r\n", 1, kAlice, kMax, false, {1}, 91},
        {"a limit past 32 bits", "MaxBytesPerUser=8589934592\r\n", 1, kAlice, kMax, false, {kMax}, 0},
        {"a batch that fits", "MaxFilesPerUser=3\r\n", 1, kAlice, 1, true, {1, 1}, 0},
        {"a batch one file over, whole", "MaxFilesPerUser=3\r\n", 1, kAlice, 1, true, {1, 1, 1}, 91},
        {"a batch one byte over, whole", "MaxBytesPerUser=10\r\n", 0, kAlice, 0, true, {5, 6}, 91},
    };
    for (const LimitRow& row : aRows)
    {
        SCOPED_TRACE(row.szName);
        ZV_RecordingNode node(true);
        node.host.AddUser(kBob, 1, "Bob");
        QB_WriteWholeFile(node.tmp.Sub("confsrv.ini"),
                          "[FileShare]\r\nPath=" + node.tmp.Sub("store") + "\r\n" + row.sKeys);
        ASSERT_EQ(0u, node.mgr.Initialize());
        for (int i = 0; i < row.nPrior; ++i)
            ASSERT_EQ(0u, node.Deliver(PDU_CONF_FS_ADD_REQUEST, zvConfServerTypeCommand,
                                       ZV_AddAsk((uint16_t)(500 + i), row.priorCreator,
                                                 ZV_Brief(row.priorCreator, ("p" + std::to_string(i)).c_str(), row.ulPriorLength))));
        const size_t nSessions = (size_t)ZV_FileShareMgrPeer::Sessions(node.mgr).GetCount();
        const size_t nStored = StoredFiles(node.tmp.Sub("store/7"));
        const size_t nRows = CatalogueRows(node.mgr);
        node.host.m_vecSent.clear();

        uint16_t usAnswer = PDU_CONF_FS_ADD_RESPONSE;
        if (row.bBatch)
        {
            usAnswer = PDU_CONF_FS_ADD_FILES_RESPONSE;
            std::vector<std::pair<uint16_t, ZV_FileBriefInfo>> vecFiles;
            for (size_t i = 0; i < row.vecLength.size(); ++i)
                vecFiles.push_back({ZV_NO_FILEID, ZV_Brief(kAlice, ("n" + std::to_string(i)).c_str(), row.vecLength[i])});
            node.Deliver(PDU_CONF_FS_ADD_FILES_REQUEST, zvConfClientTypeCommand, ZV_AddFilesAsk(kAlice, vecFiles));
        }
        else
            node.Deliver(PDU_CONF_FS_ADD_REQUEST, zvConfClientTypeCommand,
                         ZV_AddAsk(ZV_NO_FILEID, kAlice, ZV_Brief(kAlice, "new", row.vecLength[0])));

        const auto vecAnswer = node.host.SentOf(usAnswer);
        ASSERT_EQ(1u, vecAnswer.size());
        EXPECT_EQ(row.ulExpected, row.bBatch ? ZV_Parse<ZV_AddFilesResponse>(vecAnswer[0].data).ulResult
                                             : ZV_Parse<ZV_AddResponse>(vecAnswer[0].data).ulResult);
        const size_t nAdded = row.ulExpected == 0 ? row.vecLength.size() : 0;
        EXPECT_EQ(row.ulExpected == 0 ? "group" : "link", vecAnswer[0].sRoute);
        EXPECT_EQ(nSessions + nAdded, (size_t)ZV_FileShareMgrPeer::Sessions(node.mgr).GetCount());
        EXPECT_EQ(nStored + nAdded, StoredFiles(node.tmp.Sub("store/7")));
        EXPECT_EQ(nRows + nAdded, CatalogueRows(node.mgr));
    }
}
