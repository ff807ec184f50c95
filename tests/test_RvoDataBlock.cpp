#include "ManagerTestAccess.h"

TEST(RvoDataBlock, ConstructorsGiveTheirBytesUncompressedAndRefuseImpossibleSizes)
{
    const RvoDataBlock empty(0, 0);
    EXPECT_EQ(empty.size(), 0);
    const RvoDataBlock filled(256, 0x5a);
    EXPECT_EQ(bytesOf(&filled), QByteArray(256, '\x5a'));

    const QByteArray content = testContent(1, 1000);
    const RvoDataBlock fromMemory(reinterpret_cast<const unsigned char *>(content.constData()),
                                  content.size());
    const RvoDataBlock fromArray(content);
    EXPECT_TRUE(fromMemory == fromArray);
    EXPECT_NE(static_cast<const void *>(fromArray.constData()),
              static_cast<const void *>(content.constData()))
            << "the block never shares the caller's storage";
    for (const RvoDataBlock *block : {&empty, &filled, &fromMemory, &fromArray}) {
        EXPECT_FALSE(block->isCompressed() || block->cached());
    }

    StdoutCapture out;
    const RvoDataBlock negative(-1, 0);
    const RvoDataBlock null(nullptr, 10);
    EXPECT_EQ(negative.size(), 0);
    EXPECT_EQ(null.size(), 0);
    EXPECT_EQ(out.lines(),
              (QStringList {QStringLiteral("Cannot allocate a block of -1 bytes"),
                            QStringLiteral("Null data passed for a block of 10 bytes")}));
    // Blocks are not counted (-1); the largest follows the budget up to what
    // a block can hold.
    EXPECT_EQ(RvoDataBlock::blockCount(), -1);
    manager().setMaxDataCacheSize(1000);
    EXPECT_EQ(RvoDataBlock::maxBlockSize(), 1000);
    manager().setMaxDataCacheSize(0x7FFFFFFFLL * 4);
    EXPECT_EQ(RvoDataBlock::maxBlockSize(), 0x7FFFFFFF);
}

TEST(RvoDataBlock, CompressKeepsTheSizeUncompressRestoresEqualityNeedsTheSameForm)
{
    const QByteArray content = testContent(2, 50000);
    RvoDataBlock block(content);
    EXPECT_TRUE(block.compress(2));
    EXPECT_TRUE(block.isCompressed());
    EXPECT_EQ(block.size(), content.size());
    // Equality compares the buffers: a raw block of the qCompress bytes.
    const RvoDataBlock expected(qCompress(content, 2));
    EXPECT_TRUE(block == expected) << "constData points at the compressed bytes";
    EXPECT_TRUE(block.compress(9)); // already compressed: nothing happens
    EXPECT_TRUE(block == expected);

    EXPECT_TRUE(block.uncompress());
    EXPECT_FALSE(block.isCompressed());
    EXPECT_EQ(bytesOf(&block), content);
    EXPECT_TRUE(block.uncompress()); // already raw
    EXPECT_EQ(bytesOf(&block), content);

    // data() uncompresses a copy and gives it its own writable buffer.
    block.compress(2);
    RvoDataBlock copy(block);
    EXPECT_TRUE(copy.isCompressed()) << "a copy keeps the form";
    unsigned char *bytes = copy.data();
    EXPECT_FALSE(copy.isCompressed());
    EXPECT_EQ(QByteArray(reinterpret_cast<char *>(bytes), int(copy.size())), content);
    bytes[0] ^= 0xff;
    block.uncompress();
    EXPECT_EQ(bytesOf(&block), content) << "writing through a copy leaves the original alone";

    // Equality needs the same form; hash() is a fresh digest.
    const QByteArray tile = testContent(4, 3000);
    RvoDataBlock raw(tile);
    RvoDataBlock compressed(tile);
    compressed.compress(2);
    EXPECT_TRUE(raw != compressed);
    RvoDataBlock assigned(1, 0);
    assigned = compressed;
    EXPECT_TRUE(assigned == compressed);
    EXPECT_TRUE(assigned.isCompressed());
    EXPECT_EQ(assigned.size(), tile.size());
    EXPECT_TRUE(RvoDataBlock(tile) == raw && RvoDataBlock(testContent(5, 3000)) != raw);

    const RvoSmartPointer<RvoDataHash> hash = raw.hash();
    EXPECT_TRUE(*hash == RvoDataHash(tile, RvoDataHash::Skein512));
    EXPECT_EQ(hash->refCount(), 1);
    EXPECT_EQ(RvoHashManager::instance().hashCount(), 0) << "hash() does not intern";
}
