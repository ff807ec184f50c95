#include "ManagerTestAccess.h"

TEST(RvoModifyAccessor, ReleasingMakesANewBlockLeavingTheOldAndCopiesShareTheirsUntilTheLastGoes)
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

    // A don't-cache release names the block at once; a null accessor gives a
    // null reference.
    RvoModifyAccessor fresh = manager().createNewBlock(100, 1);
    const RvoDataReference ref = fresh.release(RvoModifyAccessor::DontCache, false);
    EXPECT_TRUE(ref.hashPtr()->isDontCache());
    EXPECT_EQ(bytesOf(ref), QByteArray(100, '\x01'));

    RvoModifyAccessor null;
    EXPECT_TRUE(null.isNull());
    EXPECT_EQ(null.size(), 0);
    EXPECT_EQ(null.data(), nullptr);
    EXPECT_EQ(null.count(), 0);
    EXPECT_TRUE(null.release(RvoModifyAccessor::CacheContent, true).isNull());

    // Copies share the block until the last goes.
    RvoModifyAccessor first = manager().createNewBlock(1000, 0x11);
    EXPECT_EQ(first.count(), 1);
    {
        const RvoModifyAccessor copy(first);
        EXPECT_EQ(first.count(), 2);
        copy.data()[5] = 0x22;
    }
    EXPECT_EQ(first.count(), 1);
    EXPECT_EQ(first.data()[5], 0x22);

    RvoModifyAccessor other = manager().createNewBlock(10, 0);
    other = first; // gives up its own block (deleted) and shares first's
    EXPECT_EQ(first.count(), 2);
    other = other;
    EXPECT_EQ(first.count(), 2);

    // Releasing one of several copies used to hand the manager the shared
    // block, which the remaining copies then deleted under it.
    QByteArray shared(1000, '\x11');
    shared[5] = 0x22;
    const RvoDataReference added = first.release(RvoModifyAccessor::CacheContent, true);
    EXPECT_EQ(other.count(), 1);
    other.data()[0] = 0x44; // the copy's block is its own again
    other = RvoModifyAccessor(); // deletes it
    EXPECT_EQ(bytesOf(added), shared);
}
