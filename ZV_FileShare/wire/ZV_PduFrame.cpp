#include "wire/ZV_PduFrame.h"
#include "wire/ZV_PduTable.h"

#include "QB_Plex.h"

#include <cstdio>
#include <cstdlib>
#include <string>

ZV_PduBuffer::ZV_PduBuffer() : m_stream(m_abData + kConfWordSize, QB_PDU_BUFFER_SIZE, false)
{
}

namespace {
uint8_t g_abNoPayload[1];

uint8_t* PayloadOf(const ConfPduData* lpCpd)
{
    if (lpCpd == nullptr || lpCpd->pData == nullptr)
        return g_abNoPayload;
    return const_cast<uint8_t*>(lpCpd->pData);
}

int32_t LengthOf(const ConfPduData* lpCpd)
{
    if (lpCpd == nullptr || lpCpd->pData == nullptr)
        return 0;
    return lpCpd->ulLen > 0x7FFFFFFFu ? 0x7FFFFFFF : (int32_t)lpCpd->ulLen;
}
} // namespace

// The stream only reads in load mode; the cast gives it the pointer type it
// shares with save streams.
ZV_PayloadReader::ZV_PayloadReader(const ConfPduData* lpCpd) : QB_ByteStream(PayloadOf(lpCpd), LengthOf(lpCpd), true)
{
}

const uint8_t* ZV_PduBuffer::WithConfWord(uint32_t ulConfID)
{
    m_abData[0] = (uint8_t)(ulConfID & 0xFF);
    m_abData[1] = (uint8_t)((ulConfID >> 8) & 0xFF);
    return m_abData;
}

uint32_t ZV_SendToLink(IZV_ConfHost* lpConf, uint32_t ulConn, uint16_t usPdu, const ZV_PduBuffer& pdu,
                       uint8_t bFlag1, uint8_t bFlag2)
{
    return lpConf->SendPdu(ulConn, usPdu, pdu.Payload(), pdu.PayloadLength(), bFlag1, bFlag2);
}

uint32_t ZV_SendToGroup(IZV_ConfHost* lpConf, uint32_t ulSkipConn, uint16_t usPdu, const ZV_PduBuffer& pdu,
                        uint8_t bFlag1, uint8_t bFlag2)
{
    return lpConf->SendPduToGroup(ulSkipConn, 0, usPdu, pdu.Payload(), pdu.PayloadLength(), bFlag1, bFlag2);
}

void ZV_SendToServers(IZV_ConfHost* lpConf, uint32_t ulSkipConn, uint16_t usPdu, ZV_PduBuffer& pdu,
                      uint8_t bFlag1, uint8_t bFlag2, bool bGuarded)
{
    if (bGuarded && !lpConf->HasServerLinks())
        return;
    const uint8_t* pData = pdu.WithConfWord(lpConf->GetConfID());
    lpConf->SendPduToServers(ulSkipConn, zvConfServerTypeCommand, usPdu, pData, pdu.WithConfWordLength(), bFlag1,
                             bFlag2);
}

uint32_t ZV_SendToServerData(IZV_ConfHost* lpConf, uint32_t ulServerMain, uint16_t usPdu, ZV_PduBuffer& pdu,
                             uint8_t bFlag1, uint8_t bFlag2)
{
    const uint8_t* pData = pdu.WithConfWord(lpConf->GetConfID());
    return lpConf->SendPduToServerData(ulServerMain, zvConfServerTypeData, usPdu, pData, pdu.WithConfWordLength(),
                                       bFlag1, bFlag2);
}

uint32_t ZV_SendOnServerLink(IZV_ConfHost* lpConf, uint32_t ulConn, uint16_t usPdu, ZV_PduBuffer& pdu,
                             uint8_t bFlag1, uint8_t bFlag2)
{
    const uint8_t* pData = pdu.WithConfWord(lpConf->GetConfID());
    return lpConf->SendPduOnLink(ulConn, usPdu, pData, pdu.WithConfWordLength(), bFlag1, bFlag2);
}

uint32_t ZV_SendKick(IZV_ConfHost* lpConf, uint32_t ulConn)
{
    return lpConf->SendPdu(ulConn, PDU_CONF_FS_KICK, nullptr, 0, 0, 0);
}

namespace {
std::FILE* g_lpTraceStream = nullptr;

// A host without a stream of its own to give names a file instead, in the
// environment; read at each line, as ROOMCRATE_HOME is read at each call.
constexpr const char* kTraceFileVariable = "ROOMCRATE_TRACE";

// Opened and closed for each line: trace lines are few (no data block has
// one), and nothing stays open that the host may want to move or delete.
// A file that cannot be opened loses no line: it goes where it would have
// gone without the variable.
bool AppendToTraceFile(const char* pszLine)
{
    const char* pszFile = std::getenv(kTraceFileVariable);
    if (pszFile == nullptr || *pszFile == '\0')
        return false;
    std::FILE* lpFile = std::fopen(pszFile, "ab");
    if (lpFile == nullptr)
        return false;
    std::fputs(pszLine, lpFile);
    std::fclose(lpFile);
    return true;
}
} // namespace

void ZV_SetTraceStream(std::FILE* lpStream)
{
    g_lpTraceStream = lpStream;
    // The containers' long-chain warnings are trace of the same kind.
    QB_SetHashWarningStream(lpStream);
}

void ZV_TraceRecv(uint16_t usPdu)
{
    const ZV_PduRow* lpRow = ZV_FindPduRow(usPdu);
    if (lpRow == nullptr)
        return;
    const char* pszPduName = lpRow->pszName;
    if (g_lpTraceStream != nullptr)
    {
        std::fprintf(g_lpTraceStream, "recv a %s\r\n", pszPduName);
        return;
    }
    const std::string sLine = std::string("recv a ") + pszPduName + "\r\n";
    if (!AppendToTraceFile(sLine.c_str()))
        std::fputs(sLine.c_str(), stdout);
}

bool ZV_IsNewFlood(IZV_ConfHost* lpConf, const QB_UserID& origin, uint32_t& ulFloodSeq)
{
    if (ulFloodSeq == 0)
        ulFloodSeq = lpConf->NewFloodSeq(&origin, 0);
    return !lpConf->IsFloodSeen(&origin, ulFloodSeq);
}
