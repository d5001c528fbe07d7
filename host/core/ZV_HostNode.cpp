#include "ZV_HostNode.h"

#include "QB_Env.h"
#include "ZV_ModuleApi.h"

#include <cstdio>
#include <cstdlib>

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
        ZV_HostNode::PointHome(sHome);
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

}  // namespace

uint16_t ZV_HostLink::GetConnType(int nChannel) const
{
    if (IsServerLink())
        return nChannel == zvHostData ? zvConfServerTypeData : zvConfServerTypeCommand;
    return nChannel == zvHostData ? zvConfClientTypeData : zvConfClientTypeCommand;
}

int ZV_HostLink::ChannelOf(uint16_t usConnType) const
{
    for (int nChannel : {zvHostCommand, zvHostData})
        if (GetConnType(nChannel) == usConnType)
            return nChannel;
    return -1;
}

int ZV_HostLink::FindChannel(uint32_t ulConn) const
{
    if (ulConn == zvConnNone)
        return -1;
    for (int nChannel : {zvHostCommand, zvHostData})
        if (ConnOn(nChannel) == ulConn)
            return nChannel;
    return -1;
}

void ZV_HostNode::PointHome(const std::string& sHome)
{
    g_sCurrentHome = sHome;
    QB_SetEnvironmentVariable(kHomeVariable, sHome.empty() ? nullptr : sHome.c_str());
}

ZV_HostNode::ZV_HostNode(uint32_t ulConfID, const QB_UserID& idLocal, bool bServer, std::string sHome)
    : m_ulConfID(ulConfID), m_idLocal(idLocal), m_bServer(bServer), m_sHome(std::move(sHome))
{
}

bool ZV_HostNode::Start(ZV_ModuleApi& api)
{
    m_idThread = std::this_thread::get_id();
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

void ZV_HostNode::Stop(ZV_ModuleApi& api)
{
    if (!m_lpModule)
        return;
    CheckThread();
    HomeScope scope(m_sHome);
    api.DestroyInstance(m_lpModule);
    m_lpModule = nullptr;
}

IZV_FileShareMgr* ZV_HostNode::GetFileShareMgr()
{
    void* lpFace = nullptr;
    PointHome(m_sHome);
    if (!m_lpModule || !m_lpModule->GetInterface(zvInterfaceFileShareMgr, &lpFace))
        return nullptr;
    CheckThread();
    return static_cast<IZV_FileShareMgr*>(lpFace);
}

// The manager guards nothing against a second thread, so a host that lets
// one in has a fault that shows only under load. It is stopped at once.
void ZV_HostNode::CheckThread() const
{
    if (std::this_thread::get_id() == m_idThread)
        return;
    std::fprintf(stderr, "roomcrate: a manager of conference %u was called from a second thread\n", m_ulConfID);
    std::abort();
}

// A client link is named by its client at both ends; a client has no other
// kind of link, so on a client the fields name the client itself.
void ZV_HostNode::SetUserFields(ConfPduData& cpd, const QB_UserID& peer) const
{
    const QB_UserID& user = m_bServer ? peer : m_idLocal;
    cpd.ulUserMain = user.m_ulMain;
    cpd.ulUserSub = user.m_ulSub;
}

uint32_t ZV_HostNode::CallHandlePdu(const QB_UserID& peer, uint32_t ulConn, uint16_t usConnType, uint16_t usPdu,
                                    const uint8_t* pData, uint32_t ulLen)
{
    if (!m_lpModule)
        return zvHostSendRefused;
    CheckThread();
    ConfPduData cpd{};
    SetUserFields(cpd, peer);
    cpd.ulConn = ulConn;
    cpd.conn_type = usConnType;
    cpd.usPdu = usPdu;
    cpd.ulLen = ulLen;
    cpd.pData = pData;
    HomeScope scope(m_sHome);
    return m_lpModule->HandlePdu(&cpd);
}

void ZV_HostNode::CallOnSend(const QB_UserID& peer, uint32_t ulConn, uint16_t usConnType)
{
    if (!m_lpModule)
        return;
    CheckThread();
    ConfPduData cpd{};
    SetUserFields(cpd, peer);
    cpd.ulConn = ulConn;
    cpd.conn_type = usConnType;
    HomeScope scope(m_sHome);
    m_lpModule->OnSend(&cpd);
}

void ZV_HostNode::CallLinkChange(bool bUp, const QB_UserID& peer, uint32_t ulConn, uint16_t usConnType)
{
    if (!m_lpModule)
        return;
    CheckThread();
    QB_UserID idPeer = peer;
    HomeScope scope(m_sHome);
    if (bUp)
        m_lpModule->OnConnect(&idPeer, ulConn, usConnType, 0);
    else
        m_lpModule->OnDisconnect(&idPeer, ulConn, usConnType, 0);
}

void ZV_HostNode::CallTimer(uint32_t ulTick)
{
    if (!m_lpModule)
        return;
    CheckThread();
    HomeScope scope(m_sHome);
    m_lpModule->OnTimer(ulTick);
}

uint32_t ZV_HostNode::CallEvent(uint16_t usEvent, uintptr_t a1, uintptr_t a2)
{
    if (!m_lpModule)
        return 0;
    CheckThread();
    HomeScope scope(m_sHome);
    return m_lpModule->OnEvent(usEvent, a1, a2, 0, 0);
}

uint32_t ZV_HostNode::RaiseUserEvent(uint16_t usEvent, const QB_UserID& user)
{
    QB_UserID idUser = user;
    return CallEvent(usEvent, 0, (uintptr_t)&idUser);
}

uint32_t ZV_HostNode::RaiseServerLink(uint32_t ulCommandConn)
{
    return CallEvent(zvConfEventServerLink, 0, ulCommandConn);
}

// ---------------------------------------------------------------------------
// What a manager asks of its host: who is in the conference, and which
// connections lead where. Connections that are down have no number.

ZV_HostLink* ZV_HostNode::FindLinkTo(const QB_UserID* lpPeer) const
{
    if (!lpPeer)
        return nullptr;
    for (ZV_HostLink* lpLink : Links())
        if (lpLink->GetPeer() == *lpPeer)
            return lpLink;
    return nullptr;
}

ZV_HostLink* ZV_HostNode::FindServerLinkTo(uint32_t ulServerID) const
{
    QB_UserID idServer(ulServerID, 0);
    ZV_HostLink* lpLink = FindLinkTo(&idServer);
    return lpLink && lpLink->IsServerLink() ? lpLink : nullptr;
}

ZV_HostLink* ZV_HostNode::FindConn(uint32_t ulConn, int* lpnChannel) const
{
    for (ZV_HostLink* lpLink : Links())
    {
        *lpnChannel = lpLink->FindChannel(ulConn);
        if (*lpnChannel >= 0)
            return lpLink;
    }
    return nullptr;
}

uint32_t ZV_HostNode::GetClientCount()
{
    uint32_t nCount = 0;
    if (m_bServer)
        for (ZV_HostLink* lpLink : Links())
            if (!lpLink->IsServerLink() && lpLink->ConnOn(zvHostCommand) != zvConnNone)
                ++nCount;
    return nCount;
}

bool ZV_HostNode::CanShareFiles(const QB_UserID* lpUser)
{
    const ZV_HostUser* lpRecord = lpUser ? Users().Find(*lpUser) : nullptr;
    return lpRecord && lpRecord->bCanShare;
}

uint32_t ZV_HostNode::GetUserConn(const QB_UserID* lpUser, uint16_t usConnType)
{
    ZV_HostLink* lpLink = FindLinkTo(lpUser);
    int nChannel = lpLink ? lpLink->ChannelOf(usConnType) : -1;
    return nChannel < 0 ? zvConnNone : lpLink->ConnOn(nChannel);
}

uint32_t ZV_HostNode::GetServerConn(uint32_t ulServerID, uint16_t usConnType, uint32_t ulReserved)
{
    ZV_HostLink* lpLink = FindServerLinkTo(ulServerID);
    int nChannel = lpLink ? lpLink->ChannelOf(usConnType) : -1;
    return nChannel < 0 ? zvConnNone : lpLink->ConnOn(nChannel);
}

IZV_ConfLink* ZV_HostNode::GetUserLink(const QB_UserID* lpUser)
{
    ZV_HostLink* lpLink = FindLinkTo(lpUser);
    return lpLink ? lpLink->GetFace() : nullptr;
}

IZV_ConfLink* ZV_HostNode::GetServerLink()
{
    // A client node has one link, to its home server.
    if (m_bServer)
        return nullptr;
    std::vector<ZV_HostLink*> vecLinks = Links();
    return vecLinks.empty() ? nullptr : vecLinks[0]->GetFace();
}

const ZV_ConfUserInfo* ZV_HostNode::GetUser(const QB_UserID* lpUser)
{
    return lpUser ? Users().GetInfo(*lpUser) : nullptr;
}

bool ZV_HostNode::HasServerLinks()
{
    if (!m_bServer)
        return false;
    for (ZV_HostLink* lpLink : Links())
        if (lpLink->IsServerLink() && lpLink->ConnOn(zvHostCommand) != zvConnNone)
            return true;
    return false;
}

// ---------------------------------------------------------------------------
// The five ways a manager sends, and the host's memory of floods.
//
// SendPdu and SendPduToGroup carry the payload as it is. The three server
// routes carry it with the conference word in front, which the receiving
// host takes off to find the conference. Every send copies the payload
// before it returns.

uint32_t ZV_HostNode::Refuse(const ZV_HostSend&)
{
    return zvHostSendRefused;
}

ZV_HostSend ZV_HostNode::MakeSend(ZV_HostRoute eRoute, uint16_t usPdu, const uint8_t* pData, uint32_t ulLen,
                                  uint8_t bFlag1, uint8_t bFlag2)
{
    ZV_HostSend send;
    send.eRoute = eRoute;
    send.usPdu = usPdu;
    send.pData = pData;
    send.ulLen = ulLen;
    send.bFlag1 = bFlag1;
    send.bFlag2 = bFlag2;
    return send;
}

// A kick goes on a data connection only; a payload no sender's buffer could
// hold, or a length without bytes, is refused rather than carried.
uint32_t ZV_HostNode::SendOn(ZV_HostSend send, ZV_HostLink* lpLink, int nChannel)
{
    send.lpLink = lpLink;
    send.nChannel = nChannel;
    send.ulConn = lpLink->ConnOn(nChannel);
    const bool bBadPayload = send.ulLen > zvHostMaxPayload || (!send.pData && send.ulLen > 0);
    if (send.ulConn == zvConnNone || bBadPayload)
        return Refuse(send);
    if (send.usPdu == PDU_CONF_FS_KICK)
        return nChannel == zvHostData ? Kick(send) : Refuse(send);
    return Carry(send);
}

uint32_t ZV_HostNode::SendPdu(uint32_t ulConn, uint16_t usPdu, const uint8_t* pData, uint32_t ulLen, uint8_t bFlag1,
                              uint8_t bFlag2)
{
    ZV_HostSend send = MakeSend(ZV_HostRoute::Pdu, usPdu, pData, ulLen, bFlag1, bFlag2);
    send.ulConn = ulConn;
    int nChannel = -1;
    ZV_HostLink* lpLink = FindConn(ulConn, &nChannel);
    return lpLink ? SendOn(send, lpLink, nChannel) : Refuse(send);
}

uint32_t ZV_HostNode::SendPduToGroup(uint32_t ulSkipConn, uint32_t ulReserved, uint16_t usPdu, const uint8_t* pData,
                                     uint32_t ulLen, uint8_t bFlag1, uint8_t bFlag2)
{
    ZV_HostSend send = MakeSend(ZV_HostRoute::Group, usPdu, pData, ulLen, bFlag1, bFlag2);
    if (!m_bServer)
        return Refuse(send);
    uint32_t ulResult = 0;
    for (ZV_HostLink* lpLink : Links())
    {
        const uint32_t ulConn = lpLink->ConnOn(zvHostCommand);
        bool bClient = !lpLink->IsServerLink() && ulConn != zvConnNone;
        if (bClient && ulConn != ulSkipConn && SendOn(send, lpLink, zvHostCommand) != 0)
            ulResult = zvHostSendRefused;
    }
    return ulResult;
}

uint32_t ZV_HostNode::SendPduOnLink(uint32_t ulConn, uint16_t usPdu, const uint8_t* pData, uint32_t ulLen,
                                    uint8_t bFlag1, uint8_t bFlag2)
{
    ZV_HostSend send = MakeSend(ZV_HostRoute::OnLink, usPdu, pData, ulLen, bFlag1, bFlag2);
    send.ulConn = ulConn;
    int nChannel = -1;
    ZV_HostLink* lpLink = FindConn(ulConn, &nChannel);
    if (!lpLink || !lpLink->IsServerLink())
        return Refuse(send);
    return SendOn(send, lpLink, nChannel);
}

uint32_t ZV_HostNode::SendPduToServerData(uint32_t ulServerMain, uint16_t usConnType, uint16_t usPdu,
                                          const uint8_t* pData, uint32_t ulLen, uint8_t bFlag1, uint8_t bFlag2)
{
    ZV_HostSend send = MakeSend(ZV_HostRoute::ServerData, usPdu, pData, ulLen, bFlag1, bFlag2);
    send.usConnType = usConnType;
    ZV_HostLink* lpLink = FindServerLinkTo(ulServerMain);
    int nChannel = lpLink ? lpLink->ChannelOf(usConnType) : -1;
    if (nChannel < 0)
        return Refuse(send);
    return SendOn(send, lpLink, nChannel);
}

uint32_t ZV_HostNode::SendPduToServers(uint32_t ulSkipConn, uint16_t usConnType, uint16_t usPdu, const uint8_t* pData,
                                       uint32_t ulLen, uint8_t bFlag1, uint8_t bFlag2)
{
    ZV_HostSend send = MakeSend(ZV_HostRoute::Servers, usPdu, pData, ulLen, bFlag1, bFlag2);
    send.usConnType = usConnType;
    int nChannel = usConnType == zvConfServerTypeCommand ? zvHostCommand
                   : usConnType == zvConfServerTypeData  ? zvHostData
                                                         : -1;
    if (!m_bServer || nChannel < 0)
        return Refuse(send);
    uint32_t ulResult = 0;
    for (ZV_HostLink* lpLink : Links())
    {
        const uint32_t ulConn = lpLink->ConnOn(nChannel);
        bool bServer = lpLink->IsServerLink() && ulConn != zvConnNone;
        if (bServer && ulConn != ulSkipConn && SendOn(send, lpLink, nChannel) != 0)
            ulResult = zvHostSendRefused;
    }
    return ulResult;
}

uint32_t ZV_HostNode::NewFloodSeq(const QB_UserID* lpOrigin, uint32_t ulReserved)
{
    return NextFloodSeq();
}

// An origin the module could not name counts as QB_UserID(0, 0), so that a
// broken request is still remembered rather than acted on twice.
bool ZV_HostNode::FirstSight(FloodMemory& memory, const QB_UserID* lpOrigin, uint32_t ulFloodSeq)
{
    QB_UserID idOrigin = lpOrigin ? *lpOrigin : QB_UserID();
    FloodKey key(idOrigin.m_ulMain, idOrigin.m_ulSub, ulFloodSeq);
    if (!memory.setSeen.insert(key).second)
        return false;
    memory.queueOrder.push_back(key);
    if (memory.queueOrder.size() > kFloodMemory)
    {
        memory.setSeen.erase(memory.queueOrder.front());
        memory.queueOrder.pop_front();
    }
    return true;
}

bool ZV_HostNode::IsFloodSeen(const QB_UserID* lpOrigin, uint32_t ulFloodSeq)
{
    return !FirstSight(m_floodSeen, lpOrigin, ulFloodSeq);
}

bool ZV_HostNode::IsResponseFloodSeen(const QB_UserID* lpOrigin, uint32_t ulFloodSeq)
{
    return !FirstSight(m_responseFloodSeen, lpOrigin, ulFloodSeq);
}
