// Ingest with eviction: distinct 256 KiB image-like tiles (2 GiB for the
// default 8192) go through addBlock into a manager with a 256 MiB budget and
// one root, so nearly all of them leave memory for their block files; the
// ingest ends with flush(true, AllThreads), when every block is on disk.
// Then every block is read back through a const accessor, in order, and
// compared byte for byte with the tile made again. Figures: tiles per second
// for each phase, and the number of mismatches (must be 0).
//
// The tiles are made before the clock starts (on both cores) and each one is
// dropped by the benchmark as soon as it is added, so from then on the
// manager holds the only copy. For the read-back they are made again in
// chunks, with the clock stopped while nothing of the manager runs.
//
// bench_ingest [--tiles N] [benchmark options]
// bench_ingest --write-tiles DIR N   writes tiles 0..N-1 as DIR/tile-00000.bin
//                                    and so on (for the git comparison)
//
// bench/compare_git.sh runs the git baseline and this program in one go.

#include "RvoConstAccessor.h"
#include "RvoDataBlockManager.h"
#include "RvoDataReference.h"
#include "support/ImageTiles.h"

#include <QDir>
#include <QFile>
#include <QLoggingCategory>
#include <QTemporaryDir>
#include <QThread>
#include <QThreadPool>
#include <QtConcurrent/QtConcurrentMap>

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <numeric>
#include <string>
#include <vector>

namespace {

constexpr qint64 kBudget = 256LL * 1024 * 1024;
constexpr int kReadChunk = 256; // tiles made again at a time for the comparison

int g_Tiles = 8192;

enum Mode {
    // addBlock hashes on the calling thread; processIO between adds.
    SyncProcessIO = 0,
    // addBlock hashes on the thread pool; processIO between adds.
    AsyncProcessIO = 1,
    // As AsyncProcessIO, but the producer waits in 1 ms steps while
    // isWriteThreadsFull() instead of calling processIO, which sleeps a whole
    // second at a time.
    AsyncPollFull = 2,
};

struct Result
{
    std::string name;
    double ingestRate;
    double readRate;
    qint64 mismatches;
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

// Tiles first .. first + count - 1, made on every core.
std::vector<QByteArray> makeTiles(int first, int count)
{
    std::vector<QByteArray> tiles(size_t(count));
    std::vector<int> indexes(size_t(count));
    std::iota(indexes.begin(), indexes.end(), 0);
    QtConcurrent::blockingMap(indexes,
                              [&tiles, first](int k) { tiles[size_t(k)] = makeImageLikeTile(first + k); });
    return tiles;
}

void waitForWriters(RvoDataBlockManager &m, Mode mode)
{
    if (mode != AsyncPollFull) {
        m.processIO();
        return;
    }
    while (m.isWriteThreadsFull())
        QThread::msleep(1);
}

void BM_IngestAndReadBack(benchmark::State &state)
{
    const Mode mode = Mode(state.range(0));
    const int count = g_Tiles;
    QLoggingCategory::setFilterRules(QStringLiteral("rvoddi.debug=false"));

    double generateSeconds = 0;
    double ingestSeconds = 0;
    double readSeconds = 0;
    qint64 mismatches = 0;
    for (auto _ : state) {
        QTemporaryDir dir;
        RvoDataBlockManager &m = RvoDataBlockManager::instance();
        m.setup(QStringList {dir.path()}, kBudget, 10);
        m.setSubCache(QStringLiteral("Ingest"));

        Clock::time_point start = Clock::now();
        std::vector<QByteArray> tiles = makeTiles(0, count);
        generateSeconds = secondsSince(start);

        std::vector<RvoDataReference> refs;
        refs.reserve(size_t(count));
        start = Clock::now();
        for (int i = 0; i < count; ++i) {
            refs.push_back(m.addBlock(tiles[size_t(i)], RvoModifyAccessor::CacheContent,
                                      mode == SyncProcessIO));
            tiles[size_t(i)] = QByteArray();
            waitForWriters(m, mode);
        }
        // Every hashing job has made its block live before the flush looks
        // for blocks that are not on disk yet.
        for (const RvoDataReference &ref : refs)
            ref.hashPtr();
        m.flush(true, RvoDataBlockManager::AllThreads);
        ingestSeconds = secondsSince(start);
        tiles = std::vector<QByteArray>();

        mismatches = 0;
        readSeconds = 0;
        for (int first = 0; first < count; first += kReadChunk) {
            const int chunk = std::min(kReadChunk, count - first);
            const std::vector<QByteArray> expected = makeTiles(first, chunk);
            start = Clock::now();
            for (int k = 0; k < chunk; ++k) {
                const RvoConstAccessor accessor = refs[size_t(first + k)].constAccessor();
                const QByteArray &tile = expected[size_t(k)];
                if (accessor.size() != tile.size()
                    || std::memcmp(accessor.data(), tile.constData(), size_t(tile.size())) != 0)
                    ++mismatches;
            }
            readSeconds += secondsSince(start);
        }

        refs.clear();
        m.cleanUp();
    }
    const double ingestRate = count / ingestSeconds;
    const double readRate = count / readSeconds;
    state.counters["tiles"] = count;
    state.counters["generate_s"] = generateSeconds;
    state.counters["ingest_s"] = ingestSeconds;
    state.counters["ingest_tiles_per_s"] = ingestRate;
    state.counters["read_s"] = readSeconds;
    state.counters["read_tiles_per_s"] = readRate;
    state.counters["mismatches"] = double(mismatches);
    if (mismatches != 0)
        state.SkipWithError("read-back differs from the tiles added");
    results().push_back({state.name(), ingestRate, readRate, mismatches});
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
            QFile file(directory + QStringLiteral("/tile-%1.bin").arg(first + k, 5, 10, QLatin1Char('0')));
            ok = file.open(QIODevice::WriteOnly) && file.write(tiles[size_t(k)]) == tiles[size_t(k)].size();
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
        ->Arg(AsyncProcessIO)
        ->Arg(SyncProcessIO)
        ->Arg(AsyncPollFull)
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

    // One line per run, for scripts: name, tiles per second, mismatches.
    for (const Result &r : results()) {
        std::printf("RESULT %s tiles %d ingest_tiles_per_s %.1f read_tiles_per_s %.1f "
                    "mismatches %lld\n",
                    r.name.c_str(), g_Tiles, r.ingestRate, r.readRate, r.mismatches);
    }
    return 0;
}
