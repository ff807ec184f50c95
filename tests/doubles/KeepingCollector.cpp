// Test double of RvoGarbageCollectorThread: a collector that keeps
// everything. It walks the sub-cache and reports its progress as the real one
// does, but never deletes a file. A test executable links it ahead of the
// library archive (rvoddi_archive), so the real collector is never linked.

#include "RvoGarbageCollectorThread_p.h"

#include <QDir>
#include <QFileInfo>
#include <QStringList>

RvoGarbageCollectorThread::RvoGarbageCollectorThread(const QString &root, int bucketCount,
                                                     QObject *parent)
    : QThread(parent)
    , m_Root(root)
    , m_BucketCount(bucketCount)
{
}

RvoGarbageCollectorThread::~RvoGarbageCollectorThread()
{
    if (isRunning()) {
        closeDown();
        wait();
    }
}

void RvoGarbageCollectorThread::run()
{
    std::unique_lock<std::mutex> locker(m_WaitLock);
    m_Wait.wait(locker, [this] { return m_Closing; });
}

void RvoGarbageCollectorThread::collect(RvoDataBlockManager::ProgressReporter *reporter,
                                        int *counter)
{
    RvoDataBlockManager &manager = RvoDataBlockManager::instance();
    if (!manager.garbageCollecting())
        return;
    const QString subCache = manager.subCache();
    if (subCache.isEmpty() || !manager.garbageCollectingThreadStarted())
        return;
    {
        std::shared_lock<std::shared_mutex> locker(m_Lock);
        QStringList directories {m_Root + QDir::separator() + subCache};
        while (!directories.isEmpty()) {
            const QString directory = directories.takeFirst();
            if (reporter && counter) {
                ++*counter;
                reporter->setProgress(*counter, QString());
            }
            const QFileInfoList entries = QDir(directory).entryInfoList(
                    QDir::Dirs | QDir::NoDotAndDotDot, QDir::Unsorted);
            for (const QFileInfo &entry : entries)
                directories.append(entry.absoluteFilePath());
        }
    }
    manager.garbageCollectingThreadFinished();
}

void RvoGarbageCollectorThread::deleteBlock(const QString &) { }

void RvoGarbageCollectorThread::closeDown()
{
    {
        std::lock_guard<std::mutex> locker(m_WaitLock);
        m_Closing = true;
    }
    m_Wait.notify_all();
}

void RvoGarbageCollectorThread::wake()
{
    {
        std::lock_guard<std::mutex> locker(m_WaitLock);
        m_Woken = true;
    }
    m_Wait.notify_all();
}

void RvoGarbageCollectorThread::setSubCache(const QString &name)
{
    std::unique_lock<std::shared_mutex> locker(m_Lock);
    m_SubCache = name;
}

QString RvoGarbageCollectorThread::subCache() const
{
    std::shared_lock<std::shared_mutex> locker(m_Lock);
    return m_SubCache;
}
