// ZV_AnswerHead: the four fields every answer to a file request begins with.
// The first FileID is a copy the host may route by; readers skip it and take
// the second.
#pragma once

#include "wire/ZV_RequestHead.h"

#include "QB_ByteStream.h"
#include "QB_UserID.h"

#include <cstdint>

// The first three, which is all that the answer to an upload error holds.
struct ZV_ResultHead
{
    uint16_t usRouteID = ZV_NO_FILEID;
    uint32_t ulResult = 0;
    uint16_t usFileID = ZV_NO_FILEID;

    void Save(QB_ByteStream& stream) const
    {
        stream.WriteU16(usRouteID);
        stream.WriteU32(ulResult);
        stream.WriteU16(usFileID);
    }
    // Raises the stream's load failure on a short payload.
    void Load(QB_ByteStream& stream)
    {
        usRouteID = stream.ReadU16();
        ulResult = stream.ReadU32();
        usFileID = stream.ReadU16();
    }
};

struct ZV_AnswerHead : ZV_ResultHead
{
    QB_UserID user;

    void Save(QB_ByteStream& stream) const
    {
        ZV_ResultHead::Save(stream);
        user.Save(stream);
    }
    void Load(QB_ByteStream& stream)
    {
        ZV_ResultHead::Load(stream);
        user.Load(stream);
    }
};
