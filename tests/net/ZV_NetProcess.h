// What the process tests of the network host stand on: real programs
// started in a folder of their own with their output in files, waited for
// with a limit, and a server set up from a TOML text.
#pragma once

#include "QB_TestSupport.h"

#include <chrono>
#include <csignal>
#include <functional>
#include <memory>
#include <string>
#include <vector>

// A program running in the background; killed with SIGKILL if still
// running when the object goes.
class ZV_Process
{
public:
    // Output goes to sOut and sErr (appended), the folder is sDir.
    ZV_Process(const std::string& sDir, const std::vector<std::string>& vecArgs, const std::string& sOut,
               const std::string& sErr);
    ~ZV_Process();
    ZV_Process(const ZV_Process&) = delete;
    ZV_Process& operator=(const ZV_Process&) = delete;

    int GetPid() const { return m_nPid; }
    void Signal(int nSignal) const;
    // The exit status, or -1 when it is still running after the limit, or
    // 128 + the signal that ended it.
    int Wait(std::chrono::milliseconds msLimit = std::chrono::seconds(30));
    bool IsRunning();

private:
    int m_nPid = -1;
    int m_nStatus = -1;
};

// A free port below the range the kernel hands out to dialling sockets, so
// that a client that dials it while nothing listens there can never be given
// it as its own port.
uint16_t ZV_FreeLowPort();
// Waits until fnDone says yes, for at most msLimit; false when it never did.
bool ZV_WaitFor(const std::function<bool()>& fnDone, std::chrono::milliseconds msLimit = std::chrono::seconds(20));
std::string ZV_ReadText(const std::string& sPath);
// Bytes of a file, 0 when there is none.
uint64_t ZV_FileSize(const std::string& sPath);
// A file of nBytes from a seed.
void ZV_WriteRandomFile(const std::string& sPath, size_t nBytes, unsigned nSeed);
bool ZV_SameFiles(const std::string& sA, const std::string& sB);

// One roomcrate-server in a folder of its own: its configuration, home,
// port file and output.
class ZV_ServerUnderTest
{
public:
    // sExtra goes at the end of the configuration ([[peer]] tables, more users).
    ZV_ServerUnderTest(const std::string& sDir, uint32_t ulServer, const std::string& sExtra = {},
                       int nGraceSeconds = 600, uint16_t usFileIDMin = 1);
    // Starts it and waits for its port; the same port again after a stop.
    // The first start takes any free port, or one from ZV_FreeLowPort when
    // the test will restart the server or cut its clients off.
    bool Start(bool bLowPort = false);
    // SIGTERM, and its exit status.
    int Stop();
    void Kill();
    uint16_t GetPort() const { return m_usPort; }
    std::string GetAddress() const { return "127.0.0.1:" + std::to_string(m_usPort); }
    const std::string& GetDir() const { return m_sDir; }
    std::string Log() const { return ZV_ReadText(m_sDir + "/server.err"); }
    std::string Trace() const { return ZV_ReadText(m_sDir + "/server.out"); }
    std::string Stored(const std::string& sName) const;

private:
    void WriteConfig();

    std::string m_sDir;
    uint32_t m_ulServer;
    std::string m_sExtra;
    int m_nGraceSeconds;
    uint16_t m_usFileIDMin;
    uint16_t m_usPort = 0;
    std::unique_ptr<ZV_Process> m_lpProcess;
};

// A test client of user ulUser in conference 100, with its home below sDir,
// doing the steps; its output lands in sDir/NAME.out and .err.
std::unique_ptr<ZV_Process> ZV_StartClient(const std::string& sDir, const std::string& sName, uint32_t ulUser,
                                           const std::string& sServer, const std::vector<std::string>& vecSteps,
                                           const std::vector<std::string>& vecOptions = {});
// The same, run to its end within the limit; its exit status.
int ZV_RunClient(const std::string& sDir, const std::string& sName, uint32_t ulUser, const std::string& sServer,
                 const std::vector<std::string>& vecSteps, const std::vector<std::string>& vecOptions = {});
