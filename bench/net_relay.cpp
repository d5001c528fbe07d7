// The plain relay that bench/net_transfer.sh measures roomcrate against: the
// same bytes from a sender through a relay to a receiver on loopback, each a
// process of its own, with the disk work the network host does. The sender
// reads the file, the relay writes each block to its own file and forwards
// it, the receiver writes it; blocks of 64 KiB, no framing, no checks.
//
//     net_relay relay PORT_FILE STORE      listens on 127.0.0.1, writes its port
//     net_relay receive PORT FILE          connects first
//     net_relay send PORT FILE             then this one
//     net_relay certs DIR                  a test authority and a certificate for 127.0.0.1
//
// The relay takes the receiver's connection first, then the sender's.
#include "ZV_TestPki.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

constexpr size_t kBlock = 64 * 1024;

bool WriteAll(int nFile, const char* p, size_t nLen)
{
    while (nLen > 0)
    {
        const ssize_t nDone = write(nFile, p, nLen);
        if (nDone <= 0)
            return false;
        p += nDone;
        nLen -= (size_t)nDone;
    }
    return true;
}

sockaddr_in Loopback(uint16_t usPort)
{
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(usPort);
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return addr;
}

int Connect(uint16_t usPort)
{
    const int nSocket = socket(AF_INET, SOCK_STREAM, 0);
    const sockaddr_in addr = Loopback(usPort);
    return connect(nSocket, (const sockaddr*)&addr, sizeof addr) == 0 ? nSocket : -1;
}

// Copies from one descriptor to the others until the first ends.
bool Pump(int nFrom, const std::vector<int>& vecTo)
{
    std::vector<char> vbBlock(kBlock);
    for (;;)
    {
        const ssize_t nRead = read(nFrom, vbBlock.data(), vbBlock.size());
        if (nRead == 0)
            return true;
        if (nRead < 0)
            return false;
        for (int nTo : vecTo)
            if (!WriteAll(nTo, vbBlock.data(), (size_t)nRead))
                return false;
    }
}

int Relay(const char* pszPortFile, const char* pszStore)
{
    const int nListen = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr = Loopback(0);
    socklen_t nLen = sizeof addr;
    if (bind(nListen, (sockaddr*)&addr, sizeof addr) != 0 || listen(nListen, 2) != 0 ||
        getsockname(nListen, (sockaddr*)&addr, &nLen) != 0)
        return 1;
    FILE* lpPort = std::fopen(pszPortFile, "w");
    std::fprintf(lpPort, "%u\n", ntohs(addr.sin_port));
    std::fclose(lpPort);
    const int nReceiver = accept(nListen, nullptr, nullptr);
    const int nSender = accept(nListen, nullptr, nullptr);
    const int nStore = open(pszStore, O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (nReceiver < 0 || nSender < 0 || nStore < 0)
        return 1;
    const bool bDone = Pump(nSender, {nStore, nReceiver});
    close(nReceiver);
    return bDone && close(nStore) == 0 ? 0 : 1;
}

int Send(uint16_t usPort, const char* pszFile)
{
    const int nSocket = Connect(usPort);
    const int nFile = open(pszFile, O_RDONLY);
    if (nSocket < 0 || nFile < 0)
        return 1;
    const bool bDone = Pump(nFile, {nSocket});
    shutdown(nSocket, SHUT_WR);
    char c;
    while (read(nSocket, &c, 1) > 0)
    {
    }
    return bDone ? 0 : 1;
}

int Receive(uint16_t usPort, const char* pszFile)
{
    const int nSocket = Connect(usPort);
    const int nFile = open(pszFile, O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (nSocket < 0 || nFile < 0)
        return 1;
    return Pump(nSocket, {nFile}) && close(nFile) == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv)
{
    const std::string sVerb = argc > 1 ? argv[1] : "";
    if (sVerb == "relay" && argc == 4)
        return Relay(argv[2], argv[3]);
    if ((sVerb == "send" || sVerb == "receive") && argc == 4)
        return (sVerb == "send" ? Send : Receive)((uint16_t)std::atoi(argv[2]), argv[3]);
    if (sVerb == "certs" && argc == 3)
        return ZV_MakeCertificates(argv[2], "bench", "127.0.0.1") ? 0 : 1;
    std::fprintf(stderr, "usage: net_relay relay PORT_FILE STORE | receive PORT FILE | send PORT FILE | certs DIR\n");
    return 2;
}
