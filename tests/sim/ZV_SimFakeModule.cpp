#include "ZV_SimFakeModule.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace {

IZV_ConfModule* CreateFake(const char* pszName)
{
    return std::string(pszName) == ZV_FILESHARE_INTERFACE_NAME ? new ZV_SimFakeModule : nullptr;
}
void DestroyFake(IZV_ConfModule* lpModule) { delete static_cast<ZV_SimFakeModule*>(lpModule); }

ZV_SimShape Checked(const ZV_SimShape& shape, const ZV_SimConference& sim)
{
    EXPECT_TRUE(shape.IsComplete()) << sim.GetError();
    return shape;
}

}  // namespace

ZV_SimModuleApi ZV_SimFakeApi() { return ZV_SimModuleApi::FromFactory(&CreateFake, &DestroyFake); }

ZV_SimFakeModule& FakeOf(const ZV_SimHost* lpNode) { return *static_cast<ZV_SimFakeModule*>(lpNode->GetModule()); }

std::string JournalLines(size_t nFirst, const std::string& sPrefix, const std::vector<std::string>& vecTexts)
{
    std::string s;
    for (const std::string& sText : vecTexts)
        s += std::to_string(nFirst++) + " t=1000000 " + sPrefix + sText + "\n";
    return s;
}

ZV_SimFakeConference::ZV_SimFakeConference(const std::function<void(ZV_SimOptions&)>& fnTune, ZV_SimModuleApi api)
    : ZV_SimConference(std::move(api), [&] {
          ZV_SimOptions options;
          options.sRoot = tmp.Path();
          if (fnTune)
              fnTune(options);
          return options;
      }())
{
}

ZV_SimShape ZV_SimFakeConference::OneServerTwoClients() { return Checked(ZV_SimBuilder::OneServerTwoClients(*this), *this); }

ZV_SimShape ZV_SimFakeConference::TwoLinkedServers(int nClientsEach, uint32_t ulConfID)
{
    return Checked(ZV_SimBuilder::TwoLinkedServers(*this, ulConfID, nClientsEach), *this);
}

std::vector<ZV_SimFakeCall> ZV_SimFakeModule::CallsOf(const std::string& sWhat) const
{
    std::vector<ZV_SimFakeCall> vecFound;
    std::copy_if(m_vecCalls.begin(), m_vecCalls.end(), std::back_inserter(vecFound),
                 [&](const ZV_SimFakeCall& call) { return call.sWhat == sWhat; });
    return vecFound;
}

ZV_SimFakeCall& ZV_SimFakeModule::Record(const std::string& sWhat, const QB_UserID& peer, uint32_t ulConn,
                                         uint16_t usConnType)
{
    m_vecCalls.push_back({sWhat, peer, ulConn, usConnType, 0, {}});
    return m_vecCalls.back();
}

uint32_t ZV_SimFakeModule::HandlePdu(ConfPduData* lpCpd)
{
    ZV_SimFakeCall& call =
        Record("HandlePdu", QB_UserID(lpCpd->ulUserMain, lpCpd->ulUserSub), lpCpd->ulConn, lpCpd->conn_type);
    call.usNumber = lpCpd->usPdu;
    call.vbData.assign(lpCpd->pData, lpCpd->pData + lpCpd->ulLen);
    if (fnOnPdu)
        fnOnPdu(*this, *lpCpd);
    return 0;
}

uint32_t ZV_SimFakeModule::OnSend(ConfPduData* lpCpd)
{
    Record("OnSend", QB_UserID(lpCpd->ulUserMain, lpCpd->ulUserSub), lpCpd->ulConn, lpCpd->conn_type);
    if (fnOnSend)
        fnOnSend(*this, *lpCpd);
    return 0;
}

uint32_t ZV_SimFakeModule::OnEvent(uint16_t usEvent, uintptr_t a1, uintptr_t a2, uintptr_t, uintptr_t)
{
    // These three events name a user by a2; the others carry a number there.
    bool bTakesUser =
        usEvent == zvConfEventUserLeave || usEvent == zvConfEventUserEnter || usEvent == zvConfEventRightChange;
    ZV_SimFakeCall& call = bTakesUser ? Record("OnEvent", *reinterpret_cast<const QB_UserID*>(a2))
                                      : Record("OnEvent", {}, (uint32_t)a2);
    call.usNumber = usEvent;
    if (fnOnEvent)
        fnOnEvent(*this, usEvent, a1, a2);
    return 0;
}
