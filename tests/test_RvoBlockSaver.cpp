#include "ManagerTestAccess.h"
#include "RvoBlockCodec_p.h"
#include "RvoBlockSaver_p.h"

namespace {

// Distinct, compressible bytes for job i.
QByteArray jobBytes(int i)
{
    return testContent(i, 64 * 1024 + i);
}

QString fileName(int i)
{
    return QString("block-%1").arg(i);
}

int filesIn(const QString &directory)
{
    return int(QDir(directory).entryList(QDir::Files).size());
}

} // namespace

// The jobs' bytes exist only inside the jobs (the submitters' copies are
// gone); they are finished in the reverse order of submission from another
// thread, so that most are pulled to the front or waited for while running.
TEST(RvoBlockSaver, FilesHoldTheirJobsBytesWhateverTheOrder)
{
    QTemporaryDir dir;
    const QString directory = dir.filePath("bucket");
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
        for (int i = kJobs - 1; i >= 0; --i)
            EXPECT_TRUE(saver.finish(jobs[size_t(i)], jobBytes(i), directory, fileName(i), codec)
                                .onDisk)
                    << "job " << i;
    });
    finisher.join();
    EXPECT_EQ(saver.pendingJobs(), 0);
    for (int i = 0; i < kJobs; ++i)
        EXPECT_EQ(blockIn(directory + "/" + fileName(i)), jobBytes(i)) << "job " << i;
    EXPECT_EQ(filesIn(directory), kJobs) << "no temporary file is left";
}

// The sub-cache changed between queueing and the save's turn: the file goes
// where the write thread asks, whatever the worker did meanwhile.
TEST(RvoBlockSaver, FileGoesWhereFinishAsks)
{
    QTemporaryDir dir;
    RvoBlockSaver &saver = RvoBlockSaver::instance();
    RvoBlockCodec codec;
    const QString before = dir.filePath("before");
    const QString now = dir.filePath("now");
    for (int i = 0; i < 8; ++i) {
        const RvoBlockSaver::JobPtr job = saver.submit(jobBytes(i), before, fileName(i));
        if (i % 2 == 0) // half of them finished by a worker first
            ASSERT_TRUE(waitUntil([&] { return QFile::exists(before + "/" + fileName(i)); }));
        const RvoBlockSaver::Outcome outcome
                = saver.finish(job, jobBytes(i), now, fileName(i), codec);
        EXPECT_TRUE(outcome.onDisk);
        EXPECT_EQ(blockIn(now + "/" + fileName(i)), jobBytes(i)) << "job " << i;
    }
}

// A worker busy with a large save (about 16 MiB: tens of milliseconds),
// and a backlog of small ones queued behind it.
class RvoBlockSaverBacklog : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(waitUntil([&] { return saver.pendingJobs() == 0; })) << "a worker starts it";
        for (int i = 0; i < kJobs; ++i)
            jobs.push_back(saver.submit(bytes, dir.path(), fileName(i)));
    }
    // Cancelling twice is harmless.
    void TearDown() override
    {
        saver.cancel(running);
        for (const RvoBlockSaver::JobPtr &job : jobs)
            saver.cancel(job);
    }

    static constexpr int kJobs = 200;
    QTemporaryDir dir;
    RvoBlockSaver &saver = RvoBlockSaver::instance();
    const QByteArray large = jobBytes(9).repeated(256);
    const RvoBlockSaver::JobPtr running = saver.submit(large, dir.path(), "large");
    const QByteArray bytes = jobBytes(5).repeated(4);
    std::vector<RvoBlockSaver::JobPtr> jobs;
};

// A write thread waiting for a save must not wait for the whole backlog
// queued before it.
TEST_F(RvoBlockSaverBacklog, FinishPullsAJobAheadOfTheBacklog)
{
    RvoBlockCodec codec;
    EXPECT_TRUE(saver.finish(jobs.back(), bytes, dir.path(), fileName(kJobs - 1), codec).onDisk);
    EXPECT_GT(saver.pendingJobs(), kJobs / 2);
}

// After cancel() no worker writes the job's file: the caller may remove the
// directory at once. A save in progress is finished first.
TEST_F(RvoBlockSaverBacklog, NoFileAppearsAfterCancel)
{
    saver.cancel(running);
    EXPECT_EQ(blockIn(dir.filePath("large")), large)
            << "cancel() returned while the save was still being written";
    for (const RvoBlockSaver::JobPtr &job : jobs)
        saver.cancel(job);
    EXPECT_EQ(saver.pendingJobs(), 0);
    const int written = filesIn(dir.path());
    EXPECT_FALSE(waitUntil([&] { return filesIn(dir.path()) > written; }, 200));
    saver.cancel(nullptr);
}
