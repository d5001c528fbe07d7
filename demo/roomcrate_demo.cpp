// roomcrate demo: a whole conference in one process.
//
// One server and two clients (with --linked, two linked servers with one
// client each) run real managers over the conference simulator. The first
// client shares files, one alone and the rest as a batch; every user side
// says in plain words what it sees; the server's stored folder and its
// catalogue follow. Then the second client downloads every file, with a
// progress bar drawn from its events, and the demo checks that each copy is
// byte-identical to its source.
//
//     roomcrate_demo [--linked] [--trace] [FILE...]
#include "ZV_FileBriefInfo.h"
#include "ZV_PduFrame.h"
#include "ZV_RecordStream.h"
#include "ZV_SimBuilder.h"
#include "ZV_SimConference.h"

#include "QB_ByteStream.h"
#include "QB_String.h"

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <vector>

namespace fs = std::filesystem;

namespace {

struct DemoOptions
{
    bool bLinked = false;
    bool bTrace = false;
    std::vector<fs::path> vecFiles;
};

struct SharedFile
{
    fs::path source;
    uint16_t usFileID = 0;
    fs::path download;
    int nBarDrawn = 0;
    bool bFinished = false;
};

std::u16string Wide(const std::string& sUtf8)
{
    QB_StringW s(QB_StringU8(sUtf8.c_str()));
    return std::u16string(s.GetString(), (size_t)s.GetLength());
}

std::string Thousands(uint64_t ull)
{
    std::string s = std::to_string(ull);
    for (int i = (int)s.size() - 3; i > 0; i -= 3)
        s.insert((size_t)i, ",");
    return s;
}

// A few files of different sizes, so the demo has something to share.
std::vector<fs::path> MakeSampleFiles(const fs::path& folder)
{
    fs::create_directories(folder);
    const std::pair<const char*, size_t> aFiles[] = {
        {"notes.txt", 3 * 1024}, {"slides.pdf", 100 * 1000}, {"photo.jpg", 1024 * 1024 + 7}};
    std::mt19937 rng(2026);
    std::vector<fs::path> vec;
    for (const auto& [szName, nSize] : aFiles)
    {
        std::ofstream out(folder / szName, std::ios::binary);
        for (size_t i = 0; i < nSize; ++i)
            out.put((char)(rng() & 0xFF));
        vec.push_back(folder / szName);
    }
    return vec;
}

std::string DescribeBrief(uint16_t usFileID, const ZV_FileBriefInfo& brief)
{
    std::ostringstream out;
    out << "file #" << usFileID << " \"" << brief.m_sFileOldName.GetString() << "\", "
        << Thousands(brief.m_ulFileLenth) << " bytes, shared by " << brief.m_sCreatorName.GetString();
    return out.str();
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
            m_options.vecFiles = MakeSampleFiles(m_root / "alice-files");
        ShareFiles();
        ShowStore();
        return DownloadAndVerify();
    }

private:
    static ZV_SimOptions MakeOptions(const fs::path& root)
    {
        ZV_SimOptions options;
        options.sRoot = (root / "nodes").string();
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

    void ShareFiles()
    {
        IZV_FileShareMgr* lpFs = m_lpSharer->GetFileShareMgr();
        const fs::path& first = m_options.vecFiles.front();
        std::cout << Who(m_lpSharer) << " shares " << first.filename().string() << " by itself.\n";
        const std::u16string sPath = Wide(fs::absolute(first).string());
        Report("FsAdd", lpFs->FsAdd(sPath.c_str(), nullptr, 0, 1, 1));
        m_sim.Run();

        if (m_options.vecFiles.size() > 1)
            ShareBatch(lpFs);
        std::cout << "\n";
    }

    // The batch form takes one folder and names in it; files from other
    // folders go in a batch of their own.
    void ShareBatch(IZV_FileShareMgr* lpFs)
    {
        std::map<fs::path, std::vector<std::u16string>> mapByFolder;
        for (size_t i = 1; i < m_options.vecFiles.size(); ++i)
        {
            const fs::path file = fs::absolute(m_options.vecFiles[i]);
            mapByFolder[file.parent_path()].push_back(Wide(file.filename().string()));
        }
        for (const auto& [folder, vecNames] : mapByFolder)
        {
            std::cout << Who(m_lpSharer) << " shares " << vecNames.size() << " more file(s) as one batch.\n";
            std::vector<const char16_t*> vecPtrs;
            for (const auto& sName : vecNames)
                vecPtrs.push_back(sName.c_str());
            const std::u16string sFolder = Wide(folder.string());
            Report("FsFilesAdd", lpFs->FsFilesAdd(sFolder.c_str(), vecPtrs.data(), (uint32_t)vecPtrs.size(), nullptr,
                                                  0, 1, 1));
            m_sim.Run();
        }
    }

    static void Report(const char* szOperation, uint32_t ulResult)
    {
        if (ulResult != 0)
            std::cout << "  (" << szOperation << " answered " << ulResult << ")\n";
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
            else if (usEvent == zvFsEventDownloadProgress && &host == m_lpReceiver)
                OnDownloadProgress(stream);
            else if (usEvent == zvFsEventDownloadFinished && &host == m_lpReceiver)
                OnDownloadFinished(stream);
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
        if (ulResult != 0)
        {
            std::cout << "[" << Who(&host) << "] the server refused a file: result " << ulResult << "\n";
            return;
        }
        Learn(host, usFileID, brief);
    }

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
        }
    }

    void Learn(ZV_SimHost& host, uint16_t usFileID, const ZV_FileBriefInfo& brief)
    {
        std::cout << "[" << Who(&host) << "] sees " << DescribeBrief(usFileID, brief) << "\n";
        if (&host != m_lpReceiver)
            return;
        for (const fs::path& file : m_options.vecFiles)
            if (file.filename().string() == brief.m_sFileOldName.GetString() && m_mapFiles.count(usFileID) == 0)
                m_mapFiles[usFileID] = SharedFile{file, usFileID, {}, 0, false};
    }

    void ShowStore()
    {
        const ZV_SimHost* lpServer = m_shape.Server(0);
        const fs::path store = fs::path(lpServer->GetHome()) / "store" / std::to_string(ZV_SimBuilder::kConfID);
        std::cout << "Server 1 stores the conference's files in " << store.string() << ":\n";
        if (fs::is_directory(store))
            for (const auto& entry : fs::directory_iterator(store))
                std::cout << "  " << entry.path().filename().string() << "  "
                          << Thousands(entry.is_regular_file() ? entry.file_size() : 0) << " bytes\n";
        std::cout << "\nIts catalogue, fsinfo.ini:\n" << ReadUtf16File(fs::path(lpServer->GetHome()) / "fsinfo.ini")
                  << "\n";
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

    bool DownloadAndVerify()
    {
        std::cout << Who(m_lpReceiver) << " downloads every file:\n";
        IZV_FileShareMgr* lpFs = m_lpReceiver->GetFileShareMgr();
        const fs::path folder = m_root / (Who(m_lpReceiver) + "-downloads");
        for (auto& [usFileID, file] : m_mapFiles)
        {
            file.download = folder / file.source.filename();
            std::cout << "  " << file.source.filename().string() << "  [" << std::flush;
            const std::u16string sPath = Wide(file.download.string());
            const uint32_t ulResult = lpFs->FsDownload(usFileID, sPath.c_str());
            if (ulResult != 0)
            {
                std::cout << "] FsDownload answered " << ulResult << "\n";
                continue;
            }
            for (int nRound = 0; nRound < 600 && !file.bFinished; ++nRound)
                m_sim.AdvanceTime(100);
            if (!file.bFinished)
                std::cout << "] did not finish\n";
        }
        return Verify();
    }

    void OnDownloadProgress(QB_ByteStream& stream)
    {
        stream.ReadU32();
        const uint16_t usFileID = stream.ReadU16();
        const double dPercent = stream.ReadDouble();
        auto it = m_mapFiles.find(usFileID);
        if (it == m_mapFiles.end())
            return;
        const int nWanted = (int)(dPercent / 5.0);
        for (; it->second.nBarDrawn < nWanted && it->second.nBarDrawn < 20; ++it->second.nBarDrawn)
            std::cout << '#' << std::flush;
    }

    void OnDownloadFinished(QB_ByteStream& stream)
    {
        stream.ReadU32();
        const uint16_t usFileID = stream.ReadU16();
        auto it = m_mapFiles.find(usFileID);
        if (it == m_mapFiles.end() || it->second.bFinished)
            return;
        for (; it->second.nBarDrawn < 20; ++it->second.nBarDrawn)
            std::cout << '#';
        std::cout << "] done\n";
        it->second.bFinished = true;
    }

    bool Verify()
    {
        std::cout << "\nChecking every download against its source:\n";
        bool bAllSame = !m_mapFiles.empty() && m_mapFiles.size() == m_options.vecFiles.size();
        for (const auto& [usFileID, file] : m_mapFiles)
        {
            const bool bSame = SameBytes(file.source, file.download);
            std::cout << "  " << file.source.filename().string() << ": "
                      << (bSame ? "identical" : "DIFFERENT OR MISSING") << "\n";
            bAllSame = bAllSame && bSame;
        }
        std::cout << (bAllSame ? "\nEvery file arrived byte for byte.\n"
                               : "\nFAILED: not every file arrived intact.\n");
        return bAllSame;
    }

    static bool SameBytes(const fs::path& a, const fs::path& b)
    {
        std::ifstream inA(a, std::ios::binary), inB(b, std::ios::binary);
        if (!inA || !inB)
            return false;
        return std::string((std::istreambuf_iterator<char>(inA)), {}) ==
               std::string((std::istreambuf_iterator<char>(inB)), {});
    }

    DemoOptions m_options;
    fs::path m_root;
    ZV_SimConference m_sim;
    ZV_SimShape m_shape;
    ZV_SimHost* m_lpSharer = nullptr;
    ZV_SimHost* m_lpReceiver = nullptr;
    std::map<uint16_t, SharedFile> m_mapFiles;
};

bool ParseArguments(int argc, char** argv, DemoOptions& options)
{
    for (int i = 1; i < argc; ++i)
    {
        const std::string sArg = argv[i];
        if (sArg == "--linked")
            options.bLinked = true;
        else if (sArg == "--trace")
            options.bTrace = true;
        else if (sArg == "--help" || sArg == "-h")
            return false;
        else if (fs::is_regular_file(sArg))
            options.vecFiles.push_back(sArg);
        else
        {
            std::cerr << "not a file: " << sArg << "\n";
            return false;
        }
    }
    return true;
}

} // namespace

int main(int argc, char** argv)
{
    DemoOptions options;
    if (!ParseArguments(argc, argv, options))
    {
        std::cerr << "usage: roomcrate_demo [--linked] [--trace] [FILE...]\n"
                     "  --linked  two linked servers, one client on each\n"
                     "  --trace   show the module's trace lines instead of keeping them in a file\n";
        return 2;
    }
    const fs::path root = fs::temp_directory_path() / ("roomcrate-demo-" + std::to_string(std::random_device{}()));
    fs::create_directories(root);
    std::FILE* lpTrace = nullptr;
    if (!options.bTrace)
    {
        lpTrace = std::fopen((root / "trace.txt").string().c_str(), "w");
        ZV_SetTraceStream(lpTrace);
    }
    bool bOk = false;
    {
        Demo demo(options, root);
        bOk = demo.Run();
    }
    ZV_SetTraceStream(nullptr);
    if (lpTrace)
    {
        std::fclose(lpTrace);
        std::cout << "The module's trace lines are in " << (root / "trace.txt").string() << ".\n";
    }
    std::cout << "Everything the demo made is in " << root.string() << ".\n";
    return bOk ? 0 : 1;
}
