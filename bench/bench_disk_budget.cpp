// The disk budget.
//
// BM_TrimPass_100k: one trim pass over a root of 100,000 block files that is
// just over its share: it walks the root, sorts the files by last use and
// deletes the oldest (about 10,000) down to 90 % of the share. CPU time is
// the calling thread's, where the pass runs. Goal: under 2 s.
//
// BM_Ingest_2GiB_Budget512MiB: 2 GiB of incompressible 1 MiB blocks through
// a disk budget of 512 MiB, with the library's own threads. A sampler walks
// the root every 20 ms; max_over_budget is the largest sample (every file
// under the root) divided by the budget (goal: at most 1.10). Every 8th block
// stays referenced and is read back from disk at the end; bad_blocks counts
// those that are missing or differ (goal: 0).
//
// bench_disk_budget --benchmark_counters_tabular=true

#include "RvoCacheScan_p.h"
#include "RvoConstAccessor.h"
#include "RvoDataBlockManager_p.h"
#include "RvoDataReference.h"
#include "RvoGarbageCollectorThread_p.h"
#include "RvoHashManager.h"

#include <QDir>
#include <QFile>
#include <QLoggingCategory>
#include <QTemporaryDir>

#include <benchmark/benchmark.h>

#include <atomic>
#include <cstring>
#include <deque>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// The manager's side of the disk threads, which the benchmarks make by hand.
RvoDiskHost &diskHost()
{
    return RvoDataBlockManager::Private::of(RvoDataBlockManager::instance());
}

constexpr int kFiles = 100000;
constexpr int kFileBytes = 1000;

QString fileName(int i)
{
    return RvoDataHash(QByteArray::number(i), RvoDataHash::Skein512).toString();
}

QString filePath(const QString &root, int i)
{
    return root + QStringLiteral("/Bench/%1/").arg(i % 10) + fileName(i);
}

// Makes file i when it is missing; file i was last used i seconds ago.
void makeFile(const QString &root, int i, const QByteArray &bytes)
{
    const QString path = filePath(root, i);
    const QByteArray encoded = QFile::encodeName(path);
    if (::access(encoded.constData(), F_OK) == 0)
        return;
    QFile file(path);
    file.open(QIODevice::WriteOnly);
    file.write(bytes);
    file.close();
    struct timespec times[2];
    clock_gettime(CLOCK_REALTIME, &times[0]);
    times[0].tv_sec -= i;
    times[1] = times[0];
    utimensat(AT_FDCWD, encoded.constData(), times, 0);
}

void BM_TrimPass_100k(benchmark::State &state)
{
    QLoggingCategory::setFilterRules(QStringLiteral("rvoddi.debug=false"));
    QTemporaryDir dir;
    const QString root = dir.path();
    for (int b = 0; b < 10; ++b)
        QDir().mkpath(root + QStringLiteral("/Bench/%1").arg(b));
    const QByteArray bytes(kFileBytes, 'x');
    for (int i = 0; i < kFiles; ++i)
        makeFile(root, i, bytes);
    const qint64 total = qint64(kFiles) * kFileBytes;

    RvoGarbageCollectorThread collector(diskHost(), root, 10, nullptr); // not started
    collector.setShare(total - 1);
    qint64 deleted = 0;
    for (auto _ : state) {
        state.PauseTiming();
        for (int i = 0; i < kFiles; ++i)
            makeFile(root, i, bytes);
        collector.setShare(total - 1);
        state.ResumeTiming();
        collector.trim();
        state.PauseTiming();
        RvoCacheScan::Options options;
        deleted = kFiles - RvoCacheScan::scanRoot(root, options).blockFileCount();
        state.ResumeTiming();
    }
    state.counters["files"] = kFiles;
    state.counters["deleted"] = double(deleted);
}
BENCHMARK(BM_TrimPass_100k)->Unit(benchmark::kMillisecond)->Iterations(3);

// Incompressible bytes, a function of the block's index.
QByteArray blockContent(int index, int size)
{
    QByteArray bytes(size, Qt::Uninitialized);
    quint64 x = 0x9E3779B97F4A7C15ull * quint64(index + 1);
    for (int i = 0; i + 8 <= size; i += 8) {
        x ^= x << 13;
        x ^= x >> 7;
        x ^= x << 17;
        std::memcpy(bytes.data() + i, &x, 8);
    }
    return bytes;
}

qint64 allBytes(const QString &root)
{
    RvoCacheScan::Options options;
    options.checkHeld = false;
    const RvoCacheScan::Root scan = RvoCacheScan::scanRoot(root, options);
    qint64 sum = 0;
    for (const RvoCacheScan::SubCache &subCache : scan.subCaches) {
        sum += subCache.blockBytes;
        for (const RvoCacheScan::OtherFile &file : subCache.temporaryFiles)
            sum += file.bytes;
        for (const RvoCacheScan::OtherFile &file : subCache.otherFiles)
            sum += file.bytes;
    }
    return sum;
}

void BM_Ingest_2GiB_Budget512MiB(benchmark::State &state)
{
    QLoggingCategory::setFilterRules(QStringLiteral("rvoddi.debug=false"));
    constexpr int kBlockBytes = 1 << 20;
    constexpr int kBlocks = 2048;
    constexpr qint64 kBudget = 512ll << 20;
    constexpr int kKeepEvery = 8;
    constexpr int kWindow = 32; // the last blocks stay referenced until saved

    QTemporaryDir dir;
    const QString root = dir.path();
    RvoDataBlockManager &manager = RvoDataBlockManager::instance();
    manager.setMaxDiskCacheSize(kBudget);
    manager.setup({root}, 256ll << 20, 10);
    manager.setSubCache(QStringLiteral("Ingest"));

    std::atomic<bool> stop {false};
    std::atomic<qint64> maxBytes {0};
    std::atomic<int> samples {0};
    std::thread sampler([&] {
        while (!stop.load()) {
            const qint64 bytes = allBytes(root);
            if (bytes > maxBytes.load())
                maxBytes.store(bytes);
            samples.fetch_add(1);
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
    });

    std::vector<std::pair<int, RvoDataReference>> kept;
    for (auto _ : state) {
        std::deque<RvoDataReference> window;
        for (int i = 0; i < kBlocks; ++i) {
            RvoDataReference ref = manager.addBlock(blockContent(i, kBlockBytes),
                                                    RvoModifyAccessor::CacheContent, true);
            if (i % kKeepEvery == 0)
                kept.emplace_back(i, ref);
            window.push_back(ref);
            if (int(window.size()) > kWindow)
                window.pop_front();
            manager.processIO();
        }
        window.clear();
        manager.flush(true, RvoDataBlockManager::AllThreads);
    }
    stop.store(true);
    sampler.join();

    // Read back from disk.
    manager.freeAllBlocks();
    int bad = 0;
    for (const auto &entry : kept) {
        const RvoConstAccessor accessor = entry.second.constAccessor();
        const QByteArray expected = blockContent(entry.first, kBlockBytes);
        if (accessor.isNull() || accessor.size() != expected.size()
            || std::memcmp(accessor.data(), expected.constData(), size_t(expected.size())) != 0)
            ++bad;
    }
    kept.clear();
    state.counters["max_over_budget"] = double(maxBytes.load()) / double(kBudget);
    state.counters["max_MiB"] = double(maxBytes.load()) / 1048576.0;
    state.counters["samples"] = samples.load();
    state.counters["kept_blocks"] = kBlocks / kKeepEvery;
    state.counters["bad_blocks"] = bad;
    state.counters["MiB_per_s"] = benchmark::Counter(double(kBlocks), benchmark::Counter::kIsRate);
    manager.cleanUp();
}
BENCHMARK(BM_Ingest_2GiB_Budget512MiB)->Unit(benchmark::kSecond)->Iterations(1)->UseRealTime();

} // namespace

BENCHMARK_MAIN();
