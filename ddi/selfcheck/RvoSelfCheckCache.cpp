#include "RvoSelfCheckCache_p.h"

#include "RvoDataBlockManager.h"
#include "RvoDdiLog.h"

#include <QDir>
#include <QDirIterator>
#include <QFileInfo>

RvoSelfCheckCache::RvoSelfCheckCache(const QString &parentDirectory, int rootCount, qint64 budget,
                                     int buckets, const QString &subCache)
    : m_SubCache(subCache)
{
    const QString parent = parentDirectory.isEmpty() ? QDir::tempPath() : parentDirectory;
    if (!QDir().mkpath(parent)) {
        m_Error = QStringLiteral("expected a cache directory at %1, saw none could be made")
                          .arg(parent);
        return;
    }
    for (int i = 0; i < rootCount; ++i) {
        auto dir = std::make_unique<QTemporaryDir>(
                QDir(parent).filePath(QStringLiteral("rvoddi-selfcheck-XXXXXX")));
        if (!dir->isValid()) {
            m_Error = QStringLiteral("expected a temporary cache root in %1, saw: %2")
                              .arg(parent, dir->errorString());
            return;
        }
        m_Roots << dir->path();
        m_Dirs.push_back(std::move(dir));
    }
    RvoDataBlockManager &manager = RvoDataBlockManager::instance();
    manager.setup(m_Roots, budget, buckets);
    manager.setSubCache(m_SubCache);
}

RvoSelfCheckCache::~RvoSelfCheckCache()
{
    RvoDataBlockManager::instance().cleanUp();
    // The log followed the sub-cache into a root that is about to go.
    RvoDdiLog::instance().setSubCache(QString());
}

QString RvoSelfCheckCache::subCacheDirectory(int root) const
{
    return m_Roots.value(root) + QLatin1Char('/') + m_SubCache;
}

QStringList RvoSelfCheckCache::blockFiles() const
{
    QStringList files;
    for (int i = 0; i < m_Roots.size(); ++i) {
        QDirIterator it(subCacheDirectory(i), QDir::Files | QDir::Hidden,
                        QDirIterator::Subdirectories);
        while (it.hasNext()) {
            const QString path = it.next();
            if (QFileInfo(path).fileName().count(QLatin1Char('-')) == 15)
                files << path;
        }
    }
    return files;
}

int RvoSelfCheckCache::blockFileCount() const
{
    return int(blockFiles().size());
}
