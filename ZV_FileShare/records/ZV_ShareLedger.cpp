#include "records/ZV_ShareLedger.h"

#include "QB_Env.h"
#include "QB_Log.h"

#include <cstdlib>

namespace {

constexpr char16_t kConfID[] = u"ConfID";
constexpr char16_t kPath[] = u"Path";
constexpr char16_t kLength[] = u"Length";
constexpr char16_t kModifyTime[] = u"ModifyTime";
constexpr char16_t kFileID[] = u"FileID";
constexpr char16_t kTarget[] = u"Target";

uint32_t TargetKey(uint32_t ulConfID, uint16_t usFileID)
{
    return (ulConfID & 0xFFFF) << 16 | usFileID;
}

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

ZV_ShareLedger::ZV_ShareLedger() : m_Lock("ZV_ShareLedger::m_Lock"), m_Journal(17, 17)
{
}

ZV_ShareLedger::~ZV_ShareLedger()
{
    QB_Lock lock(&m_Lock);
    m_Journal.Close();
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
    if (!m_Journal.Open(QB_StringW(sPath.c_str()), true))
    {
        QB_WriteLog(QB_LOG_DAILY, "error", "ZV_ShareLedger::Load failed.\r\n");
        return;
    }
    QB_Array<QB_StringW> arrNames;
    m_Journal.Ini().GetSectionNames(arrNames);
    for (int i = 0; i < arrNames.GetSize(); ++i)
    {
        // Names come as the file has them, "[S12]" or "[D13]". Rows are
        // numbered across both kinds, so a new one never takes a name that
        // stands in the file.
        const int nNumber = atoi(QB_StringA(arrNames[i].Mid(2)).GetString());
        if (nNumber > m_nLastSection)
            m_nLastSection = nNumber;
        if (arrNames[i].Mid(1, 1) == QB_StringW(u"D"))
            LoadTarget(arrNames[i]);
        else
            LoadRow(arrNames[i]);
    }
}

QB_StringW ZV_ShareLedger::NewSection(char16_t chKind)
{
    QB_StringW sSection;
    sSection.Format("%c%d", (char)chKind, ++m_nLastSection);
    return sSection;
}

void ZV_ShareLedger::LoadTarget(const QB_StringW& sSection)
{
    const int32_t nConfID = m_Journal.Ini().GetLong(sSection, kConfID, -1);
    const int32_t nFileID = m_Journal.Ini().GetLong(sSection, kFileID, -1);
    const QB_StringW sPath = m_Journal.Ini().GetString(sSection, kTarget, QB_StringW());
    if (nConfID < 0 || nFileID < 0 || nFileID > 0xFFFF || sPath.IsEmpty())
        return;
    Target& target = m_mapTargets[TargetKey((uint32_t)nConfID, (uint16_t)nFileID)];
    target.sSection = sSection;
    target.sPath = QB_StringU8(sPath).GetString();
}

void ZV_ShareLedger::LoadRow(const QB_StringW& sSection)
{
    const int32_t nConfID = m_Journal.Ini().GetLong(sSection, kConfID, -1);
    const QB_StringW sPath = m_Journal.Ini().GetString(sSection, kPath, QB_StringW());
    const QB_StringW sLength = m_Journal.Ini().GetString(sSection, kLength, QB_StringW());
    const QB_StringW sTime = m_Journal.Ini().GetString(sSection, kModifyTime, QB_StringW());
    if (nConfID < 0 || sPath.IsEmpty() || sLength.IsEmpty() || sTime.IsEmpty())
        return;
    Row row;
    row.sSection = sSection;
    row.ulLength = (uint32_t)m_Journal.Ini().GetLong(sSection, kLength, 0);
    row.sModifyTime = QB_StringA(sTime).GetString();
    m_mapRows[KeyOf((uint32_t)nConfID, QB_StringU8(sPath))] = row;
}

void ZV_ShareLedger::Preload()
{
    QB_Lock lock(&m_Lock);
    Load(false);
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
        row.sSection = NewSection(u'S');
    row.ulLength = brief.m_ulFileLenth;
    row.sModifyTime = brief.m_dtModifyTime.ToText(0, "-").GetString();
    const QB_StringW sWidePath(sPath);
    if (!FitsOneLine(sWidePath))
        return false;
    m_Journal.SetLong(row.sSection, kConfID, (int32_t)(ulConfID & 0xFFFF));
    m_Journal.SetString(row.sSection, kPath, sWidePath);
    m_Journal.SetLong(row.sSection, kLength, (int32_t)row.ulLength);
    m_Journal.SetString(row.sSection, kModifyTime, QB_StringW(QB_StringA(row.sModifyTime.c_str())));
    return true;
}

// Appended to the journal beside the file and synced rather than the file
// rewritten: a user who shares thousands of files would otherwise write
// the whole record again for each of them.
bool ZV_ShareLedger::Save()
{
    if (m_Journal.Commit())
        return true;
    QB_WriteLog(QB_LOG_DAILY, "error", "ZV_ShareLedger::Flush failed.\r\n");
    return false;
}

void ZV_ShareLedger::OnTimer()
{
    QB_Lock lock(&m_Lock);
    if (m_bLoaded)
        m_Journal.RewriteIfQuiet();
}

bool ZV_ShareLedger::Holds(uint32_t ulConfID, const ZV_FileBriefInfo& brief)
{
    QB_Lock lock(&m_Lock);
    Load(false);
    const auto it = m_mapRows.find(KeyOf(ulConfID, LocalPath(brief)));
    return it != m_mapRows.end() && it->second.ulLength == brief.m_ulFileLenth &&
           it->second.sModifyTime == brief.m_dtModifyTime.ToText(0, "-").GetString();
}

bool ZV_ShareLedger::RememberDownload(uint32_t ulConfID, uint16_t usFileID, const QB_StringU8& sTarget)
{
    QB_Lock lock(&m_Lock);
    Load(true);
    const QB_StringW sWide(sTarget);
    if (sTarget.IsEmpty() || !FitsOneLine(sWide))
        return false;
    Target& target = m_mapTargets[TargetKey(ulConfID, usFileID)];
    if (target.sSection.IsEmpty())
        target.sSection = NewSection(u'D');
    target.sPath = sTarget.GetString();
    m_Journal.SetLong(target.sSection, kConfID, (int32_t)(ulConfID & 0xFFFF));
    m_Journal.SetLong(target.sSection, kFileID, usFileID);
    m_Journal.SetString(target.sSection, kTarget, sWide);
    return Save();
}

bool ZV_ShareLedger::HoldsDownload(uint32_t ulConfID, uint16_t usFileID, const QB_StringU8& sTarget)
{
    QB_Lock lock(&m_Lock);
    Load(false);
    const auto it = m_mapTargets.find(TargetKey(ulConfID, usFileID));
    return it != m_mapTargets.end() && !sTarget.IsEmpty() && it->second.sPath == sTarget.GetString();
}

bool ZV_ShareLedger::ForgetDownload(uint32_t ulConfID, uint16_t usFileID)
{
    QB_Lock lock(&m_Lock);
    Load(false);
    const auto it = m_mapTargets.find(TargetKey(ulConfID, usFileID));
    if (it == m_mapTargets.end())
        return true;
    m_Journal.DeleteSection(it->second.sSection);
    m_mapTargets.erase(it);
    return Save();
}
