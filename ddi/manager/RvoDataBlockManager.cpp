// Lifecycle and configuration of the block manager.

#include "RvoDataBlockManager_p.h"

#include "RvoBlockSaver_p.h"
#include "RvoBlockTable_p.h"
#include "RvoBufferPool_p.h"
#include "RvoDataBlock.h"
#include "RvoDataBlockManagerReadThread_p.h"
#include "RvoDataBlockManagerWriteThread_p.h"
#include "RvoDdiDiagnostics_p.h"
#include "RvoDdiLog.h"
#include "RvoDdiMutexLocker.h"
#include "RvoGarbageCollectorThread_p.h"
#include "RvoHashManager.h"
#include "RvoRemoteTier_p.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QThreadPool>

#include <vector>

namespace {

// Each queue holds up to this many saves before the manager stops feeding it.
constexpr int kWriteQueueCapacity = 10;
// A read thread drops background preloads from this queue length on.
constexpr int kReadBackgroundLimit = 50;

void logBudget(qint64 budget, qint64 writePending)
{
    qCDebug(lcDdi, "[DDI] Max data cache size    = %lld bytes (%lld MB)", budget, budget / 1048576);
    qCDebug(lcDdi, "[DDI] Max write pending size = %lld bytes (%lld MB)", writePending,
            writePending / 1048576);
}

// Holds the sub-cache `name` under `root` shared, for other processes to see.
// May wait for another process's collection pass over it.
std::unique_ptr<RvoSubCacheLock> lockSubCache(const QString &root, const QString &name)
{
    auto lock = std::make_unique<RvoSubCacheLock>();
    const QString directory = RvoGarbageCollectorThread::subCacheDirectory(root, name);
    if (!lock->lockShared(directory))
        qCDebug(lcDdi, "Cannot lock sub-cache %s", qPrintable(directory));
    return lock;
}

} // namespace

RvoDataBlockManager::RvoDataBlockManager()
    : d(std::make_unique<Private>(*this))
{
    logBudget(d->maxDataCacheSize(), d->maxWritePendingSize());
    // What the manager's destructor and IO threads still use is made first,
    // so that it is destroyed after the manager: the registry, the log, the
    // buffer pool, then the block saver, whose workers hand buffers back to
    // the pool until it joins them. The log's file is a QObject: first made
    // inside the destructor at exit, it would tie Qt's thread data to a
    // thread already past its clean-up, and that data would leak.
    RvoHashManager::instance();
    RvoDdiLog::instance();
    RvoBufferPool::instance();
    RvoBlockSaver::instance();
}

RvoDataBlockManager::~RvoDataBlockManager()
{
    RvoDdiLog::instance().setEnabled(false);
    cleanUp();
}

RvoDataBlockManager &RvoDataBlockManager::instance()
{
    static RvoDataBlockManager manager;
    return manager;
}

RvoBlockStore &RvoBlockStore::instance()
{
    return RvoDataBlockManager::Private::of(RvoDataBlockManager::instance());
}

RvoDataBlockManager::Private::Private(RvoDataBlockManager &owner)
    : q(owner)
    , m_Blocks(std::make_unique<RvoBlockTable>())
{
}

RvoDataBlockManager::Private::~Private() = default;

void RvoDataBlockManager::Private::checkInitialized() const
{
    if (!isInitialized())
        rvoReport(QStringLiteral("Data Block Manager Not Initialized. Aborting"));
}

bool RvoDataBlockManager::Private::setup(const QStringList &roots, qint64 maxCacheSize,
                                         int numBuckets)
{
    if (isInitialized())
        rvoReport(QStringLiteral("Setup called twice on DataBlock Manager"));

    if (numBuckets < 1) {
        rvoReport(QStringLiteral("Bucket count %1 is below 1, keeping %2")
                          .arg(numBuckets)
                          .arg(this->numBuckets()));
    } else {
        m_NumBuckets.store(numBuckets, std::memory_order_relaxed);
    }
    if (maxCacheSize != -1)
        setMaxDataCacheSize(maxCacheSize);
    readBlockCodecFromEnvironment();

    for (const QString &root : roots) {
        if (QDir(root).exists())
            continue;
        const QString absolute = QFileInfo(root).absoluteFilePath();
        if (!QDir().mkpath(absolute))
            rvoReport(QStringLiteral("Cannot Create cache root at %1").arg(absolute));
        if (!QFileInfo(root).exists())
            rvoReport(QStringLiteral("Cannot Create cache root at %1").arg(absolute));
    }

    // Taken before the delete lock: taking one may wait for another process.
    std::vector<std::unique_ptr<RvoSubCacheLock>> locks;
    const QString current = subCache();
    for (const QString &root : roots)
        locks.push_back(lockSubCache(root, current));

    RvoDdiMutexLocker locker(&m_DeleteLock);
    m_CacheRoots = roots;
    const int buckets = this->numBuckets();
    for (int i = 0; i < roots.size(); ++i) {
        const QString &root = roots.at(i);
        auto *writer
                = new RvoDataBlockManagerWriteThread(*this, root, buckets, kWriteQueueCapacity, &q);
        auto *reader
                = new RvoDataBlockManagerReadThread(*this, root, buckets, kReadBackgroundLimit, &q);
        auto *collector = new RvoGarbageCollectorThread(*this, root, buckets, &q);
        // Threads added by a later setup follow the current configuration.
        writer->setSubCache(m_SubCache);
        reader->setSubCache(m_SubCache);
        collector->setSubCache(m_SubCache, std::move(locks[size_t(i)]));
        writer->setDiskUsage(collector->diskUsage());
        reader->setDiskUsage(collector->diskUsage());
        reader->setRequestPromotionEnabled(requestPromotionEnabled());
        writer->start(QThread::InheritPriority);
        reader->start(QThread::InheritPriority);
        collector->start(QThread::InheritPriority);
        m_ReadThreads.append(reader);
        m_WriteThreads.append(writer);
        m_CollectorThreads.append(collector);
    }
    shareDiskBudget();
    m_IsInitialized.store(true, std::memory_order_release);
    locker.unlock();
    startRemoteTier();
    return true;
}

void RvoDataBlockManager::Private::setMaxDataCacheSize(qint64 size)
{
    m_MaxDataCacheSize.store(size, std::memory_order_relaxed);
    m_MaxWritePendingSize.store(size / 4, std::memory_order_relaxed);
    logBudget(size, size / 4);
}

qint64 RvoDataBlockManager::Private::liveBlocks() const
{
    RvoDdiMutexLocker locker(&m_DeleteLock);
    return m_Blocks->lruSize();
}

qint64 RvoDataBlockManager::managedBlocks() const
{
    return RvoHashManager::instance().hashCount();
}

QStringList RvoDataBlockManager::Private::cacheRoots() const
{
    RvoDdiMutexLocker locker(&m_DeleteLock);
    return m_CacheRoots;
}

QString RvoDataBlockManager::Private::subCache() const
{
    RvoDdiMutexLocker locker(&m_DeleteLock);
    return m_SubCache;
}

void RvoDataBlockManager::Private::setSubCache(const QString &name)
{
    if (garbageCollecting())
        return;
    if (name == subCache()) {
        rvoReport(QStringLiteral("Subcache Set to %1 twice").arg(name));
        return;
    }
    flush(false, AllThreads);
    // The new sub-cache is held before the delete lock is taken: taking it
    // may wait for another process's pass over it.
    const QVector<RvoGarbageCollectorThread *> collectors = collectorThreads();
    std::vector<std::unique_ptr<RvoSubCacheLock>> locks;
    for (RvoGarbageCollectorThread *collector : collectors)
        locks.push_back(lockSubCache(collector->root(), name));

    RvoDdiMutexLocker locker(&m_DeleteLock);
    m_SubCache = name;
    const QString firstRoot = m_CacheRoots.isEmpty() ? QString() : m_CacheRoots.first();
    RvoDdiLog::instance().setSubCache(firstRoot + QDir::separator() + name);
    for (RvoDataBlockManagerReadThread *reader : std::as_const(m_ReadThreads))
        reader->setSubCache(name);
    for (RvoDataBlockManagerWriteThread *writer : std::as_const(m_WriteThreads))
        writer->setSubCache(name);
    // Waits for a collector's pass under way, which takes no manager lock.
    // Each lets go of the sub-cache it held.
    for (int i = 0; i < m_CollectorThreads.size(); ++i) {
        RvoGarbageCollectorThread *collector = m_CollectorThreads.at(i);
        const bool taken = i < collectors.size() && collectors.at(i) == collector;
        collector->setSubCache(
                name, taken ? std::move(locks[size_t(i)]) : lockSubCache(collector->root(), name));
    }
}

void RvoDataBlockManager::Private::setRequestPromotionEnabled(bool on)
{
    if (on == requestPromotionEnabled())
        return;
    qCDebug(lcDdi, "RvoDDi Setting Request Promotion Enabled to %s %d", on ? "TRUE" : "FALSE",
            on ? 1 : 0);
    RvoDdiMutexLocker locker(&m_DeleteLock);
    for (RvoDataBlockManagerReadThread *reader : std::as_const(m_ReadThreads))
        reader->setRequestPromotionEnabled(on);
    m_RequestPromotionEnabled.store(on, std::memory_order_relaxed);
}

void RvoDataBlockManager::validateState()
{
    RvoHashManager::instance().validateState();
}

void RvoDataBlockManager::Private::dumpStats()
{
    RvoDdiMutexLocker locker(&m_DeleteLock);
    qCDebug(lcDdi, "==== RvoDdi Block Stats ====");
    qCDebug(lcDdi, "Max Cache Size %lldMb", maxDataCacheSize() / 1048576);
    qCDebug(lcDdi, "Number of managed blocks %d", int(m_Blocks->size()));
    qCDebug(lcDdi, "Number of existant blocks %d", RvoDataBlock::blockCount());
    qCDebug(lcDdi, "Block Memory Usage %lldMb", liveBytes() / 1048576);
    qCDebug(lcDdi, "Number of LRU Blocks %d", int(liveBlocks()));
    qCDebug(lcDdi, "Number Block Future Pointers %d", -1);
    RvoHashManager::instance().dumpStats();
    qCDebug(lcDdi, "==== Thread Stats ====");
    for (int i = 0; i < m_ReadThreads.size() && i < m_CacheRoots.size(); ++i) {
        qCDebug(lcDdi, "Read %s %lldMb", m_CacheRoots.at(i).toLocal8Bit().constData(),
                m_ReadThreads.at(i)->bytesRead() / 1048576);
    }
    for (int i = 0; i < m_WriteThreads.size() && i < m_CacheRoots.size(); ++i) {
        qCDebug(lcDdi, "Written  %s %lldMb", m_CacheRoots.at(i).toLocal8Bit().constData(),
                m_WriteThreads.at(i)->bytesWritten() / 1048576);
    }
    if (const std::shared_ptr<RvoRemoteTier> tier = remoteTier()) {
        for (const QString &line : tier->stats())
            qCDebug(lcDdi, "%s", qPrintable(line));
    }
}

void RvoDataBlockManager::Private::dumpThreadStats()
{
    const QVector<RvoDataBlockManagerReadThread *> readers = readThreads();
    const QVector<RvoDataBlockManagerWriteThread *> writers = writeThreads();
    qCDebug(lcDdi, "==== Thread Stats ====");
    for (int i = 0; i < readers.size(); ++i)
        qCDebug(lcDdi, " Read Thread %d has %d requests", i, readers.at(i)->requests());
    for (int i = 0; i < writers.size(); ++i)
        qCDebug(lcDdi, " Write Thread %d has %d requests", i, writers.at(i)->requests());
}

QVector<RvoDataBlockManagerWriteThread *> RvoDataBlockManager::Private::writeThreads() const
{
    RvoDdiMutexLocker locker(&m_DeleteLock);
    return m_WriteThreads;
}

QVector<RvoDataBlockManagerReadThread *> RvoDataBlockManager::Private::readThreads() const
{
    RvoDdiMutexLocker locker(&m_DeleteLock);
    return m_ReadThreads;
}

void RvoDataBlockManager::Private::cleanUp()
{
    if (!isInitialized())
        return;
    stopGarbageCollection();
    stopAllIoThreads();
    stopRemoteTier();

    std::vector<RvoDataBlock *> blocks;
    int stillRead = 0;
    {
        RvoDdiMutexLocker locker(&m_DeleteLock);
        m_Blocks->forEach([&](RvoDataHash *, RvoDataBlock *block) {
            // A block an accessor still reads is left to it rather than
            // freed under its feet.
            if (block->accessCount() == 0)
                blocks.push_back(block);
            else
                ++stillRead;
        });
        m_Blocks->clear();
        m_CacheRoots.clear();
        m_SubCache.clear();
        m_MaxDataCacheSize.store(0, std::memory_order_relaxed);
        m_LiveBytes.store(0, std::memory_order_relaxed);
        m_NumBuckets.store(0, std::memory_order_relaxed);
        m_GarbageCollecting.store(false, std::memory_order_release);
        m_IsInitialized.store(false, std::memory_order_release);
    }
    // The log lives in the sub-cache directory that is gone now.
    RvoDdiLog::instance().setSubCache(QString());
    if (stillRead > 0)
        rvoReport(QStringLiteral("%1 blocks still held by accessors are left to them")
                          .arg(stillRead));
    // Freed outside the lock; the digests' lifetime is the registry's.
    for (RvoDataBlock *block : blocks)
        RvoDataBlock::dispose(block);

    if (QCoreApplication::instance())
        QCoreApplication::processEvents();
    if (QThreadPool *pool = QThreadPool::globalInstance())
        pool->waitForDone();
}

// The public operations forward to the implementation.

bool RvoDataBlockManager::setup(const QStringList &roots, qint64 maxCacheSize, int numBuckets)
{
    return d->setup(roots, maxCacheSize, numBuckets);
}

bool RvoDataBlockManager::isInitialized() const
{
    return d->isInitialized();
}

QStringList RvoDataBlockManager::cacheRoots() const
{
    return d->cacheRoots();
}

int RvoDataBlockManager::numBuckets() const
{
    return d->numBuckets();
}

qint64 RvoDataBlockManager::maxDataCacheSize() const
{
    return d->maxDataCacheSize();
}

void RvoDataBlockManager::setMaxDataCacheSize(qint64 size)
{
    d->setMaxDataCacheSize(size);
}

qint64 RvoDataBlockManager::maxWritePendingSize() const
{
    return d->maxWritePendingSize();
}

qint64 RvoDataBlockManager::liveBytes() const
{
    return d->liveBytes();
}

void RvoDataBlockManager::setMaxDiskCacheSize(qint64 bytes)
{
    d->setMaxDiskCacheSize(bytes);
}

qint64 RvoDataBlockManager::maxDiskCacheSize() const
{
    return d->maxDiskCacheSize();
}

qint64 RvoDataBlockManager::liveBlocks() const
{
    return d->liveBlocks();
}

bool RvoDataBlockManager::setRemoteStorage(const QString &spec)
{
    return d->setRemoteStorage(spec);
}

QString RvoDataBlockManager::remoteStorage() const
{
    return d->remoteStorage();
}

bool RvoDataBlockManager::setBlockCodec(const QString &setting)
{
    return d->setBlockCodec(setting);
}

QString RvoDataBlockManager::blockCodec() const
{
    return d->blockCodec().toString();
}

QString RvoDataBlockManager::subCache() const
{
    return d->subCache();
}

void RvoDataBlockManager::setSubCache(const QString &name)
{
    d->setSubCache(name);
}

bool RvoDataBlockManager::requestPromotionEnabled() const
{
    return d->requestPromotionEnabled();
}

void RvoDataBlockManager::setRequestPromotionEnabled(bool on)
{
    d->setRequestPromotionEnabled(on);
}

bool RvoDataBlockManager::garbageCollecting() const
{
    return d->garbageCollecting();
}

void RvoDataBlockManager::startGarbageCollection()
{
    d->startGarbageCollection();
}

void RvoDataBlockManager::stopGarbageCollection()
{
    d->stopGarbageCollection();
}

bool RvoDataBlockManager::garbageCollectingThreadStarted()
{
    return d->garbageCollectingThreadStarted();
}

void RvoDataBlockManager::garbageCollectingThreadFinished()
{
    d->garbageCollectingThreadFinished();
}

void RvoDataBlockManager::collectGarbage(ProgressReporter *reporter)
{
    d->collectGarbage(reporter);
}

void RvoDataBlockManager::dumpStats()
{
    d->dumpStats();
}

void RvoDataBlockManager::dumpThreadStats()
{
    d->dumpThreadStats();
}

void RvoDataBlockManager::cleanUp()
{
    d->cleanUp();
}

RvoDataReference RvoDataBlockManager::addBlock(const QByteArray &data,
                                               RvoModifyAccessor::Caching caching, bool synchronous)
{
    return d->addBlock(data, caching, synchronous);
}

RvoDataReference RvoDataBlockManager::getReference(RvoDataHash *hash)
{
    return d->getReference(hash);
}

bool RvoDataBlockManager::isInMemory(RvoDataHash *hash)
{
    return d->isInMemory(hash);
}

qint64 RvoDataBlockManager::blockSize(RvoDataHash *hash)
{
    return d->blockSize(hash);
}

void RvoDataBlockManager::freeAllBlocks()
{
    d->freeAllBlocks();
}

void RvoDataBlockManager::snapshot(QList<RvoDataReference> &out) const
{
    d->snapshot(out);
}

void RvoDataBlockManager::preloadData(const RvoDataReference &ref, PreloadPriority priority)
{
    d->preloadData(ref, priority);
}

void RvoDataBlockManager::processIO()
{
    d->processIO();
}

bool RvoDataBlockManager::isWriteThreadsFull()
{
    return d->isWriteThreadsFull();
}

void RvoDataBlockManager::flush(bool writeAll, ThreadType threads)
{
    d->flush(writeAll, threads);
}

QString RvoDataBlockManager::getBlockDestination(const QString &subCache, const QString &hashText)
{
    return d->getBlockDestination(subCache, hashText);
}

bool RvoDataBlockManager::subCacheExists(const QString &name)
{
    const QStringList roots = cacheRoots();
    if (roots.isEmpty())
        return false;
    return QDir(roots.first() + QDir::separator() + name).exists();
}

RvoDataReference RvoDataBlockManager::addBlock(RvoDataBlock *block,
                                               RvoModifyAccessor::Caching caching, bool synchronous)
{
    return d->addBlock(block, caching, synchronous);
}

RvoDataBlock *RvoDataBlockManager::getDataBlock(RvoDataHash *hash)
{
    d->assertDeletesLocked();
    return d->getDataBlock(hash);
}

void RvoDataBlockManager::makeBlockLive(RvoDataHash *hash, RvoDataBlock *block)
{
    d->makeBlockLive(hash, block);
}

void RvoDataBlockManager::blockUsed(RvoDataHash *hash)
{
    d->blockUsed(hash);
}

void RvoDataBlockManager::freeBlock(RvoDataHash *hash, bool writeToDisk, bool unlockHash)
{
    d->freeBlock(hash, writeToDisk, unlockHash);
}

void RvoDataBlockManager::lockBlock(RvoDataHash *hash)
{
    d->lockBlock(hash);
}

void RvoDataBlockManager::unlockBlock(RvoDataHash *hash)
{
    d->unlockBlock(hash);
}

bool RvoDataBlockManager::blockIsLocked(RvoDataHash *hash)
{
    return d->blockIsLocked(hash);
}
