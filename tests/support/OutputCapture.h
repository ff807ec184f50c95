#ifndef OUTPUTCAPTURE_H
#define OUTPUTCAPTURE_H

// Captures the library's two text channels for tests that assert on them:
// standard output (the report convention) and the "rvoddi" debug category.

#include <QString>
#include <QStringList>

// Redirects file descriptor 1 into a temporary file from construction until
// text() or destruction.
class StdoutCapture
{
public:
    StdoutCapture();
    ~StdoutCapture();
    StdoutCapture(const StdoutCapture &) = delete;
    StdoutCapture &operator=(const StdoutCapture &) = delete;

    // Ends the capture (once) and returns everything printed meanwhile.
    QString text();
    // The captured lines, without their newlines.
    QStringList lines();

private:
    void stop();

    int m_SavedFd = -1;
    int m_FileFd = -1;
    QString m_Text;
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
    int count(const QString &message) const;
};

#include <ostream>

// Readable QString values in GoogleTest failure messages.
inline void PrintTo(const QString &text, std::ostream *out)
{
    *out << '"' << text.toStdString() << '"';
}

#endif // OUTPUTCAPTURE_H
