#include "ChildProcess.h"
#include "ManagerTestAccess.h"

#include <QMutex>
#include <QRandomGenerator>
#include <QStandardPaths>

#include <unistd.h>

using Access = RvoDataBlockManagerTestAccess;

namespace {

// Bytes that do not compress, so that a block takes its size on disk.
QByteArray noise(int seed, int size)
{
    QByteArray bytes(size, Qt::Uninitialized);
    QRandomGenerator(quint32(seed)).fillRange(reinterpret_cast<quint32 *>(bytes.data()), size / 4);
    return bytes;
}

// Runs a program to its end, with a plain fork and exec (see ChildProcess);
// true when it exits with 0.
bool run(const QString &program, const QStringList &arguments)
{
    ChildProcess child;
    return child.start(QStandardPaths::findExecutable(program), arguments, {})
            && child.waitForFinished(60000) && child.exitCode() == 0;
}

bool mountTmpfs(const QString &options, const QString &path)
{
    return run("mount", {"-t", "tmpfs", "-o", options, "rvoddi-full", path});
}

} // namespace

// A cache root on a 1 MiB tmpfs, filled after the first blocks are saved.
// The producer is held back, every block reads back byte-exact while the
// disk is full (evicted blocks whose saves were refused included), a flush
// returns, and once the file system is enlarged every block reaches the disk
// complete.
TEST(RvoDataBlockManagerFullDisk, NothingIsLostWhileTheDiskIsFull)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "mounting a tmpfs needs root";
    QTemporaryDir dir;
    const QString root = dir.filePath("root");
    ASSERT_TRUE(QDir().mkpath(root));
    if (!mountTmpfs("size=1m", root))
        GTEST_SKIP() << "mount -t tmpfs failed (no CAP_SYS_ADMIN here?)";
    struct Unmount
    {
        QString path;
        ~Unmount() { run("umount", {"-l", path}); }
    } unmount {root};

    constexpr int kBlock = 16 * 1024;
    manager().setup({root}, 32 * kBlock, 10); // a write backlog of 8 blocks holds producers
    DebugCapture debug;
    StdoutCapture out;
    QMutex lock; // guards refs and contents, filled by the producer
    QVector<RvoDataReference> refs;
    QVector<QByteArray> contents;
    auto add = [&](int i) {
        const QByteArray content = noise(i, kBlock);
        const RvoDataReference ref
                = manager().addBlock(content, RvoModifyAccessor::CacheContent, true);
        QMutexLocker locker(&lock);
        refs.append(ref);
        contents.append(content);
    };
    auto readAll = [&] {
        QMutexLocker locker(&lock);
        for (int i = 0; i < refs.size(); ++i)
            ASSERT_EQ(bytesOf(refs.at(i)), contents.at(i)) << "block " << i;
    };
    for (int i = 0; i < 8; ++i)
        add(i);
    manager().flush(false, RvoDataBlockManager::WriteThreads);
    // The rest of the file system is filled to its last page, so that no
    // save fits until it grows.
    QFile filler(root + "/filler");
    ASSERT_TRUE(filler.open(QIODevice::WriteOnly | QIODevice::Unbuffered));
    const QByteArray page(4096, 'f');
    while (filler.write(page) == page.size()) { }
    filler.close();

    constexpr int kProduced = 40;
    std::atomic<int> produced {0};
    std::thread producer([&] {
        for (int i = 8; i < kProduced; ++i) {
            add(i);
            produced.store(i + 1);
            manager().processIO();
        }
    });
    RvoDataBlockManagerWriteThread *writer = Access::writeThread(0);
    EXPECT_TRUE(waitUntil([&] { return writer->savesRefused() && manager().isWriteThreadsFull(); },
                          60000));
    const int held = produced.load();
    // processIO sleeps a second at a time: two of them pass with no progress.
    EXPECT_FALSE(waitUntil([&] { return produced.load() > held + 1; }, 2500))
            << "the producer is not held back";
    // A host that ignores back-pressure: 40 more blocks evict most of those
    // whose saves were refused.
    for (int i = 100; i < 140; ++i)
        add(i);
    readAll();
    manager().flush(true, RvoDataBlockManager::AllThreads); // returns on a full disk
    EXPECT_TRUE(writer->savesRefused());
    readAll();

    ASSERT_TRUE(mountTmpfs("remount,size=64m", root));
    // Retries the refused saves now rather than after their pauses.
    manager().flush(false, RvoDataBlockManager::WriteThreads);
    ASSERT_TRUE(waitUntil([&] { return produced.load() == kProduced; }, 60000));
    producer.join();
    manager().flush(true, RvoDataBlockManager::AllThreads);
    EXPECT_FALSE(writer->savesRefused());
    EXPECT_EQ(writer->requests(), 0);
    readAll();

    // Every block has its file: every file is sound (holds the content its
    // name says), and there are as many as distinct contents.
    const DiskState disk = checkDisk({root});
    EXPECT_EQ(disk.corrupt, QStringList());
    EXPECT_EQ(disk.blockFiles, contents.size());
    manager().cleanUp();

    const QStringList lines = debug.messages();
    EXPECT_EQ(lines.filter(QString("Cannot save blocks under %1: No space left on device (")
                                   .arg(root))
                      .size(),
              1)
            << qPrintable(lines.join('\n'));
    const QStringList printed = out.lines();
    EXPECT_EQ(printed.filter("Cannot ").size(), 1) << qPrintable(printed.join('\n'));
}
