// A group block's payload through the parser extractGroupBlock uses. A
// payload taken as a group must name members that make digests of the
// recorded size, and must be what makeGroupBlock writes for them.

#include "RvoDataHash.h"
#include "RvoGroupBlockFormat_p.h"

#include <QByteArray>

#include <cstdint>
#include <cstdlib>
#include <cstring>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    RvoGroupBlockFormat::Members members;
    if (!RvoGroupBlockFormat::parse(data, qint64(size), &members))
        return 0;
    QByteArray written(RvoGroupBlockFormat::kHeaderSize, '\0');
    RvoGroupBlockFormat::writeHeader(reinterpret_cast<uchar *>(written.data()), members.digestSize,
                                     members.count);
    for (int i = 0; i < members.count; ++i) {
        const uchar *bytes = members.digests + qint64(i) * members.digestSize;
        const RvoDataHash digest(RvoDataHash::Size(members.digestSize), bytes);
        if (digest.byteCount() != members.digestSize
            || std::memcmp(digest.data(), bytes, size_t(members.digestSize)) != 0)
            std::abort();
        written.append(reinterpret_cast<const char *>(digest.data()), digest.byteCount());
    }
    if (std::memcmp(written.constData(), data, size_t(written.size())) != 0)
        std::abort();
    return 0;
}
