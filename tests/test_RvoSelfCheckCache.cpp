#include "ManagerTestAccess.h"
#include "RvoSelfCheckCache_p.h"

TEST(RvoSelfCheckCache, SetsUpOnFreshRootsCountsBlockFilesCleansUpAndReportsAnUnusableParent)
{
    QTemporaryDir parent;
    QStringList roots;
    {
        const RvoSelfCheckCache cache(parent.path(), 2, 1 << 20, 7, QStringLiteral("sub"));
        ASSERT_EQ(cache.error(), QString());
        roots = cache.roots();
        ASSERT_EQ(roots.size(), 2);
        EXPECT_TRUE(manager().isInitialized());
        EXPECT_EQ(manager().cacheRoots(), roots);
        EXPECT_EQ(manager().maxDataCacheSize(), 1 << 20);
        EXPECT_EQ(manager().numBuckets(), 7);
        EXPECT_EQ(manager().subCache(), QStringLiteral("sub"));
        for (const QString &root : roots)
            EXPECT_EQ(QFileInfo(root).absolutePath(), QFileInfo(parent.path()).absoluteFilePath());
        EXPECT_EQ(cache.subCacheDirectory(1), roots.at(1) + QStringLiteral("/sub"));

        // Only files named like blocks under the sub-cache are counted: not
        // a temporary file, the log, nor a block file outside the sub-cache.
        const QString block = QStringLiteral("1-2-3-4-5-6-7-8-9-10-11-12-13-14-15-16");
        ASSERT_TRUE(writeFile(cache.subCacheDirectory(0) + QStringLiteral("/3/") + block, "x"));
        ASSERT_TRUE(writeFile(cache.subCacheDirectory(1) + QStringLiteral("/0/") + block, "x"));
        ASSERT_TRUE(
                writeFile(cache.subCacheDirectory(0) + QStringLiteral("/3/write-1-2.tmp"), "x"));
        ASSERT_TRUE(writeFile(roots.at(0) + QStringLiteral("/other/0/") + block, "x"));
        EXPECT_EQ(cache.blockFileCount(), 2);
    }
    EXPECT_FALSE(manager().isInitialized());
    for (const QString &root : roots)
        EXPECT_FALSE(QFileInfo::exists(root)) << root.toStdString();

    // A parent that cannot be a directory is reported, and nothing is set up.
    const QString file = parent.filePath(QStringLiteral("file"));
    ASSERT_TRUE(writeFile(file, "x"));
    StdoutCapture output;
    const RvoSelfCheckCache cache(file, 1, -1, 10);
    EXPECT_EQ(cache.error(),
              QStringLiteral("expected a cache directory at %1, saw none could be made").arg(file));
    EXPECT_FALSE(manager().isInitialized());
    EXPECT_EQ(output.lines(), QStringList());
}
