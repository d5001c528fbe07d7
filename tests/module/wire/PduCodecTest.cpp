// Every payload the module writes or reads, as exact bytes: one table per
// header of payloads. Each row saves a known value to its bytes, loads them
// back, and fails on every cut of them.
#include "add/ZV_AddPdu.h"
#include "control/ZV_ControlPdu.h"
#include "download/ZV_DownloadPdu.h"
#include "core/ZV_FileShareMgr.h"
#include "core/ZV_FileShareSession.h"
#include "ZV_PayloadCheck.h"
#include "upload/ZV_UploadPdu.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

using Bytes = std::vector<uint8_t>;

namespace {

struct Row
{
    const char* pszName;
    std::function<void()> fnCheck;
};

template <typename T>
Row Case(const char* pszName, const T& value, const std::string& sHex)
{
    return {pszName, [value, sHex] { ZV_ExpectPayload(value, ZV_FromHex(sHex)); }};
}

void Walk(const std::vector<Row>& rows)
{
    for (const Row& row : rows)
    {
        SCOPED_TRACE(row.pszName);
        row.fnCheck();
    }
}

const QB_UserID kUser(0x01020304, 5);
const char* const kUserHex = "04 03 02 01 05 00 00 00 ";
const uint8_t kData[] = {0xaa, 0xbb, 0xcc};

// FileID 0x0107 routed and answered, result 40, the user.
template <typename T>
T Answer(uint32_t ulResult = zvResultNotEntitled)
{
    T value;
    value.usRouteID = 0x0107;
    value.ulResult = ulResult;
    value.usFileID = 0x0107;
    value.user = kUser;
    return value;
}
std::string AnswerHex(const char* pszResult = "28 00 00 00 ")
{
    return std::string("07 01 ") + pszResult + "07 01 " + kUserHex;
}

// FileID 0x0107, the user, flood 0x0a0b0c0d.
template <typename T>
T Request()
{
    T value;
    value.usFileID = 0x0107;
    value.user = kUser;
    value.ulFloodSeq = 0x0a0b0c0d;
    return value;
}
const std::string kRequestHex = std::string("07 01 ") + kUserHex + "0d 0c 0b 0a ";

// A download record with only its FileID: length, mask word, FileID.
ZV_FileDownloadInfo RecordOf7()
{
    ZV_FileDownloadInfo record;
    record.SetFileID(7);
    return record;
}
const char* const kRecordHex = "08 00 00 00 05 00 07 00 ";

// A payload of a block whose length field says ulLen and whose data has
// that many bytes.
template <typename T>
bool LoadsBlockOf(T block, uint32_t ulLen)
{
    block.pData = nullptr;
    Bytes data(ulLen, 0x5a);
    block.ulLen = ulLen;
    block.pData = data.data();
    const Bytes payload = ZV_SavePayload(block);
    QB_ByteStream stream(payload.data(), (int32_t)payload.size());
    T loaded;
    return loaded.Load(stream);
}

} // namespace

TEST(PduCodec, AddPayloadsAreTheirExactBytes)
{
    ZV_AddRequest ask;
    ask.usFileID = 0xFFFF;
    ask.user = kUser;
    ask.ulFloodSeq = 0x0a0b0c0d;
    ask.bStartUpload = 1;
    auto answer = Answer<ZV_AddResponse>(zvResultOk);
    answer.ulWritePos = 0x8000;
    ZV_AddFilesRequest files;
    files.user = kUser;
    files.ulFloodSeq = 0x0a0b0c0d;
    files.arrFileID.Add(0x0107);
    files.arrInfo.Add(ZV_FileBriefInfo());
    files.bLast = 0;
    ZV_AddFilesResponse added;
    added.user = kUser;
    added.bStartUpload = 1;
    added.arrFileID.Add(0x0107);
    added.arrPos.Add(0x8000);
    added.arrInfo.Add(ZV_FileBriefInfo());
    Walk({
        Case("8001 with no FileID yet", ask, std::string("ff ff ") + kUserHex + "0d 0c 0b 0a 06 00 00 00 01 00 01"),
        Case("8002", answer, AnswerHex("00 00 00 00 ") + "00 80 00 00 06 00 00 00 01 00 00"),
        Case("8055", files, std::string(kUserHex) + "0d 0c 0b 0a 00 01 07 01 01 06 00 00 00 01 00 00"),
        Case("8056", added, std::string("00 00 00 00 ") + kUserHex + "01 01 07 01 01 00 80 00 00 01 06 00 00 00 01 00 01"),
    });

    // The FileID and flood number the first server gives go over a client's
    // 8001 as it came; the rest of it stays byte for byte.
    std::vector<uint8_t> vbPayload = ZV_FromHex(std::string("ff ff ") + kUserHex + "00 00 00 00 06 00 00 00 01 00 01");
    ask.usFileID = 0x0107;
    ask.SaveHeadOver(vbPayload);
    EXPECT_EQ(ZV_FromHex(std::string("07 01 ") + kUserHex + "0d 0c 0b 0a 06 00 00 00 01 00 01"), vbPayload);
}

TEST(PduCodec, UploadPayloadsAreTheirExactBytesAndABlockIsAtMostOneBlockLong)
{
    auto marker = Request<ZV_UploadRequest>();
    marker.bStart = 1;
    auto block = Request<ZV_UploadRequest>();
    block.ulLen = sizeof kData;
    block.ulPos = 0x8000;
    block.pData = kData;
    auto answer = Answer<ZV_UploadResponse>();
    answer.ulFloodSeq = 0x0a0b0c0d;
    answer.ulPos = 0x8000;
    Walk({
        Case("8005 start marker", marker, kRequestHex + "01"),
        Case("8005 block", block, kRequestHex + "00 03 00 00 00 00 80 00 00 aa bb cc"),
        Case("8006", answer, AnswerHex() + "0d 0c 0b 0a 00 80 00 00"),
        Case("8007", Request<ZV_UploadFinish>(), kRequestHex),
    });
    EXPECT_TRUE(LoadsBlockOf(block, ZV_BLOCK_SIZE));
    EXPECT_FALSE(LoadsBlockOf(block, ZV_BLOCK_SIZE + 1));
}

TEST(PduCodec, DownloadPayloadsAreTheirExactBytesAndABlockIsAtMostOneBlockLong)
{
    auto ask = Request<ZV_DownloadAsk>();
    ask.sPath = "D:\\x";
    ask.ulPos = 0x8000;
    ask.bFromServer = 1;
    auto answer = Answer<ZV_DownloadResponse>(zvResultOk);
    answer.record = RecordOf7();
    ZV_DownloadDataRequest position;
    position.usFileID = 0x0107;
    position.user = kUser;
    position.record = RecordOf7();
    auto block = Answer<ZV_DownloadBlock>(zvResultOk);
    block.ulPos = 0x8000;
    block.ulLen = sizeof kData;
    block.pData = kData;
    block.ulMaxPos = 0x10000;
    Walk({
        Case("8014", ask, kRequestHex + "04 44 3a 5c 78 00 80 00 00 01 00"),
        Case("8015", answer, AnswerHex("00 00 00 00 ") + kRecordHex),
        Case("8012", position, std::string("07 01 ") + kUserHex + kRecordHex),
        Case("8013", block, AnswerHex("00 00 00 00 ") + "00 80 00 00 03 00 00 00 aa bb cc 00 00 01 00"),
    });
    EXPECT_TRUE(LoadsBlockOf(block, ZV_BLOCK_SIZE));
    EXPECT_FALSE(LoadsBlockOf(block, ZV_BLOCK_SIZE + 1));

    // A refusal is read up to its head; the empty record behind it is not.
    const Bytes refusal = ZV_FromHex(AnswerHex());
    QB_ByteStream stream(refusal.data(), (int32_t)refusal.size());
    ZV_DownloadResponse refused;
    EXPECT_NO_THROW(refused.Load(stream));
    EXPECT_EQ(refused.ulResult, zvResultNotEntitled);
}

TEST(PduCodec, ControlPayloadsAreTheirExactBytes)
{
    auto stopDownload = Request<ZV_StopDownloadAsk>();
    stopDownload.bStop = 1;
    auto stopUpload = Request<ZV_StopUploadAsk>();
    stopUpload.bStop = 1;
    stopUpload.ulPos = 0x8000;
    auto stopped = Answer<ZV_StopUploadResponse>();
    stopped.bStop = 1;
    stopped.ulPos = 0x8000;
    ZV_ProgressRequest progressAsk;
    progressAsk.usFileID = 0x0107;
    progressAsk.user = kUser;
    progressAsk.ulPos = 0x8000;
    progressAsk.bRestart = 1;
    const ZV_Progress progress = progressAsk;
    auto failed = Request<ZV_UploadErrorAsk>();
    failed.ulPos = 0x8000;
    ZV_UploadErrorResponse failure;
    failure.usRouteID = 0x0107;
    failure.usFileID = 0x0107;
    ZV_FileStateNotice notice;
    notice.arrFileID.Add(0x0107);
    notice.arrFileID.Add(0x0108);
    notice.usState = zvFileStateComplete;
    notice.bUpload = 1;
    Walk({
        Case("8016", stopDownload, kRequestHex + "01"),
        Case("8017", stopUpload, kRequestHex + "01 00 80 00 00"),
        Case("8018", stopped, AnswerHex() + "01 00 80 00 00"),
        Case("8021", progressAsk, std::string("07 01 ") + kUserHex + "00 80 00 00 01"),
        Case("8022", progress, std::string("07 01 ") + kUserHex + "00 80 00 00"),
        Case("8035", failed, kRequestHex + "00 80 00 00"),
        Case("8036", failure, "07 01 00 00 00 00 07 01"),
        Case("8052", notice, "02 07 01 08 01 03 00 01"),
    });
}
