#ifndef RVOMUTEXLOCKER_P_H
#define RVOMUTEXLOCKER_P_H

#include "RvoMutex_p.h"

// Holds an RvoMutex for its scope; unlock() and relock() let it go and take
// it again within the scope (the destructor unlocks only while held).
class SCOPED_CAPABILITY RvoMutexLocker
{
public:
    explicit RvoMutexLocker(RvoMutex &mutex) ACQUIRE(mutex)
        : m_Mutex(mutex)
    {
        m_Mutex.lock();
    }
    ~RvoMutexLocker() RELEASE()
    {
        if (m_Held)
            m_Mutex.unlock();
    }
    RvoMutexLocker(const RvoMutexLocker &) = delete;
    RvoMutexLocker &operator=(const RvoMutexLocker &) = delete;

    void unlock() RELEASE()
    {
        m_Held = false;
        m_Mutex.unlock();
    }
    void relock() ACQUIRE()
    {
        m_Mutex.lock();
        m_Held = true;
    }

private:
    RvoMutex &m_Mutex;
    bool m_Held = true;
};

#endif // RVOMUTEXLOCKER_P_H
