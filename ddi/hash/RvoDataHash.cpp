#include "RvoDataHash.h"

#include "RvoBlockRelease_p.h"
#include "RvoDdiDiagnostics_p.h"
#include "RvoHashManager.h"
#include "RvoSkein.h"

#include <QHashFunctions>
#include <QStringList>
#include <QtEndian>

#include <cstring>

std::atomic<int> RvoDataHash::m_NumHashes {0};

namespace {

constexpr int kMaxDigestBytes = RvoDataHash::Skein1024;

} // namespace

RvoDataHash::RvoDataHash()
{
    m_NumHashes.fetch_add(1, std::memory_order_relaxed);
}

RvoDataHash::RvoDataHash(Size size, const unsigned char *digest)
{
    m_NumHashes.fetch_add(1, std::memory_order_relaxed);
    if (!resize(size))
        return;
    if (!digest) {
        rvoReport(QStringLiteral("Null Digest passed to Hash"));
        m_Length = 0;
        return;
    }
    std::memcpy(writableData(), digest, size_t(m_Length));
}

RvoDataHash::RvoDataHash(const unsigned char *data, qint64 length, Size size)
{
    m_NumHashes.fetch_add(1, std::memory_order_relaxed);
    if (resize(size))
        calculate(data, length);
}

RvoDataHash::RvoDataHash(const QByteArray &data, Size size)
{
    m_NumHashes.fetch_add(1, std::memory_order_relaxed);
    if (resize(size))
        calculate(reinterpret_cast<const unsigned char *>(data.constData()), data.size());
}

RvoDataHash::RvoDataHash(const QString &text)
{
    m_NumHashes.fetch_add(1, std::memory_order_relaxed);
    fromString(text);
}

RvoDataHash::RvoDataHash(const RvoDataHash &other)
    : m_UserId(other.userId())
{
    m_NumHashes.fetch_add(1, std::memory_order_relaxed);
    *this = other;
}

RvoDataHash::~RvoDataHash()
{
    m_NumHashes.fetch_sub(1, std::memory_order_relaxed);
    if (m_RefCount.load(std::memory_order_acquire) != 0)
        rvoReport(QStringLiteral("delete called with non null refcount"));
}

RvoDataHash &RvoDataHash::operator=(const RvoDataHash &other)
{
    if (this == &other)
        return *this;
    m_Size = other.m_Size;
    m_Length = 0;
    m_Large.reset();
    if (other.m_Length > 0 && resize(other.m_Length))
        std::memcpy(writableData(), other.data(), size_t(m_Length));
    setUserId(other.userId());
    return *this;
}

bool RvoDataHash::resize(int size)
{
    m_Length = 0;
    m_Large.reset();
    if (size == 0) {
        m_Size = Size(0);
        rvoReport(QStringLiteral("Hash Size is Zero"));
        return false;
    }
    if (size < 0 || size > kMaxDigestBytes) {
        rvoReport(QStringLiteral("Hash Size %1 is not supported").arg(size));
        return false;
    }
    m_Size = Size(size);
    if (size > int(sizeof(m_Inline)))
        m_Large.reset(new unsigned char[size_t(size)]);
    m_Length = size;
    std::memset(writableData(), 0, size_t(size));
    return true;
}

void RvoDataHash::calculate(const unsigned char *data, qint64 length)
{
    if (m_Length != int(m_Size) && !resize(m_Size))
        return;
    if (length < 0 || (!data && length > 0)) {
        qCDebug(lcDdi, "Hashing %lld bytes at %p refused: no such buffer", length,
                static_cast<const void *>(data));
        data = nullptr;
        length = 0;
    }
    const int status = RvoSkein::Hash(int(m_Size) * 8, data, quint64(length) * 8, writableData());
    if (status == RvoSkein::Fail)
        qCDebug(lcDdi, "Hashing Failed");
    else if (status == RvoSkein::BadHashLen)
        qCDebug(lcDdi, "Hashing Failed - Invalid Hash Length");
}

bool RvoDataHash::operator==(const RvoDataHash &other) const
{
    return m_Size == other.m_Size && m_Length == other.m_Length
            && std::memcmp(data(), other.data(), size_t(m_Length)) == 0;
}

RvoQHashType RvoDataHash::qhash(RvoQHashType seed) const
{
    return qHashBits(data(), size_t(m_Length), seed);
}

QString RvoDataHash::toString() const
{
    const int size = int(m_Size);
    if (size < 1)
        rvoReport(QStringLiteral("m_Size is Zero or less"));
    if (m_Length != size)
        rvoReport(QStringLiteral("Size of data is incorrect is %1, should be %2")
                          .arg(m_Length)
                          .arg(size));

    // Only whole words that are really held are written.
    const int words = qMin(size, m_Length) / 4;
    QString text;
    text.reserve(words * 11);
    const unsigned char *bytes = data();
    for (int i = 0; i < words; ++i) {
        text += QString::number(qFromLittleEndian<quint32>(bytes + 4 * i));
        text += QLatin1Char('-');
    }
    if (text.isEmpty()) {
        qCDebug(lcDdi, "Result Length %d  Size %d", int(text.size()), size);
        return text;
    }
    text.chop(1);
    return text;
}

void RvoDataHash::fromString(const QString &text)
{
    m_Length = 0;
    m_Large.reset();
#if QT_VERSION >= QT_VERSION_CHECK(5, 14, 0)
    const QStringList parts = text.split(QLatin1Char('-'), Qt::SkipEmptyParts);
#else
    const QStringList parts = text.split(QLatin1Char('-'), QString::SkipEmptyParts);
#endif
    if (parts.isEmpty())
        return;
    const int n = 4 * int(parts.size());
    if (n != Skein256 && n != Skein512 && n != Skein1024) {
        qCDebug(lcDdi, "Unknown Hash Bit Size %d", n);
        return;
    }
    resize(n);
    unsigned char *bytes = writableData();
    for (int i = 0; i < int(parts.size()); ++i) {
        bool ok = false;
        const uint word = parts.at(i).toUInt(&ok, 10);
        qToLittleEndian<quint32>(ok ? word : 0u, bytes + 4 * i);
    }
}

int RvoDataHash::hashCount()
{
    return m_NumHashes.load(std::memory_order_relaxed);
}

void RvoDataHash::incRef()
{
    m_Lock.lock();
    m_RefCount.fetch_add(1, std::memory_order_acq_rel);
    m_Lock.unlock();
}

void RvoDataHash::decRef()
{
    if (m_RefCount.load(std::memory_order_acquire) < 1) {
        // An unbalanced release: dropping below zero could only lead to a
        // second deletion later, so the count is left as it is.
        rvoReport(QStringLiteral("No Positive Ref Count in Dec Ref"));
        return;
    }
    m_Lock.lock();
    if (m_RefCount.load(std::memory_order_relaxed) > 1) {
        m_RefCount.fetch_sub(1, std::memory_order_acq_rel);
        m_Lock.unlock();
        return;
    }
    m_Lock.unlock();
    // Possibly the last: the delete lock comes first in the lock order.
    rvoReleaseLastReference(this);
}

bool RvoDataHash::dropLastReference()
{
    m_Lock.lock();
    const bool gone = m_RefCount.fetch_sub(1, std::memory_order_acq_rel) == 1
            && RvoHashManager::instance().removeHash(this);
    m_Lock.unlock();
    return gone;
}
