// ZV_SimMachine: one computer of the simulation. A server machine runs one
// node (a manager) for each conference it hosts and shares its server links
// among them; a client machine runs the node of one user. Each machine
// numbers its own connections.
#pragma once

#include "QB_UserID.h"

#include <string>
#include <vector>

class ZV_SimHost;

class ZV_SimMachine
{
public:
    // A server names itself QB_UserID(server id, 0), a client by its user.
    ZV_SimMachine(std::string sName, const QB_UserID& id, bool bServer, uint32_t ulFirstConn);

    const std::string& GetName() const { return m_sName; }
    const QB_UserID& GetID() const { return m_id; }
    bool IsServer() const { return m_bServer; }
    uint32_t GetServerID() const { return m_bServer ? m_id.m_ulMain : 0; }

    void SetFileIDRange(uint16_t usMin, uint16_t usMax);
    uint16_t GetFileIDMin() const { return m_usFileIDMin; }
    uint16_t GetFileIDMax() const { return m_usFileIDMax; }

    // A number no connection of this machine had before.
    uint32_t NewConn() { return m_ulNextConn++; }

    void AddNode(ZV_SimHost* lpNode) { m_vecNodes.push_back(lpNode); }
    const std::vector<ZV_SimHost*>& GetNodes() const { return m_vecNodes; }
    ZV_SimHost* FindNode(uint32_t ulConfID) const;
    // What the receiving host does with the conference word of a PDU.
    ZV_SimHost* FindNodeByWord(uint16_t usConfWord) const;

private:
    std::string m_sName;
    QB_UserID m_id;
    bool m_bServer;
    uint16_t m_usFileIDMin = 1;
    uint16_t m_usFileIDMax = 1000;
    uint32_t m_ulNextConn;
    std::vector<ZV_SimHost*> m_vecNodes;
};
