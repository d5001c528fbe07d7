// Adding a file on one manager with a recording host: the exact bytes of
// 8001 and 8002, the stored names, and where hostile names land.
#include "download/ZV_DownloadPdu.h"
#include "records/ZV_FileCatalog.h"
#include "ZV_RecordingNode.h"

#include "QB_FaultEnv.h"

#include <filesystem>

namespace fs = std::filesystem;

namespace {

Bytes Head(const Bytes& data, size_t n)
{
    return Bytes(data.begin(), data.begin() + (long)std::min(n, data.size()));
}

using Node = ZV_RecordingNode;

Bytes AddRequest(uint16_t usFileID, const QB_StringU8& sName)
{
    return ZV_AddAsk(usFileID, QB_UserID(10001, 0), ZV_Brief(QB_UserID(10001, 0), sName.GetString(), 0));
}

} // namespace

TEST(AddFile, ClientSendsItsRequestWithTheFileInWindowsForm)
{
    Node node(false);
    const std::string sPath = node.tmp.Sub("report.doc");
    QB_WriteWholeFile(sPath, "12345");
    const std::u16string sWide(sPath.begin(), sPath.end());
    QB_DateTimeEx dtBefore, dtAfter;
    dtBefore.SetToNow();
    ASSERT_EQ(0u, node.mgr.FsAdd(sWide.c_str(), nullptr, 0, 1, 1));
    dtAfter.SetToNow();

    ASSERT_EQ(1u, node.host.m_vecSent.size());
    const ZV_SentPdu& sent = node.host.m_vecSent[0];
    EXPECT_TRUE(sent.sRoute == "link" && sent.ulConn == 11u && sent.usPdu == PDU_CONF_FS_ADD_REQUEST);
    EXPECT_EQ((Bytes{0xff, 0xff, 0x11, 0x27, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}), Head(sent.data, 14));
    EXPECT_EQ(1, sent.data.back());
    const auto ask = ZV_Parse<ZV_AddRequest>(sent.data);
    EXPECT_EQ(QB_StringU8(node.tmp.PathW()), ask.brief.m_sFilePath);
    EXPECT_EQ(QB_StringU8("report.doc"), ask.brief.m_sFileOldName);
    EXPECT_EQ(QB_StringU8("Alice"), ask.brief.m_sCreatorName);
    EXPECT_EQ(QB_StringU8("doc"), ask.brief.m_sFileType);
    EXPECT_EQ(5u, ask.brief.m_ulFileLenth);
    EXPECT_EQ(0u, ask.brief.m_ullMask & ZV_BRIEF_RIGHT) << "a public file carries no rights";
    EXPECT_TRUE(ask.brief.IsSameLocalFile());
    const QB_StringA sShared = ask.brief.m_dtShareTime.ToText(2);
    EXPECT_TRUE(sShared == dtBefore.ToText(2) || sShared == dtAfter.ToText(2)) << "shared now: " << sShared.GetString();
}

// A linked server's add is never refused, not even when the disk refuses
// its stored file and its row (here the last's): the timer makes both.
TEST(AddFile, KeepsEveryHostileNameInsideTheConferenceFolder)
{
    Node node(true);
    ASSERT_EQ(0u, node.mgr.Initialize());
    const QB_StringU8 aNames[] = {"..\\..\\evil.txt", "../../evil.txt", "C:\\evil.txt", "", "..", ".", " ",
                                  "a/b\\c:d", QB_StringU8(std::string(1024, 'x').c_str()),
                                  QB_StringU8((std::string(1000, 'y') + "/../z.doc").c_str()), "report.doc", "report.doc"};
    uint16_t usFileID = 1;
    QB_FaultEnv env;
    QB_ScopedEnv scoped{&env};
    for (const QB_StringU8& sName : aNames)
    {
        if (usFileID == std::size(aNames))
            env.FailAt(QB_EnvOp::Open, 1, true);
        ASSERT_EQ(0u, node.Deliver(PDU_CONF_FS_ADD_REQUEST, zvConfServerTypeCommand, AddRequest(usFileID++, sName)));
    }
    env.ClearFaults();
    node.mgr.OnTimer(2);
    ZV_FileCatalog disk;
    ZV_FileUploadInfo row;
    QB_StringW sSection;
    EXPECT_TRUE(disk.Open() == zvCatalogOpened && disk.LoadFile(7, 12, row, sSection)) << "the timer writes the row";

    size_t nStored = 0;
    for (const auto& entry : fs::recursive_directory_iterator(node.tmp.Path()))
    {
        const std::string sRel = fs::relative(entry.path(), node.tmp.Path()).string();
        if (entry.is_directory() || sRel == "confsrv.ini" || sRel.rfind("fsinfo.ini", 0) == 0 ||
            sRel.rfind("log/", 0) == 0)
            continue;
        EXPECT_EQ(node.tmp.Sub("store/7"), entry.path().parent_path().string()) << sRel;
        ++nStored;
    }
    EXPECT_EQ(std::size(aNames), nStored);
    EXPECT_TRUE(fs::exists(node.tmp.Sub("store/7/report(1).doc"))) << "a name already stored is counted";
    // The shared name travels on as the user gave it.
    const auto vecAnswer = node.host.SentOf(PDU_CONF_FS_ADD_RESPONSE);
    ASSERT_EQ(std::size(aNames), vecAnswer.size());
    EXPECT_EQ(aNames[0], ZV_Parse<ZV_AddResponse>(vecAnswer[0].data).brief.m_sFileOldName);
    // Every stored name is one the catalogue will delete at the end.
    EXPECT_EQ(0u, node.mgr.CleanData());
    EXPECT_TRUE(fs::is_empty(node.tmp.Sub("store/7")));
}

// Cut at a whole character to 245 UTF-8 bytes (a surrogate half counts 3), an
// extension of up to 16 units kept; no Windows device name, no trailing dot or blank.
TEST(AddFile, StoresANameCutAtAWholeCharacterAndNoneThatWindowsWouldTakeOtherwise)
{
    std::u16string sPairs;
    for (int i = 0; i < 50; ++i)
        sPairs += u"\xD800\xDC00";
    const std::u16string sExt = u".eeeeeeeeeeeeeee";
    const struct { std::u16string sName; std::u16string sStored; } aCases[] = {
        {std::u16string(300, u'a') + sExt, std::u16string(228, u'a') + sExt},
        {std::u16string(300, u'a') + u".ffffffffffffffff", std::u16string(244, u'a')},
        {sPairs, sPairs.substr(0, 80)},
        {std::u16string(100, u'\u0800'), std::u16string(81, u'\u0800')},  // the first unit of three bytes
        {u"CON", u"_CON"},           {u"nul.txt", u"_nul.txt"},     {u"Com1.tar.gz", u"_Com1.tar.gz"},
        {u"lpt9", u"_lpt9"},         {u"AUX .doc", u"_AUX .doc"},   {u"prn", u"_prn"},
        {u"COM\u00b9", u"_COM\u00b9"},
        {u"trail. ", u"trail__"},    {u"dots...", u"dots.__"},      {u" ", u"__"},
        {u"CONSOLE", u"CONSOLE"},    {u"COM0", u"COM0"},            {u"LPT10.txt", u"LPT10.txt"},
        {u"xcon", u"xcon"},          {u"con_x.txt", u"con_x.txt"},  {u"a.b c", u"a.b c"},
    };
    for (const auto& c : aCases)
    {
        const QB_StringW sStored = ZV_FileShareSessionPeer::MakeStoredFileName(
            QB_StringW(u"C:\\s\\"), QB_StringW(c.sName.data(), (int)c.sName.size()));
        EXPECT_EQ(c.sStored, std::u16string(sStored.GetString(), (size_t)sStored.GetLength())) << &c - aCases;
    }
}

// The answer and the flood name the creator as the host names the link's user.
TEST(AddFile, TheCreatorIsNamedAsTheHostNamesTheLinksUser)
{
    for (bool bBatch : {false, true})
        for (const char* szClaimed : {"The Administrator", (const char*)nullptr, "Alice"})
        {
            SCOPED_TRACE(std::string(bBatch ? "8055 " : "8001 ") + (szClaimed ? szClaimed : "(none)"));
            Node node(true);
            node.host.m_bHasServerLinks = true;
            ASSERT_EQ(0u, node.mgr.Initialize());
            ZV_FileBriefInfo brief = ZV_Brief(node.host.m_LocalUser, "a.txt", 0);
            if (szClaimed != nullptr)
                brief.SetCreatorName(QB_StringU8(szClaimed));
            const uint16_t usAsk = bBatch ? PDU_CONF_FS_ADD_FILES_REQUEST : PDU_CONF_FS_ADD_REQUEST;
            node.Deliver(usAsk, zvConfClientTypeCommand,
                         bBatch ? ZV_AddFilesAsk(node.host.m_LocalUser, {{ZV_NO_FILEID, brief}})
                                : ZV_AddAsk(ZV_NO_FILEID, node.host.m_LocalUser, brief));
            ASSERT_EQ(1u, node.host.SentOf(usAsk).size());
            ASSERT_EQ(1u, node.host.SentOf(bBatch ? PDU_CONF_FS_ADD_FILES_RESPONSE : PDU_CONF_FS_ADD_RESPONSE).size());
            std::vector<QB_StringU8> vecNamed;  // in the answer, then in the flood
            if (bBatch)
                for (const auto& list : {ZV_SentAs<ZV_AddFilesResponse>(node.host, PDU_CONF_FS_ADD_FILES_RESPONSE)[0].arrInfo,
                                         ZV_SentAs<ZV_AddFilesRequest>(node.host, PDU_CONF_FS_ADD_FILES_REQUEST, 2)[0].arrInfo})
                    for (int i = 0; i < list.GetSize(); ++i)
                        vecNamed.push_back(list[i].m_sCreatorName);
            else
                for (const auto& sent : {ZV_SentAs<ZV_AddResponse>(node.host, PDU_CONF_FS_ADD_RESPONSE)[0].brief,
                                         ZV_SentAs<ZV_AddRequest>(node.host, PDU_CONF_FS_ADD_REQUEST, 2)[0].brief})
                    vecNamed.push_back(sent.m_sCreatorName);
            EXPECT_EQ(std::vector<QB_StringU8>(2, QB_StringU8("Alice")), vecNamed);
        }
}

namespace {

// The name of the one file a request carries (a batch of one is its last
// piece), or "" without a request.
QB_StringW SharedName(const ZV_RecordingHost& host)
{
    for (const ZV_SentPdu& sent : host.m_vecSent)
    {
        if (sent.usPdu == PDU_CONF_FS_ADD_REQUEST)
            return QB_StringW(ZV_Parse<ZV_AddRequest>(sent.data).brief.m_sFileOldName);
        if (sent.usPdu == PDU_CONF_FS_ADD_FILES_REQUEST)
        {
            const auto ask = ZV_Parse<ZV_AddFilesRequest>(sent.data);
            return ask.arrInfo.GetSize() == 1 && ask.bLast == 1 ? QB_StringW(ask.arrInfo[0].m_sFileOldName) : QB_StringW(u"?");
        }
    }
    return QB_StringW();
}

// A name of "x"s ending in ".txt" that makes folder, backslash and name
// nLength characters long.
std::u16string PaddedName(const std::u16string& sFolder, size_t nLength)
{
    return std::u16string(nLength - sFolder.size() - 1 - 4, u'x') + u".txt";
}

} // namespace

// A path the records, the catalogue or the creator's later upload could not
// hold is refused with 60 before anything goes out.
TEST(AddFile, RefusesBeforeSendingAPathTheRecordsOrTheCatalogueCannotHold)
{
    Node node(false);
    const QB_StringW sTmpW = node.tmp.PathW();
    const std::u16string sTmp(sTmpW.View().substr(0, (size_t)sTmpW.GetLength() - 1));
    const std::u16string sWideFolder = sTmp + u"\\\u4E2D";
    const struct { const char* szRow; bool bBatch; std::u16string sFolder; std::u16string sName; uint32_t ulResult;
                   } aRows[] = {
        {"a full path of 259 characters", false, sTmp, PaddedName(sTmp, 259), 0},
        {"a full path of 260 characters", false, sTmp, PaddedName(sTmp, 260), zvResultCannotOpen},
        {"a full path of 261 characters", false, sTmp, PaddedName(sTmp, 261), zvResultCannotOpen},
        {"a batch's path of 259 characters", true, sTmp, PaddedName(sTmp, 259), 0},
        {"a batch's path of 260 characters", true, sTmp, PaddedName(sTmp, 260), zvResultCannotOpen},
        {"Windows-1252 letters beyond ASCII", false, sTmp, u"caf\u00E9 \u20AC.txt", 0},
        {"a character outside the BMP", false, sTmp, u"smile\U0001F600.txt", zvResultCannotOpen},
        {"a batch name outside the BMP", true, sTmp, u"smile\U0001F600.txt", zvResultCannotOpen},
        {"a lone surrogate, whose file is found as U+FFFD", false, sTmp, u"lone\xD800.txt", zvResultCannotOpen},
        {"a name outside Windows-1252", false, sTmp, u"\u4E2D.txt", zvResultCannotOpen},
        {"a folder outside Windows-1252", false, sWideFolder, u"a.txt", zvResultCannotOpen},
        {"a batch's folder outside Windows-1252", true, sWideFolder, u"a.txt", 0},
        {"a folder and no name", false, sTmp, u"", zvResultCannotOpen},
        {"a batch name with a backslash", true, sTmp, u"sub\\b.txt", zvResultCannotOpen},
        {"a batch name with a slash", true, sTmp, u"sub/b.txt", zvResultCannotOpen},
        {"a batch name that starts with a backslash", true, sTmp, u"\\c.txt", zvResultCannotOpen},
        {"a batch name that starts with a slash", true, sTmp, u"/d.txt", zvResultCannotOpen},
        {"an empty batch name", true, sTmp, u"", zvResultCannotOpen},
    };
    for (const auto& row : aRows)
    {
        const std::u16string sPath = row.sFolder + u"\\" + row.sName;
        const fs::path onDisk = QB_PathToSystem(sPath);
        fs::create_directories(onDisk.parent_path());
        if (!row.sName.empty())
            QB_WriteWholeFile(onDisk.string(), "abc");
        node.host.m_vecSent.clear();
        const char16_t* pszName = row.sName.c_str();
        const uint32_t ulResult = row.bBatch ? node.mgr.FsFilesAdd(row.sFolder.c_str(), &pszName, 1, nullptr, 0, 1, 0)
                                             : node.mgr.FsAdd(sPath.c_str(), nullptr, 0, 1, 0);
        EXPECT_EQ(row.ulResult, ulResult) << row.szRow;
        EXPECT_EQ(row.ulResult == 0 ? 1u : 0u, node.host.m_vecSent.size()) << row.szRow;
        EXPECT_EQ(row.ulResult == 0 ? QB_StringW(row.sName.c_str()) : QB_StringW(), SharedName(node.host))
            << row.szRow;
    }
}

// The count starts at 13 + 33 and a description adds its bound plus 6: 64 of
// 1014 and one of 528 make 65470 and stay; one of 529 would reach 65471.
TEST(AddFile, ABatchAnswerIsCutBeforeTheDescriptionThatWouldFillTheBuffer)
{
    using Pieces = std::vector<std::pair<int, int>>;
    const std::pair<size_t, Pieces> aCases[] = {{494, {{65, 0}, {1, 1}}}, {495, {{64, 0}, {2, 1}}}};
    for (const auto& [nFolder, expected] : aCases)
    {
        Node node(true);
        // A host that names nobody leaves the descriptions as they came.
        node.host.AddUser(node.host.m_LocalUser, 1, nullptr);
        ASSERT_EQ(0u, node.mgr.Initialize());
        std::vector<size_t> vecFolder(64, 980);
        vecFolder.push_back(nFolder);
        vecFolder.push_back(1);
        std::vector<std::pair<uint16_t, ZV_FileBriefInfo>> vecFiles(vecFolder.size(), {ZV_NO_FILEID, {}});
        for (size_t i = 0; i < vecFolder.size(); ++i)
        {
            ZV_FileBriefInfo& brief = vecFiles[i].second;
            brief.SetCreatorID(node.host.m_LocalUser);
            brief.SetFilePath(QB_StringU8(std::string(vecFolder[i], 'p').c_str()));
            brief.SetFileOldName(QB_StringU8((std::to_string(100 + i) + ".txt").c_str()));
        }
        node.Deliver(PDU_CONF_FS_ADD_FILES_REQUEST, zvConfClientTypeCommand, ZV_AddFilesAsk(node.host.m_LocalUser, vecFiles));

        Pieces vecPiece;
        for (const auto& part : ZV_SentAs<ZV_AddFilesResponse>(node.host, PDU_CONF_FS_ADD_FILES_RESPONSE))
        {
            EXPECT_EQ(0u, part.ulResult);
            vecPiece.push_back({part.arrInfo.GetSize(), part.bLast});
        }
        EXPECT_EQ(expected, vecPiece) << nFolder;
    }
}

// A client's batch is refused to the asker, a linked server's to every client
// with the FileIDs it gave; neither goes further.
TEST(AddFile, ABatchWhoseFolderCannotBeMadeIsRefusedWith60AndGoesNoFurther)
{
    Node node(true);
    ASSERT_EQ(0u, node.mgr.Initialize());
    node.host.m_bHasServerLinks = true;
    QB_FaultEnv env;
    QB_ScopedEnv scoped{&env};
    env.FailAt(QB_EnvOp::MakeFolder, 1, true);
    struct { uint16_t usConnType; uint16_t usFileID; const char* szRoute; } aCases[] = {
        {zvConfClientTypeCommand, ZV_NO_FILEID, "link"}, {zvConfServerTypeCommand, 7, "group"}};
    for (const auto& c : aCases)
    {
        node.host.m_vecSent.clear();
        node.Deliver(PDU_CONF_FS_ADD_FILES_REQUEST, c.usConnType,
                     ZV_AddFilesAsk(node.host.m_LocalUser, {{c.usFileID, ZV_Brief(node.host.m_LocalUser, "a.txt", 0, false)}}));
        ASSERT_EQ(1u, node.host.m_vecSent.size()) << c.szRoute;
        EXPECT_TRUE(node.host.m_vecSent[0].sRoute == c.szRoute &&
                    node.host.m_vecSent[0].usPdu == PDU_CONF_FS_ADD_FILES_RESPONSE) << c.szRoute;
        const auto answer = ZV_Parse<ZV_AddFilesResponse>(node.host.m_vecSent[0].data);
        EXPECT_EQ(zvResultCannotOpen, answer.ulResult);
        EXPECT_TRUE(answer.arrFileID.GetSize() == 1 && answer.arrFileID[0] == c.usFileID);
        EXPECT_EQ(0, ZV_FileShareMgrPeer::Sessions(node.mgr).GetCount());
    }
}

TEST(AddFile, ALinkedServersBatchIsFetchedFileByFileAndAThrowTakesBackOnlyWhatItMade)
{
    Node node(true);
    ASSERT_EQ(0u, node.mgr.Initialize());
    auto Batch = [&](std::vector<uint16_t> vecFileID) {
        std::vector<std::pair<uint16_t, ZV_FileBriefInfo>> vecFiles;
        for (uint16_t usFileID : vecFileID)
            vecFiles.push_back({usFileID, ZV_Brief(node.host.m_LocalUser, (std::to_string(usFileID) + ".txt").c_str(), 0)});
        node.Deliver(PDU_CONF_FS_ADD_FILES_REQUEST, zvConfServerTypeCommand, ZV_AddFilesAsk(node.host.m_LocalUser, vecFiles));
    };
    Batch({7, 8});
    const auto vecFetch = node.host.SentOf(PDU_CONF_FS_DOWNLOAD_REQUEST);
    ASSERT_EQ(2u, vecFetch.size());
    for (size_t i = 0; i < vecFetch.size(); ++i)
    {
        EXPECT_TRUE(vecFetch[i].sRoute == "link" && vecFetch[i].ulConn == 5u);
        const auto ask = ZV_Parse<ZV_DownloadAsk>(vecFetch[i].data);
        EXPECT_EQ(std::make_tuple(7 + i, 0u, 1, 0), std::make_tuple((size_t)ask.usFileID, ask.ulPos, (int)ask.bFromServer, (int)ask.bFlooded));
    }
    const auto vecTold = ZV_SentAs<ZV_AddFilesResponse>(node.host, PDU_CONF_FS_ADD_FILES_RESPONSE);
    ASSERT_EQ(1u, vecTold.size());
    EXPECT_EQ("group", node.host.SentOf(PDU_CONF_FS_ADD_FILES_RESPONSE)[0].sRoute);
    ASSERT_EQ(2, vecTold[0].arrPos.GetSize());
    EXPECT_EQ(2, vecTold[0].arrFileID.GetSize());
    EXPECT_EQ(0u, vecTold[0].arrPos[0] + vecTold[0].arrPos[1]);
    EXPECT_EQ(1, vecTold[0].bLast);

    ZV_FileShareSession* lpBefore = nullptr;
    ZV_FileShareMgrPeer::Sessions(node.mgr).Lookup(8, lpBefore);
    node.host.m_fnOnSend = [](uint16_t usPdu) {
        if (usPdu == PDU_CONF_FS_DOWNLOAD_REQUEST)
            throw std::runtime_error("host gone");
    };
    Batch({9, 8});
    ZV_FileShareSession* lpAfter = nullptr;
    EXPECT_FALSE(ZV_FileShareMgrPeer::Sessions(node.mgr).Lookup(9, lpAfter));
    ASSERT_TRUE(ZV_FileShareMgrPeer::Sessions(node.mgr).Lookup(8, lpAfter));
    EXPECT_EQ(lpBefore, lpAfter);
}
