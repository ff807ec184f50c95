#include "ManagerTestAccess.h"
#include "RvoSelfCheckCache_p.h"

// Fresh roots under the parent, the manager set up on them, all gone with
// the cache.
TEST(RvoSelfCheckCache, SetsUpOnFreshRootsAndRemovesThem)
{
    QTemporaryDir parent;
    QStringList roots;
    {
        const RvoSelfCheckCache cache(parent.path(), 2, 1 << 20, 7, "sub");
        ASSERT_EQ(cache.error(), QString());
        roots = cache.roots();
        ASSERT_EQ(roots.size(), 2);
        EXPECT_EQ(manager().cacheRoots(), roots);
        EXPECT_EQ(manager().subCache(), "sub");
        EXPECT_TRUE(manager().maxDataCacheSize() == 1 << 20 && manager().numBuckets() == 7);
        for (const QString &root : roots)
            EXPECT_EQ(QFileInfo(root).absolutePath(), QFileInfo(parent.path()).absoluteFilePath());
        EXPECT_EQ(cache.subCacheDirectory(1), roots.at(1) + "/sub");
    }
    EXPECT_FALSE(manager().isInitialized());
    for (const QString &root : roots)
        EXPECT_FALSE(QFileInfo::exists(root)) << root.toStdString();
}

// Not a temporary file, the log, nor a block file outside the sub-cache.
TEST(RvoSelfCheckCache, CountsOnlyBlockFilesOfItsSubCache)
{
    QTemporaryDir parent;
    const RvoSelfCheckCache cache(parent.path(), 2, 1 << 20, 7, "sub");
    const QString block = "1-2-3-4-5-6-7-8-9-10-11-12-13-14-15-16";
    ASSERT_TRUE(writeFile(cache.subCacheDirectory(0) + "/3/" + block, "x"));
    ASSERT_TRUE(writeFile(cache.subCacheDirectory(1) + "/0/" + block, "x"));
    ASSERT_TRUE(writeFile(cache.subCacheDirectory(0) + "/3/write-1-2.tmp", "x"));
    ASSERT_TRUE(writeFile(cache.roots().at(0) + "/other/0/" + block, "x"));
    EXPECT_EQ(cache.blockFileCount(), 2);
}

TEST(RvoSelfCheckCache, ParentThatCannotBeADirectorySetsNothingUp)
{
    QTemporaryDir parent;
    const QString file = parent.filePath("file");
    ASSERT_TRUE(writeFile(file, "x"));
    const RvoSelfCheckCache cache(file, 1, -1, 10);
    EXPECT_FALSE(manager().isInitialized());
}
