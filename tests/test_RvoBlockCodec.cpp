#include "RvoBlockCodec_p.h"

#include "../bench/support/ImageTiles.h"

#include <QtEndian>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
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
// Both writers: ISA-L where the CPU has AVX2, libdeflate where it has not.
const Encoder Encoders[] = {Encoder::IsaL, Encoder::Libdeflate};

const char *nameOf(Encoder encoder)
{
    return encoder == Encoder::IsaL ? "ISA-L" : "libdeflate";
}

// The blocks every round trip goes through: empty, tiny, odd-sized, text,
// an image tile and data that does not compress at all.
std::vector<QByteArray> sampleBlocks()
{
    return {QByteArray(),         QByteArray(1, 'x'),   textBytes(255),
            textBytes(64 * 1024), makeImageLikeTile(3), randomBytes(1024 * 1024, 42)};
}

// Copies the first length bytes of a payload to a heap block of exactly that
// size, so that the sanitizer build catches any read past its end.
std::vector<char> exactCopy(const QByteArray &bytes, qint64 length)
{
    return std::vector<char>(bytes.constData(), bytes.constData() + length);
}

QByteArray withHeader(QByteArray payload, quint32 length)
{
    payload[0] = char(length >> 24);
    payload[1] = char(length >> 16);
    payload[2] = char(length >> 8);
    payload[3] = char(length);
    return payload;
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

// Our payloads are qUncompress's format (a big-endian length, then a zlib
// stream), whichever library wrote them, and qCompress's at any level decode.
TEST(RvoBlockCodec, RoundTripsKeepEveryByteAndMatchQtsFormat)
{
    for (const Encoder encoder : Encoders)
        for (const QByteArray &block : sampleBlocks()) {
            SCOPED_TRACE(testing::Message() << nameOf(encoder) << ", " << block.size() << " bytes");
            RvoBlockCodec codec(encoder);
            const QByteArray payload = codec.compress(block.constData(), block.size());
            ASSERT_FALSE(payload.isNull());
            EXPECT_EQ(payload.left(4), withHeader(QByteArray(4, 0), quint32(block.size())));
            EXPECT_TRUE(qUncompress(payload) == block);
            for (const QByteArray &encoded :
                 {payload, qCompress(block, -1), qCompress(block, 2), qCompress(block, 9)}) {
                const std::vector<char> copy = exactCopy(encoded, encoded.size());
                QByteArray out("stale contents");
                ASSERT_TRUE(codec.uncompress(copy.data(), encoded.size(), block.size(), &out));
                EXPECT_EQ(out.size(), block.size());
                EXPECT_TRUE(out == block);
            }
        }
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

// A short text's payload and an image tile's, made by the default codec.
class RvoBlockCodecDamage : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_GT(smallPayload.size(), 10);
        ASSERT_GT(payload.size(), 8192);
    }

    RvoBlockCodec codec;
    const QByteArray small = textBytes(255);
    const QByteArray smallPayload = codec.compress(small.constData(), small.size());
    const QByteArray tile = makeImageLikeTile(6);
    const QByteArray payload = codec.compress(tile.constData(), tile.size());
};

TEST_F(RvoBlockCodecDamage, CutPayloadIsRefused)
{
    for (int length = 0; length < smallPayload.size(); ++length)
        EXPECT_TRUE(refused(codec, smallPayload, length, small.size())) << "prefix " << length;
    const int n = int(payload.size());
    for (int length : {4, 5, 6, 7, 100, n / 4, n / 2, n - 4096, n - 5, n - 4, n - 1})
        EXPECT_TRUE(refused(codec, payload, length, tile.size())) << "cut at " << length;
}

// A damaged payload never decodes to other bytes than were written. The
// checksum refuses almost every flip; a flipped bit may still leave the
// output unchanged (a match distance that points at identical pixels, say),
// and then the bytes handed out are the block's own.
TEST_F(RvoBlockCodecDamage, FlippedByteIsRefusedOrChangesNothing)
{
    for (int i = 4; i < smallPayload.size(); ++i) {
        QByteArray bad = smallPayload;
        bad[i] = char(bad[i] ^ 0xFF);
        EXPECT_TRUE(refused(codec, bad, bad.size(), small.size())) << "byte " << i;
    }
    int refusals = 0;
    int flips = 0;
    for (int i = 4; i < payload.size(); i += 509, ++flips) {
        QByteArray bad = payload;
        bad[i] = char(bad[i] ^ 0x10);
        QByteArray out("stale contents");
        if (codec.uncompress(bad.constData(), bad.size(), tile.size(), &out)) {
            EXPECT_TRUE(out == tile) << "byte " << i;
        } else {
            EXPECT_TRUE(out.isEmpty()) << "byte " << i;
            ++refusals;
        }
    }
    EXPECT_GE(refusals, flips - flips / 20);
    // One bit of the Adler-32 alone: the data decodes, the checksum does not match.
    QByteArray badSum = payload;
    badSum[badSum.size() - 1] = char(badSum[badSum.size() - 1] ^ 0x01);
    EXPECT_TRUE(refused(codec, badSum, badSum.size(), tile.size()));
}

// The length field, the caller's expected size and the stream must all agree.
TEST(RvoBlockCodec, PayloadThatDisagreesWithItsSizeIsRefused)
{
    RvoBlockCodec codec;
    const QByteArray block = textBytes(1000);
    const QByteArray payload = codec.compress(block.constData(), block.size());
    for (quint32 lie : {999u, 1001u, 1u, 2000u, 0x7FFFFFFFu, 0xFFFFFFFFu}) {
        const QByteArray bad = withHeader(payload, lie);
        EXPECT_TRUE(refused(codec, bad, bad.size(), lie)) << lie;
    }
    EXPECT_TRUE(refused(codec, withHeader(payload, 999), payload.size(), block.size()));
    for (qint64 expected :
         {qint64(999), qint64(1001), qint64(0), qint64(1), (qint64(1) << 32) + 1000})
        EXPECT_TRUE(refused(codec, payload, payload.size(), expected)) << expected;
    for (const QByteArray &tail :
         {QByteArray(1, '\0'), QByteArray("garbage"), payload.mid(4), QByteArray(4096, 'z')}) {
        const QByteArray bad = payload + tail;
        EXPECT_TRUE(refused(codec, bad, bad.size(), block.size())) << tail.size();
    }

    // An empty block is four zero bytes and nothing else: not a zero length
    // followed by a stream, not even a valid zlib stream of nothing.
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

// Block files may take at most 5 % more disk than qCompress level 2 would.
TEST(RvoBlockCodec, TilesStayWithinFivePercentOfZlibLevel2)
{
    for (const Encoder encoder : Encoders) {
        RvoBlockCodec codec(encoder);
        for (const auto make : {makeImageLikeTile, makePhotoLikeTile}) {
            qint64 ours = 0;
            qint64 zlib = 0;
            for (int index = 0; index < 8; ++index) {
                const QByteArray tile = make(index, 256 * 1024);
                ours += codec.compress(tile.constData(), tile.size()).size();
                zlib += qCompress(tile, 2).size();
            }
            EXPECT_LE(double(ours), double(zlib) * 1.05)
                    << nameOf(encoder) << " level " << RvoBlockCodec::level(encoder) << ": " << ours
                    << " bytes against " << zlib;
        }
    }
}

namespace {

using Setting = RvoBlockCodecSetting;
// Every writer: LZ4 and Zstandard as set by name, and unshuffled or with
// other elements, which readers must read as well.
const Setting Settings[] = {Setting::zlib(),
                            Setting::lz4(),
                            Setting::lz4().withShuffle(1),
                            Setting::lz4().withShuffle(4),
                            Setting::zstd(),
                            Setting::zstd(-5).withShuffle(1),
                            Setting::zstd(3).withShuffle(3)};

} // namespace

// Whatever wrote a payload, one reader with any setting reads it back.
TEST(RvoBlockCodec, EveryCodecRoundTripsEveryKindOfTile)
{
    RvoBlockCodec reader(Setting::zstd());
    for (const Setting &setting : Settings)
        for (const QByteArray &block :
             {QByteArray(), QByteArray(1, 'x'), textBytes(1027), makeImageLikeTile(1),
              makePhotoLikeTile(2), makeHalfFloatTile(3), randomBytes(1024 * 1024, 5)}) {
            SCOPED_TRACE(testing::Message()
                         << setting.toString().toStdString() << "/" << setting.shuffle() << ", "
                         << block.size() << " bytes");
            RvoBlockCodec codec(setting);
            const QByteArray payload = codec.compress(block.constData(), block.size());
            ASSERT_FALSE(payload.isNull());
            EXPECT_EQ(qFromBigEndian<quint32>(payload.constData()), quint32(block.size()));
            Setting::Kind kind = Setting::Zstd;
            EXPECT_TRUE(RvoBlockCodec::kindOf(payload.constData(), payload.size(), &kind));
            EXPECT_EQ(kind, block.isEmpty() ? Setting::Zlib : setting.kind());
            const std::vector<char> copy = exactCopy(payload, payload.size());
            QByteArray out;
            ASSERT_TRUE(reader.uncompress(copy.data(), payload.size(), block.size(), &out));
            EXPECT_TRUE(out == block);
        }
}

// A damaged LZ4 or Zstandard payload never hands out other bytes than were
// written: cut anywhere, a size that disagrees with the frame's or block's,
// a byte changed anywhere (the checksum covers the block as handed out), or
// the other codec's tag.
TEST(RvoBlockCodec, DamagedLz4AndZstdPayloadsAreRefused)
{
    RvoBlockCodec reader;
    const QByteArray tile = makeImageLikeTile(4);
    for (const Setting &setting : {Setting::lz4(), Setting::zstd()}) {
        SCOPED_TRACE(setting.toString().toStdString());
        RvoBlockCodec codec(setting);
        const QByteArray payload = codec.compress(tile.constData(), tile.size());
        const int n = int(payload.size());
        for (int length : {4, 5, 6, 9, 10, 11, n / 2, n - 1})
            EXPECT_TRUE(refused(reader, payload, length, tile.size())) << "cut at " << length;
        EXPECT_TRUE(refused(reader, payload + 'x', n + 1, tile.size()));
        const QByteArray shorter = tile.left(tile.size() - 1);
        const QByteArray other = codec.compress(shorter.constData(), shorter.size());
        EXPECT_TRUE(refused(reader, withHeader(other, quint32(tile.size())), other.size(),
                            tile.size()));
        EXPECT_TRUE(
                refused(reader, withHeader(payload, quint32(shorter.size())), n, shorter.size()));
        QByteArray swapped = payload;
        swapped[4] = setting.kind() == Setting::Lz4 ? 'Z' : 'L';
        EXPECT_TRUE(refused(reader, swapped, n, tile.size()));
        int refusals = 0;
        int flips = 0;
        for (int i = 5; i < n; i += 97, ++flips) {
            QByteArray bad = payload;
            bad[i] = char(bad[i] ^ (i == 5 ? 0x0C : 0x10)); // at 5: shuffle 8 becomes 4
            QByteArray out("stale contents");
            if (reader.uncompress(bad.constData(), n, tile.size(), &out))
                EXPECT_TRUE(out == tile) << "byte " << i;
            else
                ++refusals;
        }
        EXPECT_GE(refusals, flips - flips / 20);
    }
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
            {"brotli", "Bad block codec 'brotli': use zlib, lz4, zstd or zstd:LEVEL"},
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
