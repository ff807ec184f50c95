// Block payload compression on 256 KiB image-like tiles: qCompress level 2
// and qUncompress (the baseline) against libdeflate writing the same format
// at levels 1 to 6, and RvoBlockCodec itself, all in the same run.
// Throughput counts uncompressed bytes; "ratio" is payload size over input.
//
// bench_codec --benchmark_repetitions=5 --benchmark_report_aggregates_only=true

#include "RvoBlockCodec_p.h"
#include "support/ImageTiles.h"

#include <QByteArray>
#include <QtEndian>

#include <benchmark/benchmark.h>
#include <libdeflate.h>

#include <cstdint>
#include <vector>

namespace {

constexpr int TileCount = 8;
constexpr int TileSize = 256 * 1024;

const std::vector<QByteArray> &tiles()
{
    static const std::vector<QByteArray> all = [] {
        std::vector<QByteArray> v;
        for (int i = 0; i < TileCount; ++i)
            v.push_back(makeImageLikeTile(i, TileSize));
        return v;
    }();
    return all;
}

void report(benchmark::State &state, qint64 payloadBytes)
{
    const double bytes = double(state.iterations()) * TileSize;
    state.SetBytesProcessed(static_cast<int64_t>(bytes));
    // Decimal megabytes per second, next to the binary bytes_per_second.
    state.counters["MB/s"] = benchmark::Counter(bytes / 1e6, benchmark::Counter::kIsRate);
    state.counters["ratio"] = double(payloadBytes) / (double(TileCount) * TileSize);
}

// What RvoBlockCodec::compress does, at any level.
QByteArray libdeflatePayload(libdeflate_compressor *c, const QByteArray &tile)
{
    const size_t bound = libdeflate_zlib_compress_bound(c, size_t(tile.size()));
    QByteArray payload(int(bound) + 4, Qt::Uninitialized);
    uchar *out = reinterpret_cast<uchar *>(payload.data());
    qToBigEndian(quint32(tile.size()), out);
    const size_t n
            = libdeflate_zlib_compress(c, tile.constData(), size_t(tile.size()), out + 4, bound);
    payload.resize(int(n) + 4);
    return payload;
}

qint64 totalSize(const std::vector<QByteArray> &payloads)
{
    qint64 total = 0;
    for (const QByteArray &p : payloads)
        total += p.size();
    return total;
}

void BM_QCompress_Level2(benchmark::State &state)
{
    qint64 payloadBytes = 0;
    for (const QByteArray &tile : tiles())
        payloadBytes += qCompress(tile, 2).size();
    int i = 0;
    for (auto _ : state) {
        QByteArray payload = qCompress(tiles()[i++ % TileCount], 2);
        benchmark::DoNotOptimize(payload.data());
    }
    report(state, payloadBytes);
}

void BM_QUncompress(benchmark::State &state)
{
    std::vector<QByteArray> payloads;
    for (const QByteArray &tile : tiles())
        payloads.push_back(qCompress(tile, 2));
    int i = 0;
    for (auto _ : state) {
        QByteArray block = qUncompress(payloads[i++ % TileCount]);
        if (block.size() != TileSize)
            state.SkipWithError("qUncompress failed");
        benchmark::DoNotOptimize(block.data());
    }
    report(state, totalSize(payloads));
}

void BM_LibdeflateCompress(benchmark::State &state)
{
    libdeflate_compressor *c = libdeflate_alloc_compressor(int(state.range(0)));
    qint64 payloadBytes = 0;
    for (const QByteArray &tile : tiles()) {
        const QByteArray payload = libdeflatePayload(c, tile);
        if (qUncompress(payload) != tile)
            state.SkipWithError("qUncompress does not read the payload");
        payloadBytes += payload.size();
    }
    int i = 0;
    for (auto _ : state) {
        QByteArray payload = libdeflatePayload(c, tiles()[i++ % TileCount]);
        benchmark::DoNotOptimize(payload.data());
    }
    report(state, payloadBytes);
    libdeflate_free_compressor(c);
}

void BM_CodecCompress(benchmark::State &state)
{
    RvoBlockCodec codec;
    qint64 payloadBytes = 0;
    for (const QByteArray &tile : tiles())
        payloadBytes += codec.compress(tile.constData(), tile.size()).size();
    int i = 0;
    for (auto _ : state) {
        const QByteArray &tile = tiles()[i++ % TileCount];
        QByteArray payload = codec.compress(tile.constData(), tile.size());
        benchmark::DoNotOptimize(payload.data());
    }
    report(state, payloadBytes);
    state.SetLabel("level " + std::to_string(RvoBlockCodec::level()));
}

// Decoding with RvoBlockCodec; range(0) is 0 for its own payloads, 1 for
// payloads written by qCompress level 2.
void BM_CodecUncompress(benchmark::State &state)
{
    RvoBlockCodec codec;
    std::vector<QByteArray> payloads;
    for (const QByteArray &tile : tiles())
        payloads.push_back(state.range(0) == 0 ? codec.compress(tile.constData(), tile.size())
                                               : qCompress(tile, 2));
    int i = 0;
    QByteArray block;
    for (auto _ : state) {
        const QByteArray &payload = payloads[i++ % TileCount];
        if (!codec.uncompress(payload.constData(), payload.size(), TileSize, &block))
            state.SkipWithError("uncompress failed");
        benchmark::DoNotOptimize(block.data());
    }
    report(state, totalSize(payloads));
    state.SetLabel(state.range(0) == 0 ? "own payloads" : "qCompress payloads");
}

} // namespace

BENCHMARK(BM_QCompress_Level2);
BENCHMARK(BM_QUncompress);
BENCHMARK(BM_LibdeflateCompress)->DenseRange(1, 6);
BENCHMARK(BM_CodecCompress);
BENCHMARK(BM_CodecUncompress)->Arg(0)->Arg(1);

BENCHMARK_MAIN();
