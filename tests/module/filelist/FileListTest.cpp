// The file list between linked servers on one manager: what a server
// answers and how the answer is cut.
#include "ZV_RecordingNode.h"

#include "lists/ZV_ListPdu.h"

#include "QB_FaultEnv.h"

#include <filesystem>

namespace {

const QB_UserID kSelf(1, 0);
const QB_UserID kPeer(2, 0);

ZV_FileUploadInfo PeerFile(uint16_t usFileID, const char* pszName, uint32_t ulLength, uint32_t ulWritePos,
                           uint16_t usState)
{
    ZV_FileBriefInfo brief = ZV_Brief(QB_UserID(20001, 0), pszName, ulLength);
    brief.SetFileState(usState);
    ZV_FileUploadInfo info;
    info.SetFileID(usFileID);
    info.SetFileNewName(QB_StringU8(pszName));
    info.SetBriefInfo(brief);
    info.SetFileWritePos(ulWritePos);
    return info;
}

struct FileList : ::testing::Test
{
    QB_FaultEnv env;
    QB_ScopedEnv scoped{&env};
    ZV_RecordingNode node{true};

    void SetUp() override { ASSERT_EQ(0u, node.mgr.Initialize()); }
    std::vector<ZV_FileListResponse> Answers() { return ZV_Pieces<ZV_FileListResponse>(node.host, PDU_CONF_GET_FILE_LIST_RESPONSE); }
};

} // namespace

// Nothing held is still two PDUs: the files, then the records. A request
// from this server itself, or from a client, gets nothing.
TEST_F(FileList, AnswersALinkedServerWithItsFilesThenItsRecordsAndNobodyElse)
{
    const Bytes vbAsk = ZV_Pdu().User(kPeer).b;
    node.Deliver(PDU_CONF_GET_FILE_LIST_REQUEST, zvConfServerTypeCommand, vbAsk);
    const std::vector<ZV_SentPdu> vecSent = node.host.SentOf(PDU_CONF_GET_FILE_LIST_RESPONSE);
    ASSERT_EQ(2u, vecSent.size());
    EXPECT_EQ(ZV_Pdu().U32(0).User(kSelf).U8(1).U8(0).U8(0).U8(0).b, vecSent[0].data);
    EXPECT_EQ(ZV_Pdu().U32(0).User(kSelf).U8(0).U8(0).b, vecSent[1].data);
    EXPECT_EQ(5u, vecSent[0].ulConn);

    node.host.m_vecSent.clear();
    node.Deliver(PDU_CONF_GET_FILE_LIST_REQUEST, zvConfServerTypeCommand, ZV_Pdu().User(kSelf).b);
    node.Deliver(PDU_CONF_GET_FILE_LIST_REQUEST, zvConfClientTypeCommand, vbAsk);
    EXPECT_TRUE(node.host.m_vecSent.empty());
}

// Files whose counted sizes fill the buffer to the byte go in one PDU; one
// byte more opens a second. Names stay within what a record may hold.
TEST_F(FileList, CutsFilesThatFillTheBufferToTheByteIntoOnePduAndOneByteMoreIntoTwo)
{
    // Files whose stored names are nNameBytes long.
    auto fnFile = [](uint16_t usFileID, int nNameBytes) {
        ZV_FileUploadInfo info = PeerFile(usFileID, "file.bin", 100, 100, 3);
        info.SetFileNewName(QB_StringU8(std::string((size_t)nNameBytes, 'n').c_str()));
        return info;
    };
    const std::vector<int> vecName = ZV_NamesThatFill(ZV_FileListResponse::kHeadSize,
                                                      [&](int n) { return ZV_FileListEntrySize(fnFile(1, n)); });
    QB_Array<ZV_FileUploadInfo> arrInfo;
    QB_Array<bool> arrState;
    QB_Array<uint32_t> arrMaxPos;
    for (int nName : vecName)
    {
        arrInfo.Add(fnFile((uint16_t)(arrInfo.GetSize() + 1), nName));
        arrState.Add(true);
        arrMaxPos.Add(100);
    }
    const QB_Array<ZV_FileDownloadInfo> arrNone;
    ZV_FileShareMgrPeer::SendFileList(node.mgr, 5, kSelf, arrInfo, arrState, arrMaxPos, arrNone);
    std::vector<ZV_FileListResponse> vecParts = Answers();
    ASSERT_EQ(2u, vecParts.size());
    EXPECT_EQ(arrInfo.GetSize(), vecParts[0].arrInfo.GetSize());

    node.host.m_vecSent.clear();
    arrInfo[arrInfo.GetSize() - 1] = fnFile(77, vecName.back() + 1);
    ZV_FileShareMgrPeer::SendFileList(node.mgr, 5, kSelf, arrInfo, arrState, arrMaxPos, arrNone);
    vecParts = Answers();
    ASSERT_EQ(3u, vecParts.size());
    ASSERT_EQ(1, vecParts[1].arrInfo.GetSize());
    EXPECT_EQ(77, vecParts[1].arrInfo[0].m_usFileID);
    EXPECT_EQ(1, vecParts[1].bUploadList);
    EXPECT_EQ(0, vecParts[2].bUploadList);
}
