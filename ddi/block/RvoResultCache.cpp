#include "RvoResultCache.h"

#include <mutex>

bool RvoResultCache::contains(const QString &key) const
{
    if (!isEnabled())
        return false;
    std::shared_lock<std::shared_mutex> locker(m_Lock);
    return m_Results.contains(key);
}

RvoDataReference RvoResultCache::lookup(const QString &key)
{
    if (!isEnabled())
        return RvoDataReference();
    std::shared_lock<std::shared_mutex> locker(m_Lock);
    const auto found = m_Results.constFind(key);
    if (found == m_Results.constEnd())
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
        std::shared_lock<std::shared_mutex> locker(m_Lock);
        if (m_Results.contains(key))
            return true; // the first result stays
    }
    std::unique_lock<std::shared_mutex> locker(m_Lock);
    // Checked again: another thread may have stored one meanwhile.
    if (!m_Results.contains(key))
        m_Results.insert(key, result);
    return true;
}

int RvoResultCache::resultCount() const
{
    std::shared_lock<std::shared_mutex> locker(m_Lock);
    return int(m_Results.size());
}
