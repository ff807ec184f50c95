// The memory tier against what it is built on, in the same run:
//  - synchronous addBlock of distinct 256 KiB blocks, against Skein-512 alone
//    on the same bytes (bytes per second); also against Skein-512 timed
//    between the iterations, in the same state of the machine;
//  - asynchronous addBlock from one producer, waiting for every reference,
//    against the synchronous loop on the same blocks;
//    both with content new to the manager (new_content:1, its write thread
//    compresses and writes every block meanwhile) and with content whose
//    block files exist already (new_content:0, the write thread only finds
//    them);
//  - isInMemory (lookup and LRU move) and making and dropping a const accessor
//    (pin and unpin), per operation, with 10,000 and with 1,000,000 live
//    blocks: on a fixed hot set of 1,000 (and 100) references, and at random
//    over every live block;
//  - the bookkeeping bytes per live block (table entry with its LRU links,
//    digest object, block object, registry entry), measured with mallinfo2.
//
// bench_memory --benchmark_repetitions=5 --benchmark_report_aggregates_only=true

#include "RvoConstAccessor.h"
#include "RvoDataBlock.h"
#include "RvoDataBlockManager.h"
#include "RvoDataHash.h"
#include "RvoDataReference.h"
#include "RvoSkein.h"
#include "support/BenchClock.h"
#include "support/ImageTiles.h"

#include <QLoggingCategory>
#include <QTemporaryDir>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <memory>
#include <numeric>
#include <random>
#include <vector>

#include <fcntl.h>
#include <malloc.h>
#include <unistd.h>

namespace {

constexpr int kBlocks = 64; // 16 MiB of 256 KiB blocks per iteration
constexpr int kBlockSize = 256 * 1024;
constexpr qint64 kLargeBudget = 8LL * 1024 * 1024 * 1024; // nothing is evicted
constexpr int kHotSetSize = 1000;
constexpr int kTinyBlockSize = 16;

// The library's debug channel is off before the manager is first made.
[[maybe_unused]] const bool g_DebugSilenced = [] {
    QLoggingCategory::setFilterRules(QStringLiteral("rvoddi.debug=false"));
    return true;
}();

// Distinct image-like blocks, made once, outside every timed region.
std::vector<QByteArray> &largeBlocks()
{
    static std::vector<QByteArray> all = [] {
        std::vector<QByteArray> v;
        for (int i = 0; i < kBlocks; ++i)
            v.push_back(makeImageLikeTile(i, kBlockSize));
        return v;
    }();
    return all;
}

// Writes a value that no earlier iteration used into the first bytes of
// every block, so that each iteration adds content the manager has never
// seen and its write thread really compresses and writes it.
void makeContentNew(std::vector<QByteArray> &blocks)
{
    static quint64 stamp = 0x4D454D42454E4348ull; // away from the tiles' own bytes
    ++stamp;
    for (QByteArray &block : blocks)
        std::memcpy(block.data(), &stamp, sizeof stamp);
}

// The manager set up for one kind of benchmark. The disk benchmarks get one
// root in a temporary directory; the lookup and memory benchmarks get none,
// since with a root every tiny block would become a block file of its own
// and the write thread would still be creating a million files while the
// lookups are timed.
enum class ManagerKind { None, OneRoot, MemoryOnly };

// Tiny blocks kept live for the lookup benchmarks, and a hot set of
// references drawn from them.
struct LiveSet
{
    qint64 size = 0;
    std::vector<RvoDataReference> all;
    std::vector<RvoDataReference> hot;

    void release()
    {
        hot.clear();
        hot.shrink_to_fit();
        all.clear();
        all.shrink_to_fit();
        size = 0;
    }
};

// Holds the live set too, so that the references go before the manager
// does, whichever benchmarks ran.
struct ManagerSession
{
    ManagerKind kind = ManagerKind::None;
    std::unique_ptr<QTemporaryDir> dir;
    LiveSet live;

    ~ManagerSession()
    {
        live.release();
        if (kind != ManagerKind::None)
            RvoDataBlockManager::instance().cleanUp();
    }
};

ManagerSession &session()
{
    // The manager is made first, so that it is destroyed after the session.
    RvoDataBlockManager::instance();
    static ManagerSession s;
    return s;
}

LiveSet &liveSet()
{
    return session().live;
}

void releaseLiveSet()
{
    liveSet().release();
}

RvoDataBlockManager &manager(ManagerKind kind)
{
    RvoDataBlockManager &m = RvoDataBlockManager::instance();
    ManagerSession &s = session();
    if (s.kind == kind)
        return m;
    releaseLiveSet();
    if (s.kind != ManagerKind::None)
        m.cleanUp();
    s.dir.reset();
    if (kind == ManagerKind::OneRoot) {
        s.dir = std::make_unique<QTemporaryDir>();
        m.setup(QStringList {s.dir->path()}, kLargeBudget, 10);
        m.setSubCache(QStringLiteral("Memory"));
    } else {
        m.setup(QStringList(), kLargeBudget, 10);
    }
    s.kind = kind;
    return m;
}

// Without a root, every new block reports that it has no disk to go to. The
// report goes to stdout, so stdout points at /dev/null while such blocks are
// added; the benchmark's own output is flushed before and after.
class QuietStdout
{
public:
    QuietStdout()
    {
        std::cout.flush();
        std::fflush(stdout);
        m_Saved = ::dup(STDOUT_FILENO);
        const int null = ::open("/dev/null", O_WRONLY);
        ::dup2(null, STDOUT_FILENO);
        ::close(null);
    }
    ~QuietStdout()
    {
        std::fflush(stdout);
        ::dup2(m_Saved, STDOUT_FILENO);
        ::close(m_Saved);
    }
    QuietStdout(const QuietStdout &) = delete;
    QuietStdout &operator=(const QuietStdout &) = delete;

private:
    int m_Saved = -1;
};

// --- Adding 256 KiB blocks --------------------------------------------------

// MB/s: 10^6 bytes per second of timed time.
void countBytes(benchmark::State &state)
{
    const double bytes = double(state.iterations()) * kBlocks * kBlockSize;
    state.counters["MB/s"] = benchmark::Counter(bytes / 1e6, benchmark::Counter::kIsRate);
}

void hashAll(const std::vector<QByteArray> &blocks)
{
    unsigned char digest[64];
    for (const QByteArray &block : blocks) {
        RvoSkein::Hash(512, reinterpret_cast<const unsigned char *>(block.constData()),
                       quint64(block.size()) * 8, digest);
        benchmark::DoNotOptimize(digest);
    }
}

void BM_Skein512_Baseline(benchmark::State &state)
{
    const std::vector<QByteArray> &blocks = largeBlocks();
    for (auto _ : state)
        hashAll(blocks);
    countBytes(state);
}

// The calling thread's time on a CPU and time runnable but waiting for one,
// in nanoseconds, from Linux's /proc/thread-self/schedstat (zeros elsewhere).
// The wait is time other threads took from the caller's core.
struct SchedStat
{
    double run = 0;
    double wait = 0;
    static SchedStat read()
    {
        SchedStat s;
        if (FILE *f = std::fopen("/proc/thread-self/schedstat", "r")) {
            if (std::fscanf(f, "%lf %lf", &s.run, &s.wait) != 2)
                s = SchedStat();
            std::fclose(f);
        }
        return s;
    }
};

// The CPU the whole process (caller, pool, IO threads) used during the timed
// parts, in cores: near 2 means both cores were busy; and the calling
// thread's running and waiting time per iteration, in ms.
struct CoreUse
{
    SchedStat schedStart;
    SchedStat sched;
    double cpu = 0;
    double wall = 0;
    double cpuStart = 0;
    double wallStart = 0;
    void start()
    {
        cpuStart = BenchClock::process();
        wallStart = BenchClock::wall();
        schedStart = SchedStat::read();
    }
    void stop()
    {
        cpu += BenchClock::process() - cpuStart;
        wall += BenchClock::wall() - wallStart;
        const SchedStat now = SchedStat::read();
        sched.run += now.run - schedStart.run;
        sched.wait += now.wait - schedStart.wait;
    }
    void report(benchmark::State &state) const
    {
        state.counters["cores_used"] = wall > 0 ? cpu / wall : 0;
        state.counters["caller_run_ms"] = sched.run / 1e6 / double(state.iterations());
        state.counters["caller_wait_ms"] = sched.wait / 1e6 / double(state.iterations());
    }
};

// Skein-512 alone on the blocks, timed by hand between the iterations of an
// add benchmark: a second baseline taken in the same state of the machine
// (caches, the disk copies just written) as the adds that follow it.
struct SameStateSkein
{
    double seconds = 0;
    qint64 bytes = 0;
    void measure(const std::vector<QByteArray> &blocks)
    {
        const double start = BenchClock::wall();
        hashAll(blocks);
        seconds += BenchClock::wall() - start;
        bytes += qint64(blocks.size()) * kBlockSize;
    }
    // addSeconds: the timed time of the adds.
    void report(benchmark::State &state, double addSeconds) const
    {
        if (seconds <= 0 || addSeconds <= 0)
            return;
        const double rate = double(bytes) / seconds;
        const double addRate = double(state.iterations()) * kBlocks * kBlockSize / addSeconds;
        state.counters["skein_same_state_MB/s"] = rate / 1e6;
        state.counters["ratio_to_skein_same_state"] = addRate / rate;
    }
};

// Between iterations, untimed: the references are gone and the write thread
// has finished the disk copies, which frees the blocks, so memory stays flat.
// With newContent the next iteration's blocks get fresh content.
void betweenIterations(benchmark::State &state, RvoDataBlockManager &m,
                       std::vector<QByteArray> &blocks, bool newContent, CoreUse &use,
                       SameStateSkein *skein = nullptr)
{
    use.stop();
    state.PauseTiming();
    m.flush(false, RvoDataBlockManager::WriteThreads);
    if (newContent)
        makeContentNew(blocks);
    if (skein)
        skein->measure(blocks);
    state.ResumeTiming();
    use.start();
}

// Content already on disk is written once before timing; the write thread
// then only finds each block file present.
void prepareContent(RvoDataBlockManager &m, std::vector<QByteArray> &blocks, bool newContent)
{
    if (newContent) {
        makeContentNew(blocks);
        return;
    }
    {
        std::vector<RvoDataReference> refs;
        for (const QByteArray &block : blocks)
            refs.push_back(m.addBlock(block, RvoModifyAccessor::CacheContent, true));
    }
    m.flush(false, RvoDataBlockManager::WriteThreads);
}

void BM_AddBlockSync(benchmark::State &state)
{
    const bool newContent = state.range(0) != 0;
    std::vector<QByteArray> &blocks = largeBlocks();
    RvoDataBlockManager &m = manager(ManagerKind::OneRoot);
    prepareContent(m, blocks, newContent);
    std::vector<RvoDataReference> refs;
    refs.reserve(blocks.size());
    CoreUse use;
    SameStateSkein skein;
    skein.measure(blocks);
    use.start();
    for (auto _ : state) {
        for (const QByteArray &block : blocks)
            refs.push_back(m.addBlock(block, RvoModifyAccessor::CacheContent, true));
        refs.clear();
        betweenIterations(state, m, blocks, newContent, use, &skein);
    }
    use.stop();
    countBytes(state);
    use.report(state);
    skein.report(state, use.wall);
}

void BM_AddBlockAsync(benchmark::State &state)
{
    const bool newContent = state.range(0) != 0;
    std::vector<QByteArray> &blocks = largeBlocks();
    RvoDataBlockManager &m = manager(ManagerKind::OneRoot);
    prepareContent(m, blocks, newContent);
    std::vector<RvoDataReference> refs;
    refs.reserve(blocks.size());
    CoreUse use;
    use.start();
    for (auto _ : state) {
        for (const QByteArray &block : blocks)
            refs.push_back(m.addBlock(block, RvoModifyAccessor::CacheContent, false));
        for (const RvoDataReference &ref : refs)
            benchmark::DoNotOptimize(ref.hashPtr().data());
        refs.clear();
        betweenIterations(state, m, blocks, newContent, use);
    }
    use.stop();
    countBytes(state);
    use.report(state);
}

// --- Lookups, pins and LRU moves ---------------------------------------------

// Tiny distinct contents: the index, then a constant that keeps them apart
// from the contents of the other benchmarks.
QByteArray tinyContent(quint64 index)
{
    QByteArray bytes(kTinyBlockSize, Qt::Uninitialized);
    const quint64 salt = 0x7469'6e79'626c'6f63ull;
    std::memcpy(bytes.data(), &index, 8);
    std::memcpy(bytes.data() + 8, &salt, 8);
    return bytes;
}

// `count` tiny blocks in memory and in the LRU (kept between benchmarks of
// the same count: building a million takes seconds), and a hot set of
// references drawn from them at random.
const LiveSet &live(qint64 count)
{
    LiveSet &s = liveSet();
    RvoDataBlockManager &m = manager(ManagerKind::MemoryOnly);
    if (s.size == count)
        return s;
    releaseLiveSet();
    s.all.reserve(size_t(count));
    {
        QuietStdout quiet;
        for (qint64 i = 0; i < count; ++i)
            s.all.push_back(
                    m.addBlock(tinyContent(quint64(i)), RvoModifyAccessor::CacheContent, true));
    }
    std::vector<qint64> order(static_cast<size_t>(count));
    std::iota(order.begin(), order.end(), 0);
    std::mt19937_64 random(12345);
    std::shuffle(order.begin(), order.end(), random);
    for (int i = 0; i < kHotSetSize; ++i)
        s.hot.push_back(s.all[size_t(order[size_t(i)])]);
    s.size = count;
    return s;
}

// A cheap generator (xorshift64*) so that picking the next reference costs
// the same few cycles on every set.
struct Picker
{
    quint64 state = 0x9E3779B97F4A7C15ull;
    size_t next(size_t bound)
    {
        state ^= state >> 12;
        state ^= state << 25;
        state ^= state >> 27;
        const quint64 r = (state * 0x2545F4914F6CDD1Dull) >> 32;
        return size_t((r * quint64(bound)) >> 32);
    }
};

struct Targets
{
    const RvoDataReference *refs;
    size_t size;
    const RvoDataReference &pick(Picker &picker) const { return refs[picker.next(size)]; }
};

// range(0): live blocks; range(1): the size of the hot set (the first ones
// of the drawn kHotSetSize), or 0 for every live block.
Targets targets(benchmark::State &state)
{
    const LiveSet &s = live(state.range(0));
    const size_t hot = size_t(std::min<qint64>(state.range(1), kHotSetSize));
    if (hot == 0)
        return {s.all.data(), s.all.size()};
    return {s.hot.data(), hot};
}

void reportLive(benchmark::State &state)
{
    state.SetItemsProcessed(state.iterations());
    state.counters["live_blocks"] = double(RvoDataBlockManager::instance().liveBlocks());
}

void BM_IsInMemory(benchmark::State &state)
{
    const Targets targets = ::targets(state);
    Picker picker;
    for (auto _ : state) {
        const bool inMemory = targets.pick(picker).isInMemory();
        benchmark::DoNotOptimize(inMemory);
    }
    reportLive(state);
}

void BM_PinUnpin(benchmark::State &state)
{
    const Targets targets = ::targets(state);
    Picker picker;
    for (auto _ : state) {
        const RvoConstAccessor accessor = targets.pick(picker).constAccessor();
        benchmark::DoNotOptimize(accessor.data());
    }
    reportLive(state);
}

// The cost of the picking and the reference access alone, for subtraction.
void BM_PickOnly(benchmark::State &state)
{
    const Targets targets = ::targets(state);
    Picker picker;
    for (auto _ : state) {
        const RvoDataReference &ref = targets.pick(picker);
        benchmark::DoNotOptimize(&ref);
    }
    reportLive(state);
}

// --- Bookkeeping bytes per live block ------------------------------------------

// Bytes the allocator has handed out: small chunks from the arenas plus
// large ones mapped on their own (a big hash table's bucket array is one).
qint64 allocatedBytes()
{
    const struct mallinfo2 info = mallinfo2();
    return qint64(info.uordblks) + qint64(info.hblkhd);
}

struct Bookkeeping
{
    double perBlock = 0;
    double payloadChunk = 0;
    bool allLive = false;
};

Bookkeeping measureBookkeeping(qint64 count)
{
    RvoDataBlockManager &m = manager(ManagerKind::MemoryOnly);
    releaseLiveSet();
    Bookkeeping result;
    // The payloads and the vector of references exist before the first
    // measurement, so neither is counted: what is left is the manager's.
    std::vector<QByteArray> payloads;
    payloads.reserve(size_t(count));
    const qint64 beforePayloads = allocatedBytes();
    for (qint64 i = 0; i < count; ++i)
        payloads.push_back(tinyContent(quint64(1'000'000'000 + i)));
    result.payloadChunk = double(allocatedBytes() - beforePayloads) / double(count);
    std::vector<RvoDataReference> refs;
    refs.reserve(size_t(count));
    {
        QuietStdout quiet;
        // One block added and dropped first, so that one-time allocations
        // (stdout's buffer, the tables' first storage) are not counted.
        refs.push_back(m.addBlock(tinyContent(~0ull), RvoModifyAccessor::CacheContent, true));
        refs.clear();
        const qint64 before = allocatedBytes();
        for (const QByteArray &payload : payloads)
            refs.push_back(m.addBlock(payload, RvoModifyAccessor::CacheContent, true));
        const qint64 after = allocatedBytes();
        result.perBlock = double(after - before) / double(count);
    }
    result.allLive = m.liveBlocks() == count;
    return result;
}

void BM_BookkeepingPerBlock(benchmark::State &state)
{
    // Measured once per process, while the manager's tables are fresh: they
    // keep their capacity when blocks leave, so a second measurement in the
    // same process would miss their growth. Repetitions report the same.
    static const Bookkeeping measured = measureBookkeeping(state.range(0));
    for (auto _ : state)
        benchmark::DoNotOptimize(measured.perBlock);
    if (!measured.allLive)
        state.SkipWithError("not every block is live");
    state.counters["bookkeeping_bytes_per_block"] = measured.perBlock;
    state.counters["payload_chunk_bytes"] = measured.payloadChunk;
    state.counters["sizeof_RvoDataHash"] = double(sizeof(RvoDataHash));
    state.counters["sizeof_RvoDataBlock"] = double(sizeof(RvoDataBlock));
    state.counters["sizeof_RvoDataReference"] = double(sizeof(RvoDataReference));
    // What one object of each takes on the heap: the usable size plus the
    // allocator's 8-byte chunk header.
    const std::unique_ptr<RvoDataHash> hash(new RvoDataHash);
    const std::unique_ptr<RvoDataBlock> block(new RvoDataBlock(0, 0));
    state.counters["heap_RvoDataHash"] = double(malloc_usable_size(hash.get()) + 8);
    state.counters["heap_RvoDataBlock"] = double(malloc_usable_size(block.get()) + 8);
}

} // namespace

// The memory measurement comes first, while the manager's tables are still
// small: they keep their capacity after a large set is released.
BENCHMARK(BM_BookkeepingPerBlock)->Arg(100'000)->Iterations(1);

BENCHMARK(BM_Skein512_Baseline)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_AddBlockSync)
        ->ArgName("new_content")
        ->Arg(1)
        ->Arg(0)
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime();
BENCHMARK(BM_AddBlockAsync)
        ->ArgName("new_content")
        ->Arg(1)
        ->Arg(0)
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime();

// Grouped by live count, smaller first, so that each set is built once.
// hot_set: how many references the operations cycle over at random, 0 for
// every live block.
void lookupArgs(benchmark::internal::Benchmark *b, qint64 live, bool smallSet)
{
    b->ArgNames({"live", "hot_set"});
    // Right after a set is built the first run came out slower in trials;
    // a short untimed warm-up keeps that out of the figures.
    b->MinWarmUpTime(0.3);
    b->Args({live, kHotSetSize});
    if (smallSet)
        b->Args({live, 100});
    b->Args({live, 0});
}

BENCHMARK(BM_PickOnly)->Apply([](auto *b) { lookupArgs(b, 10'000, false); });
BENCHMARK(BM_IsInMemory)->Apply([](auto *b) { lookupArgs(b, 10'000, true); });
BENCHMARK(BM_PinUnpin)->Apply([](auto *b) { lookupArgs(b, 10'000, true); });
BENCHMARK(BM_PickOnly)->Apply([](auto *b) { lookupArgs(b, 1'000'000, false); });
BENCHMARK(BM_IsInMemory)->Apply([](auto *b) { lookupArgs(b, 1'000'000, true); });
BENCHMARK(BM_PinUnpin)->Apply([](auto *b) { lookupArgs(b, 1'000'000, true); });

BENCHMARK_MAIN();
