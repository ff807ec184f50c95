#include "ManagerTestAccess.h"
#include "OutputCapture.h"
#include "RvoDiskLayout_p.h"
#include "RvoHashManager.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <thread>

using Access = RvoDataBlockManagerTestAccess;
using Reader = RvoDataBlockManagerReadThread;

namespace {

RvoSmartPointer<RvoDataHash> digestOf(const QByteArray &content)
{
    return RvoHashManager::instance().getHash(content);
}

QString blockPath(const QString &root, const RvoDataHash *hash)
{
    QString directory;
    QString name;
    buildFilename(hash, root, QString(), 10, directory, name);
    return QDir::cleanPath(directory + QLatin1Char('/') + name);
}

// Puts a block file of `content` with the given fields where the reader
// looks for `hash`.
// Returns the path as the reader spells it.
QString plantFile(const QString &root, const RvoDataHash *hash, const QByteArray &bytes)
{
    QString directory;
    QString name;
    buildFilename(hash, root, QString(), 10, directory, name);
    const QString path = directory + QLatin1Char('/') + name;
    writeFile(path, bytes);
    return path;
}

// Loads `hash` on a reader of `root` that is not running, and expects no
// block, the file gone, and the debug lines given.
void expectRefused(const QString &root, const RvoSmartPointer<RvoDataHash> &hash,
                   const QString &path, const QStringList &messages)
{
    Reader reader(root, 10, 50, nullptr);
    RvoDataBlockManager::instance();
    DebugCapture debug;
    EXPECT_EQ(Reader::waitForBlock(reader.loadBlock(hash, false)), nullptr);
    EXPECT_FALSE(QFile::exists(path)) << "a corrupt file is deleted";
    EXPECT_EQ(debug.messages(), messages);
}

} // namespace

TEST(RvoDataBlockManagerReadThread, QueueServesAscendingPrioritiesFirstComeFirstServed)
{
    QTemporaryDir root;
    Reader reader(root.path(), 10, 50, nullptr);
    const char *names[]
            = {"Friday", "Wednesday", "Monday", "Saturday", "Thursday", "Sunday", "Tuesday"};
    const int priorities[] = {0, 1, 0, 1, 1, 2, 0};
    QHash<RvoDataHash *, QString> byHash;
    QVector<RvoSmartPointer<RvoDataHash>> hashes;
    for (int i = 0; i < 7; ++i) {
        hashes.append(digestOf(QByteArray(names[i])));
        byHash.insert(hashes.last().data(), QLatin1String(names[i]));
        reader.request(hashes.last().data(), RvoDataBlockManager::PreloadPriority(priorities[i]));
        EXPECT_TRUE(hashes.last()->isPreloading());
    }
    QStringList order;
    for (const auto &entry : reader.queuedRequests())
        order.append(byHash.value(entry.second));
    EXPECT_EQ(order.join(QLatin1Char(' ')),
              QStringLiteral("Friday Monday Tuesday Wednesday Saturday Thursday Sunday"));
}

TEST(RvoDataBlockManagerReadThread, PromotionMovesAQueuedRequestOneStepOnlyWhenEnabled)
{
    QTemporaryDir root;
    Reader reader(root.path(), 10, 50, nullptr);
    const RvoSmartPointer<RvoDataHash> first = digestOf(QByteArray("first"));
    const RvoSmartPointer<RvoDataHash> second = digestOf(QByteArray("second"));
    reader.request(first.data(), RvoDataBlockManager::PreloadNormal);
    reader.request(second.data(), RvoDataBlockManager::PreloadBackground);

    reader.request(second.data(), RvoDataBlockManager::PreloadFirst);
    EXPECT_EQ(reader.queuedRequests().at(1), qMakePair(2, second.data())) << "promotion is off";

    reader.setRequestPromotionEnabled(true);
    reader.request(second.data(), RvoDataBlockManager::PreloadBackground);
    EXPECT_EQ(reader.queuedRequests().at(1), qMakePair(1, second.data()));
    reader.request(second.data(), RvoDataBlockManager::PreloadBackground);
    EXPECT_EQ(reader.queuedRequests().at(1), qMakePair(0, second.data()))
            << "lowered, not moved, until the next re-sort";
    reader.request(first.data(), RvoDataBlockManager::PreloadBackground);
    EXPECT_EQ(reader.queuedRequests().at(0), qMakePair(1, first.data())) << "the front stays";

    // Every 100th promotion re-sorts the queue: 3 so far.
    for (int i = 3; i < 99; ++i)
        reader.request(second.data(), RvoDataBlockManager::PreloadBackground);
    EXPECT_EQ(reader.queuedRequests().at(1).second, second.data());
    reader.request(second.data(), RvoDataBlockManager::PreloadBackground);
    EXPECT_EQ(reader.queuedRequests().at(0).second, second.data());
    EXPECT_EQ(reader.queuedRequests().at(0).first, 2 - 99);
}

TEST(RvoDataBlockManagerReadThread, LongQueueDropsOnlyBackgroundRequests)
{
    QTemporaryDir root;
    Reader reader(root.path(), 10, 50, nullptr);
    QVector<RvoSmartPointer<RvoDataHash>> hashes;
    for (int i = 0; i < 50; ++i) {
        hashes.append(digestOf(QByteArray::number(i)));
        reader.request(hashes.last().data(), RvoDataBlockManager::PreloadNormal);
    }
    const RvoSmartPointer<RvoDataHash> background = digestOf(QByteArray("background"));
    const RvoSmartPointer<RvoDataHash> normal = digestOf(QByteArray("normal"));
    reader.request(background.data(), RvoDataBlockManager::PreloadBackground);
    EXPECT_EQ(reader.requests(), 50);
    EXPECT_FALSE(background->isPreloading());
    reader.request(normal.data(), RvoDataBlockManager::PreloadNormal);
    EXPECT_EQ(reader.requests(), 51);

    reader.killRequests();
    EXPECT_EQ(reader.requests(), 0);
    EXPECT_TRUE(normal->isPreloading()) << "dropped requests keep their mark";
}

TEST(RvoDataBlockManagerReadThread, LoadedBlockIsRawCachedAndCounted)
{
    QTemporaryDir root;
    const QByteArray content = testContent(9, 123457);
    const RvoSmartPointer<RvoDataHash> hash = digestOf(content);
    plantFile(root.path(), hash.data(), blockFileBytes(content.size(), qCompress(content, 2)));
    Reader reader(root.path(), 10, 50, nullptr);
    RvoDataBlock *block = Reader::waitForBlock(reader.loadBlock(hash, false));
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(bytesOf(block), content);
    EXPECT_TRUE(block->cached());
    EXPECT_FALSE(block->isCompressed());
    EXPECT_EQ(reader.bytesRead(), content.size());
    delete block;

    // An empty block's payload is the bare 4-byte length.
    const RvoSmartPointer<RvoDataHash> empty = digestOf(QByteArray());
    plantFile(root.path(), empty.data(), blockFileBytes(0, QByteArray(4, '\0')));
    block = Reader::waitForBlock(reader.loadBlock(empty, false));
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(block->size(), 0);
    delete block;
}

TEST(RvoDataBlockManagerReadThread, MissingFileGivesNoBlockAfterWaitingForWriters)
{
    QTemporaryDir root;
    Reader reader(root.path(), 10, 50, nullptr);
    const RvoSmartPointer<RvoDataHash> hash = digestOf(QByteArray("nowhere"));
    RvoDataBlockManager::instance(); // its creation logs too
    DebugCapture debug;
    QFuture<RvoDataBlock *> future = reader.loadBlock(hash, false);
    EXPECT_TRUE(future.isCanceled());
    EXPECT_EQ(Reader::waitForBlock(future), nullptr);
    QString directory;
    QString name;
    buildFilename(hash.data(), root.path(), QString(), 10, directory, name);
    EXPECT_EQ(debug.messages(),
              QStringList {QStringLiteral("Cannot Open File %1 to read. Exist?=0")
                                   .arg(directory + QLatin1Char('/') + name)});
}

TEST(RvoDataBlockManagerReadThread, CorruptFilesAreRefusedAndDeleted)
{
    QTemporaryDir root;
    Access::setReadBackoffSteps(2);
    const QByteArray content = testContent(10, 20000);
    const RvoSmartPointer<RvoDataHash> hash = digestOf(content);
    const QByteArray payload = qCompress(content, 2);
    const auto corrupt = [](const QString &path) {
        return QStringLiteral("Corrupt block file '%1' deleted (%2)").arg(path);
    };

    QString path
            = plantFile(root.path(), hash.data(), blockFileBytes(content.size(), payload).left(8));
    expectRefused(root.path(), hash, path,
                  {QStringLiteral("Cannot read BlockSize from File '%1'").arg(path),
                   corrupt(path).arg(QStringLiteral("short"))});

    path = plantFile(root.path(), hash.data(), blockFileBytes(content.size(), payload).left(5));
    expectRefused(root.path(), hash, path,
                  {QStringLiteral("Cannot read Size from File '%1'").arg(path),
                   corrupt(path).arg(QStringLiteral("short"))});

    path = plantFile(root.path(), hash.data(), blockFileBytes(content.size(), payload).left(1000));
    expectRefused(root.path(), hash, path,
                  {QStringLiteral("Cannot read all Data from File '%1'").arg(path),
                   corrupt(path).arg(QStringLiteral("short"))});

    QByteArray flipped = blockFileBytes(content.size(), payload);
    flipped[flipped.size() / 2] = char(flipped.at(flipped.size() / 2) ^ 0x55);
    path = plantFile(root.path(), hash.data(), flipped);
    expectRefused(root.path(), hash, path, {corrupt(path).arg(QStringLiteral("payload"))});
}

TEST(RvoDataBlockManagerReadThread, FilesWhoseLengthsLieAreRefusedAndDeleted)
{
    QTemporaryDir root;
    Access::setReadBackoffSteps(2);
    const QByteArray content = testContent(11, 20000);
    const RvoSmartPointer<RvoDataHash> hash = digestOf(content);
    const QByteArray payload = qCompress(content, 2);
    const auto lengths = [](const QString &path) {
        return QStringList {QStringLiteral("Corrupt block file '%1' deleted (lengths)").arg(path)};
    };

    QString path = plantFile(root.path(), hash.data(), blockFileBytes(-1, payload));
    expectRefused(root.path(), hash, path, lengths(path));

    QByteArray negative = blockFileBytes(content.size(), payload);
    const qint32 minusOne = -1;
    std::memcpy(negative.data() + 8, &minusOne, 4);
    path = plantFile(root.path(), hash.data(), negative);
    expectRefused(root.path(), hash, path, lengths(path));

    // Size and the payload's own length disagree: a block must never claim
    // more bytes than it holds.
    path = plantFile(root.path(), hash.data(), blockFileBytes(content.size() + 1, payload));
    expectRefused(root.path(), hash, path, lengths(path));

    QByteArray huge = blockFileBytes(content.size(), payload);
    const qint32 tooLong = 0x7fffff00;
    std::memcpy(huge.data() + 8, &tooLong, 4);
    path = plantFile(root.path(), hash.data(), huge);
    expectRefused(root.path(), hash, path,
                  {QStringLiteral("Cannot read all Data from File '%1'").arg(path),
                   QStringLiteral("Corrupt block file '%1' deleted (short)").arg(path)});
}

TEST(RvoDataBlockManagerReadThread, TruncatedFileIsWaitedForWithADoublingBackOff)
{
    QTemporaryDir root;
    const RvoSmartPointer<RvoDataHash> hash = digestOf(QByteArray("slow"));
    const QString path = plantFile(root.path(), hash.data(), QByteArray(8, '\0'));
    Reader reader(root.path(), 10, 50, nullptr);
    QElapsedTimer timer;
    timer.start();
    EXPECT_EQ(Reader::waitForBlock(reader.loadBlock(hash, false)), nullptr);
    // 1 + 2 + ... + 8192 ms.
    EXPECT_GE(timer.elapsed(), 16383);
    EXPECT_LT(timer.elapsed(), 30000);
    EXPECT_FALSE(QFile::exists(path));
}

TEST(RvoDataBlockManagerReadThread, PreloadMakesTheBlockLiveAndClearsTheMark)
{
    ManagerSetup setup(1);
    const QByteArray content = testContent(12);
    const RvoSmartPointer<RvoDataHash> hash = digestOf(content);
    plantFile(setup.root(), hash.data(), blockFileBytes(content.size(), qCompress(content, 2)));
    Reader *reader = Access::readThread(0);
    reader->request(hash.data(), RvoDataBlockManager::PreloadFirst);
    // The queue empties when the load starts; the block arrives after it.
    EXPECT_TRUE(waitUntil([&] { return Access::holdsBlock(hash.data()); }));
    EXPECT_FALSE(hash->isPreloading());
    EXPECT_EQ(reader->requestsHandled(), 1);
    EXPECT_EQ(RvoDataBlockManager::instance().liveBytes(), content.size());
}

namespace {

// Runs the child writer on `root` (sub-cache "Shared", 7 buckets) for the
// seeds and returns the digest texts it printed.
QStringList writeInChild(const QString &root, const QList<int> &seeds, bool exitQueued)
{
    QStringList args;
    if (exitQueued)
        args << QStringLiteral("--exit-queued");
    args << root << QStringLiteral("Shared") << QStringLiteral("7");
    for (int seed : seeds)
        args << QString::number(seed);
    QProcess child;
    child.start(QStringLiteral(RVODDI_TEST_CHILD), args);
    EXPECT_TRUE(child.waitForFinished(60000));
    EXPECT_EQ(child.exitStatus(), QProcess::NormalExit);
    EXPECT_EQ(child.exitCode(), 0) << child.readAllStandardError().constData();
    return QString::fromLocal8Bit(child.readAllStandardOutput())
            .split(QLatin1Char('\n'), Qt::SkipEmptyParts);
}

// Reads every block back in this process and compares it with its seed's
// content.
void expectReadBack(const QString &root, const QStringList &texts, const QList<int> &seeds)
{
    ASSERT_EQ(texts.size(), seeds.size());
    ManagerSetup setup(0);
    RvoDataBlockManager &manager = RvoDataBlockManager::instance();
    manager.cleanUp();
    manager.setup({root}, -1, 7);
    manager.setSubCache(QStringLiteral("Shared"));
    for (int i = 0; i < seeds.size(); ++i) {
        const RvoSmartPointer<RvoDataHash> hash = RvoHashManager::instance().getHash(texts.at(i));
        ASSERT_FALSE(hash.isNull());
        RvoDataBlock *block = Reader::waitForBlock(Access::readThread(0)->loadBlock(hash, false));
        ASSERT_NE(block, nullptr) << i;
        EXPECT_EQ(bytesOf(block), testContent(seeds.at(i))) << i;
        delete block;
    }
}

} // namespace

TEST(RvoDataBlockManagerReadThread, BlockWrittenByAnotherProcessIsReadBack)
{
    QTemporaryDir root;
    const QList<int> seeds {21, 22};
    expectReadBack(root.path(), writeInChild(root.path(), seeds, false), seeds);
}

// A host that returns from main with saves still queued: the manager's own
// clean-up at exit writes them all, while the threads and pools it uses are
// still alive.
TEST(RvoDataBlockManagerReadThread, SavesQueuedWhenAProcessExitsAreWritten)
{
    QTemporaryDir root;
    QList<int> seeds;
    for (int seed = 300; seed < 340; ++seed)
        seeds << seed;
    expectReadBack(root.path(), writeInChild(root.path(), seeds, true), seeds);
}

// A reader asking for a block while its write is queued or under way gets
// either the whole block or (before the write was queued) none, never a
// partial file; once the write is queued, it always gets the block.
TEST(RvoDataBlockManagerReadThread, ReaderRacingAWriterNeverSeesAPartialFile)
{
    ManagerSetup setup(1);
    DebugCapture debug;
    std::atomic<int> loaded {0};
    for (int round = 0; round < 40; ++round) {
        const QByteArray content = testContent(100 + round, 200000);
        const RvoSmartPointer<RvoDataHash> hash = digestOf(content);
        std::atomic<bool> queued {false};
        std::thread reader([&] {
            while (true) {
                const bool afterQueueing = queued.load();
                RvoDataBlock *block
                        = Reader::waitForBlock(Access::readThread(0)->loadBlock(hash, false));
                if (block) {
                    EXPECT_EQ(bytesOf(block), content) << round;
                    delete block;
                    loaded.fetch_add(1);
                    return;
                }
                EXPECT_FALSE(afterQueueing) << "the write was queued before this read";
                if (afterQueueing)
                    return;
            }
        });
        Access::makeBlockLive(hash.data(), new RvoDataBlock(content));
        queued.store(true);
        reader.join();
    }
    EXPECT_EQ(loaded.load(), 40);
    for (const QString &message : debug.messages())
        EXPECT_FALSE(message.startsWith(QStringLiteral("Corrupt"))) << qPrintable(message);
}
