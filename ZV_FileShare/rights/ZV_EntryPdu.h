// ZV_EntryPdu: the payloads that change who may fetch a file from a server
// without moving its bytes: a downloader's entry dropped (8010), the notice
// that a file's source moved (8037), and one file's rights (8003).
//
// Readers raise the stream's load failure on anything that does not fit;
// the caller's top-level guard takes it.
#pragma once

#include "wire/ZV_RecordStream.h"
#include "wire/ZV_RequestHead.h"

#include "QB_Array.h"
#include "QB_ByteStream.h"
#include "QB_UserID.h"

#include <cstdint>

// 8010 and 8037 are a request head and nothing more: the file, whose entry
// goes (8010) or which server sent the notice first (8037), and the flood
// number.
using ZV_EntryRequest = ZV_RequestHead;

// 8003. The change itself is read only after the asker passed the creator
// and flood tests, so the head loads apart.
struct ZV_SetRightRequest
{
    ZV_EntryRequest head;
    uint8_t bPublic = 0;
    QB_Array<QB_UserID> arrAdd;
    QB_Array<QB_UserID> arrRemove;

    void LoadBody(QB_ByteStream& stream)
    {
        bPublic = stream.ReadU8();
        LoadUserIDArray(stream, arrAdd);
        LoadUserIDArray(stream, arrRemove);
    }
    void Load(QB_ByteStream& stream)
    {
        head.Load(stream);
        LoadBody(stream);
    }
    void Save(QB_ByteStream& stream) const
    {
        head.Save(stream);
        stream.WriteU8(bPublic);
        SaveUserIDArray(stream, arrAdd);
        SaveUserIDArray(stream, arrRemove);
    }
};
