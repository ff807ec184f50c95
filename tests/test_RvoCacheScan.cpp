#include "RvoCacheScan_p.h"
#include "RvoSubCacheLock_p.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <ctime>

namespace {

// A name with the shape of a 64-byte digest's text form.
QString blockName(int first)
{
    QStringList words {QString::number(first)};
    while (words.size() < 16)
        words.append(QStringLiteral("7"));
    return words.join(QLatin1Char('-'));
}

bool writeFile(const QString &path, int bytes, qint64 ageSeconds = 0)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(QByteArray(bytes, 'x')) != bytes)
        return false;
    file.close();
    if (ageSeconds == 0)
        return true;
    struct timespec times[2];
    clock_gettime(CLOCK_REALTIME, &times[0]);
    times[0].tv_sec -= ageSeconds;
    times[1] = times[0];
    return utimensat(AT_FDCWD, QFile::encodeName(path).constData(), times, 0) == 0;
}

qint64 modifiedSeconds(const QString &path)
{
    struct stat status;
    return stat(QFile::encodeName(path).constData(), &status) == 0 ? status.st_mtim.tv_sec : -1;
}

} // namespace

TEST(RvoCacheScan, SortsFilesIntoSubCachesBucketsAndKinds)
{
    QTemporaryDir dir;
    const QString root = dir.path();
    // The unnamed sub-cache, its buckets directly under the root.
    ASSERT_TRUE(writeFile(root + QStringLiteral("/2/") + blockName(2), 10));
    // "A": two buckets, a temporary file, a stray file, a lock file held here.
    ASSERT_TRUE(writeFile(root + QStringLiteral("/A/0/") + blockName(10), 100, 7200));
    ASSERT_TRUE(writeFile(root + QStringLiteral("/A/3/") + blockName(3), 30));
    ASSERT_TRUE(writeFile(root + QStringLiteral("/A/3/write-") + blockName(3)
                                  + QStringLiteral("-99-1.tmp"),
                          5));
    ASSERT_TRUE(writeFile(root + QStringLiteral("/A/3/notes.txt"), 4));
    ASSERT_TRUE(writeFile(root + QStringLiteral("/A/DdiLog.txt"), 4));
    RvoSubCacheLock lock;
    ASSERT_TRUE(lock.lockShared(root + QStringLiteral("/A")));
    // "A/B" below "A", and "7", a decimal sub-cache with buckets of its own.
    ASSERT_TRUE(writeFile(root + QStringLiteral("/A/B/1/") + blockName(1), 20));
    ASSERT_TRUE(writeFile(root + QStringLiteral("/7/0/") + blockName(20), 40));

    RvoCacheScan::Options options;
    const RvoCacheScan::Root scan = RvoCacheScan::scanRoot(root, options);
    EXPECT_TRUE(scan.errors.isEmpty());
    ASSERT_EQ(scan.subCaches.size(), 4);
    EXPECT_EQ(scan.blockFileCount(), 5);
    EXPECT_EQ(scan.blockBytes(), 200);

    const RvoCacheScan::SubCache &unnamed = scan.subCaches.at(0);
    EXPECT_EQ(unnamed.name, QString());
    ASSERT_EQ(unnamed.blockFiles.size(), 1);
    EXPECT_EQ(unnamed.path(unnamed.blockFiles.at(0)),
              root + QStringLiteral("/2/") + blockName(2));

    EXPECT_EQ(scan.subCaches.at(1).name, QStringLiteral("7"));
    EXPECT_EQ(scan.subCaches.at(1).blockBytes, 40);

    const RvoCacheScan::SubCache &a = scan.subCaches.at(2);
    EXPECT_EQ(a.name, QStringLiteral("A"));
    EXPECT_TRUE(a.hasLockFile);
    EXPECT_TRUE(a.held);
    EXPECT_EQ(a.bucketDirectories.size(), 2);
    ASSERT_EQ(a.blockFiles.size(), 2);
    EXPECT_EQ(a.blockBytes, 130);
    for (const RvoCacheScan::BlockFile &file : a.blockFiles) {
        EXPECT_EQ(file.bytes, file.name == blockName(10).toLatin1() ? 100 : 30);
        EXPECT_EQ(file.modifiedMs / 1000, modifiedSeconds(a.path(file)));
    }
    ASSERT_EQ(a.temporaryFiles.size(), 1);
    EXPECT_EQ(a.temporaryFiles.at(0).bytes, 5);
    ASSERT_EQ(a.otherFiles.size(), 1); // the log and the lock file are the sub-cache's own
    EXPECT_EQ(a.otherFiles.at(0).path, root + QStringLiteral("/A/3/notes.txt"));

    EXPECT_EQ(scan.subCaches.at(3).name, QStringLiteral("A/B"));
    EXPECT_FALSE(scan.subCaches.at(3).held);

    // One sub-cache alone leaves out the ones below it.
    options.onlyOneSubCache = true;
    options.subCache = QStringLiteral("A");
    const RvoCacheScan::Root one = RvoCacheScan::scanRoot(root, options);
    ASSERT_EQ(one.subCaches.size(), 1);
    EXPECT_EQ(one.blockBytes(), 130);

    lock.unlock();
    options.onlyOneSubCache = false;
    EXPECT_FALSE(RvoCacheScan::scanRoot(root, options).subCaches.at(2).held);
    EXPECT_EQ(RvoCacheScan::scanRoot(root + QStringLiteral("/missing"), options).errors.size(), 1);
}

TEST(RvoCacheScan, NoteUseRefreshesOnlyFilesUnusedForOverAnHour)
{
    QTemporaryDir dir;
    const QString old = dir.filePath(blockName(1));
    const QString recent = dir.filePath(blockName(2));
    ASSERT_TRUE(writeFile(old, 1, RvoCacheScan::kUseRefreshSeconds + 60));
    ASSERT_TRUE(writeFile(recent, 1, RvoCacheScan::kUseRefreshSeconds - 60));
    const qint64 recentBefore = modifiedSeconds(recent);

    RvoCacheScan::noteUse(old);
    RvoCacheScan::noteUse(recent);
    RvoCacheScan::noteUse(dir.filePath(QStringLiteral("missing")));

    EXPECT_GE(modifiedSeconds(old), RvoCacheScan::currentTimeMs() / 1000 - 5);
    EXPECT_EQ(modifiedSeconds(recent), recentBefore);
}
