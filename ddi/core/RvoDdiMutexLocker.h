#ifndef RVODDIMUTEXLOCKER_H
#define RVODDIMUTEXLOCKER_H

#include "RvoDdiMutex.h"

// Scoped holder of an RvoDdiMutex. A null mutex gives an inert locker.
// The locker remembers whether it holds the lock: the destructor unlocks only
// then, relock() locks only when not held. unlock() always unlocks.
class RVODDI_EXPORT RVODDI_THREAD_ANNOTATION(scoped_lockable) RvoDdiMutexLocker
{
public:
    explicit RvoDdiMutexLocker(RvoDdiMutex *mutex)
            RVODDI_THREAD_ANNOTATION(acquire_capability(mutex))
        : m_Mutex(mutex)
    {
        if (m_Mutex) {
            m_Mutex->lock();
            m_Held = true;
        }
    }

    ~RvoDdiMutexLocker() RVODDI_THREAD_ANNOTATION(release_capability())
    {
        if (m_Held && m_Mutex)
            m_Mutex->unlock();
    }

    RvoDdiMutexLocker(const RvoDdiMutexLocker &) = delete;

    // Copies the mutex and the held flag as they are, locking and unlocking
    // nothing: the caller answers for which of the two lockers releases.
    RvoDdiMutexLocker &operator=(const RvoDdiMutexLocker &other) = default;

    // REQUIRES: the calling thread holds the mutex.
    void unlock() RVODDI_THREAD_ANNOTATION(release_capability())
    {
        m_Held = false;
        if (m_Mutex)
            m_Mutex->unlock();
    }

    void relock() RVODDI_THREAD_ANNOTATION(acquire_capability())
    {
        if (m_Mutex && !m_Held) {
            m_Mutex->lock();
            m_Held = true;
        }
    }

    bool isHeld() const { return m_Held; }
    RvoDdiMutex *mutex() const { return m_Mutex; }

private:
    RvoDdiMutex *m_Mutex;
    bool m_Held = false;
};

#endif // RVODDIMUTEXLOCKER_H
