#include "RvoBlockCodecSetting_p.h"

bool RvoBlockCodecSetting::parse(const QString &text, RvoBlockCodecSetting *setting, QString *error)
{
    const QString trimmed = text.trimmed().toLower();
    const int colon = int(trimmed.indexOf(QLatin1Char(':')));
    const QString kind = colon < 0 ? trimmed : trimmed.left(colon);
    const QString level = colon < 0 ? QString() : trimmed.mid(colon + 1);
    RvoBlockCodecSetting parsed;
    QString problem;
    if (kind.isEmpty() && colon < 0) {
        parsed = zlib();
    } else if (kind == QLatin1String("zstd")) {
        bool ok = colon < 0;
        const int n = ok ? kDefaultZstdLevel : level.toInt(&ok);
        if (!ok || n == 0 || n < kMinZstdLevel || n > kMaxZstdLevel)
            problem = QStringLiteral("its level must be a whole number from %1 to %2, not 0")
                              .arg(kMinZstdLevel)
                              .arg(kMaxZstdLevel);
        parsed = zstd(n);
    } else if (kind == QLatin1String("zlib") || kind == QLatin1String("lz4")) {
        if (colon >= 0)
            problem = QStringLiteral("%1 takes no level").arg(kind);
        parsed = kind == QLatin1String("lz4") ? lz4() : zlib();
    } else {
        problem = QStringLiteral("use zlib, lz4, zstd or zstd:LEVEL");
    }
    if (!problem.isEmpty()) {
        if (error)
            *error = QStringLiteral("Bad block codec '%1': %2").arg(text, problem);
        return false;
    }
    if (setting)
        *setting = parsed;
    return true;
}

QString RvoBlockCodecSetting::toString() const
{
    const QString name = QLatin1String(kindName(m_Kind));
    return m_Kind == Zstd ? name + QLatin1Char(':') + QString::number(m_Level) : name;
}

const char *RvoBlockCodecSetting::kindName(Kind kind)
{
    switch (kind) {
    case Zlib:
        break;
    case Lz4:
        return "lz4";
    case Zstd:
        return "zstd";
    }
    return "zlib";
}

RvoBlockCodecSetting RvoBlockCodecSetting::withShuffle(int element) const
{
    RvoBlockCodecSetting setting = *this;
    if (m_Kind != Zlib && element >= 1 && element <= kMaxShuffleElement)
        setting.m_Shuffle = element;
    return setting;
}
