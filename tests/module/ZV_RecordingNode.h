// A manager on a recording host whose home is a fresh folder; a server
// stores below it in "store". PDUs are handed in as from connection 5, whose
// user is the host's local user (Alice). The host may be any recording
// host, a throwing one among them.
#pragma once

#include "ZV_RecordingHost.h"

#include "add/ZV_AddPdu.h"
#include "core/ZV_FileShareMgr.h"
#include "core/ZV_FileShareSession.h"
#include "download/ZV_DownloadPdu.h"
#include "ZV_FileShareMgrPeer.h"
#include "ZV_FileShareSessionPeer.h"
#include "ZV_PayloadCheck.h"

#include "QB_Env.h"
#include "QB_TestSupport.h"

#include <gtest/gtest.h>

#include <functional>
#include <vector>

// A file shared by creator: its name (none if null), length and public flag.
inline ZV_FileBriefInfo ZV_Brief(const QB_UserID& creator, const char* szName, uint32_t ulLength, bool bPublic = true)
{
    ZV_FileBriefInfo brief;
    brief.SetCreatorID(creator);
    if (szName != nullptr)
        brief.SetFileOldName(QB_StringU8(szName));
    brief.SetFileLenth(ulLength);
    brief.SetPublic(bPublic);
    return brief;
}

// 8001 in user's name for brief.
inline std::vector<uint8_t> ZV_AddAsk(uint16_t usFileID, const QB_UserID& user, const ZV_FileBriefInfo& brief,
                                      uint32_t ulFloodSeq = 0)
{
    return ZV_SavePayload(ZV_AddRequest{{usFileID, user, ulFloodSeq}, brief, 0});
}

// 8055 in user's name: each description beside its FileID (ZV_NO_FILEID: one to be given).
inline std::vector<uint8_t> ZV_AddFilesAsk(const QB_UserID& user,
                                           const std::vector<std::pair<uint16_t, ZV_FileBriefInfo>>& vecFiles)
{
    ZV_AddFilesRequest ask;
    ask.user = user;
    for (const auto& file : vecFiles)
    {
        ask.arrFileID.Add(file.first);
        ask.arrInfo.Add(file.second);
    }
    return ZV_SavePayload(ask);
}

// A payload read back as a T, past nSkip leading bytes (a flood's conference word).
template <class T>
T ZV_Parse(const std::vector<uint8_t>& data, int nSkip = 0)
{
    QB_ByteStream stream(data.data(), (int32_t)data.size());
    stream.Skip(nSkip);
    T value;
    value.Load(stream);
    return value;
}

// The payloads of all PDUs sent, or of all events raised, end to end.
template <class T>
std::vector<uint8_t> ZV_Joined(const std::vector<T>& vec)
{
    std::vector<uint8_t> all;
    for (const auto& item : vec)
        all.insert(all.end(), item.data.begin(), item.data.end());
    return all;
}

// The payloads of every PDU of a kind the host sent, in order.
inline std::vector<std::vector<uint8_t>> ZV_SentData(const ZV_RecordingHost& host, uint16_t usPdu)
{
    std::vector<std::vector<uint8_t>> vec;
    for (const ZV_SentPdu& sent : host.SentOf(usPdu))
        vec.push_back(sent.data);
    return vec;
}

// The one PDU of a kind the host sent: its connection and payload, or
// {zvConnNone, {}} unless exactly one went.
inline std::pair<uint32_t, std::vector<uint8_t>> ZV_OnlySent(const ZV_RecordingHost& host, uint16_t usPdu)
{
    const auto vec = host.SentOf(usPdu);
    return vec.size() == 1 ? std::make_pair(vec[0].ulConn, vec[0].data)
                           : std::make_pair((uint32_t)zvConnNone, std::vector<uint8_t>());
}

// Every PDU of a kind the host sent, read back as a T past nSkip bytes.
template <class T>
std::vector<T> ZV_SentAs(const ZV_RecordingHost& host, uint16_t usPdu, int nSkip = 0)
{
    std::vector<T> vec;
    for (const ZV_SentPdu& sent : host.SentOf(usPdu))
        vec.push_back(ZV_Parse<T>(sent.data, nSkip));
    return vec;
}

// Every piece of a list sent, each within the buffer and holding nothing
// its reader would drop.
template <class TList>
std::vector<TList> ZV_Pieces(const ZV_RecordingHost& host, uint16_t usPdu)
{
    std::vector<TList> vecParts;
    for (const std::vector<uint8_t>& data : ZV_SentData(host, usPdu))
    {
        vecParts.push_back(ZV_Parse<TList>(data));
        EXPECT_LE(data.size(), (size_t)QB_PDU_BUFFER_SIZE);
        EXPECT_EQ(data, ZV_SavePayload(vecParts.back()));
    }
    return vecParts;
}

// The records of the 8012s the host sent, in order; of one file if given.
inline std::vector<ZV_FileDownloadInfo> ZV_DataAsks(const ZV_RecordingHost& host, uint16_t usFileID = ZV_NO_FILEID)
{
    std::vector<ZV_FileDownloadInfo> vec;
    for (const ZV_DownloadDataRequest& ask : ZV_SentAs<ZV_DownloadDataRequest>(host, PDU_CONF_FS_DOWNLOAD_DATA_REQUEST))
        if (usFileID == ZV_NO_FILEID || ask.usFileID == usFileID)
            vec.push_back(ask.record);
    return vec;
}

// A file usFileID the manager holds under szRoot: its description, and its
// stored name in the record.
inline ZV_FileShareSession& ZV_AdoptFile(ZV_FileShareMgr& mgr, uint16_t usFileID, const char* szRoot,
                                         const ZV_FileBriefInfo& brief, const char* szStored)
{
    using Peer = ZV_FileShareSessionPeer;
    ZV_FileShareSession& session = ZV_FileShareMgrPeer::Adopt(mgr, usFileID, szRoot);
    Peer::FileID(session) = usFileID;
    Peer::BriefInfo(session) = brief;
    Peer::FileInfo(session).SetFileID(usFileID);
    Peer::FileInfo(session).SetFileNewName(QB_StringU8(szStored));
    Peer::FileInfo(session).SetBriefInfo(brief);
    return session;
}

// Name lengths, up to what a record may hold, whose entries fill the buffer
// behind a head of ulHead bytes to the byte, as the sender counts them.
inline std::vector<int> ZV_NamesThatFill(uint32_t ulHead, const std::function<uint32_t(int)>& fnSize)
{
    std::vector<uint32_t> vecSize(1025);
    for (int n = 1; n <= 1024; ++n)
        vecSize[(size_t)n] = fnSize(n);
    std::vector<int> vecName;
    uint32_t ulSize = ulHead;
    while ((uint32_t)QB_PDU_BUFFER_SIZE - ulSize > 2 * vecSize[1024])
    {
        vecName.push_back(1000);
        ulSize += vecSize[1000];
    }
    const uint32_t ulRest = (uint32_t)QB_PDU_BUFFER_SIZE - ulSize;
    for (int a = 1; a <= 1024; ++a)
        for (int b = 1; b < 1024; ++b)
            if (vecSize[(size_t)a] + vecSize[(size_t)b] == ulRest)
            {
                vecName.push_back(a);
                vecName.push_back(b);
                return vecName;
            }
    ADD_FAILURE() << "no two names fill the rest of " << ulRest;
    return vecName;
}

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
