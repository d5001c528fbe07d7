#include "records/ZV_FileBriefInfo.h"

#include "QB_FileEx.h"
#include "wire/ZV_RecordStream.h"

// Brief infos carry up to 11 bits, so they always write the 2-byte word.
void ZV_FileBriefInfo::Save(QB_ByteStream& stream) const
{
    SaveMaskWord(stream, m_ullMask, ZV_MASK_WORD_2);
    if (m_ullMask & ZV_BRIEF_CREATOR_ID)
        m_CreatorID.Save(stream);
    if (m_ullMask & ZV_BRIEF_CREATOR_NAME)
        SaveText(stream, m_sCreatorName);
    if (m_ullMask & ZV_BRIEF_FILE_PATH)
        SaveText(stream, m_sFilePath);
    if (m_ullMask & ZV_BRIEF_FILE_OLD_NAME)
        SaveText(stream, m_sFileOldName);
    if (m_ullMask & ZV_BRIEF_FILE_TYPE)
        SaveText(stream, m_sFileType);
    if (m_ullMask & ZV_BRIEF_FILE_LENTH)
        stream.WriteU32(m_ulFileLenth);
    if (m_ullMask & ZV_BRIEF_SHARE_TIME)
        SaveDateTime(stream, m_dtShareTime);
    if (m_ullMask & ZV_BRIEF_MODIFY_TIME)
        SaveDateTime(stream, m_dtModifyTime);
    if (m_ullMask & ZV_BRIEF_FILE_STATE)
        stream.WriteU16(m_usFileState);
    if (m_ullMask & ZV_BRIEF_RIGHT)
        SaveUserIDArray(stream, m_arrRight);
    if (m_ullMask & ZV_BRIEF_PUBLIC)
        SaveFlag(stream, m_bPublic);
}

// Absent texts, times and the public flag fall back to their defaults; the
// creator, length, state and rights keep what they held.
void ZV_FileBriefInfo::Load(QB_ByteStream& stream)
{
    m_ullMask = LoadMaskWord(stream);
    if (m_ullMask & ZV_BRIEF_CREATOR_ID)
        m_CreatorID.Load(stream);
    LoadTextOrEmpty(stream, m_ullMask & ZV_BRIEF_CREATOR_NAME, m_sCreatorName);
    LoadTextOrEmpty(stream, m_ullMask & ZV_BRIEF_FILE_PATH, m_sFilePath);
    LoadTextOrEmpty(stream, m_ullMask & ZV_BRIEF_FILE_OLD_NAME, m_sFileOldName);
    LoadTextOrEmpty(stream, m_ullMask & ZV_BRIEF_FILE_TYPE, m_sFileType);
    if (m_ullMask & ZV_BRIEF_FILE_LENTH)
        m_ulFileLenth = stream.ReadU32();
    LoadDateTimeOrDefault(stream, m_ullMask & ZV_BRIEF_SHARE_TIME, m_dtShareTime);
    LoadDateTimeOrDefault(stream, m_ullMask & ZV_BRIEF_MODIFY_TIME, m_dtModifyTime);
    if (m_ullMask & ZV_BRIEF_FILE_STATE)
        m_usFileState = stream.ReadU16();
    if (m_ullMask & ZV_BRIEF_RIGHT)
        LoadUserIDArray(stream, m_arrRight);
    LoadFlagOrFalse(stream, m_ullMask & ZV_BRIEF_PUBLIC, m_bPublic);
}

// Not the exact size: a user id counts 12 bytes and the mask word 6, more
// than either takes, so a list cut by this sum always fits its PDU.
uint32_t ZV_FileBriefInfo::GetSaveSize() const
{
    uint32_t ulSize = 6;
    if (m_ullMask & ZV_BRIEF_CREATOR_ID)
        ulSize += 12;
    const QB_StringU8* aTexts[] = {&m_sCreatorName, &m_sFilePath, &m_sFileOldName, &m_sFileType};
    const uint64_t aBits[] = {ZV_BRIEF_CREATOR_NAME, ZV_BRIEF_FILE_PATH, ZV_BRIEF_FILE_OLD_NAME, ZV_BRIEF_FILE_TYPE};
    for (int i = 0; i < 4; ++i)
        if (m_ullMask & aBits[i])
            ulSize += (uint32_t)QB_ByteStream::GetStringSize(*aTexts[i]);
    if (m_ullMask & ZV_BRIEF_FILE_LENTH)
        ulSize += 4;
    if (m_ullMask & ZV_BRIEF_SHARE_TIME)
        ulSize += 8;
    if (m_ullMask & ZV_BRIEF_MODIFY_TIME)
        ulSize += 8;
    if (m_ullMask & ZV_BRIEF_FILE_STATE)
        ulSize += 2;
    if (m_ullMask & ZV_BRIEF_RIGHT)
        ulSize += 4 + 12 * (uint32_t)m_arrRight.GetSize();
    if (m_ullMask & ZV_BRIEF_PUBLIC)
        ulSize += 1;
    return ulSize;
}

// Length and last-write second are all the record knows of the file. The
// times meet as text, the form the catalogue keeps them in.
namespace {

// Times count as the same when they read the same; equal raw values always
// do, so the text is made only for the rare pair that differs.
bool SameTimeText(const QB_DateTimeEx& dtA, const QB_DateTimeEx& dtB)
{
    return dtA == dtB || dtA.ToText(0, "-") == dtB.ToText(0, "-");
}

}  // namespace

bool ZV_FileBriefInfo::IsSameFile(const ZV_FileBriefInfo& other) const
{
    return m_sFileOldName == other.m_sFileOldName && m_ulFileLenth == other.m_ulFileLenth &&
           m_sFilePath == other.m_sFilePath && m_sFileType == other.m_sFileType &&
           SameTimeText(m_dtModifyTime, other.m_dtModifyTime) && SameTimeText(m_dtShareTime, other.m_dtShareTime) &&
           m_CreatorID == other.m_CreatorID;
}

bool ZV_FileBriefInfo::IsSameLocalFile() const
{
    QB_FileEx file;
    if (!file.Open(QB_StringW(m_sFilePath + m_sFileOldName), QB_FILE_READ | QB_FILE_OPEN_EXISTING))
        return false;
    QB_SystemTime stCreation, stLastWrite, stLastAccess;
    QB_DateTimeEx dtLastWrite;
    // Sizes are 32-bit words: files from 2 GB on come back negative and are
    // compared as the unsigned length they stand for.
    return file.GetTimes(&stCreation, &stLastWrite, &stLastAccess) && dtLastWrite.SetFromSystemTime(stLastWrite) &&
           (uint32_t)file.GetLength() == m_ulFileLenth && dtLastWrite.ToText(0, "-") == m_dtModifyTime.ToText(0, "-");
}

bool ZV_FileBriefInfo::SetCreatorName(const QB_StringU8& sValue)
{
    return SetTextField(m_sCreatorName, m_ullMask, ZV_BRIEF_CREATOR_NAME, sValue);
}
bool ZV_FileBriefInfo::SetFilePath(const QB_StringU8& sValue)
{
    return SetTextField(m_sFilePath, m_ullMask, ZV_BRIEF_FILE_PATH, sValue);
}
bool ZV_FileBriefInfo::SetFilePath(const QB_StringW& sValue)
{
    return SetTextField(m_sFilePath, m_ullMask, ZV_BRIEF_FILE_PATH, sValue);
}
bool ZV_FileBriefInfo::SetFileOldName(const QB_StringU8& sValue)
{
    return SetTextField(m_sFileOldName, m_ullMask, ZV_BRIEF_FILE_OLD_NAME, sValue);
}
bool ZV_FileBriefInfo::SetFileOldName(const QB_StringW& sValue)
{
    return SetTextField(m_sFileOldName, m_ullMask, ZV_BRIEF_FILE_OLD_NAME, sValue);
}
bool ZV_FileBriefInfo::SetFileType(const QB_StringU8& sValue)
{
    return SetTextField(m_sFileType, m_ullMask, ZV_BRIEF_FILE_TYPE, sValue);
}
bool ZV_FileBriefInfo::SetFileType(const QB_StringW& sValue)
{
    return SetTextField(m_sFileType, m_ullMask, ZV_BRIEF_FILE_TYPE, sValue);
}

bool ZV_FileBriefInfo::SetCreatorID(const QB_UserID& value)
{
    return SetValueField(m_CreatorID, m_ullMask, ZV_BRIEF_CREATOR_ID, value);
}
bool ZV_FileBriefInfo::SetFileLenth(uint32_t ulValue)
{
    return SetValueField(m_ulFileLenth, m_ullMask, ZV_BRIEF_FILE_LENTH, ulValue);
}
bool ZV_FileBriefInfo::SetShareTime(const QB_DateTimeEx& dtValue)
{
    return SetValueField(m_dtShareTime, m_ullMask, ZV_BRIEF_SHARE_TIME, dtValue);
}
bool ZV_FileBriefInfo::SetModifyTime(const QB_DateTimeEx& dtValue)
{
    return SetValueField(m_dtModifyTime, m_ullMask, ZV_BRIEF_MODIFY_TIME, dtValue);
}
bool ZV_FileBriefInfo::SetFileState(uint16_t usValue)
{
    return SetValueField(m_usFileState, m_ullMask, ZV_BRIEF_FILE_STATE, usValue);
}
bool ZV_FileBriefInfo::SetRight(const QB_Array<QB_UserID>& arrValue)
{
    return SetValueField(m_arrRight, m_ullMask, ZV_BRIEF_RIGHT, arrValue);
}
bool ZV_FileBriefInfo::SetPublic(bool bValue)
{
    return SetValueField(m_bPublic, m_ullMask, ZV_BRIEF_PUBLIC, bValue);
}
