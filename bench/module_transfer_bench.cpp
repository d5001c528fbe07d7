// One big file through a whole conference, against the machine's own copies.
//
//     transfer_bench [MiB] [folder]      (default 256 MiB, in the temp folder)
//
// makes a file of random bytes and copies it three ways: with cp, with a
// plain loop of 32 KiB reads and writes, and through the simulator, where
// Alice shares it, the server stores it and Bob downloads it, so that the
// module writes every byte twice and reads it twice. Each copy runs five
// times, each time in a child process of its own so that one's peak memory
// does not hide another's, and is checked byte for byte afterwards, outside
// the timing. CPU time is the children's user plus system time; peak RSS is
// the child's own maximum resident set.
//
//     transfer_bench --module-only MiB folder
//
// runs the conference copy alone in this process, on folder/alice/source.bin
// made before, for a profiler such as `perf record` to watch.
//
// Nothing here waits for the disk: like cp, every copy ends when its bytes
// are in the page cache, and a sync before each run starts it clean.
#include "ZV_SimBuilder.h"
#include "ZV_SimConference.h"

#include "QB_ByteStream.h"
#include "QB_String.h"
#include "wire/ZV_PduFrame.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

namespace fs = std::filesystem;

namespace {

constexpr size_t kMiB = 1024 * 1024;
constexpr size_t kLoopBlock = 32 * 1024;
// The journal keeps this much of each payload, and this many entries: enough
// to see why a run got stuck, too little to grow with the file.
constexpr size_t kJournalBytes = 32;
constexpr size_t kJournalEntries = 4096;
// Simulated seconds the download may take before the run counts as stuck.
constexpr int kMaxSimSeconds = 3600;
constexpr int kRuns = 5;

struct Paths
{
    fs::path root;
    fs::path Source() const { return root / "alice" / "source.bin"; }
    fs::path Copy() const { return root / "copy.bin"; }
    fs::path Nodes() const { return root / "nodes"; }
    fs::path Download() const { return root / "bob" / "download.bin"; }
};

struct Figures
{
    const char* szName = "";
    bool bOk = false;
    double dWall = 0;  // seconds
    double dCpu = 0;   // seconds, user + system
    long lPeakKiB = 0;
};

double Seconds(const timeval& tv)
{
    return (double)tv.tv_sec + (double)tv.tv_usec / 1e6;
}

double CpuOfChildren()
{
    rusage ru{};
    ::getrusage(RUSAGE_CHILDREN, &ru);
    return Seconds(ru.ru_utime) + Seconds(ru.ru_stime);
}

// A fast generator is enough: the bytes only have to defeat any shortcut
// for zeros or repeats.
void MakeRandomFile(const fs::path& path, size_t nMiB)
{
    std::FILE* lpFile = std::fopen(path.c_str(), "wb");
    if (!lpFile)
    {
        std::perror(path.c_str());
        std::exit(2);
    }
    std::vector<uint64_t> vBlock(kMiB / sizeof(uint64_t));
    uint64_t ullState = 0x9E3779B97F4A7C15ull;
    for (size_t nDone = 0; nDone < nMiB; ++nDone)
    {
        for (uint64_t& ull : vBlock)
        {
            uint64_t z = (ullState += 0x9E3779B97F4A7C15ull);
            z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
            z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
            ull = z ^ (z >> 31);
        }
        if (std::fwrite(vBlock.data(), 1, kMiB, lpFile) != kMiB)
        {
            std::perror(path.c_str());
            std::exit(2);
        }
    }
    std::fclose(lpFile);
}

bool SameBytes(const fs::path& a, const fs::path& b)
{
    std::FILE* lpA = std::fopen(a.c_str(), "rb");
    std::FILE* lpB = std::fopen(b.c_str(), "rb");
    bool bSame = lpA && lpB;
    std::vector<char> vA(kMiB), vB(kMiB);
    while (bSame)
    {
        size_t nA = std::fread(vA.data(), 1, kMiB, lpA);
        size_t nB = std::fread(vB.data(), 1, kMiB, lpB);
        bSame = nA == nB && std::memcmp(vA.data(), vB.data(), nA) == 0;
        if (nA == 0)
            break;
    }
    if (lpA)
        std::fclose(lpA);
    if (lpB)
        std::fclose(lpB);
    return bSame;
}

// Page cache the kernel hands out for the first time can cost several times
// what recycled pages cost on a virtual machine whose host takes freed
// memory back. Writing and dropping as many bytes as the next run writes,
// just before it, lets each copy meet recycled pages alike.
void WarmPageCache(const fs::path& scratch, size_t nMiB)
{
    std::FILE* lpFile = std::fopen(scratch.c_str(), "wb");
    if (!lpFile)
        return;
    std::vector<char> vBlock(kMiB, 1);
    for (size_t n = 0; n < nMiB && std::fwrite(vBlock.data(), 1, kMiB, lpFile) == kMiB; ++n)
    {
    }
    std::fclose(lpFile);
    std::error_code ec;
    fs::remove(scratch, ec);
}

// Runs fnChild in a child process and measures it from outside.
Figures Measure(const char* szName, const std::function<int()>& fnChild)
{
    ::sync();
    Figures figures;
    figures.szName = szName;
    std::fflush(nullptr);
    const double dCpuBefore = CpuOfChildren();
    const auto tStart = std::chrono::steady_clock::now();
    pid_t pid = ::fork();
    if (pid < 0)
    {
        std::perror("fork");
        return figures;
    }
    if (pid == 0)
        ::_exit(fnChild());
    int nStatus = 0;
    rusage ru{};
    // The child's own rusage: RUSAGE_CHILDREN's peak is the largest of all
    // children so far, which would carry one run's peak into the next.
    ::wait4(pid, &nStatus, 0, &ru);
    figures.dWall = std::chrono::duration<double>(std::chrono::steady_clock::now() - tStart).count();
    figures.dCpu = CpuOfChildren() - dCpuBefore;
    figures.lPeakKiB = ru.ru_maxrss;
    figures.bOk = WIFEXITED(nStatus) && WEXITSTATUS(nStatus) == 0;
    return figures;
}

// The machine is shared, so one run can be unlucky: each copy runs kRuns
// times and the run of median wall time stands for it, with the highest peak
// of all. Every run's result is checked and removed before the next.
Figures MeasureRuns(const char* szName, const std::function<int()>& fnChild, const fs::path& result,
                    const Paths& paths, size_t nWrittenMiB)
{
    std::vector<Figures> vecRuns;
    bool bAllOk = true;
    long lPeakKiB = 0;
    for (int nRun = 0; nRun < kRuns; ++nRun)
    {
        WarmPageCache(paths.root / "warm.bin", nWrittenMiB);
        Figures figures = Measure(szName, fnChild);
        bAllOk = bAllOk && figures.bOk && SameBytes(paths.Source(), result);
        lPeakKiB = std::max(lPeakKiB, figures.lPeakKiB);
        vecRuns.push_back(figures);
        std::error_code ec;
        fs::remove(result, ec);
        fs::remove_all(paths.Nodes(), ec);
    }
    std::sort(vecRuns.begin(), vecRuns.end(), [](const Figures& a, const Figures& b) { return a.dWall < b.dWall; });
    Figures median = vecRuns[vecRuns.size() / 2];
    median.bOk = bAllOk;
    median.lPeakKiB = lPeakKiB;
    return median;
}

int CopyWithCp(const Paths& paths)
{
    ::execlp("cp", "cp", paths.Source().c_str(), paths.Copy().c_str(), (char*)nullptr);
    return 127;
}

int CopyWithLoop(const Paths& paths)
{
    int fdIn = ::open(paths.Source().c_str(), O_RDONLY);
    int fdOut = ::open(paths.Copy().c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fdIn < 0 || fdOut < 0)
        return 1;
    std::vector<char> vBlock(kLoopBlock);
    for (;;)
    {
        ssize_t nRead = ::read(fdIn, vBlock.data(), vBlock.size());
        if (nRead < 0)
            return 1;
        if (nRead == 0)
            break;
        for (ssize_t nDone = 0; nDone < nRead;)
        {
            ssize_t nWritten = ::write(fdOut, vBlock.data() + nDone, (size_t)(nRead - nDone));
            if (nWritten <= 0)
                return 1;
            nDone += nWritten;
        }
    }
    return ::close(fdIn) == 0 && ::close(fdOut) == 0 ? 0 : 1;
}

std::u16string Wide(const std::string& sUtf8)
{
    QB_StringW s(QB_StringU8(sUtf8.c_str()));
    return std::u16string(s.GetString(), (size_t)s.GetLength());
}

uint32_t U32At(const std::vector<uint8_t>& vbData, size_t nOffset)
{
    QB_ByteStream stream(vbData.data(), (int32_t)vbData.size());
    stream.Skip((int32_t)nOffset);
    return stream.ReadU32();
}

// Alice shares the source with its upload started, then Bob downloads it.
// Gives 0 once Bob's file is complete.
int CopyThroughConference(const Paths& paths)
{
    std::FILE* lpNull = std::fopen("/dev/null", "w");
    ZV_SetTraceStream(lpNull);
    ZV_SimOptions options;
    options.sRoot = paths.Nodes().string();
    options.nJournalPayloadBytes = kJournalBytes;
    options.nJournalEntries = kJournalEntries;
    options.nStepLimit = SIZE_MAX;
    ZV_SimConference sim(ZV_SimModuleApi::Linked(), options);
    ZV_SimShape shape = ZV_SimBuilder::OneServerTwoClients(sim);
    if (!shape.IsComplete() || !sim.Run())
    {
        std::fprintf(stderr, "no conference: %s\n", sim.GetError().c_str());
        return 1;
    }
    ZV_SimHost* lpAlice = shape.Client(0);
    ZV_SimHost* lpBob = shape.Client(1);
    uint32_t ulFileID = 0xFFFFFFFFu;
    bool bFinished = false;
    uint32_t ulFailure = 0;
    lpAlice->SetEventCallback([&](ZV_SimHost&, uint16_t usEvent, const std::vector<uint8_t>& vbData) {
        if (usEvent == zvFsEventFileAdded && vbData.size() >= 8)
            ulFileID = (uint32_t)vbData[6] | ((uint32_t)vbData[7] << 8);
    });
    lpBob->SetEventCallback([&](ZV_SimHost&, uint16_t usEvent, const std::vector<uint8_t>& vbData) {
        const bool bEnds = usEvent == zvFsEventDownloadFinished || usEvent == zvFsEventDownloadState ||
                           usEvent == zvFsEventTransferError;
        if (!bEnds || vbData.size() < 6)
            return;
        if (U32At(vbData, 2) != 0)
            ulFailure = U32At(vbData, 2);
        else if (usEvent == zvFsEventDownloadFinished)
            bFinished = true;
    });

    uint32_t ulResult = lpAlice->GetFileShareMgr()->FsAdd(Wide(paths.Source().string()).c_str(), nullptr, 0, 1, 1);
    if (ulResult != 0 || !sim.Run() || ulFileID > 0xFFFF)
    {
        std::fprintf(stderr, "the share failed: FsAdd %u, %s\n", ulResult, sim.GetError().c_str());
        return 1;
    }
    fs::create_directories(paths.Download().parent_path());
    ulResult = lpBob->GetFileShareMgr()->FsDownload((uint16_t)ulFileID, Wide(paths.Download().string()).c_str());
    if (ulResult != 0)
    {
        std::fprintf(stderr, "FsDownload answered %u\n", ulResult);
        return 1;
    }
    for (int nSecond = 0; !bFinished && !ulFailure && nSecond < kMaxSimSeconds; ++nSecond)
        if (!sim.AdvanceTime(1000))
        {
            std::fprintf(stderr, "%s\n", sim.GetError().c_str());
            return 1;
        }
    if (!bFinished)
        std::fprintf(stderr, "the download did not finish (result %u)\n", ulFailure);
    return bFinished ? 0 : 1;
}

void PrintRow(const Figures& f, const Figures& cp, const Figures& loop)
{
    std::printf("%-10s %8.2f %8.2f %10.1f   %6.2fx %6.2fx %6.2fx   %6.2fx %6.2fx  %s\n", f.szName, f.dWall, f.dCpu,
                (double)f.lPeakKiB / 1024.0, f.dWall / cp.dWall, f.dCpu / cp.dCpu,
                (double)f.lPeakKiB / (double)cp.lPeakKiB, f.dWall / loop.dWall, f.dCpu / loop.dCpu,
                f.bOk ? "identical" : "FAILED");
}

int Usage()
{
    std::fprintf(stderr, "usage: transfer_bench [MiB] [folder]\n"
                         "       transfer_bench --module-only MiB folder\n");
    return 2;
}

}  // namespace

int main(int argc, char** argv)
{
    std::vector<std::string> vecArgs(argv + 1, argv + argc);
    const bool bModuleOnly = !vecArgs.empty() && vecArgs[0] == "--module-only";
    if (bModuleOnly)
        vecArgs.erase(vecArgs.begin());
    if (vecArgs.size() > 2 || (bModuleOnly && vecArgs.size() != 2))
        return Usage();
    const long lMiB = vecArgs.empty() ? 256 : std::strtol(vecArgs[0].c_str(), nullptr, 10);
    if (lMiB <= 0 || lMiB > 1024 * 1024)
        return Usage();
    const fs::path base = vecArgs.size() > 1 ? fs::path(vecArgs[1]) : fs::temp_directory_path();

    Paths paths;
    if (bModuleOnly)
    {
        paths.root = base;
        fs::remove_all(paths.Nodes());
        fs::remove_all(paths.Download().parent_path());
        return CopyThroughConference(paths);
    }
    std::error_code ec;
    fs::create_directories(base, ec);
    std::string sTemplate = (base / "transfer-XXXXXX").string();
    if (!::mkdtemp(sTemplate.data()))
    {
        std::perror(sTemplate.c_str());
        return 2;
    }
    paths.root = sTemplate;
    fs::create_directories(paths.Source().parent_path());

    std::printf("%ld MiB in %s\n", lMiB, paths.root.c_str());
    MakeRandomFile(paths.Source(), (size_t)lMiB);

    auto fnCp = [&] { return CopyWithCp(paths); };
    auto fnLoop = [&] { return CopyWithLoop(paths); };
    auto fnModule = [&] { return CopyThroughConference(paths); };
    const size_t nMiB = (size_t)lMiB;
    const Figures cp = MeasureRuns("cp", fnCp, paths.Copy(), paths, nMiB);
    const Figures loop = MeasureRuns("loop 32K", fnLoop, paths.Copy(), paths, nMiB);
    const Figures module = MeasureRuns("module", fnModule, paths.Download(), paths, 2 * nMiB);
    std::printf("\n%-10s %8s %8s %10s   %7s %7s %7s   %7s %7s\n", "copy", "wall s", "cpu s", "peak MiB", "wall",
                "cpu", "peak", "/loop", "cpu");
    for (const Figures* lpF : {&cp, &loop, &module})
        PrintRow(*lpF, cp, loop);
    std::printf("(ratios against cp, then wall and cpu against the 32 KiB loop; the module stores the file\n"
                " twice, on the server and at Bob's, so 2x the loop is its floor)\n");

    fs::remove_all(paths.root, ec);
    return cp.bOk && loop.bOk && module.bOk ? 0 : 1;
}
