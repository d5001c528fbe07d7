#include "ZV_SimFakeModule.h"

#include <cstdlib>

namespace {

IZV_ConfModule* CreateFake(const char* pszName)
{
    return std::string(pszName) == ZV_FILESHARE_INTERFACE_NAME ? new ZV_SimFakeModule : nullptr;
}

void DestroyFake(IZV_ConfModule* lpModule)
{
    delete static_cast<ZV_SimFakeModule*>(lpModule);
}

bool TakesUser(uint16_t usEvent)
{
    return usEvent == zvConfEventUserLeave || usEvent == zvConfEventUserEnter || usEvent == zvConfEventRightChange;
}

}  // namespace

ZV_SimModuleApi ZV_SimFakeApi()
{
    return ZV_SimModuleApi::FromFactory(&CreateFake, &DestroyFake);
}

ZV_SimFakeModule& FakeOf(const ZV_SimHost* lpNode)
{
    return *static_cast<ZV_SimFakeModule*>(lpNode->GetModule());
}

ZV_SimOptions ZV_SimFakeOptions(const std::string& sRoot, uint32_t nInFlightBound)
{
    ZV_SimOptions options;
    options.sRoot = sRoot;
    options.nInFlightBound = nInFlightBound;
    return options;
}

std::vector<uint8_t> WithConfWord(uint32_t ulConfID, std::vector<uint8_t> vbFields)
{
    vbFields.insert(vbFields.begin(), {(uint8_t)ulConfID, (uint8_t)(ulConfID >> 8)});
    return vbFields;
}

std::vector<ZV_SimFakeCall> ZV_SimFakeModule::CallsOf(const std::string& sWhat) const
{
    std::vector<ZV_SimFakeCall> vecFound;
    for (const ZV_SimFakeCall& call : m_vecCalls)
        if (call.sWhat == sWhat)
            vecFound.push_back(call);
    return vecFound;
}

ZV_SimFakeCall& ZV_SimFakeModule::Record(const std::string& sWhat)
{
    ZV_SimFakeCall call;
    call.sWhat = sWhat;
    const char* pszHome = std::getenv("ROOMCRATE_HOME");
    call.sHome = pszHome ? pszHome : "";
    call.ulTick = QB_GetEnv()->GetTickCount();
    m_vecCalls.push_back(call);
    return m_vecCalls.back();
}

uint32_t ZV_SimFakeModule::Initialize()
{
    Record("Initialize");
    return 0;
}

ZV_SimFakeCall& ZV_SimFakeModule::RecordLink(const std::string& sWhat, const QB_UserID& peer, uint32_t ulConn,
                                             uint16_t usConnType)
{
    ZV_SimFakeCall& call = Record(sWhat);
    call.peer = peer;
    call.ulConn = ulConn;
    call.usConnType = usConnType;
    return call;
}

uint32_t ZV_SimFakeModule::HandlePdu(ConfPduData* lpCpd)
{
    ZV_SimFakeCall& call =
        RecordLink("HandlePdu", QB_UserID(lpCpd->ulUserMain, lpCpd->ulUserSub), lpCpd->ulConn, lpCpd->conn_type);
    call.usNumber = lpCpd->usPdu;
    call.vbData.assign(lpCpd->pData, lpCpd->pData + lpCpd->ulLen);
    if (fnOnPdu)
        fnOnPdu(*this, *lpCpd);
    return 0;
}

uint32_t ZV_SimFakeModule::OnSend(ConfPduData* lpCpd)
{
    RecordLink("OnSend", QB_UserID(lpCpd->ulUserMain, lpCpd->ulUserSub), lpCpd->ulConn, lpCpd->conn_type);
    if (fnOnSend)
        fnOnSend(*this, *lpCpd);
    return 0;
}

uint32_t ZV_SimFakeModule::OnConnect(const QB_UserID* lpPeer, uint32_t ulConn, uint16_t usConnType, uint32_t)
{
    RecordLink("OnConnect", *lpPeer, ulConn, usConnType);
    return 0;
}

uint32_t ZV_SimFakeModule::OnDisconnect(const QB_UserID* lpPeer, uint32_t ulConn, uint16_t usConnType, uint32_t)
{
    RecordLink("OnDisconnect", *lpPeer, ulConn, usConnType);
    return 0;
}

void ZV_SimFakeModule::OnTimer(uint32_t ulTick)
{
    Record("OnTimer").ulConn = ulTick;
}

uint32_t ZV_SimFakeModule::OnEvent(uint16_t usEvent, uintptr_t a1, uintptr_t a2, uintptr_t, uintptr_t)
{
    ZV_SimFakeCall& call = Record("OnEvent");
    call.usNumber = usEvent;
    call.a1 = a1;
    if (TakesUser(usEvent))
        call.peer = *reinterpret_cast<const QB_UserID*>(a2);
    else
        call.ulConn = (uint32_t)a2;
    if (fnOnEvent)
        fnOnEvent(*this, usEvent, a1, a2);
    return 0;
}

bool ZV_SimFakeModule::GetInterface(uint16_t, void** lppOut)
{
    *lppOut = nullptr;
    return false;
}
