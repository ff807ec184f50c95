// A whole block file's bytes through the read thread's checks: header
// against the file's length, then the payload, of any codec, decoded to
// exactly Size bytes. A file found sound must survive a round trip through
// the writer of its own codec.

#include "RvoBlockCodec_p.h"
#include "RvoBlockFile_p.h"

#include <cstdint>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static RvoBlockCodec codec;
    const char *bytes = reinterpret_cast<const char *>(data);
    QByteArray block;
    RvoBlockFile::Header header;
    if (RvoBlockFile::decode(codec, bytes, qint64(size), &block, &header) != RvoBlockFile::Sound) {
        if (!block.isEmpty())
            std::abort(); // a refused file hands out no bytes
        return 0;
    }
    if (block.size() != header.size)
        std::abort();
    RvoBlockCodecSetting::Kind kind = RvoBlockCodecSetting::Zlib;
    RvoBlockCodec::kindOf(bytes + RvoBlockFile::kHeaderSize,
                          qint64(size) - RvoBlockFile::kHeaderSize, &kind);
    codec.setSetting(kind == RvoBlockCodecSetting::Lz4            ? RvoBlockCodecSetting::lz4()
                             : kind == RvoBlockCodecSetting::Zstd ? RvoBlockCodecSetting::zstd()
                                                                  : RvoBlockCodecSetting::zlib());
    const QByteArray payload = codec.compress(block.constData(), block.size());
    QByteArray again;
    if (codec.uncompress(payload.constData(), payload.size(), block.size(), &again) == false
        || again != block)
        std::abort();
    return 0;
}
