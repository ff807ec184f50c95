#include "RvoGarbageCollectorThread_p.h"

#include "RvoDiskLayout_p.h"
#include "RvoHashManager.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QStringList>

#include <chrono>

namespace {

bool isStrayTemporaryFile(const QFileInfo &file)
{
    const QString name = file.fileName();
    return name.startsWith(QLatin1String("write-")) && name.endsWith(QLatin1String(".tmp"))
            && file.lastModified().secsTo(QDateTime::currentDateTime())
            > RvoGarbageCollectorThread::kStrayFileAgeSeconds;
}

} // namespace

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
    RvoDataBlockManager &manager = RvoDataBlockManager::instance();
    std::unique_lock<std::mutex> locker(m_WaitLock);
    while (!m_Closing) {
        if (!manager.garbageCollecting()) {
            // Off: nothing to do until switched on or closed.
            m_Wait.wait(locker, [this, &manager] {
                return m_Closing || m_Woken || manager.garbageCollecting();
            });
            m_Woken = false;
            continue;
        }
        locker.unlock();
        collect(nullptr, nullptr);
        locker.lock();
        m_Wait.wait_for(locker, std::chrono::milliseconds(100), [this] { return m_Closing; });
    }
}

void RvoGarbageCollectorThread::collect(RvoDataBlockManager::ProgressReporter *reporter,
                                        int *counter)
{
    RvoDataBlockManager &manager = RvoDataBlockManager::instance();
    // Refused passes stop here, before any lock or file.
    if (!manager.garbageCollecting())
        return;
    const QString subCache = manager.subCache();
    // Only inside a named sub-cache: other sub-caches and the root level are
    // never touched.
    if (subCache.isEmpty())
        return;
    if (!manager.garbageCollectingThreadStarted())
        return;

    {
        std::shared_lock<std::shared_mutex> locker(m_Lock);
        QStringList directories {m_Root + QDir::separator() + subCache};
        QStringList candidates;
        while (!directories.isEmpty()) {
            const QString directory = directories.takeFirst();
            if (reporter && counter) {
                ++*counter;
                reporter->setProgress(*counter, QString());
            }
            const QFileInfoList entries = QDir(directory).entryInfoList(
                    QDir::Dirs | QDir::Files | QDir::Drives | QDir::NoDotAndDotDot, QDir::Unsorted);
            for (const QFileInfo &entry : entries) {
                if (entry.isFile() && isBlockFileName(entry.fileName()))
                    candidates.append(entry.absoluteFilePath());
                else if (entry.isFile() && isStrayTemporaryFile(entry))
                    deleteBlock(entry.absoluteFilePath());
                else if (entry.isDir())
                    directories.append(entry.absoluteFilePath());
            }
        }
        RvoHashManager &registry = RvoHashManager::instance();
        for (const QString &path : std::as_const(candidates)) {
            if (registry.isHashLive(QFileInfo(path).fileName()))
                continue;
            // Switching collection off takes effect between two deletions.
            if (!manager.garbageCollecting())
                break;
            deleteBlock(path);
        }
    }
    manager.garbageCollectingThreadFinished();
}

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
