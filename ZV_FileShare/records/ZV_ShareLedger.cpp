#include "records/ZV_ShareLedger.h"

#include "QB_Env.h"
#include "QB_FileEx.h"
#include "QB_Log.h"

#include <cstdlib>

namespace {

// Rows written before the record kept whole conference numbers held
// "ConfID", its low 16 bits; "Conference" holds all 32.
constexpr char16_t kOldConfID[] = u"ConfID";
constexpr char16_t kConference[] = u"Conference";
constexpr char16_t kDevice[] = u"Device";
constexpr char16_t kFileNumber[] = u"FileNumber";
constexpr char16_t kPath[] = u"Path";
constexpr char16_t kLength[] = u"Length";
constexpr char16_t kModifyTime[] = u"ModifyTime";
constexpr char16_t kFileID[] = u"FileID";
constexpr char16_t kTarget[] = u"Target";

uint64_t TargetKey(uint32_t ulConfID, uint16_t usFileID)
{
    return (uint64_t)ulConfID << 16 | usFileID;
}

// Decimal digits only, up to ullMax; anything else is no number.
bool ParseUnsigned(const QB_StringW& sText, uint64_t ullMax, uint64_t& ullValue)
{
    ullValue = 0;
    if (sText.IsEmpty())
        return false;
    for (int i = 0; i < sText.GetLength(); ++i)
    {
        const char16_t ch = sText[i];
        if (ch < u'0' || ch > u'9' || ullValue > (ullMax - (uint64_t)(ch - u'0')) / 10)
            return false;
        ullValue = ullValue * 10 + (uint64_t)(ch - u'0');
    }
    return true;
}

QB_StringW DecimalText(uint64_t ullValue)
{
    const std::string sText = std::to_string(ullValue);
    return QB_StringW(QB_StringA(sText.c_str()));
}

std::string ModifyTextOf(QB_FileEx& file)
{
    QB_SystemTime stWrite;
    QB_DateTimeEx dtWrite;
    if (!file.GetTimes(nullptr, &stWrite, nullptr) || !dtWrite.SetFromSystemTime(stWrite))
        return std::string();
    return dtWrite.ToText(0, "-").GetString();
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
    return std::to_string(ulConfID) + '\n' + std::string(sPath.GetString(), (size_t)sPath.GetLength());
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
    QB_Array<QB_StringW> arrOld;
    for (int i = 0; i < arrNames.GetSize(); ++i)
    {
        // Names come as the file has them, "[S12]" or "[D13]". Rows are
        // numbered across both kinds, so a new one never takes a name that
        // stands in the file.
        const int nNumber = atoi(QB_StringA(arrNames[i].Mid(2)).GetString());
        if (nNumber > m_nLastSection)
            m_nLastSection = nNumber;
        uint32_t ulConfID = 0;
        if (!ReadConference(arrNames[i], ulConfID))
        {
            if (!m_Journal.Ini().GetString(arrNames[i], kOldConfID, QB_StringW()).IsEmpty())
                arrOld.Add(arrNames[i]);
        }
        else if (arrNames[i].Mid(1, 1) == QB_StringW(u"D"))
            LoadTarget(arrNames[i]);
        else
            LoadRow(arrNames[i]);
    }
    DropOldRows(arrOld);
}

bool ZV_ShareLedger::ReadConference(const QB_StringW& sSection, uint32_t& ulConfID)
{
    uint64_t ullValue = 0;
    if (!ParseUnsigned(m_Journal.Ini().GetString(sSection, kConference, QB_StringW()), UINT32_MAX, ullValue))
        return false;
    ulConfID = (uint32_t)ullValue;
    return true;
}

// A row that kept only the low 16 bits of its conference number cannot say
// which conference it was made in: taken as it stands it would let a share
// of conference 7 be read for conference 0x10007. Such rows are dropped,
// once, and the file is written without them; the user shares those files
// again, and downloads asked for before go on only when asked again.
void ZV_ShareLedger::DropOldRows(const QB_Array<QB_StringW>& arrOld)
{
    if (arrOld.IsEmpty())
        return;
    for (int i = 0; i < arrOld.GetSize(); ++i)
        m_Journal.DeleteSection(arrOld[i]);
    QB_WriteLog(QB_LOG_DAILY, "error", "ZV_ShareLedger::Load dropped %d rows without a whole conference number.\r\n",
                arrOld.GetSize());
    Save();
}

QB_StringW ZV_ShareLedger::NewSection(char16_t chKind)
{
    QB_StringW sSection;
    sSection.Format("%c%d", (char)chKind, ++m_nLastSection);
    return sSection;
}

void ZV_ShareLedger::LoadTarget(const QB_StringW& sSection)
{
    uint32_t ulConfID = 0;
    const int32_t nFileID = m_Journal.Ini().GetLong(sSection, kFileID, -1);
    const QB_StringW sPath = m_Journal.Ini().GetString(sSection, kTarget, QB_StringW());
    if (!ReadConference(sSection, ulConfID) || nFileID < 0 || nFileID > 0xFFFF || sPath.IsEmpty())
        return;
    Target& target = m_mapTargets[TargetKey(ulConfID, (uint16_t)nFileID)];
    target.sSection = sSection;
    target.sPath = QB_StringU8(sPath).GetString();
}

void ZV_ShareLedger::LoadRow(const QB_StringW& sSection)
{
    uint32_t ulConfID = 0;
    const QB_StringW sPath = m_Journal.Ini().GetString(sSection, kPath, QB_StringW());
    const QB_StringW sLength = m_Journal.Ini().GetString(sSection, kLength, QB_StringW());
    const QB_StringW sTime = m_Journal.Ini().GetString(sSection, kModifyTime, QB_StringW());
    Row row;
    uint64_t ullLength = 0;
    if (!ReadConference(sSection, ulConfID) || sPath.IsEmpty() || !ParseUnsigned(sLength, UINT32_MAX, ullLength) ||
        sTime.IsEmpty() ||
        !ParseUnsigned(m_Journal.Ini().GetString(sSection, kDevice, QB_StringW()), UINT64_MAX, row.mark.ullDevice) ||
        !ParseUnsigned(m_Journal.Ini().GetString(sSection, kFileNumber, QB_StringW()), UINT64_MAX, row.mark.ullNumber))
        return;
    row.sSection = sSection;
    row.ulLength = (uint32_t)ullLength;
    row.sModifyTime = QB_StringA(sTime).GetString();
    m_mapRows[KeyOf(ulConfID, QB_StringU8(sPath))] = row;
}

bool ZV_ShareLedger::MarkOf(QB_FileEx& file, ZV_LocalFileMark& mark)
{
    return file.GetFileId(&mark.ullDevice, &mark.ullNumber);
}

void ZV_ShareLedger::Preload()
{
    QB_Lock lock(&m_Lock);
    Load(false);
}

bool ZV_ShareLedger::Remember(uint32_t ulConfID, const ZV_FileBriefInfo& brief, const ZV_LocalFileMark& mark)
{
    QB_Lock lock(&m_Lock);
    Load(true);
    return Note(ulConfID, brief, mark) && Save();
}

bool ZV_ShareLedger::Remember(uint32_t ulConfID, const QB_Array<ZV_FileBriefInfo>& arrInfo,
                              const std::vector<ZV_LocalFileMark>& vecMark)
{
    QB_Lock lock(&m_Lock);
    Load(true);
    bool bNoted = true;
    for (int i = 0; i < arrInfo.GetSize(); ++i)
        bNoted = (size_t)i < vecMark.size() && Note(ulConfID, arrInfo[i], vecMark[(size_t)i]) && bNoted;
    return Save() && bNoted;
}

// The row in memory, and in the file's lines unless the path cannot stand
// on one line; false then.
bool ZV_ShareLedger::Note(uint32_t ulConfID, const ZV_FileBriefInfo& brief, const ZV_LocalFileMark& mark)
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
    row.mark = mark;
    const QB_StringW sWidePath(sPath);
    if (!FitsOneLine(sWidePath))
        return false;
    m_Journal.SetString(row.sSection, kConference, DecimalText(ulConfID));
    m_Journal.SetString(row.sSection, kPath, sWidePath);
    m_Journal.SetString(row.sSection, kLength, DecimalText(row.ulLength));
    m_Journal.SetString(row.sSection, kModifyTime, QB_StringW(QB_StringA(row.sModifyTime.c_str())));
    m_Journal.SetString(row.sSection, kDevice, DecimalText(mark.ullDevice));
    m_Journal.SetString(row.sSection, kFileNumber, DecimalText(mark.ullNumber));
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

bool ZV_ShareLedger::HoldsOpenFile(uint32_t ulConfID, const ZV_FileBriefInfo& brief, QB_FileEx& file)
{
    QB_Lock lock(&m_Lock);
    Load(false);
    const auto it = m_mapRows.find(KeyOf(ulConfID, LocalPath(brief)));
    ZV_LocalFileMark mark;
    if (it == m_mapRows.end() || !MarkOf(file, mark))
        return false;
    const Row& row = it->second;
    return row.ulLength == brief.m_ulFileLenth && row.sModifyTime == brief.m_dtModifyTime.ToText(0, "-").GetString() &&
           mark.ullDevice == row.mark.ullDevice && mark.ullNumber == row.mark.ullNumber &&
           (uint32_t)file.GetLength() == row.ulLength && ModifyTextOf(file) == row.sModifyTime;
}

bool ZV_ShareLedger::Forget(uint32_t ulConfID, const ZV_FileBriefInfo& brief)
{
    QB_Lock lock(&m_Lock);
    Load(false);
    const auto it = m_mapRows.find(KeyOf(ulConfID, LocalPath(brief)));
    if (it == m_mapRows.end())
        return true;
    m_Journal.DeleteSection(it->second.sSection);
    m_mapRows.erase(it);
    return Save();
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
    m_Journal.SetString(target.sSection, kConference, DecimalText(ulConfID));
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
