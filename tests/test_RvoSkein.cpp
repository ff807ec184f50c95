#include "RvoSkein.h"
#include "RvoSkeinKnownAnswers_p.h"
#include "RvoSkein_p.h"

#include <QByteArray>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

namespace {

struct KnownAnswer
{
    int bits; // hashbitlen passed to Hash
    quint64 msgBits; // message length in bits
    const char *msgHex; // or a generated message, see below
    const char *digestHex;
};

// Known answers beside the library's own (the self-check's). A message
// "=XXsN" is generated: byte i is XX + i * sN mod 256.
// clang-format off
const KnownAnswer kKnownAnswers[] = {
    // The ShortMsgKAT_<bits> files of the round-1 submission.
    {224, 0, "00", "50462a6805b74017ac85237077fb122a507911b737c9a66ff056a823"},
    {224, 1, "00", "d17be4864a86ee4758167c3c29741ee564e4c9c1a49f18f58e0e0854"},
    {224, 520, "16e8b3d8f988e9bb04de9c96f2627811c973ce4a5296b4772ca3eefeb80a652bdf21f50df79f32db23f9f73d393b2d57d9a0297f7a2f2e79cfda39fa393df1ac00", "11560aeff40afc28a28cbc5f0c3b09d13c138a955011e044afae3a98"},
    {224, 2047, "1f42add25c0a80a4c82aae3a0e302abf9261dca7e7884fd869d96ed4ce88aaaa25304d2d79e1fa5cc1fa2c95899229bc87431ad06da524f2140e70bd0536e9685ee7808f598d8a9fe15d40a72aeff431239292c5f64bdb7f620e5d160b329deb58cf6d5c0665a3ded61ae4adbca94dc2b7b02cdf3992fdf79b3d93e546d5823c3a630923064ed24c3d974c4602a49df75e49cf7bd51edc7382214cba850c4d3d11b40a70b1d926e3755ec79693620c242ab0f23ea206ba337a7edc5421d63126cb6c7094f6bc1cf9943796be2a0d9eb74fc726aa0c0d3b3d39039dead39a7169f8c3e2365dd349e358bf08c717d2e436d65172a76ed5e1f1e694a75c19280b2a", "114f6b502a09b0e9a4fe99c0db72a68630364d19e1d56f412fdf7d27"},
    {256, 263, "2b47daad44c64f2dad4423ab3366d82770019669115714db01aad8141ead2af914", "3b286d8a197ca89691c821da8d69c3b0fd38d1bf7ff175c3f97153cdeb218442"},
    {256, 1000, "a64599b8a61b5ccec9e67aed69447459c8da3d1ec6c7c7c82a7428b9b584fa67e90f68e2c00fbbed4613666e5168da4a16f395f7a3c3832b3b134bfc9cbaa95d2a0fe252f44ac6681eb6d40ab91c1d0282fed6701c57463d3c5f2bb8c6a7301fb4576aa3b5f15510db8956ff77478c26a7c09bea7b398cfc83503f538e", "78fbbbd83fee206b77fa8a60b29a377fda46639b7180e79186cbb97549846a46"},
    {384, 3, "c0", "a891b7682711d73a3aa5fdde8a46877441441947b450607314c58da1629d2dedeedc1e2cf5ba9a029a538395b791ff19"},
    {384, 1023, "1b4bf91ce5b2317e526f4046e9cb668aecd040b0f445e74a57544be2a4f8572c5bd363240474be6e7285b1a094e0f938d927baf67b26c648a4a2933eeca67b3610210b7d3abc972a0a6e1698bf2fc8e53e50ff4458c2dc5d581f78ce93a7d5758b3779fe9c169282fbb5bb0fbb84253af925d1599d63c1216232cdead5a6aa6c", "fad826390e6da982ae87d6aae984025d50e6327feea1d2a929529e2dcfdad16154404406b01bef9a5dfb0661ce7c0cb9"},
    {384, 2000, "b3c5e74b69933c2533106c563b4ca20238f2b6e675e8681e34a389894785bdade59652d4a73d80a5c85bd454fd1e9ffdad1c3815f5038e9ef432aac5c3c4fe840cc370cf86580a6011778bbedaf511a51b56d1a2eb68394aa299e26da9ada6a2f39b9faff7fba457689b9c1a577b2a1e505fdf75c7a0a64b1df81b3a356001bf0df4e02a1fc59f651c9d585ec6224bb279c6beba2966e8882d68376081b987468e7aed1ef90ebd090ae825795cdca1b4f09a979c8dfc21a48d8a53cdbb26c4db547fc06efe2f9850edd2685a4661cb4911f165d4b63ef25b87d0a96d3dff6ab0758999aad214d07bd4f133a6734fde445fe474711b69a98f7e2b", "efeb398f137015c15976070ee149973987f3a2ff7ab5e07a7da0e2b08c3df0d4c16e13ec557b9750ad655c8033f07c4d"},
    {512, 4, "80", "f9b1f8cdae85183bda0e4ea7b584289b87ca8b7fb1f9a4a814e84ac391e7eb65e256ccd1a590193eb70b4911c693d1ba11613eff2ed1351aec1c6b5bee0f1695"},
    {512, 512, "e926ae8b0af6e53176dbffcc2a6b88c6bd765f939d3d178a9bde9ef3aa131c61e31c1e42cdfaf4b4dcde579a37e150efbef5555b4c1cb40439d835a724e2fae7", "e8eae7d09d722c14fbf7e2f2fdee7d4eba27324f0b12fa1a034d6fcafb5cf64254dbaccca1506359879de64138a9b83c5a5752ad2a192080af8287f583af7c94"},
    // Computed here: lengths without a stored initial value (200, 400), an unmasked
    // last byte (250), a long partial-byte message.
    {200, 24, "616263", "150f4935c8ea851d33817654f03cb8ac525e807c604a6d233f"},
    {250, 24, "616263", "900606b2838e219d8fc7fddf129f76fbf284a8e8f76d496afe726221dd3250ac"},
    {400, 24, "616263", "242a22812f486a8290b675248a87d5888fa83de853d9d2364929a75732c17939487833fc86321db1440b3fc0f7da2529fe43"},
    {1024, 2397, "=00+7", "c1e6a045929c58e4b030bd28ea98e75a93259832d9df6cf10646f5f26b0cc95d6cafa3e292b3a7fc09e4059850b35e6d31810a48cef760375f7f85e054cdda79331864579c639c0af89396213c8bebb54e027ba59f3b3b0e774b1f94f75f5d6c3e05f73fdde892f31ce70035518eaf44d19fbc02ee289324734cd25b26dd0f6d"},
};
// clang-format on

QByteArray messageOf(const KnownAnswer &v)
{
    if (v.msgHex[0] != '=')
        return QByteArray::fromHex(v.msgHex);
    const int first = std::stoi(std::string(v.msgHex + 1, 2), nullptr, 16);
    const int step = std::stoi(std::string(v.msgHex + 3));
    QByteArray bytes(int((v.msgBits + 7) / 8), Qt::Uninitialized);
    for (int i = 0; i < bytes.size(); ++i)
        bytes[i] = char(first + i * step);
    return bytes;
}

QVector<RvoSkeinKnownAnswers::Vector> knownAnswers()
{
    QVector<RvoSkeinKnownAnswers::Vector> all = RvoSkeinKnownAnswers::all();
    for (const KnownAnswer &v : kKnownAnswers)
        all.append({v.bits, v.msgBits, messageOf(v).left(int(v.msgBits + 7) / 8),
                    QByteArray::fromHex(v.digestHex), {}});
    return all;
}

std::string toHex(const unsigned char *data, std::size_t size)
{
    return QByteArray(reinterpret_cast<const char *>(data), int(size)).toHex().toStdString();
}

std::string hashHex(int bits, const unsigned char *data, quint64 dataBits)
{
    unsigned char out[256];
    EXPECT_EQ(RvoSkein::Hash(bits, data, dataBits, out), RvoSkein::Success);
    return toHex(out, (bits + 7) / 8);
}

// Feeds the message in pieces of `piece` bytes; the last piece carries any
// partial byte.
std::string stagedHex(int bits, const std::vector<unsigned char> &msg, quint64 msgBits,
                      std::size_t piece)
{
    RvoSkein::HashState state;
    EXPECT_EQ(RvoSkein::Init(&state, bits), RvoSkein::Success);
    quint64 doneBits = 0;
    for (std::size_t offset = 0; doneBits < msgBits; offset += piece) {
        const quint64 pieceBits = std::min<quint64>(quint64(piece) * 8, msgBits - doneBits);
        EXPECT_EQ(RvoSkein::Update(&state, msg.data() + offset, pieceBits), RvoSkein::Success);
        doneBits += pieceBits;
    }
    unsigned char out[256];
    EXPECT_EQ(RvoSkein::Final(&state, out), RvoSkein::Success);
    return toHex(out, (bits + 7) / 8);
}

} // namespace

// Each vector one-shot and through Update in pieces on either side of each
// block size (the long vectors span several blocks of every state size);
// with a partial last byte also with its unused bits set and cleared, and
// fed byte by byte. Every state size has a message of exactly one block,
// which must wait in the buffer for Final's flag.
TEST(RvoSkein, KnownAnswerVectorsMatch)
{
    int partialVectors = 0, oneBlockStateSizes = 0;
    for (const RvoSkeinKnownAnswers::Vector &answer : knownAnswers()) {
        const int bits = answer.hashBits;
        const quint64 msgBits = answer.messageBits;
        const std::string digestHex = answer.digest.toHex().toStdString();
        SCOPED_TRACE(testing::Message() << "bits " << bits << ", message bits " << msgBits);
        std::vector<unsigned char> msg(answer.message.begin(), answer.message.end());
        ASSERT_EQ(msg.size(), (msgBits + 7) / 8);
        msg.push_back(0); // a readable byte even for the empty message
        EXPECT_EQ(hashHex(bits, msg.data(), msgBits), digestHex);
        for (std::size_t piece : {7, 31, 32, 33, 63, 64, 65, 127, 128, 129, 200})
            EXPECT_EQ(stagedHex(bits, msg, msgBits, piece), digestHex) << "piece " << piece;

        if (const unsigned used = unsigned(msgBits % 8)) {
            ++partialVectors;
            const unsigned char unusedMask = static_cast<unsigned char>(0xFFu >> used);
            unsigned char &last = msg[msg.size() - 2];
            last |= unusedMask;
            EXPECT_EQ(hashHex(bits, msg.data(), msgBits), digestHex);
            last &= static_cast<unsigned char>(~unusedMask);
            EXPECT_EQ(hashHex(bits, msg.data(), msgBits), digestHex);
            EXPECT_EQ(stagedHex(bits, msg, msgBits, 1), digestHex);
        }

        if (msgBits == quint64(RvoSkeinKnownAnswers::stateBits(bits)))
            oneBlockStateSizes |= int(msgBits);
    }
    EXPECT_GE(partialVectors, 6);
    EXPECT_EQ(oneBlockStateSizes, 256 | 512 | 1024);
}

// The state is the smallest Skein size that holds the digest; Hash writes
// the digest's bytes and nothing after them.
TEST(RvoSkein, HashLengthPicksTheStateSizeAndTheBytesWritten)
{
    const unsigned char abc[] = {'a', 'b', 'c'};
    const int cases[][2]
            = {{0, 256},     {1, 256},     {7, 256},     {9, 256},    {160, 256}, {200, 256},
               {250, 256},   {256, 256},   {257, 512},   {400, 512},  {512, 512}, {513, 1024},
               {1024, 1024}, {1032, 1024}, {2056, 1024}, {4096, 1024}};
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message() << "bits " << c[0]);
        RvoSkein::HashState state;
        ASSERT_EQ(RvoSkein::Init(&state, c[0]), RvoSkein::Success);
        EXPECT_EQ(state.stateBits, c[1]);
        unsigned char out[600];
        std::memset(out, 0xA5, sizeof(out));
        ASSERT_EQ(RvoSkein::Hash(c[0], abc, 24, out), RvoSkein::Success);
        for (std::size_t i = std::size_t(c[0] + 7) / 8; i < sizeof(out); ++i)
            ASSERT_EQ(out[i], 0xA5) << "byte " << i << " written";
    }
}

TEST(RvoSkein, StateOfNoSkeinSizeFails)
{
    RvoSkein::HashState state;
    RvoSkein::Init(&state, 512);
    state.stateBits = 384;
    const unsigned char byte = 0;
    quint64 out[16];
    EXPECT_EQ(RvoSkein::Update(&state, &byte, 8), RvoSkein::Fail);
    EXPECT_EQ(RvoSkein::Final(&state, reinterpret_cast<unsigned char *>(out)), RvoSkein::Fail);
    EXPECT_FALSE(RvoSkein::ComputeInitialValue(384, 384, out));
}

// A stored initial value is the one its configuration block gives; the
// known answers check that computation at lengths with none stored.
TEST(RvoSkein, StoredInitialValuesEqualTheComputedOnes)
{
    int stored = 0;
    for (int stateBits : {256, 512, 1024}) {
        for (int hashBits : {128, 160, 224, 256, 384, 512, 1024}) {
            const quint64 *value = RvoSkein::StoredInitialValue(stateBits, hashBits);
            quint64 computed[16] = {};
            if (!value || !RvoSkein::ComputeInitialValue(stateBits, hashBits, computed))
                continue;
            ++stored;
            for (int i = 0; i < stateBits / 64; ++i)
                EXPECT_EQ(value[i], computed[i]) << stateBits << "-" << hashBits << " word " << i;
        }
    }
    EXPECT_EQ(stored, 11);
}
