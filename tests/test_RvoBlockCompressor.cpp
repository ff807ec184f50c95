#include "ManagerTestAccess.h"
#include "RvoBlockCodec_p.h"
#include "RvoBlockCompressor_p.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QThread>

#include <gtest/gtest.h>

#include <algorithm>
#include <thread>
#include <utility>
#include <vector>

namespace {

// Distinct, compressible bytes for job i.
QByteArray jobBytes(int i)
{
    QByteArray bytes(64 * 1024 + i, Qt::Uninitialized);
    for (int k = 0; k < bytes.size(); ++k)
        bytes[k] = char((k / 7 + i * 31) & 0xFF);
    return bytes;
}

// What the payload decodes to, or a null array when it does not decode.
QByteArray decoded(const RvoBlockCompressor::Payload &payload, qint64 expectedSize)
{
    if (payload.isNull())
        return QByteArray();
    RvoBlockCodec codec;
    QByteArray out;
    return codec.uncompress(payload.data(), payload.size, expectedSize, &out) ? out : QByteArray();
}

} // namespace

// The jobs' bytes exist only inside the jobs (the submitters' copies are
// gone), they are taken in the reverse order of submission from another
// thread, so that most are pulled to the front or waited for while running.
TEST(RvoBlockCompressor, PayloadsDecodeToTheirJobsBytesWhateverTheOrderOfTaking)
{
    RvoBlockCompressor &compressor = RvoBlockCompressor::instance();
    constexpr int kJobs = 64;
    std::vector<RvoBlockCompressor::JobPtr> jobs(kJobs);
    std::thread first([&] {
        for (int i = 0; i < kJobs; i += 2)
            jobs[size_t(i)] = compressor.submit(jobBytes(i), QStringLiteral("/nonexistent/a"));
    });
    for (int i = 1; i < kJobs; i += 2)
        jobs[size_t(i)] = compressor.submit(jobBytes(i), QStringLiteral("/nonexistent/b"));
    first.join();

    std::thread taker([&] {
        RvoBlockCodec codec;
        for (int i = kJobs - 1; i >= 0; --i) {
            RvoBlockCompressor::Payload payload = compressor.take(jobs[size_t(i)], codec);
            const QByteArray expected = jobBytes(i);
            EXPECT_EQ(decoded(payload, expected.size()), expected) << "job " << i;
            RvoBlockCompressor::release(std::move(payload));
        }
    });
    taker.join();
    EXPECT_EQ(compressor.pendingJobs(), 0);
}

// Each ready payload holds a buffer as large as its block: the workers stop
// a few payloads ahead of the takers, and a job that is wanted is started
// even then.
TEST(RvoBlockCompressor, WorkersStopAFewPayloadsAheadAndStillStartAWantedJob)
{
    RvoBlockCompressor &compressor = RvoBlockCompressor::instance();
    constexpr int kJobs = 40;
    std::vector<RvoBlockCompressor::JobPtr> jobs;
    for (int i = 0; i < kJobs; ++i)
        jobs.push_back(compressor.submit(jobBytes(i), QStringLiteral("/nonexistent/e")));
    const int ahead = RvoBlockCompressor::kReadyPerWorker * qMax(1, QThread::idealThreadCount());
    EXPECT_TRUE(waitUntil([&] { return compressor.pendingJobs() == kJobs - ahead; }));
    EXPECT_FALSE(waitUntil([&] { return compressor.pendingJobs() < kJobs - ahead; }, 300))
            << "workers ran on with " << ahead << " payloads ready";

    // The last job is wanted while the ready payloads are at their limit.
    RvoBlockCodec codec;
    RvoBlockCompressor::Payload last = compressor.take(jobs.back(), codec);
    EXPECT_EQ(decoded(last, jobBytes(kJobs - 1).size()), jobBytes(kJobs - 1));
    RvoBlockCompressor::release(std::move(last));
    for (int i = 0; i + 1 < kJobs; ++i) {
        RvoBlockCompressor::Payload payload = compressor.take(jobs[size_t(i)], codec);
        EXPECT_EQ(decoded(payload, jobBytes(i).size()), jobBytes(i)) << "job " << i;
        RvoBlockCompressor::release(std::move(payload));
    }
    EXPECT_EQ(compressor.pendingJobs(), 0);
}

// A worker that finds the block file skips the job; when the write thread
// then finds no file (deleted meanwhile, or another sub-cache), take() must
// still give the payload.
TEST(RvoBlockCompressor, JobSkippedForAnExistingFileIsCompressedWhenTakenAnyway)
{
    QTemporaryDir dir;
    const QString path = dir.filePath(QStringLiteral("present"));
    ASSERT_TRUE(writeFile(path, QByteArray("a block file")));
    RvoBlockCompressor &compressor = RvoBlockCompressor::instance();
    const QByteArray bytes = jobBytes(7);
    const RvoBlockCompressor::JobPtr job = compressor.submit(bytes, path);
    ASSERT_TRUE(waitUntil([&] { return compressor.pendingJobs() == 0; }));

    RvoBlockCodec codec;
    RvoBlockCompressor::Payload payload = compressor.take(job, codec);
    EXPECT_EQ(decoded(payload, bytes.size()), bytes);
    RvoBlockCompressor::release(std::move(payload));
}

TEST(RvoBlockCompressor, CancelledJobsLeaveTheQueueAndTakeNullIsNull)
{
    RvoBlockCompressor &compressor = RvoBlockCompressor::instance();
    std::vector<RvoBlockCompressor::JobPtr> jobs;
    for (int i = 0; i < 200; ++i)
        jobs.push_back(compressor.submit(jobBytes(i), QStringLiteral("/nonexistent/c")));
    for (const RvoBlockCompressor::JobPtr &job : jobs)
        compressor.cancel(job);
    EXPECT_EQ(compressor.pendingJobs(), 0);
    // Cancelling twice and cancelling null are harmless.
    compressor.cancel(jobs.front());
    compressor.cancel(nullptr);
    RvoBlockCodec codec;
    EXPECT_TRUE(compressor.take(nullptr, codec).isNull());
}

#ifdef Q_OS_LINUX
// Compression is background work: one named worker per core, at nice 10.
TEST(RvoBlockCompressor, WorkersAreNamedAndRunAtLowerPriority)
{
    RvoBlockCompressor &compressor = RvoBlockCompressor::instance();
    RvoBlockCodec codec;
    RvoBlockCompressor::release(
            compressor.take(compressor.submit(jobBytes(1), QStringLiteral("/nonexistent/d")),
                            codec));

    // The workers name themselves and step back as they start: wait for all.
    struct Worker
    {
        QString task;
        int nice;
    };
    auto workers = [] {
        std::vector<Worker> found;
        const QDir tasks(QStringLiteral("/proc/self/task"));
        for (const QString &task : tasks.entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
            if (readFile(tasks.filePath(task + QStringLiteral("/comm"))).trimmed()
                != "rvoddi-compress")
                continue;
            // Fields after the parenthesised name start with the state
            // (field 3); nice is field 19.
            const QByteArray stat = readFile(tasks.filePath(task + QStringLiteral("/stat")));
            const QList<QByteArray> fields = stat.mid(stat.lastIndexOf(')') + 2).split(' ');
            found.push_back({task, fields.size() > 16 ? fields[16].toInt() : -100});
        }
        return found;
    };
    const size_t expected = size_t(qMax(1, QThread::idealThreadCount()));
    waitUntil([&] {
        const std::vector<Worker> found = workers();
        return found.size() == expected
                && std::all_of(found.begin(), found.end(),
                               [](const Worker &w) { return w.nice == 10; });
    });
    const std::vector<Worker> found = workers();
    EXPECT_EQ(found.size(), expected);
    for (const Worker &worker : found)
        EXPECT_EQ(worker.nice, 10) << "thread " << worker.task.toStdString();
}
#endif
