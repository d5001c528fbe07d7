#include "ZV_NetProcess.h"

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

#include <filesystem>
#include <fstream>
#include <random>
#include <thread>

namespace {

const char* const kUserNames[] = {"alice", "bob", "carol"};

sockaddr_in Loopback(uint16_t usPort)
{
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(usPort);
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return addr;
}

}  // namespace

ZV_Process::ZV_Process(const std::string& sDir, const std::vector<std::string>& vecArgs, const std::string& sOut,
                       const std::string& sErr, const std::string& sIn)
{
    m_nPid = fork();
    if (m_nPid != 0)
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

ZV_Process::~ZV_Process()
{
    if (IsRunning())
        Signal(SIGKILL), Wait();
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
        const sockaddr_in addr = Loopback(usPort);
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
    const std::vector<uint8_t> vb = QB_ReadWholeFile(sPath);
    return std::string(vb.begin(), vb.end());
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
    std::vector<uint8_t> vbData(nBytes);
    for (uint8_t& b : vbData)
        b = (uint8_t)rng();
    QB_WriteWholeFile(sPath, vbData);
}

bool ZV_SameFiles(const std::string& sA, const std::string& sB)
{
    return ZV_FileSize(sA) > 0 && ZV_ReadText(sA) == ZV_ReadText(sB);
}

const ZV_NetMode kNetClear{"Clear", false, false};
const ZV_NetMode kNetLoginsInTheClear{"LoginsInTheClear", false, true};
const ZV_NetMode kNetSecure{"TlsAndLogins", true, true};

ZV_NetSetup::ZV_NetSetup(const std::string& sDir, const ZV_NetMode& mode) : m_sDir(sDir), m_mode(mode)
{
    std::filesystem::create_directories(sDir);
    if (mode.bTls && !ZV_MakeCertificates(sDir, "net", "127.0.0.1"))
        ADD_FAILURE() << "no certificates";
    for (const char* szName : kUserNames)
        QB_WriteWholeFile(SecretFile(szName), Secret(szName) + "\n");
    QB_WriteWholeFile(m_sDir + "/link.secret", "the secret of the link\n");
}

ZV_ServerUnderTest::ZV_ServerUnderTest(const ZV_NetSetup& setup, const std::string& sDir, uint32_t ulServer,
                                       const std::string& sExtra, int nGraceSeconds, uint16_t usFileIDMin)
    : m_setup(setup), m_sDir(sDir), m_ulServer(ulServer), m_sExtra(sExtra), m_nGraceSeconds(nGraceSeconds),
      m_usFileIDMin(usFileIDMin)
{
    std::filesystem::create_directories(sDir);
}

void ZV_ServerUnderTest::WriteConfig()
{
    const ZV_NetMode& mode = m_setup.GetMode();
    const std::string& sDir = m_setup.GetDir();
    std::ofstream file(m_sDir + "/server.toml");
    file << "[server]\nnumber = " << m_ulServer << "\nport = " << m_usPort
         << "\nport_file = \"server.port\"\nhome = \"home\"\ngrace_seconds = " << m_nGraceSeconds << "\n"
         << (mode.bLogins ? "logins = true\nlogin_delay_ms = 100\n" : "logins = false\n");
    if (mode.bTls)
        file << "certificate = \"" << sDir << "/net.pem\"\nprivate_key = \"" << sDir << "/net.key\"\ntrust = \""
             << m_setup.TrustFile() << "\"\n";
    file << "\n[[conference]]\nid = 100\nfile_ids = [" << m_usFileIDMin << ", " << m_usFileIDMin + 999 << "]\n";
    for (int i = 0; i < 3; ++i)
        file << "\n[[conference.user]]\nnumber = " << m_ulServer * 10000 + 1 + i << "\nname = \"" << kUserNames[i]
             << "\"\n";
    file << m_sExtra;
    for (const auto& [ulPeer, usPort] : m_vecPeers)
    {
        file << "\n[[peer]]\nnumber = " << ulPeer << "\n";
        if (usPort != 0)
            file << "address = \"127.0.0.1\"\nport = " << usPort << "\n"
                 << (mode.bLogins ? "secret_file = \"" + sDir + "/link.secret\"\n" : "");
    }
}

bool ZV_ServerUnderTest::Start(bool bLowPort)
{
    if (bLowPort && m_usPort == 0)
        m_usPort = ZV_FreeLowPort();
    WriteConfig();
    if (m_setup.GetMode().bLogins && !m_bCredentials)
    {
        // roomcrate-server passwd for each user, and each peer that dials here.
        auto Passwd = [&](const std::vector<std::string>& vecWho, const std::string& sSecretFile) {
            std::vector<std::string> vecArgs = {ROOMCRATE_SERVER, "passwd", "--config", m_sDir + "/server.toml"};
            vecArgs.insert(vecArgs.end(), vecWho.begin(), vecWho.end());
            return ZV_Process(m_setup.GetDir(), vecArgs, "passwd.out", "passwd.err", sSecretFile).Wait() == 0;
        };
        m_bCredentials = true;
        for (const char* szName : kUserNames)
            m_bCredentials = m_bCredentials && Passwd({szName}, m_setup.SecretFile(szName));
        for (const auto& [ulPeer, usPort] : m_vecPeers)
            if (usPort == 0)
                m_bCredentials = m_bCredentials && Passwd({"--peer", std::to_string(ulPeer)}, m_setup.GetDir() + "/link.secret");
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

int ZV_ServerUnderTest::Stop()
{
    if (!m_lpProcess)
        return -1;
    m_lpProcess->Signal(SIGTERM);
    const int nExit = m_lpProcess->Wait(std::chrono::seconds(10));
    m_lpProcess.reset();
    return nExit;
}

std::string ZV_UserName(uint32_t ulUser)
{
    const uint32_t ulIndex = ulUser % 10000;
    return ulIndex >= 1 && ulIndex <= 3 ? kUserNames[ulIndex - 1] : "nobody";
}

std::unique_ptr<ZV_Process> ZV_StartClientAs(const std::string& sDir, const std::string& sName, uint32_t ulUser,
                                             const std::string& sServer, const std::vector<std::string>& vecSteps,
                                             const std::vector<std::string>& vecOptions)
{
    std::vector<std::string> vecArgs = {ROOMCRATE_TESTCLIENT, "--server", sServer, "--conference", "100", "--user",
                                        std::to_string(ulUser), "--home", sName + ".home", "--timeout", "30"};
    vecArgs.insert(vecArgs.end(), vecOptions.begin(), vecOptions.end());
    vecArgs.insert(vecArgs.end(), vecSteps.begin(), vecSteps.end());
    return std::make_unique<ZV_Process>(sDir, vecArgs, sName + ".out", sName + ".err");
}

std::unique_ptr<ZV_Process> ZV_StartClient(const ZV_NetSetup& setup, const std::string& sName, uint32_t ulUser,
                                           const std::string& sServer, const std::vector<std::string>& vecSteps,
                                           const std::vector<std::string>& vecOptions)
{
    const std::string sUser = ZV_UserName(ulUser);
    std::vector<std::string> vecAll;
    if (setup.GetMode().bLogins)
        vecAll = {"--name", sUser, "--secret-file", setup.SecretFile(sUser)};
    if (setup.GetMode().bTls)
        vecAll.insert(vecAll.end(), {"--trust", setup.TrustFile()});
    vecAll.insert(vecAll.end(), vecOptions.begin(), vecOptions.end());
    return ZV_StartClientAs(setup.GetDir(), sName, ulUser, sServer, vecSteps, vecAll);
}

int ZV_RunClient(const ZV_NetSetup& setup, const std::string& sName, uint32_t ulUser, const std::string& sServer,
                 const std::vector<std::string>& vecSteps, const std::vector<std::string>& vecOptions)
{
    return ZV_StartClient(setup, sName, ulUser, sServer, vecSteps, vecOptions)->Wait(std::chrono::seconds(40));
}

namespace {

// A blocking connection, on TLS or in the clear, whose reads give up after
// a few seconds.
class RawChannel
{
public:
    RawChannel(uint16_t usPort, const std::string& sTrust)
    {
        m_nSocket = socket(AF_INET, SOCK_STREAM, 0);
        const sockaddr_in addr = Loopback(usPort);
        timeval tv{3, 0};
        setsockopt(m_nSocket, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
        m_bUp = connect(m_nSocket, (sockaddr*)&addr, sizeof addr) == 0;
        if (!m_bUp || sTrust.empty())
            return;
        m_lpContext = SSL_CTX_new(TLS_client_method());
        SSL_CTX_load_verify_locations(m_lpContext, sTrust.c_str(), nullptr);
        SSL_CTX_set_verify(m_lpContext, SSL_VERIFY_PEER, nullptr);
        SSL_CTX_set_options(m_lpContext, SSL_OP_IGNORE_UNEXPECTED_EOF);
        m_lpSsl = SSL_new(m_lpContext);
        SSL_set_fd(m_lpSsl, m_nSocket);
        m_bUp = SSL_connect(m_lpSsl) == 1;
    }
    ~RawChannel()
    {
        if (m_lpSsl)
            SSL_free(m_lpSsl);
        if (m_lpContext)
            SSL_CTX_free(m_lpContext);
        close(m_nSocket);
    }
    bool IsUp() const { return m_bUp; }
    ZV_ChannelBinding Binding() const { return m_lpSsl ? ZV_BindingOf(m_lpSsl) : ZV_ChannelBinding{}; }

    bool Write(const void* pData, size_t nLen)
    {
        if (nLen == 0)
            return true;
        return m_lpSsl ? SSL_write(m_lpSsl, pData, (int)nLen) == (int)nLen
                       : send(m_nSocket, pData, nLen, MSG_NOSIGNAL) == (ssize_t)nLen;
    }
    // 0 when the peer closed, -1 on an error or when the time ran out.
    ssize_t ReadSome(void* pData, size_t nLen)
    {
        if (!m_lpSsl)
            return recv(m_nSocket, pData, nLen, 0);
        const int nRead = SSL_read(m_lpSsl, pData, (int)nLen);
        if (nRead > 0)
            return nRead;
        const int nError = SSL_get_error(m_lpSsl, nRead);
        const bool bTimeOut = nError == SSL_ERROR_WANT_READ ||
                              (nError == SSL_ERROR_SYSCALL && (errno == EAGAIN || errno == EWOULDBLOCK));
        return bTimeOut ? -1 : 0;
    }
    bool Read(void* pData, size_t nLen)
    {
        for (size_t nDone = 0; nDone < nLen;)
        {
            const ssize_t nRead = ReadSome((char*)pData + nDone, nLen - nDone);
            if (nRead <= 0)
                return false;
            nDone += (size_t)nRead;
        }
        return true;
    }
    void EndStream()
    {
        if (m_lpSsl)
            SSL_shutdown(m_lpSsl);
        shutdown(m_nSocket, SHUT_WR);
    }

private:
    int m_nSocket = -1;
    bool m_bUp = false;
    SSL_CTX* m_lpContext = nullptr;
    SSL* m_lpSsl = nullptr;
};

// Reads a welcome and its login data; false when none came whole.
bool ReadWelcome(RawChannel& channel, ZV_NetWelcome& welcome, std::string& sData)
{
    std::array<uint8_t, kNetWelcomeSize> ab{};
    if (!channel.Read(ab.data(), ab.size()) || ZV_ReadWelcome(ab.data(), welcome) != ZV_NetFault::None)
        return false;
    sData.resize(welcome.usLoginLen);
    return channel.Read(sData.data(), sData.size());
}

// The hello's user logs in; false when the server refused the hello or the
// login, and so closes.
bool LogIn(RawChannel& channel, const ZV_NetSetup& setup, const ZV_NetHello& hello)
{
    ZV_NetWelcome welcome;
    std::string sData;
    const std::string sName = ZV_UserName(hello.ulWho);
    ZV_LoginClient client(sName, setup.Secret(sName), channel.Binding());
    for (bool bFirst = true; ReadWelcome(channel, welcome, sData) && welcome.usResult == zvNetLogIn; bFirst = false)
    {
        const ZV_LoginStep step = bFirst ? client.Start(sData) : client.Step(sData);
        const std::string sMechanism = bFirst ? client.GetMechanism() : "";
        const auto abHead = ZV_WriteLoginHead({(uint8_t)sMechanism.size(), (uint16_t)step.sData.size()});
        if (!channel.Write(abHead.data(), abHead.size()) || !channel.Write(sMechanism.data(), sMechanism.size()) ||
            !channel.Write(step.sData.data(), step.sData.size()))
            return false;
    }
    return welcome.usResult == zvNetAccepted;
}

}  // namespace

bool ZV_RawPeer::SendAndSeeClosed(uint16_t usPort, const std::vector<uint8_t>& vbSent, bool bEndStream)
{
    RawChannel channel(usPort, m_setup.GetMode().bTls ? m_setup.TrustFile() : std::string());
    if (!channel.IsUp())
        return false;
    size_t nSent = 0;
    ZV_NetHello hello;
    if (m_bLogIn && m_setup.GetMode().bLogins && vbSent.size() >= kNetHelloSize &&
        ZV_ReadHello(vbSent.data(), hello) == ZV_NetFault::None)
    {
        nSent = kNetHelloSize;
        if (!channel.Write(vbSent.data(), nSent) || !LogIn(channel, m_setup, hello))
            nSent = vbSent.size();
    }
    if (!channel.Write(vbSent.data() + nSent, vbSent.size() - nSent))
        return false;
    if (bEndStream)
        channel.EndStream();
    char ab[256];
    ssize_t nRead = 1;
    while ((nRead = channel.ReadSome(ab, sizeof ab)) > 0)
    {
    }
    return nRead == 0 || errno == ECONNRESET;
}

std::string ZV_RawPeer::BindingOf(uint16_t usPort)
{
    RawChannel channel(usPort, m_setup.TrustFile());
    return channel.IsUp() ? channel.Binding().sExporter : std::string();
}
