#ifndef RVODISKUSAGE_P_H
#define RVODISKUSAGE_P_H

#include "RvoConditionVariable_p.h"
#include "RvoMutex_p.h"

#include <QtGlobal>

#include <atomic>
#include <chrono>

// The bytes of the block files under one cache root, as this process knows
// them, against the root's share of the disk budget; and the wake-up of the
// root's collector thread, which keeps the root within its share.
//
// The count is set by a walk of the root (the collector's trim pass), then
// counted up by the write thread for every file it publishes and down by
// the collector for every file it deletes. Files that other processes write
// or delete meanwhile are seen at the next walk.
//
// Threading: every function may be called from any thread. The counts are
// atomics; m_Lock guards m_Woken only and is a leaf of the library's lock
// order (docs/ARCHITECTURE.md).
class RvoDiskUsage
{
public:
    // A file of `bytes` was published: counts it and wakes the collector
    // when the root passes the point of its next trim.
    void added(qint64 bytes);
    void removed(qint64 bytes) { m_Bytes.fetch_sub(bytes, std::memory_order_relaxed); }
    // The bytes a walk found; the count is known from now on.
    void reset(qint64 bytes);
    // -1 until a walk has counted the root.
    qint64 bytes() const { return m_Bytes.load(std::memory_order_relaxed); }
    bool known() const { return m_Known.load(std::memory_order_acquire); }

    // The root's share of the budget (0: unbounded). Forgets the count, so
    // that the collector walks the root again, and wakes it.
    void setShare(qint64 share);
    qint64 share() const { return m_Share.load(std::memory_order_relaxed); }
    // The next trim is due when the bytes pass `bytes` (at least the share:
    // above it after a trim that could not get below the share, so that
    // every save does not start a walk that cannot help).
    void setNextTrim(qint64 bytes) { m_NextTrim.store(bytes, std::memory_order_relaxed); }
    // A trim pass is due: the count is unknown or past the trim point.
    bool trimDue() const;

    // Wakes a sleep() now, or makes the next one return at once.
    void wake();
    // Sleeps until woken, or for `timeout` (negative: no limit).
    void sleep(std::chrono::milliseconds timeout);

private:
    std::atomic<qint64> m_Bytes {-1};
    std::atomic<bool> m_Known {false};
    std::atomic<qint64> m_Share {0};
    std::atomic<qint64> m_NextTrim {0};
    RvoMutex m_Lock;
    RvoConditionVariable m_Wake;
    bool m_Woken GUARDED_BY(m_Lock) = false;
};

#endif // RVODISKUSAGE_P_H
