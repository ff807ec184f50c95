#include "ManagerTestAccess.h"
#include "RvoCacheScan_p.h"
#include "RvoGarbageCollectorThread_p.h"

#include <QDirIterator>
#include <QProcess>

#include <algorithm>
#include <chrono>
#include <future>

namespace {

RvoDataReference add(int seed)
{
    return manager().addBlock(testContent(seed, 1000), RvoModifyAccessor::CacheContent, true);
}

// The names of the files under `directories`, sorted.
QStringList filesUnder(const QStringList &directories)
{
    QStringList files;
    for (const QString &directory : directories)
        for (QDirIterator it(directory, QDir::Files, QDirIterator::Subdirectories); it.hasNext();)
            files.append(QFileInfo(it.next()).fileName());
    files.sort();
    return files;
}

QString destination(const QString &subCache, const QString &hashText)
{
    return QDir::cleanPath(manager().getBlockDestination(subCache, hashText));
}

// Whether every one of `paths` exists (or, with `exist` false, none does).
bool all(const QStringList &paths, bool exist = true)
{
    return std::all_of(paths.begin(), paths.end(),
                       [&](const QString &path) { return QFile::exists(path) == exist; });
}

// Logs a pass as "title/total:" then "done text," for each step, then "end".
struct LoggingReporter : RvoDataBlockManager::ProgressReporter
{
    void startProgress(const QString &t, int n) override { log += t + QString("/%1:").arg(n); }
    void setProgress(int n, const QString &t) override { log += QString("%1 %2,").arg(n).arg(t); }
    void finishProgress() override { log += "end"; }
    QString log;
};

} // namespace

// Files no pass may touch: odd names, a dead digest's, an old and a young
// temporary, at the root's bucket level and in the sub-cache "Named".
class RvoGarbageCollectorPass : public ::testing::Test
{
protected:
    void SetUp() override
    {
        for (const QString &name : odd + QStringList {digestName(0), old, young}) {
            writeFile(root + "/3/" + name, "data");
            writeFile(dir + name, "data");
        }
        ASSERT_TRUE(setAge(dir + old, 7200) && setAge(root + "/3/" + old, 7200));
    }

    ManagerSetup setup {2};
    const QString root = setup.root(0);
    const QString dir = root + "/Named/3/";
    // A 32-byte digest's text form, and one of a 128-byte digest's shape
    // with short words (its own is longer than a file name may be).
    const QStringList odd {RvoDataHash(QByteArray("x"), RvoDataHash::Skein256).toString(),
                           QString("1-").repeated(31) + "1"};
    const QString old = "write-1-2-3-old.tmp", young = "write-1-2-3-young.tmp";
};

// With collection off a pass only says it went through the sub-cache.
TEST_F(RvoGarbageCollectorPass, NothingIsCollectedWithoutASubCacheOrWithCollectionOff)
{
    collectOnce();
    EXPECT_EQ(filesUnder({root}).size(), 10) << "no sub-cache named";
    manager().setSubCache("Named");
    LoggingReporter off;
    manager().collectGarbage(&off);
    EXPECT_EQ(filesUnder({root}).size(), 11) << "collection off (and the sub-cache's log)";
    EXPECT_EQ(off.log, "Garbage Collecting/20:end");
}

// A pass deletes exactly the digest-shaped files of dead 64-byte digests
// and temporary files over an hour old, in the named sub-cache of every
// root, and reports each root's sub-cache and each bucket it went through.
TEST_F(RvoGarbageCollectorPass, PassLeavesExactlyLiveFilesOddNamesAndYoungTemporaries)
{
    manager().setSubCache("Named");
    QVector<RvoDataReference> refs;
    for (int i = 0; i < 20; ++i)
        refs.append(add(i));
    manager().flush(true, RvoDataBlockManager::AllThreads);
    refs.remove(0, 8);
    manager().flush(false, RvoDataBlockManager::AllThreads);
    for (int b = 0; b < 20; ++b)
        QDir().mkpath(setup.root(b / 10) + QString("/Named/%1").arg(b % 10));

    LoggingReporter on;
    collectOnce(&on);
    QString steps = "Garbage Collecting/20:";
    for (int i = 1; i <= 22; ++i)
        steps += QString("%1 ,").arg(i);
    EXPECT_EQ(on.log, steps + "end");
    QStringList expected = odd + QStringList {young, "DdiLog.txt"};
    for (const RvoDataReference &ref : std::as_const(refs))
        expected.append(QFileInfo(destination("Named", ref.hash())).fileName());
    expected.sort();
    EXPECT_EQ(filesUnder({root + "/Named", setup.root(1) + "/Named"}), expected);
    EXPECT_EQ(filesUnder({root + "/3"}).size(), 5) << "other levels untouched";
}

// The collector threads make passes on their own while collection is on;
// switching it off from another thread stops a pass over many dead files
// before its next deletion, and no pass follows.
TEST(RvoGarbageCollectorThread, StoppingCollectionEndsAPassBeforeItsNextDeletion)
{
    ManagerSetup setup(2, "Start");
    const QString root = setup.root(0);
    for (int i = 0; i < 3000; ++i)
        writeFile(root + QString("/Start/%1/").arg(i % 10) + digestName(i), "x");
    manager().startGarbageCollection();
    const int before = int(filesUnder({root}).size());
    EXPECT_TRUE(waitUntil([&] { return filesUnder({root}).size() < before; }, 5000));
    manager().stopGarbageCollection();
    const int after = int(filesUnder({root}).size());
    EXPECT_GT(after, 0);
    // Three pass periods.
    EXPECT_FALSE(waitUntil([&] { return filesUnder({root}).size() < after; }, 300))
            << "a deletion once stopped";
}

// A pass used to hold its collector's lock while asking the manager for the
// sub-cache name (the delete lock), while setSubCache held the delete lock
// and waited for the collector's lock: the two deadlocked. Collection goes
// on and off here; setSubCache refuses while it is on, so each name is
// tried until it goes through in an off moment.
TEST(RvoGarbageCollectorThread, SubCacheSwitchesNeverDeadlockWithACollector)
{
    ManagerSetup setup(2, "Start");
    std::atomic<bool> stop {false};
    std::thread toggler([&] {
        while (!stop.load()) {
            manager().startGarbageCollection();
            manager().collectGarbage(nullptr);
            QThread::usleep(200);
            manager().stopGarbageCollection();
            QThread::usleep(200);
        }
    });
    auto switching = std::async(std::launch::async, [] {
        int switched = 0;
        for (int i = 0; i < 1000; ++i) {
            const QString name = QString("Sub%1").arg(i);
            switched += waitUntil(
                    [&] { return manager().setSubCache(name), manager().subCache() == name; });
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
    const QString shared = "Shared";
    ManagerSetup setup(1, shared);
    const QVector<RvoDataReference> mine {add(1), add(2), add(3)};
    manager().flush(true, RvoDataBlockManager::AllThreads);
    QStringList myFiles;
    for (const RvoDataReference &ref : mine)
        myFiles.append(destination(shared, ref.hash()));
    const QString dead = setup.root() + "/Shared/2/" + digestName(0);
    writeFile(dead, "data");
    DebugCapture debug;
    QProcess other;
    other.start(RVODDI_TEST_CHILD, {"hold", setup.root(), shared, "11", "12"});
    QStringList lines;
    auto readLines = [&] {
        other.waitForReadyRead(50);
        lines += QString(other.readAllStandardOutput()).split('\n', Qt::SkipEmptyParts);
        return lines;
    };
    ASSERT_TRUE(waitUntil([&] { return readLines().contains("ready"); }))
            << other.readAllStandardError().constData();
    QStringList otherFiles;
    for (const QString &text : lines.mid(0, 2))
        otherFiles.append(destination(shared, text));
    manager().startGarbageCollection();
    const QString skipped
            = "Sub-cache " + setup.root() + "/Shared is in use by another process: not collected";
    EXPECT_TRUE(waitUntil(
            [&] { return readLines().contains("skipped") && debug.count(skipped) == 1; }));
    EXPECT_TRUE(all(myFiles + otherFiles + QStringList {dead}));
    other.closeWriteChannel();
    ASSERT_TRUE(other.waitForFinished(30000) && other.exitCode() == 0);
    EXPECT_TRUE(waitUntil([&] { return all(otherFiles + QStringList {dead}, false); }));
    EXPECT_TRUE(all(myFiles));
    EXPECT_EQ(debug.count(skipped), 1) << "said once";
    manager().stopGarbageCollection();
}

// The disk budget: a trim deletes the least recently used dead block files
// of the sub-caches no other process holds, down to 90 % of the share, and
// says what it did; files published later are counted and start the next
// trim when they pass the share.
TEST(RvoGarbageCollectorThread, DiskBudgetTrimsLeastRecentlyUsedDeadFilesToNinetyPercent)
{
    const QString mine = "Mine";
    ManagerSetup setup(1, mine);
    const QString root = setup.root();
    // Live here, and the oldest files: never deleted.
    const QVector<RvoDataReference> live {add(1), add(2), add(3)};
    manager().flush(true, RvoDataBlockManager::AllThreads);
    QStringList liveFiles;
    qint64 liveBytes = 0;
    for (const RvoDataReference &ref : live) {
        liveFiles.append(destination(mine, ref.hash()));
        ASSERT_TRUE(setAge(liveFiles.last(), 3600 * 1000));
        liveBytes += QFileInfo(liveFiles.last()).size();
    }
    // Dead files of 1000 bytes, one hour apart, alternately here and in a
    // sub-cache no process holds (oldest first); older still, five in a
    // sub-cache another holder has.
    QStringList dead, held;
    for (int i = 0; i < 45; ++i) {
        const QString path = root + (i >= 40 ? "/Held" : (i % 2 ? "/Free" : "/Mine"))
                + QString("/%1/").arg(i >= 40 ? 0 : i % 10) + digestName(i);
        writeFile(path, QByteArray(1000, 'x'));
        ASSERT_TRUE(setAge(path, 3600 * (i < 40 ? 500 - i : 2000)));
        (i < 40 ? dead : held).append(path);
    }
    RvoSubCacheLock otherHolder;
    ASSERT_TRUE(otherHolder.lockShared(root + "/Held"));
    const qint64 total = liveBytes + 45 * 1000;
    const qint64 share = total - 1; // just over
    const int expectDeleted = int((total - (share - share / 10) + 999) / 1000);
    DebugCapture debug;
    manager().setMaxDiskCacheSize(share);
    const QString trimmed = QString::asprintf(
            "Disk cache %s trimmed: %d files, %d bytes deleted, %lld bytes kept", qPrintable(root),
            expectDeleted, expectDeleted * 1000, total - expectDeleted * 1000);
    ASSERT_TRUE(waitUntil([&] { return debug.count(trimmed) == 1; }))
            << debug.messages().join(QLatin1Char('\n')).toStdString();
    EXPECT_TRUE(all(dead.mid(0, expectDeleted), false)) << "the least recently used";
    EXPECT_TRUE(all(dead.mid(expectDeleted) + held + liveFiles));

    // Saves, counted as they are published, push the root past its share
    // again and start the next trim.
    auto trims = [&] { return debug.messages().filter("trimmed").size(); };
    for (int seed = 10; seed < 200 && trims() < 2; ++seed) {
        const RvoDataReference saved = add(seed); // dead after this round
        manager().flush(true, RvoDataBlockManager::AllThreads);
    }
    EXPECT_TRUE(waitUntil([&] { return trims() == 2; }));
    EXPECT_LE(RvoCacheScan::scanRoot(root, RvoCacheScan::Options()).blockBytes(), share);
    EXPECT_TRUE(all(liveFiles));
    manager().setMaxDiskCacheSize(0);
}
