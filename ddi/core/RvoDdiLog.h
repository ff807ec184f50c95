#ifndef RVODDILOG_H
#define RVODDILOG_H

#include "RvoDdiGlobal.h"
#include "RvoDdiMutex.h"

#include <QFile>
#include <QString>

#include <atomic>

// The library's log file, "DdiLog.txt" in the block manager's sub-cache
// directory. Each entry is one line:
//     "[ I ] 14:03:59 message - file.cpp:123"
// Warnings are echoed to the debug channel; a fatal entry is echoed and then
// ends the process, but only while a log file is open.
//
// Threading: log() may be called from any thread; each entry is written as
// one uninterrupted line. setSubCache() and setEnabled() are configuration
// calls, normally made by the block manager's controlling thread.
class RVODDI_EXPORT RvoDdiLog
{
public:
    enum Level { Information = 0, Warning = 1, Fatal = 2 };

    // Created on first use, destroyed at process exit.
    static RvoDdiLog &instance();

    void setEnabled(bool enabled);
    bool enabled() const;

    // Points the log at "directory/DdiLog.txt", creating the directory if it
    // is missing and appending to an existing log. An empty directory closes
    // the log. Returns false when the directory or file cannot be made; the
    // log then stays closed until the next successful call.
    bool setSubCache(const QString &directory);

    // Writes one entry. Always returns true; nothing is written while the log
    // is disabled or closed (then not even a fatal entry ends the process).
    bool log(Level level, const char *file, int line, const QString &message);

    RvoDdiLog(const RvoDdiLog &) = delete;
    RvoDdiLog &operator=(const RvoDdiLog &) = delete;

private:
    RvoDdiLog();
    ~RvoDdiLog();

    // Lock order: a leaf, taken alone and never while calling out of the
    // log.
    RvoDdiMutex m_Lock;
    QFile m_File RVODDI_THREAD_ANNOTATION(guarded_by(m_Lock));
    std::atomic<bool> m_Enabled {true};
};

// Logs with the calling source position.
#define RVODDI_LOG(level, message) RvoDdiLog::instance().log((level), __FILE__, __LINE__, (message))

#endif // RVODDILOG_H
