#ifndef RVOREMOTEENDPOINT_P_H
#define RVOREMOTEENDPOINT_P_H

#include <QString>

// One server of a remote store, as the remote-storage setting names it: an
// HTTP server that takes PUT and GET under a base path, or a Redis server.
//
// Credentials come from the URL and are used to connect, but never printed:
// every message names a server by maskedUrl().
struct RvoRemoteEndpoint
{
    enum Scheme { Http, Https, Redis };

    Scheme scheme = Http;
    QString host;
    int port = 0; // the scheme's default (80, 443, 6379) when 0
    QString path; // HTTP: the base path without a trailing '/'; may be empty
    QString user; // may be empty
    QString password; // may be empty
    int connectTimeoutMs = 100;
    int operationTimeoutMs = 10000;
    // HTTPS: a file of the certificates the server's must chain to, in place
    // of the system's; empty: the system's.
    QString caFile;

    // The port to connect to.
    int effectivePort() const;
    // scheme://host:port/path, without credentials.
    QString plainUrl() const;
    // plainUrl() with "***@" in place of the credentials when there are
    // any: the only form of the URL that appears in messages.
    QString maskedUrl() const;
};

#endif // RVOREMOTEENDPOINT_P_H
