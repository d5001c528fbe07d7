// The manager's life, its link states, FileID allocation, the busy list and
// the timer.
#include "core/ZV_FileShareMgr.h"
#include "core/ZV_FileShareSession.h"

#include "QB_Env.h"
#include "QB_Log.h"

#include <cassert>

ZV_FileShareMgr::ZV_FileShareMgr()
{
    // Nothing is asked of the host here: its pointers are written in later.
}

ZV_FileShareMgr::~ZV_FileShareMgr()
{
    // Sessions go; stored files and catalogue rows stay where they are.
    QB_Array<uint16_t> arrFileID;
    ForEachSession([&](uint16_t usFileID, ZV_FileShareSession*) { arrFileID.Add(usFileID); });
    // Nothing below throws today (removing a key allocates nothing and a
    // session's destructor does not throw), so no test can reach the catch;
    // it stays so that a later change there logs instead of ending the
    // process from a destructor.
    for (int i = 0; i < arrFileID.GetSize(); ++i)
    {
        try
        {
            DetachSession(arrFileID[i]);
        }
        catch (...)
        {
            QB_WriteLog(QB_LOG_DAILY, "error", "ZV_FileShareMgr::~ZV_FileShareMgr exception.\r\n");
        }
    }
}

uint16_t ZV_FileShareMgr::GetModuleType()
{
    return m_usModuleType;
}

uint32_t ZV_FileShareMgr::ModuleReserved0()
{
    return 0;
}

void ZV_FileShareMgr::ModuleReserved1(uint32_t, uint32_t)
{
}

bool ZV_FileShareMgr::ModuleReserved2(uint32_t)
{
    return false;
}

bool ZV_FileShareMgr::GetInterface(uint16_t usType, void** lppOut)
{
    if (lppOut == nullptr)
        return false;
    *lppOut = nullptr;
    if (usType != zvInterfaceFileShareMgr)
        return false;
    *lppOut = static_cast<IZV_FileShareMgr*>(this);
    return true;
}

uint32_t ZV_FileShareMgr::GetLinkConn(uint16_t usConnType)
{
    if (m_lpConf == nullptr)
        return zvConnNone;
    IZV_ConfLink* lpLink = m_lpConf->GetServerLink();
    return lpLink ? lpLink->GetConn(usConnType) : zvConnNone;
}

uint32_t ZV_FileShareMgr::LookupSession(uint16_t usFileID, ZV_FileShareSession*& lpFsSession)
{
    lpFsSession = nullptr;
    if (!m_mapSession.Lookup(usFileID, lpFsSession))
        return zvResultUnknownFile;
    return lpFsSession ? zvResultOk : zvResultReservedFile;
}

// A host that knows no local user still gets a well-formed request.
const QB_UserID* ZV_FileShareMgr::LocalUser() const
{
    static const QB_UserID s_Nobody;
    const QB_UserID* lpLocal = m_lpConf->GetLocalUserID();
    return lpLocal ? lpLocal : &s_Nobody;
}

std::unique_ptr<ZV_FileShareSession> ZV_FileShareMgr::MakeSession()
{
    return std::make_unique<ZV_FileShareSession>(this, m_strPath.GetString());
}

bool ZV_FileShareMgr::IsReservedFileID(uint16_t usFileID)
{
    ZV_FileShareSession* lpFsSession = nullptr;
    return m_mapSession.Lookup(usFileID, lpFsSession) && lpFsSession == nullptr;
}

// The next FileID from m_usNextFileID on, round the range once, that the map
// does not hold and fnTaken does not claim; m_usNextFileID moves past it.
template <typename F>
uint16_t ZV_FileShareMgr::NextFreeFileID(uint16_t usMin, uint16_t usMax, F&& fnTaken)
{
    const uint32_t ulRange = (uint32_t)(usMax - usMin) + 1;
    ZV_FileShareSession* lpExisting = nullptr;
    uint16_t usNext = m_usNextFileID;
    for (uint32_t i = 0; i < ulRange; ++i)
    {
        const uint16_t usFileID = usNext;
        usNext = usFileID >= usMax ? usMin : (uint16_t)(usFileID + 1);
        if (m_mapSession.Lookup(usFileID, lpExisting) || fnTaken(usFileID))
            continue;
        m_usNextFileID = usNext;
        return usFileID;
    }
    return ZV_NO_FILEID;
}

uint16_t ZV_FileShareMgr::AllocFileID()
{
    const uint16_t usMin = m_lpConf->GetFileIDMin();
    const uint16_t usMax = m_lpConf->GetFileIDMax();
    QB_Lock lock(&m_mapSession);
    // A host that gives an empty range gives no FileID to take.
    if (usMax < usMin)
        return ZV_NO_FILEID;
    // A map that holds as many FileIDs as the range has numbers counts as
    // full, even where some came from linked servers' ranges and a number of
    // this range is still free: every server then refuses at the same size.
    // The walk below is bounded by the range all the same.
    const uint32_t ulRange = (uint32_t)(usMax - usMin) + 1;
    if ((uint32_t)m_mapSession.GetCount() >= ulRange)
        return ZV_NO_FILEID;
    if (m_usNextFileID > usMax || m_usNextFileID < usMin)
        m_usNextFileID = usMin;
    // A FileID the catalogue still holds belongs to a stored file that a
    // restart took out of the map until a linked server lists it again.
    // Given out anew, its row would be written over and the stored file lost
    // to every node, and linked servers would hold two files under one
    // FileID. A FileID deleted here is given out only when no other is free:
    // a server cut off at the delete still holds the old file, and learns of
    // the delete only if the FileID still names nothing here when it is back.
    const uint16_t usConfID = (uint16_t)m_lpConf->GetConfID();
    uint16_t usFileID = NextFreeFileID(usMin, usMax, [&](uint16_t usCandidate) {
        return m_Catalog.HasFile(usConfID, usCandidate) || m_arrDelFileID.Find(usCandidate) >= 0;
    });
    if (usFileID == ZV_NO_FILEID)
        usFileID = NextFreeFileID(usMin, usMax,
                                  [&](uint16_t usCandidate) { return m_Catalog.HasFile(usConfID, usCandidate); });
    if (usFileID != ZV_NO_FILEID)
        m_mapSession.SetAt(usFileID, nullptr);
    return usFileID;
}


void ZV_FileShareMgr::SetSessionBusy(uint8_t bBusy, uint16_t usFileID)
{
    GuardFs("ZV_FileShareMgr::SetSessionBusy exception.\r\n", [&]() -> uint32_t {
        MarkBusy(bBusy, usFileID);
        return zvResultOk;
    });
}

void ZV_FileShareMgr::MarkBusy(bool bBusy, uint16_t usFileID)
{
    // A data link that fell idle and stayed up is in use again: its loss
    // from now on is a loss, which makes the client say where its downloads
    // stand when it comes back.
    if (bBusy && m_cDataLink == zvLinkIdle && m_lpConf->IsClientMode() &&
        GetLinkConn(zvConfClientTypeData) != zvConnNone)
        m_cDataLink = zvLinkDataUp;
    const int nIndex = m_arrBusyFileID.Find(usFileID);
    if (bBusy && nIndex < 0)
        m_arrBusyFileID.Add(usFileID);
    else if (!bBusy && nIndex >= 0)
        m_arrBusyFileID.RemoveAt(nIndex);
}

// ---------------------------------------------------------------------------
// Links

uint32_t ZV_FileShareMgr::OnConnect(const QB_UserID* lpPeer, uint32_t, uint16_t usConnType, uint32_t)
{
    if (m_lpConf == nullptr)
        return zvResultNoHost;
    try
    {
        if (m_lpConf->IsClientMode())
            OnClientConnect(usConnType);
        else if (m_lpConf->IsServerMode())
            OnServerConnect(lpPeer, usConnType);
    }
    catch (...)
    {
        QB_WriteLog(QB_LOG_DAILY, "error", "ZV_FileShareMgr::OnConnect exception.\r\n");
    }
    return 0;
}

// Only a data link that comes back after a loss, with the command link up
// all along, makes the client report where its downloads stand.
void ZV_FileShareMgr::OnClientConnect(uint16_t usConnType)
{
    if (usConnType == zvConfClientTypeCommand)
    {
        m_cCmdLink = zvLinkCmdUp;
        return;
    }
    if (usConnType != zvConfClientTypeData)
        return;
    if (m_cCmdLink == zvLinkCmdUp && m_cDataLink != zvLinkIdle)
        SendFileDownloadPos(true, 0);
    // Kicked after a loss as well: an upload of this client's rests with the
    // link until something calls it, and only downloads get the server to.
    if (GetLinkConn(zvConfClientTypeData) != zvConnNone)
        ZV_SendKick(m_lpConf, GetLinkConn(zvConfClientTypeData));
    m_cDataLink = zvLinkDataUp;
}

// The first complete pair of server links sends nothing; each further data
// link while the pair stands restarts this server's fetches from that peer.
void ZV_FileShareMgr::OnServerConnect(const QB_UserID* lpPeer, uint16_t usConnType)
{
    if (usConnType == zvConfServerTypeCommand)
        m_cCmdLink = zvLinkCmdUp;
    else if (usConnType == zvConfServerTypeData)
        m_cDataLink = zvLinkDataUp;
    else
        return;
    if (m_cCmdLink == zvLinkCmdUp && m_cDataLink == zvLinkDataUp)
        m_cCmdLink = zvLinkPaired;
    else if (m_cCmdLink == zvLinkPaired && m_cDataLink == zvLinkDataUp)
        SendFileDownloadPos(false, lpPeer ? lpPeer->m_ulMain : 0);
}

uint32_t ZV_FileShareMgr::OnDisconnect(const QB_UserID* lpPeer, uint32_t ulConn, uint16_t usConnType, uint32_t)
{
    if (m_lpConf == nullptr)
        return zvResultNoHost;
    const bool bServer = m_lpConf->IsServerMode();
    if (bServer && usConnType != zvConfClientTypeCommand)
    {
        ForEachSession([&](uint16_t, ZV_FileShareSession* lpFsSession) {
            try
            {
                if (lpFsSession)
                    lpFsSession->OnDisconnect(lpPeer, ulConn, usConnType);
            }
            catch (...)
            {
                QB_WriteLog(QB_LOG_DAILY, "error", "ZV_FileShareMgr::OnDisconnect exception.\r\n");
            }
        });
    }
    if (bServer)
    {
        if (usConnType == zvConfServerTypeCommand)
            m_cCmdLink = m_cDataLink = zvLinkDown;
        else if (usConnType == zvConfServerTypeData)
            m_cDataLink = zvLinkDown;
    }
    else if (usConnType == zvConfClientTypeCommand)
        m_cCmdLink = m_cDataLink = zvLinkDown;
    else if (usConnType == zvConfClientTypeData && m_cDataLink == zvLinkDataUp)
        m_cDataLink = zvLinkDown;
    return 0;
}

uint32_t ZV_FileShareMgr::OnSend(ConfPduData* lpCpd)
{
    // A key reserved by an add that never finished holds no session.
    ForEachSession([&](uint16_t, ZV_FileShareSession* lpFsSession) {
        try
        {
            if (lpFsSession)
                lpFsSession->OnSend(lpCpd);
        }
        catch (...)
        {
            QB_WriteLog(QB_LOG_DAILY, "error", "ZV_FileShareMgr::OnSend.OnSend exception.\r\n");
        }
    });
    return 0;
}

// ---------------------------------------------------------------------------
// Timer

void ZV_FileShareMgr::OnTimer(uint32_t ulTick)
{
    if (m_lpConf == nullptr)
        return;
    // Each conference works on every fifth tick; conferences whose ids differ
    // in their remainder take turns.
    if ((m_lpConf->GetConfID() & 0xFFFF) % 5 != ulTick % 5)
        return;
    ForEachSession([&](uint16_t, ZV_FileShareSession* lpFsSession) {
        if (lpFsSession)
            lpFsSession->OnTimer(ulTick);
    });
    if (!m_lpConf->IsClientMode())
    {
        m_Catalog.OnTimer();
        return;
    }
    m_ShareLedger.OnTimer();
    if (!m_arrBusyFileID.IsEmpty())
    {
        NotifyBusy(1);
        return;
    }
    const uint32_t ulNow = ZV_Now();
    if (m_ulIdleSince == 0)
        m_ulIdleSince = ulNow;
    if (ulNow - m_ulIdleSince < ZV_IDLE_WAIT_MS)
        return;
    // Idle long enough: the data link may fall, and that is no loss.
    m_cDataLink = zvLinkIdle;
    NotifyBusy(0);
    m_ulIdleSince = 0;
}
