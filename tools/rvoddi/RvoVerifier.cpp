#include "RvoVerifier.h"

#include "RvoBlockCodec_p.h"
#include "RvoConditionVariable_p.h"
#include "RvoMutexLocker_p.h"

#include <QFile>
#include <QFileInfo>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <ctime>
#include <thread>
#include <vector>

namespace {

// The workers' count and CPU times; the calling thread waits on `finished`
// for the count to reach 0. No other lock is taken while `lock` is held.
struct Workers
{
    RvoMutex lock;
    RvoConditionVariable finished;
    int running GUARDED_BY(lock) = 0;
    QVector<double> cpuSeconds GUARDED_BY(lock);
};

} // namespace

RvoVerifier::Result RvoVerifier::run(const QVector<QString> &paths, const QVector<qint64> &lengths,
                                     int jobs, const std::function<void(qint64, qint64)> &progress)
{
    const qsizetype count = paths.size();
    std::atomic<qsizetype> next {0};
    std::atomic<qint64> doneCount {0};
    std::atomic<qint64> doneBytes {0};
    // Per file: its fault, and for sound files the block's size.
    std::vector<RvoBlockFile::Fault> faults(size_t(count), RvoBlockFile::Sound);
    std::vector<qint64> sizes(size_t(count), -1);
    std::vector<QString> errors(static_cast<size_t>(count));

    Workers workers;
    const int threadCount = qBound(1, jobs, int(qMax<qsizetype>(count, 1)));
    {
        RvoMutexLocker guard(workers.lock);
        workers.running = threadCount;
    }

    auto work = [&] {
        RvoBlockCodec codec;
        for (qsizetype i; (i = next.fetch_add(1, std::memory_order_relaxed)) < count;) {
            RvoBlockFile::Header header;
            QString error;
            const RvoBlockFile::Fault fault
                    = RvoBlockFile::verifyFile(codec, paths[i], nullptr, &header, &error);
            faults[size_t(i)] = fault;
            errors[size_t(i)] = error;
            if (fault == RvoBlockFile::Sound)
                sizes[size_t(i)] = header.size;
            doneCount.fetch_add(1, std::memory_order_relaxed);
            doneBytes.fetch_add(lengths.value(i), std::memory_order_relaxed);
        }
        struct timespec cpu;
        ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &cpu);
        RvoMutexLocker guard(workers.lock);
        workers.cpuSeconds.append(double(cpu.tv_sec) + double(cpu.tv_nsec) / 1e9);
        if (--workers.running == 0)
            workers.finished.notifyAll();
    };
    std::vector<std::thread> threads;
    for (int i = threadCount; i > 0; --i)
        threads.emplace_back(work);
    Result result;
    {
        RvoMutexLocker guard(workers.lock);
        while (workers.running > 0) {
            workers.finished.waitFor(workers.lock, std::chrono::milliseconds(100));
            if (workers.running > 0 && progress)
                progress(doneCount.load(std::memory_order_relaxed),
                         doneBytes.load(std::memory_order_relaxed));
        }
        result.threadCpuSeconds = workers.cpuSeconds;
    }
    for (std::thread &thread : threads)
        thread.join();
    if (progress)
        progress(doneCount.load(), doneBytes.load());

    for (qsizetype i = 0; i < count; ++i) {
        const RvoBlockFile::Fault fault = faults[size_t(i)];
        // A file deleted since the walk is not a bad file.
        if (fault == RvoBlockFile::Unreadable && !QFileInfo::exists(paths[i]))
            continue;
        ++result.checked;
        result.bytes += lengths.value(i);
        if (fault == RvoBlockFile::Sound)
            result.uncompressedBytes += sizes[size_t(i)];
        else
            result.bad.append({paths[i], fault, errors[size_t(i)]});
    }
    return result;
}

qint64 RvoVerifier::blockSize(const QString &path, qint64 length, RvoBlockCodecSetting::Kind *kind,
                              bool *known)
{
    QFile file(path);
    // The header, the payload's length field and the byte that names its codec.
    char header[RvoBlockFile::kHeaderSize + 5];
    RvoBlockFile::Header parsed;
    const qint64 read = file.open(QIODevice::ReadOnly) ? file.read(header, sizeof header) : -1;
    if (read < RvoBlockFile::kHeaderSize
        || RvoBlockFile::parseHeader(header, read, length, &parsed) != RvoBlockFile::Sound)
        return -1;
    if (known)
        *known = RvoBlockCodec::kindOf(header + RvoBlockFile::kHeaderSize,
                                       read - RvoBlockFile::kHeaderSize, kind);
    return parsed.size;
}

QString RvoVerifier::reason(const Bad &bad)
{
    switch (bad.fault) {
    case RvoBlockFile::Sound:
        break;
    case RvoBlockFile::Short:
        return QStringLiteral("shorter than its 12-byte header");
    case RvoBlockFile::Lengths:
        return QStringLiteral("its header does not agree with its length");
    case RvoBlockFile::Payload:
        return QStringLiteral("its payload does not decode to the header's size");
    case RvoBlockFile::Digest:
        return QStringLiteral("its bytes do not hash to its name");
    case RvoBlockFile::Unreadable:
        return bad.error;
    }
    return QString();
}
