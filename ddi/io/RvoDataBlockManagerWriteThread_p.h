#ifndef RVODATABLOCKMANAGERWRITETHREAD_P_H
#define RVODATABLOCKMANAGERWRITETHREAD_P_H

#include "RvoBlockCodec_p.h"
#include "RvoBlockSaver_p.h"
#include "RvoDataBlockManager.h"
#include "RvoDataBlockSaveRequest_p.h"

#include <QList>
#include <QPair>
#include <QString>
#include <QThread>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>

class RvoDiskUsage;

// Writes the blocks of one cache root into block files, in the background,
// in the order of a priority queue (ascending priority, first come first
// served within one). The thread sleeps on a condition while it has nothing
// to do; enqueueing, taking and finishing a request wake the waiters.
//
// The files themselves are usually compressed and written ahead of their
// turn by the shared background saver (RvoBlockSaver_p.h): the thread keeps
// the order, marks each block saved and lets go of it and its digest.
//
// Threading: writeBlock(), the queries, flush(), closeDown() and
// setSubCache() may be called from any thread; run() and handleRequest()
// are the thread's own. The queue lock is a leaf of the library's lock order
// (RvoDataBlockManager.h): handleRequest takes the manager's delete lock only
// with the queue lock released.
class RvoDataBlockManagerWriteThread : public QThread
{
public:
    RvoDataBlockManagerWriteThread(const QString &root, int bucketCount, int maxRequests,
                                   QObject *parent);
    // Frees the queued requests; their blocks are not deleted.
    ~RvoDataBlockManagerWriteThread() override;

    // Queues a save of `block` under `hash`. A block that is on disk already
    // is not queued (and deleted at once when deleteAfterWrite is set). With
    // deleteAfterWrite the thread owns the block and deletes it after saving.
    void writeBlock(RvoDataBlockManager::PreloadPriority priority,
                    RvoSmartPointer<RvoDataHash> hash, RvoDataBlock *block, bool deleteAfterWrite);

    // Fewer than maxRequests saves are queued.
    bool canServiceRequests() const;
    int requests() const;
    int requestsHandled() const { return m_RequestsHandled.load(std::memory_order_relaxed); }
    qint64 bytesWritten() const { return m_BytesWritten.load(std::memory_order_relaxed); }
    // The sum of the sizes of the queued blocks.
    qint64 bytesInQueue() const;

    // Returns when the queue is empty and no save is in progress (at once
    // when the thread is not running).
    void flush();
    // Asks the loop to end; saves still queued are not written. Returns at
    // once.
    void closeDown();

    void setSubCache(const QString &name);
    // Where the bytes of the files this thread publishes are counted (the
    // root's collector keeps the root within its disk budget). Set before
    // the thread starts.
    void setDiskUsage(std::shared_ptr<RvoDiskUsage> usage) { m_DiskUsage = std::move(usage); }
    QString subCache() const;

    // The queue, front first, as (priority, digest) pairs.
    QList<QPair<int, RvoDataHash *>> queuedRequests() const;

protected:
    void run() override;
    // Saves one block file. Runs without the queue lock.
    void handleRequest(RvoDataBlockSaveRequest &request, const RvoBlockSaver::JobPtr &job = {});

private:
    struct Entry
    {
        int priority;
        qint64 size; // the block's size when queued
        RvoDataBlockSaveRequest request;
        // The save being done in the background; null when the block is
        // compressed in memory already.
        RvoBlockSaver::JobPtr job;
    };

    // Lets go of a request's block: deletes it when the request owns it, or
    // when the manager gave it up while the save was queued.
    static void finishWith(RvoDataBlockSaveRequest &request);

    const QString m_Root;
    // Guards m_SubCache, m_Queue, m_BytesInQueue, m_Closing and m_Busy.
    // Lock order: a leaf (see RvoDataBlockManager.h).
    mutable std::mutex m_Lock;
    // Signalled when a save is queued, taken or finished, and on closeDown.
    std::condition_variable m_Changed;
    QString m_SubCache;
    const int m_MaxRequests;
    const int m_BucketCount;
    bool m_Closing = false;
    bool m_Busy = false; // a save taken from the queue is being written
    std::atomic<int> m_RequestsHandled {0};
    std::atomic<qint64> m_BytesWritten {0};
    qint64 m_BytesInQueue = 0;
    std::deque<Entry> m_Queue; // front first
    // The thread's own compressor, for the saves the background workers do
    // not do (no workers, exit, a sub-cache changed); used only by run().
    RvoBlockCodec m_Codec;
    std::shared_ptr<RvoDiskUsage> m_DiskUsage; // set before start, then read only
};

#endif // RVODATABLOCKMANAGERWRITETHREAD_P_H
