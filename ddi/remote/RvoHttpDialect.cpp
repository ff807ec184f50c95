#include "RvoHttpDialect_p.h"

#include <QUrl>

QByteArray RvoHttpDialect::url(const QString &name) const
{
    return m_Endpoint.plainUrl().toUtf8() + '/' + QUrl::toPercentEncoding(name.left(2)) + '/'
            + QUrl::toPercentEncoding(name);
}

RvoHttpDialect::Method RvoHttpDialect::first(RvoRemoteRequest::Kind kind) const
{
    return kind == RvoRemoteRequest::Put ? Head : Get;
}

curl_slist *RvoHttpDialect::prepare(CURL *curl, Method method, const RvoRemoteRequest &) const
{
    // Apart from the URL, so that no error text holds them.
    if (!m_Endpoint.user.isEmpty() || !m_Endpoint.password.isEmpty()) {
        curl_easy_setopt(curl, CURLOPT_USERNAME, m_Endpoint.user.toUtf8().constData());
        curl_easy_setopt(curl, CURLOPT_PASSWORD, m_Endpoint.password.toUtf8().constData());
    }
    // A PUT goes out at once: the HEAD before it has already found the name
    // missing and the credentials good, so waiting for "100 Continue" would
    // only add a round trip.
    return method == Put ? curl_slist_append(nullptr, "Expect:") : nullptr;
}

std::optional<RvoHttpDialect::Step> RvoHttpDialect::lookedUp(Method method, long status)
{
    if (method == Get && status == 200)
        return ended(RvoRemoteClient::Found);
    if (method == Get && status == 404)
        return ended(RvoRemoteClient::Missing);
    if (method == Head && status == 200)
        return ended(RvoRemoteClient::Present);
    if (method == Head && status == 404)
        return next(Put);
    return std::nullopt;
}

RvoHttpDialect::Step RvoHttpDialect::answered(Method method, const Answer &answer, int)
{
    const long status = answer.status;
    if (status == 0)
        return ended(answer.failure.status, answer.failure.error);
    if (const std::optional<Step> step = lookedUp(method, status))
        return *step;
    if (isUpload(method) && (status == 200 || status == 201 || status == 204))
        return ended(RvoRemoteClient::Stored);
    const QString reason = QStringLiteral("HTTP %1").arg(status);
    return ended(status == 401 || status == 403 ? RvoRemoteClient::Unauthorized
                                                : RvoRemoteClient::Unavailable,
                 reason);
}
