#ifndef CHILDPROCESS_H
#define CHILDPROCESS_H

#include <QString>
#include <QStringList>

#include <sys/types.h>

// A program that a test runs beside itself, started with a plain fork and
// exec. Not QProcess: it starts children with a vfork-like clone, whose
// child runs on the parent's memory and leaves ThreadSanitizer blind to the
// parent's locks afterwards.
//
// Threading: driven by the thread that starts it.
class ChildProcess
{
public:
    struct Options
    {
        QString directory; // the child's working directory; empty: ours
        QString output; // a file that gets its standard output and error
                        // (appended); empty: ours
        QStringList environment; // "NAME=value" entries added to ours
        bool dieWithThread = false; // SIGKILL when the starting thread ends
    };

    ChildProcess() = default;
    // Kills and reaps a child still running.
    ~ChildProcess();
    ChildProcess(const ChildProcess &) = delete;
    ChildProcess &operator=(const ChildProcess &) = delete;

    // False when the program cannot be started.
    bool start(const QString &program, const QStringList &arguments, const Options &options);
    // Reaps a child that ended by itself.
    bool isRunning() { return m_Pid > 0 && !waitForFinished(0); }
    // True when the child ended within `ms` milliseconds.
    bool waitForFinished(int ms);
    // The exit status of an ended child; -1 when a signal ended it.
    int exitCode() const { return m_ExitCode; }
    void signal(int number);
    pid_t pid() const { return m_Pid; }

private:
    pid_t m_Pid = -1;
    int m_ExitCode = -1;
};

#endif // CHILDPROCESS_H
