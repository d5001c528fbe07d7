// Seeded random conferences beyond the suite's hundred, e.g. `random_scenarios
// --seed 101 --count 1000 --steps 120`: each failing seed's report (replay
// command, last steps, journal tail) and a summary; exits 1 if any failed.
#include "ZV_RandomScenario.h"

#include <CLI/CLI.hpp>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <iostream>

namespace fs = std::filesystem;

int main(int argc, char** argv)
{
    CLI::App app{"Seeded random conferences through the simulator"};
    uint32_t ulSeed = 1;
    int nCount = 1, nSteps = 60;
    bool bVerbose = false, bJournal = false, bSmall = false;
    app.add_option("--seed", ulSeed, "first seed");
    app.add_option("--count", nCount, "how many seeds, from the first on")->check(CLI::PositiveNumber);
    app.add_option("--steps", nSteps, "random steps of each run")->check(CLI::PositiveNumber);
    app.add_flag("--verbose", bVerbose, "the whole report of every seed, passed or not");
    app.add_flag("--journal", bJournal, "every step and the whole journal in a failing seed's report");
    app.add_flag("--few-ids", bSmall, "a handful of FileIDs per server, so that numbers are freed and reused");
    CLI11_PARSE(app, argc, argv);

    const fs::path root = fs::temp_directory_path() / ("roomcrate-random-" + std::to_string(::getpid()));
    int nFailed = 0;
    const auto tStart = std::chrono::steady_clock::now();
    for (int i = 0; i < nCount; ++i)
    {
        const fs::path folder = root / std::to_string(ulSeed + (uint32_t)i);
        fs::create_directories(folder);
        const ZV_RandomReport report =
            ZV_RandomScenario({ulSeed + (uint32_t)i, nSteps, folder.string(), bJournal, bSmall, {}}).Run();
        if (!report.Passed() || bVerbose)
            std::cout << report.Describe() << std::flush;
        nFailed += report.Passed() ? 0 : 1;
        fs::remove_all(folder);
    }
    fs::remove_all(root);
    const double dSeconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - tStart).count();
    std::printf("%d of %d seeds passed, %d steps each, in %.1f s\n", nCount - nFailed, nCount, nSteps, dSeconds);
    return nFailed == 0 ? 0 : 1;
}
