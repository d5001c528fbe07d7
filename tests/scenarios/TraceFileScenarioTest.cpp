// A host that cannot name a stream names a file in the environment: each
// trace line goes to the file the variable names when the line is written.
#include "ZV_SceneFixture.h"

#include "QB_Env.h"

using TraceFileScene = ZV_Scene;

namespace {

std::string TextOf(const std::string& sFile)
{
    const ZV_Bytes vb = QB_ReadWholeFile(sFile);
    return std::string(vb.begin(), vb.end());
}

} // namespace

TEST_F(TraceFileScene, EachLineGoesToTheFileTheVariableNamesAtThatMoment)
{
    Build();
    struct Unset
    {
        ~Unset() { QB_SetEnvironmentVariable("ROOMCRATE_TRACE", nullptr); }
    } unset;
    // The add is traced by the server's manager and again by its session;
    // the answer likewise on each of the two clients.
    const std::string sAdd = "recv a PDU_CONF_FS_ADD_REQUEST\r\n", sAnswer = "recv a PDU_CONF_FS_ADD_RESPONSE\r\n";
    const std::string sExpected = sAdd + sAdd + sAnswer + sAnswer + sAnswer + sAnswer;
    const std::string sFirst = tmp.Sub("first.txt"), sSecond = tmp.Sub("second.txt");
    const struct
    {
        const char* szRow;
        std::string sValue;
        std::string sGrows;  // the file that takes this row's lines; "" standard output
    } aRows[] = {
        {"a file", sFirst, sFirst},
        {"another file, from the next line on", sSecond, sSecond},
        {"a folder, which cannot take lines: they go to standard output", tmp.Path(), ""},
        {"empty, as if unset", "", ""},
    };
    int nRow = 0;
    for (const auto& row : aRows)
    {
        QB_SetEnvironmentVariable("ROOMCRATE_TRACE", row.sValue.c_str());
        const std::string sFirstBefore = TextOf(sFirst), sSecondBefore = TextOf(sSecond);
        testing::internal::CaptureStdout();
        const uint16_t usFileID = Share("traced" + std::to_string(nRow++) + ".bin", {1, 2, 3});
        const std::string sOutput = testing::internal::GetCapturedStdout();
        EXPECT_NE(0xFFFF, usFileID) << row.szRow;
        EXPECT_EQ(row.sGrows.empty() ? sExpected : "", sOutput) << row.szRow;
        for (const auto& [sFile, sBefore] : {std::pair{sFirst, sFirstBefore}, std::pair{sSecond, sSecondBefore}})
            EXPECT_EQ(sFile == row.sGrows ? sExpected : "", TextOf(sFile).substr(sBefore.size())) << row.szRow;
    }
}
