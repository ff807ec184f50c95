#ifndef RVODDIMUTEX_H
#define RVODDIMUTEX_H

#include "RvoDdiGlobal.h"

#include <QMutex>
#include <QThread>

#include <atomic>

// The mutex behind every lock of the library, plain or recursive.
//
// The recursive mode is built here on a plain QMutex (an owner thread and a
// depth) rather than on QRecursiveMutex: its fast path is inline and visible
// to ThreadSanitizer, and it costs one pointer and one int beside the QMutex.
//
// Threading: any thread. unlock() must be called by the thread that locked.
// Clang's thread-safety analysis knows it as a lock; it does not know that a
// recursive one may be taken again by its holder (see RvoDdiGlobal.h).
class RVODDI_EXPORT RVODDI_THREAD_ANNOTATION(capability("mutex")) RvoDdiMutex
{
public:
    enum RecursionMode { NonRecursive, Recursive };

    // label names the lock at its call site and is not used.
    explicit RvoDdiMutex(int label = 0, RecursionMode mode = NonRecursive)
        : m_Recursive(mode == Recursive)
    {
        Q_UNUSED(label);
    }

    RvoDdiMutex(const RvoDdiMutex &) = delete;
    RvoDdiMutex &operator=(const RvoDdiMutex &) = delete;

    void lock() RVODDI_THREAD_ANNOTATION(acquire_capability())
    {
        if (m_Recursive && ownedByCaller()) {
            ++m_Depth;
            return;
        }
        m_Mutex.lock();
        takeOwnership();
    }

    bool tryLock() RVODDI_THREAD_ANNOTATION(try_acquire_capability(true))
    {
        if (m_Recursive && ownedByCaller()) {
            ++m_Depth;
            return true;
        }
        if (!m_Mutex.tryLock())
            return false;
        takeOwnership();
        return true;
    }

    // Waits at most timeout milliseconds (a negative timeout waits forever).
    bool tryLock(int timeout) RVODDI_THREAD_ANNOTATION(try_acquire_capability(true))
    {
        if (m_Recursive && ownedByCaller()) {
            ++m_Depth;
            return true;
        }
        if (!m_Mutex.tryLock(timeout))
            return false;
        takeOwnership();
        return true;
    }

    void unlock() RVODDI_THREAD_ANNOTATION(release_capability())
    {
        if (m_Recursive) {
            // An unlock from a thread that does not hold the lock is ignored
            // rather than corrupting another thread's hold.
            if (!ownedByCaller())
                return;
            if (--m_Depth > 0)
                return;
            m_Owner.store(nullptr, std::memory_order_relaxed);
        }
        m_Mutex.unlock();
    }

    bool isRecursive() const { return m_Recursive; }

    // Releases every level the calling thread holds of a recursive mutex and
    // returns how many there were (0 when it held none), for a caller that
    // must wait without the lock; relockFully(levels) takes them back.
    int unlockFully() RVODDI_THREAD_ANNOTATION(release_capability())
    {
        if (!m_Recursive || !ownedByCaller())
            return 0;
        const int levels = m_Depth;
        m_Depth = 1;
        unlock();
        return levels;
    }

    void relockFully(int levels) RVODDI_THREAD_ANNOTATION(acquire_capability())
    {
        if (levels <= 0)
            return;
        lock();
        m_Depth = levels;
    }

private:
    // Only the owner ever stores its own id, so a relaxed read that sees the
    // caller's id is exact; any other value means "not the caller".
    bool ownedByCaller() const
    {
        return m_Owner.load(std::memory_order_relaxed) == QThread::currentThreadId();
    }

    void takeOwnership()
    {
        if (m_Recursive) {
            m_Owner.store(QThread::currentThreadId(), std::memory_order_relaxed);
            m_Depth = 1;
        }
    }

    QMutex m_Mutex;
    std::atomic<Qt::HANDLE> m_Owner {nullptr};
    int m_Depth = 0; // changed only by the owner
    const bool m_Recursive;
};

#endif // RVODDIMUTEX_H
