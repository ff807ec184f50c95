#include "RvoRedisClient_p.h"

#include <async.h>
#include <hiredis.h>

#include <QElapsedTimer>
#include <QList>

#include <algorithm>
#include <cerrno>
#include <deque>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>
#include <vector>

namespace {

RvoRemoteClient::Result unavailable(const QString &reason)
{
    return {RvoRemoteClient::Unavailable, reason};
}

QByteArray key(const QString &name)
{
    return QByteArrayLiteral("rvoddi:") + name.toUtf8();
}

} // namespace

// The client thread's state: the connection, and the commands sent on it
// whose replies have not come back, oldest first. hiredis calls each
// command's callback exactly once: with its reply, or with none when the
// connection goes (then in order, before its disconnect callback).
struct RvoRedisClient::Loop
{
    struct Command
    {
        enum Kind { Request, Auth, Select };

        Loop *loop;
        Kind kind;
        RvoRemoteRequest request; // a Request's
        qint64 deadlineMs; // on the loop's clock; 0: none
        bool ended = false; // its request ended early (a timeout, a stop)
    };

    explicit Loop(RvoRedisClient &owner)
        : client(owner)
    {
        clock.start();
    }

    RvoRedisClient &client;
    QElapsedTimer clock;
    redisAsyncContext *context = nullptr;
    bool connected = false;
    bool wantRead = false;
    bool wantWrite = false;
    qint64 connectDeadlineMs = 0;
    std::deque<Command *> sent;
    // Set when the connection is to end: why its commands ended.
    bool closing = false;
    Result closeReason;

    const RvoRemoteEndpoint &server() const { return client.endpoint(); }

    static Loop *of(const redisAsyncContext *context) { return static_cast<Loop *>(context->data); }

    static void addRead(void *loop) { static_cast<Loop *>(loop)->wantRead = true; }
    static void delRead(void *loop) { static_cast<Loop *>(loop)->wantRead = false; }
    static void addWrite(void *loop) { static_cast<Loop *>(loop)->wantWrite = true; }
    static void delWrite(void *loop) { static_cast<Loop *>(loop)->wantWrite = false; }
    static void cleanUp(void *loop)
    {
        auto *self = static_cast<Loop *>(loop);
        self->wantRead = self->wantWrite = false;
    }

    static void onConnect(const redisAsyncContext *context, int status)
    {
        Loop *self = of(context);
        if (status == REDIS_OK) {
            self->connected = true;
            return;
        }
        // hiredis frees the context after this returns, ending the commands
        // (without a disconnect callback: it never connected).
        self->closeWith(unavailable(QString::fromUtf8(context->errstr)));
        self->context = nullptr;
    }

    static void onDisconnect(const redisAsyncContext *context, int)
    {
        Loop *self = of(context);
        self->context = nullptr;
        self->connected = false;
        self->closing = false;
    }

    // The reason every command still waiting for its reply ends with.
    void closeWith(const Result &reason)
    {
        if (closing)
            return;
        closing = true;
        closeReason = reason;
    }

    // The outcome of a reply to GET or SET.
    Result resultOf(const Command &command, const redisReply *reply, QByteArray *bytes) const
    {
        if (reply->type == REDIS_REPLY_ERROR) {
            QString text = QString::fromUtf8(reply->str, int(reply->len)).simplified();
            // Redis does not echo passwords, but a reason must never hold one.
            if (!server().password.isEmpty())
                text.replace(server().password, QStringLiteral("***"));
            const bool refused = text.startsWith(QLatin1String("NOAUTH"))
                    || text.startsWith(QLatin1String("WRONGPASS"));
            return {refused ? Unauthorized : Unavailable, text};
        }
        if (command.request.kind == RvoRemoteRequest::Get) {
            if (reply->type == REDIS_REPLY_STRING && qint64(reply->len) > kMaxValueSize)
                return unavailable(QStringLiteral("body too large"));
            if (reply->type == REDIS_REPLY_STRING) {
                *bytes = QByteArray(reply->str, qsizetype(reply->len));
                return {Found, QString()};
            }
            if (reply->type == REDIS_REPLY_NIL)
                return {Missing, QString()};
            return unavailable(
                    QStringLiteral("unexpected reply of type %1 to GET").arg(reply->type));
        }
        if (reply->type == REDIS_REPLY_STATUS && qstrcmp(reply->str, "OK") == 0)
            return {Stored, QString()};
        if (reply->type == REDIS_REPLY_NIL)
            return {Present, QString()};
        return unavailable(QStringLiteral("unexpected reply of type %1 to SET").arg(reply->type));
    }

    static void onReply(redisAsyncContext *context, void *reply, void *data)
    {
        auto *command = static_cast<Command *>(data);
        Loop *self = command->loop;
        auto *r = static_cast<redisReply *>(reply);
        if (!self->sent.empty() && self->sent.front() == command)
            self->sent.pop_front();
        if (command->kind != Command::Request) {
            // A refused AUTH or SELECT ends the connection; the requests
            // behind it end with its reason, whatever they were answered.
            if (r && r->type == REDIS_REPLY_ERROR) {
                QString text = QString::fromUtf8(r->str, int(r->len)).simplified();
                if (!self->server().password.isEmpty())
                    text.replace(self->server().password, QStringLiteral("***"));
                self->closeWith(
                        {command->kind == Command::Auth ? Unauthorized : Unavailable, text});
            }
        } else if (!command->ended) {
            QByteArray bytes;
            Result result;
            if (self->closing)
                result = self->closeReason;
            else if (!r)
                result = unavailable(QString::fromUtf8(
                        context->err ? context->errstr : "Server closed the connection"));
            else
                result = self->resultOf(*command, r, &bytes);
            command->request.done(result, std::move(bytes));
        }
        delete command;
    }

    // Sends a command on the connection; false when hiredis refused it.
    bool send(Command *command, const QList<QByteArray> &arguments)
    {
        std::vector<const char *> argv;
        std::vector<size_t> lengths;
        for (const QByteArray &argument : arguments) {
            argv.push_back(argument.constData());
            lengths.push_back(size_t(argument.size()));
        }
        if (redisAsyncCommandArgv(context, &Loop::onReply, command, int(argv.size()), argv.data(),
                                  lengths.data())
            != REDIS_OK)
            return false;
        sent.push_back(command);
        return true;
    }

    // Opens the connection and queues AUTH and SELECT ahead of everything;
    // false, with *failure set, when it cannot begin.
    bool connect(Result *failure)
    {
        bool hasDatabase = false;
        QByteArray database;
        if (server().path.size() > 1) {
            database = server().path.mid(1).toUtf8();
            database.toUInt(&hasDatabase);
            if (!server().path.startsWith(QLatin1Char('/')) || !hasDatabase) {
                *failure = unavailable(
                        QStringLiteral("not a database number: %1").arg(server().path));
                return false;
            }
        }
        context = redisAsyncConnect(server().host.toUtf8().constData(), server().effectivePort());
        if (!context || context->err) {
            *failure = unavailable(context ? QString::fromUtf8(context->errstr)
                                           : QStringLiteral("out of memory"));
            if (context)
                redisAsyncFree(context);
            context = nullptr;
            return false;
        }
        context->data = this;
        context->ev.data = this;
        context->ev.addRead = &Loop::addRead;
        context->ev.delRead = &Loop::delRead;
        context->ev.addWrite = &Loop::addWrite;
        context->ev.delWrite = &Loop::delWrite;
        context->ev.cleanup = &Loop::cleanUp;
        redisAsyncSetConnectCallback(context, &Loop::onConnect);
        redisAsyncSetDisconnectCallback(context, &Loop::onDisconnect);
        wantWrite = true; // the connection's completion shows as writable
        connected = false;
        connectDeadlineMs
                = server().connectTimeoutMs > 0 ? clock.elapsed() + server().connectTimeoutMs : 0;
        if (!server().password.isEmpty()) {
            QList<QByteArray> auth {QByteArrayLiteral("AUTH")};
            if (!server().user.isEmpty())
                auth.append(server().user.toUtf8());
            auth.append(server().password.toUtf8());
            send(new Command {this, Command::Auth, {}, 0}, auth);
        }
        if (hasDatabase)
            send(new Command {this, Command::Select, {}, 0},
                 {QByteArrayLiteral("SELECT"), database});
        return true;
    }

    // Whether an idle connection is still open: the server sends nothing
    // unasked, so anything to read is the end of the connection or an error.
    bool idleAndClosed() const
    {
        if (!context || !connected || !sent.empty())
            return false;
        pollfd fd = {context->c.fd, POLLIN, 0};
        return poll(&fd, 1, 0) != 0;
    }

    // Ends the connection now; its commands end with `reason`.
    void close(const Result &reason)
    {
        closeWith(reason);
        if (context)
            redisAsyncFree(context); // ends the commands, then onDisconnect
        context = nullptr;
        connected = false;
        closing = false;
    }

    void begin(RvoRemoteRequest request)
    {
        if (request.kind == RvoRemoteRequest::Put && request.bytes.size() > kMaxValueSize) {
            request.done(unavailable(QStringLiteral("body too large")), QByteArray());
            return;
        }
        if (idleAndClosed())
            close(unavailable(QStringLiteral("Server closed the connection")));
        Result failure;
        if (!context && !connect(&failure)) {
            request.done(failure, QByteArray());
            return;
        }
        const qint64 timeoutMs = server().operationTimeoutMs;
        auto *command = new Command {this, Command::Request, std::move(request),
                                     timeoutMs > 0 ? clock.elapsed() + timeoutMs : 0};
        const RvoRemoteRequest &r = command->request;
        const QList<QByteArray> arguments = r.kind == RvoRemoteRequest::Get
                ? QList<QByteArray> {QByteArrayLiteral("GET"), key(r.name)}
                : QList<QByteArray> {QByteArrayLiteral("SET"), key(r.name), r.bytes,
                                     QByteArrayLiteral("NX")};
        if (!send(command, arguments)) {
            command->request.done(unavailable(QString::fromUtf8(context->errstr)), QByteArray());
            delete command;
        }
    }

    // The first deadline that has passed ends the connection.
    void checkDeadlines()
    {
        if (!context)
            return;
        const qint64 now = clock.elapsed();
        if (!connected && connectDeadlineMs > 0 && now >= connectDeadlineMs) {
            close(unavailable(QStringLiteral("Connection timed out")));
            return;
        }
        for (const Command *command : sent) {
            if (command->kind == Command::Request && command->deadlineMs > 0) {
                if (now >= command->deadlineMs)
                    close(unavailable(QStringLiteral("Operation timed out after %1 milliseconds")
                                              .arg(server().operationTimeoutMs)));
                return; // the oldest request's deadline is the first
            }
        }
    }

    // Milliseconds until the next deadline; -1: none.
    int nextTimeout() const
    {
        qint64 next = -1;
        if (context && !connected && connectDeadlineMs > 0)
            next = connectDeadlineMs;
        for (const Command *command : sent) {
            if (command->kind == Command::Request && command->deadlineMs > 0) {
                next = next < 0 ? command->deadlineMs : std::min(next, command->deadlineMs);
                break;
            }
        }
        return next < 0 ? -1 : int(std::max<qint64>(0, next - clock.elapsed()));
    }

    void run()
    {
        const int wakeFd = client.m_Wake[0];
        while (!client.m_Queue.stopping()) {
            for (RvoRemoteRequest &request : client.m_Queue.takeAll())
                begin(std::move(request));
            pollfd fds[2] = {{wakeFd, POLLIN, 0}, {-1, 0, 0}};
            if (context) {
                fds[1].fd = context->c.fd;
                fds[1].events = short((wantRead ? POLLIN : 0) | (wantWrite ? POLLOUT : 0));
            }
            if (poll(fds, context ? 2 : 1, nextTimeout()) < 0 && errno != EINTR)
                break;
            if (fds[0].revents) {
                char drained[64];
                while (read(wakeFd, drained, sizeof drained) > 0) { }
            }
            if (context && (fds[1].revents & (POLLIN | POLLERR | POLLHUP)))
                redisAsyncHandleRead(context);
            if (context && (fds[1].revents & POLLOUT))
                redisAsyncHandleWrite(context);
            // A refused AUTH or SELECT, or a failed connection (whose
            // commands hiredis has ended already).
            if (closing)
                close(closeReason);
            checkDeadlines();
        }
        close(unavailable(QStringLiteral("client stopped")));
    }
};

RvoRedisClient::RvoRedisClient(const RvoRemoteEndpoint &endpoint)
    : RvoRemoteClient(endpoint)
{
    if (pipe2(m_Wake, O_CLOEXEC | O_NONBLOCK) != 0)
        return;
    m_Thread = std::thread([this] {
        pthread_setname_np(pthread_self(), "rvoddi-remote");
        // hiredis writes with write(2): a write to a connection the server
        // has closed raises SIGPIPE, whose default action would end the
        // process. This thread never takes it.
        sigset_t pipe;
        sigemptyset(&pipe);
        sigaddset(&pipe, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &pipe, nullptr);
        Loop(*this).run();
    });
}

RvoRedisClient::~RvoRedisClient()
{
    std::deque<RvoRemoteRequest> unstarted = m_Queue.stop();
    if (m_Thread.joinable()) {
        wake();
        m_Thread.join();
    }
    for (RvoRemoteRequest &request : unstarted)
        request.done(unavailable(QStringLiteral("client stopped")), QByteArray());
    for (int fd : m_Wake) {
        if (fd >= 0)
            ::close(fd);
    }
}

void RvoRedisClient::wake()
{
    const char byte = 0;
    // A full pipe has a wake-up in it already.
    if (::write(m_Wake[1], &byte, 1) < 0 && errno != EAGAIN) { }
}

void RvoRedisClient::start(RvoRemoteRequest request)
{
    if (!m_Thread.joinable()) {
        request.done(unavailable(QStringLiteral("no thread for the client")), QByteArray());
        return;
    }
    const Done done = request.done;
    if (!m_Queue.push(std::move(request))) {
        done(unavailable(QStringLiteral("client stopped")), QByteArray());
        return;
    }
    wake();
}

void RvoRedisClient::startGet(const QString &name, Done done)
{
    start({RvoRemoteRequest::Get, name, QByteArray(), std::move(done), QByteArray()});
}

void RvoRedisClient::startPut(const QString &name, QByteArray bytes, Done done)
{
    start({RvoRemoteRequest::Put, name, std::move(bytes), std::move(done), QByteArray()});
}
