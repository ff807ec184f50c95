#ifndef RVODATABLOCKMANAGERWRITETHREAD_P_H
#define RVODATABLOCKMANAGERWRITETHREAD_P_H

#include "RvoBlockCodec_p.h"
#include "RvoBlockSaver_p.h"
#include "RvoConditionVariable_p.h"
#include "RvoDataBlockManagerBase.h"
#include "RvoDataBlockSaveRequest_p.h"
#include "RvoMutex_p.h"

#include <QList>
#include <QPair>
#include <QString>
#include <QThread>

#include <atomic>
#include <chrono>
#include <deque>
#include <memory>

class RvoDiskHost;
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
// A save the file system refuses (a full disk, an IO error, no permission)
// is never marked saved, and its block is never let go of as if it were on
// disk: the save stays queued, its bytes still count as queued (so the
// manager's back-pressure holds producers back while the disk is full), and
// it is tried again after a pause that grows from 1 s to 30 s. A refused save
// whose digest nobody but the save holds any more is dropped: no one can ask
// for its block again. The refusals are reported once per episode, and once
// more when saves succeed again, not once per block.
//
// Threading: writeBlock(), the queries, flush(), closeDown() and
// setSubCache() may be called from any thread; run() and handleRequest()
// are the thread's own. The queue lock is a leaf of the library's lock order
// (docs/ARCHITECTURE.md): handleRequest takes the manager's delete lock only
// with the queue lock released.
class RvoDataBlockManagerWriteThread : public QThread
{
public:
    RvoDataBlockManagerWriteThread(RvoDiskHost &host, const QString &root, int bucketCount,
                                   int maxRequests, QObject *parent);
    // Frees the queued requests; their blocks are not deleted.
    ~RvoDataBlockManagerWriteThread() override;

    // Queues a save of `block` under `hash`. A block that is on disk already
    // is not queued (and deleted at once when deleteAfterWrite is set). With
    // deleteAfterWrite the thread owns the block and deletes it after saving.
    void writeBlock(RvoDataBlockManagerBase::PreloadPriority priority,
                    RvoSmartPointer<RvoDataHash> hash, RvoDataBlock *block, bool deleteAfterWrite);

    // No save is queued or being written.
    bool isIdle() const;
    // Fewer than maxRequests saves are queued.
    bool canServiceRequests() const;
    int requests() const;
    int requestsHandled() const { return m_RequestsHandled.load(std::memory_order_relaxed); }
    qint64 bytesWritten() const { return m_BytesWritten.load(std::memory_order_relaxed); }
    // The sum of the sizes of the queued blocks.
    qint64 bytesInQueue() const;

    // Returns when every save queued has been tried at least once since the
    // call began (saves waiting for a retry are tried again at once) and no
    // save is in progress; at once when the thread is not running. With a
    // working disk that is when the queue is empty; on a full disk it returns
    // with the refused saves still queued, so a flush never waits for space.
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

    // Saves of this root are being refused: from a refused save until one
    // succeeds again.
    bool savesRefused() const { return m_Refusing.load(std::memory_order_relaxed); }
    // Attempts the file system refused, over the thread's life.
    int refusedAttempts() const { return m_RefusedAttempts.load(std::memory_order_relaxed); }
    // Saves taken off the queue for good (saved, found, dropped), over the
    // thread's life.
    quint64 savesRetired() const { return m_SavesRetired.load(std::memory_order_acquire); }
    // A new raw copy of the block a queued or running save of `hash` holds,
    // or null when there is none. A block whose save is refused exists
    // nowhere else, so a read must get it here. The caller owns the copy.
    RvoDataBlock *queuedCopy(const RvoDataHash *hash) const;

    // The pause before the first retry of a refused save and the longest one
    // (1 s and 30 s); tests shorten them. Call before the thread starts.
    void setRetryPauses(std::chrono::milliseconds first, std::chrono::milliseconds longest);

protected:
    void run() override;
    // Saves one block file. Runs without the queue lock. Returns the outcome;
    // the request is left alone when the file system refused the save.
    RvoBlockSaver::Outcome handleRequest(RvoDataBlockSaveRequest &request,
                                         const RvoBlockSaver::JobPtr &job = {});

private:
    using Clock = std::chrono::steady_clock;

    struct Entry
    {
        int priority;
        qint64 size; // the block's size when queued
        RvoDataBlockSaveRequest request;
        // The save being done in the background; null when the block is
        // compressed in memory already, and after the first attempt.
        RvoBlockSaver::JobPtr job;
        int refusals = 0; // attempts the file system refused
        Clock::time_point retryAt {}; // when a refused save is tried again
        quint64 triedInFlush = 0; // m_FlushSerial when it was last tried
        // Its size stays in m_BytesInQueue while it is tried: taken while
        // saves are refused, so that producers stay held back.
        bool countedWhileTried = false;
    };

    // Lets go of a request's block: deletes it when the request owns it, or
    // when the manager gave it up while the save was queued.
    static void finishWith(RvoDataBlockSaveRequest &request);
    // finishWith(), then releases the request's digest inside the manager's
    // delete lock (a last release retires the digest, which reaches the
    // manager's tables). Call without the queue lock.
    void retire(RvoDataBlockSaveRequest &request);
    // The entry to save next, taken out of the queue, or the queue's end when
    // none is due; moves refused saves nobody else refers to into `dropped`
    // and sets `wakeAt` to when the next refused save is due.
    std::deque<Entry>::iterator nextDue(std::deque<Entry> &dropped, Clock::time_point *wakeAt)
            REQUIRES(m_Lock);
    // Puts a refused save back in the queue, ahead of the saves of its
    // priority, to be tried after its pause. True when it begins an episode
    // of refusals (the caller reports it, without the lock): an attempt
    // begun before saves succeeded again (a background save that failed
    // while the disk was still full) begins none.
    bool park(Entry &&entry, Clock::time_point attemptedAt) REQUIRES(m_Lock);
    // Whether a flush that began as `serial` may return.
    bool flushed(quint64 serial) const REQUIRES(m_Lock);

    RvoDiskHost &m_Host;
    const QString m_Root;
    // Lock order: a leaf (docs/ARCHITECTURE.md).
    mutable RvoMutex m_Lock;
    // Signalled when a save is queued, taken or finished, and on closeDown.
    RvoConditionVariable m_Changed;
    QString m_SubCache GUARDED_BY(m_Lock);
    const int m_MaxRequests;
    const int m_BucketCount;
    bool m_Closing GUARDED_BY(m_Lock) = false;
    // A save taken from the queue is being written.
    bool m_Busy GUARDED_BY(m_Lock) = false;
    const Entry *m_Current GUARDED_BY(m_Lock) = nullptr; // that save, while m_Busy
    // Flushes begun; entries remember the last they saw.
    quint64 m_FlushSerial GUARDED_BY(m_Lock) = 0;
    std::chrono::milliseconds m_FirstRetryPause GUARDED_BY(m_Lock) {1000};
    std::chrono::milliseconds m_LongestRetryPause GUARDED_BY(m_Lock) {30000};
    std::atomic<bool> m_Refusing {false};
    // When saves last succeeded again.
    Clock::time_point m_RecoveredAt GUARDED_BY(m_Lock) {};
    std::atomic<int> m_RefusedAttempts {0};
    std::atomic<quint64> m_SavesRetired {0};
    std::atomic<int> m_RequestsHandled {0};
    std::atomic<qint64> m_BytesWritten {0};
    qint64 m_BytesInQueue GUARDED_BY(m_Lock) = 0;
    // Queued saves that were refused before, so that a queue with none (the
    // usual case) is not searched for them on every save.
    int m_ParkedInQueue GUARDED_BY(m_Lock) = 0;
    std::deque<Entry> m_Queue GUARDED_BY(m_Lock); // front first
    // The thread's own compressor, for the saves the background workers do
    // not do (no workers, exit, a sub-cache changed); used only by run().
    RvoBlockCodec m_Codec;
    std::shared_ptr<RvoDiskUsage> m_DiskUsage; // set before start, then read only
};

#endif // RVODATABLOCKMANAGERWRITETHREAD_P_H
