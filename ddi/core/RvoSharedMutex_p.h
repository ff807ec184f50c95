#ifndef RVOSHAREDMUTEX_P_H
#define RVOSHAREDMUTEX_P_H

#include "RvoThreadAnnotations_p.h"

#include <shared_mutex>

// A read-write lock that the thread-safety analysis knows: shared for
// readers, exclusive for a writer. Held through RvoReadLocker and
// RvoWriteLocker.
class CAPABILITY("shared mutex") RvoSharedMutex
{
public:
    RvoSharedMutex() = default;
    RvoSharedMutex(const RvoSharedMutex &) = delete;
    RvoSharedMutex &operator=(const RvoSharedMutex &) = delete;

    void lock() ACQUIRE() { m_Mutex.lock(); }
    void unlock() RELEASE() { m_Mutex.unlock(); }
    void lockShared() ACQUIRE_SHARED() { m_Mutex.lock_shared(); }
    void unlockShared() RELEASE_SHARED() { m_Mutex.unlock_shared(); }

private:
    std::shared_mutex m_Mutex;
};

#endif // RVOSHAREDMUTEX_P_H
