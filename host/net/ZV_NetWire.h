// ZV_NetWire: the bytes of the network host, as docs/protocol.md lays them
// out. A connection opens with a hello from the side that dials and a
// welcome from the side that accepts, with the steps of a login between
// them when the accepting side asks for one; then frames go both ways, each
// a fixed head and a payload. Every number is little-endian.
//
// The readers check everything a peer could get wrong and say what it was,
// so that the connection can be closed with that reason before anything
// reaches a manager.
#pragma once

#include <array>
#include <cstdint>
#include <string>

// "RCRT" as it lies on the wire.
constexpr uint8_t kNetMagic[4] = {'R', 'C', 'R', 'T'};
constexpr uint16_t zvNetVersion = 2;

constexpr size_t kNetHelloSize = 16;
constexpr size_t kNetWelcomeSize = 20;
constexpr size_t kNetFrameHeadSize = 10;
constexpr size_t kNetLoginHeadSize = 3;
// The longest login message either side takes: SCRAM's are a few hundred
// bytes.
constexpr uint16_t kNetMaxLoginData = 4096;
// SASL names its mechanisms in at most 20 characters.
constexpr uint8_t kNetMaxMechanism = 20;
// The longest payload a module sends, its conference word included.
constexpr uint32_t kNetMaxPayload = 65471;

// Frames the host speaks for itself; a module's PDUs are 8001 and up, and
// its kick (257) never leaves the node.
enum : uint16_t
{
    zvNetGoodbye = 1,   // client command link: the user leaves for good
    zvNetReplaced = 2,  // to a client: another login of its user took its place
};

// What a welcome answers.
enum : uint16_t
{
    zvNetAccepted = 0,
    zvNetUnknownVersion = 1,
    zvNetUnknownConference = 2,
    zvNetUnknownUser = 3,
    zvNetWrongKind = 4,
    zvNetUnknownServer = 5,
    zvNetNoCommandLink = 6,
    zvNetLogIn = 7,          // a login is asked for; the welcome's login data is an offer or a challenge
    zvNetLoginRefused = 8,
    zvNetNotThatUser = 9,    // the login proved another user or server than the hello names
};

struct ZV_NetHello
{
    uint16_t usVersion = zvNetVersion;
    uint16_t usKind = 0;   // the conn_type of the link: 0, 4, 0x1000 or 0x1004
    uint32_t ulConfID = 0; // a client link's conference; 0 on a server link
    uint32_t ulWho = 0;    // the user's number, or the dialling server's
};

struct ZV_NetWelcome
{
    uint16_t usVersion = zvNetVersion;
    uint16_t usResult = zvNetAccepted;
    uint32_t ulServerID = 0;  // the answering server
    uint16_t usFileIDMin = 0; // the conference's FileIDs at that server; 0 on a server link
    uint16_t usFileIDMax = 0;
    uint16_t usRole = 0;      // the user's role; 0 on a server link
    uint16_t usLoginLen = 0;  // bytes of login data that follow the welcome
};

// What the dialling side sends in a login: the mechanism it chose (in its
// first message only) and the data of the step.
struct ZV_NetLoginHead
{
    uint8_t bMechanismLen = 0;
    uint16_t usDataLen = 0;
};

struct ZV_NetFrameHead
{
    uint16_t usConfWord = 0;  // low 16 bits of the conference id
    uint16_t usPdu = 0;
    uint8_t bFlag1 = 0;
    uint8_t bFlag2 = 0;
    uint32_t ulLen = 0;       // bytes of payload that follow
};

// Why a peer's bytes were not taken; None when they were.
enum class ZV_NetFault
{
    None,
    BadMagic,
    UnknownVersion,
    UnknownKind,
    TooLong,
    LoginTooLong,
};

std::array<uint8_t, kNetHelloSize> ZV_WriteHello(const ZV_NetHello& hello);
ZV_NetFault ZV_ReadHello(const uint8_t* pData, ZV_NetHello& hello);
std::array<uint8_t, kNetWelcomeSize> ZV_WriteWelcome(const ZV_NetWelcome& welcome);
ZV_NetFault ZV_ReadWelcome(const uint8_t* pData, ZV_NetWelcome& welcome);
std::array<uint8_t, kNetFrameHeadSize> ZV_WriteFrameHead(const ZV_NetFrameHead& head);
ZV_NetFault ZV_ReadFrameHead(const uint8_t* pData, ZV_NetFrameHead& head);
std::array<uint8_t, kNetLoginHeadSize> ZV_WriteLoginHead(const ZV_NetLoginHead& head);
ZV_NetFault ZV_ReadLoginHead(const uint8_t* pData, ZV_NetLoginHead& head);

// Words for a log line.
std::string ZV_NetFaultText(ZV_NetFault eFault);
std::string ZV_NetResultText(uint16_t usResult);
std::string ZV_NetKindText(uint16_t usKind);
