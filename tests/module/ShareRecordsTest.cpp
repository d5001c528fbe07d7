#include "QB_TestSupport.h"
#include "ZV_FileBriefInfo.h"
#include "ZV_FileDownloadInfo.h"
#include "ZV_FileUploadInfo.h"
#include "ZV_RecordStream.h"

#include <gtest/gtest.h>

#include <chrono>
#include <ctime>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

using Bytes = std::vector<uint8_t>;
using StreamFn = std::function<void(QB_ByteStream&)>;

namespace {

Bytes FromHex(const std::string& sHex)
{
    Bytes bytes;
    for (size_t i = 0; i + 1 < sHex.size(); ++i)
        if (sHex[i] != ' ')
            bytes.push_back((uint8_t)std::stoi(sHex.substr(i++, 2), nullptr, 16));
    return bytes;
}

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
std::string Saved(const TRecord& record)
{
    return Written([&](QB_ByteStream& s) { record.Save(s); });
}

// Loads into a fresh record, which must take every byte, and saves it again.
template <typename TRecord>
std::string Resaved(const std::string& sHex)
{
    Bytes bytes = FromHex(sHex);
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
    QB_Array<QB_UserID> arrRight;
    arrRight.Add(QB_UserID(12345, 0));
    arrRight.Add(QB_UserID(90001, 15));
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

ZV_FileBriefInfo LengthOnlyBrief()
{
    ZV_FileBriefInfo b;
    b.SetFileLenth(5);
    return b;
}

ZV_FileUploadInfo FullUpload()
{
    ZV_FileUploadInfo u;
    EXPECT_TRUE(u.SetFileID(7) && u.SetFileNewName("a(1).txt") && u.SetBriefInfo(LengthOnlyBrief()) &&
                u.SetFileWritePos(5));
    return u;
}

// Mask word, id, "a(1).txt", the brief delimited, write position.
const std::string kFullUpload = "3c 07 00 08 61 28 31 29 2e 74 78 74 0a 00 00 00 81 00 05 00 00 00 05 00 00 00";

ZV_FileUploadInfo NameUpload()
{
    ZV_FileUploadInfo u;
    EXPECT_TRUE(u.SetFileID(0x1234) && u.SetFileNewName("abc") && u.SetFileWritePos(0x00ABCDEF));
    return u;
}

const std::string kNameUploadFields = "34 12 03 61 62 63 ef cd ab 00";

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
        Case("upload with bits 0, 1 and 3", NameUpload(), "2c " + kNameUploadFields),
        Case("full upload", FullUpload(), kFullUpload),
        Case("empty download", ZV_FileDownloadInfo(), "01 00"),
        Case("full download", FullDownload(), kFullDownload),
    };
}

}  // namespace

TEST(ShareRecords, WriteEachSetFieldInBitOrderAndReadTheSameBytesBack)
{
    for (const RecordCase& c : RecordCases())
    {
        SCOPED_TRACE(c.pszName);
        EXPECT_EQ(Written(c.fnSave), c.sHex);
        EXPECT_EQ(c.fnResave(c.sHex), c.sHex);
    }
}

TEST(ShareRecords, RaiseTheirDirectionsFailureOnEveryCutOfTheirBytes)
{
    for (const RecordCase& c : RecordCases())
        for (size_t n = 0; n < FromHex(c.sHex).size(); ++n)
        {
            SCOPED_TRACE(std::string(c.pszName) + ", cut at " + std::to_string(n));
            EXPECT_EQ(FailureOf([&] { c.fnResave(c.sHex.substr(0, 3 * n)); }), QB_STREAM_LOAD_FAILURE);
            Bytes buffer(n + 1, 0xEE);
            QB_ByteStream save(buffer.data(), (int32_t)n, false);
            EXPECT_EQ(FailureOf([&] { c.fnSave(save); }), QB_STREAM_SAVE_FAILURE);
            EXPECT_EQ(buffer[n], 0xEE) << "the byte behind the view is untouched";
        }
}

TEST(ShareRecords, AcceptAMaskWordOfEveryWidth)
{
    const std::string kBriefFields = kFullBrief.substr(6), kDownloadFields = kFullDownload.substr(6);
    struct
    {
        std::string sMaskWord, sFields;
        std::string (*fnResave)(const std::string&);
        std::string sCanonical;
    } cases[] = {
        {"2c", kNameUploadFields, Resaved<ZV_FileUploadInfo>, "2c " + kNameUploadFields},
        {"2d 00", kNameUploadFields, Resaved<ZV_FileUploadInfo>, "2c " + kNameUploadFields},
        {"2e 00 00 00", kNameUploadFields, Resaved<ZV_FileUploadInfo>, "2c " + kNameUploadFields},
        {"2f 00 00 00 00 00 00 00", kNameUploadFields, Resaved<ZV_FileUploadInfo>, "2c " + kNameUploadFields},
        {"80", "05 00 00 00", Resaved<ZV_FileBriefInfo>, "81 00 05 00 00 00"},
        {"83 00 00 00 00 00 00 00", "05 00 00 00", Resaved<ZV_FileBriefInfo>, "81 00 05 00 00 00"},
        {"fe 1f 00 00", kBriefFields, Resaved<ZV_FileBriefInfo>, kFullBrief},
        {"ff 1f 00 00 00 00 00 00", kBriefFields, Resaved<ZV_FileBriefInfo>, kFullBrief},
        {"04", "02 01", Resaved<ZV_FileDownloadInfo>, "05 00 02 01"},
        {"06 00 00 00", "02 01", Resaved<ZV_FileDownloadInfo>, "05 00 02 01"},
        {"ff ff 00 00 00 00 00 00", kDownloadFields, Resaved<ZV_FileDownloadInfo>, kFullDownload},
    };
    for (const auto& c : cases)
        EXPECT_EQ(c.fnResave(c.sMaskWord + " " + c.sFields), c.sCanonical) << c.sMaskWord;
}

TEST(ShareRecords, LoadingWithABitClearResetsOnlyTheFieldsThatHaveADefault)
{
    ZV_FileBriefInfo brief = FullBrief();
    Read({0x01, 0x00}, [&](QB_ByteStream& s) { brief.Load(s); });
    brief.m_ullMask = 0x7FF;
    EXPECT_EQ(Saved(brief), "fd 1f 91 5f 01 00 0f 00 00 00 00 00 00 00 04 03 02 01 c9 96 0a 00 00 00 00 00 "
                            "c9 96 0a 00 00 00 00 00 03 00 02 39 30 00 00 00 00 00 00 91 5f 01 00 0f 00 00 00 00");

    ZV_FileUploadInfo upload = FullUpload();
    Read({0x00}, [&](QB_ByteStream& s) { upload.Load(s); });
    upload.m_ullMask = 0xF;
    EXPECT_EQ(Saved(upload), "3c 07 00 00 0a 00 00 00 81 00 05 00 00 00 05 00 00 00");

    ZV_FileDownloadInfo download = FullDownload();
    download.SetActive(true);
    Read({0x01, 0x00}, [&](QB_ByteStream& s) { download.Load(s); });
    download.m_ullMask = 0x3FFF;
    EXPECT_EQ(Saved(download), "fd ff 02 01 00 00 00 00 e8 03 00 00 fa 00 00 00 f0 ff ff ff c9 96 0a 00 00 00 00 00 "
                               "f4 01 00 00 01 00 00 00 39 30 00 00 00 00 00 00");
}

TEST(DelimitedRecord, ReaderLandsAtItsEndPastBytesItDoesNotKnowAndANestedOneMustEndInsideItsParent)
{
    ZV_FileDownloadInfo download;
    EXPECT_EQ(Read(FromHex("0a 00 00 00 05 00 02 01 aa bb 99"), [&](QB_ByteStream& s) { LoadDelimited(s, download); }),
              10);
    EXPECT_EQ(download.GetFileID(), 0x0102);
    ZV_FileUploadInfo upload;
    EXPECT_EQ(Read(FromHex("0b 00 00 00 10 06 00 00 00 01 00"), [&](QB_ByteStream& s) { LoadDelimited(s, upload); }), 11);
    EXPECT_EQ(upload.GetMask(), ZV_UPLOAD_BRIEF_INFO);
    Bytes overhangs = FromHex("0b 00 00 00 10 08 00 00 00 01 00 00 00");
    EXPECT_EQ(FailureOf([&] { Read(overhangs, [&](QB_ByteStream& s) { LoadDelimited(s, upload); }); }),
              QB_STREAM_LOAD_FAILURE);
}

TEST(DelimitedRecord, RefusesALengthOutsideItsViewBeforeReadingAnyField)
{
    for (const char* pszLength : {"00 00 00 00", "03 00 00 00", "07 00 00 00", "ff ff ff 7f", "00 00 00 80", "ff ff ff ff"})
    {
        ZV_FileBriefInfo brief = FullBrief();
        Bytes bytes = FromHex(std::string(pszLength) + " 01 00");
        QB_ByteStream stream(bytes.data(), (int32_t)bytes.size());
        EXPECT_EQ(FailureOf([&] { LoadDelimited(stream, brief); }), QB_STREAM_LOAD_FAILURE) << pszLength;
        EXPECT_EQ(stream.GetPos(), 0) << "back at the element's start";
        EXPECT_EQ(Saved(brief), kFullBrief) << "nothing was loaded";
    }
}

TEST(RecordSequence, WritesTheCountThenEachElementDelimitedInOrder)
{
    QB_List<ZV_FileUploadInfo> listUpload, listRead;
    for (uint16_t usFileID : {1, 2})
    {
        listUpload.AddTail(ZV_FileUploadInfo());
        listUpload.GetTail().SetFileID(usFileID);
    }
    QB_Array<ZV_FileBriefInfo> arrBrief, arrRead;
    arrBrief.Add(ZV_FileBriefInfo());
    arrBrief.Add(LengthOnlyBrief());
    const std::string kUploads = "02 07 00 00 00 04 01 00 07 00 00 00 04 02 00";
    const std::string kBriefs = "02 06 00 00 00 01 00 0a 00 00 00 81 00 05 00 00 00";
    EXPECT_EQ(Written([&](QB_ByteStream& s) { SaveSequence(s, listUpload); }), kUploads);
    EXPECT_EQ(Written([&](QB_ByteStream& s) { SaveSequence(s, arrBrief); }), kBriefs);

    listRead.AddTail(FullUpload());
    Read(FromHex(kUploads), [&](QB_ByteStream& s) { LoadSequence(s, listRead); });
    Read(FromHex(kBriefs), [&](QB_ByteStream& s) { LoadSequence(s, arrRead); });
    EXPECT_EQ(Written([&](QB_ByteStream& s) { SaveSequence(s, listRead); }), kUploads);
    EXPECT_EQ(Written([&](QB_ByteStream& s) { SaveSequence(s, arrRead); }), kBriefs);
}

TEST(PlainArrays, CarryTheCountThenEachElementFromIndexZero)
{
    QB_Array<uint16_t> arrU16;
    QB_Array<uint32_t> arrU32;
    QB_Array<bool> arrBool;
    struct
    {
        std::string sHex;
        StreamFn fnLoad, fnSave;
    } cases[] = {
        {"00", [&](QB_ByteStream& s) { LoadU16Array(s, arrU16); }, [&](QB_ByteStream& s) { SaveU16Array(s, arrU16); }},
        {"02 01 00 34 12", [&](QB_ByteStream& s) { LoadU16Array(s, arrU16); }, [&](QB_ByteStream& s) { SaveU16Array(s, arrU16); }},
        {"02 04 03 02 01 ff ff ff ff", [&](QB_ByteStream& s) { LoadU32Array(s, arrU32); }, [&](QB_ByteStream& s) { SaveU32Array(s, arrU32); }},
        {"03 01 00 01", [&](QB_ByteStream& s) { LoadBoolArray(s, arrBool); }, [&](QB_ByteStream& s) { SaveBoolArray(s, arrBool); }},
    };
    for (const auto& c : cases)
    {
        Read(FromHex(c.sHex), c.fnLoad);
        EXPECT_EQ(Written(c.fnSave), c.sHex);
    }
    EXPECT_TRUE(arrU16[1] == 0x1234 && arrU32[0] == 0x01020304 && arrBool[0] && !arrBool[1]);

    Read(FromHex("02 07 00"), [&](QB_ByteStream& s) { LoadBoolArray(s, arrBool); });
    EXPECT_EQ(Written([&](QB_ByteStream& s) { SaveBoolArray(s, arrBool); }), "02 01 00") << "any non-zero byte is true";
}

TEST(ShareRecords, TextSettersTakeUpTo1024BytesOfUtf8AndChangeNothingWhenRefusing)
{
    const QB_StringU8 s1024(std::string(1024, 'x')), s1025(std::string(1025, 'x'));
    // 512 two-byte characters: 1024 bytes of UTF-8, only 512 UTF-16 units.
    const QB_StringW w1024(std::u16string(512, u'\u00e9')), w1025 = w1024 + u"x";
    ZV_FileBriefInfo brief;
    ZV_FileUploadInfo upload;
    ZV_FileDownloadInfo download;
    struct
    {
        const char* pszName;
        std::function<bool(const QB_StringU8&)> fnSetU8;
        std::function<bool(const QB_StringW&)> fnSetW;
        const QB_StringU8& sField;
        const uint64_t& ullMask;
    } cases[] = {
        {"creator name", [&](auto& s) { return brief.SetCreatorName(s); }, [&](auto& s) { return brief.SetCreatorName(s); }, brief.m_sCreatorName, brief.m_ullMask},
        {"file path", [&](auto& s) { return brief.SetFilePath(s); }, [&](auto& s) { return brief.SetFilePath(s); }, brief.m_sFilePath, brief.m_ullMask},
        {"old name", [&](auto& s) { return brief.SetFileOldName(s); }, [&](auto& s) { return brief.SetFileOldName(s); }, brief.m_sFileOldName, brief.m_ullMask},
        {"file type", [&](auto& s) { return brief.SetFileType(s); }, [&](auto& s) { return brief.SetFileType(s); }, brief.m_sFileType, brief.m_ullMask},
        {"new name", [&](auto& s) { return upload.SetFileNewName(s); }, [&](auto& s) { return upload.SetFileNewName(s); }, upload.m_sFileNewName, upload.m_ullMask},
        {"local name", [&](auto& s) { return download.SetFileName(s); }, [&](auto& s) { return download.SetFileName(s); }, download.m_sFileName, download.m_ullMask},
    };
    for (const auto& c : cases)
    {
        SCOPED_TRACE(c.pszName);
        uint64_t ullMaskBefore = c.ullMask;
        EXPECT_FALSE(c.fnSetU8(s1025) || c.fnSetW(w1025));
        EXPECT_TRUE(c.sField.IsEmpty() && c.ullMask == ullMaskBefore);
        EXPECT_TRUE(c.fnSetU8(s1024));
        EXPECT_FALSE(c.fnSetU8(s1025) || c.fnSetW(w1025));
        EXPECT_TRUE(c.sField == s1024 && c.ullMask != ullMaskBefore);
        EXPECT_TRUE(c.fnSetW(w1024));
        EXPECT_EQ(c.sField, QB_StringU8(w1024));
    }
    EXPECT_EQ(brief.GetMask() | (upload.GetMask() << 16) | (download.GetMask() << 32), 0x01E | (0x2ull << 16) | (0x8ull << 32));
    EXPECT_TRUE(download.SetFilePath(QB_StringU8(std::string(2000, 'x')))) << "a value setter has no limit";
}

TEST(FileBriefInfo, SizesASaveWithTwelveBytesPerUserAndSixForTheMask)
{
    ZV_FileBriefInfo brief;
    EXPECT_EQ(brief.GetSaveSize(), 6u);
    brief.SetCreatorName(QB_StringU8(std::string(200, 'x')));
    EXPECT_EQ(brief.GetSaveSize(), 6u + 2 + 200);
    // 6 + 12 + (1+3) + (1+5) + (1+5) + (1+3) + 4 + 8 + 8 + 2 + (4+2*12) + 1, where Save writes 70.
    EXPECT_EQ(FullBrief().GetSaveSize(), 89u);
}

namespace {

void SetWriteTime(const std::string& sPath, std::time_t t, std::chrono::milliseconds msExtra)
{
    auto sysTime = std::chrono::system_clock::from_time_t(t) + msExtra;
    std::filesystem::last_write_time(sPath, std::chrono::file_clock::from_sys(sysTime));
}

QB_DateTimeEx LocalSecond(std::time_t t)
{
    std::tm tmLocal = *std::localtime(&t);
    QB_DateTimeEx dt;
    dt.SetDateTime(tmLocal.tm_year + 1900, tmLocal.tm_mon + 1, tmLocal.tm_mday, tmLocal.tm_hour, tmLocal.tm_min,
                   tmLocal.tm_sec, 0);
    return dt;
}

}  // namespace

TEST(FileBriefInfo, KnowsItsLocalFileByLengthAndLastWriteSecond)
{
    using namespace std::chrono_literals;
    QB_TempFolder folder;
    const std::string sFile = folder.Sub("a.txt");
    const std::time_t tShared = 1300259708;
    struct
    {
        const char* pszName;
        std::function<void(ZV_FileBriefInfo&)> fnChange;
        bool bSame;
    } cases[] = {
        {"as shared", [](ZV_FileBriefInfo&) {}, true},
        {"touched within the same second", [&](ZV_FileBriefInfo&) { SetWriteTime(sFile, tShared, 700ms); }, true},
        {"written a second later", [&](ZV_FileBriefInfo&) { SetWriteTime(sFile, tShared + 1, 0ms); }, false},
        {"a byte longer at the same time", [&](ZV_FileBriefInfo&) { QB_WriteWholeFile(sFile, "hello!"); SetWriteTime(sFile, tShared, 0ms); }, false},
        {"gone", [&](ZV_FileBriefInfo&) { std::filesystem::remove(sFile); }, false},
        {"folder without its backslash", [&](ZV_FileBriefInfo& b) { b.SetFilePath(QB_ToWindowsPath(folder.Path())); }, false},
    };
    for (const auto& c : cases)
    {
        SCOPED_TRACE(c.pszName);
        ASSERT_TRUE(QB_WriteWholeFile(sFile, "hello"));
        SetWriteTime(sFile, tShared, 0ms);
        ZV_FileBriefInfo brief;
        brief.SetFilePath(folder.PathW());
        brief.SetFileOldName("a.txt");
        brief.SetFileLenth(5);
        brief.SetModifyTime(LocalSecond(tShared));
        c.fnChange(brief);
        EXPECT_EQ(brief.IsSameLocalFile(), c.bSame);
    }
}
