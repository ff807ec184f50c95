#include "ManagerTestAccess.h"
#include "RvoResultCache.h"

namespace {

RvoDataReference reference(const char *content)
{
    return RvoDataReference(RvoHashManager::instance().getHash(QByteArray(content)));
}

} // namespace

TEST(RvoResultCache, DisabledCacheFindsNothingAndCountsNoHit)
{
    RvoResultCache cache;
    RvoDataReference first = reference("first");
    cache.addResult("blur", first);
    cache.setEnabled(false);
    EXPECT_TRUE(cache.lookup("blur").isNull());
    EXPECT_EQ(cache.cacheHits(), 0);
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
