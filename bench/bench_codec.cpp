// Block payload compression on four kinds of 256 KiB tile, all in one run:
//   image  makeImageLikeTile: 8-bit RGBA, gradients, shapes, a little noise
//   photo  makePhotoLikeTile: textured gradients, noise on every sample
//   half   makeHalfFloatTile: half-float RGBA, scene-linear, noisy low bits
//   noise  makeNoiseTile: random bytes
// zlib writers, each making the same payload (qCompress's 4-byte length,
// then a zlib stream): qCompress level 2 (the baseline), libdeflate level 1,
// ISA-L igzip levels 0 to 3, and RvoBlockCodec itself ("codec", what the
// library writes by default). Readers: qUncompress, libdeflate, ISA-L and
// RvoBlockCodec, each on every zlib writer's payloads.
// LZ4 and Zstandard through RvoBlockCodec, as the library writes and reads
// them: LZ4 unshuffled ("lz4") and after a byte shuffle in elements of 4
// and 8 bytes ("lz4-s4", "lz4-s8"), Zstandard levels -5 to 3 likewise
// ("zstd1", "zstd1-s4", ...), each read by RvoBlockCodec; beside them
// c-blosc 1's LZ4 with its own shuffle ("blosc-lz4-s4", "-s8"), where it is
// installed, as a reference for the shuffle.
// Times are CPU time per tile; MB/s counts uncompressed bytes, "ratio" is
// payload size over input. Every payload is checked to decode byte-exact
// (zlib ones with qUncompress, the others with RvoBlockCodec), and every
// reader's output against the tile, before timing.
//
// bench_codec --benchmark_repetitions=5 --benchmark_report_aggregates_only=true

#include "RvoBlockCodec_p.h"
#include "support/ImageTiles.h"

#include <QByteArray>
#include <QtEndian>

#include <benchmark/benchmark.h>
#include <isa-l/igzip_lib.h>
#include <libdeflate.h>
#ifdef RVODDI_BENCH_BLOSC
#include <blosc.h>
#endif

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace {

constexpr int TileCount = 8;
constexpr int TileSize = 256 * 1024;

struct Input
{
    const char *name;
    QByteArray (*make)(int index, int size);
};
const Input Inputs[] = {{"image", makeImageLikeTile},
                        {"photo", makePhotoLikeTile},
                        {"half", makeHalfFloatTile},
                        {"noise", makeNoiseTile}};

const std::vector<QByteArray> &tiles(const Input &input)
{
    static std::vector<std::vector<QByteArray>> made(std::size(Inputs));
    std::vector<QByteArray> &v = made[size_t(&input - Inputs)];
    if (v.empty()) {
        for (int i = 0; i < TileCount; ++i)
            v.push_back(input.make(i, TileSize));
    }
    return v;
}

QByteArray withLengthField(qint64 size, const uchar *stream, size_t length)
{
    QByteArray payload(int(length) + 4, Qt::Uninitialized);
    qToBigEndian(quint32(size), payload.data());
    memcpy(payload.data() + 4, stream, length);
    return payload;
}

// A writer makes one payload; it owns whatever working state it needs.
using Writer = std::function<QByteArray(const QByteArray &)>;
// A reader decodes one payload into out (which holds TileSize bytes).
using Reader = std::function<bool(const QByteArray &, QByteArray *)>;

Writer libdeflateWriter(int level)
{
    std::shared_ptr<libdeflate_compressor> c(libdeflate_alloc_compressor(level),
                                             libdeflate_free_compressor);
    auto buffer = std::make_shared<std::vector<uchar>>();
    return [c, buffer](const QByteArray &tile) {
        buffer->resize(libdeflate_zlib_compress_bound(c.get(), size_t(tile.size())));
        const size_t n = libdeflate_zlib_compress(c.get(), tile.constData(), size_t(tile.size()),
                                                  buffer->data(), buffer->size());
        return withLengthField(tile.size(), buffer->data(), n);
    };
}

// ISA-L's level buffer holds the matches found before each deflate block is
// coded: the larger it is, the longer the blocks and the fewer the Huffman
// tables fitted to the data. "Default" is ISAL_DEF_LVLx_DEFAULT (64 Ki
// tokens), "small" ISAL_DEF_LVLx_SMALL (16 Ki tokens).
Writer isalWriter(int level, bool small)
{
    static const uint32_t Default[] = {ISAL_DEF_LVL0_DEFAULT, ISAL_DEF_LVL1_DEFAULT,
                                       ISAL_DEF_LVL2_DEFAULT, ISAL_DEF_LVL3_DEFAULT};
    static const uint32_t Small[]
            = {ISAL_DEF_LVL0_SMALL, ISAL_DEF_LVL1_SMALL, ISAL_DEF_LVL2_SMALL, ISAL_DEF_LVL3_SMALL};
    auto levelBuffer = std::make_shared<std::vector<uint8_t>>((small ? Small : Default)[level]);
    auto stream = std::make_shared<isal_zstream>();
    auto out = std::make_shared<std::vector<uchar>>();
    return [=](const QByteArray &tile) {
        out->resize(size_t(tile.size()) + size_t(tile.size()) / 8 + 1024);
        isal_zstream &s = *stream;
        isal_deflate_stateless_init(&s);
        s.level = uint32_t(level);
        s.level_buf = levelBuffer->empty() ? nullptr : levelBuffer->data();
        s.level_buf_size = uint32_t(levelBuffer->size());
        s.gzip_flag = IGZIP_ZLIB;
        s.end_of_stream = 1;
        s.next_in = reinterpret_cast<uint8_t *>(const_cast<char *>(tile.constData()));
        s.avail_in = uint32_t(tile.size());
        s.next_out = out->data();
        s.avail_out = uint32_t(out->size());
        if (isal_deflate_stateless(&s) != COMP_OK)
            return QByteArray();
        return withLengthField(tile.size(), out->data(), s.total_out);
    };
}

Writer codecWriter(const RvoBlockCodecSetting &setting = {})
{
    auto codec = std::make_shared<RvoBlockCodec>(setting);
    return [codec](const QByteArray &tile) {
        return codec->compress(tile.constData(), tile.size());
    };
}

#ifdef RVODDI_BENCH_BLOSC
// c-blosc 1: LZ4 after its own shuffle, on one thread, at its default
// level 5. Its payload is blosc's own buffer (with a 16-byte header).
Writer bloscWriter(int element)
{
    auto out = std::make_shared<std::vector<char>>();
    return [=](const QByteArray &tile) {
        out->resize(size_t(tile.size()) + BLOSC_MAX_OVERHEAD);
        const int n = blosc_compress_ctx(5, BLOSC_SHUFFLE, size_t(element), size_t(tile.size()),
                                         tile.constData(), out->data(), out->size(), "lz4", 0, 1);
        return n > 0 ? QByteArray(out->data(), n) : QByteArray();
    };
}

bool bloscRead(const QByteArray &payload, QByteArray *out)
{
    size_t size = 0;
    return blosc_cbuffer_validate(payload.constData(), size_t(payload.size()), &size) == 0
            && size == TileSize
            && blosc_decompress_ctx(payload.constData(), out->data(), TileSize, 1) == TileSize;
}
#endif

bool qtRead(const QByteArray &payload, QByteArray *out)
{
    *out = qUncompress(payload);
    return out->size() == TileSize;
}

Reader libdeflateReader()
{
    std::shared_ptr<libdeflate_decompressor> d(libdeflate_alloc_decompressor(),
                                               libdeflate_free_decompressor);
    return [d](const QByteArray &payload, QByteArray *out) {
        size_t produced = 0;
        return libdeflate_zlib_decompress(d.get(), payload.constData() + 4,
                                          size_t(payload.size() - 4), out->data(), TileSize,
                                          &produced)
                == LIBDEFLATE_SUCCESS
                && produced == TileSize;
    };
}

Reader isalReader()
{
    auto state = std::make_shared<inflate_state>();
    return [state](const QByteArray &payload, QByteArray *out) {
        inflate_state &s = *state;
        isal_inflate_init(&s);
        s.crc_flag = ISAL_ZLIB;
        s.next_in = reinterpret_cast<uint8_t *>(const_cast<char *>(payload.constData())) + 4;
        s.avail_in = uint32_t(payload.size() - 4);
        s.next_out = reinterpret_cast<uint8_t *>(out->data());
        s.avail_out = TileSize;
        return isal_inflate_stateless(&s) == ISAL_DECOMP_OK && s.total_out == TileSize
                && s.avail_in == 0;
    };
}

Reader codecReader()
{
    auto codec = std::make_shared<RvoBlockCodec>();
    return [codec](const QByteArray &payload, QByteArray *out) {
        return codec->uncompress(payload.constData(), payload.size(), TileSize, out);
    };
}

struct NamedWriter
{
    std::string name;
    std::function<Writer()> make;
    bool decoded; // whether the readers are timed on its payloads too
    bool zlib = true; // qCompress's format: every reader reads it
    // The reader of the other formats' payloads.
    std::function<bool(const QByteArray &, QByteArray *)> read = {};
};

std::vector<NamedWriter> writers()
{
    std::vector<NamedWriter> all {
            {"qCompress2",
             [] { return Writer([](const QByteArray &t) { return qCompress(t, 2); }); }, true},
            {"libdeflate1", [] { return libdeflateWriter(1); }, true}};
    for (int level = 0; level <= 3; ++level)
        all.push_back({"isal" + std::to_string(level), [level] { return isalWriter(level, false); },
                       true});
    for (int level = 1; level <= 3; ++level)
        all.push_back({"isal" + std::to_string(level) + "-small",
                       [level] { return isalWriter(level, true); }, false});
    all.push_back({"codec", [] { return codecWriter(); }, true});
    const auto codecRead = [](const QByteArray &payload, QByteArray *out) {
        return RvoBlockCodec::forThisThread().uncompress(payload.constData(), payload.size(),
                                                         TileSize, out);
    };
    for (int element : {1, 4, 8}) {
        const std::string suffix = element > 1 ? "-s" + std::to_string(element) : "";
        all.push_back({"lz4" + suffix,
                       [element] {
                           return codecWriter(RvoBlockCodecSetting::lz4().withShuffle(element));
                       },
                       true, false, codecRead});
        for (int level = -5; level <= 3; ++level) {
            if (level == 0)
                continue; // Zstandard's default, level 3
            all.push_back({"zstd" + std::to_string(level) + suffix,
                           [level, element] {
                               return codecWriter(
                                       RvoBlockCodecSetting::zstd(level).withShuffle(element));
                           },
                           true, false, codecRead});
        }
    }
#ifdef RVODDI_BENCH_BLOSC
    for (int element : {4, 8})
        all.push_back({"blosc-lz4-s" + std::to_string(element),
                       [element] { return bloscWriter(element); }, true, false, bloscRead});
#endif
    return all;
}

void report(benchmark::State &state, qint64 payloadBytes)
{
    const double bytes = double(state.iterations()) * TileSize;
    state.SetBytesProcessed(static_cast<int64_t>(bytes));
    // Decimal megabytes per second of CPU time, next to the binary bytes_per_second.
    state.counters["MB/s"] = benchmark::Counter(bytes / 1e6, benchmark::Counter::kIsRate);
    state.counters["ratio"] = double(payloadBytes) / (double(TileCount) * TileSize);
}

// Makes every payload once, checks it, and returns them; empty on a fault.
std::vector<QByteArray> payloadsOf(const Input &input, const NamedWriter &writer,
                                   const Writer &write, benchmark::State &state)
{
    std::vector<QByteArray> payloads;
    QByteArray back(TileSize, Qt::Uninitialized);
    for (const QByteArray &tile : tiles(input)) {
        payloads.push_back(write(tile));
        if (writer.zlib ? qUncompress(payloads.back()) != tile
                        : !writer.read(payloads.back(), &back) || back != tile) {
            state.SkipWithError("the payload does not decode to the tile");
            return {};
        }
    }
    return payloads;
}

void compress(benchmark::State &state, const Input &input, const NamedWriter &writer)
{
    const Writer write = writer.make();
    const std::vector<QByteArray> payloads = payloadsOf(input, writer, write, state);
    qint64 payloadBytes = 0;
    for (const QByteArray &p : payloads)
        payloadBytes += p.size();
    int i = 0;
    for (auto _ : state) {
        QByteArray payload = write(tiles(input)[i++ % TileCount]);
        benchmark::DoNotOptimize(payload.data());
    }
    report(state, payloadBytes);
}

void uncompress(benchmark::State &state, const Input &input, const NamedWriter &writer,
                const Reader &read)
{
    const std::vector<QByteArray> payloads = payloadsOf(input, writer, writer.make(), state);
    if (payloads.empty())
        return;
    qint64 payloadBytes = 0;
    QByteArray block(TileSize, Qt::Uninitialized);
    for (int k = 0; k < TileCount; ++k) {
        payloadBytes += payloads[k].size();
        if (!read(payloads[k], &block) || block != tiles(input)[k]) {
            state.SkipWithError("the reader does not give back the tile");
            return;
        }
    }
    int i = 0;
    for (auto _ : state) {
        if (!read(payloads[i++ % TileCount], &block))
            state.SkipWithError("decode failed");
        benchmark::DoNotOptimize(block.data());
    }
    report(state, payloadBytes);
}

} // namespace

int main(int argc, char **argv)
{
#ifdef RVODDI_BENCH_BLOSC
    blosc_init();
#endif
    const std::pair<const char *, std::function<Reader()>> readers[]
            = {{"qUncompress", [] { return Reader(qtRead); }},
               {"libdeflate", libdeflateReader},
               {"isal", isalReader},
               {"codec", codecReader}};
    for (const Input &input : Inputs) {
        for (const NamedWriter &writer : writers())
            benchmark::RegisterBenchmark(
                    ("Compress/" + std::string(input.name) + "/" + writer.name).c_str(),
                    [&input, writer](benchmark::State &s) { compress(s, input, writer); });
    }
    for (const Input &input : Inputs) {
        for (const NamedWriter &writer : writers()) {
            if (!writer.zlib) {
                // Read the way its own format is read.
                const Reader read = writer.read;
                benchmark::RegisterBenchmark(
                        ("Uncompress/" + std::string(input.name) + "/" + writer.name + "/codec")
                                .c_str(),
                        [&input, writer, read](benchmark::State &s) {
                            uncompress(s, input, writer, read);
                        });
                continue;
            }
            for (const auto &[readerName, makeReader] : readers) {
                // The codec's reader on its own payloads: the path block files take.
                if (!writer.decoded
                    || (readerName == std::string("codec") && writer.name != "codec"))
                    continue;
                const Reader read = makeReader();
                benchmark::RegisterBenchmark(("Uncompress/" + std::string(input.name) + "/"
                                              + writer.name + "/" + readerName)
                                                     .c_str(),
                                             [&input, writer, read](benchmark::State &s) {
                                                 uncompress(s, input, writer, read);
                                             });
            }
        }
    }
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
