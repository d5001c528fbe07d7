// roomcrate demo: a whole conference in one process.
//
// One server and two clients (with --linked, two linked servers with one
// client each) run real managers over the conference simulator. The first
// client shares files, one alone and the rest as a batch; every user side
// says in plain words what it sees; the server's stored folder and its
// catalogue follow. Then the second client downloads every file, with a
// progress bar drawn from its events, and the demo checks that each copy is
// byte-identical to its own source. A third user who enters late is given
// every file and downloads one.
//
//     roomcrate_demo [--linked] [--trace] [--keep] [FILE...]
#include "ZV_DemoFiles.h"

#include "ZV_FileBriefInfo.h"
#include "ZV_FileDownloadInfo.h"
#include "ZV_PduFrame.h"
#include "ZV_RecordStream.h"
#include "ZV_ResultText.h"
#include "ZV_SimBuilder.h"
#include "ZV_SimConference.h"

#include "QB_ByteStream.h"
#include "QB_Env.h"
#include "QB_String.h"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <map>
#include <random>
#include <sstream>

using namespace zv_demo;

namespace {

volatile std::sig_atomic_t g_bInterrupted = 0;

void OnInterrupt(int)
{
    g_bInterrupted = 1;
}

// The simulator's journal keeps this much of the traffic: enough for its
// error reports, and no copy of the files' bytes.
constexpr size_t kJournalPayloadBytes = 64;
constexpr size_t kJournalEntries = 4096;
// A download that has not moved for this long in the conference's time has
// stalled; the module itself looks at a stalled file after 15 to 20 seconds.
constexpr uint32_t kStallMs = 60000;

struct DemoOptions
{
    bool bLinked = false;
    bool bTrace = false;
    bool bKeep = false;
    std::vector<LocalFile> vecFiles;
};

// One file the sharer asked for, from the share to the check.
struct SharedFile
{
    LocalFile source;
    bool bAlone = false;
    int nFileID = -1;
    fs::path download;
    int nBarDrawn = 0;
    double dPercent = 0.0;
    bool bFinished = false;
    uint32_t ulFailure = 0;
};

std::string Said(uint32_t ulResult)
{
    return std::string(zvResultText(ulResult)) + " (result " + std::to_string(ulResult) + ")";
}

std::string DescribeBrief(int nFileID, const ZV_FileBriefInfo& brief)
{
    std::ostringstream out;
    out << "file #" << nFileID << " \"" << brief.m_sFileOldName.GetString() << "\", "
        << Thousands(brief.m_ulFileLenth) << " bytes, shared by " << brief.m_sCreatorName.GetString();
    return out.str();
}

// A record's folder and name, as the sharer's source is known by.
std::u16string WhereFrom(const ZV_FileBriefInfo& brief)
{
    const QB_StringW s(brief.m_sFilePath + brief.m_sFileOldName);
    return std::u16string(s.View());
}

class Demo
{
public:
    Demo(DemoOptions options, fs::path root)
        : m_options(std::move(options)), m_root(std::move(root)), m_sim(ZV_SimModuleApi::Linked(), MakeOptions(m_root))
    {
    }

    bool Run()
    {
        if (!BuildConference())
            return false;
        if (m_options.vecFiles.empty())
            for (const fs::path& sample : MakeSampleFiles(m_root / "alice-files"))
            {
                std::string sProblem;
                m_options.vecFiles.push_back(ResolveArgument(sample.string(), sProblem));
            }
        const size_t nRefused = ShareFiles();
        ShowStore();
        DownloadAll();
        const bool bSame = Verify(nRefused);
        const bool bJoined = ShowLateJoiner();
        const bool bControlled = ShowControl();
        return bSame && bJoined && bControlled;
    }

private:
    static ZV_SimOptions MakeOptions(const fs::path& root)
    {
        ZV_SimOptions options;
        options.sRoot = (root / "nodes").string();
        options.nJournalPayloadBytes = kJournalPayloadBytes;
        options.nJournalEntries = kJournalEntries;
        options.nStepLimit = SIZE_MAX;
        return options;
    }

    bool BuildConference()
    {
        m_shape = m_options.bLinked ? ZV_SimBuilder::TwoLinkedServers(m_sim, ZV_SimBuilder::kConfID, 1)
                                    : ZV_SimBuilder::OneServerTwoClients(m_sim);
        if (!m_shape.IsComplete() || !m_sim.Run())
        {
            std::cerr << "the conference could not be built: " << m_sim.GetError() << "\n";
            return false;
        }
        m_lpSharer = m_shape.Client(0);
        m_lpReceiver = m_shape.Client(1);
        for (ZV_SimHost* lpClient : m_shape.vecClients)
            lpClient->SetEventCallback([this](ZV_SimHost& host, uint16_t usEvent, const std::vector<uint8_t>& vb) {
                OnEvent(host, usEvent, vb);
            });
        std::cout << "Conference " << ZV_SimBuilder::kConfID << ": "
                  << (m_options.bLinked ? "servers 1 and 2, linked; " : "server 1; ") << Who(m_lpSharer) << " and "
                  << Who(m_lpReceiver) << " have joined.\n\n";
        return true;
    }

    static std::string Who(const ZV_SimHost* lpHost) { return lpHost->GetUserRecord().sName; }

    // What the system cannot share is refused here, before anything is
    // sent. The first shareable file goes alone, the rest as batches.
    // Gives the number refused.
    size_t ShareFiles()
    {
        size_t nRefused = 0;
        bool bAloneTaken = false;
        for (const LocalFile& file : m_options.vecFiles)
        {
            SharedFile shared;
            shared.source = file;
            shared.bAlone = !bAloneTaken && WhyNotShareable(file, true).empty();
            const std::string sWhy = WhyNotShareable(file, shared.bAlone);
            if (!sWhy.empty())
            {
                std::cout << Who(m_lpSharer) << " cannot share " << file.path.string() << ": " << sWhy << ".\n";
                ++nRefused;
                continue;
            }
            bAloneTaken = bAloneTaken || shared.bAlone;
            m_vecShared.push_back(shared);
        }
        IZV_FileShareMgr* lpFs = m_lpSharer->GetFileShareMgr();
        for (const SharedFile& shared : m_vecShared)
            if (shared.bAlone)
            {
                std::cout << Who(m_lpSharer) << " shares " << shared.source.path.filename().string()
                          << " by itself.\n";
                Report("FsAdd", lpFs->FsAdd(shared.source.sWide.c_str(), nullptr, 0, 1, 1));
                m_sim.Run();
            }
        ShareBatches(lpFs);
        std::cout << "\n";
        return nRefused;
    }

    // The batch form takes one folder and names in it; files from other
    // folders go in a batch of their own.
    void ShareBatches(IZV_FileShareMgr* lpFs)
    {
        std::map<std::u16string, std::vector<std::u16string>> mapByFolder;
        for (const SharedFile& shared : m_vecShared)
        {
            if (shared.bAlone)
                continue;
            const size_t nSlash = shared.source.sWide.rfind(u'\\');
            mapByFolder[shared.source.sWide.substr(0, nSlash)].push_back(shared.source.sWide.substr(nSlash + 1));
        }
        for (const auto& [sFolder, vecNames] : mapByFolder)
        {
            std::cout << Who(m_lpSharer) << " shares " << vecNames.size() << " more file(s) as one batch.\n";
            std::vector<const char16_t*> vecPtrs;
            for (const auto& sName : vecNames)
                vecPtrs.push_back(sName.c_str());
            Report("FsFilesAdd",
                   lpFs->FsFilesAdd(sFolder.c_str(), vecPtrs.data(), (uint32_t)vecPtrs.size(), nullptr, 0, 1, 1));
            m_sim.Run();
        }
    }

    void Report(const char* szOperation, uint32_t ulResult)
    {
        if (ulResult != zvResultOk)
            std::cout << "  " << Who(m_lpSharer) << "'s " << szOperation << " failed: " << Said(ulResult) << ".\n";
    }

    void OnEvent(ZV_SimHost& host, uint16_t usEvent, const std::vector<uint8_t>& vb)
    {
        try
        {
            QB_ByteStream stream(vb.data(), (int32_t)vb.size());
            stream.ReadU16();
            if (usEvent == zvFsEventFileAdded)
                OnFileAdded(host, stream);
            else if (usEvent == zvFsEventFilesAdded)
                OnFilesAdded(host, stream);
            else if (usEvent == zvFsEventRightChanged || usEvent == zvFsEventFileHidden ||
                     usEvent == zvFsEventFileGone)
                OnControlEvent(host, usEvent, stream);
            else if (&host != m_lpReceiver)
                return;
            else if (usEvent == zvFsEventDownloadProgress)
                OnDownloadProgress(stream);
            else if (usEvent == zvFsEventDownloadFinished || usEvent == zvFsEventDownloadState)
                OnDownloadEnd(usEvent, stream);
        }
        catch (const QB_StreamException&)
        {
            std::cout << "[" << Who(&host) << "] could not read event " << usEvent << "\n";
        }
    }

    void OnFileAdded(ZV_SimHost& host, QB_ByteStream& stream)
    {
        const uint32_t ulResult = stream.ReadU32();
        const uint16_t usFileID = stream.ReadU16();
        ZV_FileBriefInfo brief;
        LoadDelimited(stream, brief);
        if (ulResult != zvResultOk)
        {
            std::cout << "[" << Who(&host) << "] the server refused \"" << brief.m_sFileOldName.GetString()
                      << "\": " << Said(ulResult) << "\n";
            return;
        }
        Learn(host, usFileID, brief);
    }

    // A batch that the server refused comes back as records without FileIDs.
    void OnFilesAdded(ZV_SimHost& host, QB_ByteStream& stream)
    {
        stream.ReadU32();
        std::vector<uint16_t> vecIDs(stream.ReadCount());
        for (uint16_t& usFileID : vecIDs)
            usFileID = stream.ReadU16();
        const uint32_t nInfos = stream.ReadCount();
        for (uint32_t i = 0; i < nInfos; ++i)
        {
            ZV_FileBriefInfo brief;
            LoadDelimited(stream, brief);
            if (i < vecIDs.size())
                Learn(host, vecIDs[i], brief);
            else
                std::cout << "[" << Who(&host) << "] the server refused \"" << brief.m_sFileOldName.GetString()
                          << "\"\n";
        }
    }

    // The sharer's own view ties each FileID to its source: the first file
    // of that folder and name that has none yet, so that files of one name
    // from different folders, or one file shared twice, keep apart.
    void Learn(ZV_SimHost& host, uint16_t usFileID, const ZV_FileBriefInfo& brief)
    {
        std::cout << "[" << Who(&host) << "] sees " << DescribeBrief(usFileID, brief) << "\n";
        if (&host == m_lpLate)
            ++m_nLateSeen;
        if (&host != m_lpSharer)
            return;
        for (SharedFile& shared : m_vecShared)
            if (shared.nFileID < 0 && shared.source.sWide == WhereFrom(brief))
            {
                shared.nFileID = usFileID;
                return;
            }
    }

    void ShowStore()
    {
        const ZV_SimHost* lpServer = m_shape.Server(0);
        const fs::path store = fs::path(lpServer->GetHome()) / "store" / std::to_string(ZV_SimBuilder::kConfID);
        std::cout << "Server 1 stores the conference's files in " << store.string() << ":\n";
        std::error_code ec;
        if (fs::is_directory(store, ec))
            for (const auto& entry : fs::directory_iterator(store, ec))
                std::cout << "  " << entry.path().filename().string() << "  "
                          << Thousands(entry.is_regular_file() ? entry.file_size() : 0) << " bytes\n";
        std::cout << "\nIts catalogue, fsinfo.ini:\n"
                  << ReadUtf16File(fs::path(lpServer->GetHome()) / "fsinfo.ini") << "\n";
    }

    static std::string ReadUtf16File(const fs::path& file)
    {
        std::ifstream in(file, std::ios::binary);
        std::string sBytes((std::istreambuf_iterator<char>(in)), {});
        if (sBytes.size() < 2 || (uint8_t)sBytes[0] != 0xFF || (uint8_t)sBytes[1] != 0xFE)
            return sBytes;
        QB_StringW sWide(reinterpret_cast<const char16_t*>(sBytes.data() + 2), (int)(sBytes.size() - 2) / 2);
        std::string sText = QB_StringU8(sWide).GetString();
        std::string sOut;
        for (char c : sText)
            if (c != '\r')
                sOut += c;
        std::istringstream lines(sOut);
        std::string sIndented, sLine;
        while (std::getline(lines, sLine))
            sIndented += "  " + sLine + "\n";
        return sIndented;
    }

    void DownloadAll()
    {
        std::cout << Who(m_lpReceiver) << " downloads every file:\n";
        const fs::path folder = m_root / (Who(m_lpReceiver) + "-downloads");
        fs::create_directories(folder);
        std::set<fs::path> setTaken;
        for (SharedFile& shared : m_vecShared)
            if (shared.nFileID >= 0 && !g_bInterrupted)
            {
                shared.download = DistinctTarget(folder, shared.source.path.filename().string(), setTaken);
                Download(shared);
            }
    }

    void Download(SharedFile& shared)
    {
        std::cout << "  " << shared.download.filename().string() << "  [" << std::flush;
        m_lpCurrent = &shared;
        const std::u16string sPath = QB_PathFromSystem(shared.download.string());
        const uint32_t ulResult =
            m_lpReceiver->GetFileShareMgr()->FsDownload((uint16_t)shared.nFileID, sPath.c_str());
        if (ulResult != zvResultOk)
            shared.ulFailure = ulResult;
        double dSeen = -1.0;
        for (uint32_t ulQuiet = 0; !shared.bFinished && !shared.ulFailure && ulQuiet < kStallMs && !g_bInterrupted;)
        {
            m_sim.AdvanceTime(100);
            ulQuiet = shared.dPercent > dSeen ? 0 : ulQuiet + 100;
            dSeen = shared.dPercent;
        }
        m_lpCurrent = nullptr;
        if (shared.bFinished)
            std::cout << "] done\n";
        else if (shared.ulFailure)
            std::cout << "] failed: " << Said(shared.ulFailure) << "\n";
        else
            std::cout << (g_bInterrupted ? "] interrupted\n" : "] stalled\n");
    }

    void OnDownloadProgress(QB_ByteStream& stream)
    {
        const uint32_t ulResult = stream.ReadU32();
        const uint16_t usFileID = stream.ReadU16();
        const double dPercent = stream.ReadDouble();
        if (m_lpCurrent == nullptr || m_lpCurrent->nFileID != usFileID || ulResult != zvResultOk)
            return;
        m_lpCurrent->dPercent = dPercent;
        DrawBar((int)(dPercent / 5.0));
    }

    // 3007 ends a download. The answer 3002 ends it too when it refuses, or
    // when there is nothing to send: an empty file has no block, so no 3007
    // ever comes for it.
    void OnDownloadEnd(uint16_t usEvent, QB_ByteStream& stream)
    {
        const uint32_t ulResult = stream.ReadU32();
        const uint16_t usFileID = stream.ReadU16();
        if (m_lpCurrent == nullptr || m_lpCurrent->nFileID != usFileID)
            return;
        bool bDone = usEvent == zvFsEventDownloadFinished;
        if (ulResult != zvResultOk)
            m_lpCurrent->ulFailure = ulResult;
        else if (usEvent == zvFsEventDownloadState)
        {
            ZV_FileDownloadInfo entry;
            LoadDelimited(stream, entry);
            bDone = entry.m_ulDownloadPos >= entry.m_ulFileLenth;
        }
        if (ulResult == zvResultOk && bDone)
        {
            DrawBar(20);
            m_lpCurrent->bFinished = true;
        }
    }

    void DrawBar(int nWanted)
    {
        for (; m_lpCurrent->nBarDrawn < nWanted && m_lpCurrent->nBarDrawn < 20; ++m_lpCurrent->nBarDrawn)
            std::cout << '#';
        std::cout << std::flush;
    }

    bool Verify(size_t nRefused)
    {
        std::cout << "\nChecking every download against its own source:\n";
        bool bAllSame = !m_vecShared.empty();
        for (const SharedFile& shared : m_vecShared)
        {
            const bool bSame = !shared.download.empty() && SameBytes(shared.source.path, shared.download);
            std::cout << "  " << shared.source.path.string() << ": "
                      << (shared.download.empty() ? "not downloaded"
                                                  : (bSame ? "identical to " : "DIFFERENT OR MISSING: ") +
                                                        shared.download.filename().string())
                      << "\n";
            bAllSame = bAllSame && bSame;
        }
        if (g_bInterrupted)
            std::cout << "\nInterrupted before every file had arrived.\n";
        else if (m_vecShared.empty())
            std::cout << "  nothing could be shared.\n";
        else if (bAllSame && nRefused == 0)
            std::cout << "\nEvery file arrived byte for byte.\n";
        else if (bAllSame)
            std::cout << "\nEvery shared file arrived byte for byte; " << nRefused
                      << " could not be shared (see above).\n";
        else
            std::cout << "\nFAILED: not every file arrived intact.\n";
        return bAllSame && nRefused == 0;
    }

    // -----------------------------------------------------------------------
    // A third user enters after the files were shared: the server gives the
    // newcomer every file unasked, and the newcomer downloads one. True when
    // every file was seen and the copy is identical to its source.
    bool ShowLateJoiner()
    {
        std::vector<SharedFile*> vecKnown;
        for (SharedFile& shared : m_vecShared)
            if (shared.nFileID >= 0)
                vecKnown.push_back(&shared);
        if (vecKnown.empty() || g_bInterrupted)
            return true;
        ZV_SimUser user = ZV_SimBuilder::MakeUser(m_shape.Server(0)->GetLocalServerID(), 2);
        user.sName = m_options.bLinked ? "Dave" : "Carol";
        std::cout << "\nA late joiner: " << user.sName << " enters the conference after the files were shared.\n";
        m_lpLate = m_sim.AddClient(ZV_SimBuilder::kConfID, user);
        if (m_lpLate == nullptr)
        {
            std::cout << "  " << user.sName << " could not join: " << m_sim.GetError() << "\n";
            return false;
        }
        m_lpLate->SetEventCallback([this](ZV_SimHost& host, uint16_t usEvent, const std::vector<uint8_t>& vb) {
            OnEvent(host, usEvent, vb);
        });
        m_sim.Run();
        std::cout << "  " << user.sName << " was given " << m_nLateSeen << " of the " << vecKnown.size()
                  << " shared file(s) on entering.\n";
        SharedFile copy = *vecKnown.front();
        copy.download = m_root / (user.sName + "-downloads") / copy.source.path.filename();
        fs::create_directories(copy.download.parent_path());
        copy.nBarDrawn = 0;
        copy.dPercent = 0.0;
        copy.bFinished = false;
        std::cout << user.sName << " downloads " << copy.source.path.filename().string() << ":\n";
        ZV_SimHost* lpReceiver = m_lpReceiver;
        m_lpReceiver = m_lpLate;
        Download(copy);
        m_lpReceiver = lpReceiver;
        const bool bSame = copy.bFinished && SameBytes(copy.source.path, copy.download);
        std::cout << "  " << user.sName << "'s copy "
                  << (bSame ? "arrived identical to its source.\n" : "DID NOT ARRIVE WHOLE.\n");
        return bSame && m_nLateSeen == vecKnown.size();
    }

    // -----------------------------------------------------------------------
    // Control of the shared files, after the check: the receiver stops and
    // resumes a download, the sharer hides a file from the receiver, and then
    // deletes one from the conference. True when each did what it should.
    bool ShowControl()
    {
        std::vector<SharedFile*> vecKnown;
        for (SharedFile& shared : m_vecShared)
            if (shared.nFileID >= 0)
                vecKnown.push_back(&shared);
        if (vecKnown.empty() || g_bInterrupted)
            return true;
        std::cout << "\nControl of the shared files.\n";
        SharedFile* lpLargest = *std::max_element(vecKnown.begin(), vecKnown.end(), [](auto* a, auto* b) {
            return fs::file_size(a->source.path) < fs::file_size(b->source.path);
        });
        const bool bResumed = StopAndResume(*lpLargest);
        const bool bHidden = HideFromReceiver(*vecKnown.front());
        const bool bDeleted = DeleteEverywhere(*vecKnown.back());
        return bResumed && bHidden && bDeleted;
    }

    // A second copy, stopped at a quarter or later: after the stop has
    // reached the server nothing more arrives, and the resume goes on from
    // there to the end.
    bool StopAndResume(const SharedFile& shared)
    {
        SharedFile again = shared;
        again.download = m_root / ("again-" + shared.source.path.filename().string());
        again.nBarDrawn = 20;
        again.dPercent = 0.0;
        again.bFinished = false;
        m_lpCurrent = &again;
        IZV_FileShareMgr* lpFs = m_lpReceiver->GetFileShareMgr();
        const uint16_t usFileID = (uint16_t)again.nFileID;
        std::cout << Who(m_lpReceiver) << " downloads " << shared.source.path.filename().string()
                  << " once more and stops partway.\n";
        lpFs->FsDownload(usFileID, QB_PathFromSystem(again.download.string()).c_str());
        while (again.dPercent < 25.0 && !again.bFinished && m_sim.Step())
        {
        }
        lpFs->FsStopDownload(usFileID);
        m_sim.Run();
        const uintmax_t nStopped = SizeOf(again.download);
        m_sim.AdvanceTime(2000);
        const uintmax_t nLater = SizeOf(again.download);
        std::cout << "  stopped with " << Thousands(nStopped) << " bytes on disk; two seconds later it holds "
                  << Thousands(nLater) << (nLater == nStopped ? ", nothing more" : ", MORE") << ".\n";
        lpFs->FsResumeDownload(usFileID);
        for (int i = 0; i < 600 && !again.bFinished && !g_bInterrupted; ++i)
            m_sim.AdvanceTime(100);
        m_lpCurrent = nullptr;
        const bool bSame = again.bFinished && SameBytes(shared.source.path, again.download);
        std::cout << "  resumed, it went on from there and "
                  << (bSame ? "arrived identical to its source.\n" : "DID NOT ARRIVE WHOLE.\n");
        return bSame && nLater == nStopped;
    }

    // The file is made the sharer's alone: the receiver is told it is hidden,
    // and a new download of it is refused.
    bool HideFromReceiver(const SharedFile& shared)
    {
        std::cout << Who(m_lpSharer) << " takes from everyone else the right to "
                  << shared.source.path.filename().string() << ".\n";
        m_lpSharer->GetFileShareMgr()->FsSetRight((uint16_t)shared.nFileID, 0, nullptr, 0, nullptr, 0);
        m_sim.Run();
        SharedFile refused = shared;
        refused.download = m_root / ("refused-" + shared.source.path.filename().string());
        refused.ulFailure = 0;
        refused.nBarDrawn = 20;
        m_lpCurrent = &refused;
        m_lpReceiver->GetFileShareMgr()->FsDownload((uint16_t)shared.nFileID,
                                                    QB_PathFromSystem(refused.download.string()).c_str());
        m_sim.Run();
        m_lpCurrent = nullptr;
        std::cout << "  " << Who(m_lpReceiver) << " asks for it anyway: "
                  << (refused.ulFailure ? Said(refused.ulFailure) : "NOT REFUSED") << ".\n";
        return refused.ulFailure == zvResultNotEntitled;
    }

    // The sharer deletes the file: it leaves the server's store and every
    // user's view.
    bool DeleteEverywhere(const SharedFile& shared)
    {
        std::cout << Who(m_lpSharer) << " deletes " << shared.source.path.filename().string()
                  << " from the conference.\n";
        const size_t nBefore = StoredFileCount();
        m_lpSharer->GetFileShareMgr()->FsDelUpload((uint16_t)shared.nFileID);
        m_sim.Run();
        const size_t nAfter = StoredFileCount();
        std::cout << "  server 1's store held " << nBefore << " file(s) and now holds " << nAfter << ".\n";
        ZV_FsFileInfo info{};
        bool bGone = nAfter + 1 == nBefore;
        for (ZV_SimHost* lpClient : m_shape.vecClients)
        {
            IZV_FileShareMgr* lpFs = lpClient->GetFileShareMgr();
            const bool bKnown = lpFs->FsGetFileInfoByFileID((uint16_t)shared.nFileID, &info) == zvResultOk;
            std::cout << "  " << Who(lpClient) << (bKnown ? " STILL KNOWS IT.\n" : " no longer knows of it.\n");
            bGone = bGone && !bKnown;
        }
        return bGone;
    }

    void OnControlEvent(ZV_SimHost& host, uint16_t usEvent, QB_ByteStream& stream)
    {
        const uint32_t ulResult = stream.ReadU32();
        const uint16_t usFileID = stream.ReadU16();
        const std::string sName = NameOf(usFileID);
        std::cout << "  [" << Who(&host) << "] ";
        if (ulResult != zvResultOk)
            std::cout << "was refused: " << Said(ulResult) << "\n";
        else if (usEvent == zvFsEventRightChanged)
            std::cout << "sees who may have \"" << sName << "\" changed.\n";
        else if (usEvent == zvFsEventFileHidden)
            std::cout << "may no longer have \"" << sName << "\": it is hidden now.\n";
        else
            std::cout << "\"" << sName << "\" is gone from the conference.\n";
    }

    std::string NameOf(uint16_t usFileID) const
    {
        for (const SharedFile& shared : m_vecShared)
            if (shared.nFileID == usFileID)
                return shared.source.path.filename().string();
        return "file #" + std::to_string(usFileID);
    }

    size_t StoredFileCount() const
    {
        const fs::path store =
            fs::path(m_shape.Server(0)->GetHome()) / "store" / std::to_string(ZV_SimBuilder::kConfID);
        std::error_code ec;
        size_t nCount = 0;
        for (fs::directory_iterator it(store, ec), end; !ec && it != end; it.increment(ec))
            nCount += it->is_regular_file() ? 1 : 0;
        return nCount;
    }

    static uintmax_t SizeOf(const fs::path& file)
    {
        std::error_code ec;
        const uintmax_t nSize = fs::file_size(file, ec);
        return ec ? 0 : nSize;
    }

    DemoOptions m_options;
    fs::path m_root;
    ZV_SimConference m_sim;
    ZV_SimShape m_shape;
    ZV_SimHost* m_lpSharer = nullptr;
    ZV_SimHost* m_lpReceiver = nullptr;
    // The user who enters after the files were shared, and what she was given.
    ZV_SimHost* m_lpLate = nullptr;
    size_t m_nLateSeen = 0;
    std::vector<SharedFile> m_vecShared;
    SharedFile* m_lpCurrent = nullptr;
};

const char kUsage[] =
    "usage: run-demo [--linked] [--trace] [--keep] [FILE...]\n"
    "  FILE      files to share, named from the current folder (default: a few generated files)\n"
    "  --linked  two linked servers, one client on each\n"
    "  --trace   show the module's trace lines instead of keeping them in a file\n"
    "  --keep    keep the demo's scratch folder (stored files, downloads, logs) at the end\n"
    "  --help    this text\n";

// 0 to run, else the exit code.
int ParseArguments(int argc, char** argv, DemoOptions& options)
{
    for (int i = 1; i < argc; ++i)
    {
        const std::string sArg = argv[i];
        if (sArg == "--linked")
            options.bLinked = true;
        else if (sArg == "--trace")
            options.bTrace = true;
        else if (sArg == "--keep")
            options.bKeep = true;
        else if (sArg == "--help" || sArg == "-h")
        {
            std::cout << kUsage;
            return -1;
        }
        else if (sArg.rfind("--", 0) == 0)
        {
            std::cerr << "unknown option: " << sArg << "\n" << kUsage;
            return 2;
        }
        else
        {
            std::string sProblem;
            options.vecFiles.push_back(ResolveArgument(sArg, sProblem));
            if (!sProblem.empty())
            {
                std::cerr << sProblem << ": " << sArg << "\n" << kUsage;
                return 2;
            }
        }
    }
    return 0;
}

fs::path MakeScratchFolder()
{
    const fs::path root = fs::temp_directory_path() / ("roomcrate-demo-" + std::to_string(std::random_device{}()));
    fs::create_directories(root);
    return root;
}

} // namespace

int main(int argc, char** argv)
{
    DemoOptions options;
    const int nParsed = ParseArguments(argc, argv, options);
    if (nParsed != 0)
        return nParsed < 0 ? 0 : nParsed;
    std::signal(SIGINT, OnInterrupt);
    std::signal(SIGTERM, OnInterrupt);
    // A reader that goes away (`| head`) stops the demo as Ctrl-C does, so
    // the scratch folder still goes.
    std::signal(SIGPIPE, OnInterrupt);
    const fs::path root = MakeScratchFolder();
    std::FILE* lpTrace = nullptr;
    if (!options.bTrace)
    {
        lpTrace = std::fopen((root / "trace.txt").string().c_str(), "w");
        ZV_SetTraceStream(lpTrace);
    }
    const bool bKeep = options.bKeep;
    bool bOk = false;
    {
        Demo demo(std::move(options), root);
        bOk = demo.Run();
    }
    ZV_SetTraceStream(nullptr);
    if (lpTrace)
        std::fclose(lpTrace);
    if (bKeep)
        std::cout << "Everything the demo made is in " << root.string()
                  << (lpTrace ? ", the module's trace lines in trace.txt there.\n" : ".\n");
    else
    {
        std::error_code ec;
        fs::remove_all(root, ec);
    }
    return bOk ? 0 : 1;
}
