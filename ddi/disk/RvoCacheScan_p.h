#ifndef RVOCACHESCAN_P_H
#define RVOCACHESCAN_P_H

#include <QByteArray>
#include <QString>
#include <QStringList>
#include <QVector>
#include <QtGlobal>

// What the disk cache holds under one or more roots, sub-cache by sub-cache:
// the block files with their size and last use, the temporary files of
// saves in progress (or of killed writers), the files that are neither, and
// whether a process holds each sub-cache now.
//
// A root holds sub-cache directories, each holding bucket directories (named
// by a decimal number) that hold the files. The unnamed sub-cache has its
// buckets directly under the root. A sub-cache name may hold separators
// ("a/b"): a directory below a sub-cache that is not a bucket is a sub-cache
// of its own. A decimal directory that holds directories is a sub-cache,
// not a bucket. What a block file's name and a temporary file's name are is
// RvoDiskLayout's to say.
//
// The lock file (RvoSubCacheLock) and the log ("DdiLog.txt") belong to the
// sub-cache and are not listed among the other files.
//
// The walk reads directories with readdir and stats each file once, relative
// to its open directory; nothing is opened or read. A root of 100,000 block
// files takes a fraction of a second and about 100 bytes per file.
//
// The last use of a block file is its modification time: the read thread
// refreshes it through noteUse() when it loads a file whose time is more
// than an hour old, so that hot files are not touched on every load.
//
// Threading: the functions are pure and may run on any thread; a scan of a
// cache that others change meanwhile sees each directory as it was when it
// was read.
class RvoCacheScan
{
public:
    struct BlockFile
    {
        QByteArray name; // the digest's text form (ASCII)
        int bucket = 0; // index into SubCache::bucketDirectories
        qint64 bytes = 0; // the file's length
        qint64 allocated = 0; // what it occupies on the disk
        qint64 modifiedMs = 0; // last use, milliseconds since the epoch
    };

    struct OtherFile
    {
        QString path;
        qint64 bytes = 0;
        qint64 modifiedMs = 0;
    };

    struct SubCache
    {
        QString name; // empty for the unnamed sub-cache
        QString directory; // root + separator + name
        QStringList bucketDirectories; // full paths
        QVector<BlockFile> blockFiles; // in listing order
        QVector<OtherFile> temporaryFiles;
        // Neither block files nor temporary files; entries of a bucket that
        // are directories or links are listed here too.
        QVector<OtherFile> otherFiles;
        qint64 blockBytes = 0; // the sum of blockFiles' bytes
        bool hasLockFile = false;
        // Some process (this one included) holds the sub-cache; false unless
        // the scan was asked to look.
        bool held = false;

        QString path(const BlockFile &file) const;
    };

    struct Root
    {
        QString path;
        QVector<SubCache> subCaches; // sorted by name
        // Directories that could not be read, each with the system's reason.
        QStringList errors;

        qint64 blockBytes() const;
        qint64 blockFileCount() const;
    };

    struct Options
    {
        // Only the sub-cache of this name (and not those below it), when set.
        bool onlyOneSubCache = false;
        QString subCache;
        // Ask each sub-cache's lock file whether it is held (one open each).
        bool checkHeld = true;
    };

    static Root scanRoot(const QString &root, const Options &options);
    static QVector<Root> scan(const QStringList &roots, const Options &options);

    // Now, in the unit of modifiedMs.
    static qint64 currentTimeMs();

    // A block file was loaded: when its last use is more than
    // kUseRefreshSeconds ago, makes it now (one stat, at most one
    // utimensat). Failures are ignored: a file that cannot be touched only
    // looks older than it is.
    static void noteUse(const QString &path);
    static constexpr qint64 kUseRefreshSeconds = 3600;
};

#endif // RVOCACHESCAN_P_H
