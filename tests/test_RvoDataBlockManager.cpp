#include "ManagerTestAccess.h"
#include "RvoDdiLog.h"

#include <QDir>
#include <QFile>

using Access = RvoDataBlockManagerTestAccess;

// The write limit is a quarter of the budget, divided toward zero; every
// change of the budget is logged.
TEST(RvoDataBlockManager, SetupCreatesRootsAndStartsThreadsPerRootAndTheBudgetIsLogged)
{
    DebugCapture debug;
    RvoDataBlockManager &manager = RvoDataBlockManager::instance();
    EXPECT_EQ(manager.maxDataCacheSize(), RvoDataBlockManager::defaultCacheSize());
    EXPECT_EQ(manager.numBuckets(), 10);
    EXPECT_FALSE(manager.isInitialized());
    QTemporaryDir dir;
    const QStringList roots {dir.path() + QStringLiteral("/a/b"),
                             dir.path() + QStringLiteral("/c")};
    EXPECT_TRUE(manager.setup(roots, -1, 4));
    EXPECT_TRUE(QDir(roots.at(0)).exists() && QDir(roots.at(1)).exists());
    EXPECT_TRUE(manager.isInitialized());
    EXPECT_EQ(manager.cacheRoots(), roots);
    EXPECT_EQ(manager.numBuckets(), 4);
    EXPECT_EQ(manager.maxDataCacheSize(), 2147483648LL) << "-1 keeps the budget";
    EXPECT_EQ(Access::writeThreadCount(), 2);
    EXPECT_EQ(Access::readThreadCount(), 2);
    EXPECT_TRUE(Access::writeThread(0)->isRunning() && Access::readThread(1)->isRunning());

    StdoutCapture out;
    EXPECT_TRUE(manager.setup(roots, 1000, 4));
    EXPECT_EQ(out.lines(), QStringList {QStringLiteral("Setup called twice on DataBlock Manager")});
    EXPECT_EQ(Access::writeThreadCount(), 4) << "a second setup adds a further set of threads";
    EXPECT_EQ(manager.maxWritePendingSize(), 250);
    manager.setMaxDataCacheSize(7);
    EXPECT_EQ(manager.maxWritePendingSize(), 1);
    manager.setMaxDataCacheSize(-5);
    EXPECT_EQ(manager.maxWritePendingSize(), -1);
    EXPECT_EQ(debug.messages().filter(QStringLiteral("[DDI] Max")),
              (QStringList {
                      QStringLiteral("[DDI] Max data cache size    = 2147483648 bytes (2048 MB)"),
                      QStringLiteral("[DDI] Max write pending size = 536870912 bytes (512 MB)"),
                      QStringLiteral("[DDI] Max data cache size    = 1000 bytes (0 MB)"),
                      QStringLiteral("[DDI] Max write pending size = 250 bytes (0 MB)"),
                      QStringLiteral("[DDI] Max data cache size    = 7 bytes (0 MB)"),
                      QStringLiteral("[DDI] Max write pending size = 1 bytes (0 MB)"),
                      QStringLiteral("[DDI] Max data cache size    = -5 bytes (0 MB)"),
                      QStringLiteral("[DDI] Max write pending size = -1 bytes (0 MB)")}));
    manager.cleanUp();
}

TEST(RvoDataBlockManager, UncreatableRootIsReportedTwiceAndStillServedAndNoBucketsAreRefused)
{
    QTemporaryDir dir;
    ASSERT_TRUE(writeFile(dir.path() + QStringLiteral("/file"), QByteArray()));
    const QString root = dir.path() + QStringLiteral("/file/root");
    RvoDataBlockManager &manager = RvoDataBlockManager::instance();
    StdoutCapture out;
    manager.setup({root}, -1, 0);
    const QString line = QStringLiteral("Cannot Create cache root at ") + root;
    EXPECT_EQ(out.lines(),
              (QStringList {QStringLiteral("Bucket count 0 is below 1, keeping 10"), line, line}));
    EXPECT_EQ(manager.numBuckets(), 10);
    EXPECT_EQ(Access::writeThreadCount(), 1);
    manager.cleanUp();
}

TEST(RvoDataBlockManager, SubCacheAndRequestPromotionReachTheThreads)
{
    ManagerSetup setup(2);
    RvoDataBlockManager &manager = RvoDataBlockManager::instance();
    manager.setSubCache(QStringLiteral("Project"));
    EXPECT_EQ(manager.subCache(), QStringLiteral("Project"));
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(Access::writeThread(i)->subCache(), QStringLiteral("Project"));
        EXPECT_EQ(Access::readThread(i)->subCache(), QStringLiteral("Project"));
    }
    RvoDdiLog::instance().log(RvoDdiLog::Information, "x.cpp", 1, QStringLiteral("here"));
    EXPECT_TRUE(QFile::exists(setup.root(0) + QStringLiteral("/Project/DdiLog.txt")));

    StdoutCapture out;
    manager.setSubCache(QStringLiteral("Project"));
    EXPECT_EQ(out.lines(), QStringList {QStringLiteral("Subcache Set to Project twice")});

    // Request promotion too, logged only when it changes.
    DebugCapture debug;
    manager.setRequestPromotionEnabled(false);
    manager.setRequestPromotionEnabled(true);
    manager.setRequestPromotionEnabled(true);
    EXPECT_EQ(debug.messages(),
              QStringList {QStringLiteral("RvoDDi Setting Request Promotion Enabled to TRUE 1")});
    EXPECT_TRUE(Access::readThread(0)->requestPromotionEnabled());
    EXPECT_TRUE(Access::readThread(1)->requestPromotionEnabled());
}

TEST(RvoDataBlockManager, StatisticsDumpsHaveTheirLinesInOrder)
{
    ManagerSetup setup(2, QString(), 10, 3 * 1048576);
    RvoDataBlockManager &manager = RvoDataBlockManager::instance();
    DebugCapture debug;
    manager.dumpStats();
    const QStringList lines = debug.messages();
    ASSERT_EQ(lines.size(), 7 + 8 + 5);
    EXPECT_EQ(lines.mid(0, 7),
              (QStringList {QStringLiteral("==== RvoDdi Block Stats ===="),
                            QStringLiteral("Max Cache Size 3Mb"),
                            QStringLiteral("Number of managed blocks 0"),
                            QStringLiteral("Number of existant blocks -1"),
                            QStringLiteral("Block Memory Usage 0Mb"),
                            QStringLiteral("Number of LRU Blocks 0"),
                            QStringLiteral("Number Block Future Pointers -1")}));
    EXPECT_EQ(lines.at(7), QStringLiteral("==== RvoDdi Hash Stats ===="));
    EXPECT_EQ(lines.mid(15),
              (QStringList {QStringLiteral("==== Thread Stats ===="),
                            QStringLiteral("Read %1 0Mb").arg(setup.root(0)),
                            QStringLiteral("Read %1 0Mb").arg(setup.root(1)),
                            QStringLiteral("Written  %1 0Mb").arg(setup.root(0)),
                            QStringLiteral("Written  %1 0Mb").arg(setup.root(1))}));

    DebugCapture threads;
    manager.dumpThreadStats();
    EXPECT_EQ(threads.messages(),
              (QStringList {QStringLiteral("==== Thread Stats ===="),
                            QStringLiteral(" Read Thread 0 has 0 requests"),
                            QStringLiteral(" Read Thread 1 has 0 requests"),
                            QStringLiteral(" Write Thread 0 has 0 requests"),
                            QStringLiteral(" Write Thread 1 has 0 requests")}));
}

TEST(RvoDataBlockManager, CleanUpResetsEverythingAndANewSetupStartsAgain)
{
    RvoDataBlockManager &manager = RvoDataBlockManager::instance();
    manager.cleanUp(); // not initialized: nothing
    {
        ManagerSetup setup(1, QStringLiteral("S"), 10, 1 << 20);
        const QByteArray content = testContent(1);
        RvoSmartPointer<RvoDataHash> hash = RvoHashManager::instance().getHash(content);
        Access::makeBlockLive(hash.data(), new RvoDataBlock(content));
        EXPECT_EQ(manager.liveBytes(), content.size());
        EXPECT_EQ(manager.liveBlocks(), 1);
    }
    EXPECT_FALSE(manager.isInitialized());
    EXPECT_EQ(manager.liveBytes(), 0);
    EXPECT_EQ(manager.liveBlocks(), 0);
    EXPECT_EQ(manager.managedBlocks(), 0);
    EXPECT_EQ(manager.maxDataCacheSize(), 0);
    EXPECT_EQ(manager.numBuckets(), 0);
    EXPECT_TRUE(manager.cacheRoots().isEmpty());
    EXPECT_TRUE(manager.subCache().isEmpty());
    EXPECT_FALSE(manager.garbageCollecting());
    EXPECT_EQ(Access::writeThreadCount(), 0);

    QTemporaryDir dir;
    manager.setup({dir.path()}, -1, 3);
    EXPECT_EQ(manager.maxDataCacheSize(), 0) << "-1 after cleanUp keeps a budget of 0";
    EXPECT_EQ(Access::readThreadCount(), 1);
    manager.cleanUp();
}
