// ZV_RecordStream: the stream forms that the share records are made of. One
// small function per field kind, each next to its inverse: the mask word,
// dates, flags, user lists, delimited records, record sequences and the
// plain number arrays that travel beside them.
//
// Readers raise the stream's load failure on anything that does not fit the
// view and leave the target partly filled; the caller discards it.
#pragma once

#include "QB_Array.h"
#include "QB_ByteStream.h"
#include "QB_DatetimeEx.h"
#include "QB_List.h"
#include "QB_String.h"
#include "QB_UserID.h"

#include <cstdint>

// Width code of a mask word, kept in its low 2 bits.
enum : uint8_t
{
    ZV_MASK_WORD_1 = 0,  // 1 byte, 6 bits of mask
    ZV_MASK_WORD_2 = 1,  // 2 bytes, 14 bits
    ZV_MASK_WORD_4 = 2,  // 4 bytes, 30 bits
    ZV_MASK_WORD_8 = 3,  // 8 bytes, 62 bits
};

// Text setters refuse UTF-8 values longer than this.
constexpr int ZV_MAX_TEXT_BYTES = 1024;

// ---------------------------------------------------------------------------
// Mask word: the mask shifted left by 2 with the width code below it. Mask
// bits that the chosen width cannot hold are dropped.

inline void SaveMaskWord(QB_ByteStream& stream, uint64_t ullMask, uint8_t ucWidth)
{
    switch (ucWidth & 3)
    {
    case ZV_MASK_WORD_1: stream.WriteU8((uint8_t)(ullMask << 2)); break;
    case ZV_MASK_WORD_2: stream.WriteU16((uint16_t)((ullMask << 2) | ZV_MASK_WORD_2)); break;
    case ZV_MASK_WORD_4: stream.WriteU32((uint32_t)((ullMask << 2) | ZV_MASK_WORD_4)); break;
    default: stream.WriteU64((ullMask << 2) | ZV_MASK_WORD_8); break;
    }
}

// Every width is accepted, whatever the record's own writer uses.
inline uint64_t LoadMaskWord(QB_ByteStream& stream)
{
    uint8_t ucLead = stream.ReadU8();
    stream.Skip(-1);
    switch (ucLead & 3)
    {
    case ZV_MASK_WORD_1: return stream.ReadU8() >> 2;
    case ZV_MASK_WORD_2: return stream.ReadU16() >> 2;
    case ZV_MASK_WORD_4: return stream.ReadU32() >> 2;
    default: return stream.ReadU64() >> 2;
    }
}

// ---------------------------------------------------------------------------
// Fields whose absence on Load resets them. A field whose absence leaves it
// as it was is read in place by the record itself.

inline void SaveText(QB_ByteStream& stream, const QB_StringU8& sText) { stream.WriteString(sText); }

inline void LoadTextOrEmpty(QB_ByteStream& stream, bool bPresent, QB_StringU8& sText)
{
    if (bPresent)
        stream.ReadString(sText);
    else
        sText.Empty();
}

inline void SaveDateTime(QB_ByteStream& stream, const QB_DateTimeEx& dt)
{
    stream.WriteU32((uint32_t)dt.m_Date);
    stream.WriteU32((uint32_t)dt.m_Time);
}

// A date or time out of range is not a stream failure: SetRaw keeps only the
// parts that are valid and its verdict is dropped, so one odd clock on the
// far side can't cost the whole list it travels in.
inline void LoadDateTime(QB_ByteStream& stream, QB_DateTimeEx& dt)
{
    uint32_t ulDate = stream.ReadU32();
    uint32_t ulTime = stream.ReadU32();
    (void)dt.SetRaw((int32_t)ulDate, (int32_t)ulTime);
}

inline void LoadDateTimeOrDefault(QB_ByteStream& stream, bool bPresent, QB_DateTimeEx& dt)
{
    if (bPresent)
        LoadDateTime(stream, dt);
    else
        dt = QB_DateTimeEx();
}

inline void SaveFlag(QB_ByteStream& stream, bool bFlag) { stream.WriteBool(bFlag); }

inline void LoadFlagOrFalse(QB_ByteStream& stream, bool bPresent, bool& bFlag)
{
    bFlag = bPresent && stream.ReadBool();
}

// ---------------------------------------------------------------------------
// Setters shared by the records: set the field, then its bit.

inline bool SetTextField(QB_StringU8& sField, uint64_t& ullMask, uint64_t ullBit, const QB_StringU8& sValue)
{
    if (sValue.GetLength() > ZV_MAX_TEXT_BYTES)
        return false;
    sField = sValue;
    ullMask |= ullBit;
    return true;
}

// The limit is on the UTF-8 bytes that will travel, not the UTF-16 units.
inline bool SetTextField(QB_StringU8& sField, uint64_t& ullMask, uint64_t ullBit, const QB_StringW& sValue)
{
    return SetTextField(sField, ullMask, ullBit, QB_StringU8(sValue));
}

template <typename T>
bool SetValueField(T& field, uint64_t& ullMask, uint64_t ullBit, const T& value)
{
    field = value;
    ullMask |= ullBit;
    return true;
}

// ---------------------------------------------------------------------------
// Delimited record: a u32 length that counts itself and the record, then the
// record.

// Restores the stream's limit however the record's Load ends.
class ZV_StreamLimit
{
public:
    ZV_StreamLimit(QB_ByteStream& stream, int32_t nLimit) : m_Stream(stream), m_nSaved(stream.GetLength())
    {
        m_Stream.SetLength(nLimit);
    }
    ~ZV_StreamLimit() { m_Stream.SetLength(m_nSaved); }
    ZV_StreamLimit(const ZV_StreamLimit&) = delete;
    ZV_StreamLimit& operator=(const ZV_StreamLimit&) = delete;

private:
    QB_ByteStream& m_Stream;
    int32_t m_nSaved;
};

template <typename TRecord>
void SaveDelimited(QB_ByteStream& stream, const TRecord& record)
{
    int32_t nStart = stream.GetPos();
    stream.Skip(4);
    record.Save(stream);
    int32_t nEnd = stream.GetPos();
    stream.SeekTo(nStart);
    stream.WriteU32((uint32_t)(nEnd - nStart));
    stream.SeekTo(nEnd);
}

// The element must lie wholly inside the current limit, which for a nested
// record is its parent's end. A length below 4 would end the element before
// its own length word and step the reader backwards, so it is refused like
// any other length that does not fit.
template <typename TRecord>
void LoadDelimited(QB_ByteStream& stream, TRecord& record)
{
    int32_t nStart = stream.GetPos();
    uint32_t ulLength = stream.ReadU32();
    if (ulLength < 4 || ulLength > (uint32_t)(stream.GetLength() - nStart))
    {
        stream.SeekTo(nStart);
        throw QB_StreamException{QB_STREAM_LOAD_FAILURE};
    }
    int32_t nEnd = nStart + (int32_t)ulLength;
    {
        ZV_StreamLimit limit(stream, nEnd);
        record.Load(stream);
    }
    // Whatever the record did not know of is skipped here.
    stream.SeekTo(nEnd);
}

// ---------------------------------------------------------------------------
// Record sequences: the count form with the number of elements, then each
// element delimited. Lists go head to tail and are rebuilt by appending, so
// their order survives; a load replaces what the container held.

template <typename TRecord>
void SaveSequence(QB_ByteStream& stream, const QB_List<TRecord>& list)
{
    stream.WriteCount((uint32_t)list.GetCount());
    for (QB_POSITION pos = list.GetHeadPosition(); pos;)
        SaveDelimited(stream, list.GetNext(pos));
}

// Each element takes at least its 4-byte length, so a false count runs out
// of stream long before it runs out of memory.
template <typename TRecord>
void LoadSequence(QB_ByteStream& stream, QB_List<TRecord>& list)
{
    list.RemoveAll();
    uint32_t ulCount = stream.ReadCount();
    for (uint32_t i = 0; i < ulCount; ++i)
    {
        TRecord record;
        LoadDelimited(stream, record);
        list.AddTail(record);
    }
}

template <typename TRecord>
void SaveSequence(QB_ByteStream& stream, const QB_Array<TRecord>& arr)
{
    stream.WriteCount((uint32_t)arr.GetSize());
    for (int i = 0; i < arr.GetSize(); ++i)
        SaveDelimited(stream, arr[i]);
}

template <typename TRecord>
void LoadSequence(QB_ByteStream& stream, QB_Array<TRecord>& arr)
{
    arr.RemoveAll();
    uint32_t ulCount = stream.ReadCount();
    for (uint32_t i = 0; i < ulCount; ++i)
    {
        TRecord record;
        LoadDelimited(stream, record);
        arr.Add(record);
    }
}

// ---------------------------------------------------------------------------
// Plain arrays: the count form, then each element, index 0 first.

template <typename T, typename FnSave>
void SaveEach(QB_ByteStream& stream, const QB_Array<T>& arr, FnSave fnSave)
{
    stream.WriteCount((uint32_t)arr.GetSize());
    for (int i = 0; i < arr.GetSize(); ++i)
        fnSave(stream, arr[i]);
}

// Bounded by the view as sequences are: each element costs at least a byte.
template <typename T, typename FnLoad>
void LoadEach(QB_ByteStream& stream, QB_Array<T>& arr, FnLoad fnLoad)
{
    arr.RemoveAll();
    uint32_t ulCount = stream.ReadCount();
    for (uint32_t i = 0; i < ulCount; ++i)
        arr.Add(fnLoad(stream));
}

inline void SaveU16Array(QB_ByteStream& stream, const QB_Array<uint16_t>& arr)
{
    SaveEach(stream, arr, [](QB_ByteStream& s, uint16_t usValue) { s.WriteU16(usValue); });
}

inline void LoadU16Array(QB_ByteStream& stream, QB_Array<uint16_t>& arr)
{
    LoadEach(stream, arr, [](QB_ByteStream& s) { return s.ReadU16(); });
}

inline void SaveU32Array(QB_ByteStream& stream, const QB_Array<uint32_t>& arr)
{
    SaveEach(stream, arr, [](QB_ByteStream& s, uint32_t ulValue) { s.WriteU32(ulValue); });
}

inline void LoadU32Array(QB_ByteStream& stream, QB_Array<uint32_t>& arr)
{
    LoadEach(stream, arr, [](QB_ByteStream& s) { return s.ReadU32(); });
}

inline void SaveBoolArray(QB_ByteStream& stream, const QB_Array<bool>& arr)
{
    SaveEach(stream, arr, [](QB_ByteStream& s, bool bValue) { SaveFlag(s, bValue); });
}

inline void LoadBoolArray(QB_ByteStream& stream, QB_Array<bool>& arr)
{
    LoadEach(stream, arr, [](QB_ByteStream& s) { return s.ReadBool(); });
}

inline void SaveUserIDArray(QB_ByteStream& stream, const QB_Array<QB_UserID>& arr)
{
    SaveEach(stream, arr, [](QB_ByteStream& s, const QB_UserID& id) { id.Save(s); });
}

inline void LoadUserIDArray(QB_ByteStream& stream, QB_Array<QB_UserID>& arr)
{
    LoadEach(stream, arr, [](QB_ByteStream& s) {
        QB_UserID id;
        id.Load(s);
        return id;
    });
}
