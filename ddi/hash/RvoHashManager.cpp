#include "RvoHashManager.h"

#include "RvoDdiDiagnostics_p.h"
#include "RvoDdiMutexLocker.h"

#include <QThread>
#include <QVector>

#include <utility>

RvoHashManager::RvoHashManager()
{
    qCDebug(lcDdi, "Created Hash Manager in thread %p",
            static_cast<void *>(QThread::currentThread()));
}

RvoHashManager::~RvoHashManager() = default;

RvoHashManager &RvoHashManager::instance()
{
    static RvoHashManager manager;
    return manager;
}

RvoSmartPointer<RvoDataHash> RvoHashManager::getHash(const unsigned char *data, qint64 length)
{
    // The digest is computed before the lock is taken.
    return intern(new RvoDataHash(data, length, RvoDataHash::Skein512), true);
}

RvoSmartPointer<RvoDataHash> RvoHashManager::getHash(const QByteArray &data)
{
    return getHash(reinterpret_cast<const unsigned char *>(data.constData()), data.size());
}

RvoSmartPointer<RvoDataHash> RvoHashManager::getHash(const QString &text)
{
    auto *fresh = new RvoDataHash(text);
    if (fresh->isEmpty()) {
        // fromString has said what was wrong; an empty digest names nothing.
        delete fresh;
        RvoDdiMutexLocker locker(&m_Lock);
        ++m_Requests;
        return {};
    }
    return intern(fresh, true);
}

RvoSmartPointer<RvoDataHash> RvoHashManager::addHash(RvoDataHash *hash)
{
    if (!hash) {
        rvoReport(QStringLiteral("Null Hash passed to addHash"));
        return {};
    }
    return intern(hash, false);
}

RvoSmartPointer<RvoDataHash> RvoHashManager::intern(RvoDataHash *fresh, bool countRequest)
{
    RvoDataHash *result = nullptr;
    {
        RvoDdiMutexLocker locker(&m_Lock);
        if (countRequest)
            ++m_Requests;
        const auto found = m_Table.constFind(RvoHashHandle(fresh));
        if (found == m_Table.constEnd()) {
            m_Table.insert(RvoHashHandle(fresh));
            ++m_Misses;
            fresh->bareIncRef();
            return RvoSmartPointer<RvoDataHash>::adopt(fresh);
        }
        ++m_Hits;
        // The bare increment keeps a concurrent last decRef from removing
        // the found digest: removeHash re-reads the count under this lock.
        result = found->data();
        result->bareIncRef();
    }
    if (result != fresh) {
        if (fresh->refCount() == 0)
            delete fresh;
        else
            rvoReport(QStringLiteral("Hash passed to addHash is still referenced, not deleted"));
    }
    return RvoSmartPointer<RvoDataHash>::adopt(result);
}

bool RvoHashManager::removeHash(RvoDataHash *hash)
{
    RvoDdiMutexLocker locker(&m_Lock);
    if (hash->refCount() != 0)
        return false;
    const auto found = m_Table.find(RvoHashHandle(hash));
    if (found != m_Table.end() && found->data() == hash) {
        ++m_Removes;
        m_Table.erase(found);
        if (m_Table.contains(RvoHashHandle(hash)))
            rvoReport(QStringLiteral("Hash Manager Still Contains Removed Hash"));
    }
    return true;
}

bool RvoHashManager::isHashLive(const QString &text)
{
    const RvoDataHash probe(text);
    if (probe.isEmpty())
        return false;
    RvoDdiMutexLocker locker(&m_Lock);
    return m_Table.contains(RvoHashHandle(const_cast<RvoDataHash *>(&probe)));
}

int RvoHashManager::hashCount() const
{
    RvoDdiMutexLocker locker(&m_Lock);
    return int(m_Table.size());
}

QList<RvoSmartPointer<RvoDataHash>> RvoHashManager::pinAll() const
{
    // Raw pointers under the lock: building smart pointers there could copy
    // or destroy one (Qt 5's QList copies on append), taking a digest's lock
    // inside the registry lock.
    QVector<RvoDataHash *> raw;
    {
        RvoDdiMutexLocker locker(&m_Lock);
        raw.reserve(int(m_Table.size()));
        for (const RvoHashHandle &handle : m_Table) {
            handle.data()->bareIncRef();
            raw.append(handle.data());
        }
    }
    QList<RvoSmartPointer<RvoDataHash>> pinned;
    pinned.reserve(raw.size());
    for (RvoDataHash *hash : std::as_const(raw))
        pinned.append(RvoSmartPointer<RvoDataHash>::adopt(hash));
    return pinned;
}

void RvoHashManager::snapshot(QList<RvoSmartPointer<RvoDataHash>> &out) const
{
    QList<RvoSmartPointer<RvoDataHash>> pinned = pinAll();
    out.reserve(out.size() + pinned.size());
    for (RvoSmartPointer<RvoDataHash> &hash : pinned)
        out.append(std::move(hash));
}

void RvoHashManager::clearStats()
{
    RvoDdiMutexLocker locker(&m_Lock);
    m_Requests = 0;
    m_Hits = 0;
    m_Misses = 0;
    m_Removes = 0;
}

void RvoHashManager::dumpStats() const
{
    RvoDdiMutexLocker locker(&m_Lock);
    qCDebug(lcDdi, "==== RvoDdi Hash Stats ====");
    qCDebug(lcDdi, "Cache Hits %d", m_Hits);
    qCDebug(lcDdi, "Cache Misses %d", m_Misses);
    qCDebug(lcDdi, "Requests %d", m_Requests);
    qCDebug(lcDdi, "Removes %d", m_Removes);
    qCDebug(lcDdi, "Registered %d", int(m_Table.size()));
    qCDebug(lcDdi, "Existant %d", RvoDataHash::hashCount());
    qCDebug(lcDdi, "HashPtrs %d", -1);
}

void RvoHashManager::printDebugInfo() const
{
    // Registered digests cannot be deleted while the lock is held: removal
    // from the table, which needs the lock, comes before deletion.
    RvoDdiMutexLocker locker(&m_Lock);
    for (const RvoHashHandle &handle : m_Table) {
        const RvoDataHash *hash = handle.data();
        qCDebug(lcDdi, "%p %d %s", static_cast<const void *>(hash), hash->refCount(),
                qPrintable(hash->toString()));
    }
}

void RvoHashManager::validateState() const
{
    // Reported outside the lock, on pinned digests; the pin is not counted.
    const QList<RvoSmartPointer<RvoDataHash>> pinned = pinAll();
    for (const RvoSmartPointer<RvoDataHash> &hash : pinned) {
        if (hash->isDontCache())
            continue;
        rvoReport(
                QStringLiteral(
                        "There is a live hash '%1' (ref count = %2) that has been cached, aborting")
                        .arg(hash->toString())
                        .arg(hash->refCount() - 1));
    }
}
