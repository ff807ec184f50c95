#ifndef RVOSELFCHECKCACHE_P_H
#define RVOSELFCHECKCACHE_P_H

#include <QString>
#include <QStringList>
#include <QTemporaryDir>

#include <memory>
#include <vector>

// One check's disk cache: fresh temporary roots, the block manager set up on
// them with a budget, a bucket count and a sub-cache, and, when it goes,
// the manager cleaned up, the log closed and the roots deleted.
class RvoSelfCheckCache
{
public:
    // Makes `rootCount` roots under `parentDirectory` (the system's
    // temporary directory when empty) and sets the manager up on them.
    RvoSelfCheckCache(const QString &parentDirectory, int rootCount, qint64 budget, int buckets,
                      const QString &subCache = QStringLiteral("selfcheck"));
    ~RvoSelfCheckCache();
    RvoSelfCheckCache(const RvoSelfCheckCache &) = delete;
    RvoSelfCheckCache &operator=(const RvoSelfCheckCache &) = delete;

    // Empty when the roots were made and the manager set up; otherwise what
    // went wrong (the manager is then not set up).
    QString error() const { return m_Error; }
    QStringList roots() const { return m_Roots; }
    QString subCache() const { return m_SubCache; }
    // root / sub-cache.
    QString subCacheDirectory(int root = 0) const;
    // The files named like a 64-byte digest's text form (15 "-") under the
    // sub-cache of every root.
    int blockFileCount() const;
    QStringList blockFiles() const;

private:
    std::vector<std::unique_ptr<QTemporaryDir>> m_Dirs;
    QStringList m_Roots;
    QString m_SubCache;
    QString m_Error;
};

#endif // RVOSELFCHECKCACHE_P_H
