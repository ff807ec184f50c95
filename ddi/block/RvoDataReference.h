#ifndef RVODATAREFERENCE_H
#define RVODATAREFERENCE_H

#include "RvoBlockFuture.h"
#include "RvoDataBlockManagerBase.h"
#include "RvoDataHash.h"
#include "RvoDdiGlobal.h"
#include "RvoSmartPointer.h"

#include <QString>

#include <atomic>
#include <cstddef>

class RvoConstAccessor;
class RvoModifyAccessor;

// A copyable handle to a block, naming it by its interned digest. Holding a
// reference keeps the digest, and so the block (in memory or on disk), alive.
//
// States (one way only): null (nothing); pending (a hashing job will name
// the block); resolved (the digest). A pending reference resolves itself at
// the first operation that needs the digest, waiting for its job; a job that
// yields nothing leaves it null.
//
// Threading: a reference is a value. Copies may live and die on any thread;
// one reference object is used by one thread at a time (its waiting
// operations fill it in).
class RVODDI_EXPORT RvoDataReference
{
public:
    RvoDataReference();
    explicit RvoDataReference(const RvoSmartPointer<RvoDataHash> &hash);
    explicit RvoDataReference(const RvoSmartPointer<RvoBlockFuture> &job);
    RvoDataReference(const RvoDataReference &other);
    RvoDataReference(RvoDataReference &&other) noexcept;
    RvoDataReference &operator=(const RvoDataReference &other);
    RvoDataReference &operator=(RvoDataReference &&other) noexcept;
    ~RvoDataReference();

    // Same digest object and same job: equal content is equal once both are
    // resolved.
    bool operator==(const RvoDataReference &other) const;
    bool operator!=(const RvoDataReference &other) const { return !(*this == other); }

    // Neither a digest nor a job. A pending reference is not null.
    bool isNull() const;

    // The operations below wait for a pending reference's job.

    // Whether the block is in memory; asking refreshes its place in the LRU.
    bool isInMemory() const;
    // The digest's text form, "NULL" without one.
    QString hash() const;
    RvoSmartPointer<RvoDataHash> hashPtr() const;
    // The user id lives in the digest, shared by every reference to the same
    // content; -1 without a digest.
    int userId() const;
    void setUserId(int id);
    // Asks for the block to be brought into memory ahead of use. Returns at
    // once.
    void preload(RvoDataBlockManagerBase::PreloadPriority priority) const;
    // Read access that pins the block in memory while it lives; a null
    // accessor when there is no block to read.
    RvoConstAccessor constAccessor() const;
    // A private, writable copy of the block (copy on write); release() it to
    // add the result as a new block. A null accessor when there is no block.
    RvoModifyAccessor modifyAccessor();

    // Live reference objects, and those allocated with new.
    static int referenceCount();
    static int allocCount();

    static void *operator new(std::size_t size);
    static void operator delete(void *pointer);
    static void *operator new(std::size_t size, void *place) noexcept;
    static void operator delete(void *pointer, void *place) noexcept;

private:
    // Resolves a pending reference, following a chain of jobs to its end.
    void checkAndWaitJob() const;

    mutable RvoSmartPointer<RvoDataHash> m_DataHash;
    mutable RvoSmartPointer<RvoBlockFuture> m_HashJob;

    static std::atomic<int> m_ReferenceCount;
    static std::atomic<int> m_AllocCount;
};

#endif // RVODATAREFERENCE_H
