// ZV_PduFrame: building a payload and handing it to the host by one of its
// routes.
//
// A payload is written once into a ZV_PduBuffer and may then go to a client
// link, to the group of clients, or to linked servers; the server routes
// need the conference word in front, so the buffer keeps two bytes of room
// ahead of the payload and fills them only for those routes.
#pragma once

#include "IZV_FileShare.h"

#include "QB_ByteStream.h"

#include <cstdint>
#include <cstdio>

class ZV_PduBuffer
{
public:
    ZV_PduBuffer();
    ZV_PduBuffer(const ZV_PduBuffer&) = delete;
    ZV_PduBuffer& operator=(const ZV_PduBuffer&) = delete;

    QB_ByteStream& Stream() { return m_stream; }
    const uint8_t* Payload() const { return m_abData + kConfWordSize; }
    uint32_t PayloadLength() const { return (uint32_t)m_stream.GetPos(); }
    // The payload with the low 16 bits of the conference id in front.
    const uint8_t* WithConfWord(uint32_t ulConfID);
    uint32_t WithConfWordLength() const { return PayloadLength() + kConfWordSize; }

    // A block read from a file straight into the PDU that carries it, with
    // no copy in between: PlaceData saves the block's head and gives where
    // up to ulMax bytes of data go (the stream throws when they would not
    // fit); once block.ulLen says how many are there, SaveAroundData writes
    // the head again with that length, and the tail behind the data.
    template <typename Block>
    uint8_t* PlaceData(const Block& block, uint32_t ulMax)
    {
        m_stream.SeekTo(0);
        block.SaveHead(m_stream);
        const int32_t nAt = m_stream.GetPos();
        m_stream.Skip((int32_t)ulMax);
        m_stream.SeekTo(nAt);
        return m_abData + kConfWordSize + nAt;
    }
    template <typename Block>
    void SaveAroundData(const Block& block)
    {
        m_stream.SeekTo(0);
        block.SaveHead(m_stream);
        m_stream.Skip((int32_t)block.ulLen);
        block.SaveTail(m_stream);
    }

private:
    static constexpr uint32_t kConfWordSize = 2;
    uint8_t m_abData[kConfWordSize + QB_PDU_BUFFER_SIZE];
    QB_ByteStream m_stream;
};

// A load stream over an incoming payload. A null payload reads as empty,
// so a hostile length or pointer meets the stream's own bounds, never an
// assertion.
class ZV_PayloadReader : public QB_ByteStream
{
public:
    explicit ZV_PayloadReader(const ConfPduData* lpCpd);
};

// The send routes. Each returns what the host's send returned. bFlag1 and
// bFlag2 are the host's flags, 1 and 1 unless the PDU calls for others.
uint32_t ZV_SendToLink(IZV_ConfHost* lpConf, uint32_t ulConn, uint16_t usPdu, const ZV_PduBuffer& pdu,
                       uint8_t bFlag1 = 1, uint8_t bFlag2 = 1);
uint32_t ZV_SendToGroup(IZV_ConfHost* lpConf, uint32_t ulSkipConn, uint16_t usPdu, const ZV_PduBuffer& pdu,
                        uint8_t bFlag1 = 1, uint8_t bFlag2 = 1);
// To every linked server. Most floods are skipped when the host has no
// server links; bGuarded false sends regardless. What the host answers is
// of no use to a flood, so nothing is given back.
void ZV_SendToServers(IZV_ConfHost* lpConf, uint32_t ulSkipConn, uint16_t usPdu, ZV_PduBuffer& pdu,
                      uint8_t bFlag1 = 1, uint8_t bFlag2 = 1, bool bGuarded = true);
uint32_t ZV_SendToServerData(IZV_ConfHost* lpConf, uint32_t ulServerMain, uint16_t usPdu, ZV_PduBuffer& pdu,
                             uint8_t bFlag1 = 1, uint8_t bFlag2 = 1);
uint32_t ZV_SendOnServerLink(IZV_ConfHost* lpConf, uint32_t ulConn, uint16_t usPdu, ZV_PduBuffer& pdu,
                             uint8_t bFlag1 = 1, uint8_t bFlag2 = 1);
// A request from a client (sequence 0) gets its flood's number here; true
// when this server meets the flood for the first time and should act on it.
bool ZV_IsNewFlood(IZV_ConfHost* lpConf, const QB_UserID& origin, uint32_t& ulFloodSeq);

// The kick: the empty PDU 257 on a data link, which makes the host call
// OnSend for that link.
uint32_t ZV_SendKick(IZV_ConfHost* lpConf, uint32_t ulConn);

// The trace line a handler prints as it starts: "recv a NAME\r\n", with the
// name of the number's row in the PDU table; a number without one prints
// nothing. It goes to the stream a program that embeds the module names
// here (tests and benchmarks keep their output clean that way), else to the
// file that the environment variable ROOMCRATE_TRACE names (a host's way,
// since this call is not exported), else to standard output. The stream
// named here takes the containers' long-chain warnings too.
void ZV_TraceRecv(uint16_t usPdu);
void ZV_SetTraceStream(std::FILE* lpStream);
