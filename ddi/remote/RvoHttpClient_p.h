#ifndef RVOHTTPCLIENT_P_H
#define RVOHTTPCLIENT_P_H

#include "RvoRemoteClient_p.h"
#include "RvoRemoteRequest_p.h"

#include <thread>

// The client of an HTTP server that takes PUT and GET under a base URL
// (nginx with WebDAV, Apache, Artifactory...), through libcurl's multi
// interface. A block file lives at <base URL>/<first 2 characters of the
// name>/<name>.
//
//   get: GET; 200 Found, 404 Missing.
//   put: HEAD; 200 Present (nothing sent), 404 PUT; 200/201/204 Stored.
//   401/403 Unauthorized; any other status, a curl error or a timeout
//   Unavailable, with "HTTP <status>" or curl's error text as the reason.
//
// All requests run on the client's thread, over connections that curl keeps
// open between them (HTTP/2 streams of one connection where an https server
// offers it). Credentials go to curl apart from the URL, so no error text
// holds them. Proxies named by the environment are not used: the store is
// reached directly. A body larger than kMaxValueSize is refused
// (Unavailable, "body too large") before it is all buffered.
class RvoHttpClient : public RvoRemoteClient
{
public:
    explicit RvoHttpClient(const RvoRemoteEndpoint &endpoint);
    ~RvoHttpClient() override;

    void startGet(const QString &name, Done done) override;
    void startPut(const QString &name, QByteArray bytes, Done done) override;

private:
    struct Transfer;
    struct Loop;

    void start(RvoRemoteRequest request);
    void run();

    RvoRemoteRequestQueue m_Queue;
    void *m_Multi = nullptr; // CURLM, made by the constructor; null when curl could not
    std::thread m_Thread;
};

#endif // RVOHTTPCLIENT_P_H
