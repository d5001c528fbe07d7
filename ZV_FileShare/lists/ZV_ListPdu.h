// ZV_ListPdu: the payloads that bring a node in step: for a client, the
// conference's files with the furthest position of each (8027, 8028) and
// the user's own downloads (8029, 8030); between servers, each one's whole
// store and download records (8031, 8032). Beside them what each entry adds
// to a PDU, by which wire/ZV_CutList.h cuts a long list.
//
// Readers raise the stream's load failure on anything that does not fit;
// the caller's top-level guard takes it.
#pragma once

#include "add/ZV_AddPdu.h"
#include "records/ZV_FileDownloadInfo.h"
#include "records/ZV_FileUploadInfo.h"
#include "wire/ZV_RecordStream.h"

#include "QB_Array.h"
#include "QB_ByteStream.h"
#include "QB_UserID.h"

#include <cstdint>

// 8027 and 8029: whose list is wanted. The FileID only travels back.
struct ZV_ListRequest
{
    uint16_t usFileID = 0;
    QB_UserID user;

    void Save(QB_ByteStream& stream) const
    {
        stream.WriteU16(usFileID);
        user.Save(stream);
    }
    void Load(QB_ByteStream& stream)
    {
        usFileID = stream.ReadU16();
        user.Load(stream);
    }
};

// 8028, one piece of an answer, on the answer head. The head stays put
// while the body of each piece is written behind it; a refusal ends behind
// the result.
struct ZV_UploadListResponse : ZV_AnswerHead
{
    QB_Array<ZV_FileUploadInfo> arrInfo;
    QB_Array<uint32_t> arrMaxPos;
    uint8_t bLast = 1;

    static constexpr uint32_t kHeadSize = 16;

    void SaveHead(QB_ByteStream& stream) const { ZV_AnswerHead::Save(stream); }
    void SaveBody(QB_ByteStream& stream) const
    {
        SaveSequence(stream, arrInfo);
        SaveU32Array(stream, arrMaxPos);
        stream.WriteU8(bLast);
    }
    void Save(QB_ByteStream& stream) const
    {
        if (ulResult != 0)
        {
            stream.WriteU16(usRouteID);
            stream.WriteU32(ulResult);
            return;
        }
        SaveHead(stream);
        SaveBody(stream);
    }
    // A peer that sends fewer positions than records (or the other way
    // round) gets the common part taken.
    void Load(QB_ByteStream& stream)
    {
        usRouteID = stream.ReadU16();
        ulResult = stream.ReadU32();
        if (ulResult != 0)
            return;
        usFileID = stream.ReadU16();
        user.Load(stream);
        LoadSequence(stream, arrInfo);
        LoadU32Array(stream, arrMaxPos);
        bLast = stream.ReadU8();
        const int nCommon = arrInfo.GetSize() < arrMaxPos.GetSize() ? arrInfo.GetSize() : arrMaxPos.GetSize();
        ZV_TrimToSize(arrInfo, nCommon);
        ZV_TrimToSize(arrMaxPos, nCommon);
    }
};

// 8030, complete in itself.
struct ZV_DownloadListResponse
{
    uint32_t ulResult = 0;
    QB_UserID user;
    QB_Array<ZV_FileDownloadInfo> arrInfo;
    QB_Array<bool> arrModify;

    static constexpr uint32_t kHeadSize = 12;

    void SaveHead(QB_ByteStream& stream) const
    {
        stream.WriteU32(ulResult);
        user.Save(stream);
    }
    void SaveBody(QB_ByteStream& stream) const
    {
        SaveSequence(stream, arrInfo);
        SaveBoolArray(stream, arrModify);
    }
    void Save(QB_ByteStream& stream) const
    {
        SaveHead(stream);
        SaveBody(stream);
    }
    void Load(QB_ByteStream& stream)
    {
        ulResult = stream.ReadU32();
        user.Load(stream);
        LoadSequence(stream, arrInfo);
        LoadBoolArray(stream, arrModify);
        const int nCommon = arrInfo.GetSize() < arrModify.GetSize() ? arrInfo.GetSize() : arrModify.GetSize();
        ZV_TrimToSize(arrInfo, nCommon);
        ZV_TrimToSize(arrModify, nCommon);
    }
};

// 8031: the server that asks for a linked server's files.
struct ZV_FileListRequest
{
    QB_UserID requester;

    void Save(QB_ByteStream& stream) const { requester.Save(stream); }
    void Load(QB_ByteStream& stream) { requester.Load(stream); }
};

// 8032, one piece of a server's answer, complete in itself: either files
// (bUploadList 1), each with whether all its bytes arrived and the furthest
// position known of it, or download records (bUploadList 0). The head stays
// put while the body of each piece is written behind it.
struct ZV_FileListResponse
{
    uint32_t ulResult = 0;
    QB_UserID sender;
    uint8_t bUploadList = 1;
    QB_Array<ZV_FileUploadInfo> arrInfo;
    QB_Array<bool> arrState;
    QB_Array<uint32_t> arrMaxPos;
    QB_Array<ZV_FileDownloadInfo> arrDownload;

    static constexpr uint32_t kHeadSize = 12;

    void SaveHead(QB_ByteStream& stream) const
    {
        stream.WriteU32(ulResult);
        sender.Save(stream);
    }
    void SaveBody(QB_ByteStream& stream) const
    {
        stream.WriteU8(bUploadList);
        if (bUploadList == 0)
        {
            SaveSequence(stream, arrDownload);
            return;
        }
        SaveSequence(stream, arrInfo);
        SaveBoolArray(stream, arrState);
        SaveU32Array(stream, arrMaxPos);
    }
    void Save(QB_ByteStream& stream) const
    {
        SaveHead(stream);
        SaveBody(stream);
    }
    // A refusal's body is not read. A peer that sends fewer flags or
    // positions than files gets the files they cover taken, as in 8028.
    void Load(QB_ByteStream& stream)
    {
        ulResult = stream.ReadU32();
        sender.Load(stream);
        bUploadList = stream.ReadU8();
        if (ulResult != 0)
            return;
        if (bUploadList == 0)
        {
            LoadSequence(stream, arrDownload);
            return;
        }
        LoadSequence(stream, arrInfo);
        LoadBoolArray(stream, arrState);
        LoadU32Array(stream, arrMaxPos);
        int nCommon = arrInfo.GetSize() < arrState.GetSize() ? arrInfo.GetSize() : arrState.GetSize();
        nCommon = nCommon < arrMaxPos.GetSize() ? nCommon : arrMaxPos.GetSize();
        ZV_TrimToSize(arrInfo, nCommon);
        ZV_TrimToSize(arrState, nCommon);
        ZV_TrimToSize(arrMaxPos, nCommon);
    }
};

// What one upload record adds to a list: its length word and mask byte and
// its fields. It counts the brief generously, so it is an upper bound.
inline uint32_t ZV_UploadRecordSize(const ZV_FileUploadInfo& info)
{
    const uint64_t ullMask = info.m_ullMask;
    uint32_t ulSize = 5;
    if (ullMask & ZV_UPLOAD_FILE_ID)
        ulSize += 2;
    if (ullMask & ZV_UPLOAD_FILE_NEW_NAME)
        ulSize += (uint32_t)QB_ByteStream::GetStringSize(info.m_sFileNewName);
    if (ullMask & ZV_UPLOAD_BRIEF_INFO)
        ulSize += info.m_BriefInfo.GetSaveSize();
    if (ullMask & ZV_UPLOAD_FILE_WRITE_POS)
        ulSize += 4;
    return ulSize;
}

// What one download record adds to a list: its length word and mask word
// and its fields.
inline uint32_t ZV_DownloadRecordSize(const ZV_FileDownloadInfo& info)
{
    const uint64_t ullMask = info.m_ullMask;
    uint32_t ulSize = 6;
    if (ullMask & ZV_DOWNLOAD_FILE_ID)
        ulSize += 2;
    const QB_StringU8* aTexts[] = {&info.m_sFilePath, &info.m_sFileFullName, &info.m_sFileName, &info.m_sFileType};
    const uint64_t aTextBits[] = {ZV_DOWNLOAD_FILE_PATH, ZV_DOWNLOAD_FILE_FULL_NAME, ZV_DOWNLOAD_FILE_NAME,
                                  ZV_DOWNLOAD_FILE_TYPE};
    for (int i = 0; i < 4; ++i)
        if (ullMask & aTextBits[i])
            ulSize += (uint32_t)QB_ByteStream::GetStringSize(*aTexts[i]);
    const uint64_t ullFours = ZV_DOWNLOAD_FILE_LENTH | ZV_DOWNLOAD_USED_TIME | ZV_DOWNLOAD_LAST_TICK |
                              ZV_DOWNLOAD_DOWNLOAD_POS;
    ulSize += 4 * (uint32_t)__builtin_popcountll(ullMask & ullFours);
    if (ullMask & ZV_DOWNLOAD_SHARE_TIME)
        ulSize += 8;
    if (ullMask & ZV_DOWNLOAD_STATE)
        ulSize += 2;
    ulSize += (uint32_t)__builtin_popcountll(ullMask & (ZV_DOWNLOAD_STOPPED | ZV_DOWNLOAD_ACTIVE));
    if (ullMask & ZV_DOWNLOAD_USER_ID)
        ulSize += 12;
    return ulSize;
}

// What one record and its position add to an 8028.
inline uint32_t ZV_UploadListEntrySize(const ZV_FileUploadInfo& info)
{
    return ZV_UploadRecordSize(info) + 4;
}

// What one record and its flag add to an 8030.
inline uint32_t ZV_DownloadListEntrySize(const ZV_FileDownloadInfo& info)
{
    return ZV_DownloadRecordSize(info) + 1;
}

// What one file adds to an 8032: its record, its flag and its position.
inline uint32_t ZV_FileListEntrySize(const ZV_FileUploadInfo& info)
{
    return ZV_UploadRecordSize(info) + 5;
}

// What one file adds to a "files added" event (3013): its FileID, its
// delimited record and its rate.
inline uint32_t ZV_FilesAddedEntrySize(const ZV_FileBriefInfo& brief)
{
    return 2 + 4 + brief.GetSaveSize() + 8;
}
