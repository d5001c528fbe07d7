// roomcrate demo: a whole conference in one process.
//
// One server and two clients (with --linked, two linked servers with one
// client each) run real managers over the conference simulator of host/sim.
// The first client shares files, one alone and the rest as a batch; every
// user side says in plain words what it sees; each server's stored folder
// and its catalogue follow. Then the second client downloads every file,
// with a progress bar drawn from its events, and the demo checks that each
// copy is byte-identical to its own source. A third user who enters late is
// given every file and downloads one; a download is stopped and resumed, a
// file hidden and another deleted.
//
// The demo is a host like any other: of the module it knows the public
// header alone, spelled as an installed host spells it, and it reads the
// events by the byte layouts of the host guide. Copy it with the simulator.
//
//     roomcrate_demo [--linked] [--trace] [--keep] [FILE...]
#include "ZV_DemoEvents.h"
#include "ZV_DemoFiles.h"
#include "ZV_DemoInterrupt.h"

#include "ZV_SimBuilder.h"
#include "ZV_SimConference.h"

#include <roomcrate/IZV_FileShare.h>
#include <roomcrate/ZV_ResultText.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <map>
#include <random>
#include <sstream>

using namespace zv_demo;

namespace {

// The simulator's journal keeps this much of the traffic: enough for its
// error reports, and no copy of the files' bytes.
constexpr size_t kJournalPayloadBytes = 64;
constexpr size_t kJournalEntries = 4096;
// A download that has not moved for this long in the conference's time has
// stalled; the module itself looks at a stalled file after 15 to 20 seconds.
constexpr uint32_t kStallMs = 60000;
// The conference's clock moves in steps of the simulator's timer.
constexpr uint32_t kTimeStepMs = 100;
// The bar of a download, in characters.
constexpr int kBarWidth = 20;

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

std::string Describe(int nFileID, const SharedFileRecord& record)
{
    std::ostringstream out;
    out << "file #" << nFileID << " \"" << record.sName << "\", " << Thousands(record.ulLength)
        << " bytes, shared by " << record.sCreatorName;
    return out.str();
}

std::string Who(const ZV_SimHost* lpHost)
{
    return lpHost->IsServer() ? "server " + std::to_string(lpHost->GetUserID().m_ulMain)
                              : lpHost->GetUserRecord().sName;
}

std::string ServerOf(ZV_SimHost* lpClient)
{
    return "server " + std::to_string(lpClient->GetLocalServerID());
}

fs::path StoreOf(const ZV_SimHost* lpServer)
{
    return fs::path(lpServer->GetHome()) / "store" / std::to_string(ZV_SimBuilder::kConfID);
}

size_t StoredFileCount(const ZV_SimHost* lpServer)
{
    std::error_code ec;
    size_t nCount = 0;
    for (fs::directory_iterator it(StoreOf(lpServer), ec), end; !ec && it != end; it.increment(ec))
        nCount += it->is_regular_file() ? 1 : 0;
    return nCount;
}

class Demo
{
public:
    Demo(DemoOptions options, fs::path root)
        : m_options(std::move(options)), m_root(std::move(root)), m_sim(ZV_SimModuleApi::Linked(), MakeOptions(m_root))
    {
    }

    // 0 when every step did what it should, 1 when one did not, 128 and the
    // signal's number when the demo was interrupted.
    int Run()
    {
        try
        {
            return RunSteps() ? 0 : 1;
        }
        catch (const Interrupted& interrupted)
        {
            if (!m_sLine.empty() && !m_options.bTrace)
                std::cout << "\n";
            std::cout << "Interrupted.\n" << std::flush;
            return 128 + interrupted.nSignal;
        }
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

    bool RunSteps()
    {
        if (!BuildConference())
            return false;
        if (m_options.vecFiles.empty())
            for (const fs::path& sample : MakeSampleFiles(m_root / "alice-files"))
                m_options.vecFiles.push_back(MakeLocalFile(sample));
        const size_t nRefused = ShareFiles();
        if (std::none_of(m_vecShared.begin(), m_vecShared.end(), [](const SharedFile& f) { return f.nFileID >= 0; }))
        {
            std::cout << "Nothing could be shared, so there is nothing to store, download or check.\n";
            return false;
        }
        ShowStores();
        DownloadAll();
        const bool bSame = Verify(nRefused);
        const bool bJoined = ShowLateJoiner();
        const bool bControlled = ShowControl();
        return bSame && bJoined && bControlled;
    }

    // -----------------------------------------------------------------------
    // Running the conference. Ctrl-C is looked at between deliveries, never
    // inside a call into a module.

    void Settle()
    {
        while (m_sim.Step())
            StopIfInterrupted();
        StopIfInterrupted();
    }

    void Wait(uint32_t ulMs)
    {
        for (uint32_t ulDone = 0; ulDone < ulMs; ulDone += kTimeStepMs)
        {
            Settle();
            m_sim.AdvanceTime(kTimeStepMs);
        }
        Settle();
    }

    void Watch(ZV_SimHost* lpHost)
    {
        lpHost->SetPduCallback([this](ZV_SimHost& host, uint16_t, uint32_t) { ShowTrace(host); });
        if (!lpHost->IsServer())
            lpHost->SetEventCallback([this](ZV_SimHost& host, uint16_t usEvent, const std::vector<uint8_t>& vb) {
                OnEvent(host, usEvent, vb);
            });
    }

    bool BuildConference()
    {
        m_shape = m_options.bLinked ? ZV_SimBuilder::TwoLinkedServers(m_sim, ZV_SimBuilder::kConfID, 1)
                                    : ZV_SimBuilder::OneServerTwoClients(m_sim);
        if (!m_shape.IsComplete())
        {
            std::cerr << "the conference could not be built: " << m_sim.GetError() << "\n";
            return false;
        }
        m_lpSharer = m_shape.Client(0);
        m_lpReceiver = m_shape.Client(1);
        for (ZV_SimHost* lpNode : m_sim.GetNodes())
            Watch(lpNode);
        if (m_options.bLinked)
            std::cout << "Conference " << ZV_SimBuilder::kConfID << " on servers 1 and 2, linked: " << Who(m_lpSharer)
                      << " joins on " << ServerOf(m_lpSharer) << ", " << Who(m_lpReceiver) << " on "
                      << ServerOf(m_lpReceiver) << ".\n";
        else
            std::cout << "Conference " << ZV_SimBuilder::kConfID << " on server 1: " << Who(m_lpSharer) << " and "
                      << Who(m_lpReceiver) << " join.\n";
        EnterStage("join");
        Settle();
        std::cout << "\n";
        return true;
    }

    // -----------------------------------------------------------------------
    // The trace lines of the module, which it writes to the file that
    // ROOMCRATE_TRACE names. With --trace the lines a node wrote while it
    // handled a PDU are shown under that node's name, without the carriage
    // return and line feed that end them in the file: after the call, or
    // before the first event the call raised.

    void ShowTrace(const ZV_SimHost& host)
    {
        if (!m_options.bTrace || SizeOf(m_root / "trace.txt") <= m_nTraceShown)
            return;
        std::ifstream in(m_root / "trace.txt", std::ios::binary);
        in.seekg((std::streamoff)m_nTraceShown);
        std::string sNew((std::istreambuf_iterator<char>(in)), {});
        sNew.resize(sNew.rfind('\n') + 1);
        m_nTraceShown += sNew.size();
        std::istringstream lines(sNew);
        for (std::string sLine; std::getline(lines, sLine);)
        {
            if (!sLine.empty() && sLine.back() == '\r')
                sLine.pop_back();
            std::cout << "  [" << Who(&host) << "] " << sLine << "\n";
        }
    }

    // A line written bit by bit (a progress bar). With --trace, trace lines
    // come between its bits, so it is shown whole when it ends.
    void BeginLine(const std::string& s)
    {
        m_sLine.clear();
        ExtendLine(s);
    }
    void ExtendLine(const std::string& s)
    {
        m_sLine += s;
        if (!m_options.bTrace)
            std::cout << s << std::flush;
    }
    void EndLine(const std::string& s)
    {
        std::cout << (m_options.bTrace ? m_sLine : "") << s << "\n";
        m_sLine.clear();
    }

    // -----------------------------------------------------------------------
    // Sharing. What the system cannot share is refused here, before anything
    // is sent. The first shareable file goes alone, the rest as batches.
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
                EnterStage("share");
                Settle();
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
            EnterStage("share");
            Settle();
        }
    }

    void Report(const char* szOperation, uint32_t ulResult)
    {
        if (ulResult != zvResultOk)
            std::cout << "  " << Who(m_lpSharer) << "'s " << szOperation << " failed: " << Said(ulResult) << ".\n";
    }

    // -----------------------------------------------------------------------
    // The user sides' events, read by the layouts of the host guide.

    void OnEvent(ZV_SimHost& host, uint16_t usEvent, const std::vector<uint8_t>& vb)
    {
        ShowTrace(host);
        try
        {
            EventReader reader(vb);
            reader.U16();
            if (usEvent == zvFsEventFileAdded)
                OnFileAdded(host, reader);
            else if (usEvent == zvFsEventFilesAdded)
                OnFilesAdded(host, reader);
            else if (usEvent == zvFsEventRightChanged || usEvent == zvFsEventFileHidden ||
                     usEvent == zvFsEventFileGone)
                OnControlEvent(host, usEvent, reader);
            else if (&host != m_lpReceiver)
                return;
            else if (usEvent == zvFsEventDownloadProgress)
                OnDownloadProgress(reader);
            else if (usEvent == zvFsEventDownloadFinished || usEvent == zvFsEventDownloadState)
                OnDownloadEnd(usEvent, reader);
        }
        catch (const EventTooShort&)
        {
            std::cout << "[" << Who(&host) << "] could not read event " << usEvent << "\n";
        }
    }

    void OnFileAdded(ZV_SimHost& host, EventReader& reader)
    {
        const uint32_t ulResult = reader.U32();
        const uint16_t usFileID = reader.U16();
        const SharedFileRecord record = ReadSharedFile(reader);
        if (ulResult != zvResultOk)
        {
            std::cout << "[" << Who(&host) << "] the server refused \"" << record.sName << "\": " << Said(ulResult)
                      << "\n";
            return;
        }
        Learn(host, usFileID, record);
    }

    // A batch that the server refused comes back as records without FileIDs.
    void OnFilesAdded(ZV_SimHost& host, EventReader& reader)
    {
        reader.U32();
        std::vector<uint16_t> vecIDs(reader.Count());
        for (uint16_t& usFileID : vecIDs)
            usFileID = reader.U16();
        const uint32_t nRecords = reader.Count();
        for (uint32_t i = 0; i < nRecords; ++i)
        {
            const SharedFileRecord record = ReadSharedFile(reader);
            if (i < vecIDs.size())
                Learn(host, vecIDs[i], record);
            else
                std::cout << "[" << Who(&host) << "] the server refused \"" << record.sName << "\"\n";
        }
    }

    // The sharer's own view ties each FileID to its source: the first file
    // of that folder and name that has none yet, so that files of one name
    // from different folders, or one file shared twice, keep apart.
    void Learn(ZV_SimHost& host, uint16_t usFileID, const SharedFileRecord& record)
    {
        std::cout << "[" << Who(&host) << "] sees " << Describe(usFileID, record) << "\n";
        if (&host == m_lpLate)
            ++m_nLateSeen;
        if (&host != m_lpSharer)
            return;
        for (SharedFile& shared : m_vecShared)
            if (shared.nFileID < 0 && shared.source.sWindows == record.sFolder + record.sName)
            {
                shared.nFileID = usFileID;
                return;
            }
    }

    void OnDownloadProgress(EventReader& reader)
    {
        const uint32_t ulResult = reader.U32();
        const uint16_t usFileID = reader.U16();
        const double dPercent = reader.F64();
        if (m_lpCurrent == nullptr || m_lpCurrent->nFileID != usFileID || ulResult != zvResultOk)
            return;
        m_lpCurrent->dPercent = dPercent;
        DrawBar((int)(dPercent / (100.0 / kBarWidth)));
    }

    // 3007 ends a download. The answer 3002 ends it too when it refuses, or
    // when there is nothing to send: an empty file has no block, so no 3007
    // ever comes for it.
    void OnDownloadEnd(uint16_t usEvent, EventReader& reader)
    {
        const uint32_t ulResult = reader.U32();
        const uint16_t usFileID = reader.U16();
        if (m_lpCurrent == nullptr || m_lpCurrent->nFileID != usFileID)
            return;
        bool bDone = usEvent == zvFsEventDownloadFinished;
        if (ulResult != zvResultOk)
            m_lpCurrent->ulFailure = ulResult;
        else if (usEvent == zvFsEventDownloadState)
        {
            const DownloadRecord record = ReadDownload(reader);
            bDone = record.ulDownloaded >= record.ulLength;
        }
        if (ulResult == zvResultOk && bDone)
        {
            DrawBar(kBarWidth);
            m_lpCurrent->bFinished = true;
        }
    }

    void DrawBar(int nWanted)
    {
        for (; m_lpCurrent->nBarDrawn < nWanted && m_lpCurrent->nBarDrawn < kBarWidth; ++m_lpCurrent->nBarDrawn)
            ExtendLine("#");
    }

    void OnControlEvent(ZV_SimHost& host, uint16_t usEvent, EventReader& reader)
    {
        const uint32_t ulResult = reader.U32();
        const uint16_t usFileID = reader.U16();
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

    // -----------------------------------------------------------------------
    // Each server's store and catalogue: a linked server fetches the files
    // from the other and keeps its own copies under its own names.

    void ShowStores()
    {
        // A server folds the changes it journaled into its catalogue once
        // they have stopped for ten seconds.
        Wait(11000);
        for (const ZV_SimHost* lpServer : m_shape.vecServers)
        {
            std::cout << "Server " << lpServer->GetUserID().m_ulMain << " stores the conference's files in "
                      << StoreOf(lpServer).string() << ":\n";
            EnterStage("store");
            std::error_code ec;
            size_t nShown = 0;
            for (fs::directory_iterator it(StoreOf(lpServer), ec), end; !ec && it != end; it.increment(ec), ++nShown)
            {
                StopIfInterrupted();
                std::cout << "  " << it->path().filename().string() << "  "
                          << Thousands(it->is_regular_file() ? SizeOf(it->path()) : 0) << " bytes\n";
            }
            StopIfInterrupted();
            if (nShown == 0)
                std::cout << "  (nothing)\n";
            const fs::path catalogue = fs::path(lpServer->GetHome()) / "fsinfo.ini";
            std::cout << "\nIts catalogue, fsinfo.ini:\n" << Indented(ReadText(catalogue)) << "\n";
        }
    }

    static std::string Indented(const std::string& sText)
    {
        std::istringstream lines(sText);
        std::string sIndented, sLine;
        while (std::getline(lines, sLine))
            if (!sLine.empty())
                sIndented += "  " + sLine + "\n";
        return sIndented;
    }

    // -----------------------------------------------------------------------
    // Downloads

    void DownloadAll()
    {
        std::cout << Who(m_lpReceiver) << " downloads every file:\n";
        EnterStage("download");
        const fs::path folder = m_root / (Who(m_lpReceiver) + "-downloads");
        fs::create_directories(folder);
        std::set<fs::path> setTaken;
        for (SharedFile& shared : m_vecShared)
            if (shared.nFileID >= 0)
            {
                shared.download = DistinctTarget(folder, shared.source.path.filename().string(), setTaken);
                Download(shared);
            }
    }

    void Download(SharedFile& shared)
    {
        BeginLine("  " + shared.download.filename().string() + "  [");
        m_lpCurrent = &shared;
        const uint32_t ulResult = m_lpReceiver->GetFileShareMgr()->FsDownload(
            (uint16_t)shared.nFileID, MakeLocalFile(shared.download).sWide.c_str());
        if (ulResult != zvResultOk)
            shared.ulFailure = ulResult;
        double dSeen = -1.0;
        for (uint32_t ulQuiet = 0; !shared.bFinished && !shared.ulFailure && ulQuiet < kStallMs;)
        {
            Wait(kTimeStepMs);
            ulQuiet = shared.dPercent > dSeen ? 0 : ulQuiet + kTimeStepMs;
            dSeen = shared.dPercent;
        }
        m_lpCurrent = nullptr;
        if (shared.bFinished)
            EndLine("] done");
        else if (shared.ulFailure)
            EndLine("] failed: " + Said(shared.ulFailure));
        else
            EndLine("] stalled");
    }

    bool Verify(size_t nRefused)
    {
        std::cout << "\nChecking every download against its own source:\n";
        EnterStage("check");
        bool bAllSame = true;
        const std::string sReceiver = Who(m_lpReceiver), sSharer = Who(m_lpSharer);
        for (const SharedFile& shared : m_vecShared)
        {
            StopIfInterrupted();
            const std::string sSource = sSharer + "'s " + shared.source.path.string();
            if (shared.download.empty())
            {
                std::cout << "  " << sSource << " was not downloaded.\n";
                bAllSame = false;
                continue;
            }
            const bool bSame = SameBytes(shared.source.path, shared.download);
            std::cout << "  " << sReceiver << "'s " << shared.download.filename().string()
                      << (bSame ? " is identical to " : " DIFFERS FROM OR LACKS ") << sSource << "\n";
            bAllSame = bAllSame && bSame;
        }
        if (bAllSame && nRefused == 0)
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
        std::vector<SharedFile*> vecKnown = Known();
        ZV_SimUser user = ZV_SimBuilder::MakeUser(m_shape.Server(0)->GetLocalServerID(), 2);
        user.sName = m_options.bLinked ? "Dave" : "Carol";
        std::cout << "\nA late joiner: " << user.sName << " enters the conference on server "
                  << m_shape.Server(0)->GetLocalServerID() << " after the files were shared.\n";
        EnterStage("late");
        m_lpLate = m_sim.AddClient(ZV_SimBuilder::kConfID, user);
        if (m_lpLate == nullptr)
        {
            std::cout << "  " << user.sName << " could not join: " << m_sim.GetError() << "\n";
            return false;
        }
        Watch(m_lpLate);
        Settle();
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

    std::vector<SharedFile*> Known()
    {
        std::vector<SharedFile*> vecKnown;
        for (SharedFile& shared : m_vecShared)
            if (shared.nFileID >= 0)
                vecKnown.push_back(&shared);
        return vecKnown;
    }

    // -----------------------------------------------------------------------
    // Control of the shared files, after the check: the receiver stops and
    // resumes a download, the sharer hides a file from the receiver, and then
    // deletes one from the conference. True when each did what it should.
    bool ShowControl()
    {
        std::vector<SharedFile*> vecKnown = Known();
        std::cout << "\nControl of the shared files.\n";
        SharedFile* lpLargest = *std::max_element(vecKnown.begin(), vecKnown.end(), [](auto* a, auto* b) {
            return SizeOf(a->source.path) < SizeOf(b->source.path);
        });
        const bool bResumed = StopAndResume(*lpLargest);
        const bool bHidden = HideFromReceiver(*vecKnown.front());
        const bool bDeleted = DeleteEverywhere(*vecKnown.back());
        return bResumed && bHidden && bDeleted;
    }

    // A second copy, stopped at a quarter or later: after the stop has
    // reached the server nothing more arrives, and the resume goes on from
    // there to the end. A file of a few blocks arrives whole before any
    // stop can reach the server; the demo says so rather than stop nothing.
    bool StopAndResume(const SharedFile& shared)
    {
        SharedFile again = shared;
        again.download = m_root / ("again-" + shared.source.path.filename().string());
        again.nBarDrawn = kBarWidth;
        again.dPercent = 0.0;
        again.bFinished = false;
        m_lpCurrent = &again;
        IZV_FileShareMgr* lpFs = m_lpReceiver->GetFileShareMgr();
        const uint16_t usFileID = (uint16_t)again.nFileID;
        const uintmax_t nSize = SizeOf(shared.source.path);
        std::cout << Who(m_lpReceiver) << " downloads " << shared.source.path.filename().string()
                  << " once more and stops partway.\n";
        EnterStage("stop");
        lpFs->FsDownload(usFileID, MakeLocalFile(again.download).sWide.c_str());
        while (again.dPercent < 25.0 && !again.bFinished && m_sim.Step())
            StopIfInterrupted();
        if (!again.bFinished)
        {
            lpFs->FsStopDownload(usFileID);
            Settle();
        }
        const uintmax_t nStopped = SizeOf(again.download);
        if (again.bFinished || nStopped >= nSize)
        {
            Settle();
            m_lpCurrent = nullptr;
            std::cout << "  all " << Thousands(nSize) << " bytes arrived before the stop could reach the server: "
                      << "a file this small moves at once, so stop and resume show on a larger one.\n";
            return SameBytes(shared.source.path, again.download);
        }
        Wait(2000);
        const uintmax_t nLater = SizeOf(again.download);
        std::cout << "  stopped with " << Thousands(nStopped) << " of " << Thousands(nSize)
                  << " bytes on disk; two seconds later it holds " << Thousands(nLater)
                  << (nLater == nStopped ? ", nothing more" : ", MORE") << ".\n";
        lpFs->FsResumeDownload(usFileID);
        for (uint32_t ulWaited = 0; ulWaited < kStallMs && !again.bFinished; ulWaited += kTimeStepMs)
            Wait(kTimeStepMs);
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
        EnterStage("rights");
        m_lpSharer->GetFileShareMgr()->FsSetRight((uint16_t)shared.nFileID, 0, nullptr, 0, nullptr, 0);
        Settle();
        SharedFile refused = shared;
        refused.download = m_root / ("refused-" + shared.source.path.filename().string());
        refused.ulFailure = 0;
        refused.nBarDrawn = kBarWidth;
        m_lpCurrent = &refused;
        m_lpReceiver->GetFileShareMgr()->FsDownload((uint16_t)shared.nFileID,
                                                    MakeLocalFile(refused.download).sWide.c_str());
        Settle();
        m_lpCurrent = nullptr;
        std::cout << "  " << Who(m_lpReceiver) << " asks for it anyway: "
                  << (refused.ulFailure ? Said(refused.ulFailure) : "NOT REFUSED") << ".\n";
        return refused.ulFailure == zvResultNotEntitled;
    }

    // The sharer deletes the file: it leaves every server's store and every
    // user's view, the late joiner's included.
    bool DeleteEverywhere(const SharedFile& shared)
    {
        std::cout << Who(m_lpSharer) << " deletes " << shared.source.path.filename().string()
                  << " from the conference.\n";
        EnterStage("delete");
        std::vector<size_t> vecBefore;
        for (const ZV_SimHost* lpServer : m_shape.vecServers)
            vecBefore.push_back(StoredFileCount(lpServer));
        m_lpSharer->GetFileShareMgr()->FsDelUpload((uint16_t)shared.nFileID);
        Settle();
        bool bGone = true;
        for (size_t i = 0; i < m_shape.vecServers.size(); ++i)
        {
            const size_t nAfter = StoredFileCount(m_shape.vecServers[i]);
            std::cout << "  " << Who(m_shape.vecServers[i]) << "'s store held " << vecBefore[i]
                      << " file(s) and now holds " << nAfter << ".\n";
            bGone = bGone && nAfter + 1 == vecBefore[i];
        }
        std::vector<ZV_SimHost*> vecUsers = m_shape.vecClients;
        vecUsers.push_back(m_lpLate);
        for (ZV_SimHost* lpClient : vecUsers)
        {
            ZV_FsFileInfo info{};
            const bool bKnown =
                lpClient->GetFileShareMgr()->FsGetFileInfoByFileID((uint16_t)shared.nFileID, &info) == zvResultOk;
            std::cout << "  " << Who(lpClient) << (bKnown ? " STILL KNOWS IT.\n" : " no longer knows of it.\n");
            bGone = bGone && !bKnown;
        }
        return bGone;
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
    std::string m_sLine;          // the line being written
    uintmax_t m_nTraceShown = 0;  // bytes of the trace file shown so far
};

const char kUsage[] =
    "usage: run-demo [--linked] [--trace] [--keep] [FILE...]\n"
    "  FILE      files to share, named from the current folder (default: a few generated files)\n"
    "  --linked  two linked servers, one client on each\n"
    "  --trace   show the module's trace lines, each under the node that wrote it\n"
    "  --keep    keep the demo's scratch folder (stored files, downloads, logs, trace.txt) at the end\n"
    "  --help    this text\n";

// 0 to run, else the exit status; -1 for a status of 0 without running.
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
            std::cerr << "run-demo: unknown option " << sArg << " (--help lists them)\n";
            return 2;
        }
        else
        {
            std::string sProblem;
            options.vecFiles.push_back(ResolveArgument(sArg, sProblem));
            if (!sProblem.empty())
            {
                std::cerr << "run-demo: " << sProblem << ": " << sArg << "\n";
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
    CatchInterrupts();
    const fs::path root = MakeScratchFolder();
    // The module's trace lines go to a file of the demo's, never between
    // the demo's own lines; --trace shows them from there.
    setenv("ROOMCRATE_TRACE", (root / "trace.txt").c_str(), 1);
    const bool bKeep = options.bKeep;
    int nStatus = 0;
    {
        Demo demo(std::move(options), root);
        nStatus = demo.Run();
    }
    if (bKeep)
        std::cout << "Everything the demo made is in " << root.string()
                  << ", the module's trace lines in trace.txt there.\n";
    else
    {
        std::error_code ec;
        fs::remove_all(root, ec);
    }
    return nStatus;
}
