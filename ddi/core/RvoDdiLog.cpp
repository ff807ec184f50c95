#include "RvoDdiLog.h"

#include "RvoDdiDiagnostics_p.h"
#include "RvoDdiMutexLocker.h"

#include <QDir>
#include <QTime>

namespace {

const char *levelTag(RvoDdiLog::Level level)
{
    switch (level) {
    case RvoDdiLog::Information:
        return "[ I ] ";
    case RvoDdiLog::Warning:
        return "[ W ] ";
    case RvoDdiLog::Fatal:
        return "[ F ] ";
    }
    return "[ ? ] ";
}

} // namespace

RvoDdiLog::RvoDdiLog() = default;

RvoDdiLog::~RvoDdiLog() = default;

RvoDdiLog &RvoDdiLog::instance()
{
    static RvoDdiLog log;
    return log;
}

void RvoDdiLog::setEnabled(bool enabled)
{
    m_Enabled.store(enabled, std::memory_order_relaxed);
}

bool RvoDdiLog::enabled() const
{
    return m_Enabled.load(std::memory_order_relaxed);
}

bool RvoDdiLog::setSubCache(const QString &directory)
{
    if (!enabled())
        return true;

    // Taken although configuration runs before the IO threads log: it costs
    // nothing here and keeps a late log() from writing to a closing file.
    RvoDdiMutexLocker locker(&m_Lock);
    if (m_File.isOpen()) {
        m_File.flush();
        m_File.close();
    }
    if (directory.isEmpty())
        return true;

    if (!QDir(directory).exists() && !QDir().mkpath(directory)) {
        qCDebug(lcDdi,
                "[ !! ] Subcache Directory does not exist and cannot be created for logging");
        return false;
    }
    m_File.setFileName(directory + QStringLiteral("/DdiLog.txt"));
    if (!m_File.open(QIODevice::WriteOnly | QIODevice::Append | QIODevice::Text)) {
        qCDebug(lcDdi, "[ !! ] Cannot Open DDi Log %s", qPrintable(m_File.fileName()));
        return false;
    }
    return true;
}

bool RvoDdiLog::log(Level level, const char *file, int line, const QString &message)
{
    if (!enabled())
        return true;

    RvoDdiMutexLocker locker(&m_Lock);
    if (!m_File.isOpen())
        return true;

    const QString entry = QLatin1String(levelTag(level))
            + QTime::currentTime().toString(QStringLiteral("hh:mm:ss")) + QLatin1Char(' ') + message
            + QLatin1String(" - ") + QString::fromLocal8Bit(file ? file : "") + QLatin1Char(':')
            + QString::number(line);
    m_File.write(entry.toUtf8());
    m_File.write("\n");
    m_File.flush();

    if (level == Warning || level == Fatal)
        qCDebug(lcDdi, "%s", qPrintable(entry));
    if (level == Fatal)
        qFatal("DDI FATAL Error, aborting");
    return true;
}
