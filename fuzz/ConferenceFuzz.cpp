// A small conference on the simulator, steered by the input: the random
// conferences' run with every choice taken from the input instead of a
// seed, so that libFuzzer learns which choices reach new code. Users share,
// upload, download, stop, resume, change rights and delete real files;
// links are cut and restored, users leave and come back, servers and
// clients restart, roles change, the clock runs, a client sends its server
// PDUs of any number and payload, and file operations fail.
//
// The oracle is the random conferences' own: every file where it belongs,
// catalogues, deletes, writes only where allowed, nobody left busy, the
// wire's flags, and what every user was told. A broken promise ends the
// run with the report that says which, and the steps that led there.
#include "ZV_FuzzCheck.h"
#include "ZV_FuzzInput.h"

#include "ZV_RandomScenario.h"

#include <cstdlib>
#include <filesystem>

namespace fs = std::filesystem;

namespace {

const fs::path& Root()
{
    static const fs::path root = ZV_FuzzScratch("roomcrate-conffuzz");
    return root;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t nSize)
{
    ZV_FuzzReader in(pData, nSize);
    const fs::path folder = Root() / "run";
    fs::remove_all(folder);
    fs::create_directories(folder);
    ZV_RandomOptions options;
    options.ulSeed = 1;
    options.nSteps = in.Range(1, 40);
    options.bSmallFileIDs = in.Bool();
    options.sRoot = folder.string();
    // To replay a failing input with every PDU of the run in the report.
    options.bWholeJournal = std::getenv("ROOMCRATE_WHOLE_JOURNAL") != nullptr;
    options.fnDraw = [&in](uint32_t ulBelow) { return in.Range<uint32_t>(0, ulBelow - 1); };
    const ZV_RandomReport report = ZV_RandomScenario(options).Run();
    FUZZ_CHECK(report.Passed(), "\n%s", report.Describe().c_str());
    return 0;
}
