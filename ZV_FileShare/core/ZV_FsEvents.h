// ZV_FsEvents: how the numbered events to the user side are written, for the
// manager's events and the sessions' alike. Each is a u16 event number and
// its fields, written into a buffer of the PDU size and handed to the sink as
// far as written; with no sink nothing is written at all.
#pragma once

#include "IZV_FileShare.h"

#include "QB_ByteStream.h"

#include <cstdint>

class ZV_FileBriefInfo;

// Where an event goes: the sink, told which host raised it.
struct ZV_EventTarget
{
    IZV_ConfHost* lpConf;
    IZV_ConfSink* lpSink;

    bool HasSink() const { return lpSink != nullptr; }
};

class ZV_EventBuffer
{
public:
    // Only the bytes written are handed on, so the buffer is not cleared:
    // progress events come once per block.
    explicit ZV_EventBuffer(uint16_t usEvent);
    ZV_EventBuffer(const ZV_EventBuffer&) = delete;
    ZV_EventBuffer& operator=(const ZV_EventBuffer&) = delete;

    QB_ByteStream& Stream() { return m_stream; }
    // Result, FileID: the head that most events share.
    void WriteHead(uint32_t ulResult, uint16_t usFileID);
    void Raise(const ZV_EventTarget& target);

private:
    uint16_t m_usEvent;
    uint8_t m_abData[QB_PDU_BUFFER_SIZE];
    QB_ByteStream m_stream;
};

// The three shapes that several events share: result, FileID, a delimited
// description and a share; result and FileID; and those with a trailing
// byte of value 1 (3005, 3007).
void ZV_RaiseBriefEvent(const ZV_EventTarget& target, uint16_t usEvent, uint32_t ulResult, uint16_t usFileID,
                        const ZV_FileBriefInfo& brief, double dPercent);
void ZV_RaiseResultEvent(const ZV_EventTarget& target, uint16_t usEvent, uint32_t ulResult, uint16_t usFileID);
void ZV_RaiseEndEvent(const ZV_EventTarget& target, uint16_t usEvent, uint32_t ulResult, uint16_t usFileID);
