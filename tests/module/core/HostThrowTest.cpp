// A host that throws from under a user-side call: the call gives 1 and
// writes its own line to the day's error log; nothing reaches the caller.
#include "add/ZV_AddPdu.h"
#include "core/ZV_FileShareMgr.h"
#include "wire/ZV_PduFrame.h"
#include "ZV_RecordingHost.h"
#include "ZV_ThrowingHost.h"

#include "QB_Env.h"
#include "QB_TestSupport.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <functional>
#include <regex>

namespace {

// Throws from every send once told to, not only at the Nth call.
struct ZV_SendThrowingHost : public ZV_RecordingHost
{
    bool m_bThrow = false;
    uint32_t SendPdu(uint32_t ulConn, uint16_t usPdu, const uint8_t* pData, uint32_t ulLen, uint8_t b1,
                     uint8_t b2) override
    {
        if (m_bThrow)
            throw 7;
        return ZV_RecordingHost::SendPdu(ulConn, usPdu, pData, ulLen, b1, b2);
    }
};

} // namespace

TEST(HostThrow, EachUserCallGives1AndLogsItsOwnLineInTheDaysErrorLog)
{
    QB_TempFolder home;
    std::filesystem::create_directories(home.Path() + "/log");
    QB_SetEnvironmentVariable("ROOMCRATE_HOME", home.Path().c_str());
    std::FILE* lpTrace = std::tmpfile();
    ZV_SetTraceStream(lpTrace);
    ZV_SendThrowingHost host;
    host.AddUser(host.m_LocalUser, 1, "Alice");
    ZV_FileShareMgr mgr;
    host.Attach(&mgr);
    ASSERT_EQ(0u, mgr.Initialize());

    // The server announces Bob's file 5.
    const QB_UserID bob(10002, 0);
    host.AddUser(bob, 1, "Bob");
    ZV_AddResponse answer;
    answer.usRouteID = 5;
    answer.usFileID = 5;
    answer.user = bob;
    answer.brief.SetCreatorID(bob);
    answer.brief.SetFileOldName(QB_StringU8("a.bin"));
    answer.brief.SetFileLenth(10);
    answer.brief.SetPublic(true);
    ZV_PduBuffer pdu;
    answer.Save(pdu.Stream());
    ConfPduData cpd{1, 0, host.m_ulCmdConn, 0, zvConfClientTypeCommand, PDU_CONF_FS_ADD_RESPONSE, 0, 0, 0,
                    (uint32_t)pdu.PayloadLength(), pdu.Payload()};
    ASSERT_EQ(0u, mgr.HandlePdu(&cpd));

    const QB_StringW sTarget = QB_ToWindowsPath(home.Path() + "/got.bin");
    const std::pair<const char*, std::function<uint32_t()>> aCalls[] = {
        {"ZV_FileShareMgr::FsDownload exception.", [&] { return mgr.FsDownload(5, sTarget.GetString()); }},
        {"ZV_FileShareMgr::FsStopDownload exception.", [&] { return mgr.FsStopDownload(5); }},
        {"ZV_FileShareMgr::FsResumeDownload exception.", [&] { return mgr.FsResumeDownload(5); }},
        {"ZV_FileShareMgr::FsStopUpload exception.", [&] { return mgr.FsStopUpload(5); }},
        {"ZV_FileShareMgr::FsResumeUpload exception.", [&] { return mgr.FsResumeUpload(5); }},
    };
    host.m_bThrow = true;
    for (const auto& [szLine, fnCall] : aCalls)
    {
        EXPECT_EQ(zvResultException, fnCall()) << szLine;
        EXPECT_EQ(1u, QB_CountInFiles(home.Path() + "/log", std::string(szLine) + "\r\n")) << szLine;
    }
    // A log of the day, "error" by name.
    for (const auto& entry : std::filesystem::directory_iterator(home.Path() + "/log"))
        EXPECT_TRUE(std::regex_match(entry.path().filename().string(),
                                     std::regex("log_error_[0-9]{4}_[0-9]{2}_[0-9]{2}\\.txt")))
            << entry.path();
    ZV_SetTraceStream(nullptr);
    std::fclose(lpTrace);
    QB_SetEnvironmentVariable("ROOMCRATE_HOME", nullptr);
}

// Each entry that catches a throw itself writes a line of its own to the
// day's error log, so that a host author can tell which road a fault ended.
// The host throws at its first call, then its second, and so on, until the
// line is written or the entry makes no more calls; a PDU comes empty.
TEST(HostThrow, EachEntryThatCatchesAThrowItselfLogsItsOwnLine)
{
    using Run = std::function<void(ZV_FileShareMgr&)>;
    const QB_UserID bob(10002, 0);
    auto Pdu = [](uint16_t usPdu, uint16_t usConnType, const ZV_PduBuffer* lpPayload = nullptr) -> Run {
        return [=](ZV_FileShareMgr& mgr) {
            std::vector<uint8_t> data;
            if (lpPayload != nullptr)
                data.assign(lpPayload->Payload(), lpPayload->Payload() + lpPayload->PayloadLength());
            ZV_Deliver(mgr, usPdu, usConnType, data, 5, QB_UserID());
        };
    };
    ZV_AddResponse answer;
    answer.usRouteID = answer.usFileID = 5;
    answer.user = bob;
    answer.brief.SetCreatorID(bob);
    answer.brief.SetFileOldName(QB_StringU8("a.bin"));
    answer.brief.SetPublic(true);
    ZV_PduBuffer added;
    answer.Save(added.Stream());
    const struct
    {
        const char* szLine;
        bool bServer;
        Run fnRun;
    } aEntries[] = {
        {"HandleGetUploadSessionListRequest", true, Pdu(PDU_CONF_GET_UPLOAD_SESSION_LIST_REQUEST, zvConfClientTypeCommand)},
        {"HandleGetUploadSessionListResponse", false, Pdu(PDU_CONF_GET_UPLOAD_SESSION_LIST_RESPONSE, zvConfClientTypeCommand)},
        {"HandleGetDownloadSessionListRequest", true, Pdu(PDU_CONF_GET_DOWNLOAD_SESSION_LIST_REQUEST, zvConfClientTypeCommand)},
        {"HandleGetDownloadSessionListResponse", false, Pdu(PDU_CONF_GET_DOWNLOAD_SESSION_LIST_RESPONSE, zvConfClientTypeCommand)},
        {"HandleGetFileListRequest", true, Pdu(PDU_CONF_GET_FILE_LIST_REQUEST, zvConfServerTypeCommand)},
        {"HandleGetFileListResponse", true, Pdu(PDU_CONF_GET_FILE_LIST_RESPONSE, zvConfServerTypeCommand)},
        {"HandleDelUploadResponse", false, Pdu(PDU_CONF_FS_DEL_UPLOAD_RESPONSE, zvConfClientTypeCommand)},
        {"InitCltAddFileInfo", false, Pdu(PDU_CONF_FS_ADD_RESPONSE, zvConfClientTypeCommand, &added)},
        {"OnConnect", false, [](ZV_FileShareMgr& mgr) { mgr.OnConnect(nullptr, 11, zvConfClientTypeCommand, 0); }},
        {"OnEvent", true, [](ZV_FileShareMgr& mgr) { mgr.OnEvent(zvConfEventServerLink, 0, 6, 0, 0); }},
        {"OnEvent #1", true, [&](ZV_FileShareMgr& mgr) { mgr.OnEvent(zvConfEventUserEnter, 0, (uintptr_t)&bob, 0, 0); }},
        {"SetSessionBusy", false, [](ZV_FileShareMgr& mgr) { mgr.SetSessionBusy(1, 5); }},
        {"CleanData", true, [](ZV_FileShareMgr& mgr) { mgr.CleanData(); }},
    };
    for (const auto& entry : aEntries)
    {
        const std::string sLine = std::string("ZV_FileShareMgr::") + entry.szLine + " exception.\r\n";
        bool bLogged = false;
        for (int nNth = 1; nNth <= 40 && !bLogged; ++nNth)
        {
            QB_TempFolder home;
            std::filesystem::create_directories(home.Path() + "/log");
            QB_WriteWholeFile(home.Sub("confsrv.ini"), "[FileShare]\r\nPath=" + home.Sub("store") + "\r\n");
            QB_SetEnvironmentVariable("ROOMCRATE_HOME", home.Path().c_str());
            ZV_ThrowingHost host;
            host.m_bServer = entry.bServer;
            host.AddUser(host.m_LocalUser, 1, "Alice");
            host.AddUser(bob, 1, "Bob");
            ZV_FileShareMgr mgr;
            host.Attach(&mgr);
            ASSERT_EQ(0u, mgr.Initialize());
            host.ThrowAt(nNth);
            EXPECT_NO_THROW(entry.fnRun(mgr)) << entry.szLine << " at call " << nNth;
            bLogged = QB_CountInFiles(home.Path() + "/log", sLine) == 1;
            if (!host.Threw())
                break;
        }
        EXPECT_TRUE(bLogged) << sLine;
    }
    QB_SetEnvironmentVariable("ROOMCRATE_HOME", nullptr);
}
