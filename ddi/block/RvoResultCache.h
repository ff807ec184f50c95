#ifndef RVORESULTCACHE_H
#define RVORESULTCACHE_H

#include "RvoDataReference.h"
#include "RvoDdiGlobal.h"

#include <QString>

#include <atomic>
#include <memory>

// A memo table from the name of a computation to the block holding its
// result. The first result stored under a name wins; entries are never
// removed. Switched off, it answers nothing and stores nothing but keeps
// what it holds. Holding the references keeps their digests alive.
//
// Threading: any thread. Lookups share the lock; only an insert takes it
// alone.
class RVODDI_EXPORT RvoResultCache
{
public:
    RvoResultCache();
    ~RvoResultCache();
    RvoResultCache(const RvoResultCache &) = delete;
    RvoResultCache &operator=(const RvoResultCache &) = delete;

    void setEnabled(bool enabled) { m_Enabled.store(enabled, std::memory_order_relaxed); }
    bool isEnabled() const { return m_Enabled.load(std::memory_order_relaxed); }

    bool contains(const QString &key) const;
    // The stored reference, counted as a hit; null when absent or disabled.
    RvoDataReference lookup(const QString &key);
    // Stores `result` unless the key has one already; false only when
    // disabled.
    bool addResult(const QString &key, RvoDataReference &result);

    // Successful lookups; concurrent lookups may lose counts (a statistic).
    int cacheHits() const { return m_CacheHits.load(std::memory_order_relaxed); }
    // Entries, whether enabled or not.
    int resultCount() const;

private:
    std::atomic<int> m_CacheHits {0};
    std::atomic<bool> m_Enabled {true};
    // The table and its lock (RvoResultCache.cpp).
    struct Private;
    const std::unique_ptr<Private> d;
};

#endif // RVORESULTCACHE_H
