#include "RvoDdiMutex.h"
#include "RvoDdiMutexLocker.h"

#include <gtest/gtest.h>

#include <thread>

namespace {

// Whether another thread can take the mutex right now (and gives it back).
bool freeForOtherThreads(RvoDdiMutex &mutex)
{
    bool taken = false;
    std::thread other([&] {
        taken = mutex.tryLock();
        if (taken)
            mutex.unlock();
    });
    other.join();
    return taken;
}

} // namespace

// A locker's destructor releases only a hold it still has; relocking a
// held locker takes nothing more.
TEST(RvoDdiMutex, LockerUnlocksOnlyWhatItHolds)
{
    RvoDdiMutex mutex(0, RvoDdiMutex::Recursive);
    mutex.lock(); // the test's own hold, depth 1
    {
        RvoDdiMutexLocker locker(&mutex); // depth 2
        locker.unlock(); // depth 1
        EXPECT_FALSE(locker.isHeld());
    } // not unlocked again
    EXPECT_FALSE(freeForOtherThreads(mutex));
    {
        RvoDdiMutexLocker locker(&mutex);
        locker.unlock();
        locker.relock();
        locker.relock(); // already held: nothing
        EXPECT_TRUE(locker.isHeld());
    } // unlocks once
    EXPECT_FALSE(freeForOtherThreads(mutex));
    mutex.unlock();
    EXPECT_TRUE(freeForOtherThreads(mutex));
}

// Assignment copies the fields without locking; a null mutex is inert.
TEST(RvoDdiMutex, AssignedLockerTakesNoLockOfItsOwn)
{
    RvoDdiMutex plain;
    RvoDdiMutexLocker held(&plain);
    RvoDdiMutexLocker other(nullptr);
    other.relock();
    EXPECT_FALSE(other.isHeld());
    other.unlock(); // must not crash
    other = held;
    EXPECT_TRUE(other.isHeld());
    EXPECT_EQ(other.mutex(), &plain);
    held.unlock(); // one release for the one lock
    other = RvoDdiMutexLocker(nullptr);
    EXPECT_TRUE(freeForOtherThreads(plain));
}

// Unlocks by another thread are ignored.
TEST(RvoDdiMutex, RecursiveMutexIsFreedOnlyByItsHoldersLastUnlock)
{
    RvoDdiMutex mutex(9, RvoDdiMutex::Recursive);
    mutex.lock();
    EXPECT_TRUE(mutex.tryLock());
    EXPECT_TRUE(mutex.tryLock(5));
    mutex.unlock();
    mutex.unlock();
    std::thread([&] { mutex.unlock(); }).join();
    EXPECT_FALSE(freeForOtherThreads(mutex));
    mutex.unlock();
    EXPECT_TRUE(freeForOtherThreads(mutex));
}

// A plain mutex (the default) refuses its holder, at once and after a
// timeout, and is free after the one unlock.
TEST(RvoDdiMutex, PlainMutexRefusesItsHolder)
{
    RvoDdiMutex mutex;
    mutex.lock();
    EXPECT_FALSE(mutex.tryLock());
    EXPECT_FALSE(mutex.tryLock(5));
    EXPECT_FALSE(freeForOtherThreads(mutex));
    mutex.unlock();
    EXPECT_TRUE(freeForOtherThreads(mutex));
}
