#include "RvoRemoteTier_p.h"

#include "RvoDdiDiagnostics_p.h"
#include "RvoMutexLocker_p.h"
#include "RvoRemoteFetch_p.h"
#include "RvoRemote_p.h"
#include "RvoTsan_p.h"

#include <QThreadPool>

RvoRemoteTier::RvoRemoteTier(const QVector<RvoRemoteSpec::Remote> &remotes)
{
    for (const RvoRemoteSpec::Remote &remote : remotes)
        m_Remotes.push_back(std::make_unique<RvoRemote>(remote));
}

RvoRemoteTier::~RvoRemoteTier()
{
    // No remote is asked any more and no check starts; the checks under way
    // end before the remotes go, whose fetches then end without a block.
    {
        RvoMutexLocker locker(m_Lock);
        m_Stopping = true;
        while (m_Checks > 0)
            m_Checked.wait(m_Lock);
    }
    for (auto &remote : m_Remotes)
        remote.reset();
}

void RvoRemoteTier::fetch(const RvoBlockLoad &load)
{
    const QString &name = load.fileName();
    {
        RvoMutexLocker locker(m_Lock);
        const auto waiting = m_Waiting.find(name);
        if (waiting != m_Waiting.end()) {
            waiting->push_back(load);
            return;
        }
        m_Waiting.insert(name, {});
    }
    ask(std::make_shared<Fetch>(Fetch {name, load.priority(), load}), 0);
}

void RvoRemoteTier::ask(const FetchPtr &fetch, int from)
{
    bool stopping = false;
    {
        RvoMutexLocker locker(m_Lock);
        stopping = m_Stopping;
    }
    if (stopping || from >= size()) {
        missing(fetch);
        return;
    }
    // The remote's callback runs on its client's thread, or here when the
    // remote cannot ask (in its pause, stopping).
    m_Remotes[size_t(from)]->get(fetch->name, fetch->priority,
                                 [this, fetch, from](bool found, QByteArray file) {
                                     if (found)
                                         check(fetch, from, std::move(file));
                                     else
                                         ask(fetch, from + 1);
                                 });
}

void RvoRemoteTier::check(const FetchPtr &fetch, int remote, QByteArray file)
{
    {
        RvoMutexLocker locker(m_Lock);
        if (!m_Stopping)
            ++m_Checks;
        else
            file.clear();
    }
    if (file.isNull()) {
        missing(fetch);
        return;
    }
    auto *task = new RvoRemoteFetch(*this, fetch, remote, std::move(file));
    rvoHappensBefore(task);
    QThreadPool::globalInstance()->start(task);
}

void RvoRemoteTier::checked()
{
    {
        RvoMutexLocker locker(m_Lock);
        --m_Checks;
    }
    m_Checked.notifyAll();
}

std::vector<RvoBlockLoad> RvoRemoteTier::end(const FetchPtr &fetch)
{
    std::vector<RvoBlockLoad> loads {fetch->first};
    RvoMutexLocker locker(m_Lock);
    for (RvoBlockLoad &load : m_Waiting.take(fetch->name))
        loads.push_back(std::move(load));
    return loads;
}

void RvoRemoteTier::missing(const FetchPtr &fetch)
{
    for (RvoBlockLoad &load : end(fetch)) {
        qCDebug(lcDdi, "Cannot Open File %s to read. Exist?=0", qPrintable(load.path()));
        load.hash()->setPreloading(false);
        load.fail();
    }
}

void RvoRemoteTier::upload(const QString &path, const QString &name, qint64 bytes) const
{
    for (const auto &remote : m_Remotes)
        remote->upload(path, name, bytes);
}

void RvoRemoteTier::flush() const
{
    for (const auto &remote : m_Remotes)
        remote->flush();
}

QStringList RvoRemoteTier::stats() const
{
    QStringList lines;
    for (const auto &remote : m_Remotes)
        lines.append(remote->statsLine());
    return lines;
}
