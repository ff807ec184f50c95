// Group blocks: an ordered list of references stored as one block. The
// payload's format is RvoGroupBlockFormat's.

#include "RvoDataBlockManager.h"

#include "RvoConstAccessor.h"
#include "RvoDataReference.h"
#include "RvoDdiDiagnostics_p.h"
#include "RvoGroupBlockFormat_p.h"
#include "RvoHashManager.h"

#include <cstring>

RvoDataReference RvoDataBlockManager::makeGroupBlock(const QVector<RvoDataReference> &members)
{
    QVector<RvoSmartPointer<RvoDataHash>> digests;
    digests.reserve(members.size());
    qint64 total = RvoGroupBlockFormat::kHeaderSize;
    int digestSize = 0;
    for (int i = 0; i < members.size(); ++i) {
        RvoSmartPointer<RvoDataHash> digest = members.at(i).hashPtr(); // waits if pending
        if (!digest || digest->isEmpty()) {
            rvoReport(QStringLiteral("Group member %1 has no digest").arg(i));
            return RvoDataReference();
        }
        // A group records one digest size: mixed sizes could not be read back.
        if (i > 0 && digest->byteCount() != digestSize) {
            rvoReport(QStringLiteral("Group member %1 has a digest of %2 bytes, not %3")
                              .arg(i)
                              .arg(digest->byteCount())
                              .arg(digestSize));
            return RvoDataReference();
        }
        digestSize = digest->byteCount();
        total += digestSize;
        digests.append(digest);
    }

    QByteArray payload(int(total), '\0');
    uchar *out = reinterpret_cast<uchar *>(payload.data());
    RvoGroupBlockFormat::writeHeader(out, digestSize, int(members.size()));
    uchar *position = out + RvoGroupBlockFormat::kHeaderSize;
    for (const RvoSmartPointer<RvoDataHash> &digest : std::as_const(digests)) {
        std::memcpy(position, digest->data(), size_t(digestSize));
        position += digestSize;
    }
    return addBlock(payload, RvoModifyAccessor::CacheContent, false);
}

QVector<RvoDataReference> RvoDataBlockManager::extractGroupBlock(const RvoDataReference &group)
{
    QVector<RvoDataReference> members;
    const RvoConstAccessor accessor = group.constAccessor();
    RvoGroupBlockFormat::Members found;
    if (!RvoGroupBlockFormat::parse(accessor.data(), accessor.size(), &found))
        return members;
    members.reserve(found.count);
    RvoHashManager &registry = RvoHashManager::instance();
    const uchar *position = found.digests;
    for (int i = 0; i < found.count; ++i) {
        const RvoSmartPointer<RvoDataHash> digest
                = registry.addHash(new RvoDataHash(RvoDataHash::Size(found.digestSize), position));
        position += found.digestSize;
        members.append(getReference(digest.data()));
    }
    return members;
}
