#include "RvoDataBlockManagerReadThread_p.h"

#include "RvoBlockCodec_p.h"
#include "RvoBlockFile_p.h"
#include "RvoBlockLoad_p.h"
#include "RvoBufferPool_p.h"
#include "RvoCacheScan_p.h"
#include "RvoDdiDiagnostics_p.h"
#include "RvoDiskHost_p.h"
#include "RvoDiskLayout_p.h"
#include "RvoMutexLocker_p.h"
#include "RvoTsan_p.h"

#include <QDir>
#include <QFile>
#include <QFutureInterface>
#include <QRunnable>
#include <QThreadPool>

#include <algorithm>
#include <cstring>

namespace {

// Reports a corrupt block file and deletes it, so that a later save of the
// same content can replace it.
void discardCorrupt(const QString &path, const char *why)
{
    qCDebug(lcDdi, "Corrupt block file '%s' deleted (%s)", qPrintable(path), why);
    QFile::remove(path);
}

// Decodes one payload read from the root on a pool thread and completes its
// load.
class DecodeTask : public QRunnable
{
public:
    DecodeTask(RvoBlockLoad load, RvoBufferPool::Buffer buffer, qint64 length, qint64 size)
        : m_Load(std::move(load))
        , m_Buffer(std::move(buffer))
        , m_Length(length)
        , m_Size(size)
    {
        setAutoDelete(true);
    }

    void run() override
    {
        rvoHappensAfter(this);
        QByteArray bytes;
        const RvoBlockFile::Fault fault = RvoBlockFile::decodePayload(
                RvoBlockCodec::forThisThread(), m_Buffer.data(), m_Length, m_Size, &bytes);
        RvoBufferPool::instance().release(std::move(m_Buffer));
        m_Load.hash()->setPreloading(false);
        if (fault != RvoBlockFile::Sound) {
            discardCorrupt(m_Load.path(), RvoBlockFile::faultText(fault));
            m_Load.fail();
            return;
        }
        m_Load.finish(std::move(bytes), m_Size, true);
    }

private:
    RvoBlockLoad m_Load;
    RvoBufferPool::Buffer m_Buffer;
    qint64 m_Length;
    qint64 m_Size;
};

QFuture<RvoDataBlock *> failed(RvoBlockLoad &load)
{
    load.fail();
    return load.future();
}

} // namespace

RvoDataBlockManagerReadThread::RvoDataBlockManagerReadThread(RvoDiskHost &host, const QString &root,
                                                             int bucketCount, int maxRequests,
                                                             QObject *parent)
    : QThread(parent)
    , m_Host(host)
    , m_Root(root)
    , m_BucketCount(bucketCount)
    , m_MaxRequests(maxRequests)
{
    setObjectName(QStringLiteral("rvoddi-read")); // the thread's name, for top -H and debuggers
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
                                            RvoDataBlockManagerBase::PreloadPriority priority)
{
    if (!hash)
        return;
    if (m_PromotionEnabled.load(std::memory_order_relaxed) && hash->isPreloading()) {
        const qint64 promotions = m_PromotionCount.fetch_add(1, std::memory_order_relaxed) + 1;
        RvoMutexLocker locker(m_Lock);
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
        RvoMutexLocker locker(m_Lock);
        if (hash->isPreloading())
            return; // queued or being loaded already; the entry is dropped below
        if (priority == RvoDataBlockManagerBase::PreloadBackground
            && m_Queue.size() >= size_t(qMax(m_MaxRequests, 0)))
            return;
        auto position = m_Queue.begin();
        while (position != m_Queue.end() && position->priority <= entry.priority)
            ++position;
        m_Queue.insert(position, std::move(entry));
        hash->setPreloading(true);
    }
    m_Changed.notifyAll();
}

void RvoDataBlockManagerReadThread::run()
{
    RvoMutexLocker locker(m_Lock);
    for (;;) {
        while (!m_Closing && m_Queue.empty())
            m_Changed.wait(m_Lock);
        if (m_Closing)
            break;
        Entry entry = std::move(m_Queue.front());
        m_Queue.pop_front();
        m_RequestsHandled.fetch_add(1, std::memory_order_relaxed);
        locker.unlock();
        m_Changed.notifyAll();
        if (entry.hash)
            loadBlock(entry.hash, true);
        entry.hash.reset();
        locker.relock();
    }
    std::deque<Entry> dropped;
    dropped.swap(m_Queue);
    locker.unlock();
    m_Changed.notifyAll();
}

QFuture<RvoDataBlock *>
RvoDataBlockManagerReadThread::loadBlock(const RvoSmartPointer<RvoDataHash> &hash, bool makeLive)
{
    QString directory;
    QString fileName;
    const bool named = buildFilename(hash.data(), m_Root, subCache(),
                                     quint32(qMax(m_BucketCount, 1)), directory, fileName);
    RvoBlockLoad load(m_Host, hash, makeLive, directory, fileName, m_DiskUsage);
    if (!named)
        return failed(load);
    if (!QDir(directory).exists())
        QDir().mkpath(directory);
    const QString path = load.path();

    QFile file(path);
    // Opened under the block-file lock: a block read from its file counts
    // as saved, so no collector may delete the file on a look at the
    // registry made before this digest was interned.
    auto open = [&file] {
        RvoMutexLocker fileLocker(blockFileLock());
        return file.open(QIODevice::ReadOnly | QIODevice::Unbuffered);
    };
    if (!open()) {
        // A save of this block may be under way: let the writers finish.
        m_Host.finishPendingSaves();
        if (!open()) {
            if (m_Host.fetchMissing(load))
                return load.future();
            qCDebug(lcDdi, "Cannot Open File %s to read. Exist?=%d", qPrintable(path),
                    QFile::exists(path) ? 1 : 0);
            return failed(load);
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
        return failed(load);
    }
    // The header matched the file's length, so this is what the file holds.
    const qint32 blockSize = header.payloadLength;
    const qint64 size = header.size;
    RvoBufferPool::Buffer buffer = RvoBufferPool::instance().acquire(blockSize);
    if (buffer.isNull()) {
        rvoReport(QStringLiteral("Cannot allocate %1 bytes to read %2").arg(blockSize).arg(path));
        return failed(load);
    }
    if (file.read(buffer.data(), blockSize) != blockSize) {
        qCDebug(lcDdi, "Cannot read all Data from File '%s'", qPrintable(path));
        RvoBufferPool::instance().release(std::move(buffer));
        discardCorrupt(path, RvoBlockFile::faultText(RvoBlockFile::Short));
        return failed(load);
    }
    file.close();
    RvoCacheScan::noteUse(path);
    m_BytesRead.fetch_add(size, std::memory_order_relaxed);

    QFuture<RvoDataBlock *> future = load.future();
    auto *task = new DecodeTask(std::move(load), std::move(buffer), blockSize, size);
    rvoHappensBefore(task);
    QThreadPool::globalInstance()->start(task);
    return future;
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

void RvoDataBlockManagerReadThread::killRequests()
{
    std::deque<Entry> dropped;
    {
        RvoMutexLocker locker(m_Lock);
        dropped.swap(m_Queue);
    }
    m_Changed.notifyAll();
}

void RvoDataBlockManagerReadThread::flush()
{
    RvoMutexLocker locker(m_Lock);
    while (!m_Queue.empty() && !m_Closing && isRunning())
        m_Changed.wait(m_Lock);
}

void RvoDataBlockManagerReadThread::closeDown()
{
    flush();
    {
        RvoMutexLocker locker(m_Lock);
        m_Closing = true;
    }
    m_Changed.notifyAll();
}

int RvoDataBlockManagerReadThread::requests() const
{
    RvoMutexLocker locker(m_Lock);
    return int(m_Queue.size());
}

void RvoDataBlockManagerReadThread::setSubCache(const QString &name)
{
    RvoMutexLocker locker(m_Lock);
    m_SubCache = name;
}

QString RvoDataBlockManagerReadThread::subCache() const
{
    RvoMutexLocker locker(m_Lock);
    return m_SubCache;
}

QList<QPair<int, RvoDataHash *>> RvoDataBlockManagerReadThread::queuedRequests() const
{
    QList<QPair<int, RvoDataHash *>> result;
    RvoMutexLocker locker(m_Lock);
    for (const Entry &entry : m_Queue)
        result.append(qMakePair(entry.priority, entry.hash.data()));
    return result;
}
