// Every file operation of every road failing in turn: a clean run counts the
// operations of each kind, then each Nth one fails, once and from then on, on
// a fresh conference. Each run must say what went wrong (a non-zero result, a
// log line) or finish anyway, keep every row saved before the road, and
// finish the road on the retry once the fault is lifted.
#include "ZV_SceneFixture.h"

#include "wire/ZV_PduFrame.h"

#include "QB_IniFileEx.h"
#include "wire/ZV_RecordStream.h"

#include <functional>
#include <set>

namespace {

const ZV_Bytes kData = ZV_RandomBytes(40000, 30);  // two blocks and a bit

std::pair<std::vector<uint16_t>, int> ReadBatch(const ZV_SimEntry& event);

struct SweepScene : public ZV_Scene
{
    void TestBody() override {}

    uint16_t usKept = 0xFFFF;    // shared and uploaded before the road
    uint16_t usTarget = 0xFFFF;  // the file the road works on, when not kept
    size_t nRefused = 0;         // user calls of the road that gave a code

    uint32_t Call(uint32_t ulResult)
    {
        nRefused += ulResult != 0;
        return ulResult;
    }

    bool Fetched(ZV_SimHost* lpClient, uint16_t usFileID)
    {
        return std::filesystem::exists(Target(lpClient, usFileID)) && QB_ReadWholeFile(Target(lpClient, usFileID)) == kData;
    }
    bool Uploaded(uint16_t usFileID)
    {
        ZV_FileUploadInfo row;
        return usFileID != 0xFFFF && Row(shape.Server(), usFileID, row) && row.m_BriefInfo.m_usFileState == 3 &&
               StoredBytes(shape.Server(), usFileID) == kData;
    }
    bool Settle() { return sim.AdvanceTime(3000); }

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
                if (!std::filesystem::exists(sPath) || !ini.Open(QB_StringA(sPath.c_str()), false) ||
                    !ini.GetSectionNames(arrNames))
                    continue;
                for (int i = 0; i < arrNames.GetSize(); ++i)
                    setRows.insert(lpNode->GetName() + "/" + szFile + "/" + arrNames[i].GetString());
            }
        return setRows;
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
    // Rows the road takes out on purpose are not counted as lost.
    bool bRemovesRows = false;
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
    s.Call(s.Fs(s.Alice())->FsAdd(ZV_Wide(s.tmp.Sub("alice/target.bin")).c_str(), nullptr, 0, 1, 0));
    ASSERT_TRUE(s.sim.Run()) << s.sim.GetError();
}

void AddBatch(SweepScene& s)
{
    std::filesystem::create_directories(s.tmp.Sub("alice/batch"));
    for (const char* sz : {"a.bin", "b.bin", "c.bin"})
        QB_WriteWholeFile(s.tmp.Sub(std::string("alice/batch/") + sz), kData);
    const std::u16string asNames[] = {u"a.bin", u"b.bin", u"c.bin"};
    const char16_t* apNames[] = {asNames[0].c_str(), asNames[1].c_str(), asNames[2].c_str()};
    s.Call(s.Fs(s.Alice())->FsFilesAdd(ZV_Wide(s.tmp.Sub("alice/batch")).c_str(), apNames, 3, nullptr, 0, 1, 1));
    ASSERT_TRUE(s.Settle());
}

// Event 3013's FileIDs and how many descriptions stand beside them; a
// refused batch is told by descriptions without FileIDs.
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

bool BatchDone(SweepScene& s)
{
    std::set<uint16_t> setDone;
    for (const ZV_SimEntry& event : s.Events(s.Alice(), zvFsEventFilesAdded))
        for (uint16_t usFileID : ReadBatch(event).first)
            if (s.Uploaded(usFileID))
                setDone.insert(usFileID);
    return setDone.size() >= 3;
}

void Fetch(SweepScene& s, ZV_SimHost* lpClient)
{
    s.Call(s.Download(lpClient, s.usKept));
    ASSERT_TRUE(s.Settle());
}

void ResumeOrFetch(SweepScene& s)
{
    if (s.Fs(s.Bob())->FsResumeDownload(s.usKept) != 0)
        s.Download(s.Bob(), s.usKept);
    ASSERT_TRUE(s.Settle());
    if (!s.Fetched(s.Bob(), s.usKept))
        Fetch(s, s.Bob());
}

void Delete(SweepScene& s)
{
    s.Call(s.Fs(s.Alice())->FsDelUpload(s.usTarget));
    ASSERT_TRUE(s.Settle());
}

void HideFromBob(SweepScene& s)
{
    const QB_UserID bob = s.Bob()->GetUserID();
    s.Call(s.Fs(s.Alice())->FsSetRight(s.usKept, 0, nullptr, 0, &bob, 1));
    ASSERT_TRUE(s.Settle());
}

// Rights are kept only where the catalogue comes back at a start.
void KeepRights(SweepScene& s)
{
    ZV_Scene::WriteServerConfig(s.shape.Server(), true);
    ASSERT_TRUE(s.sim.RestartServer(s.shape.Server()));
    ASSERT_TRUE(s.Settle());
}

auto Nothing = [](SweepScene&) {};

const Road kRoads[] = {
    {"add", Nothing, AddTarget, AddTarget,
     [](SweepScene& s) {
         auto vecAdded = s.Events(s.Alice(), zvFsEventFileAdded);
         return vecAdded.size() >= 2 && ZV_ResultOf(vecAdded.back()) == 0;
     }},
    {"batch add", Nothing, AddBatch, AddBatch, BatchDone},
    {"upload", [](SweepScene& s) { ShareTarget(s, false); },
     [](SweepScene& s) {
         s.Call(s.Fs(s.Alice())->FsUpload(s.usTarget));
         ASSERT_TRUE(s.Settle());
     },
     [](SweepScene& s) {
         if (s.Fs(s.Alice())->FsResumeUpload(s.usTarget) != 0)
             s.Call(s.Fs(s.Alice())->FsUpload(s.usTarget));
         ASSERT_TRUE(s.Settle());
     },
     [](SweepScene& s) { return s.Uploaded(s.usTarget); }},
    {"download", Nothing, [](SweepScene& s) { Fetch(s, s.Bob()); }, ResumeOrFetch,
     [](SweepScene& s) { return s.Fetched(s.Bob(), s.usKept); }},
    {"delete", [](SweepScene& s) { ShareTarget(s, true); }, Delete, Delete,
     [](SweepScene& s) {
         ZV_FileUploadInfo row;
         return !s.Row(s.shape.Server(), s.usTarget, row) && !s.Knows(s.Alice(), s.usTarget) &&
                !s.Knows(s.Bob(), s.usTarget);
     },
     true},
    {"rights", KeepRights, HideFromBob, HideFromBob,
     [](SweepScene& s) {
         ZV_FileUploadInfo row;
         return s.Row(s.shape.Server(), s.usKept, row) && !row.m_BriefInfo.m_bPublic &&
                !s.Events(s.Bob(), zvFsEventFileHidden).empty();
     }},
};

constexpr QB_EnvOp kOps[] = {QB_EnvOp::Open,   QB_EnvOp::Read,       QB_EnvOp::Write, QB_EnvOp::Seek,  QB_EnvOp::SetEnd,
                             QB_EnvOp::Delete, QB_EnvOp::MakeFolder, QB_EnvOp::Sync,  QB_EnvOp::Rename};
const char* const kOpNames[] = {"open", "read", "write", "seek", "set end", "delete", "make folder", "sync", "rename"};

std::unique_ptr<SweepScene> Begin(const Road& road)
{
    auto lpScene = std::make_unique<SweepScene>();
    SweepScene& s = *lpScene;
    s.Build();
    for (ZV_SimHost* lpNode : s.sim.GetNodes())
        std::filesystem::create_directories(lpNode->GetHome() + "log");
    s.usKept = s.Share("kept.bin", kData);
    EXPECT_TRUE(s.Settle());
    road.fnPrepare(s);
    return lpScene;
}

struct Counts
{
    int anOps[std::size(kOps)] = {};
};

Counts CleanRun(const Road& road)
{
    Counts counts;
    auto lpScene = Begin(road);
    QB_FaultEnv& env = lpScene->sim.GetEnv();
    env.ResetCounts();
    road.fnAct(*lpScene);
    for (size_t k = 0; k < std::size(kOps); ++k)
        counts.anOps[k] = env.GetCount(kOps[k]);
    EXPECT_TRUE(road.fnDone(*lpScene)) << road.szName << ": the road does not finish without a fault";
    return counts;
}

void FaultedRun(const Road& road, size_t nOp, int nNth, bool bSticky)
{
    const std::string sCase = std::string(road.szName) + ", " + kOpNames[nOp] + " " + std::to_string(nNth) +
                              (bSticky ? " on" : " once");
    auto lpScene = Begin(road);
    SweepScene& s = *lpScene;
    const std::set<std::string> setSaved = s.Rows();
    const size_t nComplaints = s.Complaints();
    s.sim.GetEnv().ResetCounts();
    s.sim.GetEnv().FailAt(kOps[nOp], nNth, bSticky);
    road.fnAct(s);
    s.sim.GetEnv().ClearFaults();
    ASSERT_TRUE(s.sim.Run()) << sCase << ": " << s.sim.GetError();
    EXPECT_TRUE(road.fnDone(s) || s.Complaints() > nComplaints) << sCase << ": failed without a word";

    road.fnRetry(s);
    EXPECT_TRUE(road.fnDone(s)) << sCase << ": the retry does not finish the road";
    if (road.bRemovesRows)
        return;
    const std::set<std::string> setNow = s.Rows();
    for (const std::string& sRow : setSaved)
        EXPECT_TRUE(setNow.count(sRow)) << sCase << ": lost " << sRow;
}

void PrintTo(const Road& road, std::ostream* lpOut)
{
    *lpOut << road.szName;
}

class FaultSweep : public ::testing::TestWithParam<Road>
{
    ZV_QuietTrace m_quiet;
};

TEST_P(FaultSweep, EveryFileOperationFailingInTurnIsToldKeepsSavedRowsAndTheRetryFinishes)
{
    const Road& road = GetParam();
    const Counts counts = CleanRun(road);
    int nRuns = 0;
    for (size_t k = 0; k < std::size(kOps); ++k)
        for (int n = 1; n <= counts.anOps[k]; ++n)
            for (bool bSticky : {false, true})
            {
                FaultedRun(road, k, n, bSticky);
                ++nRuns;
            }
    // A road that touches no file sweeps nothing: its table row is wrong.
    EXPECT_GT(nRuns, 0) << road.szName << " performs no file operation";
    RecordProperty("faulted_runs", nRuns);
    std::printf("%s: %d faulted runs\n", road.szName, nRuns);
}

INSTANTIATE_TEST_SUITE_P(Roads, FaultSweep, ::testing::ValuesIn(kRoads), [](const auto& info) {
    std::string sName = info.param.szName;
    for (char& c : sName)
        c = std::isalnum((unsigned char)c) ? c : '_';
    return sName;
});

} // namespace
