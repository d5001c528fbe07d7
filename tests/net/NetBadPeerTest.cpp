// What a peer that does not keep to the wire gets from a real server: its
// connection closed with a log line, and nothing else. A PDU that reached a
// manager would print its trace line on the server's standard output.
#include "ZV_NetProcess.h"
#include "ZV_NetWire.h"

#include "IZV_FileShare.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

using Bytes = std::vector<uint8_t>;

Bytes Hello(uint16_t usKind, uint32_t ulConf = 100, uint16_t usVersion = zvNetVersion)
{
    const auto ab = ZV_WriteHello({usVersion, usKind, ulConf, 10001});
    return Bytes(ab.begin(), ab.end());
}

Bytes Frame(uint16_t usWord, uint16_t usPdu, uint32_t ulLen, size_t nPayload)
{
    ZV_NetFrameHead head;
    head.usConfWord = usWord;
    head.usPdu = usPdu;
    head.ulLen = ulLen;
    const auto ab = ZV_WriteFrameHead(head);
    Bytes vb(ab.begin(), ab.end());
    vb.resize(vb.size() + nPayload, 0x41);
    return vb;
}

Bytes operator+(Bytes a, const Bytes& b)
{
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

// Sends the bytes, and waits for the server to close; false when it kept
// the connection open past the limit.
bool SendAndSeeClosed(uint16_t usPort, const Bytes& vbSent, bool bEndStream)
{
    const int nSocket = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(usPort);
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    timeval tv{3, 0};
    setsockopt(nSocket, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    bool bClosed = connect(nSocket, (sockaddr*)&addr, sizeof addr) == 0 &&
                   send(nSocket, vbSent.data(), vbSent.size(), MSG_NOSIGNAL) == (ssize_t)vbSent.size();
    if (bEndStream)
        shutdown(nSocket, SHUT_WR);
    char ab[256];
    ssize_t nRead = 1;
    while (bClosed && (nRead = recv(nSocket, ab, sizeof ab, 0)) > 0)
    {
    }
    bClosed = bClosed && (nRead == 0 || errno == ECONNRESET);
    close(nSocket);
    return bClosed;
}

}  // namespace

TEST(NetBadPeer, GetsItsConnectionClosedWithALogLineAndReachesNoManager)
{
    QB_TempFolder tmp;
    ZV_ServerUnderTest server(tmp.Path() + "/srv1", 1);
    ASSERT_TRUE(server.Start());
    const struct
    {
        const char* szCase;
        Bytes vbSent;
        bool bEndStream;
        const char* szLogged;
    } aRows[] = {
        {"a stream of garbage", Bytes(40, 0x47), false, "it does not begin with \"RCRT\""},
        {"an unknown version", Hello(zvConfClientTypeCommand, 100, 9), false, "unknown protocol version"},
        {"a hello for a conference not hosted here", Hello(zvConfClientTypeCommand, 999), false,
         "conference not hosted here"},
        {"a data connection without its command connection", Hello(zvConfClientTypeData), false,
         "a data link before the command link"},
        {"a frame with a huge length", Hello(0) + Frame(100, 8001, 0xFFFFFFFF, 0), false, "(4294967295)"},
        {"a frame one byte longer than a module sends", Hello(0) + Frame(100, 8001, 65472, 0), false,
         "longer than 65471 bytes (65472)"},
        {"a frame of a conference the link is not in", Hello(0) + Frame(200, 8001, 4, 4), false,
         "a frame for conference word 200 on a link of conference 100"},
        {"a frame cut short", Hello(0) + Frame(100, 8001, 100, 10), true, "the stream ended inside a frame"},
        {"a frame head cut short", Hello(0) + Bytes(5, 0), true, "the stream ended inside a frame head"},
        {"a host frame nobody knows", Hello(0) + Frame(100, 7, 0, 0), false, "host's own numbers it does not know (7)"},
    };
    for (const auto& row : aRows)
    {
        SCOPED_TRACE(row.szCase);
        EXPECT_TRUE(SendAndSeeClosed(server.GetPort(), row.vbSent, row.bEndStream));
        EXPECT_TRUE(ZV_WaitFor([&] { return server.Log().find(row.szLogged) != std::string::npos; },
                               std::chrono::seconds(3)));
    }
    EXPECT_EQ(server.Trace().find("recv a"), std::string::npos) << server.Trace();
    EXPECT_EQ(0, ZV_RunClient(tmp.Path(), "bob", 10002, server.GetAddress(), {"list"})) << "the server goes on";
}
