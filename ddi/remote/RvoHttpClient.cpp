#include "RvoHttpClient_p.h"

#include <QElapsedTimer>
#include <QFile>

#include <curl/curl.h>

#include <chrono>
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

using Method = RvoHttpDialect::Method;

RvoRemoteClient::Result unavailable(const QString &reason)
{
    return {RvoRemoteClient::Unavailable, reason};
}

// A name that would leave the base path ("..") or name the directory itself.
bool isValidName(const QString &name)
{
    return !name.isEmpty() && !name.startsWith(QLatin1Char('.'));
}

qint64 nowMs()
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(
                   std::chrono::steady_clock::now().time_since_epoch())
            .count();
}

} // namespace

// One request under way: its easy handle and buffers, seen by curl's
// callbacks. A request may be several transfers on the one handle (a put's
// HEAD, then PUT; tries again after a pause), all within one operation
// timeout.
struct RvoHttpClient::Transfer
{
    RvoRemoteRequest request;
    Method method = RvoHttpDialect::Get;
    int attempt = 1; // tries of `method`
    CURL *curl = nullptr;
    curl_slist *headers = nullptr; // the dialect's, for this transfer
    QByteArray url;
    QByteArray download; // a GET's 200's body
    QByteArray errorBody; // any other answer's, its first bytes
    bool tooLarge = false;
    qint64 uploaded = 0;
    QElapsedTimer clock; // since the request began
    char error[CURL_ERROR_SIZE] = {};

    ~Transfer() { curl_slist_free_all(headers); }

    static size_t onBody(char *data, size_t size, size_t count, void *user)
    {
        auto *t = static_cast<Transfer *>(user);
        const size_t length = size * count;
        long status = 0;
        curl_easy_getinfo(t->curl, CURLINFO_RESPONSE_CODE, &status);
        if (t->method != RvoHttpDialect::Get || status != 200) {
            // An error page, or a body nobody asked for: its start may say
            // what went wrong.
            const qint64 room = RvoHttpDialect::kMaxErrorBody - t->errorBody.size();
            if (room > 0)
                t->errorBody.append(data, int(qMin<qint64>(room, qint64(length))));
            return length;
        }
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

// The client thread's state: the transfers under way, those waiting to try
// again, and the easy handles kept for the next ones (their settings are
// reset; the connections belong to the multi handle, which keeps them open).
struct RvoHttpClient::Loop
{
    RvoHttpClient &client;
    CURLM *multi;
    std::map<CURL *, std::unique_ptr<Transfer>> transfers;
    std::multimap<qint64, std::unique_ptr<Transfer>> waiting; // by when they go again
    std::vector<CURL *> idle;

    ~Loop()
    {
        for (CURL *curl : idle)
            curl_easy_cleanup(curl);
    }

    // Sets `transfer` up for its method and adds it to the multi handle;
    // false, with the request ended, when that fails.
    bool launch(std::unique_ptr<Transfer> transfer)
    {
        const RvoRemoteEndpoint &server = client.endpoint();
        CURL *curl = transfer->curl;
        curl_easy_reset(curl);
        transfer->download.clear();
        transfer->errorBody.clear();
        transfer->tooLarge = false;
        transfer->uploaded = 0;
        transfer->error[0] = 0;
        curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
        curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT_MS, long(server.connectTimeoutMs));
        curl_easy_setopt(curl, CURLOPT_PROXY, "");
        curl_easy_setopt(curl, CURLOPT_MAXFILESIZE_LARGE, curl_off_t(kMaxValueSize));
        if (server.usesTls())
            curl_easy_setopt(curl, CURLOPT_PIPEWAIT, 1L); // rather a stream than a connection
        if (!server.caFile.isEmpty())
            curl_easy_setopt(curl, CURLOPT_CAINFO, QFile::encodeName(server.caFile).constData());
        curl_easy_setopt(curl, CURLOPT_URL, transfer->url.constData());
        curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, transfer->error);
        curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, &Transfer::onBody);
        curl_easy_setopt(curl, CURLOPT_WRITEDATA, transfer.get());
        curl_easy_setopt(curl, CURLOPT_PRIVATE, transfer.get());
        // Each transfer gets what is left of the operation's time.
        const qint64 timeoutMs = server.operationTimeoutMs;
        const qint64 leftMs = timeoutMs - transfer->clock.elapsed();
        if (timeoutMs > 0 && leftMs <= 0) {
            end(std::move(transfer),
                unavailable(QStringLiteral("Operation timed out after %1 milliseconds")
                                    .arg(timeoutMs)));
            return false;
        }
        curl_easy_setopt(curl, CURLOPT_TIMEOUT_MS, long(timeoutMs > 0 ? leftMs : 0));
        if (transfer->method == RvoHttpDialect::Head) {
            curl_easy_setopt(curl, CURLOPT_NOBODY, 1L);
        } else if (RvoHttpDialect::isUpload(transfer->method)) {
            curl_easy_setopt(curl, CURLOPT_UPLOAD, 1L);
            curl_easy_setopt(curl, CURLOPT_INFILESIZE_LARGE,
                             curl_off_t(transfer->request.bytes.size()));
            curl_easy_setopt(curl, CURLOPT_READFUNCTION, &Transfer::onRead);
            curl_easy_setopt(curl, CURLOPT_READDATA, transfer.get());
            curl_easy_setopt(curl, CURLOPT_SEEKFUNCTION, &Transfer::onSeek);
            curl_easy_setopt(curl, CURLOPT_SEEKDATA, transfer.get());
        }
        curl_slist_free_all(transfer->headers);
        transfer->headers = client.m_Dialect->prepare(curl, transfer->method, transfer->request);
        if (transfer->headers)
            curl_easy_setopt(curl, CURLOPT_HTTPHEADER, transfer->headers);
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
        transfer->method = client.m_Dialect->first(request.kind);
        transfer->url = client.m_Dialect->url(request.name);
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

    // A transfer of the multi handle is over: the dialect says what follows.
    void finished(CURL *curl, CURLcode code)
    {
        curl_multi_remove_handle(multi, curl);
        auto found = transfers.find(curl);
        if (found == transfers.end())
            return;
        std::unique_ptr<Transfer> transfer = std::move(found->second);
        transfers.erase(found);
        RvoHttpDialect::Answer answer;
        if (code != CURLE_OK) {
            if (transfer->tooLarge || code == CURLE_FILESIZE_EXCEEDED)
                answer.failure = unavailable(QStringLiteral("body too large"));
            else
                answer.failure = unavailable(QString::fromUtf8(
                        transfer->error[0] ? transfer->error : curl_easy_strerror(code)));
        } else {
            curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &answer.status);
            curl_off_t retryAfter = 0;
            curl_easy_getinfo(curl, CURLINFO_RETRY_AFTER, &retryAfter);
            answer.retryAfterSeconds = qint64(retryAfter);
            answer.errorBody = std::move(transfer->errorBody);
        }
        const RvoHttpDialect::Step step
                = client.m_Dialect->answered(transfer->method, answer, transfer->attempt);
        switch (step.kind) {
        case RvoHttpDialect::Step::End:
            return end(std::move(transfer), step.result);
        case RvoHttpDialect::Step::Then:
            transfer->method = step.then;
            transfer->attempt = 1;
            launch(std::move(transfer));
            return;
        case RvoHttpDialect::Step::Retry: {
            // Never past the operation timeout: a pause that would end
            // there ends the request now, with the server's answer.
            const qint64 timeoutMs = client.endpoint().operationTimeoutMs;
            if (timeoutMs > 0 && transfer->clock.elapsed() + step.pauseMs >= timeoutMs)
                return end(std::move(transfer), step.result);
            ++transfer->attempt;
            waiting.emplace(nowMs() + step.pauseMs, std::move(transfer));
            return;
        }
        }
    }

    // Launches the transfers whose pause is over; the milliseconds until
    // the next one's ends (at most `longest`).
    long wake(long longest)
    {
        const qint64 now = nowMs();
        while (!waiting.empty() && waiting.begin()->first <= now) {
            std::unique_ptr<Transfer> transfer = std::move(waiting.begin()->second);
            waiting.erase(waiting.begin());
            launch(std::move(transfer));
        }
        if (waiting.empty())
            return longest;
        return long(qBound<qint64>(1, waiting.begin()->first - now, qint64(longest)));
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
            curl_multi_poll(multi, nullptr, 0, int(wake(1000)), nullptr);
        }
        const Result stopped = unavailable(QStringLiteral("client stopped"));
        while (!transfers.empty()) {
            CURL *curl = transfers.begin()->first;
            std::unique_ptr<Transfer> transfer = std::move(transfers.begin()->second);
            transfers.erase(transfers.begin());
            curl_multi_remove_handle(multi, curl);
            end(std::move(transfer), stopped);
        }
        while (!waiting.empty()) {
            std::unique_ptr<Transfer> transfer = std::move(waiting.begin()->second);
            waiting.erase(waiting.begin());
            end(std::move(transfer), stopped);
        }
    }
};

RvoHttpClient::RvoHttpClient(const RvoRemoteEndpoint &endpoint,
                             std::unique_ptr<RvoHttpDialect> dialect)
    : RvoRemoteClient(endpoint)
    , m_Dialect(std::move(dialect))
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
    Loop loop {*this, m_Multi, {}, {}, {}};
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
    start({RvoRemoteRequest::Get, name, QByteArray(), std::move(done), QByteArray()});
}

void RvoHttpClient::startPut(const QString &name, QByteArray bytes, Done done)
{
    RvoRemoteRequest request {RvoRemoteRequest::Put, name, std::move(bytes), std::move(done),
                              QByteArray()};
    m_Dialect->started(request);
    start(std::move(request));
}
