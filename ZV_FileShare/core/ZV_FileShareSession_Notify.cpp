// The events to the user side that a session raises, through its owner's
// sink (core/ZV_FsEvents.h writes them).
#include "core/ZV_FileShareSession.h"
#include "core/ZV_FsEvents.h"
#include "wire/ZV_RecordStream.h"

ZV_EventTarget ZV_FileShareSession::Events() const
{
    return {m_lpMgr->Host(), m_lpMgr->Sink()};
}

void ZV_FileShareSession::NotifyTransferError(uint32_t ulResult, uint16_t usFileID)
{
    ZV_RaiseResultEvent(Events(), zvFsEventTransferError, ulResult, usFileID);
}

void ZV_FileShareSession::NotifyDownloadState(uint32_t ulResult, uint16_t usFileID,
                                              const ZV_FileDownloadInfo& download, double dPercent)
{
    if (!Events().HasSink())
        return;
    ZV_EventBuffer event(zvFsEventDownloadState);
    event.WriteHead(ulResult, usFileID);
    SaveDelimited(event.Stream(), download);
    event.Stream().WriteDouble(dPercent);
    event.Raise(Events());
}

void ZV_FileShareSession::NotifyDownloadFinished(uint32_t ulResult, uint16_t usFileID)
{
    ZV_RaiseEndEvent(Events(), zvFsEventDownloadFinished, ulResult, usFileID);
}

void ZV_FileShareSession::NotifyUploadProgress(uint16_t usFileID, double dPercent)
{
    if (!Events().HasSink())
        return;
    ZV_EventBuffer event(zvFsEventUploadProgress);
    event.WriteHead(0, usFileID);
    event.Stream().WriteDouble(dPercent);
    event.Raise(Events());
}

void ZV_FileShareSession::NotifyDownloadProgress(uint32_t ulResult, uint16_t usFileID, double dPercent,
                                                 uint32_t ulUsedTime)
{
    if (!Events().HasSink())
        return;
    ZV_EventBuffer event(zvFsEventDownloadProgress);
    event.WriteHead(ulResult, usFileID);
    event.Stream().WriteDouble(dPercent);
    event.Stream().WriteU32(ulUsedTime);
    event.Raise(Events());
}

void ZV_FileShareSession::NotifyStopResult(uint32_t ulResult, uint16_t usFileID, uint8_t bStop)
{
    if (!Events().HasSink())
        return;
    ZV_EventBuffer event(zvFsEventStopResult);
    event.WriteHead(ulResult, usFileID);
    event.Stream().WriteU8(bStop);
    event.Raise(Events());
}

void ZV_FileShareSession::NotifyTransferState(uint8_t bUpload, uint16_t usFileID, uint16_t usState)
{
    m_lpMgr->NotifyTransferState(bUpload, usFileID, usState);
}
