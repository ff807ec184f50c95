#include "RvoRemoteClient_p.h"

#ifdef RVODDI_HAVE_REMOTE_HTTP
#include "RvoHttpClient_p.h"
#include "RvoS3Dialect_p.h"
#endif
#ifdef RVODDI_HAVE_REMOTE_REDIS
#include "RvoRedisClient_p.h"
#endif

#include <future>
#include <limits>

#if QT_VERSION >= QT_VERSION_CHECK(6, 0, 0)
const qint64 RvoRemoteClient::kMaxValueSize = 12 + qint64(std::numeric_limits<qint32>::max());
#else
const qint64 RvoRemoteClient::kMaxValueSize = std::numeric_limits<int>::max() - 64;
#endif

std::unique_ptr<RvoRemoteClient> RvoRemoteClient::create(const RvoRemoteEndpoint &endpoint)
{
    // A kind this build lacks never gets here (RvoRemoteSpec refuses it);
    // should it, there is no client rather than a crash.
    switch (endpoint.scheme) {
    case RvoRemoteEndpoint::Http:
    case RvoRemoteEndpoint::Https:
#ifdef RVODDI_HAVE_REMOTE_HTTP
        return std::make_unique<RvoHttpClient>(endpoint,
                                               std::make_unique<RvoHttpDialect>(endpoint));
#else
        break;
#endif
    case RvoRemoteEndpoint::S3:
#ifdef RVODDI_HAVE_REMOTE_HTTP
        return std::make_unique<RvoHttpClient>(endpoint, std::make_unique<RvoS3Dialect>(endpoint));
#else
        break;
#endif
    case RvoRemoteEndpoint::Redis:
#ifdef RVODDI_HAVE_REMOTE_REDIS
        return std::make_unique<RvoRedisClient>(endpoint);
#else
        break;
#endif
    }
    return nullptr;
}

RvoRemoteClient::Result RvoRemoteClient::get(const QString &name, QByteArray *bytes)
{
    std::promise<std::pair<Result, QByteArray>> ended;
    startGet(name, [&ended](const Result &result, QByteArray fetched) {
        ended.set_value({result, std::move(fetched)});
    });
    auto outcome = ended.get_future().get();
    *bytes = outcome.first.status == Found ? std::move(outcome.second) : QByteArray();
    return outcome.first;
}

RvoRemoteClient::Result RvoRemoteClient::put(const QString &name, const QByteArray &bytes)
{
    std::promise<Result> ended;
    startPut(name, bytes, [&ended](const Result &result, QByteArray) { ended.set_value(result); });
    return ended.get_future().get();
}
