#include "RvoDataBlockManagerReadThread_p.h"

#include "RvoBlockCodec_p.h"
#include "RvoBlockFile_p.h"
#include "RvoBlockSaver_p.h"
#include "RvoBufferPool_p.h"
#include "RvoCacheScan_p.h"
#include "RvoDataBlock.h"
#include "RvoDdiDiagnostics_p.h"
#include "RvoDiskLayout_p.h"
#include "RvoDiskUsage_p.h"
#include "RvoRemoteTier_p.h"
#include "RvoTsan_p.h"

#include <QDir>
#include <QFile>
#include <QFutureInterface>
#include <QRunnable>
#include <QThreadPool>

#include <algorithm>
#include <cstring>

namespace {

// Decodes one payload on a pool thread and completes the load's future.
class DecodeTask : public QRunnable
{
public:
    // Decodes the payload: false when it is corrupt; otherwise *block is
    // the new block (null when it went to the manager).
    using Decode = bool (*)(DecodeTask &task, RvoDataBlock **block);

    DecodeTask(QFutureInterface<RvoDataBlock *> promise, RvoBufferPool::Buffer buffer,
               qint64 length, qint64 size, RvoSmartPointer<RvoDataHash> hash, bool makeLive,
               QString path, Decode decode)
        : promise(std::move(promise))
        , buffer(std::move(buffer))
        , length(length)
        , size(size)
        , hash(std::move(hash))
        , makeLive(makeLive)
        , path(std::move(path))
        , m_Decode(decode)
    {
        setAutoDelete(true);
    }

    void run() override
    {
        rvoHappensAfter(this);
        RvoDataBlock *block = nullptr;
        const bool decoded = m_Decode(*this, &block);
        RvoBufferPool::instance().release(std::move(buffer));
        if (decoded) {
            if (block)
                rvoHappensBefore(block);
            promise.reportResult(block);
        } else {
            promise.reportCanceled();
        }
        promise.reportFinished();
    }

    QFutureInterface<RvoDataBlock *> promise;
    RvoBufferPool::Buffer buffer;
    qint64 length;
    qint64 size;
    RvoSmartPointer<RvoDataHash> hash;
    bool makeLive;
    QString path;

private:
    Decode m_Decode;
};

QFuture<RvoDataBlock *> canceledLoad(QFutureInterface<RvoDataBlock *> &promise)
{
    promise.reportCanceled();
    promise.reportFinished();
    return promise.future();
}

// One decoder per pool thread, kept for the thread's life.
RvoBlockCodec &poolCodec()
{
    thread_local RvoBlockCodec codec;
    return codec;
}

// Checks a block file fetched from a remote on a pool thread, asks the next
// remotes when it fails, publishes the first sound one into the root and
// completes the load's future with its block.
class RemoteTask : public QRunnable
{
public:
    using MakeBlock = RvoDataBlock *(*)(QByteArray bytes, const RvoSmartPointer<RvoDataHash> &hash,
                                        bool makeLive, qint64 size, bool cached);

    RemoteTask(QFutureInterface<RvoDataBlock *> promise, std::shared_ptr<RvoRemoteTier> tier,
               int remote, QByteArray file, RvoSmartPointer<RvoDataHash> hash, bool makeLive,
               QString directory, QString fileName, std::shared_ptr<RvoDiskUsage> diskUsage,
               MakeBlock makeBlock)
        : m_Promise(std::move(promise))
        , m_Tier(std::move(tier))
        , m_Remote(remote)
        , m_File(std::move(file))
        , m_Hash(std::move(hash))
        , m_MakeLive(makeLive)
        , m_Directory(std::move(directory))
        , m_FileName(std::move(fileName))
        , m_DiskUsage(std::move(diskUsage))
        , m_MakeBlock(makeBlock)
    {
        setAutoDelete(true);
    }

    void run() override
    {
        rvoHappensAfter(this);
        QByteArray bytes;
        RvoBlockFile::Header header;
        for (;;) {
            const RvoBlockFile::Fault fault = RvoBlockFile::verify(
                    poolCodec(), m_File.constData(), m_File.size(), m_FileName, &bytes, &header);
            if (fault == RvoBlockFile::Sound)
                break;
            m_Tier->reject(m_Remote, m_FileName, QLatin1String(RvoBlockFile::faultText(fault)));
            m_File = m_Tier->get(m_FileName, m_Remote + 1, &m_Remote);
            if (m_Remote < 0) {
                qCDebug(lcDdi, "Cannot Open File %s to read. Exist?=0",
                        qPrintable(m_Directory + QDir::separator() + m_FileName));
                m_Hash->setPreloading(false);
                m_Promise.reportCanceled();
                m_Promise.reportFinished();
                return;
            }
        }
        // Published like a save: under a temporary name, then renamed. A
        // root that refuses it leaves the block without a disk copy, to be
        // saved when it leaves memory.
        const RvoBlockSaver::Outcome outcome
                = RvoBlockSaver::save(header.size, m_File.constData() + RvoBlockFile::kHeaderSize,
                                      header.payloadLength, m_Directory, m_FileName);
        if (outcome.written > 0 && m_DiskUsage)
            m_DiskUsage->added(RvoBlockFile::kHeaderSize + outcome.written);
        m_File.clear();
        m_Hash->setPreloading(false);
        RvoDataBlock *block
                = m_MakeBlock(std::move(bytes), m_Hash, m_MakeLive, header.size, outcome.onDisk);
        if (block)
            rvoHappensBefore(block);
        m_Promise.reportResult(block);
        m_Promise.reportFinished();
    }

private:
    QFutureInterface<RvoDataBlock *> m_Promise;
    std::shared_ptr<RvoRemoteTier> m_Tier;
    int m_Remote;
    QByteArray m_File;
    RvoSmartPointer<RvoDataHash> m_Hash;
    bool m_MakeLive;
    QString m_Directory;
    QString m_FileName;
    std::shared_ptr<RvoDiskUsage> m_DiskUsage;
    MakeBlock m_MakeBlock;
};

} // namespace

RvoDataBlockManagerReadThread::RvoDataBlockManagerReadThread(const QString &root, int bucketCount,
                                                             int maxRequests, QObject *parent)
    : QThread(parent)
    , m_Root(root)
    , m_BucketCount(bucketCount)
    , m_MaxRequests(maxRequests)
{
}

RvoDataBlockManagerReadThread::~RvoDataBlockManagerReadThread()
{
    if (isRunning()) {
        killRequests();
        closeDown();
        wait();
    }
    killRequests();
}

void RvoDataBlockManagerReadThread::request(RvoDataHash *hash,
                                            RvoDataBlockManager::PreloadPriority priority)
{
    if (!hash)
        return;
    if (m_PromotionEnabled.load(std::memory_order_relaxed) && hash->isPreloading()) {
        const qint64 promotions = m_PromotionCount.fetch_add(1, std::memory_order_relaxed) + 1;
        std::lock_guard<std::mutex> locker(m_Lock);
        for (size_t i = 1; i < m_Queue.size(); ++i) {
            if (m_Queue[i].hash.data() != hash)
                continue;
            // One step toward the front, without moving the entry; the queue
            // is re-sorted only every 100th promotion, to keep this cheap.
            --m_Queue[i].priority;
            if (promotions % 100 == 0) {
                std::sort(m_Queue.begin(), m_Queue.end(),
                          [](const Entry &a, const Entry &b) { return a.priority < b.priority; });
            }
            break;
        }
        return;
    }
    // Taken before the lock: a reference takes the digest's own lock.
    Entry entry {int(priority), RvoSmartPointer<RvoDataHash>(hash)};
    {
        std::lock_guard<std::mutex> locker(m_Lock);
        if (hash->isPreloading())
            return; // queued or being loaded already; the entry is dropped below
        if (priority == RvoDataBlockManager::PreloadBackground
            && m_Queue.size() >= size_t(qMax(m_MaxRequests, 0)))
            return;
        auto position = m_Queue.begin();
        while (position != m_Queue.end() && position->priority <= entry.priority)
            ++position;
        m_Queue.insert(position, std::move(entry));
        hash->setPreloading(true);
    }
    m_Changed.notify_all();
}

void RvoDataBlockManagerReadThread::run()
{
    std::unique_lock<std::mutex> locker(m_Lock);
    for (;;) {
        m_Changed.wait(locker, [this] { return m_Closing || !m_Queue.empty(); });
        if (m_Closing)
            break;
        Entry entry = std::move(m_Queue.front());
        m_Queue.pop_front();
        m_RequestsHandled.fetch_add(1, std::memory_order_relaxed);
        locker.unlock();
        m_Changed.notify_all();
        if (entry.hash)
            loadBlock(entry.hash, true);
        entry.hash.reset();
        locker.lock();
    }
    std::deque<Entry> dropped;
    dropped.swap(m_Queue);
    locker.unlock();
    m_Changed.notify_all();
}

QFuture<RvoDataBlock *>
RvoDataBlockManagerReadThread::loadBlock(const RvoSmartPointer<RvoDataHash> &hash, bool makeLive)
{
    QFutureInterface<RvoDataBlock *> promise;
    promise.reportStarted();

    QString directory;
    QString fileName;
    if (!buildFilename(hash.data(), m_Root, subCache(), quint32(qMax(m_BucketCount, 1)), directory,
                       fileName))
        return canceledLoad(promise);
    if (!QDir(directory).exists())
        QDir().mkpath(directory);
    const QString path = directory + QDir::separator() + fileName;

    QFile file(path);
    // Opened under the block-file lock: a block read from its file counts
    // as saved, so no collector may delete the file on a look at the
    // registry made before this digest was interned.
    auto open = [&file] {
        std::lock_guard<std::mutex> fileLocker(blockFileLock());
        return file.open(QIODevice::ReadOnly | QIODevice::Unbuffered);
    };
    if (!open()) {
        // A save of this block may be under way: let the writers finish.
        // Writers with nothing to do are not flushed: that would only cost
        // the flush's pause, on every block a remote has to bring.
        RvoDataBlockManager &manager = RvoDataBlockManager::instance();
        if (manager.writesPending())
            manager.flush(false, RvoDataBlockManager::WriteThreads);
        if (!open()) {
            const std::shared_ptr<RvoRemoteTier> tier
                    = RvoDataBlockManager::instance().remoteTier();
            if (tier && loadFromRemote(tier, promise, hash, makeLive, directory, fileName))
                return promise.future();
            qCDebug(lcDdi, "Cannot Open File %s to read. Exist?=%d", qPrintable(path),
                    QFile::exists(path) ? 1 : 0);
            return canceledLoad(promise);
        }
    }

    // No waiting for bytes that are not there: block files appear under
    // their final name only complete (written aside, then renamed), so a
    // file shorter than its header promises is damaged, not still being
    // written. It is refused at once, and a damaged file costs this root's
    // loads no stall.
    const qint64 fileLength = file.size();
    char head[RvoBlockFile::kHeaderSize];
    const qint64 headLength = file.read(head, qMin<qint64>(fileLength, sizeof head));
    RvoBlockFile::Header header;
    const RvoBlockFile::Fault fault
            = RvoBlockFile::parseHeader(head, headLength, fileLength, &header);
    if (fault != RvoBlockFile::Sound) {
        if (headLength < 8)
            qCDebug(lcDdi, "Cannot read Size from File '%s'", qPrintable(path));
        else if (headLength < RvoBlockFile::kHeaderSize)
            qCDebug(lcDdi, "Cannot read BlockSize from File '%s'", qPrintable(path));
        else if (fileLength < RvoBlockFile::kHeaderSize + qint64(header.payloadLength))
            qCDebug(lcDdi, "Cannot read all Data from File '%s'", qPrintable(path));
        discardCorrupt(path, RvoBlockFile::faultText(fault));
        return canceledLoad(promise);
    }
    // The header matched the file's length, so this is what the file holds.
    const qint32 blockSize = header.payloadLength;
    const qint64 size = header.size;
    RvoBufferPool::Buffer buffer = RvoBufferPool::instance().acquire(blockSize);
    if (buffer.isNull()) {
        rvoReport(QStringLiteral("Cannot allocate %1 bytes to read %2").arg(blockSize).arg(path));
        return canceledLoad(promise);
    }
    if (file.read(buffer.data(), blockSize) != blockSize) {
        qCDebug(lcDdi, "Cannot read all Data from File '%s'", qPrintable(path));
        RvoBufferPool::instance().release(std::move(buffer));
        discardCorrupt(path, RvoBlockFile::faultText(RvoBlockFile::Short));
        return canceledLoad(promise);
    }
    file.close();
    RvoCacheScan::noteUse(path);
    m_BytesRead.fetch_add(size, std::memory_order_relaxed);

    QFuture<RvoDataBlock *> future = promise.future();
    auto *task
            = new DecodeTask(promise, std::move(buffer), blockSize, size, hash, makeLive, path,
                             [](DecodeTask &t, RvoDataBlock **block) {
                                 return decompressAndMakeBlock(t.buffer.data(), t.length, t.hash,
                                                               t.makeLive, t.size, t.path, block);
                             });
    rvoHappensBefore(task);
    QThreadPool::globalInstance()->start(task);
    return future;
}

bool RvoDataBlockManagerReadThread::loadFromRemote(const std::shared_ptr<RvoRemoteTier> &tier,
                                                   QFutureInterface<RvoDataBlock *> &promise,
                                                   const RvoSmartPointer<RvoDataHash> &hash,
                                                   bool makeLive, const QString &directory,
                                                   const QString &fileName)
{
    // Fetched here, on the thread that asked; checked and decoded on the
    // pool, as a file read from the root would be.
    int remote = -1;
    QByteArray file = tier->get(fileName, 0, &remote);
    if (remote < 0)
        return false;
    auto *task = new RemoteTask(promise, tier, remote, std::move(file), hash, makeLive, directory,
                                fileName, m_DiskUsage, &makeBlock);
    rvoHappensBefore(task);
    QThreadPool::globalInstance()->start(task);
    return true;
}

RvoDataBlock *RvoDataBlockManagerReadThread::makeBlock(QByteArray bytes,
                                                       const RvoSmartPointer<RvoDataHash> &hash,
                                                       bool makeLive, qint64 size, bool cached)
{
    auto *block = new RvoDataBlock(0, 0);
    block->m_Data = std::move(bytes);
    block->m_Size = size;
    block->m_Compressed = false;
    block->m_Cached.store(cached, std::memory_order_release);
    if (makeLive) {
        // The manager owns it from here and may drop it as a duplicate.
        RvoDataBlockManager::instance().makeBlockLive(hash.data(), block);
        return nullptr;
    }
    return block;
}

bool RvoDataBlockManagerReadThread::decompressAndMakeBlock(const char *payload, qint64 length,
                                                           const RvoSmartPointer<RvoDataHash> &hash,
                                                           bool makeLive, qint64 size,
                                                           const QString &path,
                                                           RvoDataBlock **result)
{
    QByteArray bytes;
    const RvoBlockFile::Fault fault
            = RvoBlockFile::decodePayload(poolCodec(), payload, length, size, &bytes);
    hash->setPreloading(false);
    if (fault != RvoBlockFile::Sound) {
        discardCorrupt(path, RvoBlockFile::faultText(fault));
        return false;
    }
    *result = makeBlock(std::move(bytes), hash, makeLive, size, true);
    return true;
}

RvoDataBlock *RvoDataBlockManagerReadThread::waitForBlock(QFuture<RvoDataBlock *> future)
{
    future.waitForFinished();
    if (future.isCanceled() || future.resultCount() < 1)
        return nullptr;
    RvoDataBlock *block = future.resultAt(0);
    if (block)
        rvoHappensAfter(block);
    return block;
}

void RvoDataBlockManagerReadThread::discardCorrupt(const QString &path, const char *why)
{
    qCDebug(lcDdi, "Corrupt block file '%s' deleted (%s)", qPrintable(path), why);
    QFile::remove(path);
}

void RvoDataBlockManagerReadThread::killRequests()
{
    std::deque<Entry> dropped;
    {
        std::lock_guard<std::mutex> locker(m_Lock);
        dropped.swap(m_Queue);
    }
    m_Changed.notify_all();
}

void RvoDataBlockManagerReadThread::flush()
{
    std::unique_lock<std::mutex> locker(m_Lock);
    m_Changed.wait(locker, [this] { return m_Queue.empty() || m_Closing || !isRunning(); });
}

void RvoDataBlockManagerReadThread::closeDown()
{
    flush();
    {
        std::lock_guard<std::mutex> locker(m_Lock);
        m_Closing = true;
    }
    m_Changed.notify_all();
}

int RvoDataBlockManagerReadThread::requests() const
{
    std::lock_guard<std::mutex> locker(m_Lock);
    return int(m_Queue.size());
}

void RvoDataBlockManagerReadThread::setSubCache(const QString &name)
{
    std::lock_guard<std::mutex> locker(m_Lock);
    m_SubCache = name;
}

QString RvoDataBlockManagerReadThread::subCache() const
{
    std::lock_guard<std::mutex> locker(m_Lock);
    return m_SubCache;
}

QList<QPair<int, RvoDataHash *>> RvoDataBlockManagerReadThread::queuedRequests() const
{
    QList<QPair<int, RvoDataHash *>> result;
    std::lock_guard<std::mutex> locker(m_Lock);
    for (const Entry &entry : m_Queue)
        result.append(qMakePair(entry.priority, entry.hash.data()));
    return result;
}
