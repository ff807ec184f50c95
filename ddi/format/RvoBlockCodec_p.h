#ifndef RVOBLOCKCODEC_P_H
#define RVOBLOCKCODEC_P_H

#include <QByteArray>
#include <QtGlobal>

#include <memory>

struct libdeflate_compressor;
struct libdeflate_decompressor;

// Turns a block's bytes into the payload stored in a block file and back.
//
// The payload is what qCompress() writes: the uncompressed length as a 4-byte
// big-endian number, then a zlib stream (RFC 1950); an empty block is the
// 4-byte zero length alone. Any qUncompress() can read our files and we read
// theirs. Payloads are written by ISA-L's igzip where the CPU runs its fast
// code and by libdeflate elsewhere, and always read by libdeflate; each is
// several times faster than zlib here (see RvoBlockCodec.cpp).
//
// One object per thread: it holds the libraries' working state, which is
// large and not safe to share. Create it once and reuse it for every block.
class RvoBlockCodec
{
public:
    // The library that writes payloads. Both write the same format, so a
    // payload's reader does not depend on it.
    enum class Encoder { IsaL, Libdeflate };

    // IsaL on a CPU with AVX2, Libdeflate otherwise; checked once per process.
    static Encoder defaultEncoder();

    explicit RvoBlockCodec(Encoder encoder = defaultEncoder());
    ~RvoBlockCodec();

    // The calling thread's own codec, made on its first use and kept for the
    // thread's life (for pool threads, which decode block after block).
    static RvoBlockCodec &forThisThread();

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

    // The compression level compress() uses, in the encoder's own scale.
    static int level(Encoder encoder);

private:
    Q_DISABLE_COPY_MOVE(RvoBlockCodec)

    struct IsalEncoder;

    qint64 deflate(const char *data, qint64 size, uchar *out, qint64 capacity);
    bool decode(const char *payload, qint64 length, qint64 expectedSize, QByteArray *out);

    // Exactly one of the two writers exists, the one the constructor was
    // asked for; null when there was no memory for it.
    std::unique_ptr<IsalEncoder> m_Isal;
    libdeflate_compressor *m_Compressor = nullptr;
    libdeflate_decompressor *m_Decompressor;
};

#endif // RVOBLOCKCODEC_P_H
