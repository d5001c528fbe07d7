#include "QB_ByteStream.h"

#include <algorithm>
#include <cassert>
#include <cstring>
#include <new>

namespace {

// Lead bytes of the count form by its size in bytes (index 1 to 5), and the
// bits of the value that the lead byte keeps.
const uint8_t kCountLead[6] = {0, 0x00, 0x80, 0xC0, 0xE0, 0xF0};
const uint8_t kCountLeadBits[6] = {0, 0x7F, 0x3F, 0x1F, 0x0F, 0x00};

// Size of the count form that a lead byte starts; 0 for the leads that no
// writer makes (0xF1 to 0xFF).
int32_t CountSizeOfLead(uint8_t bLead)
{
    if (bLead < 0x80)
        return 1;
    if (bLead < 0xC0)
        return 2;
    if (bLead < 0xE0)
        return 3;
    if (bLead < 0xF0)
        return 4;
    return bLead == 0xF0 ? 5 : 0;
}

}  // namespace

// A host may hand over a PDU of length 0 with no bytes behind it, or a
// length that no block backs; such a view is empty, so the first read fails
// as any overrun does instead of tripping an assertion.
void QB_ByteStream::Init(void* pBuf, int32_t lLen, bool bLoad)
{
    m_pBuf = static_cast<uint8_t*>(pBuf);
    m_nPos = 0;
    m_nLen = lLen < 0 || (bLoad && pBuf == nullptr) ? 0 : lLen;
    m_bLoad = bLoad;
}

void QB_ByteStream::Raise() const
{
    throw QB_StreamException{m_bLoad ? QB_STREAM_LOAD_FAILURE : QB_STREAM_SAVE_FAILURE};
}

void QB_ByteStream::Check(int32_t nPos, int32_t nSize) const
{
    if (nPos < 0 || nSize < 0 || (int64_t)nPos + nSize > m_nLen)
        Raise();
}

void QB_ByteStream::Transfer(int32_t nOffset, int32_t nSize, void* pData)
{
    int64_t llPos = (int64_t)m_nPos + nOffset;
    // A target that an i32 can't hold lies outside every view.
    int32_t nPos = llPos > INT32_MAX ? -1 : (int32_t)llPos;
    Check(nPos, nSize);
    m_nPos = nPos + nSize;
    if (pData == nullptr)
        return;
    if (m_bLoad)
        std::memcpy(pData, m_pBuf + nPos, (size_t)nSize);
    else if (m_pBuf != nullptr)
        std::memcpy(m_pBuf + nPos, pData, (size_t)nSize);
}

void QB_ByteStream::ReadBytes(void* pData, int32_t nSize)
{
    if (nSize == 0)
        return;
    assert(m_bLoad && pData);
    Transfer(0, nSize, pData);
}

void QB_ByteStream::WriteBytes(const void* pData, int32_t nSize)
{
    if (nSize == 0)
        return;
    assert(!m_bLoad && pData);
    Transfer(0, nSize, const_cast<void*>(pData));
}

int32_t QB_ByteStream::SeekTo(int32_t nPos)
{
    int32_t nOld = m_nPos;
    // m_nPos is never negative, so only a negative target can fall below
    // the i32 range, and it stays negative when clamped.
    Skip((int32_t)std::max<int64_t>((int64_t)nPos - m_nPos, INT32_MIN));
    return nOld;
}

void QB_ByteStream::ReadNumber(void* pValue, int32_t nSize)
{
    ReadBytes(pValue, nSize);
    if (!g_bLittleEndianHost)
        std::reverse(static_cast<uint8_t*>(pValue), static_cast<uint8_t*>(pValue) + nSize);
}

void QB_ByteStream::WriteNumber(const void* pValue, int32_t nSize)
{
    if (g_bLittleEndianHost)
    {
        WriteBytes(pValue, nSize);
        return;
    }
    uint8_t abWire[8];
    std::memcpy(abWire, pValue, (size_t)nSize);
    std::reverse(abWire, abWire + nSize);
    WriteBytes(abWire, nSize);
}

uint8_t QB_ByteStream::ReadU8()
{
    uint8_t bValue;
    ReadBytes(&bValue, 1);
    return bValue;
}

void QB_ByteStream::WriteU8(uint8_t bValue)
{
    WriteBytes(&bValue, 1);
}

uint16_t QB_ByteStream::ReadU16()
{
    uint16_t usValue;
    ReadNumber(&usValue, sizeof usValue);
    return usValue;
}

void QB_ByteStream::WriteU16(uint16_t usValue)
{
    WriteNumber(&usValue, sizeof usValue);
}

uint32_t QB_ByteStream::ReadU32()
{
    uint32_t ulValue;
    ReadNumber(&ulValue, sizeof ulValue);
    return ulValue;
}

void QB_ByteStream::WriteU32(uint32_t ulValue)
{
    WriteNumber(&ulValue, sizeof ulValue);
}

uint64_t QB_ByteStream::ReadU64()
{
    uint64_t ullValue;
    ReadNumber(&ullValue, sizeof ullValue);
    return ullValue;
}

void QB_ByteStream::WriteU64(uint64_t ullValue)
{
    WriteNumber(&ullValue, sizeof ullValue);
}

int32_t QB_ByteStream::ReadI32()
{
    return (int32_t)ReadU32();
}

void QB_ByteStream::WriteI32(int32_t lValue)
{
    WriteU32((uint32_t)lValue);
}

double QB_ByteStream::ReadDouble()
{
    double dValue;
    ReadNumber(&dValue, sizeof dValue);
    return dValue;
}

void QB_ByteStream::WriteDouble(double dValue)
{
    WriteNumber(&dValue, sizeof dValue);
}

bool QB_ByteStream::ReadBool()
{
    return ReadU8() != 0;
}

void QB_ByteStream::WriteBool(bool bValue)
{
    WriteU8(bValue ? 1 : 0);
}

int32_t QB_ByteStream::GetCountSize(uint32_t ulCount)
{
    if (ulCount < 0x80)
        return 1;
    if (ulCount < 0x4000)
        return 2;
    if (ulCount < 0x200000)
        return 3;
    if (ulCount < 0x10000000)
        return 4;
    return 5;
}

// The form is built whole and written in one piece, so a count that doesn't
// fit leaves no partial bytes behind.
void QB_ByteStream::WriteCount(uint32_t ulCount)
{
    uint8_t abForm[5];
    int32_t nSize = GetCountSize(ulCount);
    for (int32_t i = nSize - 1; i > 0; --i)
    {
        abForm[i] = (uint8_t)ulCount;
        ulCount >>= 8;
    }
    abForm[0] = (uint8_t)(kCountLead[nSize] | ulCount);
    WriteBytes(abForm, nSize);
}

// The lead byte is looked at and given back, so that a form cut short by
// the view fails from the count's start.
uint32_t QB_ByteStream::ReadCount()
{
    uint8_t abForm[5];
    ReadBytes(abForm, 1);
    Skip(-1);
    int32_t nSize = CountSizeOfLead(abForm[0]);
    if (nSize == 0)
        Raise();
    ReadBytes(abForm, nSize);
    uint32_t ulCount = abForm[0] & kCountLeadBits[nSize];
    for (int32_t i = 1; i < nSize; ++i)
        ulCount = (ulCount << 8) | abForm[i];
    return ulCount;
}

int32_t QB_ByteStream::GetStringSize(const QB_StringU8& s)
{
    return GetCountSize((uint32_t)s.GetLength()) + s.GetLength();
}

void QB_ByteStream::WriteString(const QB_StringU8& s)
{
    int32_t nLen = s.GetLength();
    int32_t nForm = GetCountSize((uint32_t)nLen);
    // Checked whole first, so that a string that doesn't fit leaves no count.
    Check(m_nPos, nForm);
    Check(m_nPos + nForm, nLen);
    WriteCount((uint32_t)nLen);
    WriteBytes(s.GetString(), nLen);
}

void QB_ByteStream::ReadString(QB_StringU8& s)
{
    int32_t nStart = m_nPos;
    uint32_t ulLen = ReadCount();
    int32_t nBody = m_nPos;
    // A false length fails here, before any memory is taken, and the stream
    // goes back to the string's start. A length beyond i32 fits no view.
    m_nPos = nStart;
    Check(nBody, ulLen > (uint32_t)INT32_MAX ? -1 : (int32_t)ulLen);
    m_nPos = nBody;
    if (ulLen == 0)
    {
        s.Empty();
        return;
    }
    char* pch = s.GetBuffer((int)ulLen);
    if (pch == nullptr)
    {
        m_nPos = nStart;
        throw std::bad_alloc();
    }
    ReadBytes(pch, (int32_t)ulLen);
    s.ReleaseBuffer((int)ulLen);
}
