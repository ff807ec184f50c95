#ifndef RVODATABLOCKMANAGERREADTHREAD_P_H
#define RVODATABLOCKMANAGERREADTHREAD_P_H

#include "RvoConditionVariable_p.h"
#include "RvoDataBlockManagerBase.h"
#include "RvoDataHash.h"
#include "RvoMutex_p.h"
#include "RvoSmartPointer.h"

#include <QFuture>
#include <QFutureInterface>
#include <QList>
#include <QPair>
#include <QString>
#include <QThread>

#include <atomic>
#include <deque>
#include <memory>

class RvoDataBlock;
class RvoDiskHost;
class RvoDiskUsage;

// Brings the blocks of one cache root back from their block files.
//
// Preloads: request() queues a digest by priority (ascending value first,
// first come first served within one; background requests are dropped when
// the queue is long), and the thread loads it and makes it live in the
// manager. Direct loads: loadBlock() reads the file on the calling thread.
// Either way the payload is decoded on the global thread pool. A block file
// missing from the root is asked of the manager's host (the remote tier),
// which completes the load when it finds the file.
//
// A block file that RvoBlockFile does not find sound (lengths that lie, a
// payload that does not decode to exactly its recorded size) is corrupt: it
// is reported, deleted (so that a later write of the same content can
// replace it) and yields no block at once, without waiting for more bytes.
//
// Threading: every public operation may be called from any thread; run() is
// the thread's own. The queue lock is a leaf of the library's lock order
// (docs/ARCHITECTURE.md): digest references are taken and dropped outside
// it, and nothing is called out of the thread while it is held.
class RvoDataBlockManagerReadThread : public QThread
{
public:
    RvoDataBlockManagerReadThread(RvoDiskHost &host, const QString &root, int bucketCount,
                                  int maxRequests, QObject *parent);
    ~RvoDataBlockManagerReadThread() override;

    // Queues a preload of `hash`, or, with promotion enabled, moves a queued
    // one a step toward the front. A digest marked as preloading is not
    // queued twice.
    void request(RvoDataHash *hash, RvoDataBlockManagerBase::PreloadPriority priority);

    // Reads the block file of `hash` on the calling thread and decodes it on
    // the thread pool. The future is canceled, with no result, when the file
    // is missing, short or corrupt. With makeLive the block is handed to the
    // manager and the future's result is null; otherwise the result is the
    // new block, owned by the caller (see waitForBlock).
    // `priority` orders the load among others when the file must be fetched.
    QFuture<RvoDataBlock *> loadBlock(const RvoSmartPointer<RvoDataHash> &hash, bool makeLive,
                                      int priority = RvoDataBlockManagerBase::PreloadFirst);

    // Waits for a loadBlock future: the block, or null when there is none.
    static RvoDataBlock *waitForBlock(QFuture<RvoDataBlock *> future);

    // Drops every queued preload (their preloading marks stay set).
    void killRequests();
    // Returns when the queue is empty (at once when the thread is not
    // running).
    void flush();
    // Waits for the queue to drain, then asks the loop to end.
    void closeDown();

    int requests() const;
    int requestsHandled() const { return m_RequestsHandled.load(std::memory_order_relaxed); }
    // The sum of the recorded sizes of the files read.
    qint64 bytesRead() const { return m_BytesRead.load(std::memory_order_relaxed); }
    bool requestPromotionEnabled() const
    {
        return m_PromotionEnabled.load(std::memory_order_relaxed);
    }
    void setRequestPromotionEnabled(bool on)
    {
        m_PromotionEnabled.store(on, std::memory_order_relaxed);
    }
    void setSubCache(const QString &name);
    QString subCache() const;
    // Where the bytes of the files fetched from remotes and published here
    // are counted. Set before the thread starts.
    void setDiskUsage(std::shared_ptr<RvoDiskUsage> usage) { m_DiskUsage = std::move(usage); }

    // The queue, front first, as (priority, digest) pairs.
    QList<QPair<int, RvoDataHash *>> queuedRequests() const;

protected:
    void run() override;

private:
    struct Entry
    {
        int priority;
        RvoSmartPointer<RvoDataHash> hash;
    };

    RvoDiskHost &m_Host;
    const QString m_Root;
    // Lock order: a leaf (docs/ARCHITECTURE.md).
    mutable RvoMutex m_Lock;
    // Signalled when a request is queued or taken, and on closeDown.
    RvoConditionVariable m_Changed;
    bool m_Closing GUARDED_BY(m_Lock) = false;
    QString m_SubCache GUARDED_BY(m_Lock);
    const int m_BucketCount;
    const int m_MaxRequests;
    std::atomic<int> m_RequestsHandled {0};
    std::atomic<qint64> m_BytesRead {0};
    std::deque<Entry> m_Queue GUARDED_BY(m_Lock); // front first
    std::atomic<bool> m_PromotionEnabled {false};
    std::atomic<qint64> m_PromotionCount {0};
    std::shared_ptr<RvoDiskUsage> m_DiskUsage; // set before start, then read only
};

#endif // RVODATABLOCKMANAGERREADTHREAD_P_H
