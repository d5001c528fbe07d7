// The platform layer, files on it, and the double that stands for a disk that crashes.
#include "QB_Env.h"
#include "QB_FaultEnv.h"
#include "QB_FileEx.h"
#include "QB_Library.h"
#include "QB_TestSupport.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include <sys/resource.h>

namespace fs = std::filesystem;

namespace {

std::u16string Wide(const QB_StringW& s) { return std::u16string(s.View()); }
QB_StringW W(const std::u16string& s) { return QB_StringW(std::u16string_view(s)); }

int LengthOnDisk(const std::string& sPath) { return fs::exists(sPath) ? (int)fs::file_size(sPath) : -1; }

}  // namespace

// What is not text in a path becomes the replacement character, each way.
TEST(Env, TurnsWindowsPathsIntoUtf8WithSlashesAndBack)
{
    const struct { std::u16string sWindows; std::string sSystem; bool bBothWays; } aRows[] = {
        {u"\\tmp\\a.txt", "/tmp/a.txt", true}, {u"caf\u00e9", "caf\xc3\xa9", true},
        {u"\xD83D\xDE00", "\xf0\x9f\x98\x80", true}, {u"a\xD800" u"b", "a\xef\xbf\xbd" "b", false},
        {std::u16string(u"ab\0cd", 5), "ab", false},
    };
    for (const auto& row : aRows)
        EXPECT_TRUE(QB_PathToSystem(row.sWindows) == row.sSystem && (!row.bBothWays || QB_PathFromSystem(row.sSystem) == row.sWindows))
            << row.sSystem;
    const std::pair<std::string, std::u16string> aFromSystem[] = {
        {"a\x80" "b", u"a\xFFFD" u"b"}, {"\xc0\xaf", u"\xFFFD\xFFFD"},  // overlong "/"
        {"\xed\xa0\x80", u"\xFFFD\xFFFD\xFFFD"},  // a surrogate
        {"\xc3" "a", u"\xFFFD" u"a"},  // a lead byte without its follower
    };
    for (const auto& [sSystem, sWindows] : aFromSystem)
        EXPECT_EQ(QB_PathFromSystem(sSystem), sWindows);
}

TEST(Env, TakesTheHomeFolderFromItsVariableWithOneLastBackslashElseTheProgramsFolder)
{
    QB_SetEnvironmentVariable("ROOMCRATE_HOME", "/srv/node2/");
    QB_Env* lpEnv = QB_GetDefaultEnv();
    EXPECT_EQ(lpEnv->GetModuleFolder(), u"\\srv\\node2\\");
    QB_SetEnvironmentVariable("ROOMCRATE_HOME", "");
    EXPECT_EQ(lpEnv->GetModuleFolder(), Wide(QB_ToWindowsPath(fs::read_symlink("/proc/self/exe").parent_path())) + u"\\");
    QB_SetEnvironmentVariable("ROOMCRATE_HOME", nullptr);
}

TEST(Env, ReportsAttributesFromTheModeBitsAndOpensOnlyPlainFiles)
{
    QB_TempFolder tmp;
    const std::pair<const char*, int> aFiles[] = {{"plain", 0644}, {"locked", 0444}, {"writeonly", 0200}};
    for (const auto& [pszName, nPerms] : aFiles)
        QB_WriteWholeFile(tmp.Sub(pszName), "x"), fs::permissions(tmp.Sub(pszName), fs::perms(nPerms));
    fs::create_directory(tmp.Sub("dir"));
    QB_Env* lpEnv = QB_GetDefaultEnv();
    const uint32_t ulMakeLocked = QB_FILE_WRITE | QB_FILE_CREATE_NEW | QB_FILE_ATTR_READONLY;
    EXPECT_TRUE(lpEnv->CloseFile(lpEnv->OpenFile(Wide(tmp.SubW("made locked")), ulMakeLocked)));
    const std::pair<const char*, uint32_t> aRows[] = {{"missing", QB_ATTR_INVALID}, {"dir", QB_ATTR_DIRECTORY},
        {"plain", QB_ATTR_NORMAL}, {"locked", QB_ATTR_READONLY}, {"writeonly", QB_ATTR_NORMAL},
        {"made locked", QB_ATTR_READONLY}};
    for (const auto& [pszName, ulAttr] : aRows)
        EXPECT_EQ(lpEnv->GetFileAttributes(Wide(tmp.SubW(pszName))), ulAttr) << pszName;
    for (const std::u16string& sPath : {Wide(tmp.SubW("dir")), std::u16string(u"/dev/null")})
        EXPECT_EQ(lpEnv->OpenFile(sPath, QB_FILE_READ), QB_INVALID_FILE) << QB_PathToSystem(sPath);
}

// More handles than the process may hold descriptors (the limit lowered
// for the while): those used longest ago are parked and taken back at their
// next use, with their position and their place in the sharing table. The
// result names the first check that failed.
TEST(Env, KeepsMoreFilesOpenThanTheProcessMayHoldDescriptors)
{
    QB_TempFolder tmp;
    constexpr int kFiles = 150;
    for (int i = 0; i < kFiles; ++i)
        QB_WriteWholeFile(tmp.Sub("f" + std::to_string(i)), "0123456789");
    auto fnRun = [&] {
        QB_Env* lpEnv = QB_GetDefaultEnv();
        std::vector<QB_FileHandle> vecFiles;
        for (int i = 0; i < kFiles; ++i)
        {
            vecFiles.push_back(lpEnv->OpenFile(Wide(tmp.SubW("f" + std::to_string(i))), 0x121));
            if (vecFiles.back() == QB_INVALID_FILE || lpEnv->SeekFile(vecFiles.back(), i % 10, QB_SEEK_BEGIN) != i % 10)
                return 2;
        }
        char ch = 0, chAt = 0;
        for (int i = 0; i < kFiles; ++i)
            if (lpEnv->ReadFile(vecFiles[i], &ch, 1) != 1 || ch != '0' + i % 10 ||
                lpEnv->ReadFileAt(vecFiles[i], 9, &chAt, 1) != 1 || chAt != '9')
                return 3;
        if (lpEnv->OpenFile(Wide(tmp.SubW("f0")), QB_FILE_READWRITE) != QB_INVALID_FILE)
            return 4;  // others may still not write
        // A parked handle whose name now names another file fails rather
        // than read the other file.
        QB_WriteWholeFile(tmp.Sub("other"), "abc");
        fs::rename(tmp.Sub("other"), tmp.Sub("f1"));
        for (int i = 2; i < kFiles; ++i)
            lpEnv->ReadFileAt(vecFiles[i], 0, &ch, 1);
        if (lpEnv->ReadFileAt(vecFiles[1], 0, &ch, 1) != -1)
            return 5;
        for (QB_FileHandle hFile : vecFiles)
            if (!lpEnv->CloseFile(hFile))
                return 6;
        return 0;
    };
    rlimit saved{};
    ASSERT_EQ(0, ::getrlimit(RLIMIT_NOFILE, &saved));
    const rlimit limit{32, saved.rlim_max};
    ASSERT_EQ(0, ::setrlimit(RLIMIT_NOFILE, &limit));
    const int nFailed = fnRun();
    ::setrlimit(RLIMIT_NOFILE, &saved);
    EXPECT_EQ(0, nFailed);
}

// Calls the platform cannot act on are refused, never guessed at; a plain file alone is deleted.
TEST(Env, RefusesWhatItCannotActOn)
{
    QB_TempFolder tmp;
    QB_WriteWholeFile(tmp.Sub("f"), "x");
    QB_WriteWholeFile(tmp.Sub("ro"), "x");
    fs::permissions(tmp.Sub("ro"), fs::perms::owner_read);
    fs::create_directories(tmp.Sub("dir"));
    QB_Env* lpEnv = QB_GetDefaultEnv();
    const std::u16string sFile = Wide(tmp.SubW("f")), sBase = Wide(tmp.PathW());
    const QB_FileHandle hNone = 4242;
    uint64_t ullDevice = 0, ullNumber = 0;
    QB_SystemTime st{};
    const QB_FileHandle hRead = lpEnv->OpenFile(sFile, QB_FILE_READ), hWrite = lpEnv->OpenFile(sFile, QB_FILE_WRITE);
    char ch = 0;
    auto fnBelow = [&](const char16_t* pszName) { return lpEnv->OpenFileBelow(sBase, pszName, 0x101, nullptr) != QB_INVALID_FILE; };
    const std::pair<const char*, std::function<bool()>> aRows[] = {
        {"open for no access", [&] { return lpEnv->OpenFile(sFile, 0x100) != QB_INVALID_FILE; }},
        {"write a read-only file", [&] { return lpEnv->OpenFile(Wide(tmp.SubW("ro")), 0x103) != QB_INVALID_FILE; }},
        {"open below through ..", [&] { return fnBelow(u"dir\\..\\f"); }},
        {"open below nothing", [&] { return fnBelow(u""); }},
        {"open below a missing name", [&] { return fnBelow(u"missing"); }},
        {"read a file opened for writing", [&] { return lpEnv->ReadFile(hWrite, &ch, 1) != -1; }},
        {"write a file opened for reading", [&] { return lpEnv->WriteFile(hRead, "y", 1) != -1; }},
        {"close no handle", [&] { return lpEnv->CloseFile(hNone); }},
        {"full path of nothing", [&] { return !lpEnv->GetFullPathName(u"").empty(); }},
        {"size of no handle", [&] { return lpEnv->GetFileSize(hNone) != -1; }},
        {"times of no handle", [&] { return lpEnv->GetFileTimes(hNone, &st, &st, &st); }},
        {"id of no handle", [&] { return lpEnv->GetFileId(hNone, &ullDevice, &ullNumber); }},
        {"move from no name", [&] { return lpEnv->MoveFile(u"", sFile); }},
        {"move onto a folder", [&] { return lpEnv->MoveFile(sFile, Wide(tmp.SubW("dir"))); }},
        {"sync no folder name", [&] { return lpEnv->FlushFolder(u""); }},
        {"sync a missing folder", [&] { return lpEnv->FlushFolder(Wide(tmp.SubW("missing"))); }},
        {"a variable without a name", [] { return QB_SetEnvironmentVariable("", "x"); }},
        {"local time into nothing", [&] { return lpEnv->GetLocalTime(nullptr), false; }},
        {"delete a folder", [&] { return QB_FileEx::Delete(tmp.SubW("dir")); }},
        {"delete a missing file", [&] { return QB_FileEx::Delete(tmp.SubW("missing")); }},
    };
    for (const auto& [pszName, fnCall] : aRows)
        EXPECT_FALSE(fnCall()) << pszName;
    EXPECT_TRUE(lpEnv->CloseFile(hRead) && lpEnv->CloseFile(hWrite));
    EXPECT_EQ(QB_ReadWholeFile(tmp.Sub("f")), std::vector<uint8_t>{'x'});
    EXPECT_TRUE(QB_FileEx::Delete(tmp.SubW("f")) && !fs::exists(tmp.Sub("f")) && fs::is_directory(tmp.Sub("dir")));
}

// ulFirst: a handle held open on the file before, 0 for none; nLengthAfter
// -1: no file. The file is opened under another spelling of its name.
TEST(FileEx, OpensByEachCreationModeAndRefusesWhatAnOpenHandlesSharingForbids)
{
    const struct { uint32_t ulFirst, ulMode; bool bExists, bOpens; int nLengthAfter; } aRows[] = {
        {0, 0x101, false, false, -1}, {0, 0x101, true, true, 5}, {0, 0x001, false, false, -1},  // must exist; 0x001 as 0x101
        {0, 0x100, true, false, 5}, {0, 0x203, false, true, 0}, {0, 0x203, true, true, 5},     // no access bits; open or create
        {0, 0x303, true, true, 0}, {0, 0x403, true, false, 5}, {0, 0x503, true, false, 5},     // replace; must not exist; none such
        {0x101, 0x103, true, true, 5},                                                         // no sharing bits: others read and write
        {0x121, 0x101, true, true, 5}, {0x121, 0x103, true, false, 5},
        {0x103, 0x121, true, false, 5},  // the second would deny the first's writing
        {0x121, 0x303, true, false, 5},  // refused, so nothing is cut
    };
    for (const auto& row : aRows)
    {
        SCOPED_TRACE(testing::Message() << std::hex << row.ulFirst << " " << row.ulMode << " " << row.bExists);
        QB_TempFolder tmp;
        if (row.bExists)
            QB_WriteWholeFile(tmp.Sub("f"), "hello");
        fs::create_directory(tmp.Sub("d"));
        QB_FileEx first, file;
        ASSERT_TRUE(row.ulFirst == 0 || first.Open(tmp.SubW("f"), row.ulFirst));
        EXPECT_EQ(file.Open(tmp.SubW("d/../f"), row.ulMode), row.bOpens);
        EXPECT_EQ(file.Close(), row.bOpens);
        EXPECT_EQ(LengthOnDisk(tmp.Sub("f")), row.nLengthAfter);
        first.Close();
        EXPECT_TRUE(row.ulFirst == 0 || file.Open(tmp.SubW("f"), row.ulMode)) << "after the first closed";
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
    const struct { int32_t nOffset; int nOrigin; int32_t nPos; } aSeeks[] = {
        {4, QB_SEEK_BEGIN, 4}, {-2, QB_SEEK_CURRENT, 2}, {-3, QB_SEEK_END, 7}, {-1, QB_SEEK_BEGIN, -1}, {0, 7, -1}};
    for (const auto& row : aSeeks)
        EXPECT_EQ(file.Seek(row.nOffset, row.nOrigin), row.nPos) << row.nOffset << " from " << row.nOrigin;
    EXPECT_EQ(file.Read(ach, 16), 3);
    EXPECT_EQ(file.Read(ach, 16), 0);
    // Cut at 7, then grown to 9 with zeros.
    EXPECT_TRUE(file.Seek(7, QB_SEEK_BEGIN) == 7 && file.SetEnd() && file.GetLength() == 7);
    EXPECT_TRUE(file.Seek(9, QB_SEEK_BEGIN) == 9 && file.SetEnd() && file.Close());
    EXPECT_EQ(QB_ReadWholeFile(tmp.Sub("f")), (std::vector<uint8_t>{'0', '1', '2', '3', '4', '5', '6', 0, 0}));
    // Closed, all fails but writing nothing.
    EXPECT_EQ((std::vector<int64_t>{file.Read(ach, 4), file.GetLength(), file.Seek(0, QB_SEEK_BEGIN), file.Write(ach, 1),
                                    file.Write(ach, 0), file.Write(ach, -1)}), (std::vector<int64_t>{-1, -1, -1, -1, 0, -1}));
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
    // The deepest folder made, nothing of the refused one, the locked file kept.
    EXPECT_TRUE(fs::is_directory(QB_PathToSystem(std::u16string(DeepPath(u'm', 260).View()))) &&
                !fs::exists(tmp.Sub(std::string(49, 'n'))) && fs::is_regular_file(tmp.Sub("locked")));
    EXPECT_FALSE(MakeDirs(static_cast<const char16_t*>(nullptr)));
}

// Each refusal of the library calls says why; a success clears the reason.
TEST(Library, EachFailureSaysWhyAndASuccessClearsIt)
{
    QB_LibraryHandle hLibrary = nullptr;
    const struct { const char* szName; bool bOk; std::function<bool()> fnCall; } aRows[] = {
        {"no path", false, [] { return QB_LoadLibrary("") != nullptr; }},
        {"no such file", false, [] { return QB_LoadLibrary("/nowhere/libnothing.so") != nullptr; }},
        {"the C library", true, [&] { return (hLibrary = QB_LoadLibrary("libc.so.6")) != nullptr; }},
        {"no such export", false, [&] { return QB_GetProcAddress(hLibrary, "no_such_export") != nullptr; }},
        {"no handle", false, [] { return QB_GetProcAddress(nullptr, "strlen") != nullptr; }},
        {"an export", true, [&] { return QB_GetProcAddress(hLibrary, "strlen") != nullptr; }},
        {"unload nothing", false, [] { return QB_FreeLibrary(nullptr); }},
        {"unload", true, [&] { return QB_FreeLibrary(hLibrary); }},
    };
    for (const auto& row : aRows)
    {
        EXPECT_EQ(row.bOk, row.fnCall()) << row.szName;
        EXPECT_EQ(row.bOk, QB_GetLibraryError().empty()) << row.szName;
    }
}

namespace {

// Files of one folder through a tracking double, by name; "a" holds "old"
// on disk when tracking begins.
struct CrashDisk
{
    QB_TempFolder tmp;
    QB_FaultEnv env;
    QB_ScopedEnv install{&env};
    CrashDisk() { QB_WriteWholeFile(tmp.Sub("a"), "old"), env.TrackDurability(); }

    std::u16string W(const char* pszName) const { return Wide(tmp.SubW(pszName)); }
    // Opens, acts and closes, as a store does between its syncs.
    void On(const char* pszName, uint32_t ulMode, const std::function<bool(QB_FileEx&)>& fnAct)
    {
        QB_FileEx file;
        ASSERT_TRUE(file.Open(tmp.SubW(pszName), ulMode) && fnAct(file)) << pszName;
    }
    void Append(const char* pszName, const std::string& s)
    {
        On(pszName, QB_FILE_READWRITE | QB_FILE_OPEN_ALWAYS,
           [&](QB_FileEx& f) { return f.WriteAt((uint32_t)f.GetLength(), s.data(), (int32_t)s.size()) == (int32_t)s.size(); });
    }
    void Replace(const char* pszName, const std::string& s)
    {
        On(pszName, QB_FILE_WRITE | QB_FILE_CREATE_ALWAYS, [&](QB_FileEx& f) { return f.Write(s.data(), (int32_t)s.size()) == (int32_t)s.size(); });
    }
    void Cut(const char* pszName, int32_t nLength)
    {
        On(pszName, QB_FILE_READWRITE | QB_FILE_OPEN_EXISTING, [&](QB_FileEx& f) { return f.Seek(nLength, QB_SEEK_BEGIN) == nLength && f.SetEnd(); });
    }
    void Sync(const char* pszName) { On(pszName, QB_FILE_READWRITE | QB_FILE_OPEN_EXISTING, [](QB_FileEx& f) { return f.Sync(); }); }
    void SyncFolder() { ASSERT_TRUE(env.FlushFolder(Wide(tmp.PathW()))); }
    std::string Now(const char* pszName) const
    {
        const std::vector<uint8_t> vb = QB_ReadWholeFile(tmp.Sub(pszName));
        return fs::exists(tmp.Sub(pszName)) ? std::string(vb.begin(), vb.end()) : "<none>";
    }
};

}  // namespace

// Names go back to their last folder sync whatever the loss; bytes to their
// last file sync, or not.
TEST(FaultEnv, CrashKeepsWhatWasSyncedAndUndoesTheRest)
{
    using L = QB_CrashLoss;
    const struct { const char* pszName; std::function<void(CrashDisk&)> fnAct; L loss; std::string sA, sB; } aRows[] = {
        {"bytes behind the last sync go", [](CrashDisk& d) { d.Append("a", "12"), d.Sync("a"), d.Append("a", "34"); },
         L::Dropped, "old12", "<none>"},
        {"or all reach the disk", [](CrashDisk& d) { d.Append("a", "12"), d.Sync("a"), d.Append("a", "34"); },
         L::Kept, "old1234", "<none>"},
        {"a file cut anew comes back", [](CrashDisk& d) { d.Replace("a", "x"); }, L::Dropped, "old", "<none>"},
        {"a cut comes back", [](CrashDisk& d) { d.Cut("a", 1); }, L::Dropped, "old", "<none>"},
        {"a cut to nothing comes back", [](CrashDisk& d) { d.Cut("a", 0); }, L::Dropped, "old", "<none>"},
        {"an empty file's growth goes", [](CrashDisk& d) { d.Replace("b", ""), d.Sync("b"), d.SyncFolder(), d.Cut("b", 2); },
         L::Dropped, "old", ""},
        {"a synced file goes with its unsynced name", [](CrashDisk& d) { d.Append("b", "new"), d.Sync("b"); },
         L::Kept, "old", "<none>"},
        {"a synced name keeps an unsynced file, empty", [](CrashDisk& d) { d.Append("b", "new"), d.SyncFolder(); },
         L::Dropped, "old", ""},
        {"a rename over a file is undone",
         [](CrashDisk& d) { d.Append("b", "new"), d.Sync("b"), d.SyncFolder(), d.env.MoveFile(d.W("b"), d.W("a")); },
         L::Dropped, "old", "new"},
        {"until its folder is synced",
         [](CrashDisk& d) { d.Append("b", "new"), d.Sync("b"), d.SyncFolder(), d.env.MoveFile(d.W("b"), d.W("a")), d.SyncFolder(); },
         L::Dropped, "new", "<none>"},
        {"a delete is undone", [](CrashDisk& d) { d.Append("a", "1"), d.env.DeleteFile(d.W("a")); }, L::Dropped, "old", "<none>"},
        {"unsynced bytes follow their file's move",
         [](CrashDisk& d) { d.Append("a", "12"), d.env.MoveFile(d.W("a"), d.W("b")), d.SyncFolder(); }, L::Dropped, "<none>", "old"},
        {"an open file moved takes its handle along",
         [](CrashDisk& d) {
             d.Append("a", "12");
             QB_FileEx file;
             ASSERT_TRUE(file.Open(d.tmp.SubW("a"), QB_FILE_READWRITE));
             d.env.MoveFile(d.W("a"), d.W("b"));
             file.WriteAt(5, "!", 1), file.Sync(), d.env.FlushFolder(Wide(QB_ToWindowsPath(d.tmp.Path())));
         },
         L::Dropped, "<none>", "old12!"},
        // Garbled: the unsynced bytes are all there, each of them changed.
        {"or garbled", [](CrashDisk& d) { d.Append("a", "1234"); }, L::Garbled, "old", "<none>"},
    };
    for (const auto& row : aRows)
    {
        SCOPED_TRACE(row.pszName);
        CrashDisk disk;
        row.fnAct(disk);
        disk.env.Crash(row.loss);
        disk.env.Restart();
        const std::string sA = disk.Now("a");
        if (row.loss == L::Garbled)
        {
            ASSERT_EQ(sA.size(), 7u);
            for (size_t i = 3; i < 7; ++i)
                EXPECT_NE(sA[i], "old1234"[i]) << i;
        }
        EXPECT_EQ(sA.substr(0, row.loss == L::Garbled ? 3 : std::string::npos), row.sA);
        EXPECT_EQ(disk.Now("b"), row.sB);
    }
}

// The byte that stops the machine fails; so does everything after it on the
// old handles, even after the restart, and every open until the restart.
TEST(FaultEnv, StopsAtAByteAndRefusesAllUntilRestart)
{
    CrashDisk disk;
    QB_FileEx file, other;
    ASSERT_TRUE(file.Open(disk.tmp.SubW("a"), QB_FILE_READWRITE | QB_FILE_OPEN_EXISTING));
    disk.env.CrashAtByte(5, QB_CrashLoss::Kept);
    EXPECT_TRUE(file.WriteAt(3, "abc", 3) == 3 && !disk.env.HasCrashed());
    EXPECT_TRUE(file.WriteAt(6, "def", 3) == -1 && disk.env.HasCrashed());
    char ch = 0;
    EXPECT_FALSE(file.ReadAt(0, &ch, 1) != -1 || other.Open(disk.tmp.SubW("a"), QB_FILE_READ));
    disk.env.Restart();
    EXPECT_TRUE(file.ReadAt(0, &ch, 1) == -1 && file.Read(&ch, 1) == -1 && other.Open(disk.tmp.SubW("a"), QB_FILE_READ));
    EXPECT_EQ(disk.Now("a"), "oldabcde");
}
