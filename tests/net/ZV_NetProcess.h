// What the process tests of the network host stand on: programs with their
// output in files and every wait bounded, servers, secrets and certificates,
// and a peer that writes raw bytes.
#pragma once

#include "QB_TestSupport.h"
#include "ZV_NetTls.h"
#include "ZV_NetWire.h"
#include "ZV_TestPki.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <random>
#include <thread>

constexpr uint32_t kAlice = 10001, kBob = 10002, kCarol = 10003;
constexpr size_t kMiB = 1 << 20;
inline const char* const kUserNames[] = {"alice", "bob", "carol"};

inline sockaddr_in ZV_Loopback(uint16_t usPort)
{
    return {.sin_family = AF_INET, .sin_port = htons(usPort), .sin_addr = {htonl(INADDR_LOOPBACK)}, .sin_zero = {}};
}

inline bool ZV_WaitFor(const std::function<bool()>& fnDone, std::chrono::milliseconds msLimit = std::chrono::seconds(20))
{
    const auto tpEnd = std::chrono::steady_clock::now() + msLimit;
    for (; !fnDone(); std::this_thread::sleep_for(std::chrono::milliseconds(20)))
        if (std::chrono::steady_clock::now() > tpEnd)
            return false;
    return true;
}

// What a log or a trace gained since a mark.
struct ZV_Since
{
    std::function<std::string()> fnText;
    size_t nMark = fnText().size();
    std::string Text() const { return fnText().substr(nMark); }
    bool Shows(const std::string& sWhat) const { return ZV_WaitFor([&] { return Text().find(sWhat) != std::string::npos; }); }
};

// A program in folder sDir, its output appended to sOut and sErr, its input
// from sIn when given; killed if still running at the end.
class ZV_Process
{
public:
    ZV_Process(const std::string& sDir, const std::vector<std::string>& vecArgs, const std::string& sOut,
               const std::string& sErr, const std::string& sIn = {})
    {
        if ((m_nPid = fork()) != 0)
            return;
        if (chdir(sDir.c_str()) != 0)
            _exit(126);
        dup2(open(sOut.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644), 1);
        dup2(open(sErr.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644), 2);
        if (!sIn.empty())
            dup2(open(sIn.c_str(), O_RDONLY), 0);
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
    ~ZV_Process()
    {
        if (IsRunning())
            Signal(SIGKILL), Wait();
    }
    void Signal(int nSignal) const
    {
        if (m_nPid > 0)
            kill(m_nPid, nSignal);
    }
    // The exit status, 128 + the signal that ended it, or -1 when still running.
    int Wait(std::chrono::milliseconds msLimit = std::chrono::seconds(30))
    {
        return ZV_WaitFor([this] { return !IsRunning(); }, msLimit), m_nStatus;
    }
    bool IsRunning()
    {
        int nStatus = 0;
        if (m_nPid > 0 && m_nStatus < 0 && waitpid(m_nPid, &nStatus, WNOHANG) == m_nPid)
            m_nStatus = WIFEXITED(nStatus) ? WEXITSTATUS(nStatus) : 128 + WTERMSIG(nStatus);
        return m_nPid > 0 && m_nStatus < 0;
    }

private:
    int m_nPid = -1;
    int m_nStatus = -1;
};

// A free port below the range the kernel gives dialling sockets, so that a
// client dialling it while nothing listens can never be given it as its own.
inline uint16_t ZV_FreeLowPort()
{
    static std::mt19937 rng(std::random_device{}());
    for (;;)
    {
        const uint16_t usPort = (uint16_t)(20000 + rng() % 12000);
        const int nSocket = socket(AF_INET, SOCK_STREAM, 0);
        const sockaddr_in addr = ZV_Loopback(usPort);
        const bool bFree = bind(nSocket, (sockaddr*)&addr, sizeof addr) == 0;
        if (close(nSocket), bFree)
            return usPort;
    }
}

inline std::string ZV_ReadText(const std::string& sPath)
{
    const std::vector<uint8_t> vb = QB_ReadWholeFile(sPath);
    return {vb.begin(), vb.end()};
}

inline uint64_t ZV_FileSize(const std::string& sPath)  // 0 when there is none
{
    std::error_code ec;
    const uint64_t ullSize = std::filesystem::file_size(sPath, ec);
    return ec ? 0 : ullSize;
}

inline void ZV_WriteRandomFile(const std::string& sPath, size_t nBytes, unsigned nSeed)
{
    std::mt19937 rng(nSeed);
    std::vector<uint8_t> vbData(nBytes);
    std::generate(vbData.begin(), vbData.end(), [&] { return (uint8_t)rng(); });
    QB_WriteWholeFile(sPath, vbData);
}

inline bool ZV_SameFiles(const std::string& sA, const std::string& sB)
{
    return ZV_FileSize(sA) > 0 && ZV_ReadText(sA) == ZV_ReadText(sB);
}

// In the clear without logins, or logins on every connection, with or without TLS.
struct ZV_NetMode
{
    const char* szName;
    bool bTls;
    bool bLogins;
};
inline const ZV_NetMode kNetClear{"Clear", false, false};
inline const ZV_NetMode kNetSecure{"TlsAndLogins", true, true};

// What the programs of one test share in sDir: an authority all trust, its
// certificate for 127.0.0.1, "NAME.secret" per user and "link.secret".
struct ZV_NetSetup
{
    ZV_NetSetup(const std::string& sDirIn, const ZV_NetMode& modeIn) : sDir(sDirIn), mode(modeIn)
    {
        std::filesystem::create_directories(sDir);
        if (mode.bTls && !ZV_MakeCertificates(sDir, "net", "127.0.0.1"))
            ADD_FAILURE() << "no certificates";
        for (const char* szName : kUserNames)
            QB_WriteWholeFile(SecretFile(szName), Secret(szName) + "\n");
        QB_WriteWholeFile(sDir + "/link.secret", "the secret of the link\n");
    }
    std::string TrustFile() const { return sDir + "/net-ca.pem"; }
    std::string SecretFile(const std::string& sName) const { return sDir + "/" + sName + ".secret"; }
    std::string Secret(const std::string& sName) const { return "the secret of " + sName; }

    std::string sDir;
    ZV_NetMode mode;
};

// One roomcrate-server in a folder of its own.
class ZV_ServerUnderTest
{
public:
    // sExtra goes at the end of the configuration (more users).
    ZV_ServerUnderTest(const ZV_NetSetup& setup, const std::string& sDir, uint32_t ulServer,
                       const std::string& sExtra = {}, int nGraceSeconds = 600, uint16_t usFileIDMin = 1)
        : m_setup(setup), m_sDir(sDir), m_ulServer(ulServer), m_sExtra(sExtra), m_nGraceSeconds(nGraceSeconds),
          m_usFileIDMin(usFileIDMin)
    {
        std::filesystem::create_directories(sDir);
    }
    // A linked server this one dials at usPort, or with 0 one that dials here.
    void AddPeer(uint32_t ulPeer, uint16_t usPort) { m_vecPeers.emplace_back(ulPeer, usPort); }
    // Starts it and waits for its port, the same port again after a stop; a
    // server the test will restart takes its first port from ZV_FreeLowPort.
    bool Start(bool bLowPort = false)
    {
        if (bLowPort && m_usPort == 0)
            m_usPort = ZV_FreeLowPort();
        WriteConfig();
        if (m_setup.mode.bLogins && !std::exchange(m_bCredentials, true))
        {
            // Keys for each user, and for each peer that dials here.
            for (const char* szName : kUserNames)
                m_bCredentials = m_bCredentials && Passwd({szName}, m_setup.SecretFile(szName));
            for (const auto& [ulPeer, usPort] : m_vecPeers)
                m_bCredentials = m_bCredentials && (usPort != 0 || Passwd({"--peer", std::to_string(ulPeer)}, m_setup.sDir + "/link.secret"));
            if (!m_bCredentials)
                return false;
        }
        std::filesystem::remove(m_sDir + "/server.port");
        m_lpProcess = std::make_unique<ZV_Process>(
            m_sDir, std::vector<std::string>{ROOMCRATE_SERVER, "server.toml"}, "server.out", "server.err");
        if (!ZV_WaitFor([this] { return ZV_FileSize(m_sDir + "/server.port") > 0 || !m_lpProcess->IsRunning(); }))
            return false;
        m_usPort = (uint16_t)std::atoi(ZV_ReadText(m_sDir + "/server.port").c_str());
        return m_usPort != 0;
    }
    int Stop()  // SIGTERM, and its exit status
    {
        if (!m_lpProcess)
            return -1;
        m_lpProcess->Signal(SIGTERM);
        return std::exchange(m_lpProcess, nullptr)->Wait(std::chrono::seconds(10));
    }
    uint16_t GetPort() const { return m_usPort; }
    std::string GetAddress() const { return "127.0.0.1:" + std::to_string(m_usPort); }
    const std::string& GetDir() const { return m_sDir; }
    std::string Log() const { return ZV_ReadText(m_sDir + "/server.err"); }
    std::string Trace() const { return ZV_ReadText(m_sDir + "/server.out"); }
    std::string Stored(const std::string& sName) const { return m_sDir + "/home/conference-100/store/100/" + sName; }

private:
    void WriteConfig()
    {
        const std::string& sDir = m_setup.sDir;
        std::ofstream file(m_sDir + "/server.toml");
        file << "[server]\nnumber = " << m_ulServer << "\nport = " << m_usPort
             << "\nport_file = \"server.port\"\nhome = \"home\"\ngrace_seconds = " << m_nGraceSeconds << "\n"
             << (m_setup.mode.bLogins ? "logins = true\nlogin_delay_ms = 100\n" : "logins = false\n");
        if (m_setup.mode.bTls)
            file << "certificate = \"" << sDir << "/net.pem\"\nprivate_key = \"" << sDir << "/net.key\"\ntrust = \""
                 << m_setup.TrustFile() << "\"\n";
        file << "\n[[conference]]\nid = 100\nfile_ids = [" << m_usFileIDMin << ", " << m_usFileIDMin + 999 << "]\n";
        for (int i = 0; i < 3; ++i)
            file << "\n[[conference.user]]\nnumber = " << m_ulServer * 10000 + 1 + i << "\nname = \""
                 << kUserNames[i] << "\"\n";
        file << m_sExtra;
        for (const auto& [ulPeer, usPort] : m_vecPeers)
            file << "\n[[peer]]\nnumber = " << ulPeer << "\n"
                 << (usPort == 0 ? "" : "address = \"127.0.0.1\"\nport = " + std::to_string(usPort) + "\n")
                 << (usPort != 0 && m_setup.mode.bLogins ? "secret_file = \"" + sDir + "/link.secret\"\n" : "");
    }
    bool Passwd(const std::vector<std::string>& vecWho, const std::string& sSecretFile) const
    {
        std::vector<std::string> vecArgs = {ROOMCRATE_SERVER, "passwd", "--config", m_sDir + "/server.toml"};
        vecArgs.insert(vecArgs.end(), vecWho.begin(), vecWho.end());
        return ZV_Process(m_setup.sDir, vecArgs, "passwd.out", "passwd.err", sSecretFile).Wait() == 0;
    }

    const ZV_NetSetup& m_setup;
    std::string m_sDir;
    uint32_t m_ulServer;
    std::string m_sExtra;
    int m_nGraceSeconds;
    uint16_t m_usFileIDMin;
    uint16_t m_usPort = 0;
    std::unique_ptr<ZV_Process> m_lpProcess;
    std::vector<std::pair<uint32_t, uint16_t>> m_vecPeers;
    bool m_bCredentials = false;
};

// alice, bob and carol for 10001..10003 at server 1, and 20001..20003 at 2.
inline std::string ZV_UserName(uint32_t ulUser)
{
    const uint32_t ulIndex = ulUser % 10000;
    return ulIndex >= 1 && ulIndex <= 3 ? kUserNames[ulIndex - 1] : "nobody";
}

// A test client of user ulUser in conference 100, its home below the setup's
// folder, doing the steps; its output in NAME.out and NAME.err there. It logs
// in as the setup has it, or (bAsSetup false) only as the options say.
inline std::unique_ptr<ZV_Process> ZV_StartClient(const ZV_NetSetup& setup, const std::string& sName, uint32_t ulUser,
                                                  const std::string& sServer, const std::vector<std::string>& vecSteps,
                                                  const std::vector<std::string>& vecOptions = {}, bool bAsSetup = true)
{
    const std::string sUser = ZV_UserName(ulUser);
    std::vector<std::string> vecArgs = {ROOMCRATE_TESTCLIENT, "--server", sServer, "--conference", "100", "--user",
                                        std::to_string(ulUser), "--home", sName + ".home", "--timeout", "30"};
    if (bAsSetup && setup.mode.bLogins)
        vecArgs.insert(vecArgs.end(), {"--name", sUser, "--secret-file", setup.SecretFile(sUser)});
    if (bAsSetup && setup.mode.bTls)
        vecArgs.insert(vecArgs.end(), {"--trust", setup.TrustFile()});
    vecArgs.insert(vecArgs.end(), vecOptions.begin(), vecOptions.end());
    vecArgs.insert(vecArgs.end(), vecSteps.begin(), vecSteps.end());
    return std::make_unique<ZV_Process>(setup.sDir, vecArgs, sName + ".out", sName + ".err");
}

inline int ZV_RunClient(const ZV_NetSetup& setup, const std::string& sName, uint32_t ulUser, const std::string& sServer,
                        const std::vector<std::string>& vecSteps, const std::vector<std::string>& vecOptions = {})
{
    return ZV_StartClient(setup, sName, ulUser, sServer, vecSteps, vecOptions)->Wait(std::chrono::seconds(40));
}

// A blocking connection to a server on loopback whose reads give up after a
// few seconds; -1 when it could not be made.
inline int ZV_Dial(uint16_t usPort)
{
    const int nSocket = socket(AF_INET, SOCK_STREAM, 0);
    const sockaddr_in addr = ZV_Loopback(usPort);
    const timeval tv{3, 0};
    setsockopt(nSocket, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    if (connect(nSocket, (sockaddr*)&addr, sizeof addr) == 0)
        return nSocket;
    close(nSocket);
    return -1;
}

// Writes bytes to a server in the clear as they are, then waits for the
// server to close; false when it kept the connection open past a few seconds.
inline bool ZV_SendAndSeeClosed(uint16_t usPort, const std::vector<uint8_t>& vbSent, bool bEndStream)
{
    const int nSocket = ZV_Dial(usPort);
    const bool bSent = nSocket >= 0 && send(nSocket, vbSent.data(), vbSent.size(), MSG_NOSIGNAL) == (ssize_t)vbSent.size();
    if (bSent && bEndStream)
        shutdown(nSocket, SHUT_WR);
    char ab[256];
    ssize_t nRead = 1;
    while (bSent && (nRead = recv(nSocket, ab, sizeof ab, 0)) > 0)
        ;
    const bool bClosed = bSent && (nRead == 0 || errno == ECONNRESET);  // -1 with EAGAIN: still open when the time ran out
    close(nSocket);
    return bClosed;
}

// What a TLS session with the server binds its login to.
inline std::string ZV_BindingOf(const ZV_NetSetup& setup, uint16_t usPort)
{
    const int nSocket = ZV_Dial(usPort);
    std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)> lpContext{SSL_CTX_new(TLS_client_method()), &SSL_CTX_free};
    SSL_CTX_load_verify_locations(lpContext.get(), setup.TrustFile().c_str(), nullptr);
    SSL_CTX_set_verify(lpContext.get(), SSL_VERIFY_PEER, nullptr);
    std::unique_ptr<SSL, decltype(&SSL_free)> lpSsl{SSL_new(lpContext.get()), &SSL_free};
    SSL_set_fd(lpSsl.get(), nSocket);
    const bool bUp = nSocket >= 0 && SSL_connect(lpSsl.get()) == 1;
    const std::string sExporter = bUp ? ZV_BindingOf(lpSsl.get()).sExporter : std::string();
    lpSsl.reset();
    close(nSocket);
    return sExporter;
}
