#ifndef IMAGETILES_H
#define IMAGETILES_H

// Deterministic test data that compresses like real image tiles: RGBA pixels,
// 256 to a row, made of smooth gradients, a few flat or shaded shapes and a
// little sensor-like noise. Each index gives a different tile; the same index
// always gives the same bytes on every platform (integer arithmetic only), so
// benchmark figures taken on different days compare.

#include <QByteArray>

#include <cstdint>

namespace ImageTiles {

// splitmix64: small, fast, and good enough to decorrelate neighbouring seeds.
inline std::uint64_t nextRandom(std::uint64_t &state)
{
    std::uint64_t z = (state += 0x9E3779B97F4A7C15ull);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    return z ^ (z >> 31);
}

inline int randomBelow(std::uint64_t &state, int bound)
{
    return int(nextRandom(state) % std::uint64_t(bound));
}

inline unsigned char clampByte(int v)
{
    return static_cast<unsigned char>(v < 0 ? 0 : (v > 255 ? 255 : v));
}

} // namespace ImageTiles

inline QByteArray makeImageLikeTile(int index, int size = 262144)
{
    using namespace ImageTiles;
    if (size <= 0)
        return QByteArray();

    constexpr int Width = 256;
    constexpr int MaxShapes = 7;
    std::uint64_t seed = 0x5EEDull * 1000003ull + std::uint64_t(std::uint32_t(index));

    // Background: a per-channel linear gradient, base + (x * dx + y * dy) / 256.
    int base[3], dx[3], dy[3];
    for (int c = 0; c < 3; ++c) {
        base[c] = 40 + randomBelow(seed, 140);
        dx[c] = randomBelow(seed, 161) - 80;
        dy[c] = randomBelow(seed, 161) - 80;
    }

    struct Shape
    {
        bool circle;
        int x0, y0, x1, y1; // bounding box; a circle's centre and radius come from it
        int colour[3];
        int shade; // brightness change across the shape, per 256 pixels
        int alpha;
        bool textured; // rougher surface: stronger noise inside
    };
    Shape shapes[MaxShapes];
    const int shapeCount = 3 + randomBelow(seed, MaxShapes - 2);
    for (int s = 0; s < shapeCount; ++s) {
        Shape &sh = shapes[s];
        sh.circle = randomBelow(seed, 2) == 0;
        sh.x0 = randomBelow(seed, Width);
        sh.y0 = randomBelow(seed, Width);
        sh.x1 = sh.x0 + 16 + randomBelow(seed, 112);
        sh.y1 = sh.y0 + 16 + randomBelow(seed, 112);
        for (int c = 0; c < 3; ++c)
            sh.colour[c] = randomBelow(seed, 256);
        sh.shade = randomBelow(seed, 121) - 60;
        sh.alpha = randomBelow(seed, 3) == 0 ? 128 + randomBelow(seed, 128) : 255;
        sh.textured = randomBelow(seed, 3) == 0;
    }

    QByteArray tile(size, Qt::Uninitialized);
    unsigned char *out = reinterpret_cast<unsigned char *>(tile.data());
    const int pixels = (size + 3) / 4;
    std::uint64_t noise = seed;
    std::uint64_t bits = 0;
    int bitsLeft = 0;
    for (int p = 0; p < pixels; ++p) {
        const int x = p % Width;
        const int y = p / Width;
        int rgb[3];
        for (int c = 0; c < 3; ++c)
            rgb[c] = base[c] + (x * dx[c] + y * dy[c]) / 256;
        int alpha = 255;
        bool textured = false;

        // Later shapes cover earlier ones, as in a drawn picture.
        for (int s = 0; s < shapeCount; ++s) {
            const Shape &sh = shapes[s];
            if (x < sh.x0 || x >= sh.x1 || y < sh.y0 || y >= sh.y1)
                continue;
            if (sh.circle) {
                const int r = (sh.x1 - sh.x0) / 2;
                const int cx = sh.x0 + r;
                const int cy = sh.y0 + r;
                if ((x - cx) * (x - cx) + (y - cy) * (y - cy) > r * r)
                    continue;
            }
            const int shade = ((x - sh.x0) + (y - sh.y0)) * sh.shade / 256;
            for (int c = 0; c < 3; ++c)
                rgb[c] = sh.colour[c] + shade;
            alpha = sh.alpha;
            textured = sh.textured;
        }

        // Noise drawn four bits at a time keeps the generator cheap.
        for (int c = 0; c < 3; ++c) {
            if (bitsLeft < 4) {
                bits = nextRandom(noise);
                bitsLeft = 64;
            }
            const int r = int(bits & 0xF);
            bits >>= 4;
            bitsLeft -= 4;
            // Smooth areas: -1, 0 or +1 on 9 samples in 16; textured: -4..+4.
            rgb[c] += textured ? r % 9 - 4 : (r < 9 ? r % 3 - 1 : 0);
        }

        const unsigned char px[4] = {clampByte(rgb[0]), clampByte(rgb[1]), clampByte(rgb[2]),
                                     static_cast<unsigned char>(alpha)};
        const qint64 offset = qint64(p) * 4;
        for (int c = 0; c < 4 && offset + c < size; ++c)
            out[offset + c] = px[c];
    }
    return tile;
}

// Harder than makeImageLikeTile: an opaque photograph-like RGBA tile with no
// flat areas. Brightness is smooth value noise at three scales (64, 16 and 4
// pixels) with a colour cast that drifts over 64 pixels, and every sample
// carries sensor noise of -5..+5. Deflate finds few long matches in it.
inline QByteArray makePhotoLikeTile(int index, int size = 262144)
{
    using namespace ImageTiles;
    if (size <= 0)
        return QByteArray();

    constexpr int Width = 256;
    const std::uint64_t seed = 0x9407ull * 1000003ull + std::uint64_t(std::uint32_t(index));
    // A random value in [0, range) at lattice point (gx, gy) of one layer.
    const auto lattice = [seed](int layer, int gx, int gy, int range) {
        std::uint64_t s = seed ^ (std::uint64_t(layer) << 48) ^ (std::uint64_t(gx) << 24)
                ^ std::uint64_t(gy);
        return randomBelow(s, range);
    };
    // Bilinear interpolation of a layer's lattice of cell pixels, minus offset.
    const auto layerAt = [&lattice](int layer, int cell, int range, int x, int y) {
        const int gx = x / cell, gy = y / cell;
        const int fx = x % cell, fy = y % cell;
        const int top = lattice(layer, gx, gy, range) * (cell - fx)
                + lattice(layer, gx + 1, gy, range) * fx;
        const int bottom = lattice(layer, gx, gy + 1, range) * (cell - fx)
                + lattice(layer, gx + 1, gy + 1, range) * fx;
        return (top * (cell - fy) + bottom * fy) / (cell * cell) - range / 2;
    };

    QByteArray tile(size, Qt::Uninitialized);
    unsigned char *out = reinterpret_cast<unsigned char *>(tile.data());
    const int pixels = (size + 3) / 4;
    std::uint64_t noise = seed;
    for (int p = 0; p < pixels; ++p) {
        const int x = p % Width;
        const int y = p / Width;
        const int luma = 128 + layerAt(0, 64, 200, x, y) + layerAt(1, 16, 48, x, y)
                + layerAt(2, 4, 20, x, y);
        const std::uint64_t bits = nextRandom(noise);
        unsigned char px[4];
        for (int c = 0; c < 3; ++c) {
            const int sensor = int((bits >> (c * 8)) % 11) - 5;
            px[c] = clampByte(luma + layerAt(3 + c, 64, 60, x, y) + sensor);
        }
        px[3] = 255;
        const qint64 offset = qint64(p) * 4;
        for (int c = 0; c < 4 && offset + c < size; ++c)
            out[offset + c] = px[c];
    }
    return tile;
}

namespace ImageTiles {

// The IEEE half-precision bits of v / 65536 (v >= 0), mantissa truncated;
// values past the largest half saturate to it.
inline std::uint16_t halfFromFixed(std::uint32_t v)
{
    if (v < 4) // below the smallest normal half (2^-14): subnormal
        return static_cast<std::uint16_t>(v << 8);
    int msb = 31;
    while (!(v >> msb))
        --msb;
    const int exponent = msb - 16 + 15;
    if (exponent > 30)
        return 0x7BFF;
    const std::uint32_t mantissa = msb >= 10 ? (v >> (msb - 10)) : (v << (10 - msb));
    return static_cast<std::uint16_t>((exponent << 10) | (mantissa & 0x3FF));
}

} // namespace ImageTiles

// A rendered or scanned frame as a host caches it for playback: RGBA
// half-float pixels (8 bytes each, little-endian), 256 to a row, so a
// 256 KiB tile is 128 rows. Scene-linear values from 0 to about 2: the
// photo-like tile's luma and colour cast, squared (roughly linear light),
// with noise in the last few bits of every sample; alpha is 1.0. The low
// byte of each half is nearly random, the high byte smooth.
inline QByteArray makeHalfFloatTile(int index, int size = 262144)
{
    using namespace ImageTiles;
    if (size <= 0)
        return QByteArray();
    const QByteArray photo = makePhotoLikeTile(index ^ 0x4000, size / 2 + 4);
    const auto *in = reinterpret_cast<const unsigned char *>(photo.constData());
    std::uint64_t noise = 0x4A1Full * 1000003ull + std::uint64_t(std::uint32_t(index));
    QByteArray tile(size, Qt::Uninitialized);
    unsigned char *out = reinterpret_cast<unsigned char *>(tile.data());
    for (int i = 0; i < size; i += 2) {
        const int c = (i / 2) % 4;
        std::uint16_t half = 0x3C00; // alpha 1.0
        if (c < 3) {
            const std::uint32_t s = in[i / 2];
            // (s / 255)^2 * 2 in 16.16 fixed point, then noise of +-1/512.
            const std::uint32_t linear = s * s * 2 * 65536 / (255 * 255);
            const int jitter = int(nextRandom(noise) % 257) - 128;
            half = halfFromFixed(std::uint32_t(qMax(0, int(linear) + jitter)));
        }
        out[i] = static_cast<unsigned char>(half & 0xFF);
        if (i + 1 < size)
            out[i + 1] = static_cast<unsigned char>(half >> 8);
    }
    return tile;
}

// Bytes that no compressor can shrink: the worst case for payload size and
// the case where a deflate writer falls back to stored blocks.
inline QByteArray makeNoiseTile(int index, int size = 262144)
{
    if (size <= 0)
        return QByteArray();
    std::uint64_t state = 0x401CEull * 1000003ull + std::uint64_t(std::uint32_t(index));
    QByteArray tile(size, Qt::Uninitialized);
    for (int i = 0; i < size; i += 8) {
        const std::uint64_t r = ImageTiles::nextRandom(state);
        for (int b = 0; b < 8 && i + b < size; ++b)
            tile[i + b] = char((r >> (8 * b)) & 0xFF);
    }
    return tile;
}

#endif // IMAGETILES_H
