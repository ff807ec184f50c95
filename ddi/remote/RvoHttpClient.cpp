#include "RvoHttpClient_p.h"

#include <QElapsedTimer>
#include <QFile>
#include <QUrl>

#include <curl/curl.h>

#include <cstdio>
#include <cstring>

namespace {

// Set up once for the process, by the first client; curl_global_init is not
// safe to run from two threads at once.
CURLcode globalInit()
{
    static const CURLcode code = curl_global_init(CURL_GLOBAL_DEFAULT);
    return code;
}

// A PUT goes out at once: the HEAD before it has already found the name
// missing and the credentials good, so waiting for "100 Continue" would only
// add a round trip.
curl_slist *noExpectHeader()
{
    static curl_slist *const headers = curl_slist_append(nullptr, "Expect:");
    return headers;
}

RvoRemoteClient::Result unavailable(const QString &reason)
{
    return {RvoRemoteClient::Unavailable, reason};
}

// The outcome of a status that is none the caller expects, or of a failed
// transfer (status 0, *failure already set).
RvoRemoteClient::Result refused(long status, const RvoRemoteClient::Result &failure)
{
    if (status == 0)
        return failure;
    const QString reason = QStringLiteral("HTTP %1").arg(status);
    if (status == 401 || status == 403)
        return {RvoRemoteClient::Unauthorized, reason};
    return unavailable(reason);
}

} // namespace

// One request's buffers, seen by curl's callbacks.
struct RvoHttpClient::Transfer
{
    CURL *curl = nullptr;
    QByteArray *download = nullptr; // where a 200's body goes; null: discard
    bool tooLarge = false;
    const QByteArray *upload = nullptr;
    qint64 uploaded = 0;
    char error[CURL_ERROR_SIZE] = {};

    static size_t onBody(char *data, size_t size, size_t count, void *user)
    {
        auto *t = static_cast<Transfer *>(user);
        const size_t length = size * count;
        long status = 0;
        curl_easy_getinfo(t->curl, CURLINFO_RESPONSE_CODE, &status);
        if (!t->download || status != 200)
            return length; // an error page or a body nobody asked for
        if (t->download->size() + qint64(length) > kMaxValueSize) {
            t->tooLarge = true;
            return 0; // ends the transfer (CURLE_WRITE_ERROR)
        }
        if (t->download->isEmpty()) {
            curl_off_t announced = -1;
            curl_easy_getinfo(t->curl, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &announced);
            if (announced > 0 && announced <= kMaxValueSize)
                t->download->reserve(announced);
        }
        t->download->append(data, length);
        return length;
    }

    static size_t onRead(char *buffer, size_t size, size_t count, void *user)
    {
        auto *t = static_cast<Transfer *>(user);
        const size_t length
                = size_t(qMin<qint64>(t->upload->size() - t->uploaded, qint64(size * count)));
        std::memcpy(buffer, t->upload->constData() + t->uploaded, length);
        t->uploaded += qint64(length);
        return length;
    }

    // curl rewinds the body when it sends it again on a fresh connection
    // after a pooled one turned out dead.
    static int onSeek(void *user, curl_off_t offset, int origin)
    {
        auto *t = static_cast<Transfer *>(user);
        if (origin != SEEK_SET || offset < 0 || offset > t->upload->size())
            return CURL_SEEKFUNC_CANTSEEK;
        t->uploaded = offset;
        return CURL_SEEKFUNC_OK;
    }
};

void RvoHttpClient::CleanUp::operator()(void *handle) const
{
    curl_easy_cleanup(handle);
}

RvoHttpClient::RvoHttpClient(const RvoRemoteEndpoint &endpoint)
    : RvoRemoteClient(endpoint)
{
}

RvoHttpClient::~RvoHttpClient() = default;

RvoHttpClient::Handle RvoHttpClient::handle(Result *failure)
{
    Handle handle = m_Handles.take();
    if (handle) {
        // Forgets the last request's options; keeps its open connection.
        curl_easy_reset(handle.get());
    } else {
        if (globalInit() != CURLE_OK) {
            *failure = unavailable(QStringLiteral("curl_global_init failed"));
            return Handle();
        }
        handle.reset(curl_easy_init());
        if (!handle) {
            *failure = unavailable(QStringLiteral("curl_easy_init failed"));
            return Handle();
        }
    }
    CURL *curl = handle.get();
    const RvoRemoteEndpoint &server = endpoint();
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT_MS, long(server.connectTimeoutMs));
    curl_easy_setopt(curl, CURLOPT_PROXY, "");
    curl_easy_setopt(curl, CURLOPT_MAXFILESIZE_LARGE, curl_off_t(kMaxValueSize));
    if (!server.caFile.isEmpty())
        curl_easy_setopt(curl, CURLOPT_CAINFO, QFile::encodeName(server.caFile).constData());
    if (!server.user.isEmpty() || !server.password.isEmpty()) {
        curl_easy_setopt(curl, CURLOPT_USERNAME, server.user.toUtf8().constData());
        curl_easy_setopt(curl, CURLOPT_PASSWORD, server.password.toUtf8().constData());
    }
    return handle;
}

long RvoHttpClient::perform(Handle handle, qint64 timeoutMs, Transfer *transfer,
                                  Result *failure)
{
    CURL *curl = handle.get();
    transfer->curl = curl;
    curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, transfer->error);
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, &Transfer::onBody);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, transfer);
    curl_easy_setopt(curl, CURLOPT_TIMEOUT_MS, long(timeoutMs));
    const CURLcode code = curl_easy_perform(curl);
    curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, nullptr);
    if (code != CURLE_OK) {
        // `handle` is cleaned up here: its connection may be in any state.
        if (transfer->tooLarge || code == CURLE_FILESIZE_EXCEEDED)
            *failure = unavailable(QStringLiteral("body too large"));
        else
            *failure = unavailable(QString::fromUtf8(
                    transfer->error[0] ? transfer->error : curl_easy_strerror(code)));
        return 0;
    }
    long status = 0;
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
    m_Handles.give(std::move(handle));
    return status;
}

QByteArray RvoHttpClient::keyUrl(const QString &name) const
{
    return endpoint().plainUrl().toUtf8() + '/' + QUrl::toPercentEncoding(name.left(2)) + '/'
            + QUrl::toPercentEncoding(name);
}

// A name that would leave the base path ("..") or name the directory itself.
static bool isValidName(const QString &name)
{
    return !name.isEmpty() && !name.startsWith(QLatin1Char('.'));
}

RvoRemoteClient::Result RvoHttpClient::get(const QString &name, QByteArray *bytes)
{
    bytes->clear();
    if (!isValidName(name))
        return unavailable(QStringLiteral("invalid name"));
    Result result;
    Handle curl = handle(&result);
    if (!curl)
        return result;
    const QByteArray url = keyUrl(name);
    curl_easy_setopt(curl.get(), CURLOPT_URL, url.constData());
    Transfer transfer;
    transfer.download = bytes;
    const long status = perform(std::move(curl), endpoint().operationTimeoutMs, &transfer, &result);
    if (status == 200)
        return {Found, QString()};
    bytes->clear();
    if (status == 404)
        return {Missing, QString()};
    return refused(status, result);
}

RvoRemoteClient::Result RvoHttpClient::put(const QString &name, const QByteArray &bytes)
{
    if (!isValidName(name))
        return unavailable(QStringLiteral("invalid name"));
    if (bytes.size() > kMaxValueSize)
        return unavailable(QStringLiteral("body too large"));
    QElapsedTimer clock;
    clock.start();
    const qint64 timeoutMs = endpoint().operationTimeoutMs;
    const QByteArray url = keyUrl(name);

    Result result;
    Handle curl = handle(&result);
    if (!curl)
        return result;
    curl_easy_setopt(curl.get(), CURLOPT_URL, url.constData());
    curl_easy_setopt(curl.get(), CURLOPT_NOBODY, 1L);
    Transfer head;
    long status = perform(std::move(curl), timeoutMs, &head, &result);
    if (status == 200)
        return {Present, QString()};
    if (status != 404)
        return refused(status, result);

    // The PUT gets what is left of the operation's time.
    const qint64 leftMs = timeoutMs - clock.elapsed();
    if (timeoutMs > 0 && leftMs <= 0)
        return unavailable(
                QStringLiteral("Operation timed out after %1 milliseconds").arg(timeoutMs));
    curl = handle(&result);
    if (!curl)
        return result;
    curl_easy_setopt(curl.get(), CURLOPT_URL, url.constData());
    curl_easy_setopt(curl.get(), CURLOPT_UPLOAD, 1L);
    curl_easy_setopt(curl.get(), CURLOPT_INFILESIZE_LARGE, curl_off_t(bytes.size()));
    curl_easy_setopt(curl.get(), CURLOPT_HTTPHEADER, noExpectHeader());
    Transfer upload;
    upload.upload = &bytes;
    curl_easy_setopt(curl.get(), CURLOPT_READFUNCTION, &Transfer::onRead);
    curl_easy_setopt(curl.get(), CURLOPT_READDATA, &upload);
    curl_easy_setopt(curl.get(), CURLOPT_SEEKFUNCTION, &Transfer::onSeek);
    curl_easy_setopt(curl.get(), CURLOPT_SEEKDATA, &upload);
    status = perform(std::move(curl), timeoutMs > 0 ? leftMs : 0, &upload, &result);
    if (status == 200 || status == 201 || status == 204)
        return {Stored, QString()};
    return refused(status, result);
}
