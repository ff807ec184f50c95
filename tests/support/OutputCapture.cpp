#include "OutputCapture.h"

#include <QByteArray>
#include <QMutex>
#include <QMutexLocker>
#include <QtGlobal>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

StdoutCapture::StdoutCapture()
{
    std::fflush(stdout);
    char path[] = "/tmp/rvoddi-stdout-XXXXXX";
    m_FileFd = mkstemp(path);
    if (m_FileFd < 0)
        return;
    unlink(path);
    m_SavedFd = dup(1);
    dup2(m_FileFd, 1);
}

StdoutCapture::~StdoutCapture()
{
    stop();
}

void StdoutCapture::stop()
{
    if (m_SavedFd < 0)
        return;
    std::fflush(stdout);
    dup2(m_SavedFd, 1);
    close(m_SavedFd);
    m_SavedFd = -1;

    QByteArray bytes;
    lseek(m_FileFd, 0, SEEK_SET);
    char buffer[4096];
    ssize_t n;
    while ((n = read(m_FileFd, buffer, sizeof buffer)) > 0)
        bytes.append(buffer, int(n));
    close(m_FileFd);
    m_FileFd = -1;
    m_Text = QString::fromLocal8Bit(bytes);
}

QString StdoutCapture::text()
{
    stop();
    return m_Text;
}

QStringList StdoutCapture::lines()
{
    QStringList result = text().split(QLatin1Char('\n'));
    if (!result.isEmpty() && result.last().isEmpty())
        result.removeLast();
    return result;
}

namespace {

QMutex g_Lock;
QStringList g_Messages;
QtMessageHandler g_Previous = nullptr;

void collect(QtMsgType type, const QMessageLogContext &context, const QString &message)
{
    if (context.category && std::strcmp(context.category, "rvoddi") == 0) {
        QMutexLocker locker(&g_Lock);
        g_Messages.append(message);
        return;
    }
    if (g_Previous)
        g_Previous(type, context, message);
}

} // namespace

DebugCapture::DebugCapture()
{
    QMutexLocker locker(&g_Lock);
    g_Messages.clear();
    g_Previous = qInstallMessageHandler(collect);
}

DebugCapture::~DebugCapture()
{
    qInstallMessageHandler(g_Previous);
}

QStringList DebugCapture::messages() const
{
    QMutexLocker locker(&g_Lock);
    return g_Messages;
}

int DebugCapture::count(const QString &message) const
{
    QMutexLocker locker(&g_Lock);
    return int(g_Messages.count(message));
}
