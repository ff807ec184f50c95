#include "ManagerTestAccess.h"

using Access = RvoDataBlockManagerTestAccess;

namespace {

bool evictable(const RvoDataReference &ref)
{
    return !Access::blockIsLocked(hashOf(ref));
}

} // namespace

// Assignment used to copy the pointer alone: the assigned-to accessor then
// released a pin it never took and let a block be evicted under a reader.
TEST(RvoConstAccessor, PinCountsStayExactThroughCopiesAndAssignment)
{
    ManagerSetup setup(1, QString(), 10, 3 * 100000);
    const RvoDataReference a = addBlock(testContent(2));
    const RvoDataReference b = addBlock(testContent(3));
    StdoutCapture out;
    {
        RvoConstAccessor onA = a.constAccessor();
        EXPECT_FALSE(evictable(a));
        const RvoConstAccessor second = a.constAccessor();
        const RvoConstAccessor copy(second);
        EXPECT_EQ(copy.count(), 3);
        RvoConstAccessor onB = b.constAccessor();
        onA = onB; // lets go of one count on a, shares b
        EXPECT_EQ(copy.count(), 2);
        EXPECT_EQ(onB.count(), 2);
        onA = onA;
        EXPECT_EQ(onB.count(), 2);
        onB = RvoConstAccessor(); // a null accessor: b keeps onA's pin
        EXPECT_EQ(onA.count(), 1);
        EXPECT_FALSE(evictable(b));
    }
    EXPECT_TRUE(evictable(a) && evictable(b));
    EXPECT_TRUE(out.lines().isEmpty()) << "one pin, one unpin, no complaint";
}

// A reference without a digest goes on to ask for its block and make the
// accessor from neither block nor digest: both say so, in that order.
TEST(RvoConstAccessor, AccessorOfNoDigestIsNullAndSaysSo)
{
    ManagerSetup setup;
    DebugCapture debug;
    StdoutCapture nullOut;
    const RvoConstAccessor null = RvoDataReference().constAccessor();
    EXPECT_TRUE(null.isNull());
    EXPECT_EQ(null.size(), 0);
    EXPECT_EQ(null.data(), nullptr);
    EXPECT_EQ(null.count(), 0);
    EXPECT_TRUE(RvoConstAccessor(null).isNull());
    EXPECT_EQ(nullOut.lines(),
              (QStringList {"Null Value of m_DataHash", "Both Block and Pointer Are Null",
                            "Null Block Value in That"}));
    EXPECT_EQ(debug.messages(), QStringList {"Null Value of m_DataHash m_HashJob=0x0"});
}
