// The server's catalogue and the client's share record, each driven by a
// script of saves while the machine stops at every step and at every byte
// of the journal's first append: a start afterwards finds every save that was
// acknowledged, perhaps the one in flight, nothing half, and goes on saving.
#include "QB_FaultEnv.h"
#include "QB_TestSupport.h"
#include "records/ZV_FileCatalog.h"
#include "records/ZV_ShareLedger.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

namespace {

ZV_FileUploadInfo Row(uint16_t usFileID, uint32_t ulWritePos)
{
    ZV_FileBriefInfo brief;
    brief.SetFilePath(QB_StringU8("C:\\Users\\ann\\"));
    brief.SetFileOldName(QB_StringU8("notes.txt"));
    brief.SetFileLenth(1000);
    ZV_FileUploadInfo info;
    info.SetFileID(usFileID);
    info.SetFileNewName(QB_StringU8("notes.txt"));
    info.SetFileWritePos(ulWritePos);
    info.SetBriefInfo(brief);
    return info;
}

ZV_FileBriefInfo Shared(const char* pszName)
{
    ZV_FileBriefInfo brief;
    brief.SetFilePath(QB_StringU8("C:\\Users\\ann\\"));
    brief.SetFileOldName(QB_StringU8(pszName));
    brief.SetFileLenth(40000);
    return brief;
}

// One store: its saves in order (the quiet tick that folds the journal in
// among them), the one save made after a restart, and what a fresh object
// sees of it all.
struct Store
{
    const char* szName;
    // Saves acknowledged of the first nLimit before the machine stopped.
    std::function<size_t(QB_FaultEnv&, size_t nLimit)> fnRun;
    std::function<bool()> fnSaveMore;
    std::function<std::string()> fnView;
};

// Runs the script through `save`, folding in after the third save.
template <typename Object, typename Save>
size_t RunSaves(QB_FaultEnv& env, Object& object, const std::vector<Save>& vecSaves, size_t nLimit)
{
    size_t nAcked = 0;
    for (size_t i = 0; i < nLimit && i < vecSaves.size(); ++i)
    {
        if (!vecSaves[i](object) || env.HasCrashed())
            break;
        ++nAcked;
        if (nAcked == 3)
        {
            env.AdvanceTick(QB_IniJournal::kQuietMs);
            object.OnTimer();
        }
    }
    return nAcked;
}

using CatalogSave = std::function<bool(ZV_FileCatalog&)>;
const std::vector<CatalogSave> kCatalogSaves = {
    [](ZV_FileCatalog& c) { return c.SaveFile(12, Row(1, 10)); },
    [](ZV_FileCatalog& c) { return c.SaveFile(12, Row(2, 20)); },
    [](ZV_FileCatalog& c) { return c.SaveFile(12, Row(1, 11)); },
    [](ZV_FileCatalog& c) { return c.DeleteFile(12, 2); },
    [](ZV_FileCatalog& c) {
        QB_Array<ZV_FileUploadInfo> arrInfo;
        arrInfo.Add(Row(3, 30));
        arrInfo.Add(Row(4, 40));
        return c.SaveFiles(12, arrInfo, QB_Array<QB_StringW>());
    },
};

const ZV_LocalFileMark kMark{5, 9};

using LedgerSave = std::function<bool(ZV_ShareLedger&)>;
const std::vector<LedgerSave> kLedgerSaves = {
    [](ZV_ShareLedger& l) { return l.Remember(7, Shared("a.txt"), kMark); },
    [](ZV_ShareLedger& l) { return l.RememberDownload(7, 5, QB_StringU8("C:\\in\\five")); },
    [](ZV_ShareLedger& l) {
        QB_Array<ZV_FileBriefInfo> arrInfo;
        arrInfo.Add(Shared("b.txt"));
        arrInfo.Add(Shared("c.txt"));
        return l.Remember(7, arrInfo, {kMark, kMark});
    },
    [](ZV_ShareLedger& l) { return l.ForgetDownload(7, 5); },
    [](ZV_ShareLedger& l) { return l.RememberDownload(7, 6, QB_StringU8("C:\\in\\six")); },
};

bool OpenCatalog(ZV_FileCatalog& catalog)
{
    return catalog.Open() == zvCatalogOpened;
}

const Store kStores[] = {
    {"catalogue, fsinfo.ini",
     [](QB_FaultEnv& env, size_t nLimit) {
         ZV_FileCatalog catalog;
         return OpenCatalog(catalog) ? RunSaves(env, catalog, kCatalogSaves, nLimit) : 0;
     },
     [] {
         ZV_FileCatalog catalog;
         return OpenCatalog(catalog) && catalog.SaveFile(12, Row(9, 90));
     },
     [] {
         ZV_FileCatalog catalog;
         std::string sView;
         for (uint16_t usFileID : {1, 2, 3, 4, 9})
         {
             ZV_FileUploadInfo info;
             QB_StringW sSection;
             sView += catalog.Open() == zvCatalogOpened && catalog.LoadFile(12, usFileID, info, sSection)
                          ? std::to_string(info.m_ulFileWritePos) + " "
                          : "- ";
         }
         return sView;
     }},
    {"share record, fsshared.ini",
     [](QB_FaultEnv& env, size_t nLimit) {
         ZV_ShareLedger ledger;
         return RunSaves(env, ledger, kLedgerSaves, nLimit);
     },
     [] { return ZV_ShareLedger().Remember(7, Shared("z.txt"), kMark); },
     [] {
         ZV_ShareLedger ledger;
         std::string sView;
         for (const char* pszName : {"a.txt", "b.txt", "c.txt", "z.txt"})
             sView += ledger.Holds(7, Shared(pszName)) ? "1" : "0";
         sView += ledger.HoldsDownload(7, 5, QB_StringU8("C:\\in\\five")) ? "1" : "0";
         sView += ledger.HoldsDownload(7, 6, QB_StringU8("C:\\in\\six")) ? "1" : "0";
         return sView;
     }},
};

class Home
{
public:
    Home() { QB_SetEnvironmentVariable("ROOMCRATE_HOME", m_tmp.Path().c_str()); }
    ~Home() { QB_SetEnvironmentVariable("ROOMCRATE_HOME", nullptr); }
    const QB_TempFolder& Folder() const { return m_tmp; }

private:
    QB_TempFolder m_tmp;
};

} // namespace

// A tracking double on a fresh home, its clock held.
struct Machine
{
    Home home;
    QB_FaultEnv env;
    QB_ScopedEnv install{&env};
    Machine()
    {
        env.TrackDurability();
        env.SetTick(1);
    }
};

TEST(StoreCrash, NoAcknowledgedSaveIsLostWhereverTheMachineStops)
{
    constexpr size_t kSaves = 5;
    for (const Store& store : kStores)
    {
        SCOPED_TRACE(store.szName);
        // What a start sees after the first n saves, and after them and the
        // save made after a restart.
        std::vector<std::string> vecViews, vecThenMore;
        for (size_t n = 0; n <= kSaves; ++n)
        {
            Machine m;
            ASSERT_EQ(store.fnRun(m.env, n), n);
            vecViews.push_back(store.fnView());
            ASSERT_TRUE(store.fnSaveMore());
            vecThenMore.push_back(store.fnView());
        }
        int nCrashes = 0;
        for (bool bByByte : {false, true})
            for (QB_CrashLoss loss : {QB_CrashLoss::Dropped, QB_CrashLoss::Kept, QB_CrashLoss::Garbled})
                // By byte: every byte up to the end of the first append, the
                // journal's making and head included; a crash that drops what
                // was not synced is the same wherever the cut lies.
                for (int nAt = bByByte ? 0 : 1; !bByByte || loss != QB_CrashLoss::Dropped; ++nAt)
                {
                    SCOPED_TRACE((bByByte ? "byte " : "step ") + std::to_string(nAt) + " loss " +
                                 std::to_string((int)loss));
                    Machine m;
                    if (bByByte)
                        m.env.CrashAtByte(nAt, loss);
                    else
                        m.env.CrashAtStep(nAt, loss);
                    const size_t nAcked = store.fnRun(m.env, kSaves);
                    if (!m.env.HasCrashed())
                    {
                        EXPECT_EQ(nAcked, kSaves);
                        break;
                    }
                    ++nCrashes;
                    m.env.Restart();
                    const std::string sView = store.fnView();
                    const bool bInFlight = nAcked < kSaves && sView == vecViews[nAcked + 1];
                    ASSERT_TRUE(sView == vecViews[nAcked] || bInFlight) << nAcked << " acknowledged: " << sView;
                    ASSERT_TRUE(store.fnSaveMore());
                    m.env.Crash();
                    m.env.Restart();
                    EXPECT_EQ(store.fnView(), vecThenMore[nAcked + (bInFlight ? 1 : 0)]);
                    if (bByByte && nAcked >= 1)
                        break;
                }
        EXPECT_GT(nCrashes, 200);
    }
}
