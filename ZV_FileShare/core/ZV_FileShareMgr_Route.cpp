// Routing of incoming PDUs: catalogue numbers to the manager's handlers,
// everything else to the session of the FileID in the payload's first u16.
#include "core/ZV_FileShareMgr.h"
#include "core/ZV_FileShareSession.h"
#include "wire/ZV_PduTable.h"

#include "QB_ByteStream.h"
#include "QB_Log.h"

#include <cassert>

uint32_t ZV_FileShareMgr::HandlePdu(ConfPduData* lpCpd)
{
    if (lpCpd == nullptr)
        return zvResultNoHandler;
    if (m_lpConf == nullptr)
        return zvResultNoHost;
    // A truncated or malformed payload raises out of the stream; nothing may
    // leave towards the host, so every road is caught here, the manager's
    // own handlers as well as the sessions'.
    try
    {
        // A refused request was dealt with; a number without a row is one
        // nothing takes.
        if (!AdmitPdu(lpCpd))
            return ZV_FindPduRow(lpCpd->usPdu) != nullptr ? zvResultOk : zvResultNoHandler;
        bool bHandled = false;
        const uint32_t ulResult = RouteToManager(lpCpd, bHandled);
        return bHandled ? ulResult : RouteToSession(lpCpd);
    }
    catch (...)
    {
        QB_WriteLog(QB_LOG_DAILY, "error", "ZV_FileShareMgr::HandlePdu exception = %u.\r\n", (unsigned)lpCpd->usPdu);
        return zvResultNoHandler;
    }
}

// The rows of the PDU table that the manager handles, each after its trace
// line; a row that nobody handles gives 5 and is looked for in no session.
uint32_t ZV_FileShareMgr::RouteToManager(ConfPduData* lpCpd, bool& bHandled)
{
    const ZV_PduRow* lpRow = ZV_FindPduRow(lpCpd->usPdu);
    bHandled = lpRow != nullptr && lpRow->eHandler != ZV_PduHandler::Session;
    if (!bHandled)
        return zvResultNoHandler;
    if (lpRow->eTrace != ZV_PduTrace::None)
        ZV_TraceRecv(lpCpd->usPdu);
    // A row nobody handles has no case here, and prints no trace line.
    switch (lpCpd->usPdu)
    {
        ZV_PDU_CASES(Manager)
    default: return zvResultNoHandler;
    }
}

// Any other number, inside the protocol's range or not, belongs to the
// session its first u16 names; an unknown FileID drops the PDU quietly.
uint32_t ZV_FileShareMgr::RouteToSession(ConfPduData* lpCpd)
{
    ZV_PayloadReader stream(lpCpd);
    const uint16_t usFileID = stream.ReadU16();
    ZV_FileShareSession* lpFsSession = nullptr;
    if (!m_mapSession.Lookup(usFileID, lpFsSession))
        return zvResultOk;
    assert(lpFsSession != NULL && "lpFsSession != NULL");
    if (lpFsSession == nullptr)
        return zvResultOk;
    return lpFsSession->HandlePdu(lpCpd);
}
