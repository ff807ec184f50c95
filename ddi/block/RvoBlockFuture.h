#ifndef RVOBLOCKFUTURE_H
#define RVOBLOCKFUTURE_H

#include "RvoDdiGlobal.h"
#include "RvoSmartPointer.h"

#include <atomic>

class RvoDataReference;

// Something that will yield a resolved RvoDataReference: the reference-counted
// base of asynchronous hashing jobs. Held through RvoSmartPointer; the last
// release deletes it.
//
// Threading: counting and data() may be used from any thread.
class RVODDI_EXPORT RvoBlockFuture
{
public:
    RvoBlockFuture();
    // Copies the count's value only (a member-wise copy); no new future is
    // counted.
    RvoBlockFuture(const RvoBlockFuture &other);
    RvoBlockFuture &operator=(const RvoBlockFuture &other);
    virtual ~RvoBlockFuture();

    // Blocks until the reference is known, then returns it (the same one
    // every time).
    virtual RvoDataReference data() = 0;

    int refCount() const { return m_RefCount.load(std::memory_order_acquire); }
    // Future objects alive in the process.
    static int numHashJobs();

protected:
    friend class RvoSmartPointer<RvoBlockFuture>;
    void incRef() { m_RefCount.fetch_add(1, std::memory_order_relaxed); }
    void decRef()
    {
        if (m_RefCount.fetch_sub(1, std::memory_order_acq_rel) == 1)
            delete this;
    }

private:
    std::atomic<int> m_RefCount {0};
    static std::atomic<int> m_NumHashJobs;
};

#endif // RVOBLOCKFUTURE_H
