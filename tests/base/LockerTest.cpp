#include "QB_Locker.h"

#include <gtest/gtest.h>

#include <thread>

namespace {

// Whether another thread could take the lock right now; it gives the lock
// straight back if it got it.
bool FreeForAnotherThread(QB_Locker& locker)
{
    bool bTaken = false;
    std::thread other([&] {
        bTaken = locker.TryLock();
        if (bTaken)
            locker.Unlock();
    });
    other.join();
    return bTaken;
}

}  // namespace

TEST(Locker, IsFreeAgainOnlyAfterItsOwnerReleasedItAsOftenAsItTookIt)
{
    QB_Locker locker("test");
    locker.Lock();
    locker.Lock();
    EXPECT_FALSE(FreeForAnotherThread(locker));
    locker.Unlock();
    EXPECT_FALSE(FreeForAnotherThread(locker));
    locker.Unlock();
    EXPECT_TRUE(FreeForAnotherThread(locker));
}

TEST(Lock, ReleasesOnceWhenUnlockedEarlyAndThenDestroyed)
{
    QB_Locker locker;
    locker.Lock();
    {
        QB_Lock lock(&locker);
        lock.Unlock();
        EXPECT_FALSE(FreeForAnotherThread(locker)) << "the outer hold remains";
    }
    EXPECT_FALSE(FreeForAnotherThread(locker)) << "the destructor released a second time";
    locker.Unlock();
    EXPECT_TRUE(FreeForAnotherThread(locker));
}

TEST(Lock, HoldsTheLockerForItsScope)
{
    QB_Locker locker;
    {
        QB_Lock lock(&locker);
        EXPECT_FALSE(FreeForAnotherThread(locker));
    }
    EXPECT_TRUE(FreeForAnotherThread(locker));
}
