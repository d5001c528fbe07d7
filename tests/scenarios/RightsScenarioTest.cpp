// Rights: only the creator changes them, a batch is taken or refused whole; the host's change is told.
#include "ZV_SceneFixture.h"

using RightsScene = ZV_Scene;

TEST_F(RightsScene, OnlyTheCreatorChangesRightsAndABatchIsTakenOrRefusedWhole)
{
    Build(true);
    ZV_SimHost* lpCarol = shape.Client(2);
    const uint16_t usOne = Share("one.bin", ZV_RandomBytes(1000, 23));
    const uint16_t usTwo = Share("two.bin", ZV_RandomBytes(1000, 24));
    const QB_UserID bob = Bob()->GetUserID();

    ASSERT_TRUE(Fs(Bob())->FsSetRight(usOne, 0, &bob, 1, nullptr, 0) == 0 && sim.Run()) << sim.GetError();
    EXPECT_EQ(40u, LastResult(Bob(), zvFsEventFileHidden));
    EXPECT_TRUE(Events(Alice(), zvFsEventFileHidden).empty());
    EXPECT_TRUE(sim.Journal().Pdus(PDU_CONF_FS_SET_RIGHT_RESPONSE, shape.Server(1)->GetName()).empty());

    // One unknown FileID refuses the whole batch before anything is sent.
    size_t nMark = sim.Journal().Size();
    const uint16_t aBoth[] = {usOne, usTwo};
    const uint16_t aUnknown[] = {usOne, 999};
    EXPECT_EQ(82u, Fs(Alice())->FsSetFilesRight(aUnknown, 2, 0, nullptr, 0, nullptr, 0));
    ASSERT_TRUE(sim.Run()) << sim.GetError();
    EXPECT_TRUE(Find({.eKind = ZV_SimEntryKind::Pdu, .sNode = Alice()->GetName(), .nFrom = nMark}).empty())
        << "nothing was sent";

    // Bob's batch over Alice's files is refused with 40 and goes no further.
    const uint16_t usBobs = ShareBy(Bob(), "b.bin", ZV_RandomBytes(10, 25));
    ASSERT_NE(0xFFFF, usBobs);
    const uint16_t aForeign[] = {usOne, usBobs};
    ASSERT_TRUE(Fs(Bob())->FsSetFilesRight(aForeign, 2, 0, nullptr, 0, nullptr, 0) == 0 && sim.Run()) << sim.GetError();
    EXPECT_TRUE(sim.Journal().PdusTo(PDU_CONF_FS_SET_FILES_RIGHT_REQUEST, shape.Server(1)->GetName()).empty());
    EXPECT_EQ(1u, sim.Journal().PdusTo(PDU_CONF_FS_SET_FILES_RIGHT_RESPONSE, Bob()->GetName()).size());
    EXPECT_TRUE(Events(lpCarol, zvFsEventFileHidden).empty());

    // Alice's batch narrows both files to Bob: Carol, on the other server, loses both, but keeps the one she
    // downloaded whole; Bob is told of both.
    ASSERT_TRUE(Download(lpCarol, usOne) == 0 && sim.Run()) << sim.GetError();
    nMark = sim.Journal().Size();
    EXPECT_EQ(0u, Fs(Alice())->FsSetFilesRight(aBoth, 2, 0, &bob, 1, nullptr, 0));
    for (uint16_t usFileID : aBoth)
    {
        ZV_FileShareSession* lpOwn = Session(Alice(), usFileID);
        ASSERT_NE(nullptr, lpOwn);
        EXPECT_FALSE(lpOwn->BriefInfo().m_bPublic) << "Alice's own view changes as the request leaves";
        EXPECT_GE(lpOwn->BriefInfo().m_arrRight.Find(bob), 0);
    }
    ASSERT_TRUE(sim.Run()) << sim.GetError();
    EXPECT_EQ(1u, sim.Journal().PdusTo(PDU_CONF_FS_SET_FILES_RIGHT_REQUEST, shape.Server(1)->GetName()).size());
    EXPECT_EQ(2u, Events(lpCarol, zvFsEventFileHidden).size());
    EXPECT_EQ(ZV_RandomBytes(1000, 23), QB_ReadWholeFile(Target(lpCarol, usOne)));
    EXPECT_EQ(2u, Events(Bob(), zvFsEventRightChanged).size());
}

// Event 14 tells of the files the user could not see (3000 more, 3004 fewer); another's change or number, nothing.
TEST_F(RightsScene, ARightChangeTellsTheLocalUserOfTheFilesItCouldNotSee)
{
    Build();
    Share("open.bin", ZV_RandomBytes(1000, 3));
    const uint16_t usClosed = ShareBy(Alice(), "closed.bin", {}, true, false);
    // Bob first among those allowed: a file he may see already is not told.
    ShareBy(Alice(), "granted.bin", ZV_RandomBytes(1000, 5), true, false, {Bob()->GetUserID(), Alice()->GetUserID()});
    // usRaised 0: nothing at all
    const struct { const char* pszName; ZV_SimHost* lpNode; uint16_t usEvent; uintptr_t a1; QB_UserID user;
          uint16_t usRaised; } aRows[] = {
        {"more visible", Bob(), zvConfEventRightChange, 1, Bob()->GetUserID(), zvFsEventFileAdded},
        {"fewer visible", Bob(), zvConfEventRightChange, 0, Bob()->GetUserID(), zvFsEventFileHidden},
        {"another user's change", Bob(), zvConfEventRightChange, 1, QB_UserID(99999, 0), 0},
        {"a number not served", shape.Server(), 5, 0, Bob()->GetUserID(), 0},
    };
    for (const auto& row : aRows)
    {
        const size_t nMark = sim.Journal().Size();
        EXPECT_EQ(0u, sim.RaiseHostEvent(row.lpNode, row.usEvent, row.a1, (uintptr_t)&row.user)) << row.pszName;
        ASSERT_TRUE(sim.Run()) << sim.GetError();
        const auto vecRaised = Find({.eKind = ZV_SimEntryKind::Event, .nFrom = nMark});
        EXPECT_TRUE(Find({.eKind = ZV_SimEntryKind::Pdu, .nFrom = nMark}).empty()) << row.pszName;
        ASSERT_EQ(row.usRaised != 0 ? 1u : 0u, vecRaised.size()) << row.pszName;
        EXPECT_TRUE(vecRaised.empty() || (vecRaised[0].usNumber == row.usRaised && ZV_ResultOf(vecRaised[0]) == 0 &&
                                          ZV_FileIDOf(vecRaised[0]) == usClosed)) << row.pszName;
    }
}
