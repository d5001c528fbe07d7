// A stand-in for the file-sharing module: it records every call the host
// makes into it, and sends whatever the test's hooks tell it to.
#pragma once

#include "QB_TestSupport.h"
#include "ZV_SimBuilder.h"
#include "ZV_SimConference.h"

#include <functional>
#include <string>
#include <vector>

struct ZV_SimFakeCall
{
    std::string sWhat;  // "Initialize", "HandlePdu", "OnSend", "OnConnect", ...
    QB_UserID peer;     // the peer of a PDU or a link change; the user of a host event
    uint32_t ulConn = 0;  // also the tick of OnTimer and the a2 of a host event without a user
    uint16_t usConnType = 0;
    uint16_t usNumber = 0;  // PDU or host event
    std::vector<uint8_t> vbData;
};

class ZV_SimFakeModule final : public IZV_ConfModule
{
public:
    using PduHook = std::function<void(ZV_SimFakeModule& self, const ConfPduData& cpd)>;
    using EventHook = std::function<void(ZV_SimFakeModule& self, uint16_t usEvent, uintptr_t a1, uintptr_t a2)>;

    PduHook fnOnPdu;
    PduHook fnOnSend;
    EventHook fnOnEvent;
    std::vector<ZV_SimFakeCall> m_vecCalls;

    std::vector<ZV_SimFakeCall> CallsOf(const std::string& sWhat) const;

    uint16_t GetModuleType() override { return zvModuleTypeFileShare; }
    uint32_t Initialize() override { return Record("Initialize"), 0; }
    uint32_t ModuleReserved0() override { return 0; }
    uint32_t CleanData() override { return 0; }
    void ModuleReserved1(uint32_t, uint32_t) override {}
    bool ModuleReserved2(uint32_t) override { return false; }
    uint32_t HandlePdu(ConfPduData* lpCpd) override;
    uint32_t OnSend(ConfPduData* lpCpd) override;
    uint32_t OnConnect(const QB_UserID* lpPeer, uint32_t ulConn, uint16_t usConnType, uint32_t) override
    { return Record("OnConnect", *lpPeer, ulConn, usConnType), 0; }
    uint32_t OnDisconnect(const QB_UserID* lpPeer, uint32_t ulConn, uint16_t usConnType, uint32_t) override
    { return Record("OnDisconnect", *lpPeer, ulConn, usConnType), 0; }
    void OnTimer(uint32_t ulTick) override { Record("OnTimer", {}, ulTick); }
    uint32_t OnEvent(uint16_t usEvent, uintptr_t a1, uintptr_t a2, uintptr_t, uintptr_t) override;
    bool GetInterface(uint16_t, void** lppOut) override { return *lppOut = nullptr, false; }

private:
    ZV_SimFakeCall& Record(const std::string& sWhat, const QB_UserID& peer = {}, uint32_t ulConn = 0,
                           uint16_t usConnType = 0);
};

// A module API whose managers are fakes.
ZV_SimModuleApi ZV_SimFakeApi();
// The fake behind a node.
ZV_SimFakeModule& FakeOf(const ZV_SimHost* lpNode);
// Journal lines numbered from nFirst at the start time, each text after sPrefix.
std::string JournalLines(size_t nFirst, const std::string& sPrefix, const std::vector<std::string>& vecTexts);

// Made before the conference, so that the nodes' folders have a root.
struct ZV_SimFakeRoot { QB_TempFolder tmp; };

// A conference, of fakes unless another module is given, with a folder per
// node below a fresh root.
class ZV_SimFakeConference : public ZV_SimFakeRoot, public ZV_SimConference
{
public:
    explicit ZV_SimFakeConference(const std::function<void(ZV_SimOptions&)>& fnTune = {},
                                  ZV_SimModuleApi api = ZV_SimFakeApi());

    // The builder's shapes; a node that could not be made fails the test.
    ZV_SimShape OneServerTwoClients();
    ZV_SimShape TwoLinkedServers(int nClientsEach = 2, uint32_t ulConfID = ZV_SimBuilder::kConfID);
};
