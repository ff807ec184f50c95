#include "RvoHashingJob.h"

#include "RvoBlockStore_p.h"
#include "RvoDataBlock.h"
#include "RvoHashManager.h"
#include "RvoTsan_p.h"

#include <QFutureInterface>
#include <QRunnable>
#include <QThreadPool>

#include <functional>
#include <utility>

namespace {

// Runs a job's work on the global pool. Unlike a QtConcurrent task it keeps
// no copy of the result once reported, so when the job's future goes, the
// reference (and with it, possibly, the digest) goes at once.
class HashTask : public QRunnable
{
public:
    HashTask(QFutureInterface<RvoDataReference> promise, std::function<RvoDataReference()> work)
        : m_Promise(std::move(promise))
        , m_Work(std::move(work))
    {
        setAutoDelete(true);
    }

    void run() override
    {
        {
            const RvoDataReference result = m_Work();
            m_Promise.reportResult(result);
        }
        m_Promise.reportFinished();
    }

private:
    QFutureInterface<RvoDataReference> m_Promise;
    std::function<RvoDataReference()> m_Work;
};

QFuture<RvoDataReference> startOnPool(std::function<RvoDataReference()> work)
{
    QFutureInterface<RvoDataReference> promise;
    promise.reportStarted();
    QFuture<RvoDataReference> future = promise.future();
    QThreadPool::globalInstance()->start(new HashTask(std::move(promise), std::move(work)));
    return future;
}

} // namespace

RvoHashingJob::RvoHashingJob(RvoDataBlock *block)
{
    // The job object marks the hand-off of the result to data().
    m_Future = startOnPool([this, block] {
        RvoDataReference reference = processBlock(block);
        rvoHappensBefore(this);
        return reference;
    });
}

RvoHashingJob::RvoHashingJob(const QByteArray &bytes)
{
    m_Future = startOnPool([this, bytes] {
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
    RvoBlockStore &store = RvoBlockStore::instance();
    store.makeBlockLive(hash.data(), block);
    return store.getReference(hash.data());
}

RvoDataReference RvoHashingJob::processBlockByteArray(const QByteArray &bytes)
{
    RvoSmartPointer<RvoDataHash> hash = RvoHashManager::instance().getHash(bytes);
    RvoBlockStore &store = RvoBlockStore::instance();
    store.makeBlockLive(hash.data(), RvoDataBlock::sharing(bytes));
    return store.getReference(hash.data());
}
