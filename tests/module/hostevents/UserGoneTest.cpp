// A user who leaves (host event 4), on one server: a downloader's entry
// rests, and a file whose creator left before its upload was done goes,
// decided by the creator's home server, or here when that server cannot.
#include "ZV_RecordingNode.h"

#include "QB_FaultEnv.h"

#include <filesystem>

namespace {

using Peer = ZV_FileShareSessionPeer;

const QB_UserID kAnn(20001, 0);  // the creator
const QB_UserID kBob(20002, 0);
const QB_UserID kCarol(20003, 0);

struct Row
{
    const char* pszName;
    QB_UserID leaver;
    int nAnnHome;  // 0: the host no longer knows Ann
    bool bHomeLinked;
    uint16_t usFileState;
    bool bUploadDone, bFloodSeen, bRemoved, bDeleteSent, bBobActive;
};

const Row kRows[] = {
    {"creator homed here, upload unfinished", kAnn, 1, false, zvFileStateUploading, false, false, true, true, true},
    {"creator homed here, flood seen", kAnn, 1, false, zvFileStateUploading, false, true, false, true, true},
    {"creator homed here, file complete", kAnn, 1, false, zvFileStateComplete, false, false, false, false, true},
    {"creator homed on a linked server", kAnn, 2, true, zvFileStateUploading, false, false, false, false, true},
    {"creator homed on an unlinked server", kAnn, 2, false, zvFileStateUploading, false, false, true, false, true},
    {"creator the host no longer knows", kAnn, 0, false, zvFileStateStopped, false, false, true, false, true},
    {"a downloader of an unfinished file", kBob, 1, false, zvFileStateUploading, false, false, false, false, false},
    {"a downloader of a stored file", kBob, 1, false, zvFileStateComplete, true, false, false, false, true},
};

ZV_FileDownloadInfo ActiveEntry(const QB_UserID& user)
{
    ZV_FileDownloadInfo entry;
    entry.SetFileID(5);
    entry.SetUserID(user);
    entry.SetActive(true);
    return entry;
}

} // namespace

TEST(UserGone, EachLeaverEndsAsItsRoleAndHomeDecide)
{
    for (uint32_t ulClients : {0u, 1u})
    {
        for (const Row& row : kRows)
        {
            SCOPED_TRACE(ulClients);
            QB_FaultEnv env;
            QB_ScopedEnv scoped(&env);
            ZV_RecordingNode node(true);
            ASSERT_EQ(0u, node.mgr.Initialize());
            node.host.m_ulClientCount = ulClients;
            if (row.nAnnHome != 0)
                node.host.AddUser(kAnn, (uint32_t)row.nAnnHome, "Ann");
            if (row.bHomeLinked)
                node.host.m_setLinkedServer.insert(2);
            ZV_FileBriefInfo brief = ZV_Brief(kAnn, nullptr, 1000, false);
            brief.SetFileState(row.usFileState);
            ZV_FileShareSession& session = ZV_AdoptFile(
                node.mgr, 5, QB_StringA(QB_ToWindowsPath(node.tmp.Sub("store/"))).GetString(), brief, "song.ogg");
            Peer::UploadDone(session) = row.bUploadDone;
            session.SetDownloadInfo(kBob, ActiveEntry(kBob));
            session.SetDownloadInfo(kCarol, ActiveEntry(kCarol));
            ASSERT_TRUE(ZV_FileShareMgrPeer::Catalog(node.mgr).SaveFile(7, Peer::FileInfo(session))) << row.pszName;
            const std::string sStored = node.tmp.Sub("store/7/song.ogg");
            std::filesystem::create_directories(std::filesystem::path(sStored).parent_path());
            QB_WriteWholeFile(sStored, "stored bytes");
            if (row.bFloodSeen)
                node.host.m_setFloodSeen.insert({(uint64_t)kAnn.m_ulMain << 32, node.host.m_ulNextFloodSeq});

            EXPECT_EQ(0u, node.mgr.OnEvent(zvConfEventUserLeave, 0, (uintptr_t)&row.leaver, 0, 0));

            ZV_FileShareSession* lpLeft = ZV_FileShareMgrPeer::Find(node.mgr, 5);
            EXPECT_EQ(!row.bRemoved, lpLeft != nullptr) << row.pszName;
            EXPECT_EQ(!row.bRemoved, std::filesystem::exists(sStored)) << row.pszName;
            EXPECT_EQ(!row.bRemoved, ZV_FileShareMgrPeer::Catalog(node.mgr).HasFile(7, 5)) << row.pszName;
            const auto vecDelete = node.host.SentOf(PDU_CONF_FS_DEL_UPLOAD_REQUEST);
            ASSERT_EQ(row.bDeleteSent ? 1u : 0u, vecDelete.size()) << row.pszName;
            if (row.bDeleteSent)
            {
                EXPECT_EQ("servers", vecDelete[0].sRoute);
                EXPECT_EQ(ZV_Pdu().U16(7).U16(5).User(kAnn).U32(100).b, vecDelete[0].data) << row.pszName;
            }
            // The clients, if any, hear that the file is gone.
            const auto vecGone = node.host.SentOf(PDU_CONF_FS_DEL_UPLOAD_RESPONSE);
            ASSERT_EQ(row.bRemoved && ulClients > 0 ? 1u : 0u, vecGone.size()) << row.pszName;
            EXPECT_TRUE(vecGone.empty() || vecGone[0].sRoute == "group");
            if (lpLeft == nullptr)
                continue;
            ZV_FileDownloadInfo entry;
            ASSERT_TRUE(ZV_FileShareSessionPeer::Downloads(*lpLeft).Lookup(kBob, entry));
            EXPECT_EQ(row.bBobActive, entry.m_bActive) << row.pszName;
            ASSERT_TRUE(ZV_FileShareSessionPeer::Downloads(*lpLeft).Lookup(kCarol, entry));
            EXPECT_TRUE(entry.m_bActive) << row.pszName << ": only the leaver's entry rests";
        }
    }
}
