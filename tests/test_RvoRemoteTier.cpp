#include "ChildProcess.h"
#include "LocalNginx.h"
#include "LocalRedis.h"
#include "ManagerTestAccess.h"
#include "OutputCapture.h"
#include "RvoBlockCodec_p.h"
#include "RvoBlockFile_p.h"
#include "RvoHashManager.h"
#include "RvoRemoteServer_p.h"
#include "RvoRemote_p.h"

#include <QElapsedTimer>
#include <QFile>
#include <QRegularExpression>

#include <gtest/gtest.h>

#include <memory>
#include <vector>

using Manager = RvoDataBlockManager;

namespace {

#define START_OR_SKIP(server)                                                                      \
    if (!(server).isInstalled())                                                                   \
        GTEST_SKIP() << (server).notInstalled().toStdString();                                     \
    ASSERT_TRUE((server).start()) << (server).error().toStdString()

struct Written
{
    int seed;
    int size;
    QString name;
};

// Another machine: a process with a root of its own adds `count` blocks with
// the remote tier `spec` (given through the environment) and flushes.
std::vector<Written> writeInAnotherProcess(const QString &spec, int count)
{
    QTemporaryDir dir;
    const QString side = dir.filePath(QStringLiteral("written.txt"));
    ChildProcess child;
    ChildProcess::Options options;
    options.environment = QStringList {QStringLiteral("RVODDI_REMOTE_STORAGE=") + spec};
    EXPECT_TRUE(child.start(QStringLiteral(RVODDI_REMOTE_WRITER),
                            {side, QString::number(count), dir.filePath(QStringLiteral("root"))},
                            options));
    EXPECT_TRUE(child.waitForFinished(300000));
    EXPECT_EQ(child.exitCode(), 0);
    std::vector<Written> written;
    for (const QByteArray &line : readFile(side).split('\n')) {
        const QList<QByteArray> fields = line.split(' ');
        if (fields.size() == 3)
            written.push_back(
                    {fields[0].toInt(), fields[1].toInt(), QString::fromLatin1(fields[2])});
    }
    EXPECT_EQ(int(written.size()), count);
    return written;
}

// The bytes this process reads for the block named `name`.
QByteArray read(const QString &name)
{
    const RvoSmartPointer<RvoDataHash> hash = RvoHashManager::instance().getHash(name);
    return bytesOf(Manager::instance().getReference(hash.data()));
}

QString localFile(const QString &name)
{
    return Manager::instance().getBlockDestination(Manager::instance().subCache(), name);
}

// The block file of `content` and its name.
QPair<QString, QByteArray> blockFile(const QByteArray &content)
{
    RvoBlockCodec codec;
    return {RvoBlockFile::digestText(content.constData(), content.size()),
            blockFileBytes(content.size(), codec.compress(content.constData(), content.size()))};
}

// The statistics line of each remote, from dumpStats().
QStringList remoteStats()
{
    DebugCapture debug;
    Manager::instance().dumpStats();
    return debug.messages().filter(
            QRegularExpression(QStringLiteral("^Remote .*uploads skipped$")));
}

bool holds(const LocalServer &server, const QString &name)
{
    QByteArray bytes;
    return RvoRemoteServer::create(server.endpoint())->get(name, &bytes).status
            == RvoRemoteServer::Found;
}

} // namespace

// Process A adds blocks with its own root; this process, with an empty root
// and the same remote, reads each one back: from one nginx, one Redis, and
// three Redis servers as shards, of which each holds some blocks, none all.
class RvoRemoteTierKinds : public ::testing::TestWithParam<int>
{
};

TEST_P(RvoRemoteTierKinds, AnotherProcessReadsEveryBlockBackByteExact)
{
    std::vector<std::unique_ptr<LocalServer>> servers;
    if (GetParam() == 0)
        servers.push_back(std::make_unique<LocalNginx>());
    for (int i = GetParam() == 0 ? 0 : GetParam(); i > 0; --i)
        servers.push_back(std::make_unique<LocalRedis>());
    QStringList ports;
    for (const auto &server : servers) {
        START_OR_SKIP(*server);
        ports.append(QString::number(server->port()));
    }
    const QString spec = servers.size() == 1
            ? servers[0]->url()
            : QStringLiteral("redis://127.0.0.1:*|shards=") + ports.join(QLatin1Char(','));
    const std::vector<Written> written = writeInAnotherProcess(spec, 500);

    ManagerSetup setup;
    ASSERT_TRUE(Manager::instance().setRemoteStorage(spec));
    int wrong = 0;
    for (const Written &block : written) {
        wrong += read(block.name) != testContent(block.seed, block.size);
        wrong += !QFile::exists(localFile(block.name));
    }
    EXPECT_EQ(wrong, 0);
    const QString stats = remoteStats().value(0);
    EXPECT_TRUE(stats.startsWith(QStringLiteral("Remote %1: 500 hits, 0 misses, 0 errors, 0 "
                                                "rejected, ")
                                         .arg(spec)))
            << qPrintable(stats);
    EXPECT_TRUE(stats.endsWith(QStringLiteral(" bytes read, 0 bytes written, 0 uploads skipped")));
    if (servers.size() > 1) {
        for (const auto &server : servers) {
            int held = 0;
            for (const Written &block : written)
                held += holds(*server, block.name);
            EXPECT_GT(held, 0) << server->port();
            EXPECT_LT(held, 500) << server->port();
        }
    }
}

INSTANTIATE_TEST_SUITE_P(NginxRedisAndRedisShards, RvoRemoteTierKinds, ::testing::Values(0, 1, 3));

TEST(RvoRemoteTier, DamagedFilesAreRejectedAndTheNextRemoteIsAsked)
{
    LocalNginx nginx;
    LocalRedis redis;
    START_OR_SKIP(nginx);
    START_OR_SKIP(redis);
    const auto truncated = blockFile(testContent(1, 30000));
    const auto wrongBytes = blockFile(testContent(2, 30000));
    const auto wrongLength = blockFile(testContent(3, 30000));
    writeFile(nginx.filePath(truncated.first), truncated.second.left(truncated.second.size() / 2));
    writeFile(nginx.filePath(wrongBytes.first), blockFile(testContent(4, 30000)).second);
    writeFile(nginx.filePath(wrongLength.first), wrongLength.second + QByteArray(5, 'x'));
    // The second remote has a sound copy of one of them.
    RvoRemoteServer::create(redis.endpoint())->put(wrongBytes.first, wrongBytes.second);

    ManagerSetup setup;
    ASSERT_TRUE(Manager::instance().setRemoteStorage(nginx.url() + QLatin1Char(' ') + redis.url()));
    DebugCapture debug;
    EXPECT_TRUE(read(truncated.first).isEmpty());
    EXPECT_TRUE(read(wrongLength.first).isEmpty());
    EXPECT_EQ(read(wrongBytes.first), testContent(2, 30000));
    EXPECT_FALSE(QFile::exists(localFile(truncated.first)));
    EXPECT_FALSE(QFile::exists(localFile(wrongLength.first)));
    EXPECT_EQ(readFile(localFile(wrongBytes.first)), wrongBytes.second);
    const QString damaged = QStringLiteral("Remote %1 sent a damaged block file %2 (%3): ignored");
    EXPECT_EQ(debug.count(damaged.arg(nginx.url(), truncated.first, QStringLiteral("lengths"))), 1);
    EXPECT_EQ(debug.count(damaged.arg(nginx.url(), wrongBytes.first, QStringLiteral("digest"))), 1);
    EXPECT_EQ(debug.count(damaged.arg(nginx.url(), wrongLength.first, QStringLiteral("lengths"))),
              1);
    const QStringList stats = remoteStats();
    EXPECT_TRUE(stats.value(0).contains(QStringLiteral("3 hits, 0 misses, 0 errors, 3 rejected")))
            << qPrintable(stats.value(0));
    EXPECT_TRUE(stats.value(1).contains(QStringLiteral("1 hits, 2 misses, 0 errors, 0 rejected")))
            << qPrintable(stats.value(1));
}

TEST(RvoRemoteTier, AKilledServerHoldsNothingUpAndUploadsResumeAfterItsRestart)
{
    LocalNginx nginx;
    START_OR_SKIP(nginx);
    RvoRemote::setPause(std::chrono::milliseconds(300));
    ManagerSetup setup;
    const QString spec = nginx.url() + QStringLiteral("|operation-timeout=1000");
    ASSERT_TRUE(Manager::instance().setRemoteStorage(spec));
    DebugCapture debug;
    QList<RvoDataReference> refs;
    for (int seed = 0; seed < 40; ++seed) {
        refs.append(addBlock(testContent(seed, 20000)));
        if (seed == 20)
            nginx.kill(); // while uploads are queued
    }
    QElapsedTimer timer;
    timer.start();
    Manager::instance().flush(true, Manager::AllThreads);
    EXPECT_TRUE(read(blockFile(testContent(99)).first).isEmpty());
    EXPECT_LT(timer.elapsed(), 3000) << "a dead server held the host up";
    Manager::instance().freeAllBlocks();
    for (int seed = 0; seed < 40; ++seed)
        EXPECT_EQ(bytesOf(refs[seed]), testContent(seed, 20000)) << "the disk serves on";

    ASSERT_TRUE(nginx.restart());
    EXPECT_TRUE(waitUntil(
            [&] {
                Manager::instance().flush(true, Manager::AllThreads);
                return std::all_of(refs.begin(), refs.end(), [&](const RvoDataReference &ref) {
                    return QFile::exists(nginx.filePath(ref.hash()));
                });
            },
            20000));
    const QString url = nginx.url();
    EXPECT_EQ(debug.messages()
                      .filter(QStringLiteral("Remote "))
                      .filter(QStringLiteral(" unavailable: "))
                      .size(),
              1);
    EXPECT_EQ(debug.count(QStringLiteral("Remote %1 available again").arg(url)), 1);
}

TEST(RvoRemoteTier, AServerThatDoesNotAnswerHoldsAReadNoLongerThanItsTimeout)
{
    LocalRedis redis;
    START_OR_SKIP(redis);
    ManagerSetup setup;
    ASSERT_TRUE(Manager::instance().setRemoteStorage(redis.url()
                                                     + QStringLiteral("|operation-timeout=400")));
    redis.pause();
    QElapsedTimer timer;
    timer.start();
    EXPECT_TRUE(read(blockFile(testContent(7)).first).isEmpty());
    EXPECT_TRUE(read(blockFile(testContent(8)).first).isEmpty()) << "skipped while paused";
    EXPECT_LT(timer.elapsed(), 1500);
    redis.resume();
}

TEST(RvoRemoteTier, AWrongPasswordGivesOneClearMessage)
{
    LocalRedis redis;
    redis.setPassword(QStringLiteral("right"));
    START_OR_SKIP(redis);
    ManagerSetup setup;
    const QString spec = QStringLiteral("redis://:wrong@127.0.0.1:%1").arg(redis.port());
    ASSERT_TRUE(Manager::instance().setRemoteStorage(spec));
    StdoutCapture out;
    QList<RvoDataReference> refs;
    for (int seed = 0; seed < 5; ++seed)
        refs.append(addBlock(testContent(seed, 20000)));
    Manager::instance().flush(true, Manager::AllThreads);
    EXPECT_TRUE(read(blockFile(testContent(99)).first).isEmpty());
    const QStringList lines = out.lines();
    ASSERT_EQ(lines.size(), 1) << qPrintable(lines.join(QLatin1Char('\n')));
    EXPECT_TRUE(lines[0].startsWith(
            QStringLiteral("Remote redis://***@127.0.0.1:%1 refused the credentials: WRONGPASS ")
                    .arg(redis.port())))
            << qPrintable(lines[0]);
    EXPECT_TRUE(lines[0].endsWith(QStringLiteral("; not used for 30 s")));
}

// After flush(true, AllThreads) a writable remote holds every block; one
// with no room in its upload queue skips and counts them; a read-only one
// gets nothing.
TEST(RvoRemoteTier, FlushWaitsForUploadsAFullQueueSkipsThemAndReadOnlyGetsNone)
{
    LocalNginx nginx;
    LocalRedis full;
    LocalRedis readOnly;
    START_OR_SKIP(nginx);
    START_OR_SKIP(full);
    START_OR_SKIP(readOnly);
    ManagerSetup setup;
    ASSERT_TRUE(Manager::instance().setRemoteStorage(
            full.url() + QStringLiteral("|upload-queue=0 ") + nginx.url() + QLatin1Char(' ')
            + readOnly.url() + QStringLiteral("|read-only")));
    QList<RvoDataReference> refs;
    for (int seed = 0; seed < 5; ++seed)
        refs.append(addBlock(testContent(seed, 20000)));
    Manager::instance().flush(true, Manager::AllThreads);
    const QStringList stats = remoteStats();
    EXPECT_TRUE(stats.value(0).endsWith(QStringLiteral(" 0 bytes written, 5 uploads skipped")))
            << qPrintable(stats.value(0));
    EXPECT_TRUE(stats.value(2).endsWith(QStringLiteral(" 0 bytes written, 0 uploads skipped")))
            << qPrintable(stats.value(2));
    for (const RvoDataReference &ref : refs) {
        EXPECT_FALSE(holds(full, ref.hash()));
        EXPECT_EQ(readFile(nginx.filePath(ref.hash())), readFile(localFile(ref.hash())));
        EXPECT_FALSE(holds(readOnly, ref.hash()));
    }
}
