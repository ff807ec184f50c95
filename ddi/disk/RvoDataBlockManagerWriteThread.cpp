#include "RvoDataBlockManagerWriteThread_p.h"

#include "RvoBlockFile_p.h"
#include "RvoDataBlock.h"
#include "RvoDdiDiagnostics_p.h"
#include "RvoDdiLog.h"
#include "RvoDiskHost_p.h"
#include "RvoDiskLayout_p.h"
#include "RvoDiskUsage_p.h"
#include "RvoMutexLocker_p.h"

#include <QDir>

#include <algorithm>
#include <unordered_map>

#include <iterator>

RvoDataBlockManagerWriteThread::RvoDataBlockManagerWriteThread(RvoDiskHost &host,
                                                               const QString &root, int bucketCount,
                                                               int maxRequests, QObject *parent)
    : QThread(parent)
    , m_Host(host)
    , m_Root(root)
    , m_MaxRequests(maxRequests)
    , m_BucketCount(bucketCount)
{
    setObjectName(QStringLiteral("rvoddi-write")); // the thread's name, for top -H and debuggers
}

RvoDataBlockManagerWriteThread::~RvoDataBlockManagerWriteThread()
{
    if (isRunning()) {
        closeDown();
        wait();
    }
    std::deque<Entry> dropped;
    {
        RvoMutexLocker locker(m_Lock);
        dropped.swap(m_Queue);
        m_BytesInQueue = 0;
        m_ParkedInQueue = 0;
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

void RvoDataBlockManagerWriteThread::writeBlock(RvoDataBlockManagerBase::PreloadPriority priority,
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
        job = RvoBlockSaver::instance().submit(block->m_Data, directory, fileName,
                                               m_Host.blockCodec());
    }
    Entry entry {int(priority),
                 block->size(),
                 {std::move(hash), block, deleteAfterWrite},
                 std::move(job)};
    {
        RvoMutexLocker locker(m_Lock);
        // The queue is sorted: insert after the last entry of a priority not
        // greater than this one (first come first served within a priority).
        auto position = m_Queue.end();
        while (position != m_Queue.begin() && std::prev(position)->priority > entry.priority)
            --position;
        m_Queue.insert(position, std::move(entry));
        m_BytesInQueue += block->size();
    }
    m_Changed.notifyAll();
}

bool RvoDataBlockManagerWriteThread::isIdle() const
{
    RvoMutexLocker locker(m_Lock);
    return m_Queue.empty() && !m_Busy;
}

bool RvoDataBlockManagerWriteThread::canServiceRequests() const
{
    RvoMutexLocker locker(m_Lock);
    return m_Queue.size() < size_t(qMax(m_MaxRequests, 0));
}

int RvoDataBlockManagerWriteThread::requests() const
{
    RvoMutexLocker locker(m_Lock);
    return int(m_Queue.size());
}

qint64 RvoDataBlockManagerWriteThread::bytesInQueue() const
{
    RvoMutexLocker locker(m_Lock);
    return m_BytesInQueue;
}

void RvoDataBlockManagerWriteThread::flush()
{
    RvoMutexLocker locker(m_Lock);
    // Saves waiting for a retry are due now: a flush never waits out a pause.
    const quint64 serial = ++m_FlushSerial;
    m_Changed.notifyAll();
    while (!flushed(serial))
        m_Changed.wait(m_Lock);
}

bool RvoDataBlockManagerWriteThread::flushed(quint64 serial) const
{
    if (m_Closing || !isRunning())
        return true;
    if (m_Busy)
        return false;
    return std::all_of(m_Queue.begin(), m_Queue.end(),
                       [serial](const Entry &entry) { return entry.triedInFlush >= serial; });
}

void RvoDataBlockManagerWriteThread::closeDown()
{
    {
        RvoMutexLocker locker(m_Lock);
        m_Closing = true;
    }
    m_Changed.notifyAll();
}

void RvoDataBlockManagerWriteThread::setSubCache(const QString &name)
{
    RvoMutexLocker locker(m_Lock);
    m_SubCache = name;
}

QString RvoDataBlockManagerWriteThread::subCache() const
{
    RvoMutexLocker locker(m_Lock);
    return m_SubCache;
}

QList<QPair<int, RvoDataHash *>> RvoDataBlockManagerWriteThread::queuedRequests() const
{
    QList<QPair<int, RvoDataHash *>> result;
    RvoMutexLocker locker(m_Lock);
    for (const Entry &entry : m_Queue)
        result.append(qMakePair(entry.priority, entry.request.hash.data()));
    return result;
}

RvoDataBlock *RvoDataBlockManagerWriteThread::queuedCopy(const RvoDataHash *hash) const
{
    if (!hash)
        return nullptr;
    QByteArray bytes; // shared with the queued block, which is never changed
    qint64 size = 0;
    bool compressed = false;
    {
        RvoMutexLocker locker(m_Lock);
        auto holds = [hash](const Entry &entry) {
            return entry.request.hash.data() == hash && entry.request.block;
        };
        const Entry *entry = m_Current && holds(*m_Current) ? m_Current : nullptr;
        for (auto it = m_Queue.begin(); !entry && it != m_Queue.end(); ++it)
            entry = holds(*it) ? &*it : nullptr;
        if (!entry)
            return nullptr;
        bytes = entry->request.block->m_Data;
        size = entry->request.block->m_Size;
        compressed = entry->request.block->m_Compressed;
    }
    if (compressed)
        bytes = qUncompress(bytes);
    if (bytes.size() != size) {
        rvoReport(QStringLiteral("Queued block %1 does not give back its %2 bytes")
                          .arg(hash->toString())
                          .arg(size));
        return nullptr;
    }
    return RvoDataBlock::sharing(bytes);
}

void RvoDataBlockManagerWriteThread::setRetryPauses(std::chrono::milliseconds first,
                                                    std::chrono::milliseconds longest)
{
    RvoMutexLocker locker(m_Lock);
    m_FirstRetryPause = first;
    m_LongestRetryPause = longest;
}

std::deque<RvoDataBlockManagerWriteThread::Entry>::iterator
RvoDataBlockManagerWriteThread::nextDue(std::deque<Entry> &dropped, Clock::time_point *wakeAt)
{
    // Refused saves of a digest that only the queued saves still refer to
    // are not wanted: nobody can ask for the block again.
    if (m_ParkedInQueue > 0) {
        std::unordered_map<const RvoDataHash *, int> queuedReferences;
        for (const Entry &entry : m_Queue)
            ++queuedReferences[entry.request.hash.data()];
        for (auto it = m_Queue.begin(); it != m_Queue.end();) {
            const RvoDataHash *hash = it->request.hash.data();
            if (it->refusals > 0 && (!hash || hash->refCount() <= queuedReferences[hash])) {
                m_BytesInQueue -= it->size;
                --m_ParkedInQueue;
                dropped.push_back(std::move(*it));
                it = m_Queue.erase(it);
            } else {
                ++it;
            }
        }
    }
    const Clock::time_point now = Clock::now();
    for (auto it = m_Queue.begin(); it != m_Queue.end(); ++it) {
        if (it->refusals == 0 || it->retryAt <= now || it->triedInFlush < m_FlushSerial)
            return it;
        // Woken at least once a second to drop saves nobody wants.
        *wakeAt = std::min({*wakeAt, it->retryAt, now + std::chrono::seconds(1)});
    }
    return m_Queue.end();
}

bool RvoDataBlockManagerWriteThread::park(Entry &&entry, Clock::time_point attemptedAt)
{
    ++entry.refusals;
    // 1 s, doubling with each refusal, at most 30 s (by default).
    auto pause = m_LongestRetryPause;
    if (entry.refusals <= 16)
        pause = std::min(pause, m_FirstRetryPause * (1 << (entry.refusals - 1)));
    entry.retryAt = Clock::now() + pause;
    entry.job.reset(); // a retry saves on this thread
    // Ahead of the saves of its priority, which came after it.
    auto position = m_Queue.begin();
    while (position != m_Queue.end() && position->priority < entry.priority)
        ++position;
    if (!entry.countedWhileTried)
        m_BytesInQueue += entry.size;
    ++m_ParkedInQueue;
    m_Queue.insert(position, std::move(entry));
    m_RefusedAttempts.fetch_add(1, std::memory_order_relaxed);
    if (m_Refusing.load(std::memory_order_relaxed) || attemptedAt < m_RecoveredAt)
        return false;
    m_Refusing.store(true, std::memory_order_relaxed);
    return true;
}

void RvoDataBlockManagerWriteThread::retire(RvoDataBlockSaveRequest &request)
{
    finishWith(request);
    m_Host.releaseDigest(request.hash);
}

void RvoDataBlockManagerWriteThread::run()
{
    RvoMutexLocker locker(m_Lock);
    for (;;) {
        std::deque<Entry> dropped;
        Clock::time_point wakeAt = Clock::time_point::max();
        const auto due = m_Closing ? m_Queue.end() : nextDue(dropped, &wakeAt);
        if (!dropped.empty()) {
            m_SavesRetired.fetch_add(dropped.size(), std::memory_order_release);
            locker.unlock();
            for (Entry &entry : dropped)
                retire(entry.request);
            m_Changed.notifyAll();
            locker.relock();
            continue;
        }
        // Saves still queued now are not written: the manager flushes first.
        if (m_Closing)
            return;
        if (due == m_Queue.end()) {
            // The deadline is set on the system clock: a wait on the steady
            // clock (pthread_cond_clockwait) is invisible to ThreadSanitizer.
            // A clock step only moves one wake-up; due times are checked
            // again after it.
            if (wakeAt == Clock::time_point::max())
                m_Changed.wait(m_Lock);
            else
                m_Changed.waitFor(m_Lock, wakeAt - Clock::now());
            continue;
        }
        Entry entry = std::move(*due);
        m_Queue.erase(due);
        // A save taken off the queue makes room for producers, unless the
        // disk refuses saves: then the room would only let one more block in
        // each time a save is tried and refused again.
        entry.countedWhileTried = m_Refusing.load(std::memory_order_relaxed);
        if (!entry.countedWhileTried)
            m_BytesInQueue -= entry.size;
        if (entry.refusals > 0)
            --m_ParkedInQueue;
        entry.triedInFlush = m_FlushSerial;
        m_Busy = true;
        m_Current = &entry;
        locker.unlock();
        m_Changed.notifyAll();

        const RvoBlockSaver::Outcome outcome = handleRequest(entry.request, entry.job);

        locker.relock();
        m_Current = nullptr;
        if (outcome.refused) {
            const int waiting = int(m_Queue.size()) + 1;
            const bool episodeBegins = park(std::move(entry), outcome.attemptedAt);
            m_Busy = false;
            locker.unlock();
            m_Changed.notifyAll();
            if (episodeBegins) {
                rvoReport(outcome.report);
                const QString message
                        = QStringLiteral("Cannot save blocks under %1: %2 (%3 saves waiting)")
                                  .arg(m_Root, outcome.error)
                                  .arg(waiting);
                qCDebug(lcDdi, "%s", qPrintable(message));
                RVODDI_LOG(RvoDdiLog::Information, message);
            }
            locker.relock();
            continue;
        }
        m_SavesRetired.fetch_add(1, std::memory_order_release);
        if (entry.countedWhileTried)
            m_BytesInQueue -= entry.size;
        // Saves succeed again once a refused one is written, or once none
        // waits: a save that was under way when another was refused, or
        // that found its file there, proves nothing.
        const bool recovered = outcome.written > 0 && m_Refusing.load(std::memory_order_relaxed)
                && (entry.refusals > 0 || m_ParkedInQueue == 0);
        if (recovered) {
            m_Refusing.store(false, std::memory_order_relaxed);
            m_RecoveredAt = Clock::now();
        }
        locker.unlock();
        retire(entry.request);
        if (recovered) {
            const QString message = QStringLiteral("Saving blocks under %1 again").arg(m_Root);
            qCDebug(lcDdi, "%s", qPrintable(message));
            RVODDI_LOG(RvoDdiLog::Information, message);
        }
        locker.relock();
        m_Busy = false;
        m_Changed.notifyAll();
    }
}

RvoBlockSaver::Outcome
RvoDataBlockManagerWriteThread::handleRequest(RvoDataBlockSaveRequest &request,
                                              const RvoBlockSaver::JobPtr &job)
{
    RvoBlockSaver &saver = RvoBlockSaver::instance();
    RvoDataBlock *block = request.block;
    QString directory;
    QString fileName;
    RvoBlockSaver::Outcome outcome;
    if (block
        && buildFilename(request.hash.data(), m_Root, subCache(), quint32(qMax(m_BucketCount, 1)),
                         directory, fileName)) {
        // A block compressed in memory is already in the file's form (zlib,
        // whatever the setting).
        if (!block->isCompressed())
            m_Codec.setSetting(m_Host.blockCodec());
        outcome = block->isCompressed()
                ? RvoBlockSaver::save(block->size(), block->m_Data.constData(),
                                      block->m_Data.size(), directory, fileName)
                : saver.finish(job, block->m_Data, directory, fileName, m_Codec);
        if (outcome.written > 0) {
            m_BytesWritten.fetch_add(outcome.written, std::memory_order_relaxed);
            if (m_DiskUsage)
                m_DiskUsage->added(RvoBlockFile::kHeaderSize + outcome.written);
            m_RequestsHandled.fetch_add(1, std::memory_order_relaxed);
            // A file this process made is shared; one found there was made
            // (and shared) by whoever wrote it.
            m_Host.blockFilePublished(directory + QDir::separator() + fileName, fileName,
                                      RvoBlockFile::kHeaderSize + outcome.written);
        }
        // The one point where a save succeeds: the block file is complete
        // under its name. Only then is the block marked saved, and only then
        // may it be let go of. A save that could not be written is never
        // marked, whatever a plain write-and-forget would do: the block
        // would pass for one on disk and be lost when freed.
        if (outcome.onDisk)
            block->m_Cached.store(true, std::memory_order_release);
    }
    // A job not finished above is not wanted (no-op when it was).
    saver.cancel(job);
    return outcome;
}
