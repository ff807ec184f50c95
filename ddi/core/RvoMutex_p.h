#ifndef RVOMUTEX_P_H
#define RVOMUTEX_P_H

#include "RvoThreadAnnotations_p.h"

#include <mutex>

// A plain, non-recursive lock that the thread-safety analysis knows
// (std::mutex of libstdc++ carries no annotations). Hold it through
// RvoMutexLocker; wait on it with RvoConditionVariable.
class CAPABILITY("mutex") RvoMutex
{
public:
    RvoMutex() = default;
    RvoMutex(const RvoMutex &) = delete;
    RvoMutex &operator=(const RvoMutex &) = delete;

    void lock() ACQUIRE() { m_Mutex.lock(); }
    void unlock() RELEASE() { m_Mutex.unlock(); }
    bool tryLock() TRY_ACQUIRE(true) { return m_Mutex.try_lock(); }

private:
    friend class RvoConditionVariable;
    std::mutex m_Mutex;
};

#endif // RVOMUTEX_P_H
