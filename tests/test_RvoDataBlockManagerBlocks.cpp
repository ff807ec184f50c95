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

TEST(RvoDataBlockManagerBlocks, EvictionTakesLeastRecentlyUsedDownToNinetyPercentAndKeepsThemListed)
{
    ManagerSetup setup(1, QString(), 10, 10 * 10000);
    QVector<RvoDataReference> refs;
    for (int i = 0; i < 10; ++i)
        refs.append(addBlock(testContent(i, 10000)));
    EXPECT_EQ(manager().liveBytes(), 100000) << "at the budget, not above it: nothing leaves";
    EXPECT_EQ(manager().liveBlocks(), 10);

    EXPECT_TRUE(refs.at(0).isInMemory()); // a use: block 0 is now the most recent
    refs.append(addBlock(testContent(10, 10000)));
    // 110000 > 100000: evicted down to 90000, the two least recently used.
    EXPECT_EQ(manager().liveBytes(), 90000);
    for (int i = 0; i < 11; ++i)
        EXPECT_EQ(inMemory(refs.at(i)), i != 1 && i != 2) << i;

    // Evicted blocks are listed and sized still, and come back from disk
    // with their bytes when read or preloaded.
    QList<RvoDataReference> all;
    manager().snapshot(all);
    EXPECT_EQ(all.size(), 11);
    EXPECT_EQ(manager().blockSize(hashOf(refs.at(2))), 10000);
    EXPECT_EQ(bytesOf(refs.at(1)), testContent(1, 10000));
    EXPECT_TRUE(inMemory(refs.at(1)));
    refs.at(2).preload(RvoDataBlockManager::PreloadFirst);
    EXPECT_TRUE(waitUntil([&] { return inMemory(refs.at(2)); }));
    manager().preloadData(RvoDataReference(), RvoDataBlockManager::PreloadFirst); // nothing
    // A preload of a block in memory refreshes its place.
    ASSERT_TRUE(inMemory(refs.at(10)));
    refs.at(10).preload(RvoDataBlockManager::PreloadBackground);
    EXPECT_EQ(Access::lruOrder().first(), hashOf(refs.at(10)));
}

// Don't-cache blocks are never evicted nor written, and read as locked.
TEST(RvoDataBlockManagerBlocks, EqualContentIsStoredOnceButDontCacheBlocksAreEachTheirOwn)
{
    ManagerSetup setup(1, QString(), 10, 1 << 20);
    const QByteArray content = testContent(1, 1000);
    const RvoDataReference a = addBlock(content);
    const RvoDataReference b = addBlock(content);
    EXPECT_TRUE(a == b);
    EXPECT_EQ(manager().liveBytes(), 1000) << "the second copy is dropped";

    const RvoDataReference c = addBlock(content, RvoModifyAccessor::DontCache);
    const RvoDataReference d = addBlock(content, RvoModifyAccessor::DontCache);
    EXPECT_TRUE(c != d && c != a);
    EXPECT_TRUE(hashOf(c)->isDontCache());
    EXPECT_EQ(manager().liveBytes(), 3000);

    // Don't-cache names used to be made from the block's address, which the
    // allocator hands out again once the block is freed.
    QSet<QString> names;
    for (int i = 0; i < 50; ++i)
        names.insert(addBlock(QByteArray(64, 'x'), RvoModifyAccessor::DontCache).hash());
    EXPECT_EQ(names.size(), 50);

    const RvoDataReference keep1 = addBlock(testContent(1, 300000), RvoModifyAccessor::DontCache);
    const RvoDataReference keep2 = addBlock(testContent(2, 300000), RvoModifyAccessor::DontCache);
    const RvoDataReference old1 = addBlock(testContent(3, 100000));
    const RvoDataReference old2 = addBlock(testContent(4, 100000));
    StdoutCapture out;
    const RvoDataReference big = addBlock(testContent(5, (1 << 20) + 1));
    EXPECT_EQ(out.lines(),
              QStringList {QStringLiteral("Requested Block is larger than the maximum allocation "
                                          "size %1 / %2")
                                   .arg((1 << 20) + 1)
                                   .arg(1 << 20)});
    EXPECT_TRUE(inMemory(keep1) && inMemory(keep2));
    EXPECT_FALSE(inMemory(old1) || inMemory(old2));
    EXPECT_TRUE(inMemory(big)) << "a block is never its own victim";
    EXPECT_TRUE(Access::blockIsLocked(hashOf(keep1))) << "don't-cache blocks read as locked";
    manager().flush(true, RvoDataBlockManager::AllThreads);
    EXPECT_FALSE(QFile::exists(manager().getBlockDestination(QString(), keep1.hash())))
            << "never written";
    EXPECT_TRUE(QFile::exists(manager().getBlockDestination(QString(), big.hash())));
}

TEST(RvoDataBlockManagerBlocks, PinsDoNotNestAndMisuseIsReported)
{
    ManagerSetup setup;
    const RvoDataReference ref = addBlock(testContent(1, 100));
    RvoDataHash *hash = hashOf(ref);
    StdoutCapture out;
    Access::lockBlock(hash);
    Access::lockBlock(hash);
    EXPECT_TRUE(Access::blockIsLocked(hash));
    Access::unlockBlock(hash);
    EXPECT_FALSE(Access::blockIsLocked(hash)) << "one unpin undoes two pins";
    Access::unlockBlock(hash);
    const QString address = QString::number(quintptr(hash));
    EXPECT_EQ(
            out.lines(),
            (QStringList {QStringLiteral("Hash %1 is Not Contained in the LRU").arg(address),
                          QStringLiteral("Lock Block %1 already contained in LRU").arg(address)}));

    const RvoDataReference absent(RvoHashManager::instance().getHash(QByteArray("absent")));
    EXPECT_TRUE(Access::blockIsLocked(hashOf(absent))) << "not in memory reads as locked";
}

TEST(RvoDataBlockManagerBlocks, FreeAllSavesWhatItFreesAndFlushMakesEveryBlockDurable)
{
    ManagerSetup setup(2, QStringLiteral("S"));
    QVector<RvoDataReference> refs;
    for (int i = 0; i < 20; ++i)
        refs.append(addBlock(testContent(i, 5000)));
    {
        const RvoConstAccessor accessor = refs.at(0).constAccessor();
        manager().freeAllBlocks();
        EXPECT_TRUE(inMemory(refs.at(0))) << "what is read stays";
        EXPECT_FALSE(inMemory(refs.at(1)));
        EXPECT_EQ(manager().liveBytes(), 5000);
    }
    EXPECT_EQ(bytesOf(refs.at(1)), testContent(1, 5000)) << "it was saved before it was freed";
    manager().flush(true, RvoDataBlockManager::AllThreads);
    for (const RvoDataReference &ref : refs) {
        const QString path = manager().getBlockDestination(QStringLiteral("S"), ref.hash());
        EXPECT_TRUE(QFile::exists(path)) << qPrintable(path);
    }
}

TEST(RvoDataBlockManagerBlocks, BackPressureNeverWaitsOnAnEmptyQueueAndNoSetupFreesNothing)
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

    // Freeing a block without a setup does nothing.
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
