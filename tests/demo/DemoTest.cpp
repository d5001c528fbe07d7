// The demo run as a person runs it: names from the folder it runs in, what it
// says, its exit code, and what it leaves in the temporary folder.
#include "QB_TestSupport.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <regex>
#include <sys/wait.h>

namespace fs = std::filesystem;

namespace {

struct DemoRun { int nExit = -1; std::string sOutput; size_t nLeftBehind = 0; /* in the temporary folder */ };

// Runs the demo in `cwd` with `sArgs` (shell words), TMPDIR at `tmp` and
// the variables of `sEnv` (shell assignments).
DemoRun RunDemo(const fs::path& cwd, const fs::path& tmp, const std::string& sArgs, const std::string& sEnv = "")
{
    fs::create_directories(tmp);
    const fs::path out = cwd / "demo-output.txt";
    const std::string sCommand = "cd '" + cwd.string() + "' && " + sEnv + " TMPDIR='" + tmp.string() +
                                 "' '" ROOMCRATE_DEMO "' " + sArgs + " >'" + out.string() + "' 2>&1";
    const int nStatus = std::system(sCommand.c_str());
    const std::vector<uint8_t> vbOut = QB_ReadWholeFile(out.string());
    return {WIFEXITED(nStatus) ? WEXITSTATUS(nStatus) : -1, std::string(vbOut.begin(), vbOut.end()),
            (size_t)std::distance(fs::directory_iterator(tmp), fs::directory_iterator())};
}

} // namespace

TEST(Demo, SaysWhatBecameOfEveryFileNamedFromTheFolderItRunsInAndEndsAtOnceOnCtrlC)
{
    QB_TempFolder tmp;
    const fs::path cwd = tmp.Sub("cwd");
    fs::create_directories(cwd / "a"), fs::create_directories(cwd / "b");
    for (const auto& [pszName, pszText] : {std::pair{"a/report.txt", "first"}, {"b/report.txt", "the second"}, {"empty.bin", ""},
                                           {"back\\slash.txt", "x"}, {"smile\xF0\x9F\x98\x80.txt", "x"}})
        QB_WriteWholeFile((cwd / pszName).string(), pszText);
    const std::string sCwd = cwd.string();
    // szStage: the demo raises Ctrl-C itself at the start of that stage, as a
    // person pressing it then would; after szSaid[0] come only the rest of
    // that line and the one line that ends the demo.
    const struct { const char* szRow; std::string sArgs; int nExit; std::vector<std::string> vecSaid, vecNotSaid;
                   size_t nLeftBehind; const char* szStage = nullptr; } aRows[] = {
        {"help", "--help", 0, {"usage: run-demo", "--keep"}, {"Conference"}, 0},
        {"a missing file, in one line", "nosuch.txt", 2, {"run-demo: no such file: nosuch.txt\n"}, {"usage"}, 0},
        {"a folder, in one line", "a", 2, {"run-demo: not a file: a\n"}, {"usage"}, 0},
        {"two files of one name and an empty one, all too small to stop", "a/report.txt b/report.txt empty.bin", 0,
         {"Bob's report.txt is identical to Alice's " + sCwd + "/a/report.txt\n",
          "Bob's report(1).txt is identical to Alice's " + sCwd + "/b/report.txt\n",
          "Bob's empty.bin is identical to Alice's " + sCwd + "/empty.bin\n", "Every file arrived byte for byte.",
          "all 10 bytes arrived before the stop could reach the server"},
         {"stalled", "stopped with", "Everything the demo made"}, 0},
        {"names the system cannot hold, refused before anything is sent",
         "'back\\slash.txt' 'smile\xF0\x9F\x98\x80.txt' a/report.txt", 1,
         {"cannot share " + sCwd + "/back\\slash.txt: its path holds a \"\\\"",
          "cannot share " + sCwd + "/smile\xF0\x9F\x98\x80.txt: its name or folder holds a character",
          "Bob's report.txt is identical to Alice's " + sCwd + "/a/report.txt\n", "2 could not be shared"},
         {"sees file #2", "failed:"}, 0},
        {"every file refused: no step without a file", "'back\\slash.txt'", 1,
         {"Nothing could be shared, so there is nothing to store, download or check.\n"},
         {"stores the conference's files", "downloads every file", "Checking"}, 0},
        {"the generated files, a late joiner given them all, a download stopped and resumed, one hidden and one "
         "deleted", "", 0,
         {"of 1,048,583 bytes on disk", ", nothing more.", "arrived identical to its source.",
          "[Bob] may no longer have \"notes.txt\"", "asks for it anyway: the user is not allowed",
          "[Bob] \"photo.jpg\" is gone from the conference.", "server 1's store held 3 file(s) and now holds 2.",
          "Bob no longer knows of it.", "Carol was given 3 of the 3 shared file(s) on entering.",
          "Carol's copy arrived identical to its source.", "Carol no longer knows of it."},
         {"MORE", "STILL KNOWS", "DID NOT", "NOT REFUSED"}, 0},
        {"linked servers: who sits where, both stores, trace lines by node", "--linked --trace a/report.txt", 0,
         {"on servers 1 and 2, linked: Alice joins on server 1, Carol on server 2.\n",
          "Server 2 stores the conference's files in", "  [server 1] recv a PDU_CONF_FS_ADD_REQUEST\n",
          "  [Carol] recv a PDU_CONF_FS_ADD_RESPONSE\n", "Dave enters the conference on server 1",
          "server 2's store held 1 file(s) and now holds 0.", "Dave no longer knows of it."},
         {"\r", "STILL KNOWS"}, 0},
        {"the scratch folder kept on request", "--keep a/report.txt", 0, {"Everything the demo made is in "}, {}, 1},
        {"Ctrl-C at join", "", 130, {"Conference 100 on server 1: Alice and Bob join.\n"}, {}, 0, "join"},
        {"Ctrl-C at share", "", 130, {"Alice shares notes.txt by itself.\n"}, {}, 0, "share"},
        {"Ctrl-C at store", "", 130, {"Server 1 stores the conference's files in "}, {}, 0, "store"},
        {"Ctrl-C at download", "", 130, {"Bob downloads every file:\n  notes.txt  ["}, {}, 0, "download"},
        {"Ctrl-C at check", "", 130, {"Checking every download against its own source:\n"}, {}, 0, "check"},
        {"Ctrl-C at late", "", 130, {"A late joiner: Carol enters the conference"}, {}, 0, "late"},
        {"Ctrl-C at stop", "", 130, {"Bob downloads photo.jpg once more and stops partway.\n"}, {}, 0, "stop"},
        {"Ctrl-C at rights", "", 130, {"Alice takes from everyone else the right to notes.txt.\n"}, {}, 0, "rights"},
        {"Ctrl-C at delete", "", 130, {"Alice deletes photo.jpg from the conference.\n"}, {}, 0, "delete"},
    };
    int nRow = 0;
    for (const auto& row : aRows)
    {
        const DemoRun run = RunDemo(cwd, tmp.Sub("t" + std::to_string(nRow++)), row.sArgs,
                                    row.szStage ? std::string("ROOMCRATE_DEMO_INTERRUPT=") + row.szStage : "");
        EXPECT_EQ(row.nExit, run.nExit) << row.szRow << "\n" << run.sOutput;
        for (const std::string& sSaid : row.vecSaid)
            EXPECT_NE(std::string::npos, run.sOutput.find(sSaid)) << row.szRow << ": " << sSaid << "\n" << run.sOutput;
        for (const std::string& sNot : row.vecNotSaid)
            EXPECT_EQ(std::string::npos, run.sOutput.find(sNot)) << row.szRow << ": " << sNot << "\n" << run.sOutput;
        EXPECT_EQ(row.nLeftBehind, run.nLeftBehind) << row.szRow;
        if (!row.szStage)
            continue;
        const size_t nAt = run.sOutput.find(row.vecSaid[0]);
        EXPECT_TRUE(nAt != std::string::npos && std::regex_match(run.sOutput.substr(nAt + row.vecSaid[0].size()),
                                                                 std::regex("[^\n]*\n?Interrupted\\.\n")))
            << row.szRow << "\n" << run.sOutput;
        EXPECT_EQ(run.sOutput.find("Interrupted"), run.sOutput.size() - 13) << row.szRow;
    }
}
