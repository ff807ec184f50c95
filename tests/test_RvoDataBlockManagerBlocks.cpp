#include "ManagerTestAccess.h"

#include <chrono>
#include <future>

using Access = RvoDataBlockManagerTestAccess;

namespace {

bool inMemory(const RvoDataReference &ref)
{
    return Access::holdsBlock(hashOf(ref));
}

} // namespace

// Ten blocks fill a budget of ten exactly; block 0 is then used, and an
// eleventh added: 110000 > 100000, evicted down to 90000.
class RvoEviction : public ::testing::Test
{
protected:
    void SetUp() override
    {
        for (int i = 0; i < 10; ++i)
            refs.append(addBlock(testContent(i, 10000)));
        EXPECT_EQ(manager().liveBytes(), 100000) << "at the budget, not above it: nothing leaves";
        EXPECT_TRUE(refs.at(0).isInMemory());
        refs.append(addBlock(testContent(10, 10000)));
    }

    ManagerSetup setup {1, QString(), 10, 10 * 10000};
    QVector<RvoDataReference> refs;
};

// Evicted blocks are listed and sized still.
TEST_F(RvoEviction, EvictionTakesTheLeastRecentlyUsedDownToNinetyPercent)
{
    EXPECT_EQ(manager().liveBytes(), 90000);
    for (int i = 0; i < 11; ++i)
        EXPECT_EQ(inMemory(refs.at(i)), i != 1 && i != 2) << i;
    QList<RvoDataReference> all;
    manager().snapshot(all);
    EXPECT_EQ(all.size(), 11);
    EXPECT_EQ(manager().blockSize(hashOf(refs.at(2))), 10000);
}

// Block 3 is the least recently used one left. A null reference's preload
// does nothing.
TEST_F(RvoEviction, PreloadOfABlockInMemoryRefreshesItsPlace)
{
    ASSERT_EQ(Access::lruOrder().last(), hashOf(refs.at(3)));
    refs.at(3).preload(RvoDataBlockManager::PreloadBackground);
    EXPECT_EQ(Access::lruOrder().first(), hashOf(refs.at(3)));
    manager().preloadData(RvoDataReference(), RvoDataBlockManager::PreloadFirst);
}

// The second copy of a content is dropped. Don't-cache names used to be
// made from the block's address, which the allocator hands out again once
// the block is freed.
TEST(RvoDataBlockManagerBlocks, EqualContentIsStoredOnceUnlessDontCache)
{
    ManagerSetup setup;
    const QByteArray content = testContent(1, 1000);
    const RvoDataReference a = addBlock(content);
    EXPECT_TRUE(a == addBlock(content));
    const RvoDataReference c = addBlock(content, RvoModifyAccessor::DontCache);
    const RvoDataReference d = addBlock(content, RvoModifyAccessor::DontCache);
    EXPECT_TRUE(hashOf(c)->isDontCache());
    EXPECT_EQ(manager().liveBytes(), 3000) << "a, c and d";
    QSet<QString> names;
    for (int i = 0; i < 50; ++i)
        names.insert(addBlock(QByteArray(64, 'x'), RvoModifyAccessor::DontCache).hash());
    EXPECT_EQ(names.size(), 50);
}

// Nor are they saved; they read as locked. A block over the budget is said,
// evicts the others and is never its own victim.
TEST(RvoDataBlockManagerBlocks, DontCacheBlocksAreNeverEvicted)
{
    ManagerSetup setup(1, QString(), 10, 1 << 20);
    const RvoDataReference keep1 = addBlock(testContent(1, 300000), RvoModifyAccessor::DontCache);
    const RvoDataReference keep2 = addBlock(testContent(2, 300000), RvoModifyAccessor::DontCache);
    const RvoDataReference old1 = addBlock(testContent(3, 100000));
    const RvoDataReference old2 = addBlock(testContent(4, 100000));
    StdoutCapture out;
    const RvoDataReference big = addBlock(testContent(5, (1 << 20) + 1));
    EXPECT_EQ(out.lines(),
              QStringList {"Requested Block is larger than the maximum allocation size "
                           "1048577 / 1048576"});
    EXPECT_TRUE(inMemory(keep1) && inMemory(keep2) && inMemory(big));
    EXPECT_FALSE(inMemory(old1) || inMemory(old2));
    EXPECT_TRUE(Access::blockIsLocked(hashOf(keep1)));
    manager().flush(true, RvoDataBlockManager::AllThreads);
    EXPECT_FALSE(QFile::exists(manager().getBlockDestination(QString(), keep1.hash())));
    EXPECT_TRUE(QFile::exists(manager().getBlockDestination(QString(), big.hash())));
}

// What is read stays.
TEST(RvoDataBlockManagerBlocks, FreeAllSavesWhatItFrees)
{
    ManagerSetup setup(2, "S");
    QVector<RvoDataReference> refs;
    for (int i = 0; i < 20; ++i)
        refs.append(addBlock(testContent(i, 5000)));
    {
        const RvoConstAccessor accessor = refs.at(0).constAccessor();
        manager().freeAllBlocks();
        EXPECT_TRUE(inMemory(refs.at(0)));
        EXPECT_FALSE(inMemory(refs.at(1)));
        EXPECT_EQ(manager().liveBytes(), 5000);
    }
    EXPECT_EQ(bytesOf(refs.at(1)), testContent(1, 5000)) << "it was saved before it was freed";
}

TEST(RvoDataBlockManagerBlocks, BackPressureNeverWaitsOnAnEmptyQueue)
{
    ManagerSetup setup(1, QString(), 10, 0); // a budget of 0: a limit of 0
    // processIO sleeps a whole second when it waits: timed alone, without
    // the clean-up between the calls.
    auto timed = [] {
        const auto started = std::chrono::steady_clock::now();
        manager().processIO();
        return std::chrono::steady_clock::now() - started;
    };
    EXPECT_LT(timed(), std::chrono::milliseconds(500));
    manager().cleanUp();
    EXPECT_LT(timed(), std::chrono::milliseconds(500)) << "no write threads at all";
    EXPECT_TRUE(manager().isWriteThreadsFull()) << "0 queued is not below a limit of 0";
}

// A last reference may go after the clean-up.
TEST(RvoDataBlockManagerBlocks, FreeingWithoutASetupDoesNothing)
{
    const RvoSmartPointer<RvoDataHash> hash = RvoHashManager::instance().getHash(QByteArray("x"));
    StdoutCapture out;
    Access::freeBlock(hash.data());
    EXPECT_EQ(out.lines(), QStringList());
}

// Eviction used to spin with the delete lock held when every evictable
// digest was locked by other threads.
TEST(RvoDataBlockManagerBlocks, EvictionGivesUpWhenEveryCandidateIsLockedElsewhere)
{
    ManagerSetup setup(1, QString(), 10, 3 * 10000);
    QVector<RvoDataReference> refs;
    for (int i = 0; i < 3; ++i)
        refs.append(addBlock(testContent(i, 10000)));
    // Saves done first: a save lets go of its digest under the delete lock,
    // and would wait for the holder below like anyone else touching them.
    manager().flush(false, RvoDataBlockManager::WriteThreads);
    std::promise<void> locked, release;
    std::thread holder([&] {
        for (const RvoDataReference &ref : refs)
            hashOf(ref)->tryLock();
        locked.set_value();
        release.get_future().wait();
        for (const RvoDataReference &ref : refs)
            hashOf(ref)->unlock();
    });
    locked.get_future().wait();
    auto adding = std::async(std::launch::async, [] { return addBlock(testContent(9, 10000)); });
    const bool returned = adding.wait_for(std::chrono::seconds(10)) == std::future_status::ready;
    release.set_value();
    holder.join();
    EXPECT_TRUE(returned);
    EXPECT_EQ(manager().liveBytes(), 40000) << "over the budget until a later eviction";
    adding.get();
}
