#include "ManagerTestAccess.h"

constexpr int kBlockSize = 16384;

// A digest whose last reference is being dropped must never be picked up
// again by eviction, a flush or a save: each of those would count it and
// delete it a second time. Releases race with evictions and writes here.
TEST(RvoDataBlockManagerStress, DyingDigestsAreNeverTakenAgain)
{
    ManagerSetup setup(1, QStringLiteral("Dying"), 4, 2 * kBlockSize);
    std::atomic<bool> stop {false};
    std::thread flusher([&] {
        while (!stop.load())
            manager().flush(true, RvoDataBlockManager::WriteThreads);
    });
    std::vector<std::thread> workers;
    for (int t = 0; t < 3; ++t) {
        workers.emplace_back([&, t] {
            for (int round = 0; round < 400; ++round) {
                // Add and drop at once: the last release races the eviction
                // that the next add starts and the flusher's writes.
                addBlock(testContent(1000 + (round + t) % 6, kBlockSize));
            }
        });
    }
    for (std::thread &worker : workers)
        worker.join();
    stop.store(true);
    flusher.join();
    manager().flush(false, RvoDataBlockManager::AllThreads);
    EXPECT_EQ(RvoHashManager::instance().hashCount(), 0);
    EXPECT_EQ(manager().liveBytes(), 0);
}
