#include "ManagerTestAccess.h"
#include "OutputCapture.h"
#include "RvoDataReference.h"
#include "RvoCacheScan_p.h"
#include "RvoGarbageCollectorThread_p.h"
#include "RvoHashManager.h"

#include <QDateTime>
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QProcess>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <future>
#include <thread>

#include <fcntl.h>
#include <sys/stat.h>

using Access = RvoDataBlockManagerTestAccess;

namespace {

RvoDataBlockManager &manager()
{
    return RvoDataBlockManager::instance();
}

RvoDataReference add(int seed)
{
    return manager().addBlock(testContent(seed, 1000), RvoModifyAccessor::CacheContent, true);
}

QStringList filesUnder(const QString &directory)
{
    QStringList files;
    QDirIterator it(directory, QDir::Files, QDirIterator::Subdirectories);
    while (it.hasNext())
        files.append(QFileInfo(it.next()).fileName());
    return files;
}

class CountingReporter : public RvoDataBlockManager::ProgressReporter
{
public:
    void startProgress(const QString &title, int total) override
    {
        this->title = title;
        this->total = total;
    }
    void finishProgress() override { finished = true; }
    void setProgress(int done, const QString &text) override
    {
        last = done;
        texts.append(text);
    }
    QString title;
    int total = -1;
    int last = 0;
    bool finished = false;
    QStringList texts;
};

// Sets a file's modification time (its last use) `hours` back.
void setAge(const QString &path, int hours)
{
    struct timespec times[2];
    clock_gettime(CLOCK_REALTIME, &times[0]);
    times[0].tv_sec -= hours * 3600;
    times[1] = times[0];
    ASSERT_EQ(utimensat(AT_FDCWD, QFile::encodeName(path).constData(), times, 0), 0);
}

QString destination(const QString &subCache, const QString &hashText)
{
    return QDir::cleanPath(manager().getBlockDestination(subCache, hashText));
}

} // namespace

TEST(RvoGarbageCollectorThread, PassLeavesExactlyTheFilesOfLiveDigests)
{
    ManagerSetup setup(2, QStringLiteral("Collected"));
    QVector<RvoDataReference> refs;
    for (int i = 0; i < 20; ++i)
        refs.append(add(i));
    manager().flush(true, RvoDataBlockManager::AllThreads);
    refs.remove(0, 8);
    manager().flush(false, RvoDataBlockManager::AllThreads);

    manager().startGarbageCollection();
    manager().collectGarbage(nullptr);
    manager().stopGarbageCollection();
    const int files = int(filesUnder(setup.root(0)).size() + filesUnder(setup.root(1)).size())
            - 1; // the log file
    EXPECT_EQ(files, RvoHashManager::instance().hashCount())
            << "The number of live hashes differ from the number of live cache files";
    EXPECT_EQ(files, 12);
}

TEST(RvoGarbageCollectorThread, OnlyDigestShapedNamesInANamedSubCacheAreCollected)
{
    ManagerSetup setup(1);
    const QString root = setup.root();
    const QString unknown = RvoDataHash(QByteArray("nobody"), RvoDataHash::Skein512).toString();
    const QString seven = RvoDataHash(QByteArray("x"), RvoDataHash::Skein256).toString();
    // A 128-byte digest's text form is longer than a file name may be: a
    // name of the same shape with short words.
    QStringList words;
    for (int i = 0; i < 32; ++i)
        words.append(QString::number(i));
    const QString thirtyOne = words.join(QLatin1Char('-'));
    for (const QString &name : {unknown, seven, thirtyOne})
        writeFile(root + QStringLiteral("/3/") + name, "data");

    manager().startGarbageCollection();
    manager().collectGarbage(nullptr);
    EXPECT_EQ(filesUnder(root).size(), 3) << "no sub-cache named: nothing is touched";
    manager().stopGarbageCollection();

    manager().setSubCache(QStringLiteral("Named"));
    for (const QString &name : {unknown, seven, thirtyOne})
        writeFile(root + QStringLiteral("/Named/3/") + name, "data");
    manager().startGarbageCollection();
    manager().collectGarbage(nullptr);
    manager().stopGarbageCollection();
    QStringList left = filesUnder(root + QStringLiteral("/Named"));
    left.removeAll(QStringLiteral("DdiLog.txt"));
    left.sort();
    QStringList expected {seven, thirtyOne};
    expected.sort();
    EXPECT_EQ(left, expected);
    EXPECT_EQ(filesUnder(root + QStringLiteral("/3")).size(), 3) << "other levels untouched";
}

TEST(RvoGarbageCollectorThread, NothingIsCollectedWhileCollectionIsOff)
{
    ManagerSetup setup(1, QStringLiteral("Off"));
    const QString dead = RvoDataHash(QByteArray("dead"), RvoDataHash::Skein512).toString();
    const QString path = setup.root() + QStringLiteral("/Off/1/") + dead;
    writeFile(path, "data");
    CountingReporter reporter;
    manager().collectGarbage(&reporter);
    EXPECT_TRUE(QFile::exists(path));
    EXPECT_EQ(reporter.last, 0);
    EXPECT_TRUE(reporter.finished);
}

TEST(RvoGarbageCollectorThread, ReporterCountsTheSubCacheAndEachBucket)
{
    ManagerSetup setup(1, QStringLiteral("Counted"), 10);
    for (int b = 0; b < 10; ++b)
        QDir().mkpath(setup.root() + QStringLiteral("/Counted/%1").arg(b));
    CountingReporter reporter;
    manager().startGarbageCollection();
    manager().collectGarbage(&reporter);
    manager().stopGarbageCollection();
    EXPECT_EQ(reporter.title, QStringLiteral("Garbage Collecting"));
    EXPECT_EQ(reporter.total, 10);
    EXPECT_EQ(reporter.last, 11);
    EXPECT_TRUE(reporter.finished);
    EXPECT_EQ(reporter.texts.size(), 11);
    EXPECT_TRUE(reporter.texts.join(QString()).isEmpty()) << "empty texts";
}

TEST(RvoGarbageCollectorThread, CollectorThreadsCollectOnTheirOwnWhileOn)
{
    ManagerSetup setup(1, QStringLiteral("Auto"));
    const QString path = setup.root() + QStringLiteral("/Auto/2/")
            + RvoDataHash(QByteArray("dead"), RvoDataHash::Skein512).toString();
    writeFile(path, "data");
    manager().startGarbageCollection();
    EXPECT_TRUE(waitUntil([&] { return !QFile::exists(path); }));
    manager().stopGarbageCollection();
    writeFile(path, "data");
    QThread::msleep(300); // three pass periods: nothing may happen while off
    EXPECT_TRUE(QFile::exists(path));
}

TEST(RvoGarbageCollectorThread, StrayTemporaryFilesGoOnlyWhenOld)
{
    ManagerSetup setup(1, QStringLiteral("Stray"));
    const QString directory = setup.root() + QStringLiteral("/Stray/4/");
    const QString old = directory + QStringLiteral("write-1-2-3-old.tmp");
    const QString young = directory + QStringLiteral("write-1-2-3-young.tmp");
    writeFile(old, "partial");
    writeFile(young, "partial");
    QFile file(old);
    ASSERT_TRUE(file.open(QIODevice::ReadWrite));
    ASSERT_TRUE(file.setFileTime(QDateTime::currentDateTime().addSecs(-2 * 3600),
                                 QFileDevice::FileModificationTime));
    file.close();
    manager().startGarbageCollection();
    manager().collectGarbage(nullptr);
    manager().stopGarbageCollection();
    EXPECT_FALSE(QFile::exists(old));
    EXPECT_TRUE(QFile::exists(young));
}

// Switching collection off during a pass stops it before the next deletion:
// with collection switched off from another thread while a pass over many
// dead files runs, some files must survive and the stop must wait for the
// pass.
TEST(RvoGarbageCollectorThread, SwitchingOffStopsAPassBetweenDeletions)
{
    ManagerSetup setup(1, QStringLiteral("Many"));
    for (int i = 0; i < 3000; ++i) {
        const QString name = RvoDataHash(QByteArray::number(i), RvoDataHash::Skein512).toString();
        writeFile(setup.root() + QStringLiteral("/Many/%1/").arg(i % 10) + name, "x");
    }
    manager().startGarbageCollection();
    // Off as soon as the collectors have started deleting.
    const int before = int(filesUnder(setup.root()).size());
    waitUntil([&] { return filesUnder(setup.root()).size() < before; }, 5000);
    manager().stopGarbageCollection();
    const int after = int(filesUnder(setup.root()).size());
    QThread::msleep(200);
    EXPECT_EQ(int(filesUnder(setup.root()).size()), after) << "no deletion once stopped";
    EXPECT_GT(after, 0);
}

// A pass used to hold its collector's lock while asking the manager for the
// sub-cache name (the delete lock), while setSubCache held the delete lock
// and waited for the collector's lock: the two deadlocked.
TEST(RvoGarbageCollectorThread, SubCacheSwitchesNeverDeadlockWithCollectors)
{
    ManagerSetup setup(2, QStringLiteral("Start"));
    for (int b = 0; b < 10; ++b)
        writeFile(setup.root(0) + QStringLiteral("/Start/%1/").arg(b)
                          + RvoDataHash(QByteArray::number(b), RvoDataHash::Skein512).toString(),
                  "x");
    std::atomic<bool> stop {false};
    // Collection goes on and off; the collectors make passes while it is on,
    // and setSubCache gets through while it is off.
    std::thread toggler([&] {
        while (!stop.load()) {
            manager().startGarbageCollection();
            manager().collectGarbage(nullptr);
            QThread::usleep(200);
            manager().stopGarbageCollection();
            QThread::usleep(200);
        }
    });
    // setSubCache refuses while collection is on: each name is tried until
    // it goes through in an off moment.
    auto switching = std::async(std::launch::async, [] {
        int switched = 0;
        for (int i = 0; i < 1000; ++i) {
            const QString name = QStringLiteral("Sub%1").arg(i);
            switched += waitUntil([&] {
                manager().setSubCache(name);
                return manager().subCache() == name;
            })
                    ? 1
                    : 0;
        }
        return switched;
    });
    const bool finished
            = switching.wait_for(std::chrono::seconds(240)) == std::future_status::ready;
    stop.store(true);
    toggler.join();
    ASSERT_TRUE(finished);
    EXPECT_EQ(switching.get(), 1000);
}

// Two processes on one sub-cache with collection on in both: neither knows
// the other's live digests, so neither may collect while the other holds
// the sub-cache. Once one has gone, the other collects what is dead to it.
TEST(RvoGarbageCollectorThread, ProcessesSharingASubCacheCollectOnlyWhenAlone)
{
    ManagerSetup setup(1, QStringLiteral("Shared"));
    QList<RvoDataReference> mine {add(1), add(2), add(3)};
    manager().flush(true, RvoDataBlockManager::AllThreads);
    QStringList myFiles;
    for (const RvoDataReference &ref : mine)
        myFiles.append(destination(QStringLiteral("Shared"), ref.hash()));
    const QString dead = setup.root() + QStringLiteral("/Shared/2/")
            + RvoDataHash(QByteArray("dead"), RvoDataHash::Skein512).toString();
    writeFile(dead, "data");

    DebugCapture debug;
    QProcess other;
    other.start(QStringLiteral(RVODDI_TEST_HOLDER),
                {setup.root(), QStringLiteral("Shared"), QStringLiteral("11"),
                 QStringLiteral("12")});
    QStringList lines;
    auto readLines = [&] {
        other.waitForReadyRead(50);
        lines += QString::fromLocal8Bit(other.readAllStandardOutput())
                         .split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    };
    ASSERT_TRUE(waitUntil([&] { readLines(); return lines.contains(QStringLiteral("ready")); }))
            << other.readAllStandardError().constData();
    QStringList otherFiles;
    for (const QString &text : lines.mid(0, 2))
        otherFiles.append(destination(QStringLiteral("Shared"), text));

    manager().startGarbageCollection();
    const QString skipped = QStringLiteral("Sub-cache %1/Shared is in use by another process: "
                                           "not collected")
                                    .arg(setup.root());
    EXPECT_TRUE(waitUntil([&] {
        readLines();
        return debug.count(skipped) == 1 && lines.contains(QStringLiteral("skipped"));
    }));
    for (const QString &path : myFiles + otherFiles + QStringList {dead})
        EXPECT_TRUE(QFile::exists(path)) << qPrintable(path);

    other.closeWriteChannel();
    ASSERT_TRUE(other.waitForFinished(30000));
    EXPECT_EQ(other.exitCode(), 0);
    EXPECT_TRUE(waitUntil([&] {
        return std::none_of(otherFiles.begin(), otherFiles.end(),
                            [](const QString &path) { return QFile::exists(path); })
                && !QFile::exists(dead);
    }));
    for (const QString &path : std::as_const(myFiles))
        EXPECT_TRUE(QFile::exists(path)) << qPrintable(path);
    EXPECT_EQ(debug.count(skipped), 1) << "said once";
    manager().stopGarbageCollection();
}

// The disk budget: a trim deletes the least recently used dead block files
// of the sub-caches no other process holds, down to 90 % of the share, and
// says what it did; files published later are counted and start the next
// trim when they pass the share.
TEST(RvoGarbageCollectorThread, DiskBudgetTrimsLeastRecentlyUsedDeadFilesToNinetyPercent)
{
    ManagerSetup setup(1, QStringLiteral("Mine"));
    const QString root = setup.root();
    // Live here, and the oldest files: never deleted.
    QList<RvoDataReference> live {add(1), add(2), add(3)};
    manager().flush(true, RvoDataBlockManager::AllThreads);
    for (const RvoDataReference &ref : live)
        setAge(destination(QStringLiteral("Mine"), ref.hash()), 1000);
    // Dead files of 1000 bytes, one hour apart, alternately in the current
    // sub-cache and in one no process holds; older still, those of a
    // sub-cache another holder has.
    QStringList dead; // oldest first
    for (int i = 0; i < 40; ++i) {
        const QString path = root
                + (i % 2 ? QStringLiteral("/Free/%1/") : QStringLiteral("/Mine/%1/")).arg(i % 10)
                + RvoDataHash(QByteArray::number(i), RvoDataHash::Skein512).toString();
        writeFile(path, QByteArray(1000, 'x'));
        setAge(path, 500 - i);
        dead.append(path);
    }
    QStringList held;
    for (int i = 0; i < 5; ++i) {
        held.append(root + QStringLiteral("/Held/0/")
                    + RvoDataHash(QByteArray::number(100 + i), RvoDataHash::Skein512).toString());
        writeFile(held.last(), QByteArray(1000, 'x'));
        setAge(held.last(), 2000);
    }
    RvoSubCacheLock otherHolder;
    ASSERT_TRUE(otherHolder.lockShared(root + QStringLiteral("/Held")));

    qint64 liveBytes = 0;
    for (const RvoDataReference &ref : live)
        liveBytes += QFileInfo(destination(QStringLiteral("Mine"), ref.hash())).size();
    const qint64 total = liveBytes + 45 * 1000;
    const qint64 share = total - 1; // just over
    const qint64 target = share - share / 10;
    const int expectDeleted = int((total - target + 999) / 1000);

    DebugCapture debug;
    manager().setMaxDiskCacheSize(share);
    EXPECT_EQ(manager().maxDiskCacheSize(), share);
    const QString trimmed = QStringLiteral("Disk cache %1 trimmed: %2 files, %3 bytes deleted, "
                                           "%4 bytes kept")
                                    .arg(root)
                                    .arg(expectDeleted)
                                    .arg(expectDeleted * 1000)
                                    .arg(total - expectDeleted * 1000);
    ASSERT_TRUE(waitUntil([&] { return debug.count(trimmed) == 1; })) << debug.messages().join(
            QLatin1Char('\n')).toStdString();
    for (int i = 0; i < dead.size(); ++i)
        EXPECT_EQ(QFile::exists(dead.at(i)), i >= expectDeleted) << i;
    for (const QString &path : std::as_const(held))
        EXPECT_TRUE(QFile::exists(path)) << qPrintable(path);
    for (const RvoDataReference &ref : live)
        EXPECT_TRUE(QFile::exists(destination(QStringLiteral("Mine"), ref.hash())));

    // Saves, counted as they are published, push the root past its share
    // again and start the next trim.
    RvoCacheScan::Options options;
    for (int seed = 10; seed < 200; ++seed) {
        const RvoDataReference saved = add(seed); // dead after this round
        manager().flush(true, RvoDataBlockManager::AllThreads);
        if (debug.messages().filter(QStringLiteral("trimmed")).size() == 2)
            break;
    }
    EXPECT_TRUE(waitUntil(
            [&] { return debug.messages().filter(QStringLiteral("trimmed")).size() == 2; }));
    EXPECT_LE(RvoCacheScan::scanRoot(root, options).blockBytes(), share);
    for (const RvoDataReference &ref : live)
        EXPECT_TRUE(QFile::exists(destination(QStringLiteral("Mine"), ref.hash())));
    manager().setMaxDiskCacheSize(0);
}
