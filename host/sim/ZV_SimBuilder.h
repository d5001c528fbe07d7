// ZV_SimBuilder: the usual conference shapes in one call each, with numbers
// that read well in a trace. Servers are 1 and 2 with FileIDs 1-1000 and
// 1001-2000; the users of server 1 are 10001, 10002, ..., those of server 2
// 20001, 20002, ...; every user may share. Nothing has been delivered yet
// when a builder returns: the caller runs the conference.
#pragma once

#include "ZV_SimConference.h"

#include <vector>

struct ZV_SimShape
{
    std::vector<ZV_SimHost*> vecServers;
    std::vector<ZV_SimHost*> vecClients;

    // False when a node could not be made; the simulation's GetError says why.
    bool IsComplete() const;
    ZV_SimHost* Server(size_t nIndex = 0) const { return vecServers.at(nIndex); }
    ZV_SimHost* Client(size_t nIndex) const { return vecClients.at(nIndex); }
};

class ZV_SimBuilder
{
public:
    static constexpr uint32_t kConfID = 100;

    // Server 1 with Alice (10001) and Bob (10002).
    static ZV_SimShape OneServerTwoClients(ZV_SimConference& sim, uint32_t ulConfID = kConfID);
    // Servers 1 and 2, linked, each with nClientsEach users. With the
    // default two: Alice and Bob on server 1, Carol and Dave on server 2.
    static ZV_SimShape TwoLinkedServers(ZV_SimConference& sim, uint32_t ulConfID = kConfID, int nClientsEach = 2);

    // Servers 1 to nServers linked in a line, 1-2, 2-3 and so on, each with
    // nClientsEach users; with one each, Alice, Carol and Erin on servers
    // 1, 2 and 3.
    static ZV_SimShape ServersInALine(ZV_SimConference& sim, int nServers, int nClientsEach = 1,
                                      uint32_t ulConfID = kConfID);

    // The n-th user (from 0) of a server, as the shapes make them.
    static ZV_SimUser MakeUser(uint32_t ulServerID, int nIndex);
};
