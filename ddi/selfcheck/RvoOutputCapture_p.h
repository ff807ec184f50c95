#ifndef RVOOUTPUTCAPTURE_P_H
#define RVOOUTPUTCAPTURE_P_H

#include <QStringList>

// Redirects the process's standard output (file descriptor 1, so the
// library's printf reports too) into a temporary file from construction
// until lines() or destruction. Captures nest: each restores what it found.
// When no temporary file can be made, nothing is captured.
//
// Threading: the redirection is process-wide. Other threads' output lands in
// the capture while it lasts; the self-check starts and stops captures only
// while none of its library threads runs.
class RvoOutputCapture
{
public:
    RvoOutputCapture();
    ~RvoOutputCapture();
    RvoOutputCapture(const RvoOutputCapture &) = delete;
    RvoOutputCapture &operator=(const RvoOutputCapture &) = delete;

    // Ends the capture (the first call) and returns the lines printed
    // meanwhile, without their newlines.
    QStringList lines();

private:
    void stop();

    int m_SavedFd = -1;
    int m_FileFd = -1;
    QStringList m_Lines;
};

#endif // RVOOUTPUTCAPTURE_P_H
