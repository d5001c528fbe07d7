// Adding many files to one server through the simulator: one by one with
// FsAdd, and in batches of 100 with FsFilesAdd. Each new file costs the
// server a stored file, a session and a catalogue save, and each save
// rewrites the whole "fsinfo.ini", so the cost per add grows with the files
// already there. The counter "per_add" is the mean time of one add over the
// whole run; "last_add_cpu_ms" is the CPU time of the last add alone (the
// 1,000th or the 10,000th), which shows the growth at a glance.
//
// BM_OpenCatalogue times opening a catalogue of 1,000 and 10,000 rows, as a
// server does at its start.
//
// Trace lines and the catalogue's long-chain warnings go to a null stream;
// their cost is measured all the same.
#include "ZV_SimBuilder.h"
#include "ZV_SimConference.h"

#include "QB_Env.h"
#include "QB_Plex.h"
#include "records/ZV_FileCatalog.h"
#include "wire/ZV_PduFrame.h"

#include <benchmark/benchmark.h>

#include <cstdio>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

namespace fs = std::filesystem;

namespace {

constexpr int kBatch = 100;

struct Scratch
{
    fs::path root = fs::temp_directory_path() / ("roomcrate-add-bench-" + std::to_string(::getpid()));
    Scratch() { fs::create_directories(root / "alice"); }
    ~Scratch() { fs::remove_all(root); }
    // The local files to share, made once and shared by every run.
    const std::vector<std::string>& Names(int nCount)
    {
        while ((int)m_vecNames.size() < nCount)
        {
            m_vecNames.push_back("file" + std::to_string(m_vecNames.size()) + ".dat");
            std::ofstream(root / "alice" / m_vecNames.back()) << "data";
        }
        return m_vecNames;
    }

private:
    std::vector<std::string> m_vecNames;
};

Scratch& TheScratch()
{
    static Scratch s_scratch;
    return s_scratch;
}

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

// One fresh conference per run, on a fresh folder, so every run starts
// with an empty catalogue.
void RunAdds(benchmark::State& state, bool bBatches)
{
    Quiet quiet;
    const int nFiles = (int)state.range(0);
    const std::vector<std::string>& vecNames = TheScratch().Names(nFiles);
    const std::string sFolder = (TheScratch().root / "alice").string();
    int nRun = 0;
    double dLastAddCpu = 0;
    for (auto _ : state)
    {
        state.PauseTiming();
        ZV_SimOptions options;
        options.sRoot = (TheScratch().root / ("run" + std::to_string(nRun++))).string();
        auto lpSim = std::make_unique<ZV_SimConference>(ZV_SimModuleApi::Linked(), options);
        lpSim->SetFileIDRange(1, 1, 60000);
        ZV_SimShape shape = ZV_SimBuilder::OneServerTwoClients(*lpSim);
        lpSim->Run();
        IZV_FileShareMgr* lpAlice = shape.Client(0)->GetFileShareMgr();
        state.ResumeTiming();
        for (int i = 0; i < nFiles; i += bBatches ? kBatch : 1)
        {
            const double dCpuBefore = CpuSeconds();
            if (bBatches)
            {
                std::vector<std::u16string> vecWide;
                std::vector<const char16_t*> vecPtr;
                for (int k = i; k < i + kBatch && k < nFiles; ++k)
                    vecWide.push_back(Wide(vecNames[(size_t)k]));
                for (const auto& sWide : vecWide)
                    vecPtr.push_back(sWide.c_str());
                lpAlice->FsFilesAdd(Wide(sFolder).c_str(), vecPtr.data(), (uint32_t)vecPtr.size(), nullptr, 0, 1, 0);
            }
            else
                lpAlice->FsAdd(Wide(sFolder + "/" + vecNames[(size_t)i]).c_str(), nullptr, 0, 1, 0);
            lpSim->Run();
            dLastAddCpu = CpuSeconds() - dCpuBefore;
        }
        state.PauseTiming();
        if (lpSim->Journal().Events(bBatches ? zvFsEventFilesAdded : zvFsEventFileAdded,
                                    shape.Client(1)->GetName()).empty())
            state.SkipWithError("no file reached Bob");
        lpSim.reset();
        fs::remove_all(options.sRoot);
        state.ResumeTiming();
    }
    state.counters["per_add"] =
        benchmark::Counter((double)nFiles, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
    // Of a batch: the last batch, divided among its files.
    state.counters["last_add_cpu_ms"] = 1e3 * dLastAddCpu / (bBatches ? kBatch : 1);
}

// A catalogue of N rows, written once in one batch, then opened again and
// again as a fresh server would.
void BM_OpenCatalogue(benchmark::State& state)
{
    Quiet quiet;
    const int nRows = (int)state.range(0);
    const fs::path home = TheScratch().root / ("catalogue" + std::to_string(nRows));
    fs::create_directories(home);
    QB_SetEnvironmentVariable("ROOMCRATE_HOME", home.c_str());
    {
        ZV_FileCatalog catalog;
        catalog.Open();
        catalog.SetRootPath("C:\\store\\");
        QB_Array<ZV_FileUploadInfo> arrRows;
        QB_Array<QB_StringW> arrSections;
        for (int i = 0; i < nRows; ++i)
        {
            ZV_FileUploadInfo row;
            row.SetFileID((uint16_t)(i + 1));
            row.SetFileNewName(QB_StringU8(("file" + std::to_string(i) + ".dat").c_str()));
            ZV_FileBriefInfo brief;
            brief.SetFileOldName(QB_StringU8(("file" + std::to_string(i) + ".dat").c_str()));
            brief.SetFilePath(QB_StringU8("C:\\Users\\alice\\"));
            brief.SetFileLenth(4);
            row.SetBriefInfo(brief);
            arrRows.Add(row);
            arrSections.Add(QB_StringW());
        }
        catalog.SaveFiles(100, arrRows, arrSections);
    }
    for (auto _ : state)
    {
        auto lpCatalog = std::make_unique<ZV_FileCatalog>();
        benchmark::DoNotOptimize(lpCatalog->Open());
        // A server keeps its catalogue to the end; the freeing is not part
        // of the open.
        state.PauseTiming();
        lpCatalog.reset();
        state.ResumeTiming();
    }
    QB_SetEnvironmentVariable("ROOMCRATE_HOME", nullptr);
    fs::remove_all(home);
}

void BM_AddOneByOne(benchmark::State& state)
{
    RunAdds(state, false);
}

void BM_AddInBatchesOf100(benchmark::State& state)
{
    RunAdds(state, true);
}

} // namespace

BENCHMARK(BM_AddOneByOne)->Arg(1000)->Arg(10000)->Unit(benchmark::kMillisecond)->Iterations(1);
BENCHMARK(BM_AddInBatchesOf100)->Arg(1000)->Arg(10000)->Unit(benchmark::kMillisecond)->Iterations(1);
BENCHMARK(BM_OpenCatalogue)->Arg(1000)->Arg(10000)->Unit(benchmark::kMillisecond);
