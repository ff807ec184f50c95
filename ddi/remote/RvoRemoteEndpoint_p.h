#ifndef RVOREMOTEENDPOINT_P_H
#define RVOREMOTEENDPOINT_P_H

#include <QString>

// One server of a remote store, as the remote-storage setting names it: an
// HTTP server that takes PUT and GET under a base path, a Redis server, or an
// S3 bucket (on AWS, or on a compatible server such as MinIO or Ceph).
//
// Credentials come from the URL and are used to connect, but never printed:
// every message names a server by maskedUrl().
struct RvoRemoteEndpoint
{
    enum Scheme { Http, Https, Redis, S3 };

    Scheme scheme = Http;
    QString host;
    int port = 0; // the scheme's default (80, 443, 6379) when 0
    // HTTP: the base path without a trailing '/'; S3: the key prefix, as
    // "/PREFIX" without a trailing '/' and decoded. Either may be empty.
    QString path;
    QString user; // may be empty; S3: the access key
    QString password; // may be empty; S3: the secret key
    int connectTimeoutMs = 100;
    int operationTimeoutMs = 10000;
    // HTTPS: a file of the certificates the server's must chain to, in place
    // of the system's; empty: the system's.
    QString caFile;

    // S3: the bucket, the region requests are signed for, and a session
    // token that goes with keys taken from the environment. host and port
    // are the server's: AWS's host of the bucket (BUCKET.s3.REGION.
    // amazonaws.com, virtual-host style, https), or the endpoint= server,
    // which holds the bucket in the path (SERVER/BUCKET/KEY, path style).
    QString bucket;
    QString region;
    QString sessionToken;
    bool pathStyle = false; // an endpoint= server
    bool tls = false; // https to the server (always on AWS)

    // Whether requests go over TLS (https, and S3 on AWS or an https server).
    bool usesTls() const { return scheme == Https || (scheme == S3 && tls); }
    // The port to connect to.
    int effectivePort() const;
    // scheme://host:port/path, without credentials; S3:
    // s3://BUCKET/PREFIX, with |endpoint=SCHEME://HOST:PORT for a server
    // other than AWS.
    QString plainUrl() const;
    // plainUrl() with "***@" in place of the credentials when there are
    // any: the only form of the URL that appears in messages.
    QString maskedUrl() const;
};

#endif // RVOREMOTEENDPOINT_P_H
