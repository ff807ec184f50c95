#include "RvoDataBlock.h"

#include "RvoBlockStore_p.h"
#include "RvoDdiDiagnostics_p.h"
#include "RvoDdiMutexLocker.h"

#include <cstring>
#include <limits>
#include <new>

namespace {

// The most bytes one QByteArray can hold in this Qt version.
constexpr qint64 kMaxByteArraySize =
#if QT_VERSION >= QT_VERSION_CHECK(6, 0, 0)
        std::numeric_limits<qint64>::max() / 2;
#else
        std::numeric_limits<int>::max() - 64;
#endif

// A buffer of `size` uninitialised bytes, or false (reported) when it cannot
// be had: no size is narrowed, and no allocation failure escapes to the host.
bool allocate(qint64 size, QByteArray *out)
{
    if (size >= 0 && size <= kMaxByteArraySize) {
        try {
            *out = QByteArray(qsizetype(size), Qt::Uninitialized);
            return true;
        } catch (const std::bad_alloc &) {
        }
    }
    rvoReport(QStringLiteral("Cannot allocate a block of %1 bytes").arg(size));
    out->clear();
    return false;
}

} // namespace

RvoDataBlock::RvoDataBlock(qint64 size, unsigned char fill)
{
    if (allocate(size, &m_Data)) {
        std::memset(m_Data.data(), fill, size_t(size));
        m_Size = size;
    }
}

RvoDataBlock::RvoDataBlock(const unsigned char *data, qint64 size)
{
    if (!data && size > 0) {
        rvoReport(QStringLiteral("Null data passed for a block of %1 bytes").arg(size));
        return;
    }
    if (allocate(size, &m_Data)) {
        if (size > 0)
            std::memcpy(m_Data.data(), data, size_t(size));
        m_Size = size;
    }
}

RvoDataBlock::RvoDataBlock(const QByteArray &bytes)
    : m_Data(bytes)
    , m_Size(bytes.size())
{
    m_Data.detach();
}

RvoDataBlock *RvoDataBlock::sharing(const QByteArray &bytes)
{
    auto *block = new RvoDataBlock(0, 0);
    block->m_Data = bytes;
    block->m_Size = bytes.size();
    return block;
}

RvoDataBlock::RvoDataBlock(const RvoDataBlock &other)
    : m_Data(other.m_Data)
    , m_Size(other.m_Size)
    , m_Compressed(other.m_Compressed)
{
    m_Data.detach();
}

RvoDataBlock::~RvoDataBlock() = default;

RvoDataBlock &RvoDataBlock::operator=(const RvoDataBlock &other)
{
    m_Data = other.m_Data;
    m_Data.detach();
    m_Compressed = other.m_Compressed;
    m_Size = other.m_Size;
    return *this;
}

unsigned char *RvoDataBlock::data()
{
    uncompress();
    return reinterpret_cast<unsigned char *>(m_Data.data());
}

const unsigned char *RvoDataBlock::constData() const
{
    return reinterpret_cast<const unsigned char *>(m_Data.constData());
}

bool RvoDataBlock::compress(int level)
{
    if (m_Compressed)
        return true;
    m_Data = qCompress(m_Data, level);
    m_Compressed = true;
    return true;
}

bool RvoDataBlock::uncompress()
{
    if (!m_Compressed)
        return true;
    m_Data = qUncompress(m_Data);
    m_Compressed = false;
    if (m_Data.size() != m_Size) {
        // Never claim more bytes than the buffer holds.
        rvoReport(QStringLiteral("Block of %1 bytes uncompressed to %2 bytes")
                          .arg(m_Size)
                          .arg(qint64(m_Data.size())));
        m_Size = m_Data.size();
    }
    return true;
}

RvoSmartPointer<RvoDataHash> RvoDataBlock::hash() const
{
    return RvoSmartPointer<RvoDataHash>(new RvoDataHash(m_Data, RvoDataHash::Skein512));
}

bool RvoDataBlock::operator==(const RvoDataBlock &other) const
{
    return m_Data.size() == other.m_Data.size()
            && std::memcmp(m_Data.constData(), other.m_Data.constData(), size_t(m_Data.size()))
            == 0;
}

qint64 RvoDataBlock::maxBlockSize()
{
    return qMin<qint64>(RvoBlockStore::instance().maxDataCacheSize(), 0x7FFFFFFF);
}

void RvoDataBlock::dispose(RvoDataBlock *block)
{
    if (!block)
        return;
    {
        RvoDdiMutexLocker locker(&block->m_Mutex);
        if (block->m_PendingSaves > 0) {
            block->m_Disposed = true;
            return;
        }
    }
    delete block;
}

void RvoDataBlock::beginSave()
{
    RvoDdiMutexLocker locker(&m_Mutex);
    ++m_PendingSaves;
}

bool RvoDataBlock::endSave()
{
    RvoDdiMutexLocker locker(&m_Mutex);
    return --m_PendingSaves == 0 && m_Disposed;
}
