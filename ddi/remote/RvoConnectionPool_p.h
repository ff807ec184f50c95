#ifndef RVOCONNECTIONPOOL_P_H
#define RVOCONNECTIONPOOL_P_H

#include "RvoMutexLocker_p.h"
#include "RvoMutex_p.h"

#include <memory>
#include <vector>

// The idle connections of one remote client, kept for the next call so that
// a steady stream of gets and puts does not connect (and authenticate) per
// call. A connection is held by one call at a time: take() hands it out,
// give() takes it back once the call is done with it. A connection whose
// call failed is not given back: its owner closes it, and the next call
// opens a fresh one.
//
// Threading: any thread. The pool lock is a leaf of the lock order.
template<typename Connection, typename Close>
class RvoConnectionPool
{
public:
    using Handle = std::unique_ptr<Connection, Close>;

    RvoConnectionPool() = default;
    RvoConnectionPool(const RvoConnectionPool &) = delete;
    RvoConnectionPool &operator=(const RvoConnectionPool &) = delete;

    // The most recently given back connection, or null when none is idle.
    Handle take()
    {
        RvoMutexLocker locker(m_Lock);
        if (m_Idle.empty())
            return Handle();
        Handle handle = std::move(m_Idle.back());
        m_Idle.pop_back();
        return handle;
    }

    // Keeps `handle` for reuse; closes it when the pool is full.
    // REQUIRES: the handle's last call succeeded.
    void give(Handle handle)
    {
        {
            RvoMutexLocker locker(m_Lock);
            if (m_Idle.size() < kMaxIdle) {
                m_Idle.push_back(std::move(handle));
                return;
            }
        }
        // `handle` closes here, outside the lock.
    }

private:
    // Idle connections kept: the upload threads and readers of a few roots.
    static constexpr size_t kMaxIdle = 8;

    // Lock order: a leaf (docs/ARCHITECTURE.md).
    RvoMutex m_Lock;
    std::vector<Handle> m_Idle GUARDED_BY(m_Lock);
};

#endif // RVOCONNECTIONPOOL_P_H
