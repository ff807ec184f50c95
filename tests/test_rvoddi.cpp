// The rvoddi command, run as a program on caches that the library made.

#include "RvoConstAccessor.h"
#include "RvoDataBlockManager.h"
#include "RvoDataHash.h"
#include "RvoDataReference.h"
#include "RvoDiskLayout_p.h"
#include "RvoHashManager.h"
#include "RvoSubCacheLock_p.h"

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <chrono>
#include <ctime>
#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

struct Outcome
{
    int status = -1;
    QString out;
    QString err;
};

Outcome rvoddi(const QStringList &arguments)
{
    QProcess process;
    process.start(QStringLiteral(RVODDI_TOOL), arguments);
    Outcome run;
    if (!process.waitForFinished(120000) || process.exitStatus() != QProcess::NormalExit)
        return run;
    run.status = process.exitCode();
    run.out = QString::fromLocal8Bit(process.readAllStandardOutput());
    run.err = QString::fromLocal8Bit(process.readAllStandardError());
    return run;
}

QJsonObject json(const Outcome &run)
{
    return QJsonDocument::fromJson(run.out.toUtf8()).object();
}

// Compressible, and different for every seed.
QByteArray content(int seed, int size = 100000)
{
    QByteArray bytes;
    while (bytes.size() < size)
        bytes += QByteArray::number(seed) + " tile row " + QByteArray::number(bytes.size() / 64);
    bytes.truncate(size);
    return bytes;
}

// Stores blocks through the block manager, one sub-cache after another, and
// returns the paths of their block files. The manager stays set up, with the
// last sub-cache current (held), until cleanUp().
QStringList storeBlocks(const QString &root, const QStringList &subCaches, int perSubCache)
{
    RvoDataBlockManager &manager = RvoDataBlockManager::instance();
    if (manager.cacheRoots().isEmpty())
        manager.setup({root}, qint64(256) << 20, 10);
    QStringList paths;
    int seed = 0;
    for (const QString &subCache : subCaches) {
        manager.setSubCache(subCache);
        QVector<RvoDataReference> references;
        for (int i = 0; i < perSubCache; ++i)
            references.append(
                    manager.addBlock(content(++seed), RvoModifyAccessor::CacheContent, true));
        manager.flush(true, RvoDataBlockManager::AllThreads);
        for (const RvoDataReference &reference : references)
            paths.append(QDir::cleanPath(manager.getBlockDestination(subCache, reference.hash())));
    }
    return paths;
}

bool setAge(const QString &path, qint64 seconds)
{
    struct timespec times[2];
    clock_gettime(CLOCK_REALTIME, &times[0]);
    times[0].tv_sec -= seconds;
    times[1] = times[0];
    return utimensat(AT_FDCWD, QFile::encodeName(path).constData(), times, 0) == 0;
}

QByteArray readFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

bool writeFile(const QString &path, const QByteArray &bytes)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size();
}

} // namespace

TEST(rvoddi, VerifyListsEachBadFileWithItsReasonAndDeleteRemovesThem)
{
    QTemporaryDir dir;
    const QString root = dir.path();
    QStringList paths = storeBlocks(root, {QStringLiteral("a")}, 6);
    RvoDataBlockManager::instance().cleanUp();
    ASSERT_EQ(paths.size(), 6);
    std::sort(paths.begin(), paths.end());
    const Outcome sound = rvoddi({QStringLiteral("verify"), root});
    EXPECT_EQ(sound.status, 0) << sound.err.toStdString();
    EXPECT_EQ(sound.err, QString()) << "no progress line when standard error is not a terminal";
    EXPECT_TRUE(sound.out.startsWith(QStringLiteral("6 block files checked")))
            << sound.out.toStdString();

    // One file per fault: cut short by a byte, a payload byte changed,
    // another block's file under this name, and a file shorter than a header.
    QByteArray bytes = readFile(paths[0]);
    ASSERT_TRUE(writeFile(paths[0], bytes.left(bytes.size() - 1)));
    bytes = readFile(paths[1]);
    bytes[bytes.size() / 2] = char(bytes[bytes.size() / 2] ^ 0x5a);
    ASSERT_TRUE(writeFile(paths[1], bytes));
    ASSERT_TRUE(writeFile(paths[2], readFile(paths[3])));
    ASSERT_TRUE(writeFile(paths[4], QByteArray("12345")));

    const QString expected = paths[0]
            + QStringLiteral(": lengths: its header does not agree with its length\n") + paths[1]
            + QStringLiteral(": payload: its payload does not decode to the header's size\n")
            + paths[2] + QStringLiteral(": digest: its bytes do not hash to its name\n") + paths[4]
            + QStringLiteral(": short: shorter than its 12-byte header\n");
    const Outcome bad = rvoddi(
            {QStringLiteral("verify"), QStringLiteral("--jobs"), QStringLiteral("2"), root});
    EXPECT_EQ(bad.status, 1);
    EXPECT_TRUE(bad.out.startsWith(expected)) << bad.out.toStdString();
    EXPECT_TRUE(bad.out.endsWith(QStringLiteral(": 4 bad\n"))) << bad.out.toStdString();

    const Outcome report = rvoddi({QStringLiteral("verify"), QStringLiteral("--json"), root});
    EXPECT_EQ(report.status, 1);
    const QJsonObject document = json(report);
    EXPECT_EQ(document.value(QStringLiteral("checked")).toInt(), 6);
    const QJsonArray list = document.value(QStringLiteral("bad")).toArray();
    ASSERT_EQ(list.size(), 4);
    EXPECT_EQ(list[1].toObject().value(QStringLiteral("path")).toString(), paths[1]);
    EXPECT_EQ(list[1].toObject().value(QStringLiteral("fault")).toString(),
              QStringLiteral("payload"));
    EXPECT_FALSE(list[1].toObject().value(QStringLiteral("deleted")).toBool());

    const Outcome deleted = rvoddi({QStringLiteral("verify"), QStringLiteral("--delete"), root});
    EXPECT_EQ(deleted.status, 1) << "bad files were found";
    EXPECT_TRUE(deleted.out.contains(
            paths[4] + QStringLiteral(": short: shorter than its 12-byte header (deleted)\n")));
    for (int i = 0; i < paths.size(); ++i)
        EXPECT_EQ(QFile::exists(paths[i]), i == 3 || i == 5) << i;
    EXPECT_EQ(rvoddi({QStringLiteral("verify"), root}).status, 0);
}

TEST(rvoddi, TrimDeletesTheLeastRecentlyUsedAndSkipsHeldSubCaches)
{
    QTemporaryDir dir;
    const QString root = dir.path();
    // "old" and "new" are left alone; "live" stays current in this process.
    const QStringList paths = storeBlocks(
            root, {QStringLiteral("old"), QStringLiteral("new"), QStringLiteral("live")}, 4);
    ASSERT_EQ(paths.size(), 12);
    for (int i = 0; i < paths.size(); ++i)
        ASSERT_TRUE(setAge(paths[i], 86400 * (20 - i))); // the first file is the oldest
    const QString bucket = QFileInfo(paths[0]).path();
    const QString staleTemporary = bucket + QStringLiteral("/write-1-2-3.tmp");
    const QString freshTemporary = bucket + QStringLiteral("/write-4-5-6.tmp");
    ASSERT_TRUE(writeFile(staleTemporary, "x") && setAge(staleTemporary, 7200));
    ASSERT_TRUE(writeFile(freshTemporary, "x"));

    // Room for all but the 6 oldest files (4 in "old", 2 in "new").
    qint64 limit = 0;
    for (int i = 6; i < paths.size(); ++i)
        limit += QFileInfo(paths[i]).size();
    const Outcome bySize = rvoddi(
            {QStringLiteral("trim"), root, QStringLiteral("--max-size"), QString::number(limit)});
    EXPECT_EQ(bySize.status, 0) << bySize.err.toStdString();
    EXPECT_TRUE(
            bySize.out.startsWith(QStringLiteral("skipped %1/live: held by a process\n").arg(root)))
            << bySize.out.toStdString();
    EXPECT_TRUE(bySize.out.contains(QStringLiteral("deleted 6 block files")))
            << bySize.out.toStdString();
    for (int i = 0; i < paths.size(); ++i)
        EXPECT_EQ(QFile::exists(paths[i]), i >= 6) << i;
    EXPECT_FALSE(QFile::exists(staleTemporary));
    EXPECT_TRUE(QFile::exists(freshTemporary));

    // By age: of "new", 6 is 14 days old and 7 is 13; "live" is held.
    const Outcome byAge = rvoddi({QStringLiteral("trim"), root, QStringLiteral("--older-than"),
                                  QStringLiteral("330h"), QStringLiteral("-q")});
    EXPECT_EQ(byAge.status, 0);
    for (int i = 6; i < paths.size(); ++i)
        EXPECT_EQ(QFile::exists(paths[i]), i >= 7) << i;

    // --force reaches the held sub-cache too.
    const Outcome forced = rvoddi({QStringLiteral("trim"), root, QStringLiteral("--max-size"),
                                   QStringLiteral("0"), QStringLiteral("--force")});
    EXPECT_EQ(forced.status, 0);
    EXPECT_FALSE(forced.out.contains(QStringLiteral("skipped")));
    for (const QString &path : paths)
        EXPECT_FALSE(QFile::exists(path));
    RvoDataBlockManager::instance().cleanUp();
}

TEST(rvoddi, PutAndGetRoundTripThroughTheLibrary)
{
    QTemporaryDir dir;
    const QString root = dir.filePath(QStringLiteral("cache"));
    const QString input = dir.filePath(QStringLiteral("tile.bin"));
    const QByteArray bytes = content(7, 300000);
    ASSERT_TRUE(writeFile(input, bytes));
    const QString digest = RvoDataHash(bytes, RvoDataHash::Skein512).toString();

    const Outcome put = rvoddi({QStringLiteral("put"), root, input, QStringLiteral("--sub-cache"),
                                QStringLiteral("s")});
    EXPECT_EQ(put.status, 0) << put.err.toStdString();
    EXPECT_EQ(put.out, digest + QStringLiteral("  ") + input + QLatin1Char('\n'));
    EXPECT_EQ(rvoddi({QStringLiteral("digest"), input}).out, put.out);

    // The library finds the block where a host set up the same way looks.
    RvoDataBlockManager &manager = RvoDataBlockManager::instance();
    manager.setup({root}, qint64(256) << 20, 10);
    manager.setSubCache(QStringLiteral("s"));
    {
        const RvoDataReference reference(RvoHashManager::instance().getHash(digest));
        const RvoConstAccessor read = reference.constAccessor();
        ASSERT_FALSE(read.isNull());
        EXPECT_EQ(QByteArray(reinterpret_cast<const char *>(read.data()), int(read.size())), bytes);
    }
    // And the other way: a block the library stored comes out byte-exact.
    const QByteArray stored = content(8);
    const QString storedDigest = RvoDataHash(stored, RvoDataHash::Skein512).toString();
    {
        const RvoDataReference reference
                = manager.addBlock(stored, RvoModifyAccessor::CacheContent, true);
        manager.flush(true, RvoDataBlockManager::AllThreads);
    }
    manager.cleanUp();
    const QString output = dir.filePath(QStringLiteral("out.bin"));
    const Outcome get
            = rvoddi({QStringLiteral("get"), root, storedDigest, QStringLiteral("-o"), output});
    EXPECT_EQ(get.status, 0) << get.err.toStdString();
    EXPECT_EQ(readFile(output), stored);
    EXPECT_EQ(rvoddi({QStringLiteral("get"), root, digest}).out.toLatin1(), bytes);

    const Outcome missing = rvoddi({QStringLiteral("get"), root,
                                    RvoDataHash(content(9), RvoDataHash::Skein512).toString()});
    EXPECT_EQ(missing.status, 1);
    EXPECT_TRUE(missing.err.startsWith(QStringLiteral("rvoddi get: no block ")))
            << missing.err.toStdString();
    const Outcome unwritable = rvoddi({QStringLiteral("get"), root, digest, QStringLiteral("-o"),
                                       dir.filePath(QStringLiteral("no/such/dir/f"))});
    EXPECT_EQ(unwritable.status, 1);
    EXPECT_TRUE(unwritable.err.contains(dir.filePath(QStringLiteral("no/such/dir/f"))))
            << unwritable.err.toStdString();
    const Outcome unreadable
            = rvoddi({QStringLiteral("put"), root, dir.filePath(QStringLiteral("absent"))});
    EXPECT_EQ(unreadable.status, 1);
    EXPECT_EQ(unreadable.err,
              QStringLiteral("rvoddi put: cannot open %1: No such file or directory\n")
                      .arg(dir.filePath(QStringLiteral("absent"))));
    // A root that is a file: the system's reason for the store that failed.
    const Outcome refused = rvoddi({QStringLiteral("put"), input, input});
    EXPECT_EQ(refused.status, 1);
    EXPECT_TRUE(
            refused.err.startsWith(QStringLiteral("rvoddi put: cannot store %1 in %1/").arg(input)))
            << refused.err.toStdString();
    EXPECT_TRUE(refused.err.endsWith(QStringLiteral(": Not a directory\n")))
            << refused.err.toStdString();
}

TEST(rvoddi, LsAndStatsDescribeSubCachesAndStrayFiles)
{
    QTemporaryDir dir;
    const QString root = dir.path();
    const QStringList paths
            = storeBlocks(root, {QStringLiteral("idle"), QStringLiteral("busy")}, 3);
    ASSERT_EQ(paths.size(), 6);
    const QString stray = QFileInfo(paths[0]).path() + QStringLiteral("/notes.txt");
    ASSERT_TRUE(writeFile(stray, "x"));
    qint64 idleBytes = 0;
    for (int i = 0; i < 3; ++i)
        idleBytes += QFileInfo(paths[i]).size();

    const Outcome ls = rvoddi({QStringLiteral("ls"), QStringLiteral("--json"), root});
    EXPECT_EQ(ls.status, 0) << ls.err.toStdString();
    // The unnamed sub-cache, current before the first setSubCache(), is
    // listed too, without files.
    const QJsonArray subCaches = json(ls).value(QStringLiteral("roots"))
                                         .toArray()
                                         .at(0)
                                         .toObject()
                                         .value(QStringLiteral("subCaches"))
                                         .toArray();
    ASSERT_EQ(subCaches.size(), 3);
    EXPECT_EQ(subCaches[0].toObject().value(QStringLiteral("blockFiles")).toInt(), 0);
    const QJsonObject busy = subCaches[1].toObject();
    const QJsonObject idle = subCaches[2].toObject();
    EXPECT_EQ(busy.value(QStringLiteral("name")).toString(), QStringLiteral("busy"));
    EXPECT_TRUE(busy.value(QStringLiteral("held")).toBool()) << "current in this process";
    EXPECT_FALSE(idle.value(QStringLiteral("held")).toBool());
    EXPECT_EQ(idle.value(QStringLiteral("blockFiles")).toInt(), 3);
    EXPECT_EQ(qint64(idle.value(QStringLiteral("bytes")).toDouble()), idleBytes);
    EXPECT_EQ(idle.value(QStringLiteral("uncompressedBytes")).toInt(), 300000);

    const Outcome text = rvoddi({QStringLiteral("ls"), root});
    const QStringList lines = text.out.split(QLatin1Char('\n'));
    ASSERT_GE(lines.size(), 5) << text.out.toStdString();
    EXPECT_EQ(lines[0], root + QLatin1Char(':'));
    EXPECT_TRUE(lines[3].startsWith(QStringLiteral("  busy "))) << lines[3].toStdString();
    EXPECT_TRUE(lines[3].endsWith(QStringLiteral(" yes")));
    EXPECT_TRUE(lines[4].contains(QStringLiteral(" 293.0 KiB "))
                && lines[4].endsWith(QStringLiteral(" no")))
            << lines[4].toStdString();

    // A header that lies about its length is counted, not summed.
    QFile::resize(paths[5], QFileInfo(paths[5]).size() + 1);
    const Outcome stats = rvoddi({QStringLiteral("stats"), QStringLiteral("--json"), root});
    EXPECT_EQ(stats.status, 0);
    const QJsonObject totals = json(stats);
    EXPECT_EQ(totals.value(QStringLiteral("blockFiles")).toInt(), 6);
    EXPECT_EQ(totals.value(QStringLiteral("badHeaders")).toInt(), 1);
    EXPECT_EQ(totals.value(QStringLiteral("uncompressedBytes")).toInt(), 500000);
    EXPECT_EQ(totals.value(QStringLiteral("blockSizes"))
                      .toArray()
                      .at(2)
                      .toObject()
                      .value(QStringLiteral("files"))
                      .toInt(),
              5)
            << "100,000 bytes: below 256 KiB";
    EXPECT_EQ(totals.value(QStringLiteral("lastUse"))
                      .toArray()
                      .at(0)
                      .toObject()
                      .value(QStringLiteral("files"))
                      .toInt(),
              6);
    EXPECT_EQ(totals.value(QStringLiteral("otherFiles"))
                      .toArray()
                      .at(0)
                      .toObject()
                      .value(QStringLiteral("path"))
                      .toString(),
              stray);
    const Outcome one = rvoddi(
            {QStringLiteral("stats"), root, QStringLiteral("--sub-cache"), QStringLiteral("idle")});
    EXPECT_TRUE(one.out.startsWith(QStringLiteral("block files      3 in 1 sub-cache\n")))
            << one.out.toStdString();
    RvoDataBlockManager::instance().cleanUp();
}

TEST(rvoddi, UsageErrorsExitWithTwoAndFailuresNameThePath)
{
    QTemporaryDir dir;
    for (const QStringList &arguments :
         {QStringList {},
          {QStringLiteral("frobnicate")},
          {QStringLiteral("ls")},
          {QStringLiteral("ls"), QStringLiteral("--bogus"), dir.path()},
          {QStringLiteral("trim"), dir.path()},
          {QStringLiteral("trim"), dir.path(), QStringLiteral("--max-size"), QStringLiteral("12X")},
          {QStringLiteral("trim"), dir.path(), QStringLiteral("--older-than"), QStringLiteral("3")},
          {QStringLiteral("verify"), dir.path(), QStringLiteral("--jobs"), QStringLiteral("0")},
          {QStringLiteral("get"), dir.path(), QStringLiteral("1-2-3")}}) {
        const Outcome run = rvoddi(arguments);
        EXPECT_EQ(run.status, 2) << arguments.join(QLatin1Char(' ')).toStdString();
        EXPECT_EQ(run.out, QString());
        EXPECT_FALSE(run.err.isEmpty());
    }
    const Outcome help = rvoddi({QStringLiteral("help"), QStringLiteral("verify")});
    EXPECT_EQ(help.status, 0);
    EXPECT_TRUE(help.out.startsWith(QStringLiteral("Usage: rvoddi verify [options] ROOT...\n")));
    EXPECT_TRUE(help.out.contains(QStringLiteral("--jobs <N>")));

    const QString missing = dir.filePath(QStringLiteral("missing"));
    const Outcome run = rvoddi({QStringLiteral("verify"), missing});
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.err,
              QStringLiteral("rvoddi verify: cannot read %1: No such file or directory\n")
                      .arg(missing));
}

TEST(rvoddi, ProgressLineIsDrawnOnATerminal)
{
    QTemporaryDir dir;
    storeBlocks(dir.path(), {QStringLiteral("s")}, 3);
    RvoDataBlockManager::instance().cleanUp();

    int terminal = -1;
    const QByteArray root = QFile::encodeName(dir.path());
    const pid_t child = forkpty(&terminal, nullptr, nullptr, nullptr);
    ASSERT_GE(child, 0);
    if (child == 0) {
        // Only the progress line goes to the terminal.
        const int null = open("/dev/null", O_WRONLY);
        dup2(null, STDOUT_FILENO);
        execl(RVODDI_TOOL, "rvoddi", "verify", root.constData(), static_cast<char *>(nullptr));
        _exit(127);
    }
    QByteArray seen;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (std::chrono::steady_clock::now() < deadline) {
        pollfd ready {terminal, POLLIN, 0};
        if (poll(&ready, 1, 1000) <= 0)
            continue;
        char buffer[4096];
        const ssize_t n = read(terminal, buffer, sizeof buffer);
        if (n <= 0)
            break; // the program has ended and closed the terminal
        seen.append(buffer, int(n));
    }
    int status = -1;
    waitpid(child, &status, 0);
    close(terminal);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    // The terminal turns "\n" into "\r\n".
    EXPECT_TRUE(QString::fromLocal8Bit(seen).contains(
            QRegularExpression(QStringLiteral("Verifying block files: 100% \\(3/3\\), [0-9.]+ KiB"
                                              "( \\| [0-9.]+ [KMG]?i?B/s)?, done\\.\\s*\\r\\n"),
                               QRegularExpression::MultilineOption)))
            << seen.constData();
}
