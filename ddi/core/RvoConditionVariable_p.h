#ifndef RVOCONDITIONVARIABLE_P_H
#define RVOCONDITIONVARIABLE_P_H

#include "RvoMutex_p.h"

#include <chrono>
#include <condition_variable>

// A condition variable over an RvoMutex that the caller holds. Waits return
// with the mutex held again; callers loop on their condition, which the
// analysis then sees read under the lock:
//     while (!ready) m_Changed.wait(m_Lock);
class RvoConditionVariable
{
public:
    void wait(RvoMutex &mutex) REQUIRES(mutex)
    {
        std::unique_lock<std::mutex> lock(mutex.m_Mutex, std::adopt_lock);
        m_Condition.wait(lock);
        lock.release();
    }
    // False when the deadline passed. A deadline on the system clock: a
    // wait on the steady clock (pthread_cond_clockwait) is invisible to
    // ThreadSanitizer.
    bool waitUntil(RvoMutex &mutex, std::chrono::system_clock::time_point deadline) REQUIRES(mutex)
    {
        std::unique_lock<std::mutex> lock(mutex.m_Mutex, std::adopt_lock);
        const bool woken = m_Condition.wait_until(lock, deadline) == std::cv_status::no_timeout;
        lock.release();
        return woken;
    }
    template<class Rep, class Period>
    bool waitFor(RvoMutex &mutex, std::chrono::duration<Rep, Period> timeout) REQUIRES(mutex)
    {
        return waitUntil(
                mutex,
                std::chrono::system_clock::now()
                        + std::chrono::duration_cast<std::chrono::system_clock::duration>(timeout));
    }
    void notifyOne() { m_Condition.notify_one(); }
    void notifyAll() { m_Condition.notify_all(); }

private:
    std::condition_variable m_Condition;
};

#endif // RVOCONDITIONVARIABLE_P_H
