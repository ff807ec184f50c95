#ifndef RVOGARBAGECOLLECTORTHREAD_P_H
#define RVOGARBAGECOLLECTORTHREAD_P_H

#include "RvoSharedMutex_p.h"
#include "RvoSubCacheLock_p.h"

#include <QString>
#include <QThread>

#include <atomic>
#include <functional>
#include <memory>

class RvoDiskHost;
class RvoDiskUsage;

// Looks after the block files of one root.
//
// Collection: deletes the block files whose digests are no longer live in
// the hash registry, inside the current sub-cache only. Only files named
// like a 64-byte digest's text form (exactly 15 "-") are candidates;
// temporary files that a killed writer left behind are deleted once they are
// over an hour old. While collection is on it makes a pass every tenth of a
// second. A pass that is not permitted touches neither the file system nor
// any manager lock.
//
// Sub-caches shared between processes: the thread holds the current
// sub-cache's lock (RvoSubCacheLock) shared for the manager. A pass turns it
// exclusive without waiting and collects only when that succeeds, i.e. when
// no other process uses the sub-cache: the digests live in another process
// are unknown here. Otherwise it skips the pass and says so once.
//
// The disk budget: when the manager gives the root a share of its disk
// budget, the thread keeps the root's block-file bytes (RvoDiskUsage) within
// it. When they pass the share, a trim pass deletes the least recently used
// block files (by modification time) across the sub-caches no other process
// holds, never one whose digest is live here, until the bytes are at 90 %
// of the share.
//
// Threading: collect() runs on this thread and on the caller of the
// manager's collectGarbage(); closeDown(), wake(), setShare() and
// setSubCache() come from the manager. Lock order: a pass asks the manager
// for its sub-cache name and for permission before it takes this thread's
// lock, and takes no manager lock while it holds it (only the block-file
// lock and, inside it, the registry's lock in isHashLive); so setSubCache,
// which holds the delete lock and takes this lock, never waits in a cycle.
class RvoGarbageCollectorThread : public QThread
{
public:
    RvoGarbageCollectorThread(RvoDiskHost &host, const QString &root, int bucketCount,
                              QObject *parent);
    ~RvoGarbageCollectorThread() override;

    // One full pass; `directoryVisited`, when set, is called for each
    // directory the pass lists.
    void collect(const std::function<void()> &directoryVisited);
    // Removes a file if it exists; true when it is gone.
    bool deleteBlock(const QString &path);
    // Removes the block file at `path` unless the digest `fileName` names is
    // live; true when it is gone.
    bool deleteIfDead(const QString &fileName, const QString &path);
    // One trim pass: walks the root and, when its block-file bytes are over
    // the share, deletes least recently used files down to 90 % of it.
    void trim();

    // Ends the loop after the pass under way.
    void closeDown();
    // Collection was switched on: start passes now.
    void wake();

    QString root() const { return m_Root; }
    // The root's share of the disk budget; 0: unbounded.
    void setShare(qint64 bytes);
    // Counted up by the root's write thread.
    std::shared_ptr<RvoDiskUsage> diskUsage() const { return m_Usage; }

    // Follows the manager's sub-cache. `lock` holds the new sub-cache
    // shared (taken by the caller, outside its locks, since taking it may
    // wait for another process's pass); the previous one is let go.
    void setSubCache(const QString &name, std::unique_ptr<RvoSubCacheLock> lock);
    QString subCache() const;
    // The directory of sub-cache `name` under `root`, as locked.
    static QString subCacheDirectory(const QString &root, const QString &name);

    // Temporary files younger than this may belong to a write in progress,
    // possibly of another process sharing the root.
    static constexpr int kStrayFileAgeSeconds = 3600;

protected:
    void run() override;

private:
    RvoDiskHost &m_Host;
    const QString m_Root;
    // Held by a pass (exclusive: a pass turns m_SubCacheLock exclusive and
    // back, which two passes must not do at once) and by setSubCache. Lock
    // order: after the delete lock, before the block-file lock and the
    // registry lock (docs/ARCHITECTURE.md).
    mutable RvoSharedMutex m_Lock;
    const int m_BucketCount; // as configured; a pass lists what is there
    QString m_SubCache GUARDED_BY(m_Lock);
    std::unique_ptr<RvoSubCacheLock> m_SubCacheLock GUARDED_BY(m_Lock);
    bool m_ToldInUse GUARDED_BY(m_Lock) = false; // the skipped pass was reported
    const std::shared_ptr<RvoDiskUsage> m_Usage; // also the thread's wake-up
    std::atomic<bool> m_Closing {false};
};

#endif // RVOGARBAGECOLLECTORTHREAD_P_H
