// What the harnesses share: a check that ends the run with a line saying
// what broke, so that libFuzzer keeps the input that broke it.
#pragma once

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#define FUZZ_CHECK(cond, ...)                                                       \
    do                                                                              \
    {                                                                               \
        if (!(cond))                                                                \
        {                                                                           \
            std::fprintf(stderr, "%s:%d: %s: ", __FILE__, __LINE__, #cond);         \
            std::fprintf(stderr, __VA_ARGS__);                                      \
            std::fprintf(stderr, "\n");                                             \
            std::abort();                                                           \
        }                                                                           \
    } while (0)

// A fresh folder for a harness's files, in memory where the machine has
// such a place: the module syncs what it writes, and a sync to a busy disk
// can outlast a fuzz run's time limit without anything being wrong. The
// folder goes when the run ends.
inline std::filesystem::path ZV_FuzzScratch(const char* pszName)
{
    const char* pszBase = std::filesystem::exists("/dev/shm") ? "/dev/shm" : "/tmp";
    std::string sTemplate = std::string(pszBase) + "/" + pszName + ".XXXXXX";
    const char* pszMade = ::mkdtemp(sTemplate.data());
    FUZZ_CHECK(pszMade != nullptr, "no temporary folder under %s", pszBase);
    static std::filesystem::path made;
    made = pszMade;
    std::atexit([] {
        std::error_code error;
        std::filesystem::remove_all(made, error);
    });
    return made;
}
