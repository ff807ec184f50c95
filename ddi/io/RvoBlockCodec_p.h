#ifndef RVOBLOCKCODEC_P_H
#define RVOBLOCKCODEC_P_H

#include <QByteArray>
#include <QtGlobal>

struct libdeflate_compressor;
struct libdeflate_decompressor;

// Turns a block's bytes into the payload stored in a block file and back.
//
// The payload is what qCompress() writes: the uncompressed length as a 4-byte
// big-endian number, then a zlib stream (RFC 1950); an empty block is the
// 4-byte zero length alone. Any qUncompress() can read our files and we read
// theirs, but both directions go through libdeflate, which is about twice as
// fast as zlib on image tiles (see RvoBlockCodec.cpp).
//
// One object per thread: it holds libdeflate's working state, which is large
// and not safe to share. Create it once and reuse it for every block.
class RvoBlockCodec
{
public:
    RvoBlockCodec();
    ~RvoBlockCodec();

    // The payload for size bytes at data, or a null array when there is none:
    // size negative, beyond the 32-bit length field or beyond what a
    // QByteArray holds, or no memory for the compressor.
    QByteArray compress(const char *data, qint64 size);
    // The same payload written to out, which holds capacity bytes (at least
    // compressBound(size) makes it always fit). Returns its length, or -1
    // when there is none (as above, or capacity too small).
    qint64 compress(const char *data, qint64 size, char *out, qint64 capacity);
    // The most bytes compress() writes for size bytes; -1 for a size that
    // cannot be compressed.
    qint64 compressBound(qint64 size) const;

    // Decodes a payload of length bytes that must hold exactly expectedSize
    // bytes. On any fault (short or corrupt payload, a length field or stream
    // that disagrees with expectedSize, bytes after the stream) returns false
    // and leaves *out empty. payload may point into *out.
    bool uncompress(const char *payload, qint64 length, qint64 expectedSize, QByteArray *out);

    // The libdeflate compression level used by compress().
    static int level();

private:
    Q_DISABLE_COPY_MOVE(RvoBlockCodec)

    bool decode(const char *payload, qint64 length, qint64 expectedSize, QByteArray *out);

    libdeflate_compressor *m_compressor;
    libdeflate_decompressor *m_decompressor;
};

#endif // RVOBLOCKCODEC_P_H
