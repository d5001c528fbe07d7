// What a peer that does not keep to the wire gets from a real server: its
// connection closed with a log line, and nothing else. A PDU that reached a
// manager would print its trace line on the server's standard output. On
// TLS with logins the peer logs in before its frames, so that they meet
// the same checks behind the login.
#include "ZV_NetProcess.h"
#include "ZV_NetWire.h"

#include "IZV_FileShare.h"

#include <gtest/gtest.h>


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

}  // namespace

struct NetBadPeer : ::testing::TestWithParam<ZV_NetMode>
{
};

TEST_P(NetBadPeer, GetsItsConnectionClosedWithALogLineAndReachesNoManager)
{
    QB_TempFolder tmp;
    ZV_NetSetup setup(tmp.Path(), GetParam());
    ZV_ServerUnderTest server(setup, tmp.Path() + "/srv1", 1);
    ASSERT_TRUE(server.Start());
    ZV_RawPeer peer(setup);
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
        EXPECT_TRUE(peer.SendAndSeeClosed(server.GetPort(), row.vbSent, row.bEndStream));
        EXPECT_TRUE(ZV_WaitFor([&] { return server.Log().find(row.szLogged) != std::string::npos; },
                               std::chrono::seconds(3)));
    }
    EXPECT_EQ(server.Trace().find("recv a"), std::string::npos) << server.Trace();
    EXPECT_EQ(0, ZV_RunClient(setup, "bob", 10002, server.GetAddress(), {"list"})) << "the server goes on";
}

INSTANTIATE_TEST_SUITE_P(Modes, NetBadPeer, ::testing::Values(kNetClear, kNetSecure),
                         [](const auto& info) { return std::string(info.param.szName); });
