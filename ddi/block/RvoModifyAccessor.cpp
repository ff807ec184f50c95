#include "RvoModifyAccessor.h"

#include "RvoBlockStore_p.h"
#include "RvoDataBlock.h"
#include "RvoDataReference.h"
#include "RvoDdiMutexLocker.h"

RvoModifyAccessor::RvoModifyAccessor(RvoDataBlock *block)
    : m_Block(block)
{
    acquire();
}

RvoModifyAccessor::RvoModifyAccessor(const RvoModifyAccessor &other)
    : m_Block(other.m_Block)
{
    acquire();
}

RvoModifyAccessor &RvoModifyAccessor::operator=(const RvoModifyAccessor &other)
{
    if (this == &other || m_Block == other.m_Block)
        return *this;
    drop();
    m_Block = other.m_Block;
    acquire();
    return *this;
}

RvoModifyAccessor::~RvoModifyAccessor()
{
    drop();
}

void RvoModifyAccessor::acquire()
{
    if (!m_Block)
        return;
    RvoDdiMutexLocker locker(&m_Block->m_Mutex);
    m_Block->m_AccessCount.fetch_add(1, std::memory_order_relaxed);
}

void RvoModifyAccessor::drop()
{
    if (!m_Block)
        return;
    RvoDataBlock *block = m_Block;
    m_Block = nullptr;
    bool last = false;
    {
        RvoDdiMutexLocker locker(&block->m_Mutex);
        last = block->m_AccessCount.fetch_sub(1, std::memory_order_relaxed) == 1;
    }
    if (last)
        delete block;
}

qint64 RvoModifyAccessor::size() const
{
    return m_Block ? m_Block->size() : 0;
}

unsigned char *RvoModifyAccessor::data() const
{
    return m_Block ? m_Block->data() : nullptr;
}

int RvoModifyAccessor::count() const
{
    return m_Block ? m_Block->m_AccessCount.load(std::memory_order_relaxed) : 0;
}

RvoDataReference RvoModifyAccessor::release(Caching caching, bool synchronous)
{
    if (!m_Block)
        return RvoDataReference();
    bool shared = false;
    {
        RvoDdiMutexLocker locker(&m_Block->m_Mutex);
        shared = m_Block->m_AccessCount.load(std::memory_order_relaxed) > 1;
    }
    RvoDataBlock *given = m_Block;
    if (shared) {
        // The copies still hold the block and will delete it: the manager,
        // which owns what it is given, gets a block of its own. The copy is
        // taken while this accessor's share keeps the block alive.
        given = new RvoDataBlock(*m_Block);
        drop();
    } else {
        RvoDdiMutexLocker locker(&m_Block->m_Mutex);
        m_Block->m_AccessCount.fetch_sub(1, std::memory_order_relaxed);
        m_Block = nullptr;
    }
    return RvoBlockStore::instance().addBlock(given, caching, synchronous);
}
