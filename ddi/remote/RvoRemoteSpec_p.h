#ifndef RVOREMOTESPEC_P_H
#define RVOREMOTESPEC_P_H

#include "RvoRemoteEndpoint_p.h"

#include <QString>
#include <QStringList>
#include <QVector>

// The remote-storage setting: space-separated entries, each a URL with
// optional '|'-separated attributes, for example
//
//   http://cache1:8080/tiles|read-only redis://127.0.0.1:*|shards=6380,6381
//
// Schemes http, https, redis and s3 (s3://BUCKET/PREFIX), each refused by a
// build without its client (RVODDI_REMOTE_HTTP for http, https and s3,
// RVODDI_REMOTE_REDIS); user and password in the URL are used to connect (S3:
// the access key and secret key, else AWS_ACCESS_KEY_ID, AWS_SECRET_ACCESS_KEY
// and AWS_SESSION_TOKEN; an S3 remote without keys is read-only).
// Attributes: read-only; connect-timeout=MS (default 100);
// operation-timeout=MS (default 10000); upload-queue=MIB (the bytes of block
// files that may wait for upload, default 256); max-requests=N (fetches, and
// as many uploads, in flight at once per server, 1 to 1024, default 32);
// shards=A,B,... (several servers of one kind: each name replaces the '*' of
// the URL); ca-file=PATH (https only: the certificates the server's must
// chain to, instead of the system's); S3 only: endpoint=URL (a compatible
// server, addressed path-style, instead of AWS) and region=NAME (default
// AWS_REGION, then us-east-1).
class RvoRemoteSpec
{
public:
    // One entry: one remote, of one server or of several shards.
    struct Remote
    {
        QVector<RvoRemoteEndpoint> servers; // one per shard, in the given order
        QStringList shardNames; // empty without shards
        bool readOnly = false;
        qint64 uploadQueueBytes = 256LL << 20;
        int maxRequests = 32;
        QString maskedText; // the entry with its credentials masked
    };

    // Parses `text` into *remotes (an empty or blank text gives none).
    // False, with *error naming the bad part (credentials masked), when any
    // entry is invalid; *remotes is then untouched.
    static bool parse(const QString &text, QVector<Remote> *remotes, QString *error);

    // `text` with the credentials of every URL in it replaced by "***".
    static QString mask(const QString &text);
};

#endif // RVOREMOTESPEC_P_H
