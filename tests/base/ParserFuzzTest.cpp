// Random and truncated input for the two parsers that face the outside: the
// user identifier's text form and the load stream. Seeded, so a failure
// repeats.
#include "QB_ByteStream.h"
#include "QB_UserID.h"

#include <gtest/gtest.h>

#include <memory>
#include <random>
#include <string>

namespace {

// A kind 0 leaves both words 0; any other kind is the words' own kind, and
// their text reads back as the same words.
void ExpectConsistentParse(const std::string& sText)
{
    QB_UserID id(7, 7);
    int nKind = id.FromText(sText.c_str());
    ASSERT_GE(nKind, 0);
    ASSERT_LE(nKind, 3);
    if (nKind == 0)
    {
        ASSERT_EQ(id, QB_UserID(0, 0)) << sText;
        return;
    }
    ASSERT_EQ(id.GetKind(), nKind) << sText;
    QB_UserID back;
    ASSERT_EQ(back.FromText(id.ToText().GetString()), nKind) << sText;
    ASSERT_EQ(back, id) << sText;
}

std::string RandomText(std::mt19937& rng, bool bAnyBytes)
{
    static const char kDigitsAndBlanks[] = "0123456789 \t0123456789\n0123456789";
    std::string sText(rng() % 22, ' ');
    for (char& ch : sText)
        ch = bAnyBytes ? (char)(1 + rng() % 255) : kDigitsAndBlanks[rng() % (sizeof kDigitsAndBlanks - 1)];
    return sText;
}

// One random read; false when the stream refused it. A refusal must be the
// load failure and leave the position where the read began.
bool RandomRead(QB_ByteStream& s, std::mt19937& rng)
{
    int32_t nBefore = s.GetPos();
    try
    {
        switch (rng() % 8)
        {
        case 0:
        {
            uint32_t ulCount = s.ReadCount();
            EXPECT_GE(s.GetPos() - nBefore, QB_ByteStream::GetCountSize(ulCount));
            break;
        }
        case 1:
        {
            QB_StringU8 str;
            s.ReadString(str);
            EXPECT_LE(str.GetLength(), s.GetPos() - nBefore);
            break;
        }
        case 2: s.ReadU16(); break;
        case 3: s.ReadU32(); break;
        case 4: s.ReadU64(); break;
        case 5: s.ReadDouble(); break;
        case 6: s.Skip((int32_t)(rng() % 9) - 4); break;
        default: QB_UserID().Load(s); break;
        }
    }
    catch (const QB_StreamException& e)
    {
        EXPECT_EQ(e.m_ulCode, QB_STREAM_LOAD_FAILURE);
        return false;
    }
    EXPECT_LE(s.GetPos(), s.GetLength());
    return true;
}

}  // namespace

TEST(ParserFuzz, UserIDTextNeverMisparsesRandomOrTruncatedInput)
{
    std::mt19937 rng(5771);
    for (int i = 0; i < 20000; ++i)
        ExpectConsistentParse(RandomText(rng, i % 4 == 3));

    // Every prefix of the text of random words, valid or not.
    for (int i = 0; i < 2000; ++i)
    {
        uint32_t ulMain = i % 2 ? rng() : 90000 + rng() % 10000;
        std::string sText = QB_UserID(ulMain, rng() % 2 ? rng() % 10000 : rng()).ToText().GetString();
        for (size_t n = 0; n <= sText.size(); ++n)
            ExpectConsistentParse(sText.substr(0, n));
    }
}

TEST(ParserFuzz, LoadStreamRaisesOnlyTheLoadFailureOnRandomBytes)
{
    std::mt19937 rng(9001);
    for (int i = 0; i < 5000; ++i)
    {
        // An exact-size heap block, so that a sanitizer sees any overrun.
        int32_t nLen = (int32_t)(rng() % 40);
        std::unique_ptr<uint8_t[]> pBlock(new uint8_t[nLen]);
        for (int32_t j = 0; j < nLen; ++j)
            pBlock[j] = (uint8_t)(i % 3 ? rng() : 0x80 + rng() % 0x80);
        QB_ByteStream s(pBlock.get(), nLen);
        for (int nOp = 0; nOp < 12; ++nOp)
        {
            int32_t nBefore = s.GetPos();
            if (!RandomRead(s, rng))
            {
                ASSERT_EQ(s.GetPos(), nBefore);
            }
        }
    }
}
