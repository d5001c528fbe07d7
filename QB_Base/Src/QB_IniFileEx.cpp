#include "QB_IniFileEx.h"

#include "QB_Env.h"
#include "QB_FileEx.h"

#include <algorithm>
#include <bit>
#include <cassert>
#include <charconv>
#include <cstddef>
#include <new>
#include <unordered_map>

namespace {

const char kBom[2] = {'\xFF', '\xFE'};

bool IsCommentText(const QB_StringW& sLine)
{
    int nLength = sLine.GetLength();
    return (nLength >= 1 && sLine[0] == u';') || (nLength >= 2 && sLine[0] == u'=' && sLine[1] == u';');
}

bool IsValidSection(const QB_StringW& sSection)
{
    return !sSection.IsEmpty() && sSection.Find(u'=') < 0;
}

bool IsValidKey(const QB_StringW& sKey)
{
    return sKey.Find(u'=') < 0;
}

// Callers may name a section with or without its brackets.
QB_StringW Bracketed(const QB_StringW& sSection)
{
    bool bOpen = sSection[0] == u'[';
    bool bClose = sSection[sSection.GetLength() - 1] == u']';
    if (bOpen && bClose)
        return sSection;
    QB_StringW sName(bOpen ? u"" : u"[");
    sName += sSection;
    if (!bClose)
        sName += u']';
    return sName;
}

// An empty key with a value stands for a comment, which is kept without the
// "=" that the key would leave in front of it.
QB_StringW LineText(const QB_StringW& sKey, const QB_StringW& sValue)
{
    QB_StringW sText(sValue);
    if (sKey.IsEmpty() && !sValue.IsEmpty() && sValue[0] != u';')
        sText = QB_StringW(u";") + sValue;
    if (sKey.IsEmpty() && !sText.IsEmpty())
        return sText;
    return sKey + u"=" + sText;
}

bool IsBlankChar(char16_t ch)
{
    return ch == u' ' || (ch >= 9 && ch <= 13);
}

// The leading signed decimal number after white space, 0 when there is
// none; out-of-range text stops at the limits of 32 bits.
int32_t ParseLong(const QB_StringW& sText)
{
    int i = 0;
    int nLength = sText.GetLength();
    while (i < nLength && IsBlankChar(sText[i]))
        ++i;
    bool bNegative = false;
    if (i < nLength && (sText[i] == u'+' || sText[i] == u'-'))
        bNegative = sText[i++] == u'-';
    int64_t llValue = 0;
    for (; i < nLength && sText[i] >= u'0' && sText[i] <= u'9'; ++i)
    {
        llValue = llValue * 10 + (sText[i] - u'0');
        if (llValue > (int64_t)INT32_MAX + 1)
            llValue = (int64_t)INT32_MAX + 1;
    }
    if (bNegative)
        return (int32_t)-llValue;
    return llValue > INT32_MAX ? INT32_MAX : (int32_t)llValue;
}

// Cuts the text at each CR LF, after dropping the CR, LF and zero characters
// at its end; the part behind the last CR LF is a line too, so there is
// always at least one. A lone CR or LF stays inside its line.
template <typename CharT, typename Fn>
void ForEachLine(const CharT* pText, size_t nLength, Fn fnLine)
{
    while (nLength > 0 && (pText[nLength - 1] == '\r' || pText[nLength - 1] == '\n' || pText[nLength - 1] == 0))
        --nLength;
    size_t nStart = 0;
    for (size_t i = 0; i + 1 < nLength; ++i)
    {
        if (pText[i] == '\r' && pText[i + 1] == '\n')
        {
            fnLine(pText + nStart, i - nStart);
            nStart = i + 2;
            ++i;
        }
    }
    fnLine(pText + nStart, nLength - nStart);
}

void AppendUtf16(std::string& sOut, const char16_t* pch, int nCount)
{
    if constexpr (std::endian::native == std::endian::little)
    {
        sOut.append(reinterpret_cast<const char*>(pch), 2 * (size_t)nCount);
        return;
    }
    for (int i = 0; i < nCount; ++i)
    {
        sOut += (char)(pch[i] & 0xFF);
        sOut += (char)(pch[i] >> 8);
    }
}

// Read by position, so wherever the file stands no seek is needed.
bool ReadAll(QB_FileEx& file, std::string& sBytes)
{
    int32_t nLength = file.GetLength();
    if (nLength < 0)
        return false;
    sBytes.resize((size_t)nLength);
    for (int32_t nDone = 0; nDone < nLength;)
    {
        int32_t nRead = file.ReadAt((uint32_t)nDone, sBytes.data() + nDone, nLength - nDone);
        if (nRead <= 0)
            return false;
        nDone += nRead;
    }
    return true;
}

bool WriteAll(QB_FileEx& file, const std::string& sBytes)
{
    size_t nDone = 0;
    while (nDone < sBytes.size())
    {
        size_t nLeft = sBytes.size() - nDone;
        int32_t nWritten = file.Write(sBytes.data() + nDone, nLeft > (1u << 30) ? (1 << 30) : (int32_t)nLeft);
        if (nWritten <= 0)
            return false;
        nDone += (size_t)nWritten;
    }
    return true;
}

// Counts names while a file loads. Nothing is removed during a load, so the
// lowest free occurrence of a name is always one above its count, and no
// probing of the fixed-size maps is needed.
using QB_IniNameCount = std::unordered_map<QB_IniKey, int, QB_IniKeyIndexHash>;

int NextOccurrence(QB_IniNameCount& mapCount, const QB_StringW& sName)
{
    return ++mapCount[QB_IniKey(sName, 0)];
}

} // namespace

bool QB_IniKey::operator==(const QB_IniKey& key) const
{
    int nLength = m_sName.GetLength();
    if (m_nOccurrence != key.m_nOccurrence || nLength != key.m_sName.GetLength())
        return false;
    for (int i = 0; i < nLength; ++i)
        if (QB_CharLowerW(m_sName[i]) != QB_CharLowerW(key.m_sName[i]))
            return false;
    return true;
}

uint32_t QB_IniKeyHash::operator()(const QB_IniKey& key) const
{
    uint32_t h = 0;
    for (int i = 0; i < key.m_sName.GetLength(); ++i)
        h = h * 33 + QB_CharLowerW(key.m_sName[i]);
    if (key.m_nOccurrence > 1)
    {
        char szDigits[16] = {'+'};
        char* pEnd = std::to_chars(szDigits + 1, szDigits + sizeof szDigits, key.m_nOccurrence).ptr;
        for (const char* p = szDigits; p < pEnd; ++p)
            h = h * 33 + (unsigned char)*p;
    }
    return h;
}

QB_IniLine::~QB_IniLine()
{
    assert((m_type == Section) == (m_lpMapKey2Value != NULL));
    if (m_type == Other || m_type == Section)
        assert(m_lpSection == NULL);
    if (m_type == Key || m_type == Comment)
        assert(m_lpSection != NULL);
    delete m_lpMapKey2Value;
}

QB_IniLine::Type QB_IniLine::Classify(const QB_StringW& sLine)
{
    int nLength = sLine.GetLength();
    if (sLine.Find(u'=') > 0 && sLine[0] != u';')
        return Key;
    if (nLength > 0 && sLine[0] == u'[' && sLine[nLength - 1] == u']')
        return Section;
    if (IsCommentText(sLine))
        return Comment;
    if (nLength == 0 || sLine == u"=")
        return Blank;
    return Other;
}

struct QB_IniFileEx::LoadState
{
    QB_IniLine* lpSection = nullptr;
    std::string sHeader;
    QB_IniNameCount mapSectionCount;
    QB_IniNameCount mapKeyCount;  // of the current section
};

QB_IniFileEx::QB_IniFileEx(uint32_t nSectionTableSize, uint32_t nKeyTableSize)
    : m_nKeyTableSize(nKeyTableSize > 0 ? nKeyTableSize : 1), m_mapSections(nSectionTableSize > 0 ? nSectionTableSize : 1)
{
}

QB_IniFileEx::~QB_IniFileEx()
{
    Clear();
}

void QB_IniFileEx::Clear()
{
    for (QB_IniLine* lpLine = m_lpFirst; lpLine;)
    {
        QB_IniLine* lpNext = lpLine->m_lpNext;
        delete lpLine;
        lpLine = lpNext;
    }
    m_lpFirst = m_lpLast = nullptr;
    m_mapSections.RemoveAll();
    m_indexSections.clear();
    m_vecSectionOrder.clear();
    m_bUnicode = false;
    m_sHeader.Empty();
    m_bSectionSeen = false;
    m_nFileBytes = 0;
}

bool QB_IniFileEx::Open(const QB_StringW& sPath, bool bCreateUnicode)
{
    return Open(QB_StringA(sPath), bCreateUnicode);
}

// The path is kept in its ANSI form and opened through it, so a name that
// the code page can't hold is not found even when it was given wide.
bool QB_IniFileEx::Open(const QB_StringA& sPath, bool bCreateUnicode)
{
    Clear();
    m_sFileName = sPath;
    try
    {
        std::string sBytes;
        if (!ReadWholeFile(bCreateUnicode, sBytes))
        {
            Clear();
            return false;
        }
        m_nFileBytes = sBytes.size();
        if (sBytes.size() < 2)
            return true;
        m_bUnicode = sBytes[0] == kBom[0] && sBytes[1] == kBom[1];
        Load(sBytes);
        return true;
    }
    catch (const std::bad_alloc&)
    {
        Clear();
        return false;
    }
}

bool QB_IniFileEx::ReadWholeFile(bool bCreateUnicode, std::string& sBytes)
{
    QB_StringW sPath(m_sFileName);
    bool bExists = QB_GetEnv()->GetFileAttributes(std::u16string(sPath.View())) != QB_ATTR_INVALID;
    QB_FileEx file;
    if (!file.Open(sPath, QB_FILE_READWRITE | QB_FILE_OPEN_ALWAYS))
        return false;
    if (!bExists && bCreateUnicode)
    {
        m_bUnicode = true;
        file.Write(kBom, 2);
    }
    bool bRead = ReadAll(file, sBytes);
    file.Close();
    return bRead;
}

void QB_IniFileEx::Load(const std::string& sBytes)
{
    LoadState state;
    if (m_bUnicode)
    {
        // An odd byte at the end is half a character and is dropped.
        std::u16string sText((sBytes.size() - 2) / 2, u'\0');
        for (size_t i = 0; i < sText.size(); ++i)
            sText[i] = (char16_t)((uint8_t)sBytes[2 + 2 * i] | (uint8_t)sBytes[3 + 2 * i] << 8);
        ForEachLine(sText.data(), sText.size(),
                    [&](const char16_t* pch, size_t n) { LoadLine(QB_StringW(pch, (int)n), state); });
    }
    else
    {
        ForEachLine(sBytes.data(), sBytes.size(),
                    [&](const char* pch, size_t n) { LoadLine(QB_AnsiToWide(pch, (int)n), state); });
    }
    m_sHeader = QB_StringA(state.sHeader.data(), (int)state.sHeader.size());
}

void QB_IniFileEx::LoadLine(const QB_StringW& sLine, LoadState& state)
{
    if (!m_bSectionSeen && QB_IniLine::Classify(sLine) != QB_IniLine::Section)
    {
        // With no section to belong to, only a comment keeps its text.
        if (IsCommentText(sLine))
        {
            QB_StringA sAnsi(sLine);
            state.sHeader.append(sAnsi.GetString(), (size_t)sAnsi.GetLength());
        }
        state.sHeader += "\r\n";
        return;
    }
    m_bSectionSeen = true;
    QB_IniLine* lpLine = NewLine(sLine, state.lpSection);
    // Nothing is written yet, so there is no block to touch; a run of lines
    // without a section pointer would make each touch walk back over all.
    (m_lpLast ? m_lpLast->m_lpNext : m_lpFirst) = lpLine;
    lpLine->m_lpPrev = m_lpLast;
    m_lpLast = lpLine;
    if (lpLine->m_type == QB_IniLine::Section)
    {
        lpLine->m_Key.m_nOccurrence = NextOccurrence(state.mapSectionCount, lpLine->m_Key.m_sName);
        AddSection(lpLine);
        state.lpSection = lpLine;
        state.mapKeyCount.clear();  // keeps its buckets: no allocation per section
    }
    else if (lpLine->m_type == QB_IniLine::Key || lpLine->m_type == QB_IniLine::Comment)
    {
        lpLine->m_Key.m_nOccurrence = NextOccurrence(state.mapKeyCount, lpLine->m_Key.m_sName);
        state.lpSection->m_lpMapKey2Value->SetAt(lpLine->m_Key, lpLine);
    }
}

// A new line, classified, with its key, value and section; the caller gives
// it its occurrence and its place.
QB_IniLine* QB_IniFileEx::NewLine(const QB_StringW& sLine, QB_IniLine* lpSection) const
{
    auto* lpLine = new QB_IniLine;
    lpLine->m_type = QB_IniLine::Classify(sLine);
    lpLine->m_sLine = sLine;
    switch (lpLine->m_type)
    {
    case QB_IniLine::Key:
    {
        int nEqual = sLine.Find(u'=');
        lpLine->m_Key.m_sName = sLine.Left(nEqual);
        lpLine->m_sValue = sLine.Mid(nEqual + 1);
        lpLine->m_lpSection = lpSection;
        break;
    }
    case QB_IniLine::Section:
        lpLine->m_Key.m_sName = sLine;
        lpLine->m_lpMapKey2Value = new QB_IniLineMap(m_nKeyTableSize);
        break;
    case QB_IniLine::Comment:
        lpLine->m_Key.m_sName = sLine;
        lpLine->m_lpSection = lpSection;
        break;
    case QB_IniLine::Blank:
        lpLine->m_lpSection = lpSection;
        break;
    case QB_IniLine::Other:
        break;
    }
    return lpLine;
}

QB_IniLine* QB_IniFileEx::FindSection(const QB_StringW& sName, int nOccurrence) const
{
    auto it = m_indexSections.find(QB_IniKey(sName, nOccurrence));
    return it == m_indexSections.end() ? nullptr : it->second;
}

// The caller knows the name and occurrence to be new.
void QB_IniFileEx::AddSection(QB_IniLine* lpSection)
{
    m_mapSections.AddNew(lpSection->m_Key) = lpSection;
    m_indexSections.emplace(lpSection->m_Key, lpSection);
    m_vecSectionOrder.push_back(lpSection);
}

// Forgets the written bytes of the block that holds the line.
void QB_IniFileEx::Touch(QB_IniLine* lpLine)
{
    while (lpLine && lpLine->m_type != QB_IniLine::Section && !lpLine->m_lpSection)
        lpLine = lpLine->m_lpPrev;
    if (lpLine)
        (lpLine->m_type == QB_IniLine::Section ? lpLine : lpLine->m_lpSection)->m_sBlockBytes.clear();
}

// Only the first occurrence of a section and of a key is reached by name.
const QB_IniLine* QB_IniFileEx::FindKey(const QB_StringW& sSection, const QB_StringW& sKey) const
{
    if (!IsValidSection(sSection) || !IsValidKey(sKey))
        return nullptr;
    const QB_IniLine* lpSection = FindSection(Bracketed(sSection), 1);
    QB_IniLine* lpLine = nullptr;
    if (lpSection)
        lpSection->m_lpMapKey2Value->Lookup(QB_IniKey(sKey, 1), lpLine);
    return lpLine;
}

QB_IniLine* QB_IniFileEx::AppendSection(const QB_StringW& sName)
{
    QB_IniLine* lpSection = NewLine(sName, nullptr);
    assert(lpSection->m_type == QB_IniLine::Section);
    lpSection->m_Key.m_nOccurrence = 1;
    AddSection(lpSection);
    LinkAfter(lpSection, m_lpLast);
    return lpSection;
}

// Puts the line behind lpPrev, or at the front when lpPrev is null.
void QB_IniFileEx::LinkAfter(QB_IniLine* lpLine, QB_IniLine* lpPrev)
{
    if (lpLine->m_type != QB_IniLine::Section)
        Touch(lpPrev);
    QB_IniLine* lpNext = lpPrev ? lpPrev->m_lpNext : m_lpFirst;
    lpLine->m_lpPrev = lpPrev;
    lpLine->m_lpNext = lpNext;
    (lpPrev ? lpPrev->m_lpNext : m_lpFirst) = lpLine;
    (lpNext ? lpNext->m_lpPrev : m_lpLast) = lpLine;
}

void QB_IniFileEx::Unlink(QB_IniLine* lpLine)
{
    if (lpLine->m_type != QB_IniLine::Section)
        Touch(lpLine->m_lpPrev);
    (lpLine->m_lpPrev ? lpLine->m_lpPrev->m_lpNext : m_lpFirst) = lpLine->m_lpNext;
    (lpLine->m_lpNext ? lpLine->m_lpNext->m_lpPrev : m_lpLast) = lpLine->m_lpPrev;
    lpLine->m_lpPrev = lpLine->m_lpNext = nullptr;
}

void QB_IniFileEx::DeleteKeyLine(QB_IniLine* lpLine)
{
    Unlink(lpLine);
    lpLine->m_lpSection->m_lpMapKey2Value->RemoveKey(lpLine->m_Key);
    delete lpLine;
}

// The section's key map goes with its line, so the lines behind it need
// not leave the map one by one.
void QB_IniFileEx::DeleteSectionLines(QB_IniLine* lpSection)
{
    QB_IniLine* lpLine = lpSection->m_lpNext;
    while (lpLine && lpLine->m_type != QB_IniLine::Section)
    {
        QB_IniLine* lpNext = lpLine->m_lpNext;
        Unlink(lpLine);
        delete lpLine;
        lpLine = lpNext;
    }
    m_mapSections.RemoveKey(lpSection->m_Key);
    m_indexSections.erase(lpSection->m_Key);
    m_vecSectionOrder.erase(std::find(m_vecSectionOrder.begin(), m_vecSectionOrder.end(), lpSection));
    Unlink(lpSection);
    delete lpSection;
}

bool QB_IniFileEx::Flush()
{
    if (m_sFileName.IsEmpty())
        return false;
    QB_StringW sPath(m_sFileName);
    uint32_t ulAttributes = QB_GetEnv()->GetFileAttributes(std::u16string(sPath.View()));
    if (ulAttributes != QB_ATTR_INVALID && (ulAttributes & QB_ATTR_READONLY))
        return false;
    // Built before the file is cut, so a failure here leaves the old file.
    try
    {
        Serialize(m_sFlushBytes);
    }
    catch (const std::bad_alloc&)
    {
        return false;
    }
    if (!ReplaceWhole(sPath, m_sFlushBytes))
        return false;
    m_nFileBytes = m_sFlushBytes.size();
    return true;
}

// The new text is written beside the old file, made durable and renamed
// over it, rather than written into the old file in place: a write that
// fails or a process that dies half way would otherwise leave a cut file
// and lose rows saved long before. So the name always holds a whole file,
// the old one or the new one, with the same bytes an in-place write gives.
bool QB_IniFileEx::ReplaceWhole(const QB_StringW& sPath, const std::string& sBytes)
{
    const QB_StringW sBeside = sPath + u".new";
    QB_Env* lpEnv = QB_GetEnv();
    QB_FileEx file;
    if (!file.Open(sBeside, QB_FILE_WRITE | QB_FILE_CREATE_ALWAYS | QB_FILE_NO_LINK))
        return false;
    const bool bWritten = WriteAll(file, sBytes) && file.Sync();
    file.Close();
    if (!bWritten || !lpEnv->MoveFile(std::u16string(sBeside.View()), std::u16string(sPath.View())))
    {
        lpEnv->DeleteFile(std::u16string(sBeside.View()));
        return false;
    }
    std::u16string sFolder = lpEnv->GetFullPathName(std::u16string(sPath.View()));
    sFolder.erase(sFolder.rfind(u'\\') + 1);
    return lpEnv->FlushFolder(sFolder);
}

void QB_IniFileEx::Serialize(std::string& sOut)
{
    sOut.clear();
    if (m_bUnicode)
    {
        sOut.append(kBom, 2);
        QB_StringW sHeader(m_sHeader);
        AppendUtf16(sOut, sHeader.GetString(), sHeader.GetLength());
    }
    else
    {
        sOut.append(m_sHeader.GetString(), (size_t)m_sHeader.GetLength());
    }
    for (QB_IniLine* lpSection : m_vecSectionOrder)
    {
        if (lpSection->m_sBlockBytes.empty())
        {
            std::string sBlock;  // kept only when whole
            SerializeBlock(lpSection, sBlock);
            lpSection->m_sBlockBytes = std::move(sBlock);
        }
        sOut += lpSection->m_sBlockBytes;
    }
}

void QB_IniFileEx::SerializeBlock(const QB_IniLine* lpSection, std::string& sOut) const
{
    for (const QB_IniLine* lpLine = lpSection; lpLine && (lpLine == lpSection || lpLine->m_type != QB_IniLine::Section);
         lpLine = lpLine->m_lpNext)
    {
        if (m_bUnicode)
        {
            AppendUtf16(sOut, lpLine->m_sLine.GetString(), lpLine->m_sLine.GetLength());
            AppendUtf16(sOut, u"\r\n", 2);
        }
        else
        {
            QB_StringA sLine(lpLine->m_sLine);
            sOut.append(sLine.GetString(), (size_t)sLine.GetLength());
            sOut += "\r\n";
        }
    }
}

bool QB_IniFileEx::GetSectionNames(QB_Array<QB_StringW>& arrNames) const
{
    arrNames.RemoveAll();
    if (!m_lpFirst || m_mapSections.GetCount() == 0)
        return false;
    QB_POSITION pos = m_mapSections.GetStartPosition();
    while (pos)
    {
        QB_IniKey key;
        QB_IniLine* lpSection = nullptr;
        m_mapSections.GetNextAssoc(pos, key, lpSection);
        arrNames.Add(lpSection->m_sLine);
    }
    return true;
}

void QB_IniFileEx::GetSectionLongs(const std::vector<QB_StringW>& vecKeys, int32_t nDefault,
                                   QB_Array<QB_StringW>& arrNames, std::vector<int32_t>& vecValues) const
{
    arrNames.RemoveAll();
    vecValues.clear();
    if (!m_lpFirst)
        return;
    std::vector<QB_IniKey> vecKeyNames;
    for (const QB_StringW& sKey : vecKeys)
        vecKeyNames.emplace_back(sKey, 1);
    arrNames.SetSize(0, (int)m_mapSections.GetCount());
    vecValues.reserve(vecKeys.size() * m_mapSections.GetCount());
    QB_POSITION pos = m_mapSections.GetStartPosition();
    while (pos)
    {
        QB_IniKey key;
        QB_IniLine* lpSection = nullptr;
        m_mapSections.GetNextAssoc(pos, key, lpSection);
        const QB_StringW& sName = lpSection->m_sLine;
        arrNames.Add(sName);
        // As GetLong reads it: by name, a repeated section reads as the first
        // of its name, and a name GetLong would not take reads as missing.
        const bool bPlain = lpSection->m_Key.m_nOccurrence == 1 && sName[0] == u'[' &&
                            sName[sName.GetLength() - 1] == u']' && IsValidSection(sName);
        const QB_IniLine* lpValues = bPlain ? lpSection : IsValidSection(sName) ? FindSection(Bracketed(sName), 1) : nullptr;
        for (size_t k = 0; k < vecKeyNames.size(); ++k)
        {
            QB_IniLine* lpLine = nullptr;
            // A key that is invalid, missing or says "error" gives the default.
            const bool bFound = lpValues != nullptr && IsValidKey(vecKeys[k]) &&
                                lpValues->m_lpMapKey2Value->Lookup(vecKeyNames[k], lpLine);
            vecValues.push_back(bFound && lpLine->m_sValue != u"error" ? ParseLong(lpLine->m_sValue) : nDefault);
        }
    }
}

bool QB_IniFileEx::GetSectionNames(QB_Array<QB_StringA>& arrNames) const
{
    QB_Array<QB_StringW> arrWide;
    bool bAny = GetSectionNames(arrWide);
    arrNames.RemoveAll();
    for (int i = 0; i < arrWide.GetSize(); ++i)
        arrNames.Add(QB_StringA(arrWide.GetAt(i)));
    return bAny;
}

QB_StringW QB_IniFileEx::GetString(const QB_StringW& sSection, const QB_StringW& sKey,
                                   const QB_StringW& sDefault) const
{
    const QB_IniLine* lpLine = FindKey(sSection, sKey);
    return lpLine ? lpLine->m_sValue : sDefault;
}

QB_StringA QB_IniFileEx::GetString(const QB_StringA& sSection, const QB_StringA& sKey,
                                   const QB_StringA& sDefault) const
{
    return QB_StringA(GetString(QB_StringW(sSection), QB_StringW(sKey), QB_StringW(sDefault)));
}

bool QB_IniFileEx::GetString(const QB_StringA& sSection, const QB_StringA& sKey, QB_StringA& sValue,
                             const QB_StringA& sDefault) const
{
    sValue = GetString(sSection, sKey, sDefault);
    return sValue != sDefault;
}

int32_t QB_IniFileEx::GetLong(const QB_StringW& sSection, const QB_StringW& sKey, int32_t nDefault) const
{
    QB_StringW sValue = GetString(sSection, sKey, QB_StringW(u"error"));
    return sValue == u"error" ? nDefault : ParseLong(sValue);
}

int32_t QB_IniFileEx::GetLong(const QB_StringA& sSection, const QB_StringA& sKey, int32_t nDefault) const
{
    return GetLong(QB_StringW(sSection), QB_StringW(sKey), nDefault);
}

// The line goes directly behind its section line, replacing the first line
// of the same key, so a key that is set ends up at the top of its section.
bool QB_IniFileEx::SetString(const QB_StringW& sSection, const QB_StringW& sKey, const QB_StringW& sValue)
{
    if (!IsValidSection(sSection) || !IsValidKey(sKey))
        return false;
    QB_StringW sName = Bracketed(sSection);
    QB_IniLine* lpSection = FindSection(sName, 1);
    if (!lpSection)
        lpSection = AppendSection(sName);
    QB_IniLine* lpLine = NewLine(LineText(sKey, sValue), lpSection);
    if (lpLine->m_type == QB_IniLine::Key || lpLine->m_type == QB_IniLine::Comment)
    {
        QB_IniLineMap* lpMap = lpSection->m_lpMapKey2Value;
        lpLine->m_Key.m_nOccurrence = 1;
        QB_IniLine* lpOld = nullptr;
        if (lpMap->Lookup(lpLine->m_Key, lpOld))
            DeleteKeyLine(lpOld);
        lpMap->SetAt(lpLine->m_Key, lpLine);
    }
    LinkAfter(lpLine, lpSection);
    return true;
}

bool QB_IniFileEx::SetString(const QB_StringA& sSection, const QB_StringA& sKey, const QB_StringA& sValue)
{
    return SetString(QB_StringW(sSection), QB_StringW(sKey), QB_StringW(sValue));
}

bool QB_IniFileEx::SetLong(const QB_StringW& sSection, const QB_StringW& sKey, int32_t nValue)
{
    QB_StringW sValue;
    sValue.Format("%d", nValue);
    return SetString(sSection, sKey, sValue);
}

bool QB_IniFileEx::SetLong(const QB_StringA& sSection, const QB_StringA& sKey, int32_t nValue)
{
    return SetLong(QB_StringW(sSection), QB_StringW(sKey), nValue);
}

bool QB_IniFileEx::SetBool(const QB_StringW& sSection, const QB_StringW& sKey, bool bValue)
{
    return SetString(sSection, sKey, QB_StringW(bValue ? u"1" : u"0"));
}

bool QB_IniFileEx::SetBool(const QB_StringA& sSection, const QB_StringA& sKey, bool bValue)
{
    return SetBool(QB_StringW(sSection), QB_StringW(sKey), bValue);
}

bool QB_IniFileEx::DeleteSection(const QB_StringW& sSection)
{
    if (!IsValidSection(sSection))
        return false;
    QB_StringW sName = Bracketed(sSection);
    bool bDeleted = false;
    for (int nOccurrence = 1;; ++nOccurrence)
    {
        QB_IniLine* lpSection = FindSection(sName, nOccurrence);
        if (!lpSection)
            return bDeleted;
        DeleteSectionLines(lpSection);
        bDeleted = true;
    }
}

bool QB_IniFileEx::DeleteSection(const QB_StringA& sSection)
{
    return DeleteSection(QB_StringW(sSection));
}
