// ZV_DeletePdu: the payloads of taking a whole file out of the conference,
// 8008 and 8009, as plain values with a reader and a writer each.
//
// Readers raise the stream's load failure on anything that does not fit;
// the caller's top-level guard takes it.
#pragma once

#include "wire/ZV_AnswerHead.h"
#include "wire/ZV_RequestHead.h"

#include "QB_ByteStream.h"
#include "QB_UserID.h"

#include <cstdint>

// 8008 is a request head and nothing more. From a client the flood number
// is 0; the first server fills it in.
using ZV_DelUploadRequest = ZV_RequestHead;

// 8009: the answer head and the flood number the first server gave.
struct ZV_DelUploadResponse
{
    ZV_AnswerHead head;
    uint32_t ulFloodSeq = 0;

    void Save(QB_ByteStream& stream) const
    {
        head.Save(stream);
        stream.WriteU32(ulFloodSeq);
    }
    void Load(QB_ByteStream& stream)
    {
        head.Load(stream);
        ulFloodSeq = stream.ReadU32();
    }
};
