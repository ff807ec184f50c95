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

void RvoRemote::failed(int server, const RvoRemoteClient::Result &result)
{
    Server &s = *m_Servers[size_t(server)];
    m_Errors.fetch_add(1, std::memory_order_relaxed);
    const qint64 pause = pauseMs.load(std::memory_order_relaxed);
    s.availableAt.store(nowMs() + pause, std::memory_order_relaxed);
    if (s.failing.exchange(true))
        return;
    const QString url = s.client->endpoint().maskedUrl();
    const QString seconds = QString::number(pause / 1000.0);
    if (result.status == RvoRemoteClient::Unauthorized) {
        // A configuration mistake the operator must see, not only a
        // diagnostic: printed as well.
        const QString message
                = QStringLiteral("Remote %1 refused the credentials: %2; not used for %3 s")
                          .arg(url, result.error, seconds);
        rvoReport(message);
        RVODDI_LOG(RvoDdiLog::Warning, message);
    } else {
        announce(QStringLiteral("Remote %1 unavailable: %2; not used for %3 s")
                         .arg(url, result.error, seconds));
    }
}

void RvoRemote::answered(int server)
{
    Server &s = *m_Servers[size_t(server)];
    if (s.failing.load(std::memory_order_relaxed) && s.failing.exchange(false))
        announce(QStringLiteral("Remote %1 available again").arg(s.client->endpoint().maskedUrl()));
}

bool RvoRemote::get(const QString &name, QByteArray *bytes)
{
    bytes->clear();
    const int server = homeOf(name);
    if (m_Servers.empty() || !available(server, nowMs()))
        return false;
    const RvoRemoteClient::Result result = m_Servers[size_t(server)]->client->get(name, bytes);
    switch (result.status) {
    case RvoRemoteClient::Found:
        answered(server);
        m_Hits.fetch_add(1, std::memory_order_relaxed);
        m_BytesRead.fetch_add(bytes->size(), std::memory_order_relaxed);
        return true;
    case RvoRemoteClient::Missing:
        answered(server);
        m_Misses.fetch_add(1, std::memory_order_relaxed);
        break;
    default:
        failed(server, result);
        break;
    }
    bytes->clear();
    return false;
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
    if (m_Busy)
        return false;
    const qint64 now = nowMs();
    return std::none_of(m_Uploads.begin(), m_Uploads.end(),
                        [this, now](const Upload &u) { return available(u.server, now); });
}

bool RvoRemote::send(const Upload &upload)
{
    QFile file(upload.path);
    // A file deleted since it was queued (collected, trimmed) is not sent.
    if (!file.open(QIODevice::ReadOnly))
        return true;
    const QByteArray bytes = file.readAll();
    if (bytes.size() != upload.bytes)
        return true;
    file.close();
    const RvoRemoteClient::Result result
            = m_Servers[size_t(upload.server)]->client->put(upload.name, bytes);
    switch (result.status) {
    case RvoRemoteClient::Stored:
        m_BytesWritten.fetch_add(bytes.size(), std::memory_order_relaxed);
        Q_FALLTHROUGH();
    case RvoRemoteClient::Present:
        answered(upload.server);
        return true;
    default:
        failed(upload.server, result);
        return false;
    }
}

void RvoRemote::uploadLoop()
{
    becomeBackgroundUploader();
    RvoMutexLocker locker(m_Lock);
    while (!m_Stopping) {
        const qint64 now = nowMs();
        qint64 wakeAt = std::numeric_limits<qint64>::max();
        auto next = m_Uploads.begin();
        for (; next != m_Uploads.end(); ++next) {
            if (available(next->server, now))
                break;
            wakeAt = std::min(
                    wakeAt,
                    m_Servers[size_t(next->server)]->availableAt.load(std::memory_order_relaxed));
        }
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
        m_Busy = true;
        locker.unlock();
        const bool done = send(upload);
        locker.relock();
        m_Busy = false;
        if (done)
            m_QueuedBytes -= upload.bytes;
        else
            m_Uploads.push_front(upload); // waits for its server's pause to end
        locker.unlock();
        m_Changed.notifyAll();
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
