// The payloads that bring a node in step, byte for byte: the asks (8027,
// 8029, 8031), the upload list (8028), the download list (8030) and a
// server's file list (8032); an empty upload list is one last piece.
#include "lists/ZV_ListPdu.h"
#include "wire/ZV_CutList.h"

#include "ZV_PayloadCheck.h"

#include <gtest/gtest.h>

namespace {

using Bytes = std::vector<uint8_t>;

const QB_UserID kAnn(0x11223344, 0x55);
const Bytes kAnnBytes = {0x44, 0x33, 0x22, 0x11, 0x55, 0x00, 0x00, 0x00};

Bytes Join(std::initializer_list<Bytes> parts)
{
    Bytes out;
    for (const Bytes& part : parts)
        out.insert(out.end(), part.begin(), part.end());
    return out;
}

// The pieces an upload list is sent in, each as the PDU's payload.
std::vector<Bytes> CutUploadList(const QB_Array<ZV_FileUploadInfo>& arrInfo)
{
    std::vector<Bytes> vecPdu;
    ZV_CutList(
        ZV_UploadListResponse::kHeadSize, arrInfo.GetSize(), [&](int i) { return ZV_UploadListEntrySize(arrInfo[i]); },
        [&](int nFrom, int nTo, bool bLast) {
            ZV_UploadListResponse part;
            part.usRouteID = part.usFileID = 0;
            for (int i = nFrom; i < nTo; ++i)
            {
                part.arrInfo.Add(arrInfo[i]);
                part.arrMaxPos.Add(0);
            }
            part.bLast = bLast ? 1 : 0;
            vecPdu.push_back(ZV_SavePayload(part));
        });
    return vecPdu;
}

} // namespace

TEST(ListPdu, AsksAndBothListsSaveToTheirTableBytesAndEveryShorterPayloadFails)
{
    ZV_ListRequest ask;
    ask.usFileID = 0x0102;
    ask.user = kAnn;
    ZV_ExpectPayload(ask, Join({{0x02, 0x01}, kAnnBytes}));

    ZV_UploadListResponse upload;
    upload.usRouteID = 0x0102;
    upload.usFileID = 0x0102;
    upload.user = kAnn;
    ZV_FileUploadInfo info;
    info.SetFileID(0x0304);
    info.SetFileWritePos(0x0A0B0C0D);
    upload.arrInfo.Add(info);
    upload.arrMaxPos.Add(0x11121314);
    upload.bLast = 1;
    // The record: its length word, the 1-byte mask of bits 0 and 3, FileID, write position.
    ZV_ExpectPayload(upload, Join({{0x02, 0x01, 0, 0, 0, 0, 0x02, 0x01},
                                   kAnnBytes,
                                   {0x01, 0x0B, 0, 0, 0, 0x24, 0x04, 0x03, 0x0D, 0x0C, 0x0B, 0x0A},
                                   {0x01, 0x14, 0x13, 0x12, 0x11},
                                   {0x01}}));

    ZV_UploadListResponse refusal;
    refusal.usRouteID = 0x0102;
    refusal.ulResult = 40;
    ZV_ExpectPayload(refusal, {0x02, 0x01, 40, 0, 0, 0});

    ZV_DownloadListResponse download;
    download.user = kAnn;
    ZV_FileDownloadInfo record;
    record.SetFileID(0x0304);
    record.SetState(2);
    download.arrInfo.Add(record);
    download.arrModify.Add(true);
    // The 2-byte mask of bits 0 and 10, FileID, state; then one flag.
    ZV_ExpectPayload(download, Join({{0, 0, 0, 0},
                                     kAnnBytes,
                                     {0x01, 0x0A, 0, 0, 0, 0x05, 0x10, 0x04, 0x03, 0x02, 0x00},
                                     {0x01, 0x01}}));

    ZV_FileListRequest servers;
    servers.requester = kAnn;
    ZV_ExpectPayload(servers, kAnnBytes);

    // A server's files: result, sender, the flag 1, the records, one flag
    // and one position each.
    ZV_FileListResponse files;
    files.sender = kAnn;
    files.arrInfo.Add(info);
    files.arrState.Add(true);
    files.arrMaxPos.Add(0x11121314);
    ZV_ExpectPayload(files, Join({{0, 0, 0, 0},
                                  kAnnBytes,
                                  {0x01},
                                  {0x01, 0x0B, 0, 0, 0, 0x24, 0x04, 0x03, 0x0D, 0x0C, 0x0B, 0x0A},
                                  {0x01, 0x01},
                                  {0x01, 0x14, 0x13, 0x12, 0x11}}));
    // Its download records: the flag 0 and the records alone.
    ZV_FileListResponse records;
    records.sender = kAnn;
    records.bUploadList = 0;
    records.arrDownload.Add(record);
    ZV_ExpectPayload(records, Join({{0, 0, 0, 0},
                                    kAnnBytes,
                                    {0x00},
                                    {0x01, 0x0A, 0, 0, 0, 0x05, 0x10, 0x04, 0x03, 0x02, 0x00}}));
}

// A peer that sends more positions or flags than records gets the common part.
TEST(ListPdu, AListWithMoreFlagsThanRecordsKeepsOnlyThoseWithARecord)
{
    ZV_DownloadListResponse download;
    download.arrInfo.Add(ZV_FileDownloadInfo());
    download.arrModify.Add(true);
    download.arrModify.Add(false);
    const Bytes vbSaved = ZV_SavePayload(download);
    QB_ByteStream stream(vbSaved.data(), (int32_t)vbSaved.size());
    ZV_DownloadListResponse loaded;
    loaded.Load(stream);
    EXPECT_EQ(1, loaded.arrInfo.GetSize());
    EXPECT_EQ(1, loaded.arrModify.GetSize());
}

TEST(ListPdu, AnEmptyListIsOneLastPiece)
{
    const std::vector<Bytes> vecPdu = CutUploadList(QB_Array<ZV_FileUploadInfo>());
    ASSERT_EQ(1u, vecPdu.size());
    EXPECT_EQ(Join({Bytes(16, 0), {0x00, 0x00, 0x01}}), vecPdu[0]);
}

// What the cut counts for each entry: the mask word as 6 and a user as 12,
// each text with its count form, so a counted list always fits its PDU.
TEST(ListPdu, EntriesAreCountedFieldByFieldAndNeverBelowTheirBytes)
{
    QB_Array<QB_UserID> arrRight;
    arrRight.Add(kAnn);
    arrRight.Add(kAnn);
    ZV_FileBriefInfo full;
    full.SetCreatorID(kAnn);
    full.SetCreatorName("Ann");
    full.SetFilePath("C:\\d\\");
    full.SetFileOldName("a.txt");
    full.SetFileType("txt");
    full.SetFileLenth(9);
    full.SetShareTime(QB_DateTimeEx());
    full.SetModifyTime(QB_DateTimeEx());
    full.SetFileState(zvFileStateComplete);
    full.SetRight(arrRight);
    full.SetPublic(true);
    ZV_FileBriefInfo longName;
    longName.SetFileOldName(QB_StringU8(std::string(200, 'n').c_str()));
    ZV_FileBriefInfo noRight;
    noRight.SetRight(QB_Array<QB_UserID>());
    // 6, 12, 1+3, 1+5, 1+5, 1+3, 4, 8, 8, 2, 4+2*12, 1.
    EXPECT_EQ(89u, full.GetSaveSize());
    EXPECT_EQ(6u, ZV_FileBriefInfo().GetSaveSize());
    EXPECT_EQ(6u + 2 + 200, longName.GetSaveSize());
    EXPECT_EQ(10u, noRight.GetSaveSize());
    EXPECT_LE(ZV_SavePayload(full).size(), 89u);

    ZV_FileBriefInfo length;
    length.SetFileLenth(5);
    ZV_FileUploadInfo upload;
    upload.SetFileID(7);
    upload.SetFileNewName("a(1).txt");
    upload.SetBriefInfo(length);
    upload.SetFileWritePos(5);
    // 5, 2, 1+8, 6+4, 4; then the position in 8028, the flag and the
    // position in 8032.
    EXPECT_EQ(34u, ZV_UploadListEntrySize(upload));
    EXPECT_EQ(35u, ZV_FileListEntrySize(upload));
    EXPECT_LE(ZV_SavePayload(upload).size() + 4, 34u);

    ZV_FileDownloadInfo download;
    download.SetFileID(0x0102);
    download.SetFilePath("D:\\");
    download.SetFileFullName("a.txt");
    download.SetFileName("b.txt");
    download.SetFileType("txt");
    download.SetFileLenth(1000);
    download.SetUsedTime(250);
    download.SetLastTick(1);
    download.SetShareTime(QB_DateTimeEx());
    download.SetDownloadPos(500);
    download.SetState(zvDownloadStateRunning);
    download.SetStopped(true);
    download.SetActive(false);
    download.SetUserID(kAnn);
    // 6, 2, 1+3, 1+5, 1+5, 1+3, 4*4, 8, 2, 1, 1, 12; then the modify flag.
    EXPECT_EQ(69u, ZV_DownloadListEntrySize(download));
    EXPECT_LE(ZV_SavePayload(download).size() + 1, 69u);
}
