// A client joining a server that holds 1,000 and 10,000 files, through the
// simulator: the server walks its sessions and sends the upload list, the
// simulator delivers it, and the client makes a session for every file,
// merges each record and raises event 3013. BM_Join times the whole join of
// a newcomer, who has no download list, host events and link set-up
// included; "join_cpu_ms" is its CPU time per join, "server_ms" the part up
// to the server's lists being queued and "client_ms" their delivery and
// merge. BM_Rejoin does the same for Bob coming back after he downloaded
// every file: the server sends both lists, and his client merges each
// record and measures each local file against its download record.
//
// The baseline, BM_SaveRecords, writes the same records into list pieces of
// the same size and does nothing else: the floor that encoding alone costs.
// What lies between the two is the module's own walk, the simulator's
// delivery and the client's merge. Each join also measures that floor for
// its own number of files in the same run ("list_build_ms", the least CPU
// time of 20 builds) and prints its CPU time as a multiple of it
// ("x_list_build"). BM_Rejoin also prints what measuring Bob's files by name
// alone costs ("stat_ms"): his join does that once for each of them, and
// opens none of them ("opens", the files a join opens, stops the run at one
// per file).
#include "ZV_SimBuilder.h"
#include "ZV_SimConference.h"

#include "QB_Env.h"
#include "QB_FaultEnv.h"
#include "QB_Plex.h"
#include "lists/ZV_ListPdu.h"
#include "wire/ZV_CutList.h"
#include "wire/ZV_PduFrame.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

namespace fs = std::filesystem;

namespace {

constexpr int kBatch = 1000;

struct Quiet
{
    std::FILE* lpNull = std::fopen("/dev/null", "w");
    Quiet()
    {
        ZV_SetTraceStream(lpNull);
        QB_SetHashWarningStream(lpNull);
    }
    ~Quiet()
    {
        ZV_SetTraceStream(nullptr);
        QB_SetHashWarningStream(nullptr);
        std::fclose(lpNull);
    }
};

std::u16string Wide(const std::string& s)
{
    return std::u16string(s.begin(), s.end());
}

double CpuSeconds()
{
    timespec ts{};
    ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return (double)ts.tv_sec + (double)ts.tv_nsec / 1e9;
}

// The system's own calls, except that syncs are skipped while bSync is
// false: making the conference syncs every catalogue and ledger change, four
// per download, and that waiting on the disk would take the setup of 10,000
// files minutes without telling anything of the join. The joins themselves
// sync as they do anywhere.
struct SetupEnv : QB_FaultEnv
{
    bool bSync = false;
    bool FlushFile(QB_FileHandle hFile) override { return !bSync || QB_FaultEnv::FlushFile(hFile); }
    bool FlushFolder(const std::u16string& sFolder) override { return !bSync || QB_FaultEnv::FlushFolder(sFolder); }
};

// One server with Alice and Bob, Alice having shared nFiles files.
struct Conference
{
    fs::path root = fs::temp_directory_path() / ("roomcrate-join-bench-" + std::to_string(::getpid()));
    SetupEnv env;
    QB_ScopedEnv envInstalled{&env};
    std::unique_ptr<ZV_SimConference> lpSim;
    ZV_SimShape shape;

    explicit Conference(int nFiles, bool bBobDownloadsAll = false)
    {
        fs::create_directories(root / "alice");
        std::vector<std::u16string> vecWide;
        for (int i = 0; i < nFiles; ++i)
        {
            const std::string sName = "shared-file-" + std::to_string(i) + ".dat";
            std::ofstream(root / "alice" / sName) << "data";
            vecWide.push_back(Wide(sName));
        }
        ZV_SimOptions options;
        options.sRoot = (root / "nodes").string();
        options.nJournalPayloadBytes = 16;
        options.nJournalEntries = 100000;
        lpSim = std::make_unique<ZV_SimConference>(ZV_SimModuleApi::Linked(), options);
        lpSim->SetFileIDRange(1, 1, 60000);
        shape = ZV_SimBuilder::OneServerTwoClients(*lpSim);
        lpSim->Run();
        const std::u16string sFolder = Wide((root / "alice").string());
        for (int i = 0; i < nFiles; i += kBatch)
        {
            std::vector<const char16_t*> vecPtr;
            for (int k = i; k < i + kBatch && k < nFiles; ++k)
                vecPtr.push_back(vecWide[(size_t)k].c_str());
            shape.Client(0)->GetFileShareMgr()->FsFilesAdd(sFolder.c_str(), vecPtr.data(), (uint32_t)vecPtr.size(),
                                                           nullptr, 0, 1, 0);
            lpSim->Run();
        }
        if (bBobDownloadsAll)
            DownloadAll(nFiles);
        env.bSync = true;
    }
    // Bob fetches every file; the downloads go a thousand at a time.
    void DownloadAll(int nFiles)
    {
        fs::create_directories(root / "bob");
        for (int i = 1; i <= nFiles; ++i)
        {
            const std::u16string sTarget = Wide((root / "bob" / (std::to_string(i) + ".dat")).string());
            shape.Client(1)->GetFileShareMgr()->FsDownload((uint16_t)i, sTarget.c_str());
            if (i % kBatch == 0 || i == nFiles)
                lpSim->Run();
        }
    }
    ~Conference()
    {
        lpSim.reset();
        fs::remove_all(root);
    }
};

// The server's records of nFiles files, as the join's upload list holds
// them.
QB_Array<ZV_FileUploadInfo> ServerRecords(int nFiles)
{
    QB_Array<ZV_FileUploadInfo> arrInfo;
    for (int i = 0; i < nFiles; ++i)
    {
        const std::string sName = "shared-file-" + std::to_string(i) + ".dat";
        ZV_FileBriefInfo brief;
        brief.SetCreatorID(QB_UserID(1001, 0));
        brief.SetCreatorName(QB_StringU8("alice"));
        brief.SetFilePath(QB_StringU8("C:\\Users\\alice\\shared\\"));
        brief.SetFileOldName(QB_StringU8(sName.c_str()));
        brief.SetFileType(QB_StringU8(".dat"));
        brief.SetFileLenth(4);
        brief.SetFileState(0);
        brief.SetPublic(true);
        ZV_FileUploadInfo info;
        info.SetFileID((uint16_t)(i + 1));
        info.SetFileNewName(QB_StringU8(sName.c_str()));
        info.SetBriefInfo(brief);
        info.SetFileWritePos(0);
        arrInfo.Add(info);
    }
    return arrInfo;
}

// The records saved into 8028 pieces as the join cuts them, and nothing
// more.
void SaveRecords(const QB_Array<ZV_FileUploadInfo>& arrInfo)
{
    ZV_PduBuffer pdu;
    ZV_CutList(
        ZV_UploadListResponse::kHeadSize, arrInfo.GetSize(),
        [&](int i) { return ZV_UploadListEntrySize(arrInfo[i]); },
        [&](int nFrom, int nTo, bool bLast) {
            ZV_UploadListResponse part;
            for (int i = nFrom; i < nTo; ++i)
            {
                part.arrInfo.Add(arrInfo[i]);
                part.arrMaxPos.Add(0);
            }
            part.bLast = bLast ? 1 : 0;
            pdu.Stream().SeekTo(0);
            part.SaveHead(pdu.Stream());
            part.SaveBody(pdu.Stream());
            benchmark::DoNotOptimize(pdu.Payload());
        });
}

// CPU milliseconds of the bare list build for nFiles records, the least of
// several runs: the baseline each join is held against in the same run.
double ListBuildMs(int nFiles)
{
    const QB_Array<ZV_FileUploadInfo> arrInfo = ServerRecords(nFiles);
    double dBest = 1e9;
    for (int nRun = 0; nRun < 20; ++nRun)
    {
        const double dBefore = CpuSeconds();
        SaveRecords(arrInfo);
        dBest = std::min(dBest, 1e3 * (CpuSeconds() - dBefore));
    }
    return dBest;
}

// CPU milliseconds of measuring each of Bob's files by its name through the
// platform layer, the least of several runs: what a returning user's join
// must spend on its finished downloads however little else it does.
double StatMs(const fs::path& folder, int nFiles)
{
    std::vector<std::u16string> vecPath;
    for (int i = 1; i <= nFiles; ++i)
        vecPath.push_back(Wide((folder / (std::to_string(i) + ".dat")).string()));
    double dBest = 1e9;
    int64_t llTotal = 0;
    for (int nRun = 0; nRun < 5; ++nRun)
    {
        const double dBefore = CpuSeconds();
        for (const std::u16string& sPath : vecPath)
            llTotal += QB_GetEnv()->GetFileSizeByName(sPath);
        dBest = std::min(dBest, 1e3 * (CpuSeconds() - dBefore));
    }
    benchmark::DoNotOptimize(llTotal);
    return dBest;
}

void BM_Join(benchmark::State& state)
{
    Quiet quiet;
    const int nFiles = (int)state.range(0);
    Conference conf(nFiles);
    int nUser = 2;
    double dServer = 0, dClient = 0;
    for (auto _ : state)
    {
        const double dBefore = CpuSeconds();
        ZV_SimHost* lpCarol = conf.lpSim->AddClient(ZV_SimBuilder::kConfID, ZV_SimBuilder::MakeUser(1, nUser++));
        const double dEntered = CpuSeconds();
        conf.lpSim->Run();
        dServer += dEntered - dBefore;
        dClient += CpuSeconds() - dEntered;
        state.PauseTiming();
        ZV_FsFileInfo info{};
        if (lpCarol == nullptr || lpCarol->GetFileShareMgr()->FsGetFileInfoByFileID((uint16_t)nFiles, &info) != 0)
            state.SkipWithError("the late joiner does not know the last file");
        // The joiner leaves, so every join meets the same conference.
        conf.lpSim->Leave(lpCarol);
        conf.lpSim->Run();
        state.ResumeTiming();
    }
    const double dJoins = (double)state.iterations();
    state.counters["join_cpu_ms"] = 1e3 * (dServer + dClient) / dJoins;
    state.counters["list_build_ms"] = ListBuildMs(nFiles);
    state.counters["x_list_build"] = state.counters["join_cpu_ms"] / state.counters["list_build_ms"];
    // The links and the server's lists (AddClient raises event 21), then
    // the delivery and the client's merge with its events.
    state.counters["server_ms"] = 1e3 * dServer / dJoins;
    state.counters["client_ms"] = 1e3 * dClient / dJoins;
}

void BM_Rejoin(benchmark::State& state)
{
    Quiet quiet;
    const int nFiles = (int)state.range(0);
    Conference conf(nFiles, true);
    ZV_SimHost* lpBob = conf.shape.Client(1);
    if (std::distance(fs::directory_iterator(conf.root / "bob"), fs::directory_iterator()) != nFiles)
        state.SkipWithError("Bob did not download every file");
    double dServer = 0, dClient = 0;
    int nOpens = 0;
    for (auto _ : state)
    {
        state.PauseTiming();
        conf.lpSim->Leave(lpBob);
        conf.lpSim->Run();
        const int nOpensBefore = conf.lpSim->GetEnv().GetCount(QB_EnvOp::Open);
        state.ResumeTiming();
        const double dBefore = CpuSeconds();
        conf.lpSim->Rejoin(lpBob, false);
        const double dEntered = CpuSeconds();
        conf.lpSim->Run();
        dServer += dEntered - dBefore;
        dClient += CpuSeconds() - dEntered;
        nOpens += conf.lpSim->GetEnv().GetCount(QB_EnvOp::Open) - nOpensBefore;
    }
    const double dJoins = (double)state.iterations();
    // His downloads are all finished: each is measured by name, none opened.
    state.counters["opens"] = nOpens / dJoins;
    if (nOpens / dJoins >= nFiles)
        state.SkipWithError("the join opened Bob's finished downloads");
    state.counters["join_cpu_ms"] = 1e3 * (dServer + dClient) / dJoins;
    state.counters["server_ms"] = 1e3 * dServer / dJoins;
    state.counters["client_ms"] = 1e3 * dClient / dJoins;
    state.counters["list_build_ms"] = ListBuildMs(nFiles);
    state.counters["x_list_build"] = state.counters["join_cpu_ms"] / state.counters["list_build_ms"];
    state.counters["stat_ms"] = StatMs(conf.root / "bob", nFiles);
}

void BM_SaveRecords(benchmark::State& state)
{
    const QB_Array<ZV_FileUploadInfo> arrInfo = ServerRecords((int)state.range(0));
    for (auto _ : state)
        SaveRecords(arrInfo);
}

} // namespace

BENCHMARK(BM_Join)->Arg(1000)->Arg(10000)->Unit(benchmark::kMillisecond)->Iterations(10);
BENCHMARK(BM_Rejoin)->Arg(1000)->Arg(10000)->Unit(benchmark::kMillisecond)->Iterations(10);
BENCHMARK(BM_SaveRecords)->Arg(1000)->Arg(10000)->Unit(benchmark::kMillisecond);
