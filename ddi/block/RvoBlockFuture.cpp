#include "RvoBlockFuture.h"

std::atomic<int> RvoBlockFuture::m_NumHashJobs {0};

RvoBlockFuture::RvoBlockFuture()
{
    m_NumHashJobs.fetch_add(1, std::memory_order_relaxed);
}

RvoBlockFuture::RvoBlockFuture(const RvoBlockFuture &other)
    : m_RefCount(other.refCount())
{
}

RvoBlockFuture &RvoBlockFuture::operator=(const RvoBlockFuture &other)
{
    m_RefCount.store(other.refCount(), std::memory_order_relaxed);
    return *this;
}

RvoBlockFuture::~RvoBlockFuture()
{
    m_NumHashJobs.fetch_sub(1, std::memory_order_relaxed);
}

int RvoBlockFuture::numHashJobs()
{
    return m_NumHashJobs.load(std::memory_order_relaxed);
}
