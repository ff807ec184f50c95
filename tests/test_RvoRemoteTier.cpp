#include "DelayProxy.h"
#include "LocalServer.h"
#include "ManagerTestAccess.h"
#include "RvoBlockFile_p.h"
#include "RvoRemoteClient_p.h"
#include "RvoRemote_p.h"

#include <QRegularExpression>

#include <numeric>
#include <thread>

using Manager = RvoDataBlockManager;

namespace {

// Another machine: a process with a root of its own adds `count` blocks with
// the remote tier `spec` (given through the environment) and flushes. Its
// lines "SEED SIZE DIGEST", one per block.
QByteArray writeInAnotherProcess(const QString &spec, int count)
{
    QTemporaryDir dir;
    const QString side = dir.filePath(QStringLiteral("written.txt"));
    ChildProcess child;
    ChildProcess::Options options;
    options.environment = QStringList {QStringLiteral("RVODDI_REMOTE_STORAGE=") + spec};
    EXPECT_TRUE(child.start(QStringLiteral(RVODDI_TEST_CHILD),
                            {QStringLiteral("remote"), side, QString::number(count),
                             dir.filePath(QStringLiteral("root"))},
                            options));
    EXPECT_TRUE(child.waitForFinished(300000));
    EXPECT_EQ(child.exitCode(), 0);
    const QByteArray lines = readFile(side);
    EXPECT_EQ(lines.count('\n'), count);
    return lines;
}

// The name of the block file of `content`.
QString nameOf(const QByteArray &content)
{
    return RvoBlockFile::digestText(content.constData(), content.size());
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

// The statistics line of each remote, from dumpStats().
QStringList remoteStats()
{
    DebugCapture debug;
    Manager::instance().dumpStats();
    return debug.messages().filter(
            QRegularExpression(QStringLiteral("^Remote .*uploads skipped$")));
}

// A reference to the block of `content`, which this process has not added,
// with its preload started.
RvoDataReference preloaded(const QByteArray &content)
{
    const RvoDataReference ref = Manager::instance().getReference(digestOf(content).data());
    ref.preload(Manager::PreloadNormal);
    return ref;
}

bool holds(const LocalServer &server, const QString &name)
{
    QByteArray bytes;
    return RvoRemoteClient::create(server.endpoint())->get(name, &bytes).status
            == RvoRemoteClient::Found;
}

} // namespace

// Process A adds blocks with its own root; this process, with an empty root
// and the same remote, three Redis servers as shards, reads each one back.
TEST(RvoRemoteTier, AnotherProcessReadsEveryBlockBackByteExact)
{
    LocalServer shards[] = {LocalServer(LocalServer::Redis), LocalServer(LocalServer::Redis),
                            LocalServer(LocalServer::Redis)};
    QStringList ports;
    for (LocalServer &shard : shards) {
        START_OR_SKIP(shard);
        ports.append(QString::number(shard.port()));
    }
    const QString spec
            = QStringLiteral("redis://127.0.0.1:*|shards=") + ports.join(QLatin1Char(','));
    const QByteArray lines = writeInAnotherProcess(spec, 500);

    ManagerSetup setup;
    ASSERT_TRUE(Manager::instance().setRemoteStorage(spec));
    EXPECT_EQ(lostBlocks(lines), QStringList());
    const QString stats = remoteStats().value(0);
    EXPECT_TRUE(stats.startsWith(
            QStringLiteral("Remote %1: 500 hits, 0 misses, 0 errors, 0 rejected, ").arg(spec)))
            << qPrintable(stats);
    EXPECT_TRUE(stats.endsWith(QStringLiteral(" bytes read, 0 bytes written, 0 uploads skipped")));
    // Each block is on exactly one of the shards, each of which holds some.
    std::vector<int> held(3);
    for (const QByteArray &line : lines.trimmed().split('\n')) {
        const QString name = QString::fromLatin1(line.split(' ').value(2));
        for (size_t i = 0; i < 3; ++i)
            held[i] += holds(shards[i], name);
    }
    EXPECT_EQ(std::accumulate(held.begin(), held.end(), 0), 500);
    EXPECT_EQ(std::count(held.begin(), held.end(), 0), 0) << "a shard holds none";
}

// Remotes are asked in order: a damaged file is rejected, said and counted,
// and the next remote asked.
TEST(RvoRemoteTier, DamagedFileIsRejectedAndTheNextRemoteAsked)
{
    LocalServer first(LocalServer::Nginx);
    LocalServer redis(LocalServer::Redis);
    START_OR_SKIP(first);
    START_OR_SKIP(redis);
    // Under the names of blocks 1 to 3 the first serves a file cut short,
    // block 4's file and one with bytes appended; Redis has a sound block 2.
    const QByteArray cut = blockFile(testContent(1, 30000));
    const QByteArray served[] = {cut.left(cut.size() / 2), blockFile(testContent(4, 30000)),
                                 blockFile(testContent(3, 30000)) + "xxxxx"};
    const char *faults[] = {"lengths", "digest", "lengths"};
    for (int i = 0; i < 3; ++i)
        RvoRemoteClient::create(first.endpoint())
                ->put(nameOf(testContent(i + 1, 30000)), served[i]);
    RvoRemoteClient::create(redis.endpoint())
            ->put(nameOf(testContent(2, 30000)), blockFile(testContent(2, 30000)));

    ManagerSetup setup;
    ASSERT_TRUE(Manager::instance().setRemoteStorage(first.url() + QLatin1Char(' ') + redis.url()));
    DebugCapture debug;
    for (int i = 0; i < 3; ++i) {
        const QByteArray content = testContent(i + 1, 30000);
        const QString name = nameOf(content);
        EXPECT_EQ(read(name), i == 1 ? content : QByteArray()) << i;
        EXPECT_EQ(readFile(localFile(name)), i == 1 ? blockFile(content) : QByteArray());
        EXPECT_EQ(debug.count(QStringLiteral("Remote %1 sent a damaged block file %2 (%3): ignored")
                                      .arg(RvoRemoteSpec::mask(first.url()), name, faults[i])),
                  1);
    }
    const QStringList stats = remoteStats();
    EXPECT_TRUE(stats.value(0).contains(QStringLiteral("3 hits, 0 misses, 0 errors, 3 rejected")))
            << qPrintable(stats.value(0));
    EXPECT_TRUE(stats.value(1).contains(QStringLiteral("1 hits, 2 misses, 0 errors, 0 rejected")))
            << qPrintable(stats.value(1));
}

// One that does not answer holds a read no longer than its timeout, and is
// skipped by the next.
TEST(RvoRemoteTier, SilentRemoteCostsAtMostItsTimeout)
{
    LocalServer redis(LocalServer::Redis);
    START_OR_SKIP(redis);
    ManagerSetup setup;
    ASSERT_TRUE(Manager::instance().setRemoteStorage(redis.url() + "|operation-timeout=400"));
    redis.pause();
    QElapsedTimer timer;
    timer.start();
    EXPECT_TRUE(read(nameOf(testContent(7))).isEmpty());
    EXPECT_LT(timer.elapsed(), 1500);
    timer.restart();
    EXPECT_TRUE(read(nameOf(testContent(8))).isEmpty());
    EXPECT_LT(timer.elapsed(), 300) << "not skipped while paused";
    redis.resume();
}

// The server, 100 ms away, is killed while 32 fetches and 32 uploads are
// under way: every load ends at once without a block, the disk serves on,
// and the uploads go once the server is back. It is paused from the start,
// so that no request can end before the kill however slowly this test runs.
TEST(RvoRemoteTier, KillingTheServerMidRequestsLosesNothing)
{
    LocalServer nginx(LocalServer::Nginx);
    START_OR_SKIP(nginx);
    DelayProxy proxy(nginx.port(), std::chrono::milliseconds(100));
    ASSERT_TRUE(proxy.start()) << qPrintable(proxy.error());
    for (int seed = 100; seed < 132; ++seed) {
        const QByteArray content = testContent(seed, 20000);
        ASSERT_TRUE(writeFile(nginx.filePath(nameOf(content)), blockFile(content)));
    }
    RvoRemote::setPause(std::chrono::milliseconds(300));
    ManagerSetup setup;
    ASSERT_TRUE(Manager::instance().setRemoteStorage(nginx.url(proxy.port())
                                                     + QStringLiteral("|operation-timeout=1000")));
    nginx.pause();
    DebugCapture debug;
    QList<RvoDataReference> refs;
    for (int seed = 0; seed < 32; ++seed)
        refs.append(addBlock(testContent(seed, 20000)));
    Manager::instance().flush(false, Manager::WriteThreads); // the uploads start
    // The preloads start the fetches at once.
    QList<RvoDataReference> fetched;
    for (int seed = 100; seed < 132; ++seed)
        fetched.append(preloaded(testContent(seed, 20000)));
    nginx.kill();
    QElapsedTimer timer;
    timer.start();
    for (const RvoDataReference &ref : fetched) {
        EXPECT_TRUE(bytesOf(ref).isEmpty());
        EXPECT_FALSE(debug.messages()
                             .filter(QStringLiteral("Cannot Open File "))
                             .filter(ref.hash() + QStringLiteral(" to read. Exist?=0"))
                             .isEmpty());
    }
    Manager::instance().flush(true, Manager::AllThreads);
    EXPECT_LT(timer.elapsed(), 3000) << "a dead server held the host up";
    Manager::instance().freeAllBlocks();
    for (int seed = 0; seed < 32; ++seed)
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
    EXPECT_EQ(debug.messages().filter(QRegularExpression("^Remote .* unavailable: ")).size(), 1);
    EXPECT_EQ(debug.count(QStringLiteral("Remote %1 available again").arg(nginx.url(proxy.port()))),
              1);
}

// After flush(true, AllThreads) a writable remote holds every block; one
// with no room in its upload queue skips and counts them; a read-only one
// gets nothing.
TEST(RvoRemoteTier, FlushWaitsForTheUploadsOfRemotesThatTakeThem)
{
    LocalServer nginx(LocalServer::Nginx);
    LocalServer full(LocalServer::Redis);
    LocalServer readOnly(LocalServer::Redis);
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
    for (const RvoDataReference &ref : refs)
        EXPECT_EQ(readFile(nginx.filePath(ref.hash())), readFile(localFile(ref.hash())));
}

// A remote that refuses the keys, or is set up wrong (S3: no such bucket), is
// said once on standard output with the server's reason, then left alone
// for a while by uploads and reads alike.
TEST(RvoRemoteTier, RefusalIsSaidOnceAndTheRemoteLeftAlone)
{
    const char *const rows[][2] = {
            // the setting, and what is said of it; %1: the server's port
            {"s3://NOBODY:S3RVER@tiles/blocks|endpoint=http://127.0.0.1:%1",
             "s3://***@tiles/blocks|endpoint=http://127.0.0.1:%1 refused the credentials: "
             "bucket 'tiles' answered InvalidAccessKeyId (HTTP 403): no such access key"},
            {"s3://S3RVER:S3RVER@nosuch/blocks|endpoint=http://127.0.0.1:%1",
             "s3://***@nosuch/blocks|endpoint=http://127.0.0.1:%1 is set up wrong: bucket "
             "'nosuch' answered NoSuchBucket (HTTP 404): there is no such bucket"},
    };
    LocalServer server(LocalServer::S3);
    START_OR_SKIP(server);
    for (const auto &row : rows) {
        SCOPED_TRACE(row[0]);
        ManagerSetup setup;
        ASSERT_TRUE(Manager::instance().setRemoteStorage(QString(row[0]).arg(server.port())));
        StdoutCapture out;
        for (int seed = 0; seed < 5; ++seed)
            addBlock(testContent(seed, 20000));
        Manager::instance().flush(true, Manager::AllThreads);
        QElapsedTimer clock;
        clock.start();
        EXPECT_TRUE(read(nameOf(testContent(10))).isEmpty()
                    && read(nameOf(testContent(11))).isEmpty());
        EXPECT_LT(clock.elapsed(), 500);
        const QStringList lines = out.lines();
        ASSERT_EQ(lines.size(), 1) << qPrintable(lines.join(QLatin1Char('\n')));
        EXPECT_TRUE(lines[0].startsWith("Remote " + QString(row[1]).arg(server.port())))
                << qPrintable(lines[0]);
        EXPECT_TRUE(lines[0].endsWith(QStringLiteral("; not used for 30 s")));
    }
}

// Blocks missing locally, preloaded through a server 20 ms away (a request
// is a 40 ms round trip): they arrive together, in a few round trips rather
// than one each, byte-exact. Another block's file under one name (block 7's)
// is rejected and counted; the others are used.
using RvoRemoteTierAtDistance = ::testing::TestWithParam<LocalServer::Kind>;

TEST_P(RvoRemoteTierAtDistance, PreloadedBlocksArriveInAFewRoundTripsNotOneEach)
{
    LocalServer server(GetParam());
    START_OR_SKIP(server);
    DelayProxy proxy(server.port(), std::chrono::milliseconds(20));
    ASSERT_TRUE(proxy.start()) << qPrintable(proxy.error());
    const auto client = RvoRemoteClient::create(server.endpoint());
    std::vector<QByteArray> contents;
    for (int i = 0; i < 64; ++i) {
        contents.push_back(testContent(i, 30000));
        const QByteArray file = blockFile(i == 7 ? testContent(99) : contents[i]);
        ASSERT_EQ(client->put(nameOf(contents[i]), file).status, RvoRemoteClient::Stored);
    }
    ManagerSetup setup;
    ASSERT_TRUE(Manager::instance().setRemoteStorage(server.url(proxy.port())));
    QElapsedTimer timer;
    timer.start();
    QList<RvoDataReference> refs;
    for (const QByteArray &content : contents)
        refs.append(preloaded(content));
    for (int i = 0; i < 64; ++i)
        EXPECT_EQ(bytesOf(refs[i]), i == 7 ? QByteArray() : contents[size_t(i)]) << i;
    // Block 7 is asked for by its preload, and again by its load unless that
    // waited for the preload's fetch.
    const QString stats = remoteStats().value(0);
    EXPECT_TRUE(stats.contains(QRegularExpression(" 0 misses, 0 errors, [12] rejected,")))
            << qPrintable(stats);
    EXPECT_GE(timer.elapsed(), 40) << "no round trip at all: the proxy did not delay";
    EXPECT_LT(timer.elapsed(), 1200) << "64 round trips one after the other take 2.6 s";
}

INSTANTIATE_TEST_SUITE_P(NginxAndRedis, RvoRemoteTierAtDistance,
                         ::testing::Values(LocalServer::Nginx, LocalServer::Redis));

// A preload and eight threads want one block from a distant server: one
// request brings it for all of them.
TEST(RvoRemoteTier, LoadsOfABlockBeingFetchedWaitForThatFetch)
{
    LocalServer nginx(LocalServer::Nginx);
    START_OR_SKIP(nginx);
    DelayProxy proxy(nginx.port(), std::chrono::milliseconds(20));
    ASSERT_TRUE(proxy.start()) << qPrintable(proxy.error());
    const QByteArray content = testContent(5, 30000);
    ASSERT_TRUE(writeFile(nginx.filePath(nameOf(content)), blockFile(content)));
    ManagerSetup setup;
    ASSERT_TRUE(Manager::instance().setRemoteStorage(nginx.url(proxy.port())));
    const RvoDataReference ref = preloaded(content);
    std::atomic<int> wrong {0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t)
        threads.emplace_back([ref, &content, &wrong] { wrong += bytesOf(ref) != content; });
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(wrong.load(), 0);
    const QByteArray log = readFile(nginx.accessLogPath());
    EXPECT_EQ(log.count(" GET /tiles/" + nameOf(content).left(2).toUtf8() + '/'), 1) << log.data();
}
