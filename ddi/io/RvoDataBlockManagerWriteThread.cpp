#include "RvoDataBlockManagerWriteThread_p.h"

#include "RvoDataBlock.h"
#include "RvoDdiDiagnostics_p.h"
#include "RvoDiskLayout_p.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>

#include <cstring>
#include <iterator>
#include <limits>

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
        RvoBlockCompressor::instance().cancel(entry.compression);
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
    RvoBlockCompressor::JobPtr compression;
    QString directory;
    QString fileName;
    if (!block->isCompressed()
        && buildFilename(hash.data(), m_Root, subCache(), quint32(qMax(m_BucketCount, 1)),
                         directory, fileName)) {
        compression = RvoBlockCompressor::instance().submit(
                block->m_Data, directory + QDir::separator() + fileName);
    }
    Entry entry {int(priority), block->size(), {std::move(hash), block, deleteAfterWrite},
                 std::move(compression)};
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

        handleRequest(entry.request, entry.compression);

        locker.lock();
        m_Busy = false;
        m_Changed.notify_all();
    }
}

void RvoDataBlockManagerWriteThread::handleRequest(RvoDataBlockSaveRequest &request,
                                                   const RvoBlockCompressor::JobPtr &compression)
{
    RvoBlockCompressor &compressor = RvoBlockCompressor::instance();
    RvoDataBlock *block = request.block;
    QString directory;
    QString fileName;
    if (block
        && buildFilename(request.hash.data(), m_Root, subCache(), quint32(qMax(m_BucketCount, 1)),
                         directory, fileName)) {
        if (!QDir(directory).exists())
            QDir().mkpath(directory);
        const QString path = directory + QDir::separator() + fileName;
        bool onDisk = QFile::exists(path);
        if (!onDisk) {
            // A block compressed in memory is already in the file's form.
            RvoBlockCompressor::Payload payload;
            const char *bytes = block->m_Data.constData();
            qint64 length = block->m_Data.size();
            if (!block->isCompressed()) {
                payload = compression ? compressor.take(compression, m_Codec)
                                      : RvoBlockCompressor::compress(m_Codec, block->m_Data);
                bytes = payload.data();
                length = payload.size;
            }
            if (length < 0 || length > std::numeric_limits<qint32>::max()) {
                rvoReport(QStringLiteral("Block %1 of %2 bytes does not fit a block file")
                                  .arg(fileName)
                                  .arg(block->size()));
            } else if (publish(directory, fileName, block->size(), bytes, length)) {
                m_BytesWritten.fetch_add(length, std::memory_order_relaxed);
                m_RequestsHandled.fetch_add(1, std::memory_order_relaxed);
                onDisk = true;
            }
            RvoBlockCompressor::release(std::move(payload));
        }
        // A block that could not be written is not marked: it is not on disk.
        if (onDisk)
            block->m_Cached.store(true, std::memory_order_release);
    }
    // A payload not taken above is not wanted (no-op when it was).
    compressor.cancel(compression);
    finishWith(request);

    // A last release retires the digest, which reaches the manager's tables.
    RvoDataBlockManager &manager = RvoDataBlockManager::instance();
    manager.lockDeletes();
    request.hash.reset();
    manager.unlockDeletes();
}

bool RvoDataBlockManagerWriteThread::publish(const QString &directory, const QString &fileName,
                                             qint64 size, const char *payload, qint64 length)
{
    static std::atomic<quint64> serial {0};
    // Never exactly 15 "-": the collector cannot take it for a block file.
    const QString temporary = directory + QDir::separator()
            + QStringLiteral("write-%1-%2-%3.tmp")
                      .arg(fileName)
                      .arg(QCoreApplication::applicationPid())
                      .arg(serial.fetch_add(1, std::memory_order_relaxed));
    QFile file(temporary);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate)) {
        rvoReport(QStringLiteral("Cannot Open File %1").arg(fileName));
        return false;
    }
    char header[kBlockFileHeaderSize];
    const qint32 blockSize = qint32(length);
    std::memcpy(header, &size, 8);
    std::memcpy(header + 8, &blockSize, 4);
    const bool written = file.write(header, kBlockFileHeaderSize) == kBlockFileHeaderSize
            && file.write(payload, length) == length && file.flush();
    file.close();
    if (!written) {
        rvoReport(QStringLiteral("Cannot Write File %1").arg(fileName));
        QFile::remove(temporary);
        return false;
    }
    // rename never replaces: when another writer published the same digest
    // first, its file holds the same content and this copy goes.
    const QString path = directory + QDir::separator() + fileName;
    if (!QFile::rename(temporary, path)) {
        QFile::remove(temporary);
        if (!QFile::exists(path)) {
            rvoReport(QStringLiteral("Cannot Write File %1").arg(fileName));
            return false;
        }
    }
    return true;
}
