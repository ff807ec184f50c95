#include "ManagerTestAccess.h"
#include "RvoHashingJob.h"

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

// A hashing job is counted until its last reference goes and adds its block
// even when nobody resolves it; equal content gives equal references once
// resolved, and reads wait for the job.
TEST(RvoDataReference, JobsAddTheirBlockAreCountedAndGiveEqualReferencesOnceResolved)
{
    ManagerSetup setup;
    const int jobs = RvoBlockFuture::numHashJobs();
    {
        RvoDataReference a = addBlock(testContent(3), RvoModifyAccessor::CacheContent, false);
        RvoDataReference copy(a);
        EXPECT_EQ(RvoBlockFuture::numHashJobs(), jobs + 1);
        a.hash(); // a resolves and lets go of the job; the copy still holds it
        EXPECT_EQ(RvoBlockFuture::numHashJobs(), jobs + 1);
    }
    EXPECT_EQ(RvoBlockFuture::numHashJobs(), jobs);
    {
        addBlock(testContent(4), RvoModifyAccessor::CacheContent, false);
    } // the job is waited for here, never resolved by anyone
    EXPECT_EQ(RvoHashingJob::liveHashJobCount(), 0);
    EXPECT_EQ(RvoHashingJob::unfinishedHashJobCount(), 0);
    // The job ran: the block went live and was queued for its disk copy.
    manager().flush(false, RvoDataBlockManager::WriteThreads);
    const QString text = RvoDataHash(testContent(4), RvoDataHash::Skein512).toString();
    EXPECT_GT(readFile(manager().getBlockDestination(QString(), text)).size(), 12);
    // Nobody references it now, so the digest and the block have gone.
    EXPECT_EQ(RvoHashManager::instance().hashCount(), 0);
    EXPECT_EQ(manager().liveBytes(), 0);
    EXPECT_EQ(RvoBlockFuture::numHashJobs(), 0);

    const QByteArray content = testContent(1, 300000);
    const RvoDataReference sync1 = addBlock(content);
    EXPECT_TRUE(sync1 == addBlock(content));

    RvoDataReference async1 = addBlock(content, RvoModifyAccessor::CacheContent, false);
    RvoDataReference async2 = addBlock(content, RvoModifyAccessor::CacheContent, false);
    EXPECT_FALSE(async1.isNull());
    EXPECT_FALSE(async1 == async2) << "two pending references differ until resolved";
    EXPECT_EQ(bytesOf(async2), content);
    EXPECT_EQ(async1.hash(), sync1.hash());
    EXPECT_TRUE(async1 == async2);
    EXPECT_TRUE(async1 == sync1);

    // The user id lives on the digest, shared by every reference to it.
    RvoDataReference(sync1).setUserId(42);
    EXPECT_EQ(addBlock(content, RvoModifyAccessor::CacheContent, false).userId(), 42);
    RvoDataReference null;
    null.setUserId(7); // ignored
    EXPECT_EQ(null.userId(), -1);
}

TEST(RvoDataReference, ChainsOfJobsAreFollowedNullReferencesGiveNullAccessorsAndAllAreCounted)
{
    ManagerSetup setup;
    const RvoDataReference target = addBlock(testContent(5));
    const RvoDataReference chained = pendingOn(pendingOn(pendingOn(target)));
    EXPECT_EQ(chained.hashPtr(), target.hashPtr());
    EXPECT_TRUE(chained == target);

    StdoutCapture out;
    const RvoDataReference nothing = pendingOn(pendingOn(RvoDataReference()));
    EXPECT_EQ(nothing.hash(), QStringLiteral("NULL"));
    EXPECT_TRUE(nothing.isNull());

    // No digest, or a digest with no block in memory and no block file:
    // there is nothing to read, and the accessors say so instead of touching
    // a null block.
    DebugCapture debug;
    EXPECT_TRUE(RvoDataReference().modifyAccessor().isNull());
    EXPECT_EQ(out.lines(),
              (QStringList {QStringLiteral("Null Value for m_DataHash"),
                            QStringLiteral("Null Value of m_DataHash")}));
    EXPECT_EQ(debug.messages(),
              QStringList {QStringLiteral("Null Value of m_DataHash m_HashJob=0x0")});

    RvoDataReference orphan(RvoHashManager::instance().getHash(QByteArray("never stored")));
    const RvoConstAccessor read = orphan.constAccessor();
    EXPECT_TRUE(read.isNull());
    EXPECT_EQ(read.data(), nullptr);
    EXPECT_TRUE(orphan.modifyAccessor().isNull());
    EXPECT_GT(debug.messages().size(), 1) << "the failed loads are reported";

    // Default references are null, and every reference is counted.
    const int live = RvoDataReference::referenceCount();
    const int heap = RvoDataReference::allocCount();
    {
        const RvoDataReference a;
        const RvoDataReference b(a);
        EXPECT_TRUE(a.isNull());
        EXPECT_EQ(a.userId(), -1);
        EXPECT_EQ(a.hash(), QStringLiteral("NULL"));
        EXPECT_TRUE(a == b && a.hashPtr().isNull());
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
