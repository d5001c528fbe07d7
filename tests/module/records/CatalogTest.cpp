// The server's catalogue of stored files, fsinfo.ini: its layout, hostile rows, failing disks.
#include "QB_FaultEnv.h"
#include "QB_TestSupport.h"
#include "records/ZV_FileCatalog.h"

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>

namespace fs = std::filesystem;
using Lines = std::vector<std::string>;

namespace {

// Hands out known GUIDs, the last byte counting up.
class CatalogEnv : public QB_FaultEnv
{
public:
    void NewGuid(uint8_t abGuid[16]) override
    {
        static const uint8_t s_abGuid[16] = {0xEF, 0xBE, 0xAD, 0xDE, 0xCD, 0xAB, 0x0D, 0xF0,
                                             0x88, 0x99, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0x00};
        std::memcpy(abGuid, s_abGuid, 16);
        abGuid[15] = (uint8_t)m_nGuids++;
    }
    int m_nGuids = 0;
};

QB_DateTimeEx Time(int nHour, int nMinute, int nSecond, int nFraction)
{
    QB_DateTimeEx dt;
    dt.SetDateTime(2011, 3, 16, nHour, nMinute, nSecond, nFraction);
    return dt;
}

ZV_FileUploadInfo Record(uint16_t usFileID, const char* pszNewName = "notes(1).txt")
{
    ZV_FileBriefInfo b;
    b.SetCreatorID(QB_UserID(90001, 15)), b.SetFilePath("C:\\Users\\ann\\"), b.SetFileOldName("notes.txt");
    b.SetFileType("txt"), b.SetFileLenth(1000), b.SetShareTime(Time(8, 0, 0, 5000)), b.SetModifyTime(Time(7, 21, 48, 0));
    b.SetFileState(zvFileStateUploading);
    ZV_FileUploadInfo fileInfo;
    fileInfo.SetFileID(usFileID), fileInfo.SetFileNewName(QB_StringU8(pszNewName)), fileInfo.SetFileWritePos(300);
    fileInfo.SetBriefInfo(b);
    return fileInfo;
}

std::string Utf8(const QB_StringW& s) { return QB_StringU8(s).GetString(); }

// The lines of a UTF-16 file with its mark, as UTF-8; nothing without the mark.
Lines Utf16Lines(const std::string& sPath)
{
    std::vector<uint8_t> vb = QB_ReadWholeFile(sPath);
    if (vb.size() < 2 || vb[0] != 0xFF || vb[1] != 0xFE)
        return {};
    std::u16string sText;
    for (size_t i = 2; i + 1 < vb.size(); i += 2)
        sText += (char16_t)(vb[i] | vb[i + 1] << 8);
    Lines lines;
    size_t nStart = 0;
    for (size_t nEnd; (nEnd = sText.find(u"\r\n", nStart)) != std::u16string::npos; nStart = nEnd + 2)
        lines.push_back(Utf8(QB_StringW(sText.substr(nStart, nEnd - nStart))));
    EXPECT_EQ(nStart, sText.size()) << "the last line ends in CR LF";
    return lines;
}

} // namespace

class Catalog : public ::testing::Test
{
protected:
    Catalog() { QB_SetEnvironmentVariable("ROOMCRATE_HOME", m_home.Path().c_str()); }
    ~Catalog() override { QB_SetEnvironmentVariable("ROOMCRATE_HOME", nullptr); }

    ZV_FileCatalog& Opened(ZV_FileCatalog& catalog)
    {
        EXPECT_EQ(zvCatalogOpened, catalog.Open());
        catalog.SetRootPath(QB_StringA(m_home.PathW() + u"store"));
        return catalog;
    }
    bool Finds(ZV_FileCatalog& catalog, uint16_t usConfID, uint16_t usFileID)
    {
        ZV_FileUploadInfo fileInfo;
        return catalog.LoadFile(usConfID, usFileID, fileInfo, m_sSection);
    }
    ZV_FileUploadInfo Loaded(ZV_FileCatalog& catalog, uint16_t usConfID, uint16_t usFileID)
    {
        ZV_FileUploadInfo fileInfo;
        EXPECT_TRUE(catalog.LoadFile(usConfID, usFileID, fileInfo, m_sSection)) << usConfID << "/" << usFileID;
        return fileInfo;
    }
    static QB_Array<ZV_FileUploadInfo> RowsOf(ZV_FileCatalog& catalog, uint16_t usConfID)
    {
        QB_Array<ZV_FileUploadInfo> arrRows;
        QB_Array<QB_StringW> arrSections;
        catalog.LoadConf(usConfID, arrRows, arrSections);
        return arrRows;
    }
    size_t Logged() { return QB_CountInFiles(m_home.Sub("log"), "ZV_FileCatalog::Flush failed."); }
    std::string Ini() const { return m_home.Sub("fsinfo.ini"); }
    // The file once the quiet tick has folded m_catalog's journal in.
    std::string Folded()
    {
        m_env.AdvanceTick(QB_IniJournal::kQuietMs);
        m_catalog.OnTimer();
        return Ini();
    }
    // Rows 1 to 3 of conference 12, saved with a log folder to write to.
    void SaveFirstThree()
    {
        fs::create_directories(m_home.Sub("log"));
        Opened(m_catalog);
        for (uint16_t usFileID = 1; usFileID <= 3; ++usFileID)
            ASSERT_TRUE(m_catalog.SaveFile(12, Record(usFileID)));
    }
    void ExpectFirstThree(ZV_FileCatalog& catalog)
    {
        for (uint16_t usOld = 1; usOld <= 3; ++usOld)
            EXPECT_TRUE(Finds(catalog, 12, usOld)) << usOld;
    }
    std::string Stored(const std::string& sName)
    {
        std::string sPath = m_home.Sub("store/" + sName);
        fs::create_directories(fs::path(sPath).parent_path());
        QB_WriteWholeFile(sPath, std::string("data"));
        return sPath;
    }

    QB_TempFolder m_home;
    CatalogEnv m_env;
    QB_ScopedEnv m_scope{&m_env};
    ZV_FileCatalog m_catalog;
    QB_StringW m_sSection;
};

TEST_F(Catalog, WritesANewRowAsAGuidSectionWithItsKeysInReverseOfTheSetOrderAndUpdatesItInPlace)
{
    Opened(m_catalog);
    EXPECT_EQ(std::vector<uint8_t>({0xFF, 0xFE}), QB_ReadWholeFile(Ini())) << "created as UTF-16 with its mark";
    m_catalog.SaveFile(12, Record(7));
    const Lines expected = {"", "[DEADBEEFABCDf00d8899AABBCCDDEE00]", "FileValidity=1", "FileState=1",
                            "FilePath=C:\\Users\\ann\\", "FileLenth=1000", "FileType=txt",
                            "ModifyTime=2011-03-16 07:21:48", "ShareTime=2011-03-16 08:00:00.5000",
                            "CreatorID=9000115", "FileOldName=notes.txt", "FileWritePos=300",
                            "FileNewName=notes(1).txt", "FileID=7", "ConfID=12"};
    EXPECT_EQ(expected, Utf16Lines(Folded()));

    // A known pair keeps its section, with its numbers still at the bottom.
    ZV_FileUploadInfo fileInfo = Record(7);
    fileInfo.m_BriefInfo.SetFileState(zvFileStateComplete);
    m_catalog.SaveFile(12, fileInfo);
    Lines updated = expected;
    updated[3] = "FileState=3";
    EXPECT_EQ(updated, Utf16Lines(Folded()));

    // Line ends in a name from a peer (first and last characters too) become blanks, not keys of their own.
    fileInfo.m_BriefInfo.SetFileOldName(QB_StringU8("\nFileID=9\r"));
    m_catalog.SaveFile(12, fileInfo);
    updated[10] = "FileOldName= FileID=9 ";
    EXPECT_EQ(updated, Utf16Lines(Folded()));
}

// DeleteConf (by the number's low 16 bits) drops the rows and plain stored files, never a file outside.
TEST_F(Catalog, DeleteConfNeverDeletesOutsideTheConferenceFolder)
{
    const char* apszHostile[] = {"..\\victim.txt", "../victim.txt",   "..",          ".", " . ",
                                 "C:victim.txt",   "sub\\victim.txt", "sub/victim.txt"};
    std::string sIni = "[s0]\r\nConfID=5\r\nFileNewName=\r\n[p]\r\nConfID=5\r\nFileNewName=a.txt\r\n"
                       "[o]\r\nConfID=6\r\nFileID=1\r\nFileNewName=a.txt\r\n";
    for (size_t i = 0; i < std::size(apszHostile); ++i)
        sIni += "[h" + std::to_string(i) + "]\r\nConfID=5\r\nFileNewName=" + apszHostile[i] + "\r\n";
    QB_WriteWholeFile(Ini(), sIni);
    const std::string sMine = Stored("5/a.txt");
    std::vector<std::string> vecKept = {Stored("6/a.txt"), Stored("victim.txt"), Stored("5/sub/victim.txt"),
                                        Stored("5/C:victim.txt")};
    Opened(m_catalog).DeleteConf(0x10005);
    EXPECT_FALSE(fs::exists(sMine));
    for (const std::string& sKept : vecKept)
        EXPECT_TRUE(fs::exists(sKept)) << sKept;
    Folded();
    ZV_FileCatalog fresh;
    EXPECT_EQ(0, RowsOf(Opened(fresh), 5).GetSize()) << "every row of the conference is gone all the same";
    EXPECT_TRUE(Finds(fresh, 6, 1));
}

TEST_F(Catalog, ReadsHandEditedRowsWithoutTrustingThem)
{
    QB_WriteWholeFile(Ini(), "[r]\r\nConfID=99999999999\r\nFileID=x\r\nFileLenth=123456789012\r\n"
                             "CreatorID=junk\r\nShareTime=garbage\r\nModifyTime=2011-03-16 25:00\r\n"
                             "FileNewName=" + std::string(2000, 'n') + "\r\n\x01\xff\xfe[\r\n");
    ZV_FileUploadInfo fileInfo;
    fileInfo.SetFileNewName(QB_StringU8("mine"));
    ASSERT_TRUE(Opened(m_catalog).LoadFile(0xFFFF, 0, fileInfo, m_sSection));
    EXPECT_EQ(std::string("mine"), fileInfo.m_sFileNewName.GetString()) << "an over-long name is dropped";
    const ZV_FileBriefInfo& b = fileInfo.m_BriefInfo;
    EXPECT_EQ(0x7FFFFFFFu, b.m_ulFileLenth);
    EXPECT_EQ(QB_UserID(), b.m_CreatorID);
    EXPECT_TRUE(b.m_ullMask & ZV_BRIEF_CREATOR_ID);
    EXPECT_EQ(QB_DateTimeEx(), b.m_dtShareTime);
    EXPECT_EQ(QB_DateTimeEx(), b.m_dtModifyTime) << "a half-parsed time is not kept";
    EXPECT_EQ(zvFileStateAdded, b.m_usFileState) << "a row without a state is a file just added";

    QB_WriteWholeFile(Ini(), "[s]\r\nConfID=1\r\nFileID=2\r\nRights=9000115 junk 9000216\r\n");
    ZV_FileCatalog bare;
    EXPECT_EQ(0u, Loaded(Opened(bare), 1, 2).m_BriefInfo.m_ulFileLenth) << "a row without a length is empty";
    const QB_Array<ZV_FileUploadInfo> arrFileInfo = RowsOf(bare, 1);
    ASSERT_EQ(1, arrFileInfo.GetSize());
    const QB_Array<QB_UserID>& arrRight = arrFileInfo[0].m_BriefInfo.m_arrRight;
    EXPECT_TRUE(arrRight.GetSize() == 2 && arrRight[0] == QB_UserID(90001, 15) && arrRight[1] == QB_UserID(90002, 16))
        << "a user whose text does not parse is left out";
}

// Whatever fails in a save (journal, or the whole file beside it and its rename), the file stays whole,
// a false save is logged, and the row goes out with the next save that works; a catalogue never read saves nothing.
TEST_F(Catalog, AFailedSaveKeepsTheFileWholeSaysSoAndTheNextSaveCarriesTheRow)
{
    struct Fault { QB_EnvOp op; int nNth; bool bSticky; };
    // A journal whose sync failed may still hold its row; with no write, no log line either.
    struct { const char* szName; std::vector<Fault> vecFaults; bool bSaved; bool bFound; bool bLogged; } aCases[] = {
        {"journal sync fails, the whole file goes instead", {{QB_EnvOp::Sync, 1, false}}, true, true, false},
        {"every write fails", {{QB_EnvOp::Write, 1, true}}, false, false, false},
        {"journal and file sync fail", {{QB_EnvOp::Sync, 1, true}}, false, true, true},
        {"journal not opened, beside file not synced", {{QB_EnvOp::Open, 1, false}, {QB_EnvOp::Sync, 1, false}},
         false, false, true},
        {"journal sync and rename fail", {{QB_EnvOp::Sync, 1, false}, {QB_EnvOp::Rename, 1, false}}, false, true, true}};
    SaveFirstThree();
    uint16_t usFileID = 100;
    for (const auto& c : aCases)
    {
        SCOPED_TRACE(c.szName);
        ASSERT_TRUE(m_catalog.SaveFile(12, Record(99))) << "a save that works first";
        const size_t nLogged = Logged();
        for (const Fault& fault : c.vecFaults)
            m_env.FailAt(fault.op, fault.nNth, fault.bSticky);
        EXPECT_EQ(c.bSaved, m_catalog.SaveFile(12, Record(++usFileID)));
        m_env.ClearFaults();
        EXPECT_FALSE(fs::exists(Ini() + ".new"));
        ZV_FileCatalog reread;
        ExpectFirstThree(Opened(reread));
        EXPECT_EQ(c.bFound, Finds(reread, 12, usFileID));
        EXPECT_EQ(nLogged + c.bLogged, Logged());
    }
    // A catalogue that could not be opened or read at start fails its saves and leaves every row on disk.
    for (const QB_EnvOp op : {QB_EnvOp::Open, QB_EnvOp::Read})
    {
        const size_t nLogged = Logged();
        ZV_FileCatalog unread;
        m_env.FailAt(op, 1);
        EXPECT_EQ(zvCatalogNotOpened, unread.Open());
        m_env.ClearFaults();
        EXPECT_FALSE(unread.SaveFile(12, Record(50)) || unread.DeleteFile(12, 1));
        EXPECT_EQ(nLogged + 2, Logged());
        ZV_FileCatalog reread;
        ExpectFirstThree(Opened(reread));
        EXPECT_FALSE(Finds(reread, 12, 50));
    }
    ASSERT_TRUE(m_catalog.DeleteFile(12, 2));
    ZV_FileCatalog reread;
    Opened(reread);
    for (uint16_t usSaved = 101; usSaved <= usFileID; ++usSaved)
        EXPECT_TRUE(Finds(reread, 12, usSaved)) << usSaved;
    EXPECT_FALSE(Finds(reread, 12, 2));
}

// A batch adds rows without a look-up: of a repeated pair the first in the walk is found, as after a reread.
TEST_F(Catalog, FindsTheFirstRowOfARepeatedPairInTheWalkAlsoRightAfterABatchAddedIt)
{
    Opened(m_catalog).SaveFile(5, Record(1, "row0"));
    for (int i = 1; i <= 6; ++i)
    {
        EXPECT_TRUE(Finds(m_catalog, 5, 1));
        QB_Array<ZV_FileUploadInfo> arrRows;
        arrRows.Add(Record(1, ("row" + std::to_string(i)).c_str()));
        QB_Array<QB_StringW> arrSections;
        arrSections.Add(QB_StringW());
        m_catalog.SaveFiles(5, arrRows, arrSections);
        ZV_FileCatalog fresh;
        EXPECT_EQ(Utf8(QB_StringW(Loaded(Opened(fresh), 5, 1).m_sFileNewName)),
                  Utf8(QB_StringW(Loaded(m_catalog, 5, 1).m_sFileNewName))) << "after row" << i;
    }
    ZV_FileCatalog fresh;
    EXPECT_EQ(7, RowsOf(Opened(fresh), 5).GetSize()) << "each batch reached the disk";
}
