#ifndef RVOREDISCLIENT_P_H
#define RVOREDISCLIENT_P_H

#include "RvoConnectionPool_p.h"
#include "RvoRemoteClient_p.h"

struct redisContext;
struct redisReply;

// The client of a Redis server, through hiredis. A block file is the string
// value of the key "rvoddi:<name>".
//
//   get: GET; a string Found, nil Missing.
//   put: SET key value NX; OK Stored, nil Present (the first bytes stay).
//
// A connection is opened within the connect timeout, then every read and
// write on it is bounded by the operation timeout. With a password it sends
// AUTH password, or AUTH user password when a user is given (Redis 6 ACLs);
// an endpoint path "/N" selects database N. A refused AUTH, or a NOAUTH or
// WRONGPASS error to any command, is Unauthorized with the server's error
// text; any other error, a timeout or a closed connection is Unavailable,
// and the connection is closed rather than reused.
//
// Threading: see RvoRemoteClient. Each call takes a connection from the
// pool; one the server closed while it was idle is dropped, not used.
class RvoRedisClient : public RvoRemoteClient
{
public:
    explicit RvoRedisClient(const RvoRemoteEndpoint &endpoint);
    ~RvoRedisClient() override;

    Result get(const QString &name, QByteArray *bytes) override;
    Result put(const QString &name, const QByteArray &bytes) override;

private:
    struct Free
    {
        void operator()(redisContext *context) const;
        void operator()(redisReply *reply) const;
    };
    using Connection = RvoConnectionPool<redisContext, Free>::Handle;
    using Reply = std::unique_ptr<redisReply, Free>;

    // An idle pooled connection that is still open, or a new one,
    // authenticated and on its database; null with *failure set.
    Connection connection(Result *failure);
    // Sends one command. Returns its reply, or null with *failure set when
    // the command failed or the server answered with an error; the
    // connection must then be closed. `authenticating`: an error is
    // Unauthorized whatever it says.
    Reply command(redisContext *context, const QList<QByteArray> &arguments, Result *failure,
                  bool authenticating = false) const;

    RvoConnectionPool<redisContext, Free> m_Connections;
};

#endif // RVOREDISCLIENT_P_H
