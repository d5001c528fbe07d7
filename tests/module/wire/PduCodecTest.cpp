// Every payload the module writes or reads, as exact bytes, one table per
// road: each row saves, loads back and fails on every cut.
#include "add/ZV_AddPdu.h"
#include "control/ZV_ControlPdu.h"
#include "delete/ZV_DeletePdu.h"
#include "download/ZV_DownloadPdu.h"
#include "core/ZV_FileShareMgr.h"
#include "core/ZV_FileShareSession.h"
#include "lists/ZV_ListPdu.h"
#include "rights/ZV_EntryPdu.h"
#include "rights/ZV_RightsPdu.h"
#include "upload/ZV_UploadPdu.h"
#include "wire/ZV_CutList.h"
#include "ZV_PayloadCheck.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

using Bytes = std::vector<uint8_t>;

namespace {

struct Row { const char* pszName; std::function<void()> fnCheck; };

template <typename T>
Row Case(const char* pszName, const T& value, const Bytes& expected)
{
    return {pszName, [value, expected] { ZV_ExpectPayload(value, expected); }};
}
template <typename T>
Row Case(const char* pszName, const T& value, const std::string& sHex)
{
    return Case(pszName, value, ZV_FromHex(sHex));
}

Bytes Join(std::initializer_list<Bytes> parts)
{
    Bytes out;
    for (const Bytes& part : parts)
        out.insert(out.end(), part.begin(), part.end());
    return out;
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
const QB_UserID kAnn(0x11223344, 0x55);
const QB_UserID kBen(0x01, 0x02);
const Bytes kAnnBytes = {0x44, 0x33, 0x22, 0x11, 0x55, 0x00, 0x00, 0x00};
const Bytes kBenBytes = {0x01, 0x00, 0x00, 0x00, 0x02, 0x00, 0x00, 0x00};
const uint8_t kData[] = {0xaa, 0xbb, 0xcc};

// FileID 0x0107 routed and answered, result 40, the user.
template <typename T>
T Answer(uint32_t ulResult = zvResultNotEntitled)
{
    T value;
    value.usRouteID = value.usFileID = 0x0107, value.ulResult = ulResult, value.user = kUser;
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
    value.usFileID = 0x0107, value.user = kUser, value.ulFloodSeq = 0x0a0b0c0d;
    return value;
}
const std::string kRequestHex = std::string("07 01 ") + kUserHex + "0d 0c 0b 0a ";
const ZV_RequestHead kAsk = Request<ZV_RequestHead>();
const ZV_AnswerHead kAnswer = Answer<ZV_AnswerHead>();

// A download record with only its FileID: length, mask word, FileID.
ZV_FileDownloadInfo RecordOf7()
{
    ZV_FileDownloadInfo record;
    record.SetFileID(7);
    return record;
}
const char* const kRecordHex = "08 00 00 00 05 00 07 00 ";

// A block payload whose length field says ulLen and whose data has that many bytes.
template <typename T>
bool LoadsBlockOf(T block, uint32_t ulLen)
{
    Bytes data(ulLen, 0x5a);
    block.ulLen = ulLen, block.pData = data.data();
    const Bytes payload = ZV_SavePayload(block);
    QB_ByteStream stream(payload.data(), (int32_t)payload.size());
    T loaded;
    return loaded.Load(stream);
}

} // namespace

TEST(PduCodec, AddPayloadsAreTheirExactBytes)
{
    ZV_AddRequest ask{{0xFFFF, kUser, 0x0a0b0c0d}, ZV_FileBriefInfo(), 1};
    ZV_AddFilesRequest files;
    files.user = kUser, files.ulFloodSeq = 0x0a0b0c0d, files.bLast = 0;
    files.arrFileID.Add(0x0107), files.arrInfo.Add(ZV_FileBriefInfo());
    ZV_AddFilesResponse added;
    added.user = kUser, added.bStartUpload = 1;
    added.arrFileID.Add(0x0107), added.arrPos.Add(0x8000), added.arrInfo.Add(ZV_FileBriefInfo());
    Walk({
        Case("8001 with no FileID yet", ask, std::string("ff ff ") + kUserHex + "0d 0c 0b 0a 06 00 00 00 01 00 01"),
        Case("8002", ZV_AddResponse{Answer<ZV_AnswerHead>(zvResultOk), 0x8000, {}}, AnswerHex("00 00 00 00 ") + "00 80 00 00 06 00 00 00 01 00 00"),
        Case("8055", files, std::string(kUserHex) + "0d 0c 0b 0a 00 01 07 01 01 06 00 00 00 01 00 00"),
        Case("8056", added, std::string("00 00 00 00 ") + kUserHex + "01 01 07 01 01 00 80 00 00 01 06 00 00 00 01 00 01"),
    });

    // The first server writes its FileID and flood number over a client's 8001, the rest stays as it came.
    std::vector<uint8_t> vbPayload = ZV_FromHex(std::string("ff ff ") + kUserHex + "00 00 00 00 06 00 00 00 01 00 01");
    ask.usFileID = 0x0107;
    ask.SaveHeadOver(vbPayload);
    EXPECT_EQ(ZV_FromHex(std::string("07 01 ") + kUserHex + "0d 0c 0b 0a 06 00 00 00 01 00 01"), vbPayload);
}

TEST(PduCodec, TransferAndControlPayloadsAreTheirExactBytesAndABlockIsAtMostOneBlockLong)
{
    const ZV_AnswerHead ok = Answer<ZV_AnswerHead>(zvResultOk);
    const ZV_UploadRequest upload{kAsk, 0, sizeof kData, 0x8000, kData};
    const ZV_DownloadBlock download{ok, 0x8000, sizeof kData, kData, 0x10000};
    const ZV_ProgressRequest progress{{0x0107, kUser, 0x8000}, 1};
    ZV_FileStateNotice notice;
    notice.arrFileID.Add(0x0107), notice.arrFileID.Add(0x0108), notice.usState = zvFileStateComplete, notice.bUpload = 1;
    Walk({
        Case("8005 start marker", ZV_UploadRequest{kAsk, 1}, kRequestHex + "01"),
        Case("8005 block", upload, kRequestHex + "00 03 00 00 00 00 80 00 00 aa bb cc"),
        Case("8006", ZV_UploadResponse{kAnswer, 0x0a0b0c0d, 0x8000}, AnswerHex() + "0d 0c 0b 0a 00 80 00 00"),
        Case("8007", ZV_UploadFinish{kAsk}, kRequestHex),
        Case("8014", ZV_DownloadAsk{kAsk, "D:\\x", 0x8000, 1}, kRequestHex + "04 44 3a 5c 78 00 80 00 00 01 00"),
        Case("8015", ZV_DownloadResponse{ok, RecordOf7()}, AnswerHex("00 00 00 00 ") + kRecordHex),
        Case("8012", ZV_DownloadDataRequest{0x0107, kUser, RecordOf7()}, std::string("07 01 ") + kUserHex + kRecordHex),
        Case("8013", download, AnswerHex("00 00 00 00 ") + "00 80 00 00 03 00 00 00 aa bb cc 00 00 01 00"),
        Case("8016", ZV_StopDownloadAsk{kAsk, 1}, kRequestHex + "01"),
        Case("8017", ZV_StopUploadAsk{{kAsk, 1}, 0x8000}, kRequestHex + "01 00 80 00 00"),
        Case("8018", ZV_StopUploadResponse{kAnswer, 1, 0x8000}, AnswerHex() + "01 00 80 00 00"),
        Case("8021", progress, std::string("07 01 ") + kUserHex + "00 80 00 00 01"),
        Case("8022", ZV_Progress(progress), std::string("07 01 ") + kUserHex + "00 80 00 00"),
        Case("8035", ZV_UploadErrorAsk{kAsk, 0x8000}, kRequestHex + "00 80 00 00"),
        Case("8036", ZV_UploadErrorResponse{{0x0107, 0, 0x0107}}, "07 01 00 00 00 00 07 01"),
        Case("8052", notice, "02 07 01 08 01 03 00 01"),
    });
    EXPECT_TRUE(LoadsBlockOf(upload, ZV_BLOCK_SIZE));
    EXPECT_FALSE(LoadsBlockOf(upload, ZV_BLOCK_SIZE + 1));
    EXPECT_TRUE(LoadsBlockOf(download, ZV_BLOCK_SIZE));
    EXPECT_FALSE(LoadsBlockOf(download, ZV_BLOCK_SIZE + 1));
}

TEST(PduCodec, DeleteEntryAndRightsPayloadsAreTheirExactBytes)
{
    const ZV_EntryRequest entry{0x0203, kBen, 0x100};
    ZV_SetRightRequest rights;
    rights.head = entry, rights.bPublic = 0, rights.arrAdd = ZV_Users({kAnn, kBen}), rights.arrRemove = ZV_Users({kBen});
    // A success carries the empty description, delimited, and the position; a refusal ends behind the user.
    const ZV_SetRightResponse granted{0, 0x0005, kAnn, ZV_FileBriefInfo(), 10000};
    const ZV_SetRightResponse refused{40, 0x0005, kAnn, ZV_FileBriefInfo(), 10000};
    ZV_SetFilesRightRequest batch;
    batch.arrFileID.Add(5), batch.arrFileID.Add(0x0102);
    batch.user = kAnn, batch.ulFloodSeq = 9, batch.bPublic = 1, batch.arrAdd = ZV_Users({kBen});
    ZV_SetFilesRightRefusal batchRefused;
    batchRefused.arrFileID.Add(5), batchRefused.ulResult = 82, batchRefused.user = kAnn, batchRefused.ulFloodSeq = 9;
    const Bytes kEntryHead = Join({{0x03, 0x02}, kBenBytes, {0x00, 0x01, 0x00, 0x00}});
    Walk({
        Case("8008", ZV_DelUploadRequest{0x0102, kAnn, 0x0A0B0C0D}, Join({{0x02, 0x01}, kAnnBytes, {0x0D, 0x0C, 0x0B, 0x0A}})),
        Case("8009", ZV_DelUploadResponse{{0x0102, 40, 0x0102, kAnn}, 7}, Join({{0x02, 0x01, 40, 0, 0, 0, 0x02, 0x01}, kAnnBytes, {0x07, 0x00, 0x00, 0x00}})),
        Case("8010, 8037", entry, kEntryHead),
        Case("8003", rights, Join({kEntryHead, {0x00, 0x02}, kAnnBytes, kBenBytes, {0x01}, kBenBytes})),
        Case("8004 success", granted,
             Join({{0, 0, 0, 0, 0x05, 0x00}, kAnnBytes, {0x06, 0x00, 0x00, 0x00, 0x01, 0x00, 0x10, 0x27, 0x00, 0x00}})),
        Case("8004 refusal", refused, Join({{40, 0, 0, 0, 0x05, 0x00}, kAnnBytes})),
        Case("8040", batch,
             Join({{0x02, 0x05, 0x00, 0x02, 0x01}, kAnnBytes, {0x09, 0x00, 0x00, 0x00, 0x01, 0x01}, kBenBytes, {0x00}})),
        Case("8041", batchRefused,
             Join({{0x01, 0x05, 0x00, 82, 0, 0, 0, 0x01, 0x05, 0x00}, kAnnBytes, {0x09, 0x00, 0x00, 0x00}})),
    });
}

TEST(PduCodec, ListPayloadsAreTheirExactBytes)
{
    ZV_ListRequest ask;
    ask.usFileID = 0x0102, ask.user = kAnn;
    ZV_FileUploadInfo info;
    info.SetFileID(0x0304), info.SetFileWritePos(0x0A0B0C0D);
    ZV_UploadListResponse upload, refusal;
    upload.usRouteID = upload.usFileID = 0x0102, upload.user = kAnn, upload.bLast = 1;
    upload.arrInfo.Add(info), upload.arrMaxPos.Add(0x11121314);
    refusal.usRouteID = 0x0102, refusal.ulResult = 40;
    ZV_FileDownloadInfo record;
    record.SetFileID(0x0304), record.SetState(2);
    ZV_DownloadListResponse download;
    download.user = kAnn, download.arrInfo.Add(record), download.arrModify.Add(true);
    ZV_FileListRequest servers;
    servers.requester = kAnn;
    ZV_FileListResponse files, records;
    files.sender = records.sender = kAnn, records.bUploadList = 0, records.arrDownload.Add(record);
    files.arrInfo.Add(info), files.arrState.Add(true), files.arrMaxPos.Add(0x11121314);
    // Upload record: length word, 1-byte mask of bits 0 and 3, FileID, write position.
    // Download record: 2-byte mask of bits 0 and 10, FileID, state.
    const Bytes kUploadRecord = {0x01, 0x0B, 0, 0, 0, 0x24, 0x04, 0x03, 0x0D, 0x0C, 0x0B, 0x0A};
    const Bytes kDownloadRecord = {0x01, 0x0A, 0, 0, 0, 0x05, 0x10, 0x04, 0x03, 0x02, 0x00};
    Walk({
        Case("8027", ask, Join({{0x02, 0x01}, kAnnBytes})),
        Case("8028", upload, Join({{0x02, 0x01, 0, 0, 0, 0, 0x02, 0x01}, kAnnBytes, kUploadRecord,
                                   {0x01, 0x14, 0x13, 0x12, 0x11}, {0x01}})),
        Case("8028 refusal", refusal, Bytes{0x02, 0x01, 40, 0, 0, 0}),
        Case("8030", download, Join({{0, 0, 0, 0}, kAnnBytes, kDownloadRecord, {0x01, 0x01}})),
        Case("8031", servers, kAnnBytes),
        // Files: result, sender, flag 1, records, a flag and a position each; download records: flag 0, records.
        Case("8032 files", files, Join({{0, 0, 0, 0}, kAnnBytes, {0x01}, kUploadRecord, {0x01, 0x01},
                                        {0x01, 0x14, 0x13, 0x12, 0x11}})),
        Case("8032 records", records, Join({{0, 0, 0, 0}, kAnnBytes, {0x00}, kDownloadRecord})),
    });

    // A peer that sends more flags than records gets the common part.
    download.arrModify.Add(false);
    const Bytes vbSaved = ZV_SavePayload(download);
    QB_ByteStream stream(vbSaved.data(), (int32_t)vbSaved.size());
    ZV_DownloadListResponse loaded;
    loaded.Load(stream);
    EXPECT_EQ(1, loaded.arrInfo.GetSize());
    EXPECT_EQ(1, loaded.arrModify.GetSize());

    // An empty upload list is one last piece.
    std::vector<Bytes> vecPdu;
    ZV_CutList(ZV_UploadListResponse::kHeadSize, 0, [](int) { return 0u; }, [&](int, int, bool bLast) {
        ZV_UploadListResponse part;
        part.usRouteID = part.usFileID = 0, part.bLast = bLast ? 1 : 0;
        vecPdu.push_back(ZV_SavePayload(part));
    });
    ASSERT_EQ(1u, vecPdu.size());
    EXPECT_EQ(Join({Bytes(16, 0), {0x00, 0x00, 0x01}}), vecPdu[0]);
}

// The cut counts the mask word as 6, a user as 12, each text with its count form: a counted list always fits.
TEST(PduCodec, ListEntriesAreCountedFieldByFieldAndNeverBelowTheirBytes)
{
    QB_Array<QB_UserID> arrRight = ZV_Users({kAnn, kAnn});
    ZV_FileBriefInfo full, longName, noRight, length;
    full.SetCreatorID(kAnn), full.SetCreatorName("Ann"), full.SetFilePath("C:\\d\\"), full.SetFileOldName("a.txt");
    full.SetFileType("txt"), full.SetFileLenth(9), full.SetShareTime(QB_DateTimeEx());
    full.SetModifyTime(QB_DateTimeEx()), full.SetFileState(zvFileStateComplete), full.SetRight(arrRight);
    full.SetPublic(true);
    longName.SetFileOldName(QB_StringU8(std::string(200, 'n').c_str()));
    noRight.SetRight(QB_Array<QB_UserID>());
    // 6, 12, 1+3, 1+5, 1+5, 1+3, 4, 8, 8, 2, 4+2*12, 1.
    EXPECT_EQ(89u, full.GetSaveSize());
    EXPECT_EQ(6u, ZV_FileBriefInfo().GetSaveSize());
    EXPECT_EQ(6u + 2 + 200, longName.GetSaveSize());
    EXPECT_EQ(10u, noRight.GetSaveSize());
    EXPECT_LE(ZV_SavePayload(full).size(), 89u);

    length.SetFileLenth(5);
    ZV_FileUploadInfo upload;
    upload.SetFileID(7), upload.SetFileNewName("a(1).txt"), upload.SetBriefInfo(length), upload.SetFileWritePos(5);
    // 5, 2, 1+8, 6+4, 4; then the position in 8028, the flag and the position in 8032.
    EXPECT_EQ(34u, ZV_UploadListEntrySize(upload));
    EXPECT_EQ(35u, ZV_FileListEntrySize(upload));
    EXPECT_LE(ZV_SavePayload(upload).size() + 4, 34u);

    ZV_FileDownloadInfo download;
    download.SetFileID(0x0102), download.SetFilePath("D:\\"), download.SetFileFullName("a.txt");
    download.SetFileName("b.txt"), download.SetFileType("txt"), download.SetFileLenth(1000), download.SetUsedTime(250);
    download.SetLastTick(1), download.SetShareTime(QB_DateTimeEx()), download.SetDownloadPos(500);
    download.SetState(zvDownloadStateRunning), download.SetStopped(true), download.SetActive(false);
    download.SetUserID(kAnn);
    // 6, 2, 1+3, 1+5, 1+5, 1+3, 4*4, 8, 2, 1, 1, 12; then the modify flag.
    EXPECT_EQ(69u, ZV_DownloadListEntrySize(download));
    EXPECT_LE(ZV_SavePayload(download).size() + 1, 69u);
}
