#include "records/ZV_FileDownloadInfo.h"

#include "wire/ZV_RecordStream.h"

// 14 bits: exactly what the 2-byte word holds.
void ZV_FileDownloadInfo::Save(QB_ByteStream& stream) const
{
    SaveMaskWord(stream, m_ullMask, ZV_MASK_WORD_2);
    if (m_ullMask & ZV_DOWNLOAD_FILE_ID)
        stream.WriteU16(m_usFileID);
    if (m_ullMask & ZV_DOWNLOAD_FILE_PATH)
        SaveText(stream, m_sFilePath);
    if (m_ullMask & ZV_DOWNLOAD_FILE_FULL_NAME)
        SaveText(stream, m_sFileFullName);
    if (m_ullMask & ZV_DOWNLOAD_FILE_NAME)
        SaveText(stream, m_sFileName);
    if (m_ullMask & ZV_DOWNLOAD_FILE_TYPE)
        SaveText(stream, m_sFileType);
    if (m_ullMask & ZV_DOWNLOAD_FILE_LENTH)
        stream.WriteU32(m_ulFileLenth);
    if (m_ullMask & ZV_DOWNLOAD_USED_TIME)
        stream.WriteU32(m_ulUsedTime);
    if (m_ullMask & ZV_DOWNLOAD_LAST_TICK)
        stream.WriteU32(m_ulLastTick);
    if (m_ullMask & ZV_DOWNLOAD_SHARE_TIME)
        SaveDateTime(stream, m_dtShareTime);
    if (m_ullMask & ZV_DOWNLOAD_DOWNLOAD_POS)
        stream.WriteU32(m_ulDownloadPos);
    if (m_ullMask & ZV_DOWNLOAD_STATE)
        stream.WriteU16(m_usState);
    if (m_ullMask & ZV_DOWNLOAD_STOPPED)
        SaveFlag(stream, m_bStopped);
    if (m_ullMask & ZV_DOWNLOAD_ACTIVE)
        SaveFlag(stream, m_bActive);
    if (m_ullMask & ZV_DOWNLOAD_USER_ID)
        m_UserID.Save(stream);
}

// Absent texts, the share time and both flags fall back to their defaults;
// the numbers and the user keep what they held.
void ZV_FileDownloadInfo::Load(QB_ByteStream& stream)
{
    m_ullMask = LoadMaskWord(stream);
    if (m_ullMask & ZV_DOWNLOAD_FILE_ID)
        m_usFileID = stream.ReadU16();
    LoadTextOrEmpty(stream, m_ullMask & ZV_DOWNLOAD_FILE_PATH, m_sFilePath);
    LoadTextOrEmpty(stream, m_ullMask & ZV_DOWNLOAD_FILE_FULL_NAME, m_sFileFullName);
    LoadTextOrEmpty(stream, m_ullMask & ZV_DOWNLOAD_FILE_NAME, m_sFileName);
    LoadTextOrEmpty(stream, m_ullMask & ZV_DOWNLOAD_FILE_TYPE, m_sFileType);
    if (m_ullMask & ZV_DOWNLOAD_FILE_LENTH)
        m_ulFileLenth = stream.ReadU32();
    if (m_ullMask & ZV_DOWNLOAD_USED_TIME)
        m_ulUsedTime = stream.ReadU32();
    if (m_ullMask & ZV_DOWNLOAD_LAST_TICK)
        m_ulLastTick = stream.ReadU32();
    LoadDateTimeOrDefault(stream, m_ullMask & ZV_DOWNLOAD_SHARE_TIME, m_dtShareTime);
    if (m_ullMask & ZV_DOWNLOAD_DOWNLOAD_POS)
        m_ulDownloadPos = stream.ReadU32();
    if (m_ullMask & ZV_DOWNLOAD_STATE)
        m_usState = stream.ReadU16();
    LoadFlagOrFalse(stream, m_ullMask & ZV_DOWNLOAD_STOPPED, m_bStopped);
    LoadFlagOrFalse(stream, m_ullMask & ZV_DOWNLOAD_ACTIVE, m_bActive);
    if (m_ullMask & ZV_DOWNLOAD_USER_ID)
        m_UserID.Load(stream);
}

bool ZV_FileDownloadInfo::SetFileName(const QB_StringU8& sValue)
{
    return SetTextField(m_sFileName, m_ullMask, ZV_DOWNLOAD_FILE_NAME, sValue);
}

// Only the local name is measured: the other texts are taken over from the
// file's description or cut from the local path, and are kept as given.
bool ZV_FileDownloadInfo::SetFilePath(const QB_StringU8& sValue)
{
    return SetValueField(m_sFilePath, m_ullMask, ZV_DOWNLOAD_FILE_PATH, sValue);
}
bool ZV_FileDownloadInfo::SetFileFullName(const QB_StringU8& sValue)
{
    return SetValueField(m_sFileFullName, m_ullMask, ZV_DOWNLOAD_FILE_FULL_NAME, sValue);
}
bool ZV_FileDownloadInfo::SetFileType(const QB_StringU8& sValue)
{
    return SetValueField(m_sFileType, m_ullMask, ZV_DOWNLOAD_FILE_TYPE, sValue);
}

bool ZV_FileDownloadInfo::SetFileID(uint16_t usValue)
{
    return SetValueField(m_usFileID, m_ullMask, ZV_DOWNLOAD_FILE_ID, usValue);
}
bool ZV_FileDownloadInfo::SetFileLenth(uint32_t ulValue)
{
    return SetValueField(m_ulFileLenth, m_ullMask, ZV_DOWNLOAD_FILE_LENTH, ulValue);
}
bool ZV_FileDownloadInfo::SetUsedTime(uint32_t ulValue)
{
    return SetValueField(m_ulUsedTime, m_ullMask, ZV_DOWNLOAD_USED_TIME, ulValue);
}
bool ZV_FileDownloadInfo::SetLastTick(uint32_t ulValue)
{
    return SetValueField(m_ulLastTick, m_ullMask, ZV_DOWNLOAD_LAST_TICK, ulValue);
}
bool ZV_FileDownloadInfo::SetShareTime(const QB_DateTimeEx& dtValue)
{
    return SetValueField(m_dtShareTime, m_ullMask, ZV_DOWNLOAD_SHARE_TIME, dtValue);
}
bool ZV_FileDownloadInfo::SetDownloadPos(uint32_t ulValue)
{
    return SetValueField(m_ulDownloadPos, m_ullMask, ZV_DOWNLOAD_DOWNLOAD_POS, ulValue);
}
bool ZV_FileDownloadInfo::SetState(uint16_t usValue)
{
    return SetValueField(m_usState, m_ullMask, ZV_DOWNLOAD_STATE, usValue);
}
bool ZV_FileDownloadInfo::SetStopped(bool bValue)
{
    return SetValueField(m_bStopped, m_ullMask, ZV_DOWNLOAD_STOPPED, bValue);
}
bool ZV_FileDownloadInfo::SetActive(bool bValue)
{
    return SetValueField(m_bActive, m_ullMask, ZV_DOWNLOAD_ACTIVE, bValue);
}
bool ZV_FileDownloadInfo::SetUserID(const QB_UserID& value)
{
    return SetValueField(m_UserID, m_ullMask, ZV_DOWNLOAD_USER_ID, value);
}
