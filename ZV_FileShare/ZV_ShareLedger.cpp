#include "ZV_ShareLedger.h"

#include "QB_Env.h"
#include "QB_Log.h"

#include <cstdlib>

namespace {

constexpr char16_t kConfID[] = u"ConfID";
constexpr char16_t kPath[] = u"Path";
constexpr char16_t kLength[] = u"Length";
constexpr char16_t kModifyTime[] = u"ModifyTime";

QB_StringU8 LocalPath(const ZV_FileBriefInfo& brief)
{
    return brief.m_sFilePath + brief.m_sFileOldName;
}

// A line end inside a value would split its line when the file is read.
bool FitsOneLine(const QB_StringW& s)
{
    return s.Find(u'\r') < 0 && s.Find(u'\n') < 0;
}

} // namespace

ZV_ShareLedger::ZV_ShareLedger() : m_Lock("ZV_ShareLedger::m_Lock"), m_IniFile(17, 17)
{
}

std::string ZV_ShareLedger::KeyOf(uint32_t ulConfID, const QB_StringU8& sPath)
{
    return std::to_string(ulConfID & 0xFFFF) + '\n' + std::string(sPath.GetString(), (size_t)sPath.GetLength());
}

// Only rows with all their keys count; anything else in the file is kept
// as it stands and means nothing. A look-up makes no file: only the first
// share does.
void ZV_ShareLedger::Load(bool bCreate)
{
    std::u16string sPath = QB_GetEnv()->GetModuleFolder() + u"fsshared.ini";
    if (m_bLoaded || (!bCreate && QB_GetEnv()->GetFileAttributes(sPath) == QB_ATTR_INVALID))
        return;
    m_bLoaded = true;
    if (!m_IniFile.Open(QB_StringW(sPath.c_str()), true))
    {
        QB_WriteLog(2, "error", "ZV_ShareLedger::Load failed.\r\n");
        return;
    }
    QB_Array<QB_StringW> arrNames;
    m_IniFile.GetSectionNames(arrNames);
    for (int i = 0; i < arrNames.GetSize(); ++i)
        LoadRow(arrNames[i]);
}

void ZV_ShareLedger::LoadRow(const QB_StringW& sSection)
{
    const int32_t nConfID = m_IniFile.GetLong(sSection, kConfID, -1);
    const QB_StringW sPath = m_IniFile.GetString(sSection, kPath, QB_StringW());
    const QB_StringW sLength = m_IniFile.GetString(sSection, kLength, QB_StringW());
    const QB_StringW sTime = m_IniFile.GetString(sSection, kModifyTime, QB_StringW());
    const int nNumber = atoi(QB_StringA(sSection.Mid(2)).GetString());
    if (nNumber > m_nLastSection)
        m_nLastSection = nNumber;
    if (nConfID < 0 || sPath.IsEmpty() || sLength.IsEmpty() || sTime.IsEmpty())
        return;
    Row row;
    row.sSection = sSection;
    row.ulLength = (uint32_t)m_IniFile.GetLong(sSection, kLength, 0);
    row.sModifyTime = QB_StringA(sTime).GetString();
    m_mapRows[KeyOf((uint32_t)nConfID, QB_StringU8(sPath))] = row;
}

bool ZV_ShareLedger::Remember(uint32_t ulConfID, const ZV_FileBriefInfo& brief)
{
    QB_Lock lock(&m_Lock);
    Load(true);
    return Note(ulConfID, brief) && Save();
}

bool ZV_ShareLedger::Remember(uint32_t ulConfID, const QB_Array<ZV_FileBriefInfo>& arrInfo)
{
    QB_Lock lock(&m_Lock);
    Load(true);
    bool bNoted = true;
    for (int i = 0; i < arrInfo.GetSize(); ++i)
        bNoted = Note(ulConfID, arrInfo[i]) && bNoted;
    return Save() && bNoted;
}

// The row in memory, and in the file's lines unless the path cannot stand
// on one line; false then.
bool ZV_ShareLedger::Note(uint32_t ulConfID, const ZV_FileBriefInfo& brief)
{
    const QB_StringU8 sPath = LocalPath(brief);
    // A folder or name the record could not hold would make another path.
    if (brief.m_sFilePath.IsEmpty() || brief.m_sFileOldName.IsEmpty())
        return false;
    Row& row = m_mapRows[KeyOf(ulConfID, sPath)];
    if (row.sSection.IsEmpty())
        row.sSection.Format("S%d", ++m_nLastSection);
    row.ulLength = brief.m_ulFileLenth;
    row.sModifyTime = brief.m_dtModifyTime.ToText(0, "-").GetString();
    const QB_StringW sWidePath(sPath);
    if (!FitsOneLine(sWidePath))
        return false;
    m_IniFile.SetLong(row.sSection, kConfID, (int32_t)(ulConfID & 0xFFFF));
    m_IniFile.SetString(row.sSection, kPath, sWidePath);
    m_IniFile.SetLong(row.sSection, kLength, (int32_t)row.ulLength);
    m_IniFile.SetString(row.sSection, kModifyTime, QB_StringW(QB_StringA(row.sModifyTime.c_str())));
    return true;
}

bool ZV_ShareLedger::Save()
{
    if (m_IniFile.Flush())
        return true;
    QB_WriteLog(2, "error", "ZV_ShareLedger::Flush failed.\r\n");
    return false;
}

bool ZV_ShareLedger::Holds(uint32_t ulConfID, const ZV_FileBriefInfo& brief)
{
    QB_Lock lock(&m_Lock);
    Load(false);
    const auto it = m_mapRows.find(KeyOf(ulConfID, LocalPath(brief)));
    return it != m_mapRows.end() && it->second.ulLength == brief.m_ulFileLenth &&
           it->second.sModifyTime == brief.m_dtModifyTime.ToText(0, "-").GetString();
}
