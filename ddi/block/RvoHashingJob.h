#ifndef RVOHASHINGJOB_H
#define RVOHASHINGJOB_H

#include "RvoBlockFuture.h"
#include "RvoDataReference.h"

#include <QByteArray>
#include <QFuture>

class RvoDataBlock;

// Hashes a new block on the global thread pool, makes it live in the block
// manager under its digest and yields the resolved reference. Created already
// started; a pending RvoDataReference holds it until first use.
//
// States: queued on the pool -> running -> finished with its reference.
// Destroying the job waits for it to finish, so dropping an unresolved
// reference still leaves the block added.
//
// Threading: data() may be called from any thread, any number of times.
class RVODDI_EXPORT RvoHashingJob : public RvoBlockFuture
{
public:
    // Takes ownership of `block`; it passes to the manager when the job runs.
    explicit RvoHashingJob(RvoDataBlock *block);
    // The job keeps its own copy of `bytes`.
    explicit RvoHashingJob(const QByteArray &bytes);
    ~RvoHashingJob() override;

    RvoDataReference data() override;

    // Always 0: nothing counts these (RvoBlockFuture::numHashJobs does).
    static int liveHashJobCount() { return 0; }
    static int unfinishedHashJobCount() { return 0; }

protected:
    // Interns the digest of the block's bytes, makes the block live under
    // it and returns the resolved reference. A null block gives a null one.
    static RvoDataReference processBlock(RvoDataBlock *block);
    static RvoDataReference processBlockByteArray(const QByteArray &bytes);

private:
    QFuture<RvoDataReference> m_Future;
};

#endif // RVOHASHINGJOB_H
