// Group blocks: an ordered list of references stored as one block.
//
// Payload (little-endian), stored, hashed and written like any block:
//     offset 0   qint64  magic 1337
//     offset 8   qint32  digest size of the members (0 for an empty group)
//     offset 12  qint32  member count
//     offset 16  the members' digest bytes, one after another, in order

#include "RvoDataBlockManager.h"

#include "RvoConstAccessor.h"
#include "RvoDataReference.h"
#include "RvoDdiDiagnostics_p.h"
#include "RvoHashManager.h"

#include <QtEndian>

#include <cstring>

namespace {

constexpr qint64 kGroupMagic = 1337;
constexpr int kGroupHeaderSize = 16;

} // namespace

RvoDataReference RvoDataBlockManager::makeGroupBlock(const QVector<RvoDataReference> &members)
{
    QVector<RvoSmartPointer<RvoDataHash>> digests;
    digests.reserve(members.size());
    qint64 total = kGroupHeaderSize;
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
    qToLittleEndian<qint64>(kGroupMagic, out);
    qToLittleEndian<qint32>(digestSize, out + 8);
    qToLittleEndian<qint32>(qint32(members.size()), out + 12);
    uchar *position = out + kGroupHeaderSize;
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
    const uchar *payload = accessor.data();
    const qint64 size = accessor.size();
    if (!payload || size < kGroupHeaderSize || qFromLittleEndian<qint64>(payload) != kGroupMagic)
        return members;
    const qint32 digestSize = qFromLittleEndian<qint32>(payload + 8);
    const qint32 count = qFromLittleEndian<qint32>(payload + 12);
    // The header is not trusted: the members it promises must be there.
    if (count < 0
        || (count > 0 && digestSize != RvoDataHash::Skein256 && digestSize != RvoDataHash::Skein512
            && digestSize != RvoDataHash::Skein1024)
        || size < kGroupHeaderSize + qint64(count) * digestSize)
        return members;

    members.reserve(count);
    RvoHashManager &registry = RvoHashManager::instance();
    const uchar *position = payload + kGroupHeaderSize;
    for (qint32 i = 0; i < count; ++i) {
        const RvoSmartPointer<RvoDataHash> digest
                = registry.addHash(new RvoDataHash(RvoDataHash::Size(digestSize), position));
        position += digestSize;
        members.append(getReference(digest.data()));
    }
    return members;
}
