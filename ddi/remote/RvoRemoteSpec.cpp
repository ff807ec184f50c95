#include "RvoRemoteSpec_p.h"

#include <QFileInfo>
#include <QRegularExpression>
#include <QUrl>

namespace {

// A whole decimal number in [minimum, maximum], or -1.
qint64 number(const QString &text, qint64 minimum, qint64 maximum)
{
    bool ok = false;
    const qint64 value = text.toLongLong(&ok);
    if (!ok || text.startsWith(QLatin1Char('+')) || value < minimum || value > maximum)
        return -1;
    return value;
}

// Why this build cannot use a remote of `scheme` (its client was left out
// at build time), or nothing.
QString missingKind(RvoRemoteEndpoint::Scheme scheme)
{
#ifndef RVODDI_HAVE_REMOTE_HTTP
    if (scheme == RvoRemoteEndpoint::S3)
        return QStringLiteral("this build of RvoDdi has no S3 remotes (built with "
                              "RVODDI_REMOTE_HTTP=OFF)");
    if (scheme != RvoRemoteEndpoint::Redis)
        return QStringLiteral("this build of RvoDdi has no HTTP remotes (built with "
                              "RVODDI_REMOTE_HTTP=OFF)");
#endif
#ifndef RVODDI_HAVE_REMOTE_REDIS
    if (scheme == RvoRemoteEndpoint::Redis)
        return QStringLiteral("this build of RvoDdi has no Redis remotes (built with "
                              "RVODDI_REMOTE_REDIS=OFF)");
#endif
    Q_UNUSED(scheme);
    return QString();
}

bool isRegionName(const QString &name)
{
    static const QRegularExpression region(QStringLiteral("^[a-z0-9-]{1,64}$"));
    return region.match(name).hasMatch();
}

// The server of an S3 bucket other than AWS (endpoint=URL): its scheme,
// host and port. The URL is not repeated in the error: it could hold
// credentials.
bool parseServer(const QString &text, RvoRemoteEndpoint *endpoint, QString *error)
{
    const QUrl url(text, QUrl::StrictMode);
    const QString scheme = url.scheme().toLower();
    if (!url.isValid() || (scheme != QLatin1String("http") && scheme != QLatin1String("https"))
        || url.host().isEmpty() || !url.userInfo().isEmpty() || url.path().length() > 1
        || url.hasQuery() || url.hasFragment()) {
        *error = QStringLiteral("endpoint= takes a server's http or https URL: a host and a port, "
                                "nothing more");
        return false;
    }
    endpoint->host = url.host();
    endpoint->port = qMax(url.port(), 0);
    endpoint->tls = scheme == QLatin1String("https");
    endpoint->pathStyle = true;
    return true;
}

// s3://[ACCESS:SECRET@]BUCKET[/PREFIX]: the bucket, the key prefix and the
// keys, else the environment's; the region from region=, else AWS_REGION,
// else us-east-1; without endpoint=, AWS's host of the bucket.
bool parseS3(const QUrl &url, RvoRemoteEndpoint *endpoint, QString *error)
{
    static const QRegularExpression bucket(QStringLiteral("^[a-z0-9][a-z0-9.-]{1,61}[a-z0-9]$"));
    if (!bucket.match(url.host()).hasMatch()) {
        *error = QStringLiteral("'%1' is not an S3 bucket name (3 to 63 characters: a-z, 0-9, "
                                "'.', '-')")
                         .arg(url.host());
        return false;
    }
    if (url.port() >= 0) {
        *error = QStringLiteral("an S3 URL names a bucket, not a port (another server than AWS "
                                "goes in endpoint=)");
        return false;
    }
    endpoint->bucket = url.host();
    QString prefix = url.path(QUrl::FullyDecoded);
    while (prefix.endsWith(QLatin1Char('/')))
        prefix.chop(1);
    if (prefix.contains(QLatin1String("//"))) {
        *error = QStringLiteral("an empty segment in the key prefix");
        return false;
    }
    endpoint->path = prefix;
    endpoint->user = url.userName();
    endpoint->password = url.password();
    if (endpoint->user.isEmpty() != endpoint->password.isEmpty()) {
        *error = QStringLiteral("an S3 URL gives both the access key and the secret key, or "
                                "neither");
        return false;
    }
    if (endpoint->user.isEmpty()) {
        endpoint->user = qEnvironmentVariable("AWS_ACCESS_KEY_ID");
        endpoint->password = qEnvironmentVariable("AWS_SECRET_ACCESS_KEY");
        if (endpoint->user.isEmpty() != endpoint->password.isEmpty()) {
            *error = QStringLiteral("the environment has one of AWS_ACCESS_KEY_ID and "
                                    "AWS_SECRET_ACCESS_KEY without the other");
            return false;
        }
        endpoint->sessionToken = qEnvironmentVariable("AWS_SESSION_TOKEN");
    }
    if (endpoint->region.isEmpty())
        endpoint->region = qEnvironmentVariable("AWS_REGION", QStringLiteral("us-east-1"));
    if (!isRegionName(endpoint->region)) {
        *error = QStringLiteral("'%1' (AWS_REGION) is not a region name").arg(endpoint->region);
        return false;
    }
    if (!endpoint->pathStyle) {
        endpoint->host
                = QStringLiteral("%1.s3.%2.amazonaws.com").arg(endpoint->bucket, endpoint->region);
        endpoint->tls = true;
    }
    return true;
}

// The endpoint of one URL, or an error text.
bool parseUrl(const QString &text, RvoRemoteEndpoint *endpoint, QString *error)
{
    const QUrl url(text, QUrl::StrictMode);
    if (!url.isValid()) {
        *error = QStringLiteral("not a valid URL");
        if (text.startsWith(QLatin1String("s3:"), Qt::CaseInsensitive))
            *error += QStringLiteral(" (a '/' in a key is written %2F)");
        return false;
    }
    const QString scheme = url.scheme().toLower();
    if (scheme == QLatin1String("http"))
        endpoint->scheme = RvoRemoteEndpoint::Http;
    else if (scheme == QLatin1String("https"))
        endpoint->scheme = RvoRemoteEndpoint::Https;
    else if (scheme == QLatin1String("redis"))
        endpoint->scheme = RvoRemoteEndpoint::Redis;
    else if (scheme == QLatin1String("s3"))
        endpoint->scheme = RvoRemoteEndpoint::S3;
    else {
        *error = QStringLiteral("unknown scheme '%1' (http, https, redis or s3)").arg(url.scheme());
        return false;
    }
    if (const QString missing = missingKind(endpoint->scheme); !missing.isEmpty()) {
        *error = missing;
        return false;
    }
    if ((endpoint->pathStyle || !endpoint->region.isEmpty())
        && endpoint->scheme != RvoRemoteEndpoint::S3) {
        *error = QStringLiteral("endpoint= and region= are for s3 only");
        return false;
    }
    if (url.host().isEmpty()) {
        *error = QStringLiteral("no host");
        return false;
    }
    if (url.hasQuery() || url.hasFragment()) {
        *error = QStringLiteral("a query or fragment is not allowed");
        return false;
    }
    if (endpoint->scheme == RvoRemoteEndpoint::S3)
        return parseS3(url, endpoint, error);
    endpoint->host = url.host();
    endpoint->port = qMax(url.port(), 0);
    endpoint->user = url.userName();
    endpoint->password = url.password();
    QString path = url.path(QUrl::FullyEncoded);
    while (path.endsWith(QLatin1Char('/')))
        path.chop(1);
    if (endpoint->scheme == RvoRemoteEndpoint::Redis && !path.isEmpty()
        && number(path.mid(1), 0, 65535) < 0) {
        *error = QStringLiteral("a Redis URL's path is a database number, not '%1'").arg(path);
        return false;
    }
    endpoint->path = path;
    return true;
}

// One entry: URL|attribute|...
bool parseEntry(const QString &entry, RvoRemoteSpec::Remote *remote, QString *error)
{
    const QStringList parts = entry.split(QLatin1Char('|'));
    QString urlText = parts.first();
    RvoRemoteEndpoint defaults;
    bool sharded = false;
    for (int i = 1; i < parts.size(); ++i) {
        const QString &attribute = parts.at(i);
        const int equals = attribute.indexOf(QLatin1Char('='));
        const QString name = attribute.left(equals);
        const QString value = equals < 0 ? QString() : attribute.mid(equals + 1);
        qint64 parsed = 0;
        if (name == QLatin1String("read-only") && equals < 0) {
            remote->readOnly = true;
        } else if (name == QLatin1String("connect-timeout")
                   && (parsed = number(value, 1, 3600000)) > 0) {
            defaults.connectTimeoutMs = int(parsed);
        } else if (name == QLatin1String("operation-timeout")
                   && (parsed = number(value, 1, 3600000)) > 0) {
            defaults.operationTimeoutMs = int(parsed);
        } else if (name == QLatin1String("upload-queue")
                   && (parsed = number(value, 0, 1 << 20)) >= 0) {
            remote->uploadQueueBytes = parsed << 20;
        } else if (name == QLatin1String("max-requests") && (parsed = number(value, 1, 1024)) > 0) {
            remote->maxRequests = int(parsed);
        } else if (name == QLatin1String("ca-file") && !value.isEmpty()) {
            if (const QFileInfo file(value); !file.isFile() || !file.isReadable()) {
                *error = QStringLiteral("cannot read the ca-file '%1'").arg(value);
                return false;
            }
            defaults.caFile = value;
        } else if (name == QLatin1String("endpoint") && !value.isEmpty()) {
            if (!parseServer(value, &defaults, error))
                return false;
        } else if (name == QLatin1String("region") && isRegionName(value)) {
            defaults.region = value;
        } else if (name == QLatin1String("shards") && !value.isEmpty()) {
            remote->shardNames = value.split(QLatin1Char(','));
            sharded = true;
            if (remote->shardNames.contains(QString())) {
                *error = QStringLiteral("an empty shard name in '%1'").arg(attribute);
                return false;
            }
            if (remote->shardNames.removeDuplicates() > 0) {
                *error = QStringLiteral("a shard named twice in '%1'").arg(attribute);
                return false;
            }
        } else {
            *error = QStringLiteral("bad attribute '%1'").arg(attribute);
            return false;
        }
    }
    const int stars = urlText.count(QLatin1Char('*'));
    if (sharded != (stars == 1)) {
        *error = sharded ? QStringLiteral("shards given, but the URL has no single '*'")
                         : QStringLiteral("a '*' in the URL needs shards=");
        return false;
    }
    const QStringList shards = sharded ? remote->shardNames : QStringList {QString()};
    for (const QString &shard : shards) {
        RvoRemoteEndpoint endpoint = defaults;
        QString urlError;
        QString text = urlText;
        text.replace(QLatin1Char('*'), shard);
        if (!parseUrl(text, &endpoint, &urlError)) {
            *error = sharded ? QStringLiteral("shard '%1': %2").arg(shard, urlError) : urlError;
            return false;
        }
        if (!endpoint.caFile.isEmpty() && !endpoint.usesTls()) {
            *error = QStringLiteral("ca-file is for https only");
            return false;
        }
        if (!remote->servers.isEmpty() && remote->servers.first().scheme != endpoint.scheme) {
            *error = QStringLiteral("shards of different kinds");
            return false;
        }
        // Unsigned requests can only read (a public bucket).
        if (endpoint.scheme == RvoRemoteEndpoint::S3 && endpoint.user.isEmpty())
            remote->readOnly = true;
        remote->servers.append(endpoint);
    }
    remote->maskedText = RvoRemoteSpec::mask(entry);
    return true;
}

} // namespace

bool RvoRemoteSpec::parse(const QString &text, QVector<Remote> *remotes, QString *error)
{
    QVector<Remote> parsed;
    const QStringList entries
            = text.split(QRegularExpression(QStringLiteral("\\s+")), Qt::SkipEmptyParts);
    for (const QString &entry : entries) {
        Remote remote;
        QString why;
        if (!parseEntry(entry, &remote, &why)) {
            *error = QStringLiteral("Remote storage entry '%1': %2").arg(mask(entry), why);
            return false;
        }
        parsed.append(remote);
    }
    *remotes = parsed;
    return true;
}

QString RvoRemoteSpec::mask(const QString &text)
{
    // scheme://userinfo@ -> scheme://***@ ; the user info ends at the last
    // '@' of the URL, so that a key with an unencoded '/' or '@' is masked
    // whole (more than the user info, in a path holding an '@').
    static const QRegularExpression credentials(QStringLiteral("(://)[^\\s|]*@"));
    QString masked = text;
    masked.replace(credentials, QStringLiteral("\\1***@"));
    return masked;
}
