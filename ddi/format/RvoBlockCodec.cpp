// Block payloads. Every one begins with the block's size:
//
//   offset 0: uncompressed length, 32-bit big-endian
//
// and an empty block is that zero length alone, whatever the codec. After it:
//
//   zlib (qCompress's format, written by ISA-L or libdeflate, read by
//   libdeflate):
//     offset 4: zlib stream (RFC 1950: 2-byte header, deflate data, Adler-32)
//   LZ4:
//     offset 4: 'L' (0x4C)
//     offset 5: byte-shuffle element size, 1 (none) to 16
//     offset 6: CRC-32 (as gzip's) of the block's bytes, little-endian
//     offset 10: one LZ4 block (the raw block format, no frame)
//   Zstandard:
//     offset 4: 'Z' (0x5A)
//     offset 5: byte-shuffle element size, 1 (none) to 16
//     offset 6: CRC-32 (as gzip's) of the block's bytes, little-endian
//     offset 10: one Zstandard frame, with its content size
//
// A zlib stream's first byte has compression method 8 in its low four bits
// (RFC 1950), so neither tag can begin one: the tag alone tells the codec,
// and a zlib payload is byte for byte what it was before LZ4 and Zstandard
// were added. Keeping Qt's format for zlib means those block files stay
// readable by plain qUncompress() (tools, other readers) while the hot path
// avoids zlib. LZ4's raw block decodes faster than its frame format (3.4
// against 2.2 GB/s on image tiles) and has no checksum, hence our own. A
// Zstandard frame could check its own content, but that would be the
// shuffled bytes: a damaged shuffle byte would pass it, so both codecs
// carry a CRC-32 of the block as the reader hands it out. The figures
// behind the choices are at CompressionLevel below and in bench/RESULTS.md.
//
// The reader is stricter than qUncompress: the length field must equal the
// size the caller expects, the stream must produce exactly that many bytes
// and must end exactly at the end of the payload, and for LZ4 and Zstandard
// the checksum must match, so a truncated, padded or damaged payload is
// refused rather than silently shortened or changed.

#include "RvoBlockCodec_p.h"

#include <QtEndian>

#include <isa-l/igzip_lib.h>
#include <libdeflate.h>
#include <lz4.h>
#include <zstd.h>

#include <cstring>
#include <limits>
#include <new>
#include <utility>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace {

// QByteArray's size type: int in Qt 5, qsizetype in Qt 6.
using ArraySize = decltype(QByteArray().size());

constexpr qint64 HeaderSize = 4;

// The largest QByteArray we ask Qt for, with room left for the array's own
// header and terminating zero so that Qt never refuses the size itself.
constexpr qint64 MaxArraySize = qint64(std::numeric_limits<ArraySize>::max()) - 64;

// A block must fit both the 32-bit length field and a QByteArray.
constexpr qint64 MaxBlockSize = qMin(qint64(0xFFFFFFFF), MaxArraySize);

// A deflate stream decodes to at most 1032 times its size (a 258-byte match
// coded in two bits). A length claiming more than that from the stream at
// hand is a lie, refused before allocating for it.
constexpr qint64 MaxDeflateRatio = 1032;
// The same for an LZ4 block (each further 255 bytes of a match cost a byte)
// and a Zstandard frame (a block of 128 KiB of one byte value costs 4 bytes).
constexpr qint64 MaxLz4Ratio = 256;
constexpr qint64 MaxZstdRatio = 32768;

constexpr uchar Lz4Tag = 'L';
constexpr uchar ZstdTag = 'Z';
// After the length field: tag, shuffle, CRC-32.
constexpr qint64 TaggedHeader = 6;
// Shuffle buffers up to this size are kept for the next block.
constexpr qint64 KeptScratchSize = 16 << 20;

// bench_codec on eight 256 KiB tiles of each kind (2-core AMD EPYC, Zen 4,
// shared with other builds); payload size against qCompress level 2's, speed
// over uncompressed bytes in CPU time, medians of 5 repetitions:
//                                image tiles        photo-like tiles
//   qCompress level 2               0 %    81 MB/s      0 %    43 MB/s
//   libdeflate level 1          -1.3 %   180 MB/s   +1.9 %   127 MB/s
//   ISA-L level 1, 64 Ki tokens +6.8 %   343 MB/s   +4.0 %   365 MB/s
//   ISA-L level 1, 16 Ki tokens +5.3 %   320 MB/s   +1.8 %   336 MB/s
//   ISA-L level 2, 64 Ki tokens +4.8 %   315 MB/s   +3.1 %   338 MB/s
//   ISA-L level 2, 16 Ki tokens +3.4 %   300 MB/s   +1.1 %   300 MB/s  <- chosen
//   ISA-L level 3, 64 Ki tokens +9.1 %   273 MB/s   +3.2 %   289 MB/s
// (level 0 codes with Huffman tables fixed in advance: +25 % on images,
// stored blocks on photos). The rule: at least 1.5 times libdeflate level
// 1's speed with payloads at most 5 % larger than qCompress level 2's. ISA-L
// fits one set of Huffman codes to each deflate block, and a block is as long
// as the level buffer holds tokens: the smaller buffer (ISAL_DEF_LVL2_SMALL)
// follows the data more closely for a few per cent of speed, and leaves room
// under the 5 %.
//
// Reading stays with libdeflate: ISA-L's inflate ran at 0.91 to 1.09 times
// its speed on every writer's payloads of both kinds and at half its speed
// on stored blocks. ISA-L's payloads decode about a tenth slower than
// libdeflate's own (550 against 617 MB/s on image tiles).
constexpr int CompressionLevel = 2;
constexpr quint32 IsalLevelBufferSize = ISAL_DEF_LVL2_SMALL;
// libdeflate's fastest level, where ISA-L does not run fast.
constexpr int LibdeflateLevel = 1;

// ISA-L picks its code for the CPU at run time: AVX-512, AVX2, AVX, SSE4.2
// or plain C. Its speed above was measured on the AVX2 and AVX-512 paths;
// below AVX2 its deflate loop has no vector code for hashing and matching
// and was not measured, so libdeflate writes there. GCC's check includes the
// OS saving the AVX registers. ISA-L was measured on x86-64 only.
bool cpuRunsIsalFast()
{
#if defined(__x86_64__) && (defined(__GNUC__) || defined(__clang__))
    __builtin_cpu_init();
    return __builtin_cpu_supports("avx2");
#else
    return false;
#endif
}

// isal_deflate_stateless() writes stored blocks when the compressed stream
// would not fit in this much room, so it always fits: a 5-byte header per
// 65,535-byte stored block, plus the zlib header and Adler-32.
qint64 isalStreamBound(qint64 size)
{
    const qint64 blocks = qMax(qint64(1), (size + 65534) / 65535);
    return size + 5 * blocks + 2 + 4;
}

// Byte shuffle: byte j of every `element` bytes goes to plane j, the planes
// one after the other; the size % element bytes at the end stay as they are.
// Neighbouring pixels' channels then lie side by side, where LZ4 and
// Zstandard find far more to match (see bench/RESULTS.md).
void shuffle(const uchar *in, uchar *out, qint64 size, int element)
{
    const qint64 count = size / element;
    if (element == 4) {
        for (qint64 i = 0; i < count; ++i) {
            quint32 v;
            std::memcpy(&v, in + 4 * i, 4);
            v = qFromLittleEndian(v);
            out[i] = uchar(v);
            out[count + i] = uchar(v >> 8);
            out[2 * count + i] = uchar(v >> 16);
            out[3 * count + i] = uchar(v >> 24);
        }
    } else {
        for (qint64 i = 0; i < count; ++i)
            for (int j = 0; j < element; ++j)
                out[j * count + i] = in[i * element + j];
    }
    std::memcpy(out + count * element, in + count * element, size_t(size - count * element));
}

// The inverse. Decoding pays for it on every read, so the element sizes of
// pixels interleave 16 elements a step where SSE2 is (every x86-64).
void unshuffle(const uchar *in, uchar *out, qint64 size, int element)
{
    const qint64 count = size / element;
    qint64 done = 0;
#if defined(__SSE2__)
    auto load
            = [](const uchar *p) { return _mm_loadu_si128(reinterpret_cast<const __m128i *>(p)); };
    auto store = [](uchar *p, __m128i v) { _mm_storeu_si128(reinterpret_cast<__m128i *>(p), v); };
    if (element == 4) {
        for (; done + 16 <= count; done += 16) {
            const uchar *p = in + done;
            const __m128i a = load(p), b = load(p + count), c = load(p + 2 * count),
                          d = load(p + 3 * count);
            const __m128i abLow = _mm_unpacklo_epi8(a, b), abHigh = _mm_unpackhi_epi8(a, b);
            const __m128i cdLow = _mm_unpacklo_epi8(c, d), cdHigh = _mm_unpackhi_epi8(c, d);
            uchar *o = out + 4 * done;
            store(o, _mm_unpacklo_epi16(abLow, cdLow));
            store(o + 16, _mm_unpackhi_epi16(abLow, cdLow));
            store(o + 32, _mm_unpacklo_epi16(abHigh, cdHigh));
            store(o + 48, _mm_unpackhi_epi16(abHigh, cdHigh));
        }
    } else if (element == 8) {
        for (; done + 16 <= count; done += 16) {
            const uchar *p = in + done;
            __m128i pairs[8]; // planes 0-1, 2-3, 4-5, 6-7: low then high halves
            for (int j = 0; j < 4; ++j) {
                const __m128i x = load(p + 2 * j * count), y = load(p + (2 * j + 1) * count);
                pairs[2 * j] = _mm_unpacklo_epi8(x, y);
                pairs[2 * j + 1] = _mm_unpackhi_epi8(x, y);
            }
            uchar *o = out + 8 * done;
            for (int half = 0; half < 2; ++half) {
                const __m128i ab = pairs[half], cd = pairs[2 + half], ef = pairs[4 + half],
                              gh = pairs[6 + half];
                const __m128i quads[4] = {_mm_unpacklo_epi16(ab, cd), _mm_unpackhi_epi16(ab, cd),
                                          _mm_unpacklo_epi16(ef, gh), _mm_unpackhi_epi16(ef, gh)};
                for (int q = 0; q < 2; ++q) {
                    store(o, _mm_unpacklo_epi32(quads[q], quads[2 + q]));
                    store(o + 16, _mm_unpackhi_epi32(quads[q], quads[2 + q]));
                    o += 32;
                }
            }
        }
    }
#endif
    for (qint64 i = done; i < count; ++i)
        for (int j = 0; j < element; ++j)
            out[i * element + j] = in[j * count + i];
    std::memcpy(out + count * element, in + count * element, size_t(size - count * element));
}

quint32 crc32Of(const char *data, qint64 size)
{
    quint32 crc = 0;
    // libdeflate takes a size_t: a block is at most 4 GiB, fed in steps.
    while (size > 0) {
        const qint64 step = qMin(size, qint64(1) << 30);
        crc = quint32(libdeflate_crc32(crc, data, size_t(step)));
        data += step;
        size -= step;
    }
    return crc;
}

} // namespace

struct RvoBlockCodec::IsalEncoder
{
    isal_zstream stream;
    // ISA-L's hash tables and match tokens for one block, cache-line aligned.
    alignas(64) uint8_t levelBuffer[IsalLevelBufferSize];
};

RvoBlockCodec::Encoder RvoBlockCodec::defaultEncoder()
{
    static const Encoder encoder = cpuRunsIsalFast() ? Encoder::IsaL : Encoder::Libdeflate;
    return encoder;
}

RvoBlockCodec::RvoBlockCodec(Encoder encoder)
    : m_Decompressor(libdeflate_alloc_decompressor())
{
    if (encoder == Encoder::IsaL)
        m_Isal.reset(new (std::nothrow) IsalEncoder());
    else
        m_Compressor = libdeflate_alloc_compressor(LibdeflateLevel);
}

RvoBlockCodec::RvoBlockCodec(const RvoBlockCodecSetting &setting)
    : RvoBlockCodec()
{
    m_Setting = setting;
}

RvoBlockCodec::~RvoBlockCodec()
{
    libdeflate_free_compressor(m_Compressor);
    libdeflate_free_decompressor(m_Decompressor);
    ZSTD_freeCCtx(m_ZstdCompressor);
    ZSTD_freeDCtx(m_ZstdDecompressor);
}

RvoBlockCodec &RvoBlockCodec::forThisThread()
{
    thread_local RvoBlockCodec codec;
    return codec;
}

int RvoBlockCodec::level(Encoder encoder)
{
    return encoder == Encoder::IsaL ? CompressionLevel : LibdeflateLevel;
}

qint64 RvoBlockCodec::compressBound(qint64 size) const
{
    if (size < 0 || size > MaxBlockSize)
        return -1;
    if (size == 0)
        return HeaderSize;
    qint64 bound = -1;
    if (m_Setting.kind() == RvoBlockCodecSetting::Lz4 && size <= LZ4_MAX_INPUT_SIZE)
        bound = TaggedHeader + LZ4_compressBound(int(size));
    else if (m_Setting.kind() == RvoBlockCodecSetting::Zstd)
        bound = TaggedHeader + qint64(ZSTD_compressBound(size_t(size)));
    else
        return zlibBound(size);
    if (bound > MaxArraySize - HeaderSize)
        return -1;
    return HeaderSize + bound;
}

qint64 RvoBlockCodec::zlibBound(qint64 size) const
{
    qint64 bound = -1;
    if (m_Isal) {
        bound = isalStreamBound(size);
    } else if (m_Compressor) {
        const size_t b = libdeflate_zlib_compress_bound(m_Compressor, size_t(size));
        if (b <= size_t(MaxArraySize))
            bound = qint64(b);
    }
    if (bound < 0 || bound > MaxArraySize - HeaderSize)
        return -1;
    return HeaderSize + bound;
}

qint64 RvoBlockCodec::compress(const char *data, qint64 size, char *out, qint64 capacity)
{
    const qint64 bound = compressBound(size);
    if (bound < 0 || (!data && size > 0) || !out || capacity < HeaderSize)
        return -1;
    uchar *header = reinterpret_cast<uchar *>(out);
    qToBigEndian(quint32(size), header);
    if (size == 0)
        return HeaderSize;
    uchar *body = header + HeaderSize;
    const qint64 room = capacity - HeaderSize;
    qint64 written = 0;
    if (m_Setting.kind() == RvoBlockCodecSetting::Lz4 && size <= LZ4_MAX_INPUT_SIZE)
        written = compressLz4(data, size, body, room);
    else if (m_Setting.kind() == RvoBlockCodecSetting::Zstd)
        written = compressZstd(data, size, body, room);
    else
        written = deflate(data, size, body, room);
    return written <= 0 ? -1 : HeaderSize + written;
}

char *RvoBlockCodec::scratch(qint64 size)
{
    if (m_ScratchSize < size) {
        m_Scratch.reset(new (std::nothrow) char[size_t(size)]);
        m_ScratchSize = m_Scratch ? size : 0;
    }
    return m_Scratch.get();
}

void RvoBlockCodec::releaseScratch()
{
    if (m_ScratchSize > KeptScratchSize) {
        m_Scratch.reset();
        m_ScratchSize = 0;
    }
}

const char *RvoBlockCodec::shuffled(const char *data, qint64 size)
{
    if (m_Setting.shuffle() <= 1)
        return data;
    char *out = scratch(size);
    if (out)
        shuffle(reinterpret_cast<const uchar *>(data), reinterpret_cast<uchar *>(out), size,
                m_Setting.shuffle());
    return out;
}

void RvoBlockCodec::writeTaggedHeader(uchar tag, const char *data, qint64 size, uchar *out) const
{
    out[0] = tag;
    out[1] = uchar(m_Setting.shuffle());
    qToLittleEndian(crc32Of(data, size), out + 2);
}

qint64 RvoBlockCodec::compressLz4(const char *data, qint64 size, uchar *out, qint64 capacity)
{
    if (capacity <= TaggedHeader)
        return 0;
    if (!m_Lz4State)
        m_Lz4State.reset(new (std::nothrow) char[size_t(LZ4_sizeofState())]);
    const char *input = shuffled(data, size);
    int written = 0;
    if (m_Lz4State && input) {
        writeTaggedHeader(Lz4Tag, data, size, out);
        written = LZ4_compress_fast_extState(
                m_Lz4State.get(), input, reinterpret_cast<char *>(out + TaggedHeader), int(size),
                int(qMin(capacity - TaggedHeader, qint64(std::numeric_limits<int>::max()))), 1);
    }
    releaseScratch();
    return written > 0 ? TaggedHeader + written : 0;
}

qint64 RvoBlockCodec::compressZstd(const char *data, qint64 size, uchar *out, qint64 capacity)
{
    if (capacity <= TaggedHeader)
        return 0;
    if (!m_ZstdCompressor)
        m_ZstdCompressor = ZSTD_createCCtx();
    const char *input = shuffled(data, size);
    size_t written = 0;
    if (m_ZstdCompressor && input) {
        writeTaggedHeader(ZstdTag, data, size, out);
        ZSTD_CCtx_reset(m_ZstdCompressor, ZSTD_reset_session_and_parameters);
        ZSTD_CCtx_setParameter(m_ZstdCompressor, ZSTD_c_compressionLevel, m_Setting.level());
        written = ZSTD_compress2(m_ZstdCompressor, out + TaggedHeader,
                                 size_t(capacity - TaggedHeader), input, size_t(size));
    }
    releaseScratch();
    return ZSTD_isError(written) || written == 0 ? 0 : TaggedHeader + qint64(written);
}

// The zlib stream for size (1 to MaxBlockSize) bytes, into capacity bytes at
// out; its length, or 0 when it does not fit.
qint64 RvoBlockCodec::deflate(const char *data, qint64 size, uchar *out, qint64 capacity)
{
    if (!m_Isal) {
        // With less room than the bound libdeflate may run out, and says so.
        return qint64(
                libdeflate_zlib_compress(m_Compressor, data, size_t(size), out, size_t(capacity)));
    }
    isal_zstream &stream = m_Isal->stream;
    isal_deflate_stateless_init(&stream);
    stream.level = CompressionLevel;
    stream.level_buf = m_Isal->levelBuffer;
    stream.level_buf_size = IsalLevelBufferSize;
    stream.gzip_flag = IGZIP_ZLIB;
    stream.hist_bits = 0; // the whole 32 KiB window; not reset by the init
    stream.end_of_stream = 1;
    // ISA-L's input pointer is not const, but it only reads through it.
    stream.next_in = reinterpret_cast<uint8_t *>(const_cast<char *>(data));
    stream.avail_in = quint32(size);
    stream.next_out = out;
    stream.avail_out = quint32(qMin(capacity, qint64(std::numeric_limits<quint32>::max())));
    if (isal_deflate_stateless(&stream) != COMP_OK || stream.avail_in != 0)
        return 0;
    return qint64(stream.total_out);
}

QByteArray RvoBlockCodec::compress(const char *data, qint64 size)
{
    const qint64 bound = compressBound(size);
    if (bound < 0)
        return QByteArray();
    QByteArray payload(ArraySize(bound), Qt::Uninitialized);
    const qint64 length = compress(data, size, payload.data(), bound);
    if (length < 0)
        return QByteArray();
    payload.resize(ArraySize(length));
    // The caller may keep the payload a while: give back the unused end of
    // the worst-case buffer (realloc shrinks in place, nothing is copied).
    payload.squeeze();
    return payload;
}

bool RvoBlockCodec::uncompress(const char *payload, qint64 length, qint64 expectedSize,
                               QByteArray *out)
{
    if (!out)
        return false;
    // Decode aside and assign at the end: payload may live in *out.
    QByteArray block;
    const bool ok = decode(payload, length, expectedSize, &block);
    *out = ok ? std::move(block) : QByteArray();
    return ok;
}

bool RvoBlockCodec::kindOf(const char *payload, qint64 length, RvoBlockCodecSetting::Kind *kind)
{
    if (!payload || length < HeaderSize)
        return false;
    RvoBlockCodecSetting::Kind found = RvoBlockCodecSetting::Zlib;
    if (length == HeaderSize) {
        // The bare length of an empty block; anything else is cut short.
        if (qFromBigEndian<quint32>(payload) != 0)
            return false;
    } else if (uchar(payload[HeaderSize]) == Lz4Tag) {
        found = RvoBlockCodecSetting::Lz4;
    } else if (uchar(payload[HeaderSize]) == ZstdTag) {
        found = RvoBlockCodecSetting::Zstd;
    } else if ((payload[HeaderSize] & 0x0F) != 8) {
        return false; // not deflate's compression method
    }
    if (kind)
        *kind = found;
    return true;
}

bool RvoBlockCodec::decode(const char *payload, qint64 length, qint64 expectedSize, QByteArray *out)
{
    if (!payload || length < HeaderSize || expectedSize < 0 || expectedSize > MaxBlockSize)
        return false;
    const uchar *in = reinterpret_cast<const uchar *>(payload);
    if (qint64(qFromBigEndian<quint32>(in)) != expectedSize)
        return false;

    const qint64 bodyLength = length - HeaderSize;
    if (expectedSize == 0) {
        // qCompress and compress() write the bare header for an empty block;
        // bytes after it, even a valid empty stream, are not such a payload.
        return bodyLength == 0;
    }
    if constexpr (sizeof(size_t) < sizeof(qint64)) {
        if (quint64(bodyLength) > std::numeric_limits<size_t>::max())
            return false;
    }
    const uchar *body = in + HeaderSize;
    if (bodyLength > 0 && body[0] == Lz4Tag)
        return decodeLz4(body, bodyLength, expectedSize, out);
    if (bodyLength > 0 && body[0] == ZstdTag)
        return decodeZstd(body, bodyLength, expectedSize, out);
    return decodeZlib(body, bodyLength, expectedSize, out);
}

bool RvoBlockCodec::decodeZlib(const uchar *stream, qint64 streamLength, qint64 expectedSize,
                               QByteArray *out)
{
    if (expectedSize / MaxDeflateRatio > streamLength || !m_Decompressor)
        return false;

    QByteArray block(ArraySize(expectedSize), Qt::Uninitialized);
    size_t consumed = 0;
    size_t produced = 0;
    const libdeflate_result result = libdeflate_zlib_decompress_ex(
            m_Decompressor, stream, size_t(streamLength), block.data(), size_t(expectedSize),
            &consumed, &produced);
    // libdeflate stops at the end of the zlib stream; bytes after it mean the
    // payload is not what was written.
    if (result != LIBDEFLATE_SUCCESS || produced != size_t(expectedSize)
        || consumed != size_t(streamLength))
        return false;

    *out = std::move(block);
    return true;
}

bool RvoBlockCodec::finishTagged(bool decoded, const char *target, int element, const uchar *body,
                                 QByteArray block, QByteArray *out)
{
    if (decoded && element > 1)
        unshuffle(reinterpret_cast<const uchar *>(target), reinterpret_cast<uchar *>(block.data()),
                  block.size(), element);
    releaseScratch();
    if (!decoded
        || crc32Of(block.constData(), block.size()) != qFromLittleEndian<quint32>(body + 2))
        return false;
    *out = std::move(block);
    return true;
}

bool RvoBlockCodec::decodeLz4(const uchar *body, qint64 length, qint64 expectedSize,
                              QByteArray *out)
{
    const qint64 blockLength = length - TaggedHeader;
    const int element = length > 1 ? body[1] : 0;
    if (blockLength <= 0 || element < 1 || element > RvoBlockCodecSetting::kMaxShuffleElement
        || expectedSize > LZ4_MAX_INPUT_SIZE || blockLength > std::numeric_limits<int>::max()
        || expectedSize / MaxLz4Ratio > blockLength)
        return false;
    QByteArray block(ArraySize(expectedSize), Qt::Uninitialized);
    char *target = element > 1 ? scratch(expectedSize) : block.data();
    // LZ4_decompress_safe never writes past its capacity nor reads past its
    // input, and fails unless the input is exactly one well-formed block.
    const bool decoded = target
            && LZ4_decompress_safe(reinterpret_cast<const char *>(body + TaggedHeader), target,
                                   int(blockLength), int(expectedSize))
                    == expectedSize;
    return finishTagged(decoded, target, element, body, std::move(block), out);
}

bool RvoBlockCodec::decodeZstd(const uchar *body, qint64 length, qint64 expectedSize,
                               QByteArray *out)
{
    const uchar *frame = body + TaggedHeader;
    const qint64 frameLength = length - TaggedHeader;
    const int element = length > 1 ? body[1] : 0;
    // The frame must name exactly the header's size and end where the
    // payload does.
    if (frameLength <= 0 || element < 1 || element > RvoBlockCodecSetting::kMaxShuffleElement
        || expectedSize / MaxZstdRatio > frameLength
        || ZSTD_getFrameContentSize(frame, size_t(frameLength)) != quint64(expectedSize)
        || ZSTD_findFrameCompressedSize(frame, size_t(frameLength)) != size_t(frameLength))
        return false;
    if (!m_ZstdDecompressor)
        m_ZstdDecompressor = ZSTD_createDCtx();
    QByteArray block(ArraySize(expectedSize), Qt::Uninitialized);
    char *target = element > 1 ? scratch(expectedSize) : block.data();
    const size_t produced = target && m_ZstdDecompressor
            ? ZSTD_decompressDCtx(m_ZstdDecompressor, target, size_t(expectedSize), frame,
                                  size_t(frameLength))
            : 0;
    const bool decoded = !ZSTD_isError(produced) && produced == size_t(expectedSize);
    return finishTagged(decoded, target, element, body, std::move(block), out);
}
