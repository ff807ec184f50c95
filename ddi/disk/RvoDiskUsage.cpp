#include "RvoDiskUsage_p.h"

#include "RvoMutexLocker_p.h"

#include <algorithm>

void RvoDiskUsage::added(qint64 bytes)
{
    const qint64 now = m_Bytes.fetch_add(bytes, std::memory_order_relaxed) + bytes;
    const qint64 share = m_Share.load(std::memory_order_relaxed);
    if (share > 0 && now > std::max(share, m_NextTrim.load(std::memory_order_relaxed)))
        wake();
}

void RvoDiskUsage::reset(qint64 bytes)
{
    m_Bytes.store(bytes, std::memory_order_relaxed);
    m_Known.store(true, std::memory_order_release);
}

void RvoDiskUsage::setShare(qint64 share)
{
    m_Share.store(std::max<qint64>(share, 0), std::memory_order_relaxed);
    m_NextTrim.store(0, std::memory_order_relaxed);
    m_Known.store(false, std::memory_order_release);
    wake();
}

bool RvoDiskUsage::trimDue() const
{
    const qint64 share = m_Share.load(std::memory_order_relaxed);
    if (share <= 0)
        return false;
    if (!known())
        return true;
    return bytes() > std::max(share, m_NextTrim.load(std::memory_order_relaxed));
}

void RvoDiskUsage::wake()
{
    {
        RvoMutexLocker locker(m_Lock);
        m_Woken = true;
    }
    m_Wake.notifyAll();
}

void RvoDiskUsage::sleep(std::chrono::milliseconds timeout)
{
    RvoMutexLocker locker(m_Lock);
    const auto deadline = std::chrono::system_clock::now() + timeout;
    while (!m_Woken) {
        if (timeout.count() < 0)
            m_Wake.wait(m_Lock);
        else if (!m_Wake.waitUntil(m_Lock, deadline))
            break;
    }
    m_Woken = false;
}
