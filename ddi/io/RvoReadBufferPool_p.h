#ifndef RVOREADBUFFERPOOL_P_H
#define RVOREADBUFFERPOOL_P_H

#include <QtGlobal>

#include <cstdlib>
#include <memory>
#include <mutex>
#include <vector>

// 64-byte-aligned buffers that block files are read into, reused across
// reads so that a steady stream of loads does not allocate per file. A
// buffer travels from the reading thread to the pool thread that decodes it
// and comes back when released.
//
// Threading: any thread. The pool lock is a leaf of the lock order.
class RvoReadBufferPool
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
        friend class RvoReadBufferPool;
        std::unique_ptr<char, Free> m_Data;
        qint64 m_Capacity = 0;
    };

    static RvoReadBufferPool &instance();

    // A null buffer when the memory cannot be had.
    Buffer acquire(qint64 size);
    // Keeps the buffer for reuse unless the pool is full or it is too large.
    void release(Buffer buffer);

private:
    // Buffers kept: enough for the reads and decodes in flight on two cores.
    static constexpr size_t kMaxKept = 8;
    // Larger buffers are freed rather than hoarded.
    static constexpr qint64 kMaxKeptCapacity = 16 * 1024 * 1024;

    std::mutex m_Lock; // guards m_Free; a leaf
    std::vector<Buffer> m_Free;
};

#endif // RVOREADBUFFERPOOL_P_H
