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

int rootIndex(const QString &hashText, int rootCount)
{
    if (rootCount <= 0 || hashText.size() < 4)
        return -1;
    // Files written earlier are found again only if this rule never changes.
    int sum = 0;
    for (int i = 3; i >= 0; --i) {
        const int digit = hashText.at(i).digitValue();
        sum += digit < 0 ? -1 : digit;
    }
    return sum % rootCount;
}

RvoMutex &blockFileLock()
{
    static RvoMutex lock;
    return lock;
}

namespace {

int code(char c)
{
    return uchar(c);
}

int code(QChar c)
{
    return c.unicode();
}

// The one rule for both spellings of a name.
template<typename Char>
bool hasBlockFileShape(const Char *name, qsizetype length)
{
    int dashes = 0;
    for (qsizetype i = 0; i < length; ++i)
        dashes += code(name[i]) == '-' ? 1 : 0;
    return dashes == 15;
}

template<typename Char>
bool hasTemporaryFileShape(const Char *name, qsizetype length)
{
    static const char prefix[] = "write-";
    static const char suffix[] = ".tmp";
    const qsizetype prefixLength = sizeof(prefix) - 1;
    const qsizetype suffixLength = sizeof(suffix) - 1;
    if (length < prefixLength + suffixLength)
        return false;
    for (qsizetype i = 0; i < prefixLength; ++i) {
        if (code(name[i]) != prefix[i])
            return false;
    }
    for (qsizetype i = 0; i < suffixLength; ++i) {
        if (code(name[length - suffixLength + i]) != suffix[i])
            return false;
    }
    return true;
}

} // namespace

bool isBlockFileName(const QString &fileName)
{
    return hasBlockFileShape(fileName.constData(), fileName.size());
}

bool isBlockFileName(const char *fileName, qsizetype length)
{
    return hasBlockFileShape(fileName, length);
}

bool isTemporaryFileName(const QString &fileName)
{
    return hasTemporaryFileShape(fileName.constData(), fileName.size());
}

bool isTemporaryFileName(const char *fileName, qsizetype length)
{
    return hasTemporaryFileShape(fileName, length);
}
