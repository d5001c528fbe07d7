// The five exports and the registry of managers behind them.
#include "IZV_FileShare.h"
#include "ZV_ManagerRegistry.h"

#include <gtest/gtest.h>

#include <cstring>

TEST(Exports, InitializeAndGiveTheInterfaceNameForIndexZeroOnly)
{
    EXPECT_TRUE(zvInitialize());
    char szName[32];
    std::memset(szName, 'x', sizeof(szName));
    ASSERT_TRUE(zvGetInterfaceName(0, szName));
    EXPECT_EQ(0, std::memcmp(szName, "IZV_FileShareMgr 1.0\0", 21));
    EXPECT_EQ('x', szName[21]) << "exactly 21 bytes are written";

    char szUntouched[32];
    std::memset(szUntouched, 'x', sizeof(szUntouched));
    EXPECT_FALSE(zvGetInterfaceName(1, szUntouched));
    EXPECT_FALSE(zvGetInterfaceName(-1, szUntouched));
    for (char c : szUntouched)
        EXPECT_EQ('x', c);
    zvUninitialize();
}

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
