// "RestoreCatalog" has a server take its catalogue back at start, as the stored files stand; and where it stores.
#include "ZV_SceneFixture.h"

#include <functional>

struct RestoreScene : ZV_Scene
{
    uint16_t ShareWithBob(const std::string& sName, const ZV_Bytes& data)
    {
        return ShareBy(Alice(), sName, data, true, false, {Bob()->GetUserID()});
    }
    void Restart(bool bRestore)
    {
        WriteServerConfig(shape.Server(), bRestore);
        ASSERT_TRUE(sim.RestartServer(shape.Server()) && sim.Run()) << sim.GetError();
    }
    void Fetch(ZV_SimHost* lpClient, uint16_t usFileID)
    {
        Download(lpClient, usFileID);
        ASSERT_TRUE(sim.Run()) << sim.GetError();
    }
};

// Only with the setting are rows taken back, and rights kept in them; a change of rights is saved at once, so a
// restart gives back no lost right.
TEST_F(RestoreScene, TakesEachCatalogueRowBackAsItsStoredFileStandsWhenAsked)
{
    const uint32_t kLength = 100000;
    const ZV_Bytes data = ZV_RandomBytes(kLength, 7);
    Build();
    const std::string sFsInfo = shape.Server()->GetHome() + "fsinfo.ini";
    const std::string sRights("R\0i\0g\0h\0t\0s\0=", 13);  // the file is UTF-16
    const uint16_t usUnset = ShareWithBob("no setting.bin", data);
    Restart(false);
    EXPECT_EQ(nullptr, Session(shape.Server(), usUnset)) << "nothing is taken back without the setting";
    EXPECT_EQ(0u, QB_CountInFiles(sFsInfo, sRights));
    Restart(true);
    std::vector<uint16_t> vecFileID;
    struct Case { const char* szCase; std::function<void(const std::string& sStored)> fnDisk; bool bKept; uint32_t ulPos;
                  uint16_t usState; };
    const Case aRows[] = {
        {"a whole file", [](const std::string&) {}, true, kLength, zvFileStateComplete},
        {"a file cut short", [](const std::string& s) { std::filesystem::resize_file(s, 40000); }, true, 40000,
         zvFileStateUploading},
        {"a file with bytes behind its length", [](const std::string& s) { std::filesystem::resize_file(s, kLength + 9); },
         true, kLength, zvFileStateComplete},
        {"a file gone from the store", [](const std::string& s) { std::filesystem::remove(s); }, false, 0, 0},
        {"a file whose right Bob lost", [&](const std::string&) {
             ASSERT_TRUE(Fs(Alice())->FsSetRight(vecFileID.back(), 0, nullptr, 0, &Bob()->GetUserID(), 1) == 0 && sim.Run());
         }, true, kLength, zvFileStateComplete},
    };
    for (const Case& row : aRows)
    {
        vecFileID.push_back(ShareWithBob(std::string(row.szCase) + ".bin", data));
        ZV_FileUploadInfo stored;
        ASSERT_TRUE(Row(shape.Server(), vecFileID.back(), stored)) << row.szCase;
        row.fnDisk(Stored(shape.Server(), stored));
    }
    Restart(true);
    EXPECT_GT(QB_CountInFiles(sFsInfo, sRights), 0u);

    for (size_t i = 0; i < std::size(aRows); ++i)
    {
        const Case& row = aRows[i];
        SCOPED_TRACE(row.szCase);
        ZV_FileShareSession* lpFsSession = Session(shape.Server(), vecFileID[i]);
        ZV_FileUploadInfo stored;
        ASSERT_EQ(lpFsSession != nullptr, row.bKept);
        EXPECT_EQ(Row(shape.Server(), vecFileID[i], stored), row.bKept) << "a row without its file is dropped";
        ZV_FsFileInfo info{};
        EXPECT_EQ(Fs(Bob())->FsGetFileInfoByFileID(vecFileID[i], &info), row.bKept ? 0u : zvResultUnknownFile) << "as listed";
        if (!row.bKept)
            continue;
        EXPECT_TRUE(lpFsSession->FileInfo().m_ulFileWritePos == row.ulPos && stored.m_ulFileWritePos == row.ulPos);
        EXPECT_EQ(lpFsSession->FileInfo().m_BriefInfo.m_usFileState, row.usState);
        EXPECT_EQ(lpFsSession->IsUploadDone(), row.usState == zvFileStateComplete);
    }

    // Bob may still have the whole file, and gets its bytes; not the last row's.
    Fetch(Bob(), vecFileID[0]);
    EXPECT_EQ(QB_ReadWholeFile(Target(Bob(), vecFileID[0])), data);
    Fetch(Bob(), vecFileID.back());
    EXPECT_NE(QB_ReadWholeFile(Target(Bob(), vecFileID.back())), data);
}

// A server stores under "Path" of section "FileShare" in "confsrv.ini", or beside it when that names none.
using StorageScene = ZV_Scene;

TEST_F(StorageScene, StoresUnderThePathOfConfsrvIniOrBesideItWhenTheFileNamesNone)
{
    Build();
    ZV_SimHost* lpServer = shape.Server();
    const std::string sIni = lpServer->GetHome() + "confsrv.ini";
    const std::string sBeside = lpServer->GetHome() + "FileShare/";
    struct Row { const char* szCase; std::string sIni; std::string sFolder; };  // sIni empty: no file at all
    const Row aRows[] = {
        {"slashes, blanks around, no closing separator",
         "[FileShare]\r\nPath=  " + tmp.Sub("a/b") + " \t\r\n", tmp.Sub("a/b") + "/"},
        {"a key in other case, backslashes, behind a comment and another section",
         "; store\r\n[Other]\r\nPath=" + tmp.Sub("no") + "\r\n[fileshare]\r\npath=" + QB_StringU8(QB_ToWindowsPath(tmp.Sub("c"))).GetString() + "\\\r\n",
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
}

// A server without a storage folder learns its peer's files but makes or removes nothing where it runs.
TEST_F(StorageScene, AServerWithoutAStorageFolderTouchesNothingWhereItRuns)
{
    Build(true);
    ZV_SimHost* lpHome = shape.Server();
    const uint16_t usFileID = Share("here.bin", ZV_RandomBytes(100, 3), false);
    const std::string sIni = lpHome->GetHome() + "confsrv.ini";
    std::filesystem::remove(sIni);
    std::filesystem::create_directory(sIni);
    const std::filesystem::path before = std::filesystem::current_path();
    std::filesystem::create_directories(tmp.Sub("cwd"));
    std::filesystem::current_path(tmp.Sub("cwd"));
    QB_WriteWholeFile("here.bin", ZV_Bytes{1, 2, 3});
    ASSERT_TRUE(sim.RestartServer(lpHome)) << sim.GetError();
    ASSERT_TRUE(sim.Run()) << sim.GetError();
    EXPECT_EQ(zvResultNoConfig, lpHome->GetInitializeResult());
    ASSERT_NE(nullptr, Session(lpHome, usFileID)) << "learned from the peer's list";

    ASSERT_TRUE(Fs(Alice())->FsUpload(usFileID) == 0 && sim.Run()) << sim.GetError();
    EXPECT_EQ(zvResultCannotOpen, LastResult(Alice(), zvFsEventTransferError));
    ASSERT_TRUE(Fs(Alice())->FsDelUpload(usFileID) == 0 && sim.Run()) << sim.GetError();
    std::vector<std::string> vecHere;
    for (const auto& entry : std::filesystem::directory_iterator("."))
        vecHere.push_back(entry.path().filename().string());
    std::filesystem::current_path(before);
    EXPECT_EQ(std::vector<std::string>{"here.bin"}, vecHere);
}
