// QB_IniFileEx: an ini file held whole in memory as a chain of lines, so
// that a rewrite keeps every comment, blank line and line of no known form.
//
// A file is ANSI or UTF-16 little-endian with a byte-order mark and keeps its
// form. Sections and keys match without regard to case; a name that repeats
// is told apart by its occurrence number, 1 for the first. A key that is set
// goes directly behind its section line, not to the section's end.
//
// Every text operation has a wide form and a narrow one in the ANSI code
// page; the narrow one converts and calls the wide one.
#pragma once

#include "QB_Array.h"
#include "QB_Map.h"
#include "QB_String.h"

#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

// A name and its occurrence: the key of the section map and the key maps.
struct QB_IniKey
{
    QB_StringW m_sName;
    int m_nOccurrence = 0;

    QB_IniKey() = default;
    QB_IniKey(const QB_StringW& sName, int nOccurrence) : m_sName(sName), m_nOccurrence(nOccurrence) {}

    // Case-blind, through the same lower-casing as the hash.
    bool operator==(const QB_IniKey& key) const;
};

// h = h * 33 + u over the lower-cased name, followed by "+N" when the
// occurrence N is above 1, so that repeats of a name spread over buckets.
struct QB_IniKeyHash
{
    uint32_t operator()(const QB_IniKey& key) const;
};

// The same hash for the standard containers.
struct QB_IniKeyIndexHash
{
    size_t operator()(const QB_IniKey& key) const { return QB_IniKeyHash()(key); }
};

struct QB_IniLine;
using QB_IniLineMap = QB_Map<QB_IniKey, QB_IniLine*, QB_IniKeyHash>;

// One line of the file, a node of the chain in file order.
struct QB_IniLine
{
    enum Type
    {
        Other = 0,
        Section = 1,
        Key = 2,
        Blank = 3,
        Comment = 4
    };

    Type m_type = Other;
    QB_StringW m_sLine;  // as written back, without its line end
    QB_IniKey m_Key;     // key name; a section's text with brackets; a comment's whole line
    QB_StringW m_sValue;
    QB_IniLineMap* m_lpMapKey2Value = nullptr;  // a section's keys and comments
    QB_IniLine* m_lpSection = nullptr;
    QB_IniLine* m_lpPrev = nullptr;
    QB_IniLine* m_lpNext = nullptr;
    // On a section line: the bytes of its block (the section line and the
    // lines behind it up to the next section) as the last Flush wrote them;
    // empty once a change has touched the block.
    std::string m_sBlockBytes;

    QB_IniLine() = default;
    ~QB_IniLine();
    QB_IniLine(const QB_IniLine&) = delete;
    QB_IniLine& operator=(const QB_IniLine&) = delete;

    // What the text is, by the tests Key, Section, Comment, Blank in turn.
    static Type Classify(const QB_StringW& sLine);
};

class QB_IniFileEx
{
public:
    explicit QB_IniFileEx(uint32_t nSectionTableSize = 17, uint32_t nKeyTableSize = 17);
    virtual ~QB_IniFileEx();
    QB_IniFileEx(const QB_IniFileEx&) = delete;
    QB_IniFileEx& operator=(const QB_IniFileEx&) = delete;

    // Loads the whole file, creating it when missing (UTF-16 with its mark
    // when bCreateUnicode). False only when it can't be opened or read.
    bool Open(const QB_StringA& sPath, bool bCreateUnicode);
    bool Open(const QB_StringW& sPath, bool bCreateUnicode);
    // Replaces the file with the whole text at once, so that the file on
    // disk is always a whole one, old or new; false for a read-only file or
    // a failed write, sync or rename, whose changes then stay in memory.
    bool Flush();

    bool GetSectionNames(QB_Array<QB_StringW>& arrNames) const;
    bool GetSectionNames(QB_Array<QB_StringA>& arrNames) const;
    // The sections as GetSectionNames gives them, and for each the numbers
    // GetLong would give for every key of vecKeys, row by row: one walk that
    // looks no section up by its name, for an index over many sections.
    void GetSectionLongs(const std::vector<QB_StringW>& vecKeys, int32_t nDefault, QB_Array<QB_StringW>& arrNames,
                         std::vector<int32_t>& vecValues) const;

    QB_StringW GetString(const QB_StringW& sSection, const QB_StringW& sKey, const QB_StringW& sDefault) const;
    QB_StringA GetString(const QB_StringA& sSection, const QB_StringA& sKey, const QB_StringA& sDefault) const;
    // True when the value differs from the default.
    bool GetString(const QB_StringA& sSection, const QB_StringA& sKey, QB_StringA& sValue,
                   const QB_StringA& sDefault) const;
    int32_t GetLong(const QB_StringW& sSection, const QB_StringW& sKey, int32_t nDefault) const;
    int32_t GetLong(const QB_StringA& sSection, const QB_StringA& sKey, int32_t nDefault) const;

    bool SetString(const QB_StringW& sSection, const QB_StringW& sKey, const QB_StringW& sValue);
    bool SetString(const QB_StringA& sSection, const QB_StringA& sKey, const QB_StringA& sValue);
    bool SetLong(const QB_StringW& sSection, const QB_StringW& sKey, int32_t nValue);
    bool SetLong(const QB_StringA& sSection, const QB_StringA& sKey, int32_t nValue);
    bool SetBool(const QB_StringW& sSection, const QB_StringW& sKey, bool bValue);
    bool SetBool(const QB_StringA& sSection, const QB_StringA& sKey, bool bValue);

    // Removes every occurrence of the section with all its lines.
    bool DeleteSection(const QB_StringW& sSection);
    bool DeleteSection(const QB_StringA& sSection);

    bool IsUnicode() const { return m_bUnicode; }
    // Bytes of the file as Open read it or the last Flush wrote it.
    size_t GetFileBytes() const { return m_nFileBytes; }

private:
    struct LoadState;

    uint32_t m_nKeyTableSize;
    QB_IniLine* m_lpFirst = nullptr;
    QB_IniLine* m_lpLast = nullptr;  // new sections go to the end of the chain
    QB_IniLineMap m_mapSections;
    // The same sections for look-ups. The map's table size is fixed and its
    // walk gives the order of the sections, so it stays; with thousands of
    // sections its chains grow long, and a name is found here instead.
    std::unordered_map<QB_IniKey, QB_IniLine*, QB_IniKeyIndexHash> m_indexSections;
    // The section lines in file order. A new section only ever goes to the
    // end of the file, so this stays in step with the chain, and a Flush
    // copies each untouched block as it wrote it the last time instead of
    // visiting every line again.
    std::vector<QB_IniLine*> m_vecSectionOrder;
    QB_StringA m_sFileName;
    bool m_bUnicode = false;
    QB_StringA m_sHeader;
    bool m_bSectionSeen = false;
    // Kept between flushes: a catalogue is rewritten whole on every save,
    // and a fresh buffer of its size each time costs more than the copy.
    std::string m_sFlushBytes;
    size_t m_nFileBytes = 0;

    void Clear();
    bool ReadWholeFile(bool bCreateUnicode, std::string& sBytes);
    void Load(const std::string& sBytes);
    void LoadLine(const QB_StringW& sLine, LoadState& state);
    void Serialize(std::string& sOut);
    void SerializeBlock(const QB_IniLine* lpSection, std::string& sOut) const;
    static void Touch(QB_IniLine* lpLine);
    static bool ReplaceWhole(const QB_StringW& sPath, const std::string& sBytes);

    QB_IniLine* NewLine(const QB_StringW& sLine, QB_IniLine* lpSection) const;
    QB_IniLine* FindSection(const QB_StringW& sName, int nOccurrence) const;
    void AddSection(QB_IniLine* lpSection);
    const QB_IniLine* FindKey(const QB_StringW& sSection, const QB_StringW& sKey) const;
    QB_IniLine* AppendSection(const QB_StringW& sName);
    void LinkAfter(QB_IniLine* lpLine, QB_IniLine* lpPrev);
    void Unlink(QB_IniLine* lpLine);
    void DeleteKeyLine(QB_IniLine* lpLine);
    void DeleteSectionLines(QB_IniLine* lpSection);
};
