// Switching garbage collection on and off, and collecting on demand.

#include "RvoDataBlockManager.h"

#include "RvoDataBlockManagerReadThread_p.h"
#include "RvoDdiDiagnostics_p.h"
#include "RvoDdiMutexLocker.h"
#include "RvoGarbageCollectorThread_p.h"

RvoDataBlockManager::ProgressReporter::~ProgressReporter() = default;

void RvoDataBlockManager::startGarbageCollection()
{
    QVector<RvoGarbageCollectorThread *> collectors;
    {
        RvoDdiMutexLocker locker(&m_DeleteLock);
        checkInitialized();
        {
            std::lock_guard<std::mutex> gcLocker(m_GcMutex);
            m_GarbageCollecting.store(true, std::memory_order_release);
            ++m_GcGeneration;
        }
        collectors = m_CollectorThreads;
    }
    // The collectors sleep while collection is off.
    for (RvoGarbageCollectorThread *collector : std::as_const(collectors))
        collector->wake();
}

void RvoDataBlockManager::stopGarbageCollection()
{
    if (!garbageCollecting())
        return;
    for (RvoDataBlockManagerReadThread *reader : readThreads())
        reader->killRequests();
    flush(false, GarbageCollectorThreads);

    RvoDdiMutexLocker locker(&m_DeleteLock);
    checkInitialized();
    std::unique_lock<std::mutex> gcLocker(m_GcMutex);
    m_GarbageCollecting.store(false, std::memory_order_release);
    ++m_GcGeneration;
    // A permitted pass takes no manager lock, so it ends while this waits.
    m_GcCondition.wait(gcLocker, [this] { return m_RunningCollectors == 0; });
}

bool RvoDataBlockManager::garbageCollectingThreadStarted()
{
    std::lock_guard<std::mutex> gcLocker(m_GcMutex);
    if (!garbageCollecting())
        return false;
    ++m_RunningCollectors;
    return true;
}

void RvoDataBlockManager::garbageCollectingThreadFinished()
{
    std::lock_guard<std::mutex> gcLocker(m_GcMutex);
    if (--m_RunningCollectors == 0 && !garbageCollecting())
        m_GcCondition.notify_all();
}

void RvoDataBlockManager::collectGarbage(ProgressReporter *reporter)
{
    checkInitialized();
    const QVector<RvoGarbageCollectorThread *> collectors = collectorThreads();
    const int total = numBuckets() * int(collectors.size());
    if (reporter)
        reporter->startProgress(QObject::tr("Garbage Collecting"), total);
    int done = 0;
    for (RvoGarbageCollectorThread *collector : collectors)
        collector->collect(reporter, &done);
    if (reporter)
        reporter->finishProgress();
}

QVector<RvoGarbageCollectorThread *> RvoDataBlockManager::collectorThreads() const
{
    RvoDdiMutexLocker locker(&m_DeleteLock);
    return m_CollectorThreads;
}

void RvoDataBlockManager::setMaxDiskCacheSize(qint64 bytes)
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

void RvoDataBlockManager::shareDiskBudget()
{
    // Every collector looks after one root (a second setup adds roots).
    const qint64 roots = m_CollectorThreads.size();
    const qint64 share = roots > 0 ? maxDiskCacheSize() / roots : 0;
    for (RvoGarbageCollectorThread *collector : std::as_const(m_CollectorThreads))
        collector->setShare(share);
}
