#include "ManagerTestAccess.h"
#include "RvoResultCache.h"

#include <memory>

namespace {

RvoDataReference reference(const char *content)
{
    return RvoDataReference(RvoHashManager::instance().getHash(QByteArray(content)));
}

} // namespace

// Later results for a key are taken and dropped; keys compare exactly, and
// only lookups that find a result count as hits.
TEST(RvoResultCache, FirstResultForAKeyWins)
{
    RvoResultCache cache;
    EXPECT_TRUE(cache.lookup(QStringLiteral("blur")).isNull());
    EXPECT_EQ(cache.cacheHits(), 0);
    RvoDataReference first = reference("first");
    RvoDataReference second = reference("second");
    EXPECT_TRUE(cache.addResult(QStringLiteral("blur"), first)
                && cache.addResult(QStringLiteral("blur"), second));
    EXPECT_EQ(cache.resultCount(), 1);
    EXPECT_TRUE(cache.lookup(QStringLiteral("blur")) == first
                && cache.lookup(QStringLiteral("blur")) == first);
    EXPECT_EQ(cache.cacheHits(), 2);
    EXPECT_FALSE(cache.contains(QStringLiteral("Blur")));
    EXPECT_TRUE(cache.lookup(QStringLiteral("Blur")).isNull());
}

// Disabled, the cache is invisible and takes nothing, but keeps its entries.
TEST(RvoResultCache, DisabledCacheHidesItsEntries)
{
    RvoResultCache cache;
    RvoDataReference first = reference("first");
    RvoDataReference refused = reference("refused");
    cache.addResult(QStringLiteral("blur"), first);
    cache.setEnabled(false);
    EXPECT_FALSE(cache.contains(QStringLiteral("blur")));
    EXPECT_TRUE(cache.lookup(QStringLiteral("blur")).isNull());
    EXPECT_FALSE(cache.addResult(QStringLiteral("b"), refused));
    EXPECT_EQ(cache.resultCount(), 1);
    EXPECT_EQ(cache.cacheHits(), 0);
    cache.setEnabled(true);
    EXPECT_TRUE(cache.lookup(QStringLiteral("blur")) == first);
    EXPECT_FALSE(cache.contains(QStringLiteral("b")));
}

// The digest of a result lives until the cache goes.
TEST(RvoResultCache, CacheHoldsItsResults)
{
    auto cache = std::make_unique<RvoResultCache>();
    RvoDataReference first = reference("first");
    cache->addResult(QStringLiteral("blur"), first);
    const QString text = first.hash();
    first = RvoDataReference();
    EXPECT_TRUE(RvoHashManager::instance().isHashLive(text));
    cache.reset();
    EXPECT_FALSE(RvoHashManager::instance().isHashLive(text));
}

TEST(RvoResultCache, ConcurrentAddsKeepOneResultPerKey)
{
    RvoResultCache shared;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&shared, t] {
            for (int i = 0; i < 500; ++i) {
                RvoDataReference mine = reference(t % 2 ? "odd" : "even");
                const QString key = QString::number(i % 50);
                shared.addResult(key, mine);
                EXPECT_FALSE(shared.lookup(key).isNull());
            }
        });
    }
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(shared.resultCount(), 50);
    EXPECT_GT(shared.cacheHits(), 0);
    EXPECT_LE(shared.cacheHits(), 2000);
}
