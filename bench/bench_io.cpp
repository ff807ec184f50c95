// The disk tier against what a caller would otherwise do, in the same run:
//  - writing 256 KiB image-like tiles through a write thread, against a plain
//    loop of qCompress(data, 2) and a file write (files per second);
//  - loading those files with loadBlock, decoding on the thread pool, against
//    a plain loop of file read and qUncompress (blocks per second);
//  - the CPU an idle manager with four roots uses over 10 seconds, against
//    one thread polling an empty queue.
//
// bench_io --benchmark_repetitions=3 --benchmark_report_aggregates_only=true

#include "RvoDataBlock.h"
#include "RvoDataBlockManagerReadThread_p.h"
#include "RvoDataBlockManagerWriteThread_p.h"
#include "RvoDataBlockManager_p.h"
#include "RvoHashManager.h"
#include "support/BenchClock.h"
#include "support/ImageTiles.h"

#include <QDir>
#include <QFile>
#include <QLoggingCategory>
#include <QTemporaryDir>
#include <QThread>

#include <benchmark/benchmark.h>

#include <atomic>
#include <ctime>
#include <thread>
#include <vector>

namespace {

// The manager's side of the disk threads, which the benchmarks make by hand.
RvoDiskHost &diskHost()
{
    return RvoDataBlockManager::Private::of(RvoDataBlockManager::instance());
}

constexpr int kTiles = 64;
constexpr int kTileSize = 256 * 1024;

struct Tile
{
    QByteArray bytes;
    RvoSmartPointer<RvoDataHash> hash;
};

const std::vector<Tile> &tiles()
{
    static const std::vector<Tile> all = [] {
        QLoggingCategory::setFilterRules(QStringLiteral("rvoddi.debug=false"));
        std::vector<Tile> v;
        for (int i = 0; i < kTiles; ++i) {
            Tile tile;
            tile.bytes = makeImageLikeTile(i, kTileSize);
            tile.hash = RvoHashManager::instance().getHash(tile.bytes);
            v.push_back(tile);
        }
        return v;
    }();
    return all;
}

void countFiles(benchmark::State &state)
{
    state.counters["files_per_second"]
            = benchmark::Counter(double(kTiles), benchmark::Counter::kIsIterationInvariantRate);
}

void BM_WriteBaseline_qCompressAndFileWrite(benchmark::State &state)
{
    const std::vector<Tile> &all = tiles();
    for (auto _ : state) {
        state.PauseTiming();
        QTemporaryDir dir;
        state.ResumeTiming();
        for (const Tile &tile : all) {
            const QByteArray payload = qCompress(tile.bytes, 2);
            QFile file(dir.path() + QLatin1Char('/') + tile.hash->toString());
            file.open(QIODevice::WriteOnly);
            const qint64 size = tile.bytes.size();
            const qint32 length = qint32(payload.size());
            file.write(reinterpret_cast<const char *>(&size), 8);
            file.write(reinterpret_cast<const char *>(&length), 4);
            file.write(payload);
        }
        state.PauseTiming(); // the temporary directory is removed untimed
        dir.remove();
        state.ResumeTiming();
    }
    countFiles(state);
}

void BM_WriteThread_writeBlock(benchmark::State &state)
{
    const std::vector<Tile> &all = tiles();
    for (auto _ : state) {
        state.PauseTiming();
        QTemporaryDir dir;
        RvoDataBlockManagerWriteThread writer(diskHost(), dir.path(), 10, 10, nullptr);
        writer.start();
        state.ResumeTiming();
        for (const Tile &tile : all)
            writer.writeBlock(RvoDataBlockManager::PreloadNormal, tile.hash,
                              new RvoDataBlock(tile.bytes), true);
        writer.flush();
        state.PauseTiming();
        writer.closeDown();
        writer.wait();
        dir.remove();
        state.ResumeTiming();
    }
    countFiles(state);
}

// Block files of every tile, written once for the read benchmarks.
const QString &writtenRoot()
{
    static QTemporaryDir dir;
    static const bool written = [] {
        RvoDataBlockManagerWriteThread writer(diskHost(), dir.path(), 10, 10, nullptr);
        writer.start();
        for (const Tile &tile : tiles())
            writer.writeBlock(RvoDataBlockManager::PreloadNormal, tile.hash,
                              new RvoDataBlock(tile.bytes), true);
        writer.flush();
        writer.closeDown();
        writer.wait();
        return true;
    }();
    Q_UNUSED(written);
    static const QString path = dir.path();
    return path;
}

QStringList writtenFiles()
{
    QStringList files;
    const QString root = writtenRoot();
    for (int bucket = 0; bucket < 10; ++bucket) {
        const QDir dir(root + QStringLiteral("/%1").arg(bucket));
        for (const QString &name : dir.entryList(QDir::Files))
            files.append(dir.filePath(name));
    }
    return files;
}

void BM_ReadBaseline_FileReadAndqUncompress(benchmark::State &state)
{
    const QStringList files = writtenFiles();
    for (auto _ : state) {
        for (const QString &path : files) {
            QFile file(path);
            file.open(QIODevice::ReadOnly);
            const QByteArray bytes = file.readAll();
            QByteArray data = qUncompress(bytes.mid(12));
            benchmark::DoNotOptimize(data.data());
        }
    }
    state.counters["blocks_per_second"] = benchmark::Counter(
            double(files.size()), benchmark::Counter::kIsIterationInvariantRate);
}

void BM_ReadThread_loadBlock(benchmark::State &state)
{
    writtenRoot();
    RvoDataBlockManagerReadThread reader(diskHost(), writtenRoot(), 10, 50, nullptr);
    const std::vector<Tile> &all = tiles();
    std::vector<QFuture<RvoDataBlock *>> futures;
    futures.reserve(all.size());
    for (auto _ : state) {
        futures.clear();
        for (const Tile &tile : all)
            futures.push_back(reader.loadBlock(tile.hash, false));
        for (QFuture<RvoDataBlock *> &future : futures)
            delete RvoDataBlockManagerReadThread::waitForBlock(future);
    }
    state.counters["blocks_per_second"]
            = benchmark::Counter(double(all.size()), benchmark::Counter::kIsIterationInvariantRate);
}

// What one idle IO thread would cost if it polled its queue, sleeping 10
// microseconds between looks (the design the waits replace), over 2 seconds.
void BM_IdleBaseline_OnePollingThread(benchmark::State &state)
{
    double percent = 0;
    for (auto _ : state) {
        std::atomic<bool> stop {false};
        const double before = BenchClock::process();
        std::thread poller([&stop] {
            while (!stop.load(std::memory_order_relaxed))
                QThread::usleep(10);
        });
        QThread::sleep(2);
        stop.store(true);
        poller.join();
        percent = (BenchClock::process() - before) / 2.0 * 100.0;
    }
    state.counters["cpu_percent_of_a_core"] = percent;
}

void BM_IdleManagerWithFourRoots(benchmark::State &state)
{
    QTemporaryDir dir;
    QStringList roots;
    for (int i = 0; i < 4; ++i)
        roots.append(dir.path() + QStringLiteral("/root%1").arg(i));
    RvoDataBlockManager &manager = RvoDataBlockManager::instance();
    manager.setup(roots, -1, 10);
    manager.setSubCache(QStringLiteral("Idle"));
    double percent = 0;
    for (auto _ : state) {
        const double before = BenchClock::process();
        QThread::sleep(10);
        percent = (BenchClock::process() - before) / 10.0 * 100.0;
    }
    state.counters["cpu_percent_of_a_core"] = percent;
    manager.cleanUp();
}

} // namespace

BENCHMARK(BM_WriteBaseline_qCompressAndFileWrite)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_WriteThread_writeBlock)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_ReadBaseline_FileReadAndqUncompress)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_ReadThread_loadBlock)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_IdleBaseline_OnePollingThread)->Iterations(1)->Unit(benchmark::kSecond)->UseRealTime();
BENCHMARK(BM_IdleManagerWithFourRoots)->Iterations(1)->Unit(benchmark::kSecond)->UseRealTime();

BENCHMARK_MAIN();
