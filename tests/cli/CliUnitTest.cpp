// The roomcrate client's parts that need no server: events at the host guide's
// offsets, settings, which file a word means, fetched files' names, shell lines.
#include "ZV_CliCatalog.h"
#include "ZV_CliOutput.h"
#include "ZV_CliSettings.h"
#include "ZV_CliShell.h"

#include "QB_TestSupport.h"

#include <gtest/gtest.h>

#include <bit>
#include <cstring>
#include <fstream>
#include <functional>
#include <sstream>
#include <tuple>

namespace {

struct Bytes
{
    std::vector<uint8_t> vb;
    Bytes& U8(uint8_t b) { return vb.push_back(b), *this; }
    Bytes& U16(uint16_t us) { return U8((uint8_t)us).U8((uint8_t)(us >> 8)); }
    Bytes& U32(uint32_t ul) { return U16((uint16_t)ul).U16((uint16_t)(ul >> 16)); }
    Bytes& U64(uint64_t ull) { return U32((uint32_t)ull).U32((uint32_t)(ull >> 32)); }
    Bytes& F64(double d) { return U64(std::bit_cast<uint64_t>(d)); }
    Bytes& Text(const std::string& s) { return U8((uint8_t)s.size()), vb.insert(vb.end(), s.begin(), s.end()), *this; }
    Bytes& Add(const Bytes& b) { return vb.insert(vb.end(), b.vb.begin(), b.vb.end()), *this; }
    // A delimited record of these fields under this mask, the mask as a word of two bytes.
    Bytes& Record(uint16_t usMask, const Bytes& fields)
    {
        return U32((uint32_t)(4 + 2 + fields.vb.size())).U16((uint16_t)(usMask << 2 | 1)).Add(fields);
    }
};
Bytes operator+(Bytes a, const Bytes& b) { return a.Add(b); }


// A brief record of a file's folder (when given), name, length and rights.
Bytes Brief(const std::string& sName, std::vector<uint32_t> vecAllowed, bool bPublic, const std::string& sFolder = {})
{
    Bytes fields;
    if (!sFolder.empty())
        fields.Text(sFolder);
    fields.Text(sName).U32(1234).U8((uint8_t)vecAllowed.size());
    for (uint32_t ulUser : vecAllowed)
        fields.U32(ulUser).U32(0);
    fields.U8(bPublic ? 1 : 0);
    return Bytes().Record((sFolder.empty() ? 0 : 1 << 2) | 1 << 3 | 1 << 5 | 1 << 9 | 1 << 10, fields);
}

Bytes Head(uint16_t usEvent, uint32_t ulResult, uint16_t usFileID) { return Bytes().U16(usEvent).U32(ulResult).U16(usFileID); }

}  // namespace

TEST(CliEvents, EachEventLeavesTheCatalogAsItsBytesSayAndNoCutOfABatchIsRead)
{
    const Bytes kAdded = Head(3000, 0, 7) + Brief("a", {}, true) + Bytes().F64(100);
    const Bytes kDownload = Bytes().Record(1 << 0 | 1 << 1 | 1 << 3, Bytes().U16(7).Text("/home/bob/in\\").Text("a(1).bin"));
    using D = ZV_CliDownload;
    // vecEvents are applied in order, the first as a joining list
    struct Row { const char* szName; std::vector<std::pair<uint16_t, Bytes>> vecEvents; uint16_t usFileID;
                 bool bKnown; double dServer; bool bPublic; std::vector<uint32_t> vecAllowed;
                 ZV_CliDownload eDownload; std::string sTarget; } aRows[] = {
        {"an added file, kept to two users", {{3000, Head(3000, 0, 7) + Brief("a.bin", {10002, 10003}, false) + Bytes().F64(40)}},
         7, true, 40, false, {10002, 10003}, D::None, ""},
        {"a refused add names no file", {{3000, Head(3000, 40, 7) + Brief("a.bin", {}, true) + Bytes().F64(0)}},
         7, false, 0, true, {}, D::None, ""},
        {"a joining list counts hundredths of a percent",
         {{3013, Bytes().U16(3013).U32(0).U8(2).U16(7).U16(9).U8(2) + Brief("a", {}, true) + Brief("b", {5}, false) +
                     Bytes().U8(2).F64(2500).F64(10000)}},
         9, true, 100, false, {5}, D::None, ""},
        {"rights change, then the server holds more",
         {{3000, Head(3000, 0, 7) + Brief("a", {}, true) + Bytes().F64(10)},
          {3003, Head(3003, 0, 7) + Brief("a", {10003}, false) + Bytes().F64(20)}, {3008, Head(3008, 0, 7) + Bytes().F64(60)}},
         7, true, 60, false, {10003}, D::None, ""},
        {"a download under way, with its target in Windows form, stopped",
         {{3000, kAdded}, {3002, Head(3002, 0, 7) + kDownload + Bytes().F64(30)}, {3011, Bytes().U16(3011).U32(0).U8(0).U16(7).U16(2)}},
         7, true, 100, true, {}, D::Stopped, "/home/bob/in/a(1).bin"},
        {"a download the server lists as finished is no running one",
         {{3000, kAdded}, {3002, Head(3002, 0, 7) + Bytes().Record(1 << 0 | 1 << 1 | 1 << 3 | 1 << 10,
                                                                   Bytes().U16(7).Text("/in/").Text("a").U16(3)) + Bytes().F64(100)}},
         7, true, 100, true, {}, D::Finished, "/in/a"},
        {"a finished download", {{3000, kAdded}, {3002, Head(3002, 0, 7) + kDownload + Bytes().F64(30)}, {3007, Head(3007, 0, 7) + Bytes().U8(1)}},
         7, true, 100, true, {}, D::Finished, "/home/bob/in/a(1).bin"},
        {"a file deleted on the server", {{3000, kAdded}, {3005, Head(3005, 0, 7) + Bytes().U8(1)}}, 7, false, 0, true, {}, D::None, ""},
        {"a refused delete leaves the file", {{3000, kAdded}, {3005, Head(3005, 40, 7) + Bytes().U8(1)}}, 7, true, 100, true, {}, D::None, ""},
        {"a record that claims more than the event holds changes no rights",
         {{3000, kAdded}, {3003, Head(3003, 0, 7) + Bytes().U32(4000).U16(1 << 12 | 1)}}, 7, true, 100, true, {}, D::None, ""},
    };
    for (const Row& row : aRows)
    {
        ZV_CliCatalog catalog;
        bool bJoining = true;
        for (const auto& [usEvent, bytes] : row.vecEvents)
            catalog.Apply(ZV_ReadCliEvent(usEvent, bytes.vb), std::exchange(bJoining, false));
        const ZV_CliFileState* lpFile = catalog.Find(row.usFileID);
        ASSERT_EQ(row.bKnown, lpFile != nullptr) << row.szName;
        if (!lpFile)
            continue;
        EXPECT_EQ(std::tie(row.dServer, row.bPublic, row.vecAllowed, row.eDownload, row.sTarget),
                  std::tie(lpFile->dServerPercent, lpFile->bPublic, lpFile->vecAllowed, lpFile->eDownload, lpFile->sTarget))
            << row.szName;
    }

    const Bytes full = Bytes().U16(3013).U32(0).U8(1).U16(7).U8(2) + Brief("a", {1, 2}, false, "\\home\\al\\") +
                       Brief("b", {}, true) + Bytes().U8(1).F64(5);
    for (size_t n = 0; n < full.vb.size(); ++n)
        EXPECT_FALSE(ZV_ReadCliEvent(3013, {full.vb.begin(), full.vb.begin() + (long)n}).bValid) << n;
    // Where each file was shared from, which is how a batch's answer finds its adds.
    const ZV_CliEvent ev = ZV_ReadCliEvent(3013, full.vb);
    EXPECT_EQ(std::tie(ev.bValid, ev.vecPaths), std::make_tuple(true, std::vector<std::string>{"/home/al/a", "b"}));
}

TEST(CliSettings, EachSettingAndTheSecretComeFromTheFirstPlaceThatGivesThem)
{
    const std::string kToml = "server = \"files.example:7200\"\nconference = 100\nuser = 10001\nname = \"alice\"\n"
                              "secret_file = \"alice.secret\"\n";
    struct Row { const char* szName; ZV_CliValues mapOptions; std::map<std::string, std::string> mapEnv;
                 std::string sToml; bool bOk; std::string sServer; uint16_t usPort; uint32_t ulUser;
                 std::string sSecretFile; std::string sHome; } aRows[] = {
        {"the file alone, a relative path from its folder", {}, {{"HOME", "/h"}}, kToml, true, "files.example", 7200,
         10001, "/etc/rc/alice.secret", "/h/.local/share/roomcrate"},
        {"the environment over the file", {}, {{"ROOMCRATE_USER", "10002"}, {"XDG_DATA_HOME", "/d"}}, kToml, true,
         "files.example", 7200, 10002, "/etc/rc/alice.secret", "/d/roomcrate"},
        {"an option over both", {{"user", "10003"}, {"server", "10.0.0.1"}}, {{"ROOMCRATE_USER", "10002"}}, kToml,
         true, "10.0.0.1", 7100, 10003, "/etc/rc/alice.secret", "/.local/share/roomcrate"},
        {"an IPv6 address with its port", {{"server", "[::1]:7300"}}, {}, kToml, true, "::1", 7300, 10001,
         "/etc/rc/alice.secret", "/.local/share/roomcrate"},
        {"no conference anywhere", {{"user", "1"}}, {}, "", false, "", 0, 0, "", ""},
        {"a port out of range", {{"server", "h:70000"}}, {}, kToml, false, "", 0, 0, "", ""},
        {"a user that is no number", {}, {{"ROOMCRATE_USER", "bob"}}, kToml, false, "", 0, 0, "", ""},
        {"a key the file should not have", {}, {}, kToml + "secret = \"x\"\n", false, "", 0, 0, "", ""},
        {"a file that is no TOML", {}, {}, "server = ", false, "", 0, 0, "", ""},
    };
    for (const Row& row : aRows)
    {
        auto fnEnv = [&](const char* szName) -> const char* {
            auto it = row.mapEnv.find(szName);
            return it == row.mapEnv.end() ? (std::strcmp(szName, "HOME") == 0 ? "" : nullptr) : it->second.c_str();
        };
        ZV_CliSettings settings;
        std::string sError;
        const bool bOk = ZV_LoadCliSettings(row.mapOptions, fnEnv, row.sToml, "/etc/rc/client.toml", settings, sError);
        ASSERT_EQ(row.bOk, bOk) << row.szName << ": " << sError;
        EXPECT_TRUE(bOk || !sError.empty()) << row.szName;
        if (!bOk)
            continue;
        EXPECT_EQ(std::tie(row.sServer, row.usPort, row.ulUser, row.sSecretFile, row.sHome),
                  std::tie(settings.sServer, settings.usPort, settings.ulUser, settings.sSecretFile, settings.sHome))
            << row.szName;
    }

    QB_TempFolder tmp;
    std::ofstream(tmp.Path() + "/good") << "s3cret\nmore\n";
    std::ofstream(tmp.Path() + "/empty") << "\n";
    struct SecretRow { const char* szName; std::string sFile; const char* szEnv; std::optional<std::string> osSecret;
    } aSecrets[] = {
        {"its file's first line", tmp.Path() + "/good", "env", std::string("s3cret")},
        {"the environment without a file", "", "env", std::string("env")},
        {"an empty first line", tmp.Path() + "/empty", nullptr, std::nullopt},
        {"a file that is not there", tmp.Path() + "/none", nullptr, std::nullopt},
    };
    for (const SecretRow& row : aSecrets)
    {
        ZV_CliSettings settings;
        settings.sSecretFile = row.sFile;
        std::string sError;
        auto fnEnv = [&](const char* szName) { return std::strcmp(szName, "ROOMCRATE_SECRET") == 0 ? row.szEnv : nullptr; };
        EXPECT_EQ(row.osSecret, ZV_ReadCliSecret(settings, fnEnv, sError)) << row.szName;
    }
}

TEST(CliFiles, AWordNamesOneFileOrUserOrIsRefusedWithAllItCouldMean)
{
    const std::map<uint16_t, std::string> mapNames = {{3, "a.bin"}, {5, "b.txt"}, {8, "b.txt"}, {12, "5"}};
    struct Row { const char* szWord; std::optional<uint16_t> ousFileID; std::vector<uint16_t> vecMatches; } aRows[] = {
        {"a.bin", 3, {3}},       {"b.txt", std::nullopt, {5, 8}}, {"8", 8, {}},      {"5", 12, {12}},
        {"99", std::nullopt, {}}, {"c", std::nullopt, {}},         {"65539", std::nullopt, {}},
    };
    for (const Row& row : aRows)
    {
        const ZV_CliMatch match = ZV_ResolveFile(row.szWord, mapNames);
        EXPECT_EQ(std::tie(row.ousFileID, row.vecMatches), std::tie(match.ousFileID, match.vecMatches)) << row.szWord;
    }

    const std::map<uint32_t, std::string> mapUsers = {{10001, "alice"}, {10002, "bob"}, {20002, "bob"}, {10003, "carol"}};
    struct UserRow { const char* szWord; std::optional<uint32_t> oulUser; std::vector<uint32_t> vecMatches; } aUsers[] = {
        {"carol", 10003, {10003}},       {"bob", std::nullopt, {10002, 20002}}, {"10002", 10002, {}},
        {"30001", 30001, {}},            {"dave", std::nullopt, {}},            {"Carol", std::nullopt, {}},
        {"0", std::nullopt, {}},         {"4294967296", std::nullopt, {}},      {"", std::nullopt, {}},
    };
    for (const UserRow& row : aUsers)
    {
        const ZV_CliUserMatch match = ZV_ResolveUser(row.szWord, mapUsers);
        EXPECT_EQ(std::tie(row.oulUser, row.vecMatches), std::tie(match.oulUser, match.vecMatches)) << row.szWord;
    }
}

TEST(CliFiles, AFetchedFileTakesTheFirstFreeNameBesideThoseThere)
{
    QB_TempFolder tmp;
    for (const char* szName : {"a.bin", "a(1).bin", "notes"})
        std::ofstream(tmp.Path() + "/" + szName) << "x";
    EXPECT_EQ(tmp.Path() + "/a(2).bin", ZV_FreeTarget(tmp.Path(), "a.bin"));
    EXPECT_EQ(tmp.Path() + "/notes(1)", ZV_FreeTarget(tmp.Path(), "notes"));
    std::ofstream(tmp.Path() + "/abc") << "abc";
    EXPECT_EQ("ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad", ZV_Sha256OfFile(tmp.Path() + "/abc"));
    EXPECT_EQ("", ZV_Sha256OfFile(tmp.Path() + "/none"));
}

TEST(CliShell, ALineBecomesACommandOrIsRefusedWithAReason)
{
    struct Row { const char* szLine; bool bOk; std::string sVerb; std::vector<std::string> vecArgs;
                 std::vector<std::string> vecUsers; bool bPublic; std::string sOutDir; } aRows[] = {
        {"share a.bin \"my notes.txt\" --to 10002 carol", true, "share", {"a.bin", "my notes.txt"}, {"10002", "carol"}, false, "."},
        {"get 7 b.txt -o /tmp/in", true, "get", {"7", "b.txt"}, {}, false, "/tmp/in"},
        {"allow a.bin bob 10003", true, "allow", {"a.bin"}, {"bob", "10003"}, false, "."},
        {"deny a.bin --public", true, "deny", {"a.bin"}, {}, true, "."},
        {"ls", true, "ls", {}, {}, false, "."},
        {"allow a.bin", false, "", {}, {}, false, ""},
        {"stop a.bin b.bin", false, "", {}, {}, false, ""},
        {"get", false, "", {}, {}, false, ""},
        {"fetch a.bin", false, "", {}, {}, false, ""},
    };
    for (const Row& row : aRows)
    {
        ZV_CliCommand command;
        std::string sError;
        ASSERT_EQ(row.bOk, ZV_ShellCommand(ZV_ShellWords(row.szLine), command, sError)) << row.szLine << ": " << sError;
        if (!row.bOk)
            continue;
        EXPECT_EQ(std::tie(row.sVerb, row.vecArgs, row.vecUsers, row.bPublic, row.sOutDir),
                  std::tie(command.sVerb, command.vecArgs, command.vecUsers, command.bPublic, command.sOutDir))
            << row.szLine;
    }
}

// What people read, to the column: the ls table (sizes for people, the
// download's state, a creator by name or by number) and progress lines
// (bar, percent, bytes, rate, time left), on a terminal redrawn in place.
TEST(CliOutput, TablesAndBarsAreLaidOutInTheirColumns)
{
    auto Shown = [](bool bTerminal, const std::function<void(ZV_CliOutput&)>& fnDo) {
        std::ostringstream out, err;
        ZV_CliOutput output(out, err, false, false, bTerminal);
        fnDo(output);
        return out.str() + err.str();
    };
    auto Ls = [&](std::vector<ZV_CliFileInfo> vecFiles) { return Shown(false, [&](ZV_CliOutput& o) { o.Files(vecFiles); }); };
    ZV_CliFileInfo report{7, "report.pdf", 5 << 20, 10001, "alice", 100, true, {}, "downloading", 42.6};
    ZV_CliFileInfo notes{12, "my notes.txt", 812, 10002, "", 37.5, false, {10001}, "-", 0};
    const std::string kHead = "   ID        SIZE    HELD  MINE              SHARED BY         NAME\n";
    const struct { const char* szName; std::function<std::string()> fnRender; std::string sExpected; } aRows[] = {
        {"ls: a download under way, a creator known by number",
         [&] { return Ls({report, notes}); },
         kHead + "    7     5.0 MiB    100%  downloading 42%   alice             report.pdf\n"
                 "   12       812 B     38%  -                 10002             my notes.txt\n"},
        {"ls of nothing", [&] { return Ls({}); }, kHead + "(no files)\n"},
        {"half way at a MiB a second", [] { return ZV_CliProgressLine("a.bin", 5 << 20, 10 << 20, 1 << 20, 10); },
         "a.bin [#####.....]  50% 5.0 MiB of 10.0 MiB, 1.0 MiB/s, 0:05 left"},
        {"nothing yet, no rate", [] { return ZV_CliProgressLine("b", 0, 1024, 0, 10); },
         "b [..........]   0% 0 B of 1.0 KiB, 0 B/s, --:-- left"},
        {"an hour and more left", [] { return ZV_CliProgressLine("c", 0, 4000ull << 20, 1 << 20, 4); },
         "c [....]   0% 0 B of 3.9 GiB, 1.0 MiB/s, 66:40 left"},
        {"an empty file is whole", [] { return ZV_CliProgressLine("d", 0, 0, 0, 4); },
         "d [####] 100% 0 B of 0 B, 0 B/s, --:-- left"},
        {"two bars on a terminal, the first taken away and the second redrawn",
         [&] {
             return Shown(true, [](ZV_CliOutput& o) {
                 o.Progress("a", "a.bin", 0, 100), o.Progress("b", "b.bin", 0, 100), o.EndProgress("a");
             });
         },
         "a.bin [........................]   0% 0 B of 100 B, 0 B/s, --:-- left\n"
         "\x1b[1A\x1b[2K\r"
         "a.bin [........................]   0% 0 B of 100 B, 0 B/s, --:-- left\n"
         "b.bin [........................]   0% 0 B of 100 B, 0 B/s, --:-- left\n"
         "\x1b[1A\x1b[2K\x1b[1A\x1b[2K\r"
         "b.bin [........................]   0% 0 B of 100 B, 0 B/s, --:-- left\n"},
        {"no bars where the output is no terminal",
         [&] { return Shown(false, [](ZV_CliOutput& o) { o.Progress("a", "a.bin", 50, 100); }); }, ""},
    };
    for (const auto& row : aRows)
        EXPECT_EQ(row.sExpected, row.fnRender()) << row.szName;
}
