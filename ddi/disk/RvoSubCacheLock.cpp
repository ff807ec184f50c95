#include "RvoSubCacheLock_p.h"

#include <QDir>
#include <QFile>

#include <cerrno>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

namespace {

// flock, retried when a signal interrupts a wait.
int lockFile(int fd, int operation)
{
    int result;
    do {
        result = ::flock(fd, operation);
    } while (result != 0 && errno == EINTR);
    return result;
}

int openLockFile(const QString &directory, bool create)
{
    if (create)
        QDir().mkpath(directory);
    const QByteArray path
            = QFile::encodeName(directory + QDir::separator() + RvoSubCacheLock::lockFileName());
    const int flags = O_RDONLY | O_CLOEXEC | (create ? O_CREAT : 0);
    return ::open(path.constData(), flags, 0644);
}

// Linux turns a lock shared <-> exclusive by letting it go and taking it
// anew, so a failed upgrade briefly holds nothing, and a downgrade briefly
// nothing either: another process turning its lock exclusive at that moment
// would think it alone. Every change to or from exclusive is therefore made
// while holding an exclusive flock on the directory itself, which only those
// changes take, each for a few system calls. Returns its descriptor, or -1.
int lockDirectory(const QString &directory, bool wait)
{
    const int fd = ::open(QFile::encodeName(directory).constData(),
                          O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0)
        return -1;
    if (lockFile(fd, wait ? LOCK_EX : LOCK_EX | LOCK_NB) != 0) {
        ::close(fd);
        return -1;
    }
    return fd;
}

} // namespace

RvoSubCacheLock::~RvoSubCacheLock()
{
    unlock();
}

bool RvoSubCacheLock::open(const QString &directory)
{
    unlock();
    m_Fd = openLockFile(directory, true);
    if (m_Fd < 0)
        return false;
    m_Directory = directory;
    return true;
}

bool RvoSubCacheLock::lockShared(const QString &directory)
{
    if (!open(directory))
        return false;
    if (lockFile(m_Fd, LOCK_SH) != 0) {
        unlock();
        return false;
    }
    return true;
}

bool RvoSubCacheLock::tryLockExclusive(const QString &directory)
{
    if (!open(directory))
        return false;
    const int guard = lockDirectory(directory, false);
    const bool locked = guard >= 0 && lockFile(m_Fd, LOCK_EX | LOCK_NB) == 0;
    if (guard >= 0)
        ::close(guard);
    if (!locked)
        unlock();
    return locked;
}

bool RvoSubCacheLock::tryUpgrade()
{
    if (m_Fd < 0)
        return false;
    const int guard = lockDirectory(m_Directory, false);
    if (guard < 0)
        return false; // another holder is changing its lock: it is there
    const bool upgraded = lockFile(m_Fd, LOCK_EX | LOCK_NB) == 0;
    // A failed conversion may have dropped the shared lock: take it again.
    // Nobody can hold it exclusive meanwhile (that needs the guard), so
    // this does not wait.
    if (!upgraded)
        lockFile(m_Fd, LOCK_SH);
    ::close(guard);
    return upgraded;
}

void RvoSubCacheLock::downgrade()
{
    if (m_Fd < 0)
        return;
    // Waits only for another holder's attempt, a few system calls long.
    const int guard = lockDirectory(m_Directory, true);
    lockFile(m_Fd, LOCK_SH);
    if (guard >= 0)
        ::close(guard);
}

void RvoSubCacheLock::unlock()
{
    if (m_Fd >= 0)
        ::close(m_Fd); // closing the file lets go of its lock
    m_Fd = -1;
    m_Directory.clear();
}

bool RvoSubCacheLock::isHeld(const QString &directory)
{
    const int fd = openLockFile(directory, false);
    if (fd < 0)
        return false;
    // A holder changing its lock holds the guard, and for a moment maybe
    // nothing on the lock file: it is there all the same.
    const int guard = lockDirectory(directory, false);
    const bool held = guard < 0 || lockFile(fd, LOCK_EX | LOCK_NB) != 0;
    ::close(fd);
    if (guard >= 0)
        ::close(guard);
    return held;
}
