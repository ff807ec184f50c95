// Switching garbage collection on and off, and collecting on demand.

#include "RvoDataBlockManager_p.h"

#include "RvoDataBlockManagerReadThread_p.h"
#include "RvoDdiDiagnostics_p.h"
#include "RvoDdiMutexLocker.h"
#include "RvoGarbageCollectorThread_p.h"
#include "RvoMutexLocker_p.h"

RvoDataBlockManager::ProgressReporter::~ProgressReporter() = default;

void RvoDataBlockManager::Private::startGarbageCollection()
{
    QVector<RvoGarbageCollectorThread *> collectors;
    {
        RvoDdiMutexLocker locker(&m_DeleteLock);
        checkInitialized();
        {
            RvoMutexLocker gcLocker(m_GcMutex);
            m_GarbageCollecting.store(true, std::memory_order_release);
            ++m_GcGeneration;
        }
        collectors = m_CollectorThreads;
    }
    // The collectors sleep while collection is off.
    for (RvoGarbageCollectorThread *collector : std::as_const(collectors))
        collector->wake();
}

void RvoDataBlockManager::Private::stopGarbageCollection()
{
    if (!garbageCollecting())
        return;
    for (RvoDataBlockManagerReadThread *reader : readThreads())
        reader->killRequests();
    flush(false, GarbageCollectorThreads);

    RvoDdiMutexLocker locker(&m_DeleteLock);
    checkInitialized();
    RvoMutexLocker gcLocker(m_GcMutex);
    m_GarbageCollecting.store(false, std::memory_order_release);
    ++m_GcGeneration;
    // A permitted pass takes no manager lock, so it ends while this waits.
    while (m_RunningCollectors > 0)
        m_GcCondition.wait(m_GcMutex);
}

bool RvoDataBlockManager::Private::garbageCollectingThreadStarted()
{
    RvoMutexLocker gcLocker(m_GcMutex);
    if (!garbageCollecting())
        return false;
    ++m_RunningCollectors;
    return true;
}

void RvoDataBlockManager::Private::garbageCollectingThreadFinished()
{
    RvoMutexLocker gcLocker(m_GcMutex);
    if (--m_RunningCollectors == 0 && !garbageCollecting())
        m_GcCondition.notifyAll();
}

void RvoDataBlockManager::Private::collectGarbage(ProgressReporter *reporter)
{
    checkInitialized();
    const QVector<RvoGarbageCollectorThread *> collectors = collectorThreads();
    const int total = numBuckets() * int(collectors.size());
    if (reporter)
        reporter->startProgress(QObject::tr("Garbage Collecting"), total);
    int done = 0;
    std::function<void()> directoryVisited;
    if (reporter)
        directoryVisited = [reporter, &done] { reporter->setProgress(++done, QString()); };
    for (RvoGarbageCollectorThread *collector : collectors)
        collector->collect(directoryVisited);
    if (reporter)
        reporter->finishProgress();
}

QVector<RvoGarbageCollectorThread *> RvoDataBlockManager::Private::collectorThreads() const
{
    RvoDdiMutexLocker locker(&m_DeleteLock);
    return m_CollectorThreads;
}

void RvoDataBlockManager::Private::setMaxDiskCacheSize(qint64 bytes)
{
    if (bytes < 0) {
        rvoReport(QStringLiteral("Disk cache size %1 is negative: the disk cache is unbounded")
                          .arg(bytes));
        bytes = 0;
    }
    qCDebug(lcDdi, "[DDI] Max disk cache size    = %lld bytes (%lld MB)", bytes, bytes / 1048576);
    RvoDdiMutexLocker locker(&m_DeleteLock);
    m_MaxDiskCacheSize.store(bytes, std::memory_order_relaxed);
    shareDiskBudget();
}

void RvoDataBlockManager::Private::shareDiskBudget()
{
    // Every collector looks after one root (a second setup adds roots).
    const qint64 roots = m_CollectorThreads.size();
    const qint64 share = roots > 0 ? maxDiskCacheSize() / roots : 0;
    for (RvoGarbageCollectorThread *collector : std::as_const(m_CollectorThreads))
        collector->setShare(share);
}
