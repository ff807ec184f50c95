#ifndef LOCALREDIS_H
#define LOCALREDIS_H

#include "LocalServer.h"

// redis-server (/usr/bin/redis-server) on 127.0.0.1:PORT, in the foreground,
// keeping nothing on disk (no snapshots, no append-only file): a restart
// starts empty.
class LocalRedis : public LocalServer
{
public:
    LocalRedis();

    // Further arguments from the next start on, e.g. a password and an ACL
    // user: {"--requirepass", "secret", "--user", "alice", "on", ">secret",
    // "~*", "+@all"}
    void setExtraArguments(const QStringList &arguments);

protected:
    QStringList arguments(QString *error) override;

private:
    QStringList m_ExtraArguments;
};

#endif // LOCALREDIS_H
