#include "LocalRedis.h"

LocalRedis::LocalRedis()
    : LocalServer(QStringLiteral("redis-server"), QStringLiteral("/usr/bin/redis-server"),
                  RvoRemoteEndpoint::Redis, QString())
{
}

void LocalRedis::setExtraArguments(const QStringList &arguments)
{
    m_ExtraArguments = arguments;
}

QStringList LocalRedis::arguments(QString *)
{
    return QStringList {QStringLiteral("--port"),       QString::number(port()),
                        QStringLiteral("--bind"),       QStringLiteral("127.0.0.1"),
                        QStringLiteral("--save"),       QString(),
                        QStringLiteral("--appendonly"), QStringLiteral("no"),
                        QStringLiteral("--dir"),        dir()}
    + m_ExtraArguments;
}
