#include "ManagerTestAccess.h"
#include "OutputCapture.h"
#include "RvoSampleImages_p.h"
#include "RvoSelfCheckSamples_p.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QImage>
#include <QTemporaryDir>

#include <cstring>

#include <gtest/gtest.h>

namespace {

QByteArray pattern(int size, int seed)
{
    QByteArray bytes(size, Qt::Uninitialized);
    for (int i = 0; i < size; ++i)
        bytes[i] = char((i * 31 + seed) & 0xff);
    return bytes;
}

} // namespace

TEST(RvoSelfCheckSamples, FilesAreCutIntoBlocksOf256KiBInNameOrder)
{
    QTemporaryDir data;
    const QByteArray big = pattern(600000, 1);
    const QByteArray small = pattern(1000, 2);
    ASSERT_TRUE(writeFile(data.filePath(QStringLiteral("b-big.bin")), big));
    ASSERT_TRUE(writeFile(data.filePath(QStringLiteral("a-small.bin")), small));

    RvoSelfCheckSamples samples;
    EXPECT_EQ(samples.load(data.path()), QString());
    ASSERT_EQ(samples.blocks().size(), 4);
    EXPECT_EQ(samples.blocks().at(0), small);
    EXPECT_EQ(samples.blocks().at(1), big.left(262144));
    EXPECT_EQ(samples.blocks().at(2), big.mid(262144, 262144));
    EXPECT_EQ(samples.blocks().at(3), big.mid(524288));
    EXPECT_EQ(samples.totalBytes(), 601000);
    EXPECT_EQ(samples.largestBlock(), 262144);
    EXPECT_EQ(samples.origin(3), QStringLiteral("b-big.bin, block 2"));
    EXPECT_TRUE(samples.generatedFiles().isEmpty());
}

TEST(RvoSelfCheckSamples, SubdirectoriesAndEmptyFilesGiveNoBlock)
{
    QTemporaryDir data;
    ASSERT_TRUE(writeFile(data.filePath(QStringLiteral("empty")), QByteArray()));
    ASSERT_TRUE(writeFile(data.filePath(QStringLiteral("nested/deeper")), pattern(10, 4)));
    RvoSelfCheckSamples samples;
    EXPECT_EQ(samples.load(data.path()),
              QStringLiteral("expected sample bytes in %1, saw only empty files").arg(data.path()));

    ASSERT_TRUE(writeFile(data.filePath(QStringLiteral("one")), pattern(10, 3)));
    RvoSelfCheckSamples withOne;
    EXPECT_EQ(withOne.load(data.path()), QString());
    EXPECT_EQ(withOne.files().size(), 2);
    ASSERT_EQ(withOne.blocks().size(), 1);
    EXPECT_EQ(withOne.blocks().first(), pattern(10, 3));
}

TEST(RvoSelfCheckSamples, EmptyDirectoryIsFilledWithGeneratedImagesFirst)
{
    QTemporaryDir data;
    RvoSelfCheckSamples samples;
    EXPECT_EQ(samples.load(data.path()), QString());
    EXPECT_EQ(samples.generatedFiles().size(), 12);
    QStringList generated = samples.generatedFiles();
    generated.sort();
    EXPECT_EQ(samples.files(), generated); // read in name order
    EXPECT_GT(samples.blocks().size(), 40);
    EXPECT_EQ(samples.verifyImages(), QString());
}

TEST(RvoSampleImages, RawFileHoldsThePngPixelsRowAfterRow)
{
    QTemporaryDir data;
    QString error;
    const QStringList files = RvoSampleImages::generate(data.path(), &error);
    EXPECT_EQ(error, QString());
    const QString png
            = files.filter(QStringLiteral("patterns")).filter(QStringLiteral(".png")).value(0);
    const QString raw
            = files.filter(QStringLiteral("patterns")).filter(QStringLiteral(".argb32")).value(0);
    ASSERT_TRUE(png.endsWith(QStringLiteral("-333x257.png"))) << png.toStdString();
    const QImage image = QImage(png).convertToFormat(QImage::Format_ARGB32);
    ASSERT_EQ(image.size(), QSize(333, 257));
    const QByteArray bytes = readFile(raw);
    ASSERT_EQ(bytes.size(), 333 * 257 * 4);
    // The last row, where padding would show.
    EXPECT_EQ(std::memcmp(bytes.constData() + 256 * 333 * 4, image.constScanLine(256), 333 * 4), 0);
    // The pattern sample keeps transparent pixels.
    EXPECT_TRUE(image.hasAlphaChannel());
}

TEST(RvoSampleImages, RawFileThatDisagreesWithItsPngIsReported)
{
    QTemporaryDir data;
    QImage image(4, 3, QImage::Format_ARGB32);
    image.fill(Qt::red);
    ASSERT_TRUE(image.save(data.filePath(QStringLiteral("tile-4x3.png")), "PNG"));
    ASSERT_TRUE(image.save(data.filePath(QStringLiteral("tile-5x3.png")), "PNG"));
    const struct
    {
        const char *raw;
        int bytes;
        QString expected;
    } cases[] = {
            {"alone-2x2.argb32", 16, QString()}, // no PNG beside it: not compared
            {"tile-4x3.argb32", 40,
             QStringLiteral("expected tile-4x3.argb32 to hold 48 bytes of pixels of tile-4x3.png, "
                            "saw 40 bytes")},
            {"tile-5x3.argb32", 60,
             QStringLiteral("expected tile-5x3.png to be 5x3 pixels, saw 4x3")},
    };
    for (const auto &c : cases) {
        const QString raw = data.filePath(QLatin1String(c.raw));
        ASSERT_TRUE(writeFile(raw, QByteArray(c.bytes, 'x')));
        EXPECT_EQ(RvoSampleImages::compareRawWithPng(raw), c.expected);
    }
}

TEST(RvoSelfCheckSamples, UnreadablePngIsReportedByVerifyImages)
{
    QTemporaryDir data;
    ASSERT_TRUE(writeFile(data.filePath(QStringLiteral("broken.png")), QByteArray("\x89PNG not")));
    RvoSelfCheckSamples samples;
    ASSERT_EQ(samples.load(data.path()), QString());
    EXPECT_TRUE(samples.verifyImages().startsWith(
            QStringLiteral("expected broken.png to decode as a PNG image, saw: ")))
            << samples.verifyImages().toStdString();
}
