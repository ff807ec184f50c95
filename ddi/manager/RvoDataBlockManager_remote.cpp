// The remote tier's setting and lifetime.

#include "RvoDataBlockManager.h"

#include "RvoDdiDiagnostics_p.h"
#include "RvoRemoteTier_p.h"

bool RvoDataBlockManager::setRemoteStorage(const QString &spec)
{
    QVector<RvoRemoteSpec::Remote> remotes;
    QString error;
    if (!RvoRemoteSpec::parse(spec, &remotes, &error)) {
        rvoReport(error);
        return false;
    }
    std::shared_ptr<RvoRemoteTier> replaced;
    {
        std::lock_guard<std::mutex> locker(m_RemoteLock);
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

QString RvoDataBlockManager::remoteStorage() const
{
    std::lock_guard<std::mutex> locker(m_RemoteLock);
    return m_RemoteSpec;
}

std::shared_ptr<RvoRemoteTier> RvoDataBlockManager::remoteTier() const
{
    std::lock_guard<std::mutex> locker(m_RemoteLock);
    return m_RemoteTier;
}

void RvoDataBlockManager::startRemoteTier()
{
    std::lock_guard<std::mutex> locker(m_RemoteLock);
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

void RvoDataBlockManager::stopRemoteTier()
{
    std::shared_ptr<RvoRemoteTier> tier;
    {
        std::lock_guard<std::mutex> locker(m_RemoteLock);
        tier = std::move(m_RemoteTier);
    }
    if (tier)
        tier->flush();
}
