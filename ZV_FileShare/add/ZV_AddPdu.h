// ZV_AddPdu: the payloads of adding files, one file (8001, 8002) and several
// (8055, 8056), as plain values with a reader and a writer each. Manager and
// session both parse them, so the layout lives here once.
//
// Readers raise the stream's load failure on anything that does not fit;
// the caller's top-level guard takes it.
#pragma once

#include "wire/ZV_AnswerHead.h"
#include "wire/ZV_RequestHead.h"
#include "records/ZV_FileBriefInfo.h"
#include "wire/ZV_RecordStream.h"

#include "QB_Array.h"
#include "QB_ByteStream.h"
#include "QB_UserID.h"

#include <cstdint>
#include <vector>

// 8001. The head's user is the file's creator. The head comes apart from
// the rest because the flood test sits between them.
struct ZV_AddRequest : ZV_RequestHead
{
    ZV_FileBriefInfo brief;
    uint8_t bStartUpload = 0;

    void LoadHead(QB_ByteStream& stream) { ZV_RequestHead::Load(stream); }
    void LoadBody(QB_ByteStream& stream)
    {
        LoadDelimited(stream, brief);
        bStartUpload = stream.ReadU8();
    }
    void Load(QB_ByteStream& stream)
    {
        LoadHead(stream);
        LoadBody(stream);
    }
    void Save(QB_ByteStream& stream) const
    {
        ZV_RequestHead::Save(stream);
        SaveDelimited(stream, brief);
        stream.WriteU8(bStartUpload);
    }
    // Writes this head over the head of a payload that holds one already,
    // leaving the rest of it as it came.
    void SaveHeadOver(std::vector<uint8_t>& vbPayload) const
    {
        QB_ByteStream stream(vbPayload.data(), (int32_t)vbPayload.size(), false);
        ZV_RequestHead::Save(stream);
    }
};

// 8002. The head's user is the file's creator.
struct ZV_AddResponse : ZV_AnswerHead
{
    uint32_t ulWritePos = 0;
    ZV_FileBriefInfo brief;
    uint8_t bStartUpload = 0;

    void Load(QB_ByteStream& stream)
    {
        ZV_AnswerHead::Load(stream);
        ulWritePos = stream.ReadU32();
        LoadDelimited(stream, brief);
        bStartUpload = stream.ReadU8();
    }
    void Save(QB_ByteStream& stream) const
    {
        ZV_AnswerHead::Save(stream);
        stream.WriteU32(ulWritePos);
        SaveDelimited(stream, brief);
        stream.WriteU8(bStartUpload);
    }
};

// A peer that sends fewer descriptions than FileIDs (or the other way round)
// gets the common part taken; every honest sender keeps them equal.
template <typename T>
void ZV_TrimToSize(QB_Array<T>& arr, int nSize)
{
    if (arr.GetSize() > nSize)
        arr.SetSize(nSize);
}

// 8055: a head (user, flood, start flag) and a body of files.
struct ZV_AddFilesRequest
{
    QB_UserID user;
    uint32_t ulFloodSeq = 0;
    uint8_t bStartUpload = 0;
    QB_Array<uint16_t> arrFileID;
    QB_Array<ZV_FileBriefInfo> arrInfo;
    uint8_t bLast = 1;

    void LoadHead(QB_ByteStream& stream)
    {
        user.Load(stream);
        ulFloodSeq = stream.ReadU32();
    }
    void LoadBody(QB_ByteStream& stream)
    {
        bStartUpload = stream.ReadU8();
        LoadU16Array(stream, arrFileID);
        LoadSequence(stream, arrInfo);
        bLast = stream.ReadU8();
        const int nCommon = arrFileID.GetSize() < arrInfo.GetSize() ? arrFileID.GetSize() : arrInfo.GetSize();
        ZV_TrimToSize(arrFileID, nCommon);
        ZV_TrimToSize(arrInfo, nCommon);
    }
    void Load(QB_ByteStream& stream)
    {
        LoadHead(stream);
        LoadBody(stream);
    }
    void SaveHead(QB_ByteStream& stream) const
    {
        user.Save(stream);
        stream.WriteU32(ulFloodSeq);
        stream.WriteU8(bStartUpload);
    }
    void SaveBody(QB_ByteStream& stream) const
    {
        SaveU16Array(stream, arrFileID);
        SaveSequence(stream, arrInfo);
        stream.WriteU8(bLast);
    }
    void Save(QB_ByteStream& stream) const
    {
        SaveHead(stream);
        SaveBody(stream);
    }
};

// 8056. Positions may be empty (a refusal); a client reads the three arrays
// by the index of the FileIDs and never past the shortest.
struct ZV_AddFilesResponse
{
    uint32_t ulResult = 0;
    QB_UserID user;
    uint8_t bStartUpload = 0;
    QB_Array<uint16_t> arrFileID;
    QB_Array<uint32_t> arrPos;
    QB_Array<ZV_FileBriefInfo> arrInfo;
    uint8_t bLast = 1;

    void Load(QB_ByteStream& stream)
    {
        ulResult = stream.ReadU32();
        user.Load(stream);
        bStartUpload = stream.ReadU8();
        LoadU16Array(stream, arrFileID);
        LoadU32Array(stream, arrPos);
        LoadSequence(stream, arrInfo);
        bLast = stream.ReadU8();
    }
    void SaveHead(QB_ByteStream& stream) const
    {
        stream.WriteU32(ulResult);
        user.Save(stream);
        stream.WriteU8(bStartUpload);
    }
    void SaveBody(QB_ByteStream& stream) const
    {
        SaveU16Array(stream, arrFileID);
        SaveU32Array(stream, arrPos);
        SaveSequence(stream, arrInfo);
        stream.WriteU8(bLast);
    }
    void Save(QB_ByteStream& stream) const
    {
        SaveHead(stream);
        SaveBody(stream);
    }
};

// Both batch writers (8055, 8056) count a PDU's size from its head plus this
// room, and cut before a description that would bring the count to the
// buffer's size: one byte tighter than the lists (wire/ZV_CutList.h).
constexpr uint32_t ZV_BATCH_HEAD_ROOM = 33;
constexpr uint32_t ZV_BATCH_CUT_LIMIT = (uint32_t)QB_PDU_BUFFER_SIZE - 1;

// What one description adds to a batch PDU, by the count both batch writers
// use: the record's own bound plus six, a little more than the record's
// length word, its FileID and its position need.
inline uint32_t ZV_AddFilesEntrySize(const ZV_FileBriefInfo& brief)
{
    return brief.GetSaveSize() + 6;
}
