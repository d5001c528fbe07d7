#include "ZV_SimMachine.h"

#include "ZV_SimHost.h"

ZV_SimMachine::ZV_SimMachine(std::string sName, const QB_UserID& id, bool bServer, uint32_t ulFirstConn)
    : m_sName(std::move(sName)), m_id(id), m_bServer(bServer), m_ulNextConn(ulFirstConn)
{
}

void ZV_SimMachine::SetFileIDRange(uint16_t usMin, uint16_t usMax)
{
    m_usFileIDMin = usMin;
    m_usFileIDMax = usMax;
}

ZV_SimHost* ZV_SimMachine::FindNode(uint32_t ulConfID) const
{
    for (ZV_SimHost* lpNode : m_vecNodes)
        if (lpNode->GetConfID() == ulConfID)
            return lpNode;
    return nullptr;
}

ZV_SimHost* ZV_SimMachine::FindNodeByWord(uint16_t usConfWord) const
{
    for (ZV_SimHost* lpNode : m_vecNodes)
        if ((uint16_t)lpNode->GetConfID() == usConfWord)
            return lpNode;
    return nullptr;
}
