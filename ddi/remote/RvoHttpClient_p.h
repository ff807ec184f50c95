#ifndef RVOHTTPCLIENT_P_H
#define RVOHTTPCLIENT_P_H

#include "RvoHttpDialect_p.h"
#include "RvoRemoteClient_p.h"
#include "RvoRemoteRequest_p.h"

#include <memory>
#include <thread>

// The client of a store over HTTP, through libcurl's multi interface: the
// request engine shared by the kinds of HTTP store, each of which is a
// dialect (RvoHttpDialect: the plain store; RvoS3Dialect: an S3 bucket) that
// says where a block file lives, what a request sends and what its answers
// mean. The engine runs the requests: connections, transfers, timeouts,
// pauses before a retry, callbacks.
//
// All requests run on the client's thread, over connections that curl keeps
// open between them (HTTP/2 streams of one connection where an https server
// offers it). Credentials go to curl apart from the URL, so no error text
// holds them. Proxies named by the environment are not used: the store is
// reached directly. A body larger than kMaxValueSize is refused
// (Unavailable, "body too large") before it is all buffered. A failed
// transfer is Unavailable with curl's error text as the reason; a request
// that runs out of its operation timeout across its transfers and pauses,
// Unavailable "Operation timed out after N milliseconds".
class RvoHttpClient : public RvoRemoteClient
{
public:
    RvoHttpClient(const RvoRemoteEndpoint &endpoint, std::unique_ptr<RvoHttpDialect> dialect);
    ~RvoHttpClient() override;

    void startGet(const QString &name, Done done) override;
    void startPut(const QString &name, QByteArray bytes, Done done) override;

private:
    struct Transfer;
    struct Loop;

    void start(RvoRemoteRequest request);
    void run();

    // Used by the client's thread, and by the starting threads through its
    // const started().
    const std::unique_ptr<RvoHttpDialect> m_Dialect;
    RvoRemoteRequestQueue m_Queue;
    void *m_Multi = nullptr; // CURLM, made by the constructor; null when curl could not
    std::thread m_Thread;
};

#endif // RVOHTTPCLIENT_P_H
