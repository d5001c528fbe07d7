#include "core/ZV_FsEvents.h"
#include "records/ZV_FileBriefInfo.h"
#include "wire/ZV_RecordStream.h"

ZV_EventBuffer::ZV_EventBuffer(uint16_t usEvent) : m_usEvent(usEvent), m_stream(m_abData, sizeof(m_abData), false)
{
    m_stream.WriteU16(usEvent);
}

void ZV_EventBuffer::WriteHead(uint32_t ulResult, uint16_t usFileID)
{
    m_stream.WriteU32(ulResult);
    m_stream.WriteU16(usFileID);
}

void ZV_EventBuffer::Raise(const ZV_EventTarget& target)
{
    target.lpSink->OnConfEvent(target.lpConf, m_usEvent, (uint32_t)m_stream.GetPos(), m_abData);
}

void ZV_RaiseBriefEvent(const ZV_EventTarget& target, uint16_t usEvent, uint32_t ulResult, uint16_t usFileID,
                        const ZV_FileBriefInfo& brief, double dPercent)
{
    if (!target.HasSink())
        return;
    ZV_EventBuffer event(usEvent);
    event.WriteHead(ulResult, usFileID);
    SaveDelimited(event.Stream(), brief);
    event.Stream().WriteDouble(dPercent);
    event.Raise(target);
}

void ZV_RaiseResultEvent(const ZV_EventTarget& target, uint16_t usEvent, uint32_t ulResult, uint16_t usFileID)
{
    if (!target.HasSink())
        return;
    ZV_EventBuffer event(usEvent);
    event.WriteHead(ulResult, usFileID);
    event.Raise(target);
}

void ZV_RaiseEndEvent(const ZV_EventTarget& target, uint16_t usEvent, uint32_t ulResult, uint16_t usFileID)
{
    if (!target.HasSink())
        return;
    ZV_EventBuffer event(usEvent);
    event.WriteHead(ulResult, usFileID);
    event.Stream().WriteU8(1);
    event.Raise(target);
}
