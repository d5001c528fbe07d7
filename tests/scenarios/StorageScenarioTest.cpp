// Where a server keeps the files shared to it: the folder that "Path" of
// section "FileShare" in its "confsrv.ini" names, read line by line as the
// ini file is, or a folder beside the configuration when it names none.
#include "ZV_SceneFixture.h"

#include <algorithm>
#include <set>

using StorageScene = ZV_Scene;

TEST_F(StorageScene, StoresUnderThePathOfConfsrvIniOrBesideItWhenTheFileNamesNone)
{
    Build();
    ZV_SimHost* lpServer = shape.Server();
    const std::string sIni = lpServer->GetHome() + "confsrv.ini";
    const std::string sBeside = lpServer->GetHome() + "FileShare/";
    struct Row
    {
        const char* szCase;
        std::string sIni;  // empty: no file at all
        std::string sFolder;
    };
    auto Windows = [](const std::string& s) {
        std::string sWin(s);
        std::replace(sWin.begin(), sWin.end(), '/', '\\');
        return sWin;
    };
    const Row aRows[] = {
        {"slashes, blanks around, no closing separator",
         "[FileShare]\r\nPath=  " + tmp.Sub("a/b") + " \t\r\n", tmp.Sub("a/b") + "/"},
        {"a key in other case, backslashes, behind a comment and another section",
         "; store\r\n[Other]\r\nPath=" + tmp.Sub("no") + "\r\n[fileshare]\r\npath=" + Windows(tmp.Sub("c")) + "\\\r\n",
         tmp.Sub("c") + "/"},
        {"blanks around the \"=\" make another key", "[FileShare]\r\nPath = " + tmp.Sub("d") + "\r\n", sBeside},
        {"an empty value", "[FileShare]\r\nPath=   \r\n", sBeside},
        {"a lone LF ends no line", "[FileShare]\nPath=" + tmp.Sub("e") + "\n", sBeside},
        {"no file", "", sBeside},
    };
    ZV_SimModuleApi api = ZV_SimModuleApi::Linked();
    int nRow = 0;
    for (const Row& row : aRows)
    {
        std::filesystem::remove(sIni);
        if (!row.sIni.empty())
            QB_WriteWholeFile(sIni, ZV_Bytes(row.sIni.begin(), row.sIni.end()));
        lpServer->Stop(api);
        ASSERT_TRUE(lpServer->Start(api));
        EXPECT_EQ(0u, lpServer->GetInitializeResult()) << row.szCase;
        const std::string sName = "row" + std::to_string(nRow++) + ".bin";
        const ZV_Bytes data = ZV_RandomBytes(100, nRow);
        Share(sName, data);
        EXPECT_EQ(data, QB_ReadWholeFile(row.sFolder + "100/" + sName)) << row.szCase;
    }
    EXPECT_TRUE(std::filesystem::exists(sIni)) << "a missing file is made, empty";

    // A configuration that cannot be opened at all.
    std::filesystem::remove(sIni);
    std::filesystem::create_directory(sIni);
    lpServer->Stop(api);
    ASSERT_TRUE(lpServer->Start(api));
    EXPECT_EQ(zvResultNoConfig, lpServer->GetInitializeResult());
    // Such a server has no storage folder: it refuses to store, and writes
    // nothing in the folder the process runs in.
    const auto setBefore = std::set<std::filesystem::directory_entry>(std::filesystem::directory_iterator("."), {});
    StartShare("homeless.bin", ZV_RandomBytes(100, 9));
    ASSERT_TRUE(sim.Run()) << sim.GetError();
    EXPECT_EQ(zvResultCannotOpen, ZV_ResultOf(Events(Alice(), zvFsEventFileAdded).back()));
    EXPECT_EQ(setBefore, std::set<std::filesystem::directory_entry>(std::filesystem::directory_iterator("."), {}));
}
