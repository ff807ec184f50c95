#ifndef RVOHTTPDIALECT_P_H
#define RVOHTTPDIALECT_P_H

#include "RvoRemoteClient_p.h"
#include "RvoRemoteRequest_p.h"

#include <curl/curl.h>

#include <optional>

// What one kind of HTTP store makes of the requests that RvoHttpClient runs:
// where a block file lives, what each request sends besides its body, and
// what each answer means. This class is the plain store (nginx with WebDAV,
// Apache, Artifactory), a block file at <base URL>/<first 2 characters of the
// name>/<name>, credentials sent as basic authentication:
//
//   get: GET; 200 Found, 404 Missing.
//   put: HEAD; 200 Present (nothing sent), 404 PUT; 200/201/204 Stored.
//   401/403 Unauthorized; any other status Unavailable, "HTTP <status>".
//
// RvoS3Dialect is an S3 bucket.
//
// Threading: started() runs on the thread that starts a request, the rest
// on the client's thread only (a dialect may learn from answers without a
// lock).
class RvoHttpDialect
{
public:
    // A request on the wire. PutIfAbsent: a PUT the server does not carry
    // out when it has the name (If-None-Match: *); PutIfAbsentAgain: the
    // same once more, to learn whether the server honours the condition.
    enum Method { Get, Head, Put, PutIfAbsent, PutIfAbsentAgain };

    // An answer: its status (0: none came, `failure` says why), the body of
    // one that is not a GET's 200 (its first kMaxErrorBody bytes) and its
    // Retry-After in seconds (0: none).
    struct Answer
    {
        long status = 0;
        RvoRemoteClient::Result failure;
        QByteArray errorBody;
        qint64 retryAfterSeconds = 0;
    };

    // What follows an answer: the end of the request with `result`; the
    // request `then` at once; or the same request again after `pauseMs`,
    // unless that would pass the operation timeout: then the end with
    // `result`.
    struct Step
    {
        enum Kind { End, Then, Retry };
        Kind kind = End;
        RvoRemoteClient::Result result;
        Method then = Get;
        qint64 pauseMs = 0;
    };

    static constexpr int kMaxErrorBody = 16384;

    explicit RvoHttpDialect(const RvoRemoteEndpoint &endpoint)
        : m_Endpoint(endpoint)
    {
    }
    virtual ~RvoHttpDialect() = default;

    const RvoRemoteEndpoint &endpoint() const { return m_Endpoint; }

    // The URL of the block file `name` (not empty, no leading '.').
    virtual QByteArray url(const QString &name) const;
    // The first request of a get or a put.
    virtual Method first(RvoRemoteRequest::Kind kind) const;
    // What a request needs before the client's thread takes it.
    virtual void started(RvoRemoteRequest &request) const { Q_UNUSED(request); }
    // Sets `curl` up for `method` beyond what every transfer sets
    // (authentication) and returns the headers to send, which the caller
    // frees with curl_slist_free_all, or null.
    virtual curl_slist *prepare(CURL *curl, Method method, const RvoRemoteRequest &request) const;
    // What the answer to `method` means; `attempt` counts its tries from 1.
    virtual Step answered(Method method, const Answer &answer, int attempt);

    // A PUT of either kind, which sends the request's bytes.
    static bool isUpload(Method method) { return method != Get && method != Head; }

protected:
    // What a GET's or a HEAD's 200 or 404 means to every store: Found,
    // Missing, Present, or a PUT next; none for any other answer.
    static std::optional<Step> lookedUp(Method method, long status);
    static Step ended(RvoRemoteClient::Status status, const QString &reason = QString())
    {
        return {Step::End, {status, reason}, Get, 0};
    }
    static Step next(Method method) { return {Step::Then, {}, method, 0}; }

private:
    const RvoRemoteEndpoint m_Endpoint;
};

#endif // RVOHTTPDIALECT_P_H
