// ZV_SimLink: a link between two machines, made of a command connection and
// a data connection that come and go separately. A client link joins a
// client to its server in one conference (types 0 and 4); a server link
// joins two server machines and carries every conference they share (types
// 0x1000 and 0x1004). Each end numbers its connections itself, and a
// connection that comes back gets new numbers.
#pragma once

#include "IZV_FileShare.h"
#include "ZV_HostNode.h"

#include <cstdint>

class ZV_SimMachine;

enum
{
    zvSimCommand = zvHostCommand,
    zvSimData = zvHostData,
};

struct ZV_SimLinkEnd;

class ZV_SimLink
{
public:
    // ulConfID 0 makes a server link. Side 0 is lpA, side 1 is lpB; a client
    // link has the client on side 0. Both connections start down.
    ZV_SimLink(uint32_t ulID, ZV_SimMachine* lpA, ZV_SimMachine* lpB, uint32_t ulConfID);
    ZV_SimLink(const ZV_SimLink&) = delete;
    ZV_SimLink& operator=(const ZV_SimLink&) = delete;

    uint32_t GetID() const { return m_ulID; }
    bool IsServerLink() const { return m_ulConfID == 0; }
    uint32_t GetConfID() const { return m_ulConfID; }
    ZV_SimMachine* GetMachine(int nSide) const { return m_alpMachine[nSide]; }
    // 0 or 1, or -1 for a machine that is not on this link.
    int SideOf(const ZV_SimMachine* lpMachine) const;
    // Who sits at the other end, as seen from nSide.
    const QB_UserID& PeerOf(int nSide) const;

    uint16_t GetConnType(int nChannel) const;
    // zvSimCommand or zvSimData for a type of this link's kind, else -1.
    int ChannelOf(uint16_t usConnType) const;

    bool IsUp(int nChannel) const { return m_aConn[nChannel].bUp; }
    // The number nSide knows the connection by; zvConnNone while it is down.
    uint32_t GetConn(int nSide, int nChannel) const;
    // The channel that nSide numbers ulConn, or -1.
    int FindChannel(int nSide, uint32_t ulConn) const;

    // Up with fresh numbers from both machines; false if it was up already.
    bool Open(int nChannel);
    bool Close(int nChannel);

    // What GetUserLink and GetServerLink hand to the module of nSide.
    IZV_ConfLink* GetEnd(int nSide) { return &m_aEnd[nSide]; }
    // The link as the node of nSide keeps it, and back.
    ZV_HostLink* GetHostEnd(int nSide) { return &m_aEnd[nSide]; }
    static ZV_SimLinkEnd EndOf(ZV_HostLink* lpHostEnd);

private:
    class End final : public IZV_ConfLink, public ZV_HostLink
    {
    public:
        ZV_SimLink* m_lpLink = nullptr;
        int m_nSide = 0;

        uint32_t LinkReserved0() override { return 0; }
        uint32_t GetConn(uint16_t usConnType) override;
        bool IsServerLink() const override { return m_lpLink->IsServerLink(); }
        const QB_UserID& GetPeer() const override { return m_lpLink->PeerOf(m_nSide); }
        uint32_t ConnOn(int nChannel) const override { return m_lpLink->GetConn(m_nSide, nChannel); }
        IZV_ConfLink* GetFace() override { return this; }
    };

    struct Conn
    {
        bool bUp = false;
        uint32_t aulNumber[2] = {zvConnNone, zvConnNone};
    };

    uint32_t m_ulID;
    uint32_t m_ulConfID;
    ZV_SimMachine* m_alpMachine[2];
    Conn m_aConn[2];
    End m_aEnd[2];
};

// A link as one of its ends sees it.
struct ZV_SimLinkEnd
{
    ZV_SimLink* lpLink = nullptr;
    int nSide = 0;

    explicit operator bool() const { return lpLink != nullptr; }
    uint32_t GetConn(int nChannel) const { return lpLink->GetConn(nSide, nChannel); }
};
