#include "ManagerTestAccess.h"
#include "RvoCacheScan_p.h"
#include "RvoSubCacheLock_p.h"

#include <QDateTime>

namespace {

// Writes `bytes` bytes to `path`, last modified `ageSeconds` ago.
bool writeFile(const QString &path, int bytes, qint64 ageSeconds = 0)
{
    return ::writeFile(path, QByteArray(bytes, 'x')) && setAge(path, ageSeconds);
}

qint64 modifiedSeconds(const QString &path)
{
    return QFileInfo(path).lastModified().toSecsSinceEpoch();
}

} // namespace

// A scan sorts the files of a root into sub-caches, buckets and kinds, or
// takes one sub-cache alone.
TEST(RvoCacheScan, ScanSortsFilesIntoSubCachesBucketsAndKinds)
{
    QTemporaryDir dir;
    const QString root = dir.path();
    const QString old = root + "/A/0/" + digestName(10);
    const QString recent = root + "/A/3/" + digestName(3);
    // The unnamed sub-cache, its buckets directly under the root; "A" with
    // two buckets, a temporary file, a stray file and a lock file held here;
    // "A/B" below "A"; "7", a decimal sub-cache with buckets of its own.
    ASSERT_TRUE(writeFile(root + "/2/" + digestName(2), 10));
    ASSERT_TRUE(writeFile(old, 100, RvoCacheScan::kUseRefreshSeconds + 60));
    ASSERT_TRUE(writeFile(recent, 30, RvoCacheScan::kUseRefreshSeconds - 60));
    ASSERT_TRUE(writeFile(root + QString("/A/3/write-%1-99-1.tmp").arg(digestName(3)), 5));
    ASSERT_TRUE(writeFile(root + "/A/3/notes.txt", 4));
    ASSERT_TRUE(writeFile(root + "/A/DdiLog.txt", 4));
    ASSERT_TRUE(writeFile(root + "/A/B/1/" + digestName(1), 20));
    ASSERT_TRUE(writeFile(root + "/7/0/" + digestName(20), 40));
    RvoSubCacheLock lock;
    ASSERT_TRUE(lock.lockShared(root + "/A"));

    RvoCacheScan::Options options;
    const RvoCacheScan::Root scan = RvoCacheScan::scanRoot(root, options);
    EXPECT_TRUE(scan.errors.isEmpty());
    EXPECT_EQ(scan.blockFileCount(), 5);
    EXPECT_EQ(scan.blockBytes(), 200);
    // Each sub-cache, in order, as "name:buckets:block files:bytes:temporary
    // files:other files:lock file:held".
    QStringList seen;
    for (const RvoCacheScan::SubCache &sub : scan.subCaches)
        seen.append(QString::asprintf("%s:%d:%d:%lld:%d:%d:%d:%d", qPrintable(sub.name),
                                      int(sub.bucketDirectories.size()), int(sub.blockFiles.size()),
                                      qint64(sub.blockBytes), int(sub.temporaryFiles.size()),
                                      int(sub.otherFiles.size()), sub.hasLockFile, sub.held));
    ASSERT_EQ(seen.join(' '),
              ":1:1:10:0:0:0:0 7:1:1:40:0:0:0:0 A:2:2:130:1:1:1:1 A/B:1:1:20:0:0:0:0");
    const RvoCacheScan::SubCache &unnamed = scan.subCaches.at(0);
    EXPECT_EQ(unnamed.path(unnamed.blockFiles.at(0)), root + "/2/" + digestName(2));
    const RvoCacheScan::SubCache &a = scan.subCaches.at(2);
    for (const RvoCacheScan::BlockFile &file : a.blockFiles) {
        EXPECT_EQ(file.bytes, file.name == digestName(10).toLatin1() ? 100 : 30);
        EXPECT_EQ(file.modifiedMs / 1000, modifiedSeconds(a.path(file)));
    }
    EXPECT_EQ(a.temporaryFiles.at(0).bytes, 5);
    // The log and the lock file are the sub-cache's own.
    EXPECT_EQ(a.otherFiles.at(0).path, root + "/A/3/notes.txt");

    // One sub-cache alone leaves out the ones below it.
    options.onlyOneSubCache = true;
    options.subCache = "A";
    const RvoCacheScan::Root one = RvoCacheScan::scanRoot(root, options);
    ASSERT_EQ(one.subCaches.size(), 1);
    EXPECT_EQ(one.blockBytes(), 130);
    lock.unlock();
    options.onlyOneSubCache = false;
    EXPECT_FALSE(RvoCacheScan::scanRoot(root, options).subCaches.at(2).held);
    EXPECT_EQ(RvoCacheScan::scanRoot(root + "/missing", options).errors.size(), 1);
}

// Only a block file unused for over an hour; a missing one is no fault.
TEST(RvoCacheScan, NotedUseRefreshesAnOldBlockFile)
{
    QTemporaryDir dir;
    const QString old = dir.filePath(digestName(10));
    const QString recent = dir.filePath(digestName(3));
    ASSERT_TRUE(writeFile(old, 100, RvoCacheScan::kUseRefreshSeconds + 60));
    ASSERT_TRUE(writeFile(recent, 30, RvoCacheScan::kUseRefreshSeconds - 60));
    const qint64 recentBefore = modifiedSeconds(recent);
    RvoCacheScan::noteUse(old);
    RvoCacheScan::noteUse(recent);
    RvoCacheScan::noteUse(dir.filePath("missing"));
    EXPECT_GE(modifiedSeconds(old), RvoCacheScan::currentTimeMs() / 1000 - 5);
    EXPECT_EQ(modifiedSeconds(recent), recentBefore);
}
