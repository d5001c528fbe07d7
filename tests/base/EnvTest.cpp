#include "QB_Env.h"
#include "QB_FileEx.h"
#include "QB_TestSupport.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <optional>

namespace fs = std::filesystem;

namespace {

std::u16string Wide(const QB_StringW& s)
{
    return std::u16string(s.View());
}

std::u16string CurrentFolderW()
{
    return Wide(QB_ToWindowsPath(fs::current_path().string()));
}

// Sets a variable for one test and puts the old value back.
class ScopedVariable
{
public:
    ScopedVariable(const char* pszName, const char* pszValue) : m_sName(pszName)
    {
        if (const char* psz = std::getenv(pszName))
            m_sOld = psz;
        QB_SetEnvironmentVariable(pszName, pszValue);
    }
    ~ScopedVariable() { QB_SetEnvironmentVariable(m_sName.c_str(), m_sOld ? m_sOld->c_str() : nullptr); }

private:
    std::string m_sName;
    std::optional<std::string> m_sOld;
};

}  // namespace

TEST(Env, TurnsWindowsPathsIntoUtf8WithSlashes)
{
    struct Row
    {
        const char* pszWhat;
        std::u16string sWindows;
        std::string sSystem;
    };
    const Row aRows[] = {
        {"backslashes", u"\\tmp\\a.txt", "/tmp/a.txt"},
        {"slashes kept", u"dir/sub\\f", "dir/sub/f"},
        {"two bytes", u"caf\u00e9", "caf\xc3\xa9"},
        {"three bytes", u"\u4e2d", "\xe4\xb8\xad"},
        {"surrogate pair", u"\xD83D\xDE00", "\xf0\x9f\x98\x80"},
        {"lone high half", std::u16string(u"a\xD800" u"b"), "a\xef\xbf\xbd" "b"},
        {"lone low half", std::u16string(1, (char16_t)0xDC00), "\xef\xbf\xbd"},
        {"halves reversed", std::u16string(u"\xDE00\xD83D"), "\xef\xbf\xbd\xef\xbf\xbd"},
        {"cut at a zero unit", std::u16string(u"ab\0cd", 5), "ab"},
    };
    for (const Row& row : aRows)
        EXPECT_EQ(QB_PathToSystem(row.sWindows), row.sSystem) << row.pszWhat;
}

TEST(Env, TurnsSystemPathsIntoWindowsFormAndMarksBrokenUtf8)
{
    struct Row
    {
        const char* pszWhat;
        std::string sSystem;
        std::u16string sWindows;
    };
    const Row aRows[] = {
        {"slashes", "/tmp/a.txt", u"\\tmp\\a.txt"},
        {"two bytes", "caf\xc3\xa9", u"caf\u00e9"},
        {"four bytes", "\xf0\x9f\x98\x80", u"\xD83D\xDE00"},
        {"stray continuation", "a\x80" "b", u"a\xFFFD" u"b"},
        {"overlong slash", "\xc0\xaf", u"\xFFFD\xFFFD"},
        {"cut sequence", "\xe4\xb8", u"\xFFFD\xFFFD"},
        {"encoded surrogate", "\xed\xa0\x80", u"\xFFFD\xFFFD\xFFFD"},
        {"beyond U+10FFFF", "\xf4\x90\x80\x80", u"\xFFFD\xFFFD\xFFFD\xFFFD"},
    };
    for (const Row& row : aRows)
        EXPECT_EQ(QB_PathFromSystem(row.sSystem), row.sWindows) << row.pszWhat;
}

TEST(Env, ResolvesFullPathsByTextAgainstTheWorkingFolder)
{
    const std::u16string sCwd = CurrentFolderW();
    const struct
    {
        std::u16string sIn;
        std::u16string sOut;
    } aRows[] = {
        {u"a\\b", sCwd + u"\\a\\b"},
        {u"a\\.\\b\\..\\c", sCwd + u"\\a\\c"},
        {u"a\\", sCwd + u"\\a\\"},
        {u"\\x\\..\\..\\y", u"\\y"},
        {u"/x//y/", u"\\x\\y\\"},
        {u"\\x\\y\\.", u"\\x\\y"},
        {u"\\", u"\\"},
        {u"", u""},
    };
    QB_Env* lpEnv = QB_GetDefaultEnv();
    for (const auto& row : aRows)
        EXPECT_EQ(lpEnv->GetFullPathName(row.sIn), row.sOut) << QB_PathToSystem(row.sIn);
}

TEST(Env, ReadsTheHomeFolderVariableAtEachCall)
{
    ScopedVariable home("ROOMCRATE_HOME", "/srv/node1");
    QB_Env* lpEnv = QB_GetDefaultEnv();
    EXPECT_EQ(lpEnv->GetModuleFolder(), u"\\srv\\node1\\");
    QB_SetEnvironmentVariable("ROOMCRATE_HOME", "/srv/node2/");
    EXPECT_EQ(lpEnv->GetModuleFolder(), u"\\srv\\node2\\");

    std::u16string sExeFolder =
        Wide(QB_ToWindowsPath(fs::read_symlink("/proc/self/exe").parent_path().string())) + u"\\";
    QB_SetEnvironmentVariable("ROOMCRATE_HOME", "");
    EXPECT_EQ(lpEnv->GetModuleFolder(), sExeFolder);
    QB_SetEnvironmentVariable("ROOMCRATE_HOME", nullptr);
    EXPECT_EQ(lpEnv->GetModuleFolder(), sExeFolder);
}

TEST(Env, RefusesVariableNamesThatCannotBeSet)
{
    EXPECT_FALSE(QB_SetEnvironmentVariable(nullptr, "x"));
    EXPECT_FALSE(QB_SetEnvironmentVariable("", "x"));
    EXPECT_FALSE(QB_SetEnvironmentVariable("A=B", "x"));
}

TEST(Env, ReportsAttributesFromTheModeBits)
{
    QB_TempFolder tmp;
    QB_WriteWholeFile(tmp.Sub("plain"), "x");
    QB_WriteWholeFile(tmp.Sub("locked"), "x");
    QB_WriteWholeFile(tmp.Sub("writeonly"), "x");
    fs::permissions(tmp.Sub("locked"), fs::perms(0444));
    fs::permissions(tmp.Sub("writeonly"), fs::perms(0200));
    fs::create_directory(tmp.Sub("dir"));
    const struct
    {
        const char* pszName;
        uint32_t ulAttr;
    } aRows[] = {
        {"missing", QB_ATTR_INVALID},
        {"dir", QB_ATTR_DIRECTORY},
        {"plain", QB_ATTR_NORMAL},
        {"locked", QB_ATTR_READONLY},
        {"writeonly", QB_ATTR_NORMAL},
    };
    for (const auto& row : aRows)
        EXPECT_EQ(QB_GetDefaultEnv()->GetFileAttributes(Wide(tmp.SubW(row.pszName))), row.ulAttr) << row.pszName;
}

TEST(Env, GivesTheLastWriteTimeAsLocalCalendarTime)
{
    QB_TempFolder tmp;
    QB_WriteWholeFile(tmp.Sub("f"), "x");
    // 2011-03-16 07:21:05.250 UTC
    auto tp = std::chrono::system_clock::from_time_t(1300260065) + std::chrono::milliseconds(250);
    fs::last_write_time(tmp.Sub("f"), fs::file_time_type::clock::from_sys(tp));
    std::time_t t = 1300260065;
    std::tm tmLocal = *std::localtime(&t);

    QB_FileEx file;
    ASSERT_TRUE(file.Open(tmp.SubW("f"), QB_FILE_READ));
    QB_SystemTime stCreation, stWrite, stAccess;
    ASSERT_TRUE(file.GetTimes(&stCreation, &stWrite, &stAccess));
    EXPECT_EQ(stWrite.wYear, tmLocal.tm_year + 1900);
    EXPECT_EQ(stWrite.wMonth, tmLocal.tm_mon + 1);
    EXPECT_EQ(stWrite.wDay, tmLocal.tm_mday);
    EXPECT_EQ(stWrite.wDayOfWeek, tmLocal.tm_wday);
    EXPECT_EQ(stWrite.wHour, tmLocal.tm_hour);
    EXPECT_EQ(stWrite.wMinute, tmLocal.tm_min);
    EXPECT_EQ(stWrite.wSecond, 5);
    EXPECT_EQ(stWrite.wMilliseconds, 250);
    EXPECT_GT(stCreation.wYear, 2011);
    EXPECT_TRUE(file.GetTimes(nullptr, nullptr, nullptr));
    file.Close();
}

TEST(Env, GivesTheZoneBiasWithoutDaylightSaving)
{
    {
        ScopedVariable tz("TZ", "EST5EDT");
        EXPECT_EQ(QB_GetDefaultEnv()->GetTimeZoneBias(), 5 * 3600);
        QB_SetEnvironmentVariable("TZ", "CET-1CEST");
        EXPECT_EQ(QB_GetDefaultEnv()->GetTimeZoneBias(), -3600);
    }
    // The zone is cached by the C library until read again; later tests
    // must see the machine's own.
    QB_GetDefaultEnv()->GetTimeZoneBias();
}

TEST(Env, MakesADifferentGuidEachTime)
{
    uint8_t abFirst[16] = {}, abSecond[16] = {};
    QB_GetDefaultEnv()->NewGuid(abFirst);
    QB_GetDefaultEnv()->NewGuid(abSecond);
    EXPECT_NE(std::vector<uint8_t>(abFirst, abFirst + 16), std::vector<uint8_t>(abSecond, abSecond + 16));
}

TEST(Env, RefusesHandlesItDidNotGiveOut)
{
    QB_TempFolder tmp;
    QB_WriteWholeFile(tmp.Sub("f"), "abc");
    QB_Env* lpEnv = QB_GetDefaultEnv();
    QB_FileHandle hStale = lpEnv->OpenFile(Wide(tmp.SubW("f")), QB_FILE_READ);
    ASSERT_NE(hStale, QB_INVALID_FILE);
    ASSERT_TRUE(lpEnv->CloseFile(hStale));
    // Opened behind the environment's back, this most likely takes the
    // number the stale handle still holds.
    std::ifstream other(tmp.Sub("f"));
    char ch = 0;
    const QB_FileHandle ahBad[] = {hStale, QB_INVALID_FILE, 0x7FFFFFFF, (QB_FileHandle)1 << 40};
    for (QB_FileHandle h : ahBad)
    {
        EXPECT_EQ(lpEnv->ReadFile(h, &ch, 1), -1) << h;
        EXPECT_EQ(lpEnv->WriteFile(h, &ch, 1), -1) << h;
        EXPECT_EQ(lpEnv->SeekFile(h, 0, QB_SEEK_BEGIN), -1) << h;
        EXPECT_EQ(lpEnv->GetFileSize(h), -1) << h;
        EXPECT_FALSE(lpEnv->SetEndOfFile(h)) << h;
        EXPECT_FALSE(lpEnv->CloseFile(h)) << h;
    }
    EXPECT_EQ(other.get(), 'a');
}

TEST(Env, OpensNeitherFoldersNorOtherNonFiles)
{
    QB_TempFolder tmp;
    QB_Env* lpEnv = QB_GetDefaultEnv();
    const std::u16string asPaths[] = {Wide(tmp.PathW()), u"/dev/null", u"/proc/self"};
    for (const auto& sPath : asPaths)
        EXPECT_EQ(lpEnv->OpenFile(sPath, QB_FILE_READ | QB_FILE_OPEN_EXISTING), QB_INVALID_FILE)
            << QB_PathToSystem(sPath);
}
