#include "ManagerTestAccess.h"
#include "OutputCapture.h"
#include "RvoDiskLayout_p.h"
#include "RvoHashManager.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <cstring>

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
    ASSERT_GE(file.size(), 12) << qPrintable(path);
    qint64 size = 0;
    qint32 blockSize = 0;
    std::memcpy(&size, file.constData(), 8);
    std::memcpy(&blockSize, file.constData() + 8, 4);
    EXPECT_EQ(size, content.size());
    EXPECT_EQ(file.size(), 12 + blockSize);
    EXPECT_EQ(qUncompress(file.mid(12)), content);
}

} // namespace

TEST(RvoDataBlockManagerWriteThread, QueueServesAscendingPrioritiesFirstComeFirstServed)
{
    QTemporaryDir root;
    Writer writer(root.path(), 10, 10, nullptr);
    QVector<RvoSmartPointer<RvoDataHash>> hashes;
    QVector<QByteArray> contents;
    const int priorities[] = {2, 0, 2, 1};
    for (int i = 0; i < 4; ++i) {
        contents.append(testContent(i, 1000));
        hashes.append(digestOf(contents.last()));
        writer.writeBlock(RvoDataBlockManager::PreloadPriority(priorities[i]), hashes.last(),
                          new RvoDataBlock(contents.last()), true);
    }
    const QList<QPair<int, RvoDataHash *>> queue = writer.queuedRequests();
    ASSERT_EQ(queue.size(), 4);
    EXPECT_EQ(queue.at(0), qMakePair(0, hashes.at(1).data()));
    EXPECT_EQ(queue.at(1), qMakePair(1, hashes.at(3).data()));
    EXPECT_EQ(queue.at(2), qMakePair(2, hashes.at(0).data()));
    EXPECT_EQ(queue.at(3), qMakePair(2, hashes.at(2).data()));

    writer.start();
    writer.flush();
    EXPECT_EQ(writer.requests(), 0);
    EXPECT_EQ(writer.requestsHandled(), 4);
    for (const QByteArray &content : contents)
        expectBlockFile(blockPath(root.path(), QString(), content), content);
    writer.closeDown();
    writer.wait();
}

TEST(RvoDataBlockManagerWriteThread, QueuedBytesAndCapacityFollowTheQueue)
{
    QTemporaryDir root;
    Writer writer(root.path(), 10, 10, nullptr);
    qint64 queued = 0;
    for (int i = 0; i < 10; ++i) {
        EXPECT_TRUE(writer.canServiceRequests()) << i << " queued";
        const QByteArray content = testContent(i, 100 + i);
        writer.writeBlock(RvoDataBlockManager::PreloadNormal, digestOf(content),
                          new RvoDataBlock(content), true);
        queued += content.size();
        EXPECT_EQ(writer.bytesInQueue(), queued);
    }
    EXPECT_FALSE(writer.canServiceRequests());
    EXPECT_EQ(writer.requests(), 10);
    writer.start();
    writer.flush();
    EXPECT_EQ(writer.bytesInQueue(), 0);
    EXPECT_TRUE(writer.canServiceRequests());
    EXPECT_GT(writer.bytesWritten(), 0);
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

TEST(RvoDataBlockManagerWriteThread, BlockFileHoldsSizeLengthAndPayloadInItsBucket)
{
    for (const QString &subCache : {QStringLiteral("SubCache"), QString()}) {
        ManagerSetup setup(1, subCache);
        const QByteArray content = testContent(7, 300000);
        RvoSmartPointer<RvoDataHash> hash = digestOf(content);
        auto *block = new RvoDataBlock(content);
        Access::makeBlockLive(hash.data(), block);
        RvoDataBlockManager::instance().flush(false, RvoDataBlockManager::WriteThreads);

        const QString path = blockPath(setup.root(), subCache, content);
        expectBlockFile(path, content);
        EXPECT_TRUE(block->cached());
        EXPECT_FALSE(block->isCompressed()) << "the block in memory is not changed";
        // Nothing but the block file is left in the bucket directory.
        EXPECT_EQ(QDir(QFileInfo(path).absolutePath()).entryList(QDir::Files),
                  QStringList {QFileInfo(path).fileName()});
        EXPECT_EQ(Access::writeThread(0)->bytesWritten(), QFileInfo(path).size() - 12);
    }
}

TEST(RvoDataBlockManagerWriteThread, EachRootReceivesItsOwnDigests)
{
    ManagerSetup setup(3, QStringLiteral("S"));
    QVector<QByteArray> contents;
    QVector<RvoSmartPointer<RvoDataHash>> hashes;
    for (int i = 0; i < 12; ++i) {
        contents.append(testContent(i, 2000));
        hashes.append(digestOf(contents.last()));
        Access::makeBlockLive(hashes.last().data(), new RvoDataBlock(contents.last()));
    }
    RvoDataBlockManager::instance().flush(false, RvoDataBlockManager::WriteThreads);
    for (int i = 0; i < contents.size(); ++i) {
        const int root = Access::cacheIndex(hashes.at(i).data());
        ASSERT_GE(root, 0);
        for (int r = 0; r < 3; ++r) {
            EXPECT_EQ(QFile::exists(blockPath(setup.root(r), QStringLiteral("S"), contents.at(i))),
                      r == root);
        }
    }
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

TEST(RvoDataBlockManagerWriteThread, UnwritableRootIsReportedAndTheBlockStaysUnsaved)
{
    QTemporaryDir dir;
    ASSERT_TRUE(writeFile(dir.path() + QStringLiteral("/file"), "x"));
    Writer writer(dir.path() + QStringLiteral("/file/root"), 10, 10, nullptr);
    writer.start();
    const QByteArray content = testContent(5, 100);
    RvoSmartPointer<RvoDataHash> hash = digestOf(content);
    auto *block = new RvoDataBlock(content);
    StdoutCapture out;
    writer.writeBlock(RvoDataBlockManager::PreloadNormal, hash, block, false);
    writer.flush();
    EXPECT_EQ(out.lines(), QStringList {QStringLiteral("Cannot Open File ") + hash->toString()});
    EXPECT_FALSE(block->cached()) << "a block that is not on disk must not pass for one";
    EXPECT_EQ(writer.requestsHandled(), 0);
    delete block;
    writer.closeDown();
    writer.wait();
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
