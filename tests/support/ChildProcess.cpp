#include "ChildProcess.h"

#include <QFile>
#include <QThread>

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

ChildProcess::~ChildProcess()
{
    signal(SIGKILL); // nothing once reaped
    waitForFinished(10000);
}

bool ChildProcess::start(const QString &program, const QStringList &arguments,
                         const Options &options)
{
    // Everything the child needs is made before the fork: after it, only
    // async-signal-safe calls.
    std::vector<std::string> strings {QFile::encodeName(program).toStdString()};
    for (const QString &argument : arguments)
        strings.push_back(argument.toStdString());
    std::vector<char *> argv;
    for (std::string &s : strings)
        argv.push_back(s.data());
    argv.push_back(nullptr);
    std::vector<std::string> variables;
    for (const QString &entry : options.environment)
        variables.push_back(entry.toStdString());
    const std::string directory = QFile::encodeName(options.directory).toStdString();
    const int output = options.output.isEmpty()
            ? -1
            : ::open(QFile::encodeName(options.output).constData(),
                     O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    const pid_t parent = ::getpid();

    m_ExitCode = -1;
    m_Pid = ::fork();
    if (m_Pid == 0) {
        if (options.dieWithThread) {
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);
            if (::getppid() != parent)
                ::_exit(127);
        }
        if (output >= 0) {
            ::dup2(output, 1);
            ::dup2(output, 2);
        }
        if (!directory.empty() && ::chdir(directory.c_str()) != 0)
            ::_exit(127);
        for (std::string &variable : variables)
            ::putenv(variable.data());
        ::execv(argv[0], argv.data());
        ::_exit(127);
    }
    if (output >= 0)
        ::close(output);
    return m_Pid > 0;
}

bool ChildProcess::waitForFinished(int ms)
{
    if (m_Pid <= 0)
        return true;
    for (int waited = 0;; waited += 5) {
        int status = 0;
        if (::waitpid(m_Pid, &status, WNOHANG) == m_Pid) {
            m_ExitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
            m_Pid = -1;
            return true;
        }
        if (waited >= ms)
            return false;
        QThread::msleep(5);
    }
}

void ChildProcess::signal(int number)
{
    if (m_Pid > 0)
        ::kill(m_Pid, number);
}
