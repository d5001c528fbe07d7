// The user side's calls: what each gives without a link or for an unknown
// file, and how a file is described.
#include "ZV_SceneFixture.h"
#include "wire/ZV_RecordStream.h"
#include "add/ZV_AddPdu.h"
#include "wire/ZV_PduFrame.h"

#include <functional>
#include <cstring>
#include <string>

using UserCallScene = ZV_Scene;

TEST_F(UserCallScene, EachCallSaysWhyItCannotGoAndSendsNothing)
{
    Build();
    std::filesystem::create_directories(Alice()->GetHome() + "log");
    const uint16_t usFileID = Share("mine.bin", {1, 2, 3}, false);
    const std::u16string sPath = ZV_Wide(tmp.Sub("alice/mine.bin"));
    const std::u16string sFolder = ZV_Wide(tmp.Sub("alice"));
    const char16_t* apNames[] = {u"mine.bin"};
    const std::u16string sTarget = ZV_Wide(tmp.Sub("got.bin"));
    IZV_FileShareMgr* lpFs = Fs(Alice());
    // ulUnlinked: with the command link down
    struct Call { const char* szName; std::function<uint32_t(uint16_t)> fn; uint32_t ulUnlinked; };
    const Call aCalls[] = {
        {"FsAdd", [&](uint16_t) { return lpFs->FsAdd(sPath.c_str(), nullptr, 0, 1, 0); }, zvResultNoConnection},
        {"FsFilesAdd", [&](uint16_t) { return lpFs->FsFilesAdd(sFolder.c_str(), apNames, 1, nullptr, 0, 1, 0); },
         zvResultNoConnection},
        {"FsDownload", [&](uint16_t usID) { return lpFs->FsDownload(usID, sTarget.c_str()); }, zvResultNoConnection},
        {"FsStopDownload", [&](uint16_t usID) { return lpFs->FsStopDownload(usID); }, zvResultNoConnection},
        {"FsResumeDownload", [&](uint16_t usID) { return lpFs->FsResumeDownload(usID); }, zvResultNoConnection},
        {"FsStopUpload", [&](uint16_t usID) { return lpFs->FsStopUpload(usID); }, zvResultNoConnection},
        {"FsResumeUpload", [&](uint16_t usID) { return lpFs->FsResumeUpload(usID); }, zvResultNoConnection},
        // The start marker waits for the link; the call itself succeeds.
        {"FsUpload", [&](uint16_t usID) { return lpFs->FsUpload(usID); }, zvResultOk},
        {"FsSetRight", [&](uint16_t usID) { return lpFs->FsSetRight(usID, 1, nullptr, 0, nullptr, 0); },
         zvResultNoConnection},
        {"FsSetFilesRight",
         [&](uint16_t usID) { return lpFs->FsSetFilesRight(&usID, 1, 1, nullptr, 0, nullptr, 0); }, zvResultNoConnection},
        {"FsDelDownload", [&](uint16_t usID) { return lpFs->FsDelDownload(usID, 0); }, zvResultNoConnection},
        {"FsDelUpload", [&](uint16_t usID) { return lpFs->FsDelUpload(usID); }, zvResultNoConnection},
        // What the client holds of a file needs no link.
        {"FsGetFileInfoByFileID", [&](uint16_t usID) { ZV_FsFileInfo info{}; return lpFs->FsGetFileInfoByFileID(usID, &info); },
         zvResultOk},
    };
    ZV_SimFilter fromAlice{.eKind = ZV_SimEntryKind::Pdu, .sNode = Alice()->GetName(), .nFrom = sim.Journal().Size()};
    // A FileID known nowhere: 82, but dropping a download never known is no failure.
    for (const Call& call : aCalls)
    {
        const std::string sName = call.szName;
        if (sName.find("Add") == std::string::npos)
        {
            EXPECT_EQ(sName == "FsDelDownload" ? zvResultOk : zvResultUnknownFile, call.fn(0x4321)) << sName;
        }
    }
    EXPECT_TRUE(sim.Journal().Find(fromAlice).empty());
    EXPECT_EQ(1u, QB_CountInFiles(Alice()->GetHome() + "log/log_error_client.txt", "ZV_FileShareMgr.FsUpload ret = 82"));

    ASSERT_TRUE(sim.Cut(sim.GetClientLink(Alice()), zvConfClientTypeCommand));
    fromAlice.nFrom = sim.Journal().Size();
    for (const Call& call : aCalls)
        EXPECT_EQ(call.ulUnlinked, call.fn(usFileID)) << call.szName;
    ASSERT_TRUE(sim.Run()) << sim.GetError();
    for (const ZV_SimEntry& entry : sim.Journal().Find(fromAlice))
        EXPECT_TRUE(entry.usNumber == PDU_CONF_FS_UPLOAD_REQUEST || entry.usNumber == PDU_CONF_FS_KICK)
            << entry.usNumber << ": only FsUpload's start marker and kick are tried";
}

// FsGetFileInfoByFileID through the simulator: a known file's description as
// the client holds it, and texts longer than their field cut at a whole
// character without a write past the field, whatever a server announced.
namespace {

std::u16string FieldText(const char16_t* szField, size_t nSize)
{
    const char16_t* pEnd = std::char_traits<char16_t>::find(szField, nSize, u'\0');
    return pEnd == nullptr ? std::u16string(szField, nSize) + u"<no NUL>" : std::u16string(szField, pEnd);
}

} // namespace

using LookupScene = ZV_Scene;

// A shared file is described as its creator shared it; an unknown one
// leaves the record alone. A server may announce texts of up to 1024 bytes,
// while the fields hold 256 and 260 units with their NUL.
TEST_F(LookupScene, DescribesAKnownFileAndCutsATextLongerThanItsFieldAtAWholeCharacterInsideIt)
{
    Build(false);
    const uint16_t usShared = Share("report.pdf", ZV_RandomBytes(4321, 31));
    ZV_FsFileInfo info;
    std::memset(&info, 0xEE, sizeof info);
    ASSERT_EQ(0u, Fs(Bob())->FsGetFileInfoByFileID(usShared, &info));
    EXPECT_EQ(Alice()->GetUserID(), QB_UserID(info.ulCreatorMain, info.ulCreatorSub));
    EXPECT_TRUE(FieldText(info.szFileOldName, 260) == u"report.pdf");
    EXPECT_TRUE(FieldText(info.szFileType, 260) == u"pdf");
    EXPECT_TRUE(FieldText(info.szFilePath, 260) == ZV_Wide(tmp.Sub("alice")) + u"\\");
    EXPECT_EQ(4321u, info.ulFileLenth);
    ZV_FsFileInfo other = info;
    EXPECT_EQ(82u, Fs(Bob())->FsGetFileInfoByFileID(999, &other));
    EXPECT_EQ(0, std::memcmp(&info, &other, sizeof other));

    const std::u16string sPair = u"\U0001F600";
    const struct { const char* szName; std::u16string sCreator; std::u16string sExpected; } aCases[] = {
        {"fills the field", std::u16string(255, u'n'), std::u16string(255, u'n')},
        {"one unit over", std::u16string(256, u'n'), std::u16string(255, u'n')},
        {"a pair across the end", std::u16string(254, u'n') + sPair, std::u16string(254, u'n')},
        {"a pair that just fits", std::u16string(253, u'n') + sPair, std::u16string(253, u'n') + sPair},
        {"far over", std::u16string(500, u'n'), std::u16string(255, u'n')},
    };
    uint16_t usFileID = 800;
    for (const auto& c : aCases)
    {
        ZV_AddResponse answer;
        answer.usRouteID = answer.usFileID = ++usFileID;
        answer.user = Alice()->GetUserID();
        answer.brief.SetCreatorID(answer.user);
        answer.brief.SetCreatorName(QB_StringU8(QB_StringW(c.sCreator.c_str())));
        answer.brief.SetFilePath(QB_StringU8("C:\\after\\"));
        answer.brief.SetPublic(true);
        ZV_PduBuffer pdu;
        answer.Save(pdu.Stream());
        SendFromServer(Bob(), PDU_CONF_FS_ADD_RESPONSE, pdu);

        std::memset(&info, 0xEE, sizeof info);
        ASSERT_EQ(0u, Fs(Bob())->FsGetFileInfoByFileID(usFileID, &info)) << c.szName;
        EXPECT_TRUE(FieldText(info.szCreatorName, 256) == c.sExpected) << c.szName;
        EXPECT_TRUE(FieldText(info.szFilePath, 260) == u"C:\\after\\") << c.szName;
    }
}
