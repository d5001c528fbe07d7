// ZV_ControlPdu: the payloads of stop and resume (8016, 8017, 8018),
// progress (8021, 8022), upload errors (8035, 8036) and the state notice to
// the clients (8052), as plain values with a reader and a writer.
//
// Readers raise the stream's load failure on anything that does not fit;
// the caller's top-level guard takes it.
#pragma once

#include "wire/ZV_AnswerHead.h"
#include "wire/ZV_RecordStream.h"
#include "wire/ZV_RequestHead.h"

#include "QB_Array.h"
#include "QB_ByteStream.h"
#include "QB_UserID.h"

#include <cstdint>

// 8016: stop or resume a download.
struct ZV_StopDownloadAsk : ZV_RequestHead
{
    uint8_t bStop = 0;

    void Save(QB_ByteStream& stream) const
    {
        ZV_RequestHead::Save(stream);
        stream.WriteU8(bStop);
    }
    void Load(QB_ByteStream& stream)
    {
        ZV_RequestHead::Load(stream);
        bStop = stream.ReadU8();
    }
};

// 8017: stop or resume an upload, with where the uploader stood.
struct ZV_StopUploadAsk : ZV_StopDownloadAsk
{
    uint32_t ulPos = 0;

    void Save(QB_ByteStream& stream) const
    {
        ZV_StopDownloadAsk::Save(stream);
        stream.WriteU32(ulPos);
    }
    void Load(QB_ByteStream& stream)
    {
        ZV_StopDownloadAsk::Load(stream);
        ulPos = stream.ReadU32();
    }
};

// 8018: the server's confirmation, or refusal, of 8017.
struct ZV_StopUploadResponse : ZV_AnswerHead
{
    uint8_t bStop = 0;
    uint32_t ulPos = 0;

    void Save(QB_ByteStream& stream) const
    {
        ZV_AnswerHead::Save(stream);
        stream.WriteU8(bStop);
        stream.WriteU32(ulPos);
    }
    void Load(QB_ByteStream& stream)
    {
        ZV_AnswerHead::Load(stream);
        bStop = stream.ReadU8();
        ulPos = stream.ReadU32();
    }
};

// 8022: how many bytes a server holds.
struct ZV_Progress
{
    uint16_t usFileID = 0;
    QB_UserID user;
    uint32_t ulPos = 0;

    void Save(QB_ByteStream& stream) const
    {
        stream.WriteU16(usFileID);
        user.Save(stream);
        stream.WriteU32(ulPos);
    }
    void Load(QB_ByteStream& stream)
    {
        usFileID = stream.ReadU16();
        user.Load(stream);
        ulPos = stream.ReadU32();
    }
};

// 8021: the same between servers, and whether the receiver shall forget
// the sender as a downloader.
struct ZV_ProgressRequest : ZV_Progress
{
    uint8_t bRestart = 0;

    void Save(QB_ByteStream& stream) const
    {
        ZV_Progress::Save(stream);
        stream.WriteU8(bRestart);
    }
    void Load(QB_ByteStream& stream)
    {
        ZV_Progress::Load(stream);
        bRestart = stream.ReadU8();
    }
};

// 8035: where the uploader's read failed.
struct ZV_UploadErrorAsk : ZV_RequestHead
{
    uint32_t ulPos = 0;

    void Save(QB_ByteStream& stream) const
    {
        ZV_RequestHead::Save(stream);
        stream.WriteU32(ulPos);
    }
    void Load(QB_ByteStream& stream)
    {
        ZV_RequestHead::Load(stream);
        ulPos = stream.ReadU32();
    }
};

// 8036: the one answer that carries no user.
struct ZV_UploadErrorResponse : ZV_ResultHead
{
};

// 8052: a new state of the transfers of some files; the module sends one
// FileID at a time.
struct ZV_FileStateNotice
{
    QB_Array<uint16_t> arrFileID;
    uint16_t usState = 0;
    uint8_t bUpload = 0;

    void Save(QB_ByteStream& stream) const
    {
        SaveU16Array(stream, arrFileID);
        stream.WriteU16(usState);
        stream.WriteU8(bUpload);
    }
    void Load(QB_ByteStream& stream)
    {
        LoadU16Array(stream, arrFileID);
        usState = stream.ReadU16();
        bUpload = stream.ReadU8();
    }
};
