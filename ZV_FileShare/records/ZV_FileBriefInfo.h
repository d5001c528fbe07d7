// ZV_FileBriefInfo: what a shared file is, as its owner shared it. Only the
// fields whose bit is set in m_ullMask travel.
#pragma once

#include "QB_Array.h"
#include "QB_DatetimeEx.h"
#include "QB_String.h"
#include "QB_UserID.h"
#include "records/ZV_Streamable.h"

#include <cstdint>

// Presence bits of ZV_FileBriefInfo, in the order the fields travel.
enum : uint64_t
{
    ZV_BRIEF_CREATOR_ID = 0x001,
    ZV_BRIEF_CREATOR_NAME = 0x002,
    ZV_BRIEF_FILE_PATH = 0x004,
    ZV_BRIEF_FILE_OLD_NAME = 0x008,
    ZV_BRIEF_FILE_TYPE = 0x010,
    ZV_BRIEF_FILE_LENTH = 0x020,
    ZV_BRIEF_SHARE_TIME = 0x040,
    ZV_BRIEF_MODIFY_TIME = 0x080,
    ZV_BRIEF_FILE_STATE = 0x100,
    ZV_BRIEF_RIGHT = 0x200,
    ZV_BRIEF_PUBLIC = 0x400,
};

// m_usFileState: how far the stored file has come.
enum : uint16_t
{
    zvFileStateAdded = 0,
    zvFileStateUploading = 1,
    zvFileStateStopped = 2,
    zvFileStateComplete = 3,
    zvFileStateFailed = 4,
};

class ZV_FileBriefInfo : public ZV_Streamable
{
public:
    ZV_FileBriefInfo() = default;
    // Copies take the mask and every field, set or not.
    ZV_FileBriefInfo(const ZV_FileBriefInfo&) = default;
    ZV_FileBriefInfo& operator=(const ZV_FileBriefInfo&) = default;
    ~ZV_FileBriefInfo() = default;

    void Load(QB_ByteStream& stream) override;
    void Save(QB_ByteStream& stream) const override;

    // An upper bound of what Save writes, for cutting long lists into PDUs.
    uint32_t GetSaveSize() const;
    // Whether the file at m_sFilePath + m_sFileOldName still has the length
    // and last-write second that were shared.
    bool IsSameLocalFile() const;
    // Whether `other` describes the same shared file: a FileID that comes
    // back with another name, length, place, type, time or creator names
    // another file. Times compare as their text, to the second.
    bool IsSameFile(const ZV_FileBriefInfo& other) const;

    // Text setters refuse more than 1024 bytes of UTF-8 and then change
    // nothing; the wide ones measure the converted text.
    bool SetCreatorName(const QB_StringU8& sValue);
    bool SetFilePath(const QB_StringU8& sValue);
    bool SetFilePath(const QB_StringW& sValue);
    bool SetFileOldName(const QB_StringU8& sValue);
    bool SetFileOldName(const QB_StringW& sValue);
    bool SetFileType(const QB_StringU8& sValue);
    bool SetFileType(const QB_StringW& sValue);

    bool SetCreatorID(const QB_UserID& value);
    bool SetFileLenth(uint32_t ulValue);
    bool SetShareTime(const QB_DateTimeEx& dtValue);
    bool SetModifyTime(const QB_DateTimeEx& dtValue);
    bool SetFileState(uint16_t usValue);
    bool SetRight(const QB_Array<QB_UserID>& arrValue);
    bool SetPublic(bool bValue);

    // Fields are open to code that assigns one and sets its bit by hand.
    uint64_t m_ullMask = 0;
    QB_UserID m_CreatorID;
    QB_StringU8 m_sCreatorName;
    QB_StringU8 m_sFilePath;
    QB_StringU8 m_sFileOldName;
    QB_StringU8 m_sFileType;
    uint32_t m_ulFileLenth = 0;
    QB_DateTimeEx m_dtShareTime;
    QB_DateTimeEx m_dtModifyTime;
    uint16_t m_usFileState = zvFileStateAdded;
    QB_Array<QB_UserID> m_arrRight;
    bool m_bPublic = false;
};
