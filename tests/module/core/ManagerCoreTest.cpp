// The manager on its own, against a host that records what it sends:
// FileIDs, calls without a host, and the exports that make it.
#include "core/ZV_FileShareMgr.h"
#include "core/ZV_ManagerRegistry.h"
#include "ZV_FileShareMgrPeer.h"
#include "core/ZV_FileShareSession.h"
#include "ZV_RecordingNode.h"
#include "ZV_ResultText.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

TEST(FileIDAllocation, GivesFreeIDsOfTheRangeFromTheNextOneOnWrappingOnceThenNoneOnceTheMapHoldsAsManyAsTheRange)
{
    const struct { const char* szName; uint16_t usMin, usMax, usNext; std::vector<uint16_t> vecTaken, vecExpected;
                   } aCases[] = {
        {"a single ID", 42, 42, 42, {}, {42, 0xFFFF}},
        {"wraps and skips taken IDs", 10, 14, 15, {10, 12}, {11, 13, 14, 0xFFFF}},
        // The next ID as constructed, before the range is known, and IDs
        // learnt from a server with another range: they count towards a
        // full map, so two numbers of the range stay unused.
        {"outside the range", 1001, 1004, 1, {5, 6}, {1001, 1002, 0xFFFF}},
    };
    for (const auto& c : aCases)
    {
        ZV_RecordingHost host;
        ZV_FileShareMgr mgr;
        host.Attach(&mgr);
        host.m_usFileIDMin = c.usMin;
        host.m_usFileIDMax = c.usMax;
        ZV_FileShareMgrPeer::NextFileID(mgr) = c.usNext;
        for (uint16_t usFileID : c.vecTaken)
            ZV_FileShareMgrPeer::Adopt(mgr, usFileID, "");
        std::vector<uint16_t> vecGiven;
        for (size_t i = 0; i < c.vecExpected.size(); ++i)
            vecGiven.push_back(ZV_FileShareMgrPeer::AllocFileID(mgr));
        EXPECT_EQ(c.vecExpected, vecGiven) << c.szName;
    }
}

// Every user-side call, and the host's own: before the host gave the manager
// its conference 32, never an assertion or a null host. Then on a FileID
// known nowhere 82 (dropping a download never known is no failure), on one
// an add holds reserved 83, and with the command link down 16 for each call
// that needs the server, except FsUpload, whose start marker waits for the
// link, and a look-up.
TEST(UserCalls, GiveTheirCodeWithoutAHostOnAnUnknownOrReservedFileAndWithoutACommandLink)
{
    ZV_RecordingNode node(false);
    ZV_FileShareMgr& mgr = node.mgr;
    QB_WriteWholeFile(node.tmp.Sub("mine.bin"), "abc");
    ZV_FileBriefInfo brief = ZV_Brief(node.host.m_LocalUser, "mine.bin", 3, false);
    brief.SetFilePath(node.tmp.SubW(""));
    ZV_AdoptFile(mgr, 6, "", brief, "mine.bin");
    ZV_FileShareMgrPeer::Ledger(mgr).Remember(node.host.m_ulConfID, brief, {});
    const QB_StringW sPath = node.tmp.SubW("mine.bin"), sTarget = node.tmp.SubW("got.bin");
    const QB_StringW sFolder = node.tmp.PathW().Left(node.tmp.PathW().GetLength() - 1);
    const char16_t* apNames[] = {u"mine.bin"};
    ZV_FsFileInfo info{};
    const uint32_t kAdd = 0xFFFFFFFF;  // an add names no FileID
    const struct { const char* szName; std::function<uint32_t(uint16_t)> fn; uint32_t ulUnknown, ulUnlinked; } aCalls[] = {
        {"FsAdd", [&](uint16_t) { return mgr.FsAdd(sPath.GetString(), nullptr, 0, 1, 0); }, kAdd, 16},
        {"FsFilesAdd", [&](uint16_t) { return mgr.FsFilesAdd(sFolder.GetString(), apNames, 1, nullptr, 0, 1, 0); }, kAdd, 16},
        {"FsDownload", [&](uint16_t usID) { return mgr.FsDownload(usID, sTarget.GetString()); }, 82, 16},
        {"FsStopDownload", [&](uint16_t usID) { return mgr.FsStopDownload(usID); }, 82, 16},
        {"FsResumeDownload", [&](uint16_t usID) { return mgr.FsResumeDownload(usID); }, 82, 16},
        {"FsStopUpload", [&](uint16_t usID) { return mgr.FsStopUpload(usID); }, 82, 16},
        {"FsResumeUpload", [&](uint16_t usID) { return mgr.FsResumeUpload(usID); }, 82, 16},
        {"FsUpload", [&](uint16_t usID) { return mgr.FsUpload(usID); }, 82, 0},
        {"FsSetRight", [&](uint16_t usID) { return mgr.FsSetRight(usID, 1, nullptr, 0, nullptr, 0); }, 82, 16},
        {"FsSetFilesRight", [&](uint16_t usID) { return mgr.FsSetFilesRight(&usID, 1, 1, nullptr, 0, nullptr, 0); }, 82, 16},
        {"FsDelDownload", [&](uint16_t usID) { return mgr.FsDelDownload(usID, 0); }, 0, 16},
        {"FsDelUpload", [&](uint16_t usID) { return mgr.FsDelUpload(usID); }, 82, 16},
        {"FsGetFileInfoByFileID", [&](uint16_t usID) { return mgr.FsGetFileInfoByFileID(usID, &info); }, 82, 0},
    };
    const uint8_t abPayload[] = {6, 0, 0, 0};
    ConfPduData cpd{};
    cpd.usPdu = PDU_CONF_FS_UPLOAD_REQUEST;
    cpd.ulLen = sizeof(abPayload);
    cpd.pData = abPayload;
    const QB_UserID peer(1, 2);
    const std::vector<std::pair<const char*, std::function<uint32_t()>>> aHostCalls = {
        {"Initialize", [&] { return mgr.Initialize(); }},
        {"CleanData", [&] { return mgr.CleanData(); }},
        {"HandlePdu", [&] { return mgr.HandlePdu(&cpd); }},
        {"OnConnect", [&] { return mgr.OnConnect(&peer, 1, zvConfClientTypeCommand, 0); }},
        {"OnDisconnect", [&] { return mgr.OnDisconnect(&peer, 1, zvConfClientTypeCommand, 0); }},
        {"OnEvent", [&] { return mgr.OnEvent(4, 0, (uintptr_t)&peer, 0, 0); }},
        {"OnTimer", [&] { return mgr.OnTimer(5), zvResultNoHost; }},
    };
    mgr.m_lpConf = nullptr;
    for (const auto& call : aCalls)
        EXPECT_EQ(zvResultNoHost, call.fn(6)) << call.szName;
    for (const auto& [szName, fnCall] : aHostCalls)
        EXPECT_EQ(zvResultNoHost, fnCall()) << szName;
    node.host.Attach(&mgr);
    ZV_FileShareMgrPeer::Sessions(mgr).SetAt(7, nullptr);
    for (const auto& call : aCalls)
    {
        EXPECT_EQ(call.ulUnknown, call.ulUnknown == kAdd ? kAdd : call.fn(0x4321)) << call.szName;
        EXPECT_EQ(call.ulUnknown == kAdd ? kAdd : zvResultReservedFile, call.ulUnknown == kAdd ? kAdd : call.fn(7))
            << call.szName;
    }
    EXPECT_TRUE(node.host.m_vecSent.empty());
    node.host.m_ulCmdConn = zvConnNone;
    for (const auto& call : aCalls)
        EXPECT_EQ(call.ulUnlinked, call.fn(6)) << call.szName;
    for (const ZV_SentPdu& sent : node.host.m_vecSent)
        EXPECT_TRUE(sent.usPdu == PDU_CONF_FS_UPLOAD_REQUEST || sent.usPdu == PDU_CONF_FS_KICK) << sent.usPdu;
}

// A file is described as announced; an unknown one leaves the record alone.
// A server may announce texts of up to 1024 bytes, while the fields hold 256
// and 260 units with their NUL: a longer text is cut at a whole character.
TEST(UserCalls, DescribeAKnownFileAndCutATextLongerThanItsFieldAtAWholeCharacterInsideIt)
{
    ZV_RecordingNode node(false);
    auto Field = [](const char16_t* szField, size_t nSize) {
        const char16_t* pEnd = std::char_traits<char16_t>::find(szField, nSize, u'\0');
        return pEnd == nullptr ? std::u16string(szField, nSize) + u"<no NUL>" : std::u16string(szField, pEnd);
    };
    const QB_UserID bob(10002, 0);
    const std::u16string sPair = u"\U0001F600";
    const struct { const char* szName; std::u16string sCreator; std::u16string sExpected; } aCases[] = {
        {"a short name", u"Bob", u"Bob"},
        {"fills the field", std::u16string(255, u'n'), std::u16string(255, u'n')},
        {"one unit over", std::u16string(256, u'n'), std::u16string(255, u'n')},
        {"a pair across the end", std::u16string(254, u'n') + sPair, std::u16string(254, u'n')},
        {"a pair that just fits", std::u16string(253, u'n') + sPair, std::u16string(253, u'n') + sPair},
        {"far over", std::u16string(500, u'n'), std::u16string(255, u'n')},
    };
    uint16_t usFileID = 800;
    for (const auto& c : aCases)
    {
        ++usFileID;
        ZV_AddResponse answer{{{usFileID, 0, usFileID}, bob}, 0, ZV_Brief(bob, "report.pdf", 4321)};
        answer.brief.SetFileType(QB_StringU8("pdf"));
        answer.brief.SetCreatorName(QB_StringU8(QB_StringW(c.sCreator.c_str())));
        answer.brief.SetFilePath(QB_StringU8("C:\\after\\"));
        node.Deliver(PDU_CONF_FS_ADD_RESPONSE, zvConfClientTypeCommand, ZV_SavePayload(answer));
        ZV_FsFileInfo info;
        std::memset(&info, 0xEE, sizeof info);
        ASSERT_EQ(0u, node.mgr.FsGetFileInfoByFileID(usFileID, &info)) << c.szName;
        EXPECT_TRUE(Field(info.szCreatorName, 256) == c.sExpected) << c.szName;
        EXPECT_TRUE(Field(info.szFilePath, 260) == u"C:\\after\\" && Field(info.szFileOldName, 260) == u"report.pdf" &&
                    Field(info.szFileType, 260) == u"pdf") << c.szName;
        EXPECT_TRUE(QB_UserID(info.ulCreatorMain, info.ulCreatorSub) == bob && info.ulFileLenth == 4321u);
        ZV_FsFileInfo other = info;
        EXPECT_EQ(82u, node.mgr.FsGetFileInfoByFileID(999, &other));
        EXPECT_EQ(0, std::memcmp(&info, &other, sizeof other));
    }
}

TEST(Exports, MakeAManagerOnlyForTheExactInterfaceNameAndHandItsUserSideForTypeFour)
{
    const char* const aszWrong[] = {
        "IZV_FileShareMgr 1.0 ", "IZV_FileShareMgr 1.1", "IZV_FileShareMgr", "", "izv_filesharemgr 1.0",
        "JZV_FileShareMgr 1.0",
    };
    const int nBefore = g_listFileShareMgr.GetCount();
    for (const char* szName : aszWrong)
        EXPECT_EQ(nullptr, zvCreateInstance(szName)) << '"' << szName << '"';
    EXPECT_EQ(nullptr, zvCreateInstance(nullptr));
    EXPECT_EQ(nBefore, g_listFileShareMgr.GetCount());

    IZV_ConfModule* lpModule = zvCreateInstance("IZV_FileShareMgr 1.0");
    ASSERT_NE(nullptr, lpModule);
    EXPECT_EQ(4, lpModule->GetModuleType());
    EXPECT_EQ(4, lpModule->m_usModuleType);
    EXPECT_EQ(nullptr, lpModule->m_lpConf);
    EXPECT_EQ(nBefore + 1, g_listFileShareMgr.GetCount());
    void* lpFace = reinterpret_cast<void*>(1);
    EXPECT_FALSE(lpModule->GetInterface(5, &lpFace));
    EXPECT_EQ(nullptr, lpFace);
    ASSERT_TRUE(lpModule->GetInterface(4, &lpFace));
    EXPECT_NE(nullptr, lpFace);
    zvDestroyInstance(lpModule);
    EXPECT_EQ(nBefore, g_listFileShareMgr.GetCount());
}

TEST(ResultText, SaysEveryCodeOfTheModuleInWordsOfItsOwn)
{
    const uint32_t aulCodes[] = {0, 1, 5, 6, 16, 32, 33, 40, 56, 60, 61, 62, 82, 83, 88, 90};
    const std::string sUnnamed = zvResultText(2);
    std::set<std::string> setTexts;
    for (uint32_t ulCode : aulCodes)
    {
        const std::string sText = zvResultText(ulCode);
        EXPECT_NE(sUnnamed, sText) << ulCode;
        EXPECT_TRUE(setTexts.insert(sText).second) << ulCode << " shares its words: " << sText;
    }
    EXPECT_EQ(sUnnamed, zvResultText(0xFFFFFFFFu));
}
