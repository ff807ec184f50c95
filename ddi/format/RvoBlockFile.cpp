#include "RvoBlockFile_p.h"

#include "RvoBlockCodec_p.h"
#include "RvoDataHash.h"

#include <QFile>
#include <QFileInfo>

#include <cstring>

const char *RvoBlockFile::faultText(Fault fault)
{
    switch (fault) {
    case Sound:
        return "sound";
    case Short:
        return "short";
    case Lengths:
        return "lengths";
    case Payload:
        return "payload";
    case Digest:
        return "digest";
    case Unreadable:
        return "unreadable";
    }
    return "unknown";
}

RvoBlockFile::Fault RvoBlockFile::parseHeader(const char *bytes, qint64 available,
                                              qint64 fileLength, Header *header)
{
    if (!bytes || available < kHeaderSize || fileLength < kHeaderSize)
        return Short;
    Header parsed;
    std::memcpy(&parsed.size, bytes, 8);
    std::memcpy(&parsed.payloadLength, bytes + 8, 4);
    if (header)
        *header = parsed;
    // The payload holds at least its own 4-byte length field.
    if (parsed.size < 0 || parsed.payloadLength < 4
        || fileLength != kHeaderSize + qint64(parsed.payloadLength))
        return Lengths;
    return Sound;
}

RvoBlockFile::Fault RvoBlockFile::decodePayload(RvoBlockCodec &codec, const char *payload,
                                                qint64 length, qint64 size, QByteArray *out)
{
    QByteArray bytes;
    if (!codec.uncompress(payload, length, size, &bytes)) {
        if (out)
            *out = QByteArray();
        return Payload;
    }
    if (out)
        *out = std::move(bytes);
    return Sound;
}

RvoBlockFile::Fault RvoBlockFile::decode(RvoBlockCodec &codec, const char *bytes, qint64 length,
                                         QByteArray *out, Header *header)
{
    Header parsed;
    Fault fault = parseHeader(bytes, length, length, &parsed);
    if (fault == Sound)
        fault = decodePayload(codec, bytes + kHeaderSize, parsed.payloadLength, parsed.size, out);
    else if (out)
        *out = QByteArray();
    if (fault == Sound && header)
        *header = parsed;
    return fault;
}

RvoBlockFile::Fault RvoBlockFile::verify(RvoBlockCodec &codec, const char *bytes, qint64 length,
                                         const QString &name, QByteArray *out, Header *header)
{
    QByteArray block;
    const Fault fault = decode(codec, bytes, length, &block, header);
    if (fault != Sound) {
        if (out)
            *out = QByteArray();
        return fault;
    }
    if (digestText(block.constData(), block.size()) != name) {
        if (out)
            *out = QByteArray();
        return Digest;
    }
    if (out)
        *out = std::move(block);
    return Sound;
}

RvoBlockFile::Fault RvoBlockFile::verifyFile(RvoBlockCodec &codec, const QString &path,
                                             QByteArray *out, Header *header, QString *error)
{
    QFile file(path);
    // Read, never mapped: a file cut short under a mapping would end the
    // process with SIGBUS.
    if (!file.open(QIODevice::ReadOnly)) {
        if (error)
            *error = file.errorString();
        return Unreadable;
    }
    const QByteArray bytes = file.readAll();
    if (file.error() != QFileDevice::NoError) {
        if (error)
            *error = file.errorString();
        return Unreadable;
    }
    return verify(codec, bytes.constData(), bytes.size(), QFileInfo(path).fileName(), out, header);
}

void RvoBlockFile::writeHeader(char *out, qint64 size, qint32 payloadLength)
{
    std::memcpy(out, &size, 8);
    std::memcpy(out + 8, &payloadLength, 4);
}

QString RvoBlockFile::digestText(const char *data, qint64 size)
{
    return RvoDataHash(reinterpret_cast<const unsigned char *>(data), size, RvoDataHash::Skein512)
            .toString();
}
