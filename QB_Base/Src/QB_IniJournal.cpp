#include "QB_IniJournal.h"

#include "QB_Env.h"
#include "QB_Log.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <mutex>
#include <new>
#include <set>

namespace {

const char kMagic[8] = {'Q', 'B', 'I', 'N', 'I', 'J', 'N', '1'};
constexpr uint32_t kHeadSize = sizeof kMagic;
constexpr uint32_t kRecordHeadSize = 8;  // body length, checksum
constexpr uint8_t kSetKeys = 1;
constexpr uint8_t kRemoveSection = 2;

// CRC-32C (Castagnoli), reflected.
constexpr std::array<uint32_t, 256> MakeCrcTable()
{
    std::array<uint32_t, 256> table{};
    for (uint32_t i = 0; i < 256; ++i)
    {
        uint32_t ul = i;
        for (int k = 0; k < 8; ++k)
            ul = ul & 1 ? (ul >> 1) ^ 0x82F63B78u : ul >> 1;
        table[i] = ul;
    }
    return table;
}

constexpr std::array<uint32_t, 256> kCrcTable = MakeCrcTable();

uint32_t Crc32c(const char* p, size_t n)
{
    uint32_t ul = 0xFFFFFFFFu;
    for (size_t i = 0; i < n; ++i)
        ul = kCrcTable[(ul ^ (uint8_t)p[i]) & 0xFF] ^ (ul >> 8);
    return ~ul;
}

void PutU32(std::string& s, uint32_t ul)
{
    for (int i = 0; i < 4; ++i)
        s += (char)(ul >> (8 * i));
}

void PutText(std::string& s, const QB_StringW& sText)
{
    PutU32(s, (uint32_t)sText.GetLength());
    for (int i = 0; i < sText.GetLength(); ++i)
    {
        s += (char)(sText[i] & 0xFF);
        s += (char)(sText[i] >> 8);
    }
}

// Reads what a record's body holds, never past its end.
class BodyReader
{
public:
    BodyReader(const char* p, size_t n) : m_p(p), m_nLeft(n) {}

    bool U8(uint8_t& b)
    {
        if (m_nLeft < 1)
            return false;
        b = (uint8_t)*m_p++;
        --m_nLeft;
        return true;
    }
    bool U32(uint32_t& ul)
    {
        if (m_nLeft < 4)
            return false;
        ul = 0;
        for (int i = 0; i < 4; ++i)
            ul |= (uint32_t)(uint8_t)m_p[i] << (8 * i);
        m_p += 4;
        m_nLeft -= 4;
        return true;
    }
    bool Text(QB_StringW& s)
    {
        uint32_t ulUnits = 0;
        if (!U32(ulUnits) || ulUnits > m_nLeft / 2)
            return false;
        std::u16string sUnits(ulUnits, u'\0');
        for (uint32_t i = 0; i < ulUnits; ++i)
            sUnits[i] = (char16_t)((uint8_t)m_p[2 * i] | (uint8_t)m_p[2 * i + 1] << 8);
        m_p += 2 * (size_t)ulUnits;
        m_nLeft -= 2 * (size_t)ulUnits;
        s = QB_StringW(sUnits.data(), (int)ulUnits);
        return true;
    }
    bool AtEnd() const { return m_nLeft == 0; }

private:
    const char* m_p;
    size_t m_nLeft;
};

// One change of a record: its kind, section and sets.
void PutChange(std::string& sBody, bool bRemove, const QB_StringW& sSection,
               const std::vector<std::pair<QB_StringW, QB_StringW>>& vecSets)
{
    sBody += (char)(bRemove ? kRemoveSection : kSetKeys);
    PutText(sBody, sSection);
    if (bRemove)
        return;
    PutU32(sBody, (uint32_t)vecSets.size());
    for (const auto& [sKey, sValue] : vecSets)
    {
        PutText(sBody, sKey);
        PutText(sBody, sValue);
    }
}

// Length and checksum in front of the body; the checksum covers both.
std::string Sealed(const std::string& sBody)
{
    std::string sRecord;
    PutU32(sRecord, (uint32_t)sBody.size());
    sRecord += sBody;
    const uint32_t ulCrc = Crc32c(sRecord.data(), sRecord.size());
    std::string sCrc;
    PutU32(sCrc, ulCrc);
    sRecord.insert(4, sCrc);
    return sRecord;
}

bool ReadAll(const QB_StringW& sPath, std::string& sBytes)
{
    QB_FileEx file;
    if (!file.Open(sPath, QB_FILE_READ | QB_FILE_OPEN_EXISTING))
        return false;
    const int32_t nLength = file.GetLength();
    sBytes.resize(nLength > 0 ? (size_t)nLength : 0);
    for (int32_t nDone = 0; nDone < nLength;)
    {
        const int32_t nRead = file.ReadAt((uint32_t)nDone, sBytes.data() + nDone, nLength - nDone);
        if (nRead <= 0)
        {
            sBytes.resize((size_t)nDone);  // what could be read is all there is
            break;
        }
        nDone += nRead;
    }
    return true;
}

uint32_t GetU32(const char* p)
{
    uint32_t ul = 0;
    for (int i = 0; i < 4; ++i)
        ul |= (uint32_t)(uint8_t)p[i] << (8 * i);
    return ul;
}

// Journals open in this process, by their full path.
std::mutex g_HeldMutex;
std::set<std::u16string> g_setHeld;

} // namespace

QB_IniJournal::QB_IniJournal(uint32_t nSectionTableSize, uint32_t nKeyTableSize)
    : m_IniFile(nSectionTableSize, nKeyTableSize)
{
}

QB_IniJournal::~QB_IniJournal()
{
    Release();
}

// Two owners appending to one journal from their own ends would write over
// each other's records; the second owner of a path therefore goes without
// one and rewrites the file per commit.
bool QB_IniJournal::Hold()
{
    m_sHeldPath = QB_GetEnv()->GetFullPathName(std::u16string(m_sJournalPath.View()));
    std::lock_guard<std::mutex> lock(g_HeldMutex);
    if (g_setHeld.insert(m_sHeldPath).second)
        return true;
    m_sHeldPath.clear();
    return false;
}

void QB_IniJournal::Release()
{
    if (m_sHeldPath.empty())
        return;
    std::lock_guard<std::mutex> lock(g_HeldMutex);
    g_setHeld.erase(m_sHeldPath);
    m_sHeldPath.clear();
}

bool QB_IniJournal::Open(const QB_StringW& sPath, bool bCreateUnicode)
{
    m_File.Close();
    Release();
    m_vecPending.clear();
    m_ulEnd = 0;
    m_bBroken = m_bTornTail = false;
    m_bNameDurable = true;
    m_sJournalPath = sPath + u".journal";
    const bool bExisted = QB_GetEnv()->GetFileAttributes(std::u16string(sPath.View())) != QB_ATTR_INVALID;
    if (!m_IniFile.Open(sPath, bCreateUnicode))
        return m_bJournaled = false;
    m_bJournaled = Hold();
    int nRecords = 0;
    std::string sBytes;
    if (!m_bJournaled)
    {
        // Another owner writes the journal: its changes are read, not folded in.
        if (ReadAll(m_sJournalPath, sBytes))
            Replay(sBytes, nRecords);
        return true;
    }
    // A journal can outlive a file whose making was never synced, and would
    // then be replayed over an empty ANSI one; so a new file is made durable,
    // as it stands, before anything is journaled against it.
    if (!bExisted)
        MakeDurable(sPath);
    if (ReadAll(m_sJournalPath, sBytes))
        Replay(sBytes, nRecords);
    m_ulRewriteAt = Bound();
    if (nRecords > 0)
        Rewrite();
    m_ulLastChangeTick = QB_GetEnv()->GetTickCount();
    return true;
}

// Applies every whole record from the head on; the first one that is cut
// short, fails its checksum or does not parse ends the replay, since no
// length behind it can be trusted. A record is read whole before any of it
// is applied, so a commit comes back whole or not at all.
void QB_IniJournal::Replay(const std::string& sBytes, int& nRecords)
{
    size_t nPos = kHeadSize;
    if (sBytes.size() < kHeadSize || std::memcmp(sBytes.data(), kMagic, kHeadSize) != 0)
        nPos = 0;
    std::vector<Change> vecRecord;
    while (nPos > 0 && sBytes.size() - nPos >= kRecordHeadSize)
    {
        const char* p = sBytes.data() + nPos;
        const uint32_t ulBody = GetU32(p);
        if (ulBody > sBytes.size() - nPos - kRecordHeadSize)
            break;
        std::string sChecked(p, 4);
        sChecked.append(p + kRecordHeadSize, ulBody);
        if (Crc32c(sChecked.data(), sChecked.size()) != GetU32(p + 4) ||
            !ParseRecord(p + kRecordHeadSize, ulBody, vecRecord))
            break;
        for (const Change& change : vecRecord)
        {
            if (change.bRemove)
                m_IniFile.DeleteSection(change.sSection);
            for (const auto& [sKey, sValue] : change.vecSets)
                m_IniFile.SetString(change.sSection, sKey, sValue);
        }
        ++nRecords;
        nPos += kRecordHeadSize + ulBody;
    }
    m_ulEnd = (uint32_t)nPos;
    m_bTornTail = nPos < sBytes.size();
    if (m_bTornTail)
        QB_WriteLog(QB_LOG_DAILY, "error", "QB_IniJournal: %u bytes at the end of %s ignored.\r\n",
                    (unsigned)(sBytes.size() - nPos), QB_StringA(m_sJournalPath).GetString());
}

// False, with the changes cut short, when the body is not a whole record.
bool QB_IniJournal::ParseRecord(const char* p, uint32_t ulBody, std::vector<Change>& vecChanges)
{
    vecChanges.clear();
    BodyReader body(p, ulBody);
    uint32_t ulChanges = 0;
    if (!body.U32(ulChanges))
        return false;
    for (uint32_t i = 0; i < ulChanges; ++i)
    {
        Change change;
        uint8_t bKind = 0;
        if (!body.U8(bKind) || (bKind != kSetKeys && bKind != kRemoveSection) || !body.Text(change.sSection))
            return false;
        change.bRemove = bKind == kRemoveSection;
        uint32_t ulSets = 0;
        if (!change.bRemove && !body.U32(ulSets))
            return false;
        for (uint32_t k = 0; k < ulSets; ++k)
        {
            QB_StringW sKey, sValue;
            if (!body.Text(sKey) || !body.Text(sValue))
                return false;
            change.vecSets.emplace_back(sKey, sValue);
        }
        vecChanges.push_back(std::move(change));
    }
    return body.AtEnd();
}

bool QB_IniJournal::SetString(const QB_StringW& sSection, const QB_StringW& sKey, const QB_StringW& sValue)
{
    if (!m_IniFile.SetString(sSection, sKey, sValue))
        return false;
    Note(false, sSection, sKey, sValue);
    return true;
}

bool QB_IniJournal::SetLong(const QB_StringW& sSection, const QB_StringW& sKey, int32_t nValue)
{
    QB_StringW sValue;
    sValue.Format("%d", nValue);
    return SetString(sSection, sKey, sValue);
}

bool QB_IniJournal::DeleteSection(const QB_StringW& sSection)
{
    if (!m_IniFile.DeleteSection(sSection))
        return false;
    Note(true, sSection, QB_StringW(), QB_StringW());
    return true;
}

void QB_IniJournal::Note(bool bRemove, const QB_StringW& sSection, const QB_StringW& sKey, const QB_StringW& sValue)
{
    m_ulLastChangeTick = QB_GetEnv()->GetTickCount();
    if (!m_bJournaled)
        return;
    if (bRemove || m_vecPending.empty() || m_vecPending.back().bRemove || m_vecPending.back().sSection != sSection)
        m_vecPending.push_back(Change{bRemove, sSection, {}});
    if (!bRemove)
        m_vecPending.back().vecSets.emplace_back(sKey, sValue);
}

bool QB_IniJournal::Commit()
{
    if (!m_bJournaled)
        return m_IniFile.Flush();
    if (m_vecPending.empty() && !m_bBroken)
        return true;
    bool bDone = !m_bBroken && Append(EncodePending());
    if (bDone)
    {
        m_vecPending.clear();
        if (m_ulEnd >= m_ulRewriteAt)
            Rewrite();  // the changes are durable already; this only bounds the journal
    }
    else
        bDone = Rewrite();
    // Changes that went out neither way are in memory already, and the next
    // commit writes the file whole. Kept as a list, they would be encoded
    // again at every save for as long as the disk refuses, each time one
    // save longer.
    if (!bDone)
    {
        m_vecPending.clear();
        m_bBroken = true;
    }
    // No handle is held between commits: an open costs little beside the
    // sync, and the owner's files stay closed while nothing is saved.
    m_File.Close();
    return bDone;
}

// The pending changes as one record, so that a commit is replayed whole
// or not at all. Empty, and the journal marked broken, when memory runs out.
std::string QB_IniJournal::EncodePending()
{
    std::string sBytes;
    try
    {
        std::string sBody;
        PutU32(sBody, (uint32_t)m_vecPending.size());
        for (const Change& change : m_vecPending)
            PutChange(sBody, change.bRemove, change.sSection, change.vecSets);
        sBytes = Sealed(sBody);
    }
    catch (const std::bad_alloc&)
    {
        m_bBroken = true;
        sBytes.clear();
    }
    return sBytes;
}

void QB_IniJournal::Close()
{
    if (m_bJournaled && (m_ulEnd > kHeadSize || m_bBroken || !m_vecPending.empty()))
        Rewrite();
    m_File.Close();
    Release();
    m_bJournaled = false;
}

void QB_IniJournal::RewriteIfQuiet()
{
    const bool bHolds = m_ulEnd > kHeadSize || m_bBroken || !m_vecPending.empty();
    if (m_bJournaled && bHolds && QB_GetEnv()->GetTickCount() - m_ulLastChangeTick >= kQuietMs)
        Rewrite();
}

// The ini file first, whole and synced; the journal only after it, so that
// a crash between the two replays changes the file already holds.
bool QB_IniJournal::Rewrite()
{
    if (!m_bJournaled)
        return m_IniFile.Flush();
    if (!m_IniFile.Flush())
    {
        // A file that can't be replaced now is tried again a bound later,
        // not at every change.
        m_ulRewriteAt = m_ulEnd + Bound();
        return false;
    }
    m_vecPending.clear();
    m_ulRewriteAt = Bound();
    if (m_ulEnd == 0 && !m_bTornTail && !m_bBroken)
        return true;
    const bool bCut = OpenForAppend() && m_File.Seek(0, QB_SEEK_BEGIN) == 0 && m_File.SetEnd();
    m_File.Close();
    m_ulEnd = 0;
    m_bTornTail = !bCut;
    m_bBroken = false;
    return true;
}

// A failure leaves the journal to write the file whole at its first commit.
void QB_IniJournal::MakeDurable(const QB_StringW& sPath)
{
    QB_FileEx file;
    std::u16string sFolder = QB_GetEnv()->GetFullPathName(std::u16string(sPath.View()));
    sFolder.erase(sFolder.rfind(u'\\') + 1);
    if (!file.Open(sPath, QB_FILE_READWRITE | QB_FILE_OPEN_EXISTING | QB_FILE_NO_LINK) || !file.Sync() ||
        !QB_GetEnv()->FlushFolder(sFolder))
        m_bBroken = true;
}

bool QB_IniJournal::OpenForAppend()
{
    if (m_File.IsOpen())
        return true;
    // A name made now, or made before and not yet synced, is synced with the next append.
    if (QB_GetEnv()->GetFileAttributes(std::u16string(m_sJournalPath.View())) == QB_ATTR_INVALID)
        m_bNameDurable = false;
    return m_File.Open(m_sJournalPath, QB_FILE_READWRITE | QB_FILE_OPEN_ALWAYS | QB_FILE_NO_LINK);
}

// Writes behind the last valid byte, cutting whatever lies there first; a
// journal made now is synced into its folder as well, or a crash could
// lose its name with every change in it.
bool QB_IniJournal::Append(const std::string& sBytes)
{
    if (m_bBroken || !OpenForAppend())
        return false;
    std::string sWrite;
    if (m_ulEnd < kHeadSize)
    {
        m_ulEnd = 0;
        m_bTornTail = m_File.GetLength() != 0;  // a head cut short; a new journal has nothing to cut
        sWrite.assign(kMagic, kHeadSize);
    }
    sWrite += sBytes;
    if (sWrite.size() > 0x7FFFFFFFu - m_ulEnd)
        return m_bBroken = true, false;
    if (m_bTornTail && !(m_File.Seek((int32_t)m_ulEnd, QB_SEEK_BEGIN) == (int32_t)m_ulEnd && m_File.SetEnd()))
        return m_bBroken = true, false;
    m_bTornTail = false;
    if (m_File.WriteAt(m_ulEnd, sWrite.data(), (int32_t)sWrite.size()) != (int32_t)sWrite.size() || !m_File.Sync())
        return m_bBroken = true, false;
    m_ulEnd += (uint32_t)sWrite.size();
    if (!m_bNameDurable)
    {
        std::u16string sFolder = QB_GetEnv()->GetFullPathName(std::u16string(m_sJournalPath.View()));
        sFolder.erase(sFolder.rfind(u'\\') + 1);
        if (!QB_GetEnv()->FlushFolder(sFolder))
            return m_bBroken = true, false;
        m_bNameDurable = true;
    }
    return true;
}

uint32_t QB_IniJournal::Bound() const
{
    const size_t nQuarter = m_IniFile.GetFileBytes() / 4;
    return nQuarter > kMinRewriteBytes ? (uint32_t)std::min<size_t>(nQuarter, 0x40000000u) : kMinRewriteBytes;
}
