// The blocks in memory.

#include "RvoDataBlockManager.h"

#include "RvoDataBlock.h"
#include "RvoDataBlockManagerWriteThread_p.h"
#include "RvoDdiDiagnostics_p.h"
#include "RvoDdiMutexLocker.h"

void RvoDataBlockManager::makeBlockLive(RvoDataHash *hash, RvoDataBlock *block)
{
    RvoDdiMutexLocker locker(&m_DeleteLock);
    checkInitialized();
    if (!block)
        rvoReport(QStringLiteral("Null Value Passed For *Me"));
    if (!hash)
        rvoReport(QStringLiteral("Null Value Passed For *Ptr"));
    if (!block || !hash) {
        // Nothing can be kept under no name; nothing to keep without a block.
        delete block;
        return;
    }
    if (m_Blocks.contains(hash)) {
        // The copy already live stays; this one is a duplicate.
        delete block;
        return;
    }
    if (block->size() > maxDataCacheSize()) {
        rvoReport(
                QStringLiteral("Requested Block is larger than the maximum allocation size %1 / %2")
                        .arg(block->size())
                        .arg(maxDataCacheSize()));
    }
    m_LiveBytes.fetch_add(block->size(), std::memory_order_relaxed);
    m_Blocks.insert(hash, block);

    if (hash->isDontCache() || block->cached())
        return;
    const int index = cacheIndex(hash);
    if (index >= 0 && index < m_WriteThreads.size()) {
        m_WriteThreads.at(index)->writeBlock(PreloadNormal, RvoSmartPointer<RvoDataHash>(hash),
                                             block, false);
    }
}

void RvoDataBlockManager::freeBlock(RvoDataHash *hash, bool writeToDisk, bool unlockHash)
{
    if (!isInitialized() || !hash)
        return;
    RvoDataBlock *block = nullptr;
    RvoDataBlockManagerWriteThread *writer = nullptr;
    {
        RvoDdiMutexLocker locker(&m_DeleteLock);
        block = m_Blocks.take(hash);
        if (!block)
            return;
        m_LiveBytes.fetch_sub(block->size(), std::memory_order_relaxed);
        if (writeToDisk && !hash->isDontCache() && !block->cached()) {
            const int index = cacheIndex(hash);
            if (index >= 0 && index < m_WriteThreads.size())
                writer = m_WriteThreads.at(index);
        }
    }
    // Handed on outside the delete lock.
    if (unlockHash)
        hash->unlock();
    if (writer)
        writer->writeBlock(PreloadNormal, RvoSmartPointer<RvoDataHash>(hash), block, true);
    else
        delete block;
}
