#include "QB_FileEx.h"
#include "QB_TestSupport.h"

#include <gtest/gtest.h>

#include <filesystem>

namespace fs = std::filesystem;

namespace {

QB_StringW W(const std::u16string& s) { return QB_StringW(std::u16string_view(s)); }

int LengthOnDisk(const std::string& sPath) { return fs::exists(sPath) ? (int)fs::file_size(sPath) : -1; }

}  // namespace

TEST(FileEx, OpensByEachCreationModeOnAMissingAndAnExistingFile)
{
    // nLengthAfter -1: no file.
    const struct { uint32_t ulMode; bool bExists, bOpens; int nLengthAfter; } aRows[] = {
        {0x101, false, false, -1}, {0x101, true, true, 5}, {0x001, false, false, -1},  // must exist; 0x001 as 0x101
        {0x100, true, false, 5}, {0x203, false, true, 0}, {0x203, true, true, 5},     // no access bits; open or create
        {0x303, true, true, 0}, {0x403, true, false, 5}, {0x503, true, false, 5},     // replace; must not exist; none such
    };
    for (const auto& row : aRows)
    {
        QB_TempFolder tmp;
        if (row.bExists)
            QB_WriteWholeFile(tmp.Sub("f"), "hello");
        QB_FileEx file;
        EXPECT_EQ(file.Open(tmp.SubW("f"), row.ulMode), row.bOpens) << std::hex << row.ulMode << " " << row.bExists;
        EXPECT_EQ(file.Close(), row.bOpens);
        EXPECT_EQ(LengthOnDisk(tmp.Sub("f")), row.nLengthAfter) << std::hex << row.ulMode << " " << row.bExists;
    }
    QB_FileEx file;
    EXPECT_FALSE(file.Open(QB_StringW(), 0x203));
    // Below a folder named with or without its last backslash; no creation
    // bits means the file must exist.
    QB_TempFolder tmp;
    QB_WriteWholeFile(tmp.Sub("f"), "hello");
    const QB_StringW sBase = tmp.PathW();
    EXPECT_FALSE(file.OpenBelow(sBase, u"g", QB_FILE_READ));
    EXPECT_FALSE(fs::exists(tmp.Sub("g")));
    ASSERT_TRUE(file.OpenBelow(sBase.Left(sBase.GetLength() - 1), u"f", QB_FILE_READ));
    EXPECT_EQ(file.GetLength(), 5);
}

TEST(FileEx, ReadsWritesSeeksAndCutsAsWindowsDoes)
{
    QB_TempFolder tmp;
    QB_FileEx file;
    ASSERT_TRUE(file.Open(tmp.SubW("f"), 0x203));
    char ach[16] = {};
    ASSERT_EQ(file.Write("0123456789", 10), 10);
    const struct { int32_t nOffset; int nOrigin; int32_t nPos; } aSeeks[] = {{4, QB_SEEK_BEGIN, 4}, {-2, QB_SEEK_CURRENT, 2}, {-3, QB_SEEK_END, 7}, {-1, QB_SEEK_BEGIN, -1},
                  {0, 7, -1}};
    for (const auto& row : aSeeks)
        EXPECT_EQ(file.Seek(row.nOffset, row.nOrigin), row.nPos) << row.nOffset << " from " << row.nOrigin;
    EXPECT_EQ(file.Read(ach, 16), 3);
    EXPECT_EQ(file.Read(ach, 16), 0);

    ASSERT_EQ(file.Seek(7, QB_SEEK_BEGIN), 7);
    EXPECT_TRUE(file.SetEnd());
    EXPECT_EQ(file.GetLength(), 7);
    ASSERT_EQ(file.Seek(9, QB_SEEK_BEGIN), 9);
    EXPECT_TRUE(file.SetEnd());
    file.Close();
    EXPECT_EQ(QB_ReadWholeFile(tmp.Sub("f")), (std::vector<uint8_t>{'0', '1', '2', '3', '4', '5', '6', 0, 0}));
    EXPECT_EQ(file.Read(ach, 4), -1);
    EXPECT_EQ(file.GetLength(), -1);
    EXPECT_EQ(file.Seek(0, QB_SEEK_BEGIN), -1);
    EXPECT_EQ(file.Write(ach, 1), -1);
    EXPECT_EQ(file.Write(ach, 0), 0) << "nothing to write is no failure";
    EXPECT_EQ(file.Write(ach, -1), -1);
}

TEST(FileEx, NamesTheFileByTheTailOfItsFullPathOfAtMost260Characters)
{
    const std::u16string sCwd(QB_ToWindowsPath(fs::current_path().string()).View());
    const std::u16string s259(259, u'x');
    const struct { std::u16string sPath, sFull, sName; } aRows[] = {
        {u"a\\b\\c.txt", sCwd + u"\\a\\b\\c.txt", u"c.txt"}, {u"\\x\\y\\..\\z.bin", u"\\x\\z.bin", u"z.bin"},
        {u"\\" + s259, u"\\" + s259, s259}, {u"\\" + s259 + u"y", u"", u""}, {u"", u"", u""},
    };
    for (const auto& row : aRows)
    {
        QB_FileEx file;
        file.Open(W(row.sPath), 0x101);
        EXPECT_EQ(file.GetFullPath(), W(row.sFull)) << row.sPath.size();
        EXPECT_EQ(file.GetFileName(), W(row.sName)) << row.sPath.size();
    }
}

TEST(FileEx, RefusesASecondOpenThatTheFirstOnesSharingForbids)
{
    const struct { uint32_t ulFirst, ulSecond; bool bAllowed; } aRows[] = {
        {0x101, 0x103, true},   // no sharing bits: others read and write
        {0x121, 0x101, true},   {0x121, 0x103, false},
        {0x103, 0x121, false},  // the second would deny the first's writing
        {0x121, 0x303, false},  // refused, so nothing is cut
    };
    for (const auto& row : aRows)
    {
        QB_TempFolder tmp;
        QB_WriteWholeFile(tmp.Sub("f"), "hello");
        fs::create_directory(tmp.Sub("d"));
        QB_FileEx first, second;
        ASSERT_TRUE(first.Open(tmp.SubW("f"), row.ulFirst));
        // The same file under another spelling of its name.
        EXPECT_EQ(second.Open(tmp.SubW("d/../f"), row.ulSecond), row.bAllowed) << std::hex << row.ulFirst << " " << row.ulSecond;
        second.Close();
        EXPECT_EQ(LengthOnDisk(tmp.Sub("f")), row.bAllowed && row.ulSecond == 0x303 ? 0 : 5);
        first.Close();
        EXPECT_TRUE(second.Open(tmp.SubW("f"), row.ulSecond)) << "after the first closed";
        second.Close();
    }
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
        return sBase + W(s + std::u16string(nTotal - sBase.GetLength() - s.size(), ch));
    };
    // pszFolder: a folder afterwards, if set.
    const struct { QB_StringW sPath; bool bResult; const char* pszFolder; } aRows[] = {
        {sBase + u"a\\b\\c", true, "a/b/c"},         {sBase + u"e\\f\\", true, "e/f"},
        {sBase + u"g/h", true, "g/h"},               {sBase + u"a\\b", true, "a/b"},
        {sBase + u"plain\\sub", true, "plain/sub"},  {sBase + u"locked\\sub", false, nullptr},
        {DeepPath(u'm', 260), true, nullptr},        {DeepPath(u'n', 261), false, nullptr},
        {QB_StringW(), false, nullptr},
    };
    for (const auto& row : aRows)
    {
        EXPECT_EQ(MakeDirs(row.sPath), row.bResult) << QB_PathToSystem(std::u16string(row.sPath.View()));
        EXPECT_TRUE(!row.pszFolder || fs::is_directory(tmp.Sub(row.pszFolder))) << (row.pszFolder ? row.pszFolder : "");
    }
    EXPECT_TRUE(fs::is_directory(QB_PathToSystem(std::u16string(DeepPath(u'm', 260).View()))));
    EXPECT_FALSE(fs::exists(tmp.Sub(std::string(49, 'n'))));
    EXPECT_TRUE(fs::is_regular_file(tmp.Sub("locked")));
    EXPECT_FALSE(MakeDirs(static_cast<const char16_t*>(nullptr)));
}
