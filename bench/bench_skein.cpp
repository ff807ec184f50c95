// Throughput of RvoSkein::Hash for the three state sizes against OpenSSL's
// SHA-512 on the same inputs, in the same run.
//
// bench_skein --benchmark_repetitions=5 --benchmark_report_aggregates_only=true

#include "RvoSkein.h"

#include <benchmark/benchmark.h>
#include <openssl/sha.h>

#include <cstdint>
#include <vector>

namespace {

std::vector<unsigned char> makeInput(std::size_t size)
{
    std::vector<unsigned char> data(size);
    for (std::size_t i = 0; i < size; ++i)
        data[i] = static_cast<unsigned char>(i * 131 + 7);
    return data;
}

void reportThroughput(benchmark::State &state, std::size_t size)
{
    const double bytes = double(state.iterations()) * double(size);
    state.SetBytesProcessed(static_cast<int64_t>(bytes));
    // Decimal megabytes per second, next to the binary bytes_per_second.
    state.counters["MB/s"] = benchmark::Counter(bytes / 1e6, benchmark::Counter::kIsRate);
}

void BM_Skein(benchmark::State &state, int hashBits)
{
    const std::size_t size = std::size_t(state.range(0));
    const std::vector<unsigned char> data = makeInput(size);
    unsigned char digest[128];
    for (auto _ : state) {
        RvoSkein::Hash(hashBits, data.data(), quint64(size) * 8, digest);
        benchmark::DoNotOptimize(digest);
        benchmark::ClobberMemory();
    }
    reportThroughput(state, size);
}

void BM_OpenSSL_SHA512(benchmark::State &state)
{
    const std::size_t size = std::size_t(state.range(0));
    const std::vector<unsigned char> data = makeInput(size);
    unsigned char digest[SHA512_DIGEST_LENGTH];
    for (auto _ : state) {
        SHA512(data.data(), size, digest);
        benchmark::DoNotOptimize(digest);
        benchmark::ClobberMemory();
    }
    reportThroughput(state, size);
}

void inputSizes(benchmark::internal::Benchmark *b)
{
    b->Arg(64)->Arg(4 << 10)->Arg(256 << 10)->Arg(1 << 20);
}

} // namespace

BENCHMARK_CAPTURE(BM_Skein, Skein256_256, 256)->Apply(inputSizes);
BENCHMARK_CAPTURE(BM_Skein, Skein512_512, 512)->Apply(inputSizes);
BENCHMARK_CAPTURE(BM_Skein, Skein1024_1024, 1024)->Apply(inputSizes);
BENCHMARK(BM_OpenSSL_SHA512)->Apply(inputSizes);

BENCHMARK_MAIN();
