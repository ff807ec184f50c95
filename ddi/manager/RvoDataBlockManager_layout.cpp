// Where the manager finds a digest's root, threads and block file.

#include "RvoDataBlockManager.h"

#include "RvoDataBlockManagerReadThread_p.h"
#include "RvoDdiDiagnostics_p.h"
#include "RvoDdiMutexLocker.h"
#include "RvoDiskLayout_p.h"

#include <QDir>

int RvoDataBlockManager::cacheIndex(const QString &hashText)
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

    // Files written earlier are found again only if this rule never changes:
    // the digit values of the first four characters, separators counting -1.
    int sum = 0;
    for (int i = 3; i >= 0; --i) {
        const int digit = hashText.at(i).digitValue();
        sum += digit < 0 ? -1 : digit;
    }
    const int index = sum % roots; // truncates toward zero: negative sums stay negative
    if (index >= 0 && index < m_ReadThreads.size())
        return index;
    rvoReport(QStringLiteral("Cannot find suitable cache reading thread %1 for %2")
                      .arg(index)
                      .arg(hashText));
    return index;
}

int RvoDataBlockManager::cacheIndex(const RvoDataHash *hash)
{
    checkInitialized();
    if (!hash)
        return -1;
    return cacheIndex(hash->toString());
}

QString RvoDataBlockManager::getBlockDestination(const QString &subCache, const QString &hashText)
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

bool RvoDataBlockManager::subCacheExists(const QString &name)
{
    const QStringList roots = cacheRoots();
    if (roots.isEmpty())
        return false;
    return QDir(roots.first() + QDir::separator() + name).exists();
}
