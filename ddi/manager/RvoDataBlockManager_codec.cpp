// The block codec setting: how new block files are written.

#include "RvoDataBlockManager_p.h"

#include "RvoDdiDiagnostics_p.h"
#include "RvoMutexLocker_p.h"

bool RvoDataBlockManager::Private::setBlockCodec(const QString &setting)
{
    RvoBlockCodecSetting parsed;
    QString error;
    if (!RvoBlockCodecSetting::parse(setting, &parsed, &error)) {
        rvoReport(error);
        return false;
    }
    RvoMutexLocker locker(m_CodecLock);
    m_BlockCodec = parsed;
    m_BlockCodecGiven = true;
    return true;
}

RvoBlockCodecSetting RvoDataBlockManager::Private::blockCodec() const
{
    RvoMutexLocker locker(m_CodecLock);
    return m_BlockCodec;
}

void RvoDataBlockManager::Private::readBlockCodecFromEnvironment()
{
    const QString text = qEnvironmentVariable("RVODDI_BLOCK_CODEC");
    RvoBlockCodecSetting parsed;
    QString error;
    const bool valid = RvoBlockCodecSetting::parse(text, &parsed, &error);
    {
        RvoMutexLocker locker(m_CodecLock);
        if (m_BlockCodecGiven)
            return;
        m_BlockCodec = parsed; // zlib when the text is invalid
    }
    // Reported outside the lock, a leaf.
    if (!valid)
        rvoReport(error + QStringLiteral(" (from RVODDI_BLOCK_CODEC; writing zlib)"));
}
