#ifndef RVOWRITELOCKER_P_H
#define RVOWRITELOCKER_P_H

#include "RvoSharedMutex_p.h"

// Holds an RvoSharedMutex exclusively for its scope.
class SCOPED_CAPABILITY RvoWriteLocker
{
public:
    explicit RvoWriteLocker(RvoSharedMutex &mutex) ACQUIRE(mutex)
        : m_Mutex(mutex)
    {
        m_Mutex.lock();
    }
    ~RvoWriteLocker() RELEASE() { m_Mutex.unlock(); }
    RvoWriteLocker(const RvoWriteLocker &) = delete;
    RvoWriteLocker &operator=(const RvoWriteLocker &) = delete;

private:
    RvoSharedMutex &m_Mutex;
};

#endif // RVOWRITELOCKER_P_H
