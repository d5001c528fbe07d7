#include "ZV_SimHost.h"

#include "QB_Env.h"
#include "ZV_SimConference.h"
#include "ZV_SimMachine.h"
#include "ZV_SimModuleApi.h"

#include <algorithm>

namespace {

constexpr const char* kHomeVariable = "ROOMCRATE_HOME";

// The folder ROOMCRATE_HOME points at now, as PointHome last wrote it.
std::string g_sCurrentHome;
// The folder of the innermost call into a manager; null outside calls.
const std::string* g_lpCallHome = nullptr;

// The variable is written only when the folder changes: a run of calls
// into one node costs no write at all, and a transfer that goes back and
// forth between two nodes one write per call.
void PointHomeIfChanged(const std::string& sHome)
{
    if (sHome != g_sCurrentHome)
        ZV_SimHost::PointHome(sHome);
}

// Every call into a manager runs inside one of these. Calls nest when a
// user-side callback calls into another node's manager, so the caller's
// folder is put back at the end of an inner call; after the outermost call
// the folder stays, since nothing of the module runs until the next one.
class HomeScope
{
public:
    explicit HomeScope(const std::string& sHome) : m_lpPrevious(g_lpCallHome)
    {
        g_lpCallHome = &sHome;
        PointHomeIfChanged(sHome);
    }
    ~HomeScope()
    {
        g_lpCallHome = m_lpPrevious;
        if (m_lpPrevious)
            PointHomeIfChanged(*m_lpPrevious);
    }
    HomeScope(const HomeScope&) = delete;
    HomeScope& operator=(const HomeScope&) = delete;

private:
    const std::string* m_lpPrevious;
};

std::string NodeName(const ZV_SimMachine* lpMachine, uint32_t ulConfID)
{
    return lpMachine->GetName() + "@" + std::to_string(ulConfID);
}

}  // namespace

void ZV_SimHost::PointHome(const std::string& sHome)
{
    g_sCurrentHome = sHome;
    QB_SetEnvironmentVariable(kHomeVariable, sHome.empty() ? nullptr : sHome.c_str());
}

ZV_SimHost::ZV_SimHost(ZV_SimConference* lpWorld, uint32_t nIndex, ZV_SimMachine* lpMachine, uint32_t ulConfID,
                       const ZV_SimUser* lpUser, std::string sHome)
    : m_lpWorld(lpWorld),
      m_nIndex(nIndex),
      m_lpMachine(lpMachine),
      m_ulConfID(ulConfID),
      m_user(lpUser ? *lpUser : ZV_SimUser{}),
      m_idLocal(lpUser ? lpUser->id : lpMachine->GetID()),
      m_sName(NodeName(lpMachine, ulConfID)),
      m_sHome(std::move(sHome))
{
}

bool ZV_SimHost::IsServer() const
{
    return m_lpMachine->IsServer();
}

ZV_SimNetwork& ZV_SimHost::Net() const
{
    return m_lpWorld->GetNetwork();
}

ZV_SimJournal& ZV_SimHost::Journal() const
{
    return m_lpWorld->Journal();
}

bool ZV_SimHost::Start(ZV_SimModuleApi& api)
{
    HomeScope scope(m_sHome);
    m_lpModule = api.CreateInstance();
    if (!m_lpModule)
        return false;
    // The module never assigns these itself; they must be in place before
    // its first call.
    m_lpModule->m_lpConf = this;
    m_lpModule->m_lpConfSink = this;
    m_ulInitResult = m_lpModule->Initialize();
    return true;
}

void ZV_SimHost::Stop(ZV_SimModuleApi& api)
{
    if (!m_lpModule)
        return;
    HomeScope scope(m_sHome);
    api.DestroyInstance(m_lpModule);
    m_lpModule = nullptr;
}

IZV_FileShareMgr* ZV_SimHost::GetFileShareMgr()
{
    void* lpFace = nullptr;
    PointHome(m_sHome);
    if (!m_lpModule || !m_lpModule->GetInterface(zvInterfaceFileShareMgr, &lpFace))
        return nullptr;
    return static_cast<IZV_FileShareMgr*>(lpFace);
}

// A client link is named by its client at both ends; a client has no other
// kind of link, so on a client the fields name the client itself.
void ZV_SimHost::SetUserFields(ConfPduData& cpd, const ZV_SimMachine& peer) const
{
    const QB_UserID& user = IsServer() ? peer.GetID() : m_lpMachine->GetID();
    cpd.ulUserMain = user.m_ulMain;
    cpd.ulUserSub = user.m_ulSub;
}

uint32_t ZV_SimHost::DeliverPdu(const ZV_SimMachine& peer, uint32_t ulConn, uint16_t usConnType, uint16_t usPdu,
                                const uint8_t* pData, uint32_t ulLen)
{
    if (!m_lpModule)
        return zvSimSendRefused;
    ConfPduData cpd{};
    SetUserFields(cpd, peer);
    cpd.ulConn = ulConn;
    cpd.conn_type = usConnType;
    cpd.usPdu = usPdu;
    cpd.ulLen = ulLen;
    cpd.pData = pData;
    uint32_t ulResult = 0;
    {
        HomeScope scope(m_sHome);
        ulResult = m_lpModule->HandlePdu(&cpd);
    }
    if (m_fnPdu)
        m_fnPdu(*this, usPdu, ulResult);
    return ulResult;
}

void ZV_SimHost::DeliverOnSend(const ZV_SimMachine& peer, uint32_t ulConn, uint16_t usConnType)
{
    JournalCall(ZV_SimCall::OnSend, peer.GetName(), ulConn, usConnType);
    if (!m_lpModule)
        return;
    ConfPduData cpd{};
    SetUserFields(cpd, peer);
    cpd.ulConn = ulConn;
    cpd.conn_type = usConnType;
    HomeScope scope(m_sHome);
    m_lpModule->OnSend(&cpd);
}

void ZV_SimHost::DeliverLinkChange(bool bUp, const ZV_SimMachine& peer, uint32_t ulConn, uint16_t usConnType)
{
    JournalCall(bUp ? ZV_SimCall::OnConnect : ZV_SimCall::OnDisconnect, peer.GetName(), ulConn, usConnType);
    if (!m_lpModule)
        return;
    QB_UserID idPeer = peer.GetID();
    HomeScope scope(m_sHome);
    if (bUp)
        m_lpModule->OnConnect(&idPeer, ulConn, usConnType, 0);
    else
        m_lpModule->OnDisconnect(&idPeer, ulConn, usConnType, 0);
}

void ZV_SimHost::DeliverTimer(uint32_t ulTick)
{
    if (!m_lpModule)
        return;
    HomeScope scope(m_sHome);
    m_lpModule->OnTimer(ulTick);
}

uint32_t ZV_SimHost::DeliverEvent(uint16_t usEvent, uintptr_t a1, uintptr_t a2, const std::string& sArg2)
{
    ZV_SimEntry entry;
    entry.eKind = ZV_SimEntryKind::Call;
    entry.eCall = ZV_SimCall::OnEvent;
    entry.sNode = m_sName;
    entry.sPeer = sArg2;
    entry.usNumber = usEvent;
    entry.ulArg = (uint32_t)a1;
    // A pointer in a2 would make two runs of one scenario journal apart.
    entry.ulConn = sArg2.empty() ? (uint32_t)a2 : zvConnNone;
    Journal().Add(std::move(entry));
    if (!m_lpModule)
        return 0;
    HomeScope scope(m_sHome);
    return m_lpModule->OnEvent(usEvent, a1, a2, 0, 0);
}

void ZV_SimHost::JournalCall(ZV_SimCall eCall, const std::string& sPeer, uint32_t ulConn, uint16_t usConnType)
{
    ZV_SimEntry entry;
    entry.eKind = ZV_SimEntryKind::Call;
    entry.eCall = eCall;
    entry.sNode = m_sName;
    entry.sPeer = sPeer;
    entry.ulConn = ulConn;
    entry.usConnType = usConnType;
    Journal().Add(std::move(entry));
}

void ZV_SimHost::OnConfEvent(IZV_ConfHost* lpConf, uint16_t usEvent, uint32_t ulLen, const uint8_t* pData)
{
    ZV_SimEntry entry;
    entry.eKind = ZV_SimEntryKind::Event;
    entry.sNode = m_sName;
    entry.usNumber = usEvent;
    std::vector<uint8_t> vbData;
    if (pData)
        vbData.assign(pData, pData + ulLen);
    // The journal keeps only the head of a payload; the callback gets it all.
    entry.nDataLen = vbData.size();
    entry.vbData.assign(vbData.begin(), vbData.begin() + std::min(vbData.size(), Journal().GetPayloadLimit()));
    Journal().Add(std::move(entry));
    if (m_fnEvent)
        m_fnEvent(*this, usEvent, vbData);
}
