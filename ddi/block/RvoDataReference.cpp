#include "RvoDataReference.h"

#include "RvoBlockStore_p.h"
#include "RvoConstAccessor.h"
#include "RvoDataBlock.h"
#include "RvoDataDeleteLocker.h"
#include "RvoDdiDiagnostics_p.h"
#include "RvoModifyAccessor.h"

#include <new>

std::atomic<int> RvoDataReference::m_ReferenceCount {0};
std::atomic<int> RvoDataReference::m_AllocCount {0};

RvoDataReference::RvoDataReference()
{
    m_ReferenceCount.fetch_add(1, std::memory_order_relaxed);
}

RvoDataReference::RvoDataReference(const RvoSmartPointer<RvoDataHash> &hash)
    : m_DataHash(hash)
{
    m_ReferenceCount.fetch_add(1, std::memory_order_relaxed);
}

RvoDataReference::RvoDataReference(const RvoSmartPointer<RvoBlockFuture> &job)
    : m_HashJob(job)
{
    m_ReferenceCount.fetch_add(1, std::memory_order_relaxed);
}

RvoDataReference::RvoDataReference(const RvoDataReference &other)
    : m_DataHash(other.m_DataHash)
    , m_HashJob(other.m_HashJob)
{
    m_ReferenceCount.fetch_add(1, std::memory_order_relaxed);
}

RvoDataReference::RvoDataReference(RvoDataReference &&other) noexcept
    : m_DataHash(std::move(other.m_DataHash))
    , m_HashJob(std::move(other.m_HashJob))
{
    m_ReferenceCount.fetch_add(1, std::memory_order_relaxed);
}

RvoDataReference &RvoDataReference::operator=(const RvoDataReference &other)
{
    m_DataHash = other.m_DataHash;
    m_HashJob = other.m_HashJob;
    return *this;
}

RvoDataReference &RvoDataReference::operator=(RvoDataReference &&other) noexcept
{
    if (this != &other) {
        m_DataHash = std::move(other.m_DataHash);
        m_HashJob = std::move(other.m_HashJob);
    }
    return *this;
}

RvoDataReference::~RvoDataReference()
{
    m_ReferenceCount.fetch_sub(1, std::memory_order_relaxed);
}

bool RvoDataReference::operator==(const RvoDataReference &other) const
{
    return m_DataHash == other.m_DataHash && m_HashJob == other.m_HashJob;
}

bool RvoDataReference::isNull() const
{
    return m_DataHash.isNull() && m_HashJob.isNull();
}

void RvoDataReference::checkAndWaitJob() const
{
    if (m_DataHash || !m_HashJob)
        return;
    RvoSmartPointer<RvoBlockFuture> job = m_HashJob;
    RvoSmartPointer<RvoDataHash> hash;
    // A job may yield another pending reference: follow the chain to its
    // end (iteratively, so that a null end is reported once).
    while (job) {
        const RvoDataReference produced = job->data();
        hash = produced.m_DataHash;
        job = hash ? RvoSmartPointer<RvoBlockFuture>() : produced.m_HashJob;
    }
    m_DataHash = hash;
    m_HashJob.reset();
    if (!m_DataHash)
        rvoReport(QStringLiteral("Null Value for m_DataHash"));
}

bool RvoDataReference::isInMemory() const
{
    // Waited for before the delete lock: the job needs that lock to finish.
    checkAndWaitJob();
    RvoDataDeleteLocker locker;
    return RvoBlockStore::instance().isInMemory(m_DataHash.data());
}

QString RvoDataReference::hash() const
{
    checkAndWaitJob();
    return m_DataHash ? m_DataHash->toString() : QStringLiteral("NULL");
}

RvoSmartPointer<RvoDataHash> RvoDataReference::hashPtr() const
{
    checkAndWaitJob();
    return m_DataHash;
}

int RvoDataReference::userId() const
{
    checkAndWaitJob();
    return m_DataHash ? m_DataHash->userId() : -1;
}

void RvoDataReference::setUserId(int id)
{
    checkAndWaitJob();
    if (m_DataHash)
        m_DataHash->setUserId(id);
}

void RvoDataReference::preload(RvoDataBlockManagerBase::PreloadPriority priority) const
{
    checkAndWaitJob();
    RvoBlockStore::instance().preloadData(RvoDataReference(m_DataHash), priority);
}

RvoConstAccessor RvoDataReference::constAccessor() const
{
    checkAndWaitJob();
    RvoDataDeleteLocker locker; // no block is freed while the accessor is made
    if (!m_DataHash) {
        qCDebug(lcDdi, "Null Value of m_DataHash m_HashJob=%p",
                static_cast<const void *>(m_HashJob.data()));
        rvoReport(QStringLiteral("Null Value of m_DataHash"));
    }
    // A null digest goes on like any other: the manager has no block for it,
    // and the accessor made from neither block nor digest reports that too.
    // The result is a null accessor either way.
    RvoDataBlock *block = RvoBlockStore::instance().getDataBlock(m_DataHash.data());
    return RvoConstAccessor(m_DataHash, block);
}

RvoModifyAccessor RvoDataReference::modifyAccessor()
{
    checkAndWaitJob();
    RvoDataDeleteLocker locker;
    if (!m_DataHash) {
        qCDebug(lcDdi, "Null Value of m_DataHash m_HashJob=%p",
                static_cast<const void *>(m_HashJob.data()));
        rvoReport(QStringLiteral("Null Value of m_DataHash"));
        return RvoModifyAccessor();
    }
    const RvoDataBlock *block = RvoBlockStore::instance().getDataBlock(m_DataHash.data());
    if (!block) {
        qCDebug(lcDdi, "No block to modify for %s", qPrintable(m_DataHash->toString()));
        return RvoModifyAccessor();
    }
    // A private raw copy: the block under the old digest never changes.
    auto *copy = new RvoDataBlock(*block);
    copy->uncompress();
    return RvoModifyAccessor(copy);
}

int RvoDataReference::referenceCount()
{
    return m_ReferenceCount.load(std::memory_order_relaxed);
}

int RvoDataReference::allocCount()
{
    return m_AllocCount.load(std::memory_order_relaxed);
}

void *RvoDataReference::operator new(std::size_t size)
{
    void *pointer = ::operator new(size);
    m_AllocCount.fetch_add(1, std::memory_order_relaxed);
    return pointer;
}

void RvoDataReference::operator delete(void *pointer)
{
    if (!pointer)
        return;
    m_AllocCount.fetch_sub(1, std::memory_order_relaxed);
    ::operator delete(pointer);
}

void *RvoDataReference::operator new(std::size_t, void *place) noexcept
{
    return place;
}

void RvoDataReference::operator delete(void *, void *) noexcept { }
