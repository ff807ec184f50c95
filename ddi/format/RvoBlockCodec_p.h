#ifndef RVOBLOCKCODEC_P_H
#define RVOBLOCKCODEC_P_H

#include "RvoBlockCodecSetting_p.h"
#include "rvoddi_export.h"

#include <QByteArray>
#include <QtGlobal>

#include <memory>

struct libdeflate_compressor;
struct libdeflate_decompressor;
struct ZSTD_CCtx_s;
struct ZSTD_DCtx_s;

// Turns a block's bytes into the payload stored in a block file and back.
//
// Every payload begins with the uncompressed length as a 4-byte big-endian
// number; an empty block is that zero length alone. What follows says what
// it is (RvoBlockCodec.cpp has the layouts):
//   - zlib (the default setting): a zlib stream (RFC 1950), which makes the
//     payload exactly what qCompress() writes, so any qUncompress() reads it.
//     Written by ISA-L's igzip where the CPU runs its fast code and by
//     libdeflate elsewhere, read by libdeflate.
//   - LZ4 or Zstandard: a tag byte that cannot begin a zlib stream, the byte
//     shuffle's element size, then the compressed bytes with a checksum.
// compress() writes what setting() says; uncompress() reads every kind,
// whatever the setting.
//
// One object per thread: it holds the libraries' working state, which is
// large and not safe to share. Create it once and reuse it for every block.
class RVODDI_EXPORT RvoBlockCodec
{
public:
    // The library that writes payloads. Both write the same format, so a
    // payload's reader does not depend on it.
    enum class Encoder { IsaL, Libdeflate };

    // IsaL on a CPU with AVX2, Libdeflate otherwise; checked once per process.
    static Encoder defaultEncoder();

    // Writes zlib with `encoder`.
    explicit RvoBlockCodec(Encoder encoder = defaultEncoder());
    explicit RvoBlockCodec(const RvoBlockCodecSetting &setting);
    ~RvoBlockCodec();

    // The calling thread's own codec, made on its first use and kept for the
    // thread's life (for pool threads, which decode block after block).
    static RvoBlockCodec &forThisThread();

    // How compress() writes payloads (zlib until set). A block LZ4 cannot
    // take (over about 2 GB) is written as zlib.
    void setSetting(const RvoBlockCodecSetting &setting) { m_Setting = setting; }
    const RvoBlockCodecSetting &setting() const { return m_Setting; }

    // The codec of a payload's first `length` bytes (5 are enough), for
    // counting: false when they name none (shorter than 5 bytes and not the
    // bare length of an empty block, or a tag of no codec).
    static bool kindOf(const char *payload, qint64 length, RvoBlockCodecSetting::Kind *kind);

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

    // Decodes a payload of length bytes, of any codec, that must hold exactly
    // expectedSize bytes. On any fault (short or corrupt payload, a length
    // field, frame or stream that disagrees with expectedSize, bytes after
    // the stream, a checksum that does not match) returns false and leaves
    // *out empty. payload may point into *out.
    bool uncompress(const char *payload, qint64 length, qint64 expectedSize, QByteArray *out);

    // The compression level compress() uses, in the encoder's own scale.
    static int level(Encoder encoder);

private:
    Q_DISABLE_COPY_MOVE(RvoBlockCodec)

    struct IsalEncoder;

    qint64 deflate(const char *data, qint64 size, uchar *out, qint64 capacity);
    qint64 zlibBound(qint64 size) const;
    // The LZ4 or Zstandard payload's bytes after the length field; 0 when
    // they do not fit or there is no memory.
    qint64 compressLz4(const char *data, qint64 size, uchar *out, qint64 capacity);
    qint64 compressZstd(const char *data, qint64 size, uchar *out, qint64 capacity);
    // `data` byte-shuffled into the scratch buffer; null without memory.
    const char *shuffled(const char *data, qint64 size);
    // The tag, shuffle element and CRC-32 that start an LZ4 or Zstandard
    // payload at `out`.
    void writeTaggedHeader(uchar tag, const char *data, qint64 size, uchar *out) const;
    char *scratch(qint64 size);
    void releaseScratch();
    bool decode(const char *payload, qint64 length, qint64 expectedSize, QByteArray *out);
    bool decodeZlib(const uchar *stream, qint64 length, qint64 expectedSize, QByteArray *out);
    bool decodeLz4(const uchar *body, qint64 length, qint64 expectedSize, QByteArray *out);
    bool decodeZstd(const uchar *body, qint64 length, qint64 expectedSize, QByteArray *out);
    // The end of either: the bytes decoded into `target` unshuffled into
    // `block` when they were shuffled by `element`, the scratch let go, and
    // the block checked against the payload's CRC-32 before it is handed out.
    bool finishTagged(bool decoded, const char *target, int element, const uchar *body,
                      QByteArray block, QByteArray *out);

    // Exactly one of the two writers exists, the one the constructor was
    // asked for; null when there was no memory for it.
    std::unique_ptr<IsalEncoder> m_Isal;
    libdeflate_compressor *m_Compressor = nullptr;
    libdeflate_decompressor *m_Decompressor;
    RvoBlockCodecSetting m_Setting;
    // Made on first use: most threads only ever meet one codec.
    std::unique_ptr<char[]> m_Lz4State;
    ZSTD_CCtx_s *m_ZstdCompressor = nullptr;
    ZSTD_DCtx_s *m_ZstdDecompressor = nullptr;
    // Shuffled bytes on their way to or from the compressor.
    std::unique_ptr<char[]> m_Scratch;
    qint64 m_ScratchSize = 0;
};

#endif // RVOBLOCKCODEC_P_H
