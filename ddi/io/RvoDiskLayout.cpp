#include "RvoDiskLayout_p.h"

#include "RvoDataHash.h"
#include "RvoDdiDiagnostics_p.h"

#include <QDir>
#include <QtEndian>

bool buildFilename(const RvoDataHash *hash, const QString &root, const QString &subCache,
                   quint32 bucketCount, QString &directory, QString &fileName)
{
    if (!hash) {
        qCDebug(lcDdi, "Null Hash Passed to Filename Builder");
        return false;
    }
    fileName = hash->toString();
    // A digest too short to have a first word, or a bucket count of 0 that
    // the manager never configures, fall into bucket 0.
    const quint32 firstWord
            = hash->byteCount() >= 4 ? qFromLittleEndian<quint32>(hash->data()) : 0u;
    const quint32 bucket = bucketCount > 0 ? firstWord % bucketCount : 0u;
    const QString separator = QDir::separator();
    directory = root + separator + subCache
            + QStringLiteral("%1/%2").arg(separator).arg(bucket, 0, 10) + separator;
    return true;
}

bool isBlockFileName(const QString &fileName)
{
    return fileName.count(QLatin1Char('-')) == 15;
}
