#include "ManagerTestAccess.h"

#include <QProcess>

using Access = RvoDataBlockManagerTestAccess;
using Reader = RvoDataBlockManagerReadThread;
constexpr auto First = RvoDataBlockManager::PreloadFirst,
               Normal = RvoDataBlockManager::PreloadNormal,
               Background = RvoDataBlockManager::PreloadBackground;

// The block a root's read thread loads from its file, or null.
static std::unique_ptr<RvoDataBlock> load(Reader *reader, const RvoSmartPointer<RvoDataHash> &hash)
{
    return std::unique_ptr<RvoDataBlock>(Reader::waitForBlock(reader->loadBlock(hash, false)));
}

// One root's read thread, not started: requests stay queued.
class RvoReadThread : public ::testing::Test
{
protected:
    RvoSmartPointer<RvoDataHash> request(const QByteArray &content, int priority)
    {
        RvoSmartPointer<RvoDataHash> hash = digestOf(content);
        reader.request(hash.data(), RvoDataBlockManager::PreloadPriority(priority));
        return hash;
    }

    QTemporaryDir root;
    Reader reader {Access::manager(), root.path(), 10, 50, nullptr};
};

TEST_F(RvoReadThread, QueueServesPrioritiesInOrder)
{
    const QStringList names {"Friday",   "Wednesday", "Monday", "Saturday",
                             "Thursday", "Sunday",    "Tuesday"};
    const int priorities[] = {0, 1, 0, 1, 1, 2, 0};
    QHash<RvoDataHash *, QString> byHash;
    QVector<RvoSmartPointer<RvoDataHash>> hashes;
    for (int i = 0; i < 7; ++i)
        byHash.insert((hashes << request(names[i].toLatin1(), priorities[i])).last().data(),
                      names[i]);
    QStringList order;
    for (const auto &entry : reader.queuedRequests())
        order.append(byHash.value(entry.second));
    EXPECT_EQ(order.join(' '), "Friday Monday Tuesday Wednesday Saturday Thursday Sunday");
}

// Dropped requests keep their preloading mark.
TEST_F(RvoReadThread, FullQueueDropsOnlyBackgroundRequests)
{
    QVector<RvoSmartPointer<RvoDataHash>> hashes;
    for (int i = 0; i < 50; ++i)
        hashes.append(request(QByteArray::number(i), Background));
    const RvoSmartPointer<RvoDataHash> background = request("background", Background);
    EXPECT_EQ(reader.requests(), 50);
    EXPECT_FALSE(background->isPreloading());
    const RvoSmartPointer<RvoDataHash> normal = request("normal", Normal);
    EXPECT_EQ(reader.requests(), 51);
    reader.killRequests();
    EXPECT_EQ(reader.requests(), 0);
    EXPECT_TRUE(normal->isPreloading());
}

// A request asked again moves one step up, only when promotion is enabled;
// the request at the front stays there, and every 100th promotion re-sorts
// the queue.
TEST_F(RvoReadThread, PromotionRaisesAQueuedRequestOneStep)
{
    const RvoSmartPointer<RvoDataHash> first = request("first", Normal);
    const RvoSmartPointer<RvoDataHash> secondHash = request("second", Background);
    RvoDataHash *second = secondHash.data();
    const auto at = [&](int i) { return reader.queuedRequests().at(i); };
    reader.request(second, First);
    EXPECT_EQ(at(1), qMakePair(2, second)) << "promotion is off";
    reader.setRequestPromotionEnabled(true);
    reader.request(second, Background);
    EXPECT_EQ(at(1), qMakePair(1, second));
    reader.request(second, Background);
    EXPECT_EQ(at(1), qMakePair(0, second)) << "lowered, not moved, until the next re-sort";
    reader.request(first.data(), Background);
    EXPECT_EQ(at(0), qMakePair(1, first.data())) << "the front stays";
    for (int i = 3; i < 99; ++i)
        reader.request(second, Background);
    EXPECT_EQ(at(1).second, second);
    reader.request(second, Background);
    EXPECT_EQ(at(0), qMakePair(2 - 99, second));
}

// An empty block's payload is the bare 4-byte length.
TEST_F(RvoReadThread, LoadedBlockIsRawMarkedCachedAndCounted)
{
    for (const QByteArray &content : {testContent(9, 123457), QByteArray()}) {
        const RvoSmartPointer<RvoDataHash> hash = digestOf(content);
        writeFile(blockPath(root.path(), QString(), hash.data()), blockFile(content));
        const std::unique_ptr<RvoDataBlock> block = load(&reader, hash);
        ASSERT_NE(block, nullptr);
        EXPECT_EQ(bytesOf(block.get()), content);
        EXPECT_TRUE(block->cached() && !block->isCompressed());
    }
    EXPECT_EQ(reader.bytesRead(), 123457);
}

// Block files appear only complete: a damaged one (each kind of damage that
// the reader meets in its own way; RvoBlockFile's cases name every kind) is
// refused and deleted at once, and the root's thread goes on without delay.
// A refusal takes a few milliseconds; the bound is a stall guard with room
// for a loaded machine
// (waiting for a file to grow took 16 s; ThreadSanitizer may spend a second
// on a report it drops).
constexpr qint64 kPromptly = 2000;
TEST(RvoDataBlockManagerReadThread, DamagedFilesAreRefusedAtOnceAndTheRootKeepsLoading)
{
    const QByteArray bad = testContent(41, 20000);
    const QByteArray sound = blockFile(bad);
    const QString data = "Cannot read all Data from File '%1'";
    const struct
    {
        const char *what;
        QByteArray file; // null: no file
        QString line; // the first debug line, if any
        const char *fault; // the word of the deletion line
    } cases[] = {
            {"missing", {}, "Cannot Open File %1 to read. Exist?=0", nullptr},
            {"empty", QByteArray(""), "Cannot read Size from File '%1'", "short"},
            {"cut in BlockSize", sound.left(8), "Cannot read BlockSize from File '%1'", "short"},
            {"payload cut", sound.left(1000), data, "lengths"},
            {"BlockSize 2 GiB", patched(sound, 8, qint32(0x7fffffff)), data, "lengths"},
            {"Size disagrees with the payload",
             patched(sound, 0, qint64(bad.size() + 1)),
             {},
             "payload"},
    };
    ManagerSetup setup(1);
    Reader *reader = Access::readThread(0);
    const RvoSmartPointer<RvoDataHash> badHash = digestOf(bad);
    const QString path = blockPath(setup.root(), QString(), badHash.data());
    int seed = 50;
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        const QByteArray good = testContent(++seed, 20000);
        const RvoSmartPointer<RvoDataHash> goodHash = digestOf(good);
        writeFile(blockPath(setup.root(), QString(), goodHash.data()), blockFile(good));
        if (!c.file.isNull())
            writeFile(path, c.file);
        QStringList expected;
        if (!c.line.isEmpty())
            expected << c.line.arg(path);
        if (c.fault)
            expected << QString("Corrupt block file '%1' deleted (%2)")
                                .arg(path, QLatin1String(c.fault));
        DebugCapture debug;
        QElapsedTimer timer;
        timer.start();
        QFuture<RvoDataBlock *> future = reader->loadBlock(badHash, false);
        EXPECT_EQ(Reader::waitForBlock(future), nullptr);
        EXPECT_LT(timer.elapsed(), kPromptly);
        EXPECT_TRUE(future.isCanceled());
        EXPECT_FALSE(QFile::exists(path));
        EXPECT_EQ(debug.messages(), expected);

        // On the root's own thread: the damaged file first, a sound one right
        // behind it. (A failed preload keeps its mark; clear it to ask again.)
        if (!c.file.isNull())
            writeFile(path, c.file);
        badHash->setPreloading(false);
        timer.restart();
        reader->request(badHash.data(), First);
        reader->request(goodHash.data(), First);
        // Once the damaged file is gone nothing of this row touches it again.
        EXPECT_TRUE(waitUntil(
                [&] { return Access::holdsBlock(goodHash.data()) && !QFile::exists(path); }));
        EXPECT_LT(timer.elapsed(), kPromptly);
        EXPECT_FALSE(Access::holdsBlock(badHash.data()) || goodHash->isPreloading());
        EXPECT_EQ(manager().liveBytes(), good.size());
    }
    EXPECT_EQ(reader->requestsHandled(), 2 * int(std::size(cases)));
}

// A host that returns from main with saves still queued: the manager's own
// clean-up at exit writes them all, and another process reads them back.
TEST(RvoDataBlockManagerReadThread, SavesQueuedWhenAProcessExitsAreWritten)
{
    QTemporaryDir root; // set up here only after the child: no fork with threads running
    QStringList args {"queue", root.path(), "Shared", "7"};
    for (int seed = 300; seed < 340; ++seed)
        args << QString::number(seed);
    QProcess child;
    child.start(RVODDI_TEST_CHILD, args);
    ASSERT_TRUE(child.waitForFinished(60000));
    EXPECT_EQ(child.exitCode(), 0) << child.readAllStandardError().constData();
    const QByteArray stored = child.readAllStandardOutput();
    ASSERT_EQ(stored.count('\n'), 40);
    manager().setup({root.path()}, -1, 7);
    manager().setSubCache("Shared");
    EXPECT_EQ(lostBlocks(stored), QStringList());
    manager().cleanUp();
}

// A reader asking for a block while its write is queued or under way gets
// either the whole block or (before the write was queued) none, never a
// partial file; once the write is queued, it always gets the block.
TEST(RvoDataBlockManagerReadThread, ReaderRacingAWriterNeverSeesAPartialFile)
{
    ManagerSetup setup(1);
    DebugCapture debug;
    for (int round = 0; round < 40; ++round) {
        const QByteArray content = testContent(100 + round, 200000);
        const RvoSmartPointer<RvoDataHash> hash = digestOf(content);
        std::atomic<bool> queued {false};
        std::thread reader([&] {
            for (;;) {
                const bool afterQueueing = queued.load();
                if (const std::unique_ptr<RvoDataBlock> block = load(Access::readThread(0), hash)) {
                    EXPECT_EQ(bytesOf(block.get()), content) << round;
                    return;
                }
                ASSERT_FALSE(afterQueueing) << "the write was queued before this read";
            }
        });
        Access::makeBlockLive(hash.data(), new RvoDataBlock(content));
        queued.store(true);
        reader.join();
    }
    for (const QString &message : debug.messages())
        EXPECT_FALSE(message.startsWith("Corrupt")) << qPrintable(message);
}
