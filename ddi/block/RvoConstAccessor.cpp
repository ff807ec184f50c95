#include "RvoConstAccessor.h"

#include "RvoBlockStore_p.h"
#include "RvoDataBlock.h"
#include "RvoDataDeleteLocker.h"
#include "RvoDdiDiagnostics_p.h"
#include "RvoDdiMutexLocker.h"

RvoConstAccessor::RvoConstAccessor(const RvoSmartPointer<RvoDataHash> &hash, RvoDataBlock *block)
{
    if (!block) {
        if (!hash)
            rvoReport(QStringLiteral("Both Block and Pointer Are Null"));
        m_DataHash = hash;
        return;
    }
    m_Block = block;
    m_DataHash = hash;
    acquire(true);
}

RvoConstAccessor::RvoConstAccessor(const RvoConstAccessor &other)
{
    if (!other.m_Block) {
        rvoReport(QStringLiteral("Null Block Value in That"));
        return;
    }
    m_Block = other.m_Block;
    m_DataHash = other.m_DataHash;
    acquire(false);
}

RvoConstAccessor &RvoConstAccessor::operator=(const RvoConstAccessor &other)
{
    if (this == &other)
        return *this;
    // What this accessor held is let go only after the new count is taken,
    // so assigning an accessor of the same block never unpins it.
    RvoConstAccessor previous;
    previous.m_Block = m_Block;
    previous.m_DataHash = std::move(m_DataHash);
    m_Block = other.m_Block;
    m_DataHash = other.m_DataHash;
    if (m_Block)
        acquire(false);
    return *this;
}

RvoConstAccessor::~RvoConstAccessor()
{
    release();
}

void RvoConstAccessor::acquire(bool pin)
{
    RvoDataDeleteLocker locker;
    RvoDdiMutexLocker blockLocker(&m_Block->m_Mutex);
    if (pin && m_Block->m_AccessCount.load(std::memory_order_relaxed) == 0)
        RvoBlockStore::instance().lockBlock(m_DataHash.data());
    m_Block->m_AccessCount.fetch_add(1, std::memory_order_relaxed);
}

void RvoConstAccessor::release()
{
    if (m_Block) {
        RvoDataDeleteLocker locker;
        RvoDdiMutexLocker blockLocker(&m_Block->m_Mutex);
        if (m_Block->m_AccessCount.fetch_sub(1, std::memory_order_relaxed) == 1)
            RvoBlockStore::instance().unlockBlock(m_DataHash.data());
        m_Block = nullptr;
    }
    m_DataHash.reset();
}

qint64 RvoConstAccessor::size() const
{
    return m_Block ? m_Block->size() : 0;
}

const unsigned char *RvoConstAccessor::data() const
{
    return m_Block ? m_Block->constData() : nullptr;
}

int RvoConstAccessor::count() const
{
    return m_Block ? m_Block->m_AccessCount.load(std::memory_order_relaxed) : 0;
}
