#include "ManagerTestAccess.h"
#include "OutputCapture.h"
#include "RvoBlockCodec_p.h"
#include "RvoBlockFile_p.h"
#include "RvoBlockSaver_p.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QThread>

#include <gtest/gtest.h>

#include <algorithm>
#include <thread>
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

QString fileName(int i)
{
    return QStringLiteral("block-%1").arg(i);
}

// What the block file at `path` holds, or a null array when it is not a
// sound block file.
QByteArray blockIn(const QString &path)
{
    const QByteArray file = readFile(path);
    RvoBlockCodec codec;
    QByteArray content;
    RvoBlockFile::decode(codec, file.constData(), file.size(), &content);
    return content;
}

int filesIn(const QString &directory)
{
    return int(QDir(directory).entryList(QDir::Files).size());
}

} // namespace

// The jobs' bytes exist only inside the jobs (the submitters' copies are
// gone); they are finished in the reverse order of submission from another
// thread, so that most are pulled to the front or waited for while running.
TEST(RvoBlockSaver, FilesHoldTheirJobsBytesWhateverTheOrderOfFinishing)
{
    QTemporaryDir dir;
    const QString directory = dir.filePath(QStringLiteral("bucket"));
    RvoBlockSaver &saver = RvoBlockSaver::instance();
    constexpr int kJobs = 64;
    std::vector<RvoBlockSaver::JobPtr> jobs(kJobs);
    std::thread first([&] {
        for (int i = 0; i < kJobs; i += 2)
            jobs[size_t(i)] = saver.submit(jobBytes(i), directory, fileName(i));
    });
    for (int i = 1; i < kJobs; i += 2)
        jobs[size_t(i)] = saver.submit(jobBytes(i), directory, fileName(i));
    first.join();

    std::thread finisher([&] {
        RvoBlockCodec codec;
        for (int i = kJobs - 1; i >= 0; --i) {
            const RvoBlockSaver::Outcome outcome =
                    saver.finish(jobs[size_t(i)], jobBytes(i), directory, fileName(i), codec);
            EXPECT_TRUE(outcome.onDisk) << "job " << i;
            EXPECT_EQ(outcome.written + 12, QFile(directory + "/" + fileName(i)).size());
        }
    });
    finisher.join();
    EXPECT_EQ(saver.pendingJobs(), 0);
    for (int i = 0; i < kJobs; ++i)
        EXPECT_EQ(blockIn(directory + "/" + fileName(i)), jobBytes(i)) << "job " << i;
    EXPECT_EQ(filesIn(directory), kJobs) << "no temporary file is left";
}

// A write thread waiting for a save must not wait for the whole backlog
// queued before it.
TEST(RvoBlockSaver, FinishPullsAQueuedJobAheadOfTheBacklog)
{
    QTemporaryDir dir;
    RvoBlockSaver &saver = RvoBlockSaver::instance();
    const QByteArray bytes = jobBytes(5).repeated(4);
    constexpr int kJobs = 200;
    std::vector<RvoBlockSaver::JobPtr> jobs;
    for (int i = 0; i < kJobs; ++i)
        jobs.push_back(saver.submit(bytes, dir.path(), fileName(i)));
    RvoBlockCodec codec;
    EXPECT_TRUE(saver.finish(jobs.back(), bytes, dir.path(), fileName(kJobs - 1), codec).onDisk);
    EXPECT_GT(saver.pendingJobs(), kJobs / 2);
    for (const RvoBlockSaver::JobPtr &job : jobs)
        saver.cancel(job);
}

// A save the file system refuses says why and leaves nothing behind; it
// prints nothing itself, since its caller reports an episode of refusals
// once.
TEST(RvoBlockSaver, RefusedSaveSaysWhyAndPrintsNothing)
{
    QTemporaryDir dir;
    ASSERT_TRUE(writeFile(dir.filePath(QStringLiteral("file")), "x"));
    RvoBlockCodec codec;
    StdoutCapture out;
    const RvoBlockSaver::Outcome outcome = RvoBlockSaver::instance().finish(
            nullptr, jobBytes(1), dir.filePath(QStringLiteral("file/bucket")), fileName(1), codec);
    EXPECT_TRUE(outcome.refused);
    EXPECT_FALSE(outcome.onDisk);
    EXPECT_EQ(outcome.report, QStringLiteral("Cannot Open File ") + fileName(1));
    EXPECT_EQ(outcome.error, QStringLiteral("Not a directory"));
    EXPECT_EQ(out.text(), QString());
    EXPECT_EQ(filesIn(dir.path()), 1);
}

// The sub-cache changed between queueing and the save's turn: the file goes
// where the write thread asks, whatever the worker did meanwhile.
TEST(RvoBlockSaver, JobForAnotherDirectoryIsSavedWhereFinishAsks)
{
    QTemporaryDir dir;
    const QString before = dir.filePath(QStringLiteral("before"));
    const QString now = dir.filePath(QStringLiteral("now"));
    RvoBlockSaver &saver = RvoBlockSaver::instance();
    RvoBlockCodec codec;
    for (int i = 0; i < 8; ++i) {
        const RvoBlockSaver::JobPtr job = saver.submit(jobBytes(i), before, fileName(i));
        if (i % 2 == 0) // half of them finished by a worker first
            ASSERT_TRUE(waitUntil([&] { return QFile::exists(before + "/" + fileName(i)); }));
        const RvoBlockSaver::Outcome outcome =
                saver.finish(job, jobBytes(i), now, fileName(i), codec);
        EXPECT_TRUE(outcome.onDisk);
        EXPECT_EQ(blockIn(now + "/" + fileName(i)), jobBytes(i)) << "job " << i;
    }
}

// After cancel() no worker writes the job's file: the caller may remove the
// directory at once. A save in progress is finished first.
TEST(RvoBlockSaver, NoFileAppearsAfterItsJobIsCancelled)
{
    QTemporaryDir dir;
    RvoBlockSaver &saver = RvoBlockSaver::instance();
    std::vector<QByteArray> bytes;
    for (int i = 0; i < 200; ++i)
        bytes.push_back(jobBytes(i));
    // About 16 MiB: a worker takes tens of milliseconds over it.
    const QByteArray large = jobBytes(9).repeated(256);
    const RvoBlockSaver::JobPtr running =
            saver.submit(large, dir.path(), QStringLiteral("large"));
    ASSERT_TRUE(waitUntil([&] { return saver.pendingJobs() == 0; })) << "a worker starts it";
    std::vector<RvoBlockSaver::JobPtr> jobs;
    for (int i = 0; i < 200; ++i)
        jobs.push_back(saver.submit(bytes[size_t(i)], dir.path(), fileName(i)));
    bytes.clear();
    saver.cancel(running);
    EXPECT_EQ(blockIn(dir.filePath(QStringLiteral("large"))), large)
            << "cancel() returned while the save was still being written";
    for (const RvoBlockSaver::JobPtr &job : jobs)
        saver.cancel(job);
    EXPECT_EQ(saver.pendingJobs(), 0);
    const int written = filesIn(dir.path());
    QThread::msleep(200);
    EXPECT_EQ(filesIn(dir.path()), written);
    // Cancelling twice and cancelling null are harmless; without a job the
    // save happens on the caller.
    saver.cancel(jobs.front());
    saver.cancel(nullptr);
    RvoBlockCodec codec;
    const QString path = dir.filePath(QStringLiteral("direct"));
    EXPECT_TRUE(saver.finish(nullptr, jobBytes(3), dir.path(), QStringLiteral("direct"), codec)
                        .onDisk);
    EXPECT_EQ(blockIn(path), jobBytes(3));
}

#ifdef Q_OS_LINUX
// Saving is background work: one named worker per core, at nice 10.
TEST(RvoBlockSaver, WorkersAreNamedAndRunAtLowerPriority)
{
    QTemporaryDir dir;
    RvoBlockSaver &saver = RvoBlockSaver::instance();
    RvoBlockCodec codec;
    saver.finish(saver.submit(jobBytes(1), dir.path(), fileName(1)), jobBytes(1), dir.path(),
                 fileName(1), codec);

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
                != "rvoddi-save")
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
