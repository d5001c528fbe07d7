// Every road under file faults (each Nth operation of each kind fails, once
// and for good: told or finished, saved rows kept, the retry finishes) and
// under a crash at every step (no whole file's row lost, no stored file
// without a row, the retry finishes after the restart).
#include "ZV_SceneFixture.h"

#include "QB_IniFileEx.h"
#include "wire/ZV_RecordStream.h"

#include <functional>
#include <set>

namespace {

const ZV_Bytes kData = ZV_RandomBytes(40000, 30);  // two blocks and a bit

// Event 3013's FileIDs and its count of descriptions (more: some refused).
std::pair<std::vector<uint16_t>, int> ReadBatch(const ZV_SimEntry& event)
{
    QB_ByteStream stream(event.vbData.data(), (int32_t)event.vbData.size());
    stream.Skip(6);
    QB_Array<uint16_t> arrFileID;
    LoadU16Array(stream, arrFileID);
    QB_Array<ZV_FileBriefInfo> arrInfo;
    LoadSequence(stream, arrInfo);
    return {std::vector<uint16_t>(arrFileID.GetData(), arrFileID.GetData() + arrFileID.GetSize()), arrInfo.GetSize()};
}

struct SweepScene : public ZV_Scene
{
    void TestBody() override {}

    uint16_t usKept = 0xFFFF;    // shared and uploaded before the road
    uint16_t usTarget = 0xFFFF;  // the file the road works on, when not kept
    size_t nRefused = 0;         // user calls of the road that gave a code
    uint32_t ulSettleMs = 3000;  // a crash sweep waits out the catalogue's quiet time
    std::vector<ZV_FileBriefInfo> vecShared;  // Alice's whole shares as the road began

    void Call(uint32_t ulResult) { nRefused += ulResult != 0; }
    void Act(uint32_t ulResult) { Call(ulResult), Settle(); }

    ZV_SimHost* Carol() const { return shape.Client(2); }
    bool Fetched(ZV_SimHost* lpClient, uint16_t usFileID) { return QB_ReadWholeFile(Target(lpClient, usFileID)) == kData; }
    bool Uploaded(uint16_t usFileID)
    {
        ZV_FileUploadInfo row;
        return Row(shape.Server(), usFileID, row) && row.m_BriefInfo.m_usFileState == 3 &&
               QB_ReadWholeFile(Stored(shape.Server(), row)) == kData;
    }
    bool Settle() { return sim.AdvanceTime(ulSettleMs); }

    // Every row of every node's catalogue and share record, by node, file and section.
    std::set<std::string> Rows()
    {
        std::set<std::string> setRows;
        for (ZV_SimHost* lpNode : sim.GetNodes())
            for (const char* szFile : {"fsinfo.ini", "fsshared.ini"})
            {
                const std::string sPath = lpNode->GetHome() + szFile;
                QB_IniFileEx ini;
                QB_Array<QB_StringA> arrNames;
                if (std::filesystem::exists(sPath) && ini.Open(QB_StringA(sPath.c_str()), false))
                    ini.GetSectionNames(arrNames);
                for (int i = 0; i < arrNames.GetSize(); ++i)
                    setRows.insert(lpNode->GetName() + "/" + szFile + "/" + arrNames[i].GetString());
            }
        return setRows;
    }
    // Whole files' rows at the server and in Alice's share record (a file
    // still arriving leaves with its creator at a restart).
    std::set<std::string> WholeRows()
    {
        std::set<std::string> setRows;
        for (const ZV_FileUploadInfo& row : ServerRows())
            if (row.m_BriefInfo.m_usFileState == zvFileStateComplete)
                setRows.insert(std::to_string(row.m_usFileID) + " " + row.m_sFileNewName.GetString());
        for (const ZV_FileBriefInfo& brief : vecShared)
            if (ZV_FileShareMgrPeer::Ledger(*Manager(Alice())).Holds(ZV_SimBuilder::kConfID, brief))
                setRows.insert(std::string("alice's ") + brief.m_sFileOldName.GetString());
        return setRows;
    }
    std::vector<ZV_FileUploadInfo> ServerRows()
    {
        QB_Array<ZV_FileUploadInfo> arrInfo;
        QB_Array<QB_StringW> arrSection;
        ZV_FileShareMgrPeer::Catalog(*Manager(shape.Server())).LoadConf(ZV_SimBuilder::kConfID, arrInfo, arrSection);
        return std::vector<ZV_FileUploadInfo>(arrInfo.GetData(), arrInfo.GetData() + arrInfo.GetSize());
    }
    // Stored files that no catalogue row names.
    std::set<std::string> Orphans()
    {
        std::set<std::string> setOrphans;
        std::error_code ec;
        for (const auto& entry : std::filesystem::directory_iterator(
                 shape.Server()->GetHome() + "store/" + std::to_string(ZV_SimBuilder::kConfID), ec))
            setOrphans.insert(entry.path().filename().string());
        for (const ZV_FileUploadInfo& row : ServerRows())
            setOrphans.erase(row.m_sFileNewName.GetString());
        return setOrphans;
    }
    // Every node dies while the disk is down, then all come back.
    bool Reboot()
    {
        ZV_SimModuleApi api = ZV_SimModuleApi::Linked();
        for (ZV_SimHost* lpNode : sim.GetNodes())
            lpNode->Stop(api);
        sim.GetEnv().Restart();
        return sim.RestartServer(shape.Server()) && sim.RestartClient(Alice()) && sim.RestartClient(Bob()) && Settle();
    }
    // Events with a non-zero result and bytes of log, over every node.
    size_t Complaints()
    {
        size_t nCount = nRefused;
        for (const ZV_SimEntry& event : Find({.eKind = ZV_SimEntryKind::Event}))
            nCount += event.vbData.size() >= 6 && ZV_ResultOf(event) != 0;
        for (const ZV_SimEntry& event : Events(Alice(), zvFsEventFilesAdded))
            nCount += (int)ReadBatch(event).first.size() < ReadBatch(event).second;
        for (ZV_SimHost* lpNode : sim.GetNodes())
            for (const auto& entry : std::filesystem::directory_iterator(lpNode->GetHome() + "log"))
                nCount += std::filesystem::file_size(entry.path());
        return nCount;
    }
};

struct Road
{
    const char* szName;
    std::function<void(SweepScene&)> fnPrepare;  // after the kept file, without faults
    std::function<void(SweepScene&)> fnAct;      // the road, under the fault
    std::function<void(SweepScene&)> fnRetry;    // the user's second try, without faults
    std::function<bool(SweepScene&)> fnDone;
    bool bRemovesRows = false;  // rows it takes out on purpose are not lost
    bool bLinked = false;       // two linked servers, Carol on the second
};

void ShareTarget(SweepScene& s, bool bUpload)
{
    s.usTarget = s.Share("target.bin", kData, bUpload);
    ASSERT_NE(0xFFFF, s.usTarget);
    ASSERT_TRUE(s.Settle());
}

void AddTarget(SweepScene& s)
{
    std::filesystem::create_directories(s.tmp.Sub("alice"));
    QB_WriteWholeFile(s.tmp.Sub("alice/target.bin"), kData);
    s.Act(s.Fs(s.Alice())->FsAdd(ZV_Wide(s.tmp.Sub("alice/target.bin")).c_str(), nullptr, 0, 1, 0));
}

void AddBatch(SweepScene& s)
{
    std::filesystem::create_directories(s.tmp.Sub("alice/batch"));
    for (const char* sz : {"a.bin", "b.bin", "c.bin"})
        QB_WriteWholeFile(s.tmp.Sub(std::string("alice/batch/") + sz), kData);
    const char16_t* apNames[] = {u"a.bin", u"b.bin", u"c.bin"};
    s.Act(s.Fs(s.Alice())->FsFilesAdd(ZV_Wide(s.tmp.Sub("alice/batch")).c_str(), apNames, 3, nullptr, 0, 1, 1));
}

bool BatchDone(SweepScene& s)
{
    std::set<uint16_t> setDone;
    for (const ZV_SimEntry& event : s.Events(s.Alice(), zvFsEventFilesAdded))
        for (uint16_t usFileID : ReadBatch(event).first)
            if (s.Uploaded(usFileID))
                setDone.insert(usFileID);
    return setDone.size() >= 3;
}

void StopAndResume(SweepScene& s)
{
    s.Call(s.Download(s.Bob(), s.usKept));
    s.StepUntilDelivered(PDU_CONF_FS_DOWNLOAD_DATA_RESPONSE, s.Bob(), 1);
    s.Call(s.Fs(s.Bob())->FsStopDownload(s.usKept));
    ASSERT_TRUE(s.sim.Run()) << s.sim.GetError();
    s.Act(s.Fs(s.Bob())->FsResumeDownload(s.usKept));
}

void Rejoin(SweepScene& s) { ASSERT_TRUE(s.sim.Leave(s.Bob()) && s.sim.Rejoin(s.Bob(), true) && s.Settle()); }
void CutLink(SweepScene& s) { ASSERT_TRUE(s.sim.CutLink(s.sim.GetServerLink(1, 2))); }
void RestoreLink(SweepScene& s) { ASSERT_TRUE(s.sim.RestoreLink(s.sim.GetServerLink(1, 2)) && s.Settle()); }
// A linked server restarts: it serves only what its peer's list brings back.
void Restart(SweepScene& s) { ASSERT_TRUE(s.sim.RestartServer(s.shape.Server(1)) && s.Settle()); }

void ResumeOrFetch(SweepScene& s, ZV_SimHost* lpClient)
{
    if (s.Fs(lpClient)->FsResumeDownload(s.usKept) != 0)
        s.Download(lpClient, s.usKept);
    ASSERT_TRUE(s.Settle());
    if (!s.Fetched(lpClient, s.usKept))
        s.Act(s.Download(lpClient, s.usKept));
}

void Delete(SweepScene& s) { s.Act(s.Fs(s.Alice())->FsDelUpload(s.usTarget)); }

void HideFromBob(SweepScene& s) { s.Act(s.Fs(s.Alice())->FsSetRight(s.usKept, 0, nullptr, 0, &s.Bob()->GetUserID(), 1)); }

auto Nothing = [](SweepScene&) {};
auto BobResumes = [](SweepScene& s) { ResumeOrFetch(s, s.Bob()); };
auto BobHasIt = [](SweepScene& s) { return s.Fetched(s.Bob(), s.usKept); };
auto BobFetches = [](SweepScene& s) { s.Act(s.Download(s.Bob(), s.usKept)); };

// The first four are swept by crashes too. A name ends its tests' names: no blanks.
const Road kRoads[] = {
    {"add", Nothing, AddTarget, AddTarget,
     [](SweepScene& s) {
         return s.Events(s.Alice(), zvFsEventFileAdded).size() >= 2 && s.LastResult(s.Alice(), zvFsEventFileAdded) == 0;
     }},
    {"upload", [](SweepScene& s) { ShareTarget(s, false); },
     [](SweepScene& s) { s.Act(s.Fs(s.Alice())->FsUpload(s.usTarget)); },
     // After a restart the file left with its creator: she shares it again.
     [](SweepScene& s) {
         if (s.Session(s.Alice(), s.usTarget) == nullptr)
             return ShareTarget(s, true);
         if (s.Fs(s.Alice())->FsResumeUpload(s.usTarget) != 0)
             s.Call(s.Fs(s.Alice())->FsUpload(s.usTarget));
         ASSERT_TRUE(s.Settle());
     },
     [](SweepScene& s) { return s.Uploaded(s.usTarget); }},
    {"download", Nothing, BobFetches, BobResumes, BobHasIt},
    {"delete", [](SweepScene& s) { ShareTarget(s, true); }, Delete, Delete,
     [](SweepScene& s) {
         ZV_FileUploadInfo row;
         return !s.Row(s.shape.Server(), s.usTarget, row) && !s.Knows(s.Alice(), s.usTarget) &&
                !s.Knows(s.Bob(), s.usTarget);
     },
     true},
    {"rights", Nothing, HideFromBob, HideFromBob,
     [](SweepScene& s) {
         ZV_FileUploadInfo row;
         return s.Row(s.shape.Server(), s.usKept, row) && !row.m_BriefInfo.m_bPublic &&
                !s.Events(s.Bob(), zvFsEventFileHidden).empty();
     }},
    {"batch_add", Nothing, AddBatch, AddBatch, BatchDone},
    {"relay", Nothing, [](SweepScene& s) { s.Act(s.Download(s.Carol(), s.usKept)); },
     [](SweepScene& s) { ResumeOrFetch(s, s.Carol()); },
     [](SweepScene& s) { return s.Fetched(s.Carol(), s.usKept); }, false, true},
    {"stop_and_resume", Nothing, StopAndResume, BobResumes, BobHasIt},
    {"both_lists", BobFetches, Rejoin, Rejoin,
     [](SweepScene& s) { return s.Knows(s.Bob(), s.usKept) && s.Fetched(s.Bob(), s.usKept); }},
    {"reconciliation", [](SweepScene& s) { CutLink(s), ShareTarget(s, true); }, RestoreLink,
     [](SweepScene& s) { CutLink(s), RestoreLink(s); },
     [](SweepScene& s) { return s.Knows(s.Carol(), s.usTarget); }, false, true},
    {"restart", Nothing, Restart, Restart,
     [](SweepScene& s) { return s.Session(s.shape.Server(1), s.usKept) && s.Knows(s.Carol(), s.usKept); }, false, true},
};

constexpr QB_EnvOp kOps[] = {QB_EnvOp::Open,   QB_EnvOp::Read,       QB_EnvOp::Write, QB_EnvOp::Seek,  QB_EnvOp::SetEnd,
                             QB_EnvOp::Delete, QB_EnvOp::MakeFolder, QB_EnvOp::Sync,  QB_EnvOp::Rename};
const char* const kOpNames[] = {"open", "read", "write", "seek", "set end", "delete", "make folder", "sync", "rename"};

std::unique_ptr<SweepScene> Begin(const Road& road, bool bCrash = false)
{
    auto lpScene = std::make_unique<SweepScene>();
    SweepScene& s = *lpScene;
    s.Build(road.bLinked, true);
    // The server takes its catalogue back at a start, else a restart hides every file and right.
    ZV_Scene::WriteServerConfig(s.shape.Server(), true);
    EXPECT_TRUE(s.sim.RestartServer(s.shape.Server()) && s.sim.Run()) << s.sim.GetError();
    s.ulSettleMs = bCrash ? 12000 : 3000;
    s.usKept = s.Share("kept.bin", kData);
    EXPECT_TRUE(s.Settle());
    road.fnPrepare(s);
    for (uint16_t usFileID : {s.usKept, s.usTarget})
        if (ZV_FileShareSession* lpShared = s.Session(s.Alice(), usFileID))
            if (lpShared->BriefInfo().m_usFileState == zvFileStateComplete)
                s.vecShared.push_back(lpShared->BriefInfo());
    if (bCrash)
        s.sim.GetEnv().TrackDurability();
    s.sim.GetEnv().ResetCounts();
    return lpScene;
}

void FaultedRun(const Road& road, size_t nOp, int nNth, bool bSticky)
{
    SCOPED_TRACE(std::string(road.szName) + ", " + kOpNames[nOp] + " " + std::to_string(nNth) + (bSticky ? " on" : " once"));
    auto lpScene = Begin(road);
    SweepScene& s = *lpScene;
    const std::set<std::string> setSaved = s.Rows();
    const size_t nComplaints = s.Complaints();
    s.sim.GetEnv().ResetCounts();
    s.sim.GetEnv().FailAt(kOps[nOp], nNth, bSticky);
    road.fnAct(s);
    s.sim.GetEnv().ClearFaults();
    ASSERT_TRUE(s.sim.Run()) << s.sim.GetError();
    EXPECT_TRUE(road.fnDone(s) || s.Complaints() > nComplaints) << "failed without a word";
    road.fnRetry(s);
    EXPECT_TRUE(road.fnDone(s)) << "the retry does not finish the road";
    const std::set<std::string> setNow = s.Rows();
    for (const std::string& sRow : setSaved)
        EXPECT_TRUE(road.bRemovesRows || setNow.count(sRow)) << "lost " << sRow;
}

void PrintTo(const Road& road, std::ostream* lpOut) { *lpOut << road.szName; }

class FaultSweep : public ::testing::TestWithParam<Road>
{
    ZV_QuietTrace m_quiet;
};

TEST_P(FaultSweep, EveryFileOperationFailingInTurnIsToldKeepsSavedRowsAndTheRetryFinishes)
{
    const Road& road = GetParam();
    std::vector<int> vecCounts;
    {
        auto lpScene = Begin(road);
        road.fnAct(*lpScene);
        for (QB_EnvOp op : kOps)
            vecCounts.push_back(lpScene->sim.GetEnv().GetCount(op));
        EXPECT_TRUE(road.fnDone(*lpScene)) << road.szName << ": the road does not finish without a fault";
    }
    int nRuns = 0;
    for (size_t k = 0; k < std::size(kOps); ++k)
        for (int n = 1; n <= vecCounts[k]; ++n, nRuns += 2)
            for (bool bSticky : {false, true})
                FaultedRun(road, k, n, bSticky);
    // A road that touches no file sweeps nothing: its table row is wrong.
    EXPECT_GT(nRuns, 0) << road.szName << " performs no file operation";
    RecordProperty("faulted_runs", nRuns);
    std::printf("%s: %d faulted runs\n", road.szName, nRuns);
}

using CrashSweep = FaultSweep;

TEST_P(CrashSweep, ACrashAtEveryStepLosesNoSavedRowAndTheRoadFinishesAfterTheRestart)
{
    const Road& road = GetParam();
    int nSteps = 0;
    {
        auto lpScene = Begin(road, true);
        road.fnAct(*lpScene);
        nSteps = lpScene->sim.GetEnv().GetSteps();
        ASSERT_TRUE(road.fnDone(*lpScene)) << road.szName << " does not finish without a crash";
    }
    for (int n = 1; n <= nSteps; ++n)
    {
        SCOPED_TRACE(std::string(road.szName) + ", crash at step " + std::to_string(n));
        auto lpScene = Begin(road, true);
        SweepScene& s = *lpScene;
        const std::set<std::string> setSaved = s.WholeRows();
        s.sim.GetEnv().CrashAtStep(n);
        road.fnAct(s);
        ASSERT_TRUE(s.sim.GetEnv().HasCrashed());
        ASSERT_TRUE(s.Reboot()) << s.sim.GetError();
        const std::set<std::string> setNow = s.WholeRows();
        EXPECT_TRUE(s.Orphans().empty()) << "a stored file no row names stays for good";
        road.fnRetry(s);
        EXPECT_TRUE(road.fnDone(s));
        for (const std::string& sRow : setSaved)
            EXPECT_TRUE(road.bRemovesRows || setNow.count(sRow)) << "lost " << sRow;
    }
}

INSTANTIATE_TEST_SUITE_P(Roads, FaultSweep, ::testing::ValuesIn(kRoads), ::testing::PrintToStringParamName());
INSTANTIATE_TEST_SUITE_P(Roads, CrashSweep, ::testing::ValuesIn(kRoads, kRoads + 4), ::testing::PrintToStringParamName());

} // namespace
