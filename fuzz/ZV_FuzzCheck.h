// What the harnesses share: a check that ends the run with a line saying
// what broke, so that libFuzzer keeps the input that broke it.
#pragma once

#include <cstdio>
#include <cstdlib>

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
