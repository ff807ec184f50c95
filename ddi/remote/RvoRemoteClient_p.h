#ifndef RVOREMOTECLIENT_P_H
#define RVOREMOTECLIENT_P_H

#include "RvoRemoteEndpoint_p.h"

#include <QByteArray>
#include <QString>

#include <functional>
#include <memory>

// The client of one remote server: fetches and stores block files by name
// (the digest text). Values are a block file's bytes exactly as on disk.
//
//   HTTP:  <base URL>/<first 2 characters of the name>/<name>
//          GET to fetch; HEAD, then PUT to store (content already there is
//          not sent again).
//   Redis: the key "rvoddi:<name>"; GET to fetch, SET ... NX to store.
//   S3:    the key <prefix>/<first 2 characters>/<name> of the bucket; GET to
//          fetch; PUT with If-None-Match: * to store (HEAD, then PUT, on a
//          server that ignores the condition), signed with AWS Signature
//          Version 4.
//
// The client checks nothing of what it fetches: its caller verifies the
// bytes against the name before they are used.
//
// Requests are asynchronous. Each client runs one thread of its own (an
// event loop, "rvoddi-remote") on which any number of requests are in
// flight at once over reused connections; whoever starts them bounds how
// many (RvoRemote). A request ends within the endpoint's timeouts:
// connecting at most connectTimeoutMs, the whole request at most
// operationTimeoutMs.
//
// Threading: startGet() and startPut() may be called from any thread,
// including from a callback. Callbacks run on the client's thread, once per
// request, and must not wait for other requests of the same client. The
// destructor ends the requests still under way (Unavailable, "client
// stopped") and joins the thread; it must not run on that thread.
class RvoRemoteClient
{
public:
    enum Status {
        Found, // get: the bytes are in *bytes
        Missing, // get: the server has no such name
        Stored, // put: the bytes were sent and accepted
        Present, // put: the server had the name already; nothing was sent
        Unavailable, // no connection, a timeout, a refusal or a server error
        Unauthorized, // the server refused the credentials
        Misconfigured, // the server has not what the setting names (an S3 bucket)
    };

    struct Result
    {
        Status status = Unavailable;
        // For Unavailable, Unauthorized and Misconfigured: the reason, one line, fit for a
        // message that names the server by its masked URL (it never holds
        // the credentials).
        QString error;
    };

    // How a request ended; a get that found its name gives the bytes.
    using Done = std::function<void(const Result &result, QByteArray bytes)>;

    // The largest value a client takes or fetches: a block file's 12-byte
    // header and the largest compressed payload (less under Qt 5, whose
    // QByteArray stops short of 2^31 bytes).
    static const qint64 kMaxValueSize;

    // A client for the endpoint's scheme; null for a kind this build lacks
    // (RVODDI_REMOTE_HTTP, for http, https and s3, or RVODDI_REMOTE_REDIS
    // off).
    static std::unique_ptr<RvoRemoteClient> create(const RvoRemoteEndpoint &endpoint);
    virtual ~RvoRemoteClient() = default;

    const RvoRemoteEndpoint &endpoint() const { return m_Endpoint; }

    // Starts fetching the bytes stored under `name`.
    virtual void startGet(const QString &name, Done done) = 0;
    // Starts storing `bytes` under `name`, unless the server has the name.
    virtual void startPut(const QString &name, QByteArray bytes, Done done) = 0;

    // The same, waiting for the end (for tests and tools). *bytes is left
    // empty unless Found.
    Result get(const QString &name, QByteArray *bytes);
    Result put(const QString &name, const QByteArray &bytes);

protected:
    explicit RvoRemoteClient(const RvoRemoteEndpoint &endpoint)
        : m_Endpoint(endpoint)
    {
    }

private:
    const RvoRemoteEndpoint m_Endpoint;
};

#endif // RVOREMOTECLIENT_P_H
