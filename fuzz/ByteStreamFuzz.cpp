// The byte stream in both directions, driven by the input: a block, then a
// run of reads (or writes) of every kind. Each is set against the wire's
// rules worked out here from the bytes themselves: numbers little-endian,
// the count form big-endian behind its lead byte, strings as a count and
// their bytes. A refusal must be the failure of the stream's direction and
// leave the position, a string being read and the block as they were.
#include "ZV_FuzzCheck.h"

#include "QB_ByteStream.h"
#include "QB_UserID.h"

#include "ZV_FuzzInput.h"

#include <cstring>
#include <functional>
#include <memory>
#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;

uint64_t LittleEndian(const uint8_t* p, int nSize)
{
    uint64_t ull = 0;
    for (int i = nSize - 1; i >= 0; --i)
        ull = (ull << 8) | p[i];
    return ull;
}

// The count form as a reader takes it: by the lead byte. False where the
// form raises or runs past the end.
bool DecodeCount(const uint8_t* p, int32_t nAvail, uint32_t* pulValue, int32_t* pnUsed)
{
    if (nAvail < 1 || p[0] > 0xF0)
        return false;
    static const uint8_t kLeadMask[] = {0x7F, 0x3F, 0x1F, 0x0F, 0x00};
    const int nMore = p[0] < 0x80 ? 0 : p[0] < 0xC0 ? 1 : p[0] < 0xE0 ? 2 : p[0] < 0xF0 ? 3 : 4;
    if (nAvail < 1 + nMore)
        return false;
    uint64_t ull = p[0] & kLeadMask[nMore];
    for (int i = 1; i <= nMore; ++i)
        ull = (ull << 8) | p[i];
    *pulValue = (uint32_t)ull;
    *pnUsed = 1 + nMore;
    return true;
}

// The shortest count form, as a writer must use it.
Bytes EncodeCount(uint32_t ul)
{
    if (ul < 0x80)
        return {(uint8_t)ul};
    if (ul < 0x4000)
        return {(uint8_t)(0x80 | (ul >> 8)), (uint8_t)ul};
    if (ul < 0x200000)
        return {(uint8_t)(0xC0 | (ul >> 16)), (uint8_t)(ul >> 8), (uint8_t)ul};
    if (ul < 0x10000000)
        return {(uint8_t)(0xE0 | (ul >> 24)), (uint8_t)(ul >> 16), (uint8_t)(ul >> 8), (uint8_t)ul};
    return {0xF0, (uint8_t)(ul >> 24), (uint8_t)(ul >> 16), (uint8_t)(ul >> 8), (uint8_t)ul};
}

// Runs one operation that the model says fits or not. A refusal must be
// the given failure, with the position where it was.
template <typename Fn>
void Expect(QB_ByteStream& s, bool bFits, uint32_t ulFailure, Fn fnOp)
{
    const int32_t nBefore = s.GetPos();
    try
    {
        fnOp();
    }
    catch (const QB_StreamException& e)
    {
        FUZZ_CHECK(!bFits, "refused an operation that fits at %d of %d", nBefore, s.GetLength());
        FUZZ_CHECK(e.m_ulCode == ulFailure, "raised 0x%08X", e.m_ulCode);
        FUZZ_CHECK(s.GetPos() == nBefore, "moved from %d to %d on a refusal", nBefore, s.GetPos());
        return;
    }
    FUZZ_CHECK(bFits, "took an operation that does not fit at %d of %d", nBefore, s.GetLength());
}

void FuzzLoad(ZV_FuzzReader& in, size_t nBlock)
{
    const Bytes vbBlock = in.Bytes(nBlock);
    const int32_t nLen = (int32_t)vbBlock.size();
    // Exactly the block on the heap, so that the sanitizer sees any read past it.
    std::unique_ptr<uint8_t[]> lpBlock(new uint8_t[vbBlock.size()]);
    std::copy(vbBlock.begin(), vbBlock.end(), lpBlock.get());
    QB_ByteStream s(lpBlock.get(), nLen);
    while (in.Left() > 0)
    {
        const int32_t nPos = s.GetPos();
        const uint8_t* p = lpBlock.get() + nPos;
        const int32_t nAvail = nLen - nPos;
        const int nOp = in.Range(0, 9);
        if (nOp <= 3)
        {
            const int nSize = 1 << nOp;
            Expect(s, nAvail >= nSize, QB_STREAM_LOAD_FAILURE, [&] {
                const uint64_t ull = nSize == 1 ? s.ReadU8() : nSize == 2 ? s.ReadU16() : nSize == 4 ? s.ReadU32() : s.ReadU64();
                FUZZ_CHECK(ull == LittleEndian(p, nSize), "a number of %d bytes read as %llx", nSize, (unsigned long long)ull);
            });
        }
        else if (nOp == 4)
        {
            Expect(s, nAvail >= 8, QB_STREAM_LOAD_FAILURE, [&] {
                const double d = s.ReadDouble();
                FUZZ_CHECK(std::memcmp(&d, p, 8) == 0 || !g_bLittleEndianHost, "a double changed its bits");
            });
        }
        else if (nOp == 5)
        {
            Expect(s, nAvail >= 1, QB_STREAM_LOAD_FAILURE,
                   [&] { FUZZ_CHECK(s.ReadBool() == (p[0] != 0), "a bool read wrong"); });
        }
        else if (nOp == 6)
        {
            uint32_t ulCount = 0;
            int32_t nUsed = 0;
            const bool bFits = DecodeCount(p, nAvail, &ulCount, &nUsed);
            Expect(s, bFits, QB_STREAM_LOAD_FAILURE, [&] {
                FUZZ_CHECK(s.ReadCount() == ulCount, "the count form read wrong");
                FUZZ_CHECK(s.GetPos() == nPos + nUsed, "the count form took %d bytes", s.GetPos() - nPos);
            });
        }
        else if (nOp == 7)
        {
            uint32_t ulCount = 0;
            int32_t nUsed = 0;
            const bool bFits = DecodeCount(p, nAvail, &ulCount, &nUsed) && ulCount <= (uint32_t)(nAvail - nUsed);
            QB_StringU8 str("kept");
            Expect(s, bFits, QB_STREAM_LOAD_FAILURE, [&] {
                s.ReadString(str);
                FUZZ_CHECK(str.GetLength() == (int)ulCount && std::memcmp(str.GetString(), p + nUsed, ulCount) == 0,
                           "a string of %u bytes read wrong", ulCount);
                FUZZ_CHECK(str.GetString()[ulCount] == 0, "a string read without its terminator");
            });
            FUZZ_CHECK(bFits || str == "kept", "a refused string changed its target");
        }
        else if (nOp == 8)
        {
            const int32_t nTo = in.Range<int32_t>(-4, nLen + 4);
            Expect(s, nTo >= 0 && nTo <= nLen, QB_STREAM_LOAD_FAILURE,
                   [&] { FUZZ_CHECK(s.SeekTo(nTo) == nPos && s.GetPos() == nTo, "a seek went wrong"); });
        }
        else
        {
            Expect(s, nAvail >= 8, QB_STREAM_LOAD_FAILURE, [&] {
                QB_UserID id;
                id.Load(s);
                FUZZ_CHECK(id == QB_UserID((uint32_t)LittleEndian(p, 4), (uint32_t)LittleEndian(p + 4, 4)),
                           "a user identifier read wrong");
            });
        }
        FUZZ_CHECK(s.GetPos() >= 0 && s.GetPos() <= nLen, "the position left the view");
    }
}

// Writes into a block of the given size with guard bytes behind it; the
// model is the block as it must look.
void FuzzSave(ZV_FuzzReader& in, size_t nBlock)
{
    const int32_t nLen = (int32_t)nBlock;
    const uint8_t kFill = 0xA5;
    Bytes vbModel(nBlock, kFill);
    std::unique_ptr<uint8_t[]> lpBlock(new uint8_t[nBlock + 8]);
    std::memset(lpBlock.get(), kFill, nBlock + 8);
    const bool bCounting = in.Range(0, 7) == 0;
    QB_ByteStream s(bCounting ? nullptr : lpBlock.get(), nLen, false);
    while (in.Left() > 0)
    {
        const int32_t nPos = s.GetPos();
        const int nOp = in.Range(0, 7);
        Bytes vbExpected;
        std::function<void()> fnWrite;
        if (nOp <= 3)
        {
            const int nSize = 1 << nOp;
            const uint64_t ull = in.Int<uint64_t>();
            for (int i = 0; i < nSize; ++i)
                vbExpected.push_back((uint8_t)(ull >> (8 * i)));
            fnWrite = [&, nSize, ull] {
                nSize == 1 ? s.WriteU8((uint8_t)ull) : nSize == 2 ? s.WriteU16((uint16_t)ull)
                                                 : nSize == 4 ? s.WriteU32((uint32_t)ull) : s.WriteU64(ull);
            };
        }
        else if (nOp == 4)
        {
            const uint8_t b = in.Int<uint8_t>();
            vbExpected.push_back(b != 0 ? 1 : 0);
            fnWrite = [&, b] { s.WriteBool(b != 0); };
        }
        else if (nOp == 5)
        {
            const uint32_t ul = in.Int<uint32_t>() >> in.Range(0, 31);
            vbExpected = EncodeCount(ul);
            FUZZ_CHECK(QB_ByteStream::GetCountSize(ul) == (int32_t)vbExpected.size(), "the count size of %u", ul);
            fnWrite = [&, ul] { s.WriteCount(ul); };
        }
        else if (nOp == 6)
        {
            const std::string sText = in.Text(40);
            const QB_StringU8 str(sText.data(), (int)sText.size());
            vbExpected = EncodeCount((uint32_t)sText.size());
            vbExpected.insert(vbExpected.end(), sText.begin(), sText.end());
            FUZZ_CHECK(QB_ByteStream::GetStringSize(str) == (int32_t)vbExpected.size(), "the string size");
            fnWrite = [&, str] { s.WriteString(str); };
        }
        else
        {
            const int32_t nTo = in.Range<int32_t>(-4, nLen + 4);
            Expect(s, nTo >= 0 && nTo <= nLen, QB_STREAM_SAVE_FAILURE, [&] { s.SeekTo(nTo); });
            continue;
        }
        const bool bFits = nPos + (int32_t)vbExpected.size() <= nLen;
        Expect(s, bFits, QB_STREAM_SAVE_FAILURE, [&] {
            fnWrite();
            FUZZ_CHECK(s.GetPos() == nPos + (int32_t)vbExpected.size(), "a write moved by %d", s.GetPos() - nPos);
        });
        if (bFits && !bCounting)
            std::copy(vbExpected.begin(), vbExpected.end(), vbModel.begin() + nPos);
    }
    FUZZ_CHECK(std::equal(vbModel.begin(), vbModel.end(), lpBlock.get()), "the block differs from what was written");
    for (size_t i = nBlock; i < nBlock + 8; ++i)
        FUZZ_CHECK(lpBlock[i] == kFill, "a byte behind the block was written");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t nSize)
{
    ZV_FuzzReader in(pData, nSize);
    const bool bSave = in.Bool();
    const size_t nBlock = in.Range<size_t>(0, 80);
    bSave ? FuzzSave(in, nBlock) : FuzzLoad(in, nBlock);
    return 0;
}
