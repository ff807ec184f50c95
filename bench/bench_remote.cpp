// The remote tier on this machine, against a local nginx (WebDAV), a local
// Redis and a local S3 server (s3rver, from npm: scripts/test installs it into
// build/npm) started for the run, with distinct 256 KiB image-like tiles
// (2,048 by default). A server "at D ms" is reached through the delay proxy of the
// tests (tests/support/DelayProxy.h), which holds every byte D ms in each
// direction: a round trip costs 2 D.
//
//   ingest/none, ingest/nginx, ingest/redis, ingest/s3, ingest/<server>@D
//       Adds every tile through a manager with a 64 MiB budget and one root
//       (asynchronous adds, waiting in 1 ms steps while the write queue is
//       full), then flush(true, WriteThreads): the time until every block is
//       on disk, while the uploads run beside. uploaded_s: the time until
//       flush(true, AllThreads) returns as well, every block uploaded;
//       upload_cpu_ms_per_tile: the CPU of the upload threads, and
//       upload_sys_ms_per_tile the part of it spent in the kernel (on
//       loopback that includes much of the receiving side's TCP work);
//       uploads_skipped: the uploads the full queue dropped. Each run starts
//       with an empty root and an empty server. The cost of the uploads is
//       ingest/<server> against ingest/none.
//   read/disk, read/nginx, read/redis, read/s3, read/<server>@D
//       A second process reads every tile back through const accessors,
//       preloading 64 ahead: from a root that holds the block files (disk),
//       or from an empty root with the remote tier (each file fetched,
//       checked against its name, published into the root and decoded).
//       read/s3-nginx: the S3 remote's signed requests, answered by the
//       nginx of read/nginx serving the same files under the bucket's keys
//       (it checks no signature): the S3 client's cost without s3rver's.
//   fetch/nginx, fetch/redis, fetch/s3
//       The raw fetch rate of the same servers for the same bytes: one curl
//       process getting every tile's URL in turn over one connection (for
//       S3 signing each request with --aws-sigv4), and one redis-cli process
//       sending GET for every key in turn.
//
// Figures: tiles per second (the same tiles in every phase); the CPU per tile
// of the reading or fetching program (all its threads) and of the server;
// and MB/s of the tiles' bytes (ingest, read) or of their block files' bytes
// (fetch). A read's share of its server's raw fetch rate is the ratio of the
// two tiles-per-second figures.
//
// bench_remote [--tiles N] [--link-mbit N] [benchmark options]
//   --link-mbit: the proxy of a server at a distance also paces each
//   direction to N megabits a second (a link of that bandwidth; default: not
//   paced, only delayed)
// bench_remote --read SPEC ROOT NAMES   the second process (internal)

#include "DelayProxy.h"
#include "LocalServer.h"
#include "RvoConstAccessor.h"
#include "RvoDataBlockManager.h"
#include "RvoDataReference.h"
#include "RvoHashManager.h"
#include "support/ImageTiles.h"

#include <QCoreApplication>
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QLoggingCategory>
#include <QTemporaryDir>
#include <QThread>
#include <QtConcurrent/QtConcurrentMap>

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <numeric>
#include <string>
#include <vector>

#include <sys/resource.h>
#include <unistd.h>

namespace {

using Clock = std::chrono::steady_clock;
constexpr qint64 kBudget = 64LL << 20;
constexpr int kReadAhead = 64;

int g_Tiles = 2048;
qint64 g_LinkBytesPerSecond = 0; // --link-mbit; 0: not paced

double secondsSince(Clock::time_point start)
{
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// CPU seconds (user and system) of this process and of its waited-for
// children so far.
double cpuSeconds(int who)
{
    rusage usage {};
    getrusage(who, &usage);
    auto seconds = [](const timeval &t) { return double(t.tv_sec) + double(t.tv_usec) / 1e6; };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

// CPU seconds that the process or thread whose /proc stat file is `path` has
// used so far (0 when it cannot be read); with `systemOnly`, those spent in
// the kernel.
double statCpuSeconds(const QString &path, bool systemOnly = false)
{
    QFile stat(path);
    if (!stat.open(QIODevice::ReadOnly))
        return 0;
    const QByteArray line = stat.readAll();
    // After the parenthesised name: state (field 3) ... utime 14, stime 15.
    const QList<QByteArray> fields = line.mid(line.lastIndexOf(')') + 2).split(' ');
    if (fields.size() <= 12)
        return 0;
    const double ticks = (systemOnly ? 0 : fields[11].toDouble()) + fields[12].toDouble();
    return ticks / double(sysconf(_SC_CLK_TCK));
}

// The servers and the tiles, made once for the whole run.
struct Fixture
{
    LocalServer nginx {LocalServer::Nginx};
    LocalServer redis {LocalServer::Redis};
    LocalServer s3 {LocalServer::S3};
    std::vector<QByteArray> tiles;
    QStringList names; // the tiles' block file names, from the first ingest
    QTemporaryDir filled; // a root that holds every tile's block file
    qint64 fileBytes = 0; // the block files' bytes in all
};

Fixture &fixture()
{
    static Fixture f;
    return f;
}

const LocalServer *serverOf(const std::string &name)
{
    if (name == "nginx")
        return &fixture().nginx;
    if (name == "redis")
        return &fixture().redis;
    if (name == "s3")
        return &fixture().s3;
    if (name == "s3-nginx")
        return &fixture().nginx;
    return nullptr;
}

// The CPU per tile of the program and of the server during the iterations.
void setCpu(benchmark::State &state, double program, double server)
{
    const double tiles = double(fixture().tiles.size()) * double(state.iterations());
    state.counters["cpu_ms_per_tile"] = program * 1000 / tiles;
    state.counters["server_cpu_ms_per_tile"] = server * 1000 / tiles;
}

QString specOf(const std::string &server)
{
    if (server == "s3-nginx") // /tiles/blocks/<2>/<name>: a link "blocks" to "."
        return QStringLiteral("s3://S3RVER:S3RVER@tiles/blocks|endpoint=http://127.0.0.1:%1")
                .arg(fixture().nginx.port());
    const LocalServer *local = serverOf(server);
    return local ? local->url() : QString();
}

// A server `delayMs` away: a proxy, and the setting that reaches the server
// through it (none for a negative delay: the server itself).
struct Distance
{
    Distance(const std::string &server, int delayMs)
    {
        const LocalServer *local = serverOf(server);
        spec = specOf(server);
        if (!local || delayMs < 0)
            return;
        proxy = std::make_unique<DelayProxy>(local->port(), std::chrono::milliseconds(delayMs),
                                             g_LinkBytesPerSecond);
        proxy->start();
        spec.replace(QStringLiteral("127.0.0.1:%1").arg(local->port()),
                     QStringLiteral("127.0.0.1:%1").arg(proxy->port()));
    }
    std::unique_ptr<DelayProxy> proxy;
    QString spec;
};

// The uploads that the remotes' full queues skipped: the statistics lines'
// "N uploads skipped", summed.
qint64 uploadsSkipped()
{
    static QStringList *lines = nullptr;
    QStringList captured;
    lines = &captured;
    QLoggingCategory::setFilterRules(QStringLiteral("rvoddi.debug=true"));
    const QtMessageHandler previous
            = qInstallMessageHandler([](QtMsgType, const QMessageLogContext &,
                                        const QString &text) { lines->append(text); });
    RvoDataBlockManager::instance().dumpStats();
    qInstallMessageHandler(previous);
    QLoggingCategory::setFilterRules(QStringLiteral("rvoddi.debug=false"));
    qint64 skipped = 0;
    for (const QString &line : captured) {
        if (line.startsWith(QLatin1String("Remote "))
            && line.endsWith(QLatin1String(" uploads skipped")))
            skipped += line.section(QLatin1Char(' '), -3, -3).toLongLong();
    }
    return skipped;
}

// Empties a server between runs.
void emptyServer(const std::string &server)
{
    Fixture &f = fixture();
    if (server == "redis")
        f.redis.restart(); // keeps nothing across a restart
    if (server == "nginx")
        QDir(f.nginx.documentRoot()).removeRecursively();
    if (server == "s3")
        QDir(f.s3.documentRoot()).removeRecursively();
}

double processCpuSeconds(qint64 pid)
{
    return statCpuSeconds(QStringLiteral("/proc/%1/stat").arg(pid));
}

// The CPU seconds that this process's threads named `name` have used so
// far (with `systemOnly`, in the kernel).
double threadsCpuSeconds(const QByteArray &name, bool systemOnly = false)
{
    double total = 0;
    const QDir tasks(QStringLiteral("/proc/self/task"));
    for (const QString &task : tasks.entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
        QFile comm(tasks.filePath(task + QStringLiteral("/comm")));
        if (comm.open(QIODevice::ReadOnly) && comm.readAll().trimmed() == name)
            total += statCpuSeconds(tasks.filePath(task + QStringLiteral("/stat")), systemOnly);
    }
    return total;
}

// What an ingest took: seconds until every block was on disk, and until
// every block was uploaded as well; the CPU seconds of the whole process,
// of its upload threads and of the server meanwhile.
struct Ingest
{
    double onDisk = 0;
    double uploaded = 0;
    double cpu = 0;
    double uploadCpu = 0;
    double uploadSystemCpu = 0;
    double serverCpu = 0;
    qint64 skipped = 0;
};

// Adds every tile into `root` with the remote tier `spec` (of `server`,
// null for none).
Ingest ingest(const QString &root, const QString &spec, const LocalServer *server,
              QStringList *names = nullptr)
{
    RvoDataBlockManager &m = RvoDataBlockManager::instance();
    m.setRemoteStorage(spec);
    m.setup({root}, kBudget, 10);
    std::vector<RvoDataReference> refs;
    refs.reserve(fixture().tiles.size());
    ::sync(); // no dirty pages of an earlier run to write meanwhile
    Ingest result;
    const double cpuBefore = cpuSeconds(RUSAGE_SELF);
    const double serverBefore = server ? processCpuSeconds(server->pid()) : 0;
    const Clock::time_point start = Clock::now();
    for (const QByteArray &tile : fixture().tiles) {
        refs.push_back(m.addBlock(tile, RvoModifyAccessor::CacheContent, false));
        while (m.isWriteThreadsFull())
            QThread::msleep(1);
    }
    // Every hashing job has made its block live before the flush looks for
    // blocks that are not on disk yet.
    for (const RvoDataReference &ref : refs)
        ref.hashPtr();
    m.flush(true, RvoDataBlockManager::WriteThreads);
    result.onDisk = secondsSince(start);
    m.flush(true, RvoDataBlockManager::AllThreads);
    result.uploaded = secondsSince(start);
    result.cpu = cpuSeconds(RUSAGE_SELF) - cpuBefore;
    result.uploadCpu = threadsCpuSeconds("rvoddi-upload"); // started by this ingest
    result.uploadSystemCpu = threadsCpuSeconds("rvoddi-upload", true);
    result.serverCpu = server ? processCpuSeconds(server->pid()) - serverBefore : 0;
    result.skipped = uploadsSkipped();
    if (names) {
        for (const RvoDataReference &ref : refs)
            names->append(ref.hash());
    }
    refs.clear();
    m.cleanUp();
    return result;
}

void setRates(benchmark::State &state, double bytes)
{
    state.counters["tiles/s"] = benchmark::Counter(double(fixture().tiles.size()),
                                                   benchmark::Counter::kIsIterationInvariantRate);
    state.counters["MB/s"]
            = benchmark::Counter(bytes / 1e6, benchmark::Counter::kIsIterationInvariantRate);
}

void BM_Ingest(benchmark::State &state, const std::string &server, int delayMs)
{
    Fixture &f = fixture();
    Ingest total;
    for (auto _ : state) {
        emptyServer(server);
        QTemporaryDir root;
        const Distance distance(server, delayMs);
        const Ingest run = ingest(root.path(), distance.spec, serverOf(server));
        state.SetIterationTime(run.onDisk);
        total.uploaded += run.uploaded;
        total.cpu += run.cpu;
        total.uploadCpu += run.uploadCpu;
        total.uploadSystemCpu += run.uploadSystemCpu;
        total.serverCpu += run.serverCpu;
        total.skipped += run.skipped;
    }
    setRates(state, double(f.tiles.size()) * 262144);
    setCpu(state, total.cpu, total.serverCpu);
    const double tiles = double(f.tiles.size()) * double(state.iterations());
    state.counters["uploaded_s"] = total.uploaded / double(state.iterations());
    state.counters["upload_cpu_ms_per_tile"] = total.uploadCpu * 1000 / tiles;
    state.counters["upload_sys_ms_per_tile"] = total.uploadSystemCpu * 1000 / tiles;
    state.counters["uploads_skipped"] = double(total.skipped) / double(state.iterations());
}

// Runs a program to its end with `input` on its standard input; returns its
// wall seconds, or -1 when it fails.
double runTimed(const QString &program, const QStringList &arguments, const QString &input,
                const QString &output = QStringLiteral("/dev/null"))
{
    QString command = QStringLiteral("'%1'").arg(program);
    for (const QString &argument : arguments)
        command += QStringLiteral(" '%1'").arg(argument);
    if (!input.isEmpty())
        command += QStringLiteral(" < '%1'").arg(input);
    command += QStringLiteral(" > '%1'").arg(output);
    const Clock::time_point start = Clock::now();
    const int status = std::system(command.toLocal8Bit().constData());
    const double seconds = secondsSince(start);
    return status == 0 ? seconds : -1;
}

void BM_Read(benchmark::State &state, const std::string &source, int delayMs)
{
    Fixture &f = fixture();
    QTemporaryDir dir;
    const QString names = dir.filePath(QStringLiteral("names.txt"));
    QFile file(names);
    file.open(QIODevice::WriteOnly);
    file.write(f.names.join(QLatin1Char('\n')).toLatin1());
    file.close();
    const LocalServer *server = serverOf(source);
    if (source == "s3-nginx")
        QFile::link(QStringLiteral("."), f.nginx.documentRoot() + QStringLiteral("/blocks"));
    double programCpu = 0;
    double serverCpu = 0;
    for (auto _ : state) {
        QTemporaryDir empty;
        const QString root = source == "disk" ? f.filled.path() : empty.path();
        const QString timing = dir.filePath(QStringLiteral("seconds.txt"));
        const Distance distance(source, delayMs);
        const double serverBefore = server ? processCpuSeconds(server->pid()) : 0;
        const double wall = runTimed(QCoreApplication::applicationFilePath(),
                                     {QStringLiteral("--read"), distance.spec, root, names},
                                     QString(), timing);
        QFile seconds(timing);
        seconds.open(QIODevice::ReadOnly);
        const QList<QByteArray> figures = seconds.readAll().trimmed().split(' ');
        const double reading = figures.value(0).toDouble();
        if (wall < 0 || reading <= 0) {
            state.SkipWithError("the reading process failed");
            return;
        }
        state.SetIterationTime(reading);
        programCpu += figures.value(1).toDouble();
        serverCpu += server ? processCpuSeconds(server->pid()) - serverBefore : 0;
    }
    setCpu(state, programCpu, serverCpu);
    setRates(state, double(f.names.size()) * 262144);
}

void BM_Fetch(benchmark::State &state, const std::string &server)
{
    Fixture &f = fixture();
    QTemporaryDir dir;
    const QString commands = dir.filePath(QStringLiteral("commands.txt"));
    QFile file(commands);
    file.open(QIODevice::WriteOnly);
    for (const QString &name : f.names) {
        if (server == "nginx")
            file.write(QStringLiteral("url = \"%1/%2/%3\"\noutput = \"/dev/null\"\n")
                               .arg(f.nginx.url(), name.left(2), name)
                               .toLatin1());
        else if (server == "s3")
            file.write(QStringLiteral("url = \"http://127.0.0.1:%1/tiles/blocks/%2/%3\"\n"
                                      "output = \"/dev/null\"\n")
                               .arg(QString::number(f.s3.port()), name.left(2), name)
                               .toLatin1());
        else
            file.write(QStringLiteral("GET rvoddi:%1\n").arg(name).toLatin1());
    }
    file.close();
    double programCpu = 0;
    double serverCpu = 0;
    for (auto _ : state) {
        const double childrenBefore = cpuSeconds(RUSAGE_CHILDREN);
        const double serverBefore = processCpuSeconds(serverOf(server)->pid());
        // S3: every request signed as the tier signs it, over http with the
        // empty body's SHA-256.
        const QStringList s3 {QStringLiteral("--aws-sigv4"),
                              QStringLiteral("aws:amz:us-east-1:s3"),
                              QStringLiteral("--user"),
                              QStringLiteral("S3RVER:S3RVER"),
                              QStringLiteral("-H"),
                              QStringLiteral("x-amz-content-sha256: e3b0c44298fc1c149afbf4c8996fb92"
                                             "427ae41e4649b934ca495991b7852b855")};
        const double seconds = server != "redis"
                ? runTimed(QStringLiteral("/usr/bin/curl"),
                           QStringList {QStringLiteral("-sf"), QStringLiteral("-K"), commands}
                                   + (server == "s3" ? s3 : QStringList()),
                           QString())
                : runTimed(QStringLiteral("/usr/bin/redis-cli"),
                           {QStringLiteral("-p"), QString::number(f.redis.port())}, commands);
        if (seconds < 0) {
            state.SkipWithError("the fetching program failed");
            return;
        }
        state.SetIterationTime(seconds);
        programCpu += cpuSeconds(RUSAGE_CHILDREN) - childrenBefore;
        serverCpu += processCpuSeconds(serverOf(server)->pid()) - serverBefore;
    }
    setCpu(state, programCpu, serverCpu);
    setRates(state, double(f.fileBytes));
}

// The second process: reads every named block through const accessors,
// preloading ahead, and prints the seconds the reading took.
int readMode(const QString &spec, const QString &root, const QString &namesFile)
{
    QFile file(namesFile);
    if (!file.open(QIODevice::ReadOnly))
        return 2;
    const QList<QByteArray> lines = file.readAll().split('\n');
    RvoDataBlockManager &m = RvoDataBlockManager::instance();
    m.setRemoteStorage(spec);
    m.setup({root}, kBudget, 10);
    std::vector<RvoDataReference> refs;
    for (const QByteArray &line : lines) {
        const RvoSmartPointer<RvoDataHash> hash
                = RvoHashManager::instance().getHash(QString::fromLatin1(line));
        refs.push_back(m.getReference(hash.data()));
    }
    int wrong = 0;
    const Clock::time_point start = Clock::now();
    for (size_t i = 0; i < refs.size(); ++i) {
        if (i == 0) {
            for (size_t k = 0; k < refs.size() && k < size_t(kReadAhead); ++k)
                m.preloadData(refs[k], RvoDataBlockManager::PreloadNormal);
        } else if (i + kReadAhead - 1 < refs.size()) {
            m.preloadData(refs[i + kReadAhead - 1], RvoDataBlockManager::PreloadNormal);
        }
        // Waits for the preload, as bench_ingest does: an accessor made
        // meanwhile would load the block a second time.
        while (refs[i].hashPtr()->isPreloading())
            QThread::usleep(50);
        const RvoConstAccessor accessor = refs[i].constAccessor();
        wrong += accessor.size() != 262144;
    }
    const double seconds = secondsSince(start);
    refs.clear();
    m.cleanUp();
    std::printf("%.6f %.6f\n", wrong == 0 ? seconds : -1.0, cpuSeconds(RUSAGE_SELF));
    return wrong == 0 ? 0 : 1;
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    QLoggingCategory::setFilterRules(QStringLiteral("rvoddi.debug=false"));
    if (argc == 5 && std::strcmp(argv[1], "--read") == 0)
        return readMode(QString::fromLocal8Bit(argv[2]), QString::fromLocal8Bit(argv[3]),
                        QString::fromLocal8Bit(argv[4]));
    for (int i = 1; i + 1 < argc;) {
        if (std::strcmp(argv[i], "--tiles") == 0)
            g_Tiles = std::atoi(argv[i + 1]);
        else if (std::strcmp(argv[i], "--link-mbit") == 0)
            g_LinkBytesPerSecond = std::atoll(argv[i + 1]) * 1000000 / 8;
        else {
            ++i;
            continue;
        }
        std::memmove(argv + i, argv + i + 2, sizeof(char *) * size_t(argc - i - 1));
        argc -= 2;
    }

    Fixture &f = fixture();
    if (!f.nginx.start() || !f.redis.start() || !f.s3.start()) {
        std::fprintf(stderr, "bench_remote: %s%s%s\n", qPrintable(f.nginx.error()),
                     qPrintable(f.redis.error()), qPrintable(f.s3.error()));
        return 1;
    }
    f.tiles.resize(size_t(g_Tiles));
    std::vector<int> indexes(static_cast<size_t>(g_Tiles));
    std::iota(indexes.begin(), indexes.end(), 0);
    QtConcurrent::blockingMap(indexes, [&f](int k) { f.tiles[size_t(k)] = makeImageLikeTile(k); });
    // The first ingest fills the disk root of read/disk and the servers.
    ingest(f.filled.path(),
           QStringList {f.nginx.url(), f.redis.url(), f.s3.url()}.join(QLatin1Char(' ')), nullptr,
           &f.names);
    QDirIterator files(f.filled.path(), QDir::Files, QDirIterator::Subdirectories);
    while (files.hasNext())
        f.fileBytes += QFileInfo(files.next()).size();

    // A delay of -1: the server itself, without the proxy.
    auto name = [](const char *phase, const std::string &server, int delayMs) {
        return std::string(phase) + "/" + server
                + (delayMs < 0 ? std::string() : "@" + std::to_string(delayMs));
    };
    for (const auto &[server, delayMs] : std::vector<std::pair<std::string, int>> {{"none", -1},
                                                                                   {"nginx", -1},
                                                                                   {"redis", -1},
                                                                                   {"nginx", 0},
                                                                                   {"nginx", 5},
                                                                                   {"redis", 0},
                                                                                   {"redis", 5},
                                                                                   {"s3", -1},
                                                                                   {"s3", 5}})
        benchmark::RegisterBenchmark(name("ingest", server, delayMs).c_str(), BM_Ingest, server,
                                     delayMs)
                ->UseManualTime()
                ->Unit(benchmark::kMillisecond)
                ->Iterations(1);
    std::vector<std::pair<std::string, int>> reads {{"disk", -1}};
    for (const char *server : {"nginx", "redis", "s3"}) {
        for (int delayMs : {-1, 0, 1, 5, 20})
            reads.emplace_back(server, delayMs);
    }
    reads.emplace_back("s3-nginx", -1);
    reads.emplace_back("s3-nginx", 5);
    for (const auto &[source, delayMs] : reads)
        benchmark::RegisterBenchmark(name("read", source, delayMs).c_str(), BM_Read, source,
                                     delayMs)
                ->UseManualTime()
                ->Unit(benchmark::kMillisecond)
                ->Iterations(1);
    for (const char *server : {"nginx", "redis", "s3"})
        benchmark::RegisterBenchmark((std::string("fetch/") + server).c_str(), BM_Fetch,
                                     std::string(server))
                ->UseManualTime()
                ->Unit(benchmark::kMillisecond)
                ->Iterations(1);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
