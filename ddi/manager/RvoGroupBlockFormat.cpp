#include "RvoGroupBlockFormat_p.h"

#include "RvoDataHash.h"

#include <QtEndian>

bool RvoGroupBlockFormat::parse(const uchar *payload, qint64 size, Members *members)
{
    if (!payload || size < kHeaderSize || qFromLittleEndian<qint64>(payload) != kMagic)
        return false;
    const qint32 digestSize = qFromLittleEndian<qint32>(payload + 8);
    const qint32 count = qFromLittleEndian<qint32>(payload + 12);
    if (count < 0
        || (count > 0 && digestSize != RvoDataHash::Skein256 && digestSize != RvoDataHash::Skein512
            && digestSize != RvoDataHash::Skein1024)
        || size - kHeaderSize < qint64(count) * digestSize)
        return false;
    if (members) {
        members->digestSize = digestSize;
        members->count = count;
        members->digests = payload + kHeaderSize;
    }
    return true;
}

void RvoGroupBlockFormat::writeHeader(uchar *out, int digestSize, int count)
{
    qToLittleEndian<qint64>(kMagic, out);
    qToLittleEndian<qint32>(digestSize, out + 8);
    qToLittleEndian<qint32>(count, out + 12);
}
