// Making and destroying managers through the exports, and the registry behind them.
#include "IZV_FileShare.h"
#include "core/ZV_ManagerRegistry.h"
#include "ZV_ResultText.h"

#include <gtest/gtest.h>

#include <set>
#include <string>

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

// Every code the module gives has words of its own; anything else gets the
// one text for a code it does not name.
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
