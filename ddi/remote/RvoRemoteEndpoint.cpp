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
    case S3:
        return tls ? 443 : 80;
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
    case RvoRemoteEndpoint::S3:
        return QStringLiteral("s3");
    }
    return QString();
}

// An IPv6 literal goes in brackets.
static QString hostPart(const QString &host)
{
    return host.contains(QLatin1Char(':')) ? QLatin1Char('[') + host + QLatin1Char(']') : host;
}

// The URL without its scheme and credentials.
static QString location(const RvoRemoteEndpoint &e)
{
    if (e.scheme != RvoRemoteEndpoint::S3)
        return QStringLiteral("%1:%2%3").arg(hostPart(e.host)).arg(e.effectivePort()).arg(e.path);
    if (!e.pathStyle)
        return e.bucket + e.path;
    return QStringLiteral("%1%2|endpoint=%3://%4:%5")
            .arg(e.bucket, e.path, e.tls ? QStringLiteral("https") : QStringLiteral("http"),
                 hostPart(e.host))
            .arg(e.effectivePort());
}

QString RvoRemoteEndpoint::plainUrl() const
{
    return schemeName(scheme) + QStringLiteral("://") + location(*this);
}

QString RvoRemoteEndpoint::maskedUrl() const
{
    if (user.isEmpty() && password.isEmpty())
        return plainUrl();
    return schemeName(scheme) + QStringLiteral("://***@") + location(*this);
}
