#ifndef RVODATABLOCKMANAGER_H
#define RVODATABLOCKMANAGER_H

#include "RvoDataBlockManagerBase.h"
#include "RvoDataHash.h"
#include "RvoDataReference.h"
#include "RvoDdiGlobal.h"
#include "RvoModifyAccessor.h"

#include <QByteArray>
#include <QList>
#include <QObject>
#include <QString>
#include <QStringList>
#include <QVector>

#include <memory>

class RvoDataBlock;

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
// Locks: the manager's own are internal; docs/ARCHITECTURE.md gives the
// library's lock order. A caller holds none of the library's locks except
// through RvoDataDeleteLocker, which comes first.
class RVODDI_EXPORT RvoDataBlockManager : public QObject, public RvoDataBlockManagerBase
{
public:
    // PreloadPriority (PreloadFirst, PreloadNormal, PreloadBackground) is
    // RvoDataBlockManagerBase's: the priority of a read or save request;
    // queues serve ascending values first.

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

    bool isInitialized() const;
    QStringList cacheRoots() const;
    int numBuckets() const;
    qint64 maxDataCacheSize() const;
    // Sets the budget and the back-pressure limit (a quarter of it); evicts
    // nothing by itself.
    void setMaxDataCacheSize(qint64 size);
    qint64 maxWritePendingSize() const;
    qint64 liveBytes() const;
    // The disk budget: the bytes of block files the roots may hold together;
    // 0 (the default) leaves the disk cache unbounded. Each root's share is
    // the budget divided by the number of roots; its collector thread keeps
    // it there by deleting the least recently used block files (the last use
    // of a file is its modification time) of the sub-caches no other process
    // holds, never one whose digest is live in this process. May be called
    // before setup(); kept across cleanUp().
    void setMaxDiskCacheSize(qint64 bytes);
    qint64 maxDiskCacheSize() const;
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

    // How new block files are written: "zlib" (qCompress's format, the
    // default), "lz4" (the fastest to read, larger files) or "zstd" /
    // "zstd:LEVEL" (Zstandard, as small as zlib's or smaller, faster to read);
    // the README compares them. Every block file of any codec is read
    // whatever the setting, so roots may hold a mix. False, with a message
    // naming the bad part and nothing changed, when `setting` is invalid;
    // empty means zlib. Takes effect for the saves queued from then on; kept
    // across cleanUp(). Without a call, setup() takes the setting from the
    // environment variable RVODDI_BLOCK_CODEC. A block compressed in memory
    // (RvoDataBlock::compress) is written as it is, in zlib.
    bool setBlockCodec(const QString &setting);
    // The setting in its canonical form ("zlib", "lz4", "zstd:2").
    QString blockCodec() const;

    QString subCache() const;
    // Names the sub-cache directory under every root; the threads and the log
    // follow. Refused silently while garbage collection is on. While a
    // sub-cache is current the manager holds it, under every root, for other
    // processes to see (RvoSubCacheLock): it may wait here for another
    // process's collection pass over it to end.
    void setSubCache(const QString &name);
    bool requestPromotionEnabled() const;
    void setRequestPromotionEnabled(bool on);
    // Garbage collection: while on, each root's collector deletes the block
    // files of the current sub-cache whose digests nobody references, in
    // passes made only while no other process holds the sub-cache.
    bool garbageCollecting() const;
    void startGarbageCollection();
    // Switches collection off and returns when no pass is under way.
    void stopGarbageCollection();
    // The collector threads' handshake: a pass asks before it starts
    // (false: it must not collect) and signs off after a permitted one.
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

    // The implementation: the block table, the threads, the locks and the
    // configuration (RvoDataBlockManager_p.h, not installed).
    class Private;

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
    const std::unique_ptr<Private> d;
};

#endif // RVODATABLOCKMANAGER_H
