#ifndef RVOREMOTE_P_H
#define RVOREMOTE_P_H

#include "RvoConditionVariable_p.h"
#include "RvoMutex_p.h"
#include "RvoRemoteClient_p.h"
#include "RvoRemoteSpec_p.h"

#include <QByteArray>
#include <QString>

#include <atomic>
#include <chrono>
#include <deque>
#include <memory>
#include <thread>
#include <vector>

// One remote of the remote tier: one server, or several shards of one kind
// among which every block file has one home, chosen by rendezvous hashing of
// its name (adding a shard moves only the files that become its own).
//
// A server that fails (no connection, a timeout, a server error, refused
// credentials) is left alone for a pause of 30 s: reads skip it and its
// uploads wait. The failure is reported once per episode, naming the server
// by its masked URL, and once more when the server answers again.
//
// Uploads: block files published locally are queued by path, and a thread of
// the remote's own sends them (nothing already there is sent again). The
// files' bytes count against the queue's limit; an upload that would pass it
// is skipped and counted, so that neither a write thread nor a caller ever
// waits for a remote.
//
// Threading: every function may be called from any thread. m_Lock is a leaf
// of the library's lock order (RvoDataBlockManager.h); the clients' own
// connection pools are leaves too, and no lock of this class is held while a
// client is called.
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

    // Connects lazily: nothing is asked of a server before the first use.
    explicit RvoRemote(const RvoRemoteSpec::Remote &spec);
    // Stops the upload thread; uploads still queued are dropped.
    ~RvoRemote();

    // The remote's entry in the setting, credentials masked.
    QString text() const { return m_Text; }
    bool isReadOnly() const { return m_ReadOnly; }

    // Asks the home server of `name` for its file: true, with the bytes in
    // *bytes, when it has it. A server in its pause is not asked.
    bool get(const QString &name, QByteArray *bytes);
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

    struct Server
    {
        std::unique_ptr<RvoRemoteClient> client;
        QByteArray shardKey; // the shard's name in UTF-8, for homeOf()
        std::atomic<qint64> availableAt {0}; // steady-clock milliseconds
        std::atomic<bool> failing {false}; // in an episode of failures
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
    // Counts a failed call and starts the server's pause; reports the
    // episode's first failure.
    void failed(int server, const RvoRemoteClient::Result &result);
    // Reports the end of an episode, if one was running.
    void answered(int server);
    // Sends one file. False when the server failed (the upload waits).
    bool send(const Upload &upload);
    // Nothing is queued for an available server and nothing is under way.
    bool flushed() const REQUIRES(m_Lock);
    void uploadLoop();

    const QString m_Text;
    const bool m_ReadOnly;
    const qint64 m_UploadLimit;
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
    std::deque<Upload> m_Uploads GUARDED_BY(m_Lock); // front first
    qint64 m_QueuedBytes GUARDED_BY(m_Lock) = 0; // queued and under way
    bool m_Busy GUARDED_BY(m_Lock) = false; // an upload is under way
    bool m_Stopping GUARDED_BY(m_Lock) = false;
    // Started with the first upload.
    std::thread m_Uploader GUARDED_BY(m_Lock);
};

#endif // RVOREMOTE_P_H
