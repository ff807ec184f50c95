#ifndef RVOGARBAGECOLLECTORTHREAD_P_H
#define RVOGARBAGECOLLECTORTHREAD_P_H

#include "RvoDataBlockManager.h"

#include <QString>
#include <QThread>

#include <condition_variable>
#include <mutex>
#include <shared_mutex>

// Deletes the block files of one root whose digests are no longer live in
// the hash registry, inside the current sub-cache only. Only files named like
// a 64-byte digest's text form (exactly 15 "-") are candidates; temporary
// files that a killed writer left behind are deleted once they are over an
// hour old.
//
// While collection is switched off the thread sleeps until it is switched
// on; while on it makes a pass every tenth of a second. A pass that is not
// permitted touches neither the file system nor any manager lock.
//
// Threading: collect() runs on this thread and on the caller of the
// manager's collectGarbage(); closeDown(), wake() and setSubCache() come from
// the manager. Lock order: a pass asks the manager for its sub-cache name
// and for permission before it takes this thread's lock, and takes no
// manager lock while it holds it; so setSubCache, which holds the delete lock
// and takes this lock, never waits in a cycle.
class RvoGarbageCollectorThread : public QThread
{
public:
    RvoGarbageCollectorThread(const QString &root, int bucketCount, QObject *parent);
    ~RvoGarbageCollectorThread() override;

    // One full pass. With both reporter and counter, counts each directory
    // visited and reports the count.
    void collect(RvoDataBlockManager::ProgressReporter *reporter, int *counter);
    // Removes a file if it exists.
    void deleteBlock(const QString &path);

    // Ends the loop after the pass under way.
    void closeDown();
    // Collection was switched on: start passes now.
    void wake();

    void setSubCache(const QString &name);
    QString subCache() const;

    // Temporary files younger than this may belong to a write in progress,
    // possibly of another process sharing the root.
    static constexpr int kStrayFileAgeSeconds = 3600;

protected:
    void run() override;

private:
    const QString m_Root;
    // Held for reading by a pass, for writing by setSubCache. Guards
    // m_SubCache. Lock order: after every manager lock (see above).
    mutable std::shared_mutex m_Lock;
    const int m_BucketCount; // as configured; a pass lists what is there
    QString m_SubCache;
    // Guards m_Closing and m_Woken; a leaf.
    std::mutex m_WaitLock;
    std::condition_variable m_Wait;
    bool m_Closing = false;
    bool m_Woken = false;
};

#endif // RVOGARBAGECOLLECTORTHREAD_P_H
