#ifndef RVOSUBCACHELOCK_P_H
#define RVOSUBCACHELOCK_P_H

#include <QString>

// A process's claim on a sub-cache directory, visible to other processes:
// an flock(2) on the lock file ".rvoddi-lock" in the directory (a name that
// is never taken for a block file).
//
// While a sub-cache is current a process holds it shared. Deleting its files
// needs the lock exclusive, taken without waiting, which succeeds only when
// no other process holds the sub-cache. The kernel lets the lock go when a
// process dies, so a crashed host never keeps a sub-cache held.
//
// Changes to and from exclusive are made under a brief exclusive flock on
// the directory itself, because the kernel makes them by letting the lock
// go and taking it anew (see RvoSubCacheLock.cpp).
//
// flock locks belong to the open file, not to the process: two objects of
// one process on one directory conflict as two processes would.
//
// Threading: one object is used by one thread at a time; objects on
// different directories, or different objects, are independent. No lock of
// the library is involved (flock is not part of the lock order: nothing
// here ever waits while holding a library lock, except lockShared, which
// waits only for another process's collection pass).
class RvoSubCacheLock
{
public:
    static QString lockFileName() { return QStringLiteral(".rvoddi-lock"); }

    RvoSubCacheLock() = default;
    // Lets go of the lock.
    ~RvoSubCacheLock();

    // Lets go of any lock held, then opens directory/.rvoddi-lock (making
    // both when missing) and holds it shared, waiting while another process
    // holds it exclusive. False when it cannot be opened or locked.
    bool lockShared(const QString &directory);
    // Lets go of any lock held, then holds directory/.rvoddi-lock exclusive
    // if nobody else holds it, without waiting. False otherwise (also when
    // the lock file cannot be made).
    bool tryLockExclusive(const QString &directory);
    // Turns the shared lock exclusive without waiting: true when no other
    // process holds the sub-cache. On false the lock is shared again.
    bool tryUpgrade();
    // Turns an exclusive lock shared again.
    void downgrade();
    void unlock();

    bool isLocked() const { return m_Fd >= 0; }
    QString directory() const { return m_Directory; }

    // Whether any holder (another process, or another object of this one)
    // holds the sub-cache at `directory`; false when it has no lock file.
    static bool isHeld(const QString &directory);

private:
    Q_DISABLE_COPY_MOVE(RvoSubCacheLock)

    bool open(const QString &directory);

    int m_Fd = -1;
    QString m_Directory;
};

#endif // RVOSUBCACHELOCK_P_H
