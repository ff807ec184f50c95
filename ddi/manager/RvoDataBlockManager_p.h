#ifndef RVODATABLOCKMANAGER_P_H
#define RVODATABLOCKMANAGER_P_H

#include "RvoBlockStore_p.h"
#include "RvoConditionVariable_p.h"
#include "RvoDataBlockManager.h"
#include "RvoDdiMutex.h"
#include "RvoDiskHost_p.h"
#include "RvoMutex_p.h"
#include "RvoThreadAnnotations_p.h"

#include <QString>
#include <QStringList>
#include <QVector>

#include <atomic>
#include <functional>
#include <memory>

class RvoBlockTable;
class RvoDataBlockManagerReadThread;
class RvoDataBlockManagerWriteThread;
class RvoGarbageCollectorThread;
class RvoRemoteTier;

// The block manager's state and the work behind its operations. The public
// class forwards to it; the classes below the manager reach it through the
// two interfaces it implements: RvoBlockStore (references, accessors,
// hashing jobs) and RvoDiskHost (the disk threads, handed to each thread
// when it is made).
//
// Operations of the same name as the public class's do what its header
// says. Locks: m_DeleteLock first; m_GcMutex and m_RemoteLock are leaves
// (docs/ARCHITECTURE.md).
class RvoDataBlockManager::Private final : public RvoBlockStore, public RvoDiskHost
{
public:
    explicit Private(RvoDataBlockManager &owner);
    ~Private();

    static Private &of(RvoDataBlockManager &manager) { return *manager.d; }

    // Prints the not-initialized notice when not initialized; carries on.
    void checkInitialized() const;
    bool isInitialized() const { return m_IsInitialized.load(std::memory_order_acquire); }
    int numBuckets() const { return m_NumBuckets.load(std::memory_order_relaxed); }
    qint64 liveBytes() const { return m_LiveBytes.load(std::memory_order_relaxed); }
    qint64 maxWritePendingSize() const
    {
        return m_MaxWritePendingSize.load(std::memory_order_relaxed);
    }
    qint64 maxDiskCacheSize() const { return m_MaxDiskCacheSize.load(std::memory_order_relaxed); }
    bool requestPromotionEnabled() const
    {
        return m_RequestPromotionEnabled.load(std::memory_order_relaxed);
    }

    // Lifecycle and configuration.
    bool setup(const QStringList &roots, qint64 maxCacheSize, int numBuckets);
    void cleanUp();
    QStringList cacheRoots() const;
    void setMaxDataCacheSize(qint64 size);
    void setMaxDiskCacheSize(qint64 bytes);
    qint64 liveBlocks() const;
    void setSubCache(const QString &name);
    void setRequestPromotionEnabled(bool on);
    void dumpStats();
    void dumpThreadStats();

    // Blocks.
    RvoDataReference addBlock(const QByteArray &data, RvoModifyAccessor::Caching caching,
                              bool synchronous);
    RvoDataReference addBlock(RvoDataBlock *block, RvoModifyAccessor::Caching caching,
                              bool synchronous) override;
    RvoDataReference getReference(RvoDataHash *hash) override;
    RvoDataBlock *getDataBlock(RvoDataHash *hash) override REQUIRES(m_DeleteLock);
    void makeBlockLive(RvoDataHash *hash, RvoDataBlock *block) override;
    void blockUsed(RvoDataHash *hash);
    bool isInMemory(RvoDataHash *hash) override;
    void lockBlock(RvoDataHash *hash) override;
    void unlockBlock(RvoDataHash *hash) override;
    bool blockIsLocked(RvoDataHash *hash);
    qint64 blockSize(RvoDataHash *hash);
    void freeBlock(RvoDataHash *hash, bool writeToDisk, bool unlockHash);
    void freeAllBlocks();
    void snapshot(QList<RvoDataReference> &out) const;
    // The last reference of `hash` is being dropped: takes it out of the
    // registry and the block table together and deletes it and its block.
    void releaseLastReference(RvoDataHash *hash);
    // Whether `hash` has a block in memory, without counting it as a use.
    bool holdsBlock(const RvoDataHash *hash) const;
    // The digests in the LRU, most recently used first (for tests).
    QList<RvoDataHash *> lruOrder() const;

    // IO.
    void preloadData(const RvoDataReference &ref,
                     RvoDataBlockManagerBase::PreloadPriority priority) override;
    void processIO();
    bool isWriteThreadsFull();
    void flush(bool writeAll, ThreadType threads);
    void stopAllIoThreads();

    // Garbage collection.
    void startGarbageCollection();
    void stopGarbageCollection();
    void collectGarbage(ProgressReporter *reporter);

    // Where a digest's root and block file are.
    int cacheIndex(const QString &hashText);
    int cacheIndex(const RvoDataHash *hash);
    QString getBlockDestination(const QString &subCache, const QString &hashText);

    // The remote tier.
    bool setRemoteStorage(const QString &spec);
    QString remoteStorage() const;

    // The block codec.
    bool setBlockCodec(const QString &setting);
    // Takes the setting from RVODDI_BLOCK_CODEC unless a host gave one.
    void readBlockCodecFromEnvironment();

    // Copies of the thread vectors, taken under the delete lock.
    QVector<RvoDataBlockManagerWriteThread *> writeThreads() const;
    QVector<RvoDataBlockManagerReadThread *> readThreads() const;
    QVector<RvoGarbageCollectorThread *> collectorThreads() const;

    // RvoBlockStore.
    void lockDeletes() override ACQUIRE(m_DeleteLock) { m_DeleteLock.lock(); }
    void unlockDeletes() override RELEASE(m_DeleteLock) { m_DeleteLock.unlock(); }
    // For the analysis: the caller holds the delete lock through an
    // RvoDataDeleteLocker, whose lock it cannot see.
    void assertDeletesLocked() const ASSERT_CAPABILITY(m_DeleteLock) { }
    qint64 maxDataCacheSize() const override
    {
        return m_MaxDataCacheSize.load(std::memory_order_relaxed);
    }

    // RvoDiskHost.
    void releaseDigest(RvoSmartPointer<RvoDataHash> &hash) override;
    void finishPendingSaves() override;
    bool fetchMissing(const RvoBlockLoad &load) override;
    void blockFilePublished(const QString &path, const QString &fileName, qint64 bytes) override;
    RvoBlockCodecSetting blockCodec() const override;
    bool garbageCollecting() const override
    {
        return m_GarbageCollecting.load(std::memory_order_acquire);
    }
    QString subCache() const override;
    bool garbageCollectingThreadStarted() override;
    void garbageCollectingThreadFinished() override;

    std::atomic<qint64> m_MaxDataCacheSize {2147483648LL};
    std::atomic<qint64> m_MaxWritePendingSize {536870912LL};
    std::atomic<qint64> m_MaxDiskCacheSize {0};
    // Changed under m_DeleteLock, read anywhere.
    std::atomic<qint64> m_LiveBytes {0};
    std::atomic<int> m_NumBuckets {10};
    std::atomic<bool> m_GarbageCollecting {false};
    std::atomic<bool> m_IsInitialized {false};
    std::atomic<bool> m_RequestPromotionEnabled {false};

private:
    // Frees blocks from the back of the LRU until the live bytes are at most
    // 90 % of the budget; victims without a disk copy go to their write
    // thread.
    void evict() REQUIRES(m_DeleteLock);
    // Gives each collector its share of the disk budget.
    void shareDiskBudget() REQUIRES(m_DeleteLock);
    // Some write thread has a save queued or under way.
    bool writesPending() const;
    // The sum of the bytes queued on every write thread.
    qint64 bytesQueuedForWriting() const;
    // The remote tier, or null without one; a caller's copy keeps it alive.
    std::shared_ptr<RvoRemoteTier> remoteTier() const;
    // Makes the remote tier of the current setting (the environment's
    // when none was given) when there is none yet.
    void startRemoteTier();
    // Waits for the uploads queued, then stops the tier.
    void stopRemoteTier();

    RvoDataBlockManager &q;

    // The manager's main lock: the block table, the sub-cache name, the
    // roots and the thread vectors. First in the lock order. Recursive: a
    // manager operation holding it calls others that take it.
    mutable RvoDdiMutex m_DeleteLock {0, RvoDdiMutex::Recursive};
    // Blocks in memory and the LRU. The table owns the blocks.
    const std::unique_ptr<RvoBlockTable> m_Blocks PT_GUARDED_BY(m_DeleteLock);
    QStringList m_CacheRoots GUARDED_BY(m_DeleteLock);
    QString m_SubCache GUARDED_BY(m_DeleteLock);
    // Index i serves m_CacheRoots[i].
    QVector<RvoDataBlockManagerReadThread *> m_ReadThreads GUARDED_BY(m_DeleteLock);
    QVector<RvoDataBlockManagerWriteThread *> m_WriteThreads GUARDED_BY(m_DeleteLock);
    QVector<RvoGarbageCollectorThread *> m_CollectorThreads GUARDED_BY(m_DeleteLock);

    // Guards the running passes and the switches of collection; taken alone
    // or inside the delete lock, never around another lock.
    RvoMutex m_GcMutex;
    // Signalled when the last running pass ends after collection was
    // switched off.
    RvoConditionVariable m_GcCondition;
    int m_RunningCollectors GUARDED_BY(m_GcMutex) = 0;
    // Counts the switches of collection on and off; nothing reads it.
    int m_GcGeneration GUARDED_BY(m_GcMutex) = 0;

    // Guards the remote setting and the tier. A leaf.
    mutable RvoMutex m_RemoteLock;
    QString m_RemoteSpec GUARDED_BY(m_RemoteLock);
    bool m_RemoteSpecGiven GUARDED_BY(m_RemoteLock) = false; // set by setRemoteStorage
    std::shared_ptr<RvoRemoteTier> m_RemoteTier GUARDED_BY(m_RemoteLock);

    // Guards the block codec setting, which every save reads. A leaf.
    mutable RvoMutex m_CodecLock;
    RvoBlockCodecSetting m_BlockCodec GUARDED_BY(m_CodecLock);
    bool m_BlockCodecGiven GUARDED_BY(m_CodecLock) = false; // set by setBlockCodec
};

#endif // RVODATABLOCKMANAGER_P_H
