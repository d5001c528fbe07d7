#include "ZV_NetProcess.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <thread>

namespace {

const char* const kUserNames[] = {"alice", "bob", "carol"};

}  // namespace

ZV_Process::ZV_Process(const std::string& sDir, const std::vector<std::string>& vecArgs, const std::string& sOut,
                       const std::string& sErr)
{
    m_nPid = fork();
    if (m_nPid != 0)
        return;
    if (chdir(sDir.c_str()) != 0)
        _exit(126);
    const int nOut = open(sOut.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    const int nErr = open(sErr.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    dup2(nOut, 1);
    dup2(nErr, 2);
    // Sockets of the test process (a proxy's listening one) stay with it: a
    // child holding them would keep them open past the proxy's cut.
    close_range(3, ~0u, 0);
    std::vector<char*> vecArgv;
    for (const std::string& sArg : vecArgs)
        vecArgv.push_back(const_cast<char*>(sArg.c_str()));
    vecArgv.push_back(nullptr);
    execv(vecArgv[0], vecArgv.data());
    _exit(127);
}

ZV_Process::~ZV_Process()
{
    if (IsRunning())
    {
        Signal(SIGKILL);
        Wait();
    }
}

void ZV_Process::Signal(int nSignal) const
{
    if (m_nPid > 0)
        kill(m_nPid, nSignal);
}

bool ZV_Process::IsRunning()
{
    if (m_nPid <= 0 || m_nStatus >= 0)
        return false;
    int nStatus = 0;
    if (waitpid(m_nPid, &nStatus, WNOHANG) != m_nPid)
        return true;
    m_nStatus = WIFEXITED(nStatus) ? WEXITSTATUS(nStatus) : 128 + WTERMSIG(nStatus);
    return false;
}

int ZV_Process::Wait(std::chrono::milliseconds msLimit)
{
    ZV_WaitFor([this] { return !IsRunning(); }, msLimit);
    return m_nStatus;
}

uint16_t ZV_FreeLowPort()
{
    static std::mt19937 rng(std::random_device{}());
    for (;;)
    {
        const uint16_t usPort = (uint16_t)(20000 + rng() % 12000);
        const int nSocket = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_port = htons(usPort);
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        const bool bFree = bind(nSocket, (sockaddr*)&addr, sizeof addr) == 0;
        close(nSocket);
        if (bFree)
            return usPort;
    }
}

bool ZV_WaitFor(const std::function<bool()>& fnDone, std::chrono::milliseconds msLimit)
{
    const auto tpEnd = std::chrono::steady_clock::now() + msLimit;
    while (!fnDone())
    {
        if (std::chrono::steady_clock::now() > tpEnd)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return true;
}

std::string ZV_ReadText(const std::string& sPath)
{
    std::ifstream file(sPath, std::ios::binary);
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
}

uint64_t ZV_FileSize(const std::string& sPath)
{
    std::error_code ec;
    const auto ullSize = std::filesystem::file_size(sPath, ec);
    return ec ? 0 : ullSize;
}

void ZV_WriteRandomFile(const std::string& sPath, size_t nBytes, unsigned nSeed)
{
    std::mt19937 rng(nSeed);
    std::vector<char> vbData(nBytes);
    for (char& c : vbData)
        c = (char)rng();
    std::ofstream(sPath, std::ios::binary).write(vbData.data(), (std::streamsize)vbData.size());
}

bool ZV_SameFiles(const std::string& sA, const std::string& sB)
{
    return ZV_FileSize(sA) > 0 && ZV_ReadText(sA) == ZV_ReadText(sB);
}

ZV_ServerUnderTest::ZV_ServerUnderTest(const std::string& sDir, uint32_t ulServer, const std::string& sExtra,
                                       int nGraceSeconds, uint16_t usFileIDMin)
    : m_sDir(sDir), m_ulServer(ulServer), m_sExtra(sExtra), m_nGraceSeconds(nGraceSeconds), m_usFileIDMin(usFileIDMin)
{
    std::filesystem::create_directories(sDir);
}

// Users 10001, 10002, 10003 on server 1 and 20001... on server 2, with the
// names alice, bob, carol on each.
void ZV_ServerUnderTest::WriteConfig()
{
    std::ofstream file(m_sDir + "/server.toml");
    file << "[server]\nnumber = " << m_ulServer << "\nport = " << m_usPort
         << "\nport_file = \"server.port\"\nhome = \"home\"\ngrace_seconds = " << m_nGraceSeconds
         << "\n\n[[conference]]\nid = 100\nfile_ids = [" << m_usFileIDMin << ", " << m_usFileIDMin + 999 << "]\n";
    for (int i = 0; i < 3; ++i)
        file << "\n[[conference.user]]\nnumber = " << m_ulServer * 10000 + 1 + i << "\nname = \"" << kUserNames[i]
             << "\"\n";
    file << m_sExtra;
}

bool ZV_ServerUnderTest::Start(bool bLowPort)
{
    if (bLowPort && m_usPort == 0)
        m_usPort = ZV_FreeLowPort();
    WriteConfig();
    std::filesystem::remove(m_sDir + "/server.port");
    m_lpProcess = std::make_unique<ZV_Process>(
        m_sDir, std::vector<std::string>{ROOMCRATE_SERVER, "server.toml"}, "server.out", "server.err");
    if (!ZV_WaitFor([this] { return ZV_FileSize(m_sDir + "/server.port") > 0 || !m_lpProcess->IsRunning(); }))
        return false;
    m_usPort = (uint16_t)std::atoi(ZV_ReadText(m_sDir + "/server.port").c_str());
    return m_usPort != 0;
}

int ZV_ServerUnderTest::Stop()
{
    if (!m_lpProcess)
        return -1;
    m_lpProcess->Signal(SIGTERM);
    const int nExit = m_lpProcess->Wait(std::chrono::seconds(10));
    m_lpProcess.reset();
    return nExit;
}

void ZV_ServerUnderTest::Kill()
{
    m_lpProcess.reset();
}

std::string ZV_ServerUnderTest::Stored(const std::string& sName) const
{
    return m_sDir + "/home/conference-100/store/100/" + sName;
}

std::unique_ptr<ZV_Process> ZV_StartClient(const std::string& sDir, const std::string& sName, uint32_t ulUser,
                                           const std::string& sServer, const std::vector<std::string>& vecSteps,
                                           const std::vector<std::string>& vecOptions)
{
    std::vector<std::string> vecArgs = {ROOMCRATE_TESTCLIENT, "--server", sServer, "--conference", "100", "--user",
                                        std::to_string(ulUser), "--home", sName + ".home", "--timeout", "30"};
    vecArgs.insert(vecArgs.end(), vecOptions.begin(), vecOptions.end());
    vecArgs.insert(vecArgs.end(), vecSteps.begin(), vecSteps.end());
    return std::make_unique<ZV_Process>(sDir, vecArgs, sName + ".out", sName + ".err");
}

int ZV_RunClient(const std::string& sDir, const std::string& sName, uint32_t ulUser, const std::string& sServer,
                 const std::vector<std::string>& vecSteps, const std::vector<std::string>& vecOptions)
{
    return ZV_StartClient(sDir, sName, ulUser, sServer, vecSteps, vecOptions)->Wait(std::chrono::seconds(40));
}
