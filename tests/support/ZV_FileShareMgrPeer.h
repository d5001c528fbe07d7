// The tests' one way into a manager's private state, so that a change of
// that state moves this file, not the tests.
#pragma once

#include "ZV_FileShareMgr.h"

class ZV_FileShareMgrPeer
{
public:
    static ZV_SessionMap& Sessions(ZV_FileShareMgr& mgr) { return mgr.m_mapSession; }
    static QB_Array<uint16_t>& BusyFileIDs(ZV_FileShareMgr& mgr) { return mgr.m_arrBusyFileID; }
    static char& DataLink(ZV_FileShareMgr& mgr) { return mgr.m_cDataLink; }
    static uint16_t& NextFileID(ZV_FileShareMgr& mgr) { return mgr.m_usNextFileID; }
};
