// Driving the IO threads: preloads, back-pressure, flushing and stopping.

#include "RvoDataBlockManager_p.h"

#include "RvoBlockTable_p.h"
#include "RvoDataBlock.h"
#include "RvoDataBlockManagerReadThread_p.h"
#include "RvoDataBlockManagerWriteThread_p.h"
#include "RvoDdiDiagnostics_p.h"
#include "RvoDdiMutexLocker.h"
#include "RvoGarbageCollectorThread_p.h"
#include "RvoRemoteTier_p.h"

#include <QThread>

#include <algorithm>

void RvoDataBlockManager::Private::preloadData(const RvoDataReference &ref,
                                               PreloadPriority priority)
{
    if (ref.isNull())
        return;
    // A pending reference is resolved first: its hashing job needs the
    // delete lock to finish.
    const RvoSmartPointer<RvoDataHash> resolved = ref.hashPtr();
    RvoDataHash *hash = resolved.data();
    RvoDdiMutexLocker locker(&m_DeleteLock);
    checkInitialized();
    if (!hash)
        return;
    if (m_Blocks->contains(hash)) {
        blockUsed(hash);
        return;
    }
    const int index = cacheIndex(hash);
    if (index < 0 || index >= m_ReadThreads.size()) {
        rvoReport(QStringLiteral("Invalid Cache Bucket"));
        return;
    }
    m_ReadThreads.at(index)->request(hash, priority);
}

qint64 RvoDataBlockManager::Private::bytesQueuedForWriting() const
{
    qint64 total = 0;
    for (RvoDataBlockManagerWriteThread *writer : writeThreads())
        total += writer->bytesInQueue();
    return total;
}

bool RvoDataBlockManager::Private::writesPending() const
{
    const QVector<RvoDataBlockManagerWriteThread *> writers = writeThreads();
    return std::any_of(
            writers.begin(), writers.end(),
            [](const RvoDataBlockManagerWriteThread *writer) { return !writer->isIdle(); });
}

void RvoDataBlockManager::Private::processIO()
{
    for (;;) {
        const qint64 total = bytesQueuedForWriting();
        // Nothing queued can ever drain: never wait for it (a budget of 0,
        // or no write threads after cleanUp).
        if (total == 0 || total < maxWritePendingSize())
            return;
        qCDebug(lcDdi,
                "RvoDataBlockManager::processIO: Excessive data in the queue: %lld bytes (max = "
                "%lld): sleeping calling thread...",
                total, maxWritePendingSize());
        QThread::msleep(1000);
    }
}

void RvoDataBlockManager::Private::finishPendingSaves()
{
    // Writers with nothing to do are not flushed: that would only cost the
    // flush's pause, on every block a remote has to bring.
    if (writesPending())
        flush(false, WriteThreads);
}

bool RvoDataBlockManager::Private::isWriteThreadsFull()
{
    return bytesQueuedForWriting() >= maxWritePendingSize();
}

void RvoDataBlockManager::Private::flush(bool writeAll, ThreadType threads)
{
    checkInitialized();
    // The waits run without the delete lock: a write thread takes it to
    // finish a save.
    auto flushThreads = [this, threads] {
        if (threads & ReadThreads) {
            for (RvoDataBlockManagerReadThread *reader : readThreads())
                reader->flush();
        }
        if (threads & WriteThreads) {
            for (RvoDataBlockManagerWriteThread *writer : writeThreads())
                writer->flush();
        }
    };
    flushThreads();
    if (writeAll) {
        {
            RvoDdiMutexLocker locker(&m_DeleteLock);
            const QVector<RvoDataBlockManagerWriteThread *> writers = m_WriteThreads;
            m_Blocks->forEach([this, &writers](RvoDataHash *hash, RvoDataBlock *block) {
                if (!hash) {
                    rvoReport(QStringLiteral("Null Value in Hash to Block Map"));
                    return;
                }
                if (hash->isDontCache() || block->cached())
                    return;
                const int index = cacheIndex(hash);
                if (index >= 0 && index < writers.size()) {
                    writers.at(index)->writeBlock(PreloadNormal, RvoSmartPointer<RvoDataHash>(hash),
                                                  block, false);
                }
            });
        }
        flushThreads();
        // flush(true, AllThreads) waits for the uploads of what was saved
        // too; a flush of the write threads alone waits for the disk only.
        if ((threads & AllThreads) == AllThreads) {
            if (const std::shared_ptr<RvoRemoteTier> tier = remoteTier())
                tier->flush();
        }
    }
    QThread::msleep(1);
}

void RvoDataBlockManager::Private::stopAllIoThreads()
{
    checkInitialized();
    flush(false, AllThreads);

    // Taken out under the delete lock, stopped outside it: a thread may need
    // the lock to finish what it is doing.
    QVector<RvoGarbageCollectorThread *> collectors;
    QVector<RvoDataBlockManagerReadThread *> readers;
    QVector<RvoDataBlockManagerWriteThread *> writers;
    {
        RvoDdiMutexLocker locker(&m_DeleteLock);
        collectors.swap(m_CollectorThreads);
        readers.swap(m_ReadThreads);
        writers.swap(m_WriteThreads);
    }
    // Collectors, then readers, then writers.
    for (RvoGarbageCollectorThread *collector : std::as_const(collectors)) {
        collector->closeDown();
        collector->wait();
        delete collector;
    }
    for (RvoDataBlockManagerReadThread *reader : std::as_const(readers)) {
        reader->closeDown();
        reader->wait();
        delete reader;
    }
    for (RvoDataBlockManagerWriteThread *writer : std::as_const(writers)) {
        writer->closeDown();
        writer->wait();
        delete writer;
    }
}
