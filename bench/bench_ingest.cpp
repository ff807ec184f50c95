// Ingest with eviction: distinct 256 KiB image-like tiles (2 GiB for the
// default 8192) go through addBlock into a manager with a 256 MiB budget and
// one root, so nearly all of them leave memory for their block files; the
// ingest ends with flush(true, AllThreads), when every block is on disk.
// Then every block is read back through a const accessor, in order, and
// compared byte for byte with the tile made again: once block by block, and
// once more preloading a few blocks ahead so that both cores decode (the
// pass compare_git.sh sets against git).
// Figures: tiles per second for each phase, and the number of mismatches
// (must be 0).
//
// Beside them, the machine's limit, measured in the same run: before the
// first ingest, each stage runs alone on one thread over kStageTiles tiles
// (hash; compress; write and publish the block file; read it; decode it) and
// its CPU time per tile (user and system, of that thread) is taken, the
// least of kStageRounds rounds. With
// every core busy and nothing else to do, the ingest could reach
// cores / (hash + compress + write) tiles per second and the read-back
// cores / (read + decode); the ingest and read-ahead rates are given as
// fractions of those limits. The same tiles give the payload size against
// qCompress(tile, 2)'s (STAGES line). The limits leave out what the kernel does for
// the files on other threads (write-back, journal) and the library's own
// bookkeeping, so they are slightly optimistic. Beside them, the CPU the
// whole process used per tile while the ingest and the read-ahead pass were
// timed (ingest_cpu_ms, read_ahead_cpu_ms): the limit as the run itself ran.
//
// The tiles are made before the clock starts (on both cores) and each one is
// dropped by the benchmark as soon as it is added, so from then on the
// manager holds the only copy. For the read-back they are made again in
// chunks, with the clock stopped while nothing of the manager runs.
//
// The modes differ in how tiles are added and how the producer lets the
// write queue drain: asynchronously, waiting in 1 ms steps while the write
// queue is full (the fastest, used for the comparison with git); the same
// with processIO, which sleeps a whole second at a time; synchronously with
// processIO; and synchronously with 1 ms steps.
//
// bench_ingest [--tiles N] [--codec SETTING] [benchmark options]
//   --codec: how block files are written (setBlockCodec: zlib, lz4,
//   zstd:LEVEL; default: RVODDI_BLOCK_CODEC, else zlib); the stages use it.
// bench_ingest --write-tiles DIR N   writes tiles 0..N-1 as DIR/tile-00000.bin
//                                    and so on (for the git comparison)
//
// bench/compare_git.sh runs the git baseline and this program in one go.

#include "RvoBlockCodec_p.h"
#include "RvoBlockFile_p.h"
#include "RvoBlockSaver_p.h"
#include "RvoConstAccessor.h"
#include "RvoDataBlockManager.h"
#include "RvoDataReference.h"
#include "support/BenchClock.h"
#include "support/ImageTiles.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QLoggingCategory>
#include <QTemporaryDir>
#include <QThread>
#include <QThreadPool>
#include <QtConcurrent/QtConcurrentMap>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <numeric>
#include <string>
#include <utility>
#include <vector>

#include <time.h>
#include <unistd.h>

namespace {

constexpr qint64 kBudget = 256LL * 1024 * 1024;
constexpr int kReadChunk = 256; // tiles made again at a time for the comparison
constexpr int kReadAhead = 16; // preloads in flight in the read-ahead pass
constexpr int kStageTiles = 256; // tiles each stage runs on alone
constexpr int kStageRounds = 3; // rounds of the stages; the least cost counts

int g_Tiles = 8192;
QString g_Codec = qEnvironmentVariable("RVODDI_BLOCK_CODEC");

RvoBlockCodecSetting codecSetting()
{
    RvoBlockCodecSetting setting;
    RvoBlockCodecSetting::parse(g_Codec, &setting, nullptr);
    return setting;
}

// QByteArray's size type: int in Qt 5, qsizetype in Qt 6.
using ArraySize = decltype(QByteArray().size());
ArraySize arraySize(qint64 n)
{
    return ArraySize(n);
}

enum Mode {
    // addBlock hashes on the calling thread; processIO between adds.
    SyncProcessIO = 0,
    // addBlock hashes on the thread pool; processIO between adds.
    AsyncProcessIO = 1,
    // As SyncProcessIO, but the producer waits in 1 ms steps while
    // isWriteThreadsFull(), where processIO sleeps a whole second at a time.
    SyncPollFull = 2,
    // Asynchronous adds, waiting in 1 ms steps while isWriteThreadsFull().
    AsyncPollFull = 3,
};

bool isAsynchronous(Mode mode)
{
    return mode == AsyncProcessIO || mode == AsyncPollFull;
}

const char *modeName(Mode mode)
{
    switch (mode) {
    case SyncProcessIO:
        return "sync_processIO";
    case AsyncProcessIO:
        return "async_processIO";
    case SyncPollFull:
        return "sync_poll_full";
    case AsyncPollFull:
        return "async_poll_full";
    }
    return "unknown";
}

struct Result
{
    std::string mode;
    double ingestRate;
    double readRate;
    double readAheadRate;
    qint64 mismatches;
    double ingestLimit;
    double readLimit;
    double ingestCpuMs; // process CPU per tile during the ingest
    double readAheadCpuMs; // and during the read-ahead pass
};

std::vector<Result> &results()
{
    static std::vector<Result> all;
    return all;
}

using Clock = std::chrono::steady_clock;

double secondsSince(Clock::time_point start)
{
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// The CPU seconds each thread of this process has used so far, by thread
// id, with the thread's name: the IO threads are "QThread", the pool's
// "Thread (pooled)", the background save workers "rvoddi-save", the
// caller has the program's name. For telling where
// the ingest's time goes.
struct ThreadCpu
{
    std::string name;
    double user = 0;
    double system = 0;
};

std::map<int, ThreadCpu> threadCpu()
{
    std::map<int, ThreadCpu> threads;
    const double tick = double(sysconf(_SC_CLK_TCK));
    const QDir tasks(QStringLiteral("/proc/self/task"));
    for (const QString &task : tasks.entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
        QFile comm(tasks.filePath(task + QStringLiteral("/comm")));
        QFile stat(tasks.filePath(task + QStringLiteral("/stat")));
        if (!comm.open(QIODevice::ReadOnly) || !stat.open(QIODevice::ReadOnly))
            continue;
        // The fields after the parenthesised name start with the state
        // (field 3); utime and stime are fields 14 and 15.
        const QByteArray line = stat.readAll();
        const QList<QByteArray> fields = line.mid(line.lastIndexOf(')') + 2).split(' ');
        if (fields.size() <= 12)
            continue;
        ThreadCpu &thread = threads[task.toInt()];
        thread.name = comm.readAll().trimmed().toStdString();
        thread.user = fields[11].toDouble() / tick;
        thread.system = fields[12].toDouble() / tick;
    }
    return threads;
}

// CPU used between two snapshots by the threads named `name` (user plus
// system, and system alone). A thread that ended in between is missed.
std::pair<double, double> cpuDelta(const std::map<int, ThreadCpu> &before,
                                   const std::map<int, ThreadCpu> &after, const std::string &name)
{
    double total = 0;
    double system = 0;
    for (const auto &[tid, now] : after) {
        if (now.name != name)
            continue;
        const auto then = before.find(tid);
        const double user0 = then == before.end() ? 0.0 : then->second.user;
        const double system0 = then == before.end() ? 0.0 : then->second.system;
        total += now.user - user0 + now.system - system0;
        system += now.system - system0;
    }
    return {total, system};
}

// Tiles first .. first + count - 1, made on every core.
std::vector<QByteArray> makeTiles(int first, int count)
{
    std::vector<QByteArray> tiles(static_cast<size_t>(count));
    std::vector<int> indexes(static_cast<size_t>(count));
    std::iota(indexes.begin(), indexes.end(), 0);
    QtConcurrent::blockingMap(
            indexes, [&tiles, first](int k) { tiles[size_t(k)] = makeImageLikeTile(first + k); });
    return tiles;
}

// CPU milliseconds per tile of each stage of the ingest and the read-back,
// each run alone on the calling thread.
struct StageCosts
{
    double hash = 0;
    double compress = 0;
    double write = 0; // write the temporary file and rename it
    double read = 0; // open, read header and payload, close
    double decode = 0;
    int cores = 0;
    // Payload bytes against qCompress(tile, 2)'s on the same tiles.
    double sizeVsQCompress2 = 0;

    double ingestLimit() const { return cores * 1e3 / (hash + compress + write); }
    double readLimit() const { return cores * 1e3 / (read + decode); }
};

// Runs f(i) for i in 0..count-1 and returns the CPU milliseconds per call.
template<typename F>
double cpuMsPerCall(int count, F f)
{
    const double start = BenchClock::thread();
    for (int i = 0; i < count; ++i)
        f(i);
    return (BenchClock::thread() - start) * 1e3 / count;
}

// One round of the stages as the library runs them: the digest the block is
// named by, the codec the savers use, RvoBlockSaver's publishing, the read
// thread's unbuffered reads and RvoBlockFile's decoding. Files go into ten
// bucket directories of a fresh directory on the same file system as the
// root. *payloadBytes: the payloads' total size.
StageCosts measureStagesOnce(const std::vector<QByteArray> &tiles, qint64 *payloadBytes)
{
    StageCosts costs;
    const int count = int(tiles.size());
    QTemporaryDir dir;
    RvoBlockCodec codec(codecSetting());
    std::vector<QString> names(static_cast<size_t>(count));
    std::vector<QByteArray> payloads(static_cast<size_t>(count));
    for (QByteArray &payload : payloads)
        payload.resize(arraySize(codec.compressBound(tiles[0].size())));
    auto directoryOf = [&dir](int i) { return dir.filePath(QString::number(i % 10)); };
    auto pathOf = [&](int i) { return directoryOf(i) + QLatin1Char('/') + names[size_t(i)]; };

    ::sync();
    costs.hash = cpuMsPerCall(count, [&](int i) {
        names[size_t(i)]
                = RvoBlockFile::digestText(tiles[size_t(i)].constData(), tiles[size_t(i)].size());
    });
    costs.compress = cpuMsPerCall(count, [&](int i) {
        QByteArray &payload = payloads[size_t(i)];
        const QByteArray &tile = tiles[size_t(i)];
        payload.resize(arraySize(
                codec.compress(tile.constData(), tile.size(), payload.data(), payload.size())));
    });
    costs.write = cpuMsPerCall(count, [&](int i) {
        const QByteArray &payload = payloads[size_t(i)];
        RvoBlockSaver::save(tiles[size_t(i)].size(), payload.constData(), payload.size(),
                            directoryOf(i), names[size_t(i)]);
    });
    ::sync();
    std::vector<QByteArray> read(static_cast<size_t>(count),
                                 QByteArray(payloads[0].size() * 2, '\0'));
    costs.read = cpuMsPerCall(count, [&](int i) {
        QFile file(pathOf(i));
        char head[RvoBlockFile::kHeaderSize];
        RvoBlockFile::Header header;
        QByteArray &payload = read[size_t(i)];
        if (!file.open(QIODevice::ReadOnly | QIODevice::Unbuffered)
            || file.read(head, sizeof head) != qint64(sizeof head)
            || RvoBlockFile::parseHeader(head, sizeof head, file.size(), &header)
                    != RvoBlockFile::Sound
            || header.payloadLength > payload.size()
            || file.read(payload.data(), header.payloadLength) != header.payloadLength) {
            payload.clear();
            return;
        }
        payload.resize(header.payloadLength);
    });
    std::vector<QByteArray> decoded(static_cast<size_t>(count));
    costs.decode = cpuMsPerCall(count, [&](int i) {
        const QByteArray &payload = read[size_t(i)];
        RvoBlockFile::decodePayload(codec, payload.constData(), payload.size(),
                                    tiles[size_t(i)].size(), &decoded[size_t(i)]);
    });
    if (decoded != tiles) {
        std::fprintf(stderr, "bench_ingest: the stages did not give back every tile\n");
        std::exit(1);
    }
    *payloadBytes = 0;
    for (const QByteArray &payload : payloads)
        *payloadBytes += payload.size();
    return costs;
}

// Each stage's cost is the least of kStageRounds rounds: another process
// taking the core or the cache for a moment only ever adds CPU time, and the
// figure is meant as the cost of the work itself.
StageCosts measureStageCosts()
{
    const std::vector<QByteArray> tiles = makeTiles(0, kStageTiles);
    StageCosts costs;
    qint64 payloadBytes = 0;
    for (int round = 0; round < kStageRounds; ++round) {
        const StageCosts once = measureStagesOnce(tiles, &payloadBytes);
        const bool first = round == 0;
        costs.hash = first ? once.hash : std::min(costs.hash, once.hash);
        costs.compress = first ? once.compress : std::min(costs.compress, once.compress);
        costs.write = first ? once.write : std::min(costs.write, once.write);
        costs.read = first ? once.read : std::min(costs.read, once.read);
        costs.decode = first ? once.decode : std::min(costs.decode, once.decode);
    }
    costs.cores = QThread::idealThreadCount();
    qint64 zlib = 0;
    for (const QByteArray &tile : tiles)
        zlib += qCompress(tile, 2).size();
    costs.sizeVsQCompress2 = double(payloadBytes) / double(zlib);
    return costs;
}

// Measured once, before the first ingest, and given with every mode.
const StageCosts &stageCosts()
{
    static const StageCosts costs = measureStageCosts();
    return costs;
}

void waitForWriters(RvoDataBlockManager &m, Mode mode)
{
    if (mode == SyncProcessIO || mode == AsyncProcessIO) {
        m.processIO();
        return;
    }
    while (m.isWriteThreadsFull())
        QThread::msleep(1);
}

// Reads every block back through a const accessor, in order, comparing it
// with the tile made again; only the reading and comparing are timed. With
// readAhead, the blocks kReadAhead places ahead are preloaded, so that both
// cores decode, and each block's preload is waited for before its accessor
// is made (an accessor made meanwhile would load the block a second time).
double readBack(const std::vector<RvoDataReference> &refs, bool readAhead, qint64 *mismatches,
                double *cpuSeconds)
{
    const int count = int(refs.size());
    double seconds = 0;
    for (int first = 0; first < count; first += kReadChunk) {
        const int chunk = std::min(kReadChunk, count - first);
        const int end = first + chunk;
        const std::vector<QByteArray> expected = makeTiles(first, chunk);
        const Clock::time_point start = Clock::now();
        const double cpuStart = BenchClock::process();
        if (readAhead) {
            for (int i = first; i < std::min(first + kReadAhead, end); ++i)
                refs[size_t(i)].preload(RvoDataBlockManager::PreloadNormal);
        }
        for (int i = first; i < end; ++i) {
            const RvoDataReference &ref = refs[size_t(i)];
            if (readAhead) {
                if (i + kReadAhead < end)
                    refs[size_t(i + kReadAhead)].preload(RvoDataBlockManager::PreloadNormal);
                // A preload that fails leaves the mark set: after a while the
                // accessor loads the block itself.
                const RvoSmartPointer<RvoDataHash> hash = ref.hashPtr();
                const Clock::time_point waitStart = Clock::now();
                while (hash->isPreloading() && secondsSince(waitStart) < 2.0)
                    QThread::usleep(20);
            }
            const RvoConstAccessor accessor = ref.constAccessor();
            const QByteArray &tile = expected[size_t(i - first)];
            if (accessor.size() != tile.size()
                || std::memcmp(accessor.data(), tile.constData(), size_t(tile.size())) != 0)
                ++*mismatches;
        }
        // Nothing of this chunk is still being decoded while the next one
        // is made.
        QThreadPool::globalInstance()->waitForDone();
        seconds += secondsSince(start);
        *cpuSeconds += BenchClock::process() - cpuStart;
    }
    return seconds;
}

void BM_IngestAndReadBack(benchmark::State &state)
{
    const Mode mode = Mode(state.range(0));
    const int count = g_Tiles;
    QLoggingCategory::setFilterRules(QStringLiteral("rvoddi.debug=false"));
    const StageCosts &stages = stageCosts();

    double generateSeconds = 0;
    double ingestSeconds = 0;
    double waitSeconds = 0;
    double readSeconds = 0;
    double readAheadSeconds = 0;
    double ingestCpu = 0;
    double readAheadCpu = 0;
    std::pair<double, double> writerCpu;
    std::pair<double, double> poolCpu;
    std::pair<double, double> saverCpu;
    std::pair<double, double> callerCpu;
    qint64 mismatches = 0;
    qint64 diskBytes = 0;
    for (auto _ : state) {
        QTemporaryDir dir;
        RvoDataBlockManager &m = RvoDataBlockManager::instance();
        m.setBlockCodec(g_Codec);
        m.setup(QStringList {dir.path()}, kBudget, 10);
        m.setSubCache(QStringLiteral("Ingest"));

        Clock::time_point start = Clock::now();
        std::vector<QByteArray> tiles = makeTiles(0, count);
        generateSeconds = secondsSince(start);

        std::vector<RvoDataReference> refs;
        refs.reserve(size_t(count));
        // Each timed phase starts with no dirty page cache left by what came
        // before (an earlier run's files), as compare_git.sh does for git.
        ::sync();
        const std::map<int, ThreadCpu> cpuBefore = threadCpu();
        start = Clock::now();
        const double cpuStart = BenchClock::process();
        waitSeconds = 0;
        for (int i = 0; i < count; ++i) {
            refs.push_back(m.addBlock(tiles[size_t(i)], RvoModifyAccessor::CacheContent,
                                      !isAsynchronous(mode)));
            // From here the manager holds the only copy.
            tiles[size_t(i)] = QByteArray();
            const Clock::time_point waitStart = Clock::now();
            waitForWriters(m, mode);
            waitSeconds += secondsSince(waitStart);
        }
        // Every hashing job has made its block live before the flush looks
        // for blocks that are not on disk yet.
        for (const RvoDataReference &ref : refs)
            ref.hashPtr();
        m.flush(true, RvoDataBlockManager::AllThreads);
        ingestSeconds = secondsSince(start);
        ingestCpu = BenchClock::process() - cpuStart;
        const std::map<int, ThreadCpu> cpuAfter = threadCpu();
        diskBytes = 0;
        for (QDirIterator it(dir.path(), QDir::Files, QDirIterator::Subdirectories); it.hasNext();)
            diskBytes += QFileInfo(it.next()).size();
        writerCpu = cpuDelta(cpuBefore, cpuAfter, "QThread");
        poolCpu = cpuDelta(cpuBefore, cpuAfter, "Thread (pooled)");
        saverCpu = cpuDelta(cpuBefore, cpuAfter, "rvoddi-save");
        callerCpu = cpuDelta(cpuBefore, cpuAfter, "bench_ingest");
        tiles = std::vector<QByteArray>();

        mismatches = 0;
        ::sync();
        double readCpu = 0;
        readAheadCpu = 0;
        readSeconds = readBack(refs, false, &mismatches, &readCpu);
        readAheadSeconds = readBack(refs, true, &mismatches, &readAheadCpu);

        refs.clear();
        m.cleanUp();
    }
    const double ingestRate = count / ingestSeconds;
    const double readRate = count / readSeconds;
    const double readAheadRate = count / readAheadSeconds;
    state.counters["tiles"] = count;
    state.counters["generate_s"] = generateSeconds;
    state.counters["ingest_s"] = ingestSeconds;
    state.counters["ingest_tiles_per_s"] = ingestRate;
    state.counters["backpressure_wait_s"] = waitSeconds;
    // During the ingest: the read thread is idle, so the IO threads' CPU is
    // the write thread's.
    state.counters["io_threads_cpu_s"] = writerCpu.first;
    state.counters["io_threads_sys_s"] = writerCpu.second;
    state.counters["pool_cpu_s"] = poolCpu.first;
    state.counters["saver_cpu_s"] = saverCpu.first;
    state.counters["saver_sys_s"] = saverCpu.second;
    state.counters["caller_cpu_s"] = callerCpu.first;
    state.counters["read_s"] = readSeconds;
    state.counters["read_tiles_per_s"] = readRate;
    state.counters["read_ahead_tiles_per_s"] = readAheadRate;
    state.counters["mismatches"] = double(mismatches);
    state.counters["disk_bytes_per_tile"] = double(diskBytes) / count;
    // The CPU the whole process used per tile while timed, and the rate all
    // cores would give at that cost: the limit as the run itself ran.
    state.counters["ingest_cpu_ms"] = ingestCpu * 1e3 / count;
    state.counters["read_ahead_cpu_ms"] = readAheadCpu * 1e3 / count;
    state.counters["stage_hash_ms"] = stages.hash;
    state.counters["stage_compress_ms"] = stages.compress;
    state.counters["stage_write_ms"] = stages.write;
    state.counters["stage_read_ms"] = stages.read;
    state.counters["stage_decode_ms"] = stages.decode;
    state.counters["cores"] = stages.cores;
    state.counters["ingest_limit_tiles_per_s"] = stages.ingestLimit();
    state.counters["ingest_of_limit"] = ingestRate / stages.ingestLimit();
    state.counters["read_limit_tiles_per_s"] = stages.readLimit();
    state.counters["read_ahead_of_limit"] = readAheadRate / stages.readLimit();
    if (mismatches != 0)
        state.SkipWithError("read-back differs from the tiles added");
    results().push_back({modeName(mode), ingestRate, readRate, readAheadRate, mismatches,
                         stages.ingestLimit(), stages.readLimit(), ingestCpu * 1e3 / count,
                         readAheadCpu * 1e3 / count});
}

// Writes tiles 0..count-1 as DIR/tile-00000.bin, ... for the git baseline.
int writeTiles(const QString &directory, int count)
{
    if (!QDir().mkpath(directory)) {
        std::fprintf(stderr, "bench_ingest: cannot create %s\n", qPrintable(directory));
        return 1;
    }
    bool ok = true;
    for (int first = 0; first < count && ok; first += kReadChunk) {
        const int chunk = std::min(kReadChunk, count - first);
        const std::vector<QByteArray> tiles = makeTiles(first, chunk);
        for (int k = 0; k < chunk && ok; ++k) {
            QFile file(directory
                       + QStringLiteral("/tile-%1.bin").arg(first + k, 5, 10, QLatin1Char('0')));
            ok = file.open(QIODevice::WriteOnly)
                    && file.write(tiles[size_t(k)]) == tiles[size_t(k)].size();
        }
    }
    if (!ok) {
        std::fprintf(stderr, "bench_ingest: cannot write the tiles into %s\n",
                     qPrintable(directory));
        return 1;
    }
    return 0;
}

bool parseCount(const char *text, int *count)
{
    char *end = nullptr;
    const long value = std::strtol(text, &end, 10);
    if (!end || *end != '\0' || value < 1 || value > 1000000)
        return false;
    *count = int(value);
    return true;
}

} // namespace

// The mode the tiles-per-second comparison with git uses is registered first
// (see RESULTS.md for the choice); the others are for comparison.
BENCHMARK(BM_IngestAndReadBack)
        ->ArgName("mode")
        ->Arg(AsyncPollFull)
        ->Arg(AsyncProcessIO)
        ->Arg(SyncProcessIO)
        ->Arg(SyncPollFull)
        ->Iterations(1)
        ->Unit(benchmark::kSecond)
        ->UseRealTime();

// BENCHMARK_MAIN, with this program's own options taken out first.
int main(int argc, char **argv)
{
    std::vector<char *> rest {argv[0]};
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--write-tiles") == 0) {
            int count = 0;
            if (i + 2 >= argc || !parseCount(argv[i + 2], &count)) {
                std::fprintf(stderr, "usage: bench_ingest --write-tiles DIR N\n");
                return 2;
            }
            return writeTiles(QString::fromLocal8Bit(argv[i + 1]), count);
        }
        if (std::strcmp(argv[i], "--codec") == 0) {
            g_Codec = i + 1 < argc ? QString::fromLocal8Bit(argv[i + 1]) : QString();
            QString error;
            if (i + 1 >= argc || !RvoBlockCodecSetting::parse(g_Codec, nullptr, &error)) {
                std::fprintf(stderr, "bench_ingest: %s\n", qPrintable(error));
                return 2;
            }
            ++i;
            continue;
        }
        if (std::strcmp(argv[i], "--tiles") == 0) {
            if (i + 1 >= argc || !parseCount(argv[i + 1], &g_Tiles)) {
                std::fprintf(stderr, "usage: bench_ingest [--tiles N] [benchmark options]\n");
                return 2;
            }
            ++i;
            continue;
        }
        rest.push_back(argv[i]);
    }
    int restCount = int(rest.size());
    rest.push_back(nullptr);
    benchmark::Initialize(&restCount, rest.data());
    if (benchmark::ReportUnrecognizedArguments(restCount, rest.data()))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();

    // One line per run, for scripts: name, tiles per second, mismatches,
    // the limits of all cores (see the top of this file).
    for (const Result &r : results()) {
        std::printf("RESULT %s tiles %d ingest_tiles_per_s %.1f read_tiles_per_s %.1f "
                    "read_ahead_tiles_per_s %.1f mismatches %lld ingest_limit_tiles_per_s %.1f "
                    "read_limit_tiles_per_s %.1f ingest_cpu_ms %.3f read_ahead_cpu_ms %.3f\n",
                    r.mode.c_str(), g_Tiles, r.ingestRate, r.readRate, r.readAheadRate,
                    r.mismatches, r.ingestLimit, r.readLimit, r.ingestCpuMs, r.readAheadCpuMs);
    }
    if (!results().empty()) {
        const StageCosts &s = stageCosts();
        std::printf("STAGES cores %d hash_ms %.3f compress_ms %.3f write_ms %.3f read_ms %.3f "
                    "decode_ms %.3f size_vs_qcompress2 %.4f codec %s\n",
                    s.cores, s.hash, s.compress, s.write, s.read, s.decode, s.sizeVsQCompress2,
                    qPrintable(codecSetting().toString()));
    }
    return 0;
}
