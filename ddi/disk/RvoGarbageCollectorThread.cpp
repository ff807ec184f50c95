#include "RvoGarbageCollectorThread_p.h"

#include "RvoCacheScan_p.h"
#include "RvoDdiDiagnostics_p.h"
#include "RvoDiskHost_p.h"
#include "RvoDiskLayout_p.h"
#include "RvoDiskUsage_p.h"
#include "RvoHashManager.h"
#include "RvoMutexLocker_p.h"
#include "RvoReadLocker_p.h"
#include "RvoWriteLocker_p.h"

#include <QDateTime>
#include <QDir>
#include <QFileInfo>
#include <QStringList>

#include <algorithm>
#include <chrono>
#include <vector>

namespace {

bool isStrayTemporaryFile(const QFileInfo &file)
{
    return isTemporaryFileName(file.fileName())
            && file.lastModified().secsTo(QDateTime::currentDateTime())
            > RvoGarbageCollectorThread::kStrayFileAgeSeconds;
}

} // namespace

RvoGarbageCollectorThread::RvoGarbageCollectorThread(RvoDiskHost &host, const QString &root,
                                                     int bucketCount, QObject *parent)
    : QThread(parent)
    , m_Host(host)
    , m_Root(root)
    , m_BucketCount(bucketCount)
    , m_Usage(std::make_shared<RvoDiskUsage>())
{
    setObjectName(QStringLiteral("rvoddi-collect")); // the thread's name, for top -H and debuggers
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
    while (!m_Closing.load(std::memory_order_acquire)) {
        if (m_Usage->trimDue())
            trim();
        const bool collecting = m_Host.garbageCollecting();
        if (collecting)
            collect({});
        if (m_Closing.load(std::memory_order_acquire))
            break;
        // While collecting, a pass every tenth of a second; otherwise nothing
        // to do until collection is switched on, the budget changes, the
        // root passes its share or the thread is closed.
        m_Usage->sleep(std::chrono::milliseconds(collecting ? 100 : -1));
    }
}

void RvoGarbageCollectorThread::collect(const std::function<void()> &directoryVisited)
{
    // Refused passes stop here, before any lock or file.
    if (!m_Host.garbageCollecting())
        return;
    const QString subCache = m_Host.subCache();
    // Only inside a named sub-cache: other sub-caches and the root level are
    // never touched.
    if (subCache.isEmpty())
        return;
    if (!m_Host.garbageCollectingThreadStarted())
        return;

    {
        RvoWriteLocker locker(m_Lock);
        // Digests live in another process are unknown here: collect only
        // while no other process holds the sub-cache.
        const bool alone = m_SubCacheLock && m_SubCacheLock->tryUpgrade();
        if (!alone) {
            if (!m_ToldInUse) {
                const QString directory = subCacheDirectory(m_Root, subCache);
                if (m_SubCacheLock && m_SubCacheLock->isLocked())
                    qCDebug(lcDdi, "Sub-cache %s is in use by another process: not collected",
                            qPrintable(directory));
                else
                    qCDebug(lcDdi, "Sub-cache %s cannot be locked: not collected",
                            qPrintable(directory));
            }
            m_ToldInUse = true;
        } else {
            m_ToldInUse = false;
            QStringList directories {m_Root + QDir::separator() + subCache};
            QVector<QPair<QString, qint64>> candidates;
            while (!directories.isEmpty()) {
                const QString directory = directories.takeFirst();
                if (directoryVisited)
                    directoryVisited();
                const QFileInfoList entries = QDir(directory).entryInfoList(
                        QDir::Dirs | QDir::Files | QDir::Drives | QDir::NoDotAndDotDot,
                        QDir::Unsorted);
                for (const QFileInfo &entry : entries) {
                    if (entry.isFile() && isBlockFileName(entry.fileName()))
                        candidates.append(qMakePair(entry.absoluteFilePath(), entry.size()));
                    else if (entry.isFile() && isStrayTemporaryFile(entry))
                        deleteBlock(entry.absoluteFilePath());
                    else if (entry.isDir())
                        directories.append(entry.absoluteFilePath());
                }
            }
            for (const auto &candidate : std::as_const(candidates)) {
                // Switching collection off takes effect between two deletions.
                if (!m_Host.garbageCollecting())
                    break;
                if (!deleteIfDead(QFileInfo(candidate.first).fileName(), candidate.first))
                    continue;
                if (m_Usage->share() > 0)
                    m_Usage->removed(candidate.second);
            }
            m_SubCacheLock->downgrade();
        }
    }
    m_Host.garbageCollectingThreadFinished();
}

void RvoGarbageCollectorThread::trim()
{
    const qint64 share = m_Usage->share();
    if (share <= 0)
        return;
    RvoWriteLocker locker(m_Lock);
    RvoCacheScan::Options options;
    options.checkHeld = false;
    const RvoCacheScan::Root scan = RvoCacheScan::scanRoot(m_Root, options);
    qint64 kept = scan.blockBytes();
    // Files published while the walk ran may be counted twice, or not at
    // all; the next walk puts that right.
    m_Usage->reset(kept);
    if (kept <= share) {
        m_Usage->setNextTrim(share);
        return;
    }
    const qint64 target = share - share / 10;

    // The sub-caches no other process holds, held exclusive while their
    // files go: a process that starts using one meanwhile waits.
    std::vector<std::unique_ptr<RvoSubCacheLock>> others;
    bool upgraded = false;
    const QString current = m_SubCacheLock && m_SubCacheLock->isLocked()
            ? QDir::cleanPath(m_SubCacheLock->directory())
            : QString();
    struct Candidate
    {
        qint64 modifiedMs;
        int subCache;
        int file;
    };
    std::vector<Candidate> candidates;
    for (int s = 0; s < scan.subCaches.size(); ++s) {
        const RvoCacheScan::SubCache &subCache = scan.subCaches.at(s);
        if (subCache.blockFiles.isEmpty())
            continue;
        if (QDir::cleanPath(subCache.directory) == current) {
            if (!m_SubCacheLock->tryUpgrade())
                continue;
            upgraded = true;
        } else {
            auto lock = std::make_unique<RvoSubCacheLock>();
            if (!lock->tryLockExclusive(subCache.directory))
                continue;
            others.push_back(std::move(lock));
        }
        for (int f = 0; f < subCache.blockFiles.size(); ++f)
            candidates.push_back({subCache.blockFiles.at(f).modifiedMs, s, f});
    }
    std::sort(candidates.begin(), candidates.end(),
              [](const Candidate &a, const Candidate &b) { return a.modifiedMs < b.modifiedMs; });

    qint64 files = 0;
    qint64 bytes = 0;
    for (const Candidate &candidate : candidates) {
        if (kept <= target || m_Closing.load(std::memory_order_acquire))
            break;
        const RvoCacheScan::SubCache &subCache = scan.subCaches.at(candidate.subCache);
        const RvoCacheScan::BlockFile &file = subCache.blockFiles.at(candidate.file);
        if (!deleteIfDead(QString::fromLatin1(file.name), subCache.path(file)))
            continue;
        kept -= file.bytes;
        bytes += file.bytes;
        ++files;
        m_Usage->removed(file.bytes);
    }
    others.clear();
    if (upgraded)
        m_SubCacheLock->downgrade();
    // Still over the share (live or held files): the next trim waits until
    // a tenth of the share more has been written.
    m_Usage->setNextTrim(kept > share ? kept + share / 10 : share);
    qCDebug(lcDdi, "Disk cache %s trimmed: %lld files, %lld bytes deleted, %lld bytes kept",
            qPrintable(m_Root), files, bytes, kept);
}

bool RvoGarbageCollectorThread::deleteIfDead(const QString &fileName, const QString &path)
{
    // A live digest's file may be the only copy of its block. Asking and
    // deleting are one step against saves and reads that count on the file.
    RvoMutexLocker fileLocker(blockFileLock());
    return !RvoHashManager::instance().isHashLive(fileName) && deleteBlock(path);
}

void RvoGarbageCollectorThread::closeDown()
{
    m_Closing.store(true, std::memory_order_release);
    m_Usage->wake();
}

void RvoGarbageCollectorThread::wake()
{
    m_Usage->wake();
}

void RvoGarbageCollectorThread::setShare(qint64 bytes)
{
    m_Usage->setShare(bytes);
}

void RvoGarbageCollectorThread::setSubCache(const QString &name,
                                            std::unique_ptr<RvoSubCacheLock> lock)
{
    RvoWriteLocker locker(m_Lock);
    m_SubCache = name;
    m_SubCacheLock = std::move(lock);
    m_ToldInUse = false;
}

QString RvoGarbageCollectorThread::subCache() const
{
    RvoReadLocker locker(m_Lock);
    return m_SubCache;
}

QString RvoGarbageCollectorThread::subCacheDirectory(const QString &root, const QString &name)
{
    return name.isEmpty() ? root : root + QDir::separator() + name;
}
