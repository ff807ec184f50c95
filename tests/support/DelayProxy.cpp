#include "DelayProxy.h"

#include "LocalServer.h"

#include <QByteArray>

#include <algorithm>
#include <deque>
#include <vector>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

using Clock = std::chrono::steady_clock;

// A direction stops reading while this much waits in it.
constexpr qint64 kMaxHeld = 16 << 20;

// One direction of the link all connections share: with a rate, a chunk
// leaves once the bytes before it, of any connection, have gone.
struct Link
{
    qint64 bytesPerSecond = 0; // 0: no pacing
    Clock::time_point free {}; // when the bytes given so far have gone

    Clock::time_point departure(Clock::time_point now, qint64 bytes)
    {
        if (bytesPerSecond <= 0)
            return now;
        free = std::max(free, now) + std::chrono::microseconds(bytes * 1000000 / bytesPerSecond);
        return free;
    }
};

// Bytes on their way from one socket to the other, each chunk stamped with
// when it may go on; an empty chunk is the sender's end.
struct Direction
{
    int from;
    int to;
    std::deque<std::pair<Clock::time_point, QByteArray>> chunks;
    qint64 held = 0;
    qint64 sent = 0; // of the front chunk
    bool readClosed = false;
    bool blocked = false; // the last send would have blocked
    bool done = false;

    bool reading() const { return !readClosed && held < kMaxHeld; }

    // False when the connection failed.
    bool read(std::chrono::microseconds delay, Link &link)
    {
        char buffer[65536];
        const ssize_t n = ::read(from, buffer, sizeof buffer);
        if (n < 0)
            return errno == EAGAIN || errno == EINTR;
        chunks.emplace_back(link.departure(Clock::now(), n) + delay, QByteArray(buffer, int(n)));
        held += n;
        readClosed = n == 0;
        return true;
    }

    // Passes on the chunks that are due; false when the connection failed.
    bool write(Clock::time_point now)
    {
        blocked = false;
        while (!chunks.empty() && chunks.front().first <= now) {
            const QByteArray &bytes = chunks.front().second;
            if (bytes.isEmpty()) {
                ::shutdown(to, SHUT_WR);
                chunks.pop_front();
                done = true;
                return true;
            }
            const ssize_t n = ::send(to, bytes.constData() + sent, size_t(bytes.size() - sent),
                                     MSG_NOSIGNAL);
            if (n < 0) {
                blocked = errno == EAGAIN || errno == EINTR;
                return blocked;
            }
            if ((sent += n) < bytes.size())
                continue;
            held -= bytes.size();
            sent = 0;
            chunks.pop_front();
        }
        return true;
    }
};

struct Connection
{
    Direction up; // client to target
    Direction down; // target to client
    bool failed = false;

    ~Connection()
    {
        ::close(up.from);
        ::close(up.to);
    }
};

} // namespace

struct DelayProxy::Loop
{
    DelayProxy &proxy;
    std::vector<std::unique_ptr<Connection>> connections;
    Link links[2] {{proxy.m_BytesPerSecond, {}}, {proxy.m_BytesPerSecond, {}}}; // up, down

    void accept()
    {
        const int client = ::accept4(proxy.m_Listener, nullptr, nullptr, SOCK_CLOEXEC);
        const int target = connectToLoopback(proxy.m_TargetPort);
        if (client < 0 || target < 0) {
            for (int fd : {client, target}) {
                if (fd >= 0)
                    ::close(fd);
            }
            return;
        }
        const int one = 1;
        for (int fd : {client, target}) {
            fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
            setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
        }
        connections.push_back(std::unique_ptr<Connection>(
                new Connection {{client, target, {}}, {target, client, {}}}));
    }

    void run()
    {
        for (;;) {
            std::vector<pollfd> fds {{proxy.m_Wake[0], POLLIN, 0}, {proxy.m_Listener, POLLIN, 0}};
            Clock::time_point wakeAt = Clock::time_point::max();
            for (const auto &c : connections) {
                for (const Direction *d : {&c->up, &c->down}) {
                    // A socket polled for nothing is left out (fd -1): its
                    // hang-up would wake the loop over and over.
                    fds.push_back({d->reading() ? d->from : -1, POLLIN, 0});
                    fds.push_back({d->blocked ? d->to : -1, POLLOUT, 0});
                    if (!d->chunks.empty() && !d->blocked)
                        wakeAt = std::min(wakeAt, d->chunks.front().first);
                }
            }
            // Nanoseconds: a delay of 1 ms rounded to whole milliseconds would
            // be off by up to its own size.
            timespec timeout {};
            if (wakeAt != Clock::time_point::max()) {
                const auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(
                                        std::max(Clock::duration::zero(), wakeAt - Clock::now()))
                                        .count();
                timeout = {time_t(ns / 1000000000), long(ns % 1000000000)};
            }
            const timespec *limit = wakeAt == Clock::time_point::max() ? nullptr : &timeout;
            if (::ppoll(fds.data(), fds.size(), limit, nullptr) < 0 && errno != EINTR)
                return;
            if (fds[0].revents)
                return;
            const size_t polled = connections.size();
            if (fds[1].revents & POLLIN)
                accept();
            const Clock::time_point now = Clock::now();
            for (size_t i = 0; i < polled; ++i) {
                Connection &c = *connections[i];
                for (int k = 0; k < 2; ++k) {
                    Direction &d = k == 0 ? c.up : c.down;
                    const pollfd &from = fds[2 + i * 4 + size_t(k) * 2];
                    if (from.fd >= 0 && (from.revents & (POLLIN | POLLHUP | POLLERR)))
                        c.failed |= !d.read(proxy.m_Delay, links[k]);
                }
            }
            for (auto &c : connections)
                c->failed |= !c->up.write(now) || !c->down.write(now);
            connections.erase(std::remove_if(connections.begin(), connections.end(),
                                             [](const std::unique_ptr<Connection> &c) {
                                                 return c->failed || (c->up.done && c->down.done);
                                             }),
                              connections.end());
        }
    }
};

DelayProxy::DelayProxy(int targetPort, std::chrono::microseconds delay, qint64 bytesPerSecond)
    : m_TargetPort(targetPort)
    , m_Delay(delay)
    , m_BytesPerSecond(bytesPerSecond)
{
}

DelayProxy::~DelayProxy()
{
    if (m_Thread.joinable()) {
        ::close(m_Wake[1]); // the loop sees the pipe's end
        m_Wake[1] = -1;
        m_Thread.join();
    }
    for (int fd : {m_Listener, m_Wake[0], m_Wake[1]}) {
        if (fd >= 0)
            ::close(fd);
    }
}

bool DelayProxy::start()
{
    m_Listener = listenOnLoopback(&m_Port);
    if (m_Listener < 0 || ::pipe2(m_Wake, O_CLOEXEC) != 0) {
        m_Error = QStringLiteral("delay proxy: %1").arg(QString::fromLocal8Bit(strerror(errno)));
        return false;
    }
    m_Thread = std::thread([this] { Loop {*this, {}}.run(); });
    return true;
}
