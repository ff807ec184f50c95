#include "RvoHttpClient_p.h"

#include <QElapsedTimer>
#include <QFile>
#include <QUrl>

#include <curl/curl.h>

#include <cstdio>
#include <cstring>
#include <map>
#include <vector>

#ifdef Q_OS_LINUX
#include <pthread.h>
#endif

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

// A name that would leave the base path ("..") or name the directory itself.
bool isValidName(const QString &name)
{
    return !name.isEmpty() && !name.startsWith(QLatin1Char('.'));
}

} // namespace

// One request under way: its easy handle and buffers, seen by curl's
// callbacks. A put is two transfers on the one handle, HEAD then PUT,
// within one operation timeout.
struct RvoHttpClient::Transfer
{
    enum Phase { Get, Head, Put };

    RvoRemoteRequest request;
    Phase phase = Get;
    CURL *curl = nullptr;
    QByteArray url;
    QByteArray download; // a 200's body
    bool tooLarge = false;
    qint64 uploaded = 0;
    QElapsedTimer clock; // since the request began
    char error[CURL_ERROR_SIZE] = {};

    static size_t onBody(char *data, size_t size, size_t count, void *user)
    {
        auto *t = static_cast<Transfer *>(user);
        const size_t length = size * count;
        long status = 0;
        curl_easy_getinfo(t->curl, CURLINFO_RESPONSE_CODE, &status);
        if (t->phase != Get || status != 200)
            return length; // an error page or a body nobody asked for
        if (t->download.size() + qint64(length) > kMaxValueSize) {
            t->tooLarge = true;
            return 0; // ends the transfer (CURLE_WRITE_ERROR)
        }
        if (t->download.isEmpty()) {
            curl_off_t announced = -1;
            curl_easy_getinfo(t->curl, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &announced);
            if (announced > 0 && announced <= kMaxValueSize)
                t->download.reserve(announced);
        }
        t->download.append(data, length);
        return length;
    }

    static size_t onRead(char *buffer, size_t size, size_t count, void *user)
    {
        auto *t = static_cast<Transfer *>(user);
        const QByteArray &body = t->request.bytes;
        const size_t length = size_t(qMin<qint64>(body.size() - t->uploaded, qint64(size * count)));
        std::memcpy(buffer, body.constData() + t->uploaded, length);
        t->uploaded += qint64(length);
        return length;
    }

    // curl rewinds the body when it sends it again on a fresh connection
    // after a reused one turned out dead.
    static int onSeek(void *user, curl_off_t offset, int origin)
    {
        auto *t = static_cast<Transfer *>(user);
        if (origin != SEEK_SET || offset < 0 || offset > t->request.bytes.size())
            return CURL_SEEKFUNC_CANTSEEK;
        t->uploaded = offset;
        return CURL_SEEKFUNC_OK;
    }
};

// The client thread's state: the transfers under way and the easy handles
// kept for the next ones (their settings are reset; the connections belong
// to the multi handle, which keeps them open).
struct RvoHttpClient::Loop
{
    RvoHttpClient &client;
    CURLM *multi;
    std::map<CURL *, std::unique_ptr<Transfer>> transfers;
    std::vector<CURL *> idle;

    ~Loop()
    {
        for (CURL *curl : idle)
            curl_easy_cleanup(curl);
    }

    // Sets `transfer` up for its phase and adds it to the multi handle;
    // false, with the request ended, when that fails.
    bool launch(std::unique_ptr<Transfer> transfer)
    {
        const RvoRemoteEndpoint &server = client.endpoint();
        CURL *curl = transfer->curl;
        curl_easy_reset(curl);
        curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
        curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT_MS, long(server.connectTimeoutMs));
        curl_easy_setopt(curl, CURLOPT_PROXY, "");
        curl_easy_setopt(curl, CURLOPT_MAXFILESIZE_LARGE, curl_off_t(kMaxValueSize));
        if (server.scheme == RvoRemoteEndpoint::Https)
            curl_easy_setopt(curl, CURLOPT_PIPEWAIT, 1L); // rather a stream than a connection
        if (!server.caFile.isEmpty())
            curl_easy_setopt(curl, CURLOPT_CAINFO, QFile::encodeName(server.caFile).constData());
        if (!server.user.isEmpty() || !server.password.isEmpty()) {
            curl_easy_setopt(curl, CURLOPT_USERNAME, server.user.toUtf8().constData());
            curl_easy_setopt(curl, CURLOPT_PASSWORD, server.password.toUtf8().constData());
        }
        curl_easy_setopt(curl, CURLOPT_URL, transfer->url.constData());
        curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, transfer->error);
        curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, &Transfer::onBody);
        curl_easy_setopt(curl, CURLOPT_WRITEDATA, transfer.get());
        curl_easy_setopt(curl, CURLOPT_PRIVATE, transfer.get());
        // The PUT gets what is left of the operation's time.
        const qint64 timeoutMs = server.operationTimeoutMs;
        const qint64 leftMs = timeoutMs - transfer->clock.elapsed();
        if (timeoutMs > 0 && leftMs <= 0) {
            end(std::move(transfer),
                unavailable(QStringLiteral("Operation timed out after %1 milliseconds")
                                    .arg(timeoutMs)));
            return false;
        }
        curl_easy_setopt(curl, CURLOPT_TIMEOUT_MS, long(timeoutMs > 0 ? leftMs : 0));
        if (transfer->phase == Transfer::Head) {
            curl_easy_setopt(curl, CURLOPT_NOBODY, 1L);
        } else if (transfer->phase == Transfer::Put) {
            curl_easy_setopt(curl, CURLOPT_UPLOAD, 1L);
            curl_easy_setopt(curl, CURLOPT_INFILESIZE_LARGE,
                             curl_off_t(transfer->request.bytes.size()));
            curl_easy_setopt(curl, CURLOPT_HTTPHEADER, noExpectHeader());
            curl_easy_setopt(curl, CURLOPT_READFUNCTION, &Transfer::onRead);
            curl_easy_setopt(curl, CURLOPT_READDATA, transfer.get());
            curl_easy_setopt(curl, CURLOPT_SEEKFUNCTION, &Transfer::onSeek);
            curl_easy_setopt(curl, CURLOPT_SEEKDATA, transfer.get());
        }
        if (curl_multi_add_handle(multi, curl) != CURLM_OK) {
            end(std::move(transfer), unavailable(QStringLiteral("curl_multi_add_handle failed")));
            return false;
        }
        transfers[curl] = std::move(transfer);
        return true;
    }

    void begin(RvoRemoteRequest request)
    {
        const bool put = request.kind == RvoRemoteRequest::Put;
        if (!isValidName(request.name)) {
            request.done(unavailable(QStringLiteral("invalid name")), QByteArray());
            return;
        }
        if (put && request.bytes.size() > kMaxValueSize) {
            request.done(unavailable(QStringLiteral("body too large")), QByteArray());
            return;
        }
        CURL *curl = nullptr;
        if (!idle.empty()) {
            curl = idle.back();
            idle.pop_back();
        } else {
            curl = curl_easy_init();
        }
        if (!curl) {
            request.done(unavailable(QStringLiteral("curl_easy_init failed")), QByteArray());
            return;
        }
        auto transfer = std::make_unique<Transfer>();
        transfer->clock.start();
        transfer->curl = curl;
        transfer->phase = put ? Transfer::Head : Transfer::Get;
        const QString &name = request.name;
        transfer->url = client.endpoint().plainUrl().toUtf8() + '/'
                + QUrl::toPercentEncoding(name.left(2)) + '/' + QUrl::toPercentEncoding(name);
        transfer->request = std::move(request);
        launch(std::move(transfer));
    }

    // Ends the request: its handle goes back to the idle ones (curl keeps
    // the connection unless the transfer failed), then its callback runs.
    void end(std::unique_ptr<Transfer> transfer, const Result &result)
    {
        idle.push_back(transfer->curl);
        const Done done = std::move(transfer->request.done);
        QByteArray bytes = result.status == Found ? std::move(transfer->download) : QByteArray();
        transfer.reset();
        done(result, std::move(bytes));
    }

    // A transfer of the multi handle is over.
    void finished(CURL *curl, CURLcode code)
    {
        curl_multi_remove_handle(multi, curl);
        auto found = transfers.find(curl);
        if (found == transfers.end())
            return;
        std::unique_ptr<Transfer> transfer = std::move(found->second);
        transfers.erase(found);
        long status = 0;
        Result failure;
        if (code != CURLE_OK) {
            if (transfer->tooLarge || code == CURLE_FILESIZE_EXCEEDED)
                failure = unavailable(QStringLiteral("body too large"));
            else
                failure = unavailable(QString::fromUtf8(
                        transfer->error[0] ? transfer->error : curl_easy_strerror(code)));
        } else {
            curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
        }
        switch (transfer->phase) {
        case Transfer::Get:
            if (status == 200)
                return end(std::move(transfer), {Found, QString()});
            if (status == 404)
                return end(std::move(transfer), {Missing, QString()});
            return end(std::move(transfer), refused(status, failure));
        case Transfer::Head:
            if (status == 200)
                return end(std::move(transfer), {Present, QString()});
            if (status != 404)
                return end(std::move(transfer), refused(status, failure));
            transfer->phase = Transfer::Put;
            transfer->error[0] = 0;
            launch(std::move(transfer));
            return;
        case Transfer::Put:
            if (status == 200 || status == 201 || status == 204)
                return end(std::move(transfer), {Stored, QString()});
            return end(std::move(transfer), refused(status, failure));
        }
    }

    void run()
    {
        while (!client.m_Queue.stopping()) {
            for (RvoRemoteRequest &request : client.m_Queue.takeAll())
                begin(std::move(request));
            int running = 0;
            curl_multi_perform(multi, &running);
            int left = 0;
            while (CURLMsg *message = curl_multi_info_read(multi, &left)) {
                if (message->msg == CURLMSG_DONE)
                    finished(message->easy_handle, message->data.result);
            }
            // Woken by curl_multi_wakeup when a request is started.
            curl_multi_poll(multi, nullptr, 0, 1000, nullptr);
        }
        const Result stopped = unavailable(QStringLiteral("client stopped"));
        while (!transfers.empty()) {
            CURL *curl = transfers.begin()->first;
            std::unique_ptr<Transfer> transfer = std::move(transfers.begin()->second);
            transfers.erase(transfers.begin());
            curl_multi_remove_handle(multi, curl);
            end(std::move(transfer), stopped);
        }
    }
};

RvoHttpClient::RvoHttpClient(const RvoRemoteEndpoint &endpoint)
    : RvoRemoteClient(endpoint)
{
    if (globalInit() == CURLE_OK)
        m_Multi = curl_multi_init();
    if (m_Multi) {
        // Connections kept open between requests: enough for every request
        // a remote keeps in flight.
        curl_multi_setopt(m_Multi, CURLMOPT_MAXCONNECTS, 64L);
        m_Thread = std::thread([this] { run(); });
    }
}

RvoHttpClient::~RvoHttpClient()
{
    std::deque<RvoRemoteRequest> unstarted = m_Queue.stop();
    if (m_Thread.joinable()) {
        curl_multi_wakeup(m_Multi);
        m_Thread.join();
    }
    for (RvoRemoteRequest &request : unstarted)
        request.done(unavailable(QStringLiteral("client stopped")), QByteArray());
    if (m_Multi)
        curl_multi_cleanup(m_Multi);
}

void RvoHttpClient::run()
{
#ifdef Q_OS_LINUX
    pthread_setname_np(pthread_self(), "rvoddi-remote");
#endif
    Loop loop {*this, m_Multi, {}, {}};
    loop.run();
}

void RvoHttpClient::start(RvoRemoteRequest request)
{
    if (!m_Multi) {
        request.done(unavailable(QStringLiteral("curl could not be set up")), QByteArray());
        return;
    }
    const Done done = request.done;
    if (!m_Queue.push(std::move(request))) {
        done(unavailable(QStringLiteral("client stopped")), QByteArray());
        return;
    }
    curl_multi_wakeup(m_Multi);
}

void RvoHttpClient::startGet(const QString &name, Done done)
{
    start({RvoRemoteRequest::Get, name, QByteArray(), std::move(done)});
}

void RvoHttpClient::startPut(const QString &name, QByteArray bytes, Done done)
{
    start({RvoRemoteRequest::Put, name, std::move(bytes), std::move(done)});
}
