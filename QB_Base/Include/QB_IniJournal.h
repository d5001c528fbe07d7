// QB_IniJournal: an ini file kept up to date by a write-ahead journal
// beside it, "<name>.journal", so that a change costs an append and a sync
// of its own bytes instead of a rewrite of the whole file.
//
// A change is made in memory at once and noted; Commit appends the noted
// changes to the journal and syncs it, and only then may the owner say
// that they are done. The ini file itself is rewritten from memory, whole
// and atomically as QB_IniFileEx::Flush writes it, when the journal has
// grown past a bound or when no change has come for a while, and the
// journal then starts afresh. Open loads the ini file and replays the
// journal over it, ignoring a torn or damaged end. Since the ini file in
// memory takes the same operations in the same order as without the
// journal, every rewrite writes the very bytes a rewrite per change would.
//
// A record holds the changes of one commit, and is replayed whole or not at
// all; a change is the sets on one section in a row, or the removal of a
// section, under the section's name. Each set puts its key on top of its
// section, so a record replayed twice leaves what it left once, and a
// journal replayed over a rewrite that already holds it (a crash between
// the rewrite and the fresh start) leaves the file as it was, provided a
// removed section's name does not come back within one journal.
//
// The file layout is in docs/storage.md. The class takes no lock: its
// owner serialises all use.
#pragma once

#include "QB_FileEx.h"
#include "QB_IniFileEx.h"
#include "QB_String.h"

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

class QB_IniJournal
{
public:
    // A journal this long or longer is folded into the ini file, or a
    // quarter of the ini file, whichever is more; so a rewrite comes once
    // per so many bytes of changes that its cost per change stays flat
    // however large the file grows.
    static constexpr uint32_t kMinRewriteBytes = 1u << 20;
    // Milliseconds without a change before a tick folds the journal in.
    static constexpr uint32_t kQuietMs = 10000;

    QB_IniJournal(uint32_t nSectionTableSize, uint32_t nKeyTableSize);
    ~QB_IniJournal();
    QB_IniJournal(const QB_IniJournal&) = delete;
    QB_IniJournal& operator=(const QB_IniJournal&) = delete;

    // Loads the ini file as QB_IniFileEx::Open does and replays the journal
    // over it; a journal that held changes is folded in at once. False when
    // the ini file can't be read: the journal is then left alone, and
    // Commit rewrites the ini file whole as it would without one. The same
    // holds, Open giving true, when another QB_IniJournal of this process
    // has the path open: one journal has one writer.
    bool Open(const QB_StringW& sPath, bool bCreateUnicode);
    const QB_IniFileEx& Ini() const { return m_IniFile; }

    // The changes of QB_IniFileEx, with its results.
    bool SetString(const QB_StringW& sSection, const QB_StringW& sKey, const QB_StringW& sValue);
    bool SetLong(const QB_StringW& sSection, const QB_StringW& sKey, int32_t nValue);
    bool DeleteSection(const QB_StringW& sSection);

    // Makes the changes noted since the last Commit durable: true once they
    // would survive a crash. A failed append falls back on a rewrite; what
    // neither could save stays in memory and goes out with the next
    // rewrite that works.
    bool Commit();
    // Folds the journal in if it holds changes and none came for kQuietMs.
    void RewriteIfQuiet();
    // The owner is done: the journal is folded in if it holds changes, so
    // that a clean stop leaves the ini file current, and let go.
    void Close();
    // Rewrites the ini file from memory and starts the journal afresh.
    bool Rewrite();

    // Bytes of valid journal on disk.
    uint32_t GetJournalBytes() const { return m_ulEnd; }

private:
    // One change: the sets on a section in a row, or its removal.
    struct Change
    {
        bool bRemove = false;
        QB_StringW sSection;
        std::vector<std::pair<QB_StringW, QB_StringW>> vecSets;
    };

    QB_IniFileEx m_IniFile;
    QB_StringW m_sJournalPath;
    QB_FileEx m_File;               // the journal, open from the first append
    bool m_bJournaled = false;      // Open read the ini file
    bool m_bNameDurable = true;     // the journal's name has been synced in its folder
    bool m_bBroken = false;         // the end on disk can't be trusted; the next Commit rewrites
    bool m_bTornTail = false;       // bytes behind m_ulEnd, to be cut before an append
    uint32_t m_ulEnd = 0;           // valid bytes of the journal, its head included
    uint32_t m_ulRewriteAt = kMinRewriteBytes;
    uint32_t m_ulLastChangeTick = 0;
    std::vector<Change> m_vecPending;
    std::u16string m_sHeldPath;     // the journal's full path while this object writes it

    void Note(bool bRemove, const QB_StringW& sSection, const QB_StringW& sKey, const QB_StringW& sValue);
    void Replay(const std::string& sBytes, int& nRecords);
    static bool ParseRecord(const char* p, uint32_t ulBody, std::vector<Change>& vecChanges);
    std::string EncodePending();
    bool Append(const std::string& sBytes);
    bool OpenForAppend();
    uint32_t Bound() const;
    bool Hold();
    void MakeDurable(const QB_StringW& sPath);
    void Release();
};
