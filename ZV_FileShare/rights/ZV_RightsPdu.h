// ZV_RightsPdu: the payloads of a file's rights that the manager handles
// itself: the new description for every client (8004) and the change of
// several files at once (8040, and the refusal 8041). Beside them the rule
// by which a change applies to a rights list.
//
// Readers raise the stream's load failure on anything that does not fit;
// the caller's top-level guard takes it.
#pragma once

#include "records/ZV_FileBriefInfo.h"
#include "wire/ZV_RecordStream.h"
#include "wire/ZV_RequestHead.h"

#include "QB_Array.h"
#include "QB_ByteStream.h"
#include "QB_UserID.h"

#include <cstdint>

// A public file needs no list; otherwise the adds go in once each, then the
// removes come out.
inline QB_Array<QB_UserID> ZV_ChangeRights(const QB_Array<QB_UserID>& arrRight, bool bPublic,
                                           const QB_Array<QB_UserID>& arrAdd, const QB_Array<QB_UserID>& arrRemove)
{
    QB_Array<QB_UserID> arrNew;
    if (bPublic)
        return arrNew;
    arrNew = arrRight;
    for (int i = 0; i < arrAdd.GetSize(); ++i)
        if (arrNew.Find(arrAdd[i]) < 0)
            arrNew.Add(arrAdd[i]);
    for (int i = 0; i < arrRemove.GetSize(); ++i)
        if (const int nAt = arrNew.Find(arrRemove[i]); nAt >= 0)
            arrNew.RemoveAt(nAt);
    return arrNew;
}

// 8004. A refusal ends behind the user; a success carries the new
// description and the server's furthest position.
struct ZV_SetRightResponse
{
    uint32_t ulResult = 0;
    uint16_t usFileID = ZV_NO_FILEID;
    QB_UserID user;
    ZV_FileBriefInfo brief;
    uint32_t ulMaxPos = 0;

    void Save(QB_ByteStream& stream) const
    {
        stream.WriteU32(ulResult);
        stream.WriteU16(usFileID);
        user.Save(stream);
        if (ulResult != 0)
            return;
        SaveDelimited(stream, brief);
        stream.WriteU32(ulMaxPos);
    }
    void Load(QB_ByteStream& stream)
    {
        ulResult = stream.ReadU32();
        usFileID = stream.ReadU16();
        user.Load(stream);
        if (ulResult != 0)
            return;
        LoadDelimited(stream, brief);
        ulMaxPos = stream.ReadU32();
    }
};

// 8040. The change is read after the flood test, so the head loads apart.
struct ZV_SetFilesRightRequest
{
    QB_Array<uint16_t> arrFileID;
    QB_UserID user;
    uint32_t ulFloodSeq = 0;
    uint8_t bPublic = 0;
    QB_Array<QB_UserID> arrAdd;
    QB_Array<QB_UserID> arrRemove;

    void LoadHead(QB_ByteStream& stream)
    {
        LoadU16Array(stream, arrFileID);
        user.Load(stream);
        ulFloodSeq = stream.ReadU32();
    }
    void LoadBody(QB_ByteStream& stream)
    {
        bPublic = stream.ReadU8();
        LoadUserIDArray(stream, arrAdd);
        LoadUserIDArray(stream, arrRemove);
    }
    void Load(QB_ByteStream& stream)
    {
        LoadHead(stream);
        LoadBody(stream);
    }
    void Save(QB_ByteStream& stream) const
    {
        SaveU16Array(stream, arrFileID);
        user.Save(stream);
        stream.WriteU32(ulFloodSeq);
        stream.WriteU8(bPublic);
        SaveUserIDArray(stream, arrAdd);
        SaveUserIDArray(stream, arrRemove);
    }
};

// 8041 in the one form anything sends, the refusal: the FileIDs stand twice,
// around the result.
struct ZV_SetFilesRightRefusal
{
    QB_Array<uint16_t> arrFileID;
    uint32_t ulResult = 0;
    QB_UserID user;
    uint32_t ulFloodSeq = 0;

    void Save(QB_ByteStream& stream) const
    {
        SaveU16Array(stream, arrFileID);
        stream.WriteU32(ulResult);
        SaveU16Array(stream, arrFileID);
        user.Save(stream);
        stream.WriteU32(ulFloodSeq);
    }
    void Load(QB_ByteStream& stream)
    {
        LoadU16Array(stream, arrFileID);
        ulResult = stream.ReadU32();
        LoadU16Array(stream, arrFileID);
        user.Load(stream);
        ulFloodSeq = stream.ReadU32();
    }
};
