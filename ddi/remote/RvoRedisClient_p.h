#ifndef RVOREDISCLIENT_P_H
#define RVOREDISCLIENT_P_H

#include "RvoRemoteClient_p.h"
#include "RvoRemoteRequest_p.h"

#include <thread>

// The client of a Redis server, through hiredis's asynchronous API on the
// client's own thread. A block file is the string value of the key
// "rvoddi:<name>".
//
//   get: GET; a string Found, nil Missing.
//   put: SET key value NX; OK Stored, nil Present (the first bytes stay).
//
// One connection carries every request, pipelined: requests go out as they
// are started and the replies come back in order. It is opened within the
// connect timeout; a request whose reply takes longer than the operation
// timeout fails, and with it every request behind it on the connection,
// which is closed (the next request opens a fresh one). With a password it
// sends AUTH password, or AUTH user password when a user is given (Redis 6
// ACLs); an endpoint path "/N" selects database N. A refused AUTH, or a
// NOAUTH or WRONGPASS error to any command, is Unauthorized with the
// server's error text; any other error, a timeout or a closed connection is
// Unavailable.
class RvoRedisClient : public RvoRemoteClient
{
public:
    explicit RvoRedisClient(const RvoRemoteEndpoint &endpoint);
    ~RvoRedisClient() override;

    void startGet(const QString &name, Done done) override;
    void startPut(const QString &name, QByteArray bytes, Done done) override;

private:
    struct Loop;

    void start(RvoRemoteRequest request);
    void wake();

    RvoRemoteRequestQueue m_Queue;
    int m_Wake[2] = {-1, -1}; // a pipe: a byte wakes the client's thread
    std::thread m_Thread;
};

#endif // RVOREDISCLIENT_P_H
