#ifndef RVOUNITS_H
#define RVOUNITS_H

#include <QString>
#include <QtGlobal>

// Sizes and ages as an operator writes them and reads them.
//
// Sizes count in powers of 1024: "500M" is 500 MiB, "50G" 50 GiB; a plain
// number is bytes. Ages take a unit: "90s", "30m", "12h", "30d", "2w".
class RvoUnits
{
public:
    // Bytes, or -1 when the text is not a size.
    static qint64 parseSize(const QString &text);
    // Milliseconds, or -1 when the text is not an age.
    static qint64 parseAge(const QString &text);

    // "0 B", "512 B", "1.5 KiB", "300.2 MiB", "1.2 GiB".
    static QString bytes(qint64 bytes);
    // A moment in milliseconds since the epoch, in local time:
    // "2026-11-23 19:40"; "-" for 0.
    static QString localTime(qint64 ms);
    // The same in UTC for JSON: "2026-11-23T19:40:00Z"; empty for 0.
    static QString isoTime(qint64 ms);
    // A duration for an ETA: "42s", "3m05s", "2h01m".
    static QString duration(qint64 seconds);
};

#endif // RVOUNITS_H
