// The five ways a manager sends, and the host's memory of floods.
//
// SendPdu and SendPduToGroup carry the payload as it is. The three server
// routes carry it with the conference word in front, which the receiving
// host takes off to find the conference (ZV_SimNetwork::FindReceiver).
// Every send copies the payload before it returns.
#include "ZV_SimConference.h"
#include "ZV_SimHost.h"

namespace {

int ServerChannelOf(uint16_t usConnType)
{
    if (usConnType == zvConfServerTypeCommand)
        return zvSimCommand;
    return usConnType == zvConfServerTypeData ? zvSimData : -1;
}

}  // namespace

ZV_SimSend ZV_SimHost::MakeSend(ZV_SimRoute eRoute, uint16_t usPdu, const uint8_t* pData, uint32_t ulLen,
                                uint8_t bFlag1, uint8_t bFlag2)
{
    ZV_SimSend send;
    send.lpFrom = this;
    send.eRoute = eRoute;
    send.usPdu = usPdu;
    send.pData = pData;
    send.ulLen = ulLen;
    send.bFlag1 = bFlag1;
    send.bFlag2 = bFlag2;
    return send;
}

uint32_t ZV_SimHost::SendOn(ZV_SimSend send, ZV_SimLinkEnd end, int nChannel)
{
    send.end = end;
    send.nChannel = nChannel;
    send.ulConn = end.GetConn(nChannel);
    return Net().Send(send);
}

uint32_t ZV_SimHost::SendPdu(uint32_t ulConn, uint16_t usPdu, const uint8_t* pData, uint32_t ulLen, uint8_t bFlag1,
                             uint8_t bFlag2)
{
    ZV_SimSend send = MakeSend(ZV_SimRoute::Pdu, usPdu, pData, ulLen, bFlag1, bFlag2);
    send.ulConn = ulConn;
    int nChannel = -1;
    ZV_SimLinkEnd end = FindConn(ulConn, &nChannel);
    return end ? SendOn(send, end, nChannel) : Net().Refuse(send);
}

uint32_t ZV_SimHost::SendPduToGroup(uint32_t ulSkipConn, uint32_t ulReserved, uint16_t usPdu, const uint8_t* pData,
                                    uint32_t ulLen, uint8_t bFlag1, uint8_t bFlag2)
{
    ZV_SimSend send = MakeSend(ZV_SimRoute::Group, usPdu, pData, ulLen, bFlag1, bFlag2);
    if (!IsServer())
        return Net().Refuse(send);
    uint32_t ulResult = 0;
    for (const ZV_SimLinkEnd& end : Links())
    {
        bool bClient = !end.lpLink->IsServerLink() && end.lpLink->IsUp(zvSimCommand);
        if (bClient && end.GetConn(zvSimCommand) != ulSkipConn && SendOn(send, end, zvSimCommand) != 0)
            ulResult = zvSimSendRefused;
    }
    return ulResult;
}

uint32_t ZV_SimHost::SendPduOnLink(uint32_t ulConn, uint16_t usPdu, const uint8_t* pData, uint32_t ulLen,
                                   uint8_t bFlag1, uint8_t bFlag2)
{
    ZV_SimSend send = MakeSend(ZV_SimRoute::OnLink, usPdu, pData, ulLen, bFlag1, bFlag2);
    send.ulConn = ulConn;
    int nChannel = -1;
    ZV_SimLinkEnd end = FindConn(ulConn, &nChannel);
    if (!end || !end.lpLink->IsServerLink())
        return Net().Refuse(send);
    return SendOn(send, end, nChannel);
}

uint32_t ZV_SimHost::SendPduToServerData(uint32_t ulServerMain, uint16_t usConnType, uint16_t usPdu,
                                         const uint8_t* pData, uint32_t ulLen, uint8_t bFlag1, uint8_t bFlag2)
{
    ZV_SimSend send = MakeSend(ZV_SimRoute::ServerData, usPdu, pData, ulLen, bFlag1, bFlag2);
    send.usConnType = usConnType;
    ZV_SimLinkEnd end = FindServerLinkTo(ulServerMain);
    int nChannel = ServerChannelOf(usConnType);
    if (!end || nChannel < 0)
        return Net().Refuse(send);
    return SendOn(send, end, nChannel);
}

uint32_t ZV_SimHost::SendPduToServers(uint32_t ulSkipConn, uint16_t usConnType, uint16_t usPdu, const uint8_t* pData,
                                      uint32_t ulLen, uint8_t bFlag1, uint8_t bFlag2)
{
    ZV_SimSend send = MakeSend(ZV_SimRoute::Servers, usPdu, pData, ulLen, bFlag1, bFlag2);
    send.usConnType = usConnType;
    int nChannel = ServerChannelOf(usConnType);
    if (!IsServer() || nChannel < 0)
        return Net().Refuse(send);
    uint32_t ulResult = 0;
    for (const ZV_SimLinkEnd& end : Links())
    {
        bool bServer = end.lpLink->IsServerLink() && end.lpLink->IsUp(nChannel);
        if (bServer && end.GetConn(nChannel) != ulSkipConn && SendOn(send, end, nChannel) != 0)
            ulResult = zvSimSendRefused;
    }
    return ulResult;
}

uint32_t ZV_SimHost::NewFloodSeq(const QB_UserID* lpOrigin, uint32_t ulReserved)
{
    return m_lpWorld->NewFloodSeq();
}

// An origin the module could not name counts as QB_UserID(0, 0), so that a
// broken request is still remembered rather than acted on twice.
bool ZV_SimHost::FirstSight(std::set<FloodKey>& setSeen, const QB_UserID* lpOrigin, uint32_t ulFloodSeq)
{
    QB_UserID idOrigin = lpOrigin ? *lpOrigin : QB_UserID();
    return setSeen.insert(FloodKey(idOrigin.m_ulMain, idOrigin.m_ulSub, ulFloodSeq)).second;
}

bool ZV_SimHost::IsFloodSeen(const QB_UserID* lpOrigin, uint32_t ulFloodSeq)
{
    return !FirstSight(m_setFloodSeen, lpOrigin, ulFloodSeq);
}

bool ZV_SimHost::IsResponseFloodSeen(const QB_UserID* lpOrigin, uint32_t ulFloodSeq)
{
    return !FirstSight(m_setResponseFloodSeen, lpOrigin, ulFloodSeq);
}
