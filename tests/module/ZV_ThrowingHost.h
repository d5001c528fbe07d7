// A recording host that throws from its Nth call, of any kind, once: for
// tests that a throw of the host at any point of a road leaves nothing of
// that road behind.
#pragma once

#include "ZV_RecordingHost.h"

#include <stdexcept>

class ZV_ThrowingHost : public ZV_RecordingHost
{
public:
    // The Nth call from now on throws; 0 never.
    void ThrowAt(int nNth)
    {
        m_nThrowAt = nNth;
        m_nCalls = 0;
        m_bThrew = false;
    }
    bool Threw() const { return m_bThrew; }

    uint32_t GetConfID() override { return Tick(), ZV_RecordingHost::GetConfID(); }
    uint32_t GetClientCount() override { return Tick(), ZV_RecordingHost::GetClientCount(); }
    const QB_UserID* GetLocalUserID() override { return Tick(), ZV_RecordingHost::GetLocalUserID(); }
    uint32_t GetLocalServerID() override { return Tick(), ZV_RecordingHost::GetLocalServerID(); }
    bool IsServerMode() override { return Tick(), ZV_RecordingHost::IsServerMode(); }
    bool IsClientMode() override { return Tick(), ZV_RecordingHost::IsClientMode(); }
    bool CanShareFiles(const QB_UserID* lpUser) override { return Tick(), ZV_RecordingHost::CanShareFiles(lpUser); }
    uint16_t GetFileIDMin() override { return Tick(), ZV_RecordingHost::GetFileIDMin(); }
    uint16_t GetFileIDMax() override { return Tick(), ZV_RecordingHost::GetFileIDMax(); }
    uint32_t GetUserConn(const QB_UserID* lpUser, uint16_t usType) override
    {
        return Tick(), ZV_RecordingHost::GetUserConn(lpUser, usType);
    }
    uint32_t GetServerConn(uint32_t ulServer, uint16_t usType, uint32_t ulReserved) override
    {
        return Tick(), ZV_RecordingHost::GetServerConn(ulServer, usType, ulReserved);
    }
    IZV_ConfLink* GetUserLink(const QB_UserID* lpUser) override { return Tick(), ZV_RecordingHost::GetUserLink(lpUser); }
    IZV_ConfLink* GetServerLink() override { return Tick(), ZV_RecordingHost::GetServerLink(); }
    const ZV_ConfUserInfo* GetUser(const QB_UserID* lpUser) override
    {
        return Tick(), ZV_RecordingHost::GetUser(lpUser);
    }
    uint32_t SendPdu(uint32_t ulConn, uint16_t usPdu, const uint8_t* pData, uint32_t ulLen, uint8_t b1,
                     uint8_t b2) override
    {
        return Tick(), ZV_RecordingHost::SendPdu(ulConn, usPdu, pData, ulLen, b1, b2);
    }
    uint32_t SendPduToGroup(uint32_t ulSkip, uint32_t ulReserved, uint16_t usPdu, const uint8_t* pData, uint32_t ulLen,
                            uint8_t b1, uint8_t b2) override
    {
        return Tick(), ZV_RecordingHost::SendPduToGroup(ulSkip, ulReserved, usPdu, pData, ulLen, b1, b2);
    }
    uint32_t SendPduOnLink(uint32_t ulConn, uint16_t usPdu, const uint8_t* pData, uint32_t ulLen, uint8_t b1,
                           uint8_t b2) override
    {
        return Tick(), ZV_RecordingHost::SendPduOnLink(ulConn, usPdu, pData, ulLen, b1, b2);
    }
    uint32_t SendPduToServerData(uint32_t ulServer, uint16_t usType, uint16_t usPdu, const uint8_t* pData,
                                 uint32_t ulLen, uint8_t b1, uint8_t b2) override
    {
        return Tick(), ZV_RecordingHost::SendPduToServerData(ulServer, usType, usPdu, pData, ulLen, b1, b2);
    }
    uint32_t SendPduToServers(uint32_t ulSkip, uint16_t usType, uint16_t usPdu, const uint8_t* pData, uint32_t ulLen,
                              uint8_t b1, uint8_t b2) override
    {
        return Tick(), ZV_RecordingHost::SendPduToServers(ulSkip, usType, usPdu, pData, ulLen, b1, b2);
    }
    bool HasServerLinks() override { return Tick(), ZV_RecordingHost::HasServerLinks(); }
    uint32_t NewFloodSeq(const QB_UserID* lpOrigin, uint32_t ulReserved) override
    {
        return Tick(), ZV_RecordingHost::NewFloodSeq(lpOrigin, ulReserved);
    }
    bool IsFloodSeen(const QB_UserID* lpOrigin, uint32_t ulSeq) override
    {
        return Tick(), ZV_RecordingHost::IsFloodSeen(lpOrigin, ulSeq);
    }
    bool IsResponseFloodSeen(const QB_UserID* lpOrigin, uint32_t ulSeq) override
    {
        return Tick(), ZV_RecordingHost::IsResponseFloodSeen(lpOrigin, ulSeq);
    }
    uint32_t GetConn(uint16_t usType) override { return Tick(), ZV_RecordingHost::GetConn(usType); }
    void OnConfEvent(IZV_ConfHost* lpConf, uint16_t usEvent, uint32_t ulLen, const uint8_t* pData) override
    {
        Tick();
        ZV_RecordingHost::OnConfEvent(lpConf, usEvent, ulLen, pData);
    }

private:
    void Tick()
    {
        if (++m_nCalls != m_nThrowAt)
            return;
        m_bThrew = true;
        throw std::runtime_error("the host fails");
    }
    int m_nThrowAt = 0;
    int m_nCalls = 0;
    bool m_bThrew = false;
};
