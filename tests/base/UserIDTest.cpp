#include "QB_ByteStream.h"
#include "QB_UserID.h"

#include <gtest/gtest.h>

#include <vector>

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

TEST(UserID, WritesEachKindAsTextAndReadsTheTextBack)
{
    for (const WordsCase& c : kWords)
    {
        QB_UserID id(c.ulMain, c.ulSub);
        SCOPED_TRACE(c.pszText);
        EXPECT_EQ(id.GetKind(), c.nKind) << c.ulMain << "/" << c.ulSub;
        EXPECT_EQ(id.ToText(), c.pszText);
        if (c.nKind == 0)
            continue;
        QB_UserID back(1, 1);
        EXPECT_EQ(back.FromText(c.pszText), c.nKind);
        EXPECT_EQ(back, QB_UserID(c.ulMain, c.nKind == 2 ? c.ulSub : 0));
    }
}

TEST(UserID, ReadsTextFormsAndLeavesZeroWordsOnAnyRefusal)
{
    for (const TextCase& c : kTexts)
    {
        SCOPED_TRACE(c.pszText ? c.pszText : "(null)");
        QB_UserID id(1, 1);
        EXPECT_EQ(id.FromText(c.pszText), c.nKind);
        EXPECT_EQ(id.m_ulMain, c.ulMain);
        EXPECT_EQ(id.m_ulSub, c.ulSub);
    }
}

TEST(UserID, TravelsAsMainThenSubLittleEndian)
{
    const std::vector<uint8_t> vbForm = {0x04, 0x03, 0x02, 0x01, 0x0D, 0x0C, 0x0B, 0x0A};
    std::vector<uint8_t> vbBuf(8);
    QB_ByteStream save(vbBuf.data(), 8, false);
    QB_UserID(0x01020304, 0x0A0B0C0D).Save(save);
    EXPECT_EQ(vbBuf, vbForm);

    QB_UserID id;
    QB_ByteStream load(vbForm.data(), 8);
    id.Load(load);
    EXPECT_EQ(id, QB_UserID(0x01020304, 0x0A0B0C0D));

    QB_UserID cut(7, 7);
    QB_ByteStream short7(vbForm.data(), 7);
    short7.Skip(3);
    EXPECT_THROW(cut.Load(short7), QB_StreamException);
    EXPECT_EQ(cut, QB_UserID(7, 7)) << "a failed load changed the words";
    EXPECT_EQ(short7.GetPos(), 3);

    // Ordered by the main word, then by the sub-number.
    EXPECT_TRUE(QB_UserID(6, 9) < QB_UserID(7, 1) && QB_UserID(7, 1) < QB_UserID(7, 2));
    EXPECT_FALSE(QB_UserID(7, 2) < QB_UserID(7, 1) || QB_UserID(7, 1) < QB_UserID(7, 1));
}

