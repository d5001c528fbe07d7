// ZV_UploadPdu: the payloads of the upload road, the blocks (8005), the
// server's answer that resynchronises the uploader (8006) and the flood of a
// completed file between servers (8007).
//
// Readers raise the stream's load failure on anything that does not fit;
// the caller's top-level guard takes it.
#pragma once

#include "wire/ZV_AnswerHead.h"
#include "wire/ZV_RequestHead.h"

#include "QB_ByteStream.h"

#include <cstdint>

// 8005. A start marker ends after bStart. The head and the data are read
// apart, because a client drops the PDU after the head.
struct ZV_UploadRequest : ZV_RequestHead
{
    uint8_t bStart = 0;
    uint32_t ulLen = 0;
    uint32_t ulPos = 0;
    const uint8_t* pData = nullptr;

    void Save(QB_ByteStream& stream) const
    {
        SaveHead(stream);
        if (!bStart)
            stream.WriteBytes(pData, (int32_t)ulLen);
    }
    // What comes before the data, and after it (nothing).
    void SaveHead(QB_ByteStream& stream) const
    {
        ZV_RequestHead::Save(stream);
        stream.WriteU8(bStart);
        if (bStart)
            return;
        stream.WriteU32(ulLen);
        stream.WriteU32(ulPos);
    }
    void SaveTail(QB_ByteStream&) const {}
    void LoadHead(QB_ByteStream& stream)
    {
        ZV_RequestHead::Load(stream);
        bStart = stream.ReadU8();
    }
    // False for a block longer than a block; its data is then not read.
    bool LoadData(QB_ByteStream& stream)
    {
        ulLen = stream.ReadU32();
        ulPos = stream.ReadU32();
        return ZV_LoadBlockData(stream, ulLen, ZV_BLOCK_SIZE, pData);
    }
    bool Load(QB_ByteStream& stream)
    {
        LoadHead(stream);
        return bStart != 0 || LoadData(stream);
    }
};

// 8006: the position the uploader shall go on from.
struct ZV_UploadResponse : ZV_AnswerHead
{
    uint32_t ulFloodSeq = 0;
    uint32_t ulPos = 0;

    void Save(QB_ByteStream& stream) const
    {
        ZV_AnswerHead::Save(stream);
        stream.WriteU32(ulFloodSeq);
        stream.WriteU32(ulPos);
    }
    void Load(QB_ByteStream& stream)
    {
        ZV_AnswerHead::Load(stream);
        ulFloodSeq = stream.ReadU32();
        ulPos = stream.ReadU32();
    }
};

// 8007: its user is the server that completed the file.
struct ZV_UploadFinish : ZV_RequestHead
{
};
