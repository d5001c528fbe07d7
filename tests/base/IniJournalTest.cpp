// The journal beside an ini file. The oracle throughout is a plain
// QB_IniFileEx that takes the same changes and is flushed after each
// commit: whatever the journal went through, its rewritten file must hold
// those very bytes.
#include "QB_FaultEnv.h"
#include "QB_IniJournal.h"
#include "QB_TestSupport.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;

// One record's worth of change: sets on a section, or its removal.
struct Change
{
    std::u16string sSection;
    std::vector<std::pair<std::u16string, std::u16string>> vecSets;
    bool bRemove = false;
};
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
struct Disk
{
    QB_FaultEnv env;
    QB_ScopedEnv install{&env};
    Disk() { env.TrackDurability(); }
};

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

// A start on the folder's file, folded in, as bytes.
Bytes Restarted(const QB_TempFolder& tmp)
{
    QB_IniJournal journal(17, 17);
    EXPECT_TRUE(journal.Open(tmp.SubW("t.ini"), true));
    EXPECT_TRUE(journal.Rewrite());
    return QB_ReadWholeFile(tmp.Sub("t.ini"));
}

// Rows added, changed and removed, a batch of two, a comment, text beyond ASCII.
const std::vector<Commit> kScript = {
    {{u"A", {{u"k", u"1"}, {u"n", u"alpha"}}}}, {{u"B", {{u"k", u"2"}}}, {u"C", {{u"k", u"3"}}}},
    {{u"A", {{u"k", u"4"}}}}, {{u"B", {}, true}}, {{u"D", {{u"", u"a comment"}, {u"k", u"\u00e9\u4e2d"}}}},
};
const Bytes kStart = {0xFF, 0xFE, '[', 0, 'Z', 0, ']', 0, '\r', 0, '\n', 0, 'k', 0, '=', 0, '0', 0, '\r', 0, '\n', 0};
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
        if (!journal.Commit())
            break;
        ++nAcked;
        if (nAcked == kRewriteAfter && !journal.Rewrite())
            break;
        if (env.HasCrashed())
            break;
    }
    return nAcked;
}


}  // namespace

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
    auto fnReplayed = [&](const Bytes& vb) {
        QB_TempFolder damaged;
        QB_WriteWholeFile(damaged.Sub("t.ini"), kStart);
        QB_WriteWholeFile(damaged.Sub("t.ini.journal"), vb);
        return QB_ToHex(Restarted(damaged));
    };
    for (bool bCut : {false, true})
        for (size_t nAt = 0; nAt < vbJournal.size(); ++nAt)
        {
            SCOPED_TRACE((bCut ? "cut at " : "damaged at ") + std::to_string(nAt));
            Bytes vb = vbJournal;
            bCut ? vb.resize(nAt) : (void)(vb[nAt] ^= 0x20);
            size_t nWhole = 0;
            while (nWhole < vecEnds.size() && vecEnds[nWhole] <= nAt)
                ++nWhole;
            ASSERT_EQ(fnReplayed(vb), QB_ToHex(vecStates[nWhole]));
        }
    // Nothing to fold in: the next record goes behind an 8-byte head that
    // is whole, and the rest is cut first.
    for (size_t nAt : {4u, 8u, 10u})
    {
        QB_TempFolder cut;
        QB_WriteWholeFile(cut.Sub("t.ini"), kStart);
        QB_WriteWholeFile(cut.Sub("t.ini.journal"), Bytes(vbJournal.begin(), vbJournal.begin() + (long)nAt));
        QB_IniJournal journal(17, 17);
        ASSERT_TRUE(journal.Open(cut.SubW("t.ini"), true));
        EXPECT_EQ(journal.GetJournalBytes(), nAt >= 8 ? 8u : 0u) << nAt;
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
                    QB_FaultEnv env;
                    QB_ScopedEnv install(&env);
                    env.TrackDurability();
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
    disk.env.AdvanceTick(QB_IniJournal::kQuietMs - 1);
    journal.RewriteIfQuiet();
    EXPECT_EQ(QB_ToHex(QB_ReadWholeFile(tmp.Sub("t.ini"))), QB_ToHex(kStart));
    disk.env.AdvanceTick(1);
    journal.RewriteIfQuiet();
    EXPECT_EQ(journal.GetJournalBytes(), 0u);
    std::vector<Commit> vecCommits = {kScript[0]};
    auto fnOnDisk = [&] { return QB_ToHex(QB_ReadWholeFile(tmp.Sub("t.ini"))); };
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
        if (journal.GetJournalBytes() < ulBefore && ++nFolds)
        {
            EXPECT_EQ(fnOnDisk(), fnExpected());
        }
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
