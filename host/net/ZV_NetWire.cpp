#include "ZV_NetWire.h"

#include "IZV_FileShare.h"

#include <cstring>

namespace {

void Put16(uint8_t* p, uint16_t us)
{
    p[0] = (uint8_t)us;
    p[1] = (uint8_t)(us >> 8);
}

void Put32(uint8_t* p, uint32_t ul)
{
    for (int i = 0; i < 4; ++i)
        p[i] = (uint8_t)(ul >> (8 * i));
}

uint16_t Get16(const uint8_t* p)
{
    return (uint16_t)(p[0] | p[1] << 8);
}

uint32_t Get32(const uint8_t* p)
{
    return p[0] | p[1] << 8 | p[2] << 16 | (uint32_t)p[3] << 24;
}

bool IsLinkKind(uint16_t usKind)
{
    return usKind == zvConfClientTypeCommand || usKind == zvConfClientTypeData || usKind == zvConfServerTypeCommand ||
           usKind == zvConfServerTypeData;
}

// Both openings start with the magic and the version; a peer of another
// version is told so in its own terms, whatever follows.
ZV_NetFault ReadOpening(const uint8_t* pData, uint16_t& usVersion)
{
    if (std::memcmp(pData, kNetMagic, sizeof kNetMagic) != 0)
        return ZV_NetFault::BadMagic;
    usVersion = Get16(pData + 4);
    return usVersion == zvNetVersion ? ZV_NetFault::None : ZV_NetFault::UnknownVersion;
}

}  // namespace

std::array<uint8_t, kNetHelloSize> ZV_WriteHello(const ZV_NetHello& hello)
{
    std::array<uint8_t, kNetHelloSize> ab{};
    std::memcpy(ab.data(), kNetMagic, sizeof kNetMagic);
    Put16(&ab[4], hello.usVersion);
    Put16(&ab[6], hello.usKind);
    Put32(&ab[8], hello.ulConfID);
    Put32(&ab[12], hello.ulWho);
    return ab;
}

ZV_NetFault ZV_ReadHello(const uint8_t* pData, ZV_NetHello& hello)
{
    ZV_NetFault eFault = ReadOpening(pData, hello.usVersion);
    if (eFault != ZV_NetFault::None)
        return eFault;
    hello.usKind = Get16(pData + 6);
    hello.ulConfID = Get32(pData + 8);
    hello.ulWho = Get32(pData + 12);
    return IsLinkKind(hello.usKind) ? ZV_NetFault::None : ZV_NetFault::UnknownKind;
}

std::array<uint8_t, kNetWelcomeSize> ZV_WriteWelcome(const ZV_NetWelcome& welcome)
{
    std::array<uint8_t, kNetWelcomeSize> ab{};
    std::memcpy(ab.data(), kNetMagic, sizeof kNetMagic);
    Put16(&ab[4], welcome.usVersion);
    Put16(&ab[6], welcome.usResult);
    Put32(&ab[8], welcome.ulServerID);
    Put16(&ab[12], welcome.usFileIDMin);
    Put16(&ab[14], welcome.usFileIDMax);
    Put16(&ab[16], welcome.usRole);
    Put16(&ab[18], welcome.usLoginLen);
    return ab;
}

ZV_NetFault ZV_ReadWelcome(const uint8_t* pData, ZV_NetWelcome& welcome)
{
    ZV_NetFault eFault = ReadOpening(pData, welcome.usVersion);
    if (eFault != ZV_NetFault::None)
        return eFault;
    welcome.usResult = Get16(pData + 6);
    welcome.ulServerID = Get32(pData + 8);
    welcome.usFileIDMin = Get16(pData + 12);
    welcome.usFileIDMax = Get16(pData + 14);
    welcome.usRole = Get16(pData + 16);
    welcome.usLoginLen = Get16(pData + 18);
    return welcome.usLoginLen > kNetMaxLoginData ? ZV_NetFault::LoginTooLong : ZV_NetFault::None;
}

std::array<uint8_t, kNetFrameHeadSize> ZV_WriteFrameHead(const ZV_NetFrameHead& head)
{
    std::array<uint8_t, kNetFrameHeadSize> ab{};
    Put16(&ab[0], head.usConfWord);
    Put16(&ab[2], head.usPdu);
    ab[4] = head.bFlag1;
    ab[5] = head.bFlag2;
    Put32(&ab[6], head.ulLen);
    return ab;
}

ZV_NetFault ZV_ReadFrameHead(const uint8_t* pData, ZV_NetFrameHead& head)
{
    head.usConfWord = Get16(pData);
    head.usPdu = Get16(pData + 2);
    head.bFlag1 = pData[4];
    head.bFlag2 = pData[5];
    head.ulLen = Get32(pData + 6);
    return head.ulLen > kNetMaxPayload ? ZV_NetFault::TooLong : ZV_NetFault::None;
}

std::array<uint8_t, kNetLoginHeadSize> ZV_WriteLoginHead(const ZV_NetLoginHead& head)
{
    std::array<uint8_t, kNetLoginHeadSize> ab{};
    ab[0] = head.bMechanismLen;
    Put16(&ab[1], head.usDataLen);
    return ab;
}

ZV_NetFault ZV_ReadLoginHead(const uint8_t* pData, ZV_NetLoginHead& head)
{
    head.bMechanismLen = pData[0];
    head.usDataLen = Get16(pData + 1);
    return head.bMechanismLen > kNetMaxMechanism || head.usDataLen > kNetMaxLoginData ? ZV_NetFault::LoginTooLong
                                                                                      : ZV_NetFault::None;
}

std::string ZV_NetFaultText(ZV_NetFault eFault)
{
    switch (eFault)
    {
    case ZV_NetFault::None: return "no fault";
    case ZV_NetFault::BadMagic: return "it does not begin with \"RCRT\"";
    case ZV_NetFault::UnknownVersion: return "its protocol version is unknown";
    case ZV_NetFault::UnknownKind: return "it names no kind of link";
    case ZV_NetFault::TooLong: return "its payload would be longer than 65471 bytes";
    case ZV_NetFault::LoginTooLong: return "its login message would be longer than a login's";
    }
    return "unknown fault";
}

std::string ZV_NetResultText(uint16_t usResult)
{
    switch (usResult)
    {
    case zvNetAccepted: return "accepted";
    case zvNetUnknownVersion: return "unknown protocol version";
    case zvNetUnknownConference: return "conference not hosted here";
    case zvNetUnknownUser: return "user not homed here in that conference";
    case zvNetWrongKind: return "wrong kind of link";
    case zvNetUnknownServer: return "server not a peer that dials here";
    case zvNetNoCommandLink: return "a data link before the command link";
    case zvNetLogIn: return "a login is asked for";
    case zvNetLoginRefused: return "login refused";
    case zvNetNotThatUser: return "the login is not the one the hello names";
    }
    return "refused (" + std::to_string(usResult) + ")";
}

std::string ZV_NetKindText(uint16_t usKind)
{
    switch (usKind)
    {
    case zvConfClientTypeCommand: return "client command";
    case zvConfClientTypeData: return "client data";
    case zvConfServerTypeCommand: return "server command";
    case zvConfServerTypeData: return "server data";
    }
    return "kind " + std::to_string(usKind);
}
