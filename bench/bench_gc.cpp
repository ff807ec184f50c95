// A collector pass over a sub-cache of 100,000 block files (all live, so the
// pass walks and asks the registry about every file and deletes nothing),
// against a plain recursive listing of the same tree in the same run.
//
// bench_gc --benchmark_repetitions=3 --benchmark_report_aggregates_only=true

#include "RvoDataBlockManager.h"
#include "RvoHashManager.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QLoggingCategory>
#include <QTemporaryDir>

#include <benchmark/benchmark.h>

#include <vector>

namespace {

constexpr int kFiles = 100000;

// The tree and the live digests that keep its files from being collected.
struct Tree
{
    QTemporaryDir dir;
    std::vector<RvoSmartPointer<RvoDataHash>> live;
};

Tree &tree()
{
    static Tree *made = [] {
        QLoggingCategory::setFilterRules(QStringLiteral("rvoddi.debug=false"));
        auto *t = new Tree;
        t->live.reserve(kFiles);
        for (int i = 0; i < 10; ++i)
            QDir().mkpath(t->dir.path() + QStringLiteral("/Bench/%1").arg(i));
        for (int i = 0; i < kFiles; ++i) {
            t->live.push_back(RvoHashManager::instance().getHash(QByteArray::number(i)));
            QFile file(t->dir.path() + QStringLiteral("/Bench/%1/").arg(i % 10)
                       + t->live.back()->toString());
            file.open(QIODevice::WriteOnly);
        }
        RvoDataBlockManager &manager = RvoDataBlockManager::instance();
        manager.setup({t->dir.path()}, -1, 10);
        manager.setSubCache(QStringLiteral("Bench"));
        return t;
    }();
    return *made;
}

void BM_Baseline_RecursiveListing(benchmark::State &state)
{
    const QString root = tree().dir.path() + QStringLiteral("/Bench");
    for (auto _ : state) {
        int files = 0;
        QDirIterator it(root, QDir::Files, QDirIterator::Subdirectories);
        while (it.hasNext()) {
            it.next();
            ++files;
        }
        benchmark::DoNotOptimize(files);
    }
    state.counters["files_per_second"]
            = benchmark::Counter(kFiles, benchmark::Counter::kIsIterationInvariantRate);
}

void BM_CollectorPass(benchmark::State &state)
{
    tree();
    RvoDataBlockManager &manager = RvoDataBlockManager::instance();
    manager.startGarbageCollection();
    for (auto _ : state)
        manager.collectGarbage(nullptr);
    manager.stopGarbageCollection();
    state.counters["files_per_second"]
            = benchmark::Counter(kFiles, benchmark::Counter::kIsIterationInvariantRate);
}

} // namespace

BENCHMARK(BM_Baseline_RecursiveListing)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_CollectorPass)->Unit(benchmark::kMillisecond)->UseRealTime();

BENCHMARK_MAIN();
