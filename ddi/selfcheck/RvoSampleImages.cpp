#include "RvoSampleImages_p.h"

#include <QConicalGradient>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QImage>
#include <QLinearGradient>
#include <QPainter>
#include <QPainterPath>
#include <QPolygonF>
#include <QRadialGradient>
#include <QRandomGenerator>
#include <QRegularExpression>

#include <cstring>

namespace {

struct SampleShape
{
    const char *name;
    int width;
    int height;
};

// About 12 MB of pixels, 60-odd blocks in both forms: enough for eviction
// under a small budget, small enough to keep the run short. The odd size
// leaves a short last block.
const SampleShape kSamples[] = {
        {"gradients", 1024, 768}, {"shapes", 800, 600},   {"noise", 512, 512},
        {"mixed", 640, 480},      {"patterns", 333, 257}, {"terrain", 1200, 900},
};

QColor randomColor(QRandomGenerator &random, int alpha)
{
    return QColor(int(random.bounded(256)), int(random.bounded(256)), int(random.bounded(256)),
                  alpha);
}

void fillGradients(QPainter &painter, QRandomGenerator &random, const QRect &area)
{
    QLinearGradient linear(area.topLeft(), area.bottomRight());
    for (int stop = 0; stop <= 4; ++stop)
        linear.setColorAt(stop / 4.0, randomColor(random, 255));
    painter.fillRect(area, linear);
    for (int i = 0; i < 6; ++i) {
        const QPointF centre(random.bounded(area.width()), random.bounded(area.height()));
        const qreal radius = 40 + random.bounded(area.width() / 3);
        QRadialGradient radial(centre, radius);
        radial.setColorAt(0, randomColor(random, 220));
        radial.setColorAt(1, randomColor(random, 0));
        painter.setPen(Qt::NoPen);
        painter.setBrush(radial);
        painter.drawEllipse(centre, radius, radius);
    }
    QConicalGradient conical(area.center(), random.bounded(360));
    conical.setColorAt(0, randomColor(random, 90));
    conical.setColorAt(0.5, randomColor(random, 30));
    conical.setColorAt(1, randomColor(random, 90));
    painter.fillRect(area, conical);
}

void drawShapes(QPainter &painter, QRandomGenerator &random, const QRect &area, int count)
{
    for (int i = 0; i < count; ++i) {
        const QRectF box(random.bounded(area.width()) - 40, random.bounded(area.height()) - 40,
                         20 + random.bounded(area.width() / 4),
                         20 + random.bounded(area.height() / 4));
        painter.setPen(QPen(randomColor(random, 255), 1 + random.bounded(6)));
        painter.setBrush(randomColor(random, 64 + int(random.bounded(192))));
        switch (random.bounded(4)) {
        case 0:
            painter.drawEllipse(box);
            break;
        case 1:
            painter.drawRoundedRect(box, 12, 12);
            break;
        case 2: {
            QPolygonF polygon;
            for (int corner = 0; corner < 5; ++corner)
                polygon << QPointF(box.left() + random.bounded(box.width()),
                                   box.top() + random.bounded(box.height()));
            painter.drawPolygon(polygon);
            break;
        }
        default: {
            QPainterPath path(box.topLeft());
            path.cubicTo(box.topRight(), box.bottomLeft(), box.bottomRight());
            painter.setBrush(Qt::NoBrush);
            painter.drawPath(path);
            break;
        }
        }
    }
}

// Adds up to `amplitude` of noise to every channel of every pixel.
void addNoise(QImage &image, QRandomGenerator &random, int amplitude)
{
    for (int y = 0; y < image.height(); ++y) {
        QRgb *line = reinterpret_cast<QRgb *>(image.scanLine(y));
        for (int x = 0; x < image.width(); ++x) {
            const quint32 noise = random.generate();
            auto channel = [&](int value, int shift) {
                const int delta = int((noise >> shift) & 0xff) * amplitude / 255 - amplitude / 2;
                return qBound(0, value + delta, 255);
            };
            const QRgb pixel = line[x];
            line[x] = qRgba(channel(qRed(pixel), 0), channel(qGreen(pixel), 8),
                            channel(qBlue(pixel), 16), qAlpha(pixel));
        }
    }
}

// Smooth landscape-like relief: a small random image scaled up smoothly.
void drawTerrain(QPainter &painter, QRandomGenerator &random, const QRect &area)
{
    QImage seed(24, 18, QImage::Format_ARGB32);
    for (int y = 0; y < seed.height(); ++y) {
        for (int x = 0; x < seed.width(); ++x) {
            const int height = int(random.bounded(256));
            seed.setPixel(x, y, qRgba(height / 3, 80 + height / 2, height / 4, 255));
        }
    }
    painter.drawImage(area,
                      seed.scaled(area.size(), Qt::IgnoreAspectRatio, Qt::SmoothTransformation));
}

bool writeFile(const QString &path, const QByteArray &bytes, QString *error)
{
    QFile file(path);
    if (file.open(QIODevice::WriteOnly | QIODevice::Truncate) && file.write(bytes) == bytes.size()
        && file.flush())
        return true;
    *error = QStringLiteral("cannot write %1: %2").arg(path, file.errorString());
    return false;
}

QByteArray rawPixels(const QImage &image)
{
    const QImage pixels = image.convertToFormat(QImage::Format_ARGB32);
    const int rowBytes = pixels.width() * 4;
    QByteArray bytes(qsizetype(rowBytes) * pixels.height(), Qt::Uninitialized);
    for (int y = 0; y < pixels.height(); ++y)
        std::memcpy(bytes.data() + qsizetype(y) * rowBytes, pixels.constScanLine(y),
                    size_t(rowBytes));
    return bytes;
}

} // namespace

QImage RvoSampleImages::draw(int index, int width, int height)
{
    QRandomGenerator random(quint32(0x5eed0000u + quint32(index)));
    QImage image(width, height, QImage::Format_ARGB32);
    // The pattern sample keeps transparent areas; the others are opaque.
    image.fill(index == 4 ? Qt::transparent : Qt::black);
    const QRect area = image.rect();
    {
        QPainter painter(&image);
        painter.setRenderHint(QPainter::Antialiasing);
        switch (index) {
        case 0: // gradients
            fillGradients(painter, random, area);
            break;
        case 1: // shapes on a gradient
            fillGradients(painter, random, area);
            drawShapes(painter, random, area, 120);
            break;
        case 2: // noise: nearly incompressible
            break;
        case 3: // a photo-like mix
            fillGradients(painter, random, area);
            drawShapes(painter, random, area, 40);
            break;
        case 4: // brush patterns, with transparency
            for (int i = 0; i < 30; ++i) {
                const Qt::BrushStyle style
                        = Qt::BrushStyle(Qt::Dense1Pattern + int(random.bounded(13)));
                painter.setPen(Qt::NoPen);
                painter.setBrush(
                        QBrush(randomColor(random, 128 + int(random.bounded(128))), style));
                painter.drawRect(QRect(int(random.bounded(width)), int(random.bounded(height)),
                                       40 + int(random.bounded(120)),
                                       40 + int(random.bounded(120))));
            }
            break;
        default: // terrain
            drawTerrain(painter, random, area);
            drawShapes(painter, random, area, 25);
            break;
        }
    }
    if (index == 2) {
        for (int y = 0; y < height; ++y) {
            QRgb *line = reinterpret_cast<QRgb *>(image.scanLine(y));
            for (int x = 0; x < width; ++x)
                line[x] = random.generate() | 0xff000000u;
        }
    } else if (index == 3 || index == 5) {
        addNoise(image, random, 24);
    }
    return image;
}

QStringList RvoSampleImages::generate(const QString &directory, QString *error)
{
    QStringList written;
    if (!QDir().mkpath(directory)) {
        *error = QStringLiteral("cannot make the directory %1").arg(directory);
        return written;
    }
    int index = 0;
    for (const SampleShape &shape : kSamples) {
        const QImage image = draw(index, shape.width, shape.height);
        const QString base
                = QDir(directory).filePath(QStringLiteral("sample-%1-%2-%3x%4")
                                                   .arg(index + 1, 2, 10, QLatin1Char('0'))
                                                   .arg(QLatin1String(shape.name))
                                                   .arg(shape.width)
                                                   .arg(shape.height));
        ++index;
        const QString png = base + QLatin1Char('.') + pngSuffix();
        if (!image.save(png, "PNG")) {
            *error = QStringLiteral("cannot save %1").arg(png);
            return written;
        }
        written << png;
        const QString raw = base + QLatin1Char('.') + rawSuffix();
        if (!writeFile(raw, rawPixels(image), error))
            return written;
        written << raw;
    }
    return written;
}

QString RvoSampleImages::compareRawWithPng(const QString &rawPath)
{
    const QFileInfo raw(rawPath);
    const QString png = raw.path() + QLatin1Char('/') + raw.completeBaseName() + QLatin1Char('.')
            + pngSuffix();
    if (!QFileInfo::exists(png))
        return QString();
    const QRegularExpression sizePattern(QStringLiteral("-(\\d+)x(\\d+)$"));
    const QRegularExpressionMatch size = sizePattern.match(raw.completeBaseName());
    const QImage image(png, "PNG");
    if (image.isNull())
        return QStringLiteral("expected %1 to decode as a PNG image, saw an unreadable file")
                .arg(QFileInfo(png).fileName());
    if (size.hasMatch()
        && (image.width() != size.captured(1).toInt()
            || image.height() != size.captured(2).toInt())) {
        return QStringLiteral("expected %1 to be %2x%3 pixels, saw %4x%5")
                .arg(QFileInfo(png).fileName(), size.captured(1), size.captured(2))
                .arg(image.width())
                .arg(image.height());
    }
    QFile file(rawPath);
    if (!file.open(QIODevice::ReadOnly))
        return QStringLiteral("expected to read %1, saw: %2")
                .arg(raw.fileName(), file.errorString());
    const QByteArray stored = file.readAll();
    const QByteArray decoded = rawPixels(image);
    if (stored.size() != decoded.size()) {
        return QStringLiteral("expected %1 to hold %2 bytes of pixels of %3, saw %4 bytes")
                .arg(raw.fileName())
                .arg(decoded.size())
                .arg(QFileInfo(png).fileName())
                .arg(stored.size());
    }
    for (qsizetype i = 0; i < stored.size(); ++i) {
        if (stored.at(i) != decoded.at(i)) {
            return QStringLiteral("expected %1 to hold the pixels of %2, saw a difference at "
                                  "byte %3")
                    .arg(raw.fileName(), QFileInfo(png).fileName())
                    .arg(i);
        }
    }
    return QString();
}
