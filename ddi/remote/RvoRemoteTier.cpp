#include "RvoRemoteTier_p.h"

#include "RvoRemote_p.h"

RvoRemoteTier::RvoRemoteTier(const QVector<RvoRemoteSpec::Remote> &remotes)
{
    for (const RvoRemoteSpec::Remote &remote : remotes)
        m_Remotes.push_back(std::make_unique<RvoRemote>(remote));
}

RvoRemoteTier::~RvoRemoteTier() = default;

QByteArray RvoRemoteTier::get(const QString &name, int from, int *index) const
{
    QByteArray bytes;
    for (int i = qMax(from, 0); i < size(); ++i) {
        if (m_Remotes[size_t(i)]->get(name, &bytes)) {
            *index = i;
            return bytes;
        }
    }
    *index = -1;
    return QByteArray();
}

void RvoRemoteTier::reject(int index, const QString &name, const QString &why) const
{
    if (index >= 0 && index < size())
        m_Remotes[size_t(index)]->reject(name, why);
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
