#ifndef RVODATABLOCKMANAGER_H
#define RVODATABLOCKMANAGER_H

#include "RvoDataHash.h"
#include "RvoDdiGlobal.h"
#include "RvoDdiMutex.h"
#include "RvoModifyAccessor.h"
#include "RvoSmartPointer.h"

#include <QByteArray>
#include <QList>
#include <QObject>
#include <QString>
#include <QStringList>
#include <QVector>

#include <QVector>

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>

class RvoBlockTable;
class RvoDataBlock;
class RvoDataReference;
class RvoDataBlockManagerReadThread;
class RvoDataBlockManagerWriteThread;
class RvoDataDeleteLocker;
class RvoGarbageCollectorThread;
class RvoRemoteTier;

// The one object through which every data block lives: the blocks in
// memory, keyed by their interned digest; the memory budget and the
// least-recently-used order in which unpinned blocks leave memory; the disk
// cache roots, each with one write thread and one read thread; and the
// orchestration of their IO.
//
// A block's states: building (a modify accessor's private block) -> hashing
// (an asynchronous add) -> live and evictable (in memory, in the LRU) <->
// live and pinned (a const accessor holds it) ; live and evictable -> being
// written (evicted before its disk copy was done) -> on disk only -> live
// again when used or preloaded. Don't-cache blocks stay live, never in the
// LRU, never on disk. A block leaves for good when its digest's last
// reference goes.
//
// Threading: setup(), cleanUp(), setMaxDataCacheSize() and the plain
// accessors are configuration calls for the controlling thread, made while no
// other thread uses the manager. Every other operation may be called from
// any thread. The instance is made on first use; the first call is to come
// from one thread before others use the library.
//
// Lock order of the library (a lock may be taken while holding only locks
// listed above it; none is held while waiting for a thread to end):
//   1. the manager's delete lock (m_DeleteLock, recursive), which also
//      guards the block table and its LRU;
//   2. a block's accessor mutex (RvoDataBlock::m_Mutex);
//   3. a digest's own lock (RvoDataHash::m_Lock), then the block-file lock
//      (blockFileLock(), RvoDiskLayout_p.h), then the registry lock
//      (RvoHashManager::m_Lock); the registry never takes a digest's lock,
//      and the block-file lock's holders take only the registry lock;
//   4. an IO thread's queue lock (write and read threads' m_Lock), a leaf:
//      nothing is called out of the thread while it is held;
//   5. the write threads' background block saver's lock
//      (RvoBlockSaver::m_Lock), a leaf;
//   6. the buffer pool's lock (RvoBufferPool::m_Lock), a leaf;
//   7. the log's file lock (RvoDdiLog::m_Lock), a leaf;
//   8. a root's disk-usage lock (RvoDiskUsage::m_Lock), a leaf;
//   9. the manager's remote-tier lock (m_RemoteLock), a leaf;
//  10. a remote's upload queue lock (RvoRemote::m_Lock), a leaf;
//  11. a remote client's connection pool lock (RvoConnectionPool::m_Lock),
//      a leaf: no connection is opened, used or closed while it is held.
// No lock of this list is held while a remote server is called.
// A collector thread's lock (RvoGarbageCollectorThread::m_Lock) sits between
// 1 and 3: setSubCache takes it inside the delete lock, and a pass holding
// it takes only the block-file lock and the registry lock (to ask whether a
// digest is live and delete its file as one step), never the delete lock,
// a block's or a digest's lock.
// Outside this order, a sub-cache's lock file (RvoSubCacheLock, an flock
// shared with other processes): setup and setSubCache take it shared before
// the delete lock, because it may wait for another process's pass; a pass
// turns it exclusive only without waiting.
// A digest's last release takes the delete lock, then the digest's lock,
// then the registry lock, and takes the digest out of the registry and the
// block table in one step: no manager operation ever sees a digest whose
// last reference is gone. A release that is not the last takes only the
// digest's lock. An IO thread takes the delete lock only with its own lock
// released.
class RVODDI_EXPORT RvoDataBlockManager : public QObject
{
public:
    // The priority of a read request, and of a save request. Queues serve
    // ascending values first.
    enum PreloadPriority { PreloadFirst = 0, PreloadNormal = 1, PreloadBackground = 2 };

    // Which thread families an operation affects (bit flags).
    enum ThreadType {
        ReadThreads = 2,
        WriteThreads = 4,
        GarbageCollectorThreads = 8,
        AllThreads = 14
    };

    // Implemented by the caller of collectGarbage() to follow its progress.
    class RVODDI_EXPORT ProgressReporter
    {
    public:
        virtual ~ProgressReporter();
        virtual void startProgress(const QString &title, int total) = 0;
        virtual void finishProgress() = 0;
        // Called once per directory visited; `done` may end above `total`.
        virtual void setProgress(int done, const QString &text) = 0;
    };

    static RvoDataBlockManager &instance();
    ~RvoDataBlockManager() override;

    // Configures the cache and starts one write and one read thread per root.
    // maxCacheSize -1 keeps the current budget. A second call is reported and
    // configures again, adding a further set of threads. Always returns true.
    bool setup(const QStringList &roots, qint64 maxCacheSize, int numBuckets);
    static qint64 defaultCacheSize() { return 2147483648LL; }

    bool isInitialized() const { return m_IsInitialized.load(std::memory_order_acquire); }
    QStringList cacheRoots() const { return m_CacheRoots; }
    int numBuckets() const { return m_NumBuckets.load(std::memory_order_relaxed); }
    qint64 maxDataCacheSize() const { return m_MaxDataCacheSize.load(std::memory_order_relaxed); }
    // Sets the budget and the back-pressure limit (a quarter of it); evicts
    // nothing by itself.
    void setMaxDataCacheSize(qint64 size);
    qint64 maxWritePendingSize() const
    {
        return m_MaxWritePendingSize.load(std::memory_order_relaxed);
    }
    qint64 liveBytes() const { return m_LiveBytes.load(std::memory_order_relaxed); }
    // The disk budget: the bytes of block files the roots may hold together;
    // 0 (the default) leaves the disk cache unbounded. Each root's share is
    // the budget divided by the number of roots; its collector thread keeps
    // it there by deleting the least recently used block files (the last use
    // of a file is its modification time) of the sub-caches no other process
    // holds, never one whose digest is live in this process. May be called
    // before setup(); kept across cleanUp().
    void setMaxDiskCacheSize(qint64 bytes);
    qint64 maxDiskCacheSize() const { return m_MaxDiskCacheSize.load(std::memory_order_relaxed); }
    // Blocks in memory.
    qint64 liveBlocks() const;
    // Digests known to the registry.
    qint64 managedBlocks() const;

    // The remote tier below the disk cache: HTTP servers that take PUT and
    // GET, and Redis servers, where blocks missing from the roots are looked
    // for and where the block files written are uploaded, so that machines
    // share them. `spec` is a space-separated list of URLs with
    // '|'-separated attributes (README, "Sharing blocks between machines");
    // empty: no remote tier. False, with a message naming the bad part and
    // nothing changed, when it is invalid. Takes effect at once when set up,
    // otherwise at setup(); kept across cleanUp(). Without a call, setup()
    // takes the setting from the environment variable
    // RVODDI_REMOTE_STORAGE. A configuration call.
    bool setRemoteStorage(const QString &spec);
    QString remoteStorage() const;

    QString subCache() const;
    // Names the sub-cache directory under every root; the threads and the log
    // follow. Refused silently while garbage collection is on. While a
    // sub-cache is current the manager holds it, under every root, for other
    // processes to see (RvoSubCacheLock): it may wait here for another
    // process's collection pass over it to end.
    void setSubCache(const QString &name);
    bool requestPromotionEnabled() const
    {
        return m_RequestPromotionEnabled.load(std::memory_order_relaxed);
    }
    void setRequestPromotionEnabled(bool on);
    // Garbage collection: while on, each root's collector deletes the block
    // files of the current sub-cache whose digests nobody references, in
    // passes made only while no other process holds the sub-cache.
    bool garbageCollecting() const { return m_GarbageCollecting.load(std::memory_order_acquire); }
    void startGarbageCollection();
    // Switches collection off and returns when no pass is under way.
    void stopGarbageCollection();
    // A collector asks before a pass (false: it must not collect) and signs
    // off after a permitted one.
    bool garbageCollectingThreadStarted();
    void garbageCollectingThreadFinished();
    // One pass over every root on the calling thread (when collection is
    // on), reporting the directories visited; reporter may be null.
    void collectGarbage(ProgressReporter *reporter);

    void validateState();
    void dumpStats();
    void dumpThreadStats();
    // Stops and deletes the threads, deletes every block and resets the
    // configuration. Nothing when not initialized.
    void cleanUp();

    // Adds a block of `data` (shared, not copied). CacheContent: named by
    // its content digest, computed on the thread pool (the reference is
    // pending) or, with synchronous, at once. DontCache: a name of its own.
    RvoDataReference addBlock(const QByteArray &data, RvoModifyAccessor::Caching caching,
                              bool synchronous);
    // A new, unnamed block of `size` bytes of `fill` to write into.
    RvoModifyAccessor createNewBlock(qint64 size, uchar fill);
    // A reference to `hash` (counted); the block is not loaded.
    RvoDataReference getReference(RvoDataHash *hash);
    // Whether the block is in memory; asking counts as a use.
    bool isInMemory(RvoDataHash *hash);
    // The block's size, loading it when it is on disk only; 0 without one.
    qint64 blockSize(RvoDataHash *hash);
    // Saves and frees every block that no accessor holds.
    void freeAllBlocks();
    // Appends a reference to every known digest to `out`.
    void snapshot(QList<RvoDataReference> &out) const;

    // Stores the members' digests, in order, as one block (hashed on the
    // thread pool: the reference is pending). Equal member lists give equal
    // groups. A null member, or members of different digest sizes, give a
    // null reference.
    RvoDataReference makeGroupBlock(const QVector<RvoDataReference> &members);
    // The members of a group block, in order; empty when `group` is not a
    // well-formed group block.
    QVector<RvoDataReference> extractGroupBlock(const RvoDataReference &group);

    // Brings the block of `ref` into memory on its root's read thread, or
    // refreshes its LRU place when it is in memory already.
    void preloadData(const RvoDataReference &ref, PreloadPriority priority);
    // Back-pressure for producers: sleeps the caller a second at a time
    // while the bytes queued for writing are at or above a quarter of the
    // budget. Returns at once when nothing is queued. Saves the disk refuses
    // stay queued and count, so producers are held while a disk is full.
    void processIO();
    bool isWriteThreadsFull();
    // Asks the chosen thread families to finish their queues; with writeAll,
    // also queues every in-memory block that has no disk copy yet, so that
    // after flush(true, AllThreads) every block is on disk. A save the disk
    // refuses (full, failing, not writable) does not hold a flush forever:
    // the write threads return once every pending save has been tried at
    // least once since the call began, and the refused ones stay queued.
    // flush(true, AllThreads) also waits for the uploads to the remote tier
    // (each at most its operation timeout; not those to a server in its
    // pause after a failure).
    void flush(bool writeAll, ThreadType threads);

    // The full path of the block file of the digest named by `hashText`
    // under `subCache`; empty when the digest maps to no root.
    QString getBlockDestination(const QString &subCache, const QString &hashText);
    // Whether the sub-cache directory exists (under the first root).
    bool subCacheExists(const QString &name);

protected:
    RvoDataBlockManager();

    // Takes ownership of `block` and adds it as addBlock(QByteArray) does.
    RvoDataReference addBlock(RvoDataBlock *block, RvoModifyAccessor::Caching caching,
                              bool synchronous);
    // The block of `hash`, loaded from disk when needed; null when there is
    // none. REQUIRES: the delete lock held; it is let go while the disk is
    // read, so state read before the call may have changed.
    RvoDataBlock *getDataBlock(RvoDataHash *hash);
    // Takes charge of `block` as the block of `hash` (deleting it when the
    // digest already has a block in memory), evicts down to 90 % of the
    // budget when the budget is exceeded, and queues the disk copy.
    void makeBlockLive(RvoDataHash *hash, RvoDataBlock *block);
    // Moves an evictable block to the front of the LRU.
    void blockUsed(RvoDataHash *hash);
    // Releases the block of `hash` from memory: saved first (and deleted by
    // the write thread) when writeToDisk is set and it has no disk copy yet,
    // deleted at once otherwise. With unlockHash, unlocks the digest's lock
    // that the caller holds. Nothing when not initialized.
    void freeBlock(RvoDataHash *hash, bool writeToDisk, bool unlockHash);
    // Pins and unpins a block (pins do not nest).
    void lockBlock(RvoDataHash *hash);
    void unlockBlock(RvoDataHash *hash);
    // True unless the block is in memory and evictable.
    bool blockIsLocked(RvoDataHash *hash);

private:
    friend void rvoReleaseLastReference(RvoDataHash *hash);
    friend class RvoConstAccessor;
    friend class RvoDataDeleteLocker;
    friend class RvoDataReference;
    friend class RvoHashingJob;
    friend class RvoModifyAccessor;
    friend class RvoDataBlockManagerReadThread;
    friend class RvoDataBlockManagerWriteThread;
    friend class RvoGarbageCollectorThread;
    friend class RvoDataBlockManagerTestAccess;

    void lockDeletes() { m_DeleteLock.lock(); }
    void unlockDeletes() { m_DeleteLock.unlock(); }

    // The last reference of `hash` is being dropped: takes it out of the
    // registry and the block table together and deletes it and its block.
    void releaseLastReference(RvoDataHash *hash);
    // Frees blocks from the back of the LRU until the live bytes are at most
    // 90 % of the budget; victims without a disk copy go to their write
    // thread. REQUIRES: the delete lock held.
    void evict();

    // The root whose threads serve a digest, by the digit sum of the first
    // four characters of its text form; negative or out of range when none.
    int cacheIndex(const QString &hashText);
    int cacheIndex(const RvoDataHash *hash);

    void stopAllIoThreads();
    // The remote tier, or null without one; a caller's copy keeps it alive.
    std::shared_ptr<RvoRemoteTier> remoteTier() const;
    // Makes the remote tier of the current setting (the environment's
    // when none was given) when there is none yet.
    void startRemoteTier();
    // Waits for the uploads queued, then stops the tier.
    void stopRemoteTier();
    // Gives each collector its share of the disk budget. REQUIRES: the
    // delete lock held.
    void shareDiskBudget();
    // Some write thread has a save queued or under way.
    bool writesPending() const;
    // The sum of the bytes queued on every write thread.
    qint64 bytesQueuedForWriting() const;
    // Prints the not-initialized notice when not initialized; carries on.
    void checkInitialized() const;
    // Copies of the thread vectors, taken under the delete lock.
    QVector<RvoDataBlockManagerWriteThread *> writeThreads() const;
    QVector<RvoDataBlockManagerReadThread *> readThreads() const;
    QVector<RvoGarbageCollectorThread *> collectorThreads() const;

    // Blocks in memory and the LRU, guarded by m_DeleteLock. The table owns
    // the blocks.
    std::unique_ptr<RvoBlockTable> m_Blocks;
    QStringList m_CacheRoots;
    std::atomic<qint64> m_MaxDataCacheSize {2147483648LL};
    std::atomic<qint64> m_MaxWritePendingSize {536870912LL};
    std::atomic<qint64> m_MaxDiskCacheSize {0};
    // Changed under m_DeleteLock, read anywhere.
    std::atomic<qint64> m_LiveBytes {0};
    std::atomic<int> m_NumBuckets {10};
    std::atomic<bool> m_GarbageCollecting {false};
    QString m_SubCache; // guarded by m_DeleteLock
    std::atomic<bool> m_IsInitialized {false};
    std::atomic<bool> m_RequestPromotionEnabled {false};
    // Index i serves m_CacheRoots[i]. Changed under m_DeleteLock.
    QVector<RvoDataBlockManagerReadThread *> m_ReadThreads;
    QVector<RvoDataBlockManagerWriteThread *> m_WriteThreads;
    QVector<RvoGarbageCollectorThread *> m_CollectorThreads;
    // Guards m_RunningCollectors and the changes of m_GarbageCollecting and
    // m_GcGeneration; taken alone or inside the delete lock, never around
    // another lock.
    std::mutex m_GcMutex;
    // Signalled when the last running pass ends after collection was
    // switched off.
    std::condition_variable m_GcCondition;
    int m_RunningCollectors = 0;
    int m_GcGeneration = 0; // counts switches on and off; nothing reads it
    // Guards m_RemoteSpec, m_RemoteSpecGiven and m_RemoteTier. Lock order: a
    // leaf (item 9 above).
    mutable std::mutex m_RemoteLock;
    QString m_RemoteSpec;
    bool m_RemoteSpecGiven = false; // set by setRemoteStorage
    std::shared_ptr<RvoRemoteTier> m_RemoteTier;
    // The manager's main lock: block-map changes, the sub-cache name and the
    // thread vectors. First in the lock order.
    mutable RvoDdiMutex m_DeleteLock {0, RvoDdiMutex::Recursive};
};

// addBlock and its kin return references by value.
#include "RvoDataReference.h"

#endif // RVODATABLOCKMANAGER_H
