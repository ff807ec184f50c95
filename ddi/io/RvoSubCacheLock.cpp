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
    if (lockFile(m_Fd, LOCK_EX | LOCK_NB) != 0) {
        unlock();
        return false;
    }
    return true;
}

bool RvoSubCacheLock::tryUpgrade()
{
    if (m_Fd < 0)
        return false;
    if (lockFile(m_Fd, LOCK_EX | LOCK_NB) == 0)
        return true;
    // A failed conversion may have dropped the shared lock: take it again.
    lockFile(m_Fd, LOCK_SH);
    return false;
}

void RvoSubCacheLock::downgrade()
{
    if (m_Fd >= 0)
        lockFile(m_Fd, LOCK_SH);
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
    const bool held = lockFile(fd, LOCK_EX | LOCK_NB) != 0;
    ::close(fd);
    return held;
}
