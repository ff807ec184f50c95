// Block payloads: qCompress's format, written by ISA-L or libdeflate and read
// by libdeflate.
//
//   offset 0: uncompressed length, 32-bit big-endian
//   offset 4: zlib stream (RFC 1950: 2-byte header, deflate data, Adler-32)
//
// An empty block is the zero length alone, as qCompress writes it in Qt 5 and
// Qt 6. Keeping Qt's format means a block file stays readable by plain
// qUncompress() (tools, other readers) while the hot path avoids zlib. The
// figures behind the choice of writer, level and reader are at
// CompressionLevel below and in bench/RESULTS.md.
//
// The reader is stricter than qUncompress: the length field must equal the
// size the caller expects, the stream must produce exactly that many bytes
// and must end exactly at the end of the payload, so a truncated, padded or
// damaged payload is refused rather than silently shortened.

#include "RvoBlockCodec_p.h"

#include <QtEndian>

#include <isa-l/igzip_lib.h>
#include <libdeflate.h>

#include <limits>
#include <new>
#include <utility>

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

RvoBlockCodec::~RvoBlockCodec()
{
    libdeflate_free_compressor(m_Compressor);
    libdeflate_free_decompressor(m_Decompressor);
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
    const qint64 written = deflate(data, size, header + HeaderSize, capacity - HeaderSize);
    return written <= 0 ? -1 : HeaderSize + written;
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

bool RvoBlockCodec::decode(const char *payload, qint64 length, qint64 expectedSize, QByteArray *out)
{
    if (!payload || length < HeaderSize || expectedSize < 0 || expectedSize > MaxBlockSize)
        return false;
    const uchar *in = reinterpret_cast<const uchar *>(payload);
    if (qint64(qFromBigEndian<quint32>(in)) != expectedSize)
        return false;

    const qint64 streamLength = length - HeaderSize;
    if (expectedSize == 0) {
        // qCompress and compress() write the bare header for an empty block;
        // bytes after it, even a valid empty stream, are not such a payload.
        return streamLength == 0;
    }
    if constexpr (sizeof(size_t) < sizeof(qint64)) {
        if (quint64(streamLength) > std::numeric_limits<size_t>::max())
            return false;
    }
    if (expectedSize / MaxDeflateRatio > streamLength || !m_Decompressor)
        return false;

    QByteArray block(ArraySize(expectedSize), Qt::Uninitialized);
    size_t consumed = 0;
    size_t produced = 0;
    const libdeflate_result result = libdeflate_zlib_decompress_ex(
            m_Decompressor, in + HeaderSize, size_t(streamLength), block.data(),
            size_t(expectedSize), &consumed, &produced);
    // libdeflate stops at the end of the zlib stream; bytes after it mean the
    // payload is not what was written.
    if (result != LIBDEFLATE_SUCCESS || produced != size_t(expectedSize)
        || consumed != size_t(streamLength))
        return false;

    *out = std::move(block);
    return true;
}
