#include "ManagerTestAccess.h"

// The block never shares the caller's storage.
TEST(RvoDataBlock, BlocksFromMemoryAndFromAnArrayAreEqualCopies)
{
    const QByteArray content = testContent(1, 1000);
    const RvoDataBlock fromMemory(reinterpret_cast<const unsigned char *>(content.constData()),
                                  content.size());
    const RvoDataBlock fromArray(content);
    EXPECT_TRUE(fromMemory == fromArray);
    EXPECT_NE(static_cast<const void *>(fromArray.constData()),
              static_cast<const void *>(content.constData()));
}

TEST(RvoDataBlock, ImpossibleSizeGivesAnEmptyBlockAndIsSaid)
{
    StdoutCapture out;
    EXPECT_EQ(RvoDataBlock(-1, 0).size(), 0);
    EXPECT_EQ(RvoDataBlock(nullptr, 10).size(), 0);
    EXPECT_EQ(out.lines(),
              (QStringList {"Cannot allocate a block of -1 bytes",
                            "Null data passed for a block of 10 bytes"}));
}

// Up to what a block can hold.
TEST(RvoDataBlock, LargestBlockFollowsTheBudget)
{
    manager().setMaxDataCacheSize(1000);
    EXPECT_EQ(RvoDataBlock::maxBlockSize(), 1000);
    manager().setMaxDataCacheSize(0x7FFFFFFFLL * 4);
    EXPECT_EQ(RvoDataBlock::maxBlockSize(), 0x7FFFFFFF);
}

// A block compresses to the codec's format; compressing or uncompressing a
// block already in that form changes nothing.
TEST(RvoDataBlock, CompressingOrUncompressingTwiceChangesNothing)
{
    const QByteArray content = testContent(2, 50000);
    RvoDataBlock block(content);
    const RvoDataBlock expected(qCompress(content, 2));
    EXPECT_TRUE(block.compress(2) && block == expected);
    EXPECT_TRUE(block.compress(9) && block == expected);
    EXPECT_TRUE(block.uncompress() && block.uncompress());
    EXPECT_EQ(bytesOf(&block), content);
}

// Equality compares the buffers, so it needs the same form. A copy or an
// assignment takes the form and bytes of its own: the copy's data()
// uncompresses into its own buffer, and writing there leaves the original
// alone.
TEST(RvoDataBlock, CopiesTakeTheFormAndOwnTheirBytes)
{
    const QByteArray content = testContent(2, 50000);
    RvoDataBlock block(content);
    block.compress(2);
    EXPECT_TRUE(block != RvoDataBlock(content));
    EXPECT_TRUE(RvoDataBlock(content) != RvoDataBlock(testContent(5, 50000)));
    RvoDataBlock assigned(1, 0);
    assigned = block;
    EXPECT_TRUE(assigned == block && assigned.isCompressed());
    EXPECT_EQ(assigned.size(), content.size());
    RvoDataBlock copy(block);
    unsigned char *bytes = copy.data();
    EXPECT_FALSE(copy.isCompressed());
    bytes[0] ^= 0xff;
    block.uncompress();
    EXPECT_EQ(bytesOf(&block), content);
}

TEST(RvoDataBlock, HashIsAFreshDigestNotInterned)
{
    const QByteArray tile = testContent(4, 3000);
    const RvoSmartPointer<RvoDataHash> hash = RvoDataBlock(tile).hash();
    EXPECT_EQ(hash->refCount(), 1);
    EXPECT_EQ(RvoHashManager::instance().hashCount(), 0);
}
