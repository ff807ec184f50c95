// Digest text through the registry's parser (RvoHashManager::getHash) and
// the collector's file-name checks. A text that names a digest must name the
// same interned digest as that digest's own text form, and be live while held.

#include "RvoDiskLayout_p.h"
#include "RvoHashManager.h"

#include <QLoggingCategory>
#include <QString>

#include <cstdint>
#include <cstdlib>

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    // Malformed texts are reported on the debug channel, once per input.
    QLoggingCategory::setFilterRules(QStringLiteral("rvoddi.debug=false"));
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QString text = QString::fromUtf8(reinterpret_cast<const char *>(data), int(size));
    RvoHashManager &registry = RvoHashManager::instance();
    // The collector: a candidate by its name's shape, then asked about.
    if (isBlockFileName(text))
        registry.isHashLive(text);
    const RvoSmartPointer<RvoDataHash> hash = registry.getHash(text);
    if (hash.isNull())
        return 0;
    const int bytes = hash->byteCount();
    if ((bytes != RvoDataHash::Skein256 && bytes != RvoDataHash::Skein512
         && bytes != RvoDataHash::Skein1024)
        || !registry.isHashLive(text) || registry.getHash(hash->toString()) != hash
        || isBlockFileName(hash->toString()) != (bytes == RvoDataHash::Skein512))
        std::abort();
    return 0;
}
