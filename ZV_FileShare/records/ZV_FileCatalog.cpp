#include "records/ZV_FileCatalog.h"

#include "QB_DatetimeEx.h"
#include "QB_Env.h"
#include "QB_FileEx.h"
#include "QB_Log.h"
#include "QB_UserID.h"

#include <string>

namespace {

const char16_t kConfID[] = u"ConfID";
const char16_t kFileID[] = u"FileID";
const char16_t kFileNewName[] = u"FileNewName";
const char16_t kFileWritePos[] = u"FileWritePos";
const char16_t kFileOldName[] = u"FileOldName";
const char16_t kCreatorID[] = u"CreatorID";
const char16_t kShareTime[] = u"ShareTime";
const char16_t kModifyTime[] = u"ModifyTime";
const char16_t kFileType[] = u"FileType";
const char16_t kFileLenth[] = u"FileLenth";
const char16_t kFilePath[] = u"FilePath";
const char16_t kFileState[] = u"FileState";
const char16_t kFileValidity[] = u"FileValidity";
const char16_t kCreatorName[] = u"CreatorName";
const char16_t kPublic[] = u"Public";
const char16_t kRights[] = u"Rights";

// 32 hex digits over the GUID's fields; the third field's digits are lower
// case, as the catalogues already on disk have them. The first three fields
// are read little-endian, the way a GUID lies in memory.
QB_StringW NewGuidText()
{
    uint8_t ab[16] = {};
    QB_GetEnv()->NewGuid(ab);
    uint32_t ulData1 = ab[0] | ab[1] << 8 | ab[2] << 16 | (uint32_t)ab[3] << 24;
    unsigned uData2 = ab[4] | ab[5] << 8;
    unsigned uData3 = ab[6] | ab[7] << 8;
    QB_StringW sText;
    sText.Format("%08X%04X%04x%02X%02X%02X%02X%02X%02X%02X%02X", ulData1, uData2, uData3, ab[8], ab[9], ab[10],
                 ab[11], ab[12], ab[13], ab[14], ab[15]);
    return sText;
}

// Text from a peer may hold CR LF, which the file would take for a line end:
// the rest would come back as a key of its own, a ConfID or a FileNewName
// the server never chose. A value therefore never spans lines.
QB_StringW OneLine(const QB_StringW& sValue)
{
    QB_StringW sLine(sValue);
    for (int i = 0; i < sLine.GetLength(); ++i)
        if (sLine[i] == u'\r' || sLine[i] == u'\n')
            sLine.SetAt(i, u' ');
    return sLine;
}

QB_StringW Wide(const std::u16string& s)
{
    return QB_StringW(s.data(), (int)s.size());
}

} // namespace

ZV_FileCatalog::ZV_FileCatalog() : m_Journal(17, 17), m_Lock("ZV_FileCatalog::m_Lock")
{
}

ZV_FileCatalog::~ZV_FileCatalog()
{
    QB_Lock lock(&m_Lock);
    m_Journal.Close();
}

int ZV_FileCatalog::Open()
{
    QB_Lock lock(&m_Lock);
    try
    {
        std::u16string sFolder = QB_GetEnv()->GetModuleFolder();
        sFolder.erase(sFolder.rfind(u'\\') + 1);
        QB_StringW sPath = Wide(sFolder) + u"fsinfo.ini";
        m_bRowIndexValid = false;
        m_bOpened = true;
        m_bUnread = !m_Journal.Open(sPath, true);
        if (m_bUnread)
            return zvCatalogNotOpened;
        // Built now, so that the first save does not pay for every row.
        BuildRowIndex();
        return zvCatalogOpened;
    }
    catch (...)
    {
        QB_WriteLog(QB_LOG_DAILY, "error", "xxxxxxxxxxxxxxxxxxxxxxxxx\r\n");
        return zvCatalogException;
    }
}

void ZV_FileCatalog::OnTimer()
{
    QB_Lock lock(&m_Lock);
    if (m_bOpened)
        m_Journal.RewriteIfQuiet();
}

void ZV_FileCatalog::SetRootPath(const QB_StringA& sRootPath)
{
    QB_Lock lock(&m_Lock);
    m_sRootPath = sRootPath;
    if (!m_sRootPath.IsEmpty() && m_sRootPath[m_sRootPath.GetLength() - 1] != '\\')
        m_sRootPath += '\\';
}

bool ZV_FileCatalog::SaveFile(uint32_t ulConfID, const ZV_FileUploadInfo& fileInfo)
{
    QB_Lock lock(&m_Lock);
    QB_StringW sSection = FindSection((uint16_t)ulConfID, fileInfo.m_usFileID);
    if (sSection.IsEmpty())
        sSection = NewSection(ulConfID, fileInfo.m_usFileID);
    WriteRow(sSection, fileInfo);
    return Flush();
}

bool ZV_FileCatalog::SaveFiles(uint32_t ulConfID, const QB_Array<ZV_FileUploadInfo>& arrFileInfo,
                               const QB_Array<QB_StringW>& arrSection)
{
    QB_Lock lock(&m_Lock);
    for (int i = 0; i < arrFileInfo.GetSize(); ++i)
    {
        const ZV_FileUploadInfo& fileInfo = arrFileInfo[i];
        // A name the caller failed to give counts as empty, so the record
        // is added rather than lost.
        QB_StringW sSection = i < arrSection.GetSize() ? arrSection[i] : QB_StringW();
        if (sSection.IsEmpty())
            sSection = NewSection(ulConfID, fileInfo.m_usFileID);
        WriteRow(sSection, fileInfo);
    }
    return Flush();
}

// A save appends the operation's rows to the journal beside the file and
// syncs it, instead of rewriting the whole file: at 100,000 rows a rewrite
// per save would write and sync megabytes for every file added. The file
// itself is rewritten now and then, with the bytes a rewrite per save
// would leave. A row whose save failed stays in memory and goes out with
// the next good save. A catalogue that was never opened (a client's) has
// no file to keep.
// A catalogue that could not be read is never written: the file on disk may
// hold every row, and the empty one in memory would replace them all. Its
// saves fail until a later Open reads it.
bool ZV_FileCatalog::Flush()
{
    if (!m_bOpened || (!m_bUnread && m_Journal.Commit()))
        return true;
    QB_WriteLog(QB_LOG_DAILY, "error", "ZV_FileCatalog::Flush failed.\r\n");
    return false;
}

bool ZV_FileCatalog::LoadFile(uint16_t usConfID, uint16_t usFileID, ZV_FileUploadInfo& fileInfo,
                              QB_StringW& sSection)
{
    QB_Lock lock(&m_Lock);
    ZV_FileBriefInfo briefInfo(fileInfo.m_BriefInfo);
    QB_StringW sFound = FindSection(usConfID, usFileID);
    if (sFound.IsEmpty())
        return false;
    fileInfo.SetFileID(usFileID);
    fileInfo.SetFileNewName(GetText(sFound, kFileNewName));
    fileInfo.SetFileWritePos((uint32_t)m_Journal.Ini().GetLong(sFound, kFileWritePos, 0));
    ReadBrief(sFound, briefInfo);
    fileInfo.SetBriefInfo(briefInfo);
    sSection = sFound;
    return true;
}

void ZV_FileCatalog::LoadConf(uint16_t usConfID, QB_Array<ZV_FileUploadInfo>& arrFileInfo,
                              QB_Array<QB_StringW>& arrSection)
{
    QB_Lock lock(&m_Lock);
    QB_Array<QB_StringW> arrNames;
    m_Journal.Ini().GetSectionNames(arrNames);
    for (int i = 0; i < arrNames.GetSize(); ++i)
    {
        const QB_StringW& sSection = arrNames[i];
        if (GetLow16(sSection, kConfID) != usConfID)
            continue;
        ZV_FileUploadInfo fileInfo;
        ZV_FileBriefInfo briefInfo;
        fileInfo.SetFileID(GetLow16(sSection, kFileID));
        fileInfo.SetFileNewName(GetText(sSection, kFileNewName));
        fileInfo.SetFileWritePos((uint32_t)m_Journal.Ini().GetLong(sSection, kFileWritePos, 0));
        ReadBrief(sSection, briefInfo);
        ReadRights(sSection, briefInfo);
        fileInfo.SetBriefInfo(briefInfo);
        arrFileInfo.Add(fileInfo);
        arrSection.Add(sSection);
    }
}

bool ZV_FileCatalog::HasFile(uint16_t usConfID, uint16_t usFileID)
{
    QB_Lock lock(&m_Lock);
    return !FindSection(usConfID, usFileID).IsEmpty();
}

bool ZV_FileCatalog::DeleteFile(uint16_t usConfID, uint16_t usFileID)
{
    QB_Lock lock(&m_Lock);
    QB_StringW sSection = FindSection(usConfID, usFileID);
    if (!sSection.IsEmpty())
        m_Journal.DeleteSection(sSection);
    m_bRowIndexValid = false;
    return Flush();
}

bool ZV_FileCatalog::DeleteConf(uint32_t ulConfID)
{
    QB_Lock lock(&m_Lock);
    uint16_t usConfID = (uint16_t)ulConfID;
    QB_StringA sFolder;
    sFolder.Format("%s%u\\", m_sRootPath.GetString(), (unsigned)usConfID);
    QB_Array<QB_StringW> arrNames;
    m_Journal.Ini().GetSectionNames(arrNames);
    for (int i = arrNames.GetSize() - 1; i >= 0; --i)
    {
        if (GetLow16(arrNames[i], kConfID) != usConfID)
            continue;
        DeleteStoredFile(sFolder, QB_StringA(m_Journal.Ini().GetString(arrNames[i], kFileNewName, QB_StringW())));
        m_Journal.DeleteSection(arrNames[i]);
    }
    m_bRowIndexValid = false;
    return Flush();
}

// The server only ever stores plain names, so anything else in the file was
// put there by hand or by damage. Refused: empty; a separator of either kind
// or a drive colon; "..", even inside a longer name, where a legitimate file
// costs only a stored copy left behind; and a name of dots and blanks alone,
// which the platform may read as "." or "..".
bool ZV_FileCatalog::IsPlainFileName(const QB_StringA& sName)
{
    if (sName.IsEmpty() || sName.Find(QB_StringA("..")) >= 0)
        return false;
    bool bDotsAndBlanks = true;
    for (int i = 0; i < sName.GetLength(); ++i)
    {
        char ch = sName[i];
        if (ch == '\\' || ch == '/' || ch == ':')
            return false;
        if (ch != '.' && ch != ' ')
            bDotsAndBlanks = false;
    }
    return !bDotsAndBlanks;
}

// Without a root the folder would be relative to wherever the process runs,
// so then the row goes and no file is touched.
void ZV_FileCatalog::DeleteStoredFile(const QB_StringA& sFolder, const QB_StringA& sName) const
{
    if (m_sRootPath.IsEmpty() || !IsPlainFileName(sName))
        return;
    // Tried once: a stored file that stays is no row's and goes to no one.
    QB_FileEx::Delete(QB_StringW(sFolder + sName));
}

void ZV_FileCatalog::BuildRowIndex() const
{
    m_mapRowByPair.clear();
    QB_Array<QB_StringW> arrNames;
    std::vector<int32_t> vecPairs;
    m_Journal.Ini().GetSectionLongs({QB_StringW(kConfID), QB_StringW(kFileID)}, 0, arrNames, vecPairs);
    m_mapRowByPair.reserve((size_t)arrNames.GetSize());
    for (int i = 0; i < arrNames.GetSize(); ++i)
        m_mapRowByPair.emplace(PairKey((uint16_t)vecPairs[2 * (size_t)i], (uint16_t)vecPairs[2 * (size_t)i + 1]),
                               arrNames[i]);
    m_bRowIndexValid = true;
}

QB_StringW ZV_FileCatalog::FindSection(uint16_t usConfID, uint16_t usFileID) const
{
    if (!m_bRowIndexValid)
        BuildRowIndex();
    auto it = m_mapRowByPair.find(PairKey(usConfID, usFileID));
    return it == m_mapRowByPair.end() ? QB_StringW() : it->second;
}

QB_StringW ZV_FileCatalog::NewSection(uint32_t ulConfID, uint16_t usFileID)
{
    QB_StringW sSection = NewGuidText();
    m_Journal.SetLong(sSection, kConfID, (int32_t)(ulConfID & 0xFFFF));
    m_Journal.SetLong(sSection, kFileID, usFileID);
    // Kept as a walk of the sections would give it, with its brackets. A
    // second row of a pair (a batch adds rows without a look-up) may come
    // before the first in the walk, so then the index is built again.
    const uint32_t ulPair = PairKey((uint16_t)ulConfID, usFileID);
    if (m_bRowIndexValid && !m_mapRowByPair.emplace(ulPair, u"[" + sSection + u"]").second)
        m_bRowIndexValid = false;
    return sSection;
}

// Positions and lengths go out as signed 32-bit text, as the file has always
// held them; GetLong gives the same 32 bits back.
void ZV_FileCatalog::WriteRow(const QB_StringW& sSection, const ZV_FileUploadInfo& fileInfo)
{
    const ZV_FileBriefInfo& briefInfo = fileInfo.m_BriefInfo;
    SetText(sSection, kFileNewName, fileInfo.m_sFileNewName);
    m_Journal.SetLong(sSection, kFileWritePos, (int32_t)fileInfo.m_ulFileWritePos);
    SetText(sSection, kFileOldName, briefInfo.m_sFileOldName);
    m_Journal.SetString(sSection, kCreatorID, QB_StringW(QB_StringA(briefInfo.m_CreatorID.ToText())));
    m_Journal.SetString(sSection, kShareTime, QB_StringW(briefInfo.m_dtShareTime.ToText(0, "-")));
    m_Journal.SetString(sSection, kModifyTime, QB_StringW(briefInfo.m_dtModifyTime.ToText(0, "-")));
    SetText(sSection, kFileType, briefInfo.m_sFileType);
    m_Journal.SetLong(sSection, kFileLenth, (int32_t)briefInfo.m_ulFileLenth);
    SetText(sSection, kFilePath, briefInfo.m_sFilePath);
    m_Journal.SetLong(sSection, kFileState, briefInfo.m_usFileState);
    m_Journal.SetString(sSection, kFileValidity, QB_StringW(u"1"));
    if (m_bKeepRights)
        WriteRights(sSection, briefInfo);
}

// The users go as their text forms, one blank between two.
void ZV_FileCatalog::WriteRights(const QB_StringW& sSection, const ZV_FileBriefInfo& briefInfo)
{
    std::string sRights;
    for (int i = 0; i < briefInfo.m_arrRight.GetSize(); ++i)
        sRights += (i > 0 ? " " : "") + briefInfo.m_arrRight[i].ToText();
    SetText(sSection, kCreatorName, briefInfo.m_sCreatorName);
    m_Journal.SetLong(sSection, kPublic, briefInfo.m_bPublic ? 1 : 0);
    m_Journal.SetString(sSection, kRights, QB_StringW(QB_StringA(sRights.c_str())));
}

// A row written without its rights reads as a file for its creator alone:
// nobody else is given a file on a guess. A user whose text does not parse
// is left out.
void ZV_FileCatalog::ReadRights(const QB_StringW& sSection, ZV_FileBriefInfo& briefInfo) const
{
    briefInfo.SetCreatorName(GetText(sSection, kCreatorName));
    briefInfo.SetPublic(m_Journal.Ini().GetLong(sSection, kPublic, 0) != 0);
    const std::string sRights = QB_StringA(m_Journal.Ini().GetString(sSection, kRights, QB_StringW())).GetString();
    QB_Array<QB_UserID> arrRight;
    for (size_t nFrom = 0; nFrom < sRights.size();)
    {
        size_t nEnd = sRights.find(' ', nFrom);
        if (nEnd == std::string::npos)
            nEnd = sRights.size();
        QB_UserID user;
        if (nEnd > nFrom && user.FromText(sRights.substr(nFrom, nEnd - nFrom).c_str()) != 0)
            arrRight.Add(user);
        nFrom = nEnd + 1;
    }
    briefInfo.SetRight(arrRight);
}

// Text setters refuse what is too long, and then the caller's field stays.
void ZV_FileCatalog::ReadBrief(const QB_StringW& sSection, ZV_FileBriefInfo& briefInfo) const
{
    briefInfo.SetFileOldName(GetText(sSection, kFileOldName));
    QB_UserID creatorID;
    creatorID.FromText(QB_StringA(m_Journal.Ini().GetString(sSection, kCreatorID, QB_StringW())).GetString());
    briefInfo.SetCreatorID(creatorID);
    briefInfo.SetShareTime(GetDateTime(sSection, kShareTime));
    briefInfo.SetModifyTime(GetDateTime(sSection, kModifyTime));
    briefInfo.SetFileType(GetText(sSection, kFileType));
    briefInfo.SetFileLenth((uint32_t)m_Journal.Ini().GetLong(sSection, kFileLenth, 0));
    briefInfo.SetFilePath(GetText(sSection, kFilePath));
    briefInfo.SetFileState((uint16_t)m_Journal.Ini().GetLong(sSection, kFileState, 0));
}

// Text passes through the ANSI code page both ways, so a UTF-16 file and an
// ANSI one hold the same rows; what the code page lacks comes back as "?".
void ZV_FileCatalog::SetText(const QB_StringW& sSection, const char16_t* pszKey, const QB_StringU8& sValue)
{
    QB_StringA sAnsi{QB_StringW(sValue)};
    m_Journal.SetString(sSection, pszKey, OneLine(QB_StringW(sAnsi)));
}

QB_StringU8 ZV_FileCatalog::GetText(const QB_StringW& sSection, const char16_t* pszKey) const
{
    QB_StringA sAnsi(m_Journal.Ini().GetString(sSection, pszKey, QB_StringW()));
    return QB_StringU8(QB_StringW(sAnsi));
}

// A value that fails to parse gives the default time as a whole: a date
// kept from a half-read text would pass for a real one and could make a
// changed file look the same as the one stored.
QB_DateTimeEx ZV_FileCatalog::GetDateTime(const QB_StringW& sSection, const char16_t* pszKey) const
{
    QB_DateTimeEx dtValue;
    if (!dtValue.Parse(QB_StringA(m_Journal.Ini().GetString(sSection, pszKey, QB_StringW()))))
        dtValue = QB_DateTimeEx();
    return dtValue;
}

uint16_t ZV_FileCatalog::GetLow16(const QB_StringW& sSection, const char16_t* pszKey) const
{
    return (uint16_t)m_Journal.Ini().GetLong(sSection, pszKey, 0);
}
