#include "RvoDdiMutex.h"
#include "RvoDdiMutexLocker.h"

#include <gtest/gtest.h>

#include <memory>
#include <thread>
#include <vector>

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

TEST(RvoDdiMutex, LockersUnlockOnlyWhatTheyHoldNestingExcludesOthersAPlainMutexRefusesItsHolder)
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

    // Assignment copies the fields without locking; a null mutex is inert.
    RvoDdiMutex plain;
    RvoDdiMutexLocker held(&plain);
    RvoDdiMutexLocker other(nullptr);
    EXPECT_FALSE(other.isHeld());
    other.relock();
    EXPECT_FALSE(other.isHeld());
    other.unlock(); // must not crash
    other = held;
    EXPECT_TRUE(other.isHeld());
    EXPECT_EQ(other.mutex(), &plain);
    held.unlock(); // one release for the one lock
    other = RvoDdiMutexLocker(nullptr);
    EXPECT_TRUE(freeForOtherThreads(plain));

    // Nested lockers exclude other threads.
    long counter = 0; // guarded by mutex
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 20000; ++i) {
                RvoDdiMutexLocker outer(&mutex);
                RvoDdiMutexLocker inner(&mutex);
                ++counter;
            }
        });
    }
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(counter, 4 * 20000);

    // A recursive mutex is released only by its holder's last unlock; a plain
    // one (the default) refuses its holder, at once and after a timeout.
    for (const bool recursive : {true, false}) {
        const auto mutex = recursive ? std::make_unique<RvoDdiMutex>(9, RvoDdiMutex::Recursive)
                                     : std::make_unique<RvoDdiMutex>();
        mutex->lock();
        EXPECT_EQ(mutex->tryLock(), recursive);
        EXPECT_EQ(mutex->tryLock(5), recursive);
        if (recursive) {
            mutex->unlock();
            mutex->unlock();
            std::thread([&] { mutex->unlock(); }).join(); // not the holder: ignored
        }
        EXPECT_FALSE(freeForOtherThreads(*mutex));
        mutex->unlock();
        EXPECT_TRUE(freeForOtherThreads(*mutex));
    }
}
