#include "RvoRemoteClient_p.h"

#include "RvoHttpClient_p.h"
#include "RvoRedisClient_p.h"

#include <limits>

#if QT_VERSION >= QT_VERSION_CHECK(6, 0, 0)
const qint64 RvoRemoteClient::kMaxValueSize = 12 + qint64(std::numeric_limits<qint32>::max());
#else
const qint64 RvoRemoteClient::kMaxValueSize = std::numeric_limits<int>::max() - 64;
#endif

std::unique_ptr<RvoRemoteClient> RvoRemoteClient::create(const RvoRemoteEndpoint &endpoint)
{
    switch (endpoint.scheme) {
    case RvoRemoteEndpoint::Http:
    case RvoRemoteEndpoint::Https:
        return std::make_unique<RvoHttpClient>(endpoint);
    case RvoRemoteEndpoint::Redis:
        return std::make_unique<RvoRedisClient>(endpoint);
    }
    return nullptr;
}
