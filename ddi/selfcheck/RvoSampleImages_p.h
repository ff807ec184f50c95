#ifndef RVOSAMPLEIMAGES_P_H
#define RVOSAMPLEIMAGES_P_H

#include <QString>
#include <QStringList>

class QImage;

// The self-check's own sample input, for a machine that has none: images
// like the tiles a host stores (gradients, shapes, noise), drawn with
// QPainter on QImage, so no display is needed (and no text is drawn, so no
// fonts either). Each image is saved twice, as "NAME-WxH.png" and as its raw
// ARGB32 pixels, row after row without padding, as "NAME-WxH.argb32". The
// images are the same on every run: every random choice comes from a fixed
// seed.
class RvoSampleImages
{
public:
    // Draws every image and saves both files in `directory`, which is made
    // when missing. Returns the files written; on failure also sets *error.
    static QStringList generate(const QString &directory, QString *error);

    // Whether the raw file `rawPath` ("...-WxH.argb32") holds exactly the
    // pixels of the PNG beside it. Empty when it does, or when there is no
    // PNG beside it; otherwise what differs.
    static QString compareRawWithPng(const QString &rawPath);

    // The suffixes of the two forms.
    static QString rawSuffix() { return QStringLiteral("argb32"); }
    static QString pngSuffix() { return QStringLiteral("png"); }

private:
    static QImage draw(int index, int width, int height);
};

#endif // RVOSAMPLEIMAGES_P_H
