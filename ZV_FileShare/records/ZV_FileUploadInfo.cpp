#include "records/ZV_FileUploadInfo.h"

#include "wire/ZV_RecordStream.h"

// Four bits fit the 1-byte word, which is what this record has always sent.
void ZV_FileUploadInfo::Save(QB_ByteStream& stream) const
{
    SaveMaskWord(stream, m_ullMask, ZV_MASK_WORD_1);
    if (m_ullMask & ZV_UPLOAD_FILE_ID)
        stream.WriteU16(m_usFileID);
    if (m_ullMask & ZV_UPLOAD_FILE_NEW_NAME)
        SaveText(stream, m_sFileNewName);
    if (m_ullMask & ZV_UPLOAD_BRIEF_INFO)
        SaveDelimited(stream, m_BriefInfo);
    if (m_ullMask & ZV_UPLOAD_FILE_WRITE_POS)
        stream.WriteU32(m_ulFileWritePos);
}

// Only an absent stored name is reset; the other fields keep what they held.
void ZV_FileUploadInfo::Load(QB_ByteStream& stream)
{
    m_ullMask = LoadMaskWord(stream);
    if (m_ullMask & ZV_UPLOAD_FILE_ID)
        m_usFileID = stream.ReadU16();
    LoadTextOrEmpty(stream, m_ullMask & ZV_UPLOAD_FILE_NEW_NAME, m_sFileNewName);
    if (m_ullMask & ZV_UPLOAD_BRIEF_INFO)
        LoadDelimited(stream, m_BriefInfo);
    if (m_ullMask & ZV_UPLOAD_FILE_WRITE_POS)
        m_ulFileWritePos = stream.ReadU32();
}

bool ZV_FileUploadInfo::SetFileNewName(const QB_StringU8& sValue)
{
    return SetTextField(m_sFileNewName, m_ullMask, ZV_UPLOAD_FILE_NEW_NAME, sValue);
}
bool ZV_FileUploadInfo::SetFileNewName(const QB_StringW& sValue)
{
    return SetTextField(m_sFileNewName, m_ullMask, ZV_UPLOAD_FILE_NEW_NAME, sValue);
}

bool ZV_FileUploadInfo::SetFileID(uint16_t usValue)
{
    return SetValueField(m_usFileID, m_ullMask, ZV_UPLOAD_FILE_ID, usValue);
}
bool ZV_FileUploadInfo::SetBriefInfo(const ZV_FileBriefInfo& value)
{
    return SetValueField(m_BriefInfo, m_ullMask, ZV_UPLOAD_BRIEF_INFO, value);
}
bool ZV_FileUploadInfo::SetFileWritePos(uint32_t ulValue)
{
    return SetValueField(m_ulFileWritePos, m_ullMask, ZV_UPLOAD_FILE_WRITE_POS, ulValue);
}
