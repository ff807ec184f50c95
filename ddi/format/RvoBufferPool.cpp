#include "RvoBufferPool_p.h"

#include "RvoMutexLocker_p.h"

RvoBufferPool &RvoBufferPool::instance()
{
    static RvoBufferPool pool;
    return pool;
}

RvoBufferPool::Buffer RvoBufferPool::acquire(qint64 size)
{
    if (size < 0)
        return Buffer();
    {
        RvoMutexLocker locker(m_Lock);
        for (auto it = m_Free.begin(); it != m_Free.end(); ++it) {
            if (it->m_Capacity >= size) {
                Buffer buffer = std::move(*it);
                m_Free.erase(it);
                return buffer;
            }
        }
    }
    Buffer buffer;
    // aligned_alloc wants a multiple of the alignment; never 0 bytes.
    const qint64 capacity = qMax<qint64>(64, (size + 63) / 64 * 64);
    if (quint64(capacity) > quint64(SIZE_MAX))
        return buffer;
    buffer.m_Data.reset(static_cast<char *>(std::aligned_alloc(64, size_t(capacity))));
    if (buffer.m_Data)
        buffer.m_Capacity = capacity;
    return buffer;
}

void RvoBufferPool::release(Buffer buffer)
{
    if (buffer.isNull() || buffer.m_Capacity > kMaxKeptCapacity)
        return;
    RvoMutexLocker locker(m_Lock);
    if (m_Free.size() < kMaxKept)
        m_Free.push_back(std::move(buffer));
}
