#include "RvoCacheScan_p.h"

#include "RvoDiskLayout_p.h"
#include "RvoSubCacheLock_p.h"

#include <QDir>
#include <QFile>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <vector>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

enum class Kind { File, Directory, Other };

struct Entry
{
    QByteArray name;
    Kind kind = Kind::Other;
    qint64 bytes = 0;
    qint64 allocated = 0;
    qint64 modifiedMs = 0;
};

qint64 toMs(const struct timespec &time)
{
    return qint64(time.tv_sec) * 1000 + time.tv_nsec / 1000000;
}

// The entries of a directory; files are stat'ed, directories not. False,
// with the reason in *error, when the directory cannot be read.
bool listDirectory(const QString &directory, std::vector<Entry> *entries, QString *error)
{
    const QByteArray encoded = QFile::encodeName(directory);
    const int fd = ::open(encoded.constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    DIR *dir = fd >= 0 ? ::fdopendir(fd) : nullptr;
    if (!dir) {
        *error = QStringLiteral("%1: %2").arg(directory, QString::fromLocal8Bit(std::strerror(errno)));
        if (fd >= 0)
            ::close(fd);
        return false;
    }
    while (const struct dirent *item = ::readdir(dir)) {
        const char *name = item->d_name;
        if (std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0)
            continue;
        Entry entry;
        entry.name = QByteArray(name);
        unsigned char type = item->d_type;
        struct stat status;
        // Directories need no stat unless the file system does not say what
        // an entry is; files are stat'ed for their size and time.
        if (type != DT_DIR) {
            if (::fstatat(fd, name, &status, AT_SYMLINK_NOFOLLOW) != 0)
                continue; // gone since it was listed
            type = S_ISDIR(status.st_mode) ? DT_DIR : S_ISREG(status.st_mode) ? DT_REG : DT_UNKNOWN;
            entry.bytes = status.st_size;
            entry.allocated = qint64(status.st_blocks) * 512;
            entry.modifiedMs = toMs(status.st_mtim);
        }
        entry.kind = type == DT_DIR ? Kind::Directory : type == DT_REG ? Kind::File : Kind::Other;
        entries->push_back(std::move(entry));
    }
    ::closedir(dir); // closes fd
    return true;
}

bool isDecimal(const QByteArray &name)
{
    if (name.isEmpty() || name.size() > 10)
        return false;
    return std::all_of(name.begin(), name.end(), [](char c) { return c >= '0' && c <= '9'; });
}

QString childPath(const QString &directory, const QByteArray &name)
{
    return directory + QDir::separator() + QFile::decodeName(name);
}

QString childName(const QString &parent, const QByteArray &name)
{
    const QString decoded = QFile::decodeName(name);
    return parent.isEmpty() ? decoded : parent + QLatin1Char('/') + decoded;
}

RvoCacheScan::OtherFile otherFile(const QString &directory, const Entry &entry)
{
    return {childPath(directory, entry.name), entry.bytes, entry.modifiedMs};
}

class Walker
{
public:
    Walker(const QString &root, const RvoCacheScan::Options &options, RvoCacheScan::Root *out)
        : m_Root(root)
        , m_Options(options)
        , m_Out(out)
    {
    }

    // Adds the sub-cache at root/name and, unless only one is wanted, the
    // sub-caches below it. The unnamed one is left out when it holds
    // nothing at all.
    void subCache(const QString &name)
    {
        RvoCacheScan::SubCache result;
        result.name = name;
        result.directory = name.isEmpty() ? m_Root : m_Root + QDir::separator() + name;
        std::vector<Entry> entries;
        QString error;
        if (!listDirectory(result.directory, &entries, &error)) {
            m_Out->errors.append(error);
            return;
        }
        const QByteArray lockFile = QFile::encodeName(RvoSubCacheLock::lockFileName());
        bool holdsAnything = false;
        QVector<QString> nested;
        for (const Entry &entry : entries) {
            if (entry.kind == Kind::Directory) {
                if (isDecimal(entry.name) && bucket(result, entry.name)) {
                    holdsAnything = true;
                    continue;
                }
                nested.append(childName(name, entry.name));
                continue;
            }
            holdsAnything = true;
            if (entry.kind == Kind::File && entry.name == lockFile) {
                result.hasLockFile = true;
            } else if (entry.kind != Kind::File || entry.name != "DdiLog.txt") {
                result.otherFiles.append(otherFile(result.directory, entry));
            }
        }
        if (m_Options.checkHeld && result.hasLockFile)
            result.held = RvoSubCacheLock::isHeld(result.directory);
        if (!name.isEmpty() || holdsAnything)
            m_Out->subCaches.append(std::move(result));
        if (m_Options.onlyOneSubCache)
            return;
        for (const QString &child : std::as_const(nested))
            subCache(child);
    }

private:
    // Adds the files of the bucket directory `name` of `into`; false, with
    // nothing added, when it holds directories (it is a sub-cache).
    bool bucket(RvoCacheScan::SubCache &into, const QByteArray &name)
    {
        const QString directory = childPath(into.directory, name);
        std::vector<Entry> entries;
        QString error;
        if (!listDirectory(directory, &entries, &error)) {
            m_Out->errors.append(error);
            return true;
        }
        if (std::any_of(entries.begin(), entries.end(),
                        [](const Entry &e) { return e.kind == Kind::Directory; }))
            return false;
        const int index = int(into.bucketDirectories.size());
        into.bucketDirectories.append(directory);
        for (Entry &entry : entries) {
            const char *text = entry.name.constData();
            const qsizetype length = entry.name.size();
            if (entry.kind == Kind::File && isBlockFileName(text, length)) {
                into.blockBytes += entry.bytes;
                into.blockFiles.append({std::move(entry.name), index, entry.bytes,
                                        entry.allocated, entry.modifiedMs});
            } else if (entry.kind == Kind::File && isTemporaryFileName(text, length)) {
                into.temporaryFiles.append(otherFile(directory, entry));
            } else {
                into.otherFiles.append(otherFile(directory, entry));
            }
        }
        return true;
    }

    const QString m_Root;
    const RvoCacheScan::Options &m_Options;
    RvoCacheScan::Root *m_Out;
};

} // namespace

QString RvoCacheScan::SubCache::path(const BlockFile &file) const
{
    return bucketDirectories.value(file.bucket) + QDir::separator() + QString::fromLatin1(file.name);
}

qint64 RvoCacheScan::Root::blockBytes() const
{
    qint64 sum = 0;
    for (const SubCache &subCache : subCaches)
        sum += subCache.blockBytes;
    return sum;
}

qint64 RvoCacheScan::Root::blockFileCount() const
{
    qint64 sum = 0;
    for (const SubCache &subCache : subCaches)
        sum += subCache.blockFiles.size();
    return sum;
}

RvoCacheScan::Root RvoCacheScan::scanRoot(const QString &root, const Options &options)
{
    Root result;
    result.path = root;
    Walker walker(root, options, &result);
    walker.subCache(options.onlyOneSubCache ? options.subCache : QString());
    std::sort(result.subCaches.begin(), result.subCaches.end(),
              [](const SubCache &a, const SubCache &b) { return a.name < b.name; });
    return result;
}

QVector<RvoCacheScan::Root> RvoCacheScan::scan(const QStringList &roots, const Options &options)
{
    QVector<Root> result;
    for (const QString &root : roots)
        result.append(scanRoot(root, options));
    return result;
}

qint64 RvoCacheScan::currentTimeMs()
{
    struct timespec now;
    ::clock_gettime(CLOCK_REALTIME, &now);
    return toMs(now);
}

void RvoCacheScan::noteUse(const QString &path)
{
    const QByteArray encoded = QFile::encodeName(path);
    struct stat status;
    if (::stat(encoded.constData(), &status) != 0)
        return;
    struct timespec now;
    ::clock_gettime(CLOCK_REALTIME, &now);
    if (now.tv_sec - status.st_mtim.tv_sec <= kUseRefreshSeconds)
        return;
    ::utimensat(AT_FDCWD, encoded.constData(), nullptr, 0);
}
