// The remote tier's setting and lifetime.

#include "RvoDataBlockManager_p.h"

#include "RvoDdiDiagnostics_p.h"
#include "RvoMutexLocker_p.h"
#include "RvoRemoteFetch_p.h"
#include "RvoRemoteTier_p.h"

bool RvoDataBlockManager::Private::setRemoteStorage(const QString &spec)
{
    QVector<RvoRemoteSpec::Remote> remotes;
    QString error;
    if (!RvoRemoteSpec::parse(spec, &remotes, &error)) {
        rvoReport(error);
        return false;
    }
    std::shared_ptr<RvoRemoteTier> replaced;
    {
        RvoMutexLocker locker(m_RemoteLock);
        m_RemoteSpec = spec;
        m_RemoteSpecGiven = true;
        replaced = std::move(m_RemoteTier);
    }
    if (replaced)
        replaced->flush();
    replaced.reset();
    if (isInitialized())
        startRemoteTier();
    return true;
}

QString RvoDataBlockManager::Private::remoteStorage() const
{
    RvoMutexLocker locker(m_RemoteLock);
    return m_RemoteSpec;
}

std::shared_ptr<RvoRemoteTier> RvoDataBlockManager::Private::remoteTier() const
{
    RvoMutexLocker locker(m_RemoteLock);
    return m_RemoteTier;
}

void RvoDataBlockManager::Private::startRemoteTier()
{
    RvoMutexLocker locker(m_RemoteLock);
    if (m_RemoteTier)
        return;
    if (!m_RemoteSpecGiven)
        m_RemoteSpec = qEnvironmentVariable("RVODDI_REMOTE_STORAGE");
    QVector<RvoRemoteSpec::Remote> remotes;
    QString error;
    if (!RvoRemoteSpec::parse(m_RemoteSpec, &remotes, &error)) {
        rvoReport(error + QStringLiteral(" (from RVODDI_REMOTE_STORAGE; no remote is used)"));
        return;
    }
    if (!remotes.isEmpty())
        m_RemoteTier = std::make_shared<RvoRemoteTier>(remotes);
}

void RvoDataBlockManager::Private::stopRemoteTier()
{
    std::shared_ptr<RvoRemoteTier> tier;
    {
        RvoMutexLocker locker(m_RemoteLock);
        tier = std::move(m_RemoteTier);
    }
    if (tier)
        tier->flush();
}

bool RvoDataBlockManager::Private::fetchMissing(const RvoBlockLoad &load)
{
    const std::shared_ptr<RvoRemoteTier> tier = remoteTier();
    return tier && RvoRemoteFetch::start(tier, load);
}

void RvoDataBlockManager::Private::blockFilePublished(const QString &path, const QString &fileName,
                                                      qint64 bytes)
{
    // A file this process made is shared; one found there was made (and
    // shared) by whoever wrote it.
    if (const std::shared_ptr<RvoRemoteTier> tier = remoteTier())
        tier->upload(path, fileName, bytes);
}
