#include "RvoHashingJob.h"

#include "RvoDataBlock.h"
#include "RvoDataBlockManager.h"
#include "RvoHashManager.h"
#include "RvoTsan_p.h"

#include <QtConcurrent/QtConcurrentRun>

RvoHashingJob::RvoHashingJob(RvoDataBlock *block)
{
    // The job object marks the hand-off of the result to data().
    m_Future = QtConcurrent::run([this, block] {
        RvoDataReference reference = processBlock(block);
        rvoHappensBefore(this);
        return reference;
    });
}

RvoHashingJob::RvoHashingJob(const QByteArray &bytes)
{
    m_Future = QtConcurrent::run([this, bytes] {
        RvoDataReference reference = processBlockByteArray(bytes);
        rvoHappensBefore(this);
        return reference;
    });
}

RvoHashingJob::~RvoHashingJob()
{
    // Never torn down under a running computation.
    m_Future.waitForFinished();
}

RvoDataReference RvoHashingJob::data()
{
    m_Future.waitForFinished();
    rvoHappensAfter(this);
    return m_Future.result();
}

RvoDataReference RvoHashingJob::processBlock(RvoDataBlock *block)
{
    if (!block)
        return RvoDataReference();
    // The digest names the content, never its compressed form.
    block->uncompress();
    RvoSmartPointer<RvoDataHash> hash
            = RvoHashManager::instance().getHash(block->constData(), block->size());
    RvoDataBlockManager &manager = RvoDataBlockManager::instance();
    manager.makeBlockLive(hash.data(), block);
    return manager.getReference(hash.data());
}

RvoDataReference RvoHashingJob::processBlockByteArray(const QByteArray &bytes)
{
    RvoSmartPointer<RvoDataHash> hash = RvoHashManager::instance().getHash(bytes);
    RvoDataBlockManager &manager = RvoDataBlockManager::instance();
    manager.makeBlockLive(hash.data(), RvoDataBlock::sharing(bytes));
    return manager.getReference(hash.data());
}
