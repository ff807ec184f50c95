// The timing checks: how fast this machine hashes, compresses, writes and
// reads blocks. Each also checks what it timed, so it fails when the work
// goes wrong, not when the machine is slow.

#include "RvoSelfCheckRun_p.h"

#include "RvoBlockCodec_p.h"
#include "RvoConstAccessor.h"
#include "RvoDataBlock.h"
#include "RvoDataBlockManager.h"
#include "RvoDataHash.h"
#include "RvoDataReference.h"
#include "RvoSelfCheckCache_p.h"

#include <QElapsedTimer>
#include <QThread>

#include <cstring>

namespace {

constexpr qint64 kMiB = 1048576;
// The amounts of a default run (scale 1).
constexpr qint64 kHashingBytes = 256 * kMiB;
constexpr qint64 kCompressionBytes = 32 * kMiB;
constexpr qint64 kWritingBytes = 64 * kMiB;
constexpr qint64 kReadingBytes = 64 * kMiB;
// The budget of the write and read timings: larger runs evict to disk.
constexpr qint64 kTimingBudget = 256 * kMiB;

double megabytesPerSecond(qint64 bytes, qint64 nanoseconds)
{
    return nanoseconds > 0 ? double(bytes) * 1e3 / double(nanoseconds) : 0.0;
}

QString rate(qint64 bytes, qint64 nanoseconds)
{
    return QStringLiteral("%1 MB/s").arg(megabytesPerSecond(bytes, nanoseconds), 0, 'f', 1);
}

QString blockRate(int blocks, qint64 nanoseconds)
{
    return QStringLiteral("%1 blocks/s")
            .arg(nanoseconds > 0 ? double(blocks) * 1e9 / double(nanoseconds) : 0.0, 0, 'f', 0);
}

bool sameBytes(const RvoConstAccessor &accessor, const QByteArray &expected)
{
    return !accessor.isNull() && accessor.size() == expected.size()
            && std::memcmp(accessor.data(), expected.constData(), size_t(expected.size())) == 0;
}

} // namespace

RvoSelfCheckRun::Result RvoSelfCheckRun::timeHashing()
{
    Result result;
    if (!haveSamples(&result))
        return result;
    const QVector<QByteArray> &blocks = m_Samples.blocks();
    const qint64 target = timingBytes(kHashingBytes);
    QVector<QByteArray> firstPass(blocks.size());
    qint64 done = 0;
    QElapsedTimer timer;
    timer.start();
    for (int i = 0; done < target; ++i) {
        const int b = i % int(blocks.size());
        const RvoDataHash digest(blocks.at(b), RvoDataHash::Skein512);
        const QByteArray bytes(reinterpret_cast<const char *>(digest.data()), digest.byteCount());
        if (i < blocks.size())
            firstPass[b] = bytes;
        else if (bytes != firstPass.at(b))
            return mismatch(QStringLiteral("the same digest on every pass"),
                            QStringLiteral("another on pass %1").arg(i / blocks.size() + 1),
                            m_Samples.origin(b));
        done += blocks.at(b).size();
    }
    const qint64 elapsed = timer.nsecsElapsed();
    return pass(QStringLiteral("%1 (Skein-512, %2 MB)")
                        .arg(rate(done, elapsed))
                        .arg(double(done) / 1e6, 0, 'f', 0));
}

RvoSelfCheckRun::Result RvoSelfCheckRun::timeCompression()
{
    Result result;
    if (!haveSamples(&result))
        return result;
    // The codec block files are written with: the host's setting, or
    // RVODDI_BLOCK_CODEC's once a cache was set up.
    RvoBlockCodecSetting setting;
    RvoBlockCodecSetting::parse(RvoDataBlockManager::instance().blockCodec(), &setting, nullptr);
    RvoBlockCodec codec(setting);
    const QVector<QByteArray> &blocks = m_Samples.blocks();
    const qint64 target = timingBytes(kCompressionBytes);
    qint64 done = 0;
    qint64 compressing = 0;
    qint64 uncompressing = 0;
    qint64 payloadBytes = 0;
    QElapsedTimer timer;
    QByteArray back;
    for (int i = 0; done < target; ++i) {
        const int b = i % int(blocks.size());
        const QByteArray &block = blocks.at(b);
        timer.start();
        const QByteArray payload = codec.compress(block.constData(), block.size());
        compressing += timer.nsecsElapsed();
        timer.start();
        const bool decoded
                = codec.uncompress(payload.constData(), payload.size(), block.size(), &back);
        uncompressing += timer.nsecsElapsed();
        if (!decoded || back != block)
            return mismatch(QStringLiteral("the bytes back"), QStringLiteral("others"),
                            m_Samples.origin(b));
        done += block.size();
        payloadBytes += payload.size();
    }
    const QString codecName = setting.kind() == RvoBlockCodecSetting::Zlib
            ? QStringLiteral("zlib, %1 level %2")
                      .arg(RvoBlockCodec::defaultEncoder() == RvoBlockCodec::Encoder::IsaL
                                   ? QStringLiteral("ISA-L")
                                   : QStringLiteral("libdeflate"))
                      .arg(RvoBlockCodec::level(RvoBlockCodec::defaultEncoder()))
            : setting.toString();
    return pass(
            QStringLiteral("%1 compressing, %2 uncompressing (%3, %4 % of the size, %5 MB)")
                    .arg(rate(done, compressing), rate(done, uncompressing), codecName)
                    .arg(done > 0 ? 100.0 * double(payloadBytes) / double(done) : 0.0, 0, 'f', 1)
                    .arg(double(done) / 1e6, 0, 'f', 0));
}

RvoSelfCheckRun::Result RvoSelfCheckRun::timeWriting()
{
    Result result;
    const std::unique_ptr<RvoSelfCheckCache> cache = openCache(&result, 1, kTimingBudget);
    if (!cache)
        return result;
    RvoDataBlockManager &manager = RvoDataBlockManager::instance();
    const qint64 target = timingBytes(kWritingBytes);

    // The way a host stores blocks: added without waiting for their digests,
    // held back while the write queues are full; done when all are on disk.
    QVector<RvoDataReference> references;
    qint64 done = 0;
    QElapsedTimer timer;
    timer.start();
    for (int i = 0; done < target; ++i) {
        const QByteArray bytes = variant(100000 + i);
        references << manager.addBlock(bytes, RvoModifyAccessor::CacheContent, false);
        done += bytes.size();
        while (manager.isWriteThreadsFull())
            QThread::msleep(1);
    }
    for (const RvoDataReference &reference : std::as_const(references)) {
        if (reference.hashPtr().isNull())
            return mismatch(QStringLiteral("a digest for every block"), QStringLiteral("none"));
    }
    manager.flush(true, RvoDataBlockManager::WriteThreads);
    const qint64 elapsed = timer.nsecsElapsed();
    const int files = cache->blockFileCount();
    if (files != references.size())
        return mismatch(QStringLiteral("%1 block files").arg(references.size()),
                        QString::number(files));
    return pass(QStringLiteral("%1, %2 (add, digest, compress, write; %3 MB)")
                        .arg(rate(done, elapsed), blockRate(int(references.size()), elapsed))
                        .arg(double(done) / 1e6, 0, 'f', 0));
}

RvoSelfCheckRun::Result RvoSelfCheckRun::timeReading()
{
    Result result;
    const std::unique_ptr<RvoSelfCheckCache> cache = openCache(&result, 1, kTimingBudget);
    if (!cache)
        return result;
    RvoDataBlockManager &manager = RvoDataBlockManager::instance();
    const qint64 target = timingBytes(kReadingBytes);

    // Written first, untimed.
    QVector<RvoDataReference> references;
    qint64 done = 0;
    for (int i = 0; done < target; ++i) {
        const QByteArray bytes = variant(200000 + i);
        references << manager.addBlock(bytes, RvoModifyAccessor::CacheContent, false);
        done += bytes.size();
        while (manager.isWriteThreadsFull())
            QThread::msleep(1);
    }
    for (const RvoDataReference &reference : std::as_const(references))
        reference.hashPtr();
    manager.flush(true, RvoDataBlockManager::AllThreads);
    manager.freeAllBlocks();

    // Each block read from its file, decoded and made live; only the reads
    // are timed, not the comparisons.
    qint64 elapsed = 0;
    QElapsedTimer timer;
    for (int i = 0; i < references.size(); ++i) {
        timer.start();
        const RvoConstAccessor accessor = references.at(i).constAccessor();
        elapsed += timer.nsecsElapsed();
        if (!sameBytes(accessor, variant(200000 + i)))
            return mismatch(QStringLiteral("the bytes written"),
                            accessor.isNull() ? QStringLiteral("no block")
                                              : QStringLiteral("others"),
                            QStringLiteral("block %1").arg(i));
    }
    return pass(QStringLiteral("%1, %2 (read, decode; %3 MB)")
                        .arg(rate(done, elapsed), blockRate(int(references.size()), elapsed))
                        .arg(double(done) / 1e6, 0, 'f', 0));
}
