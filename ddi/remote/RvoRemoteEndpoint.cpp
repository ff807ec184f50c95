#include "RvoRemoteEndpoint_p.h"

int RvoRemoteEndpoint::effectivePort() const
{
    if (port > 0)
        return port;
    switch (scheme) {
    case Http:
        return 80;
    case Https:
        return 443;
    case Redis:
        return 6379;
    }
    return 0;
}

static QString schemeName(RvoRemoteEndpoint::Scheme scheme)
{
    switch (scheme) {
    case RvoRemoteEndpoint::Http:
        return QStringLiteral("http");
    case RvoRemoteEndpoint::Https:
        return QStringLiteral("https");
    case RvoRemoteEndpoint::Redis:
        return QStringLiteral("redis");
    }
    return QString();
}

// An IPv6 literal goes in brackets.
static QString hostPart(const QString &host)
{
    return host.contains(QLatin1Char(':')) ? QLatin1Char('[') + host + QLatin1Char(']') : host;
}

QString RvoRemoteEndpoint::plainUrl() const
{
    return QStringLiteral("%1://%2:%3%4")
            .arg(schemeName(scheme), hostPart(host))
            .arg(effectivePort())
            .arg(path);
}

QString RvoRemoteEndpoint::maskedUrl() const
{
    if (user.isEmpty() && password.isEmpty())
        return plainUrl();
    return QStringLiteral("%1://***@%2:%3%4")
            .arg(schemeName(scheme), hostPart(host))
            .arg(effectivePort())
            .arg(path);
}
