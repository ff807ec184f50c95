#ifndef RVOBLOCKFILE_P_H
#define RVOBLOCKFILE_P_H

#include <QByteArray>
#include <QString>
#include <QtGlobal>

class RvoBlockCodec;

// What a sound block file is, in one place: the read thread, the rvoddi
// command, the fault tests and the fuzz targets all check files through it.
//
//     offset 0   qint64  Size       uncompressed size of the block
//     offset 8   qint32  BlockSize  payload length
//     offset 12  payload            4-byte big-endian length, then a zlib
//                                   stream (qCompress's format), an LZ4
//                                   block or a Zstandard frame, each of
//                                   which names itself (RvoBlockCodec)
//
// Block files appear under their final name only complete (written aside,
// then renamed), so a file whose length is not exactly 12 + BlockSize is
// damaged, not still being written: nothing here waits for more bytes.
//
// Threading: pure functions; the codec passed in is the caller's own.
class RvoBlockFile
{
public:
    // Why a file is refused; Sound when it is not.
    enum Fault {
        Sound = 0,
        Short, // shorter than its header
        Lengths, // the header disagrees with itself or with the file's length
        Payload, // the payload does not decode to exactly Size bytes
        Digest, // the bytes do not hash to the file's name
        Unreadable, // the file cannot be opened or read
    };
    // A word for reports: "short", "lengths", "payload", "digest", "unreadable".
    static const char *faultText(Fault fault);

    struct Header
    {
        qint64 size = 0; // Size: the block's uncompressed size
        qint32 payloadLength = 0; // BlockSize
    };

    static constexpr int kHeaderSize = 12;

    // Reads the header from the first `available` bytes at `bytes` of a file
    // `fileLength` bytes long. Short with fewer than 12 bytes; Lengths when
    // Size is negative, BlockSize cannot hold the payload's own 4-byte length
    // field, or the file is not 12 + BlockSize bytes long. With 12 bytes the
    // fields as read are in *header even when refused, for the report.
    static Fault parseHeader(const char *bytes, qint64 available, qint64 fileLength,
                             Header *header);
    // Decodes a payload that must hold exactly `size` bytes into *out
    // (empty on a fault).
    static Fault decodePayload(RvoBlockCodec &codec, const char *payload, qint64 length,
                               qint64 size, QByteArray *out);
    // A whole file's bytes: the header, then the payload.
    static Fault decode(RvoBlockCodec &codec, const char *bytes, qint64 length, QByteArray *out,
                        Header *header = nullptr);
    // decode(), and the text form of the Skein-512 digest of the decoded
    // bytes must be `name`.
    static Fault verify(RvoBlockCodec &codec, const char *bytes, qint64 length, const QString &name,
                        QByteArray *out = nullptr, Header *header = nullptr);
    // Reads the file at `path` whole and verifies it against its own file
    // name. Unreadable, with the system's reason in *error, when it cannot be
    // opened or read.
    static Fault verifyFile(RvoBlockCodec &codec, const QString &path, QByteArray *out = nullptr,
                            Header *header = nullptr, QString *error = nullptr);

    // The 12 header bytes for a block of `size` bytes and its payload.
    static void writeHeader(char *out, qint64 size, qint32 payloadLength);
    // The text form of the Skein-512 digest of `size` bytes at `data` (a
    // block file's name), computed without the registry.
    static QString digestText(const char *data, qint64 size);
};

#endif // RVOBLOCKFILE_P_H
