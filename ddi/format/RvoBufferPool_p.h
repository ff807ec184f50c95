#ifndef RVOBUFFERPOOL_P_H
#define RVOBUFFERPOOL_P_H

#include "RvoMutex_p.h"

#include <QtGlobal>

#include <cstdlib>
#include <memory>
#include <vector>

// 64-byte-aligned buffers for block files on their way to and from the disk,
// reused so that a steady stream of loads and saves does not allocate per
// file. Buffers of this size come from mmap; mapping and unmapping one per
// block costs page faults, and every unmap interrupts the process's other
// running threads to flush their TLBs, which slowed hashing beside a stream
// of saves by a third. A read buffer travels from the reading thread to the
// pool thread that decodes it; a save's buffer holds the compressed block
// while its file is written. Both come back when released.
//
// Threading: any thread. The pool lock is a leaf of the lock order.
class RvoBufferPool
{
public:
    struct Free
    {
        void operator()(char *p) const { std::free(p); }
    };

    // A buffer of at least `size` bytes, with its capacity.
    class Buffer
    {
    public:
        Buffer() = default;
        char *data() const { return m_Data.get(); }
        qint64 capacity() const { return m_Capacity; }
        bool isNull() const { return !m_Data; }

    private:
        friend class RvoBufferPool;
        std::unique_ptr<char, Free> m_Data;
        qint64 m_Capacity = 0;
    };

    static RvoBufferPool &instance();

    // A null buffer when the memory cannot be had.
    Buffer acquire(qint64 size);
    // Keeps the buffer for reuse unless the pool is full or it is too large.
    void release(Buffer buffer);

private:
    // Buffers kept: enough for the reads, decodes and saves in flight on a
    // few cores.
    static constexpr size_t kMaxKept = 16;
    // Larger buffers are freed rather than hoarded.
    static constexpr qint64 kMaxKeptCapacity = 16 * 1024 * 1024;

    // Lock order: a leaf (docs/ARCHITECTURE.md).
    RvoMutex m_Lock;
    std::vector<Buffer> m_Free GUARDED_BY(m_Lock);
};

#endif // RVOBUFFERPOOL_P_H
