#include "ManagerTestAccess.h"
#include "RvoBlockCodec_p.h"

using Access = RvoDataBlockManagerTestAccess;

// Missing roots are made with their parents. A second setup is said, and
// starts threads for its roots too.
TEST(RvoDataBlockManager, SetupStartsAReadAndAWriteThreadPerRoot)
{
    QTemporaryDir dir;
    const QStringList roots {dir.path() + "/a/b", dir.path() + "/c"};
    EXPECT_TRUE(manager().setup(roots, -1, 4));
    EXPECT_TRUE(QDir(roots.at(0)).exists() && QDir(roots.at(1)).exists());
    EXPECT_EQ(Access::writeThreadCount(), 2);
    EXPECT_EQ(Access::readThreadCount(), 2);
    StdoutCapture out;
    EXPECT_TRUE(manager().setup(roots, 1000, 4));
    EXPECT_EQ(out.lines(), QStringList {"Setup called twice on DataBlock Manager"});
    EXPECT_EQ(Access::writeThreadCount(), 4);
    manager().cleanUp();
}

// The default budget at start, then each one set; the write limit is a
// quarter of the budget, divided toward zero.
TEST(RvoDataBlockManager, EveryBudgetAndItsWriteLimitIsLogged)
{
    DebugCapture debug;
    ManagerSetup setup(1, QString(), 10, 7);
    manager().setMaxDataCacheSize(-5);
    EXPECT_EQ(debug.messages().filter("[DDI] Max"),
              (QStringList {"[DDI] Max data cache size    = 2147483648 bytes (2048 MB)",
                            "[DDI] Max write pending size = 536870912 bytes (512 MB)",
                            "[DDI] Max data cache size    = 7 bytes (0 MB)",
                            "[DDI] Max write pending size = 1 bytes (0 MB)",
                            "[DDI] Max data cache size    = -5 bytes (0 MB)",
                            "[DDI] Max write pending size = -1 bytes (0 MB)"}));
    EXPECT_EQ(manager().maxWritePendingSize(), -1);
}

// The environment gives the codec when the host gives none; a bad setting
// from either says why and changes nothing. A root holds a mix of codecs and
// reads back byte-exact whatever the setting; zlib files are qCompress's.
TEST(RvoDataBlockManager, BlockCodecSettingWritesAMixedRootThatReadsBackByteExact)
{
    qputenv("RVODDI_BLOCK_CODEC", "zstd:99");
    StdoutCapture out;
    {
        ManagerSetup setup;
        EXPECT_EQ(manager().blockCodec(), QStringLiteral("zlib"));
    }
    qputenv("RVODDI_BLOCK_CODEC", "zstd:2");
    ManagerSetup setup;
    EXPECT_EQ(manager().blockCodec(), QStringLiteral("zstd:2"));
    EXPECT_FALSE(manager().setBlockCodec(QStringLiteral("lz5")));
    EXPECT_EQ(manager().blockCodec(), QStringLiteral("zstd:2"));
    EXPECT_EQ(out.lines(),
              (QStringList {QStringLiteral("Bad block codec 'zstd:99': its level must be a whole "
                                           "number from -50 to 22, not 0 (from "
                                           "RVODDI_BLOCK_CODEC; writing zlib)"),
                            QStringLiteral("Bad block codec 'lz5': use zlib, lz4, zstd or "
                                           "zstd:LEVEL")}));

    const QString settings[] = {QString(), QStringLiteral("lz4"), QStringLiteral("zlib")};
    const RvoBlockCodecSetting::Kind kinds[]
            = {RvoBlockCodecSetting::Zstd, RvoBlockCodecSetting::Lz4, RvoBlockCodecSetting::Zlib};
    QVector<RvoDataReference> references;
    for (int s = 0; s < 3; ++s) {
        if (!settings[s].isNull())
            ASSERT_TRUE(manager().setBlockCodec(settings[s]));
        references.append(addBlock(testContent(s, 100000)));
        manager().flush(true, RvoDataBlockManager::AllThreads);
    }
    manager().freeAllBlocks();
    ASSERT_TRUE(manager().setBlockCodec(QStringLiteral("lz4")));
    for (int s = 0; s < 3; ++s) {
        const QByteArray content = testContent(s, 100000);
        const QByteArray file = readFile(blockPath(setup.root(), QString(), hashOf(references[s])));
        RvoBlockCodecSetting::Kind kind = RvoBlockCodecSetting::Zlib;
        EXPECT_TRUE(RvoBlockCodec::kindOf(file.constData() + 12, file.size() - 12, &kind));
        EXPECT_EQ(kind, kinds[s]) << s;
        if (kind == RvoBlockCodecSetting::Zlib)
            EXPECT_TRUE(qUncompress(file.mid(12)) == content) << "not qCompress's format";
        EXPECT_EQ(bytesOf(references[s]), content) << s;
    }
}

TEST(RvoDataBlockManager, SubCacheSetTwiceIsSaid)
{
    ManagerSetup setup(1, "Project");
    StdoutCapture out;
    manager().setSubCache("Project");
    EXPECT_EQ(out.lines(), QStringList {"Subcache Set to Project twice"});
}

TEST(RvoDataBlockManager, RequestPromotionReachesTheReadersAndIsLoggedWhenItChanges)
{
    ManagerSetup setup(2);
    DebugCapture debug;
    manager().setRequestPromotionEnabled(false);
    manager().setRequestPromotionEnabled(true);
    manager().setRequestPromotionEnabled(true);
    EXPECT_EQ(debug.messages(), QStringList {"RvoDDi Setting Request Promotion Enabled to TRUE 1"});
    EXPECT_TRUE(Access::readThread(0)->requestPromotionEnabled()
                && Access::readThread(1)->requestPromotionEnabled());
}

// Lines joined with '|'; the registry's own part is checked in its suite.
TEST(RvoDataBlockManager, StatisticsDumpsGiveTheirLinesInOrder)
{
    ManagerSetup setup(2, QString(), 10, 3 * 1048576);
    DebugCapture stats;
    manager().dumpStats();
    const QStringList lines = stats.messages();
    ASSERT_EQ(lines.size(), 7 + 8 + 5);
    EXPECT_EQ(lines.mid(0, 8).join('|'),
              "==== RvoDdi Block Stats ====|Max Cache Size 3Mb|Number of managed "
              "blocks 0|Number of existant blocks -1|Block Memory Usage 0Mb|Number "
              "of LRU Blocks 0|Number Block Future Pointers -1|==== RvoDdi Hash "
              "Stats ====");
    EXPECT_EQ(lines.mid(15).join('|'),
              QString("==== Thread Stats ====|Read %1 0Mb|Read %2 0Mb|Written  %1 0Mb|"
                      "Written  %2 0Mb")
                      .arg(setup.root(0), setup.root(1)));
    DebugCapture threads;
    manager().dumpThreadStats();
    EXPECT_EQ(threads.messages().join('|'),
              "==== Thread Stats ====| Read Thread 0 has 0 requests| Read Thread 1 "
              "has 0 requests| Write Thread 0 has 0 requests| Write Thread 1 has 0 "
              "requests");
}

// Reported twice and still served; a bucket count below one is refused.
TEST(RvoDataBlockManager, UncreatableRootIsReportedAndStillServed)
{
    QTemporaryDir bad;
    ASSERT_TRUE(writeFile(bad.path() + "/file", QByteArray()));
    const QString root = bad.path() + "/file/root";
    StdoutCapture refused;
    manager().setup({root}, -1, 0);
    const QString line = "Cannot Create cache root at " + root;
    EXPECT_EQ(refused.lines(), (QStringList {"Bucket count 0 is below 1, keeping 10", line, line}));
    EXPECT_EQ(manager().numBuckets(), 10);
    EXPECT_EQ(Access::writeThreadCount(), 1);
    manager().cleanUp();
}

// Clean-up without a setup does nothing; after one, nothing of it is left,
// the budget included.
TEST(RvoDataBlockManager, CleanUpResetsEverythingForANewSetup)
{
    manager().cleanUp();
    {
        ManagerSetup setup(1, "S", 10, 1 << 20);
        const QByteArray content = testContent(1);
        RvoSmartPointer<RvoDataHash> hash = RvoHashManager::instance().getHash(content);
        Access::makeBlockLive(hash.data(), new RvoDataBlock(content));
        EXPECT_EQ(manager().liveBlocks(), 1);
        manager().startGarbageCollection();
    }
    EXPECT_FALSE(manager().isInitialized());
    EXPECT_EQ(manager().liveBytes(), 0);
    EXPECT_EQ(manager().liveBlocks(), 0);
    EXPECT_EQ(manager().managedBlocks(), 0);
    EXPECT_EQ(manager().numBuckets(), 0);
    EXPECT_TRUE(manager().cacheRoots().isEmpty() && manager().subCache().isEmpty());
    EXPECT_FALSE(manager().garbageCollecting());
    EXPECT_EQ(Access::writeThreadCount(), 0);
    QTemporaryDir dir;
    manager().setup({dir.path()}, -1, 3);
    EXPECT_EQ(manager().maxDataCacheSize(), 0) << "-1 after cleanUp keeps a budget of 0";
    EXPECT_EQ(Access::readThreadCount(), 1);
    manager().cleanUp();
}
