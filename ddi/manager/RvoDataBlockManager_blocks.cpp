// The blocks in memory: adding, finding, pinning, the budget and eviction.

#include "RvoDataBlockManager_p.h"

#include "RvoBlockRelease_p.h"

#include "RvoBlockTable_p.h"
#include "RvoDataBlock.h"
#include "RvoDataBlockManagerReadThread_p.h"
#include "RvoDataBlockManagerWriteThread_p.h"
#include "RvoDataReference.h"
#include "RvoDdiDiagnostics_p.h"
#include "RvoDdiMutexLocker.h"
#include "RvoHashManager.h"
#include "RvoHashingJob.h"

#include <QRandomGenerator>

#include <vector>

namespace {

// Names don't-cache blocks: each gets the digest of the next number, never
// one derived from an address that the allocator reuses. Starting at a
// random point keeps these names away from the digests of small contents.
std::atomic<quint64> g_DontCacheSequence {QRandomGenerator::global()->generate64()};

QString addressText(const RvoDataHash *hash)
{
    return QString::number(quintptr(hash));
}

} // namespace

RvoDataReference RvoDataBlockManager::Private::addBlock(const QByteArray &data,
                                                        RvoModifyAccessor::Caching caching,
                                                        bool synchronous)
{
    if (caching == RvoModifyAccessor::CacheContent && !synchronous)
        return RvoDataReference(RvoSmartPointer<RvoBlockFuture>(new RvoHashingJob(data)));
    return addBlock(RvoDataBlock::sharing(data), caching, synchronous);
}

RvoDataReference RvoDataBlockManager::Private::addBlock(RvoDataBlock *block,
                                                        RvoModifyAccessor::Caching caching,
                                                        bool synchronous)
{
    if (caching == RvoModifyAccessor::DontCache) {
        const quint64 number = g_DontCacheSequence.fetch_add(1, std::memory_order_relaxed);
        auto *name = new RvoDataHash(reinterpret_cast<const unsigned char *>(&number),
                                     qint64(sizeof number), RvoDataHash::Skein512);
        name->setDontCache(true);
        const RvoSmartPointer<RvoDataHash> hash = RvoHashManager::instance().addHash(name);
        RvoDdiMutexLocker locker(&m_DeleteLock);
        checkInitialized();
        makeBlockLive(hash.data(), block);
        return getReference(hash.data());
    }
    if (!synchronous)
        return RvoDataReference(RvoSmartPointer<RvoBlockFuture>(new RvoHashingJob(block)));

    // The digest is computed before the delete lock is taken.
    if (block)
        block->uncompress();
    const RvoSmartPointer<RvoDataHash> hash = block
            ? RvoHashManager::instance().getHash(block->constData(), block->size())
            : RvoSmartPointer<RvoDataHash>();
    RvoDdiMutexLocker locker(&m_DeleteLock);
    checkInitialized();
    makeBlockLive(hash.data(), block);
    return getReference(hash.data());
}

RvoModifyAccessor RvoDataBlockManager::createNewBlock(qint64 size, uchar fill)
{
    d->checkInitialized();
    return RvoModifyAccessor(new RvoDataBlock(size, fill));
}

RvoDataReference RvoDataBlockManager::Private::getReference(RvoDataHash *hash)
{
    RvoDdiMutexLocker locker(&m_DeleteLock);
    checkInitialized();
    return RvoDataReference(RvoSmartPointer<RvoDataHash>(hash));
}

RvoDataBlock *RvoDataBlockManager::Private::getDataBlock(RvoDataHash *hash)
{
    checkInitialized();
    if (!hash)
        return nullptr;
    if (RvoDataBlock *block = m_Blocks->find(hash))
        return block;
    const int index = cacheIndex(hash);
    if (index < 0 || index >= m_ReadThreads.size())
        return nullptr;
    RvoDataBlockManagerReadThread *reader = m_ReadThreads.at(index);
    RvoDataBlockManagerWriteThread *writer
            = index < m_WriteThreads.size() ? m_WriteThreads.at(index) : nullptr;

    // The disk is read without the delete lock, so that other threads, and
    // the write thread this read may wait for, carry on meanwhile.
    const int levels = m_DeleteLock.unlockFully();
    auto fromDisk = [reader, hash] {
        return RvoDataBlockManagerReadThread::waitForBlock(
                reader->loadBlock(RvoSmartPointer<RvoDataHash>(hash), false));
    };
    // A block whose save the disk refused is only in its write queue. While
    // saves are refused it is looked for there first; otherwise only after
    // a miss on disk (then the save may have been refused meanwhile, or have
    // succeeded between the two looks: a retired save means another look).
    RvoDataBlock *loaded = writer && writer->savesRefused() ? writer->queuedCopy(hash) : nullptr;
    if (!loaded) {
        const quint64 retired = writer ? writer->savesRetired() : 0;
        loaded = fromDisk();
        if (!loaded && writer) {
            loaded = writer->queuedCopy(hash);
            if (!loaded && writer->savesRetired() != retired)
                loaded = fromDisk();
        }
    }
    m_DeleteLock.relockFully(levels);
    if (!loaded)
        return nullptr;
    // Another thread may have brought it in meanwhile; then this copy goes.
    makeBlockLive(hash, loaded);
    return m_Blocks->find(hash);
}

void RvoDataBlockManager::Private::makeBlockLive(RvoDataHash *hash, RvoDataBlock *block)
{
    RvoDdiMutexLocker locker(&m_DeleteLock);
    checkInitialized();
    if (!block)
        rvoReport(QStringLiteral("Null Value Passed For *Me"));
    if (!hash)
        rvoReport(QStringLiteral("Null Value Passed For *Ptr"));
    if (!block || !hash) {
        // Nothing can be kept under no name, nor without a block.
        locker.unlock();
        delete block;
        return;
    }
    if (m_Blocks->contains(hash)) {
        // The copy already live stays; this one is a duplicate.
        locker.unlock();
        delete block;
        return;
    }
    const qint64 budget = maxDataCacheSize();
    if (block->size() > budget) {
        rvoReport(
                QStringLiteral("Requested Block is larger than the maximum allocation size %1 / %2")
                        .arg(block->size())
                        .arg(budget));
    }
    const qint64 live
            = m_LiveBytes.fetch_add(block->size(), std::memory_order_relaxed) + block->size();
    if (live > budget && double(live) > 0.9 * double(budget))
        evict();
    m_Blocks->insert(hash, block);

    if (hash->isDontCache())
        return;
    m_Blocks->touch(hash);
    if (block->cached())
        return;
    const int index = cacheIndex(hash);
    if (index >= 0 && index < m_WriteThreads.size()) {
        m_WriteThreads.at(index)->writeBlock(PreloadNormal, RvoSmartPointer<RvoDataHash>(hash),
                                             block, false);
    }
}

void RvoDataBlockManager::Private::evict()
{
    // Nothing leaves memory before setup: there is no disk to go to.
    if (!isInitialized())
        return;
    const double target = 0.9 * double(maxDataCacheSize());
    // Digests that other threads hold locked go to the front; after a full
    // round of those, this call gives up rather than spin under the lock.
    qint64 skipped = 0;
    while (double(liveBytes()) > target) {
        const qint64 candidates = m_Blocks->lruSize();
        if (candidates == 0 || skipped >= candidates)
            break;
        RvoDataHash *victim = m_Blocks->leastRecentlyUsed();
        if (!victim->tryLock()) {
            m_Blocks->touch(victim);
            ++skipped;
            continue;
        }
        skipped = 0;
        m_Blocks->removeFromLru(victim);
        freeBlock(victim, true, true);
    }
}

void RvoDataBlockManager::Private::blockUsed(RvoDataHash *hash)
{
    if (!hash || hash->isDontCache())
        return;
    RvoDdiMutexLocker locker(&m_DeleteLock);
    checkInitialized();
    if (m_Blocks->inLru(hash))
        m_Blocks->touch(hash);
}

bool RvoDataBlockManager::Private::isInMemory(RvoDataHash *hash)
{
    RvoDdiMutexLocker locker(&m_DeleteLock);
    checkInitialized();
    if (!hash || !m_Blocks->contains(hash))
        return false;
    if (!blockIsLocked(hash))
        blockUsed(hash);
    return true;
}

void RvoDataBlockManager::Private::lockBlock(RvoDataHash *hash)
{
    if (!hash || hash->isDontCache())
        return;
    RvoDdiMutexLocker locker(&m_DeleteLock);
    checkInitialized();
    if (!m_Blocks->removeFromLru(hash))
        rvoReport(QStringLiteral("Hash %1 is Not Contained in the LRU").arg(addressText(hash)));
}

void RvoDataBlockManager::Private::unlockBlock(RvoDataHash *hash)
{
    if (!hash || hash->isDontCache())
        return;
    RvoDdiMutexLocker locker(&m_DeleteLock);
    checkInitialized();
    if (m_Blocks->inLru(hash))
        rvoReport(QStringLiteral("Lock Block %1 already contained in LRU").arg(addressText(hash)));
    else
        m_Blocks->touch(hash); // a digest whose block has gone stays out
}

bool RvoDataBlockManager::Private::blockIsLocked(RvoDataHash *hash)
{
    RvoDdiMutexLocker locker(&m_DeleteLock);
    return !m_Blocks->inLru(hash);
}

qint64 RvoDataBlockManager::Private::blockSize(RvoDataHash *hash)
{
    RvoDdiMutexLocker locker(&m_DeleteLock);
    checkInitialized();
    const RvoDataBlock *block = getDataBlock(hash);
    return block ? block->size() : 0;
}

void RvoDataBlockManager::Private::freeBlock(RvoDataHash *hash, bool writeToDisk, bool unlockHash)
{
    if (!isInitialized() || !hash)
        return;
    RvoDataBlock *block = nullptr;
    RvoDataBlockManagerWriteThread *writer = nullptr;
    {
        RvoDdiMutexLocker locker(&m_DeleteLock);
        block = m_Blocks->take(hash);
        if (!block)
            return;
        m_LiveBytes.fetch_sub(block->size(), std::memory_order_relaxed);
        if (writeToDisk && !hash->isDontCache() && !block->cached()) {
            const int index = cacheIndex(hash);
            if (index >= 0 && index < m_WriteThreads.size())
                writer = m_WriteThreads.at(index);
        }
    }
    if (unlockHash)
        hash->unlock();
    // The digest is alive (the caller's or a table's), so a save request may
    // count it.
    if (writer)
        writer->writeBlock(PreloadNormal, RvoSmartPointer<RvoDataHash>(hash), block, true);
    else
        RvoDataBlock::dispose(block);
}

void RvoDataBlockManager::Private::freeAllBlocks()
{
    flush(false, AllThreads);
    std::vector<std::pair<RvoDataHash *, RvoDataBlock *>> freed;
    {
        RvoDdiMutexLocker locker(&m_DeleteLock);
        checkInitialized();
        std::vector<RvoDataHash *> hashes;
        m_Blocks->forEach([&](RvoDataHash *hash, RvoDataBlock *block) {
            // A block an accessor still reads stays where it is.
            if (block->accessCount() == 0)
                hashes.push_back(hash);
        });
        for (RvoDataHash *hash : hashes) {
            RvoDataBlock *block = m_Blocks->take(hash);
            m_LiveBytes.fetch_sub(block->size(), std::memory_order_relaxed);
            const int index = cacheIndex(hash);
            if (!hash->isDontCache() && !block->cached() && index >= 0
                && index < m_WriteThreads.size()) {
                m_WriteThreads.at(index)->writeBlock(
                        PreloadNormal, RvoSmartPointer<RvoDataHash>(hash), block, true);
            } else {
                freed.emplace_back(hash, block);
            }
        }
    }
    for (auto &entry : freed)
        RvoDataBlock::dispose(entry.second);
    flush(false, AllThreads);
}

void RvoDataBlockManager::Private::snapshot(QList<RvoDataReference> &out) const
{
    RvoDdiMutexLocker locker(&m_DeleteLock);
    checkInitialized();
    QList<RvoSmartPointer<RvoDataHash>> hashes;
    RvoHashManager::instance().snapshot(hashes);
    out.reserve(out.size() + hashes.size());
    for (const RvoSmartPointer<RvoDataHash> &hash : std::as_const(hashes))
        out.append(RvoDataReference(hash));
}

void RvoDataBlockManager::Private::releaseLastReference(RvoDataHash *hash)
{
    RvoDataBlock *block = nullptr;
    {
        RvoDdiMutexLocker locker(&m_DeleteLock);
        if (!hash->dropLastReference())
            return; // revived by a lookup, or not the last after all
        block = m_Blocks->take(hash);
        if (block)
            m_LiveBytes.fetch_sub(block->size(), std::memory_order_relaxed);
    }
    RvoDataBlock::dispose(block);
    delete hash;
}

void RvoDataBlockManager::Private::releaseDigest(RvoSmartPointer<RvoDataHash> &hash)
{
    RvoDdiMutexLocker locker(&m_DeleteLock);
    hash.reset();
}

bool RvoDataBlockManager::Private::holdsBlock(const RvoDataHash *hash) const
{
    RvoDdiMutexLocker locker(&m_DeleteLock);
    return m_Blocks->contains(hash);
}

QList<RvoDataHash *> RvoDataBlockManager::Private::lruOrder() const
{
    // Reads the order without disturbing it: the tail is taken and touched
    // once per entry, which rotates the list through one full turn.
    RvoDdiMutexLocker locker(&m_DeleteLock);
    QList<RvoDataHash *> order;
    for (qint64 i = 0; i < m_Blocks->lruSize(); ++i) {
        RvoDataHash *oldest = m_Blocks->leastRecentlyUsed();
        order.prepend(oldest);
        m_Blocks->touch(oldest);
    }
    return order;
}

void rvoReleaseLastReference(RvoDataHash *hash)
{
    RvoDataBlockManager::Private::of(RvoDataBlockManager::instance()).releaseLastReference(hash);
}
