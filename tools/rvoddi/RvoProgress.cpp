#include "RvoProgress.h"

#include "RvoUnits.h"

#include <cstdio>
#include <unistd.h>

RvoProgress::RvoProgress(const QString &title, qint64 totalCount, qint64 totalBytes, bool enabled)
    : m_Title(title)
    , m_TotalCount(totalCount)
    , m_TotalBytes(totalBytes)
    , m_Enabled(enabled && ::isatty(STDERR_FILENO))
{
    m_Clock.start();
}

RvoProgress::~RvoProgress()
{
    finish();
}

void RvoProgress::update(qint64 count, qint64 bytes)
{
    m_Count = count;
    m_Bytes = bytes;
    if (m_Enabled && (m_LastDrawMs < 0 || m_Clock.elapsed() - m_LastDrawMs >= 100))
        draw(false);
}

void RvoProgress::finish()
{
    if (!m_Enabled)
        return;
    draw(true);
    m_Enabled = false;
}

void RvoProgress::draw(bool done)
{
    const qint64 elapsedMs = m_Clock.elapsed();
    m_LastDrawMs = elapsedMs;
    const int percent = m_TotalCount > 0 ? int(m_Count * 100 / m_TotalCount) : 100;
    QString line = QStringLiteral("%1: %2% (%3/%4), %5")
                           .arg(m_Title)
                           .arg(percent, 3)
                           .arg(m_Count)
                           .arg(m_TotalCount)
                           .arg(RvoUnits::bytes(m_Bytes));
    // A rate needs some time behind it to mean anything.
    if (elapsedMs >= 100) {
        const double rate = double(m_Bytes) * 1000 / double(elapsedMs);
        line += QStringLiteral(" | %1/s").arg(RvoUnits::bytes(qint64(rate)));
        if (!done && rate > 0 && m_TotalBytes > m_Bytes)
            line += QStringLiteral(", ETA %1")
                            .arg(RvoUnits::duration(qint64((m_TotalBytes - m_Bytes) / rate) + 1));
    }
    if (done)
        line += QStringLiteral(", done.");
    // Spaces over what is left of a longer line before.
    const int length = int(line.size());
    line += QString(qMax(0, m_LastLength - length), QLatin1Char(' '));
    m_LastLength = length;
    const QByteArray bytes = line.toLocal8Bit() + (done ? '\n' : '\r');
    std::fwrite(bytes.constData(), 1, size_t(bytes.size()), stderr);
    std::fflush(stderr);
}
