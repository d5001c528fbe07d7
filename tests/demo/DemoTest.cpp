// The demo run as a person runs it: names from the folder it runs in, what it
// says, its exit code, and what it leaves in the temporary folder.
#include "QB_TestSupport.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sys/wait.h>

namespace fs = std::filesystem;

namespace {

struct DemoRun
{
    int nExit = -1;
    std::string sOutput;
    size_t nLeftBehind = 0;  // entries the demo left in the temporary folder
};

// Runs the demo in `cwd` with `sArgs` (shell words) and TMPDIR at `tmp`.
DemoRun RunDemo(const fs::path& cwd, const fs::path& tmp, const std::string& sArgs)
{
    fs::create_directories(tmp);
    const fs::path out = cwd / "demo-output.txt";
    const std::string sCommand = "cd '" + cwd.string() + "' && TMPDIR='" + tmp.string() + "' '" ROOMCRATE_DEMO "' " +
                                 sArgs + " >'" + out.string() + "' 2>&1";
    DemoRun run;
    const int nStatus = std::system(sCommand.c_str());
    run.nExit = WIFEXITED(nStatus) ? WEXITSTATUS(nStatus) : -1;
    std::ifstream in(out);
    run.sOutput.assign(std::istreambuf_iterator<char>(in), {});
    for ([[maybe_unused]] const auto& entry : fs::directory_iterator(tmp))
        ++run.nLeftBehind;
    return run;
}

} // namespace

TEST(Demo, SaysWhatBecameOfEveryFileNamedFromTheFolderItRunsIn)
{
    QB_TempFolder tmp;
    const fs::path cwd = tmp.Sub("cwd");
    fs::create_directories(cwd / "a");
    fs::create_directories(cwd / "b");
    QB_WriteWholeFile((cwd / "a/report.txt").string(), "first");
    QB_WriteWholeFile((cwd / "b/report.txt").string(), "the second");
    QB_WriteWholeFile((cwd / "empty.bin").string(), "");
    QB_WriteWholeFile((cwd / "back\\slash.txt").string(), "x");
    QB_WriteWholeFile((cwd / "smile\xF0\x9F\x98\x80.txt").string(), "x");
    const std::string sCwd = cwd.string();
    const struct
    {
        const char* szRow;
        std::string sArgs;
        int nExit;
        std::vector<std::string> vecSaid;
        std::vector<std::string> vecNotSaid;
        size_t nLeftBehind;
    } aRows[] = {
        {"help", "--help", 0, {"usage: run-demo", "--keep"}, {"Conference"}, 0},
        {"a missing file", "nosuch.txt", 2, {"not a file: nosuch.txt"}, {"Conference"}, 0},
        {"two files of one name and an empty one",
         "a/report.txt b/report.txt empty.bin",
         0,
         {sCwd + "/a/report.txt: identical to report.txt\n", sCwd + "/b/report.txt: identical to report(1).txt\n",
          sCwd + "/empty.bin: identical to empty.bin\n", "Every file arrived byte for byte."},
         {"stalled", "Everything the demo made"},
         0},
        {"names the system cannot hold, refused before anything is sent",
         "'back\\slash.txt' 'smile\xF0\x9F\x98\x80.txt' a/report.txt",
         1,
         {"cannot share " + sCwd + "/back\\slash.txt: its path holds a \"\\\"",
          "cannot share " + sCwd + "/smile\xF0\x9F\x98\x80.txt: its name or folder holds a character",
          "a/report.txt: identical to report.txt\n", "2 could not be shared"},
         {"sees file #2", "failed:"},
         0},
        {"the generated files, a late joiner given them all, a download stopped and resumed, one hidden and one "
         "deleted",
         "",
         0,
         {", nothing more.", "arrived identical to its source.",
          "[Bob] may no longer have \"notes.txt\"", "asks for it anyway: the user is not allowed",
          "[Bob] \"photo.jpg\" is gone from the conference.", "held 3 file(s) and now holds 2.",
          "Bob no longer knows of it.", "Carol was given 3 of the 3 shared file(s) on entering.",
          "Carol's copy arrived identical to its source."},
         {"MORE", "STILL KNOWS", "DID NOT", "NOT REFUSED"},
         0},
        {"the scratch folder kept on request", "--keep a/report.txt", 0, {"Everything the demo made is in "}, {}, 1},
    };
    int nRow = 0;
    for (const auto& row : aRows)
    {
        const DemoRun run = RunDemo(cwd, tmp.Sub("t" + std::to_string(nRow++)), row.sArgs);
        EXPECT_EQ(row.nExit, run.nExit) << row.szRow << "\n" << run.sOutput;
        for (const std::string& sSaid : row.vecSaid)
            EXPECT_NE(std::string::npos, run.sOutput.find(sSaid)) << row.szRow << ": " << sSaid << "\n" << run.sOutput;
        for (const std::string& sNot : row.vecNotSaid)
            EXPECT_EQ(std::string::npos, run.sOutput.find(sNot)) << row.szRow << ": " << sNot << "\n" << run.sOutput;
        EXPECT_EQ(row.nLeftBehind, run.nLeftBehind) << row.szRow;
    }
}
