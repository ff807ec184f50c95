#ifndef RVOREMOTETIER_P_H
#define RVOREMOTETIER_P_H

#include "RvoBlockLoad_p.h"
#include "RvoConditionVariable_p.h"
#include "RvoMutex_p.h"
#include "RvoRemoteSpec_p.h"

#include <QByteArray>
#include <QHash>
#include <QString>
#include <QStringList>

#include <memory>
#include <vector>

class RvoRemote;

// The remotes below the disk cache, in the order the setting gives them.
//
// A read thread that finds no block file in its root hands the load to the
// tier and goes on with its queue. The tier asks the remotes in order, and
// the first that has the file wins; nothing a remote sends is trusted
// further than the check against its name (RvoRemoteFetch). A file that
// fails is rejected and the next remote asked; a file that passes is
// published into the root like a save and completes the load. One fetch per
// name: a load of a name being fetched waits for that fetch. A name no
// remote has costs one request per remote.
//
// Every block file a write thread publishes is queued for upload to each
// remote that is not read-only.
//
// Threading: every function may be called from any thread. m_Lock is a leaf
// (docs/ARCHITECTURE.md); no lock is held while a remote or a load is
// called. The destructor must not run on a remote's client thread or on a
// check: the manager's copies are the only owners.
class RvoRemoteTier
{
public:
    explicit RvoRemoteTier(const QVector<RvoRemoteSpec::Remote> &remotes);
    // Stops the remotes (uploads still queued are dropped, fetches under
    // way end without a block) and waits for the checks under way.
    ~RvoRemoteTier();

    int size() const { return int(m_Remotes.size()); }
    RvoRemote &remote(int index) const { return *m_Remotes[size_t(index)]; }

    // Fetches the block file of `load` from the remotes, and completes the
    // load: with its block once a sound file is published into the root,
    // without one when no remote has a sound file.
    void fetch(const RvoBlockLoad &load);
    // Queues the upload of a block file just published locally.
    void upload(const QString &path, const QString &name, qint64 bytes) const;
    // Waits for the uploads queued to available servers.
    void flush() const;
    // One line of counters per remote.
    QStringList stats() const;

private:
    friend class RvoRemoteFetch;

    // One name being fetched and the loads that wait for it.
    struct Fetch
    {
        QString name;
        int priority;
        RvoBlockLoad first; // where the file is published
    };
    using FetchPtr = std::shared_ptr<Fetch>;

    // Asks the remotes from index `from` on, in order, for the fetch's file.
    void ask(const FetchPtr &fetch, int from);
    // Remote `remote` sent `file`: checked on the pool.
    void check(const FetchPtr &fetch, int remote, QByteArray file);
    // The fetch is over: the loads that waited for it, which the caller
    // completes.
    std::vector<RvoBlockLoad> end(const FetchPtr &fetch);
    // No remote has a sound file: the loads end without a block.
    void missing(const FetchPtr &fetch);
    // A check on the pool has ended.
    void checked();

    std::vector<std::unique_ptr<RvoRemote>> m_Remotes;

    // Lock order: a leaf.
    mutable RvoMutex m_Lock;
    // Signalled when a check ends.
    RvoConditionVariable m_Checked;
    // The names being fetched, with the loads waiting beside the first.
    QHash<QString, std::vector<RvoBlockLoad>> m_Waiting GUARDED_BY(m_Lock);
    int m_Checks GUARDED_BY(m_Lock) = 0; // checks on the pool
    bool m_Stopping GUARDED_BY(m_Lock) = false; // no remote is asked any more
};

#endif // RVOREMOTETIER_P_H
