#ifndef RVOSELFCHECKSAMPLES_P_H
#define RVOSELFCHECKSAMPLES_P_H

#include <QByteArray>
#include <QString>
#include <QStringList>
#include <QVector>

// The sample input of a self-check run: every regular file of the data
// directory (not its subdirectories), in name order, cut into blocks of
// 256 KiB; the last block of a file may be shorter, an empty file gives no
// block. An empty or missing directory is first filled with generated
// images (RvoSampleImages). The blocks are held in memory.
class RvoSelfCheckSamples
{
public:
    static constexpr int kBlockSize = 262144;

    // Reads the directory, generating samples first when it has no file.
    // Empty on success; otherwise what went wrong.
    QString load(const QString &directory);

    QStringList files() const { return m_Files; }
    // The files this load generated (empty when the directory had samples).
    QStringList generatedFiles() const { return m_Generated; }
    const QVector<QByteArray> &blocks() const { return m_Blocks; }
    // "file, block N" of a block, for messages.
    QString origin(int block) const;
    qint64 totalBytes() const { return m_TotalBytes; }
    int largestBlock() const { return m_LargestBlock; }

    // Checks the sample images themselves: every PNG decodes, and every raw
    // pixel file holds the pixels of the PNG beside it. Empty when so;
    // otherwise the first difference. A damaged sample means the data
    // directory, or the disk under it, changed bytes.
    QString verifyImages() const;

private:
    QStringList m_Files;
    QStringList m_Generated;
    QVector<QByteArray> m_Blocks;
    QVector<int> m_BlockFile; // index into m_Files, per block
    QVector<int> m_BlockIndex; // the block's place in its file
    qint64 m_TotalBytes = 0;
    int m_LargestBlock = 0;
};

#endif // RVOSELFCHECKSAMPLES_P_H
