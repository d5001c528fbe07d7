#include "QB_ByteStream.h"
#include "QB_TestSupport.h"
#include "QB_UserID.h"

#include <gtest/gtest.h>

#include <functional>
#include <tuple>
#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;

// The code of the stream failure that fn raises; 0 when it raises none.
uint32_t FailureOf(const std::function<void()>& fn)
{
    try { fn(); } catch (const QB_StreamException& e) { return e.m_ulCode; }
    return 0;
}

// The failure a call on the stream raises, and where the stream then stands.
using Outcome = std::pair<uint32_t, int32_t>;
Outcome OutcomeOf(const QB_ByteStream& stream, const std::function<void()>& fn) { return {FailureOf(fn), stream.GetPos()}; }

}  // namespace

// Rows with bShortest write their form; the others are longer forms read only.
TEST(ByteStream, WritesEachCountInItsShortestFormAndReadsLongerFormsToo)
{
    const struct { uint32_t ulValue; Bytes vbForm; bool bShortest; } kCounts[] = {
        {0, {0x00}, true}, {0x7F, {0x7F}, true}, {0x80, {0x80, 0x80}, true}, {300, {0x81, 0x2C}, true},
        {0x3FFF, {0xBF, 0xFF}, true}, {0x4000, {0xC0, 0x40, 0x00}, true}, {0x1FFFFF, {0xDF, 0xFF, 0xFF}, true},
        {0x200000, {0xE0, 0x20, 0x00, 0x00}, true}, {0xFFFFFFF, {0xEF, 0xFF, 0xFF, 0xFF}, true},
        {0x10000000, {0xF0, 0x10, 0x00, 0x00, 0x00}, true}, {0xFFFFFFFF, {0xF0, 0xFF, 0xFF, 0xFF, 0xFF}, true},
        {5, {0x80, 0x05}, false}, {5, {0xC0, 0x00, 0x05}, false}, {0x7F, {0xF0, 0x00, 0x00, 0x00, 0x7F}, false},
    };
    for (const auto& c : kCounts)
    {
        SCOPED_TRACE(QB_ToHex(c.vbForm));
        const int32_t nSize = (int32_t)c.vbForm.size();
        if (c.bShortest)
        {
            EXPECT_EQ(QB_ByteStream::GetCountSize(c.ulValue), nSize);
            Bytes vbBuf(nSize + 1, 0xEE);
            QB_ByteStream save(vbBuf.data(), nSize, false);
            save.WriteCount(c.ulValue);
            EXPECT_EQ(vbBuf, [&] { Bytes vb = c.vbForm; vb.push_back(0xEE); return vb; }());
            EXPECT_EQ(save.GetPos(), nSize);
        }
        QB_ByteStream load(c.vbForm.data(), nSize);
        EXPECT_EQ(OutcomeOf(load, [&] { EXPECT_EQ(load.ReadCount(), c.ulValue); }), Outcome(0, nSize));
        // Every cut of the form fails from the count's start, here behind a byte already read.
        for (int32_t nCut = 0; nCut < nSize; ++nCut)
        {
            Bytes vbCut(c.vbForm.begin(), c.vbForm.begin() + nCut);
            vbCut.insert(vbCut.begin(), 0x55);
            QB_ByteStream cut(vbCut.data(), (int32_t)vbCut.size());
            cut.ReadU8();
            EXPECT_EQ(OutcomeOf(cut, [&] { cut.ReadCount(); }), Outcome(QB_STREAM_LOAD_FAILURE, 1)) << "cut at " << nCut;
        }
    }
    for (int nLead = 0xF1; nLead <= 0xFF; ++nLead)
    {
        const uint8_t abForm[] = {(uint8_t)nLead, 0, 0, 0, 1, 0, 0, 0, 0};
        QB_ByteStream load(abForm, sizeof abForm);
        EXPECT_EQ(OutcomeOf(load, [&] { load.ReadCount(); }), Outcome(QB_STREAM_LOAD_FAILURE, 0)) << nLead;
    }
}

TEST(ByteStream, WritesNumbersLittleEndianAndReadsThemBack)
{
    const Bytes vbExpected = {
        0xAB, 0x34, 0x12, 0xEF, 0xCD, 0xAB, 0x89,        // u8, u16 0x1234, u32 0x89ABCDEF
        0x08, 0x07, 0x06, 0x05, 0x04, 0x03, 0x02, 0x01,  // u64
        0xFE, 0xFF, 0xFF, 0xFF,                          // i32 -2
        0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0xF8, 0xBF,  // f64 -1.5
        0x01, 0x00,                                      // true, false
        0x04, 0x03, 0x02, 0x01, 0x0D, 0x0C, 0x0B, 0x0A,  // a user ID: main, then sub
    };
    Bytes vbBuf(vbExpected.size());
    QB_ByteStream save(vbBuf.data(), (int32_t)vbBuf.size(), false);
    save.WriteU8(0xAB), save.WriteU16(0x1234), save.WriteU32(0x89ABCDEF), save.WriteU64(0x0102030405060708ull);
    save.WriteI32(-2), save.WriteDouble(-1.5), save.WriteBool(true), save.WriteBool(false);
    QB_UserID(0x01020304, 0x0A0B0C0D).Save(save);
    EXPECT_EQ(vbBuf, vbExpected);
    QB_ByteStream load(vbExpected.data(), (int32_t)vbExpected.size());
    using Read = std::tuple<uint8_t, uint16_t, uint32_t, uint64_t, int32_t, double, bool, bool>;  // braces read in order
    EXPECT_EQ((Read{load.ReadU8(), load.ReadU16(), load.ReadU32(), load.ReadU64(), load.ReadI32(), load.ReadDouble(),
                    load.ReadBool(), load.ReadBool()}), (Read{0xAB, 0x1234, 0x89ABCDEF, 0x0102030405060708ull, -2, -1.5, true, false}));
    QB_UserID id;
    EXPECT_EQ((id.Load(load), id), QB_UserID(0x01020304, 0x0A0B0C0D));
    EXPECT_EQ(load.GetPos(), load.GetLength());
    const uint8_t bTwo = 2;
    EXPECT_TRUE(QB_ByteStream(&bTwo, 1).ReadBool()) << "any byte but 0 reads as true";
}

// A length beyond the view is refused before any memory is taken for it.
TEST(ByteStream, WritesStringsAsCountAndBytesAndRefusesALengthBeyondTheView)
{
    const struct { QB_StringU8 s; Bytes vbForm; } kStrings[] = {
        {"", {0x00}}, {"abc", {0x03, 'a', 'b', 'c'}}, {QB_StringU8("a\0b", 3), {0x03, 'a', 0x00, 'b'}},
        {"\xC3\xA9", {0x02, 0xC3, 0xA9}},
    };
    for (const auto& c : kStrings)
    {
        Bytes vbBuf(c.vbForm.size());
        QB_ByteStream save(vbBuf.data(), (int32_t)vbBuf.size(), false);
        save.WriteString(c.s);
        EXPECT_EQ(vbBuf, c.vbForm);
        EXPECT_EQ(QB_ByteStream::GetStringSize(c.s), (int32_t)c.vbForm.size());
        QB_StringU8 sOther("old");
        QB_StringU8 sRead(sOther);
        QB_ByteStream load(c.vbForm.data(), (int32_t)c.vbForm.size());
        load.ReadString(sRead);
        EXPECT_EQ(sRead, c.s);
        EXPECT_EQ(sRead.GetLength(), c.s.GetLength());
        EXPECT_EQ(sOther, "old") << "reading wrote into a shared buffer";
    }
    const Bytes kForms[] = {{0x05, 'a', 'b', 'c', 'd'}, {0xF0, 0x7F, 0xFF, 0xFF, 0xFF, 'a'}, {0xF0, 0xFF, 0xFF, 0xFF, 0xFF, 'a'}};
    for (const Bytes& vbForm : kForms)
    {
        QB_StringU8 s("keep");
        const char* pchBefore = s.GetString();
        QB_ByteStream load(vbForm.data(), (int32_t)vbForm.size());
        EXPECT_EQ(OutcomeOf(load, [&] { load.ReadString(s); }), Outcome(QB_STREAM_LOAD_FAILURE, 0));
        EXPECT_TRUE(s.GetString() == pchBefore && s == "keep");
    }
}

// Each write needs one byte more than the view has.
TEST(ByteStream, LeavesBlockAndPositionAloneWhenAWriteDoesNotFit)
{
    const std::pair<int32_t, std::function<void(QB_ByteStream&)>> kWrites[] = {
        {2, [](QB_ByteStream& s) { s.WriteU16(1); }}, {8, [](QB_ByteStream& s) { s.WriteU64(1); }},
        {3, [](QB_ByteStream& s) { s.WriteCount(0x4000); }}, {5, [](QB_ByteStream& s) { s.WriteString("abcd"); }},
    };
    for (const auto& [nNeeds, fnWrite] : kWrites)
    {
        Bytes vbBuf(nNeeds + 1, 0xEE);
        QB_ByteStream save(vbBuf.data(), nNeeds, false);
        save.WriteU8(0);
        EXPECT_EQ(OutcomeOf(save, [&] { fnWrite(save); }), Outcome(QB_STREAM_SAVE_FAILURE, 1)) << nNeeds;
        EXPECT_EQ(Bytes(vbBuf.begin() + 1, vbBuf.end()), Bytes(nNeeds, 0xEE));
    }
}

// A record's reader lowers the limit, skips back and seeks; past either end
// each fails in place with its direction's failure.
TEST(ByteStream, SkipsSeeksAndReadsOnlyWithinItsLimit)
{
    const uint8_t abData[6] = {1, 0, 0, 0, 9, 9};
    QB_ByteStream load(abData, 6);
    load.SetLength(4);
    EXPECT_EQ(load.ReadU32(), 1u);
    EXPECT_EQ(FailureOf([&] { load.ReadU8(); }), QB_STREAM_LOAD_FAILURE);
    EXPECT_EQ(FailureOf([&] { load.SeekTo(5); }), QB_STREAM_LOAD_FAILURE);
    load.SetLength(6);
    EXPECT_EQ(load.SeekTo(1), 4);
    load.Skip(-1);
    EXPECT_EQ(FailureOf([&] { load.Skip(-1); }), QB_STREAM_LOAD_FAILURE);
    EXPECT_EQ(FailureOf([&] { load.Skip(INT32_MAX); }), QB_STREAM_LOAD_FAILURE);
    EXPECT_EQ(load.GetPos(), 0);
    uint8_t abBuf[4] = {};
    QB_ByteStream save(abBuf, 4, false);
    EXPECT_EQ(save.SeekTo(4), 0);
    EXPECT_EQ(FailureOf([&] { save.Skip(1); }), QB_STREAM_SAVE_FAILURE);
    EXPECT_EQ(FailureOf([&] { save.SeekTo(INT32_MIN); }), QB_STREAM_SAVE_FAILURE);
    // A save stream without a block only counts.
    QB_ByteStream count(nullptr, 12, false);
    count.WriteU32(7);
    count.WriteString("abc");
    EXPECT_EQ(count.GetPos(), 8);
    EXPECT_EQ(FailureOf([&] { count.WriteU64(1); }), QB_STREAM_SAVE_FAILURE);
    // A view a host might hand over with no bytes behind it (a null block, a
    // negative length) is empty: its first byte fails in its direction, never
    // an assertion, and a skip of nothing passes.
    QB_ByteStream none(nullptr, 4), negative(abData, -1), negativeSave(abBuf, -1, false);
    EXPECT_TRUE(none.GetLength() == 0 && negative.GetLength() == 0 && negativeSave.GetLength() == 0);
    EXPECT_EQ(FailureOf([&] { negative.Skip(0); }), 0u);
    EXPECT_EQ(FailureOf([&] { none.ReadU8(); }), QB_STREAM_LOAD_FAILURE);
    EXPECT_EQ(FailureOf([&] { negativeSave.WriteU8(0); }), QB_STREAM_SAVE_FAILURE);
}

namespace {

struct WordsCase { uint32_t ulMain; uint32_t ulSub; int nKind; const char* pszText; };

// A row of kind 1 to 3 also reads back from its text; only a compound's text
// carries the sub-number.
const WordsCase kWords[] = {
    {12345, 0, 1, "12345"}, {12345, 7, 1, "12345"}, {90001, 15, 2, "9000115"}, {90001, 5, 0, "Invalid ID"},
    {92000, 10, 2, "9200010"}, {92000, 9, 0, "Invalid ID"}, {90755, 20000, 2, "9075520000"},
    {60000000, 8000000, 2, "600000008000000"}, {600000000, 0, 0, "Invalid ID"}, {4000000000u, 0, 3, "4000000000"},
};

struct TextCase { const char* pszText; int nKind; uint32_t ulMain; uint32_t ulSub; };

const TextCase kTexts[] = {
    {" \t 00012345  \r\n", 1, 12345, 0}, {"  000009000115", 2, 90001, 15},
    {"12345678901234567", 0, 0, 0},   // 17 digits, beyond 32 bits
    {"50000000070000000", 2, 500000000, 70000000},
    {"500000000600000000", 0, 0, 0},  // a valid compound's own text, 18 digits
    {"4294967295", 3, 4294967295u, 0}, {"4294967296", 0, 0, 0},
    {"900010015", 2, 90001, 15},      // zeros in front of a sub-number count as digits
    {"900011", 0, 0, 0},              // a sub-number of one digit
    {"81234", 1, 81234, 0},           // shorter than its group number
    {"1234", 0, 0, 0},                // four digits name nobody
    {"12345x", 0, 0, 0}, {"", 0, 0, 0}, {nullptr, 0, 0, 0},
};

}  // namespace

// Any refusal to read a text leaves both words zero.
TEST(UserID, WritesEachKindAsTextAndReadsTextFormsBack)
{
    for (const WordsCase& c : kWords)
    {
        SCOPED_TRACE(c.pszText);
        QB_UserID id(c.ulMain, c.ulSub), back(1, 1);
        EXPECT_EQ(id.GetKind(), c.nKind) << c.ulMain << "/" << c.ulSub;
        EXPECT_EQ(id.ToText(), c.pszText);
        EXPECT_TRUE(c.nKind == 0 || (back.FromText(c.pszText), back) == QB_UserID(c.ulMain, c.nKind == 2 ? c.ulSub : 0));
    }
    for (const TextCase& c : kTexts)
    {
        SCOPED_TRACE(c.pszText ? c.pszText : "(null)");
        QB_UserID id(1, 1);
        EXPECT_EQ(id.FromText(c.pszText), c.nKind);
        EXPECT_TRUE(id.m_ulMain == c.ulMain && id.m_ulSub == c.ulSub) << id.m_ulMain << "/" << id.m_ulSub;
    }
    // A load cut short changes neither word nor the stream's position; order
    // is by the main word, then by the sub-number.
    const uint8_t abForm[] = {0x04, 0x03, 0x02, 0x01, 0x0D, 0x0C, 0x0B};
    QB_UserID cut(7, 7);
    QB_ByteStream short7(abForm, 7);
    short7.Skip(3);
    EXPECT_EQ(OutcomeOf(short7, [&] { cut.Load(short7); }), Outcome(QB_STREAM_LOAD_FAILURE, 3));
    EXPECT_EQ(cut, QB_UserID(7, 7)) << "a failed load changed the words";
    EXPECT_TRUE(QB_UserID(6, 9) < QB_UserID(7, 1) && QB_UserID(7, 1) < QB_UserID(7, 2));
    EXPECT_FALSE(QB_UserID(7, 2) < QB_UserID(7, 1) || QB_UserID(7, 1) < QB_UserID(7, 1));
}
