// A manager on a recording host whose home is a fresh folder; a server
// stores below it in "store". PDUs are handed in as from connection 5, whose
// user is the host's local user (Alice). The host may be any recording
// host, a throwing one among them.
#pragma once

#include "ZV_RecordingHost.h"

#include "core/ZV_FileShareMgr.h"

#include "QB_Env.h"
#include "QB_TestSupport.h"

#include <vector>

template <class THost>
struct ZV_BasicNode
{
    QB_TempFolder tmp;
    THost host;
    ZV_FileShareMgr mgr;

    explicit ZV_BasicNode(bool bServer)
    {
        QB_SetEnvironmentVariable("ROOMCRATE_HOME", tmp.Path().c_str());
        if (bServer)
            QB_WriteWholeFile(tmp.Sub("confsrv.ini"), "[FileShare]\r\nPath=" + tmp.Sub("store") + "\r\n");
        host.m_bServer = bServer;
        host.AddUser(host.m_LocalUser, 1, "Alice");
        host.Attach(&mgr);
    }
    ~ZV_BasicNode() { QB_SetEnvironmentVariable("ROOMCRATE_HOME", nullptr); }
    uint32_t Deliver(uint16_t usPdu, uint16_t usConnType, const std::vector<uint8_t>& data)
    {
        return ZV_Deliver(mgr, usPdu, usConnType, data, 5, host.m_LocalUser);
    }
};

using ZV_RecordingNode = ZV_BasicNode<ZV_RecordingHost>;
