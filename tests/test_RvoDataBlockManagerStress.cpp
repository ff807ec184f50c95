#include "ManagerTestAccess.h"

#include <atomic>
#include <random>
#include <thread>

namespace {

constexpr int kContents = 24;
constexpr int kBlockSize = 16384;

QByteArray contentFor(int i)
{
    return testContent(1000 + i, kBlockSize);
}

} // namespace

// Several threads add overlapping content (synchronously and through the
// pool), read it, modify it and drop their references under a budget of a
// few blocks, so that blocks leave for disk and come back all the time,
// while others flush everything and free all blocks. Every read must see its
// exact bytes, and when all references are gone nothing may be left.
TEST(RvoDataBlockManagerStress, BlocksLeaveAndReturnUnderManyThreadsWithoutLoss)
{
    const int hashesBefore = RvoDataHash::hashCount();
    {
        ManagerSetup setup(2, QStringLiteral("Stress"), 4, 6 * kBlockSize);
        RvoDataBlockManager &manager = RvoDataBlockManager::instance();
        QVector<QByteArray> contents;
        for (int i = 0; i < kContents; ++i)
            contents.append(contentFor(i));

        std::atomic<int> wrong {0};
        std::atomic<int> reads {0};
        std::atomic<bool> stop {false};
        std::vector<std::thread> workers;
        for (int t = 0; t < 4; ++t) {
            workers.emplace_back([&, t] {
                std::mt19937 random(t);
                QVector<QPair<RvoDataReference, int>> held;
                for (int round = 0; round < 300; ++round) {
                    const int i = int(random() % kContents);
                    switch (random() % 5) {
                    case 0:
                    case 1:
                        held.append(
                                qMakePair(addBlock(contents.at(i), RvoModifyAccessor::CacheContent,
                                                   random() % 2 == 0),
                                          i));
                        break;
                    case 2: {
                        if (held.isEmpty())
                            break;
                        const auto &pick = held.at(int(random() % held.size()));
                        if (bytesOf(pick.first) != contents.at(pick.second))
                            wrong.fetch_add(1);
                        reads.fetch_add(1);
                        break;
                    }
                    case 3: {
                        if (held.isEmpty())
                            break;
                        // Copy, change nothing, add again: the same content,
                        // so the same digest as the original.
                        RvoDataReference source = held.at(int(random() % held.size())).first;
                        RvoModifyAccessor copy = source.modifyAccessor();
                        const RvoDataReference again
                                = copy.release(RvoModifyAccessor::CacheContent, true);
                        if (again != source)
                            wrong.fetch_add(1);
                        break;
                    }
                    default:
                        if (!held.isEmpty())
                            held.remove(int(random() % held.size()));
                        break;
                    }
                }
                for (const auto &pair : held) {
                    if (bytesOf(pair.first) != contents.at(pair.second))
                        wrong.fetch_add(1);
                }
            });
        }
        std::thread flusher([&] {
            while (!stop.load()) {
                manager.flush(true, RvoDataBlockManager::AllThreads);
                manager.freeAllBlocks();
                manager.processIO();
            }
        });
        for (std::thread &worker : workers)
            worker.join();
        stop.store(true);
        flusher.join();

        EXPECT_EQ(wrong.load(), 0);
        EXPECT_GT(reads.load(), 100);
        manager.flush(false, RvoDataBlockManager::AllThreads);
        EXPECT_EQ(RvoHashManager::instance().hashCount(), 0);
        EXPECT_EQ(manager.liveBytes(), 0);
        EXPECT_EQ(manager.liveBlocks(), 0);
    }
    EXPECT_EQ(RvoDataHash::hashCount(), hashesBefore);
}

// A digest whose last reference is being dropped must never be picked up
// again by eviction, a flush or a save: each of those would count it and
// delete it a second time. Releases race with evictions and writes here.
TEST(RvoDataBlockManagerStress, DyingDigestsAreNeverTakenAgain)
{
    ManagerSetup setup(1, QStringLiteral("Dying"), 4, 2 * kBlockSize);
    RvoDataBlockManager &manager = RvoDataBlockManager::instance();
    std::atomic<bool> stop {false};
    std::thread flusher([&] {
        while (!stop.load())
            manager.flush(true, RvoDataBlockManager::WriteThreads);
    });
    std::vector<std::thread> workers;
    for (int t = 0; t < 3; ++t) {
        workers.emplace_back([&, t] {
            for (int round = 0; round < 400; ++round) {
                // Add and drop at once: the last release races the eviction
                // that the next add starts and the flusher's writes.
                addBlock(contentFor((round + t) % 6));
            }
        });
    }
    for (std::thread &worker : workers)
        worker.join();
    stop.store(true);
    flusher.join();
    manager.flush(false, RvoDataBlockManager::AllThreads);
    EXPECT_EQ(RvoHashManager::instance().hashCount(), 0);
    EXPECT_EQ(manager.liveBytes(), 0);
}
