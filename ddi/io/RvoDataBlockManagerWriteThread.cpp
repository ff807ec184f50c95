#include "RvoDataBlockManagerWriteThread_p.h"

#include "RvoDataBlock.h"
#include "RvoDiskLayout_p.h"
#include "RvoDiskUsage_p.h"

#include <iterator>

RvoDataBlockManagerWriteThread::RvoDataBlockManagerWriteThread(const QString &root, int bucketCount,
                                                               int maxRequests, QObject *parent)
    : QThread(parent)
    , m_Root(root)
    , m_MaxRequests(maxRequests)
    , m_BucketCount(bucketCount)
{
}

RvoDataBlockManagerWriteThread::~RvoDataBlockManagerWriteThread()
{
    if (isRunning()) {
        closeDown();
        wait();
    }
    std::deque<Entry> dropped;
    {
        std::lock_guard<std::mutex> locker(m_Lock);
        dropped.swap(m_Queue);
        m_BytesInQueue = 0;
    }
    // Unwritten saves let go of their blocks as a finished save would;
    // digest references are released outside the lock, since a last
    // release reaches the manager.
    for (Entry &entry : dropped) {
        RvoBlockSaver::instance().cancel(entry.job);
        finishWith(entry.request);
    }
}

void RvoDataBlockManagerWriteThread::finishWith(RvoDataBlockSaveRequest &request)
{
    RvoDataBlock *block = request.block;
    if (!block)
        return;
    if (request.deleteAfterWrite)
        RvoDataBlock::dispose(block);
    else if (block->endSave())
        delete block; // the manager gave it up while this save was queued
}

void RvoDataBlockManagerWriteThread::writeBlock(RvoDataBlockManager::PreloadPriority priority,
                                                RvoSmartPointer<RvoDataHash> hash,
                                                RvoDataBlock *block, bool deleteAfterWrite)
{
    if (!block)
        return;
    if (block->cached()) {
        if (deleteAfterWrite)
            RvoDataBlock::dispose(block);
        return;
    }
    // A save that does not own the block keeps the manager from deleting it
    // until the save is done.
    if (!deleteAfterWrite)
        block->beginSave();
    RvoBlockSaver::JobPtr job;
    QString directory;
    QString fileName;
    if (!block->isCompressed()
        && buildFilename(hash.data(), m_Root, subCache(), quint32(qMax(m_BucketCount, 1)),
                         directory, fileName)) {
        job = RvoBlockSaver::instance().submit(block->m_Data, directory, fileName);
    }
    Entry entry {int(priority), block->size(), {std::move(hash), block, deleteAfterWrite},
                 std::move(job)};
    {
        std::lock_guard<std::mutex> locker(m_Lock);
        // The queue is sorted: insert after the last entry of a priority not
        // greater than this one (first come first served within a priority).
        auto position = m_Queue.end();
        while (position != m_Queue.begin() && std::prev(position)->priority > entry.priority)
            --position;
        m_Queue.insert(position, std::move(entry));
        m_BytesInQueue += block->size();
    }
    m_Changed.notify_all();
}

bool RvoDataBlockManagerWriteThread::canServiceRequests() const
{
    std::lock_guard<std::mutex> locker(m_Lock);
    return m_Queue.size() < size_t(qMax(m_MaxRequests, 0));
}

int RvoDataBlockManagerWriteThread::requests() const
{
    std::lock_guard<std::mutex> locker(m_Lock);
    return int(m_Queue.size());
}

qint64 RvoDataBlockManagerWriteThread::bytesInQueue() const
{
    std::lock_guard<std::mutex> locker(m_Lock);
    return m_BytesInQueue;
}

void RvoDataBlockManagerWriteThread::flush()
{
    std::unique_lock<std::mutex> locker(m_Lock);
    m_Changed.wait(locker,
                   [this] { return (m_Queue.empty() && !m_Busy) || m_Closing || !isRunning(); });
}

void RvoDataBlockManagerWriteThread::closeDown()
{
    {
        std::lock_guard<std::mutex> locker(m_Lock);
        m_Closing = true;
    }
    m_Changed.notify_all();
}

void RvoDataBlockManagerWriteThread::setSubCache(const QString &name)
{
    std::lock_guard<std::mutex> locker(m_Lock);
    m_SubCache = name;
}

QString RvoDataBlockManagerWriteThread::subCache() const
{
    std::lock_guard<std::mutex> locker(m_Lock);
    return m_SubCache;
}

QList<QPair<int, RvoDataHash *>> RvoDataBlockManagerWriteThread::queuedRequests() const
{
    QList<QPair<int, RvoDataHash *>> result;
    std::lock_guard<std::mutex> locker(m_Lock);
    for (const Entry &entry : m_Queue)
        result.append(qMakePair(entry.priority, entry.request.hash.data()));
    return result;
}

void RvoDataBlockManagerWriteThread::run()
{
    std::unique_lock<std::mutex> locker(m_Lock);
    for (;;) {
        m_Changed.wait(locker, [this] { return m_Closing || !m_Queue.empty(); });
        // Saves still queued now are not written: the manager flushes first.
        if (m_Closing)
            return;
        Entry entry = std::move(m_Queue.front());
        m_Queue.pop_front();
        m_BytesInQueue -= entry.size;
        m_Busy = true;
        locker.unlock();
        m_Changed.notify_all();

        handleRequest(entry.request, entry.job);

        locker.lock();
        m_Busy = false;
        m_Changed.notify_all();
    }
}

void RvoDataBlockManagerWriteThread::handleRequest(RvoDataBlockSaveRequest &request,
                                                   const RvoBlockSaver::JobPtr &job)
{
    RvoBlockSaver &saver = RvoBlockSaver::instance();
    RvoDataBlock *block = request.block;
    QString directory;
    QString fileName;
    if (block
        && buildFilename(request.hash.data(), m_Root, subCache(), quint32(qMax(m_BucketCount, 1)),
                         directory, fileName)) {
        // A block compressed in memory is already in the file's form.
        const RvoBlockSaver::Outcome outcome = block->isCompressed()
                ? RvoBlockSaver::save(block->size(), block->m_Data.constData(),
                                      block->m_Data.size(), directory, fileName)
                : saver.finish(job, block->m_Data, directory, fileName, m_Codec);
        if (outcome.written > 0) {
            m_BytesWritten.fetch_add(outcome.written, std::memory_order_relaxed);
            if (m_DiskUsage)
                m_DiskUsage->added(kBlockFileHeaderSize + outcome.written);
            m_RequestsHandled.fetch_add(1, std::memory_order_relaxed);
        }
        // A block that could not be written is not marked: it is not on disk.
        if (outcome.onDisk)
            block->m_Cached.store(true, std::memory_order_release);
    }
    // A job not finished above is not wanted (no-op when it was).
    saver.cancel(job);
    finishWith(request);

    // A last release retires the digest, which reaches the manager's tables.
    RvoDataBlockManager &manager = RvoDataBlockManager::instance();
    manager.lockDeletes();
    request.hash.reset();
    manager.unlockDeletes();
}
