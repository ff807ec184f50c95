#include "ManagerTestAccess.h"
#include "RvoDiskLayout_p.h"

#include <cmath>
#include <cstring>
#include <random>

using Access = RvoDataBlockManagerTestAccess;

namespace {

// A 64-byte digest whose text form begins with the given words.
QString digestText(const QStringList &firstWords)
{
    QStringList words = firstWords;
    while (words.size() < 16)
        words.append(QStringLiteral("7"));
    return words.join(QLatin1Char('-'));
}

} // namespace

// The root is the digit sum of the first four characters (separators count
// -1) modulo the root count; a negative sum chooses none.
TEST(RvoDiskLayout, RootIsTheDigitSumOfFourCharacters)
{
    ManagerSetup setup(2);
    EXPECT_EQ(Access::cacheIndex(QStringLiteral("4150-1")), 0); // 0+5+1+4 = 10
    EXPECT_EQ(Access::cacheIndex(QStringLiteral("7-12-5")), 1); // 2+1-1+7 = 9
    EXPECT_EQ(Access::cacheIndex(QStringLiteral("0000")), 0);
    EXPECT_EQ(Access::cacheIndex(QStringLiteral("9999-1")), 0); // 36
    EXPECT_EQ(Access::cacheIndex(QStringLiteral("9998-1")), 1); // 35
    StdoutCapture out;
    EXPECT_EQ(Access::cacheIndex(QStringLiteral("1-0-3")), -1); // -1+0-1+1 = -1
    const QString none = digestText({QStringLiteral("1"), QStringLiteral("0")});
    EXPECT_EQ(manager().getBlockDestination(QString(), none), QString());
    EXPECT_EQ(out.lines(),
              (QStringList {
                      QStringLiteral("Cannot find suitable cache reading thread -1 for 1-0-3"),
                      QStringLiteral("Cannot find suitable cache reading thread -1 for ") + none}));
}

// The bucket is the first word modulo the bucket count; the first root
// holds the sub-caches, and is the one asked whether a sub-cache exists.
TEST(RvoDiskLayout, DestinationNamesTheRootSubCacheBucketAndFile)
{
    ManagerSetup setup(2);
    manager().setSubCache(QStringLiteral("SubCache"));
    const QString even = digestText({QStringLiteral("4150470588")}); // 4+1+5+0 = 10 -> root 0
    const QString odd = digestText({QStringLiteral("7"), QStringLiteral("12")}); // 9 -> root 1
    EXPECT_EQ(QDir::cleanPath(manager().getBlockDestination(QStringLiteral("SubCache"), even)),
              setup.root(0) + QStringLiteral("/SubCache/8/") + even);
    EXPECT_EQ(QDir::cleanPath(manager().getBlockDestination(QString(), odd)),
              setup.root(1) + QStringLiteral("/7/") + odd);
    ASSERT_TRUE(QDir(setup.root(1)).mkpath(QStringLiteral("S")));
    EXPECT_FALSE(manager().subCacheExists(QStringLiteral("S")));
    ASSERT_TRUE(QDir(setup.root(0)).mkpath(QStringLiteral("S")));
    EXPECT_TRUE(manager().subCacheExists(QStringLiteral("S")));
}

// Only 64-byte digests name block files.
TEST(RvoDiskLayout, RandomBlocksSpreadEvenlyOverTheBuckets)
{
    std::mt19937 random(42);
    int counts[10] = {};
    QByteArray block(262144, Qt::Uninitialized);
    for (int i = 0; i < 1000; ++i) {
        for (int j = 0; j < block.size(); j += 4) {
            const quint32 word = random();
            std::memcpy(block.data() + j, &word, 4);
        }
        const RvoDataHash hash(block, RvoDataHash::Skein512);
        QString directory, name;
        ASSERT_TRUE(buildFilename(&hash, QStringLiteral("r"), QStringLiteral("SubCache"), 10,
                                  directory, name));
        EXPECT_TRUE(isBlockFileName(name)) << qPrintable(name);
        ++counts[directory.section(QLatin1Char('/'), -2, -2).toInt()];
    }
    double sumSquares = 0;
    for (int count : counts) {
        EXPECT_GT(count, 0);
        sumSquares += (count - 100.0) * (count - 100.0);
    }
    EXPECT_LE(std::sqrt(sumSquares / 10) / 1000, 0.05);
    EXPECT_FALSE(
            isBlockFileName(RvoDataHash(QByteArray("x"), RvoDataHash::Skein256).toString())
            || isBlockFileName(RvoDataHash(QByteArray("x"), RvoDataHash::Skein1024).toString()));
}

TEST(RvoDiskLayout, NoRootIsChosenWithoutASetup)
{
    StdoutCapture unset;
    EXPECT_EQ(Access::cacheIndex(QStringLiteral("4150-1")), -1);
    EXPECT_EQ(manager().getBlockDestination(QString(), digestText({QStringLiteral("1")})),
              QString());
    const QStringList lines = unset.lines();
    ASSERT_FALSE(lines.isEmpty());
    EXPECT_EQ(lines.first(), QStringLiteral("Number of cache paths is zero"));
    EXPECT_TRUE(lines.contains(QStringLiteral("Data Block Manager Not Initialized. Aborting")));
}

// A negative sum too; a text too short, or no digest, chooses none.
TEST(RvoDiskLayout, OneRootTakesEveryDigest)
{
    ManagerSetup setup(1);
    EXPECT_EQ(Access::cacheIndex(QStringLiteral("1-0-3")), 0);
    EXPECT_EQ(Access::cacheIndex(QStringLiteral("9999")), 0);
    StdoutCapture out;
    EXPECT_EQ(Access::cacheIndex(QStringLiteral("12")), -1);
    EXPECT_EQ(Access::cacheIndex(static_cast<const RvoDataHash *>(nullptr)), -1);
    EXPECT_EQ(out.lines(), QStringList {QStringLiteral("Hash String is too Short 12")});
}

// A null digest names no file and leaves the outputs alone.
TEST(RvoDiskLayout, FileNameAndBucketKeepDoubledSeparators)
{
    const RvoDataHash hash(digestText({QStringLiteral("4150470588")}));
    QString directory = QStringLiteral("untouched");
    QString name;
    ASSERT_TRUE(
            buildFilename(&hash, QStringLiteral("/r"), QStringLiteral("Sub"), 10, directory, name));
    EXPECT_EQ(name, hash.toString());
    EXPECT_EQ(directory, QStringLiteral("/r/Sub//8/"));
    ASSERT_TRUE(buildFilename(&hash, QStringLiteral("/r"), QString(), 7, directory, name));
    EXPECT_EQ(directory, QStringLiteral("/r///%1/").arg(4150470588u % 7));

    DebugCapture debug;
    EXPECT_FALSE(buildFilename(nullptr, QStringLiteral("/r"), QString(), 10, directory, name));
    EXPECT_EQ(directory, QStringLiteral("/r///%1/").arg(4150470588u % 7)) << "outputs untouched";
    EXPECT_EQ(debug.messages(),
              QStringList {QStringLiteral("Null Hash Passed to Filename Builder")});
}
