// ZV_DownloadPdu: the payloads of the download road, the request (8014) and
// its answer (8015), the downloader's position (8012) and the blocks (8013),
// as plain values with a reader and a writer.
//
// Readers raise the stream's load failure on anything that does not fit;
// the caller's top-level guard takes it.
#pragma once

#include "wire/ZV_AnswerHead.h"
#include "records/ZV_FileDownloadInfo.h"
#include "wire/ZV_RecordStream.h"
#include "wire/ZV_RequestHead.h"

#include "QB_ByteStream.h"
#include "QB_String.h"

#include <cstdint>

// 8014. sPath is where the downloader will keep the file.
struct ZV_DownloadAsk : ZV_RequestHead
{
    QB_StringU8 sPath;
    uint32_t ulPos = 0;
    uint8_t bFromServer = 0;
    uint8_t bFlooded = 0;

    void Save(QB_ByteStream& stream) const
    {
        ZV_RequestHead::Save(stream);
        stream.WriteString(sPath);
        stream.WriteU32(ulPos);
        stream.WriteU8(bFromServer);
        stream.WriteU8(bFlooded);
    }
    void Load(QB_ByteStream& stream)
    {
        ZV_RequestHead::Load(stream);
        stream.ReadString(sPath);
        ulPos = stream.ReadU32();
        bFromServer = stream.ReadU8();
        bFlooded = stream.ReadU8();
    }
};

// 8015. A refusal carries an empty record, which the reader leaves unread.
struct ZV_DownloadResponse : ZV_AnswerHead
{
    ZV_FileDownloadInfo record;

    void Save(QB_ByteStream& stream) const
    {
        ZV_AnswerHead::Save(stream);
        SaveDelimited(stream, record);
    }
    void Load(QB_ByteStream& stream)
    {
        ZV_AnswerHead::Load(stream);
        if (ulResult == 0)
            LoadDelimited(stream, record);
    }
};

// 8012: where the downloader stands, as its own record says.
struct ZV_DownloadDataRequest
{
    uint16_t usFileID = 0;
    QB_UserID user;
    ZV_FileDownloadInfo record;

    void Save(QB_ByteStream& stream) const
    {
        stream.WriteU16(usFileID);
        user.Save(stream);
        SaveDelimited(stream, record);
    }
    void Load(QB_ByteStream& stream)
    {
        usFileID = stream.ReadU16();
        user.Load(stream);
        LoadDelimited(stream, record);
    }
};

// 8013. The block follows the head only when the receiver wants it: after
// a refusal, or when nothing is being downloaded, it is left unread.
struct ZV_DownloadBlock : ZV_AnswerHead
{
    uint32_t ulPos = 0;
    uint32_t ulLen = 0;
    const uint8_t* pData = nullptr;
    uint32_t ulMaxPos = 0;

    void Save(QB_ByteStream& stream) const
    {
        SaveHead(stream);
        stream.WriteBytes(pData, (int32_t)ulLen);
        SaveTail(stream);
    }
    // What comes before the data, and after it.
    void SaveHead(QB_ByteStream& stream) const
    {
        ZV_AnswerHead::Save(stream);
        stream.WriteU32(ulPos);
        stream.WriteU32(ulLen);
    }
    void SaveTail(QB_ByteStream& stream) const { stream.WriteU32(ulMaxPos); }
    // False for a block longer than a block.
    bool LoadBlock(QB_ByteStream& stream)
    {
        ulPos = stream.ReadU32();
        ulLen = stream.ReadU32();
        if (!ZV_LoadBlockData(stream, ulLen, ZV_BLOCK_SIZE, pData))
            return false;
        ulMaxPos = stream.ReadU32();
        return true;
    }
    bool Load(QB_ByteStream& stream)
    {
        ZV_AnswerHead::Load(stream);
        return LoadBlock(stream);
    }
};
