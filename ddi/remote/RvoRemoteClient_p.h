#ifndef RVOREMOTECLIENT_P_H
#define RVOREMOTECLIENT_P_H

#include "RvoRemoteEndpoint_p.h"

#include <QByteArray>
#include <QString>

#include <memory>

// The client of one remote server: fetches and stores block files by name
// (the digest text). Values are a block file's bytes exactly as on disk.
//
//   HTTP:  <base URL>/<first 2 characters of the name>/<name>
//          GET to fetch; HEAD, then PUT to store (content already there is
//          not sent again).
//   Redis: the key "rvoddi:<name>"; GET to fetch, SET ... NX to store.
//
// The client checks nothing of what it fetches: its caller verifies the
// bytes against the name before they are used.
//
// No call waits longer than the endpoint's timeouts: connecting at most
// connectTimeoutMs, the whole operation at most operationTimeoutMs.
//
// Threading: get() and put() may be called from several threads at once.
// Each call uses a connection of its own from a small pool the client keeps
// (connections are reused, never shared by two calls at once); a
// connection that failed is closed rather than reused.
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
    };

    struct Result
    {
        Status status = Unavailable;
        // For Unavailable and Unauthorized: the reason, one line, fit for a
        // message that names the server by its masked URL (it never holds
        // the credentials).
        QString error;
    };

    // The largest value a client takes or fetches: a block file's 12-byte
    // header and the largest compressed payload (less under Qt 5, whose
    // QByteArray stops short of 2^31 bytes).
    static const qint64 kMaxValueSize;

    // A client for the endpoint's scheme; null for a kind this build lacks
    // (RVODDI_REMOTE_HTTP or RVODDI_REMOTE_REDIS off).
    static std::unique_ptr<RvoRemoteClient> create(const RvoRemoteEndpoint &endpoint);
    virtual ~RvoRemoteClient() = default;

    const RvoRemoteEndpoint &endpoint() const { return m_Endpoint; }

    // Fetches the bytes stored under `name` into *bytes (left empty unless
    // Found).
    virtual Result get(const QString &name, QByteArray *bytes) = 0;
    // Stores `bytes` under `name` unless the server has the name already.
    virtual Result put(const QString &name, const QByteArray &bytes) = 0;

protected:
    explicit RvoRemoteClient(const RvoRemoteEndpoint &endpoint) : m_Endpoint(endpoint) { }

private:
    const RvoRemoteEndpoint m_Endpoint;
};

#endif // RVOREMOTECLIENT_P_H
