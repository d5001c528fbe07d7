#include "ZV_DemoInterrupt.h"

#include <csignal>
#include <cstdlib>
#include <cstring>

namespace zv_demo {

namespace {

volatile std::sig_atomic_t g_nSignal = 0;

void OnSignal(int nSignal)
{
    g_nSignal = nSignal;
}

} // namespace

void CatchInterrupts()
{
    std::signal(SIGINT, OnSignal);
    std::signal(SIGTERM, OnSignal);
    std::signal(SIGPIPE, OnSignal);
}

void StopIfInterrupted()
{
    if (g_nSignal != 0)
        throw Interrupted{g_nSignal};
}

void EnterStage(const char* pszStage)
{
    const char* pszWanted = std::getenv("ROOMCRATE_DEMO_INTERRUPT");
    if (pszWanted != nullptr && std::strcmp(pszWanted, pszStage) == 0)
        std::raise(SIGINT);
}

} // namespace zv_demo
