// QB_ByteStream: the codec of every PDU payload and every record.
//
// A stream is a view over a block that somebody else owns: a position, a
// limit and a direction fixed when it is attached. It never allocates and
// never grows the block. Reading or writing outside the view raises
// QB_StreamException, so a handler can parse a payload straight through and
// leave truncated or malformed input to the one catch at its top. A failed
// operation leaves the position where it started.
//
// Numbers travel little-endian; lengths and element counts in the count form
// (one to five bytes, big-endian behind the lead byte); strings as a count
// and their UTF-8 bytes, without a terminator.
#pragma once

#include "QB_ByteStreamBase.h"
#include "QB_String.h"

#include <bit>
#include <cstdint>

constexpr uint32_t QB_STREAM_LOAD_FAILURE = 0x81000001u;
constexpr uint32_t QB_STREAM_SAVE_FAILURE = 0x81000002u;

// The payload buffer that every sender sets aside, and so the length of a
// save stream over a PDU.
constexpr int32_t QB_PDU_BUFFER_SIZE = 65471;

// 1 when memory order is little-endian, as the wire's; numbers are then
// copied unchanged, otherwise byte-reversed.
inline constexpr uint8_t g_bLittleEndianHost = std::endian::native == std::endian::little ? 1 : 0;

struct QB_StreamException
{
    uint32_t m_ulCode;
};

class QB_ByteStream : public QB_ByteStreamBase
{
public:
    // A load stream over bytes the caller only lends for reading (a received
    // payload); the stream never writes to them.
    QB_ByteStream(const void* pBuf, int32_t lLen) { Init(const_cast<void*>(pBuf), lLen, true); }
    // A save stream may have no block: it then only counts the bytes.
    QB_ByteStream(void* pBuf, int32_t lLen, bool bLoad) { Init(pBuf, lLen, bLoad); }
    ~QB_ByteStream() override = default;

    void Init(void* pBuf, int32_t lLen, bool bLoad) override;
    uint8_t* GetBuffer() override { return m_pBuf; }
    void Check(int32_t nPos, int32_t nSize) const override;
    void Transfer(int32_t nOffset, int32_t nSize, void* pData) override;

    void ReadBytes(void* pData, int32_t nSize);
    void WriteBytes(const void* pData, int32_t nSize);
    void Skip(int32_t nOffset) { Transfer(nOffset, 0, nullptr); }
    // Gives back the position it left.
    int32_t SeekTo(int32_t nPos);
    int32_t GetPos() const { return m_nPos; }
    int32_t GetLength() const { return m_nLen; }
    // Lowers the limit for a delimited record, or restores one that
    // GetLength gave. The caller checks a lowered limit against the view
    // first: the stream can't tell a restore from a widening.
    void SetLength(int32_t nLen) { m_nLen = nLen; }
    bool IsLoading() const { return m_bLoad; }

    uint8_t ReadU8();
    void WriteU8(uint8_t bValue);
    uint16_t ReadU16();
    void WriteU16(uint16_t usValue);
    uint32_t ReadU32();
    void WriteU32(uint32_t ulValue);
    uint64_t ReadU64();
    void WriteU64(uint64_t ullValue);
    int32_t ReadI32();
    void WriteI32(int32_t lValue);
    double ReadDouble();
    void WriteDouble(double dValue);
    // Written as 0 or 1; any non-zero byte reads as true.
    bool ReadBool();
    void WriteBool(bool bValue);

    uint32_t ReadCount();
    void WriteCount(uint32_t ulCount);
    static int32_t GetCountSize(uint32_t ulCount);

    // On a failure the string keeps its old value.
    void ReadString(QB_StringU8& s);
    void WriteString(const QB_StringU8& s);
    static int32_t GetStringSize(const QB_StringU8& s);

protected:
    uint8_t* m_pBuf;
    int32_t m_nPos;
    int32_t m_nLen;
    bool m_bLoad;

private:
    [[noreturn]] void Raise() const;
    void ReadNumber(void* pValue, int32_t nSize);
    void WriteNumber(const void* pValue, int32_t nSize);
};
