#include "RvoOutputCapture_p.h"

#include <QByteArray>
#include <QDir>
#include <QFile>
#include <QString>

#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <unistd.h>

RvoOutputCapture::RvoOutputCapture()
{
    std::fflush(stdout);
    QByteArray path = QFile::encodeName(QDir::tempPath() + QStringLiteral("/rvoddi-output-XXXXXX"));
    m_FileFd = mkstemp(path.data());
    if (m_FileFd < 0)
        return;
    unlink(path.constData());
    m_SavedFd = dup(STDOUT_FILENO);
    if (m_SavedFd < 0 || dup2(m_FileFd, STDOUT_FILENO) < 0) {
        if (m_SavedFd >= 0)
            close(m_SavedFd);
        m_SavedFd = -1;
        close(m_FileFd);
        m_FileFd = -1;
    }
}

RvoOutputCapture::~RvoOutputCapture()
{
    stop();
}

void RvoOutputCapture::stop()
{
    if (m_SavedFd < 0)
        return;
    std::fflush(stdout);
    dup2(m_SavedFd, STDOUT_FILENO);
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
    m_Lines = QString::fromLocal8Bit(bytes).split(QLatin1Char('\n'));
    if (!m_Lines.isEmpty() && m_Lines.last().isEmpty())
        m_Lines.removeLast();
}

QStringList RvoOutputCapture::lines()
{
    stop();
    return m_Lines;
}
