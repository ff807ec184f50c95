// Where the manager finds a digest's root, threads and block file.

#include "RvoDataBlockManager_p.h"

#include "RvoDdiDiagnostics_p.h"
#include "RvoDdiMutexLocker.h"
#include "RvoDiskLayout_p.h"

#include <QDir>

int RvoDataBlockManager::Private::cacheIndex(const QString &hashText)
{
    RvoDdiMutexLocker locker(&m_DeleteLock);
    const int roots = int(m_CacheRoots.size());
    if (roots == 0) {
        rvoReport(QStringLiteral("Number of cache paths is zero"));
        return -1;
    }
    if (hashText.size() < 4) {
        rvoReport(QStringLiteral("Hash String is too Short %1").arg(hashText));
        return -1;
    }
    checkInitialized();
    const int index = rootIndex(hashText, roots);
    if (index >= 0 && index < m_ReadThreads.size())
        return index;
    rvoReport(QStringLiteral("Cannot find suitable cache reading thread %1 for %2")
                      .arg(index)
                      .arg(hashText));
    return index;
}

int RvoDataBlockManager::Private::cacheIndex(const RvoDataHash *hash)
{
    checkInitialized();
    if (!hash)
        return -1;
    return cacheIndex(hash->toString());
}

QString RvoDataBlockManager::Private::getBlockDestination(const QString &subCache,
                                                          const QString &hashText)
{
    const RvoDataHash hash(hashText);
    checkInitialized();
    const int index = cacheIndex(hash.toString());
    if (index < 0)
        return QString();
    const QStringList roots = cacheRoots();
    if (index >= roots.size())
        return QString();
    QString directory;
    QString fileName;
    if (!buildFilename(&hash, roots.at(index), subCache, quint32(qMax(numBuckets(), 1)), directory,
                       fileName))
        return QString();
    return directory + fileName;
}
