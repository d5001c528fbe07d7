#include "QB_Env.h"
#include "QB_FileEx.h"
#include "QB_TestSupport.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <optional>

namespace fs = std::filesystem;

namespace {

std::u16string Wide(const QB_StringW& s) { return std::u16string(s.View()); }

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

// What is not text in a path becomes the replacement character, each way.
TEST(Env, TurnsWindowsPathsIntoUtf8WithSlashesAndBack)
{
    const struct
    {
        std::u16string sWindows;
        std::string sSystem;
        bool bBothWays;
    } aRows[] = {
        {u"\\tmp\\a.txt", "/tmp/a.txt", true},
        {u"caf\u00e9", "caf\xc3\xa9", true},
        {u"\xD83D\xDE00", "\xf0\x9f\x98\x80", true},
        {u"a\xD800" u"b", "a\xef\xbf\xbd" "b", false},
        {u"\xDE00\xD83D", "\xef\xbf\xbd\xef\xbf\xbd", false},
        {std::u16string(u"ab\0cd", 5), "ab", false},
    };
    for (const auto& row : aRows)
    {
        EXPECT_EQ(QB_PathToSystem(row.sWindows), row.sSystem);
        if (row.bBothWays)
        {
            EXPECT_EQ(QB_PathFromSystem(row.sSystem), row.sWindows);
        }
    }
    const std::pair<std::string, std::u16string> aFromSystem[] = {
        {"a\x80" "b", u"a\xFFFD" u"b"},
        {"\xc0\xaf", u"\xFFFD\xFFFD"},  // overlong "/"
        {"\xed\xa0\x80", u"\xFFFD\xFFFD\xFFFD"},  // a surrogate
    };
    for (const auto& [sSystem, sWindows] : aFromSystem)
        EXPECT_EQ(QB_PathFromSystem(sSystem), sWindows);
}

TEST(Env, ReadsTheHomeFolderVariableAtEachCall)
{
    ScopedVariable home("ROOMCRATE_HOME", "/srv/node1");
    QB_Env* lpEnv = QB_GetDefaultEnv();
    EXPECT_EQ(lpEnv->GetModuleFolder(), u"\\srv\\node1\\");
    QB_SetEnvironmentVariable("ROOMCRATE_HOME", "/srv/node2/");
    EXPECT_EQ(lpEnv->GetModuleFolder(), u"\\srv\\node2\\");
    std::u16string sExeFolder = Wide(QB_ToWindowsPath(fs::read_symlink("/proc/self/exe").parent_path())) + u"\\";
    QB_SetEnvironmentVariable("ROOMCRATE_HOME", "");
    EXPECT_EQ(lpEnv->GetModuleFolder(), sExeFolder);
}

TEST(Env, ReportsAttributesFromTheModeBitsAndOpensOnlyPlainFiles)
{
    QB_TempFolder tmp;
    const std::pair<const char*, int> aFiles[] = {{"plain", 0644}, {"locked", 0444}, {"writeonly", 0200}};
    for (const auto& [pszName, nPerms] : aFiles)
    {
        QB_WriteWholeFile(tmp.Sub(pszName), "x");
        fs::permissions(tmp.Sub(pszName), fs::perms(nPerms));
    }
    fs::create_directory(tmp.Sub("dir"));
    const std::pair<const char*, uint32_t> aRows[] = {{"missing", QB_ATTR_INVALID}, {"dir", QB_ATTR_DIRECTORY},
        {"plain", QB_ATTR_NORMAL}, {"locked", QB_ATTR_READONLY}, {"writeonly", QB_ATTR_NORMAL}};
    for (const auto& [pszName, ulAttr] : aRows)
        EXPECT_EQ(QB_GetDefaultEnv()->GetFileAttributes(Wide(tmp.SubW(pszName))), ulAttr) << pszName;
    for (const std::u16string& sPath : {Wide(tmp.SubW("dir")), std::u16string(u"/dev/null")})
        EXPECT_EQ(QB_GetDefaultEnv()->OpenFile(sPath, QB_FILE_READ), QB_INVALID_FILE) << QB_PathToSystem(sPath);
}

TEST(Env, GivesTheLastWriteTimeAsLocalCalendarTime)
{
    QB_TempFolder tmp;
    QB_WriteWholeFile(tmp.Sub("f"), "x");
    // 2011-03-16 07:21:05.250 UTC, a Wednesday
    auto tp = std::chrono::system_clock::from_time_t(1300260065) + std::chrono::milliseconds(250);
    fs::last_write_time(tmp.Sub("f"), fs::file_time_type::clock::from_sys(tp));
    std::time_t t = 1300260065;
    std::tm tm = *std::localtime(&t);

    QB_FileEx file;
    ASSERT_TRUE(file.Open(tmp.SubW("f"), QB_FILE_READ));
    QB_SystemTime stCreation, stWrite, stAccess;
    ASSERT_TRUE(file.GetTimes(&stCreation, &stWrite, &stAccess));
    file.Close();
    const std::vector<int> vExpected = {tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_wday, tm.tm_mday, tm.tm_hour, tm.tm_min, 5, 250};
    EXPECT_EQ((std::vector<int>{stWrite.wYear, stWrite.wMonth, stWrite.wDayOfWeek, stWrite.wDay, stWrite.wHour,
                                stWrite.wMinute, stWrite.wSecond, stWrite.wMilliseconds}),
              vExpected);
    EXPECT_GT(stCreation.wYear, 2011);  // made just now, whatever its mtime says
}

