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

// A copy of a pending reference keeps the job after the original resolves.
TEST(RvoDataReference, HashingJobIsCountedUntilItsLastReferenceGoes)
{
    ManagerSetup setup;
    const int jobs = RvoBlockFuture::numHashJobs();
    {
        RvoDataReference a = addBlock(testContent(3), RvoModifyAccessor::CacheContent, false);
        RvoDataReference copy(a);
        EXPECT_EQ(RvoBlockFuture::numHashJobs(), jobs + 1);
        a.hash();
        EXPECT_EQ(RvoBlockFuture::numHashJobs(), jobs + 1);
    }
    EXPECT_EQ(RvoBlockFuture::numHashJobs(), jobs);
}

// The job is waited for when its reference goes: the block goes live and
// is queued for its disk copy, then leaves with the digest.
TEST(RvoDataReference, UnresolvedJobStillAddsItsBlock)
{
    ManagerSetup setup;
    addBlock(testContent(4), RvoModifyAccessor::CacheContent, false);
    EXPECT_EQ(RvoHashingJob::liveHashJobCount(), 0);
    EXPECT_EQ(RvoHashingJob::unfinishedHashJobCount(), 0);
    manager().flush(false, RvoDataBlockManager::WriteThreads);
    const QString text = RvoDataHash(testContent(4), RvoDataHash::Skein512).toString();
    EXPECT_GT(readFile(manager().getBlockDestination(QString(), text)).size(), 12);
    EXPECT_EQ(RvoHashManager::instance().hashCount(), 0);
    EXPECT_EQ(manager().liveBytes(), 0);
    EXPECT_EQ(RvoBlockFuture::numHashJobs(), 0);
}

// Two pending references differ until resolved; reads wait for the job.
TEST(RvoDataReference, PendingReferencesToEqualContentAreEqualOnceResolved)
{
    ManagerSetup setup;
    const QByteArray content = testContent(1, 300000);
    RvoDataReference async1 = addBlock(content, RvoModifyAccessor::CacheContent, false);
    RvoDataReference async2 = addBlock(content, RvoModifyAccessor::CacheContent, false);
    EXPECT_FALSE(async1 == async2);
    EXPECT_EQ(bytesOf(async2), content);
    EXPECT_EQ(async1.hash(), async2.hash());
    EXPECT_TRUE(async1 == async2);
}

// Every reference to the digest shares it; a null reference has none.
TEST(RvoDataReference, UserIdLivesOnTheDigest)
{
    ManagerSetup setup;
    const RvoDataReference ref = addBlock(testContent(1, 1000));
    RvoDataReference(ref).setUserId(42);
    EXPECT_EQ(addBlock(testContent(1, 1000), RvoModifyAccessor::CacheContent, false).userId(), 42);
    RvoDataReference null;
    null.setUserId(7); // ignored
    EXPECT_EQ(null.userId(), -1);
}

TEST(RvoDataReference, ChainsOfJobsAreFollowed)
{
    ManagerSetup setup;
    const RvoDataReference target = addBlock(testContent(5));
    const RvoDataReference chained = pendingOn(pendingOn(pendingOn(target)));
    EXPECT_EQ(chained.hashPtr(), target.hashPtr());
    StdoutCapture out;
    const RvoDataReference nothing = pendingOn(pendingOn(RvoDataReference()));
    EXPECT_EQ(nothing.hash(), "NULL");
    EXPECT_TRUE(nothing.isNull());
    EXPECT_EQ(out.lines(), QStringList {"Null Value for m_DataHash"});
}

// No digest, or a digest with no block in memory and no block file: there
// is nothing to read, and the accessors say so instead of touching a null
// block.
TEST(RvoDataReference, ReferenceWithNoBlockGivesNullAccessors)
{
    ManagerSetup setup;
    StdoutCapture out;
    DebugCapture debug;
    EXPECT_TRUE(RvoDataReference().modifyAccessor().isNull());
    EXPECT_EQ(out.lines(), QStringList {"Null Value of m_DataHash"});
    EXPECT_EQ(debug.messages(), QStringList {"Null Value of m_DataHash m_HashJob=0x0"});

    RvoDataReference orphan(RvoHashManager::instance().getHash(QByteArray("never stored")));
    EXPECT_TRUE(orphan.constAccessor().isNull());
    EXPECT_TRUE(orphan.modifyAccessor().isNull());
    EXPECT_GT(debug.messages().size(), 1) << "the failed loads are reported";
}

// Placement new counts no heap allocation.
TEST(RvoDataReference, ReferencesMadeWithNewAreCounted)
{
    const int heap = RvoDataReference::allocCount();
    auto *allocated = new RvoDataReference();
    EXPECT_EQ(RvoDataReference::allocCount(), heap + 1);
    delete allocated;
    EXPECT_EQ(RvoDataReference::allocCount(), heap);
    alignas(RvoDataReference) unsigned char place[sizeof(RvoDataReference)];
    auto *placed = new (place) RvoDataReference();
    EXPECT_EQ(RvoDataReference::allocCount(), heap);
    placed->~RvoDataReference();
}
