// QB_UserID: a user or a server of the conference, as two 32-bit words.
//
// The words follow a number plan rather than being a plain number. Most users
// have a single number (kind 1); numbers from certain ranges are company or
// group numbers whose users carry a sub-number (kind 2, compound); numbers
// from 4000000000 on are reserved (kind 3); everything else is invalid
// (kind 0). The text form writes a compound's two numbers side by side, and
// the parser tells them apart again by the first digit and the length.
//
// Hosts of the module build these too (the public header hands them across),
// so the class stands alone: all of it is here, in C++17, and it needs no
// other part of the base library to compile or to link.
#pragma once

#include "QB_ByteStreamBase.h"

#include <cstdint>
#include <cstdio>
#include <string>

class QB_UserID
{
public:
    QB_UserID() = default;
    QB_UserID(uint32_t ulMain, uint32_t ulSub) : m_ulSub(ulSub), m_ulMain(ulMain) {}
    QB_UserID(const QB_UserID&) = default;
    QB_UserID& operator=(const QB_UserID&) = default;

    // Stream form: m_ulMain, then m_ulSub, each a little-endian u32. A load
    // that fails leaves the words and the stream's position as they were.
    virtual void Load(QB_ByteStreamBase& s)
    {
        uint8_t ab[8] = {};
        s.Transfer(0, 8, ab);
        m_ulMain = WordAt(ab);
        m_ulSub = WordAt(ab + 4);
    }
    virtual void Save(QB_ByteStreamBase& s) const
    {
        uint8_t ab[8];
        PutWord(ab, m_ulMain);
        PutWord(ab + 4, m_ulSub);
        // One word at a time, so a stream with room for one takes it.
        s.Transfer(0, 4, ab);
        s.Transfer(0, 4, ab + 4);
    }
    virtual ~QB_UserID() = default;

    bool operator==(const QB_UserID& id) const { return m_ulMain == id.m_ulMain && m_ulSub == id.m_ulSub; }
    bool operator!=(const QB_UserID& id) const { return !(*this == id); }
    bool operator<(const QB_UserID& id) const { return Compare(*this, id) < 0; }
    // 0 when equal, -1 when a comes first, 1 when b does: by m_ulMain, then
    // by m_ulSub.
    static int Compare(const QB_UserID& a, const QB_UserID& b)
    {
        if (a.m_ulMain != b.m_ulMain)
            return a.m_ulMain < b.m_ulMain ? -1 : 1;
        if (a.m_ulSub != b.m_ulSub)
            return a.m_ulSub < b.m_ulSub ? -1 : 1;
        return 0;
    }

    // 0 invalid, 1 single number, 2 compound, 3 reserved high number.
    int GetKind() const
    {
        int nKind = KIND_INVALID;
        for (const KindRange& range : kKindRanges)
            if (m_ulMain >= range.ulFrom)
                nKind = range.nKind;
        if (nKind == KIND_BY_SUB)
            return IsValidCompound(m_ulMain, m_ulSub) ? KIND_COMPOUND : KIND_INVALID;
        return nKind;
    }

    // "Invalid ID" for kind 0.
    std::string ToText() const
    {
        char ach[24];
        switch (GetKind())
        {
        case KIND_SINGLE:
        case KIND_RESERVED:
            std::snprintf(ach, sizeof(ach), "%u", m_ulMain);
            return ach;
        case KIND_COMPOUND:
            std::snprintf(ach, sizeof(ach), "%u%u", m_ulMain, m_ulSub);
            return ach;
        default:
            return "Invalid ID";
        }
    }

    // Sets the words from the text form and gives the kind; kind 0 (also for
    // a null pointer) leaves both words 0.
    int FromText(const char* pszText)
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

    static bool IsValidCompound(uint32_t ulMain, uint32_t ulSub)
    {
        // These group numbers take any sub-number from 10 on.
        if (ulMain == 90755 || (ulMain >= 92000 && ulMain <= 92002))
            return ulSub >= 10;
        for (const auto& range : kSubRanges)
            if (ulSub >= range[0] && ulSub <= range[1])
                return true;
        return false;
    }

    uint32_t m_ulSub = 0;
    uint32_t m_ulMain = 0;

private:
    static constexpr int KIND_INVALID = 0;
    static constexpr int KIND_SINGLE = 1;
    static constexpr int KIND_COMPOUND = 2;
    static constexpr int KIND_RESERVED = 3;
    // A range of group numbers: the sub-number decides between compound and
    // invalid.
    static constexpr int KIND_BY_SUB = -1;

    struct KindRange
    {
        uint32_t ulFrom;
        int nKind;
    };

    // The number plan by main number; each range runs up to the next one's start.
    static constexpr KindRange kKindRanges[] = {
        {0, KIND_INVALID},         {10000, KIND_SINGLE},      {90000, KIND_BY_SUB},
        {100000, KIND_SINGLE},     {800000, KIND_BY_SUB},     {900000, KIND_INVALID},
        {1000000, KIND_SINGLE},    {7000000, KIND_BY_SUB},    {8000000, KIND_INVALID},
        {10000000, KIND_SINGLE},   {60000000, KIND_BY_SUB},   {70000000, KIND_INVALID},
        {100000000, KIND_SINGLE},  {500000000, KIND_BY_SUB},  {600000000, KIND_INVALID},
        {1000000000, KIND_SINGLE}, {4000000000u, KIND_RESERVED},
    };

    // Sub-numbers that an ordinary group number may carry, inclusive.
    static constexpr uint32_t kSubRanges[][2] = {
        {10, 9999}, {900000, 999999}, {8000000, 8999999}, {70000000, 79999999}, {600000000, 699999999},
    };

    // The longest digit run of a text form: a 9-digit main number with a
    // 8-digit sub-number. Its value always fits 64 bits.
    static constexpr int MAX_DIGITS = 17;

    // The wire is little-endian whatever the machine's order.
    static uint32_t WordAt(const uint8_t* pb)
    {
        return (uint32_t)pb[0] | (uint32_t)pb[1] << 8 | (uint32_t)pb[2] << 16 | (uint32_t)pb[3] << 24;
    }
    static void PutWord(uint8_t* pb, uint32_t ul)
    {
        for (int i = 0; i < 4; ++i)
            pb[i] = (uint8_t)(ul >> (8 * i));
    }

    static bool IsBlank(char ch) { return ch == ' ' || (ch >= 9 && ch <= 13); }

    // Copies the significant digits of a text form to pchDigits and gives
    // their number; 0 when the text holds anything but blanks around them,
    // has no digit from 1 to 9, or has too many digits.
    static int CollectDigits(const char* psz, char* pchDigits)
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

    static uint64_t DigitsValue(const char* pchDigits, int nDigits)
    {
        uint64_t ullValue = 0;
        for (int i = 0; i < nDigits; ++i)
            ullValue = ullValue * 10 + (uint64_t)(pchDigits[i] - '0');
        return ullValue;
    }

    // A text starting with 1 to 4 is one number, whatever its length. Having
    // five significant digits, it is never below 10000.
    static int ParseSingle(const char* pchDigits, int nDigits, uint32_t& ulMain)
    {
        uint64_t ullValue = DigitsValue(pchDigits, nDigits);
        if (ullValue > UINT32_MAX)
            return KIND_INVALID;
        ulMain = (uint32_t)ullValue;
        return ullValue >= 4000000000u ? KIND_RESERVED : KIND_SINGLE;
    }

    // A text starting with 5 to 9: the first digit fixes the length of a
    // group number (9 digits for "5" down to 5 for "9"). A shorter text is a
    // single number; a longer one carries a sub-number of 2 to 9 digits.
    static int ParseGrouped(const char* pchDigits, int nDigits, uint32_t& ulMain, uint32_t& ulSub)
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
        return IsValidCompound(ulMain, ulSub) ? KIND_COMPOUND : KIND_INVALID;
    }
};

struct QB_HashUserID
{
    uint32_t operator()(const QB_UserID& id) const { return id.m_ulMain ^ id.m_ulSub; }
};
