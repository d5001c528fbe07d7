// The machine crashing at every step of an add, upload, download and delete:
// all nodes die keeping only what they synced and start again on the same
// homes. No whole file's saved row is lost, no stored file is left without a
// row, and the road, tried again, ends with the right bytes in place.
#include "ZV_SceneFixture.h"

#include <algorithm>
#include <functional>
#include <set>

namespace {

const ZV_Bytes kData = ZV_RandomBytes(70000, 31);  // three blocks

struct CrashScene : public ZV_Scene
{
    void TestBody() override {}
    uint16_t usFileID = 0xFFFF;

    ZV_SimHost* Carol() const { return shape.Client(2); }
    bool Fetched(ZV_SimHost* lpClient)
    {
        return std::filesystem::exists(Target(lpClient, usFileID)) && QB_ReadWholeFile(Target(lpClient, usFileID)) == kData;
    }
    bool Uploaded()
    {
        ZV_FileUploadInfo row;
        return Row(shape.Server(), usFileID, row) && row.m_BriefInfo.m_usFileState == zvFileStateComplete &&
               StoredBytes(shape.Server(), usFileID) == kData;
    }
    // Past the catalogue's quiet time, so that its rewrite happens inside the road.
    bool Settle() { return sim.AdvanceTime(12000); }
    // The server's row and stored bytes, for a failure's message.
    std::string State()
    {
        ZV_FileUploadInfo row;
        if (!Row(shape.Server(), usFileID, row))
            return ": no row";
        const std::string sStored = Stored(shape.Server(), row);
        return ": row state " + std::to_string(row.m_BriefInfo.m_usFileState) + ", stored " +
               (std::filesystem::exists(sStored) ? std::to_string(std::filesystem::file_size(sStored)) : "none") +
               " of " + std::to_string(kData.size());
    }

    // The whole files the servers' catalogues and Alice's share record hold: a
    // file still arriving leaves with its creator, as the restart makes her.
    std::set<std::string> Rows()
    {
        std::set<std::string> setRows;
        for (ZV_SimHost* lpServer : shape.vecServers)
        {
            QB_Array<ZV_FileUploadInfo> arrInfo;
            QB_Array<QB_StringW> arrSection;
            ZV_FileShareMgrPeer::Catalog(*Manager(lpServer)).LoadConf(ZV_SimBuilder::kConfID, arrInfo, arrSection);
            for (int i = 0; i < arrInfo.GetSize(); ++i)
                if (arrInfo[i].m_BriefInfo.m_usFileState == zvFileStateComplete)
                    setRows.insert(lpServer->GetName() + " " + std::to_string(arrInfo[i].m_usFileID) + " " +
                                   arrInfo[i].m_sFileNewName.GetString());
        }
        if (lpShared && lpShared->m_usFileState == zvFileStateComplete &&
            ZV_FileShareMgrPeer::Ledger(*Manager(Alice())).Holds(ZV_SimBuilder::kConfID, *lpShared))
            setRows.insert("alice's share");
        return setRows;
    }
    std::unique_ptr<ZV_FileBriefInfo> lpShared;

    // Stored files that no catalogue row names.
    std::set<std::string> Orphans()
    {
        std::set<std::string> setNamed;
        QB_Array<ZV_FileUploadInfo> arrInfo;
        QB_Array<QB_StringW> arrSection;
        ZV_FileShareMgrPeer::Catalog(*Manager(shape.Server())).LoadConf(ZV_SimBuilder::kConfID, arrInfo, arrSection);
        for (int i = 0; i < arrInfo.GetSize(); ++i)
            setNamed.insert(arrInfo[i].m_sFileNewName.GetString());
        std::set<std::string> setOrphans;
        const std::string sFolder = shape.Server()->GetHome() + "store/" + std::to_string(ZV_SimBuilder::kConfID);
        if (std::filesystem::exists(sFolder))
            for (const auto& entry : std::filesystem::directory_iterator(sFolder))
                if (!setNamed.count(entry.path().filename().string()))
                    setOrphans.insert(entry.path().filename().string());
        return setOrphans;
    }
    // Every node dies while the disk is down, then all come back.
    bool Reboot()
    {
        ZV_SimModuleApi api = ZV_SimModuleApi::Linked();
        for (ZV_SimHost* lpNode : sim.GetNodes())
            lpNode->Stop(api);
        sim.GetEnv().Restart();
        for (ZV_SimHost* lpServer : shape.vecServers)
            if (!sim.RestartServer(lpServer))
                return false;
        for (ZV_SimHost* lpClient : shape.vecClients)
            if (!sim.RestartClient(lpClient))
                return false;
        return Settle();
    }
};

struct CrashRoad
{
    const char* szName;
    std::function<void(CrashScene&)> fnPrepare;
    std::function<void(CrashScene&)> fnAct;  // runs into the crash
    std::function<void(CrashScene&)> fnRetry;
    std::function<bool(CrashScene&)> fnDone;
    bool bRemovesRows = false;
};

void Upload(CrashScene& s)
{
    const uint32_t ulResult = s.Fs(s.Alice())->FsUpload(s.usFileID);
    EXPECT_TRUE(ulResult == 0 || s.sim.GetEnv().HasCrashed()) << ulResult;
    s.Settle();
}

// After a restart the file left with its creator: she shares it again.
void UploadAgain(CrashScene& s)
{
    if (s.Session(s.Alice(), s.usFileID) == nullptr)
    {
        s.usFileID = s.Share("crash.bin", kData, true);
        s.Settle();
    }
    else
        Upload(s);
}

void Download(CrashScene& s)
{
    s.Download(s.Bob(), s.usFileID);
    s.Settle();
}

void Delete(CrashScene& s)
{
    s.Fs(s.Alice())->FsDelUpload(s.usFileID);
    s.Settle();
}

void ShareOnly(CrashScene& s)
{
    s.usFileID = s.Share("crash.bin", kData, false);
    ASSERT_NE(0xFFFF, s.usFileID);
}

void ShareAndUpload(CrashScene& s)
{
    s.usFileID = s.Share("crash.bin", kData, true);
    ASSERT_NE(0xFFFF, s.usFileID);
    ASSERT_TRUE(s.Settle());
}

void WriteLocal(CrashScene& s)
{
    std::filesystem::create_directories(s.tmp.Sub("alice"));
    QB_WriteWholeFile(s.tmp.Sub("alice/crash.bin"), kData);
}

// The add may fail at the crash: the client's own record could not be written.
void Add(CrashScene& s)
{
    s.Fs(s.Alice())->FsAdd(ZV_Wide(s.tmp.Sub("alice/crash.bin")).c_str(), nullptr, 0, 1, 1);
    s.Settle();
    s.usFileID = s.AddedFileID(s.Alice(), 0);
}

const CrashRoad kRoads[] = {
    {"add", WriteLocal, Add, UploadAgain, [](CrashScene& s) { return s.Uploaded(); }},
    {"upload", ShareOnly, Upload, UploadAgain, [](CrashScene& s) { return s.Uploaded(); }},
    {"download", ShareAndUpload, Download,
     // A restarted server has forgotten the download the resume names, so
     // the resume alone may do nothing: Bob asks again.
     [](CrashScene& s) {
         s.Fs(s.Bob())->FsResumeDownload(s.usFileID);
         s.Settle();
         if (!s.Fetched(s.Bob()))
             s.Download(s.Bob(), s.usFileID);
         s.Settle();
     },
     [](CrashScene& s) { return s.Fetched(s.Bob()); }},
    {"delete", ShareAndUpload, Delete, Delete,
     [](CrashScene& s) {
         ZV_FileUploadInfo row;
         return !s.Row(s.shape.Server(), s.usFileID, row);
     },
     true},
};

std::unique_ptr<CrashScene> Begin(const CrashRoad& road)
{
    auto lpScene = std::make_unique<CrashScene>();
    lpScene->Build(false);
    // The server takes its catalogue back at a start: without that it would
    // hide every file a restart finds, and no road could be finished.
    ZV_SimHost* lpServer = lpScene->shape.Server();
    ZV_Scene::WriteServerConfig(lpServer, true);
    EXPECT_TRUE(lpScene->sim.RestartServer(lpServer) && lpScene->sim.Run()) << lpScene->sim.GetError();
    road.fnPrepare(*lpScene);
    if (lpScene->usFileID != 0xFFFF)
    {
        lpScene->lpShared =
            std::make_unique<ZV_FileBriefInfo>(lpScene->Session(lpScene->Alice(), lpScene->usFileID)->BriefInfo());
    }
    lpScene->sim.GetEnv().TrackDurability();
    lpScene->sim.GetEnv().ResetCounts();
    return lpScene;
}

void PrintTo(const CrashRoad& road, std::ostream* lpOut)
{
    *lpOut << road.szName;
}

class CrashSweep : public ::testing::TestWithParam<CrashRoad>
{
    ZV_QuietTrace m_quiet;
};

TEST_P(CrashSweep, ACrashAtEveryStepLosesNoSavedRowAndTheRoadFinishesAfterTheRestart)
{
    const CrashRoad& road = GetParam();
    int nSteps = 0;
    {
        auto lpScene = Begin(road);
        road.fnAct(*lpScene);
        nSteps = lpScene->sim.GetEnv().GetSteps();
        ASSERT_TRUE(road.fnDone(*lpScene)) << road.szName << " does not finish without a crash" << lpScene->State();
    }
    for (int n = 1; n <= nSteps; ++n)
    {
        SCOPED_TRACE(std::string(road.szName) + ", crash at step " + std::to_string(n));
        auto lpScene = Begin(road);
        CrashScene& s = *lpScene;
        const std::set<std::string> setSaved = s.Rows();
        s.sim.GetEnv().CrashAtStep(n);
        road.fnAct(s);
        ASSERT_TRUE(s.sim.GetEnv().HasCrashed());
        ASSERT_TRUE(s.Reboot()) << s.sim.GetError();
        const std::set<std::string> setNow = s.Rows();
        // The row goes to disk before its first stored byte, and a delete
        // takes the stored file before the row: no crash leaves a stored
        // file that no row names (it would go to no one and stay for good).
        EXPECT_TRUE(s.Orphans().empty());
        road.fnRetry(s);
        EXPECT_TRUE(road.fnDone(s));
        if (road.bRemovesRows)
            continue;
        for (const std::string& sRow : setSaved)
            EXPECT_TRUE(setNow.count(sRow)) << "lost " << sRow;
    }
    std::printf("%s: %d crashes\n", road.szName, nSteps);
}

INSTANTIATE_TEST_SUITE_P(Roads, CrashSweep, ::testing::ValuesIn(kRoads),
                         [](const auto& info) { return std::string(info.param.szName); });

} // namespace
