// A host that throws from under a user-side call: the call gives 1 and
// writes its own line to the day's error log; nothing reaches the caller.
#include "ZV_AddPdu.h"
#include "ZV_FileShareMgr.h"
#include "ZV_PduFrame.h"
#include "ZV_RecordingHost.h"

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
        EXPECT_EQ(ZV_ERR_EXCEPTION, fnCall()) << szLine;
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
