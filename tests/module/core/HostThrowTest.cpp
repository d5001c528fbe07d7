#include "add/ZV_AddPdu.h"
#include "core/ZV_FileShareMgr.h"
#include "ZV_PayloadCheck.h"
#include "ZV_RecordingNode.h"
#include "ZV_ThrowingHost.h"

#include "QB_Env.h"
#include "QB_TestSupport.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <regex>

// A host that throws under an entry: the entry writes its own line to the
// day's error log, a user-side call gives 1, nothing reaches the caller. The
// host throws at its 1st, 2nd, ... call until the line is written; a PDU
// comes empty; a user-side call meets Bob's file 5, announced first.
TEST(HostThrow, EachEntryThatCatchesAThrowItselfLogsItsOwnLineAndEachUserCallGives1)
{
    using Run = std::function<void(ZV_FileShareMgr&)>;
    const QB_UserID bob(10002, 0);
    auto Pdu = [](uint16_t usPdu, uint16_t usConnType, const std::vector<uint8_t>& data = {}) -> Run {
        return [=](ZV_FileShareMgr& mgr) { ZV_Deliver(mgr, usPdu, usConnType, data, 5, QB_UserID()); };
    };
    const std::vector<uint8_t> vbAdded = ZV_SavePayload(ZV_AddResponse{{{5, 0, 5}, bob}, 0, ZV_Brief(bob, "a.bin", 0)});
    // A user-side call after the server's announcement; what it gave.
    uint32_t ulCalled = 0;
    auto User = [&](std::function<uint32_t(ZV_FileShareMgr&)> fnCall) -> Run {
        return [&, fnCall](ZV_FileShareMgr& mgr) {
            ZV_Deliver(mgr, PDU_CONF_FS_ADD_RESPONSE, zvConfClientTypeCommand, vbAdded, 11, QB_UserID(1, 0));
            ulCalled = fnCall(mgr);
        };
    };
    const struct { const char* szLine; bool bServer; Run fnRun; } aEntries[] = {
        {"HandleGetUploadSessionListRequest", true, Pdu(PDU_CONF_GET_UPLOAD_SESSION_LIST_REQUEST, zvConfClientTypeCommand)},
        {"HandleGetUploadSessionListResponse", false, Pdu(PDU_CONF_GET_UPLOAD_SESSION_LIST_RESPONSE, zvConfClientTypeCommand)},
        {"HandleGetDownloadSessionListRequest", true, Pdu(PDU_CONF_GET_DOWNLOAD_SESSION_LIST_REQUEST, zvConfClientTypeCommand)},
        {"HandleGetDownloadSessionListResponse", false, Pdu(PDU_CONF_GET_DOWNLOAD_SESSION_LIST_RESPONSE, zvConfClientTypeCommand)},
        {"HandleGetFileListRequest", true, Pdu(PDU_CONF_GET_FILE_LIST_REQUEST, zvConfServerTypeCommand)},
        {"HandleGetFileListResponse", true, Pdu(PDU_CONF_GET_FILE_LIST_RESPONSE, zvConfServerTypeCommand)},
        {"HandleDelUploadResponse", false, Pdu(PDU_CONF_FS_DEL_UPLOAD_RESPONSE, zvConfClientTypeCommand)},
        {"HandleSetRightResponse.AddRight", false, Pdu(PDU_CONF_FS_SET_RIGHT_RESPONSE, zvConfClientTypeCommand)},
        {"InitCltAddFileInfo", false, Pdu(PDU_CONF_FS_ADD_RESPONSE, zvConfClientTypeCommand, vbAdded)},
        {"OnConnect", false, [](ZV_FileShareMgr& mgr) { mgr.OnConnect(nullptr, 11, zvConfClientTypeCommand, 0); }},
        {"OnEvent", true, [](ZV_FileShareMgr& mgr) { mgr.OnEvent(zvConfEventServerLink, 0, 6, 0, 0); }},
        {"OnEvent #1", true, [&](ZV_FileShareMgr& mgr) { mgr.OnEvent(zvConfEventUserEnter, 0, (uintptr_t)&bob, 0, 0); }},
        {"SetSessionBusy", false, [](ZV_FileShareMgr& mgr) { mgr.SetSessionBusy(1, 5); }},
        {"CleanData", true, [](ZV_FileShareMgr& mgr) { mgr.CleanData(); }},
        {"FsDownload", false, User([](ZV_FileShareMgr& mgr) { return mgr.FsDownload(5, u"C:\\got.bin"); })},
        {"FsStopDownload", false, User([](ZV_FileShareMgr& mgr) { return mgr.FsStopDownload(5); })},
        {"FsResumeDownload", false, User([](ZV_FileShareMgr& mgr) { return mgr.FsResumeDownload(5); })},
        {"FsStopUpload", false, User([](ZV_FileShareMgr& mgr) { return mgr.FsStopUpload(5); })},
        {"FsResumeUpload", false, User([](ZV_FileShareMgr& mgr) { return mgr.FsResumeUpload(5); })},
    };
    for (const auto& entry : aEntries)
    {
        const std::string sLine = std::string("ZV_FileShareMgr::") + entry.szLine + " exception.\r\n";
        bool bLogged = false;
        for (int nNth = 1; nNth <= 40 && !bLogged; ++nNth)
        {
            ZV_BasicNode<ZV_ThrowingHost> node(entry.bServer);
            std::filesystem::create_directories(node.tmp.Sub("log"));
            node.host.AddUser(bob, 1, "Bob");
            ASSERT_EQ(0u, node.mgr.Initialize());
            node.host.ThrowAt(nNth);
            ulCalled = zvResultOk;
            EXPECT_NO_THROW(entry.fnRun(node.mgr)) << entry.szLine << " at call " << nNth;
            bLogged = QB_CountInFiles(node.tmp.Sub("log"), sLine) == 1;
            if (bLogged && entry.szLine[0] == 'F')
            {
                EXPECT_EQ(zvResultException, ulCalled) << entry.szLine;
            }
            // A log of the day, "error" by name.
            for (const auto& file : std::filesystem::directory_iterator(node.tmp.Sub("log")))
                EXPECT_TRUE(std::regex_match(file.path().filename().string(),
                                             std::regex("log_error_[0-9]{4}_[0-9]{2}_[0-9]{2}\\.txt")))
                    << file.path();
            if (!node.host.Threw())
                break;
        }
        EXPECT_TRUE(bLogged) << sLine;
    }
}
