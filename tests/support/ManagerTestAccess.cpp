#include "ManagerTestAccess.h"

#include "RvoBlockCodec_p.h"
#include "RvoBlockFile_p.h"
#include "RvoDiskLayout_p.h"

#include <QDateTime>
#include <QDirIterator>

ManagerSetup::ManagerSetup(int rootCount, const QString &subCache, int buckets, qint64 budget)
{
    for (int i = 0; i < rootCount; ++i) {
        m_Dirs.push_back(std::make_unique<QTemporaryDir>());
        m_Roots.append(m_Dirs.back()->path());
    }
    manager().setup(m_Roots, budget, buckets);
    if (!subCache.isEmpty())
        manager().setSubCache(subCache);
}

ManagerSetup::~ManagerSetup()
{
    manager().cleanUp();
}

RvoDataReference addBlock(const QByteArray &content, RvoModifyAccessor::Caching caching, bool sync)
{
    return manager().addBlock(content, caching, sync);
}

QString digestName(const QStringList &firstWords)
{
    QStringList words = firstWords;
    while (words.size() < 16)
        words.append("7");
    return words.join('-');
}

QByteArray testContent(int seed, int size)
{
    QByteArray bytes(size, Qt::Uninitialized);
    quint32 noise = quint32(seed) * 2654435761u + 1u;
    for (int i = 0; i < size; ++i) {
        noise = noise * 1103515245u + 12345u;
        bytes[i] = char((i % 256 + i / 256 + seed * 13 + ((noise >> 28) & 3)) & 0xff);
    }
    return bytes;
}

QByteArray bytesOf(const RvoDataBlock *block)
{
    return QByteArray(reinterpret_cast<const char *>(block->constData()), int(block->size()));
}

QByteArray bytesOf(const RvoDataReference &ref)
{
    const RvoConstAccessor accessor = ref.constAccessor();
    return QByteArray(reinterpret_cast<const char *>(accessor.data()), int(accessor.size()));
}

QStringList lostBlocks(const QByteArray &lines)
{
    QStringList lost;
    for (const QByteArray &line : lines.split('\n')) {
        const QList<QByteArray> fields = line.split(' ');
        if (fields.size() != 3)
            continue;
        const QString text = QString::fromLatin1(fields.at(2));
        const RvoSmartPointer<RvoDataHash> hash = RvoHashManager::instance().getHash(text);
        const RvoDataReference ref = manager().getReference(hash.data());
        if (bytesOf(ref) != testContent(fields.at(0).toInt(), fields.at(1).toInt()))
            lost.append(text);
    }
    return lost;
}

QByteArray blockFileBytes(qint64 size, const QByteArray &payload)
{
    return patched(patched(QByteArray(12, '\0'), 0, size), 8, qint32(payload.size())) + payload;
}

QByteArray blockFile(const QByteArray &content, const RvoBlockCodecSetting &setting)
{
    if (setting.kind() == RvoBlockCodecSetting::Zlib)
        return blockFileBytes(content.size(), qCompress(content, 2));
    return blockFileBytes(content.size(),
                          RvoBlockCodec(setting).compress(content.constData(), content.size()));
}

QString blockPath(const QString &root, const QString &subCache, const RvoDataHash *hash)
{
    QString directory, name;
    buildFilename(hash, root, subCache, 10, directory, name);
    return directory + QLatin1Char('/') + name;
}

QByteArray blockIn(const QString &path)
{
    const QByteArray file = readFile(path);
    RvoBlockCodec codec;
    QByteArray content;
    RvoBlockFile::decode(codec, file.constData(), file.size(), &content);
    return content;
}

DiskState checkDisk(const QStringList &roots)
{
    DiskState state;
    RvoBlockCodec codec;
    for (const QString &root : roots) {
        QDirIterator files(root, QDir::Files, QDirIterator::Subdirectories);
        while (files.hasNext()) {
            const QString path = files.next();
            if (isBlockFileName(files.fileName())) {
                ++state.blockFiles;
                const RvoBlockFile::Fault fault = RvoBlockFile::verifyFile(codec, path);
                if (fault != RvoBlockFile::Sound)
                    state.corrupt.append(path + QStringLiteral(": ")
                                         + QLatin1String(RvoBlockFile::faultText(fault)));
            } else if (files.fileName().endsWith(QLatin1String(".tmp"))) {
                state.temporaries.append(path);
            }
        }
    }
    return state;
}

bool writeFile(const QString &path, const QByteArray &bytes)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    return file.open(QIODevice::WriteOnly | QIODevice::Truncate)
            && file.write(bytes) == bytes.size();
}

QByteArray readFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

bool setAge(const QString &path, qint64 seconds)
{
    QFile file(path);
    return file.open(QIODevice::ReadWrite)
            && file.setFileTime(QDateTime::currentDateTime().addSecs(-seconds),
                                QFileDevice::FileModificationTime);
}
