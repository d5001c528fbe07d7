// ZV_FileUploadInfo: one file as a server stores it, and the row that the
// catalogue keeps of it.
#pragma once

#include "QB_String.h"
#include "records/ZV_FileBriefInfo.h"
#include "records/ZV_Streamable.h"

#include <cstdint>

// Presence bits of ZV_FileUploadInfo, in the order the fields travel.
enum : uint64_t
{
    ZV_UPLOAD_FILE_ID = 0x1,
    ZV_UPLOAD_FILE_NEW_NAME = 0x2,
    ZV_UPLOAD_BRIEF_INFO = 0x4,
    ZV_UPLOAD_FILE_WRITE_POS = 0x8,
};

class ZV_FileUploadInfo : public ZV_Streamable
{
public:
    ZV_FileUploadInfo() = default;
    // Copies take the mask and every field, set or not.
    ZV_FileUploadInfo(const ZV_FileUploadInfo&) = default;
    ZV_FileUploadInfo& operator=(const ZV_FileUploadInfo&) = default;
    ~ZV_FileUploadInfo() = default;

    void Load(QB_ByteStream& stream) override;
    void Save(QB_ByteStream& stream) const override;

    // Refuse more than 1024 bytes of UTF-8 and then change nothing.
    bool SetFileNewName(const QB_StringU8& sValue);
    bool SetFileNewName(const QB_StringW& sValue);

    bool SetFileID(uint16_t usValue);
    bool SetBriefInfo(const ZV_FileBriefInfo& value);
    bool SetFileWritePos(uint32_t ulValue);

    // Fields are open to code that assigns one and sets its bit by hand.
    uint64_t m_ullMask = 0;
    uint16_t m_usFileID = 0;
    QB_StringU8 m_sFileNewName;
    ZV_FileBriefInfo m_BriefInfo;
    uint32_t m_ulFileWritePos = 0;
};
