#include "ManagerTestAccess.h"
#include "OutputCapture.h"
#include "RvoConstAccessor.h"
#include "RvoDataReference.h"
#include "RvoHashManager.h"
#include "RvoHashingJob.h"

#include <gtest/gtest.h>

#include <memory>

namespace {

// A future that yields a given reference, to build chains of jobs.
class FixedFuture : public RvoBlockFuture
{
public:
    explicit FixedFuture(const RvoDataReference &result)
        : m_Result(result)
    {
    }
    RvoDataReference data() override { return m_Result; }

private:
    RvoDataReference m_Result;
};

RvoDataReference pendingOn(const RvoDataReference &result)
{
    return RvoDataReference(RvoSmartPointer<RvoBlockFuture>(new FixedFuture(result)));
}

} // namespace

TEST(RvoDataReference, DefaultReferenceIsNull)
{
    const RvoDataReference a;
    const RvoDataReference b;
    EXPECT_TRUE(a.isNull());
    EXPECT_EQ(a.userId(), -1);
    EXPECT_EQ(a.hash(), QStringLiteral("NULL"));
    EXPECT_TRUE(a == b);
    EXPECT_TRUE(a.hashPtr().isNull());
}

TEST(RvoDataReference, CountersFollowLiveAndHeapReferences)
{
    const int live = RvoDataReference::referenceCount();
    const int heap = RvoDataReference::allocCount();
    {
        RvoDataReference a;
        RvoDataReference b(a);
        auto *c = new RvoDataReference(b);
        EXPECT_EQ(RvoDataReference::referenceCount(), live + 3);
        EXPECT_EQ(RvoDataReference::allocCount(), heap + 1);
        delete c;
        EXPECT_EQ(RvoDataReference::allocCount(), heap);
        alignas(RvoDataReference) unsigned char place[sizeof(RvoDataReference)];
        auto *placed = new (place) RvoDataReference();
        EXPECT_EQ(RvoDataReference::allocCount(), heap) << "placement new counts nothing";
        placed->~RvoDataReference();
    }
    EXPECT_EQ(RvoDataReference::referenceCount(), live);
}

TEST(RvoDataReference, EqualContentGivesEqualReferencesOnceResolved)
{
    ManagerSetup setup;
    RvoDataBlockManager &manager = RvoDataBlockManager::instance();
    const QByteArray content = testContent(1);
    const RvoDataReference sync1 = manager.addBlock(content, RvoModifyAccessor::CacheContent, true);
    const RvoDataReference sync2 = manager.addBlock(content, RvoModifyAccessor::CacheContent, true);
    EXPECT_TRUE(sync1 == sync2);

    RvoDataReference async1 = manager.addBlock(content, RvoModifyAccessor::CacheContent, false);
    RvoDataReference async2 = manager.addBlock(content, RvoModifyAccessor::CacheContent, false);
    EXPECT_FALSE(async1.isNull());
    EXPECT_FALSE(async1 == async2) << "two pending references differ until resolved";
    EXPECT_EQ(async1.hash(), sync1.hash());
    async2.hashPtr();
    EXPECT_TRUE(async1 == async2);
    EXPECT_TRUE(async1 == sync1);
}

TEST(RvoDataReference, ReadingAPendingReferenceWaitsForItsJob)
{
    ManagerSetup setup;
    const QByteArray content = testContent(2, 300000);
    const RvoDataReference ref = RvoDataBlockManager::instance().addBlock(
            content, RvoModifyAccessor::CacheContent, false);
    const RvoConstAccessor accessor = ref.constAccessor();
    ASSERT_FALSE(accessor.isNull());
    EXPECT_EQ(bytesOf(accessor), content);
}

TEST(RvoDataReference, JobsAreCountedUntilTheirLastReferenceGoes)
{
    ManagerSetup setup;
    const int jobs = RvoBlockFuture::numHashJobs();
    {
        RvoDataReference a = RvoDataBlockManager::instance().addBlock(
                testContent(3), RvoModifyAccessor::CacheContent, false);
        RvoDataReference copy(a);
        EXPECT_EQ(RvoBlockFuture::numHashJobs(), jobs + 1);
        a.hash(); // a resolves and lets go of the job; the copy still holds it
        EXPECT_EQ(RvoBlockFuture::numHashJobs(), jobs + 1);
    }
    EXPECT_EQ(RvoBlockFuture::numHashJobs(), jobs);
    EXPECT_EQ(RvoHashingJob::liveHashJobCount(), 0);
    EXPECT_EQ(RvoHashingJob::unfinishedHashJobCount(), 0);
}

TEST(RvoDataReference, DroppedPendingReferenceStillAddsTheBlock)
{
    ManagerSetup setup;
    RvoDataBlockManager &manager = RvoDataBlockManager::instance();
    const QByteArray content = testContent(4);
    {
        RvoDataReference pending
                = manager.addBlock(content, RvoModifyAccessor::CacheContent, false);
    } // the job is waited for here, never resolved by anyone
    // The job ran: the block went live and was queued for its disk copy.
    manager.flush(false, RvoDataBlockManager::WriteThreads);
    const QString text = RvoDataHash(content, RvoDataHash::Skein512).toString();
    EXPECT_EQ(readFile(manager.getBlockDestination(QString(), text)).size() > 12, true);
    // Nobody references it now, so the digest and the block have gone.
    EXPECT_EQ(RvoHashManager::instance().hashCount(), 0);
    EXPECT_EQ(manager.liveBytes(), 0);
    EXPECT_EQ(RvoBlockFuture::numHashJobs(), 0);
}

TEST(RvoDataReference, ChainsOfJobsAreFollowedToTheirEnd)
{
    ManagerSetup setup;
    const RvoDataReference target = RvoDataBlockManager::instance().addBlock(
            testContent(5), RvoModifyAccessor::CacheContent, true);
    const RvoDataReference chained = pendingOn(pendingOn(pendingOn(target)));
    EXPECT_EQ(chained.hashPtr(), target.hashPtr());
    EXPECT_TRUE(chained == target);

    StdoutCapture out;
    const RvoDataReference nothing = pendingOn(pendingOn(RvoDataReference()));
    EXPECT_EQ(nothing.hash(), QStringLiteral("NULL"));
    EXPECT_TRUE(nothing.isNull());
    EXPECT_EQ(out.lines(), QStringList {QStringLiteral("Null Value for m_DataHash")});
}

TEST(RvoDataReference, UserIdIsSharedByEveryReferenceToTheContent)
{
    ManagerSetup setup;
    RvoDataBlockManager &manager = RvoDataBlockManager::instance();
    RvoDataReference a = manager.addBlock(testContent(6), RvoModifyAccessor::CacheContent, true);
    const RvoDataReference b
            = manager.addBlock(testContent(6), RvoModifyAccessor::CacheContent, false);
    a.setUserId(42);
    EXPECT_EQ(b.userId(), 42);
    RvoDataReference null;
    null.setUserId(7); // ignored
    EXPECT_EQ(null.userId(), -1);
}

TEST(RvoDataReference, ReferenceWithoutADigestGivesNullAccessors)
{
    ManagerSetup setup;
    const RvoDataReference null;
    DebugCapture debug;
    StdoutCapture out;
    EXPECT_TRUE(null.constAccessor().isNull());
    RvoDataReference copy(null);
    EXPECT_TRUE(copy.modifyAccessor().isNull());
    EXPECT_EQ(out.lines(),
              (QStringList {QStringLiteral("Null Value of m_DataHash"),
                            QStringLiteral("Null Value of m_DataHash")}));
    EXPECT_EQ(debug.messages(),
              (QStringList {QStringLiteral("Null Value of m_DataHash m_HashJob=0x0"),
                            QStringLiteral("Null Value of m_DataHash m_HashJob=0x0")}));
}

// A digest with no block in memory and no block file: there is nothing to
// read, and the accessors say so instead of touching a null block.
TEST(RvoDataReference, ReferenceWhoseBlockCannotBeLoadedGivesNullAccessors)
{
    ManagerSetup setup;
    RvoDataReference orphan(RvoHashManager::instance().getHash(QByteArray("never stored")));
    DebugCapture debug;
    const RvoConstAccessor read = orphan.constAccessor();
    EXPECT_TRUE(read.isNull());
    EXPECT_EQ(read.data(), nullptr);
    EXPECT_TRUE(orphan.modifyAccessor().isNull());
    EXPECT_FALSE(debug.messages().isEmpty()) << "the failed loads are reported";
}
