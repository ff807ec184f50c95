#ifndef RVOVERIFIER_H
#define RVOVERIFIER_H

#include "RvoBlockCodecSetting_p.h"
#include "RvoBlockFile_p.h"

#include <QString>
#include <QVector>

#include <functional>

// Checks block files on several threads: each file is read whole, its
// header checked against its length, its payload decoded and the Skein-512
// digest of the bytes compared with its name (RvoBlockFile::verifyFile).
//
// Threading: run() is called from one thread, which it blocks until every
// file is checked; it runs `jobs` threads of its own, each with its own
// codec, which take the files in order from a shared counter.
class RvoVerifier
{
public:
    struct Bad
    {
        QString path;
        RvoBlockFile::Fault fault = RvoBlockFile::Sound;
        QString error; // the system's reason for Unreadable
    };

    struct Result
    {
        qint64 checked = 0; // files checked (not those gone meanwhile)
        qint64 bytes = 0; // their lengths
        qint64 uncompressedBytes = 0; // their blocks' sizes, of the sound ones
        QVector<Bad> bad; // in the order of `paths`
        // The CPU time each thread spent, in seconds: how evenly the work
        // spread, whatever share of the cores the machine gave the run.
        QVector<double> threadCpuSeconds;
    };

    // Checks `paths` (with their lengths in `lengths`, for the progress) on
    // `jobs` threads. `progress` is called on the calling thread about every
    // 100 ms with the files and bytes done so far. A file that no longer
    // exists when its turn comes (deleted by a collector) is left out.
    static Result run(const QVector<QString> &paths, const QVector<qint64> &lengths, int jobs,
                      const std::function<void(qint64 count, qint64 bytes)> &progress = {});

    // The Size field of a block file `length` bytes long, read from its
    // header alone; -1 when the header cannot be read or is not sound. With
    // `kind`, also the codec its payload names (RvoBlockCodec::kindOf);
    // *known false when it names none.
    static qint64 blockSize(const QString &path, qint64 length,
                            RvoBlockCodecSetting::Kind *kind = nullptr, bool *known = nullptr);

    // A sentence for a fault: "the payload does not decode to the header's size".
    static QString reason(const Bad &bad);
};

#endif // RVOVERIFIER_H
