#include "QB_UserID.h"

namespace {

constexpr int KIND_INVALID = 0;
constexpr int KIND_SINGLE = 1;
constexpr int KIND_COMPOUND = 2;
constexpr int KIND_RESERVED = 3;
// A range of group numbers: the sub-number decides between compound and
// invalid.
constexpr int KIND_BY_SUB = -1;

struct KindRange
{
    uint32_t ulFrom;
    int nKind;
};

// The number plan by main number; each range runs up to the next one's start.
const KindRange kKindRanges[] = {
    {0, KIND_INVALID},          {10000, KIND_SINGLE},        {90000, KIND_BY_SUB},
    {100000, KIND_SINGLE},      {800000, KIND_BY_SUB},       {900000, KIND_INVALID},
    {1000000, KIND_SINGLE},     {7000000, KIND_BY_SUB},      {8000000, KIND_INVALID},
    {10000000, KIND_SINGLE},    {60000000, KIND_BY_SUB},     {70000000, KIND_INVALID},
    {100000000, KIND_SINGLE},   {500000000, KIND_BY_SUB},    {600000000, KIND_INVALID},
    {1000000000, KIND_SINGLE},  {4000000000u, KIND_RESERVED},
};

// Sub-numbers that an ordinary group number may carry, inclusive.
const uint32_t kSubRanges[][2] = {
    {10, 9999},
    {900000, 999999},
    {8000000, 8999999},
    {70000000, 79999999},
    {600000000, 699999999},
};

// The longest digit run of a text form: a 9-digit main number with a
// 8-digit sub-number. Its value always fits 64 bits.
constexpr int MAX_DIGITS = 17;

bool IsBlank(char ch)
{
    return ch == ' ' || (ch >= 9 && ch <= 13);
}

// Copies the significant digits of a text form to pchDigits and gives their
// number; 0 when the text holds anything but blanks around them, has no
// digit from 1 to 9, or has too many digits.
int CollectDigits(const char* psz, char* pchDigits)
{
    while (IsBlank(*psz) || *psz == '0')
        ++psz;
    int nDigits = 0;
    for (; *psz >= '0' && *psz <= '9'; ++psz)
    {
        if (nDigits == MAX_DIGITS)
            return 0;
        pchDigits[nDigits++] = *psz;
    }
    while (IsBlank(*psz))
        ++psz;
    return *psz == '\0' ? nDigits : 0;
}

uint64_t DigitsValue(const char* pchDigits, int nDigits)
{
    uint64_t ullValue = 0;
    for (int i = 0; i < nDigits; ++i)
        ullValue = ullValue * 10 + (uint64_t)(pchDigits[i] - '0');
    return ullValue;
}

// A text starting with 1 to 4 is one number, whatever its length. Having
// five significant digits, it is never below 10000.
int ParseSingle(const char* pchDigits, int nDigits, uint32_t& ulMain)
{
    uint64_t ullValue = DigitsValue(pchDigits, nDigits);
    if (ullValue > UINT32_MAX)
        return KIND_INVALID;
    ulMain = (uint32_t)ullValue;
    return ullValue >= 4000000000u ? KIND_RESERVED : KIND_SINGLE;
}

// A text starting with 5 to 9: the first digit fixes the length of a group
// number (9 digits for "5" down to 5 for "9"). A shorter text is a single
// number; a longer one carries a sub-number of 2 to 9 digits.
int ParseGrouped(const char* pchDigits, int nDigits, uint32_t& ulMain, uint32_t& ulSub)
{
    int nMainLen = 14 - (pchDigits[0] - '0');
    if (nDigits < nMainLen)
    {
        ulMain = (uint32_t)DigitsValue(pchDigits, nDigits);
        return KIND_SINGLE;
    }
    int nSubLen = nDigits - nMainLen;
    if (nSubLen < 2 || nSubLen > 9)
        return KIND_INVALID;
    ulMain = (uint32_t)DigitsValue(pchDigits, nMainLen);
    ulSub = (uint32_t)DigitsValue(pchDigits + nMainLen, nSubLen);
    return QB_UserID::IsValidCompound(ulMain, ulSub) ? KIND_COMPOUND : KIND_INVALID;
}

}  // namespace

void QB_UserID::Load(QB_ByteStream& s)
{
    // Both words or neither: a short stream fails before the first is read.
    s.Check(s.GetPos(), 8);
    m_ulMain = s.ReadU32();
    m_ulSub = s.ReadU32();
}

void QB_UserID::Save(QB_ByteStream& s) const
{
    s.WriteU32(m_ulMain);
    s.WriteU32(m_ulSub);
}

int QB_UserID::Compare(const QB_UserID& a, const QB_UserID& b)
{
    if (a.m_ulMain != b.m_ulMain)
        return a.m_ulMain < b.m_ulMain ? -1 : 1;
    if (a.m_ulSub != b.m_ulSub)
        return a.m_ulSub < b.m_ulSub ? -1 : 1;
    return 0;
}

bool QB_UserID::IsValidCompound(uint32_t ulMain, uint32_t ulSub)
{
    // These group numbers take any sub-number from 10 on.
    if (ulMain == 90755 || (ulMain >= 92000 && ulMain <= 92002))
        return ulSub >= 10;
    for (const auto& range : kSubRanges)
        if (ulSub >= range[0] && ulSub <= range[1])
            return true;
    return false;
}

int QB_UserID::GetKind() const
{
    int nKind = KIND_INVALID;
    for (const KindRange& range : kKindRanges)
        if (m_ulMain >= range.ulFrom)
            nKind = range.nKind;
    if (nKind == KIND_BY_SUB)
        return IsValidCompound(m_ulMain, m_ulSub) ? KIND_COMPOUND : KIND_INVALID;
    return nKind;
}

QB_StringA QB_UserID::ToText() const
{
    QB_StringA sText;
    switch (GetKind())
    {
    case KIND_SINGLE:
    case KIND_RESERVED:
        sText.Format("%u", m_ulMain);
        break;
    case KIND_COMPOUND:
        sText.Format("%u%u", m_ulMain, m_ulSub);
        break;
    default:
        sText = "Invalid ID";
        break;
    }
    return sText;
}

int QB_UserID::FromText(const char* pszText)
{
    m_ulMain = 0;
    m_ulSub = 0;
    char achDigits[MAX_DIGITS];
    int nDigits = pszText ? CollectDigits(pszText, achDigits) : 0;
    if (nDigits <= 4)
        return KIND_INVALID;
    uint32_t ulMain = 0;
    uint32_t ulSub = 0;
    int nKind = achDigits[0] <= '4' ? ParseSingle(achDigits, nDigits, ulMain)
                                    : ParseGrouped(achDigits, nDigits, ulMain, ulSub);
    if (nKind != KIND_INVALID)
    {
        m_ulMain = ulMain;
        m_ulSub = ulSub;
    }
    return nKind;
}
