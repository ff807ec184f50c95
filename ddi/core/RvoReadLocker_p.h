#ifndef RVOREADLOCKER_P_H
#define RVOREADLOCKER_P_H

#include "RvoSharedMutex_p.h"

// Holds an RvoSharedMutex shared for its scope.
class SCOPED_CAPABILITY RvoReadLocker
{
public:
    explicit RvoReadLocker(RvoSharedMutex &mutex) ACQUIRE_SHARED(mutex)
        : m_Mutex(mutex)
    {
        m_Mutex.lockShared();
    }
    ~RvoReadLocker() RELEASE() { m_Mutex.unlockShared(); }
    RvoReadLocker(const RvoReadLocker &) = delete;
    RvoReadLocker &operator=(const RvoReadLocker &) = delete;

private:
    RvoSharedMutex &m_Mutex;
};

#endif // RVOREADLOCKER_P_H
