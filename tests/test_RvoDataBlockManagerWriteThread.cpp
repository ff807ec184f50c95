#include "ManagerTestAccess.h"
#include "OutputCapture.h"
#include "RvoBlockCodec_p.h"
#include "RvoBlockFile_p.h"
#include "RvoDiskLayout_p.h"
#include "RvoHashManager.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <QElapsedTimer>

#include <chrono>

using Access = RvoDataBlockManagerTestAccess;
using Writer = RvoDataBlockManagerWriteThread;

namespace {

RvoSmartPointer<RvoDataHash> digestOf(const QByteArray &content)
{
    return RvoHashManager::instance().getHash(content);
}

// The block file of `content` under `root` and `subCache`, with 10 buckets.
QString blockPath(const QString &root, const QString &subCache, const QByteArray &content)
{
    const RvoDataHash hash(content, RvoDataHash::Skein512);
    QString directory;
    QString name;
    buildFilename(&hash, root, subCache, 10, directory, name);
    return QDir::cleanPath(directory + QLatin1Char('/') + name);
}

// Checks a block file byte for byte against the block it holds.
void expectBlockFile(const QString &path, const QByteArray &content)
{
    const QByteArray file = readFile(path);
    RvoBlockCodec codec;
    QByteArray decoded;
    EXPECT_EQ(RvoBlockFile::decode(codec, file.constData(), file.size(), &decoded),
              RvoBlockFile::Sound)
            << qPrintable(path);
    EXPECT_EQ(decoded, content);
}

} // namespace

TEST(RvoDataBlockManagerWriteThread, QueueServesAscendingPrioritiesFirstComeFirstServed)
{
    QTemporaryDir root;
    Writer writer(root.path(), 10, 4, nullptr);
    QVector<RvoSmartPointer<RvoDataHash>> hashes;
    QVector<QByteArray> contents;
    const int priorities[] = {2, 0, 2, 1};
    qint64 queued = 0;
    for (int i = 0; i < 4; ++i) {
        EXPECT_TRUE(writer.canServiceRequests()) << i << " queued";
        contents.append(testContent(i, 1000 + i));
        hashes.append(digestOf(contents.last()));
        writer.writeBlock(RvoDataBlockManager::PreloadPriority(priorities[i]), hashes.last(),
                          new RvoDataBlock(contents.last()), true);
        queued += contents.last().size();
        EXPECT_EQ(writer.bytesInQueue(), queued);
    }
    EXPECT_FALSE(writer.canServiceRequests());
    const QList<QPair<int, RvoDataHash *>> queue = writer.queuedRequests();
    ASSERT_EQ(queue.size(), 4);
    EXPECT_EQ(queue.at(0), qMakePair(0, hashes.at(1).data()));
    EXPECT_EQ(queue.at(1), qMakePair(1, hashes.at(3).data()));
    EXPECT_EQ(queue.at(2), qMakePair(2, hashes.at(0).data()));
    EXPECT_EQ(queue.at(3), qMakePair(2, hashes.at(2).data()));

    writer.start();
    writer.flush();
    EXPECT_EQ(writer.requests(), 0);
    EXPECT_EQ(writer.bytesInQueue(), 0);
    EXPECT_EQ(writer.requestsHandled(), 4);
    for (const QByteArray &content : contents)
        expectBlockFile(blockPath(root.path(), QString(), content), content);
    writer.closeDown();
    writer.wait();
}

TEST(RvoDataBlockManagerWriteThread, BlockAlreadyOnDiskIsNotQueued)
{
    QTemporaryDir root;
    Writer writer(root.path(), 10, 10, nullptr);
    bool keptDeleted = false;
    bool droppedDeleted = false;
    auto *kept = new TrackedBlock(testContent(1, 100), &keptDeleted);
    auto *dropped = new TrackedBlock(testContent(2, 100), &droppedDeleted);
    kept->markCached();
    dropped->markCached();
    writer.writeBlock(RvoDataBlockManager::PreloadNormal, digestOf(testContent(1, 100)), kept,
                      false);
    writer.writeBlock(RvoDataBlockManager::PreloadNormal, digestOf(testContent(2, 100)), dropped,
                      true);
    EXPECT_EQ(writer.requests(), 0);
    EXPECT_EQ(writer.bytesInQueue(), 0);
    EXPECT_FALSE(keptDeleted);
    EXPECT_TRUE(droppedDeleted) << "deleteAfterWrite deletes a cached block at once";
    delete kept;
}

TEST(RvoDataBlockManagerWriteThread, EachRootReceivesItsOwnBlockFiles)
{
    ManagerSetup setup(3, QStringLiteral("S"));
    QVector<QByteArray> contents;
    QVector<RvoDataBlock *> blocks;
    QVector<RvoSmartPointer<RvoDataHash>> hashes;
    for (int i = 0; i < 12; ++i) {
        contents.append(testContent(i, 20000));
        hashes.append(digestOf(contents.last()));
        blocks.append(new RvoDataBlock(contents.last()));
        Access::makeBlockLive(hashes.last().data(), blocks.last());
    }
    RvoDataBlockManager::instance().flush(false, RvoDataBlockManager::WriteThreads);
    qint64 written = 0;
    for (int i = 0; i < contents.size(); ++i) {
        const int root = Access::cacheIndex(hashes.at(i).data());
        ASSERT_GE(root, 0);
        for (int r = 0; r < 3; ++r) {
            const QString path = blockPath(setup.root(r), QStringLiteral("S"), contents.at(i));
            EXPECT_EQ(QFile::exists(path), r == root);
            if (r == root) {
                expectBlockFile(path, contents.at(i));
                written += QFileInfo(path).size() - 12;
                // Nothing but block files is left in the bucket directory.
                for (const QString &name : QDir(QFileInfo(path).path()).entryList(QDir::Files))
                    EXPECT_EQ(name.count(QLatin1Char('-')), 15) << qPrintable(name);
            }
        }
        EXPECT_TRUE(blocks.at(i)->cached());
        EXPECT_FALSE(blocks.at(i)->isCompressed()) << "the block in memory is not changed";
    }
    EXPECT_EQ(Access::writeThread(0)->bytesWritten() + Access::writeThread(1)->bytesWritten()
                      + Access::writeThread(2)->bytesWritten(),
              written);
}

TEST(RvoDataBlockManagerWriteThread, SecondWriteOfADigestLeavesTheFileAlone)
{
    QTemporaryDir root;
    Writer writer(root.path(), 10, 10, nullptr);
    writer.start();
    const QByteArray content = testContent(3, 5000);
    RvoSmartPointer<RvoDataHash> hash = digestOf(content);
    writer.writeBlock(RvoDataBlockManager::PreloadNormal, hash, new RvoDataBlock(content), true);
    writer.flush();
    const QString path = blockPath(root.path(), QString(), content);
    const QByteArray marked = readFile(path) + "marker";
    ASSERT_TRUE(writeFile(path, marked));

    auto *again = new RvoDataBlock(content);
    writer.writeBlock(RvoDataBlockManager::PreloadNormal, hash, again, false);
    writer.flush();
    EXPECT_EQ(readFile(path), marked);
    EXPECT_EQ(writer.requestsHandled(), 1);
    EXPECT_TRUE(again->cached()) << "the file that is there holds the same content";
    delete again;
    writer.closeDown();
    writer.wait();
}

TEST(RvoDataBlockManagerWriteThread, CompressedBlockIsWrittenAsItIs)
{
    QTemporaryDir root;
    Writer writer(root.path(), 10, 10, nullptr);
    writer.start();
    const QByteArray content = testContent(4, 70000);
    auto *block = new RvoDataBlock(content);
    block->compress(9);
    writer.writeBlock(RvoDataBlockManager::PreloadNormal, digestOf(content), block, true);
    writer.flush();
    const QByteArray file = readFile(blockPath(root.path(), QString(), content));
    EXPECT_EQ(file.mid(12), qCompress(content, 9));
    expectBlockFile(blockPath(root.path(), QString(), content), content);
    writer.closeDown();
    writer.wait();
}

// A root the file system refuses (a path through a file: ENOTDIR) until it is
// repaired. The saves are never marked saved nor their blocks let go of;
// they are retried after growing pauses (shortened here), and a flush tries
// each once and returns. One report opens the episode, one line closes it.
TEST(RvoDataBlockManagerWriteThread, RefusedSavesWaitAndAreRetriedUntilTheDiskTakesThem)
{
    QTemporaryDir dir;
    const QString root = dir.path() + QStringLiteral("/file/root");
    ASSERT_TRUE(writeFile(dir.path() + QStringLiteral("/file"), "x"));
    ManagerSetup setup; // a last digest release reaches the manager
    Writer writer(root, 10, 10, nullptr);
    writer.setRetryPauses(std::chrono::milliseconds(100), std::chrono::milliseconds(400));
    QVector<QByteArray> contents;
    QVector<RvoSmartPointer<RvoDataHash>> hashes;
    bool deleted[3] = {false, false, false};
    for (int i = 0; i < 3; ++i) {
        contents.append(testContent(20 + i, 3000));
        hashes.append(digestOf(contents.last()));
        writer.writeBlock(RvoDataBlockManager::PreloadNormal, hashes.last(),
                          new TrackedBlock(contents.last(), &deleted[i]), true);
    }
    auto *kept = new RvoDataBlock(contents.at(0)); // a live block, not owned by its save
    writer.writeBlock(RvoDataBlockManager::PreloadNormal, hashes.at(0), kept, false);
    StdoutCapture out;
    DebugCapture debug;
    QElapsedTimer timer;
    timer.start();
    writer.start();
    writer.flush();
    EXPECT_GE(writer.refusedAttempts(), 4);
    EXPECT_TRUE(writer.savesRefused());
    EXPECT_EQ(writer.requests(), 4);
    EXPECT_EQ(writer.bytesInQueue(), 4 * 3000) << "refused saves still count as queued";
    EXPECT_FALSE(kept->cached());
    EXPECT_FALSE(deleted[0] || deleted[1] || deleted[2]) << "no block is let go of unsaved";
    std::unique_ptr<RvoDataBlock> copy(writer.queuedCopy(hashes.at(1).data()));
    ASSERT_TRUE(copy);
    EXPECT_EQ(bytesOf(copy.get()), contents.at(1));

    // Pauses of 100, 200, 400, 400 ms: the fifth refusal of one save comes
    // after 1100 ms, not sooner. A block whose digest nobody else holds is
    // dropped meanwhile.
    hashes[2].reset();
    ASSERT_TRUE(waitUntil([&] { return writer.refusedAttempts() >= 5 * 3; }));
    EXPECT_GE(timer.elapsed(), 1100);
    EXPECT_TRUE(deleted[2]);
    EXPECT_EQ(writer.requests(), 3);
    EXPECT_EQ(writer.bytesInQueue(), 3 * 3000);

    ASSERT_TRUE(QFile::remove(dir.path() + QStringLiteral("/file")));
    writer.flush();
    EXPECT_EQ(writer.requests(), 0);
    EXPECT_FALSE(writer.savesRefused());
    EXPECT_TRUE(kept->cached());
    EXPECT_TRUE(deleted[0] && deleted[1]);
    for (int i = 0; i < 2; ++i)
        expectBlockFile(blockPath(root, QString(), contents.at(i)), contents.at(i));
    writer.closeDown();
    writer.wait();
    delete kept;

    EXPECT_EQ(out.lines(), QStringList {QStringLiteral("Cannot Open File ") + hashes.at(0)->toString()});
    const QStringList lines = debug.messages().filter(root);
    ASSERT_EQ(lines.size(), 2) << qPrintable(lines.join(QLatin1Char('\n')));
    EXPECT_EQ(lines.at(0),
              QStringLiteral("Cannot save blocks under %1: Not a directory (4 saves waiting)").arg(root));
    EXPECT_EQ(lines.at(1), QStringLiteral("Saving blocks under %1 again").arg(root));
}

TEST(RvoDataBlockManagerWriteThread, FlushWaitsForTheSaveInProgress)
{
    QTemporaryDir root;
    Writer writer(root.path(), 10, 10, nullptr);
    writer.start();
    for (int round = 0; round < 50; ++round) {
        const QByteArray content = testContent(round, 200000);
        writer.writeBlock(RvoDataBlockManager::PreloadNormal, digestOf(content),
                          new RvoDataBlock(content), true);
        writer.flush();
        ASSERT_TRUE(QFile::exists(blockPath(root.path(), QString(), content))) << round;
    }
    writer.closeDown();
    writer.wait();
}
