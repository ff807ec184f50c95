#ifndef RVOHTTPCLIENT_P_H
#define RVOHTTPCLIENT_P_H

#include "RvoConnectionPool_p.h"
#include "RvoRemoteClient_p.h"

// The client of an HTTP server that takes PUT and GET under a base URL
// (nginx with WebDAV, Apache, Artifactory...), through libcurl. A block file
// lives at <base URL>/<first 2 characters of the name>/<name>.
//
//   get: GET; 200 Found, 404 Missing.
//   put: HEAD; 200 Present (nothing sent), 404 PUT; 200/201/204 Stored.
//   401/403 Unauthorized; any other status, a curl error or a timeout
//   Unavailable, with "HTTP <status>" or curl's error text as the reason.
//
// Credentials go to curl apart from the URL, so no error text holds them.
// Proxies named by the environment are not used: the store is reached
// directly. A body larger than kMaxValueSize is refused (Unavailable,
// "body too large") before it is all buffered.
//
// Threading: see RvoRemoteClient. Each call takes a curl easy handle from
// the pool; the handle keeps its connection open for the next call.
class RvoHttpClient : public RvoRemoteClient
{
public:
    explicit RvoHttpClient(const RvoRemoteEndpoint &endpoint);
    ~RvoHttpClient() override;

    Result get(const QString &name, QByteArray *bytes) override;
    Result put(const QString &name, const QByteArray &bytes) override;

private:
    struct CleanUp
    {
        void operator()(void *handle) const;
    };
    using Handle = RvoConnectionPool<void, CleanUp>::Handle;
    struct Transfer;

    // A reset handle with the options every request shares, or null when
    // curl cannot make one.
    Handle handle(Result *failure);
    // Runs the request set up on `handle` with `timeoutMs` for all of it.
    // Returns the HTTP status, or 0 with *failure set; gives the handle back
    // to the pool unless the transfer failed.
    long perform(Handle handle, qint64 timeoutMs, Transfer *transfer, Result *failure);
    QByteArray keyUrl(const QString &name) const;

    RvoConnectionPool<void, CleanUp> m_Handles;
};

#endif // RVOHTTPCLIENT_P_H
