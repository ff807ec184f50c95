// rvoddi-soak [MINUTES]: eight threads add, read, preload, copy and drop
// blocks through a 4 MiB budget on two roots with garbage collection on, for
// MINUTES (default 2), while another flushes and frees every block.
// Blocks leave memory, are collected from disk once dropped and come back
// when their content is added again, all the time. At the end every
// reference is gone: the registry's digest count, the digest objects and the
// live bytes must be back where they started, every read must have given the
// bytes that were added, every unchanged copy its source's digest, and the
// library must have printed no report line. Exits 0 when all of that holds.
// Figures go to standard error; standard output is the library's report
// channel and is captured.

#include "ManagerTestAccess.h"

#include <QCoreApplication>
#include <QLoggingCategory>
#include <QThreadPool>

#include <cstdio>
#include <cstring>
#include <random>
#include <utility>

namespace {

constexpr int kThreads = 8;
constexpr int kSeeds = 256; // distinct contents; threads add the same ones
constexpr int kHeldPerThread = 48;
constexpr qint64 kBudget = 4 << 20;
constexpr auto CacheContent = RvoModifyAccessor::CacheContent;

struct Counters
{
    std::atomic<qint64> adds {0}, reads {0}, preloads {0}, copies {0}, drops {0}, frees {0},
            wrong {0};
};

void work(int id, qint64 endMs, const QElapsedTimer &clock, const std::vector<QByteArray> &contents,
          Counters &counters)
{
    RvoDataBlockManager &manager = RvoDataBlockManager::instance();
    std::mt19937 random(quint32(id) * 7919u + 1u);
    std::vector<std::pair<RvoDataReference, int>> held;
    while (clock.elapsed() < endMs) {
        const int action = int(random() % 100);
        if (held.empty() || (action < 30 && held.size() < kHeldPerThread)) {
            const int seed = int(random() % kSeeds);
            const bool sync = random() & 1;
            held.emplace_back(manager.addBlock(contents[size_t(seed)], CacheContent, sync), seed);
            ++counters.adds;
            if (id % 2) // the others ignore back-pressure, as a careless host would
                manager.processIO();
        } else if (action < 70) {
            const auto &[ref, seed] = held[random() % held.size()];
            const RvoConstAccessor accessor = ref.constAccessor();
            const QByteArray &expected = contents[size_t(seed)];
            if (accessor.size() != expected.size()
                || std::memcmp(accessor.data(), expected.constData(), size_t(expected.size()))
                        != 0) {
                ++counters.wrong;
                std::fprintf(stderr, "soak: seed %d read as %lld bytes, not its %lld\n", seed,
                             qint64(accessor.size()), qint64(expected.size()));
            }
            ++counters.reads;
        } else if (action < 80) {
            held[random() % held.size()].first.preload(
                    RvoDataBlockManager::PreloadPriority(random() % 3));
            ++counters.preloads;
        } else if (action < 85) {
            // A copy released unchanged is the same content: the same digest.
            RvoDataReference source = held[random() % held.size()].first;
            RvoModifyAccessor copy = source.modifyAccessor();
            counters.wrong += copy.release(CacheContent, true) != source;
            ++counters.copies;
        } else {
            std::swap(held[random() % held.size()], held.back());
            held.pop_back();
            ++counters.drops;
        }
    }
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    QLoggingCategory::setFilterRules("rvoddi.debug=false");
    const double minutes = argc > 1 ? QString::fromLocal8Bit(argv[1]).toDouble() : 2.0;
    if (minutes <= 0) {
        std::fprintf(stderr, "usage: rvoddi-soak [MINUTES]\n");
        return 2;
    }
    std::vector<QByteArray> contents; // 4 KiB to 244 KiB a seed, made once and only read
    for (int seed = 0; seed < kSeeds; ++seed)
        contents.push_back(testContent(seed, 4096 * (1 + (seed * 7919) % 61)));
    QTemporaryDir first, second;
    RvoDataBlockManager &manager = RvoDataBlockManager::instance();
    RvoHashManager &registry = RvoHashManager::instance();
    Counters counters;
    int hashesBefore = 0, hashesAfter = 0;
    const int objectsBefore = RvoDataHash::hashCount();
    qint64 bytesBefore = 0, bytesAfter = 0;
    QStringList reports;
    qint64 filesWritten = 0, filesRead = 0;
    {
        StdoutCapture capture;
        manager.setup({first.path(), second.path()}, kBudget, 10);
        manager.setSubCache("Soak");
        manager.startGarbageCollection();
        hashesBefore = registry.hashCount();
        bytesBefore = manager.liveBytes();

        QElapsedTimer clock;
        clock.start();
        const qint64 endMs = qint64(minutes * 60000);
        std::vector<std::thread> threads;
        for (int id = 0; id < kThreads; ++id)
            threads.emplace_back(work, id, endMs, std::cref(clock), std::cref(contents),
                                 std::ref(counters));
        // Under the workers, every block is flushed and freed twice a second.
        threads.emplace_back([&] {
            while (clock.elapsed() < endMs) {
                manager.flush(true, RvoDataBlockManager::AllThreads);
                manager.freeAllBlocks();
                ++counters.frees;
                std::this_thread::sleep_for(std::chrono::milliseconds(500));
            }
        });
        for (std::thread &thread : threads)
            thread.join();

        // The last references went with the threads; pending hashing jobs
        // and saves finish, then the counts must return.
        QThreadPool::globalInstance()->waitForDone();
        manager.flush(false, RvoDataBlockManager::AllThreads);
        const auto settled = [&] {
            return registry.hashCount() == hashesBefore && manager.liveBytes() == bytesBefore;
        };
        waitUntil(settled, 30000);
        hashesAfter = registry.hashCount();
        bytesAfter = manager.liveBytes();
        for (int i = 0; i < 2; ++i) {
            filesWritten += RvoDataBlockManagerTestAccess::writeThread(i)->requestsHandled();
            filesRead += RvoDataBlockManagerTestAccess::readThread(i)->requestsHandled();
        }
        manager.stopGarbageCollection();
        manager.cleanUp();
        reports = capture.lines();
    }
    const int objectsAfter = RvoDataHash::hashCount();
    std::fprintf(stderr,
                 "soak: %.1f min, 8 threads, budget %lld bytes: %lld adds, %lld reads, "
                 "%lld preloads, %lld copies, %lld drops, %lld flushes and full frees; "
                 "%lld files written, %lld read; "
                 "%lld wrong results; digests %d -> %d, digest objects %d -> %d; "
                 "live bytes %lld -> %lld; %lld report lines\n",
                 minutes, kBudget, qint64(counters.adds), qint64(counters.reads),
                 qint64(counters.preloads), qint64(counters.copies), qint64(counters.drops),
                 qint64(counters.frees), filesWritten, filesRead, qint64(counters.wrong),
                 hashesBefore, hashesAfter, objectsBefore, objectsAfter, bytesBefore, bytesAfter,
                 qint64(reports.size()));
    for (const QString &line : std::as_const(reports))
        std::fprintf(stderr, "report: %s\n", qPrintable(line));
    const bool passed = counters.wrong == 0 && hashesAfter == hashesBefore
            && objectsAfter == objectsBefore && bytesAfter == bytesBefore && reports.isEmpty()
            && counters.reads > 0;
    std::fprintf(stderr, "soak: %s\n", passed ? "passed" : "FAILED");
    return passed ? 0 : 1;
}
