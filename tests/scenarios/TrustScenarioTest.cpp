// A hostile server: whatever it sends, a client reads only files its user shared and writes only where he asked.
#include "ZV_SceneFixture.h"

#include "add/ZV_AddPdu.h"
#include "delete/ZV_DeletePdu.h"
#include "download/ZV_DownloadPdu.h"
#include "upload/ZV_UploadPdu.h"

namespace {

struct TrustScene : public ZV_Scene
{
    size_t LogLines(ZV_SimHost* lpClient, const std::string& sLine) const
    {
        return QB_CountInFiles(lpClient->GetHome() + "log/log_error_client.txt", sLine);
    }
    // PDUs a node sent since the journal stood at nFrom (of any number with 0).
    size_t SentSince(ZV_SimHost* lpNode, size_t nFrom, uint16_t usPdu)
    {
        return Find({.eKind = ZV_SimEntryKind::Pdu, .usNumber = usPdu ? std::optional<uint16_t>(usPdu) : std::nullopt,
                     .sNode = lpNode->GetName(), .nFrom = nFrom})
            .size();
    }
    // The server sends Alice the PDU; how many blocks she uploads upon it.
    size_t UploadsUpon(uint16_t usPdu, ZV_PduBuffer& pdu)
    {
        const size_t nMark = sim.Journal().Size();
        SendFromServer(Alice(), usPdu, pdu);
        return SentSince(Alice(), nMark, PDU_CONF_FS_UPLOAD_REQUEST);
    }
    // An 8006 that starts Alice's upload of usFileID at ulPos.
    size_t SendUploadStart(uint16_t usFileID, uint32_t ulPos)
    {
        ZV_PduBuffer pdu;
        ZV_UploadResponse{{{usFileID, 0, usFileID}, Alice()->GetUserID()}, 0, ulPos}.Save(pdu.Stream());
        return UploadsUpon(PDU_CONF_FS_UPLOAD_RESPONSE, pdu);
    }
    // An 8002 that announces `brief` to Alice and starts its upload.
    size_t SendAddAnswer(uint16_t usFileID, const ZV_FileBriefInfo& brief)
    {
        ZV_PduBuffer pdu;
        ZV_AddResponse{{{usFileID, 0, usFileID}, brief.m_CreatorID}, 0, brief, 1}.Save(pdu.Stream());
        return UploadsUpon(PDU_CONF_FS_ADD_RESPONSE, pdu);
    }
};

} // namespace

// In a batch of 8056, a forged file is refused by itself, told (90) and logged, and the rest is taken; an 8006 past
// the end of her shared file is refused the same way.
TEST_F(TrustScene, AClientUploadsOnlyWhatItsUserSharedWhateverTheServerAnnounces)
{
    Build(false, true);
    const uint16_t usShared = Share("shared.bin", ZV_RandomBytes(40000, 1));
    ASSERT_NE(0xFFFF, usShared);
    QB_WriteWholeFile(tmp.Sub("alice/secret.txt"), std::string(5000, 's'));
    const ZV_FileBriefInfo honest = Session(Alice(), usShared)->BriefInfo();
    ZV_AddFilesResponse batch;
    batch.bStartUpload = 1;
    batch.user = Bob()->GetUserID();
    ZV_FileBriefInfo forged = honest, other = honest;
    forged.SetFileOldName(QB_StringU8("secret.txt"));
    other.SetCreatorID(Bob()->GetUserID());
    for (const auto& [usFileID, brief] : {std::pair{950, forged}, std::pair{951, other}})
        batch.arrFileID.Add((uint16_t)usFileID), batch.arrPos.Add(0), batch.arrInfo.Add(brief);
    ZV_PduBuffer pduBatch;
    batch.SaveHead(pduBatch.Stream());
    batch.SaveBody(pduBatch.Stream());
    const size_t nAdded = Events(Alice(), zvFsEventFileAdded).size();
    EXPECT_EQ(0u, UploadsUpon(PDU_CONF_FS_ADD_FILES_RESPONSE, pduBatch));
    const auto vecAdded = Events(Alice(), zvFsEventFileAdded);
    ASSERT_EQ(nAdded + 1, vecAdded.size()) << "the forged file is told by itself";
    const ZV_Bytes& vbTold = vecAdded.back().vbData;
    EXPECT_EQ(ZV_Bytes({0xB8, 0x0B, 90, 0, 0, 0, 0xB6, 0x03}), ZV_Bytes(vbTold.begin(), vbTold.begin() + 8))
        << "3000, result 90, FileID 950";
    EXPECT_EQ(1u, LogLines(Alice(), "ZV_FileShareMgr.HandleAddFilesResponse ret = 90"));
    EXPECT_TRUE(Session(Alice(), 950) == nullptr && Session(Alice(), 951) != nullptr);
    EXPECT_EQ(0u, SendUploadStart(usShared, 40001)) << "a position past the end";
    EXPECT_EQ(zvResultUntrusted, LastResult(Alice(), zvFsEventTransferError));
    EXPECT_EQ(1u, LogLines(Alice(), "ZV_FileShareMgr.HandleUploadResponse ret = 90"));
}

// A share withdrawn, deleted, gone or swapped is read on no road again, nor a file announced as hers that she did
// not share so: a fresh 8002 is refused, told (90) and logged, and an 8006 is refused with 90.
TEST_F(TrustScene, AWithdrawnGoneOrSwappedShareIsNeverReadAgain)
{
    Build(false, true);
    const ZV_Bytes data = ZV_RandomBytes(3000, 3);
    QB_WriteWholeFile(tmp.Sub("alice/secret.txt"), std::string(5000, 's'));
    enum class Change { None, Link, Withdrawn, WithdrawnUnanswered, Deleted, Gone };
    // The announcement names the share as it was, or else szFolder/szFile (nullptr: the share's) of ulLength.
    struct { const char* szName; Change eChange; bool bRefused; bool bSession; const char* szFolder = nullptr;
             const char* szFile = nullptr; uint32_t ulLength = 3000; } aCases[] = {
        {"as shared", Change::None, false, true},
        {"swapped for a link to a copy of the same length and time", Change::Link, true, true},
        {"withdrawn by its user", Change::Withdrawn, true, false},
        {"withdrawn, the delete lost on the way", Change::WithdrawnUnanswered, true, false},
        {"deleted by the server", Change::Deleted, true, false},
        {"gone from the disk, then put back", Change::Gone, true, false},
        {"a file she never shared", Change::None, true, false, "alice", "secret.txt", 5000},
        {"her share with a length of 0xFFFFFFFF", Change::None, true, false, "alice", nullptr, 0xFFFFFFFFu},
        {"her share by a path through ..", Change::None, true, false, "alice/../alice"},
        {"her share by an absolute path elsewhere", Change::None, true, false, "bob"}};
    const std::string kRefused = "ZV_FileShareMgr.HandleAddResponse ret = 90";
    uint16_t usForged = 900;
    int nCase = 0;
    for (const auto& c : aCases)
    {
        const std::string sName = "share" + std::to_string(++nCase) + ".bin";
        const std::string sPath = tmp.Sub("alice/" + sName);
        const uint16_t usFileID = Share(sName, data, false);
        ASSERT_NE(0xFFFF, usFileID) << c.szName;
        ZV_FileBriefInfo brief = Session(Alice(), usFileID)->BriefInfo();
        if (c.szFolder != nullptr)
        {
            brief.SetFilePath(QB_StringU8(QB_ToWindowsPath(tmp.Sub(c.szFolder)) + u"\\"));
            brief.SetFileOldName(QB_StringU8(c.szFile ? c.szFile : sName.c_str())), brief.SetFileLenth(c.ulLength);
        }
        ZV_PduBuffer pduChange;
        switch (c.eChange)
        {
        case Change::None:
            break;
        case Change::Link:
            QB_WriteWholeFile(tmp.Sub("copy.bin"), data);
            std::filesystem::last_write_time(tmp.Sub("copy.bin"), std::filesystem::last_write_time(sPath));
            std::filesystem::remove(sPath);
            std::filesystem::create_symlink(tmp.Sub("copy.bin"), sPath);
            break;
        case Change::Withdrawn:
            EXPECT_EQ(0u, Fs(Alice())->FsDelUpload(usFileID));
            ASSERT_TRUE(sim.Run()) << sim.GetError();
            break;
        case Change::WithdrawnUnanswered:
            EXPECT_EQ(0u, Fs(Alice())->FsDelUpload(usFileID));
            ASSERT_TRUE(sim.Cut(sim.GetClientLink(Alice()), zvConfClientTypeCommand));
            ASSERT_TRUE(sim.Restore(sim.GetClientLink(Alice()), zvConfClientTypeCommand));
            ASSERT_TRUE(sim.Run()) << sim.GetError();
            break;
        case Change::Deleted:
            ZV_DelUploadResponse{{{usFileID, 0, usFileID}, Alice()->GetUserID()}, 7777}.Save(pduChange.Stream());
            SendFromServer(Alice(), PDU_CONF_FS_DEL_UPLOAD_RESPONSE, pduChange);
            break;
        case Change::Gone:
            std::filesystem::remove(sPath);
            SendAddAnswer(++usForged, brief);
            EXPECT_EQ(1u, LogLines(Alice(), "ZV_FileShareMgr.HandleAddResponse ret = 60"));
            QB_WriteWholeFile(sPath, data);
            break;
        }
        const size_t nLogged = LogLines(Alice(), kRefused);
        EXPECT_EQ(c.bRefused, SendAddAnswer(++usForged, brief) == 0) << c.szName;
        EXPECT_EQ(nLogged + (c.bRefused ? 1 : 0), LogLines(Alice(), kRefused)) << c.szName;
        EXPECT_EQ(c.bRefused ? (uint32_t)zvResultUntrusted : 0u,
                  sim.Journal().PdusTo(PDU_CONF_FS_ADD_RESPONSE, Alice()->GetName()).back().ulResult)
            << c.szName << ": as handed back to the host";
        EXPECT_TRUE(c.bSession || LastResult(Alice(), zvFsEventFileAdded) == zvResultUntrusted) << c.szName << ": 3000";
        EXPECT_EQ(c.bSession, Session(Alice(), usForged) != nullptr) << c.szName;
        if (!c.bRefused || !c.bSession)
            continue;
        EXPECT_EQ(0u, SendUploadStart(usForged, 0)) << c.szName << ": 8006";
        EXPECT_EQ(zvResultUntrusted, LastResult(Alice(), zvFsEventTransferError)) << c.szName << ": 8006";
    }
}

// An 8015 makes Bob's client write only the download he asked for, at his path, position and length: unasked
// it is refused and logged; asked but different, he hears 3002 with 90 and the true answer still lands.
TEST_F(TrustScene, AClientWritesOnlyWhereItsUserAskedWhateverTheServerAnswers)
{
    Build(false, true);
    const ZV_Bytes data = ZV_RandomBytes(70000, 2);
    const uint16_t usFileID = Share("shared.bin", data);
    const std::string sVictim = tmp.Sub("bob/.profile");
    for (const char* szFolder : {"bob", "downloads/bob"})
        std::filesystem::create_directories(tmp.Sub(szFolder));
    QB_WriteWholeFile(sVictim, std::string("keep me"));
    std::filesystem::create_symlink(sVictim, tmp.Sub("downloads/bob/link.bin"));
    const std::string sAsked = Target(Bob(), usFileID);
    struct { const char* szName; bool bAsked; std::string sPath; uint32_t ulLength; uint32_t ulPos; } aCases[] = {
        {"unasked, his .profile", false, sVictim, 70000, 0},
        {"unasked, a path through ..", false, tmp.Sub("downloads/bob/../../bob/.profile"), 70000, 0},
        {"unasked, a device", false, "/dev/null", 70000, 0},
        {"unasked, a symbolic link", false, tmp.Sub("downloads/bob/link.bin"), 70000, 0},
        {"unasked, his own path", false, sAsked, 70000, 0},
        {"asked, another path", true, sVictim, 70000, 0},
        {"asked, his path with a position past the end", true, sAsked, 70000, 70001},
        {"asked, his path from another position", true, sAsked, 70000, 5},
        {"asked, his path with a length of 0xFFFFFFFF", true, sAsked, 0xFFFFFFFFu, 0}};
    const QB_UserID bob = Bob()->GetUserID();
    for (const auto& c : aCases)
    {
        SCOPED_TRACE(c.szName);
        std::filesystem::remove(sAsked);
        const size_t nMark = sim.Journal().Size();
        const size_t nLogged = LogLines(Bob(), "ZV_FileShareMgr.HandleDownloadResponse ret = 90");
        const size_t nFinished = Events(Bob(), zvFsEventDownloadFinished).size();
        const QB_StringW sWide = QB_ToWindowsPath(c.sPath);
        const int nCut = sWide.ReverseFind(u'\\') + 1;
        ZV_FileDownloadInfo record;
        record.SetFileID(usFileID), record.SetFilePath(QB_StringU8(sWide.Left(nCut)));
        record.SetFileName(QB_StringU8(sWide.Mid(nCut))), record.SetFileLenth(c.ulLength);
        record.SetDownloadPos(c.ulPos), record.SetUserID(bob);
        ZV_PduBuffer pdu;
        ZV_DownloadResponse{{{usFileID, 0, usFileID}, bob}, record}.Save(pdu.Stream());
        // Bob's request goes first, so the forged answer overtakes the true one.
        EXPECT_TRUE(!c.bAsked || Download(Bob(), usFileID) == 0);
        SendFromServer(Bob(), PDU_CONF_FS_DOWNLOAD_RESPONSE, pdu);
        EXPECT_EQ("keep me", ZV_Text(sVictim));
        EXPECT_EQ(nLogged + 1, LogLines(Bob(), "ZV_FileShareMgr.HandleDownloadResponse ret = 90"));
        EXPECT_EQ(0u, SentSince(Bob(), nMark, PDU_CONF_FS_DEL_DOWNLOAD_REQUEST));
        if (!c.bAsked)
        {
            EXPECT_TRUE(SentSince(Bob(), nMark, 0) == 0 && !std::filesystem::exists(sAsked));
            continue;
        }
        const auto vecStates = Events(Bob(), zvFsEventDownloadState);
        ASSERT_GE(vecStates.size(), 2u);
        EXPECT_TRUE(ZV_ResultOf(vecStates[vecStates.size() - 2]) == zvResultUntrusted && ZV_ResultOf(vecStates.back()) == 0);
        EXPECT_EQ(nFinished + 1, Events(Bob(), zvFsEventDownloadFinished).size());
        EXPECT_EQ(data, QB_ReadWholeFile(sAsked));
    }
}

// A download failed at any step and asked again to a new path ends whole there or fails: never the first's bytes.
TEST_F(TrustScene, ADownloadAskedAgainToANewPathAfterAFailureEndsThereOrNowhere)
{
    Build(false, true);
    const ZV_Bytes data = ZV_RandomBytes(100000, 3);
    const QB_EnvOp aOps[] = {QB_EnvOp::Open, QB_EnvOp::Read, QB_EnvOp::Write, QB_EnvOp::Seek, QB_EnvOp::SetEnd,
                             QB_EnvOp::MakeFolder};
    int nRound = 0;
    int nFailedFirst = 0;
    for (QB_EnvOp op : aOps)
        for (int nNth = 1; nNth <= 4; ++nNth)
        {
            const uint16_t usFileID = Share("f" + std::to_string(++nRound) + ".bin", data);
            const std::string sFirst = tmp.Sub("first/" + std::to_string(nRound) + ".bin");
            const std::string sSecond = tmp.Sub("second/" + std::to_string(nRound) + ".bin");
            sim.GetEnv().FailAt(op, nNth);
            ASSERT_TRUE(Fs(Bob())->FsDownload(usFileID, ZV_Wide(sFirst).c_str()) == 0 && sim.AdvanceTime(100));
            sim.GetEnv().ClearFaults();
            nFailedFirst += QB_ReadWholeFile(sFirst) != data;
            const size_t nFinished = Events(Bob(), zvFsEventDownloadFinished).size();
            ASSERT_TRUE(Fs(Bob())->FsDownload(usFileID, ZV_Wide(sSecond).c_str()) == 0 && sim.AdvanceTime(100));
            const bool bToldFinished = Events(Bob(), zvFsEventDownloadFinished).size() > nFinished;
            EXPECT_EQ(bToldFinished, QB_ReadWholeFile(sSecond) == data) << (int)op << " #" << nNth;
            EXPECT_TRUE(bToldFinished || LastResult(Bob(), zvFsEventDownloadState) != 0) << (int)op << " #" << nNth;
        }
    EXPECT_GT(nFailedFirst, 6) << "the faults hit the download road";
}

// Folders (links too) standing when Bob asked are followed; a link made after the ask is refused with 90.
TEST_F(TrustScene, ADownloadFollowsNoLinkPutBelowTheFoldersThatStoodWhenAsked)
{
    Build(false, true);
    const ZV_Bytes data = ZV_RandomBytes(5000, 4);
    const uint16_t usFileID = Share("shared.bin", data);
    for (const char* szFolder : {"downloads/bob", "elsewhere"})
        std::filesystem::create_directories(tmp.Sub(szFolder));
    std::filesystem::create_symlink(tmp.Sub("elsewhere"), tmp.Sub("downloads/bob/his"));
    QB_WriteWholeFile(tmp.Sub("elsewhere/victim.bin"), std::string("keep me"));
    // Below downloads/bob: the target and what becomes a link after the ask; below elsewhere: where bytes would land.
    struct { const char* szName; const char* szTarget; const char* szLinkAfterAsk; const char* szLanding;
          uint32_t ulResult; } aCases[] = {
        {"a folder it makes", "made/x.bin", "made", "x.bin", zvResultUntrusted},
        {"a folder two down", "made2/deep/x.bin", "made2", "deep/x.bin", zvResultUntrusted},
        {"the file itself", "x3.bin", "x3.bin", "victim.bin", zvResultUntrusted},
        {"a link that stood when asked", "his/x4.bin", nullptr, "x4.bin", 0},
        {"a folder it makes below that link", "his/new/x5.bin", nullptr, "new/x5.bin", 0},
    };
    for (const auto& c : aCases)
    {
        const std::string sTarget = tmp.Sub(std::string("downloads/bob/") + c.szTarget);
        EXPECT_EQ(0u, Fs(Bob())->FsDownload(usFileID, ZV_Wide(sTarget).c_str())) << c.szName;
        const std::string sLink = c.szLinkAfterAsk == nullptr ? "" : c.szLinkAfterAsk;
        if (!sLink.empty())
            std::filesystem::create_symlink(tmp.Sub(sLink == "x3.bin" ? "elsewhere/victim.bin" : "elsewhere"),
                                            tmp.Sub("downloads/bob/" + sLink));
        ASSERT_TRUE(sim.Run()) << sim.GetError();
        const auto vecStates = Events(Bob(), zvFsEventDownloadState);
        ASSERT_FALSE(vecStates.empty()) << c.szName;
        EXPECT_EQ(c.ulResult, ZV_ResultOf(vecStates.back())) << c.szName;
        const std::string sLanding = tmp.Sub(std::string("elsewhere/") + c.szLanding);
        if (c.ulResult == 0)
            EXPECT_EQ(data, QB_ReadWholeFile(sLanding)) << c.szName;
        else if (std::string(c.szLanding) == "victim.bin")
            EXPECT_EQ("keep me", ZV_Text(sLanding)) << c.szName;
        else
            EXPECT_FALSE(std::filesystem::exists(sLanding)) << c.szName;
    }
}
