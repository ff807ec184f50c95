#ifndef OUTPUTCAPTURE_H
#define OUTPUTCAPTURE_H

// Captures the library's two text channels for tests that assert on them:
// standard output (the report convention) through the library's own
// RvoOutputCapture, and the "rvoddi" debug category.

#include "RvoOutputCapture_p.h"

#include <QString>
#include <QStringList>

#include <ostream>

// Standard output, captured by the library's own class. GoogleTest prints
// a failed expectation there too: when the test has failed, the captured
// lines go to standard error at the end, so that the failure is not lost.
struct StdoutCapture : RvoOutputCapture
{
    ~StdoutCapture();
};

// Collects the messages of the "rvoddi" category while it lives; other
// messages go to the handler that was installed before.
class DebugCapture
{
public:
    DebugCapture();
    ~DebugCapture();
    DebugCapture(const DebugCapture &) = delete;
    DebugCapture &operator=(const DebugCapture &) = delete;

    QStringList messages() const;
    int count(const QString &message) const { return int(messages().count(message)); }
};

// Readable QString values in GoogleTest failure messages.
inline void PrintTo(const QString &text, std::ostream *out)
{
    *out << '"' << text.toStdString() << '"';
}

#endif // OUTPUTCAPTURE_H
