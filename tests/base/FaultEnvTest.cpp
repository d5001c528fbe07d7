#include "QB_FaultEnv.h"
#include "QB_FileEx.h"
#include "QB_TestSupport.h"

#include <gtest/gtest.h>

#include <string>

namespace {

// One operation of the given kind through the file helpers; the nth call of
// a kind works on its own names, so an earlier result doesn't hide a later.
bool DoOne(QB_EnvOp op, const QB_TempFolder& tmp, QB_FileEx& file, int n)
{
    std::string sName(1, 'n');
    sName += std::to_string(n);
    char ch = 'x';
    switch (op)
    {
    case QB_EnvOp::Open: {
        QB_FileEx other;
        bool bOpened = other.Open(tmp.SubW(sName), 0x203);
        other.Close();
        return bOpened;
    }
    case QB_EnvOp::Read: file.Seek(0, QB_SEEK_BEGIN); return file.Read(&ch, 1) == 1;
    case QB_EnvOp::Write: return file.Write(&ch, 1) == 1;
    case QB_EnvOp::Seek: return file.Seek(n, QB_SEEK_BEGIN) == n;
    case QB_EnvOp::SetEnd: return file.SetEnd();
    case QB_EnvOp::Delete:
        QB_WriteWholeFile(tmp.Sub(sName), "x");
        return QB_FileEx::Delete(tmp.SubW(sName));
    case QB_EnvOp::MakeFolder: return MakeDirs(tmp.PathW() + QB_StringW(QB_StringU8(sName.c_str())));
    default: return false;
    }
}

}  // namespace

TEST(FaultEnv, FailsTheNthOperationOfEachKindOnceOrFromThenOn)
{
    const QB_EnvOp aOps[] = {QB_EnvOp::Open,   QB_EnvOp::Read,   QB_EnvOp::Write,     QB_EnvOp::Seek,
                             QB_EnvOp::SetEnd, QB_EnvOp::Delete, QB_EnvOp::MakeFolder};
    for (QB_EnvOp op : aOps)
        for (bool bSticky : {false, true})
        {
            QB_TempFolder tmp;
            // The inner env counts what reaches the target.
            QB_FaultEnv inner;
            QB_FaultEnv outer(&inner);
            QB_ScopedEnv install(&outer);
            QB_FileEx file;
            ASSERT_TRUE(file.Open(tmp.SubW("f"), 0x203));
            ASSERT_EQ(file.Write("abc", 3), 3);
            outer.ResetCounts();
            inner.ResetCounts();

            outer.FailAt(op, 3, bSticky);
            std::string sResults;
            for (int n = 1; n <= 5; ++n)
                sResults += DoOne(op, tmp, file, n) ? 'T' : 'F';
            file.Close();
            const char* pszWhat = bSticky ? "sticky" : "once";
            EXPECT_EQ(sResults, bSticky ? "TTFFF" : "TTFTT") << (int)op << " " << pszWhat;
            EXPECT_EQ(outer.GetCount(op), 5) << (int)op << " " << pszWhat;
            EXPECT_EQ(inner.GetCount(op), bSticky ? 2 : 4) << (int)op << " " << pszWhat;
        }
}

TEST(FaultEnv, DrivesTheTickByHandAndWrapsPastTheTop)
{
    QB_FaultEnv env;
    QB_ScopedEnv install(&env);
    env.SetTick(0xFFFFFFF0u);
    EXPECT_EQ(QB_GetEnv()->GetTickCount(), 0xFFFFFFF0u);
    EXPECT_EQ(QB_GetEnv()->GetTickCount(), 0xFFFFFFF0u);
    env.AdvanceTick(0x20);
    EXPECT_EQ(QB_GetEnv()->GetTickCount(), 0x10u);
    EXPECT_EQ(QB_GetEnv()->GetTickCount() - 0xFFFFFFF0u, 0x20u);
    env.AdvanceTick(0xFFFFFFFFu);
    EXPECT_EQ(QB_GetEnv()->GetTickCount(), 0x0Fu);
}

