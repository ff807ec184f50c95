#include "ManagerTestAccess.h"

#include <random>
#include <vector>

namespace {

QByteArray content(int n)
{
    return QByteArray(100 + n, char('a' + n % 26));
}

// The registry's statistics, read through dumpStats.
QStringList statsLines()
{
    DebugCapture debug;
    RvoHashManager::instance().dumpStats();
    return debug.messages();
}

// What dumpStats prints for these counts.
QStringList stats(int hits, int misses, int requests, int removes, int registered)
{
    return QString::asprintf("==== RvoDdi Hash Stats ====|Cache Hits %d|Cache Misses %d|Requests "
                             "%d|Removes %d|Registered %d|Existant %d|HashPtrs -1",
                             hits, misses, requests, removes, registered, RvoDataHash::hashCount())
            .split('|');
}

} // namespace

TEST(RvoHashManager, TextFindsARegisteredDigestUntilItsLastReferenceGoes)
{
    RvoHashManager &registry = RvoHashManager::instance();
    RvoSmartPointer<RvoDataHash> hash = registry.getHash(content(2));
    const QString text = hash->toString();
    EXPECT_TRUE(registry.getHash(text) == hash); // that reference gone, not the last one
    EXPECT_TRUE(registry.isHashLive(text));
    // Malformed text names none.
    EXPECT_FALSE(registry.isHashLive("1-2-3") || registry.isHashLive(QString()));

    registry.clearStats();
    hash.reset();
    EXPECT_FALSE(registry.isHashLive(text));
    EXPECT_EQ(statsLines(), stats(0, 0, 0, 1, 0)) << "one remove, none registered";
}

// Bytes and raw memory of the same content find one object; the first
// lookup is a miss, the second a hit. Clearing the statistics keeps the
// registered digests.
TEST(RvoHashManager, EqualContentGivesOneObjectAndLookupsAreCounted)
{
    RvoHashManager &registry = RvoHashManager::instance();
    registry.clearStats();
    const RvoSmartPointer<RvoDataHash> a = registry.getHash(content(1));
    const QByteArray same = content(1);
    const RvoSmartPointer<RvoDataHash> b = registry.getHash(
            reinterpret_cast<const unsigned char *>(same.constData()), same.size());
    EXPECT_TRUE(a == b);
    EXPECT_EQ(a->refCount(), 2);
    EXPECT_EQ(statsLines(), stats(1, 1, 2, 0, 1));
    registry.clearStats();
    EXPECT_EQ(statsLines(), stats(0, 0, 0, 0, 1));
}

// addHash registers an object it does not know and deletes one whose digest
// it has, handing out the registered one; it is counted as a hit, not a
// request.
TEST(RvoHashManager, AddHashKeepsTheObjectItAlreadyHas)
{
    RvoHashManager &registry = RvoHashManager::instance();
    auto *fresh = new RvoDataHash(content(4), RvoDataHash::Skein512);
    const RvoSmartPointer<RvoDataHash> registered = registry.addHash(fresh);
    EXPECT_EQ(registered.data(), fresh);

    const int live = RvoDataHash::hashCount();
    registry.clearStats();
    const RvoSmartPointer<RvoDataHash> result
            = registry.addHash(new RvoDataHash(RvoDataHash::Skein512, registered->data()));
    EXPECT_TRUE(result == registered);
    EXPECT_EQ(RvoDataHash::hashCount(), live);
    EXPECT_EQ(registered->refCount(), 2);
    EXPECT_EQ(statsLines(), stats(1, 0, 0, 0, 1)) << "addHash is not a request";
    EXPECT_TRUE(registry.getHash(content(4)) == registered);
}

class RvoHashManagerListing : public ::testing::Test
{
protected:
    RvoHashManager &registry = RvoHashManager::instance();
    const RvoSmartPointer<RvoDataHash> cached = registry.getHash(content(9));
    const RvoSmartPointer<RvoDataHash> copy {cached};
    const RvoSmartPointer<RvoDataHash> dontCache = registry.getHash(content(10));
    void SetUp() override { dontCache->setDontCache(true); }
};

// A digest still referenced by others than the registry is a leak; a
// don't-cache one is not.
TEST_F(RvoHashManagerListing, ValidateStateReportsCachedDigestsStillReferenced)
{
    StdoutCapture out;
    registry.validateState();
    EXPECT_EQ(out.lines(),
              QStringList {"There is a live hash '" + cached->toString()
                           + "' (ref count = 2) that has been cached, aborting"});
}

TEST_F(RvoHashManagerListing, DebugInfoGivesEachDigestsAddressCountAndText)
{
    DebugCapture debug;
    registry.printDebugInfo();
    const QStringList lines = debug.messages();
    ASSERT_EQ(lines.size(), 2);
    for (const auto &c : {qMakePair(cached.data(), 2), qMakePair(dontCache.data(), 1)}) {
        const QString line = QString("0x%1 %2 ").arg(quintptr(c.first), 0, 16).arg(c.second)
                + c.first->toString();
        EXPECT_TRUE(lines.contains(line)) << qPrintable(line);
    }
}

TEST_F(RvoHashManagerListing, SnapshotAppendsACountedPointerToEveryDigest)
{
    QList<RvoSmartPointer<RvoDataHash>> all {RvoSmartPointer<RvoDataHash>()};
    registry.snapshot(all);
    ASSERT_EQ(all.size(), 3);
    EXPECT_TRUE(all.first().isNull()) << "the list is not cleared";
    EXPECT_TRUE(all.contains(cached) && all.contains(dontCache));
    EXPECT_EQ(dontCache->refCount(), 2);
    all.clear();
    EXPECT_EQ(dontCache->refCount(), 1);
}

// Several threads intern, copy and drop the same few digests, re-add them
// through addHash while others release them, ask isHashLive and take
// snapshots. A lookup racing the last release must neither lose nor
// double-delete a digest, and no lock order may deadlock.
TEST(RvoHashManager, ConcurrentInterningAndReleasingKeepsOneObjectPerDigest)
{
    RvoHashManager &registry = RvoHashManager::instance();
    const int liveBefore = RvoDataHash::hashCount();
    constexpr int kDigests = 4, kThreads = 4, kRounds = 4000;

    QVector<QByteArray> contents;
    QVector<QString> texts;
    for (int i = 0; i < kDigests; ++i) {
        contents.append(content(20 + i));
        texts.append(RvoDataHash(contents.last(), RvoDataHash::Skein512).toString());
    }
    std::atomic<int> mismatches {0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            std::mt19937 random(t);
            for (int round = 0; round < kRounds; ++round) {
                const int i = int(random() % kDigests), how = int(random() % 4);
                if (how == 3) {
                    QList<RvoSmartPointer<RvoDataHash>> all;
                    registry.snapshot(all);
                    registry.isHashLive(texts.at(i));
                    continue;
                }
                RvoSmartPointer<RvoDataHash> held = how == 2
                        ? registry.addHash(new RvoDataHash(texts.at(i)))
                        : (how ? registry.getHash(texts.at(i)) : registry.getHash(contents.at(i)));
                // Whatever path interned it, the same digest is the same object.
                const RvoSmartPointer<RvoDataHash> again = registry.getHash(texts.at(i));
                if (held != again || held->toString() != texts.at(i)
                    || !registry.isHashLive(texts.at(i)))
                    mismatches.fetch_add(1);
                RvoSmartPointer<RvoDataHash> copy(held);
                held.reset();
            }
        });
    }
    for (std::thread &thread : threads)
        thread.join();

    EXPECT_EQ(mismatches.load(), 0);
    EXPECT_EQ(registry.hashCount(), 0);
    EXPECT_EQ(RvoDataHash::hashCount(), liveBefore);
}
