#ifndef RVOREMOTE_P_H
#define RVOREMOTE_P_H

#include "RvoConditionVariable_p.h"
#include "RvoMutex_p.h"
#include "RvoRemoteClient_p.h"
#include "RvoRemoteSpec_p.h"

#include <QByteArray>
#include <QString>

#include <array>
#include <atomic>
#include <chrono>
#include <deque>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

// One remote of the remote tier: one server, or several shards of one kind
// among which every block file has one home, chosen by rendezvous hashing of
// its name (adding a shard moves only the files that become its own).
//
// Requests in flight: each server has up to maxRequests fetches and as many
// uploads under way at once (the setting's max-requests, default 32), so
// that a server a few milliseconds away is not bound by round trips. More
// wait here: fetches by priority (a lower value first, first come first
// served within one), uploads in order.
//
// A server that fails (no connection, a timeout, a server error, refused
// credentials) is left alone for a pause of 30 s: fetches waiting for it end
// at once, fetches asked of it meanwhile end at once, and its uploads wait.
// The failure is reported once per episode, naming the server by its masked
// URL, and once more when the server answers again.
//
// Uploads: block files published locally are queued by path, and a thread of
// the remote's own reads and starts them (nothing already there is sent
// again). The files' bytes count against the queue's limit; an upload that
// would pass it is skipped and counted, so that neither a write thread nor a
// caller ever waits for a remote.
//
// Threading: every function may be called from any thread; a fetch's
// callback runs on the client's thread (or on the caller's, when it ends at
// once). m_Lock is a leaf of the library's lock order (docs/ARCHITECTURE.md):
// no lock of this class is held while a client or a callback is called.
class RvoRemote
{
public:
    struct Counters
    {
        qint64 hits = 0; // files fetched
        qint64 misses = 0; // asked, and not there
        qint64 errors = 0; // calls that failed (timeouts, refusals, server errors)
        qint64 rejected = 0; // fetched files that failed the check
        qint64 bytesRead = 0; // bytes of the files fetched
        qint64 bytesWritten = 0; // bytes of the files uploaded
        qint64 uploadsSkipped = 0; // uploads dropped because the queue was full
    };

    // How a fetch ended: the bytes, when the server had the name.
    using Fetched = std::function<void(bool found, QByteArray bytes)>;

    // Connects lazily: nothing is asked of a server before the first use.
    explicit RvoRemote(const RvoRemoteSpec::Remote &spec);
    // Stops the upload thread and the clients; uploads still queued are
    // dropped, fetches under way end not found.
    ~RvoRemote();

    // The remote's entry in the setting, credentials masked.
    QString text() const { return m_Text; }
    bool isReadOnly() const { return m_ReadOnly; }

    // Asks the home server of `name` for its file, with `priority` (0 is
    // the highest); `done` runs once.
    void get(const QString &name, int priority, Fetched done);
    // The bytes that get() gave for `name` failed the check (`why`).
    void reject(const QString &name, const QString &why);

    // Queues the upload of the block file at `path` (`bytes` long), named
    // `name`. Nothing for a read-only remote.
    void upload(const QString &path, const QString &name, qint64 bytes);
    // Returns when no upload to an available server is queued or under way
    // (an upload under way ends within its operation timeout).
    void flush();

    Counters counters() const;
    // The counters in one line, for statistics.
    QString statsLine() const;

    // The shard that is home to `name` (0 without shards).
    int homeOf(const QString &name) const;

    // How long a failed server is left alone (30 s); tests shorten it.
    static void setPause(std::chrono::milliseconds pause);

private:
    Q_DISABLE_COPY_MOVE(RvoRemote)

    // Fetch priorities kept apart; a lower value is served first.
    static constexpr int kPriorities = 3;

    struct Server
    {
        std::unique_ptr<RvoRemoteClient> client;
        QByteArray shardKey; // the shard's name in UTF-8, for homeOf()
        std::atomic<qint64> availableAt {0}; // steady-clock milliseconds
        std::atomic<bool> failing {false}; // in an episode of failures
        std::atomic<qint64> failedAt {0}; // when the episode began
        std::atomic<qint64> recoveredAt {0}; // when the last one ended
    };

    struct Fetch
    {
        QString name;
        Fetched done;
        qint64 startedAt = 0; // steady-clock milliseconds, once started
    };

    struct Upload
    {
        QString path;
        QString name;
        qint64 bytes;
        int server;
    };

    static qint64 nowMs();
    bool available(int server, qint64 now) const;
    // Counts a failed request, begun at `startedAt`, and starts the
    // server's pause; reports the episode's first failure.
    void failed(int server, const RvoRemoteClient::Result &result, qint64 startedAt);
    // Reports the end of an episode, if one was running before the
    // request began.
    void answered(int server, qint64 startedAt);
    // The fetches of `server` that may start now, taken out of its queue.
    std::vector<Fetch> startable(int server) REQUIRES(m_Lock);
    void startFetches(int server, std::vector<Fetch> fetches);
    void fetched(int server, const Fetch &fetch, const RvoRemoteClient::Result &result,
                 QByteArray bytes);
    // The first queued upload that may start now; m_Uploads.end() when none.
    std::deque<Upload>::iterator nextUpload(qint64 now, qint64 *wakeAt) REQUIRES(m_Lock);
    // An upload ended; `startedAt` -1: its file was gone, nothing was sent.
    void sent(const Upload &upload, const RvoRemoteClient::Result &result, qint64 written,
              qint64 startedAt);
    void uploadLoop();
    // Nothing is queued for an available server and nothing is under way.
    bool flushed() const REQUIRES(m_Lock);

    const QString m_Text;
    const bool m_ReadOnly;
    const qint64 m_UploadLimit;
    const int m_MaxRequests;
    std::vector<std::unique_ptr<Server>> m_Servers;

    std::atomic<qint64> m_Hits {0};
    std::atomic<qint64> m_Misses {0};
    std::atomic<qint64> m_Errors {0};
    std::atomic<qint64> m_Rejected {0};
    std::atomic<qint64> m_BytesRead {0};
    std::atomic<qint64> m_BytesWritten {0};
    std::atomic<qint64> m_UploadsSkipped {0};

    // Lock order: a leaf (docs/ARCHITECTURE.md).
    mutable RvoMutex m_Lock;
    // Signalled when an upload is queued or finished, and when stopping.
    RvoConditionVariable m_Changed;
    // Per server: the fetches waiting, by priority, and those under way.
    std::vector<std::array<std::deque<Fetch>, kPriorities>> m_Fetches GUARDED_BY(m_Lock);
    std::vector<int> m_FetchesInFlight GUARDED_BY(m_Lock);
    std::deque<Upload> m_Uploads GUARDED_BY(m_Lock); // front first
    std::vector<int> m_UploadsInFlight GUARDED_BY(m_Lock); // per server
    qint64 m_QueuedBytes GUARDED_BY(m_Lock) = 0; // queued and under way
    bool m_Stopping GUARDED_BY(m_Lock) = false;
    // Started with the first upload.
    std::thread m_Uploader GUARDED_BY(m_Lock);
};

#endif // RVOREMOTE_P_H
