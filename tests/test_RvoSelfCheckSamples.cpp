#include "ManagerTestAccess.h"
#include "RvoSampleImages_p.h"
#include "RvoSelfCheckSamples_p.h"

#include <QImage>

#include <cstring>

// Subdirectories and empty files give no block; only empty files are said.
TEST(RvoSelfCheckSamples, FilesAreCutIntoBlocksInNameOrder)
{
    QTemporaryDir data;
    const QByteArray big = testContent(1, 600000);
    const QByteArray small = testContent(2, 1000);
    ASSERT_TRUE(writeFile(data.filePath("b-big.bin"), big));
    ASSERT_TRUE(writeFile(data.filePath("a-small.bin"), small));
    ASSERT_TRUE(writeFile(data.filePath("c-empty"), QByteArray()));
    ASSERT_TRUE(writeFile(data.filePath("nested/deeper"), small));
    RvoSelfCheckSamples samples;
    EXPECT_EQ(samples.load(data.path()), QString());
    EXPECT_EQ(samples.files().size(), 3);
    EXPECT_TRUE(samples.blocks()
                == (QVector<QByteArray> {small, big.left(262144), big.mid(262144, 262144),
                                         big.mid(524288)}));
    EXPECT_EQ(samples.totalBytes(), 601000);
    EXPECT_EQ(samples.largestBlock(), 262144);
    EXPECT_EQ(samples.origin(3), "b-big.bin, block 2");

    QTemporaryDir empty;
    ASSERT_TRUE(writeFile(empty.filePath("empty"), QByteArray()));
    EXPECT_EQ(RvoSelfCheckSamples().load(empty.path()),
              QString("expected sample bytes in %1, saw only empty files").arg(empty.path()));
}

// An empty directory is filled with generated images (DdiTester's cases
// count and compare them); each raw file holds its PNG's pixels row after
// row as ARGB32, alpha included (the pattern sample has transparent ones).
TEST(RvoSelfCheckSamples, GeneratedRawFileHoldsItsPngsPixels)
{
    QTemporaryDir dir;
    RvoSelfCheckSamples samples;
    EXPECT_EQ(samples.load(dir.path()), QString());
    const QStringList patterns = samples.generatedFiles().filter("patterns");
    const QString png = patterns.filter(".png").value(0);
    ASSERT_TRUE(png.endsWith("-333x257.png")) << png.toStdString();
    const QImage image = QImage(png).convertToFormat(QImage::Format_ARGB32);
    ASSERT_EQ(image.size(), QSize(333, 257));
    const QByteArray bytes = readFile(patterns.filter(".argb32").value(0));
    ASSERT_EQ(bytes.size(), 333 * 257 * 4);
    // The last row, where padding would show.
    EXPECT_EQ(std::memcmp(bytes.constData() + 256 * 333 * 4, image.constScanLine(256), 333 * 4), 0);
}

// A raw file without a PNG beside it is not compared.
TEST(RvoSampleImages, RawFileThatDisagreesWithThePngOfItsNameIsReported)
{
    QTemporaryDir data;
    QImage image(4, 3, QImage::Format_ARGB32);
    image.fill(Qt::red);
    ASSERT_TRUE(image.save(data.filePath("tile-4x3.png"), "PNG"));
    ASSERT_TRUE(image.save(data.filePath("tile-5x3.png"), "PNG"));
    const struct
    {
        const char *raw;
        int bytes;
        QString expected;
    } cases[] = {
            {"alone-2x2.argb32", 16, QString()},
            {"tile-4x3.argb32", 40,
             "expected tile-4x3.argb32 to hold 48 bytes of pixels of tile-4x3.png, "
             "saw 40 bytes"},
            {"tile-5x3.argb32", 60, "expected tile-5x3.png to be 5x3 pixels, saw 4x3"},
    };
    for (const auto &c : cases) {
        const QString raw = data.filePath(QLatin1String(c.raw));
        ASSERT_TRUE(writeFile(raw, QByteArray(c.bytes, 'x')));
        EXPECT_EQ(RvoSampleImages::compareRawWithPng(raw), c.expected);
    }
}

TEST(RvoSampleImages, UnreadablePngIsReported)
{
    QTemporaryDir data;
    ASSERT_TRUE(writeFile(data.filePath("broken.png"), QByteArray("\x89PNG not")));
    RvoSelfCheckSamples samples;
    ASSERT_EQ(samples.load(data.path()), QString());
    EXPECT_TRUE(samples.verifyImages().startsWith(
            "expected broken.png to decode as a PNG image, saw: "))
            << samples.verifyImages().toStdString();
}
