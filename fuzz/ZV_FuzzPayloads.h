// The payloads of the module's headers, one row each, for the payload
// harness and the seed maker.
#pragma once

#include "add/ZV_AddPdu.h"
#include "control/ZV_ControlPdu.h"
#include "delete/ZV_DeletePdu.h"
#include "download/ZV_DownloadPdu.h"
#include "lists/ZV_ListPdu.h"
#include "rights/ZV_EntryPdu.h"
#include "rights/ZV_RightsPdu.h"
#include "upload/ZV_UploadPdu.h"

#include "QB_ByteStream.h"
#include "ZV_FuzzCheck.h"

#include <cstring>
#include <type_traits>

#include <cstdint>
#include <vector>

// A payload's saved bytes; room for four times the bytes it was loaded
// from, more than any text's change of encoding needs.
template <class T> std::vector<uint8_t> ZV_SavePayload(const T& payload, size_t nFrom = 0)
{
    const int32_t nRoom = (int32_t)(4 * nFrom + 4096);
    std::vector<uint8_t> vb((size_t)nRoom);
    QB_ByteStream stream(vb.data(), nRoom, false);
    payload.Save(stream);
    vb.resize((size_t)stream.GetPos());
    return vb;
}

// Load's word on whether the payload was whole; a void Load says so by
// not throwing.
template <class T> bool ZV_LoadWhole(T& payload, QB_ByteStream& stream)
{
    if constexpr (std::is_same_v<decltype(payload.Load(stream)), bool>)
        return payload.Load(stream);
    else
    {
        payload.Load(stream);
        return true;
    }
}

// An answer that refuses writes an empty record behind its head, which the
// reader leaves unread (8015): its bytes are not all read back.
template <class T> bool IsRefusal(const T& payload)
{
    if constexpr (requires { payload.ulResult; })
        return payload.ulResult != 0;
    else
        return false;
}

template <class T> void ZV_RoundTripPayload(const char* pszName, bool bExact, const uint8_t* pData, size_t nSize)
{
    T first;
    int32_t nUsed = 0;
    try
    {
        QB_ByteStream stream(pData, (int32_t)nSize);
        if (!ZV_LoadWhole(first, stream))
            return;  // refused, as the handler refuses it
        nUsed = stream.GetPos();
    }
    catch (const QB_StreamException&)
    {
        return;  // too short or a count past the end: the handler drops it
    }
    FUZZ_CHECK(nUsed >= 0 && (size_t)nUsed <= nSize, "%s read %d of %zu bytes", pszName, nUsed, nSize);
    const std::vector<uint8_t> vbSaved = ZV_SavePayload(first, nSize);
    if (bExact)
        FUZZ_CHECK(vbSaved.size() == (size_t)nUsed && std::memcmp(vbSaved.data(), pData, vbSaved.size()) == 0,
                   "%s saved %zu bytes unlike the %d it was loaded from", pszName, vbSaved.size(), nUsed);
    T second;
    QB_ByteStream again(vbSaved.data(), (int32_t)vbSaved.size());
    bool bWhole = false;
    try
    {
        bWhole = ZV_LoadWhole(second, again);
    }
    catch (const QB_StreamException&)
    {
    }
    FUZZ_CHECK(bWhole && (again.GetPos() == (int32_t)vbSaved.size() || IsRefusal(first)),
               "%s does not load its own %zu bytes whole", pszName, vbSaved.size());
    FUZZ_CHECK(ZV_SavePayload(second, vbSaved.size()) == vbSaved, "%s saves its own bytes back differently", pszName);
}

// A default payload's bytes, a seed.
template <class T> std::vector<uint8_t> ZV_DefaultPayload()
{
    return ZV_SavePayload(T());
}

struct ZV_PayloadRow
{
    const char* pszHeader;
    const char* pszName;
    void (*fnRoundTrip)(const char*, bool, const uint8_t*, size_t);
    std::vector<uint8_t> (*fnSeed)();
    bool bExact;
};

#define ROW(HEADER, TYPE, EXACT) {HEADER, #TYPE, &ZV_RoundTripPayload<TYPE>, &ZV_DefaultPayload<TYPE>, EXACT}
// Exact: fixed-width fields only. The heads, the progress, the stop and
// error asks and the block carriers; the rest hold counts, texts or
// records.
inline const ZV_PayloadRow kPayloadRows[] = {
    ROW("add", ZV_AddRequest, false),
    ROW("add", ZV_AddResponse, false),
    ROW("add", ZV_AddFilesRequest, false),
    ROW("add", ZV_AddFilesResponse, false),
    ROW("control", ZV_StopDownloadAsk, true),
    ROW("control", ZV_StopUploadAsk, true),
    ROW("control", ZV_StopUploadResponse, true),
    ROW("control", ZV_ProgressRequest, true),
    ROW("control", ZV_UploadErrorAsk, true),
    ROW("control", ZV_UploadErrorResponse, true),
    ROW("control", ZV_FileStateNotice, false),
    ROW("delete", ZV_DelUploadResponse, true),
    ROW("download", ZV_DownloadAsk, false),
    ROW("download", ZV_DownloadResponse, false),
    ROW("download", ZV_DownloadDataRequest, false),
    ROW("download", ZV_DownloadBlock, true),
    ROW("lists", ZV_ListRequest, true),
    ROW("lists", ZV_UploadListResponse, false),
    ROW("lists", ZV_DownloadListResponse, false),
    ROW("lists", ZV_FileListRequest, true),
    ROW("lists", ZV_FileListResponse, false),
    ROW("rights", ZV_EntryRequest, true),
    ROW("rights", ZV_SetRightRequest, false),
    ROW("rights", ZV_SetRightResponse, false),
    ROW("rights", ZV_SetFilesRightRequest, false),
    ROW("rights", ZV_SetFilesRightRefusal, false),
    ROW("upload", ZV_UploadRequest, true),
    ROW("upload", ZV_UploadResponse, true),
    ROW("upload", ZV_UploadFinish, true),
};
#undef ROW
