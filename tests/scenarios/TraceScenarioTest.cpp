// The trace line each handler prints as it starts, whatever the payload: each number a handler takes is sent to Bob.
#include "ZV_SceneFixture.h"
#include "add/ZV_AddPdu.h"
#include "wire/ZV_PduTable.h"
#include "QB_Env.h"

using TraceScene = ZV_Scene;

TEST_F(TraceScene, EveryHandlerPrintsItsLineAsItStartsAndANumberNoneTakesGives5)
{
    Build();
    const uint16_t usFileID = Share("traced.bin", {1, 2, 3}, false);
    std::FILE* lpTrace = std::tmpfile();
    ZV_SetTraceStream(lpTrace);
    auto Traced = [&]() {
        std::string sAll(std::ftell(lpTrace), '\0');
        std::rewind(lpTrace);
        sAll.resize(std::fread(sAll.data(), 1, sAll.size(), lpTrace));
        std::fseek(lpTrace, 0, SEEK_END);
        return sAll;
    };
    // The sessions' first: some of the manager's, such as the server's list, take Bob's sessions away.
    std::vector<const ZV_PduRow*> vecRows;
    for (ZV_PduHandler eHandler : {ZV_PduHandler::Session, ZV_PduHandler::Manager})
        for (const ZV_PduRow& row : kPduTable)
            if (row.eHandler == eHandler && row.eTrace != ZV_PduTrace::None)
                vecRows.push_back(&row);
    const uint32_t ulConn = shape.Server()->GetUserConn(&Bob()->GetUserID(), zvConfClientTypeCommand);
    std::vector<uint8_t> vbPayload(300, 0);
    vbPayload[0] = (uint8_t)usFileID, vbPayload[1] = (uint8_t)(usFileID >> 8);
    // A well-formed announcement of someone else's file, which a client's manager passes on to the new session.
    ZV_AddResponse answer;
    answer.usRouteID = answer.usFileID = 900, answer.user = QB_UserID(555, 0);
    answer.brief.SetCreatorID(answer.user), answer.brief.SetPublic(true);
    ZV_PduBuffer add;
    answer.Save(add.Stream());
    for (const ZV_PduRow* lpRow : vecRows)
    {
        const uint16_t usPdu = lpRow->usPdu;
        const char* szName = lpRow->pszName;
        const long nBefore = std::ftell(lpTrace);
        const bool bAdd = usPdu == PDU_CONF_FS_ADD_RESPONSE;
        shape.Server()->SendPdu(ulConn, usPdu, bAdd ? add.Payload() : vbPayload.data(),
                                bAdd ? add.PayloadLength() : (uint32_t)vbPayload.size(), 1, 1);
        ASSERT_TRUE(sim.Run()) << sim.GetError();
        const std::string sLine = std::string("recv a ") + szName + "\r\n";
        EXPECT_EQ((size_t)nBefore, Traced().find(bAdd ? sLine + sLine : sLine, nBefore)) << szName;
        // Handlers give 0 or 5 (the zeros short of a field); a server's file list gives its first word.
        const uint32_t ulResult = sim.Journal().PdusTo(usPdu, Bob()->GetName()).back().ulResult;
        if (usPdu == PDU_CONF_GET_FILE_LIST_RESPONSE)
            EXPECT_EQ(usFileID, ulResult);
        else
            EXPECT_TRUE(ulResult == 0 || ulResult == zvResultNoHandler) << szName << " gave " << ulResult;
    }
    // Numbers no handler takes, and the unread answer to a batch rights change, print nothing and give 5.
    const long nBefore = std::ftell(lpTrace);
    const size_t nFrom = sim.Journal().Size();
    std::vector<uint16_t> vecUntaken = {8019, 8020, 9000};
    for (const ZV_PduRow& row : kPduTable)
        if (row.eHandler == ZV_PduHandler::Nobody)
            vecUntaken.push_back(row.usPdu);
    for (uint16_t usPdu : vecUntaken)
        shape.Server()->SendPdu(ulConn, usPdu, vbPayload.data(), (uint32_t)vbPayload.size(), 1, 1);
    ASSERT_TRUE(sim.Run()) << sim.GetError();
    EXPECT_EQ((size_t)nBefore, Traced().size());
    const auto vecDelivered = Find({.eFate = ZV_SimFate::Delivered, .nFrom = nFrom});
    ASSERT_EQ(vecUntaken.size(), vecDelivered.size());
    for (const ZV_SimEntry& entry : vecDelivered)
        EXPECT_EQ(zvResultNoHandler, entry.ulResult) << entry.usNumber;
    EXPECT_EQ(zvResultNoHandler, Bob()->GetModule()->HandlePdu(nullptr));
    ZV_SetTraceStream(nullptr);
    std::fclose(lpTrace);
}

// Each trace line goes to the file ROOMCRATE_TRACE names when the line is written.
using TraceFileScene = ZV_Scene;

TEST_F(TraceFileScene, EachLineGoesToTheFileTheVariableNamesAtThatMoment)
{
    Build();
    struct Unset { ~Unset() { QB_SetEnvironmentVariable("ROOMCRATE_TRACE", nullptr); } } unset;
    // The add is traced by the server's manager and session, the answer likewise on each client.
    const std::string sAdd = "recv a PDU_CONF_FS_ADD_REQUEST\r\n", sAnswer = "recv a PDU_CONF_FS_ADD_RESPONSE\r\n";
    const std::string sExpected = sAdd + sAdd + sAnswer + sAnswer + sAnswer + sAnswer;
    const std::string sFirst = tmp.Sub("first.txt"), sSecond = tmp.Sub("second.txt");
    // sGrows: the file that takes this row's lines; "" standard output
    const struct { const char* szRow; std::string sValue; std::string sGrows; } aRows[] = {
        {"a file", sFirst, sFirst},
        {"another file, from the next line on", sSecond, sSecond},
        {"a folder, which cannot take lines: they go to standard output", tmp.Path(), ""},
        {"empty, as if unset", "", ""},
    };
    int nRow = 0;
    for (const auto& row : aRows)
    {
        QB_SetEnvironmentVariable("ROOMCRATE_TRACE", row.sValue.c_str());
        const std::string sFirstBefore = ZV_Text(sFirst), sSecondBefore = ZV_Text(sSecond);
        testing::internal::CaptureStdout();
        const uint16_t usFileID = Share("traced" + std::to_string(nRow++) + ".bin", {1, 2, 3});
        const std::string sOutput = testing::internal::GetCapturedStdout();
        EXPECT_NE(0xFFFF, usFileID) << row.szRow;
        EXPECT_EQ(row.sGrows.empty() ? sExpected : "", sOutput) << row.szRow;
        for (const auto& [sFile, sBefore] : {std::pair{sFirst, sFirstBefore}, std::pair{sSecond, sSecondBefore}})
            EXPECT_EQ(sFile == row.sGrows ? sExpected : "", ZV_Text(sFile).substr(sBefore.size())) << row.szRow;
    }
}
