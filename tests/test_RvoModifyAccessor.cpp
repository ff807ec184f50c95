#include "ManagerTestAccess.h"

// The reference it came from still names the old block.
TEST(RvoModifyAccessor, ReleaseMakesANewBlockAndLeavesTheOld)
{
    ManagerSetup setup;
    const QByteArray content = testContent(1);
    const RvoDataReference original = addBlock(content);
    RvoDataReference source(original);
    RvoModifyAccessor accessor = source.modifyAccessor();
    ASSERT_FALSE(accessor.isNull());
    EXPECT_EQ(accessor.size(), content.size());
    accessor.data()[0] = char(content.at(0) ^ 0x7f);

    const RvoDataReference changed = accessor.release(RvoModifyAccessor::CacheContent, false);
    EXPECT_TRUE(accessor.isNull());
    QByteArray expected = content;
    expected[0] = char(content.at(0) ^ 0x7f);
    EXPECT_EQ(bytesOf(changed), expected);
    EXPECT_EQ(bytesOf(original), content);
    EXPECT_TRUE(source == original);
}

// A don't-cache release names the block at once; a null accessor has no
// bytes and gives a null reference.
TEST(RvoModifyAccessor, DontCacheReleaseNamesTheBlockAtOnce)
{
    ManagerSetup setup;
    RvoModifyAccessor fresh = manager().createNewBlock(100, 1);
    const RvoDataReference ref = fresh.release(RvoModifyAccessor::DontCache, false);
    EXPECT_TRUE(ref.hashPtr()->isDontCache());
    EXPECT_EQ(bytesOf(ref), QByteArray(100, '\x01'));
    RvoModifyAccessor null;
    EXPECT_TRUE(null.isNull() && null.size() == 0 && null.count() == 0 && !null.data());
    EXPECT_TRUE(null.release(RvoModifyAccessor::CacheContent, true).isNull());
}

// Assignment gives up the accessor's own block (deleted) and shares the
// other's.
TEST(RvoModifyAccessor, CopiesShareTheirBlockUntilTheLastGoes)
{
    ManagerSetup setup;
    RvoModifyAccessor first = manager().createNewBlock(1000, 0x11);
    {
        const RvoModifyAccessor copy(first);
        EXPECT_EQ(first.count(), 2);
        copy.data()[5] = 0x22;
    }
    EXPECT_EQ(first.count(), 1);
    EXPECT_EQ(first.data()[5], 0x22);
    RvoModifyAccessor other = manager().createNewBlock(10, 0);
    other = first;
    EXPECT_EQ(first.count(), 2);
    other = other;
    EXPECT_EQ(first.count(), 2);
}

// Releasing one of several copies used to hand the manager the shared
// block, which the remaining copies then deleted under it.
TEST(RvoModifyAccessor, ReleasingOneOfSeveralCopiesLeavesTheOthersABlockOfTheirOwn)
{
    ManagerSetup setup;
    RvoModifyAccessor first = manager().createNewBlock(1000, 0x11);
    RvoModifyAccessor other = first;
    const RvoDataReference added = first.release(RvoModifyAccessor::CacheContent, true);
    EXPECT_EQ(other.count(), 1);
    other.data()[0] = 0x44;
    other = RvoModifyAccessor(); // deletes it
    EXPECT_EQ(bytesOf(added), QByteArray(1000, '\x11'));
}
