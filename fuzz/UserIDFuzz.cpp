// The user identifier's text form and number plan. The parser is set
// against the steps of the text form worked out here from the plan: blanks
// and zeros in front, at most 17 digits, the first digit deciding between a
// whole number and a group number with a sub-number behind it. Any two
// words keep their kind through their own text and through a stream.
#include "ZV_FuzzCheck.h"

#include "QB_ByteStream.h"
#include "QB_UserID.h"

#include "ZV_FuzzInput.h"

#include <string>

namespace {

bool IsBlank(char ch)
{
    return ch == ' ' || (ch >= 9 && ch <= 13);
}

bool IsValidCompound(uint64_t ullMain, uint64_t ullSub)
{
    if (ullMain == 90755 || (ullMain >= 92000 && ullMain <= 92002))
        return ullSub >= 10;
    return (ullSub >= 10 && ullSub <= 9999) || (ullSub >= 900000 && ullSub <= 999999) ||
           (ullSub >= 8000000 && ullSub <= 8999999) || (ullSub >= 70000000 && ullSub <= 79999999) ||
           (ullSub >= 600000000 && ullSub <= 699999999);
}

int KindOf(uint32_t ulMain, uint32_t ulSub)
{
    struct Range
    {
        uint32_t ulFrom;
        int nKind;  // -1: the sub-number decides
    };
    static const Range kPlan[] = {{4000000000u, 3}, {1000000000, 1}, {600000000, 0}, {500000000, -1},
                                  {100000000, 1},   {70000000, 0},   {60000000, -1}, {10000000, 1},
                                  {8000000, 0},     {7000000, -1},   {1000000, 1},   {900000, 0},
                                  {800000, -1},     {100000, 1},     {90000, -1},    {10000, 1}};
    for (const Range& range : kPlan)
        if (ulMain >= range.ulFrom)
            return range.nKind >= 0 ? range.nKind : (IsValidCompound(ulMain, ulSub) ? 2 : 0);
    return 0;
}

uint64_t Value(const std::string& sDigits)
{
    uint64_t ull = 0;
    for (char ch : sDigits)
        ull = ull * 10 + (uint64_t)(ch - '0');
    return ull;
}

// The kind a text gives, and the words it sets.
int ParseText(const std::string& sText, QB_UserID& id)
{
    id = QB_UserID();
    size_t i = 0;
    while (i < sText.size() && (IsBlank(sText[i]) || sText[i] == '0'))
        ++i;
    size_t nEnd = i;
    while (nEnd < sText.size() && sText[nEnd] >= '0' && sText[nEnd] <= '9')
        ++nEnd;
    for (size_t j = nEnd; j < sText.size(); ++j)
        if (!IsBlank(sText[j]))
            return 0;
    const std::string sDigits = sText.substr(i, nEnd - i);
    if (sDigits.size() <= 4 || sDigits.size() > 17)
        return 0;
    const uint64_t ullWhole = Value(sDigits);
    if (sDigits[0] <= '4')
    {
        if (ullWhole > 0xFFFFFFFFu)
            return 0;
        id = QB_UserID((uint32_t)ullWhole, 0);
        return ullWhole >= 4000000000u ? 3 : 1;
    }
    static const size_t kMainLength[] = {9, 8, 7, 6, 5};  // for the first digits 5 to 9
    const size_t nMain = kMainLength[sDigits[0] - '5'];
    if (sDigits.size() < nMain)
    {
        id = QB_UserID((uint32_t)ullWhole, 0);
        return 1;
    }
    const size_t nSub = sDigits.size() - nMain;
    const uint64_t ullMain = Value(sDigits.substr(0, nMain));
    const uint64_t ullSub = Value(sDigits.substr(nMain));
    if (nSub < 2 || nSub > 9 || !IsValidCompound(ullMain, ullSub))
        return 0;
    id = QB_UserID((uint32_t)ullMain, (uint32_t)ullSub);
    return 2;
}

void CheckText(const std::string& sText)
{
    QB_UserID expected;
    const int nExpected = ParseText(sText, expected);
    QB_UserID id(7, 7);
    const int nKind = id.FromText(sText.c_str());
    FUZZ_CHECK(nKind == nExpected && id == expected, "\"%s\" gave kind %d, %u %u, not kind %d, %u %u", sText.c_str(),
               nKind, id.m_ulMain, id.m_ulSub, nExpected, expected.m_ulMain, expected.m_ulSub);
}

void CheckWords(uint32_t ulMain, uint32_t ulSub)
{
    const QB_UserID id(ulMain, ulSub);
    const int nKind = id.GetKind();
    FUZZ_CHECK(nKind == KindOf(ulMain, ulSub), "%u %u is of kind %d", ulMain, ulSub, nKind);
    const std::string sText = id.ToText();
    // A compound's text may be longer than the reader takes: a sub-number
    // of ten digits (the four group numbers that take any from 10 on), or
    // more than 17 digits in all. Such text reads back as invalid.
    const bool bLongSub = nKind == 2 && (ulSub >= 1000000000u || sText.size() > 17);
    if (nKind == 0)
        FUZZ_CHECK(sText == "Invalid ID", "an invalid identifier reads \"%s\"", sText.c_str());
    else if (bLongSub)
        FUZZ_CHECK(QB_UserID().FromText(sText.c_str()) == 0, "\"%s\" read as valid", sText.c_str());
    else
    {
        // A single or reserved number has no sub-number in its text.
        const QB_UserID expected(ulMain, nKind == 2 ? ulSub : 0);
        QB_UserID back;
        FUZZ_CHECK(back.FromText(sText.c_str()) == nKind && back == expected, "%u %u did not come back from \"%s\"",
                   ulMain, ulSub, sText.c_str());
    }
    uint8_t ab[8];
    QB_ByteStream save(ab, 8, false);
    id.Save(save);
    const uint8_t abWire[8] = {(uint8_t)ulMain, (uint8_t)(ulMain >> 8), (uint8_t)(ulMain >> 16), (uint8_t)(ulMain >> 24),
                               (uint8_t)ulSub,  (uint8_t)(ulSub >> 8),  (uint8_t)(ulSub >> 16),  (uint8_t)(ulSub >> 24)};
    FUZZ_CHECK(std::equal(ab, ab + 8, abWire), "%u %u saved wrong", ulMain, ulSub);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t nSize)
{
    ZV_FuzzReader in(pData, nSize);
    CheckWords(in.Int<uint32_t>(), in.Int<uint32_t>());
    std::string sText = in.Rest();
    sText = sText.substr(0, sText.find('\0'));
    CheckText(sText);
    return 0;
}
