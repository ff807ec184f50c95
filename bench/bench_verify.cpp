// rvoddi verify's engine (RvoVerifier) on 1 and 2 threads: each block file
// is read, its header checked, its payload decoded and its bytes hashed.
// The cache is 256 block files of 256 KiB image-like tiles, written by the
// library's own save path into a temporary root; after the first pass they
// are in the page cache, so the figures are decode-and-hash rates, not
// disk rates. Throughput counts uncompressed bytes.
//
// bench_verify --benchmark_repetitions=5 --benchmark_report_aggregates_only=true

#include "RvoBlockCodec_p.h"
#include "RvoBlockSaver_p.h"
#include "RvoDataHash.h"
#include "RvoDiskLayout_p.h"
#include "RvoVerifier.h"
#include "support/ImageTiles.h"

#include <QDir>
#include <QFileInfo>
#include <QTemporaryDir>

#include <benchmark/benchmark.h>

namespace {

constexpr int FileCount = 256;
constexpr int TileSize = 256 * 1024;

struct Cache
{
    QTemporaryDir dir;
    QVector<QString> paths;
    QVector<qint64> lengths;

    Cache()
    {
        RvoBlockCodec codec;
        for (int i = 0; i < FileCount; ++i) {
            const QByteArray tile = makeImageLikeTile(i, TileSize);
            const RvoDataHash hash(tile, RvoDataHash::Skein512);
            QString directory, name;
            buildFilename(&hash, dir.path(), QStringLiteral("bench"), 10, directory, name);
            RvoBlockSaver::save(codec, tile, directory, name);
            const QString path = QDir::cleanPath(directory + QLatin1Char('/') + name);
            paths.append(path);
            lengths.append(QFileInfo(path).size());
        }
    }
};

const Cache &cache()
{
    static const Cache instance;
    return instance;
}

void BM_Verify(benchmark::State &state)
{
    const Cache &files = cache();
    const int jobs = int(state.range(0));
    qint64 bad = 0;
    double cpu = 0, slowest = 0;
    for (auto _ : state) {
        const RvoVerifier::Result result = RvoVerifier::run(files.paths, files.lengths, jobs);
        bad += result.bad.size();
        double most = 0;
        for (double seconds : result.threadCpuSeconds) {
            cpu += seconds;
            most = qMax(most, seconds);
        }
        slowest += most;
    }
    // Per pass: the CPU seconds of all threads, and of the thread that
    // worked longest. On a machine whose cores are busy with other work the
    // wall time shows the share the pass got; the slowest thread's CPU time
    // is the wall time the pass takes with a core per thread.
    state.counters["cpu_s"] = cpu / double(state.iterations());
    state.counters["slowest_thread_cpu_s"] = slowest / double(state.iterations());
    if (bad != 0)
        state.SkipWithError("bad block files");
    state.SetBytesProcessed(int64_t(state.iterations()) * FileCount * TileSize);
    state.SetItemsProcessed(int64_t(state.iterations()) * FileCount);
}
BENCHMARK(BM_Verify)->ArgName("jobs")->Arg(1)->Arg(2)->UseRealTime()->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
