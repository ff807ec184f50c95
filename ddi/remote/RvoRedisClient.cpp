#include "RvoRedisClient_p.h"

#include <hiredis.h>

#include <QList>

#include <cerrno>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/time.h>
#include <vector>

namespace {

// hiredis writes with write(2): a write to a connection the server has
// closed raises SIGPIPE, whose default action ends the process. The signal
// is blocked in the calling thread for the command, and one the command
// raised is taken before the mask is restored.
class SigPipeBlock
{
public:
    SigPipeBlock()
    {
        sigemptyset(&m_Pipe);
        sigaddset(&m_Pipe, SIGPIPE);
        sigset_t pending;
        sigpending(&pending);
        m_WasPending = sigismember(&pending, SIGPIPE) == 1;
        pthread_sigmask(SIG_BLOCK, &m_Pipe, &m_Old);
    }
    ~SigPipeBlock()
    {
        sigset_t pending;
        sigpending(&pending);
        if (!m_WasPending && sigismember(&pending, SIGPIPE) == 1) {
            const timespec now = {0, 0};
            sigtimedwait(&m_Pipe, nullptr, &now);
        }
        pthread_sigmask(SIG_SETMASK, &m_Old, nullptr);
    }
    SigPipeBlock(const SigPipeBlock &) = delete;
    SigPipeBlock &operator=(const SigPipeBlock &) = delete;

private:
    sigset_t m_Pipe;
    sigset_t m_Old;
    bool m_WasPending = false;
};

timeval timeout(int ms)
{
    return {ms / 1000, (ms % 1000) * 1000};
}

RvoRemoteClient::Result unavailable(const QString &reason)
{
    return {RvoRemoteClient::Unavailable, reason};
}

// Whether an idle connection is still open: the server sends nothing
// unasked, so anything to read is the end of the connection or an error.
bool isOpen(const redisContext *context)
{
    pollfd fd = {context->fd, POLLIN, 0};
    return poll(&fd, 1, 0) == 0;
}

QByteArray key(const QString &name)
{
    return QByteArrayLiteral("rvoddi:") + name.toUtf8();
}

} // namespace

void RvoRedisClient::Free::operator()(redisContext *context) const
{
    redisFree(context);
}

void RvoRedisClient::Free::operator()(redisReply *reply) const
{
    freeReplyObject(reply);
}

RvoRedisClient::RvoRedisClient(const RvoRemoteEndpoint &endpoint)
    : RvoRemoteClient(endpoint)
{
}

RvoRedisClient::~RvoRedisClient() = default;

RvoRedisClient::Reply RvoRedisClient::command(redisContext *context,
                                                          const QList<QByteArray> &arguments,
                                                          Result *failure,
                                                          bool authenticating) const
{
    std::vector<const char *> argv;
    std::vector<size_t> lengths;
    for (const QByteArray &argument : arguments) {
        argv.push_back(argument.constData());
        lengths.push_back(size_t(argument.size()));
    }
    Reply reply;
    int error = 0;
    {
        SigPipeBlock block;
        errno = 0;
        reply.reset(static_cast<redisReply *>(
                redisCommandArgv(context, int(argv.size()), argv.data(), lengths.data())));
        error = errno;
    }
    if (!reply) {
        // A read that timed out fails with EAGAIN, which hiredis words as
        // "Resource temporarily unavailable".
        if (context->err == REDIS_ERR_IO && (error == EAGAIN || error == EWOULDBLOCK))
            *failure = unavailable(QStringLiteral("Operation timed out after %1 milliseconds")
                                           .arg(endpoint().operationTimeoutMs));
        else
            *failure = unavailable(QString::fromUtf8(context->errstr));
        return Reply();
    }
    if (reply->type != REDIS_REPLY_ERROR)
        return reply;
    QString text = QString::fromUtf8(reply->str, int(reply->len)).simplified();
    // Redis does not echo passwords, but a reason must never hold one.
    if (!endpoint().password.isEmpty())
        text.replace(endpoint().password, QStringLiteral("***"));
    const bool refused = authenticating || text.startsWith(QLatin1String("NOAUTH"))
            || text.startsWith(QLatin1String("WRONGPASS"));
    *failure = {refused ? Unauthorized : Unavailable, text};
    return Reply();
}

RvoRedisClient::Connection RvoRedisClient::connection(Result *failure)
{
    while (Connection idle = m_Connections.take()) {
        if (isOpen(idle.get()))
            return idle;
    }
    const RvoRemoteEndpoint &server = endpoint();
    bool hasDatabase = false;
    QByteArray database;
    if (server.path.size() > 1) {
        database = server.path.mid(1).toUtf8();
        database.toUInt(&hasDatabase);
        if (!server.path.startsWith(QLatin1Char('/')) || !hasDatabase) {
            *failure = unavailable(QStringLiteral("not a database number: %1").arg(server.path));
            return Connection();
        }
    }
    const QByteArray host = server.host.toUtf8();
    Connection context(redisConnectWithTimeout(host.constData(), server.effectivePort(),
                                               timeout(server.connectTimeoutMs)));
    if (!context || context->err) {
        *failure = unavailable(context ? QString::fromUtf8(context->errstr)
                                       : QStringLiteral("out of memory"));
        return Connection();
    }
    if (server.operationTimeoutMs > 0
        && redisSetTimeout(context.get(), timeout(server.operationTimeoutMs)) != REDIS_OK) {
        *failure = unavailable(QString::fromUtf8(context->errstr));
        return Connection();
    }
    if (!server.password.isEmpty()) {
        QList<QByteArray> auth {QByteArrayLiteral("AUTH")};
        if (!server.user.isEmpty())
            auth.append(server.user.toUtf8());
        auth.append(server.password.toUtf8());
        if (!command(context.get(), auth, failure, true))
            return Connection();
    }
    if (hasDatabase && !command(context.get(), {QByteArrayLiteral("SELECT"), database}, failure))
        return Connection();
    return context;
}

RvoRemoteClient::Result RvoRedisClient::get(const QString &name, QByteArray *bytes)
{
    bytes->clear();
    Result result;
    Connection context = connection(&result);
    if (!context)
        return result;
    const Reply reply = command(context.get(), {QByteArrayLiteral("GET"), key(name)}, &result);
    if (!reply)
        return result;
    if (reply->type == REDIS_REPLY_STRING && qint64(reply->len) > kMaxValueSize) {
        return unavailable(QStringLiteral("body too large"));
    } else if (reply->type == REDIS_REPLY_STRING) {
        *bytes = QByteArray(reply->str, qsizetype(reply->len));
        result = {Found, QString()};
    } else if (reply->type == REDIS_REPLY_NIL) {
        result = {Missing, QString()};
    } else {
        return unavailable(QStringLiteral("unexpected reply of type %1 to GET").arg(reply->type));
    }
    m_Connections.give(std::move(context));
    return result;
}

RvoRemoteClient::Result RvoRedisClient::put(const QString &name, const QByteArray &bytes)
{
    if (bytes.size() > kMaxValueSize)
        return unavailable(QStringLiteral("body too large"));
    Result result;
    Connection context = connection(&result);
    if (!context)
        return result;
    const Reply reply = command(
            context.get(), {QByteArrayLiteral("SET"), key(name), bytes, QByteArrayLiteral("NX")},
            &result);
    if (!reply)
        return result;
    if (reply->type == REDIS_REPLY_STATUS && qstrcmp(reply->str, "OK") == 0)
        result = {Stored, QString()};
    else if (reply->type == REDIS_REPLY_NIL)
        result = {Present, QString()};
    else
        return unavailable(QStringLiteral("unexpected reply of type %1 to SET").arg(reply->type));
    m_Connections.give(std::move(context));
    return result;
}
