// The numbered events to the user side. Each is a u16 event number and its
// fields, written into a buffer of the PDU size and handed to the sink as far
// as written; with no sink nothing is written at all.
#include "core/ZV_FileShareMgr.h"
#include "core/ZV_FileShareSession.h"
#include "wire/ZV_RecordStream.h"

#include "QB_ByteStream.h"

#include <cstring>

namespace {

// Where an event goes: the sink, told which host raised it.
struct ZV_EventTarget
{
    IZV_ConfHost* lpConf;
    IZV_ConfSink* lpSink;
};

ZV_EventTarget TargetOf(const ZV_SessionOwner* lpOwner)
{
    return {lpOwner->Host(), lpOwner->Sink()};
}

class ZV_EventBuffer
{
public:
    // Only the bytes written are handed on, so the buffer is not cleared:
    // progress events come once per block.
    explicit ZV_EventBuffer(uint16_t usEvent) : m_usEvent(usEvent), m_stream(m_abData, sizeof(m_abData), false)
    {
        m_stream.WriteU16(usEvent);
    }
    QB_ByteStream& Stream() { return m_stream; }
    void Raise(const ZV_EventTarget& target)
    {
        target.lpSink->OnConfEvent(target.lpConf, m_usEvent, (uint32_t)m_stream.GetPos(), m_abData);
    }

private:
    uint16_t m_usEvent;
    uint8_t m_abData[QB_PDU_BUFFER_SIZE];
    QB_ByteStream m_stream;
};

bool HasSink(const ZV_EventTarget& target)
{
    return target.lpSink != nullptr;
}

// Result, FileID: the head that most events share.
void WriteHead(QB_ByteStream& stream, uint32_t ulResult, uint16_t usFileID)
{
    stream.WriteU32(ulResult);
    stream.WriteU16(usFileID);
}

void RaiseBriefEvent(const ZV_EventTarget& target, uint16_t usEvent, uint32_t ulResult, uint16_t usFileID,
                     const ZV_FileBriefInfo& brief, double dPercent)
{
    if (!HasSink(target))
        return;
    ZV_EventBuffer event(usEvent);
    WriteHead(event.Stream(), ulResult, usFileID);
    SaveDelimited(event.Stream(), brief);
    event.Stream().WriteDouble(dPercent);
    event.Raise(target);
}

void RaiseResultEvent(const ZV_EventTarget& target, uint16_t usEvent, uint32_t ulResult, uint16_t usFileID)
{
    if (!HasSink(target))
        return;
    ZV_EventBuffer event(usEvent);
    WriteHead(event.Stream(), ulResult, usFileID);
    event.Raise(target);
}

// Events 3005 and 3007 carry a trailing byte of value 1.
void RaiseEndEvent(const ZV_EventTarget& target, uint16_t usEvent, uint32_t ulResult, uint16_t usFileID)
{
    if (!HasSink(target))
        return;
    ZV_EventBuffer event(usEvent);
    WriteHead(event.Stream(), ulResult, usFileID);
    event.Stream().WriteU8(1);
    event.Raise(target);
}

} // namespace

// ---------------------------------------------------------------------------
// The manager's events

void ZV_FileShareMgr::NotifyFileAdded(uint32_t ulResult, uint16_t usFileID, const ZV_FileBriefInfo& brief,
                                      double dPercent)
{
    RaiseBriefEvent(TargetOf(this), zvFsEventFileAdded, ulResult, usFileID, brief, dPercent);
}

void ZV_FileShareMgr::NotifyRightChanged(uint32_t ulResult, uint16_t usFileID, const ZV_FileBriefInfo& brief,
                                         double dPercent)
{
    RaiseBriefEvent(TargetOf(this), zvFsEventRightChanged, ulResult, usFileID, brief, dPercent);
}

void ZV_FileShareMgr::NotifyFileHidden(uint32_t ulResult, uint16_t usFileID)
{
    RaiseResultEvent(TargetOf(this), zvFsEventFileHidden, ulResult, usFileID);
}

void ZV_FileShareMgr::NotifyFileGone(uint32_t ulResult, uint16_t usFileID)
{
    RaiseEndEvent(TargetOf(this), zvFsEventFileGone, ulResult, usFileID);
}

void ZV_FileShareMgr::NotifyBusy(uint8_t bBusy)
{
    if (!HasSink(TargetOf(this)))
        return;
    ZV_EventBuffer event(zvFsEventBusy);
    event.Stream().WriteU32(0);
    event.Stream().WriteU8(bBusy);
    event.Raise(TargetOf(this));
}

// The three arrays may differ in length; each carries its own count.
void ZV_FileShareMgr::NotifyFilesAdded(const QB_Array<uint16_t>& arrFileID, const QB_Array<ZV_FileBriefInfo>& arrInfo,
                                       const QB_Array<double>& arrValue)
{
    if (!HasSink(TargetOf(this)))
        return;
    ZV_EventBuffer event(zvFsEventFilesAdded);
    QB_ByteStream& stream = event.Stream();
    stream.WriteU32(0);
    stream.WriteCount((uint32_t)arrFileID.GetSize());
    for (int i = 0; i < arrFileID.GetSize(); ++i)
        stream.WriteU16(arrFileID[i]);
    stream.WriteCount((uint32_t)arrInfo.GetSize());
    for (int i = 0; i < arrInfo.GetSize(); ++i)
        SaveDelimited(stream, arrInfo[i]);
    stream.WriteCount((uint32_t)arrValue.GetSize());
    for (int i = 0; i < arrValue.GetSize(); ++i)
        stream.WriteDouble(arrValue[i]);
    event.Raise(TargetOf(this));
}

// Unlike the others, the direction comes before the FileID.
void ZV_FileShareMgr::NotifyTransferState(uint8_t bUpload, uint16_t usFileID, uint16_t usState)
{
    if (!HasSink(TargetOf(this)))
        return;
    ZV_EventBuffer event(zvFsEventTransferState);
    event.Stream().WriteU32(0);
    event.Stream().WriteU8(bUpload);
    event.Stream().WriteU16(usFileID);
    event.Stream().WriteU16(usState);
    event.Raise(TargetOf(this));
}

// ---------------------------------------------------------------------------
// The sessions' events, through their manager's sink

void ZV_FileShareSession::NotifyTransferError(uint32_t ulResult, uint16_t usFileID)
{
    RaiseResultEvent(TargetOf(m_lpMgr), zvFsEventTransferError, ulResult, usFileID);
}

void ZV_FileShareSession::NotifyDownloadState(uint32_t ulResult, uint16_t usFileID,
                                              const ZV_FileDownloadInfo& download, double dPercent)
{
    if (!HasSink(TargetOf(m_lpMgr)))
        return;
    ZV_EventBuffer event(zvFsEventDownloadState);
    WriteHead(event.Stream(), ulResult, usFileID);
    SaveDelimited(event.Stream(), download);
    event.Stream().WriteDouble(dPercent);
    event.Raise(TargetOf(m_lpMgr));
}

void ZV_FileShareSession::NotifyDownloadFinished(uint32_t ulResult, uint16_t usFileID)
{
    RaiseEndEvent(TargetOf(m_lpMgr), zvFsEventDownloadFinished, ulResult, usFileID);
}

void ZV_FileShareSession::NotifyUploadProgress(uint16_t usFileID, double dPercent)
{
    if (!HasSink(TargetOf(m_lpMgr)))
        return;
    ZV_EventBuffer event(zvFsEventUploadProgress);
    WriteHead(event.Stream(), 0, usFileID);
    event.Stream().WriteDouble(dPercent);
    event.Raise(TargetOf(m_lpMgr));
}

void ZV_FileShareSession::NotifyDownloadProgress(uint32_t ulResult, uint16_t usFileID, double dPercent,
                                                 uint32_t ulUsedTime)
{
    if (!HasSink(TargetOf(m_lpMgr)))
        return;
    ZV_EventBuffer event(zvFsEventDownloadProgress);
    WriteHead(event.Stream(), ulResult, usFileID);
    event.Stream().WriteDouble(dPercent);
    event.Stream().WriteU32(ulUsedTime);
    event.Raise(TargetOf(m_lpMgr));
}

void ZV_FileShareSession::NotifyStopResult(uint32_t ulResult, uint16_t usFileID, uint8_t bStop)
{
    if (!HasSink(TargetOf(m_lpMgr)))
        return;
    ZV_EventBuffer event(zvFsEventStopResult);
    WriteHead(event.Stream(), ulResult, usFileID);
    event.Stream().WriteU8(bStop);
    event.Raise(TargetOf(m_lpMgr));
}

void ZV_FileShareSession::NotifyTransferState(uint8_t bUpload, uint16_t usFileID, uint16_t usState)
{
    m_lpMgr->NotifyTransferState(bUpload, usFileID, usState);
}
