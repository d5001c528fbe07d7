// What the process tests of the network host stand on: real programs
// started in a folder of their own with their output in files, waited for
// with a limit, a server set up from a TOML text, the certificates and
// secrets of a test, and a peer that writes raw bytes.
#pragma once

#include "QB_TestSupport.h"

#include <chrono>
#include <csignal>
#include <functional>
#include <memory>
#include <string>
#include <vector>

// A program in the background, in folder sDir, its output appended to sOut
// and sErr, its input from sIn when given; killed if still running at the end.
class ZV_Process
{
public:
    ZV_Process(const std::string& sDir, const std::vector<std::string>& vecArgs, const std::string& sOut,
               const std::string& sErr, const std::string& sIn = {});
    ~ZV_Process();
    ZV_Process(const ZV_Process&) = delete;
    ZV_Process& operator=(const ZV_Process&) = delete;

    void Signal(int nSignal) const;
    // The exit status, 128 + the signal that ended it, or -1 when still running.
    int Wait(std::chrono::milliseconds msLimit = std::chrono::seconds(30));
    bool IsRunning();

private:
    int m_nPid = -1;
    int m_nStatus = -1;
};

// A free port below the range the kernel gives dialling sockets, so that a
// client dialling it while nothing listens can never be given it as its own.
uint16_t ZV_FreeLowPort();
bool ZV_WaitFor(const std::function<bool()>& fnDone, std::chrono::milliseconds msLimit = std::chrono::seconds(20));
std::string ZV_ReadText(const std::string& sPath);
uint64_t ZV_FileSize(const std::string& sPath);  // 0 when there is none
void ZV_WriteRandomFile(const std::string& sPath, size_t nBytes, unsigned nSeed);
bool ZV_SameFiles(const std::string& sA, const std::string& sB);

// How the programs of a test meet: in the clear without logins, or with a
// login on every connection, in the clear or on TLS.
struct ZV_NetMode
{
    const char* szName;
    bool bTls;
    bool bLogins;
};
extern const ZV_NetMode kNetClear;
extern const ZV_NetMode kNetLoginsInTheClear;
extern const ZV_NetMode kNetSecure;

// What the programs of one test share, in one folder: an authority every
// client and dialling server trusts, the server certificate it signed for
// 127.0.0.1, a secret per user name ("NAME.secret") and "link.secret".
class ZV_NetSetup
{
public:
    ZV_NetSetup(const std::string& sDir, const ZV_NetMode& mode);
    const ZV_NetMode& GetMode() const { return m_mode; }
    const std::string& GetDir() const { return m_sDir; }
    std::string TrustFile() const { return m_sDir + "/net-ca.pem"; }
    std::string SecretFile(const std::string& sName) const { return m_sDir + "/" + sName + ".secret"; }
    std::string Secret(const std::string& sName) const { return "the secret of " + sName; }

private:
    std::string m_sDir;
    ZV_NetMode m_mode;
};

// One roomcrate-server in a folder of its own: its configuration, home,
// port file and output.
class ZV_ServerUnderTest
{
public:
    // sExtra goes at the end of the configuration (more users).
    ZV_ServerUnderTest(const ZV_NetSetup& setup, const std::string& sDir, uint32_t ulServer,
                       const std::string& sExtra = {}, int nGraceSeconds = 600, uint16_t usFileIDMin = 1);
    // A linked server this one dials at usPort, or with 0 one that dials here.
    void AddPeer(uint32_t ulPeer, uint16_t usPort) { m_vecPeers.emplace_back(ulPeer, usPort); }
    // Starts it and waits for its port, the same port again after a stop. The
    // first start takes any free port, or one from ZV_FreeLowPort when the
    // test will restart the server.
    bool Start(bool bLowPort = false);
    int Stop();  // SIGTERM, and its exit status
    uint16_t GetPort() const { return m_usPort; }
    std::string GetAddress() const { return "127.0.0.1:" + std::to_string(m_usPort); }
    const std::string& GetDir() const { return m_sDir; }
    std::string Log() const { return ZV_ReadText(m_sDir + "/server.err"); }
    std::string Trace() const { return ZV_ReadText(m_sDir + "/server.out"); }
    std::string Stored(const std::string& sName) const { return m_sDir + "/home/conference-100/store/100/" + sName; }

private:
    void WriteConfig();

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
std::string ZV_UserName(uint32_t ulUser);

// A test client of user ulUser in conference 100, its home below sDir, doing
// the steps, logged in as the setup has it; its output in sDir/NAME.out, .err.
std::unique_ptr<ZV_Process> ZV_StartClient(const ZV_NetSetup& setup, const std::string& sName, uint32_t ulUser,
                                           const std::string& sServer, const std::vector<std::string>& vecSteps,
                                           const std::vector<std::string>& vecOptions = {});
// The same with the options given alone, so that a test may log in wrong.
std::unique_ptr<ZV_Process> ZV_StartClientAs(const std::string& sDir, const std::string& sName, uint32_t ulUser,
                                             const std::string& sServer, const std::vector<std::string>& vecSteps,
                                             const std::vector<std::string>& vecOptions);
// Run to its end within the limit; its exit status.
int ZV_RunClient(const ZV_NetSetup& setup, const std::string& sName, uint32_t ulUser, const std::string& sServer,
                 const std::vector<std::string>& vecSteps, const std::vector<std::string>& vecOptions = {});

// A peer that writes bytes to a server as they are, on TLS and logged in as
// the setup has it when they begin with a hello (unless bLogIn is false), and
// then waits for the server to close the connection.
class ZV_RawPeer
{
public:
    explicit ZV_RawPeer(const ZV_NetSetup& setup, bool bLogIn = true) : m_setup(setup), m_bLogIn(bLogIn) {}
    // False when the server kept the connection open past a few seconds.
    bool SendAndSeeClosed(uint16_t usPort, const std::vector<uint8_t>& vbSent, bool bEndStream);
    // What a TLS session with the server binds its login to.
    std::string BindingOf(uint16_t usPort);

private:
    const ZV_NetSetup& m_setup;
    bool m_bLogIn;
};
