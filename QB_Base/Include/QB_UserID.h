// QB_UserID: a user or a server of the conference, as two 32-bit words.
//
// The words follow a number plan rather than being a plain number. Most users
// have a single number (kind 1); numbers from certain ranges are company or
// group numbers whose users carry a sub-number (kind 2, compound); numbers
// from 4000000000 on are reserved (kind 3); everything else is invalid
// (kind 0). The text form writes a compound's two numbers side by side, and
// the parser tells them apart again by the first digit and the length.
#pragma once

#include "QB_ByteStream.h"
#include "QB_String.h"

#include <cstdint>

class QB_UserID
{
public:
    QB_UserID() = default;
    QB_UserID(uint32_t ulMain, uint32_t ulSub) : m_ulSub(ulSub), m_ulMain(ulMain) {}
    QB_UserID(const QB_UserID&) = default;
    QB_UserID& operator=(const QB_UserID&) = default;

    // Stream form: m_ulMain, then m_ulSub, each a little-endian u32. A load
    // that fails leaves the words and the stream's position as they were.
    virtual void Load(QB_ByteStream& s);
    virtual void Save(QB_ByteStream& s) const;
    virtual ~QB_UserID() = default;

    bool operator==(const QB_UserID& id) const { return m_ulMain == id.m_ulMain && m_ulSub == id.m_ulSub; }
    bool operator!=(const QB_UserID& id) const { return !(*this == id); }
    bool operator<(const QB_UserID& id) const { return Compare(*this, id) < 0; }
    // 0 when equal, -1 when a comes first, 1 when b does: by m_ulMain, then
    // by m_ulSub.
    static int Compare(const QB_UserID& a, const QB_UserID& b);

    // 0 invalid, 1 single number, 2 compound, 3 reserved high number.
    int GetKind() const;
    // "Invalid ID" for kind 0.
    QB_StringA ToText() const;
    // Sets the words from the text form and gives the kind; kind 0 (also for
    // a null pointer) leaves both words 0.
    int FromText(const char* pszText);
    static bool IsValidCompound(uint32_t ulMain, uint32_t ulSub);

    uint32_t m_ulSub = 0;
    uint32_t m_ulMain = 0;
};

struct QB_HashUserID
{
    uint32_t operator()(const QB_UserID& id) const { return id.m_ulMain ^ id.m_ulSub; }
};
