#include "ManagerTestAccess.h"
#include "OutputCapture.h"
#include "RvoConstAccessor.h"
#include "RvoDataReference.h"

#include <gtest/gtest.h>

using Access = RvoDataBlockManagerTestAccess;

namespace {

RvoDataReference add(const QByteArray &content)
{
    return RvoDataBlockManager::instance().addBlock(content, RvoModifyAccessor::CacheContent, true);
}

bool evictable(const RvoDataReference &ref)
{
    return !Access::blockIsLocked(ref.hashPtr().data());
}

} // namespace

TEST(RvoConstAccessor, FirstAccessorPinsAndLastUnpins)
{
    ManagerSetup setup;
    const RvoDataReference ref = add(testContent(1));
    EXPECT_TRUE(evictable(ref));
    StdoutCapture out;
    {
        const RvoConstAccessor first = ref.constAccessor();
        EXPECT_EQ(first.count(), 1);
        EXPECT_FALSE(evictable(ref));
        const RvoConstAccessor second = ref.constAccessor();
        EXPECT_EQ(second.count(), 2);
        const RvoConstAccessor copy(second);
        EXPECT_EQ(copy.count(), 3);
        EXPECT_EQ(copy.data(), first.data());
    }
    EXPECT_TRUE(evictable(ref));
    EXPECT_TRUE(out.lines().isEmpty()) << "one pin, one unpin, no complaint";
}

// Assignment used to copy the pointer alone: the assigned-to accessor then
// released a pin it never took and let a block be evicted under a reader.
TEST(RvoConstAccessor, AssignmentKeepsThePinCountsExact)
{
    ManagerSetup setup;
    const RvoDataReference a = add(testContent(2));
    const RvoDataReference b = add(testContent(3));
    StdoutCapture out;
    {
        RvoConstAccessor onA = a.constAccessor();
        RvoConstAccessor onB = b.constAccessor();
        onA = onB; // lets go of a, shares b
        EXPECT_TRUE(evictable(a));
        EXPECT_EQ(onB.count(), 2);
        onA = onA;
        EXPECT_EQ(onB.count(), 2);
        onB = RvoConstAccessor(); // a null accessor: b keeps onA's pin
        EXPECT_EQ(onA.count(), 1);
        EXPECT_FALSE(evictable(b));
    }
    EXPECT_TRUE(evictable(a));
    EXPECT_TRUE(evictable(b));
    EXPECT_TRUE(out.lines().isEmpty());
}

TEST(RvoConstAccessor, PinnedBlockStaysThroughEvictionAndReadsItsBytes)
{
    ManagerSetup setup(1, QString(), 10, 3 * 100000);
    const QByteArray content = testContent(4, 100000);
    const RvoDataReference ref = add(content);
    const RvoConstAccessor pinned = ref.constAccessor();
    for (int i = 0; i < 10; ++i)
        add(testContent(10 + i, 100000));
    EXPECT_TRUE(Access::holdsBlock(ref.hashPtr().data()));
    EXPECT_EQ(QByteArray(reinterpret_cast<const char *>(pinned.data()), int(pinned.size())),
              content);
}

TEST(RvoConstAccessor, NullAccessorsAreSafe)
{
    const RvoConstAccessor null;
    EXPECT_TRUE(null.isNull());
    EXPECT_EQ(null.size(), 0);
    EXPECT_EQ(null.data(), nullptr);
    EXPECT_EQ(null.count(), 0);
    StdoutCapture out;
    const RvoConstAccessor copy(null);
    EXPECT_TRUE(copy.isNull());
    EXPECT_EQ(out.lines(), QStringList {QStringLiteral("Null Block Value in That")});
}
