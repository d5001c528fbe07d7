#include "QB_FileEx.h"
#include "QB_TestSupport.h"

#include <gtest/gtest.h>

#include <filesystem>

namespace fs = std::filesystem;

namespace {

std::vector<uint8_t> Bytes(const char* psz)
{
    return std::vector<uint8_t>(psz, psz + std::strlen(psz));
}

QB_StringW W(const std::u16string& s)
{
    return QB_StringW(std::u16string_view(s));
}

}  // namespace

TEST(FileEx, OpensByEachCreationModeOnAMissingAndAnExistingFile)
{
    struct Row
    {
        const char* pszWhat;
        uint32_t ulMode;
        bool bExists;
        bool bOpens;
        int nLengthAfter;  // -1: no file afterwards
    };
    const Row aRows[] = {
        {"must exist, missing", 0x101, false, false, -1},
        {"must exist, present", 0x101, true, true, 5},
        {"no creation bits, missing", 0x001, false, false, -1},
        {"no creation bits, present", 0x001, true, true, 5},
        {"no access bits", 0x100, true, false, 5},
        {"open or create, missing", 0x203, false, true, 0},
        {"open or create, present", 0x203, true, true, 5},
        {"replace, missing", 0x303, false, true, 0},
        {"replace, present", 0x303, true, true, 0},
        {"replace write-only, present", 0x302, true, true, 0},
        {"create new, missing", 0x403, false, true, 0},
        {"create new, present", 0x403, true, false, 5},
        {"unknown creation value", 0x503, true, false, 5},
    };
    for (const Row& row : aRows)
    {
        QB_TempFolder tmp;
        if (row.bExists)
            QB_WriteWholeFile(tmp.Sub("f"), "hello");
        QB_FileEx file;
        EXPECT_EQ(file.Open(tmp.SubW("f"), row.ulMode), row.bOpens) << row.pszWhat;
        EXPECT_EQ(file.IsOpen(), row.bOpens) << row.pszWhat;
        EXPECT_EQ(file.Close(), row.bOpens) << row.pszWhat;
        int nLength = fs::exists(tmp.Sub("f")) ? (int)fs::file_size(tmp.Sub("f")) : -1;
        EXPECT_EQ(nLength, row.nLengthAfter) << row.pszWhat;
    }
}

TEST(FileEx, RefusesAnEmptyPath)
{
    QB_FileEx file;
    EXPECT_FALSE(file.Open(QB_StringW(), 0x203));
    EXPECT_FALSE(file.Close());
}

TEST(FileEx, AnswersEdgeCountsOfReadAndWriteAsTheOriginalDid)
{
    QB_TempFolder tmp;
    QB_WriteWholeFile(tmp.Sub("f"), "0123456789");
    QB_FileEx file;
    ASSERT_TRUE(file.Open(tmp.SubW("f"), 0x103));
    char ach[16] = {};
    EXPECT_EQ(file.Read(ach, 0), -1);
    EXPECT_EQ(file.Read(ach, -1), -1);
    EXPECT_EQ(file.Read(nullptr, 4), -1);
    EXPECT_EQ(file.Write(ach, 0), 0);
    EXPECT_EQ(file.Write(ach, -5), -1);
    EXPECT_EQ(file.Read(ach, 16), 10);
    EXPECT_EQ(file.Read(ach, 16), 0);
    file.Close();
    EXPECT_EQ(file.Read(ach, 4), -1);
    EXPECT_EQ(file.Seek(0, QB_SEEK_BEGIN), -1);
    EXPECT_EQ(file.GetLength(), -1);
    EXPECT_FALSE(file.SetEnd());
}

TEST(FileEx, SeeksFromEachOriginAndSetsTheEndThere)
{
    QB_TempFolder tmp;
    QB_FileEx file;
    ASSERT_TRUE(file.Open(tmp.SubW("f"), 0x203));
    ASSERT_EQ(file.Write("0123456789", 10), 10);
    const struct
    {
        int32_t nOffset;
        int nOrigin;
        int32_t nPos;
    } aRows[] = {
        {4, QB_SEEK_BEGIN, 4}, {-2, QB_SEEK_CURRENT, 2}, {-3, QB_SEEK_END, 7},
        {-1, QB_SEEK_BEGIN, -1}, {0, 7, -1}, {0, -1, -1},
    };
    for (const auto& row : aRows)
        EXPECT_EQ(file.Seek(row.nOffset, row.nOrigin), row.nPos) << row.nOffset << " from " << row.nOrigin;

    ASSERT_EQ(file.Seek(7, QB_SEEK_BEGIN), 7);
    EXPECT_TRUE(file.SetEnd());
    EXPECT_EQ(file.GetLength(), 7);
    ASSERT_EQ(file.Seek(9, QB_SEEK_BEGIN), 9);
    EXPECT_TRUE(file.SetEnd());
    file.Close();
    EXPECT_EQ(QB_ReadWholeFile(tmp.Sub("f")), (std::vector<uint8_t>{'0', '1', '2', '3', '4', '5', '6', 0, 0}));
}

TEST(FileEx, NamesTheFileByTheTailOfItsFullPath)
{
    const std::u16string sCwd = std::u16string(QB_ToWindowsPath(fs::current_path().string()).View());
    const std::u16string sLong259(259, u'x');
    const struct
    {
        std::u16string sPath;
        std::u16string sFull;
        std::u16string sName;
    } aRows[] = {
        {u"a\\b\\c.txt", sCwd + u"\\a\\b\\c.txt", u"c.txt"},
        {u"\\x\\y\\..\\z.bin", u"\\x\\z.bin", u"z.bin"},
        {u"\\x\\dir\\", u"\\x\\dir\\", u""},
        {u"\\" + sLong259, u"\\" + sLong259, sLong259},
        {u"\\" + sLong259 + u"y", u"", u""},
    };
    for (const auto& row : aRows)
    {
        QB_FileEx file;
        file.Open(W(row.sPath), 0x101);
        EXPECT_EQ(std::u16string(file.GetFullPath().View()), row.sFull) << row.sPath.size();
        EXPECT_EQ(std::u16string(file.GetFileName().View()), row.sName) << row.sPath.size();
        EXPECT_EQ(file.GetPath(), W(row.sPath));
    }
}

TEST(FileEx, RefusesASecondOpenThatTheFirstOnesSharingForbids)
{
    struct Row
    {
        uint32_t ulFirst;
        uint32_t ulSecond;
        bool bAllowed;
    };
    const Row aRows[] = {
        {0x101, 0x103, true},   // no sharing bits: others read and write
        {0x121, 0x101, true},   // others may still read
        {0x121, 0x103, false},  // the first denies writing
        {0x103, 0x121, false},  // the second would deny the first's writing
        {0x111, 0x101, false},  // the first denies reading
        {0x102, 0x111, true},   // denying reading to a writer that doesn't read
        {0x131, 0x102, false},
        {0x122, 0x101, true},
        {0x121, 0x303, false},  // a refused replacement must not truncate
    };
    for (const Row& row : aRows)
    {
        QB_TempFolder tmp;
        QB_WriteWholeFile(tmp.Sub("f"), "hello");
        fs::create_directory(tmp.Sub("d"));
        QB_FileEx first, second;
        ASSERT_TRUE(first.Open(tmp.SubW("f"), row.ulFirst));
        // The same file under another spelling of its name.
        EXPECT_EQ(second.Open(tmp.SubW("d/../f"), row.ulSecond), row.bAllowed)
            << std::hex << row.ulFirst << " then " << row.ulSecond;
        second.Close();
        EXPECT_EQ(QB_ReadWholeFile(tmp.Sub("f")).size(), row.bAllowed && row.ulSecond == 0x303 ? 0u : 5u);
        first.Close();
        EXPECT_TRUE(second.Open(tmp.SubW("f"), row.ulSecond)) << "after the first closed";
        second.Close();
    }
}

TEST(FileEx, ReleasesTheEarlierFileWhenOpenedAgain)
{
    QB_TempFolder tmp;
    QB_FileEx first, other;
    ASSERT_TRUE(first.Open(tmp.SubW("f"), 0x233));
    ASSERT_TRUE(first.Open(tmp.SubW("g"), 0x233));
    EXPECT_TRUE(other.Open(tmp.SubW("f"), 0x103));
    EXPECT_FALSE(other.Open(tmp.SubW("g"), 0x103));
    first.Close();
}

TEST(FileEx, KeepsAReadOnlyFileFromWritingReplacingAndDeleting)
{
    QB_TempFolder tmp;
    QB_FileEx file;
    ASSERT_TRUE(file.Open(tmp.SubW("f"), 0x1403));
    EXPECT_EQ(file.Write("abc", 3), 3);  // the creator's own handle may write
    file.Close();
    EXPECT_EQ(QB_GetEnv()->GetFileAttributes(std::u16string(tmp.SubW("f").View())), QB_ATTR_READONLY);

    const uint32_t aulRefused[] = {0x102, 0x103, 0x203, 0x301, 0x303};
    for (uint32_t ulMode : aulRefused)
        EXPECT_FALSE(file.Open(tmp.SubW("f"), ulMode)) << std::hex << ulMode;
    EXPECT_FALSE(QB_FileEx::Delete(tmp.SubW("f")));
    EXPECT_TRUE(file.Open(tmp.SubW("f"), 0x101));
    file.Close();
    EXPECT_EQ(QB_ReadWholeFile(tmp.Sub("f")), Bytes("abc"));
}

TEST(FileEx, DeletesPlainFilesOnly)
{
    QB_TempFolder tmp;
    QB_WriteWholeFile(tmp.Sub("f"), "x");
    fs::create_directory(tmp.Sub("d"));
    EXPECT_TRUE(QB_FileEx::Delete(tmp.SubW("f")));
    EXPECT_FALSE(fs::exists(tmp.Sub("f")));
    EXPECT_FALSE(QB_FileEx::Delete(tmp.SubW("f")));
    EXPECT_FALSE(QB_FileEx::Delete(tmp.SubW("d")));
    EXPECT_FALSE(QB_FileEx::Delete(QB_StringW()));
    EXPECT_TRUE(fs::is_directory(tmp.Sub("d")));
}

TEST(FileEx, MakesEveryFolderOfAPathAndReplacesAPlainFileInTheWay)
{
    QB_TempFolder tmp;
    QB_WriteWholeFile(tmp.Sub("plain"), "x");
    QB_WriteWholeFile(tmp.Sub("locked"), "x");
    fs::permissions(tmp.Sub("locked"), fs::perms(0444));
    const QB_StringW sBase = tmp.PathW();
    // Folders of 50 characters below the base, up to a total length.
    auto DeepPath = [&](char16_t ch, int nTotal) {
        std::u16string s;
        while (sBase.GetLength() + (int)s.size() + 50 <= nTotal)
            s += std::u16string(49, ch) + u'\\';
        s += std::u16string(nTotal - sBase.GetLength() - s.size(), ch);
        return sBase + W(s);
    };
    const struct
    {
        const char* pszWhat;
        QB_StringW sPath;
        bool bResult;
        const char* pszFolder;  // must be a folder afterwards, if set
    } aRows[] = {
        {"nested", sBase + u"a\\b\\c", true, "a/b/c"},
        {"trailing backslash", sBase + u"e\\f\\", true, "e/f"},
        {"slashes", sBase + u"g/h", true, "g/h"},
        {"existing", sBase + u"a\\b", true, "a/b"},
        {"plain file in the way", sBase + u"plain\\sub", true, "plain/sub"},
        {"read-only file in the way", sBase + u"locked\\sub", false, nullptr},
        {"260 characters", DeepPath(u'm', 260), true, nullptr},
        {"261 characters", DeepPath(u'n', 261), false, nullptr},
        {"empty", QB_StringW(), false, nullptr},
    };
    for (const auto& row : aRows)
    {
        EXPECT_EQ(MakeDirs(row.sPath), row.bResult) << row.pszWhat;
        if (row.pszFolder)
        {
            EXPECT_TRUE(fs::is_directory(tmp.Sub(row.pszFolder))) << row.pszWhat;
        }
    }
    EXPECT_TRUE(fs::exists(QB_PathToSystem(std::u16string(DeepPath(u'm', 260).View()))));
    EXPECT_TRUE(fs::is_regular_file(tmp.Sub("locked")));
    EXPECT_FALSE(fs::exists(tmp.Sub(std::string(49, 'n'))));
    EXPECT_FALSE(MakeDirs(static_cast<const char16_t*>(nullptr)));
}
