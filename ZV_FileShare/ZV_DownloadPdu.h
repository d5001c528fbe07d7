// ZV_DownloadPdu: the payloads of the download road that both of its sides
// read or write, 8014 and 8013, as plain values with a reader and a writer.
//
// Readers raise the stream's load failure on anything that does not fit;
// the caller's top-level guard takes it.
#pragma once

#include "ZV_FileShareSession.h"

#include "QB_ByteStream.h"
#include "QB_String.h"
#include "QB_UserID.h"

#include <cstdint>

// The fields of 8014.
struct ZV_DownloadAsk
{
    uint16_t usFileID = 0;
    QB_UserID user;
    uint32_t ulFloodSeq = 0;
    QB_StringU8 sPath;
    uint32_t ulPos = 0;
    uint8_t bFromServer = 0;
    uint8_t bFlooded = 0;
};

// One 8013 block as it lies in the payload; the data is not copied.
struct ZV_DownloadBlock
{
    uint32_t ulPos = 0;
    uint32_t ulLen = 0;
    const uint8_t* pData = nullptr;
    uint32_t ulMaxPos = 0;
};

inline void WriteDownloadRequest(QB_ByteStream& stream, const ZV_DownloadAsk& ask)
{
    stream.WriteU16(ask.usFileID);
    ask.user.Save(stream);
    stream.WriteU32(ask.ulFloodSeq);
    stream.WriteString(ask.sPath);
    stream.WriteU32(ask.ulPos);
    stream.WriteU8(ask.bFromServer);
    stream.WriteU8(ask.bFlooded);
}

inline void ReadDownloadRequest(QB_ByteStream& stream, ZV_DownloadAsk& ask)
{
    ask.usFileID = stream.ReadU16();
    ask.user.Load(stream);
    ask.ulFloodSeq = stream.ReadU32();
    stream.ReadString(ask.sPath);
    ask.ulPos = stream.ReadU32();
    ask.bFromServer = stream.ReadU8();
    ask.bFlooded = stream.ReadU8();
}

inline void WriteDataResponse(QB_ByteStream& stream, uint16_t usFileID, uint32_t ulResult, uint16_t usFileID2,
                              const QB_UserID& user, uint32_t ulPos, uint32_t ulLen, const uint8_t* pData,
                              uint32_t ulMaxPos)
{
    stream.WriteU16(usFileID);
    stream.WriteU32(ulResult);
    stream.WriteU16(usFileID2);
    user.Save(stream);
    stream.WriteU32(ulPos);
    stream.WriteU32(ulLen);
    stream.WriteBytes(pData, (int32_t)ulLen);
    stream.WriteU32(ulMaxPos);
}

// The length is checked before the data is stepped over: a count past 31
// bits would otherwise walk the stream backwards.
inline bool ReadDataBlock(QB_ByteStream& stream, ZV_DownloadBlock& block)
{
    block.ulPos = stream.ReadU32();
    block.ulLen = stream.ReadU32();
    if (block.ulLen > ZV_BLOCK_SIZE)
        return false;
    block.pData = stream.GetBuffer() + stream.GetPos();
    stream.Skip((int32_t)block.ulLen);
    block.ulMaxPos = stream.ReadU32();
    return true;
}
