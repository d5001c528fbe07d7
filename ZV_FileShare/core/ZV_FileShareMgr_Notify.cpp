// The events to the user side that the manager raises (core/ZV_FsEvents.h
// writes them).
#include "core/ZV_FileShareMgr.h"
#include "core/ZV_FsEvents.h"
#include "wire/ZV_RecordStream.h"

ZV_EventTarget ZV_FileShareMgr::Events() const
{
    return {m_lpConf, m_lpConfSink};
}

void ZV_FileShareMgr::NotifyFileAdded(uint32_t ulResult, uint16_t usFileID, const ZV_FileBriefInfo& brief,
                                      double dPercent)
{
    ZV_RaiseBriefEvent(Events(), zvFsEventFileAdded, ulResult, usFileID, brief, dPercent);
}

void ZV_FileShareMgr::NotifyRightChanged(uint32_t ulResult, uint16_t usFileID, const ZV_FileBriefInfo& brief,
                                         double dPercent)
{
    ZV_RaiseBriefEvent(Events(), zvFsEventRightChanged, ulResult, usFileID, brief, dPercent);
}

void ZV_FileShareMgr::NotifyFileHidden(uint32_t ulResult, uint16_t usFileID)
{
    ZV_RaiseResultEvent(Events(), zvFsEventFileHidden, ulResult, usFileID);
}

void ZV_FileShareMgr::NotifyFileGone(uint32_t ulResult, uint16_t usFileID)
{
    ZV_RaiseEndEvent(Events(), zvFsEventFileGone, ulResult, usFileID);
}

void ZV_FileShareMgr::NotifyBusy(uint8_t bBusy)
{
    if (!Events().HasSink())
        return;
    ZV_EventBuffer event(zvFsEventBusy);
    event.Stream().WriteU32(0);
    event.Stream().WriteU8(bBusy);
    event.Raise(Events());
}

// The three arrays may differ in length; each carries its own count.
void ZV_FileShareMgr::NotifyFilesAdded(const QB_Array<uint16_t>& arrFileID, const QB_Array<ZV_FileBriefInfo>& arrInfo,
                                       const QB_Array<double>& arrValue)
{
    if (!Events().HasSink())
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
    event.Raise(Events());
}

// Unlike the others, the direction comes before the FileID.
void ZV_FileShareMgr::NotifyTransferState(uint8_t bUpload, uint16_t usFileID, uint16_t usState)
{
    if (!Events().HasSink())
        return;
    ZV_EventBuffer event(zvFsEventTransferState);
    event.Stream().WriteU32(0);
    event.Stream().WriteU8(bUpload);
    event.Stream().WriteU16(usFileID);
    event.Stream().WriteU16(usState);
    event.Raise(Events());
}

