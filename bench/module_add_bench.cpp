// What one add costs as the stores grow: a server whose catalogue already
// holds N rows and a client (Alice) whose share record already holds N rows,
// for N = 100, 1,000, 10,000 and 100,000. Alice then shares kAdds more files
// one by one with FsAdd through the simulator, each add run until Bob has
// heard of it. The rows already there belong to another conference, so the
// conference itself starts empty and only the two files grow.
//
// Counters per add: "cpu_ms" (the process's CPU time: every node runs in
// this process) and "wall_ms", each the mean over the kAdds adds, and both
// again as a ratio to the adds at 100 rows of the same run ("cpu_x100",
// "wall_x100"). BM_OpenCatalogue times a server's start on a catalogue of N
// rows: "open_ms" per open.
//
// Trace lines and the containers' long-chain warnings go to a null stream;
// their cost is measured all the same. The wall time includes waiting for
// the disk, so it moves with whatever else the machine does.
#include "ZV_SimBuilder.h"
#include "ZV_SimConference.h"

#include "QB_Env.h"
#include "QB_Plex.h"
#include "records/ZV_FileCatalog.h"
#include "records/ZV_ShareLedger.h"
#include "wire/ZV_PduFrame.h"

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace fs = std::filesystem;

namespace {

constexpr int kAdds = 50;
constexpr uint32_t kOtherConf = 900;
constexpr int kRowsPerOtherConf = 50000;  // FileIDs are 16 bits

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

double WallSeconds()
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

fs::path Root()
{
    return fs::temp_directory_path() / ("roomcrate-add-bench-" + std::to_string(::getpid()));
}

// Removes the scratch folder when the program ends.
struct Cleanup
{
    ~Cleanup() { fs::remove_all(Root()); }
} g_cleanup;

// The homes the simulator gives the server and Alice, below a root.
struct Homes
{
    fs::path server;
    fs::path alice;
};

Homes HomesBelow(const fs::path& root)
{
    ZV_SimOptions options;
    options.sRoot = root.string();
    ZV_SimConference sim(ZV_SimModuleApi::Linked(), options);
    ZV_SimShape shape = ZV_SimBuilder::OneServerTwoClients(sim);
    return {fs::path(shape.Server()->GetHome()), fs::path(shape.Client(0)->GetHome())};
}

ZV_FileBriefInfo BriefOf(int i)
{
    ZV_FileBriefInfo brief;
    const std::string sName = "old-file-" + std::to_string(i) + ".dat";
    brief.SetCreatorID(QB_UserID(10001, 0));
    brief.SetFilePath(QB_StringU8("C:\\Users\\alice\\earlier\\"));
    brief.SetFileOldName(QB_StringU8(sName.c_str()));
    brief.SetFileType(QB_StringU8("dat"));
    brief.SetFileLenth(4);
    return brief;
}

// Writes N rows into the catalogue and the share record below `home`, and
// opens both once more, as a start after them would.
void FillStores(const fs::path& serverHome, const fs::path& aliceHome, int nRows)
{
    QB_SetEnvironmentVariable("ROOMCRATE_HOME", serverHome.c_str());
    for (int nFrom = 0; nFrom < nRows; nFrom += kRowsPerOtherConf)
    {
        ZV_FileCatalog catalog;
        catalog.Open();
        catalog.SetRootPath("C:\\store\\");
        QB_Array<ZV_FileUploadInfo> arrRows;
        QB_Array<QB_StringW> arrSections;
        for (int i = nFrom; i < nRows && i < nFrom + kRowsPerOtherConf; ++i)
        {
            ZV_FileUploadInfo row;
            row.SetFileID((uint16_t)(i - nFrom + 1));
            row.SetFileNewName(QB_StringU8(("old-file-" + std::to_string(i) + ".dat").c_str()));
            row.SetBriefInfo(BriefOf(i));
            arrRows.Add(row);
            arrSections.Add(QB_StringW());
        }
        catalog.SaveFiles(kOtherConf + (uint32_t)(nFrom / kRowsPerOtherConf), arrRows, arrSections);
    }
    ZV_FileCatalog().Open();
    QB_SetEnvironmentVariable("ROOMCRATE_HOME", aliceHome.c_str());
    {
        ZV_ShareLedger ledger;
        QB_Array<ZV_FileBriefInfo> arrBriefs;
        for (int i = 0; i < nRows; ++i)
            arrBriefs.Add(BriefOf(i));
        ledger.Remember(kOtherConf, arrBriefs, std::vector<ZV_LocalFileMark>((size_t)nRows));
    }
    ZV_ShareLedger().Holds(kOtherConf, BriefOf(0));
    QB_SetEnvironmentVariable("ROOMCRATE_HOME", nullptr);
}

// A root whose server and Alice hold N rows each, made once per N; each run
// copies it. The homes are kept relative to the root.
struct Template
{
    fs::path root;
    Homes homes;
};

const Template& TemplateOf(int nRows)
{
    static std::map<int, Template> s_mapTemplates;
    auto it = s_mapTemplates.find(nRows);
    if (it != s_mapTemplates.end())
        return it->second;
    const fs::path root = Root() / ("template" + std::to_string(nRows));
    const Homes homes = HomesBelow(root);
    FillStores(homes.server, homes.alice, nRows);
    return s_mapTemplates[nRows] = {root, {fs::relative(homes.server, root), fs::relative(homes.alice, root)}};
}

// Alice's new local files, made once.
const std::vector<std::string>& LocalFiles()
{
    static std::vector<std::string> s_vecPaths;
    if (s_vecPaths.empty())
    {
        fs::create_directories(Root() / "alice");
        for (int i = 0; i < kAdds; ++i)
        {
            s_vecPaths.push_back((Root() / "alice" / ("new-file-" + std::to_string(i) + ".dat")).string());
            std::ofstream(s_vecPaths.back()) << "data";
        }
    }
    return s_vecPaths;
}

std::map<int, std::pair<double, double>>& AddsAt100()
{
    static std::map<int, std::pair<double, double>> s_map;
    return s_map;
}

void BM_Add(benchmark::State& state)
{
    Quiet quiet;
    const int nRows = (int)state.range(0);
    const fs::path& source = TemplateOf(nRows).root;
    const std::vector<std::string>& vecFiles = LocalFiles();
    double dCpu = 0, dWall = 0;
    int nRun = 0;
    for (auto _ : state)
    {
        const fs::path root = Root() / ("run" + std::to_string(nRun++));
        fs::copy(source, root, fs::copy_options::recursive);
        ZV_SimOptions options;
        options.sRoot = root.string();
        auto lpSim = std::make_unique<ZV_SimConference>(ZV_SimModuleApi::Linked(), options);
        lpSim->SetFileIDRange(1, 1, 60000);
        ZV_SimShape shape = ZV_SimBuilder::OneServerTwoClients(*lpSim);
        lpSim->Run();
        IZV_FileShareMgr* lpAlice = shape.Client(0)->GetFileShareMgr();
        const double dCpuBefore = CpuSeconds();
        const double dWallBefore = WallSeconds();
        for (const std::string& sPath : vecFiles)
        {
            lpAlice->FsAdd(Wide(sPath).c_str(), nullptr, 0, 1, 0);
            lpSim->Run();
        }
        dCpu += CpuSeconds() - dCpuBefore;
        dWall += WallSeconds() - dWallBefore;
        if (lpSim->Journal().Events(zvFsEventFileAdded, shape.Client(1)->GetName()).size() != vecFiles.size())
            state.SkipWithError("not every file reached Bob");
        lpSim.reset();
        fs::remove_all(root);
    }
    const double dAdds = (double)kAdds * (double)state.iterations();
    const double dCpuMs = 1e3 * dCpu / dAdds, dWallMs = 1e3 * dWall / dAdds;
    if (nRows == 100)
        AddsAt100()[0] = {dCpuMs, dWallMs};
    state.counters["cpu_ms"] = dCpuMs;
    state.counters["wall_ms"] = dWallMs;
    if (AddsAt100().count(0))
    {
        state.counters["cpu_x100"] = dCpuMs / AddsAt100()[0].first;
        state.counters["wall_x100"] = dWallMs / AddsAt100()[0].second;
    }
}

// The catalogue of the template, opened again and again as a fresh server
// would; the freeing is not part of the open.
void BM_OpenCatalogue(benchmark::State& state)
{
    Quiet quiet;
    const int nRows = (int)state.range(0);
    const fs::path root = Root() / ("open" + std::to_string(nRows));
    const Template& source = TemplateOf(nRows);
    fs::copy(source.root, root, fs::copy_options::recursive);
    QB_SetEnvironmentVariable("ROOMCRATE_HOME", (root / source.homes.server).c_str());
    double dWall = 0;
    for (auto _ : state)
    {
        const double dBefore = WallSeconds();
        auto lpCatalog = std::make_unique<ZV_FileCatalog>();
        benchmark::DoNotOptimize(lpCatalog->Open());
        dWall += WallSeconds() - dBefore;
        state.PauseTiming();
        lpCatalog.reset();
        state.ResumeTiming();
    }
    state.counters["open_ms"] = 1e3 * dWall / (double)state.iterations();
    QB_SetEnvironmentVariable("ROOMCRATE_HOME", nullptr);
    fs::remove_all(root);
}

} // namespace

BENCHMARK(BM_Add)->Arg(100)->Arg(1000)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond)->Iterations(1);
BENCHMARK(BM_OpenCatalogue)->Arg(100)->Arg(1000)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);
