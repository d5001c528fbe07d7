// A module of the tests' own, built as a library with the five exports, so
// that a test can drive a loaded library through nothing else. A client
// says hello on its command link as it comes up; a server answers every
// hello on the connection it came in on; the client raises event 3000 with
// the answer.
#include "IZV_FileShare.h"

#include <cstring>

namespace {

bool g_bInitialized = false;

class ZV_SimEchoModule final : public IZV_ConfModule
{
public:
    uint16_t GetModuleType() override { return zvModuleTypeFileShare; }
    uint32_t Initialize() override { return 0; }
    uint32_t ModuleReserved0() override { return 0; }
    uint32_t CleanData() override { return 0; }
    void ModuleReserved1(uint32_t, uint32_t) override {}
    bool ModuleReserved2(uint32_t) override { return false; }
    uint32_t OnSend(ConfPduData*) override { return 0; }
    uint32_t OnDisconnect(const QB_UserID*, uint32_t, uint16_t, uint32_t) override { return 0; }
    void OnTimer(uint32_t) override {}
    uint32_t OnEvent(uint16_t, uintptr_t, uintptr_t, uintptr_t, uintptr_t) override { return 0; }
    bool GetInterface(uint16_t, void** lppOut) override
    {
        *lppOut = nullptr;
        return false;
    }

    uint32_t HandlePdu(ConfPduData* lpCpd) override
    {
        if (lpCpd->usPdu == PDU_CONF_FS_ADD_REQUEST)
            return m_lpConf->SendPdu(lpCpd->ulConn, PDU_CONF_FS_ADD_RESPONSE, lpCpd->pData, lpCpd->ulLen, 1, 1);
        if (lpCpd->usPdu == PDU_CONF_FS_ADD_RESPONSE && m_lpConfSink)
            m_lpConfSink->OnConfEvent(m_lpConf, zvFsEventFileAdded, lpCpd->ulLen, lpCpd->pData);
        return 0;
    }

    uint32_t OnConnect(const QB_UserID*, uint32_t ulConn, uint16_t usConnType, uint32_t) override
    {
        static const uint8_t kHello[] = {'h', 'i'};
        if (m_lpConf->IsClientMode() && usConnType == zvConfClientTypeCommand)
            m_lpConf->SendPdu(ulConn, PDU_CONF_FS_ADD_REQUEST, kHello, sizeof kHello, 1, 1);
        return 0;
    }
};

}  // namespace

extern "C" {

bool zvInitialize()
{
    g_bInitialized = true;
    return true;
}

void zvUninitialize()
{
    g_bInitialized = false;
}

bool zvGetInterfaceName(int32_t nIndex, char* pszBuffer)
{
    if (nIndex != 0)
        return false;
    std::memcpy(pszBuffer, ZV_FILESHARE_INTERFACE_NAME, sizeof ZV_FILESHARE_INTERFACE_NAME);
    return true;
}

IZV_ConfModule* zvCreateInstance(const char* pszName)
{
    bool bName = std::memcmp(pszName, ZV_FILESHARE_INTERFACE_NAME, sizeof ZV_FILESHARE_INTERFACE_NAME) == 0;
    return g_bInitialized && bName ? new ZV_SimEchoModule : nullptr;
}

void zvDestroyInstance(IZV_ConfModule* lpModule)
{
    delete static_cast<ZV_SimEchoModule*>(lpModule);
}
}
