// Block payloads: qCompress's format, written and read by libdeflate.
//
//   offset 0: uncompressed length, 32-bit big-endian
//   offset 4: zlib stream (RFC 1950: 2-byte header, deflate data, Adler-32)
//
// An empty block is the zero length alone, as qCompress writes it in Qt 5 and
// Qt 6. Keeping Qt's format means a block file stays readable by plain
// qUncompress() (tools, other readers) while the hot path avoids zlib: on
// 256 KiB image-like tiles libdeflate compresses about twice as fast as
// qCompress level 2 and decodes about twice as fast as qUncompress, for a
// slightly smaller payload. The figures behind the level are at
// CompressionLevel below and in bench/RESULTS.md.
//
// The reader is stricter than qUncompress: the length field must equal the
// size the caller expects, the stream must produce exactly that many bytes
// and must end exactly at the end of the payload, so a truncated, padded or
// damaged payload is refused rather than silently shortened.

#include "RvoBlockCodec_p.h"

#include <QtEndian>

#include <libdeflate.h>

#include <limits>
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

// Measured with bench_codec on eight 256 KiB image-like tiles (2-core AMD
// EPYC shared with other builds, so speeds are noisy); payload size as a
// share of the input, median speed over uncompressed bytes:
//   qCompress level 2   40.6 %   83 MB/s   (qUncompress 307 MB/s)
//   libdeflate level 1  40.1 %  180 MB/s   <- chosen
//   libdeflate level 2  38.7 %  121 MB/s
//   libdeflate level 6  38.5 %   73 MB/s   (levels 3-5 in between)
//   libdeflate decode             626 MB/s
// Level 1 is the fastest level and already 1.3 % smaller than zlib level 2,
// well inside the 2 % we allow; the higher levels save another 4 % of disk
// at a third to three fifths less speed.
constexpr int CompressionLevel = 1;

} // namespace

RvoBlockCodec::RvoBlockCodec()
    : m_compressor(libdeflate_alloc_compressor(CompressionLevel))
    , m_decompressor(libdeflate_alloc_decompressor())
{
}

RvoBlockCodec::~RvoBlockCodec()
{
    libdeflate_free_compressor(m_compressor);
    libdeflate_free_decompressor(m_decompressor);
}

int RvoBlockCodec::level()
{
    return CompressionLevel;
}

qint64 RvoBlockCodec::compressBound(qint64 size) const
{
    if (size < 0 || size > MaxBlockSize)
        return -1;
    if (size == 0)
        return HeaderSize;
    if (!m_compressor)
        return -1;
    const size_t bound = libdeflate_zlib_compress_bound(m_compressor, size_t(size));
    if (bound > size_t(MaxArraySize - HeaderSize))
        return -1;
    return HeaderSize + qint64(bound);
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
    // With less room than the bound libdeflate may run out, and says so.
    const size_t written = libdeflate_zlib_compress(m_compressor, data, size_t(size),
                                                    header + HeaderSize,
                                                    size_t(capacity - HeaderSize));
    return written == 0 ? -1 : HeaderSize + qint64(written);
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
    if (expectedSize / MaxDeflateRatio > streamLength || !m_decompressor)
        return false;

    QByteArray block(ArraySize(expectedSize), Qt::Uninitialized);
    size_t consumed = 0;
    size_t produced = 0;
    const libdeflate_result result = libdeflate_zlib_decompress_ex(
            m_decompressor, in + HeaderSize, size_t(streamLength), block.data(),
            size_t(expectedSize), &consumed, &produced);
    // libdeflate stops at the end of the zlib stream; bytes after it mean the
    // payload is not what was written.
    if (result != LIBDEFLATE_SUCCESS || produced != size_t(expectedSize)
        || consumed != size_t(streamLength))
        return false;

    *out = std::move(block);
    return true;
}
