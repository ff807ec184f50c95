#ifndef RVOREMOTEREQUEST_P_H
#define RVOREMOTEREQUEST_P_H

#include "RvoMutexLocker_p.h"
#include "RvoMutex_p.h"
#include "RvoRemoteClient_p.h"

#include <deque>
#include <utility>

// One request handed to a client, as it waits for the client's thread.
struct RvoRemoteRequest
{
    enum Kind { Get, Put };

    Kind kind = Get;
    QString name;
    QByteArray bytes; // a put's
    RvoRemoteClient::Done done;
    // A put's body's SHA-256 in hex, where the request signs it (S3 over
    // http): computed by the thread that starts the put, not the client's.
    QByteArray payloadHash;
};

// The requests started on a client and not yet taken by its thread, and
// whether the client is stopping. startGet and startPut push; the client's
// thread takes them all at once.
class RvoRemoteRequestQueue
{
public:
    // False when the client is stopping (the request was not taken).
    bool push(RvoRemoteRequest request)
    {
        RvoMutexLocker locker(m_Lock);
        if (m_Stopping)
            return false;
        m_Requests.push_back(std::move(request));
        return true;
    }
    std::deque<RvoRemoteRequest> takeAll()
    {
        RvoMutexLocker locker(m_Lock);
        return std::exchange(m_Requests, {});
    }
    // From now on push() refuses; what was queued is returned.
    std::deque<RvoRemoteRequest> stop()
    {
        RvoMutexLocker locker(m_Lock);
        m_Stopping = true;
        return std::exchange(m_Requests, {});
    }
    bool stopping() const
    {
        RvoMutexLocker locker(m_Lock);
        return m_Stopping;
    }

private:
    // Lock order: a leaf.
    mutable RvoMutex m_Lock;
    std::deque<RvoRemoteRequest> m_Requests GUARDED_BY(m_Lock);
    bool m_Stopping GUARDED_BY(m_Lock) = false;
};

#endif // RVOREMOTEREQUEST_P_H
