#include "RvoUnits.h"

#include <QDateTime>
#include <QRegularExpression>

#include <cmath>
#include <limits>

namespace {

// Scales the number in the first capture by `unit`; -1 when it overflows.
qint64 scaled(const QString &number, qint64 unit)
{
    bool ok = false;
    const double value = number.toDouble(&ok);
    const double result = std::floor(value * double(unit));
    if (!ok || result < 0 || result >= double(std::numeric_limits<qint64>::max()))
        return -1;
    return qint64(result);
}

} // namespace

qint64 RvoUnits::parseSize(const QString &text)
{
    static const QRegularExpression shape(
            QStringLiteral("^(\\d+(?:\\.\\d+)?)\\s*([KMGT]?)(?:i?B)?$"),
            QRegularExpression::CaseInsensitiveOption);
    const QRegularExpressionMatch match = shape.match(text.trimmed());
    if (!match.hasMatch())
        return -1;
    const int power = QStringLiteral(" KMGT").indexOf(match.captured(2).toUpper(), 0);
    return scaled(match.captured(1), qint64(1) << (10 * qMax(power, 0)));
}

qint64 RvoUnits::parseAge(const QString &text)
{
    static const QRegularExpression shape(QStringLiteral("^(\\d+(?:\\.\\d+)?)\\s*([smhdw])$"),
                                          QRegularExpression::CaseInsensitiveOption);
    const QRegularExpressionMatch match = shape.match(text.trimmed());
    if (!match.hasMatch())
        return -1;
    static const qint64 seconds[] = {1, 60, 3600, 86400, 7 * 86400};
    const int unit = QStringLiteral("smhdw").indexOf(match.captured(2).toLower());
    return scaled(match.captured(1), seconds[unit] * 1000);
}

QString RvoUnits::bytes(qint64 bytes)
{
    if (bytes < 1024)
        return QStringLiteral("%1 B").arg(bytes);
    static const char *const units[] = {"KiB", "MiB", "GiB", "TiB", "PiB"};
    double value = double(bytes) / 1024;
    int unit = 0;
    while (value >= 1024 && unit < 4) {
        value /= 1024;
        ++unit;
    }
    return QStringLiteral("%1 %2").arg(value, 0, 'f', 1).arg(QLatin1String(units[unit]));
}

QString RvoUnits::localTime(qint64 ms)
{
    if (ms == 0)
        return QStringLiteral("-");
    return QDateTime::fromMSecsSinceEpoch(ms).toString(QStringLiteral("yyyy-MM-dd HH:mm"));
}

QString RvoUnits::isoTime(qint64 ms)
{
    if (ms == 0)
        return QString();
    return QDateTime::fromMSecsSinceEpoch(ms).toUTC().toString(Qt::ISODate);
}

QString RvoUnits::duration(qint64 seconds)
{
    if (seconds < 60)
        return QStringLiteral("%1s").arg(seconds);
    if (seconds < 3600)
        return QStringLiteral("%1m%2s")
                .arg(seconds / 60)
                .arg(seconds % 60, 2, 10, QLatin1Char('0'));
    return QStringLiteral("%1h%2m")
            .arg(seconds / 3600)
            .arg(seconds / 60 % 60, 2, 10, QLatin1Char('0'));
}
