// The client's record of what its user shared: it outlives the run, holds a file only as shared, shrugs off damage.
#include "QB_FaultEnv.h"
#include "QB_TestSupport.h"
#include "records/ZV_ShareLedger.h"

#include "QB_FileEx.h"

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>

namespace {

const ZV_LocalFileMark kMark{5, 9};

ZV_FileBriefInfo Shared(const char* pszName = "report.pdf", int nSecond = 5)
{
    ZV_FileBriefInfo brief;
    brief.SetFilePath(QB_StringU8("C:\\Users\\ann\\")), brief.SetFileOldName(QB_StringU8(pszName));
    QB_DateTimeEx dt;
    dt.SetDateTime(2026, 11, 23, 21, 0, nSecond, 0);
    brief.SetFileLenth(40000), brief.SetModifyTime(dt);
    return brief;
}

void Backdate(const std::string& sPath, int nHours)
{
    std::filesystem::last_write_time(sPath, std::filesystem::last_write_time(sPath) - std::chrono::hours(nHours));
}

class ShareLedger : public ::testing::Test
{
protected:
    ShareLedger() { QB_SetEnvironmentVariable("ROOMCRATE_HOME", m_home.Path().c_str()); }
    ~ShareLedger() override { QB_SetEnvironmentVariable("ROOMCRATE_HOME", nullptr); }

    QB_TempFolder m_home;
    QB_FaultEnv m_env;
    QB_ScopedEnv m_scope{&m_env};
};

} // namespace

TEST_F(ShareLedger, HoldsAFileSharedInAnEarlierRunOnlyAsItWasSharedInItsConference)
{
    ASSERT_TRUE(ZV_ShareLedger().Remember(7, Shared(), kMark));
    ASSERT_TRUE(ZV_ShareLedger().Remember(0x80000007u, Shared("high.pdf"), kMark));
    QB_Array<ZV_FileBriefInfo> arrBatch;
    arrBatch.Add(Shared("batch.pdf"));
    m_env.TrackDurability();
    {
        ZV_ShareLedger ledger;  // the machine stops right after a batch
        ASSERT_TRUE(ledger.Remember(7, arrBatch, {kMark}));
        m_env.Crash();
    }
    m_env.Restart();
    ZV_FileBriefInfo grown = Shared(), touched = Shared("report.pdf", 6), moved = Shared();
    grown.SetFileLenth(0xFFFFFFFFu);
    moved.SetFilePath(QB_StringU8("C:\\Users\\ann\\x\\..\\"));
    struct { const char* szName; uint32_t ulConfID; ZV_FileBriefInfo brief; bool bHeld; } aCases[] = {
        {"as shared", 7, Shared(), true},
        {"shared in a batch", 7, Shared("batch.pdf"), true},
        {"in another conference", 8, Shared(), false},
        {"in a conference of the same low 16 bits", 0x10007, Shared(), false},
        {"in a conference past 31 bits", 0x80000007u, Shared("high.pdf"), true},
        {"its low 16 bits only", 7, Shared("high.pdf"), false},
        {"another length", 7, grown, false},
        {"another last-write second", 7, touched, false},
        {"the same file by another path", 7, moved, false},
        {"a file never shared", 7, Shared("secret.txt"), false}};
    ZV_ShareLedger later;
    for (const auto& c : aCases)
        EXPECT_EQ(c.bHeld, later.Holds(c.ulConfID, c.brief)) << c.szName;
}

TEST_F(ShareLedger, ADamagedRecordCountsAsEmptyAndAFailedSaveHoldsForThisRunOnly)
{
    const std::string sLedger = m_home.Sub("fsshared.ini");
    for (const std::string& sDamage : {std::string("\xFF\xFE[S1]\r\nConfID=7", 16), std::string("[S1\r\n\0=\r\n;", 11),
                                       std::string("\xFF\xFE\x01", 3)})
    {
        QB_WriteWholeFile(sLedger, sDamage);
        ZV_ShareLedger ledger;
        EXPECT_FALSE(ledger.Holds(7, Shared()));
        EXPECT_TRUE(ledger.Remember(7, Shared(), kMark));
        EXPECT_TRUE(ZV_ShareLedger().Holds(7, Shared()));
    }
    // Nothing reaches the disk: neither the journal nor the whole file.
    ZV_ShareLedger ledger;
    m_env.FailAt(QB_EnvOp::Write, 1, true);
    EXPECT_FALSE(ledger.Remember(7, Shared("new.txt"), kMark));
    m_env.ClearFaults();
    EXPECT_TRUE(ledger.Holds(7, Shared("new.txt")));
    EXPECT_FALSE(ZV_ShareLedger().Holds(7, Shared("new.txt")));
    EXPECT_TRUE(ZV_ShareLedger().Holds(7, Shared()));

    // A download target under a number no FileID has is no target at all; one
    // given up is gone for good.
    QB_WriteWholeFile(sLedger, "[D1]\r\nConference=7\r\nFileID=65536\r\nTarget=C:\\a.bin\r\n"
                               "[D2]\r\nConference=7\r\nFileID=65535\r\nTarget=C:\\b.bin\r\n");
    EXPECT_FALSE(ZV_ShareLedger().HoldsDownload(7, 0, QB_StringU8("C:\\a.bin")));
    EXPECT_TRUE(ZV_ShareLedger().HoldsDownload(7, 65535, QB_StringU8("C:\\b.bin")));
    EXPECT_FALSE(ZV_ShareLedger().HoldsDownload(7, 65535, QB_StringU8("C:\\a.bin"))) << "another path";
    ASSERT_TRUE(ZV_ShareLedger().ForgetDownload(7, 65535));
    EXPECT_FALSE(ZV_ShareLedger().HoldsDownload(7, 65535, QB_StringU8("C:\\b.bin"))) << "given up in an earlier run";

    // A record that cannot be opened holds nothing, and the day's log says so.
    std::filesystem::create_directories(m_home.Sub("log"));
    m_env.FailAt(QB_EnvOp::Open, 1);
    EXPECT_FALSE(ZV_ShareLedger().Holds(7, Shared()));
    m_env.ClearFaults();
    EXPECT_EQ(1u, QB_CountInFiles(m_home.Sub("log"), "ZV_ShareLedger::Load failed.\r\n"));
}

// A row of the old form (16 bits of its conference) is dropped once for good; a withdrawn share stays gone.
TEST_F(ShareLedger, DropsRowsOfHalfAConferenceNumberAndForgetsAWithdrawnShare)
{
    const std::string sLedger = m_home.Sub("fsshared.ini");
    std::filesystem::create_directories(m_home.Sub("log"));
    QB_WriteWholeFile(sLedger, "[S1]\r\nConfID=7\r\nPath=C:\\Users\\ann\\report.pdf\r\nLength=40000\r\n"
                               "ModifyTime=2026-11-23 21:00:05\r\n"
                               "[D2]\r\nConfID=7\r\nFileID=4\r\nTarget=C:\\b.bin\r\n");
    m_env.TrackDurability();
    {
        ZV_ShareLedger ledger;  // the machine stops right after the load
        EXPECT_FALSE(ledger.Holds(7, Shared()));
        EXPECT_FALSE(ledger.HoldsDownload(7, 4, QB_StringU8("C:\\b.bin")));
        EXPECT_EQ(1u, QB_CountInFiles(m_home.Sub("log"), "ZV_ShareLedger::Load dropped 2 rows"));
        m_env.Crash();
    }
    m_env.Restart();  // the log line was never synced and is gone; the drop was
    EXPECT_FALSE(ZV_ShareLedger().Holds(7, Shared()));
    EXPECT_EQ(0u, QB_CountInFiles(m_home.Sub("log"), "ZV_ShareLedger::Load dropped"))
        << "dropped once: the next run finds no such row";

    {
        ZV_ShareLedger ledger;
        ASSERT_TRUE(ledger.Remember(7, Shared(), kMark));
        ASSERT_TRUE(ledger.Remember(7, Shared("keep.pdf"), kMark));
        ASSERT_TRUE(ledger.Forget(7, Shared()));
        EXPECT_FALSE(ledger.Holds(7, Shared()));
        EXPECT_TRUE(ledger.Forget(8, Shared("keep.pdf"))) << "another conference's share: nothing to do";
    }
    ZV_ShareLedger later;
    EXPECT_FALSE(later.Holds(7, Shared()));
    EXPECT_TRUE(later.Holds(7, Shared("keep.pdf")));
}

// The open file must be the one shared: same device and file number, length and last-write second.
TEST_F(ShareLedger, HoldsAnOpenFileOnlyWhileItIsTheVeryFileShared)
{
    struct Case { const char* szName; void (*fnChange)(const std::string& sPath); bool bHeld; };
    const Case aCases[] = {
        {"as shared", [](const std::string&) {}, true},
        {"another file in its place",
         [](const std::string& sPath) {
             // Made before the old one goes, so it cannot take its number.
             QB_WriteWholeFile(sPath + ".new", "abcde");
             std::filesystem::last_write_time(sPath + ".new", std::filesystem::last_write_time(sPath));
             std::filesystem::rename(sPath + ".new", sPath);
         },
         false},
        {"grown", [](const std::string& sPath) { QB_WriteWholeFile(sPath, "abcdef"); }, false},
        {"touched", [](const std::string& sPath) { Backdate(sPath, 2); }, false},
    };
    for (const Case& c : aCases)
    {
        SCOPED_TRACE(c.szName);
        const std::string sPath = m_home.Sub("shared.txt");
        QB_WriteWholeFile(sPath, "abcde");
        Backdate(sPath, 1);
        const QB_StringW sWide(QB_StringA(sPath.c_str()));
        QB_FileEx file;
        ASSERT_TRUE(file.Open(QB_WithBackslashes(sWide.GetString()), QB_FILE_READ | QB_FILE_OPEN_EXISTING));
        const QB_StringW sFull = file.GetPath();
        ZV_FileBriefInfo brief;
        brief.SetFilePath(QB_StringU8(sFull.Left(sFull.ReverseFind(u'\\') + 1)));
        brief.SetFileOldName(QB_StringU8(file.GetFileName())), brief.SetFileLenth((uint32_t)file.GetLength());
        QB_SystemTime stWrite;
        QB_DateTimeEx dtWrite;
        ZV_LocalFileMark mark;
        ASSERT_TRUE(file.GetTimes(nullptr, &stWrite, nullptr) && dtWrite.SetFromSystemTime(stWrite) &&
                    brief.SetModifyTime(dtWrite) && ZV_ShareLedger::MarkOf(file, mark));
        file.Close();
        ZV_ShareLedger ledger;
        ASSERT_TRUE(ledger.Remember(7, brief, mark));
        c.fnChange(sPath);
        ASSERT_TRUE(file.Open(QB_WithBackslashes(sWide.GetString()), QB_FILE_READ | QB_FILE_OPEN_EXISTING));
        EXPECT_EQ(c.bHeld, ledger.HoldsOpenFile(7, brief, file));
        file.Close();
        EXPECT_FALSE(ledger.HoldsOpenFile(7, brief, file)) << "a closed file is no file";
        std::filesystem::remove(sPath);
    }
}
