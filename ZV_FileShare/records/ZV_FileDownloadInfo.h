// ZV_FileDownloadInfo: how far one user's download of one file has come.
#pragma once

#include "QB_DatetimeEx.h"
#include "QB_String.h"
#include "QB_UserID.h"
#include "records/ZV_Streamable.h"

#include <cstdint>

// Presence bits of ZV_FileDownloadInfo, in the order the fields travel.
enum : uint64_t
{
    ZV_DOWNLOAD_FILE_ID = 0x0001,
    ZV_DOWNLOAD_FILE_PATH = 0x0002,
    ZV_DOWNLOAD_FILE_FULL_NAME = 0x0004,
    ZV_DOWNLOAD_FILE_NAME = 0x0008,
    ZV_DOWNLOAD_FILE_TYPE = 0x0010,
    ZV_DOWNLOAD_FILE_LENTH = 0x0020,
    ZV_DOWNLOAD_USED_TIME = 0x0040,
    ZV_DOWNLOAD_LAST_TICK = 0x0080,
    ZV_DOWNLOAD_SHARE_TIME = 0x0100,
    ZV_DOWNLOAD_DOWNLOAD_POS = 0x0200,
    ZV_DOWNLOAD_STATE = 0x0400,
    ZV_DOWNLOAD_STOPPED = 0x0800,
    ZV_DOWNLOAD_ACTIVE = 0x1000,
    ZV_DOWNLOAD_USER_ID = 0x2000,
};

// m_usState of a download; a scale of its own, not the file's state.
enum : uint16_t
{
    zvDownloadStateNew = 0,
    zvDownloadStateRunning = 1,
    zvDownloadStateStopped = 2,
    zvDownloadStateFinished = 3,
};

class ZV_FileDownloadInfo : public ZV_Streamable
{
public:
    ZV_FileDownloadInfo() = default;
    // Copies take the mask and every field, set or not.
    ZV_FileDownloadInfo(const ZV_FileDownloadInfo&) = default;
    ZV_FileDownloadInfo& operator=(const ZV_FileDownloadInfo&) = default;
    ~ZV_FileDownloadInfo() = default;

    void Load(QB_ByteStream& stream) override;
    void Save(QB_ByteStream& stream) const override;

    // Refuse more than 1024 bytes of UTF-8 and then change nothing.
    bool SetFileName(const QB_StringU8& sValue);

    bool SetFileID(uint16_t usValue);
    bool SetFilePath(const QB_StringU8& sValue);
    bool SetFileFullName(const QB_StringU8& sValue);
    bool SetFileType(const QB_StringU8& sValue);
    bool SetFileLenth(uint32_t ulValue);
    bool SetUsedTime(uint32_t ulValue);
    bool SetLastTick(uint32_t ulValue);
    bool SetShareTime(const QB_DateTimeEx& dtValue);
    bool SetDownloadPos(uint32_t ulValue);
    bool SetState(uint16_t usValue);
    bool SetStopped(bool bValue);
    bool SetActive(bool bValue);
    bool SetUserID(const QB_UserID& value);

    // Fields are open to code that assigns one and sets its bit by hand.
    uint64_t m_ullMask = 0;
    uint16_t m_usFileID = 0;
    QB_StringU8 m_sFilePath;
    QB_StringU8 m_sFileFullName;
    QB_StringU8 m_sFileName;
    QB_StringU8 m_sFileType;
    uint32_t m_ulFileLenth = 0;
    uint32_t m_ulUsedTime = 0;
    uint32_t m_ulLastTick = 0;
    QB_DateTimeEx m_dtShareTime;
    uint32_t m_ulDownloadPos = 0;
    uint16_t m_usState = zvDownloadStateNew;
    bool m_bStopped = false;
    bool m_bActive = false;
    QB_UserID m_UserID;
};
