#include "QB_TestSupport.h"
#include "ZV_PayloadCheck.h"
#include "records/ZV_FileBriefInfo.h"
#include "records/ZV_FileDownloadInfo.h"
#include "records/ZV_FileUploadInfo.h"
#include "wire/ZV_RecordStream.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

using Bytes = std::vector<uint8_t>;
using StreamFn = std::function<void(QB_ByteStream&)>;

namespace {

std::string Written(const StreamFn& fnSave)
{
    uint8_t abBuf[4096];
    QB_ByteStream stream(abBuf, sizeof abBuf, false);
    fnSave(stream);
    return QB_ToHex(Bytes(abBuf, abBuf + stream.GetPos()));
}

// Reads from a view of exactly these bytes; gives the position reached.
int32_t Read(const Bytes& bytes, const StreamFn& fnLoad)
{
    static const uint8_t s_bNone = 0;
    QB_ByteStream stream(bytes.empty() ? &s_bNone : bytes.data(), (int32_t)bytes.size());
    fnLoad(stream);
    EXPECT_EQ(stream.GetLength(), (int32_t)bytes.size()) << "the limit is restored";
    return stream.GetPos();
}

// The code that was raised, or 0.
uint32_t FailureOf(const std::function<void()>& fn)
{
    try { fn(); } catch (const QB_StreamException& e) { return e.m_ulCode; }
    return 0;
}

template <typename TRecord>
std::string Saved(const TRecord& record) { return Written([&](QB_ByteStream& s) { record.Save(s); }); }

// Loads into a fresh record, which must take every byte, and saves it again.
template <typename TRecord>
std::string Resaved(const std::string& sHex)
{
    Bytes bytes = ZV_FromHex(sHex);
    TRecord record;
    EXPECT_EQ(Read(bytes, [&](QB_ByteStream& s) { record.Load(s); }), (int32_t)bytes.size());
    return Saved(record);
}

QB_DateTimeEx Raw(int32_t nDate, int32_t nTime)
{
    QB_DateTimeEx dt;
    dt.SetRaw(nDate, nTime);
    return dt;
}

// Setters of values always succeed; the builders below hold them to it.
ZV_FileBriefInfo FullBrief()
{
    ZV_FileBriefInfo b;
    const QB_Array<QB_UserID> arrRight = ZV_Users({QB_UserID(12345, 0), QB_UserID(90001, 15)});
    EXPECT_TRUE(b.SetCreatorID(QB_UserID(90001, 15)) && b.SetCreatorName("Ann") && b.SetFilePath("C:\\d\\") &&
                b.SetFileOldName("a.txt") && b.SetFileType("txt") && b.SetFileLenth(0x01020304) &&
                b.SetShareTime(Raw(734577, 265080000)) &&  // 2011-03-16 07:21:48
                b.SetModifyTime(Raw(693961, 10000)) &&     // 1900-01-01 00:00:01
                b.SetFileState(zvFileStateComplete) && b.SetRight(arrRight) && b.SetPublic(true));
    return b;
}

// Mask word, creator, "Ann", "C:\d\", "a.txt", "txt", length, two times,
// state, two rights, public.
const std::string kFullBrief = "fd 1f 91 5f 01 00 0f 00 00 00 03 41 6e 6e 05 43 3a 5c 64 5c 05 61 2e 74 78 74 "
                               "03 74 78 74 04 03 02 01 71 35 0b 00 c0 cc cc 0f c9 96 0a 00 10 27 00 00 03 00 "
                               "02 39 30 00 00 00 00 00 00 91 5f 01 00 0f 00 00 00 01";

ZV_FileUploadInfo FullUpload()
{
    ZV_FileBriefInfo b;
    ZV_FileUploadInfo u;
    EXPECT_TRUE(b.SetFileLenth(5) && u.SetFileID(7) && u.SetFileNewName("a(1).txt") && u.SetBriefInfo(b) &&
                u.SetFileWritePos(5));
    return u;
}

// Mask word, id, "a(1).txt", the brief delimited, write position.
const std::string kFullUpload = "3c 07 00 08 61 28 31 29 2e 74 78 74 0a 00 00 00 81 00 05 00 00 00 05 00 00 00";

ZV_FileDownloadInfo FullDownload()
{
    ZV_FileDownloadInfo d;
    EXPECT_TRUE(d.SetFileID(0x0102) && d.SetFilePath("D:\\") && d.SetFileFullName("a.txt") && d.SetFileName("b.txt") &&
                d.SetFileType("txt") && d.SetFileLenth(1000) && d.SetUsedTime(250) && d.SetLastTick(0xFFFFFFF0) &&
                d.SetShareTime(Raw(734577, 265080000)) && d.SetDownloadPos(500) &&
                d.SetState(zvDownloadStateRunning) && d.SetStopped(true) && d.SetActive(false) &&
                d.SetUserID(QB_UserID(12345, 0)));
    return d;
}

// Mask word, id, "D:\", "a.txt", "b.txt", "txt", length, used time, last
// tick, share time, position, state, stopped, active, user.
const std::string kFullDownload = "fd ff 02 01 03 44 3a 5c 05 61 2e 74 78 74 05 62 2e 74 78 74 03 74 78 74 "
                                  "e8 03 00 00 fa 00 00 00 f0 ff ff ff 71 35 0b 00 c0 cc cc 0f f4 01 00 00 "
                                  "01 00 01 00 39 30 00 00 00 00 00 00";

struct RecordCase
{
    const char* pszName;
    std::string sHex;
    StreamFn fnSave;
    std::function<std::string(const std::string&)> fnResave;
};

template <typename TRecord>
RecordCase Case(const char* pszName, const TRecord& record, const std::string& sHex)
{
    return {pszName, sHex, [record](QB_ByteStream& s) { record.Save(s); }, Resaved<TRecord>};
}

std::vector<RecordCase> RecordCases()
{
    ZV_FileBriefInfo unmarked;
    unmarked.m_ulFileLenth = 5;
    return {
        Case("empty brief", ZV_FileBriefInfo(), "01 00"),
        Case("brief with a field but not its bit", unmarked, "01 00"),
        Case("full brief", FullBrief(), kFullBrief),
        Case("empty upload", ZV_FileUploadInfo(), "00"),
        Case("full upload", FullUpload(), kFullUpload),
        Case("empty download", ZV_FileDownloadInfo(), "01 00"),
        Case("full download", FullDownload(), kFullDownload),
    };
}

}  // namespace

// Each record written, read back, and cut at every byte in either direction.
TEST(ShareRecords, WriteEachSetFieldInBitOrderReadTheSameBytesBackAndFailOnEveryCut)
{
    for (const RecordCase& c : RecordCases())
    {
        EXPECT_EQ(Written(c.fnSave), c.sHex) << c.pszName;
        EXPECT_EQ(c.fnResave(c.sHex), c.sHex) << c.pszName;
        for (size_t n = 0; n < ZV_FromHex(c.sHex).size(); ++n)
        {
            SCOPED_TRACE(std::string(c.pszName) + ", cut at " + std::to_string(n));
            EXPECT_EQ(FailureOf([&] { c.fnResave(c.sHex.substr(0, 3 * n)); }), QB_STREAM_LOAD_FAILURE);
            Bytes buffer(n + 1, 0xEE);
            QB_ByteStream save(buffer.data(), (int32_t)n, false);
            EXPECT_EQ(FailureOf([&] { c.fnSave(save); }), QB_STREAM_SAVE_FAILURE);
            EXPECT_EQ(buffer[n], 0xEE) << "the byte behind the view is untouched";
        }
    }
}

TEST(DelimitedRecord, ReaderLandsAtItsEndPastBytesItDoesNotKnowAndRefusesALengthOutsideItsViewOrItsParent)
{
    ZV_FileDownloadInfo download;
    EXPECT_EQ(Read(ZV_FromHex("0a 00 00 00 05 00 02 01 aa bb 99"), [&](QB_ByteStream& s) { LoadDelimited(s, download); }),
              10);
    EXPECT_EQ(download.m_usFileID, 0x0102);
    ZV_FileUploadInfo upload;
    EXPECT_EQ(Read(ZV_FromHex("0b 00 00 00 10 06 00 00 00 01 00"), [&](QB_ByteStream& s) { LoadDelimited(s, upload); }), 11);
    EXPECT_EQ(upload.m_ullMask, ZV_UPLOAD_BRIEF_INFO);
    Bytes overhangs = ZV_FromHex("0b 00 00 00 10 08 00 00 00 01 00 00 00");
    EXPECT_EQ(FailureOf([&] { Read(overhangs, [&](QB_ByteStream& s) { LoadDelimited(s, upload); }); }),
              QB_STREAM_LOAD_FAILURE);
    for (const char* pszLength : {"00 00 00 00", "03 00 00 00", "07 00 00 00", "ff ff ff 7f", "00 00 00 80", "ff ff ff ff"})
    {
        SCOPED_TRACE(pszLength);
        ZV_FileBriefInfo brief = FullBrief();
        Bytes bytes = ZV_FromHex(std::string(pszLength) + " 01 00");
        QB_ByteStream stream(bytes.data(), (int32_t)bytes.size());
        EXPECT_EQ(FailureOf([&] { LoadDelimited(stream, brief); }), QB_STREAM_LOAD_FAILURE);
        EXPECT_EQ(stream.GetPos(), 0) << "back at the element's start";
        EXPECT_EQ(Saved(brief), kFullBrief) << "nothing was loaded";
    }
}

// Descriptions name the same file when name, folder, type, length, creator and both times (to the fraction) agree.
TEST(ShareRecords, DescriptionsNameTheSameFileOnlyWhenEveryIdentifyingFieldAgrees)
{
    ZV_FileBriefInfo fraction = FullBrief();
    fraction.SetShareTime(Raw(734577, 265080005)), fraction.SetModifyTime(Raw(734577, 265080007));
    const struct { const char* pszName; std::function<void(ZV_FileBriefInfo&)> fnChange; bool bSame; } aCases[] = {
        {"a copy", [](ZV_FileBriefInfo&) {}, true},
        {"another state and public flag", [](ZV_FileBriefInfo& b) { b.SetFileState(0), b.SetPublic(false); }, true},
        {"another length", [](ZV_FileBriefInfo& b) { b.SetFileLenth(6); }, false},
        {"another creator", [](ZV_FileBriefInfo& b) { b.SetCreatorID(QB_UserID(1, 0)); }, false},
        {"another folder", [](ZV_FileBriefInfo& b) { b.SetFilePath("C:\\e\\"); }, false},
        {"a share time a tick later", [](ZV_FileBriefInfo& b) { b.SetShareTime(Raw(734577, 265080006)); }, false},
        {"a write time a tick later", [](ZV_FileBriefInfo& b) { b.SetModifyTime(Raw(734577, 265080008)); }, false},
    };
    for (const auto& c : aCases)
    {
        ZV_FileBriefInfo other = fraction;
        c.fnChange(other);
        EXPECT_TRUE(c.bSame == fraction.IsSameFile(other) && c.bSame == other.IsSameFile(fraction)) << c.pszName;
    }
}
