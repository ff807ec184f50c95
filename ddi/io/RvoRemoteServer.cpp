#include "RvoRemoteServer_p.h"

#include "RvoHttpRemoteServer_p.h"
#include "RvoRedisRemoteServer_p.h"

#include <limits>

#if QT_VERSION >= QT_VERSION_CHECK(6, 0, 0)
const qint64 RvoRemoteServer::kMaxValueSize = 12 + qint64(std::numeric_limits<qint32>::max());
#else
const qint64 RvoRemoteServer::kMaxValueSize = std::numeric_limits<int>::max() - 64;
#endif

std::unique_ptr<RvoRemoteServer> RvoRemoteServer::create(const RvoRemoteEndpoint &endpoint)
{
    switch (endpoint.scheme) {
    case RvoRemoteEndpoint::Http:
    case RvoRemoteEndpoint::Https:
        return std::make_unique<RvoHttpRemoteServer>(endpoint);
    case RvoRemoteEndpoint::Redis:
        return std::make_unique<RvoRedisRemoteServer>(endpoint);
    }
    return nullptr;
}
