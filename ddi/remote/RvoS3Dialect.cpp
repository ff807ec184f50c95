#include "RvoS3Dialect_p.h"

#include <QCryptographicHash>
#include <QRegularExpression>
#include <QUrl>

namespace {

// The SHA-256 of no bytes: a GET's or a HEAD's payload.
const char kEmptySha256[] = "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855";

bool isSuccess(long status)
{
    return status >= 200 && status < 300;
}

// The scheme, server and bucket of a key, then the prefix, each segment
// encoded as the signature's canonical URI wants it (all but A-Z a-z 0-9
// - . _ ~).
QByteArray baseOf(const RvoRemoteEndpoint &e)
{
    const QString host = e.host.contains(QLatin1Char(':'))
            ? QLatin1Char('[') + e.host + QLatin1Char(']')
            : e.host;
    QByteArray base = (e.tls ? "https://" : "http://") + host.toUtf8();
    if (e.port > 0)
        base += ':' + QByteArray::number(e.port);
    if (e.pathStyle)
        base += '/' + QUrl::toPercentEncoding(e.bucket);
    for (const QString &segment : e.path.split(QLatin1Char('/'), Qt::SkipEmptyParts))
        base += '/' + QUrl::toPercentEncoding(segment);
    return base;
}

// What a refusal's code means to whoever set the remote up.
QString hintFor(const QByteArray &code)
{
    static const std::pair<const char *, const char *> hints[] = {
            {"SignatureDoesNotMatch", "the secret key is wrong"},
            {"InvalidAccessKeyId", "no such access key"},
            {"RequestTimeTooSkewed", "this machine's clock is off"},
            {"ExpiredToken", "the session token has expired"},
            {"AccessDenied",
             "the keys may not do this (s3:GetObject, s3:PutObject, s3:ListBucket)"},
            {"NoSuchBucket", "there is no such bucket"},
            {"PermanentRedirect", "the bucket is in another region (region=)"},
            {"AuthorizationHeaderMalformed", "the bucket is in another region (region=)"},
    };
    for (const auto &hint : hints) {
        if (code == hint.first)
            return QLatin1String(hint.second);
    }
    return QString();
}

} // namespace

RvoS3Dialect::RvoS3Dialect(const RvoRemoteEndpoint &endpoint)
    : RvoHttpDialect(endpoint)
    , m_Base(baseOf(endpoint))
    , m_Scope("aws:amz:" + endpoint.region.toUtf8() + ":s3")
{
}

QByteArray RvoS3Dialect::url(const QString &name) const
{
    return m_Base + '/' + QUrl::toPercentEncoding(name.left(2)) + '/'
            + QUrl::toPercentEncoding(name);
}

RvoHttpDialect::Method RvoS3Dialect::first(RvoRemoteRequest::Kind kind) const
{
    if (kind == RvoRemoteRequest::Get)
        return Get;
    return m_Condition == Ignored ? Head : PutIfAbsent;
}

void RvoS3Dialect::started(RvoRemoteRequest &request) const
{
    if (request.kind == RvoRemoteRequest::Put && !endpoint().user.isEmpty()
        && !endpoint().usesTls())
        request.payloadHash
                = QCryptographicHash::hash(request.bytes, QCryptographicHash::Sha256).toHex();
}

curl_slist *RvoS3Dialect::prepare(CURL *curl, Method method, const RvoRemoteRequest &request) const
{
    const RvoRemoteEndpoint &e = endpoint();
    curl_slist *headers = nullptr;
    if (!e.user.isEmpty()) {
        curl_easy_setopt(curl, CURLOPT_AWS_SIGV4, m_Scope.constData());
        curl_easy_setopt(curl, CURLOPT_USERNAME, e.user.toUtf8().constData());
        curl_easy_setopt(curl, CURLOPT_PASSWORD, e.password.toUtf8().constData());
        const QByteArray payload = e.usesTls() ? QByteArray("UNSIGNED-PAYLOAD")
                : isUpload(method)             ? request.payloadHash
                                               : QByteArray(kEmptySha256);
        headers = curl_slist_append(headers,
                                    QByteArray("x-amz-content-sha256: " + payload).constData());
        if (!e.sessionToken.isEmpty())
            headers = curl_slist_append(
                    headers,
                    QByteArray("x-amz-security-token: " + e.sessionToken.toUtf8()).constData());
    }
    // A conditional PUT waits for "100 Continue" (libcurl's default), so
    // that a server that has the object can say so before the body goes. A
    // PUT after a HEAD sends it at once. ("Expect:" would turn the wait off,
    // but libcurl 7.88 signs that empty header as if it were sent.)
    if (method == PutIfAbsent || method == PutIfAbsentAgain)
        headers = curl_slist_append(headers, "If-None-Match: *");
    else if (method == Put)
        curl_easy_setopt(curl, CURLOPT_EXPECT_100_TIMEOUT_MS, 0L);
    return headers;
}

QByteArray RvoS3Dialect::errorCode(const QByteArray &body)
{
    static const QRegularExpression code(QStringLiteral("<Code>([A-Za-z0-9.]{1,64})</Code>"));
    return code.match(QString::fromLatin1(body)).captured(1).toLatin1();
}

RvoHttpDialect::Step RvoS3Dialect::refused(long status, const QByteArray &code) const
{
    QString reason = QStringLiteral("bucket '%1' answered ").arg(endpoint().bucket);
    reason += code.isEmpty() ? QStringLiteral("HTTP %1").arg(status)
                             : QStringLiteral("%1 (HTTP %2)").arg(QLatin1String(code)).arg(status);
    if (const QString hint = hintFor(code); !hint.isEmpty())
        reason += QStringLiteral(": ") + hint;
    if (status == 401 || status == 403)
        return ended(RvoRemoteClient::Unauthorized, reason);
    if (code == "NoSuchBucket" || code == "PermanentRedirect"
        || code == "AuthorizationHeaderMalformed")
        return ended(RvoRemoteClient::Misconfigured, reason);
    return ended(RvoRemoteClient::Unavailable, reason);
}

RvoHttpDialect::Step RvoS3Dialect::answered(Method method, const Answer &answer, int attempt)
{
    const long status = answer.status;
    // The same object sent again: whatever the answer, the first PUT stored it.
    if (method == PutIfAbsentAgain) {
        m_Probing = false;
        if (status == 412 || isSuccess(status))
            m_Condition = status == 412 ? Honoured : Ignored;
        return ended(RvoRemoteClient::Stored);
    }
    if (status == 0)
        return ended(answer.failure.status, answer.failure.error);
    const QByteArray code = errorCode(answer.errorBody);
    if (status == 500 || status == 503) { // S3's "try again" (SlowDown, InternalError)
        Step again = refused(status, code);
        again.kind = Step::Retry;
        again.pauseMs = answer.retryAfterSeconds > 0
                ? qMin<qint64>(answer.retryAfterSeconds, 86400) * 1000
                : 100LL << qMin(attempt - 1, 20);
        return again;
    }
    // A GET of a missing bucket's key is no miss.
    if (code != "NoSuchBucket") {
        if (const std::optional<Step> step = lookedUp(method, status))
            return *step;
    }
    if (method == PutIfAbsent) {
        if (status == 412) {
            m_Condition = Honoured;
            return ended(RvoRemoteClient::Present);
        }
        if (status == 501) { // the condition is not implemented
            m_Condition = Ignored;
            return next(Head);
        }
        if (isSuccess(status) && m_Condition == Unknown && !m_Probing) {
            m_Probing = true;
            return next(PutIfAbsentAgain);
        }
    }
    if (isUpload(method) && isSuccess(status))
        return ended(RvoRemoteClient::Stored);
    return refused(status, code);
}
