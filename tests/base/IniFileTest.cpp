#include "QB_FaultEnv.h"
#include "QB_IniFileEx.h"
#include "QB_IniJournal.h"
#include "QB_TestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

using namespace std::literals;

namespace {

using Bytes = std::vector<uint8_t>;

Bytes Ansi(std::string_view s) { return Bytes(s.begin(), s.end()); }

// UTF-16 little-endian behind the byte-order mark.
Bytes Utf16(std::u16string_view s)
{
    Bytes vb = {0xFF, 0xFE};
    for (char16_t ch : s)
        vb.insert(vb.end(), {(uint8_t)(ch & 0xFF), (uint8_t)(ch >> 8)});
    return vb;
}

// An ini file of the given bytes in a fresh folder, opened as ANSI.
struct IniOn
{
    QB_TempFolder folder;
    std::string sPath = folder.Sub("t.ini");
    QB_IniFileEx ini;
    explicit IniOn(const Bytes& vbFile, uint32_t nSectionTable = 17) : ini(nSectionTable, 17)
    {
        QB_WriteWholeFile(sPath, vbFile);
        EXPECT_TRUE(ini.Open(QB_StringA(sPath.c_str()), false));
    }
    std::string OnDisk() const { return QB_ToHex(QB_ReadWholeFile(sPath)); }
};

// Opens the bytes, applies the change, flushes, and gives back what is on disk.
std::string Rewrite(const Bytes& vbFile, const std::function<void(QB_IniFileEx&)>& fnChange = {})
{
    IniOn on(vbFile);
    if (fnChange)
        fnChange(on.ini);
    EXPECT_TRUE(on.ini.Flush());
    return on.OnDisk();
}

std::vector<std::string> SectionNames(const QB_IniFileEx& ini)
{
    QB_Array<QB_StringA> arrNames;
    ini.GetSectionNames(arrNames);
    std::vector<std::string> v;
    for (int i = 0; i < arrNames.GetSize(); ++i)
        v.emplace_back(arrNames.GetAt(i).GetString());
    return v;
}

// The journal beside an ini file: its oracle is a plain QB_IniFileEx that
// takes the same changes and is flushed after each commit. A change of one
// record sets keys of a section, or removes it.
struct Change { std::u16string sSection; std::vector<std::pair<std::u16string, std::u16string>> vecSets; bool bRemove = false; };
using Commit = std::vector<Change>;

QB_StringW W(const std::u16string& s) { return QB_StringW(s.data(), (int)s.size()); }

template <typename Store>
void Apply(Store& store, const Commit& commit)
{
    for (const Change& change : commit)
    {
        if (change.bRemove)
            store.DeleteSection(W(change.sSection));
        for (const auto& [sKey, sValue] : change.vecSets)
            store.SetString(W(change.sSection), W(sKey), W(sValue));
    }
}

// A tracking double spares the disk's syncs, here and in the tests below.
struct Disk { QB_FaultEnv env; QB_ScopedEnv install{&env}; Disk() { env.TrackDurability(); } };

// What a flush after every commit leaves, for the first nCommits commits.
Bytes Reference(const Bytes& vbStart, const std::vector<Commit>& vecCommits, size_t nCommits)
{
    Disk disk;
    QB_TempFolder tmp;
    if (!vbStart.empty())
        QB_WriteWholeFile(tmp.Sub("t.ini"), vbStart);
    QB_IniFileEx ini(17, 17);
    EXPECT_TRUE(ini.Open(tmp.SubW("t.ini"), true) && ini.Flush());
    for (size_t i = 0; i < nCommits; ++i)
    {
        Apply(ini, vecCommits[i]);
        EXPECT_TRUE(ini.Flush());
    }
    return QB_ReadWholeFile(tmp.Sub("t.ini"));
}

// A start on the folder's file, folded in, as bytes; and the journal's
// valid bytes as the start left them, if asked.
Bytes Restarted(const QB_TempFolder& tmp, uint32_t* pulJournalBytes = nullptr)
{
    QB_IniJournal journal(17, 17);
    EXPECT_TRUE(journal.Open(tmp.SubW("t.ini"), true));
    if (pulJournalBytes != nullptr)
        *pulJournalBytes = journal.GetJournalBytes();
    EXPECT_TRUE(journal.Rewrite());
    return QB_ReadWholeFile(tmp.Sub("t.ini"));
}

// Rows added, changed and removed, a batch of two, a comment, text beyond ASCII.
const std::vector<Commit> kScript = {
    {{u"A", {{u"k", u"1"}, {u"n", u"alpha"}}}}, {{u"B", {{u"k", u"2"}}}, {u"C", {{u"k", u"3"}}}},
    {{u"A", {{u"k", u"4"}}}}, {{u"B", {}, true}}, {{u"D", {{u"", u"a comment"}, {u"k", u"\u00e9\u4e2d"}}}},
};
const Bytes kStart = Utf16(u"[Z]\r\nk=0\r\n");
constexpr size_t kRewriteAfter = 3;
const Commit kAfterRecovery = {{u"A", {{u"n", u"after"}}}};

// Runs the script until the machine stops; gives the commits acknowledged.
size_t RunScript(QB_FaultEnv& env, const QB_TempFolder& tmp)
{
    QB_IniJournal journal(17, 17);
    if (!journal.Open(tmp.SubW("t.ini"), true))
        return 0;
    size_t nAcked = 0;
    for (const Commit& commit : kScript)
    {
        Apply(journal, commit);
        if (!journal.Commit() || (++nAcked == kRewriteAfter && !journal.Rewrite()) || env.HasCrashed())
            break;
    }
    return nAcked;
}

}  // namespace

// An empty vbOut: the very bytes read.
TEST(IniFile, WritesEveryLineBackAsItWasRead)
{
    struct Row { const char* pszName; Bytes vbIn, vbOut; } rows[] = {
        {"comments, blanks, unknown lines and spaces", Ansi(";top\r\n[s]\r\n a = b \r\n\r\n;c\r\njunk\r\n=\r\n[x\r\n"),
         {}},
        {"last line without its end", Ansi("[s]\r\na=1"), Ansi("[s]\r\na=1\r\n")},
        {"line ends and zeros at the end", Ansi("[s]\r\na=1\r\n\r\n\n\0\0"sv), Ansi("[s]\r\na=1\r\n")},
        {"text before the first section", Ansi("hello\r\n;c\r\n=;d\r\n[a=b]\r\n[s]\r\n"), Ansi("\r\n;c\r\n=;d\r\n\r\n[s]\r\n")},
        {"an ANSI line ends at a zero byte", Ansi("[s]\r\nk=1\0junk\r\n[t]\n\0x"sv), Ansi("[s]\r\nk=1\r\n[t]\n\r\n")},
        {"a lone LF splits nothing", Ansi("[s]\na=1\r\n"), Ansi("\r\n")},
        {"a CR before CR LF stays", Ansi("[s]\r\na=1\r\r\nb\r\n"), {}},
        {"Windows-1252 bytes", Ansi("[s\xE9]\r\nk=\x80\x81\x9F\xFF\r\n"), {}}, {"an empty file", Ansi(""), Ansi("")},
        {"UTF-16 with every kind of line", Utf16(u";top\r\n[s]\r\nk=\u4E2D\r\n\r\n;c\r\n\u00FF\r\n"), {}},
        {"half a UTF-16 character at the end", {0xFF, 0xFE, '[', 0, 's', 0, ']', 0, 'x'}, Utf16(u"[s]\r\n")},
    };
    for (const Row& row : rows)
        EXPECT_EQ(Rewrite(row.vbIn), QB_ToHex(row.vbOut.empty() ? row.vbIn : row.vbOut)) << row.pszName;
}

TEST(IniFile, ReadsTheFirstKeyOfTheFirstSectionByNameWithoutRegardToCase)
{
    struct Row { const char* pszFile; const char* pszSection; const char* pszKey; const char* pszValue; } rows[] = {
        {"[s]\r\na=b=c\r\n", "s", "a", "b=c"}, {"[s]\r\n[a=b]\r\n", "[s]", "[a", "b]"},
        {"[S]\r\nKey=v\r\n", "[s", "kEY", "v"}, {"[s]\r\na=1\r\na=2\r\n", "s", "a", "1"},
        {"[s]\r\na=1\r\n[s]\r\na=2\r\n", "s]", "a", "1"}, {"a=1\r\n[s]\r\n", "s", "a", "-"},
    };
    for (const Row& row : rows)
        EXPECT_STREQ(IniOn(Ansi(row.pszFile)).ini.GetString(row.pszSection, row.pszKey, "-").GetString(), row.pszValue)
            << row.pszFile;
}

TEST(IniFile, ReadsNumbersAndGivesTheDefaultForAValueOfError)
{
    struct Row { const char* pszValue; int32_t nExpected; } rows[] = {
        {"error", 77}, {"42", 42}, {" \t-7 apples", -7}, {"+5", 5}, {"x1", 0}, {"", 0},
        {"-2147483648", INT32_MIN}, {"99999999999", INT32_MAX}, {"-99999999999999999999999", INT32_MIN},
        {"ERROR", 0}, {"\r\n3", 3}, {"\x0e" "4", 0}, {"\x08" "4", 0},
    };
    QB_IniFileEx ini;
    for (const Row& row : rows)
    {
        ASSERT_TRUE(ini.SetString("s", "n", row.pszValue));
        EXPECT_EQ(ini.GetLong("s", "n", 77), row.nExpected) << row.pszValue;
    }
    EXPECT_EQ(ini.GetLong(u"s", u"missing", 77), 77);
}

// The walk that reads numbers of every section at once gives what the
// names and GetLong give one by one, repeated sections and odd lines too.
TEST(IniFile, ReadsTheNumbersOfEverySectionInOneWalkAsGetLongDoes)
{
    IniOn on(Ansi("[a]\r\nC=1\r\nF=2\r\n[B]\r\nf=7\r\nc=error\r\n[a]\r\nC=5\r\nF=6\r\n[x=y]\r\nC=3\r\n[e]\r\n"
                  "c= -4 apples\r\nF=99999999999\r\n"),
             3);
    QB_IniFileEx& ini = on.ini;
    const std::vector<QB_StringW> vecKeys = {u"c", u"F", u"g=h"};
    QB_Array<QB_StringW> arrNames;
    std::vector<int32_t> vecValues;
    ini.GetSectionLongs(vecKeys, 77, arrNames, vecValues);
    QB_Array<QB_StringW> arrExpected;
    ini.GetSectionNames(arrExpected);
    ASSERT_EQ(arrExpected.GetSize(), arrNames.GetSize());
    ASSERT_EQ(vecKeys.size() * (size_t)arrNames.GetSize(), vecValues.size());
    for (int i = 0; i < arrNames.GetSize(); ++i)
    {
        EXPECT_TRUE(arrNames[i] == arrExpected[i]) << i;
        for (size_t k = 0; k < vecKeys.size(); ++k)
            EXPECT_EQ(ini.GetLong(arrNames[i], vecKeys[k], 77), vecValues[vecKeys.size() * (size_t)i + k])
                << QB_StringA(arrNames[i]).GetString() << " " << k;
    }
}

TEST(IniFile, PutsEverySetKeyDirectlyBehindItsSectionLine)
{
    const std::string sFile = Rewrite(Ansi("[s]\r\nx=0\r\njunk\r\nd=1\r\nd=2\r\n[t]\r\n"), [](QB_IniFileEx& ini) {
        EXPECT_TRUE(ini.SetString("s", "a", "1") && ini.SetLong("[s]", "b", -5) && ini.SetString("S", "A", "2") &&
                    ini.SetBool(u"s", u"c", true) && ini.SetString("s", "d", "9") && ini.SetString("s", "a", "3") &&
                    ini.SetString("t", "", "note") && ini.SetBool("new", "k", false));
        EXPECT_FALSE(ini.SetString("", "k", "1") || ini.SetString("s", "a=b", "1"));
    });
    EXPECT_EQ(sFile, QB_ToHex(Ansi("[s]\r\na=3\r\nd=9\r\nc=1\r\nb=-5\r\nx=0\r\njunk\r\nd=2\r\n"
                                               "[t]\r\n;note\r\n[new]\r\nk=0\r\n")));
}

TEST(IniFile, DeletesEveryOccurrenceOfARepeatedSectionWithItsLines)
{
    IniOn on(Ansi("[a]\r\nk=1\r\n;c\r\n[b]\r\nk=2\r\n[A]\r\nk=3\r\njunk\r\n\r\n[c]\r\n"));
    QB_IniFileEx& ini = on.ini;
    EXPECT_EQ(SectionNames(ini), (std::vector<std::string>{"[c]", "[b]", "[a]", "[A]"}));
    EXPECT_TRUE(ini.DeleteSection("a"));
    EXPECT_FALSE(ini.DeleteSection("a") || ini.DeleteSection("a=b"));
    EXPECT_EQ(SectionNames(ini), (std::vector<std::string>{"[c]", "[b]"}));
    EXPECT_EQ(ini.GetLong("b", "k", 0), 2);
    EXPECT_TRUE(ini.Flush());
    EXPECT_EQ(on.OnDisk(), QB_ToHex(Ansi("[b]\r\nk=2\r\n[c]\r\n")));
    EXPECT_TRUE(ini.DeleteSection(u"b") && ini.DeleteSection(u"[c]"));
    QB_Array<QB_StringW> arrNames;
    EXPECT_FALSE(ini.GetSectionNames(arrNames));
}

// Thousands of sections in a 17-bucket table make chains of hundreds: they
// are found all the same, without a warning, and walk in the table's order,
// which a plain map of that size fed in file order gives.
TEST(IniFile, OpensThousandsOfSectionsQuietlyAndKeepsTheWalkOfItsTable)
{
    constexpr int kSections = 3000;
    std::string sFile;
    QB_Map<QB_IniKey, int, QB_IniKeyHash> mapOracle(17);
    for (int i = 0; i < kSections; ++i)
    {
        sFile += "[S" + std::to_string(i) + "]\r\nk=" + std::to_string(i) + "\r\n";
        mapOracle.AddNew(QB_IniKey(QB_StringW(QB_StringA(("[S" + std::to_string(i) + "]").c_str())), 1)) = i;
    }
    sFile += "[s0]\r\nk=-1\r\n";
    mapOracle.AddNew(QB_IniKey(QB_StringW(u"[s0]"), 2)) = -1;
    testing::internal::CaptureStdout();
    IniOn on(Ansi(sFile));
    QB_IniFileEx& ini = on.ini;
    for (int i = 0; i < kSections; i += 7)
        if (ini.GetLong(("S" + std::to_string(i)).c_str(), "k", -2) != i)
            ADD_FAILURE() << "S" << i << " not found";
    EXPECT_TRUE(ini.SetString("S5", "k", "new") && ini.DeleteSection("S6") && ini.SetString("S6", "k", "again"));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_STREQ(ini.GetString("S5", "k", "-").GetString(), "new");
    // Each flush writes what the blocks hold now, also after an earlier one.
    auto fnReplace = [&](const std::string& sOld, const std::string& sNew) { sFile.replace(sFile.find(sOld), sOld.size(), sNew); };
    fnReplace("[S5]\r\nk=5\r\n", "[S5]\r\nk=new\r\n");
    fnReplace("[S6]\r\nk=6\r\n", "");
    sFile += "[S6]\r\nk=again\r\n";
    ASSERT_TRUE(ini.Flush());
    EXPECT_TRUE(QB_ReadWholeFile(on.sPath) == Ansi(sFile)) << "first flush";
    ASSERT_TRUE(ini.SetString("S7", "x", "1") && ini.Flush());
    fnReplace("[S7]\r\n", "[S7]\r\nx=1\r\n");
    EXPECT_TRUE(QB_ReadWholeFile(on.sPath) == Ansi(sFile)) << "second flush";
    mapOracle.RemoveKey(QB_IniKey(QB_StringW(u"[S6]"), 1));
    mapOracle.AddNew(QB_IniKey(QB_StringW(u"[S6]"), 1)) = 6;
    std::vector<std::string> vecExpected;
    QB_IniKey key;
    int nValue = 0;
    for (QB_POSITION pos = mapOracle.GetStartPosition(); pos; vecExpected.emplace_back(QB_StringA(key.m_sName).GetString()))
        mapOracle.GetNextAssoc(pos, key, nValue);
    EXPECT_EQ(SectionNames(ini), vecExpected);
}

TEST(IniFile, StartsANewFileInTheFormAskedForAndCarriesNarrowTextThroughWindows1252)
{
    struct Row { bool bUnicode; Bytes vbAfterOpen, vbAfterFlush; } rows[] = {
        {true, Utf16(u""), Utf16(u"\r\n[s]\r\nk=\u20AC\r\n")}, {false, Ansi(""), Ansi("[s]\r\nk=\x80\r\n")},
    };
    for (const Row& row : rows)
    {
        QB_TempFolder folder;
        QB_IniFileEx ini;
        ASSERT_TRUE(ini.Open(folder.SubW("new.ini"), row.bUnicode));
        EXPECT_EQ(QB_ToHex(QB_ReadWholeFile(folder.Sub("new.ini"))), QB_ToHex(row.vbAfterOpen));
        QB_StringA sValue;
        EXPECT_TRUE(ini.SetString("s", "k", "\x80") && ini.GetString("s", "k", sValue, "x") && ini.Flush());
        EXPECT_TRUE(sValue == "\x80" && !ini.GetString("s", "none", sValue, "x")) << "narrow text goes through Windows-1252";
        EXPECT_EQ(QB_ToHex(QB_ReadWholeFile(folder.Sub("new.ini"))), QB_ToHex(row.vbAfterFlush));
    }
}

// The read-only attribute alone refuses a flush: the file is not even
// opened. Changes stay in memory through every refusal.
TEST(IniFile, KeepsChangesInMemoryWhenTheFileIsReadOnlyOrThePlatformFails)
{
    namespace fs = std::filesystem;
    QB_TempFolder folder;
    const std::string sPath = folder.Sub("t.ini");
    QB_WriteWholeFile(sPath, "[s]\r\nk=1\r\n");
    Disk disk;
    QB_FaultEnv& env = disk.env;
    QB_IniFileEx ini;
    EXPECT_FALSE(ini.Flush()) << "no file yet";
    env.FailAt(QB_EnvOp::Read, 1);
    EXPECT_FALSE(ini.Open(QB_StringA(sPath.c_str()), false));
    EXPECT_EQ(ini.GetLong("s", "k", -1), -1);
    ASSERT_TRUE(ini.Open(QB_StringA(sPath.c_str()), false) && ini.SetString("s", "k", "2"));
    fs::permissions(sPath, fs::perms::owner_write, fs::perm_options::remove);
    env.ResetCounts();
    EXPECT_FALSE(ini.Flush());
    EXPECT_EQ(env.GetCount(QB_EnvOp::Open), 0);
    fs::permissions(sPath, fs::perms::owner_write, fs::perm_options::add);
    env.FailAt(QB_EnvOp::Write, 1);
    EXPECT_FALSE(ini.Flush());
    EXPECT_TRUE(ini.Flush()) << "the change is still there to write";
    EXPECT_EQ(QB_ToHex(QB_ReadWholeFile(sPath)), QB_ToHex(Ansi("[s]\r\nk=2\r\n")));
}

// No line end in ten megabytes, of a key and of junk before any section.
TEST(IniFile, TakesATenMegabyteLineWithoutLineEnds)
{
    const size_t nLine = 10u << 20;
    EXPECT_EQ(IniOn(Ansi("[s]\r\nkey=" + std::string(nLine, 'v'))).ini.GetString(u"s", u"key", u"").GetLength(), (int)nLine);
    EXPECT_TRUE(SectionNames(IniOn(Bytes(nLine, 'x')).ini).empty());
}

// Each byte of a journal damaged in turn, and the journal cut at each
// length: the records wholly before the damage are replayed, none after.
TEST(IniJournal, ReplaysNothingFromTheFirstDamagedOrMissingByteOn)
{
    Disk disk;
    QB_TempFolder tmp;
    QB_WriteWholeFile(tmp.Sub("t.ini"), kStart);
    std::vector<size_t> vecEnds;  // journal length after each commit
    {
        QB_IniJournal journal(17, 17);
        ASSERT_TRUE(journal.Open(tmp.SubW("t.ini"), true));
        for (const Commit& commit : kScript)
        {
            Apply(journal, commit);
            ASSERT_TRUE(journal.Commit());
            vecEnds.push_back(journal.GetJournalBytes());
        }
    }
    const Bytes vbJournal = QB_ReadWholeFile(tmp.Sub("t.ini.journal"));
    ASSERT_EQ(vbJournal.size(), vecEnds.back());
    std::vector<Bytes> vecStates;
    for (size_t n = 0; n <= kScript.size(); ++n)
        vecStates.push_back(Reference(kStart, kScript, n));
    auto fnReplayed = [&](const Bytes& vb, uint32_t* pulJournalBytes = nullptr) {
        QB_TempFolder damaged;
        QB_WriteWholeFile(damaged.Sub("t.ini"), kStart);
        QB_WriteWholeFile(damaged.Sub("t.ini.journal"), vb);
        return QB_ToHex(Restarted(damaged, pulJournalBytes));
    };
    for (bool bCut : {false, true})
        for (size_t nAt = 0; nAt < vbJournal.size(); ++nAt)
        {
            SCOPED_TRACE((bCut ? "cut at " : "damaged at ") + std::to_string(nAt));
            Bytes vb = vbJournal;
            bCut ? vb.resize(nAt) : (void)(vb[nAt] ^= 0x20);
            uint32_t ulJournalBytes = 0;
            // The commits whose records end at or before the damage come back.
            ASSERT_EQ(fnReplayed(vb, &ulJournalBytes), QB_ToHex(vecStates[std::upper_bound(vecEnds.begin(), vecEnds.end(), nAt) - vecEnds.begin()]));
            // With nothing to fold in, the next record goes behind an 8-byte head that is whole.
            EXPECT_EQ(ulJournalBytes, nAt >= 8 && nAt < vecEnds[0] ? 8u : 0u);
        }
    // A record whose checksum holds but whose body does not parse ends the
    // replay just the same: the commit after it is not applied either. The
    // first row, well formed, shows the seal is right.
    const Bytes vbOne = {1, 0, 0, 0}, vbKeys = {1, 0, 0, 0, 1, 1, 0, 0, 0, 'A', 0};
    const struct { const char* szName; Bytes vbBody; size_t nCommits; } aBodies[] = {
        {"an empty commit", {0, 0, 0, 0}, 2}, {"no count of changes", {}, 1}, {"no kind", vbOne, 1},
        {"a kind of neither sort", {1, 0, 0, 0, 7, 0, 0, 0, 0, 0, 0, 0, 0}, 1},
        {"a section name longer than the body", {1, 0, 0, 0, 1, 100, 0, 0, 0}, 1}, {"no count of keys", vbKeys, 1},
        {"a key without its value", [&] { Bytes vb = vbKeys; vb.insert(vb.end(), {1, 0, 0, 0, 0, 0, 0, 0}); return vb; }(), 1},
        {"a byte past the last change", {0, 0, 0, 0, 9}, 1},
    };
    for (const auto& row : aBodies)
    {
        Bytes vbSealed(8 + row.vbBody.size());
        const uint32_t ulLen = (uint32_t)row.vbBody.size();
        for (int i = 0; i < 4; ++i)
            vbSealed[i] = (uint8_t)(ulLen >> (8 * i));
        std::copy(row.vbBody.begin(), row.vbBody.end(), vbSealed.begin() + 8);
        // CRC-32C of the length and the body, bit by bit.
        uint32_t ulCrc = 0xFFFFFFFF;
        for (size_t i = 0; i < vbSealed.size(); i += (i == 3 ? 5 : 1))
        {
            ulCrc ^= vbSealed[i];
            for (int k = 0; k < 8; ++k)
                ulCrc = (ulCrc >> 1) ^ (0x82F63B78 & (0u - (ulCrc & 1)));
        }
        for (int i = 0; i < 4; ++i)
            vbSealed[4 + i] = (uint8_t)(~ulCrc >> (8 * i));
        Bytes vb(vbJournal.begin(), vbJournal.begin() + (long)vecEnds[0]);
        vb.insert(vb.end(), vbSealed.begin(), vbSealed.end());
        vb.insert(vb.end(), vbJournal.begin() + (long)vecEnds[0], vbJournal.begin() + (long)vecEnds[1]);
        EXPECT_EQ(fnReplayed(vb), QB_ToHex(vecStates[row.nCommits])) << row.szName;
    }
}

// A crash at every step of the script (the first start, appends, the
// rewrite and the fresh start of the journal) losing, keeping or garbling what was not synced,
// and at every byte it writes keeping or garbling the bytes before the cut
// (a crash that loses them is the same wherever the cut lies): the start
// after it finds every acknowledged commit, perhaps the one in flight,
// nothing half, and the journal goes on working.
TEST(IniJournal, LosesNoAcknowledgedChangeWhereverTheMachineStops)
{
    // A file there before, and one the first start makes (its steps only).
    for (const Bytes& vbStart : {kStart, Bytes{}})
    {
        std::vector<Bytes> vecStates, vecRecovered;
        for (size_t n = 0; n <= kScript.size(); ++n)
        {
            vecStates.push_back(Reference(vbStart, kScript, n));
            std::vector<Commit> vecThenMore(kScript.begin(), kScript.begin() + (long)n);
            vecThenMore.push_back(kAfterRecovery);
            vecRecovered.push_back(Reference(vbStart, vecThenMore, n + 1));
        }
        int nCrashes = 0;
        for (bool bByByte : {false, true})
            for (QB_CrashLoss loss : {QB_CrashLoss::Dropped, QB_CrashLoss::Kept, QB_CrashLoss::Garbled})
                for (int nAt = bByByte ? 0 : 1; !bByByte || (loss != QB_CrashLoss::Dropped && !vbStart.empty()); ++nAt)
                {
                    SCOPED_TRACE((bByByte ? "byte " : "step ") + std::to_string(nAt) + " loss " +
                                 std::to_string((int)loss) + (vbStart.empty() ? " new file" : ""));
                    QB_TempFolder tmp;
                    if (!vbStart.empty())
                        QB_WriteWholeFile(tmp.Sub("t.ini"), vbStart);
                    Disk disk;
                    QB_FaultEnv& env = disk.env;
                    if (bByByte)
                        env.CrashAtByte(nAt, loss);
                    else
                        env.CrashAtStep(nAt, loss);
                    const size_t nAcked = RunScript(env, tmp);
                    if (!env.HasCrashed())
                    {
                        EXPECT_EQ(nAcked, kScript.size());
                        break;
                    }
                    ++nCrashes;
                    env.Restart();
                    const Bytes vbAfter = Restarted(tmp);
                    const bool bInFlight = nAcked < kScript.size() && vbAfter == vecStates[nAcked + 1];
                    ASSERT_TRUE(vbAfter == vecStates[nAcked] || bInFlight)
                        << nAcked << " acknowledged: " << QB_ToHex(vbAfter);
                    {
                        QB_IniJournal journal(17, 17);
                        ASSERT_TRUE(journal.Open(tmp.SubW("t.ini"), true));
                        Apply(journal, kAfterRecovery);
                        ASSERT_TRUE(journal.Commit());
                    }
                    env.Crash();
                    env.Restart();
                    EXPECT_EQ(QB_ToHex(Restarted(tmp)), QB_ToHex(vecRecovered[nAcked + (bInFlight ? 1 : 0)]));
                }
        EXPECT_GT(nCrashes, vbStart.empty() ? 50 : 300);
    }
}

// Changes stay in the journal alone until it outgrows its bound or the
// changes stop for a while; either way the ini file is then rewritten and
// the journal starts afresh.
TEST(IniJournal, FoldsTheJournalInPastItsBoundOrAfterAQuietSpell)
{
    QB_TempFolder tmp;
    QB_WriteWholeFile(tmp.Sub("t.ini"), kStart);
    Disk disk;
    disk.env.SetTick(1000);
    QB_IniJournal journal(17, 17);
    ASSERT_TRUE(journal.Open(tmp.SubW("t.ini"), true));
    Apply(journal, kScript[0]);
    ASSERT_TRUE(journal.Commit());
    auto fnOnDisk = [&] { return QB_ToHex(QB_ReadWholeFile(tmp.Sub("t.ini"))); };
    disk.env.AdvanceTick(QB_IniJournal::kQuietMs - 1), journal.RewriteIfQuiet();
    EXPECT_EQ(fnOnDisk(), QB_ToHex(kStart));
    disk.env.AdvanceTick(1), journal.RewriteIfQuiet();
    EXPECT_EQ(journal.GetJournalBytes(), 0u);
    std::vector<Commit> vecCommits = {kScript[0]};
    auto fnExpected = [&] { return QB_ToHex(Reference(kStart, vecCommits, vecCommits.size())); };
    EXPECT_EQ(fnOnDisk(), fnExpected());
    int nFolds = 0;
    for (int i = 0; i < 40; ++i)
    {
        const uint32_t ulBefore = journal.GetJournalBytes();
        vecCommits.push_back({{u"A", {{u"big", std::u16string(16384, u'v') + (char16_t)(u'a' + i % 26)}}}});
        Apply(journal, vecCommits.back());
        ASSERT_TRUE(journal.Commit());
        EXPECT_LT(journal.GetJournalBytes(), QB_IniJournal::kMinRewriteBytes);
        EXPECT_TRUE(journal.GetJournalBytes() >= ulBefore || (++nFolds, fnOnDisk() == fnExpected())) << "fold at " << i;
    }
    EXPECT_EQ(nFolds, 1);

    // Commits the disk refuses keep nothing queued: the first one it takes
    // again folds every change in, and the journal starts afresh.
    disk.env.FailAt(QB_EnvOp::Open, 1, true);
    for (int i = 0; i < 4; ++i)
    {
        if (i == 3)
            disk.env.ClearFaults();
        vecCommits.push_back({{u"B", {{u"k" + std::u16string(1, (char16_t)(u'0' + i)), u"v"}}}});
        Apply(journal, vecCommits.back());
        EXPECT_EQ(journal.Commit(), i == 3) << i;
    }
    EXPECT_EQ(journal.GetJournalBytes(), 0u);
    EXPECT_EQ(fnOnDisk(), fnExpected());
}
