#include "RvoSkein.h"
#include "RvoSkein_p.h"

#include <cstring>

// Skein v1.1: the Threefish block cipher in UBI chaining mode, with the
// round-1 rotation constants and key-schedule parity 0x5555555555555555.
//
// The block functions are fully unrolled: the state words live in named locals
// so the compiler keeps them in registers, every rotation count and subkey
// index is a compile-time constant, and full blocks are read straight from the
// caller's buffer. Only the last (held-back) block is copied into the state.

// The block functions need about twenty live 64-bit values, more than there
// are general registers. With some -march settings g++ then parks them in
// vector registers and runs several times slower; keeping these functions to
// general registers makes it spill to the stack, which costs almost nothing.
#if defined(__GNUC__) && !defined(__clang__) && defined(__x86_64__)
#define RVOSKEIN_GPR_ONLY __attribute__((target("general-regs-only")))
#else
#define RVOSKEIN_GPR_ONLY
#endif

namespace RvoSkein {
namespace {

constexpr quint64 kKeyParity = 0x5555555555555555ULL;

// Fields of the upper tweak word.
constexpr quint64 kFlagFirst = quint64(1) << 62;
constexpr quint64 kFlagFinal = quint64(1) << 63;
constexpr quint64 kFlagBitPad = quint64(1) << 55;
constexpr quint64 kTypeConfig = quint64(4) << 56;
constexpr quint64 kTypeMessage = quint64(48) << 56;
constexpr quint64 kTypeOutput = quint64(63) << 56;

// "SHA3", version 1, as the first little-endian word of the configuration block.
constexpr quint64 kConfigSchema = 0x0000000133414853ULL;
constexpr std::size_t kConfigBytes = 32;

// Rotation counts by round (mod 8) and MIX position.
constexpr int kRot256[8][2]
        = {{5, 56}, {36, 28}, {13, 46}, {58, 44}, {26, 20}, {53, 35}, {11, 42}, {59, 50}};
constexpr int kRot512[8][4]
        = {{38, 30, 50, 53}, {48, 20, 43, 31}, {34, 14, 15, 27}, {26, 12, 58, 7},
           {33, 49, 8, 42},  {39, 27, 41, 14}, {29, 26, 11, 9},  {33, 51, 39, 35}};
constexpr int kRot1024[8][8] = {{55, 43, 37, 40, 16, 22, 38, 12}, {25, 25, 46, 13, 14, 13, 52, 57},
                                {33, 8, 18, 57, 21, 12, 32, 54},  {34, 43, 25, 60, 44, 9, 59, 34},
                                {28, 7, 47, 48, 51, 9, 35, 41},   {17, 6, 18, 25, 43, 42, 40, 15},
                                {58, 7, 32, 45, 19, 18, 2, 56},   {47, 49, 27, 58, 37, 48, 53, 56}};

// Precomputed initial chaining values for the common output lengths; every
// other length is computed from the configuration block in Init.
constexpr quint64 kIv256_128[4] = {0x302F7EA23D7FE2E1ULL, 0xADE4683A6913752BULL,
                                   0x975CFABEF208AB0AULL, 0x2AF4BA95F831F55BULL};
constexpr quint64 kIv256_160[4] = {0xA38A0D80A3687723ULL, 0xB73CDB6A5963FFC9ULL,
                                   0x9633E8EA07A1B447ULL, 0xCA0ED09EC9529C22ULL};
constexpr quint64 kIv256_224[4] = {0xB80929699AE0F431ULL, 0xD340DC14A06929DCULL,
                                   0xAE866594BDE4DC5AULL, 0x339767C25A60EA1DULL};
constexpr quint64 kIv256_256[4] = {0x388512680E660046ULL, 0x4B72D5DEC5A8FF01ULL,
                                   0x281A9298CA5EB3A5ULL, 0x54CA5249F46070C4ULL};
constexpr quint64 kIv512_224[8] = {
        0xF2DAA1698216CC98ULL, 0x00E06A488983AE05ULL, 0xC080CEA95948958FULL, 0x2A8F314B57F4ADD1ULL,
        0xBCD06591360A405AULL, 0xF81A11A102D91F70ULL, 0x85C6FFA54810A739ULL, 0x1E07AFE01802CE74ULL};
constexpr quint64 kIv512_256[8] = {
        0x88C07F38D4F95AD4ULL, 0x3DF0D33A8610E240ULL, 0x3E243F6EDB6FAC74ULL, 0xBAC4F4CDD7A90A24ULL,
        0xDF90FD1FDEEEBA04ULL, 0xA4F5796BDB7FDDA8ULL, 0xDA182FD2964BC923ULL, 0x55F76677EF6961F9ULL};
constexpr quint64 kIv512_384[8] = {
        0xE5BF4D02BA62494CULL, 0x7AA1EABCC3E6FC68ULL, 0xBBE5FC26E1038C5AULL, 0x53C9903E8F88E9FAULL,
        0xF30D8DDDFB940C83ULL, 0x500FDA3C4865ABECULL, 0x2226C67F745BC5E7ULL, 0x015DA80077C639F7ULL};
constexpr quint64 kIv512_512[8] = {
        0xA8D47980544A6E32ULL, 0x847511533E9B1A8AULL, 0x6FAEE870D8E81A00ULL, 0x58B0D9D6CB557F92ULL,
        0x9BBC0051DAC1D4E9ULL, 0xB744E2B1D189E7CAULL, 0x979350FA709C5EF3ULL, 0x0350125A92067BCDULL};
constexpr quint64 kIv1024_384[16] = {
        0x7600B2E39FC73E48ULL, 0x7A4543BBECCD60E4ULL, 0x8AB879D62F53E192ULL, 0x14847919A7F0AC6EULL,
        0x4F774735AA99CB7FULL, 0x607CF3C241760EE1ULL, 0xC0BF6D7BFF9F27DBULL, 0x7D32148599342254ULL,
        0xE7231BB0CDF9DD49ULL, 0x641DE8E6464DB3F4ULL, 0x05613046A01CF005ULL, 0x7347EE0BB09E8BCCULL,
        0x5103A256161A26FFULL, 0x8161EAC43A1176C2ULL, 0xB9607373CF92C2CCULL, 0xFDE8D4ADD376300DULL};
constexpr quint64 kIv1024_512[16] = {
        0x8CF63BE5E1EDF4B7ULL, 0x256FD425CBDE61EBULL, 0x497B412DEBA3EF9DULL, 0x3CBD412AD8293FBAULL,
        0xD5AE34D6F26F646EULL, 0x72879C010DA17B79ULL, 0x61BD8F1805AFF621ULL, 0x75CB3C949CE0E463ULL,
        0xAF27329D2CD71E37ULL, 0x7DB5EC5E1141CE9FULL, 0x76484C1320CAB67BULL, 0x57EB52A6561BE8C5ULL,
        0x51161125E681412DULL, 0xF510D9375439A9BCULL, 0xD18AF77CFC425E3CULL, 0xEB05160C3FEBB037ULL};
constexpr quint64 kIv1024_1024[16] = {
        0x5A4352BE62092156ULL, 0x5F6E8B1A72F001CAULL, 0xFFCBFE9CA1A2CE26ULL, 0x6C23C39667038BCAULL,
        0x583A8BFCCE34EB6CULL, 0x3FDBFB11D4A46A3EULL, 0x3304ACFCA8300998ULL, 0xB2F6675FA17F0FD2ULL,
        0x9D2599730EF7AB6BULL, 0x0914A20D3DFEA9E4ULL, 0xCC1A9CAFA494DBD3ULL, 0x9828030DA0A6388CULL,
        0x0D339D5DAADEE3DCULL, 0xFC46DE35C4E2A086ULL, 0x53D6E4F52E19A6D1ULL, 0x5663952F715D1DDDULL};

struct StoredIv
{
    int stateBits;
    quint64 hashBitLen;
    const quint64 *words;
};

constexpr StoredIv kStoredIvs[] = {
        {256, 128, kIv256_128},   {256, 160, kIv256_160},     {256, 224, kIv256_224},
        {256, 256, kIv256_256},   {512, 224, kIv512_224},     {512, 256, kIv512_256},
        {512, 384, kIv512_384},   {512, 512, kIv512_512},     {1024, 384, kIv1024_384},
        {1024, 512, kIv1024_512}, {1024, 1024, kIv1024_1024},
};

RVOSKEIN_GPR_ONLY inline quint64 rotl(quint64 x, int r)
{
    return (x << r) | (x >> (64 - r));
}

// Words are little-endian in the byte stream.
RVOSKEIN_GPR_ONLY inline quint64 load64(const unsigned char *p)
{
#if Q_BYTE_ORDER == Q_LITTLE_ENDIAN
    quint64 v;
    std::memcpy(&v, p, 8);
    return v;
#else
    quint64 v = 0;
    for (int i = 7; i >= 0; --i)
        v = (v << 8) | p[i];
    return v;
#endif
}

inline void store64(unsigned char *p, quint64 v)
{
#if Q_BYTE_ORDER == Q_LITTLE_ENDIAN
    std::memcpy(p, &v, 8);
#else
    for (int i = 0; i < 8; ++i, v >>= 8)
        p[i] = static_cast<unsigned char>(v);
#endif
}

// One MIX: a and b are the two words of a pair, r the rotation count.
#define SKEIN_MIX(a, b, r)                                                                         \
    {                                                                                              \
        a += b;                                                                                    \
        b = rotl(b, r) ^ a;                                                                        \
    }

// ---- Threefish-256 -------------------------------------------------------------------------

// Subkey s: key words rotate through the 5-word schedule, the tweak words
// through the 3-word one, and the subkey number goes into the last word.
#define TF256_INJECT(s)                                                                            \
    x0 += ks[((s) + 0) % 5];                                                                       \
    x1 += ks[((s) + 1) % 5] + ts[(s) % 3];                                                         \
    x2 += ks[((s) + 2) % 5] + ts[((s) + 1) % 3];                                                   \
    x3 += ks[((s) + 3) % 5] + quint64(s);

// Eight rounds starting with subkey s; pairs alternate (0,1)(2,3) / (0,3)(2,1).
// clang-format off
#define TF256_EIGHT_ROUNDS(s) \
    TF256_INJECT(s) \
    SKEIN_MIX(x0, x1, kRot256[0][0]) SKEIN_MIX(x2, x3, kRot256[0][1]) \
    SKEIN_MIX(x0, x3, kRot256[1][0]) SKEIN_MIX(x2, x1, kRot256[1][1]) \
    SKEIN_MIX(x0, x1, kRot256[2][0]) SKEIN_MIX(x2, x3, kRot256[2][1]) \
    SKEIN_MIX(x0, x3, kRot256[3][0]) SKEIN_MIX(x2, x1, kRot256[3][1]) \
    TF256_INJECT((s) + 1) \
    SKEIN_MIX(x0, x1, kRot256[4][0]) SKEIN_MIX(x2, x3, kRot256[4][1]) \
    SKEIN_MIX(x0, x3, kRot256[5][0]) SKEIN_MIX(x2, x1, kRot256[5][1]) \
    SKEIN_MIX(x0, x1, kRot256[6][0]) SKEIN_MIX(x2, x3, kRot256[6][1]) \
    SKEIN_MIX(x0, x3, kRot256[7][0]) SKEIN_MIX(x2, x1, kRot256[7][1])
// clang-format on

// UBI over `blocks` 32-byte blocks at p, advancing the position by byteAdd
// per block. The caller has set the flags for the first block.
RVOSKEIN_GPR_ONLY void process256(HashState *st, const unsigned char *p, std::size_t blocks,
                                  quint64 byteAdd)
{
    quint64 ks[5];
    quint64 ts[3];
    ks[0] = st->chain[0];
    ks[1] = st->chain[1];
    ks[2] = st->chain[2];
    ks[3] = st->chain[3];
    ts[0] = st->tweak[0];
    ts[1] = st->tweak[1];

    do {
        ts[0] += byteAdd;
        ts[2] = ts[0] ^ ts[1];
        ks[4] = kKeyParity ^ ks[0] ^ ks[1] ^ ks[2] ^ ks[3];

        quint64 x0 = load64(p);
        quint64 x1 = load64(p + 8);
        quint64 x2 = load64(p + 16);
        quint64 x3 = load64(p + 24);

        TF256_EIGHT_ROUNDS(0)
        TF256_EIGHT_ROUNDS(2)
        TF256_EIGHT_ROUNDS(4)
        TF256_EIGHT_ROUNDS(6)
        TF256_EIGHT_ROUNDS(8)
        TF256_EIGHT_ROUNDS(10)
        TF256_EIGHT_ROUNDS(12)
        TF256_EIGHT_ROUNDS(14)
        TF256_EIGHT_ROUNDS(16)
        TF256_INJECT(18)

        // Feed-forward: the plaintext is read again rather than kept live.
        ks[0] = x0 ^ load64(p);
        ks[1] = x1 ^ load64(p + 8);
        ks[2] = x2 ^ load64(p + 16);
        ks[3] = x3 ^ load64(p + 24);

        ts[1] &= ~kFlagFirst;
        p += 32;
    } while (--blocks);

    st->chain[0] = ks[0];
    st->chain[1] = ks[1];
    st->chain[2] = ks[2];
    st->chain[3] = ks[3];
    st->tweak[0] = ts[0];
    st->tweak[1] = ts[1];
}

// ---- Threefish-512 -------------------------------------------------------------------------

#define TF512_INJECT(s)                                                                            \
    x0 += ks[((s) + 0) % 9];                                                                       \
    x1 += ks[((s) + 1) % 9];                                                                       \
    x2 += ks[((s) + 2) % 9];                                                                       \
    x3 += ks[((s) + 3) % 9];                                                                       \
    x4 += ks[((s) + 4) % 9];                                                                       \
    x5 += ks[((s) + 5) % 9] + ts[(s) % 3];                                                         \
    x6 += ks[((s) + 6) % 9] + ts[((s) + 1) % 3];                                                   \
    x7 += ks[((s) + 7) % 9] + quint64(s);

// The word permutation is folded into which named words each MIX takes; after
// four rounds the words are back in place, ready for the next subkey.
// clang-format off
#define TF512_EIGHT_ROUNDS(s) \
    TF512_INJECT(s) \
    SKEIN_MIX(x0, x1, kRot512[0][0]) SKEIN_MIX(x2, x3, kRot512[0][1]) \
    SKEIN_MIX(x4, x5, kRot512[0][2]) SKEIN_MIX(x6, x7, kRot512[0][3]) \
    SKEIN_MIX(x2, x1, kRot512[1][0]) SKEIN_MIX(x4, x7, kRot512[1][1]) \
    SKEIN_MIX(x6, x5, kRot512[1][2]) SKEIN_MIX(x0, x3, kRot512[1][3]) \
    SKEIN_MIX(x4, x1, kRot512[2][0]) SKEIN_MIX(x6, x3, kRot512[2][1]) \
    SKEIN_MIX(x0, x5, kRot512[2][2]) SKEIN_MIX(x2, x7, kRot512[2][3]) \
    SKEIN_MIX(x6, x1, kRot512[3][0]) SKEIN_MIX(x0, x7, kRot512[3][1]) \
    SKEIN_MIX(x2, x5, kRot512[3][2]) SKEIN_MIX(x4, x3, kRot512[3][3]) \
    TF512_INJECT((s) + 1) \
    SKEIN_MIX(x0, x1, kRot512[4][0]) SKEIN_MIX(x2, x3, kRot512[4][1]) \
    SKEIN_MIX(x4, x5, kRot512[4][2]) SKEIN_MIX(x6, x7, kRot512[4][3]) \
    SKEIN_MIX(x2, x1, kRot512[5][0]) SKEIN_MIX(x4, x7, kRot512[5][1]) \
    SKEIN_MIX(x6, x5, kRot512[5][2]) SKEIN_MIX(x0, x3, kRot512[5][3]) \
    SKEIN_MIX(x4, x1, kRot512[6][0]) SKEIN_MIX(x6, x3, kRot512[6][1]) \
    SKEIN_MIX(x0, x5, kRot512[6][2]) SKEIN_MIX(x2, x7, kRot512[6][3]) \
    SKEIN_MIX(x6, x1, kRot512[7][0]) SKEIN_MIX(x0, x7, kRot512[7][1]) \
    SKEIN_MIX(x2, x5, kRot512[7][2]) SKEIN_MIX(x4, x3, kRot512[7][3])
// clang-format on

RVOSKEIN_GPR_ONLY void process512(HashState *st, const unsigned char *p, std::size_t blocks,
                                  quint64 byteAdd)
{
    quint64 ks[9];
    quint64 ts[3];
    for (int i = 0; i < 8; ++i)
        ks[i] = st->chain[i];
    ts[0] = st->tweak[0];
    ts[1] = st->tweak[1];

    do {
        ts[0] += byteAdd;
        ts[2] = ts[0] ^ ts[1];
        ks[8] = kKeyParity ^ ks[0] ^ ks[1] ^ ks[2] ^ ks[3] ^ ks[4] ^ ks[5] ^ ks[6] ^ ks[7];

        quint64 x0 = load64(p);
        quint64 x1 = load64(p + 8);
        quint64 x2 = load64(p + 16);
        quint64 x3 = load64(p + 24);
        quint64 x4 = load64(p + 32);
        quint64 x5 = load64(p + 40);
        quint64 x6 = load64(p + 48);
        quint64 x7 = load64(p + 56);

        TF512_EIGHT_ROUNDS(0)
        TF512_EIGHT_ROUNDS(2)
        TF512_EIGHT_ROUNDS(4)
        TF512_EIGHT_ROUNDS(6)
        TF512_EIGHT_ROUNDS(8)
        TF512_EIGHT_ROUNDS(10)
        TF512_EIGHT_ROUNDS(12)
        TF512_EIGHT_ROUNDS(14)
        TF512_EIGHT_ROUNDS(16)
        TF512_INJECT(18)

        ks[0] = x0 ^ load64(p);
        ks[1] = x1 ^ load64(p + 8);
        ks[2] = x2 ^ load64(p + 16);
        ks[3] = x3 ^ load64(p + 24);
        ks[4] = x4 ^ load64(p + 32);
        ks[5] = x5 ^ load64(p + 40);
        ks[6] = x6 ^ load64(p + 48);
        ks[7] = x7 ^ load64(p + 56);

        ts[1] &= ~kFlagFirst;
        p += 64;
    } while (--blocks);

    for (int i = 0; i < 8; ++i)
        st->chain[i] = ks[i];
    st->tweak[0] = ts[0];
    st->tweak[1] = ts[1];
}

// ---- Threefish-1024 ------------------------------------------------------------------------

#define TF1024_INJECT(s)                                                                           \
    x0 += ks[((s) + 0) % 17];                                                                      \
    x1 += ks[((s) + 1) % 17];                                                                      \
    x2 += ks[((s) + 2) % 17];                                                                      \
    x3 += ks[((s) + 3) % 17];                                                                      \
    x4 += ks[((s) + 4) % 17];                                                                      \
    x5 += ks[((s) + 5) % 17];                                                                      \
    x6 += ks[((s) + 6) % 17];                                                                      \
    x7 += ks[((s) + 7) % 17];                                                                      \
    x8 += ks[((s) + 8) % 17];                                                                      \
    x9 += ks[((s) + 9) % 17];                                                                      \
    x10 += ks[((s) + 10) % 17];                                                                    \
    x11 += ks[((s) + 11) % 17];                                                                    \
    x12 += ks[((s) + 12) % 17];                                                                    \
    x13 += ks[((s) + 13) % 17] + ts[(s) % 3];                                                      \
    x14 += ks[((s) + 14) % 17] + ts[((s) + 1) % 3];                                                \
    x15 += ks[((s) + 15) % 17] + quint64(s);

// Rounds by position mod 4: which words each MIX takes after the permutation.
// clang-format off
#define TF1024_ROUND_A(r) \
    SKEIN_MIX(x0, x1, kRot1024[r][0]) SKEIN_MIX(x2, x3, kRot1024[r][1]) \
    SKEIN_MIX(x4, x5, kRot1024[r][2]) SKEIN_MIX(x6, x7, kRot1024[r][3]) \
    SKEIN_MIX(x8, x9, kRot1024[r][4]) SKEIN_MIX(x10, x11, kRot1024[r][5]) \
    SKEIN_MIX(x12, x13, kRot1024[r][6]) SKEIN_MIX(x14, x15, kRot1024[r][7])

#define TF1024_ROUND_B(r) \
    SKEIN_MIX(x0, x9, kRot1024[r][0]) SKEIN_MIX(x2, x13, kRot1024[r][1]) \
    SKEIN_MIX(x6, x11, kRot1024[r][2]) SKEIN_MIX(x4, x15, kRot1024[r][3]) \
    SKEIN_MIX(x10, x7, kRot1024[r][4]) SKEIN_MIX(x12, x3, kRot1024[r][5]) \
    SKEIN_MIX(x14, x5, kRot1024[r][6]) SKEIN_MIX(x8, x1, kRot1024[r][7])

#define TF1024_ROUND_C(r) \
    SKEIN_MIX(x0, x7, kRot1024[r][0]) SKEIN_MIX(x2, x5, kRot1024[r][1]) \
    SKEIN_MIX(x4, x3, kRot1024[r][2]) SKEIN_MIX(x6, x1, kRot1024[r][3]) \
    SKEIN_MIX(x12, x15, kRot1024[r][4]) SKEIN_MIX(x14, x13, kRot1024[r][5]) \
    SKEIN_MIX(x8, x11, kRot1024[r][6]) SKEIN_MIX(x10, x9, kRot1024[r][7])

#define TF1024_ROUND_D(r) \
    SKEIN_MIX(x0, x15, kRot1024[r][0]) SKEIN_MIX(x2, x11, kRot1024[r][1]) \
    SKEIN_MIX(x6, x13, kRot1024[r][2]) SKEIN_MIX(x4, x9, kRot1024[r][3]) \
    SKEIN_MIX(x14, x1, kRot1024[r][4]) SKEIN_MIX(x8, x5, kRot1024[r][5]) \
    SKEIN_MIX(x10, x3, kRot1024[r][6]) SKEIN_MIX(x12, x7, kRot1024[r][7])

#define TF1024_EIGHT_ROUNDS(s) \
    TF1024_INJECT(s) \
    TF1024_ROUND_A(0) TF1024_ROUND_B(1) TF1024_ROUND_C(2) TF1024_ROUND_D(3) \
    TF1024_INJECT((s) + 1) \
    TF1024_ROUND_A(4) TF1024_ROUND_B(5) TF1024_ROUND_C(6) TF1024_ROUND_D(7)
// clang-format on

RVOSKEIN_GPR_ONLY void process1024(HashState *st, const unsigned char *p, std::size_t blocks,
                                   quint64 byteAdd)
{
    quint64 ks[17];
    quint64 ts[3];
    for (int i = 0; i < 16; ++i)
        ks[i] = st->chain[i];
    ts[0] = st->tweak[0];
    ts[1] = st->tweak[1];

    do {
        ts[0] += byteAdd;
        ts[2] = ts[0] ^ ts[1];
        quint64 parity = kKeyParity;
        for (int i = 0; i < 16; ++i)
            parity ^= ks[i];
        ks[16] = parity;

        quint64 x0 = load64(p);
        quint64 x1 = load64(p + 8);
        quint64 x2 = load64(p + 16);
        quint64 x3 = load64(p + 24);
        quint64 x4 = load64(p + 32);
        quint64 x5 = load64(p + 40);
        quint64 x6 = load64(p + 48);
        quint64 x7 = load64(p + 56);
        quint64 x8 = load64(p + 64);
        quint64 x9 = load64(p + 72);
        quint64 x10 = load64(p + 80);
        quint64 x11 = load64(p + 88);
        quint64 x12 = load64(p + 96);
        quint64 x13 = load64(p + 104);
        quint64 x14 = load64(p + 112);
        quint64 x15 = load64(p + 120);

        TF1024_EIGHT_ROUNDS(0)
        TF1024_EIGHT_ROUNDS(2)
        TF1024_EIGHT_ROUNDS(4)
        TF1024_EIGHT_ROUNDS(6)
        TF1024_EIGHT_ROUNDS(8)
        TF1024_EIGHT_ROUNDS(10)
        TF1024_EIGHT_ROUNDS(12)
        TF1024_EIGHT_ROUNDS(14)
        TF1024_EIGHT_ROUNDS(16)
        TF1024_EIGHT_ROUNDS(18)
        TF1024_INJECT(20)

        ks[0] = x0 ^ load64(p);
        ks[1] = x1 ^ load64(p + 8);
        ks[2] = x2 ^ load64(p + 16);
        ks[3] = x3 ^ load64(p + 24);
        ks[4] = x4 ^ load64(p + 32);
        ks[5] = x5 ^ load64(p + 40);
        ks[6] = x6 ^ load64(p + 48);
        ks[7] = x7 ^ load64(p + 56);
        ks[8] = x8 ^ load64(p + 64);
        ks[9] = x9 ^ load64(p + 72);
        ks[10] = x10 ^ load64(p + 80);
        ks[11] = x11 ^ load64(p + 88);
        ks[12] = x12 ^ load64(p + 96);
        ks[13] = x13 ^ load64(p + 104);
        ks[14] = x14 ^ load64(p + 112);
        ks[15] = x15 ^ load64(p + 120);

        ts[1] &= ~kFlagFirst;
        p += 128;
    } while (--blocks);

    for (int i = 0; i < 16; ++i)
        st->chain[i] = ks[i];
    st->tweak[0] = ts[0];
    st->tweak[1] = ts[1];
}

#undef SKEIN_MIX
#undef TF256_INJECT
#undef TF256_EIGHT_ROUNDS
#undef TF512_INJECT
#undef TF512_EIGHT_ROUNDS
#undef TF1024_INJECT
#undef TF1024_ROUND_A
#undef TF1024_ROUND_B
#undef TF1024_ROUND_C
#undef TF1024_ROUND_D
#undef TF1024_EIGHT_ROUNDS
#undef RVOSKEIN_GPR_ONLY

using ProcessFn = void (*)(HashState *, const unsigned char *, std::size_t, quint64);

// Block function and block size for a state size; false if the size is unknown.
inline bool blockFunction(int stateBits, ProcessFn *fn, std::size_t *blockBytes)
{
    switch (stateBits) {
    case 256:
        *fn = process256;
        break;
    case 512:
        *fn = process512;
        break;
    case 1024:
        *fn = process1024;
        break;
    default:
        return false;
    }
    *blockBytes = std::size_t(stateBits) / 8;
    return true;
}

// Absorbs n > 0 whole bytes. The last block seen so far (full or not) always
// stays in the buffer, because only Final knows it is the last one and must
// carry the Final flag. Full blocks before it are processed in place.
void updateBytes(HashState *st, const unsigned char *p, std::size_t n, ProcessFn fn,
                 std::size_t blockBytes)
{
    if (n > blockBytes - st->bufferedBytes) {
        if (st->bufferedBytes != 0) {
            const std::size_t fill = blockBytes - st->bufferedBytes;
            std::memcpy(st->buffer + st->bufferedBytes, p, fill);
            p += fill;
            n -= fill;
            fn(st, st->buffer, 1, blockBytes);
            st->bufferedBytes = 0;
        }
        if (n > blockBytes) {
            const std::size_t blocks = (n - 1) / blockBytes;
            fn(st, p, blocks, blockBytes);
            p += blocks * blockBytes;
            n -= blocks * blockBytes;
        }
    }
    std::memcpy(st->buffer + st->bufferedBytes, p, n);
    st->bufferedBytes += n;
}

} // namespace

bool ComputeInitialValue(int stateBits, quint64 hashBitLen, quint64 *iv)
{
    ProcessFn fn;
    std::size_t blockBytes;
    if (!blockFunction(stateBits, &fn, &blockBytes))
        return false;

    // UBI of the configuration block under an all-zero key; the 32 bytes are
    // zero-padded to a full block but the position counts only 32.
    HashState st;
    std::memset(&st, 0, sizeof(st));
    st.tweak[1] = kFlagFirst | kFlagFinal | kTypeConfig;
    unsigned char config[128] = {};
    store64(config, kConfigSchema);
    store64(config + 8, hashBitLen);
    fn(&st, config, 1, kConfigBytes);

    std::memcpy(iv, st.chain, blockBytes);
    return true;
}

const quint64 *StoredInitialValue(int stateBits, quint64 hashBitLen)
{
    for (const StoredIv &entry : kStoredIvs) {
        if (entry.stateBits == stateBits && entry.hashBitLen == hashBitLen)
            return entry.words;
    }
    return nullptr;
}

int Init(HashState *state, int hashbitlen)
{
    state->stateBits = hashbitlen <= 256 ? 256 : hashbitlen <= 512 ? 512 : 1024;
    state->hashBitLen = hashbitlen;
    const quint64 outBits = hashbitlen > 0 ? quint64(hashbitlen) : 0;

    if (const quint64 *iv = StoredInitialValue(state->stateBits, outBits))
        std::memcpy(state->chain, iv, std::size_t(state->stateBits) / 8);
    else
        ComputeInitialValue(state->stateBits, outBits, state->chain);

    state->tweak[0] = 0;
    state->tweak[1] = kFlagFirst | kTypeMessage;
    state->bufferedBytes = 0;
    state->bitPad = false;
    return Success;
}

int Update(HashState *state, const unsigned char *data, quint64 databitlen)
{
    ProcessFn fn;
    std::size_t blockBytes;
    if (!blockFunction(state->stateBits, &fn, &blockBytes))
        return Fail;

    const std::size_t wholeBytes = std::size_t(databitlen >> 3);
    const unsigned partialBits = unsigned(databitlen & 7);
    if (wholeBytes != 0)
        updateBytes(state, data, wholeBytes, fn, blockBytes);
    if (partialBits != 0) {
        // Keep the data bits (the high ones), set the first bit after them and
        // clear the rest, whatever the caller left there.
        const unsigned padBit = 0x80u >> partialBits;
        const unsigned char last
                = static_cast<unsigned char>((data[wholeBytes] & (0x100u - padBit)) | padBit);
        updateBytes(state, &last, 1, fn, blockBytes);
        state->bitPad = true;
    }
    return Success;
}

int Final(HashState *state, unsigned char *hashval)
{
    ProcessFn fn;
    std::size_t blockBytes;
    if (!blockFunction(state->stateBits, &fn, &blockBytes))
        return Fail;

    // The held-back block: zero-padded, Final flag, BitPad if the message
    // ended inside a byte. The position counts only the real bytes.
    std::memset(state->buffer + state->bufferedBytes, 0, blockBytes - state->bufferedBytes);
    state->tweak[1] |= kFlagFinal | (state->bitPad ? kFlagBitPad : 0);
    fn(state, state->buffer, 1, state->bufferedBytes);

    // Output: UBI of counter 0, 1, 2, ... each from the same chaining value,
    // concatenated. A trailing partial byte is written whole, not masked.
    const std::size_t outBytes
            = state->hashBitLen > 0 ? (std::size_t(state->hashBitLen) + 7) / 8 : 0;
    const std::size_t words = blockBytes / 8;
    quint64 g[16];
    std::memcpy(g, state->chain, blockBytes);
    unsigned char block[128];
    std::size_t written = 0;
    for (quint64 counter = 0; written < outBytes; ++counter) {
        std::memset(block, 0, blockBytes);
        store64(block, counter);
        std::memcpy(state->chain, g, blockBytes);
        state->tweak[0] = 0;
        state->tweak[1] = kFlagFirst | kFlagFinal | kTypeOutput;
        fn(state, block, 1, 8);

        std::size_t n = outBytes - written;
        if (n >= blockBytes) {
            n = blockBytes;
            for (std::size_t i = 0; i < words; ++i)
                store64(hashval + written + 8 * i, state->chain[i]);
        } else {
            for (std::size_t i = 0; i < words; ++i)
                store64(block + 8 * i, state->chain[i]);
            std::memcpy(hashval + written, block, n);
        }
        written += n;
    }
    return Success;
}

int Hash(int hashbitlen, const unsigned char *data, quint64 databitlen, unsigned char *hashval)
{
    HashState state;
    int status = Init(&state, hashbitlen);
    if (status != Success)
        return status;
    status = Update(&state, data, databitlen);
    Final(&state, hashval);
    return status;
}

} // namespace RvoSkein
