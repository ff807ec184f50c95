#ifndef RVOS3DIALECT_P_H
#define RVOS3DIALECT_P_H

#include "RvoHttpDialect_p.h"

// An S3 bucket as a block store, on AWS or on a compatible server (MinIO,
// Ceph's RGW): a block file is the object <prefix>/<first 2 characters of the
// name>/<name>, at https://BUCKET.s3.REGION.amazonaws.com/KEY on AWS and at
// SERVER/BUCKET/KEY on the endpoint= server.
//
//   get: GET; 200 Found, 404 Missing.
//   put: PUT with If-None-Match: *; 2xx Stored, 412 Present (the server had
//        it). A server that ignores the condition (2xx for an object it
//        has, learned by sending the first object stored twice) or refuses
//        it (501) gets HEAD, then PUT, from then on.
//   403 (and 401) Unauthorized; NoSuchBucket, and the codes of a bucket in
//   another region, Misconfigured; 500 and 503 again after the server's
//   Retry-After or a pause that doubles from 100 ms. The reason names the
//   bucket and S3's error code, with what the code means to whoever set the
//   remote up.
//
// Requests are signed with AWS Signature Version 4 (libcurl's
// CURLOPT_AWS_SIGV4, for the region and the service s3) when there are keys,
// and unsigned otherwise (a public bucket). S3 asks a signed request for its
// body's SHA-256 in x-amz-content-sha256: over https the body stays
// unsigned (UNSIGNED-PAYLOAD), over http the thread starting a put hashes it.
class RvoS3Dialect : public RvoHttpDialect
{
public:
    explicit RvoS3Dialect(const RvoRemoteEndpoint &endpoint);

    QByteArray url(const QString &name) const override;
    Method first(RvoRemoteRequest::Kind kind) const override;
    void started(RvoRemoteRequest &request) const override;
    curl_slist *prepare(CURL *curl, Method method, const RvoRemoteRequest &request) const override;
    Step answered(Method method, const Answer &answer, int attempt) override;

    // The code of S3's error answer <Error><Code>CODE</Code>...</Error>:
    // letters, digits and dots, at most 64 of them; empty when there is
    // none.
    static QByteArray errorCode(const QByteArray &body);

private:
    enum Condition { Unknown, Honoured, Ignored };

    // The end of a request the server refused with `status` and `code`.
    Step refused(long status, const QByteArray &code) const;

    const QByteArray m_Base; // the URL of the prefix, without a trailing '/'
    const QByteArray m_Scope; // CURLOPT_AWS_SIGV4's "aws:amz:REGION:s3"
    Condition m_Condition = Unknown;
    bool m_Probing = false; // a PutIfAbsentAgain is under way
};

#endif // RVOS3DIALECT_P_H
