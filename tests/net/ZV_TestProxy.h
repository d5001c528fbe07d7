// A TCP relay on loopback that a test can cut (no connection held or taken)
// and restore on the same port. It keeps what the first connection to send
// anything sent, as someone on the way would see it.
#pragma once

#include "ZV_NetProcess.h"

#include <poll.h>

#include <mutex>
#include <utility>

class ZV_TestProxy
{
public:
    ZV_TestProxy(uint16_t usPort, uint16_t usTarget) : m_usPort(usPort), m_usTarget(usTarget) { Restore(); }
    ~ZV_TestProxy() { Cut(); }

    std::string GetAddress() const { return "127.0.0.1:" + std::to_string(m_usPort); }
    // Closes the port and every connection, and waits for the relays to end.
    void Cut()
    {
        ShutAll();
        if (m_accept.joinable())
            m_accept.join();
        ShutAll();  // a connection taken just before the port closed
        for (std::thread& relay : m_vecRelays)
            relay.join();
        for (int nSocket : m_vecSockets)
            close(nSocket);
        m_vecRelays.clear(), m_vecSockets.clear();
    }
    // The port may take a moment to be free again after a cut.
    void Restore()
    {
        const int nListen = socket(AF_INET, SOCK_STREAM, 0), nOn = 1;
        setsockopt(nListen, SOL_SOCKET, SO_REUSEADDR, &nOn, sizeof nOn);
        const sockaddr_in addr = ZV_Loopback(m_usPort);
        for (int nTry = 0; bind(nListen, (const sockaddr*)&addr, sizeof addr) != 0 && nTry < 100; ++nTry)
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        listen(nListen, SOMAXCONN);
        m_vecSockets.push_back(nListen);
        m_accept = std::thread([this, nListen] { Accept(nListen); });
    }
    std::string Recorded()
    {
        std::lock_guard lock(m_mutex);
        return m_sRecorded;
    }

private:
    void ShutAll()
    {
        std::lock_guard lock(m_mutex);
        for (int nSocket : m_vecSockets)
            shutdown(nSocket, SHUT_RDWR);
    }
    void Accept(int nListen)
    {
        for (int nClient; (nClient = accept(nListen, nullptr, nullptr)) >= 0;)
        {
            const int nServer = socket(AF_INET, SOCK_STREAM, 0);
            const sockaddr_in addr = ZV_Loopback(m_usTarget);
            connect(nServer, (const sockaddr*)&addr, sizeof addr);
            std::lock_guard lock(m_mutex);
            m_vecSockets.insert(m_vecSockets.end(), {nClient, nServer});
            m_vecRelays.emplace_back([=, this] { Relay(nClient, nServer); });
        }
    }
    // Both ways until both ends closed; an end that closed is passed on as a
    // half close.
    void Relay(int nClient, int nServer)
    {
        bool bRecord = false, bSent = false;
        pollfd aPoll[2] = {{nClient, POLLIN, 0}, {nServer, POLLIN, 0}};
        char ab[65536];
        while (aPoll[0].fd >= 0 || aPoll[1].fd >= 0)
        {
            if (poll(aPoll, 2, -1) <= 0)
                continue;
            for (int i = 0; i < 2; ++i)
            {
                if (aPoll[i].revents == 0)
                    continue;
                const int nTo = i == 0 ? nServer : nClient;
                ssize_t nRead = read(aPoll[i].fd, ab, sizeof ab);
                if (nRead <= 0)
                    shutdown(nTo, SHUT_WR), aPoll[i].fd = -1;
                if (nRead > 0 && i == 0)
                {
                    std::lock_guard lock(m_mutex);
                    if (!std::exchange(bSent, true))
                        bRecord = !std::exchange(m_bRecording, true);
                    if (bRecord && m_sRecorded.size() < kRecordLimit)
                        m_sRecorded.append(ab, (size_t)nRead);
                }
                for (ssize_t nDone = 0, nSent = 0; nRead > 0 && nDone < nRead; nDone += nSent)
                    if ((nSent = send(nTo, ab + nDone, (size_t)(nRead - nDone), MSG_NOSIGNAL)) <= 0)
                        aPoll[i].fd = -1, nRead = 0;
            }
        }
    }

    static constexpr size_t kRecordLimit = 1 << 16;
    uint16_t m_usPort;
    uint16_t m_usTarget;
    bool m_bRecording = false;
    std::mutex m_mutex;
    std::string m_sRecorded;
    std::vector<int> m_vecSockets;
    std::thread m_accept;
    std::vector<std::thread> m_vecRelays;
};
