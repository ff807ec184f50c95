#include "ManagerTestAccess.h"
#include "OutputCapture.h"
#include "RvoDataReference.h"
#include "RvoGarbageCollectorThread_p.h"
#include "RvoHashManager.h"

#include <QDateTime>
#include <QDir>
#include <QDirIterator>
#include <QFile>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <thread>

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
