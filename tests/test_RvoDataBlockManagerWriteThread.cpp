#include "ManagerTestAccess.h"

#include <chrono>

using Access = RvoDataBlockManagerTestAccess;
using Writer = RvoDataBlockManagerWriteThread;
constexpr auto Normal = RvoDataBlockManager::PreloadNormal;

// One root's write thread, started by the tests that need it running.
class RvoWriteThread : public ::testing::Test
{
protected:
    QString pathOf(const RvoSmartPointer<RvoDataHash> &hash) const
    {
        return blockPath(root.path(), QString(), hash.data());
    }

    QTemporaryDir root;
    Writer writer {Access::manager(), root.path(), 10, 4, nullptr};
};

// A block marked cached is not queued (when its save owns it, it is deleted
// at once). A save of a digest whose file is there finds it, leaves it
// alone and marks the block saved.
TEST_F(RvoWriteThread, SavedBlockIsNotWrittenAgain)
{
    bool deleted[2] = {false, false};
    std::unique_ptr<TrackedBlock> kept(new TrackedBlock(testContent(0, 100), &deleted[0]));
    auto *owned = new TrackedBlock(testContent(1, 100), &deleted[1]);
    for (TrackedBlock *block : {kept.get(), owned}) {
        block->markCached();
        writer.writeBlock(Normal, digestOf(bytesOf(block)), block, block == owned);
    }
    EXPECT_EQ(writer.requests(), 0);
    EXPECT_TRUE(!deleted[0] && deleted[1]);

    const QByteArray content = testContent(3, 70000);
    const RvoSmartPointer<RvoDataHash> hash = digestOf(content);
    const QByteArray file = blockFile(content) + "marker";
    ASSERT_TRUE(writeFile(pathOf(hash), file));
    std::unique_ptr<RvoDataBlock> again(new RvoDataBlock(content));
    writer.writeBlock(Normal, hash, again.get(), false);
    writer.start();
    writer.flush();
    EXPECT_EQ(readFile(pathOf(hash)), file);
    EXPECT_EQ(writer.requestsHandled(), 0) << "a file found is no save";
    EXPECT_TRUE(again->cached());
}

// Ascending priorities, first come first served; the queue takes as many
// saves as its limit and counts their bytes, the thread those it wrote.
TEST_F(RvoWriteThread, QueueServesPrioritiesInOrder)
{
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
    const QList<QPair<int, RvoDataHash *>> expected {{0, hashes.at(1).data()},
                                                     {1, hashes.at(3).data()},
                                                     {2, hashes.at(0).data()},
                                                     {2, hashes.at(2).data()}};
    EXPECT_EQ(writer.queuedRequests(), expected);

    writer.start();
    writer.flush();
    EXPECT_TRUE(writer.requests() == 0 && writer.bytesInQueue() == 0);
    EXPECT_EQ(writer.requestsHandled(), 4);
    qint64 payloadBytes = 0;
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(blockIn(pathOf(hashes.at(i))), contents.at(i));
        payloadBytes += QFileInfo(pathOf(hashes.at(i))).size() - 12;
    }
    EXPECT_EQ(writer.bytesWritten(), payloadBytes) << "payloads counted, headers not";
}

TEST_F(RvoWriteThread, CompressedBlockGoesToItsFileAsItIs)
{
    const QByteArray content = testContent(3, 70000);
    auto *block = new RvoDataBlock(content);
    block->compress(9);
    writer.writeBlock(Normal, digestOf(content), block, true);
    writer.start();
    writer.flush();
    EXPECT_EQ(readFile(pathOf(digestOf(content))),
              blockFileBytes(content.size(), qCompress(content, 9)));
}

// A root the file system refuses (a path through a file: ENOTDIR) until it is
// repaired. The saves are never marked saved nor their blocks let go of;
// they are retried after growing pauses (shortened here), and a flush tries
// each once and returns. One report opens the episode, one line closes it.
TEST(RvoDataBlockManagerWriteThread, RefusedSavesWaitAndAreRetriedUntilTheDiskTakesThem)
{
    QTemporaryDir dir;
    const QString root = dir.path() + "/file/root";
    ASSERT_TRUE(writeFile(dir.path() + "/file", "x"));
    ManagerSetup setup; // a last digest release reaches the manager
    Writer writer(Access::manager(), root, 10, 10, nullptr);
    writer.setRetryPauses(std::chrono::milliseconds(100), std::chrono::milliseconds(400));
    QVector<QByteArray> contents;
    QVector<RvoSmartPointer<RvoDataHash>> hashes;
    bool deleted[3] = {false, false, false};
    for (int i = 0; i < 3; ++i) {
        contents.append(testContent(20 + i, 3000));
        hashes.append(digestOf(contents.last()));
        writer.writeBlock(Normal, hashes.last(), new TrackedBlock(contents.last(), &deleted[i]),
                          true);
    }
    // Live, not owned by its save.
    std::unique_ptr<RvoDataBlock> kept(new RvoDataBlock(contents.at(0)));
    writer.writeBlock(Normal, hashes.at(0), kept.get(), false);
    StdoutCapture out;
    DebugCapture debug;
    QElapsedTimer timer;
    timer.start();
    writer.start();
    writer.flush();
    EXPECT_GE(writer.refusedAttempts(), 4);
    EXPECT_TRUE(writer.savesRefused());
    EXPECT_EQ(writer.bytesInQueue(), 4 * 3000) << "refused saves still count as queued";
    EXPECT_FALSE(kept->cached());
    EXPECT_FALSE(deleted[0] || deleted[1] || deleted[2]) << "a block is let go of unsaved";
    std::unique_ptr<RvoDataBlock> copy(writer.queuedCopy(hashes.at(1).data()));
    ASSERT_TRUE(copy);
    EXPECT_EQ(bytesOf(copy.get()), contents.at(1));

    // Pauses of 100, 200, 400, 400 ms: the four saves' fifth refusals come
    // after 1100 ms, and before then there are at most 16 refusals, however
    // late the save whose digest nobody else holds is dropped meanwhile.
    hashes[2].reset();
    ASSERT_TRUE(waitUntil([&] { return writer.refusedAttempts() >= 5 * 4; }));
    EXPECT_GE(timer.elapsed(), 1100);
    EXPECT_TRUE(deleted[2]);
    writer.flush(); // no save in flight: every one counted in the queue
    EXPECT_EQ(writer.bytesInQueue(), 3 * 3000);

    ASSERT_TRUE(QFile::remove(dir.path() + "/file"));
    writer.flush();
    EXPECT_EQ(writer.requests(), 0);
    EXPECT_TRUE(kept->cached() && !kept->isCompressed() && deleted[0] && deleted[1]);
    for (int i = 0; i < 2; ++i)
        EXPECT_EQ(blockIn(blockPath(root, QString(), hashes.at(i).data())), contents.at(i));
    writer.closeDown();
    writer.wait();
    EXPECT_EQ(out.lines(), QStringList {"Cannot Open File " + hashes.at(0)->toString()});
    EXPECT_EQ(
            debug.messages().filter(root),
            QStringList({"Cannot save blocks under " + root + ": Not a directory (4 saves waiting)",
                         "Saving blocks under " + root + " again"}));
}
