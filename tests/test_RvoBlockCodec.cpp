#include "RvoBlockCodec_p.h"

#include "../bench/support/ImageTiles.h"

#include <QtEndian>

#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <random>
#include <vector>

namespace {

QByteArray randomBytes(int size, unsigned seed)
{
    std::mt19937 gen(seed);
    QByteArray bytes(size, Qt::Uninitialized);
    for (int i = 0; i < size; ++i)
        bytes[i] = char(gen() & 0xFF);
    return bytes;
}

QByteArray textBytes(int size)
{
    static const char words[] = "block store digest payload tile level stream header ";
    QByteArray bytes(size, Qt::Uninitialized);
    for (int i = 0; i < size; ++i)
        bytes[i] = words[(i * 7 + i / 53) % (sizeof(words) - 1)];
    return bytes;
}

using Encoder = RvoBlockCodec::Encoder;
using Setting = RvoBlockCodecSetting;
// Both zlib writers: ISA-L where the CPU has AVX2, libdeflate where it has not.
const Encoder Encoders[] = {Encoder::IsaL, Encoder::Libdeflate};

const char *nameOf(Encoder encoder)
{
    return encoder == Encoder::IsaL ? "ISA-L" : "libdeflate";
}

// The blocks every round trip goes through: empty, tiny, odd-sized, text,
// image tiles of each kind and data that does not compress at all.
std::vector<QByteArray> sampleBlocks()
{
    return {QByteArray(),         QByteArray(1, 'x'),          textBytes(255),
            textBytes(64 * 1024), makeImageLikeTile(3),        makePhotoLikeTile(2),
            makeHalfFloatTile(3), randomBytes(1024 * 1024, 42)};
}

// Copies the first length bytes of a payload to a heap block of exactly that
// size, so that the sanitizer build catches any read past its end.
std::vector<char> exactCopy(const QByteArray &bytes, qint64 length)
{
    return std::vector<char>(bytes.constData(), bytes.constData() + length);
}

QByteArray withHeader(QByteArray payload, quint32 length)
{
    qToBigEndian(length, payload.data());
    return payload;
}

// uncompress must give back exactly `block`, whatever *out held before.
testing::AssertionResult decodes(RvoBlockCodec &codec, const QByteArray &payload,
                                 const QByteArray &block)
{
    const std::vector<char> copy = exactCopy(payload, payload.size());
    QByteArray out("stale contents");
    if (!codec.uncompress(copy.data(), payload.size(), block.size(), &out))
        return testing::AssertionFailure() << "refused";
    if (out != block)
        return testing::AssertionFailure() << "decoded to other bytes";
    return testing::AssertionSuccess();
}

// uncompress must say no and must not leave anything behind in *out.
testing::AssertionResult refused(RvoBlockCodec &codec, const QByteArray &payload, qint64 length,
                                 qint64 expectedSize)
{
    const std::vector<char> copy = exactCopy(payload, length);
    QByteArray out("stale contents");
    if (codec.uncompress(copy.data(), length, expectedSize, &out))
        return testing::AssertionFailure()
                << "accepted " << length << " bytes as " << expectedSize << " bytes";
    if (!out.isEmpty())
        return testing::AssertionFailure() << "refused but left " << out.size() << " bytes";
    return testing::AssertionSuccess();
}

} // namespace

// Every writer: zlib through either encoder, LZ4 and Zstandard as set by
// name, unshuffled or with other elements. Whatever wrote a payload, one
// reader with any setting reads it back; zlib payloads are qUncompress's
// format (a big-endian length, then a zlib stream) and qCompress's at any
// level decode.
TEST(RvoBlockCodec, EveryWriterRoundTripsEveryKindOfBlock)
{
    struct Writer
    {
        std::string name;
        Setting::Kind kind;
        std::unique_ptr<RvoBlockCodec> codec;
    };
    std::vector<Writer> writers;
    for (const Encoder encoder : Encoders)
        writers.push_back(
                {nameOf(encoder), Setting::Zlib, std::make_unique<RvoBlockCodec>(encoder)});
    for (const Setting &setting :
         {Setting::lz4(), Setting::lz4().withShuffle(1), Setting::lz4().withShuffle(4),
          Setting::zstd(), Setting::zstd(-5).withShuffle(1), Setting::zstd(3).withShuffle(3)})
        writers.push_back(
                {setting.toString().toStdString() + "/" + std::to_string(setting.shuffle()),
                 setting.kind(), std::make_unique<RvoBlockCodec>(setting)});
    RvoBlockCodec reader(Setting::zstd());
    for (const Writer &writer : writers)
        for (const QByteArray &block : sampleBlocks()) {
            SCOPED_TRACE(testing::Message() << writer.name << ", " << block.size() << " bytes");
            const QByteArray payload = writer.codec->compress(block.constData(), block.size());
            ASSERT_FALSE(payload.isNull());
            EXPECT_EQ(qFromBigEndian<quint32>(payload.constData()), quint32(block.size()));
            Setting::Kind kind = Setting::Zstd;
            EXPECT_TRUE(RvoBlockCodec::kindOf(payload.constData(), payload.size(), &kind));
            EXPECT_EQ(kind, block.isEmpty() ? Setting::Zlib : writer.kind);
            EXPECT_TRUE(decodes(reader, payload, block));
            if (writer.kind == Setting::Zlib)
                EXPECT_TRUE(qUncompress(payload) == block);
        }
    for (const QByteArray &block : sampleBlocks())
        for (int level : {-1, 2, 9})
            EXPECT_TRUE(decodes(reader, qCompress(block, level), block)) << level;
    EXPECT_EQ(RvoBlockCodec().compress(nullptr, 0), QByteArray(4, '\0')) << "no bytes anywhere";
}

TEST(RvoBlockCodec, PayloadKeepsNoWorstCaseSlackAndDecodesInPlace)
{
    RvoBlockCodec codec;
    const QByteArray tile = makeImageLikeTile(7);
    QByteArray buffer = codec.compress(tile.constData(), tile.size());
    ASSERT_LT(buffer.size(), tile.size() / 2);
    EXPECT_LT(buffer.capacity(), buffer.size() + 64);
    ASSERT_TRUE(codec.uncompress(buffer.constData(), buffer.size(), tile.size(), &buffer));
    EXPECT_TRUE(buffer == tile);
}

// The bound is what the worst case needs, and compress() writes nothing
// beyond the capacity it is given, even when it runs out of room.
TEST(RvoBlockCodec, CompressWritesNothingBeyondItsCapacity)
{
    constexpr char Canary = 0x5A;
    for (const Encoder encoder : Encoders)
        for (const QByteArray &block : {randomBytes(1024 * 1024, 7), makeImageLikeTile(2)}) {
            SCOPED_TRACE(testing::Message() << nameOf(encoder) << ", " << block.size() << " bytes");
            RvoBlockCodec codec(encoder);
            const qint64 bound = codec.compressBound(block.size());
            std::vector<char> out(size_t(bound) + 64, Canary);
            const qint64 length
                    = codec.compress(block.constData(), block.size(), out.data(), bound);
            ASSERT_GT(length, 4);
            ASSERT_LE(length, bound);
            EXPECT_EQ(std::count(out.begin() + bound, out.end(), Canary), 64);
            QByteArray decoded;
            EXPECT_TRUE(codec.uncompress(out.data(), length, block.size(), &decoded));
            EXPECT_TRUE(decoded == block);

            std::fill(out.begin(), out.end(), Canary);
            EXPECT_EQ(codec.compress(block.constData(), block.size(), out.data(), length - 1), -1);
            EXPECT_EQ(std::count(out.begin() + length - 1, out.end(), Canary),
                      qint64(out.size()) - length + 1);
        }
}

// A short text's payload and an image tile's, made by each codec and read
// by the default one. A damaged payload never decodes to other bytes than
// were written.
class RvoBlockCodecDamage : public ::testing::TestWithParam<Setting>
{
protected:
    void SetUp() override
    {
        ASSERT_GT(smallPayload.size(), 12);
        ASSERT_GT(payload.size(), 8192);
    }
    QByteArray compress(const QByteArray &block)
    {
        return RvoBlockCodec(GetParam()).compress(block.constData(), block.size());
    }

    RvoBlockCodec reader;
    const QByteArray small = textBytes(255);
    const QByteArray smallPayload = compress(small);
    const QByteArray tile = makeImageLikeTile(6);
    const QByteArray payload = compress(tile);
};

INSTANTIATE_TEST_SUITE_P(Codecs, RvoBlockCodecDamage,
                         ::testing::Values(Setting::zlib(), Setting::lz4(), Setting::zstd()),
                         [](const auto &info) {
                             return info.param.toString().left(4).toStdString();
                         });

TEST_P(RvoBlockCodecDamage, CutPayloadIsRefused)
{
    for (int length = 0; length < smallPayload.size(); ++length)
        EXPECT_TRUE(refused(reader, smallPayload, length, small.size())) << "prefix " << length;
    const int n = int(payload.size());
    for (int length : {4, 5, 6, 7, 9, 10, 11, 100, n / 4, n / 2, n - 4096, n - 5, n - 4, n - 1})
        EXPECT_TRUE(refused(reader, payload, length, tile.size())) << "cut at " << length;
}

// Any byte of the short payload, checksums included, changed whole is
// refused. A flipped bit in the tile's may still leave the output unchanged
// (a match distance that points at identical pixels, say), and then the bytes
// handed out are the block's own; the checksum refuses almost every flip.
TEST_P(RvoBlockCodecDamage, FlippedByteIsRefusedOrChangesNothing)
{
    for (int i = 4; i < smallPayload.size(); ++i) {
        QByteArray bad = smallPayload;
        bad[i] = char(bad[i] ^ 0xFF);
        EXPECT_TRUE(refused(reader, bad, bad.size(), small.size())) << "byte " << i;
    }
    int refusals = 0;
    int flips = 0;
    for (int i = 5; i < payload.size(); i += 97, ++flips) {
        QByteArray bad = payload;
        bad[i] = char(bad[i] ^ (i == 5 ? 0x0C : 0x10)); // LZ4, Zstandard: shuffle 8 becomes 4
        QByteArray out("stale contents");
        if (reader.uncompress(bad.constData(), bad.size(), tile.size(), &out)) {
            EXPECT_TRUE(out == tile) << "byte " << i;
        } else {
            EXPECT_TRUE(out.isEmpty()) << "byte " << i;
            ++refusals;
        }
    }
    EXPECT_GE(refusals, flips - flips / 20);
}

// The length field, the caller's expected size and the stream or frame must
// all agree, and nothing may follow the stream; another block's payload
// under this one's size, or this one under another codec's tag, is refused.
TEST_P(RvoBlockCodecDamage, PayloadThatDisagreesWithItsSizeOrTagIsRefused)
{
    const int n = int(payload.size());
    const quint32 size = quint32(tile.size());
    for (quint32 lie : {size - 1, size + 1, 1u, 2 * size, 0x7FFFFFFFu, 0xFFFFFFFFu}) {
        EXPECT_TRUE(refused(reader, withHeader(payload, lie), n, lie)) << lie;
        EXPECT_TRUE(refused(reader, withHeader(payload, lie), n, size)) << lie;
    }
    for (qint64 expected :
         {qint64(size) - 1, qint64(size) + 1, qint64(0), qint64(1), (qint64(1) << 32) + size})
        EXPECT_TRUE(refused(reader, payload, n, expected)) << expected;
    for (const QByteArray &tail :
         {QByteArray(1, '\0'), QByteArray("garbage"), payload.mid(4), QByteArray(4096, 'z')}) {
        const QByteArray bad = payload + tail;
        EXPECT_TRUE(refused(reader, bad, bad.size(), size)) << tail.size();
    }
    const QByteArray shorter = tile.left(tile.size() - 1);
    const QByteArray other = compress(shorter);
    EXPECT_TRUE(refused(reader, withHeader(other, size), other.size(), size));
    QByteArray swapped = payload;
    swapped[4] = GetParam().kind() == Setting::Lz4 ? 'Z' : 'L';
    EXPECT_TRUE(refused(reader, swapped, n, size));
}

// An empty block is four zero bytes and nothing else: not a zero length
// followed by a stream, not even a valid zlib stream of nothing.
TEST(RvoBlockCodec, EmptyBlockIsFourZeroBytesAlone)
{
    RvoBlockCodec codec;
    const QByteArray block = textBytes(1000);
    const QByteArray payload = codec.compress(block.constData(), block.size());
    const QByteArray empty = codec.compress(nullptr, 0);
    EXPECT_TRUE(refused(codec, empty, empty.size(), 1));
    EXPECT_TRUE(refused(codec, empty + QByteArray(1, '\0'), empty.size() + 1, 0));
    EXPECT_TRUE(refused(codec, withHeader(payload, 0), payload.size(), 0));
    const QByteArray emptyStream = QByteArray::fromHex("00000000789c030000000001");
    EXPECT_TRUE(refused(codec, emptyStream, emptyStream.size(), 0));
}

TEST(RvoBlockCodec, ImpossibleSizesAreRefusedWithoutReading)
{
    RvoBlockCodec codec;
    const QByteArray block = textBytes(1000);
    const QByteArray payload = codec.compress(block.constData(), block.size());
    const QByteArray zeros(4, '\0');
    for (int length = 0; length < 4; ++length)
        EXPECT_TRUE(refused(codec, zeros, length, 0)) << length;
    QByteArray out("stale contents");
    EXPECT_FALSE(codec.uncompress(nullptr, 0, 0, &out));
    EXPECT_TRUE(out.isEmpty());
    EXPECT_FALSE(codec.uncompress(zeros.constData(), 4, 0, nullptr));

    EXPECT_TRUE(codec.compress(block.constData(), -1).isNull());
    EXPECT_TRUE(codec.compress(block.constData(), std::numeric_limits<qint64>::min()).isNull());
    const std::vector<char> copy = exactCopy(payload, payload.size());
    out = QByteArray("stale contents");
    EXPECT_FALSE(codec.uncompress(copy.data(), -1, block.size(), &out));
    EXPECT_TRUE(out.isEmpty());
    EXPECT_FALSE(codec.uncompress(copy.data(), std::numeric_limits<qint64>::min(), 1000, &out));
    EXPECT_TRUE(refused(codec, payload, payload.size(), -1));
    EXPECT_TRUE(refused(codec, withHeader(payload, 0xFFFFFFFF), payload.size(), -1));
    EXPECT_TRUE(refused(codec, payload, payload.size(), std::numeric_limits<qint64>::min()));

    // The buffer is 16 bytes; a codec that narrowed 4 GiB + 16 to 32 bits
    // would compress 16 bytes and get the length wrong, one that read
    // would run off the end.
    const std::vector<char> data(16, 'a');
    EXPECT_TRUE(codec.compress(data.data(), (qint64(1) << 32) + 16).isNull());
    EXPECT_TRUE(codec.compress(data.data(), std::numeric_limits<qint64>::max()).isNull());
    EXPECT_TRUE(codec.compress(nullptr, 16).isNull());
}

TEST(RvoBlockCodec, SettingsParseFromTextAndABadOneSaysWhy)
{
    const struct
    {
        const char *text;
        const char *parsed; // or the message
    } cases[] = {
            {"", "zlib"},
            {" LZ4 ", "lz4"},
            {"zstd", "zstd:2"},
            {"zstd:-5", "zstd:-5"},
            {"lz4:1", "Bad block codec 'lz4:1': lz4 takes no level"},
            {"zstd:0",
             "Bad block codec 'zstd:0': its level must be a whole number from -50 to 22, "
             "not 0"},
    };
    for (const auto &c : cases) {
        Setting setting = Setting::zstd(7);
        QString error;
        const bool ok = Setting::parse(QString::fromLatin1(c.text), &setting, &error);
        EXPECT_EQ((ok ? setting.toString() : error).toStdString(), c.parsed) << c.text;
        if (!ok)
            EXPECT_EQ(setting, Setting::zstd(7)) << c.text;
    }
}
