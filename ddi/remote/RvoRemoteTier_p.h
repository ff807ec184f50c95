#ifndef RVOREMOTETIER_P_H
#define RVOREMOTETIER_P_H

#include "RvoRemoteSpec_p.h"

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <memory>
#include <vector>

class RvoRemote;

// The remotes below the disk cache, in the order the setting gives them.
//
// A read thread that finds no block file in its root asks the remotes in
// order, and the first that has the file wins. Nothing a remote sends is
// trusted further than a check against its name: the header against the
// length, the payload decoding to exactly its size, and the Skein-512
// digest of the bytes equal to the name. A file that fails is counted as
// rejected, reported and ignored, and the next remote is asked. A file that
// passes is published into the root like a save.
//
// Every block file a write thread publishes is queued for upload to each
// remote that is not read-only.
//
// Threading: every function may be called from any thread; the tier itself
// holds no lock (each remote guards its own state).
class RvoRemoteTier
{
public:
    explicit RvoRemoteTier(const QVector<RvoRemoteSpec::Remote> &remotes);
    // Stops the remotes' upload threads; uploads still queued are dropped.
    ~RvoRemoteTier();

    int size() const { return int(m_Remotes.size()); }
    RvoRemote &remote(int index) const { return *m_Remotes[size_t(index)]; }

    // The file `name` from the first remote, from index `from` on, that has
    // it, and that remote's index in *index; empty and -1 when none has it.
    // The bytes are not checked: check them, and reject() them when they
    // fail.
    QByteArray get(const QString &name, int from, int *index) const;
    // The file that remote `index` sent for `name` failed the check.
    void reject(int index, const QString &name, const QString &why) const;
    // Queues the upload of a block file just published locally.
    void upload(const QString &path, const QString &name, qint64 bytes) const;
    // Waits for the uploads queued to available servers.
    void flush() const;
    // One line of counters per remote.
    QStringList stats() const;

private:
    std::vector<std::unique_ptr<RvoRemote>> m_Remotes;
};

#endif // RVOREMOTETIER_P_H
