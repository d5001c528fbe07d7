// ZV_SessionOwner: what a session asks of the manager it belongs to. A
// session is one file; the conference around it (the host, the client's
// links to its server, the busy list, the server's catalogue, the client's
// ledger of what its user shared, and the user side's view of a file going
// out of sight) is the manager's, and a session reaches it through this
// and nothing else.
#pragma once

#include "IZV_FileShare.h"

#include <cstdint>

class QB_FileEx;
class ZV_FileBriefInfo;
class ZV_FileCatalog;
class ZV_FileShareSession;

class ZV_SessionOwner
{
public:
    // The conference host and the user side's sink, as the host wrote them
    // into the manager; the sink may be null.
    virtual IZV_ConfHost* Host() const = 0;
    virtual IZV_ConfSink* Sink() const = 0;
    // Client: the connection of the type towards the server, or zvConnNone.
    virtual uint32_t GetLinkConn(uint16_t usConnType) = 0;
    // The local user, or null when the host knows none.
    virtual const QB_UserID* LocalUser() const = 0;
    // Client: whether usFileID counts among the transfers in progress.
    virtual void MarkBusy(bool bBusy, uint16_t usFileID) = 0;
    // Server: the durable list of the stored files.
    virtual ZV_FileCatalog& Catalog() = 0;
    // Client: whether the local user shared the very file `brief` names.
    virtual bool IsSharedLocalFile(const ZV_FileBriefInfo& brief) = 0;
    // Client: opens for the upload the local file `brief` names, and keeps
    // it open only when it is the very file the user shared: 0, 90 when it
    // is not (or the user never shared it, or withdrew it), 60 when it can't
    // be opened; a file found gone is withdrawn from the share record.
    virtual uint32_t OpenSharedLocalFile(const ZV_FileBriefInfo& brief, QB_FileEx& file) = 0;
    // Client: event 3011 for a transfer of usFileID.
    virtual void NotifyTransferState(uint8_t bUpload, uint16_t usFileID, uint16_t usState) = 0;
    // Client: the local user may no longer have the file; its download ends.
    virtual void DropLostDownload(uint16_t usFileID, ZV_FileShareSession* lpFsSession) = 0;

protected:
    ~ZV_SessionOwner() = default;
};
