// Making and destroying managers through the exports, and the registry behind them.
#include "IZV_FileShare.h"
#include "ZV_ManagerRegistry.h"

#include <gtest/gtest.h>

TEST(Exports, MakeAManagerOnlyForTheExactInterfaceNameAndHandItsUserSideForTypeFour)
{
    const char* const aszWrong[] = {
        "IZV_FileShareMgr 1.0 ", "IZV_FileShareMgr 1.1", "IZV_FileShareMgr", "", "izv_filesharemgr 1.0",
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
