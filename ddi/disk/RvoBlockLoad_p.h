#ifndef RVOBLOCKLOAD_P_H
#define RVOBLOCKLOAD_P_H

#include "RvoDataHash.h"
#include "RvoSmartPointer.h"

#include <QByteArray>
#include <QFuture>
#include <QFutureInterface>
#include <QString>

#include <memory>

class RvoDataBlock;
class RvoDiskHost;
class RvoDiskUsage;

// One load of a block from its file while it is under way: the digest, where
// the file lies, the future the caller waits on and where the block goes.
// A root's read thread makes it; the thread pool completes it, or the remote
// tier when the file had to be fetched. Copies share the one future.
class RvoBlockLoad
{
public:
    // With makeLive the block goes to the manager through `host` and the
    // future's result is null; otherwise the result is the new block, owned
    // by whoever takes it from the future.
    RvoBlockLoad(RvoDiskHost &host, RvoSmartPointer<RvoDataHash> hash, bool makeLive,
                 QString directory, QString fileName, std::shared_ptr<RvoDiskUsage> usage);

    QFuture<RvoDataBlock *> future() { return m_Promise.future(); }
    const RvoSmartPointer<RvoDataHash> &hash() const { return m_Hash; }
    // The bucket directory and the file's name in it (the digest's text).
    const QString &directory() const { return m_Directory; }
    const QString &fileName() const { return m_FileName; }
    QString path() const;
    // Where the bytes of a block file published into the root are counted;
    // may be null.
    RvoDiskUsage *diskUsage() const { return m_Usage.get(); }

    // Completes the load with a new block of `bytes`, `size` of them, known
    // to be on disk when `onDisk`.
    void finish(QByteArray bytes, qint64 size, bool onDisk);
    // Completes the load without a block.
    void fail();

private:
    RvoDiskHost *m_Host;
    QFutureInterface<RvoDataBlock *> m_Promise;
    RvoSmartPointer<RvoDataHash> m_Hash;
    bool m_MakeLive;
    QString m_Directory;
    QString m_FileName;
    std::shared_ptr<RvoDiskUsage> m_Usage;
};

#endif // RVOBLOCKLOAD_P_H
