// ZV_RequestHead: the three fields a request about one file begins with,
// and the bounded data of a block. Requests that flood between servers carry
// the asker and the flood's number right behind the FileID they route by.
#pragma once

#include "QB_ByteStream.h"
#include "QB_UserID.h"

#include <cstdint>

// Bytes of one data block.
constexpr uint32_t ZV_BLOCK_SIZE = 32768;

// A FileID on the wire that says none has been given yet.
constexpr uint16_t ZV_NO_FILEID = 0xFFFF;

struct ZV_RequestHead
{
    uint16_t usFileID = ZV_NO_FILEID;
    QB_UserID user;
    uint32_t ulFloodSeq = 0;

    void Save(QB_ByteStream& stream) const
    {
        stream.WriteU16(usFileID);
        user.Save(stream);
        stream.WriteU32(ulFloodSeq);
    }
    // Raises the stream's load failure on a short payload.
    void Load(QB_ByteStream& stream)
    {
        usFileID = stream.ReadU16();
        user.Load(stream);
        ulFloodSeq = stream.ReadU32();
    }
};

// The data of a block is not copied out of the payload. The length is
// checked before the data is stepped over, so that a hostile count can
// neither pass the receiver's block buffer nor walk the stream backwards.
inline bool ZV_LoadBlockData(QB_ByteStream& stream, uint32_t ulLen, uint32_t ulMaxLen, const uint8_t*& pData)
{
    if (ulLen > ulMaxLen)
        return false;
    pData = stream.GetBuffer() + stream.GetPos();
    stream.Skip((int32_t)ulLen);
    return true;
}
