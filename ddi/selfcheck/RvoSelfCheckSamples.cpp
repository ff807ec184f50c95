#include "RvoSelfCheckSamples_p.h"

#include "RvoSampleImages_p.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QImageReader>

namespace {

QFileInfoList regularFiles(const QString &directory)
{
    return QDir(directory).entryInfoList(QDir::Files | QDir::Hidden | QDir::NoDotAndDotDot,
                                         QDir::Name);
}

} // namespace

QString RvoSelfCheckSamples::load(const QString &directory)
{
    if (directory.isEmpty())
        return QStringLiteral("expected a data directory, saw none set");
    QFileInfoList entries = regularFiles(directory);
    if (entries.isEmpty()) {
        QString error;
        m_Generated = RvoSampleImages::generate(directory, &error);
        if (!error.isEmpty())
            return QStringLiteral("expected to generate samples in %1, saw: %2")
                    .arg(directory, error);
        entries = regularFiles(directory);
    }
    for (const QFileInfo &entry : std::as_const(entries)) {
        QFile file(entry.filePath());
        if (!file.open(QIODevice::ReadOnly))
            return QStringLiteral("expected to read %1, saw: %2")
                    .arg(entry.filePath(), file.errorString());
        const int fileIndex = int(m_Files.size());
        m_Files << entry.filePath();
        for (int index = 0;; ++index) {
            const QByteArray block = file.read(kBlockSize);
            if (block.isEmpty())
                break;
            m_Blocks << block;
            m_BlockFile << fileIndex;
            m_BlockIndex << index;
            m_TotalBytes += block.size();
            m_LargestBlock = qMax(m_LargestBlock, int(block.size()));
        }
        if (file.error() != QFileDevice::NoError)
            return QStringLiteral("expected to read %1, saw: %2")
                    .arg(entry.filePath(), file.errorString());
    }
    if (m_Blocks.isEmpty())
        return QStringLiteral("expected sample bytes in %1, saw only empty files").arg(directory);
    return QString();
}

QString RvoSelfCheckSamples::origin(int block) const
{
    return QStringLiteral("%1, block %2")
            .arg(QFileInfo(m_Files.value(m_BlockFile.value(block))).fileName())
            .arg(m_BlockIndex.value(block));
}

QString RvoSelfCheckSamples::verifyImages() const
{
    for (const QString &path : m_Files) {
        const QFileInfo info(path);
        const QString suffix = info.suffix().toLower();
        if (suffix == RvoSampleImages::pngSuffix()) {
            QImageReader reader(path, "PNG");
            if (reader.read().isNull())
                return QStringLiteral("expected %1 to decode as a PNG image, saw: %2")
                        .arg(info.fileName(), reader.errorString());
        } else if (suffix == RvoSampleImages::rawSuffix()) {
            const QString difference = RvoSampleImages::compareRawWithPng(path);
            if (!difference.isEmpty())
                return difference;
        }
    }
    return QString();
}
