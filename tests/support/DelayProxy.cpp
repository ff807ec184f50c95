#include "DelayProxy.h"

#include <QByteArray>

#include <algorithm>
#include <deque>
#include <vector>

#include <arpa/inet.h>
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

struct Chunk
{
    Clock::time_point due;
    QByteArray bytes; // empty: the sender closed its side
};

// Bytes on their way from one socket to the other.
struct Direction
{
    int from = -1;
    int to = -1;
    std::deque<Chunk> chunks;
    qint64 held = 0;
    qint64 sent = 0; // of the front chunk
    Clock::time_point linkFree {}; // when the paced link has sent what it holds
    bool readClosed = false;
    bool writeBlocked = false;
    bool done = false;
};

struct Connection
{
    Direction up; // client to target
    Direction down; // target to client
    bool failed = false;

    bool finished() const { return failed || (up.done && down.done); }
};

void setNonBlocking(int fd)
{
    fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
    const int one = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
}

sockaddr_in loopback(int port)
{
    sockaddr_in address {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(quint16(port));
    return address;
}

} // namespace

struct DelayProxy::Loop
{
    DelayProxy &proxy;
    std::vector<std::unique_ptr<Connection>> connections;

    void accept()
    {
        const int client = ::accept(proxy.m_Listener, nullptr, nullptr);
        if (client < 0)
            return;
        const int target = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const sockaddr_in address = loopback(proxy.m_TargetPort);
        if (target < 0
            || ::connect(target, reinterpret_cast<const sockaddr *>(&address), sizeof address)
                    != 0) {
            ::close(client);
            if (target >= 0)
                ::close(target);
            return;
        }
        setNonBlocking(client);
        setNonBlocking(target);
        auto connection = std::make_unique<Connection>();
        connection->up.from = connection->down.to = client;
        connection->up.to = connection->down.from = target;
        connections.push_back(std::move(connection));
        proxy.m_Connections.fetch_add(1);
    }

    // Takes what the sending side has, stamped with when it may go on.
    void read(Direction &d, Connection &c)
    {
        char buffer[65536];
        const ssize_t n = ::read(d.from, buffer, sizeof buffer);
        if (n < 0 && (errno == EAGAIN || errno == EINTR))
            return;
        if (n < 0) {
            c.failed = true;
            return;
        }
        Clock::time_point sent = Clock::now();
        if (proxy.m_BytesPerSecond > 0) {
            d.linkFree = std::max(d.linkFree, sent)
                    + std::chrono::microseconds(n * 1000000 / proxy.m_BytesPerSecond);
            sent = d.linkFree;
        }
        d.chunks.push_back({sent + proxy.m_Delay, QByteArray(buffer, int(n))});
        d.held += n;
        d.readClosed = n == 0;
    }

    // Passes on the chunks that are due.
    void write(Direction &d, Connection &c, Clock::time_point now)
    {
        d.writeBlocked = false;
        while (!d.chunks.empty() && d.chunks.front().due <= now) {
            Chunk &chunk = d.chunks.front();
            if (chunk.bytes.isEmpty()) {
                ::shutdown(d.to, SHUT_WR);
                d.chunks.pop_front();
                d.done = true;
                return;
            }
            const ssize_t n = ::send(d.to, chunk.bytes.constData() + d.sent,
                                     size_t(chunk.bytes.size() - d.sent), MSG_NOSIGNAL);
            if (n < 0 && (errno == EAGAIN || errno == EINTR)) {
                d.writeBlocked = true;
                return;
            }
            if (n < 0) {
                c.failed = true;
                return;
            }
            d.sent += n;
            proxy.m_Bytes.fetch_add(n);
            if (d.sent < chunk.bytes.size())
                continue;
            d.held -= chunk.bytes.size();
            d.sent = 0;
            d.chunks.pop_front();
        }
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
                    const bool reading = !d->readClosed && d->held < kMaxHeld;
                    fds.push_back({reading ? d->from : -1, POLLIN, 0});
                    fds.push_back({d->writeBlocked ? d->to : -1, POLLOUT, 0});
                    if (!d->chunks.empty() && !d->writeBlocked)
                        wakeAt = std::min(wakeAt, d->chunks.front().due);
                }
            }
            timespec timeout {};
            timespec *limit = nullptr;
            if (wakeAt != Clock::time_point::max()) {
                const auto wait = std::max(Clock::duration::zero(), wakeAt - Clock::now());
                const auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(wait).count();
                timeout = {time_t(ns / 1000000000), long(ns % 1000000000)};
                limit = &timeout;
            }
            if (::ppoll(fds.data(), fds.size(), limit, nullptr) < 0 && errno != EINTR)
                return;
            if (fds[0].revents)
                return;
            const size_t polled = connections.size();
            if (fds[1].revents & POLLIN)
                accept();
            for (size_t i = 0; i < polled; ++i) {
                Connection &c = *connections[i];
                Direction *directions[] = {&c.up, &c.down};
                for (int k = 0; k < 2; ++k) {
                    const pollfd &from = fds[2 + i * 4 + k * 2];
                    if (from.fd >= 0 && (from.revents & (POLLIN | POLLHUP | POLLERR)))
                        read(*directions[k], c);
                }
            }
            const Clock::time_point now = Clock::now();
            for (auto &c : connections) {
                write(c->up, *c, now);
                write(c->down, *c, now);
            }
            for (auto it = connections.begin(); it != connections.end();) {
                if ((*it)->finished()) {
                    ::close((*it)->up.from);
                    ::close((*it)->up.to);
                    it = connections.erase(it);
                } else {
                    ++it;
                }
            }
        }
    }

    ~Loop()
    {
        for (auto &c : connections) {
            ::close(c->up.from);
            ::close(c->up.to);
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
        const char stop = 0;
        if (::write(m_Wake[1], &stop, 1) != 1)
            ::close(m_Wake[1]); // the loop sees the pipe's end instead
        m_Thread.join();
    }
    for (int fd : {m_Listener, m_Wake[0], m_Wake[1]}) {
        if (fd >= 0)
            ::close(fd);
    }
}

bool DelayProxy::start()
{
    m_Listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = loopback(0);
    socklen_t length = sizeof address;
    if (m_Listener < 0 || ::bind(m_Listener, reinterpret_cast<sockaddr *>(&address), length) != 0
        || ::listen(m_Listener, 128) != 0
        || ::getsockname(m_Listener, reinterpret_cast<sockaddr *>(&address), &length) != 0
        || ::pipe2(m_Wake, O_CLOEXEC) != 0) {
        m_Error = QStringLiteral("delay proxy: %1").arg(QString::fromLocal8Bit(strerror(errno)));
        return false;
    }
    m_Port = ntohs(address.sin_port);
    m_Thread = std::thread([this] { Loop {*this, {}}.run(); });
    return true;
}
