#include "RvoResultCache.h"

#include "RvoReadLocker_p.h"
#include "RvoWriteLocker_p.h"

#include <QMap>

struct RvoResultCache::Private
{
    // Taken before a digest's own lock (copying a reference counts it); no
    // reference's last release happens under it, so it never waits for the
    // block manager's locks.
    mutable RvoSharedMutex m_Lock;
    QMap<QString, RvoDataReference> m_Results GUARDED_BY(m_Lock);
};

RvoResultCache::RvoResultCache()
    : d(std::make_unique<Private>())
{
}

RvoResultCache::~RvoResultCache() = default;

bool RvoResultCache::contains(const QString &key) const
{
    if (!isEnabled())
        return false;
    RvoReadLocker locker(d->m_Lock);
    return d->m_Results.contains(key);
}

RvoDataReference RvoResultCache::lookup(const QString &key)
{
    if (!isEnabled())
        return RvoDataReference();
    RvoReadLocker locker(d->m_Lock);
    const auto found = d->m_Results.constFind(key);
    if (found == d->m_Results.constEnd())
        return RvoDataReference();
    // A load and a store, not an increment: a lost count is acceptable.
    m_CacheHits.store(m_CacheHits.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    return found.value();
}

bool RvoResultCache::addResult(const QString &key, RvoDataReference &result)
{
    if (!isEnabled())
        return false;
    {
        RvoReadLocker locker(d->m_Lock);
        if (d->m_Results.contains(key))
            return true; // the first result stays
    }
    RvoWriteLocker locker(d->m_Lock);
    // Checked again: another thread may have stored one meanwhile.
    if (!d->m_Results.contains(key))
        d->m_Results.insert(key, result);
    return true;
}

int RvoResultCache::resultCount() const
{
    RvoReadLocker locker(d->m_Lock);
    return int(d->m_Results.size());
}
