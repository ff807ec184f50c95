#include "ManagerTestAccess.h"
#include "RvoDiskLayout_p.h"

using Access = RvoDataBlockManagerTestAccess;

// The root is the digit sum of the first four characters (separators count
// -1) modulo the root count. One root takes every digest; among more, a
// negative sum chooses none, and so do a text too short and no digest.
TEST(RvoDiskLayout, RootIsTheDigitSumOfFourCharacters)
{
    {
        ManagerSetup one(1);
        EXPECT_EQ(Access::manager().cacheIndex("1-0-3"), 0);
    }
    ManagerSetup setup(2);
    EXPECT_EQ(Access::manager().cacheIndex("4150-1"), 0); // 0+5+1+4 = 10
    EXPECT_EQ(Access::manager().cacheIndex("7-12-5"), 1); // 2+1-1+7 = 9
    EXPECT_EQ(Access::manager().cacheIndex("9999-1"), 0); // 36, where three characters make 27
    StdoutCapture out;
    EXPECT_EQ(Access::manager().cacheIndex("1-0-3"), -1); // -1+0-1+1 = -1
    EXPECT_EQ(Access::manager().cacheIndex("12"), -1);
    EXPECT_EQ(Access::manager().cacheIndex(static_cast<const RvoDataHash *>(nullptr)), -1);
    const QString none = digestName({"1", "0"});
    EXPECT_EQ(manager().getBlockDestination(QString(), none), QString());
    EXPECT_EQ(out.lines(),
              (QStringList {"Cannot find suitable cache reading thread -1 for 1-0-3",
                            "Hash String is too Short 12",
                            "Cannot find suitable cache reading thread -1 for " + none}));
}

// The bucket is the first word modulo the bucket count; the first root
// holds the sub-caches, and is the one asked whether a sub-cache exists.
TEST(RvoDiskLayout, DestinationNamesTheRootSubCacheBucketAndFile)
{
    ManagerSetup setup(2);
    manager().setSubCache("SubCache");
    const QString even = digestName({"4150470588"}); // 4+1+5+0 = 10 -> root 0
    const QString odd = digestName({"7", "12"}); // 9 -> root 1
    EXPECT_EQ(QDir::cleanPath(manager().getBlockDestination("SubCache", even)),
              setup.root(0) + "/SubCache/8/" + even);
    EXPECT_EQ(QDir::cleanPath(manager().getBlockDestination(QString(), odd)),
              setup.root(1) + "/7/" + odd);
    ASSERT_TRUE(QDir(setup.root(1)).mkpath("S"));
    EXPECT_FALSE(manager().subCacheExists("S"));
    ASSERT_TRUE(QDir(setup.root(0)).mkpath("S"));
    EXPECT_TRUE(manager().subCacheExists("S"));
}

TEST(RvoDiskLayout, NoRootIsChosenWithoutASetup)
{
    StdoutCapture unset;
    EXPECT_EQ(Access::manager().cacheIndex("4150-1"), -1);
    EXPECT_EQ(manager().getBlockDestination(QString(), digestName(1)), QString());
    const QStringList lines = unset.lines();
    EXPECT_EQ(lines.value(0), "Number of cache paths is zero");
    EXPECT_TRUE(lines.contains("Data Block Manager Not Initialized. Aborting"));
}

// A null digest names no file and leaves the outputs alone.
TEST(RvoDiskLayout, FileNameAndBucketKeepDoubledSeparators)
{
    const RvoDataHash hash(digestName({"4150470588"}));
    QString directory = "untouched";
    QString name;
    ASSERT_TRUE(buildFilename(&hash, "/r", "Sub", 10, directory, name));
    EXPECT_EQ(name, hash.toString());
    EXPECT_EQ(directory, "/r/Sub//8/");
    ASSERT_TRUE(buildFilename(&hash, "/r", QString(), 7, directory, name));
    EXPECT_EQ(directory, QString("/r///%1/").arg(4150470588u % 7));

    DebugCapture debug;
    EXPECT_FALSE(buildFilename(nullptr, "/r", QString(), 10, directory, name));
    EXPECT_EQ(directory, QString("/r///%1/").arg(4150470588u % 7)) << "outputs untouched";
    EXPECT_EQ(debug.messages(), QStringList {"Null Hash Passed to Filename Builder"});
}
