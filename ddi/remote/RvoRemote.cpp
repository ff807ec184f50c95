#include "RvoRemote_p.h"

#include "RvoDdiDiagnostics_p.h"
#include "RvoDdiLog.h"
#include "RvoMutexLocker_p.h"

#include <QFile>

#ifdef Q_OS_LINUX
#include <pthread.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>
#endif

#include <algorithm>

namespace {

std::atomic<qint64> pauseMs {30000};

// FNV-1a over the bytes, then a 64-bit finaliser (splitmix64's) so that
// names differing in one character score independently.
quint64 score(const QByteArray &shard, const QByteArray &name)
{
    quint64 h = 14695981039346656037ULL;
    auto feed = [&h](const QByteArray &bytes) {
        for (char c : bytes) {
            h ^= quint8(c);
            h *= 1099511628211ULL;
        }
    };
    feed(shard);
    feed(QByteArrayLiteral("/"));
    feed(name);
    h ^= h >> 30;
    h *= 0xbf58476d1ce4e5b9ULL;
    h ^= h >> 27;
    h *= 0x94d049bb133111ebULL;
    h ^= h >> 31;
    return h;
}

// Uploads yield to the host's threads and to hashing, as saves do.
void becomeBackgroundUploader()
{
#ifdef Q_OS_LINUX
    pthread_setname_np(pthread_self(), "rvoddi-upload");
    setpriority(PRIO_PROCESS, id_t(syscall(SYS_gettid)), 10);
#endif
}

void announce(const QString &message)
{
    qCDebug(lcDdi, "%s", qPrintable(message));
    RVODDI_LOG(RvoDdiLog::Information, message);
}

} // namespace

RvoRemote::RvoRemote(const RvoRemoteSpec::Remote &spec)
    : m_Text(spec.maskedText)
    , m_ReadOnly(spec.readOnly)
    , m_UploadLimit(spec.uploadQueueBytes)
    , m_MaxRequests(qMax(1, spec.maxRequests))
{
    for (int i = 0; i < spec.servers.size(); ++i) {
        auto server = std::make_unique<Server>();
        server->client = RvoRemoteClient::create(spec.servers.at(i));
        // A kind this build lacks, which the setting's parser refuses before
        // it gets here: a remote without servers neither fetches nor uploads.
        if (!server->client) {
            m_Servers.clear();
            break;
        }
        server->shardKey = spec.shardNames.value(i).toUtf8();
        m_Servers.push_back(std::move(server));
    }
    RvoMutexLocker locker(m_Lock);
    m_Fetches.resize(m_Servers.size());
    m_FetchesInFlight.resize(m_Servers.size());
    m_UploadsInFlight.resize(m_Servers.size());
}

RvoRemote::~RvoRemote()
{
    std::thread uploader;
    {
        RvoMutexLocker locker(m_Lock);
        m_Stopping = true;
        uploader.swap(m_Uploader);
    }
    m_Changed.notifyAll();
    if (uploader.joinable())
        uploader.join();
    // Each client ends its requests as it stops; their callbacks still find
    // this remote whole.
    for (auto &server : m_Servers)
        server->client.reset();
    std::vector<Fetch> waiting;
    {
        RvoMutexLocker locker(m_Lock);
        for (auto &queues : m_Fetches) {
            for (auto &queue : queues) {
                for (Fetch &fetch : queue)
                    waiting.push_back(std::move(fetch));
                queue.clear();
            }
        }
    }
    for (Fetch &fetch : waiting)
        fetch.done(false, QByteArray());
}

void RvoRemote::setPause(std::chrono::milliseconds pause)
{
    pauseMs.store(pause.count(), std::memory_order_relaxed);
}

qint64 RvoRemote::nowMs()
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(
                   std::chrono::steady_clock::now().time_since_epoch())
            .count();
}

int RvoRemote::homeOf(const QString &name) const
{
    if (m_Servers.size() < 2)
        return 0;
    const QByteArray key = name.toUtf8();
    int best = 0;
    quint64 bestScore = 0;
    for (size_t i = 0; i < m_Servers.size(); ++i) {
        const quint64 s = score(m_Servers[i]->shardKey, key);
        if (i == 0 || s > bestScore) {
            best = int(i);
            bestScore = s;
        }
    }
    return best;
}

bool RvoRemote::available(int server, qint64 now) const
{
    return m_Servers[size_t(server)]->availableAt.load(std::memory_order_relaxed) <= now;
}

void RvoRemote::failed(int server, const RvoRemoteClient::Result &result, qint64 startedAt)
{
    Server &s = *m_Servers[size_t(server)];
    m_Errors.fetch_add(1, std::memory_order_relaxed);
    // With requests in flight, one begun before the server answered again
    // may fail after it did: that says nothing of the server now.
    if (startedAt < s.recoveredAt.load(std::memory_order_relaxed))
        return;
    const qint64 now = nowMs();
    const qint64 pause = pauseMs.load(std::memory_order_relaxed);
    s.availableAt.store(now + pause, std::memory_order_relaxed);
    if (s.failing.exchange(true))
        return;
    s.failedAt.store(now, std::memory_order_relaxed);
    const QString url = s.client->endpoint().maskedUrl();
    const QString seconds = QString::number(pause / 1000.0);
    if (result.status == RvoRemoteClient::Unauthorized
        || result.status == RvoRemoteClient::Misconfigured) {
        // A configuration mistake the operator must see, not only a
        // diagnostic: printed as well.
        const QString message = QStringLiteral("Remote %1 %2: %3; not used for %4 s")
                                        .arg(url,
                                             result.status == RvoRemoteClient::Unauthorized
                                                     ? QStringLiteral("refused the credentials")
                                                     : QStringLiteral("is set up wrong"),
                                             result.error, seconds);
        rvoReport(message);
        RVODDI_LOG(RvoDdiLog::Warning, message);
    } else {
        announce(QStringLiteral("Remote %1 unavailable: %2; not used for %3 s")
                         .arg(url, result.error, seconds));
    }
}

void RvoRemote::answered(int server, qint64 startedAt)
{
    Server &s = *m_Servers[size_t(server)];
    // Likewise an answer to a request begun before the failure.
    if (!s.failing.load(std::memory_order_relaxed)
        || startedAt < s.failedAt.load(std::memory_order_relaxed) || !s.failing.exchange(false))
        return;
    s.recoveredAt.store(nowMs(), std::memory_order_relaxed);
    announce(QStringLiteral("Remote %1 available again").arg(s.client->endpoint().maskedUrl()));
}

void RvoRemote::get(const QString &name, int priority, Fetched done)
{
    const int server = homeOf(name);
    if (m_Servers.empty() || !available(server, nowMs())) {
        done(false, QByteArray());
        return;
    }
    std::vector<Fetch> starting;
    {
        RvoMutexLocker locker(m_Lock);
        if (m_Stopping) {
            locker.unlock();
            done(false, QByteArray());
            return;
        }
        m_Fetches[size_t(server)][size_t(qBound(0, priority, kPriorities - 1))].push_back(
                {name, std::move(done)});
        starting = startable(server);
    }
    startFetches(server, std::move(starting));
}

std::vector<RvoRemote::Fetch> RvoRemote::startable(int server)
{
    std::vector<Fetch> fetches;
    int &inFlight = m_FetchesInFlight[size_t(server)];
    for (auto &queue : m_Fetches[size_t(server)]) {
        while (!queue.empty() && inFlight < m_MaxRequests) {
            fetches.push_back(std::move(queue.front()));
            queue.pop_front();
            ++inFlight;
        }
    }
    return fetches;
}

void RvoRemote::startFetches(int server, std::vector<Fetch> fetches)
{
    RvoRemoteClient &client = *m_Servers[size_t(server)]->client;
    for (Fetch &fetch : fetches) {
        const QString name = fetch.name;
        fetch.startedAt = nowMs();
        client.startGet(name,
                        [this, server, fetch = std::move(fetch)](
                                const RvoRemoteClient::Result &result, QByteArray bytes) {
                            fetched(server, fetch, result, std::move(bytes));
                        });
    }
}

void RvoRemote::fetched(int server, const Fetch &fetch, const RvoRemoteClient::Result &result,
                        QByteArray bytes)
{
    bool stopping = false;
    {
        RvoMutexLocker locker(m_Lock);
        stopping = m_Stopping;
    }
    const bool found = result.status == RvoRemoteClient::Found;
    if (found) {
        answered(server, fetch.startedAt);
        m_Hits.fetch_add(1, std::memory_order_relaxed);
        m_BytesRead.fetch_add(bytes.size(), std::memory_order_relaxed);
    } else if (result.status == RvoRemoteClient::Missing) {
        answered(server, fetch.startedAt);
        m_Misses.fetch_add(1, std::memory_order_relaxed);
    } else if (!stopping) { // a client stopping with this remote ends its requests
        failed(server, result, fetch.startedAt);
    }
    // A server in its pause is asked nothing more: what waits for it ends.
    std::vector<Fetch> starting;
    std::vector<Fetch> dropped;
    {
        RvoMutexLocker locker(m_Lock);
        --m_FetchesInFlight[size_t(server)];
        if (!m_Stopping && available(server, nowMs())) {
            starting = startable(server);
        } else {
            for (auto &queue : m_Fetches[size_t(server)]) {
                for (Fetch &waiting : queue)
                    dropped.push_back(std::move(waiting));
                queue.clear();
            }
        }
    }
    startFetches(server, std::move(starting));
    for (Fetch &waiting : dropped)
        waiting.done(false, QByteArray());
    fetch.done(found, found ? std::move(bytes) : QByteArray());
}

void RvoRemote::reject(const QString &name, const QString &why)
{
    m_Rejected.fetch_add(1, std::memory_order_relaxed);
    const QString url = m_Servers[size_t(homeOf(name))]->client->endpoint().maskedUrl();
    const QString message = QStringLiteral("Remote %1 sent a damaged block file %2 (%3): ignored")
                                    .arg(url, name, why);
    announce(message);
}

void RvoRemote::upload(const QString &path, const QString &name, qint64 bytes)
{
    if (m_ReadOnly || m_Servers.empty())
        return;
    {
        RvoMutexLocker locker(m_Lock);
        if (m_Stopping)
            return;
        if (m_QueuedBytes + bytes > m_UploadLimit) {
            m_UploadsSkipped.fetch_add(1, std::memory_order_relaxed);
            return;
        }
        m_Uploads.push_back({path, name, bytes, homeOf(name)});
        m_QueuedBytes += bytes;
        if (!m_Uploader.joinable())
            m_Uploader = std::thread([this] { uploadLoop(); });
    }
    m_Changed.notifyAll();
}

void RvoRemote::flush()
{
    RvoMutexLocker locker(m_Lock);
    while (!flushed())
        m_Changed.wait(m_Lock);
}

bool RvoRemote::flushed() const
{
    if (m_Stopping || !m_Uploader.joinable())
        return true;
    if (std::any_of(m_UploadsInFlight.begin(), m_UploadsInFlight.end(),
                    [](int n) { return n > 0; }))
        return false;
    const qint64 now = nowMs();
    return std::none_of(m_Uploads.begin(), m_Uploads.end(),
                        [this, now](const Upload &u) { return available(u.server, now); });
}

std::deque<RvoRemote::Upload>::iterator RvoRemote::nextUpload(qint64 now, qint64 *wakeAt)
{
    for (auto next = m_Uploads.begin(); next != m_Uploads.end(); ++next) {
        if (!available(next->server, now)) {
            *wakeAt = std::min(
                    *wakeAt,
                    m_Servers[size_t(next->server)]->availableAt.load(std::memory_order_relaxed));
        } else if (m_UploadsInFlight[size_t(next->server)] < m_MaxRequests) {
            return next;
        }
    }
    return m_Uploads.end();
}

void RvoRemote::sent(const Upload &upload, const RvoRemoteClient::Result &result, qint64 written,
                     qint64 startedAt)
{
    const bool done
            = result.status == RvoRemoteClient::Stored || result.status == RvoRemoteClient::Present;
    bool stopping = false;
    {
        RvoMutexLocker locker(m_Lock);
        stopping = m_Stopping;
    }
    if (done) {
        if (result.status == RvoRemoteClient::Stored)
            m_BytesWritten.fetch_add(written, std::memory_order_relaxed);
        if (startedAt >= 0)
            answered(upload.server, startedAt);
    } else if (!stopping) { // a client stopping with this remote ends its requests
        failed(upload.server, result, startedAt);
    }
    {
        RvoMutexLocker locker(m_Lock);
        --m_UploadsInFlight[size_t(upload.server)];
        if (done || m_Stopping)
            m_QueuedBytes -= upload.bytes;
        else
            m_Uploads.push_front(upload); // waits for its server's pause to end
    }
    m_Changed.notifyAll();
}

void RvoRemote::uploadLoop()
{
    becomeBackgroundUploader();
    RvoMutexLocker locker(m_Lock);
    while (!m_Stopping) {
        const qint64 now = nowMs();
        qint64 wakeAt = std::numeric_limits<qint64>::max();
        const auto next = nextUpload(now, &wakeAt);
        if (next == m_Uploads.end()) {
            // The deadline is on the system clock, which ThreadSanitizer sees
            // (as in the write threads).
            if (wakeAt == std::numeric_limits<qint64>::max())
                m_Changed.wait(m_Lock);
            else
                m_Changed.waitFor(m_Lock, std::chrono::milliseconds(wakeAt - now));
            continue;
        }
        const Upload upload = *next;
        m_Uploads.erase(next);
        ++m_UploadsInFlight[size_t(upload.server)];
        locker.unlock();
        QFile file(upload.path);
        // A file deleted since it was queued (collected, trimmed) is not sent.
        QByteArray bytes;
        if (file.open(QIODevice::ReadOnly))
            bytes = file.readAll();
        const qint64 startedAt = nowMs();
        if (bytes.size() != upload.bytes || bytes.isEmpty()) {
            sent(upload, {RvoRemoteClient::Present, QString()}, 0, -1); // nothing to send
        } else {
            const qint64 size = bytes.size();
            m_Servers[size_t(upload.server)]->client->startPut(
                    upload.name, std::move(bytes),
                    [this, upload, size, startedAt](const RvoRemoteClient::Result &result,
                                                    QByteArray) {
                        sent(upload, result, size, startedAt);
                    });
        }
        locker.relock();
    }
}

RvoRemote::Counters RvoRemote::counters() const
{
    Counters c;
    c.hits = m_Hits.load(std::memory_order_relaxed);
    c.misses = m_Misses.load(std::memory_order_relaxed);
    c.errors = m_Errors.load(std::memory_order_relaxed);
    c.rejected = m_Rejected.load(std::memory_order_relaxed);
    c.bytesRead = m_BytesRead.load(std::memory_order_relaxed);
    c.bytesWritten = m_BytesWritten.load(std::memory_order_relaxed);
    c.uploadsSkipped = m_UploadsSkipped.load(std::memory_order_relaxed);
    return c;
}

QString RvoRemote::statsLine() const
{
    const Counters c = counters();
    return QStringLiteral("Remote %1: %2 hits, %3 misses, %4 errors, %5 rejected, %6 bytes read, "
                          "%7 bytes written, %8 uploads skipped")
            .arg(m_Text)
            .arg(c.hits)
            .arg(c.misses)
            .arg(c.errors)
            .arg(c.rejected)
            .arg(c.bytesRead)
            .arg(c.bytesWritten)
            .arg(c.uploadsSkipped);
}
